// qel-syslog-sink: a stand-in for the system logger in process-level tests.
//
//   qel-syslog-sink SOCKET LOGFILE PIDFILE
//
// Binds a datagram socket at SOCKET (what syslog(3) sends to at /dev/log),
// then goes to the background and returns once it listens, so a test can log
// at once. Every datagram becomes one line of LOGFILE as it arrived
// ("<PRI>Mmm dd hh:mm:ss IDENT[PID]: text"; line feeds inside become "\n"),
// written and flushed at once. SIGTERM ends it and removes SOCKET and PIDFILE.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

volatile sig_atomic_t stop = 0;
extern "C" void onTerm(int) { stop = 1; }

int fail(const std::string& what) {
    std::fprintf(stderr, "qel-syslog-sink: %s: %s\n", what.c_str(), std::strerror(errno));
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: qel-syslog-sink SOCKET LOGFILE PIDFILE\n");
        return 2;
    }
    const std::string socketPath = argv[1], logPath = argv[2], pidPath = argv[3];
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof addr.sun_path) return fail("socket path too long");
    std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
    ::unlink(socketPath.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return fail("socket");
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) return fail("bind " + socketPath);
    // Anyone may log, as at the real /dev/log.
    ::chmod(socketPath.c_str(), 0666);
    std::FILE* log = std::fopen(logPath.c_str(), "a");
    if (log == nullptr) return fail("open " + logPath);

    int ready[2];
    if (::pipe(ready) < 0) return fail("pipe");
    const pid_t child = ::fork();
    if (child < 0) return fail("fork");
    if (child > 0) {
        ::close(ready[1]);
        char c = 0;
        const ssize_t n = ::read(ready[0], &c, 1);
        return n == 1 ? 0 : 1;
    }
    ::close(ready[0]);
    ::setsid();
    struct sigaction sa {};
    sa.sa_handler = onTerm;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGINT, &sa, nullptr);
    if (std::FILE* pid = std::fopen(pidPath.c_str(), "w")) {
        std::fprintf(pid, "%d\n", static_cast<int>(::getpid()));
        std::fclose(pid);
    }
    int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
        ::dup2(null, 0);
        ::dup2(null, 1);
    }
    if (::write(ready[1], "r", 1) != 1) return 1;
    ::close(ready[1]);

    char buffer[8192];
    while (!stop) {
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        std::string line;
        for (ssize_t i = 0; i < n; ++i) {
            if (buffer[i] == '\n') line += "\\n";
            else if (buffer[i] != '\0') line += buffer[i];
        }
        std::fprintf(log, "%s\n", line.c_str());
        std::fflush(log);
    }
    std::fclose(log);
    ::unlink(socketPath.c_str());
    ::unlink(pidPath.c_str());
    return 0;
}
