#include "qelSimServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "qelSimDescription.h"
#include "qelSimDevice.h"

namespace qelSim {

namespace {

Bytes reply(int status, const wire::Writer& fields) {
    wire::Writer w;
    w.i32(status);
    Bytes out = w.data();
    out.insert(out.end(), fields.data().begin(), fields.data().end());
    return out;
}

Bytes okReply(const wire::Writer& fields = wire::Writer()) { return reply(0, fields); }

Bytes errorReply(int errorNumber, const std::string& text) {
    wire::Writer w;
    w.i32(errorNumber);
    Bytes out = w.data();
    out.insert(out.end(), text.begin(), text.end());
    return out;
}

}  // namespace

SimServer::SimServer(SimBmc& bmc, int listenFd, int stopFd)
    : bmc_(bmc), listenFd_(listenFd), stopFd_(stopFd) {}

SimServer::~SimServer() {
    for (auto& c : connections_) drop(*c);
}

void SimServer::run() {
    while (!stopping_) {
        std::vector<pollfd> fds;
        fds.push_back({stopFd_, POLLIN, 0});
        fds.push_back({listenFd_, POLLIN, 0});
        for (auto& c : connections_)
            fds.push_back({c->fd, static_cast<short>(POLLIN | (c->out.empty() ? 0 : POLLOUT)), 0});
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            std::perror("qel-bmcsim: poll");
            return;
        }
        if (fds[0].revents != 0) return;
        // Connections accepted below are polled from the next pass on.
        std::size_t polled = connections_.size();
        for (std::size_t i = 0; i < polled; ++i) {
            Connection& c = *connections_[i];
            short revents = fds[i + 2].revents;
            if (revents & (POLLIN | POLLHUP | POLLERR)) readFrom(c);
            if (!c.dead && !c.out.empty()) flush(c);
            if (c.eof && !c.dead) drop(c);
        }
        if (fds[1].revents & POLLIN) acceptAll();
        for (auto it = connections_.begin(); it != connections_.end();)
            it = (*it)->dead ? connections_.erase(it) : it + 1;
    }
}

void SimServer::finish() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (auto& c : connections_) {
        while (!c->dead && !c->out.empty() && std::chrono::steady_clock::now() < deadline) {
            pollfd p{c->fd, POLLOUT, 0};
            if (::poll(&p, 1, 100) > 0) flush(*c);
        }
        drop(*c);
    }
    connections_.clear();
}

void SimServer::acceptAll() {
    for (;;) {
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                std::fprintf(stderr, "qel-bmcsim: accept: %s, ignoring\n", std::strerror(errno));
            return;
        }
        auto c = std::make_unique<Connection>();
        c->fd = fd;
        connections_.push_back(std::move(c));
    }
}

void SimServer::readFrom(Connection& c) {
    unsigned char buffer[65536];
    for (;;) {
        ssize_t n = ::recv(c.fd, buffer, sizeof buffer, 0);
        if (n > 0) {
            c.in.insert(c.in.end(), buffer, buffer + n);
            continue;
        }
        if (n == 0) c.eof = true;
        else if (errno == EINTR) continue;
        else if (errno != EAGAIN && errno != EWOULDBLOCK) c.eof = true;
        break;
    }
    Bytes request;
    try {
        while (!stopping_ && wire::takeFrame(c.in, request)) {
            Bytes reply = handle(c, request);
            Bytes framed = wire::frame(reply);
            c.out.insert(c.out.end(), framed.begin(), framed.end());
        }
    } catch (const wire::WireError& e) {
        // The length prefix is beyond anything we send: the peer speaks
        // another protocol and there is no frame boundary to resume at.
        std::fprintf(stderr, "qel-bmcsim: dropping a connection: %s\n", e.what());
        drop(c);
    }
}

void SimServer::flush(Connection& c) {
    while (!c.out.empty()) {
        ssize_t n = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) drop(c);
            return;
        }
        c.out.erase(c.out.begin(), c.out.begin() + n);
    }
}

