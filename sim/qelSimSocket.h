// The simulated controller in another process (qel-bmcsim), as seen from a
// test, a tool or the library.
//
// SocketDeviceProvider plugs a controller process in at the library's device
// seam: every device it opens is one connection to the controller's socket,
// with its own receive queue there and here, so QelIpmi::sendCmd runs its own
// loop unchanged while several processes share one controller. Device faults
// behave as with the in-process simulator (qelSimDevice.h).
//
// SimControlClient drives the controller: its clock, faults, recorded traffic,
// description lines, state dump and shutdown.
//
//   qelSim::SocketDeviceProvider provider("/tmp/bmc.sock");
//   qelIpmi::setIpmiDeviceProvider(&provider);
//   qelSim::SimControlClient("/tmp/bmc.sock").advanceMs(300000);
#ifndef QEL_SIM_SOCKET_H
#define QEL_SIM_SOCKET_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "qelIpmiDevice.h"
#include "qelSimBmc.h"
#include "qelSimSocketClient.h"

namespace qelSim {

class SocketDeviceProvider : public qelIpmi::QelIpmiDeviceProvider {
public:
    explicit SocketDeviceProvider(std::string socketPath) : socketPath_(std::move(socketPath)) {}
    // Connects and opens `path` at the controller. On failure nullptr with
    // errno: the controller's answer (ENOENT for a missing path) or the
    // connect failure (ECONNREFUSED, ENOENT when nothing listens).
    std::unique_ptr<qelIpmi::QelIpmiDevice> open(const char* path, int flags) override;
    const std::string& socketPath() const { return socketPath_; }

private:
    std::string socketPath_;
};

// A controller process's socket installed as the process's IPMI device for
// the lifetime of the object; the previous provider comes back on
// destruction.
class ScopedSocketDevice {
public:
    explicit ScopedSocketDevice(std::string socketPath);
    ~ScopedSocketDevice();
    ScopedSocketDevice(const ScopedSocketDevice&) = delete;
    ScopedSocketDevice& operator=(const ScopedSocketDevice&) = delete;

private:
    SocketDeviceProvider provider_;
    qelIpmi::QelIpmiDeviceProvider* previous_;
};

// A failed control operation: the connection broke, or the controller
// refused (its text is in what()).
class SimSocketError : public std::runtime_error {
public:
    SimSocketError(const std::string& what, int errorNumber)
        : std::runtime_error(what), errorNumber_(errorNumber) {}
    int errorNumber() const { return errorNumber_; }

private:
    int errorNumber_;
};

class SimControlClient {
public:
    // Connects; throws SimSocketError when nothing listens at `socketPath`.
    explicit SimControlClient(const std::string& socketPath);

    // Moves the controller's clock on (timers due on the way fire) and
    // returns the new time.
    std::uint64_t advanceMs(std::uint64_t ms);
    std::uint64_t nowMs() { return advanceMs(0); }
    void injectFault(const Fault& fault);
    void clearFaults();
    // Every recorded request, one line each (formatRequest), and parsed.
    std::vector<std::string> requestLines();
    std::vector<Request> requests();
    void clearRequests();
    // The readable state dump, a "[section]" line before each part.
    std::string dump();
    void setDeviceId(const Bytes& response);
    // One description line ("real-timeouts on"); throws SimSocketError with
    // the controller's text for a bad one.
    void describe(const std::string& line);
    // "keyword<TAB>usage" lines.
    std::string keywords();
    // Asks the controller to end; returns once it has closed its socket.
    void shutdown();

private:
    Bytes call(const wire::Writer& request);
    std::string callForText(const wire::Writer& request);

    SocketConnection connection_;
};

}  // namespace qelSim

#endif
