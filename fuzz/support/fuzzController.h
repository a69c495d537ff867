// A controller whose every answer the fuzz input may bend, behind the IPMI
// device seam.
//
// The simulated controller (qelSim::SimBmc) answers each request as a real
// one would. Before each request reaches it, one step of the input decides
// what becomes of the exchange: answered as it is, or with one of the
// simulator's device faults - any completion code, reply bytes from the
// input, the true reply cut short or with one byte changed, an empty,
// missing or oversized reply, another message id, another receive type,
// events or commands queued before the answer, a failing send, select or
// receive. A device open can fail too. When the input is used up the
// controller answers everything as it is, so every run ends.
//
// The library's own select/receive loop runs unchanged; time-outs end at
// once (the simulator's select has no real waits).
//
// The device is the simulator's exchange and receive queue without the
// queue's eventfd: nothing here ever waits in the kernel, so the descriptor
// (made and closed at every open, written and read at every message) was
// pure cost. Every device presents the same descriptor number, one /dev/null
// opened once; select answers from the queue, as the simulated device does
// when time-outs are not real.
#ifndef QEL_FUZZ_CONTROLLER_H
#define QEL_FUZZ_CONTROLLER_H

#include <linux/ipmi.h>
#include <sys/ioctl.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include "qelIpmiDevice.h"
#include "qelSimBmc.h"
#include "qelSimDevice.h"  // qelSim::exchange
#include "qelSimDeviceQueue.h"

namespace qelFuzz {

class FuzzController {
public:
    // `passBelow`: a step byte below it lets the exchange through untouched;
    // 0 bends every exchange, 256 none.
    FuzzController(FuzzedDataProvider& input, unsigned passBelow)
        : in_(input), passBelow_(passBelow), provider_(*this),
          previous_(qelIpmi::setIpmiDeviceProvider(&provider_)) {}
    ~FuzzController() { qelIpmi::setIpmiDeviceProvider(previous_); }
    FuzzController(const FuzzController&) = delete;
    FuzzController& operator=(const FuzzController&) = delete;

    qelSim::SimBmc& bmc() { return bmc_; }
    qelSim::SimBmc* operator->() { return &bmc_; }

    // What the simulated controller's default describes: a blade with its
    // extended management board in slot 3, two NIC ports (on the board and
    // in a PNI record), the software watchdog on at 300 s, LAN channel 1.
    void describeBlade() {
        for (const char* line : {"board extended", "board-slot 3", "nic-ports 02:00:00:00:0a:01 02:00:00:00:0a:02",
                                 "soft-watchdog on 300", "lan-channel 1 on"})
            bmc_.applyDescriptionLine(line);
    }

    // Exchanges begun so far.
    unsigned long exchanges() const { return exchanges_; }

private:
    // The descriptor every device presents (see above).
    static int sharedFd() {
        static const int fd = [] {
            const int opened = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (opened < 0 || opened >= FD_SETSIZE) std::abort();
            return opened;
        }();
        return fd;
    }

    class Device : public qelIpmi::QelIpmiDevice {
    public:
        explicit Device(FuzzController& owner) : owner_(owner), queue_(false) {}
        int fd() const override { return sharedFd(); }
        int ioctl(unsigned long request, void* argument) override {
            if (request != IPMICTL_SEND_COMMAND) return queue_.ioctl(request, argument);
            owner_.bend(argument);
            qelSim::Request r;
            if (int e = qelSim::requestFromKernel(argument, r)) {
                errno = e;
                return -1;
            }
            const int result = qelSim::exchange(owner_.bmc_, r, queue_);
            // The controller keeps every request for tests to look at; nothing
            // here does, and a run may make a thousand exchanges.
            owner_.bmc_.clearRequests();
            return result;
        }
        // What qelSim::DeviceQueue::select does without real time-outs: a
        // pending select fault first, then ready when a message waits, else
        // the time is up at once.
        int select(int nfds, fd_set* readSet, struct timeval* timeout) override {
            owner_.bmc_.selectCalled();
            if (std::optional<qelSim::Fault> fault = queue_.takeDeviceFault()) {
                if (fault->kind == qelSim::Fault::SelectFails) {
                    errno = fault->errnoValue;
                    return -1;
                }
                if (fault->kind == qelSim::Fault::SelectNotReady) {
                    if (readSet) FD_ZERO(readSet);
                    return 1;
                }
                queue_.setDeviceFault(*fault);  // a receive fault: the receive takes it
            }
            const int fd = sharedFd();
            if (readSet != nullptr && fd < nfds && FD_ISSET(fd, readSet) && !queue_.empty()) return 1;
            if (readSet) FD_ZERO(readSet);
            if (timeout) *timeout = {0, 0};
            return 0;
        }

