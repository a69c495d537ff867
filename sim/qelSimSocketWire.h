// The framed protocol between the controller process (qel-bmcsim) and its
// clients, over a UNIX stream socket.
//
// Every frame is a 32-bit length and that many payload bytes. A request's
// payload is an operation byte and its fields; a reply's is a 32-bit status
// (0, or an errno value) and the operation's fields, or for a failure a text
// saying why. Integers are big-endian; strings and byte strings are a 32-bit
// length and the bytes. One connection carries one request at a time and
// gets one reply for each, in order.
//
// Device operations: OPEN makes the connection an open device (the
// controller keeps a receive queue for it, as the kernel does per open file);
// SEND runs one exchange and its reply hands back everything the exchange
// queued, with the fault the client's next select or receive applies and
// whether select waits out real time-outs; SELECT counts a select call and
// answers that flag again; CLOSE closes the device. SEND, SELECT and CLOSE
// end with a 32-bit count of the selects the client answered on its own
// since its last operation (a message or fault was waiting), which the
// controller adds to its count; an older client's operation without it
// counts none. The rest are control
// operations for tests and tools.
//
// Like the queue, this file uses nothing of libqelbase or of SimBmc's code:
// the preload library compiles it on its own.
#ifndef QEL_SIM_SOCKET_WIRE_H
#define QEL_SIM_SOCKET_WIRE_H

#include <cstdint>
#include <deque>
#include <optional>
#include <stdexcept>
#include <string>

#include "qelSimBmc.h"
#include "qelSimDeviceQueue.h"

namespace qelSim {
namespace wire {

enum class Op : unsigned char {
    Open = 0x01,           // string path               -> status
    Send = 0x02,           // request, [u32 selects]     -> status, SendReply
    Select = 0x03,         // [u32 selects]              -> status, u8 realTimeouts
    Close = 0x04,          // [u32 selects]              -> status
    Advance = 0x10,        // u64 ms                     -> status, u64 now
    InjectFault = 0x11,    // fault                      -> status
    ClearFaults = 0x12,    //                            -> status
    Requests = 0x13,       //                            -> status, string (one line each)
    ClearRequests = 0x14,  //                            -> status
    Dump = 0x15,           //                            -> status, string
    SetDeviceId = 0x16,    // bytes                      -> status
    Describe = 0x17,       // string description line    -> status (EINVAL, text)
    Keywords = 0x18,       //                            -> status, string
    Shutdown = 0x1F,       //                            -> status, then the server ends
};

// Larger frames are refused: a length beyond it means the peer speaks
// something else, and the connection is dropped.
constexpr std::uint32_t maxFrame = 16u << 20;

struct WireError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Writer {
public:
    Writer() { data_.reserve(64); }  // a device operation's size: no regrowth byte by byte
    Writer& u8(unsigned v);
    Writer& u16(unsigned v);
    Writer& u32(std::uint32_t v);
    Writer& u64(std::uint64_t v);
    Writer& i32(std::int32_t v) { return u32(static_cast<std::uint32_t>(v)); }
    Writer& i64(std::int64_t v) { return u64(static_cast<std::uint64_t>(v)); }
    Writer& bytes(const Bytes& b);
    Writer& str(const std::string& s);
    const Bytes& data() const { return data_; }
    // Empties it for the next payload, keeping its room.
    void clear() { data_.clear(); }

private:
    Bytes data_;
};

// Reads fields in order; throws WireError when the payload ends early.
class Reader {
public:
    explicit Reader(const Bytes& data) : data_(data) {}
    unsigned u8();
    unsigned u16();
    std::uint32_t u32();
    std::uint64_t u64();
    std::int32_t i32() { return static_cast<std::int32_t>(u32()); }
    std::int64_t i64() { return static_cast<std::int64_t>(u64()); }
    Bytes bytes();
    std::string str();
    bool atEnd() const { return pos_ == data_.size(); }

private:
    const unsigned char* take(std::size_t n);
    const Bytes& data_;
    std::size_t pos_ = 0;
};

void putRequest(Writer& w, const Request& r);
Request getRequest(Reader& r);
void putMessage(Writer& w, const PendingMessage& m);
PendingMessage getMessage(Reader& r);
void putFault(Writer& w, const Fault& f);
Fault getFault(Reader& r);

// The reply to SEND behind its status.
struct SendReply {
    bool realTimeouts = false;
    std::optional<Fault> deviceFault;
    std::deque<PendingMessage> messages;
};
void putSendReply(Writer& w, const SendReply& reply);
SendReply getSendReply(Reader& r);
// The same into `out`, whose queue keeps its room (a client's every SEND).
void getSendReply(Reader& r, SendReply& out);

// The payload with its length in front.
Bytes frame(const Bytes& payload);
// Takes the first complete frame off the front of `buffer` into `payload`;
// false while it is incomplete. Throws WireError for a length over maxFrame.
bool takeFrame(Bytes& buffer, Bytes& payload);

// Blocking frame I/O on a socket: 0, or an errno value (ECONNRESET when the
// peer closed, EPROTO for a length over maxFrame). Never raises SIGPIPE.
int writeFrame(int fd, const Bytes& payload);
// readFrame reads as much as has arrived at once (a reply is usually one
// recv), keeping in `buffer` what came past the frame for the next call.
int readFrame(int fd, Bytes& buffer, Bytes& payload);

}  // namespace wire
}  // namespace qelSim

#endif