void SimServer::drop(Connection& c) {
    if (c.dead) return;
    if (c.device) {
        c.device.reset();
        bmc_.deviceClosed();
    }
    ::close(c.fd);
    c.dead = true;
}

void SimServer::countSelects(wire::Reader& in) {
    // A client from before the count was sent ends its operation here.
    if (in.atEnd()) return;
    std::uint32_t n = in.u32();
    if (n > 0) bmc_.selectCalled(static_cast<int>(std::min<std::uint32_t>(n, 1u << 30)));
}

Bytes SimServer::handle(Connection& c, const Bytes& request) {
    try {
        wire::Reader in(request);
        auto op = static_cast<wire::Op>(in.u8());
        wire::Writer out;
        switch (op) {
        case wire::Op::Open: {
            std::string path = in.str();
            if (c.device) return errorReply(EBUSY, "this connection has the device open already");
            bmc_.openAttempted(path);
            if (bmc_.pathMissing(path)) return errorReply(ENOENT, "");
            c.device = std::make_unique<DeviceQueue>(false);
            bmc_.deviceOpened(path);
            return okReply();
        }
        case wire::Op::Send: {
            Request r = wire::getRequest(in);
            if (!c.device) return errorReply(EBADF, "the device is not open");
            countSelects(in);
            errno = 0;
            int rc = exchange(bmc_, r, *c.device);
            int error = rc < 0 ? errno : 0;
            wire::SendReply queued;
            queued.realTimeouts = bmc_.realTimeouts();
            queued.deviceFault = c.device->takeDeviceFault();
            queued.messages = c.device->takeAll();
            wire::putSendReply(out, queued);
            // A failed send still carries the (empty) body, so the client
            // reads one shape.
            return reply(error, out);
        }
        case wire::Op::Select:
            if (!c.device) return errorReply(EBADF, "the device is not open");
            countSelects(in);
            bmc_.selectCalled();
            out.u8(bmc_.realTimeouts() ? 1 : 0);
            return okReply(out);
        case wire::Op::Close:
            if (c.device) countSelects(in);
            if (c.device) {
                c.device.reset();
                bmc_.deviceClosed();
            }
            return okReply();
        case wire::Op::Advance:
            bmc_.advanceMs(in.u64());
            out.u64(bmc_.nowMs());
            return okReply(out);
        case wire::Op::InjectFault:
            bmc_.injectFault(wire::getFault(in));
            return okReply();
        case wire::Op::ClearFaults:
            bmc_.clearFaults();
            return okReply();
        case wire::Op::Requests: {
            std::string text;
            for (const Request& r : bmc_.requests()) text += formatRequest(r) + '\n';
            out.str(text);
            return okReply(out);
        }
        case wire::Op::ClearRequests:
            bmc_.clearRequests();
            return okReply();
        case wire::Op::Dump:
            out.str(bmc_.dump());
            return okReply(out);
        case wire::Op::SetDeviceId:
            bmc_.setDeviceId(in.bytes());
            return okReply();
        case wire::Op::Describe:
            bmc_.applyDescriptionLine(in.str());
            return okReply();
        case wire::Op::Keywords: {
            std::string text;
            for (const auto& k : bmc_.keywords()) text += k.first + '\t' + k.second + '\n';
            out.str(text);
            return okReply(out);
        }
        case wire::Op::Shutdown:
            stopping_ = true;
            return okReply();
        }
        return errorReply(ENOSYS, "unknown operation " + std::to_string(static_cast<unsigned>(op)));
    } catch (const wire::WireError& e) {
        return errorReply(EPROTO, std::string("malformed request: ") + e.what());
    } catch (const std::invalid_argument& e) {
        return errorReply(EINVAL, e.what());
    } catch (const std::exception& e) {
        // A model's handler that throws must not take the shared controller
        // down with it.
        return errorReply(EIO, std::string("the controller failed: ") + e.what());
    }
}

}  // namespace qelSim
