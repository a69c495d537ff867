// qel-subreaper: runs a command as a child subreaper (prctl
// PR_SET_CHILD_SUBREAPER), so that processes its command leaves behind - a
// daemon whose parent exited - become its children instead of init's, and
// their exit statuses can be seen, as a service manager sees them.
//
//   qel-subreaper STATUSFILE COMMAND [ARGS...]
//
// Appends one line per process that ends, as it ends: "pid N exit S" or
// "pid N signal S" (the command's own line first says "command"), flushed at
// once. Returns when no child is left, with the command's exit status.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: qel-subreaper STATUSFILE COMMAND [ARGS...]\n");
        return 2;
    }
    std::FILE* out = std::fopen(argv[1], "a");
    if (out == nullptr) {
        std::fprintf(stderr, "qel-subreaper: %s: %s\n", argv[1], std::strerror(errno));
        return 2;
    }
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        std::fprintf(stderr, "qel-subreaper: prctl: %s\n", std::strerror(errno));
        return 2;
    }
    const pid_t command = ::fork();
    if (command < 0) return 2;
    if (command == 0) {
        std::fclose(out);
        ::execvp(argv[2], argv + 2);
        std::fprintf(stderr, "qel-subreaper: %s: %s\n", argv[2], std::strerror(errno));
        ::_exit(127);
    }
    int commandStatus = 127;
    for (;;) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        if (pid < 0) {
            if (errno == EINTR) continue;
            break;  // ECHILD: nobody left
        }
        const char* who = pid == command ? "command " : "";
        if (WIFEXITED(status))
            std::fprintf(out, "%spid %d exit %d\n", who, static_cast<int>(pid), WEXITSTATUS(status));
        else
            std::fprintf(out, "%spid %d signal %d\n", who, static_cast<int>(pid), WTERMSIG(status));
        std::fflush(out);
        if (pid == command) commandStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::fclose(out);
    return commandStatus;
}
