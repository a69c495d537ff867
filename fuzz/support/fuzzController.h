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
#ifndef QEL_FUZZ_CONTROLLER_H
#define QEL_FUZZ_CONTROLLER_H

#include <linux/ipmi.h>
#include <sys/ioctl.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "qelIpmiDevice.h"
#include "qelSimBmc.h"
#include "qelSimDevice.h"
#include "qelSimDeviceQueue.h"

namespace qelFuzz {

class FuzzController {
public:
    // `passBelow`: a step byte below it lets the exchange through untouched;
    // 0 bends every exchange, 256 none.
    FuzzController(FuzzedDataProvider& input, unsigned passBelow)
        : in_(input), passBelow_(passBelow), sim_(bmc_), provider_(*this),
          previous_(qelIpmi::setIpmiDeviceProvider(&provider_)) {}
    ~FuzzController() { qelIpmi::setIpmiDeviceProvider(previous_); }
    FuzzController(const FuzzController&) = delete;
    FuzzController& operator=(const FuzzController&) = delete;

    qelSim::SimBmc& bmc() { return bmc_; }
    qelSim::SimBmc* operator->() { return &bmc_; }
    // Exchanges begun so far.
    unsigned long exchanges() const { return exchanges_; }

private:
    class Device : public qelIpmi::QelIpmiDevice {
    public:
        Device(FuzzController& owner, std::unique_ptr<qelIpmi::QelIpmiDevice> inner)
            : owner_(owner), inner_(std::move(inner)) {}
        int fd() const override { return inner_->fd(); }
        int ioctl(unsigned long request, void* argument) override {
            if (request == IPMICTL_SEND_COMMAND) owner_.bend(argument);
            return inner_->ioctl(request, argument);
        }
        int select(int nfds, fd_set* readSet, struct timeval* timeout) override {
            return inner_->select(nfds, readSet, timeout);
        }

    private:
        FuzzController& owner_;
        std::unique_ptr<qelIpmi::QelIpmiDevice> inner_;
    };

    class Provider : public qelIpmi::QelIpmiDeviceProvider {
    public:
        explicit Provider(FuzzController& owner) : owner_(owner) {}
        std::unique_ptr<qelIpmi::QelIpmiDevice> open(const char* path, int flags) override {
            if (owner_.oneIn(64)) {
                errno = owner_.oneIn(2) ? ENOENT : EACCES;
                return nullptr;
            }
            std::unique_ptr<qelIpmi::QelIpmiDevice> inner = owner_.sim_.open(path, flags);
            if (!inner) return nullptr;
            return std::make_unique<Device>(owner_, std::move(inner));
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
    qelSim::SimDeviceProvider sim_;
    Provider provider_;
    qelIpmi::QelIpmiDeviceProvider* previous_;
};

}  // namespace qelFuzz

#endif
