// Cost of the transport itself, measured against the simulated controller:
// one Get Device ID exchange through QelIpmi::sendCmd, and opening plus
// closing a QelIpmi. The simulator answers in-process, so these figures are
// the library's own overhead per exchange (the kernel's KCS path adds far
// more on real hardware).
#include <benchmark/benchmark.h>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimDevice.h"

namespace {

void SendCmdRoundTrip(benchmark::State& state) {
    qelSim::ScopedSimulator sim;
    qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    qelIpmi::QelIpmi_request_msg msg(qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId, 0, nullptr);
    for (auto _ : state) {
        bool ok = ipmi.sendCmd(msg);
        benchmark::DoNotOptimize(ok);
        // Keep the recording from growing without bound during the run.
        if (sim->requestCount() > 100000) sim->clearRequests();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(SendCmdRoundTrip);

void ConstructDestroy(benchmark::State& state) {
    qelSim::ScopedSimulator sim;
    for (auto _ : state) {
        qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
        benchmark::DoNotOptimize(ipmi.fd);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ConstructDestroy);

}  // namespace
