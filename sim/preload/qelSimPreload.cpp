// libqelsim-preload.so: a stand-in /dev/ipmi0 for programs that cannot be
// changed (ipmitool and the like), served by a controller process.
//
//   QEL_BMCSIM_SOCKET=/tmp/bmc.sock LD_PRELOAD=.../libqelsim-preload.so ipmitool -I open mc info
//
// With QEL_BMCSIM_SOCKET set, opening "/dev/ipmi0", "/dev/ipmi/0" or
// "/dev/ipmidev/0" (open, open64, openat, openat64 and their fortified forms)
// connects to the controller and returns the descriptor of a device whose
// receive queue is local: a real eventfd, readable while a message waits, so
// select and poll work on it as on the kernel device. ioctl on it takes the
// kernel's IPMI requests (send, receive, receive with truncation, events
// wanted, own address and LUN, timing parameters); select over a read set
// that holds only that descriptor applies the controller's select faults and
// its choice between an immediate and a real time-out; close ends the
// connection. Without the variable every call goes straight to the C library.
//
// Not covered: a descriptor duplicated with dup/dup2/fcntl is a plain
// eventfd; poll and a select over several descriptors wait for real without
// the select faults. One thread at a time per descriptor, as the programs
// in question use it.
//
// This library is built without sanitizers in every build: the programs it
// is loaded into are not instrumented, and a sanitizer runtime cannot be
// loaded into them after the fact. The sanitized unit tests cover the same
// client code (qelSimSocketClient.cpp) through SocketDeviceProvider.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "qelSimSocketClient.h"

#define QEL_INTERPOSE extern "C" __attribute__((visibility("default")))

namespace {

template <typename F>
F realFunction(const char* name) {
    void* f = ::dlsym(RTLD_NEXT, name);
    if (f == nullptr) {
        // The C library always has these; without one we cannot go on.
        std::abort();
    }
    return reinterpret_cast<F>(f);
}

using OpenFn = int (*)(const char*, int, ...);
using OpenAtFn = int (*)(int, const char*, int, ...);
using CloseFn = int (*)(int);
using IoctlFn = int (*)(int, unsigned long, ...);
using SelectFn = int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*);

struct Device {
    std::mutex mutex;
    qelSim::SocketDeviceClient client;
};

// Never destroyed: the program may close its descriptor from an atexit
// handler after static destructors would have run.
struct Table {
    std::mutex mutex;
    std::map<int, std::shared_ptr<Device>> devices;
};

Table& table() {
    static Table* t = new Table;
    return *t;
}

std::shared_ptr<Device> find(int fd) {
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.devices.find(fd);
    return it == t.devices.end() ? nullptr : it->second;
}

const char* controllerSocket(const char* path) {
    if (path == nullptr) return nullptr;
    if (std::strcmp(path, "/dev/ipmi0") != 0 && std::strcmp(path, "/dev/ipmi/0") != 0 &&
        std::strcmp(path, "/dev/ipmidev/0") != 0)
        return nullptr;
    const char* socket = std::getenv("QEL_BMCSIM_SOCKET");
    return socket != nullptr && *socket != '\0' ? socket : nullptr;
}

int openDevice(const char* socket, const char* path) {
    auto device = std::make_shared<Device>();
    if (int e = device->client.open(socket, path)) {
        device.reset();  // closes its descriptors through close() below, outside the lock
        errno = e;
        return -1;
    }
    int fd = device->client.fd();
    if (fd < 0) {
        errno = EMFILE;
        return -1;
    }
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.devices[fd] = std::move(device);
    return fd;
}

mode_t modeArgument(int flags, va_list ap) {
    // Only these flags pass a mode; reading it otherwise reads garbage.
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) return va_arg(ap, mode_t);
    return 0;
}

}  // namespace

QEL_INTERPOSE int open(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = modeArgument(flags, ap);
    va_end(ap);
    if (const char* socket = controllerSocket(path)) return openDevice(socket, path);
    static const OpenFn real = realFunction<OpenFn>("open");
    return real(path, flags, mode);
}

