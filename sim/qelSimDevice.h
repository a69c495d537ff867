// The simulated controller behind the library's IPMI device seam.
//
// SimDevice takes the kernel's ioctl requests and structures exactly as the
// kernel device would (it copies the request from the caller's ipmi_req and
// writes the answer into the caller's ipmi_recv, truncating and failing with
// EMSGSIZE when the caller's buffer is too small), so the library's own
// select/receive loop is what runs in every test.
#ifndef QEL_SIM_DEVICE_H
#define QEL_SIM_DEVICE_H

#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "qelIpmiDevice.h"
#include "qelSimBmc.h"

namespace qelSim {

// One message waiting to be received on a device.
struct PendingMessage {
    int recvType = 1;
    int addrType = 0;
    short channel = 0;
    unsigned char slaveAddr = 0;
    unsigned char lun = 0;
    long msgId = 0;
    unsigned char netFn = 0;
    unsigned char cmd = 0;
    Bytes data;
    std::size_t reportedLength = 0;  // data.size() unless a fault says otherwise
};

class SimDevice : public qelIpmi::QelIpmiDevice {
public:
    SimDevice(SimBmc& bmc, const std::string& path);
    ~SimDevice() override;
    int fd() const override;
    int ioctl(unsigned long request, void* argument) override;
    int select(int nfds, fd_set* readSet, struct timeval* timeout) override;

private:
    int send(void* argument);
    int receive(void* argument);
    void push(PendingMessage message);

    SimBmc& bmc_;
    int eventFd_;  // readable while messages wait
    std::deque<PendingMessage> pending_;
    std::optional<Fault> selectFault_;
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
