// The simulated controller as a process of its own in tests: a temporary
// directory for its socket, one qel-bmcsim process waited for through its
// ready descriptor (no sleeping), and uninstrumented tools (ipmitool,
// ipmi-fru) run against it through the preload library that stands in for
// /dev/ipmi0. The preload library is never instrumented, so all of this also
// runs in sanitizer builds.
//
// The test program's target defines QEL_BMCSIM_PATH and QEL_PRELOAD_PATH
// (tests/CMakeLists.txt).
#ifndef QEL_TEST_BMCSIM_PROCESS_H
#define QEL_TEST_BMCSIM_PROCESS_H

#if !defined(QEL_BMCSIM_PATH) || !defined(QEL_PRELOAD_PATH)
#error "bmcsimProcess.h needs QEL_BMCSIM_PATH and QEL_PRELOAD_PATH from the test's target"
#endif

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern char** environ;

namespace bmcsimTest {

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The exit status, or 128 + the signal that ended the process.
inline int waitExit(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Reads everything from `fd` until the writers close it.
inline std::string drain(int fd) {
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) != 0) {
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        text.append(buffer, static_cast<std::size_t>(n));
    }
    return text;
}

// Starts `argv` (argv[0] a path) with standard error appended to
// `stderrPath`, standard output into `stdoutFd` (or inherited) and `readyFd`
// as descriptor 3 (or none): the process id, or -1.
inline pid_t spawn(const std::vector<std::string>& argv, const std::string& stderrPath,
                   int stdoutFd = -1, int readyFd = -1) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (stdoutFd >= 0) posix_spawn_file_actions_adddup2(&actions, stdoutFd, 1);
    if (readyFd >= 0) posix_spawn_file_actions_adddup2(&actions, readyFd, 3);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

// A directory of its own for one test, removed afterwards. Short, since a
// socket path must fit in 108 bytes.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/qelbmcXXXXXX";
        path_ = ::mkdtemp(name) ? name : "";
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool ok() const { return !path_.empty(); }
    std::string operator/(const std::string& file) const { return path_ + "/" + file; }

private:
    std::string path_;
};

// One qel-bmcsim process on a socket in `dir`, started with `extra`
// arguments (e.g. "--config", a file) and waited for through its ready
// descriptor; ended with SIGTERM at the latest on destruction.
class BmcSim {
public:
    explicit BmcSim(const TempDir& dir, std::vector<std::string> extra = {},
                    const std::string& socketName = "bmc.sock")
        : socket_(dir / socketName), stderr_(dir / (socketName + ".err")) {
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) < 0) return;
        std::vector<std::string> argv = {QEL_BMCSIM_PATH, "--socket", socket_, "--ready-fd", "3"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        pid_ = spawn(argv, stderr_, -1, ready[1]);
        ::close(ready[1]);
        ready_ = pid_ > 0 && drain(ready[0]) == "ready\n";
        ::close(ready[0]);
    }
    ~BmcSim() {
        if (pid_ > 0) stop(SIGTERM);
    }
    BmcSim(const BmcSim&) = delete;
    BmcSim& operator=(const BmcSim&) = delete;

    bool ready() const { return ready_; }
    const std::string& socket() const { return socket_; }
    pid_t pid() const { return pid_; }
    // What the process wrote to standard error.
    std::string errors() const { return readFile(stderr_); }
    // Sends `signal` (none for 0) and waits: the exit status.
    int stop(int signal) {
        if (pid_ <= 0) return -1;
        if (signal != 0) ::kill(pid_, signal);
        int status = waitExit(pid_);
        pid_ = -1;
        return status;
    }

private:
    std::string socket_;
    std::string stderr_;
    pid_t pid_ = -1;
    bool ready_ = false;
};

struct ToolRun {
    int status = -1;  // exit status; -1 when the tool did not run
    std::string out;
    std::string err;
    std::string command;  // the command line, for failure messages
};

// Runs an uninstrumented tool: `program` is a path or a name looked up in
// $PATH. With `socket`, the preload library stands in for /dev/ipmi0 and
// serves the controller behind `socket`. TZ is UTC so dates (a FRU's
// manufacturing date) print the same everywhere.
inline ToolRun runTool(const TempDir& dir, const std::string& program, std::vector<std::string> args,
                       const std::string& socket = "") {
    ToolRun run;
    run.command = program;
    for (const std::string& a : args) run.command += " " + a;
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        if (entry.rfind("LD_PRELOAD=", 0) != 0 && entry.rfind("QEL_BMCSIM_SOCKET=", 0) != 0 &&
            entry.rfind("TZ=", 0) != 0)
            env.push_back(entry);
    }
    env.push_back("TZ=UTC");
    if (!socket.empty()) {
        env.push_back("QEL_BMCSIM_SOCKET=" + socket);
        env.push_back(std::string("LD_PRELOAD=") + QEL_PRELOAD_PATH);
    }
    std::vector<char*> envp;
    for (std::string& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);

    int out[2];
    if (::pipe2(out, O_CLOEXEC) < 0) return run;
    const std::string errPath = dir / "tool.err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (rc != 0) {
        ::close(out[0]);
        run.err = program + " cannot be started: " + std::strerror(rc);
        return run;
    }
    run.out = drain(out[0]);
    ::close(out[0]);
    run.status = waitExit(pid);
    run.err = readFile(errPath);
    return run;
}

}  // namespace bmcsimTest

#endif
