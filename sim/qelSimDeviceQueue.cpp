#include "qelSimDeviceQueue.h"

#include <linux/ipmi.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

namespace qelSim {

namespace {

// select(2) with the Linux write-back of the time left, without calling the
// symbol `select`: inside the preload library that symbol is our own
// interposer, which would call back into this queue. The kernel's pselect6
// writes the remaining time back into the timespec (glibc's wrapper hides
// that; the raw call does not).
int waitReadable(int nfds, fd_set* readSet, struct timeval* timeout) {
    struct timespec ts {};
    struct timespec* tsp = nullptr;
    if (timeout != nullptr) {
        ts.tv_sec = timeout->tv_sec;
        ts.tv_nsec = timeout->tv_usec * 1000L;
        tsp = &ts;
    }
    int rc = static_cast<int>(::syscall(SYS_pselect6, nfds, readSet, nullptr, nullptr, tsp, nullptr));
    if (timeout != nullptr) {
        timeout->tv_sec = ts.tv_sec;
        timeout->tv_usec = ts.tv_nsec / 1000L;
    }
    return rc;
}

}  // namespace

int requestFromKernel(const void* ipmiReq, Request& out) {
    if (ipmiReq == nullptr) return EFAULT;
    const auto* req = static_cast<const ipmi_req*>(ipmiReq);
    Request r;
    if (req->addr == nullptr || req->addr_len < static_cast<int>(sizeof(ipmi_system_interface_addr)))
        return EINVAL;
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
        return EINVAL;  // what the kernel says for an address type it does not know
    }
    if (req->msg.data_len > IPMI_MAX_MSG_LENGTH) return EMSGSIZE;
    r.msgId = req->msgid;
    r.netFn = req->msg.netfn;
    r.cmd = req->msg.cmd;
    if (req->msg.data_len > 0) {
        if (req->msg.data == nullptr) return EFAULT;
        r.data.assign(req->msg.data, req->msg.data + req->msg.data_len);
    }
    out = std::move(r);
    return 0;
}

DeviceQueue::DeviceQueue(bool selectable, bool signalled)
    : eventFd_(selectable ? ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1), signalled_(signalled) {
    std::memset(address_, IPMI_BMC_SLAVE_ADDR, sizeof address_);
    std::memset(lun_, 2, sizeof lun_);  // the kernel's own LUN for requests it sends
}

DeviceQueue::~DeviceQueue() {
    if (eventFd_ >= 0) ::close(eventFd_);
}

void DeviceQueue::push(PendingMessage message) {
    if (message.reportedLength == 0) message.reportedLength = message.data.size();
    pending_.push_back(std::move(message));
    if (eventFd_ < 0 || !signalled_ || pending_.size() > 1) return;
    std::uint64_t one = 1;
    if (::write(eventFd_, &one, sizeof one) < 0) {
        // The counter cannot overflow with the few messages a test queues.
    }
}

std::deque<PendingMessage> DeviceQueue::takeAll() {
    std::deque<PendingMessage> all;
    all.swap(pending_);
    std::uint64_t count;
    if (eventFd_ >= 0 && signalled_ && !all.empty() && ::read(eventFd_, &count, sizeof count) < 0) {
        // Already zero: nothing was signalled.
    }
    return all;
}

std::optional<Fault> DeviceQueue::takeDeviceFault() {
    std::optional<Fault> f;
    f.swap(deviceFault_);
    return f;
}

bool DeviceQueue::selectAnswersAtOnce(int nfds, const fd_set* readSet) const {
    if (deviceFault_ && deviceFault_->kind != Fault::ReceiveFails) return true;
    return readSet != nullptr && eventFd_ >= 0 && eventFd_ < nfds && FD_ISSET(eventFd_, readSet) &&
           !pending_.empty();
}

