// The receive side of one open simulated IPMI device.
//
// The kernel keeps a receive queue per open file of the IPMI device, and so do
// we: DeviceQueue holds the messages waiting to be received, the fault that the
// next select or receive applies, and the per-open settings (events wanted, own
// IPMB address and LUN per channel). It answers select(2) and the ioctls other
// than IPMICTL_SEND_COMMAND exactly as the in-process device always did, so the
// same code serves the in-process device (qelSimDevice.h), the device that
// talks to a controller in another process (qelSimSocketClient.h) and the
// stand-in /dev/ipmi0 for unmodified programs (sim/preload/).
//
// This file uses nothing of libqelbase and nothing of SimBmc's code (only its
// header-only Fault, Request and Bytes types): the preload library compiles
// it on its own.
#ifndef QEL_SIM_DEVICE_QUEUE_H
#define QEL_SIM_DEVICE_QUEUE_H

#include <sys/select.h>
#include <sys/time.h>

#include <cstddef>
#include <deque>
#include <optional>

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

// Copies the caller's struct ipmi_req into `out` as the kernel reads it.
// Returns 0, or the errno value the kernel gives (EFAULT for a null request,
// EINVAL for a bad address, EMSGSIZE for too much data); `out` is left
// untouched on failure.
[[nodiscard]] int requestFromKernel(const void* ipmiReq, Request& out);

class DeviceQueue {
public:
    // A selectable queue owns an eventfd that is readable while messages
    // wait; the controller process keeps queues without one. A queue that is
    // not `signalled` keeps the eventfd (a descriptor number of its own) but
    // never writes or reads its counter: for a device whose every select
    // comes to select() below, as the library's device seam does, the counter
    // tells nothing and costs two system calls an exchange.
    explicit DeviceQueue(bool selectable = true, bool signalled = true);
    ~DeviceQueue();
    DeviceQueue(const DeviceQueue&) = delete;
    DeviceQueue& operator=(const DeviceQueue&) = delete;

    // The eventfd, or -1 for a queue that is not selectable.
    int fd() const { return eventFd_; }

    void push(PendingMessage message);
    bool empty() const { return pending_.empty(); }
    // Whether select() answers without waiting and without anything the
    // controller may have changed since the last exchange: a fault of the
    // device's to apply, or a message waiting for a descriptor in the set.
    bool selectAnswersAtOnce(int nfds, const fd_set* readSet) const;
    // Everything waiting, in order; the queue is empty afterwards.
    [[nodiscard]] std::deque<PendingMessage> takeAll();

    // The fault the next select (SelectFails, SelectNotReady) or receive
    // (ReceiveFails) applies, set by an exchange.
    void setDeviceFault(const Fault& fault) { deviceFault_ = fault; }
    [[nodiscard]] std::optional<Fault> takeDeviceFault();

    // select(2) for a read set holding fd(): a pending select fault first;
    // then ready when a message waits; otherwise, without real time-outs,
    // the time is up at once (set emptied, time-out zeroed), with them a real
    // wait on the eventfd that writes back the time left.
    int select(int nfds, fd_set* readSet, struct timeval* timeout, bool realTimeouts);

    // The ioctls other than IPMICTL_SEND_COMMAND: IPMICTL_RECEIVE_MSG(_TRUNC)
    // and the per-open settings. 0, or -1 with errno (ENOTTY for the rest).
    int ioctl(unsigned long request, void* argument);

private:
    int receive(void* argument);

    int eventFd_;
    bool signalled_;
    std::deque<PendingMessage> pending_;
    std::optional<Fault> deviceFault_;
    int getsEvents_ = 0;
    unsigned char address_[16];  // own IPMB address per channel, 0x20 at open
    unsigned char lun_[16];      // own LUN per channel, 2 at open
    int retries_ = 0;
    unsigned int retryTimeMs_ = 0;
};

}  // namespace qelSim

#endif