    private:
        FuzzController& owner_;
        qelSim::DeviceQueue queue_;
    };

    class Provider : public qelIpmi::QelIpmiDeviceProvider {
    public:
        explicit Provider(FuzzController& owner) : owner_(owner) {}
        std::unique_ptr<qelIpmi::QelIpmiDevice> open(const char*, int) override {
            if (owner_.oneIn(64)) {
                errno = owner_.oneIn(2) ? ENOENT : EACCES;
                return nullptr;
            }
            return std::make_unique<Device>(owner_);
        }

    private:
        FuzzController& owner_;
    };

    bool oneIn(unsigned n) {
        return in_.remaining_bytes() > 0 && in_.ConsumeIntegralInRange<unsigned>(0, n - 1) == 0;
    }

    int someErrno() {
        // Never EINTR: a caller may rightly retry that one for ever.
        static const int numbers[] = {EIO, EBADF, ENOMEM, EFAULT, EINVAL, EMSGSIZE, ENXIO, EBUSY, ETIMEDOUT};
        return numbers[in_.ConsumeIntegralInRange<unsigned>(0, sizeof numbers / sizeof numbers[0] - 1)];
    }

    // The true answer of the simulator to the request about to be sent,
    // taken once here instead of by the exchange (which then delivers these
    // bytes as they are).
    qelSim::Bytes trueAnswer(const void* ipmiReq) {
        qelSim::Request request;
        if (qelSim::requestFromKernel(ipmiReq, request) != 0) return {};
        return bmc_.dispatch(request);
    }

    void bend(const void* ipmiReq) {
        using qelSim::Fault;
        ++exchanges_;
        if (in_.remaining_bytes() == 0) return;
        const unsigned step = in_.ConsumeIntegral<unsigned char>();
        if (step < passBelow_) return;
        Fault fault;
        switch (step % 15) {
        case 0:
            fault = Fault::completionCode(in_.ConsumeIntegral<unsigned char>());
            break;
        case 1:
        case 2: {
            const size_t length =
                oneIn(8) ? in_.ConsumeIntegralInRange<size_t>(0, 300) : in_.ConsumeIntegralInRange<size_t>(0, 40);
            qelSim::Bytes bytes = in_.ConsumeBytes<unsigned char>(length);
            // Mostly a success code, so the decoders behind it run.
            if (!bytes.empty() && in_.ConsumeBool()) bytes[0] = 0;
            fault = Fault::rawReply(std::move(bytes));
            break;
        }
        case 3: {
            qelSim::Bytes bytes = trueAnswer(ipmiReq);
            bytes.resize(in_.ConsumeIntegralInRange<size_t>(0, bytes.size()));
            fault = Fault::rawReply(std::move(bytes));
            break;
        }
        case 4: {
            qelSim::Bytes bytes = trueAnswer(ipmiReq);
            if (!bytes.empty())
                bytes[in_.ConsumeIntegralInRange<size_t>(0, bytes.size() - 1)] =
                    in_.ConsumeIntegral<unsigned char>();
            fault = Fault::rawReply(std::move(bytes));
            break;
        }
        case 5:
            fault = Fault::emptyReply();
            break;
        case 6:
            fault = Fault::noReply();
            break;
        case 7:
            fault = Fault::foreignMsgId();
            break;
        case 8:
            fault = Fault::wrongRecvType(oneIn(2) ? in_.ConsumeIntegral<int>()
                                                  : in_.ConsumeIntegralInRange<int>(0, 4));
            break;
        case 9: {
            static const int types[] = {IPMI_ASYNC_EVENT_RECV_TYPE, IPMI_CMD_RECV_TYPE, IPMI_RESPONSE_RECV_TYPE,
                                        IPMI_RESPONSE_RESPONSE_TYPE, 7};
            fault = Fault::messagesBefore(types[in_.ConsumeIntegralInRange<unsigned>(0, 4)],
                                          in_.ConsumeIntegralInRange<int>(0, 6));
            break;
        }
        case 10:
            fault = Fault::oversizeReply(in_.ConsumeIntegralInRange<int>(1, 400));
            break;
        case 11:
            fault = Fault::sendFails(someErrno());
            break;
        case 12:
            fault = Fault::selectFails(someErrno());
            break;
        case 13:
            fault = Fault::selectNotReady();
            break;
        default:
            fault = Fault::receiveFails(someErrno());
            break;
        }
        bmc_.injectFault(std::move(fault));
    }

    FuzzedDataProvider& in_;
    unsigned passBelow_;
    unsigned long exchanges_ = 0;
    qelSim::SimBmc bmc_;
    Provider provider_;
    qelIpmi::QelIpmiDeviceProvider* previous_;
};

}  // namespace qelFuzz

#endif
