#include "qelSimDevice.h"

#include <linux/ipmi.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <optional>

namespace qelSim {

SimDevice::SimDevice(SimBmc& bmc, const std::string& path) : bmc_(bmc) { bmc_.deviceOpened(path); }

SimDevice::~SimDevice() { bmc_.deviceClosed(); }

int SimDevice::fd() const { return queue_.fd(); }

int SimDevice::ioctl(unsigned long request, void* argument) {
    if (request != IPMICTL_SEND_COMMAND) return queue_.ioctl(request, argument);
    Request r;
    if (int e = requestFromKernel(argument, r)) {
        errno = e;
        return -1;
    }
    return exchange(bmc_, r, queue_);
}

int SimDevice::select(int nfds, fd_set* readSet, struct timeval* timeout) {
    bmc_.selectCalled();
    return queue_.select(nfds, readSet, timeout, bmc_.realTimeouts());
}

int exchange(SimBmc& bmc, const Request& r, DeviceQueue& queue) {
    std::optional<Fault> fault = bmc.takeFault(r.netFn, r.cmd);
    if (fault && fault->kind == Fault::SendFails) {
        errno = fault->errnoValue;
        return -1;
    }
    bmc.record(r);

    PendingMessage answer;
    answer.addrType = r.addrType;
    answer.channel = r.channel;
    answer.slaveAddr = r.slaveAddr;
    answer.lun = r.lun;
    answer.msgId = r.msgId;
    answer.netFn = static_cast<unsigned char>(r.netFn | 1);
    answer.cmd = r.cmd;

    if (fault) {
        switch (fault->kind) {
        case Fault::NoReply:
            return 0;
        case Fault::SelectFails:
        case Fault::SelectNotReady:
            queue.setDeviceFault(*fault);
            return 0;
        case Fault::CompletionCode:
            answer.data = {fault->code};
            break;
        case Fault::RawReply:
            answer.data = fault->bytes;
            break;
        case Fault::EmptyReply:
            break;
        case Fault::OversizeReply:
            answer.data.assign(static_cast<std::size_t>(fault->count), 0xA5);
            if (!answer.data.empty()) answer.data[0] = 0;
            break;
        default:
            answer.data = bmc.dispatch(r);
            break;
        }
        if (fault->kind == Fault::ForeignMsgId) answer.msgId = r.msgId + 1;
        if (fault->kind == Fault::WrongRecvType) answer.recvType = fault->recvType;
        if (fault->kind == Fault::ReceiveFails) queue.setDeviceFault(*fault);
        if (fault->kind == Fault::MessagesBefore) {
            for (int i = 0; i < fault->count; ++i) {
                PendingMessage other;
                other.recvType = fault->recvType;
                other.addrType = IPMI_SYSTEM_INTERFACE_ADDR_TYPE;
                other.channel = IPMI_BMC_CHANNEL;
                other.netFn = fault->recvType == IPMI_CMD_RECV_TYPE ? 0x06 : 0x04;
                other.cmd = 0x02;
                other.data = {0x04, 0x20, 0x6F, 0x01, 0xFF, 0xFF};  // a platform event
                queue.push(other);
            }
        }
    } else {
        answer.data = bmc.dispatch(r);
    }
    queue.push(std::move(answer));
    return 0;
}

std::unique_ptr<qelIpmi::QelIpmiDevice> SimDeviceProvider::open(const char* path, int) {
    bmc_.openAttempted(path);
    if (bmc_.pathMissing(path)) {
        errno = ENOENT;
        return nullptr;
    }
    return std::make_unique<SimDevice>(bmc_, path);
}

ScopedSimulator::ScopedSimulator()
    : provider_(bmc_), previous_(qelIpmi::setIpmiDeviceProvider(&provider_)) {}

ScopedSimulator::~ScopedSimulator() { qelIpmi::setIpmiDeviceProvider(previous_); }

}  // namespace qelSim
