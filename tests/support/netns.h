// Throw-away network namespaces for tests and benchmarks that need a real
// kernel with interfaces of their own.
//
// - NetNamespace creates "qel-<pid>-<n>" with `ip netns add` and deletes it in
//   its destructor, so a failing test still cleans up. Names carry the pid,
//   so parallel runs do not collide.
// - Links and addresses are added with `ip -n NAME -batch`, one fork for many
//   commands (hundreds of links take well under a second).
// - runInNamespace() runs a function on a dedicated thread that has entered
//   the namespace with setns(2). setns(CLONE_NEWNET) moves only the calling
//   thread, and that thread ends when the function returns, so the rest of
//   the process never leaves the host namespace, whatever fails. Sockets keep
//   the namespace they were created in, so objects built there may be used
//   afterwards from any thread.
// All of this needs root (CAP_SYS_ADMIN and CAP_NET_ADMIN); requireRoot()
// says so clearly instead of letting the tests pass without doing anything.
#ifndef QEL_TEST_NETNS_H
#define QEL_TEST_NETNS_H

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qelTest {

// Empty when the tests can create namespaces, else why not.
inline std::string rootProblem() {
    if (geteuid() != 0)
        return "network namespace tests need root (CAP_SYS_ADMIN, CAP_NET_ADMIN); running as uid " +
               std::to_string(geteuid());
    if (std::system("ip -V >/dev/null 2>&1") != 0) return "the `ip` command (iproute2) is missing";
    return "";
}

// Runs a shell command and returns its standard output; throws when it fails.
inline std::string runCommand(const std::string& command) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("popen failed for: " + command);
    std::string output;
    char chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) output.append(chunk, n);
    const int status = pclose(pipe);
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("command failed (" + std::to_string(status) + "): " + command +
                                 "\n" + output.substr(0, 2000));
    return output;
}

class NetNamespace {
public:
    NetNamespace() {
        removeOrphans();
        static std::atomic<unsigned> counter{0};
        name_ = "qel-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
        runCommand("ip netns add " + name_);
        created_ = true;
        // No automatic link-local addresses: they would appear whenever the
        // kernel gets round to it, and the tests add the ones they want.
        runCommand("ip netns exec " + name_ +
                   " sh -c 'echo 1 > /proc/sys/net/ipv6/conf/default/addr_gen_mode;"
                   " echo 1 > /proc/sys/net/ipv6/conf/all/addr_gen_mode'");
    }
    ~NetNamespace() {
        if (created_) {
            const std::string command = "ip netns del " + name_ + " >/dev/null 2>&1";
            if (std::system(command.c_str()) != 0)
                std::fprintf(stderr, "warning: could not delete namespace %s\n", name_.c_str());
        }
    }
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;

    const std::string& name() const { return name_; }

    // Runs `ip -n NAME -batch` over the given lines ("link add ...").
    void batch(const std::vector<std::string>& lines) const {
        char path[] = "/tmp/qel-netns-batch-XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0) throw std::runtime_error("mkstemp failed");
        ::close(fd);
        {
            std::ofstream out(path);
            for (const std::string& line : lines) out << line << '\n';
        }
        try {
            runCommand("ip -n " + name_ + " -batch " + path);
        } catch (...) {
            ::unlink(path);
            throw;
        }
        ::unlink(path);
    }
    void run(const std::string& line) const { batch({line}); }

    // `ip -j ARGS` in the namespace.
    std::string ipJson(const std::string& arguments) const {
        return runCommand("ip -n " + name_ + " -j " + arguments);
    }

private:
    std::string name_;
    bool created_ = false;

    // Namespaces left by a test process that died before its destructors
    // ran (a sanitizer abort, a kill): "qel-<pid>-<n>" whose pid is gone.
    static void removeOrphans() {
        DIR* dir = opendir("/var/run/netns");
        if (dir == nullptr) return;
        std::vector<std::string> orphans;
        while (struct dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.compare(0, 4, "qel-") != 0) continue;
            const long pid = std::strtol(name.c_str() + 4, nullptr, 10);
            if (pid > 0 && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
                orphans.push_back(name);
        }
        closedir(dir);
        for (const std::string& name : orphans) {
            const std::string command = "ip netns del " + name + " >/dev/null 2>&1";
            if (std::system(command.c_str()) != 0)
                std::fprintf(stderr, "warning: could not delete orphaned namespace %s\n", name.c_str());
        }
    }
};

// Runs `function` on a thread that entered the namespace and returns its result.
template <typename Function>
auto runInNamespace(const NetNamespace& ns, Function function) -> decltype(function()) {
    using Result = decltype(function());
    std::exception_ptr failure;
    Result result{};
    std::thread worker([&] {
        try {
            const std::string path = "/var/run/netns/" + ns.name();
            const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0) throw std::runtime_error("open " + path + ": " + std::strerror(errno));
            const int rc = ::setns(fd, CLONE_NEWNET);
            const int setnsErrno = errno;
            ::close(fd);
            if (rc != 0) throw std::runtime_error("setns: " + std::string(std::strerror(setnsErrno)));
            result = function();
        } catch (...) {
            failure = std::current_exception();
        }
    });
    worker.join();
    if (failure) std::rethrow_exception(failure);
    return result;
}

}  // namespace qelTest

#endif
