// The controller process's server: one SimBmc shared by every connection on
// a listening UNIX stream socket, in a single-threaded poll loop (handlers
// and timers never run concurrently, so a model needs no locking of its own
// beyond the controller's mutex).
//
// A connection that opens the device gets its own receive queue, as an open
// file of the kernel device does; an exchange runs on the controller
// (exchange() in qelSimDevice.h, the code the in-process device runs) and its
// reply hands the queued messages and the client's pending select/receive
// fault to the client. The protocol is in qelSimSocketWire.h.
#ifndef QEL_SIM_SERVER_H
#define QEL_SIM_SERVER_H

#include <memory>
#include <string>
#include <vector>

#include "qelSimBmc.h"
#include "qelSimDeviceQueue.h"
#include "qelSimSocketWire.h"

namespace qelSim {

class SimServer {
public:
    // Serves `bmc` on `listenFd` (listening, not owned) until a Shutdown
    // request comes or `stopFd` (not owned) becomes readable.
    SimServer(SimBmc& bmc, int listenFd, int stopFd);
    ~SimServer();
    SimServer(const SimServer&) = delete;
    SimServer& operator=(const SimServer&) = delete;

    void run();
    // Sends what is still owed to the clients (briefly: a client that does
    // not read is not waited for), then closes every connection; open
    // devices count as closed.
    void finish();

private:
    struct Connection {
        int fd = -1;
        Bytes in;
        Bytes out;
        std::unique_ptr<DeviceQueue> device;  // set while the device is open
        bool eof = false;
        bool dead = false;
    };

    void acceptAll();
    void readFrom(Connection& c);
    void flush(Connection& c);
    void drop(Connection& c);
    // The reply payload (status first) to one request payload.
    Bytes handle(Connection& c, const Bytes& request);
    // Adds the selects a device client answered on its own (the count that
    // ends SEND, SELECT and CLOSE).
    void countSelects(wire::Reader& in);

    SimBmc& bmc_;
    int listenFd_;
    int stopFd_;
    bool stopping_ = false;
    std::vector<std::unique_ptr<Connection>> connections_;
};

}  // namespace qelSim

#endif
