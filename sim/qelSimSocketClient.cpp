#include "qelSimSocketClient.h"

#include <linux/ipmi.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qelSim {

// ---------------------------------------------------------------- connection

SocketConnection::~SocketConnection() { close(); }

void SocketConnection::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    in_.clear();
}

int SocketConnection::connect(const std::string& socketPath) {
    close();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socketPath.empty()) return ENOENT;
    if (socketPath.size() >= sizeof addr.sun_path) return ENAMETOOLONG;
    std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    while (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) {
        if (errno == EINTR) continue;
        int e = errno;
        ::close(fd);
        return e;
    }
    fd_ = fd;
    return 0;
}

int SocketConnection::call(const wire::Writer& request, std::int32_t& status, Bytes& reply) {
    if (fd_ < 0) return ENOTCONN;
    Bytes& payload = payload_;
    int e = wire::writeFrame(fd_, request.data());
    if (e == 0) e = wire::readFrame(fd_, in_, payload);
    if (e == 0 && payload.size() < 4) e = EPROTO;
    if (e != 0) {
        close();
        return e;
    }
    status = static_cast<std::int32_t>(static_cast<std::uint32_t>(payload[0]) << 24 |
                                       static_cast<std::uint32_t>(payload[1]) << 16 |
                                       static_cast<std::uint32_t>(payload[2]) << 8 | payload[3]);
    reply.assign(payload.begin() + 4, payload.end());
    return 0;
}

void SocketConnection::waitClosed() {
    unsigned char buffer[256];
    while (fd_ >= 0) {
        ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
        if (n == 0 || (n < 0 && errno != EINTR)) close();
    }
}

// ---------------------------------------------------------------- device

SocketDeviceClient::~SocketDeviceClient() {
    if (!open_) return;
    wire::Writer w;
    w.u8(static_cast<unsigned>(wire::Op::Close));
    putUncountedSelects(w);
    std::int32_t status;
    Bytes reply;
    if (connection_.call(w, status, reply) != 0) {
        // The controller went away: its device is gone with it.
    }
}

int SocketDeviceClient::open(const std::string& socketPath, const std::string& devicePath) {
    if (int e = connection_.connect(socketPath)) return e;
    wire::Writer w;
    w.u8(static_cast<unsigned>(wire::Op::Open)).str(devicePath);
    std::int32_t status;
    Bytes reply;
    if (int e = connection_.call(w, status, reply)) return e;
    if (status != 0) {
        connection_.close();
        return status;
    }
    open_ = true;
    return 0;
}

int SocketDeviceClient::ioctl(unsigned long request, void* argument) {
    if (request == IPMICTL_SEND_COMMAND) return send(argument);
    return queue_.ioctl(request, argument);
}

int SocketDeviceClient::send(void* argument) {
    Request r;
    if (int e = requestFromKernel(argument, r)) {
        errno = e;
        return -1;
    }
    wire::Writer& w = sendRequest_;
    w.clear();
    w.u8(static_cast<unsigned>(wire::Op::Send));
    wire::putRequest(w, r);
    putUncountedSelects(w);
    std::int32_t status;
    Bytes& replyBytes = sendReplyBytes_;
    if (int e = connection_.call(w, status, replyBytes)) {
        errno = e;
        return -1;
    }
    wire::SendReply& reply = sendReply_;
    try {
        wire::Reader in(replyBytes);
        wire::getSendReply(in, reply);
    } catch (const wire::WireError&) {
        errno = EPROTO;
        return -1;
    }
    realTimeouts_ = reply.realTimeouts;
    if (status != 0) {
        errno = status;
        return -1;
    }
    if (reply.deviceFault) queue_.setDeviceFault(*reply.deviceFault);
    for (PendingMessage& m : reply.messages) queue_.push(std::move(m));
    return 0;
}

void SocketDeviceClient::putUncountedSelects(wire::Writer& w) {
    w.u32(uncountedSelects_);
    uncountedSelects_ = 0;
}

int SocketDeviceClient::select(int nfds, fd_set* readSet, struct timeval* timeout) {
    if (queue_.selectAnswersAtOnce(nfds, readSet)) {
        ++uncountedSelects_;
        return queue_.select(nfds, readSet, timeout, realTimeouts_);
    }
    // Otherwise the select may wait, and the controller's real-time-out
    // setting may have changed since the last exchange.
    wire::Writer w;
    w.u8(static_cast<unsigned>(wire::Op::Select));
    putUncountedSelects(w);
    std::int32_t status;
    Bytes reply;
    if (int e = connection_.call(w, status, reply)) {
        errno = e;
        return -1;
    }
    if (status == 0 && reply.size() == 1) realTimeouts_ = reply[0] != 0;
    return queue_.select(nfds, readSet, timeout, realTimeouts_);
}

}  // namespace qelSim
