#include "qelSimExternBmc.h"

#include "qelIpmiCommands.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/ipmi.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <ostream>
#include <memory>
#include <mutex>

#include "qelSimDevice.h"
#include "qelSimDeviceQueue.h"
#include "qelSimWatchdog.h"

namespace qelSim {

namespace externWire {

unsigned char checksum(const Bytes& bytes) {
    unsigned char sum = 0;
    for (unsigned char b : bytes) sum = static_cast<unsigned char>(sum + b);
    return static_cast<unsigned char>(-sum);
}

Bytes encode(const Bytes& payload, unsigned char end) {
    Bytes out;
    out.reserve(payload.size() + 2);
    for (unsigned char b : payload) {
        if (b == messageEnd || b == commandEnd || b == escape) {
            out.push_back(escape);
            out.push_back(static_cast<unsigned char>(b | escapedBit));
        } else {
            out.push_back(b);
        }
    }
    out.push_back(end);
    return out;
}

std::vector<Frame> Decoder::feed(const unsigned char* data, std::size_t count) {
    std::vector<Frame> frames;
    for (std::size_t i = 0; i < count; ++i) {
        unsigned char b = data[i];
        if (escaped_) {
            current_.push_back(static_cast<unsigned char>(b & ~escapedBit));
            escaped_ = false;
        } else if (b == escape) {
            escaped_ = true;
        } else if (b == messageEnd || b == commandEnd) {
            frames.push_back(Frame{b == commandEnd, std::move(current_)});
            current_.clear();
        } else {
            current_.push_back(b);
        }
    }
    return frames;
}

}  // namespace externWire

// ---------------------------------------------------------------- session

namespace {
// Request frame: msgid, netfn/lun, cmd, checksum at the least.
constexpr std::size_t minimumRequest = 4;
// Set BMC Global Enables (IPMI 2.0, 22.1) and its receive message queue
// interrupt bit.
constexpr unsigned char setGlobalEnablesNetFn = qelIpmi::netfn::app;
constexpr unsigned char setGlobalEnablesCmd = qelIpmi::cmd::setBmcGlobalEnables;
constexpr unsigned char receiveQueueInterruptBit = 0x01;
}  // namespace

ExternSession::ExternSession(SimBmc& bmc, std::shared_ptr<ExternStats> stats)
    : bmc_(bmc), stats_(std::move(stats)) {
    // Events from before this connection belong to an earlier machine.
    std::lock_guard<std::recursive_mutex> lock(bmc_.mutex());
    if (stats_) {
        ++stats_->connections;
        stats_->attached = true;
    }
    expiriesSeen_ = bmc_.watchdog().expiries().size();
    preTimeoutsSeen_ = bmc_.watchdog().preTimeouts().size();
}

Bytes ExternSession::receive(const unsigned char* data, std::size_t count) {
    Bytes out;
    for (externWire::Frame& frame : decoder_.feed(data, count)) {
        if (!frame.command) {
            Bytes reply = answer(frame.bytes);
            out.insert(out.end(), reply.begin(), reply.end());
            continue;
        }
        if (frame.bytes.empty()) continue;
        const unsigned char argument = frame.bytes.size() > 1 ? frame.bytes[1] : 0;
        switch (frame.bytes[0]) {
        case externWire::cmdVersion:
            version_ = argument;
            if (stats_) {
                std::lock_guard<std::recursive_mutex> lock(bmc_.mutex());
                stats_->version = argument;
            }
            break;
        case externWire::cmdCapabilities:
            capabilities_ = argument;
            capabilitiesKnown_ = true;
            if (stats_) {
                std::lock_guard<std::recursive_mutex> lock(bmc_.mutex());
                stats_->capabilities = argument;
            }
            break;
        default:
            // Nothing else is meant for a controller; ignore it as QEMU
            // ignores what it does not know.
            break;
        }
    }
    return out;
}

Bytes ExternSession::answer(const Bytes& frame) {
    if (frame.size() < minimumRequest || externWire::checksum(frame) != 0) {
        ++dropped_;
        if (stats_) {
            std::lock_guard<std::recursive_mutex> lock(bmc_.mutex());
            ++stats_->droppedFrames;
        }
        return {};
    }
    if (stats_) {
        std::lock_guard<std::recursive_mutex> lock(bmc_.mutex());
        ++stats_->requests;
    }
    Request r;
    r.addrType = IPMI_SYSTEM_INTERFACE_ADDR_TYPE;
    r.channel = IPMI_BMC_CHANNEL;
    r.msgId = frame[0];
    r.netFn = static_cast<unsigned char>(frame[1] >> 2);
    r.lun = static_cast<unsigned char>(frame[1] & 0x03);
    r.cmd = frame[2];
    r.data.assign(frame.begin() + 3, frame.end() - 1);

    // The same exchange as the device's, so faults apply here too: no reply
    // leaves QEMU to time out, a failed send answers nothing either.
    DeviceQueue queue(false);
    if (exchange(bmc_, r, queue) < 0) return {};
    Bytes out;
    for (const PendingMessage& m : queue.takeAll()) {
        if (m.recvType != IPMI_RESPONSE_RECV_TYPE) continue;  // the KCS has no place for them
        // The interface's interrupt follows the receive-message-queue bit of
        // the BMC global enables, once the controller took them: QEMU raises
        // it only when told to, and without it the guest's driver polls.
        if (r.netFn == setGlobalEnablesNetFn && r.cmd == setGlobalEnablesCmd && !r.data.empty() &&
            !m.data.empty() && m.data[0] == 0x00) {
            Bytes c = command((r.data[0] & receiveQueueInterruptBit) ? externWire::cmdEnableIrq
                                                                     : externWire::cmdDisableIrq);
            out.insert(out.end(), c.begin(), c.end());
        }
        Bytes payload{static_cast<unsigned char>(m.msgId & 0xFF),
                      static_cast<unsigned char>((m.netFn << 2) | (m.lun & 0x03)), m.cmd};
        payload.insert(payload.end(), m.data.begin(), m.data.end());
        payload.push_back(externWire::checksum(payload));
        Bytes framed = externWire::encode(payload, externWire::messageEnd);
        out.insert(out.end(), framed.begin(), framed.end());
    }
    return out;
}

Bytes ExternSession::command(unsigned char opcode) {
    sentCommands_.push_back(opcode);
    if (stats_) {
        std::lock_guard<std::recursive_mutex> lock(bmc_.mutex());
        stats_->commandsSent.push_back(opcode);
    }
    return externWire::encode(Bytes{opcode}, externWire::commandEnd);
}

Bytes ExternSession::clockMoved() {
    std::vector<WatchdogExpiry> expiries;
    std::vector<WatchdogPreTimeout> preTimeouts;
    {
        std::lock_guard<std::recursive_mutex> lock(bmc_.mutex());
        expiries = bmc_.watchdog().expiries();
        preTimeouts = bmc_.watchdog().preTimeouts();
    }
    Bytes out;
    auto append = [&out](const Bytes& b) { out.insert(out.end(), b.begin(), b.end()); };
    for (; preTimeoutsSeen_ < preTimeouts.size(); ++preTimeoutsSeen_)
        if (preTimeouts[preTimeoutsSeen_].interrupt == 2) append(command(externWire::cmdSendNmi));
    for (; expiriesSeen_ < expiries.size(); ++expiriesSeen_) {
        switch (expiries[expiriesSeen_].action) {
        case 1:  // hard reset
        case 3:  // power cycle: the machine has no such operation; reset comes closest
            append(command(externWire::cmdReset));
            break;
        case 2:  // power down
            append(command(externWire::cmdPowerOff));
            break;
        default:
            break;
        }
    }
    return out;
}

// ---------------------------------------------------------------- listener

SimExternBmc::SimExternBmc(SimBmc& bmc, int port)
    : bmc_(bmc), stats_(std::make_shared<ExternStats>()), port_(port) {
    // The section keeps its own reference: the controller may outlive us.
    std::shared_ptr<ExternStats> stats = stats_;
    bmc_.addDumpSection("machine", [stats](std::ostream& out) {
        out << "connections " << stats->connections << '\n'
            << "attached " << (stats->attached ? "yes" : "no") << '\n'
            << "protocol-version " << stats->version << '\n'
            << "capabilities 0x" << std::hex << std::setw(2) << std::setfill('0') << stats->capabilities
            << std::dec << std::setfill(' ') << '\n'
            << "requests " << stats->requests << '\n'
            << "dropped-frames " << stats->droppedFrames << '\n'
            << "commands-sent";
        for (unsigned char c : stats->commandsSent)
            out << ' ' << std::hex << std::setw(2) << std::setfill('0') << unsigned(c) << std::dec;
        out << std::setfill(' ') << '\n';
    });
}

SimExternBmc::~SimExternBmc() {
    stop();
    if (listenFd_ >= 0) ::close(listenFd_);
}

bool SimExternBmc::listen(std::string& error) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port_));
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0 || ::listen(fd, 4) < 0) {
        error = "127.0.0.1:" + std::to_string(port_) + ": " + std::strerror(errno);
        ::close(fd);
        return false;
    }
    socklen_t length = sizeof addr;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) == 0) port_ = ntohs(addr.sin_port);
    listenFd_ = fd;
    return true;
}

