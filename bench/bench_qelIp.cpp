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

#include <chrono>
#include <string>

#include "netnsBench.h"
#include "qelIp.h"

namespace {

using qelBench::Clock;

void BM_QelIpConstruct(benchmark::State& state) {
    const std::string problem = qelTest::rootProblem();
    if (!problem.empty()) {
        state.SkipWithError(problem.c_str());
        return;
    }
    const int count = static_cast<int>(state.range(0));
    qelTest::NetNamespace& ns = qelBench::namespaceWith(count);
    const double ipSeconds = qelBench::timeIpCommand(ns, count >= 1000 ? 10 : 30);

    qelBench::InNamespace inside(ns);
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
