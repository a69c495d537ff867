// Cost of one complete inventory (QelHostInventory) on hosts with 10, 100 and
// 1,000 interfaces, in process and as a whole process (qel-inventory-dump),
// each next to `ip -j addr show` on the same namespace in the same run.
// Needs root. Counters:
//   listed   interfaces in the inventory
//   ip_ms    mean wall time of `ip -n NS -j addr show >/dev/null`
//   qel_ms   mean wall time of one inventory (in process) or one run of
//            `qel-inventory-dump --netns NS >/dev/null` (process)
//   ratio    qel_ms / ip_ms
// and for whole processes also:
//   static_ms     the same program linked statically (no dynamic loading)
//   static_ratio  static_ms / ip_ms
//   start_ms      one run of /bin/true: the floor of any process here
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include "netnsBench.h"
#include "qelHostInventory.h"

namespace {

using qelBench::Clock;

bool haveRoot(benchmark::State& state) {
    const std::string problem = qelTest::rootProblem();
    if (problem.empty()) return true;
    state.SkipWithError(problem.c_str());
    return false;
}

void BM_HostInventoryInProcess(benchmark::State& state) {
    if (!haveRoot(state)) return;
    const int count = static_cast<int>(state.range(0));
    qelTest::NetNamespace& ns = qelBench::namespaceWith(count);
    const double ipSeconds = qelBench::timeIpCommand(ns, count >= 1000 ? 10 : 30);

    qelBench::InNamespace inside(ns);
    size_t listed = 0;
    long iterations = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        qelHostInventory::QelHostInventory inventory;
        listed = inventory.interfaces().size();
        benchmark::DoNotOptimize(listed);
        ++iterations;
    }
    const double qelSeconds =
        std::chrono::duration<double>(Clock::now() - start).count() / static_cast<double>(iterations);
    state.counters["listed"] = static_cast<double>(listed);
    state.counters["ip_ms"] = ipSeconds * 1e3;
    state.counters["qel_ms"] = qelSeconds * 1e3;
    state.counters["ratio"] = qelSeconds / ipSeconds;
}
BENCHMARK(BM_HostInventoryInProcess)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

void BM_HostInventoryProcess(benchmark::State& state) {
    if (!haveRoot(state)) return;
    const int count = static_cast<int>(state.range(0));
    qelTest::NetNamespace& ns = qelBench::namespaceWith(count);
    const int runs = count >= 1000 ? 10 : 30;
    double ipSeconds = 0, qelSeconds = 0, staticSeconds = 0, startSeconds = 0;
    for (auto _ : state) {
        // Alternate them so that a change in the machine's load hits all.
        ipSeconds += qelBench::timeIpCommand(ns, runs);
        qelSeconds += qelBench::timeCommand({QEL_INVENTORY_DUMP_PATH, "--netns", ns.name()}, runs);
        staticSeconds += qelBench::timeCommand({QEL_INVENTORY_DUMP_STATIC_PATH, "--netns", ns.name()}, runs);
        startSeconds += qelBench::timeCommand({"/bin/true"}, runs);
    }
    const double iterations = static_cast<double>(state.iterations());
    state.counters["ip_ms"] = ipSeconds / iterations * 1e3;
    state.counters["qel_ms"] = qelSeconds / iterations * 1e3;
    state.counters["ratio"] = qelSeconds / ipSeconds;
    state.counters["static_ms"] = staticSeconds / iterations * 1e3;
    state.counters["static_ratio"] = staticSeconds / ipSeconds;
    state.counters["start_ms"] = startSeconds / iterations * 1e3;
}
BENCHMARK(BM_HostInventoryProcess)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
