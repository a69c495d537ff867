// The client side of the controller process's socket: a connection, and an
// open IPMI device whose exchanges run in the controller process while its
// receive queue is local (so select and receive need no round trip, and the
// descriptor is a real eventfd that any select or poll can watch).
//
// Uses nothing of libqelbase: SocketDeviceProvider (qelSimSocket.h) wraps it
// for the library's device seam, and the preload library (sim/preload/) for
// unmodified programs.
#ifndef QEL_SIM_SOCKET_CLIENT_H
#define QEL_SIM_SOCKET_CLIENT_H

#include <sys/select.h>

#include <cstdint>
#include <string>

#include "qelSimDeviceQueue.h"
#include "qelSimSocketWire.h"

namespace qelSim {

class SocketConnection {
public:
    SocketConnection() = default;
    ~SocketConnection();
    SocketConnection(const SocketConnection&) = delete;
    SocketConnection& operator=(const SocketConnection&) = delete;

    // 0, or the errno value of socket/connect (ENAMETOOLONG for a path that
    // does not fit a socket address).
    [[nodiscard]] int connect(const std::string& socketPath);
    bool connected() const { return fd_ >= 0; }
    void close();

    // One request and its reply: 0 with `status` and the reply's fields in
    // `reply`, or an errno value when the conversation broke (the connection
    // is closed then).
    [[nodiscard]] int call(const wire::Writer& request, std::int32_t& status, Bytes& reply);
    // Blocks until the peer closes the connection (what it sends meanwhile
    // is dropped), then closes ours.
    void waitClosed();

private:
    int fd_ = -1;
    // What arrived past the frame being read (nothing, in a strict request
    // and reply conversation; kept rather than lost all the same).
    Bytes in_;
    // The last reply's payload, its room kept for the next one.
    Bytes payload_;
};

class SocketDeviceClient {
public:
    // `signalled`: whether the descriptor's readiness must be true for any
    // select or poll (the preload library's programs watch it themselves),
    // or only for select() below (the library's device seam).
    explicit SocketDeviceClient(bool signalled = true) : queue_(true, signalled) {}
    // Closes the device at the controller (a round trip, so the controller
    // has counted the close when this returns).
    ~SocketDeviceClient();
    SocketDeviceClient(const SocketDeviceClient&) = delete;
    SocketDeviceClient& operator=(const SocketDeviceClient&) = delete;

    // Connects and opens `devicePath` at the controller: 0, or an errno value
    // (the connect failure, or the controller's answer, e.g. ENOENT).
    [[nodiscard]] int open(const std::string& socketPath, const std::string& devicePath);

    // As the kernel device: the selectable descriptor, ioctl(2) (0 or -1
    // with errno) and select(2) over a read set that holds fd(). A select
    // that a waiting message or fault answers needs nothing of the
    // controller and is answered here; the controller counts it with the
    // connection's next operation.
    int fd() const { return queue_.fd(); }
    int ioctl(unsigned long request, void* argument);
    int select(int nfds, fd_set* readSet, struct timeval* timeout);

private:
    int send(void* argument);
    // Appends the selects answered here since the last operation.
    void putUncountedSelects(wire::Writer& w);

    SocketConnection connection_;
    // A SEND's request and reply, their room kept from one to the next.
    wire::Writer sendRequest_;
    Bytes sendReplyBytes_;
    wire::SendReply sendReply_;
    DeviceQueue queue_;
    bool open_ = false;
    bool realTimeouts_ = false;
    std::uint32_t uncountedSelects_ = 0;
};

}  // namespace qelSim

#endif
