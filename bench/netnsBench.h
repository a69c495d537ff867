// Network namespaces of a given size for the inventory benchmarks, and the
// cost of `ip -j addr show` on them, so each benchmark puts its figure next to
// the tool's in the same run.
//
// A namespace of size N: one veth end carrying N macvlans, each with an IPv4
// and a global IPv6 address (lo stays down). Made once per size and process.
#ifndef QEL_BENCH_NETNS_H
#define QEL_BENCH_NETNS_H

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "../tests/support/netns.h"

extern char** environ;

namespace qelBench {

using Clock = std::chrono::steady_clock;

inline qelTest::NetNamespace& namespaceWith(int count) {
    static std::map<int, std::unique_ptr<qelTest::NetNamespace>> made;
    auto& slot = made[count];
    if (!slot) {
        slot = std::make_unique<qelTest::NetNamespace>();
        std::vector<std::string> lines = {"link add name base type veth peer name basep"};
        for (int i = 0; i < count; ++i) {
            const std::string name = "m" + std::to_string(i);
            lines.push_back("link add name " + name + " link base type macvlan mode bridge");
            lines.push_back("addr add 198.18." + std::to_string(i / 250) + "." +
                            std::to_string(i % 250 + 1) + "/16 dev " + name);
            lines.push_back("addr add 2001:db8:" + std::to_string(i / 250) + "::" +
                            std::to_string(i % 250 + 1) + "/64 dev " + name + " nodad");
        }
        slot->batch(lines);
    }
    return *slot;
}

// Mean seconds of one run of `words` (a program and its arguments), its
// output thrown away.
inline double timeCommand(std::vector<std::string> words, int runs) {
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    const auto start = Clock::now();
    for (int i = 0; i < runs; ++i) {
        pid_t pid;
        if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
            throw std::runtime_error("cannot start " + words[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(words[0] + " failed");
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    posix_spawn_file_actions_destroy(&actions);
    return seconds / runs;
}

// Moves the calling thread into the namespace and back.
class InNamespace {
public:
    explicit InNamespace(const qelTest::NetNamespace& ns) {
        home_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        const int target = open(("/var/run/netns/" + ns.name()).c_str(), O_RDONLY | O_CLOEXEC);
        if (home_ < 0 || target < 0 || setns(target, CLONE_NEWNET) != 0)
            throw std::runtime_error("cannot enter namespace " + ns.name());
        close(target);
    }
    ~InNamespace() {
        if (setns(home_, CLONE_NEWNET) != 0) std::perror("setns back");
        close(home_);
    }

private:
    int home_ = -1;
};

// Mean seconds of `ip -n NS -j addr show`, its output thrown away.
inline double timeIpCommand(const qelTest::NetNamespace& ns, int runs) {
    return timeCommand({"ip", "-n", ns.name(), "-j", "addr", "show"}, runs);
}

}  // namespace qelBench

#endif