int DeviceQueue::select(int nfds, fd_set* readSet, struct timeval* timeout, bool realTimeouts) {
    if (deviceFault_ && deviceFault_->kind != Fault::ReceiveFails) {
        Fault f = *deviceFault_;
        deviceFault_.reset();
        if (f.kind == Fault::SelectFails) {
            errno = f.errnoValue;
            return -1;
        }
        if (readSet) FD_ZERO(readSet);  // SelectNotReady: ready, but not us
        return 1;
    }
    bool wanted = readSet != nullptr && eventFd_ >= 0 && eventFd_ < nfds && FD_ISSET(eventFd_, readSet);
    if (wanted && !pending_.empty()) return 1;
    if (!realTimeouts) {
        // Nothing to receive: behave as select does once the time is up.
        if (readSet) FD_ZERO(readSet);
        if (timeout) *timeout = {0, 0};
        return 0;
    }
    return waitReadable(nfds, readSet, timeout);
}

int DeviceQueue::ioctl(unsigned long request, void* argument) {
    if (argument == nullptr) {
        errno = EFAULT;
        return -1;
    }
    switch (request) {
    case IPMICTL_RECEIVE_MSG:
    case IPMICTL_RECEIVE_MSG_TRUNC:
        return receive(argument);
    case IPMICTL_SET_GETS_EVENTS_CMD:
        getsEvents_ = *static_cast<const int*>(argument) != 0;
        return 0;
    case IPMICTL_SET_MY_ADDRESS_CMD:
        address_[0] = static_cast<unsigned char>(*static_cast<const unsigned int*>(argument));
        return 0;
    case IPMICTL_GET_MY_ADDRESS_CMD:
        *static_cast<unsigned int*>(argument) = address_[0];
        return 0;
    case IPMICTL_SET_MY_LUN_CMD:
        lun_[0] = static_cast<unsigned char>(*static_cast<const unsigned int*>(argument) & 0x3);
        return 0;
    case IPMICTL_GET_MY_LUN_CMD:
        *static_cast<unsigned int*>(argument) = lun_[0];
        return 0;
    case IPMICTL_SET_MY_CHANNEL_ADDRESS_CMD:
    case IPMICTL_GET_MY_CHANNEL_ADDRESS_CMD:
    case IPMICTL_SET_MY_CHANNEL_LUN_CMD:
    case IPMICTL_GET_MY_CHANNEL_LUN_CMD: {
        auto* set = static_cast<ipmi_channel_lun_address_set*>(argument);
        if (set->channel >= sizeof address_) {
            errno = EINVAL;
            return -1;
        }
        if (request == IPMICTL_SET_MY_CHANNEL_ADDRESS_CMD) address_[set->channel] = set->value;
        if (request == IPMICTL_GET_MY_CHANNEL_ADDRESS_CMD) set->value = address_[set->channel];
        if (request == IPMICTL_SET_MY_CHANNEL_LUN_CMD) lun_[set->channel] = set->value & 0x3;
        if (request == IPMICTL_GET_MY_CHANNEL_LUN_CMD) set->value = lun_[set->channel];
        return 0;
    }
    case IPMICTL_SET_TIMING_PARMS_CMD: {
        const auto* t = static_cast<const ipmi_timing_parms*>(argument);
        retries_ = t->retries;
        retryTimeMs_ = t->retry_time_ms;
        return 0;
    }
    case IPMICTL_GET_TIMING_PARMS_CMD: {
        auto* t = static_cast<ipmi_timing_parms*>(argument);
        t->retries = retries_;
        t->retry_time_ms = retryTimeMs_;
        return 0;
    }
    default:
        errno = ENOTTY;
        return -1;
    }
}

int DeviceQueue::receive(void* argument) {
    auto* recv = static_cast<ipmi_recv*>(argument);
    if (deviceFault_ && deviceFault_->kind == Fault::ReceiveFails) {
        errno = deviceFault_->errnoValue;
        deviceFault_.reset();
        return -1;
    }
    if (pending_.empty()) {
        errno = EAGAIN;  // the kernel's answer when the queue is empty
        return -1;
    }
    PendingMessage m = std::move(pending_.front());
    pending_.pop_front();
    std::uint64_t count;
    if (pending_.empty() && eventFd_ >= 0 && signalled_ && ::read(eventFd_, &count, sizeof count) < 0) {
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

}  // namespace qelSim