QEL_INTERPOSE int open64(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = modeArgument(flags, ap);
    va_end(ap);
    if (const char* socket = controllerSocket(path)) return openDevice(socket, path);
    static const OpenFn real = realFunction<OpenFn>("open64");
    return real(path, flags, mode);
}

QEL_INTERPOSE int openat(int dirFd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = modeArgument(flags, ap);
    va_end(ap);
    if (const char* socket = controllerSocket(path)) return openDevice(socket, path);
    static const OpenAtFn real = realFunction<OpenAtFn>("openat");
    return real(dirFd, path, flags, mode);
}

QEL_INTERPOSE int openat64(int dirFd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = modeArgument(flags, ap);
    va_end(ap);
    if (const char* socket = controllerSocket(path)) return openDevice(socket, path);
    static const OpenAtFn real = realFunction<OpenAtFn>("openat64");
    return real(dirFd, path, flags, mode);
}

// What a program built with _FORTIFY_SOURCE calls for open without a mode.
QEL_INTERPOSE int __open_2(const char* path, int flags) {
    if (const char* socket = controllerSocket(path)) return openDevice(socket, path);
    static const auto real = realFunction<int (*)(const char*, int)>("__open_2");
    return real(path, flags);
}

QEL_INTERPOSE int __open64_2(const char* path, int flags) {
    if (const char* socket = controllerSocket(path)) return openDevice(socket, path);
    static const auto real = realFunction<int (*)(const char*, int)>("__open64_2");
    return real(path, flags);
}

QEL_INTERPOSE int __openat_2(int dirFd, const char* path, int flags) {
    if (const char* socket = controllerSocket(path)) return openDevice(socket, path);
    static const auto real = realFunction<int (*)(int, const char*, int)>("__openat_2");
    return real(dirFd, path, flags);
}

QEL_INTERPOSE int __openat64_2(int dirFd, const char* path, int flags) {
    if (const char* socket = controllerSocket(path)) return openDevice(socket, path);
    static const auto real = realFunction<int (*)(int, const char*, int)>("__openat64_2");
    return real(dirFd, path, flags);
}

QEL_INTERPOSE int close(int fd) {
    std::shared_ptr<Device> device;
    {
        Table& t = table();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.devices.find(fd);
        if (it != t.devices.end()) {
            device = std::move(it->second);
            t.devices.erase(it);
        }
    }
    if (device) {
        // Closing the device closes the eventfd (the program's descriptor)
        // and the connection, through this function again.
        device.reset();
        return 0;
    }
    static const CloseFn real = realFunction<CloseFn>("close");
    return real(fd);
}

QEL_INTERPOSE int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);
    void* argument = va_arg(ap, void*);
    va_end(ap);
    if (std::shared_ptr<Device> device = find(fd)) {
        std::lock_guard<std::mutex> lock(device->mutex);
        return device->client.ioctl(request, argument);
    }
    static const IoctlFn real = realFunction<IoctlFn>("ioctl");
    return real(fd, request, argument);
}

QEL_INTERPOSE int select(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet,
                         struct timeval* timeout) {
    std::shared_ptr<Device> ours;
    bool onlyOurs = true;
    int limit = nfds < FD_SETSIZE ? nfds : FD_SETSIZE;
    {
        Table& t = table();
        std::lock_guard<std::mutex> lock(t.mutex);
        if (!t.devices.empty()) {
            for (int fd = 0; fd < limit; ++fd) {
                if ((writeSet && FD_ISSET(fd, writeSet)) || (exceptSet && FD_ISSET(fd, exceptSet)))
                    onlyOurs = false;
                if (readSet == nullptr || !FD_ISSET(fd, readSet)) continue;
                auto it = t.devices.find(fd);
                if (it == t.devices.end() || ours) onlyOurs = false;
                else ours = it->second;
            }
        }
    }
    if (ours && onlyOurs) {
        std::lock_guard<std::mutex> lock(ours->mutex);
        return ours->client.select(nfds, readSet, timeout);
    }
    static const SelectFn real = realFunction<SelectFn>("select");
    return real(nfds, readSet, writeSet, exceptSet, timeout);
}