void SimExternBmc::start() {
    if (thread_.joinable() || listenFd_ < 0) return;
    if (::pipe2(stopFds_, O_CLOEXEC | O_NONBLOCK) < 0) {
        std::fprintf(stderr, "qel-bmcsim: pipe: %s; no machine will be served\n", std::strerror(errno));
        return;
    }
    thread_ = std::thread([this] { run(); });
}

void SimExternBmc::stop() {
    if (!thread_.joinable()) return;
    if (::write(stopFds_[1], "s", 1) < 0) {
        // The pipe is full: a stop is pending already.
    }
    thread_.join();
    ::close(stopFds_[0]);
    ::close(stopFds_[1]);
    stopFds_[0] = stopFds_[1] = -1;
}

void SimExternBmc::run() {
    using Clock = std::chrono::steady_clock;
    // The watchdog counts in tenths of a second; a pass every 20 ms keeps
    // the controller's clock within that of the wall clock.
    constexpr int passMs = 20;
    auto last = Clock::now();
    int conn = -1;
    std::unique_ptr<ExternSession> session;
    Bytes pending;
    bool announced = false;

    auto closeConnection = [&] {
        if (conn >= 0) ::close(conn);
        if (session) {
            std::lock_guard<std::recursive_mutex> lock(bmc_.mutex());
            stats_->attached = false;
        }
        conn = -1;
        session.reset();
        pending.clear();
        announced = false;
    };

    for (;;) {
        pollfd fds[3] = {{stopFds_[0], POLLIN, 0}, {listenFd_, POLLIN, 0}, {conn, 0, 0}};
        if (conn >= 0) fds[2].events = static_cast<short>(POLLIN | (pending.empty() ? 0 : POLLOUT));
        int n = ::poll(fds, conn >= 0 ? 3 : 2, passMs);
        if (n < 0 && errno != EINTR) {
            std::perror("qel-bmcsim: poll (machine)");
            break;
        }

        // The controller's clock follows the wall clock while a machine may
        // be attached, whole milliseconds at a time.
        auto now = Clock::now();
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now - last).count();
        if (ms > 0) {
            last += std::chrono::milliseconds(ms);
            bmc_.advanceMs(static_cast<std::uint64_t>(ms));
            if (session) {
                Bytes b = session->clockMoved();
                pending.insert(pending.end(), b.begin(), b.end());
            }
        }
        if (n < 0) continue;  // interrupted: the clock has moved, nothing else
        if (fds[0].revents != 0) break;

        if (fds[1].revents & POLLIN) {
            int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd >= 0) {
                // QEMU reconnects after a restart; the newest connection wins.
                closeConnection();
                conn = fd;
                session = std::make_unique<ExternSession>(bmc_, stats_);
            }
        }
        if (conn >= 0 && (fds[2].revents & (POLLIN | POLLHUP | POLLERR))) {
            unsigned char buffer[4096];
            for (;;) {
                ssize_t got = ::recv(conn, buffer, sizeof buffer, 0);
                if (got > 0) {
                    Bytes b = session->receive(buffer, static_cast<std::size_t>(got));
                    pending.insert(pending.end(), b.begin(), b.end());
                    continue;
                }
                if (got < 0 && errno == EINTR) continue;
                if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) closeConnection();
                break;
            }
            if (session && session->capabilitiesKnown() && !announced) {
                std::fprintf(stderr, "qel-bmcsim: machine attached (protocol version %u, capabilities 0x%02x)\n",
                             session->peerVersion(), session->peerCapabilities());
                announced = true;
            }
        }
        while (conn >= 0 && !pending.empty()) {
            ssize_t sent = ::send(conn, pending.data(), pending.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent < 0) {
                if (errno == EINTR) continue;
                if (errno != EAGAIN && errno != EWOULDBLOCK) closeConnection();
                break;
            }
            pending.erase(pending.begin(), pending.begin() + sent);
        }
    }
    closeConnection();
}

}  // namespace qelSim
