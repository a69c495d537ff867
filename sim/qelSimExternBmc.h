// The simulated controller behind a virtual machine's KCS interface: QEMU's
// external-BMC protocol (the ipmi-bmc-extern device), so a guest kernel's IPMI
// driver talks to the full controller model.
//
// QEMU connects to us as the client of a byte stream. Messages and control
// commands are frames:
//   - 0xA0 ends a message, 0xA1 ends a control command, 0xAA escapes: any of
//     the three inside a frame travels as 0xAA followed by the byte with bit 4
//     set (0xA0 -> 0xAA 0xB0).
//   - a request is  msgid, netfn << 2 | lun, cmd, data..., checksum
//     a response is msgid, (netfn | 1) << 2 | lun, cmd, completion code,
//     data..., checksum; the checksum makes the 8-bit sum of the frame zero.
//     A frame with a wrong checksum is dropped (QEMU answers its guest 0xC3
//     itself after 4 seconds without a response).
//   - control commands are an opcode and an optional argument. QEMU sends its
//     protocol version (0xFF 0x01) and its capabilities (0x08 mask) when it
//     connects; the controller sends machine operations: 0x04 reset, 0x03
//     power off, 0x07 NMI, and so on.
//
// Requests are recorded and answered exactly like those of the device
// (exchange() in qelSimDevice.h), faults included. When the controller takes
// a Set BMC Global Enables, its receive-message-queue interrupt bit turns
// the interface's interrupt on or off (0x05 / 0x06 to QEMU). With a machine attached
// the controller's clock follows the wall clock, so the watchdog counts down
// in real time; when it runs out, its time-out action becomes the machine
// operation QEMU offers for it (hard reset and power cycle: reset; power
// down: power off), and an NMI pre-timeout interrupt becomes an NMI.
#ifndef QEL_SIM_EXTERN_BMC_H
#define QEL_SIM_EXTERN_BMC_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qelSimBmc.h"

namespace qelSim {

namespace externWire {
constexpr unsigned char messageEnd = 0xA0;
constexpr unsigned char commandEnd = 0xA1;
constexpr unsigned char escape = 0xAA;
constexpr unsigned char escapedBit = 0x10;

// Control commands (first byte of a command frame).
constexpr unsigned char cmdNoAttention = 0x00;
constexpr unsigned char cmdAttention = 0x01;
constexpr unsigned char cmdAttentionIrq = 0x02;
constexpr unsigned char cmdPowerOff = 0x03;
constexpr unsigned char cmdReset = 0x04;
constexpr unsigned char cmdEnableIrq = 0x05;
constexpr unsigned char cmdDisableIrq = 0x06;
constexpr unsigned char cmdSendNmi = 0x07;
constexpr unsigned char cmdCapabilities = 0x08;
constexpr unsigned char cmdForceOff = 0x09;
constexpr unsigned char cmdVersion = 0xFF;

// Capability bits of the 0x08 command's argument.
constexpr unsigned char capPower = 0x01;
constexpr unsigned char capReset = 0x02;
constexpr unsigned char capIrq = 0x04;
constexpr unsigned char capNmi = 0x08;
constexpr unsigned char capAttention = 0x10;

constexpr unsigned char protocolVersion = 1;

// The byte that makes the 8-bit sum of `bytes` and itself zero.
unsigned char checksum(const Bytes& bytes);
// `payload` escaped and followed by `end` (messageEnd or commandEnd).
Bytes encode(const Bytes& payload, unsigned char end);

// One decoded frame: its bytes unescaped, without the end byte.
struct Frame {
    bool command = false;
    Bytes bytes;
};

// Collects frames from a byte stream that arrives in pieces.
class Decoder {
public:
    // Appends `count` bytes; complete frames come out in order.
    std::vector<Frame> feed(const unsigned char* data, std::size_t count);

private:
    Bytes current_;
    bool escaped_ = false;
};
}  // namespace externWire

// What the machine side did, for the controller's state dump (section
// "[machine]") and for tests. Guarded by the controller's mutex.
struct ExternStats {
    int connections = 0;
    bool attached = false;
    unsigned version = 0;
    unsigned capabilities = 0;
    std::uint64_t requests = 0;
    unsigned droppedFrames = 0;
    std::vector<unsigned char> commandsSent;
};

// The protocol on one connection, without the socket: bytes in, bytes out.
// Used by SimExternBmc's thread and driven directly by the tests.
class ExternSession {
public:
    // `stats`, when given, is kept up to date under the controller's mutex.
    explicit ExternSession(SimBmc& bmc, std::shared_ptr<ExternStats> stats = nullptr);

    // The bytes QEMU sent; returns the bytes to send back (responses).
    Bytes receive(const unsigned char* data, std::size_t count);
    // The controller's clock moved to `nowMs`: the machine operations for
    // watchdog events since the last call, as bytes to send.
    Bytes clockMoved();

    // What QEMU announced (0 until it did).
    unsigned char peerVersion() const { return version_; }
    unsigned char peerCapabilities() const { return capabilities_; }
    bool capabilitiesKnown() const { return capabilitiesKnown_; }
    // Message frames dropped for a bad checksum or a short frame.
    unsigned droppedFrames() const { return dropped_; }
    // The control commands sent to the machine, in order.
    const std::vector<unsigned char>& sentCommands() const { return sentCommands_; }

private:
    Bytes answer(const Bytes& frame);
    Bytes command(unsigned char opcode);

    SimBmc& bmc_;
    std::shared_ptr<ExternStats> stats_;
    externWire::Decoder decoder_;
    unsigned char version_ = 0;
    unsigned char capabilities_ = 0;
    bool capabilitiesKnown_ = false;
    unsigned dropped_ = 0;
    std::size_t expiriesSeen_;
    std::size_t preTimeoutsSeen_;
    std::vector<unsigned char> sentCommands_;
};

// Listens on 127.0.0.1:`port` for QEMU and serves one connection at a time
// (QEMU reconnects after a restart) in a thread of its own. The controller's
// mutex keeps it apart from the socket server's loop.
class SimExternBmc {
public:
    SimExternBmc(SimBmc& bmc, int port);
    ~SimExternBmc();
    SimExternBmc(const SimExternBmc&) = delete;
    SimExternBmc& operator=(const SimExternBmc&) = delete;

    // Binds and listens; false with a message in `error` when that fails.
    [[nodiscard]] bool listen(std::string& error);
    // The port listened on (the chosen one when 0 was asked for).
    int port() const { return port_; }
    // Starts the thread (after a daemon's fork) and stops it.
    void start();
    void stop();

private:
    void run();

    SimBmc& bmc_;
    std::shared_ptr<ExternStats> stats_;
    int port_;
    int listenFd_ = -1;
    int stopFds_[2] = {-1, -1};
    std::thread thread_;
};

}  // namespace qelSim

#endif
