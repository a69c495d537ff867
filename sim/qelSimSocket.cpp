#include "qelSimSocket.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "qelSimDescription.h"

namespace qelSim {

namespace {

// The library's view of a device whose exchanges run in the controller
// process.
class SocketDevice : public qelIpmi::QelIpmiDevice {
public:
    explicit SocketDevice(std::unique_ptr<SocketDeviceClient> client) : client_(std::move(client)) {}
    int fd() const override { return client_->fd(); }
    int ioctl(unsigned long request, void* argument) override {
        return client_->ioctl(request, argument);
    }
    int select(int nfds, fd_set* readSet, struct timeval* timeout) override {
        return client_->select(nfds, readSet, timeout);
    }

private:
    std::unique_ptr<SocketDeviceClient> client_;
};

}  // namespace

std::unique_ptr<qelIpmi::QelIpmiDevice> SocketDeviceProvider::open(const char* path, int) {
    // The library selects through the seam only, never on the descriptor.
    auto client = std::make_unique<SocketDeviceClient>(false);
    if (int e = client->open(socketPath_, path ? path : "")) {
        errno = e;
        return nullptr;
    }
    return std::make_unique<SocketDevice>(std::move(client));
}

ScopedSocketDevice::ScopedSocketDevice(std::string socketPath)
    : provider_(std::move(socketPath)), previous_(qelIpmi::setIpmiDeviceProvider(&provider_)) {}

ScopedSocketDevice::~ScopedSocketDevice() { qelIpmi::setIpmiDeviceProvider(previous_); }

// ---------------------------------------------------------------- control

SimControlClient::SimControlClient(const std::string& socketPath) {
    if (int e = connection_.connect(socketPath))
        throw SimSocketError("cannot connect to " + socketPath + ": " + std::strerror(e), e);
}

namespace {

wire::Writer opening(wire::Op op) {
    wire::Writer w;
    w.u8(static_cast<unsigned>(op));
    return w;
}

}  // namespace

Bytes SimControlClient::call(const wire::Writer& request) {
    std::int32_t status;
    Bytes reply;
    if (int e = connection_.call(request, status, reply))
        throw SimSocketError(std::string("controller connection: ") + std::strerror(e), e);
    if (status != 0) {
        std::string text(reply.begin(), reply.end());
        if (text.empty()) text = std::strerror(status);
        throw SimSocketError(text, status);
    }
    return reply;
}

std::string SimControlClient::callForText(const wire::Writer& request) {
    Bytes reply = call(request);
    wire::Reader in(reply);
    return in.str();
}

std::uint64_t SimControlClient::advanceMs(std::uint64_t ms) {
    Bytes reply = call(opening(wire::Op::Advance).u64(ms));
    wire::Reader in(reply);
    return in.u64();
}

void SimControlClient::injectFault(const Fault& fault) {
    wire::Writer w = opening(wire::Op::InjectFault);
    wire::putFault(w, fault);
    call(w);
}

void SimControlClient::clearFaults() { call(opening(wire::Op::ClearFaults)); }

std::vector<std::string> SimControlClient::requestLines() {
    std::istringstream text(callForText(opening(wire::Op::Requests)));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        if (!line.empty()) lines.push_back(line);
    return lines;
}

std::vector<Request> SimControlClient::requests() {
    std::vector<Request> out;
    for (const std::string& line : requestLines()) out.push_back(parseRequest(line));
    return out;
}

void SimControlClient::clearRequests() { call(opening(wire::Op::ClearRequests)); }

std::string SimControlClient::dump() { return callForText(opening(wire::Op::Dump)); }

void SimControlClient::setDeviceId(const Bytes& response) {
    call(opening(wire::Op::SetDeviceId).bytes(response));
}

void SimControlClient::describe(const std::string& line) {
    call(opening(wire::Op::Describe).str(line));
}

std::string SimControlClient::keywords() { return callForText(opening(wire::Op::Keywords)); }

void SimControlClient::shutdown() {
    call(opening(wire::Op::Shutdown));
    // The controller closes every connection once it has removed its socket
    // and pid file.
    connection_.waitClosed();
}

}  // namespace qelSim
