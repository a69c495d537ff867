// Cost of one inventory snapshot (QelIp construction) on hosts with 10, 100
// and 1,000 interfaces, next to the cost of `ip -j addr show` on the same
// namespace, measured in the same run.
//
// Each size gets a network namespace of its own: one veth end carrying that
// many macvlans, each with an IPv4 and a global IPv6 address (lo stays down).
// Needs root. Counters:
//   listed   records in the inventory (SIOCGIFCONF stops after 513 entries)
//   ip_ms    mean wall time of `ip -n NS -j addr show >/dev/null`
//   qel_ms   mean wall time of one QelIp construction
//   ratio    qel_ms / ip_ms
#include <benchmark/benchmark.h>
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
#include "qelIp.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

qelTest::NetNamespace& namespaceWith(int count) {
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

// Mean seconds of `ip -n NS -j addr show`, its output thrown away.
double timeIpCommand(const qelTest::NetNamespace& ns, int runs) {
    std::string nsName = ns.name();
    std::vector<std::string> words = {"ip", "-n", nsName, "-j", "addr", "show"};
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    const auto start = Clock::now();
    for (int i = 0; i < runs; ++i) {
        pid_t pid;
        if (posix_spawnp(&pid, "ip", &actions, nullptr, argv.data(), environ) != 0)
            throw std::runtime_error("cannot start ip");
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("ip failed");
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

void BM_QelIpConstruct(benchmark::State& state) {
    const std::string problem = qelTest::rootProblem();
    if (!problem.empty()) {
        state.SkipWithError(problem.c_str());
        return;
    }
    const int count = static_cast<int>(state.range(0));
    qelTest::NetNamespace& ns = namespaceWith(count);
    const double ipSeconds = timeIpCommand(ns, count >= 1000 ? 10 : 30);

    InNamespace inside(ns);
    unsigned listed = 0;
    long iterations = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        qelIp::QelIp ip;
        listed = ip.numberOfInterfaces;
        benchmark::DoNotOptimize(listed);
        ++iterations;
    }
    const double qelSeconds =
        std::chrono::duration<double>(Clock::now() - start).count() / static_cast<double>(iterations);
    state.counters["listed"] = listed;
    state.counters["ip_ms"] = ipSeconds * 1e3;
    state.counters["qel_ms"] = qelSeconds * 1e3;
    state.counters["ratio"] = qelSeconds / ipSeconds;
}
BENCHMARK(BM_QelIpConstruct)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace
