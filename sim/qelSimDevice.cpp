#include "qelSimDevice.h"

#include <linux/ipmi.h>
#include <sys/ioctl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qelSim {

SimDevice::SimDevice(SimBmc& bmc, const std::string& path)
    : bmc_(bmc), eventFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    bmc_.deviceOpened(path);
}

SimDevice::~SimDevice() {
    if (eventFd_ >= 0) ::close(eventFd_);
    bmc_.deviceClosed();
}

int SimDevice::fd() const { return eventFd_; }

int SimDevice::ioctl(unsigned long request, void* argument) {
    if (argument == nullptr) {
        errno = EFAULT;
        return -1;
    }
    switch (request) {
    case IPMICTL_SEND_COMMAND:
        return send(argument);
    case IPMICTL_RECEIVE_MSG:
    case IPMICTL_RECEIVE_MSG_TRUNC:
        return receive(argument);
    default:
        errno = ENOTTY;
        return -1;
    }
}

void SimDevice::push(PendingMessage message) {
    if (message.reportedLength == 0) message.reportedLength = message.data.size();
    pending_.push_back(std::move(message));
    std::uint64_t one = 1;
    if (::write(eventFd_, &one, sizeof one) < 0) {
        // The counter cannot overflow with the few messages a test queues.
    }
}

int SimDevice::send(void* argument) {
    const auto* req = static_cast<const ipmi_req*>(argument);
    Request r;
    if (req->addr == nullptr || req->addr_len < static_cast<int>(sizeof(ipmi_system_interface_addr))) {
        errno = EINVAL;
        return -1;
    }
    const auto* addr = reinterpret_cast<const ipmi_addr*>(req->addr);
    r.addrType = addr->addr_type;
    r.channel = addr->channel;
    if (addr->addr_type == IPMI_SYSTEM_INTERFACE_ADDR_TYPE) {
        r.lun = reinterpret_cast<const ipmi_system_interface_addr*>(req->addr)->lun;
    } else if (addr->addr_type == IPMI_IPMB_ADDR_TYPE ||
               addr->addr_type == IPMI_IPMB_BROADCAST_ADDR_TYPE) {
        const auto* ipmb = reinterpret_cast<const ipmi_ipmb_addr*>(req->addr);
        r.slaveAddr = ipmb->slave_addr;
        r.lun = ipmb->lun;
    } else {
        errno = EINVAL;  // what the kernel says for an address type it does not know
        return -1;
    }
    if (req->msg.data_len > IPMI_MAX_MSG_LENGTH) {
        errno = EMSGSIZE;
        return -1;
    }
    r.msgId = req->msgid;
    r.netFn = req->msg.netfn;
    r.cmd = req->msg.cmd;
    if (req->msg.data_len > 0) r.data.assign(req->msg.data, req->msg.data + req->msg.data_len);

    std::optional<Fault> fault = bmc_.takeFault(r.netFn, r.cmd);
    if (fault && fault->kind == Fault::SendFails) {
        errno = fault->errnoValue;
        return -1;
    }
    bmc_.record(r);

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
            selectFault_ = fault;
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
            answer.data[0] = 0;
            break;
        default:
            answer.data = bmc_.dispatch(r);
            break;
        }
        if (fault->kind == Fault::ForeignMsgId) answer.msgId = r.msgId + 1;
        if (fault->kind == Fault::WrongRecvType) answer.recvType = fault->recvType;
        if (fault->kind == Fault::ReceiveFails) selectFault_ = fault;
        if (fault->kind == Fault::MessagesBefore) {
            for (int i = 0; i < fault->count; ++i) {
                PendingMessage other;
                other.recvType = fault->recvType;
                other.addrType = IPMI_SYSTEM_INTERFACE_ADDR_TYPE;
                other.channel = IPMI_BMC_CHANNEL;
                other.netFn = fault->recvType == IPMI_CMD_RECV_TYPE ? 0x06 : 0x04;
                other.cmd = 0x02;
                other.data = {0x04, 0x20, 0x6F, 0x01, 0xFF, 0xFF};  // a platform event
                push(other);
            }
        }
    } else {
        answer.data = bmc_.dispatch(r);
    }
    push(std::move(answer));
    return 0;
}

int SimDevice::select(int nfds, fd_set* readSet, struct timeval* timeout) {
    bmc_.selectCalled();
    if (selectFault_ && selectFault_->kind != Fault::ReceiveFails) {
        Fault f = *selectFault_;
        selectFault_.reset();
        if (f.kind == Fault::SelectFails) {
            errno = f.errnoValue;
            return -1;
        }
        FD_ZERO(readSet);  // SelectNotReady: ready, but not us
        return 1;
    }
    bool wanted = readSet != nullptr && eventFd_ < nfds && FD_ISSET(eventFd_, readSet);
    if (wanted && !pending_.empty()) return 1;
    if (!bmc_.realTimeouts()) {
        // Nothing to receive: behave as select does once the time is up.
        if (readSet) FD_ZERO(readSet);
        if (timeout) *timeout = {0, 0};
        return 0;
    }
    return ::select(nfds, readSet, nullptr, nullptr, timeout);
}

int SimDevice::receive(void* argument) {
    auto* recv = static_cast<ipmi_recv*>(argument);
    if (selectFault_ && selectFault_->kind == Fault::ReceiveFails) {
        errno = selectFault_->errnoValue;
        selectFault_.reset();
        return -1;
    }
    if (pending_.empty()) {
        errno = EAGAIN;  // the kernel's answer when the queue is empty
        return -1;
    }
    PendingMessage m = std::move(pending_.front());
    pending_.pop_front();
    std::uint64_t count;
    if (pending_.empty() && ::read(eventFd_, &count, sizeof count) < 0) {
    }

    if (recv->addr == nullptr || recv->addr_len < static_cast<int>(sizeof(ipmi_ipmb_addr))) {
        errno = EINVAL;
        return -1;
    }
    if (m.addrType == IPMI_IPMB_ADDR_TYPE || m.addrType == IPMI_IPMB_BROADCAST_ADDR_TYPE) {
        ipmi_ipmb_addr a{};
        a.addr_type = IPMI_IPMB_ADDR_TYPE;
        a.channel = m.channel;
        a.slave_addr = m.slaveAddr;
        a.lun = m.lun;
        std::memcpy(recv->addr, &a, sizeof a);
        recv->addr_len = sizeof a;
    } else {
        ipmi_system_interface_addr a{};
        a.addr_type = IPMI_SYSTEM_INTERFACE_ADDR_TYPE;
        a.channel = IPMI_BMC_CHANNEL;
        a.lun = m.lun;
        std::memcpy(recv->addr, &a, sizeof a);
        recv->addr_len = sizeof a;
    }
    recv->recv_type = m.recvType;
    recv->msgid = m.msgId;
    recv->msg.netfn = m.netFn;
    recv->msg.cmd = m.cmd;
    // As the kernel does: copy what fits, and fail with EMSGSIZE (the message
    // is consumed) when the caller's buffer is too small.
    std::size_t length = m.reportedLength;
    std::size_t room = recv->msg.data_len;
    std::size_t copy = length < room ? length : room;
    copy = copy < m.data.size() ? copy : m.data.size();
    if (copy > 0 && recv->msg.data != nullptr) std::memcpy(recv->msg.data, m.data.data(), copy);
    recv->msg.data_len = static_cast<unsigned short>(copy);
    if (length > room) {
        errno = EMSGSIZE;
        return -1;
    }
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
