#include "qelSimSocketWire.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qelSim {
namespace wire {

// ---------------------------------------------------------------- fields

Writer& Writer::u8(unsigned v) {
    data_.push_back(static_cast<unsigned char>(v));
    return *this;
}

// Wider fields go in with one insert each, not byte by byte: a device
// operation writes a dozen of them.
Writer& Writer::u16(unsigned v) {
    const unsigned char b[2] = {static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    data_.insert(data_.end(), b, b + sizeof b);
    return *this;
}

Writer& Writer::u32(std::uint32_t v) {
    const unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                                static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    data_.insert(data_.end(), b, b + sizeof b);
    return *this;
}

Writer& Writer::u64(std::uint64_t v) {
    return u32(static_cast<std::uint32_t>(v >> 32)).u32(static_cast<std::uint32_t>(v));
}

Writer& Writer::bytes(const Bytes& b) {
    u32(static_cast<std::uint32_t>(b.size()));
    data_.insert(data_.end(), b.begin(), b.end());
    return *this;
}

Writer& Writer::str(const std::string& s) { return bytes(Bytes(s.begin(), s.end())); }

const unsigned char* Reader::take(std::size_t n) {
    if (data_.size() - pos_ < n) throw WireError("frame ends inside a field");
    const unsigned char* p = data_.data() + pos_;
    pos_ += n;
    return p;
}

unsigned Reader::u8() { return *take(1); }

unsigned Reader::u16() {
    const unsigned char* p = take(2);
    return static_cast<unsigned>(p[0]) << 8 | p[1];
}

std::uint32_t Reader::u32() {
    const unsigned char* p = take(4);
    return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
           static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}

std::uint64_t Reader::u64() {
    std::uint64_t hi = u32();
    return hi << 32 | u32();
}

Bytes Reader::bytes() {
    std::uint32_t n = u32();
    const unsigned char* p = take(n);
    return Bytes(p, p + n);
}

std::string Reader::str() {
    Bytes b = bytes();
    return std::string(b.begin(), b.end());
}

// ---------------------------------------------------------------- records

void putRequest(Writer& w, const Request& r) {
    w.i32(r.addrType).u16(static_cast<unsigned short>(r.channel)).u8(r.slaveAddr).u8(r.lun);
    w.i64(r.msgId).u8(r.netFn).u8(r.cmd).bytes(r.data);
}

Request getRequest(Reader& in) {
    Request r;
    r.addrType = in.i32();
    r.channel = static_cast<short>(in.u16());
    r.slaveAddr = static_cast<unsigned char>(in.u8());
    r.lun = static_cast<unsigned char>(in.u8());
    r.msgId = static_cast<long>(in.i64());
    r.netFn = static_cast<unsigned char>(in.u8());
    r.cmd = static_cast<unsigned char>(in.u8());
    r.data = in.bytes();
    return r;
}

void putMessage(Writer& w, const PendingMessage& m) {
    w.i32(m.recvType).i32(m.addrType).u16(static_cast<unsigned short>(m.channel));
    w.u8(m.slaveAddr).u8(m.lun).i64(m.msgId).u8(m.netFn).u8(m.cmd);
    w.u32(static_cast<std::uint32_t>(m.reportedLength)).bytes(m.data);
}

PendingMessage getMessage(Reader& in) {
    PendingMessage m;
    m.recvType = in.i32();
    m.addrType = in.i32();
    m.channel = static_cast<short>(in.u16());
    m.slaveAddr = static_cast<unsigned char>(in.u8());
    m.lun = static_cast<unsigned char>(in.u8());
    m.msgId = static_cast<long>(in.i64());
    m.netFn = static_cast<unsigned char>(in.u8());
    m.cmd = static_cast<unsigned char>(in.u8());
    m.reportedLength = in.u32();
    m.data = in.bytes();
    return m;
}

void putFault(Writer& w, const Fault& f) {
    w.u8(static_cast<unsigned>(f.kind)).i32(f.errnoValue).u8(f.code).bytes(f.bytes);
    w.i32(f.recvType).i32(f.count).u8(f.only ? 1 : 0);
    w.u8(f.only ? f.only->first : 0).u8(f.only ? f.only->second : 0);
}

Fault getFault(Reader& in) {
    Fault f;
    unsigned kind = in.u8();
    if (kind > static_cast<unsigned>(Fault::OversizeReply)) throw WireError("unknown fault kind " + std::to_string(kind));
    f.kind = static_cast<Fault::Kind>(kind);
    f.errnoValue = in.i32();
    f.code = static_cast<unsigned char>(in.u8());
    f.bytes = in.bytes();
    f.recvType = in.i32();
    f.count = in.i32();
    bool only = in.u8() != 0;
    unsigned char netFn = static_cast<unsigned char>(in.u8());
    unsigned char cmd = static_cast<unsigned char>(in.u8());
    if (only) f.only = std::make_pair(netFn, cmd);
    // The device builds an answer of `count` bytes from it: a negative or
    // absurd length from a confused peer must not become a huge allocation.
    if (f.kind == Fault::OversizeReply && (f.count < 0 || f.count > 65535))
        throw WireError("oversize reply length out of range");
    if (f.kind == Fault::MessagesBefore && (f.count < 0 || f.count > 1000))
        throw WireError("message count out of range");
    return f;
}

void putSendReply(Writer& w, const SendReply& reply) {
    w.u8(reply.realTimeouts ? 1 : 0).u8(reply.deviceFault ? 1 : 0);
    if (reply.deviceFault) putFault(w, *reply.deviceFault);
    w.u32(static_cast<std::uint32_t>(reply.messages.size()));
    for (const PendingMessage& m : reply.messages) putMessage(w, m);
}

SendReply getSendReply(Reader& in) {
    SendReply reply;
    getSendReply(in, reply);
    return reply;
}

void getSendReply(Reader& in, SendReply& reply) {
    reply.messages.clear();
    reply.deviceFault.reset();
    reply.realTimeouts = in.u8() != 0;
    if (in.u8() != 0) reply.deviceFault = getFault(in);
    std::uint32_t count = in.u32();
    for (std::uint32_t i = 0; i < count; ++i) reply.messages.push_back(getMessage(in));
}

// ---------------------------------------------------------------- frames

Bytes frame(const Bytes& payload) {
    Writer w;
    w.bytes(payload);
    return w.data();
}

bool takeFrame(Bytes& buffer, Bytes& payload) {
    if (buffer.size() < 4) return false;
    std::uint32_t length = static_cast<std::uint32_t>(buffer[0]) << 24 |
                           static_cast<std::uint32_t>(buffer[1]) << 16 |
                           static_cast<std::uint32_t>(buffer[2]) << 8 | buffer[3];
    if (length > maxFrame) throw WireError("frame of " + std::to_string(length) + " bytes");
    if (buffer.size() - 4 < length) return false;
    payload.assign(buffer.begin() + 4, buffer.begin() + 4 + length);
    buffer.erase(buffer.begin(), buffer.begin() + 4 + length);
    return true;
}

namespace {

int writeAll(int fd, const unsigned char* p, std::size_t n) {
    while (n > 0) {
        ssize_t done = ::send(fd, p, n, MSG_NOSIGNAL);
        if (done < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        p += done;
        n -= static_cast<std::size_t>(done);
    }
    return 0;
}

}  // namespace

int writeFrame(int fd, const Bytes& payload) {
    if (payload.size() > maxFrame) return EMSGSIZE;
    unsigned char small[512];  // a device operation's frame: no allocation
    if (payload.size() + 4 <= sizeof small) {
        const auto n = static_cast<std::uint32_t>(payload.size());
        small[0] = static_cast<unsigned char>(n >> 24);
        small[1] = static_cast<unsigned char>(n >> 16);
        small[2] = static_cast<unsigned char>(n >> 8);
        small[3] = static_cast<unsigned char>(n);
        if (n > 0) std::memcpy(small + 4, payload.data(), n);
        return writeAll(fd, small, n + 4);
    }
    Bytes whole = frame(payload);
    return writeAll(fd, whole.data(), whole.size());
}

int readFrame(int fd, Bytes& buffer, Bytes& payload) {
    for (;;) {
        try {
            if (takeFrame(buffer, payload)) return 0;
        } catch (const WireError&) {
            return EPROTO;
        }
        unsigned char chunk[16384];
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n == 0) return ECONNRESET;
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        buffer.insert(buffer.end(), chunk, chunk + n);
    }
}

}  // namespace wire
}  // namespace qelSim
