// The simulated controller behind the library's IPMI device seam.
//
// SimDevice takes the kernel's ioctl requests and structures exactly as the
// kernel device would (it copies the request from the caller's ipmi_req and
// writes the answer into the caller's ipmi_recv, truncating and failing with
// EMSGSIZE when the caller's buffer is too small), so the library's own
// select/receive loop is what runs in every test. The receive side lives in
// DeviceQueue and the exchange in exchange(), both shared with the controller
// running as its own process (sim/server/, qelSimSocket.h).
#ifndef QEL_SIM_DEVICE_H
#define QEL_SIM_DEVICE_H

#include <memory>
#include <string>

#include "qelIpmiDevice.h"
#include "qelSimBmc.h"
#include "qelSimDeviceQueue.h"

namespace qelSim {

// Runs one exchange on the controller for a request the device accepted, as
// the kernel device's IPMICTL_SEND_COMMAND would: takes the pending fault for
// the command, records the request, runs its handler and queues the answer
// (and whatever the fault adds) on `queue`, or leaves `queue` the fault that
// its next select or receive applies. 0, or -1 with errno for a send that
// fails. Shared by the in-process device and the controller process.
[[nodiscard]] int exchange(SimBmc& bmc, const Request& request, DeviceQueue& queue);

class SimDevice : public qelIpmi::QelIpmiDevice {
public:
    SimDevice(SimBmc& bmc, const std::string& path);
    ~SimDevice() override;
    int fd() const override;
    int ioctl(unsigned long request, void* argument) override;
    int select(int nfds, fd_set* readSet, struct timeval* timeout) override;

private:
    SimBmc& bmc_;
    DeviceQueue queue_;  // its eventfd is readable while messages wait
};

class SimDeviceProvider : public qelIpmi::QelIpmiDeviceProvider {
public:
    explicit SimDeviceProvider(SimBmc& bmc) : bmc_(bmc) {}
    std::unique_ptr<qelIpmi::QelIpmiDevice> open(const char* path, int flags) override;

private:
    SimBmc& bmc_;
};

// A controller installed as the process's IPMI device for the lifetime of
// the object; the previous provider comes back on destruction.
class ScopedSimulator {
public:
    ScopedSimulator();
    ~ScopedSimulator();
    ScopedSimulator(const ScopedSimulator&) = delete;
    ScopedSimulator& operator=(const ScopedSimulator&) = delete;
    SimBmc& bmc() { return bmc_; }
    SimBmc* operator->() { return &bmc_; }

private:
    SimBmc bmc_;
    SimDeviceProvider provider_;
    qelIpmi::QelIpmiDeviceProvider* previous_;
};

}  // namespace qelSim

#endif
