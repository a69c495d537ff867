// The platform seam: everything the library asks of the host that a test must
// be able to present differently.
//
// - Fixed paths ("/dev/mem", "/var/run/qeld.pid", the ESXi files) are opened
//   under a root prefix, so a test can lay out a host in a temp directory.
// - uname, the host name, the wall clock and sysinfo can be overridden, so a
//   test can present an ESXi kernel or move the clock past a time gate.
// - The network inventory's socket calls (interface ioctls, getifaddrs, the
//   netlink socket) can be replaced to feed crafted data.
// - The agent's waits (sleep, the timed condition wait, alarm) and its syslog
//   can be observed and driven, so a test runs many loop passes without
//   waiting for them and reads what was logged.
//
// Production uses the real calls: the default Platform forwards to libc and
// its root prefix is empty. A test installs its own object with setPlatform()
// before it creates library objects and restores the default afterwards; the
// library never changes the installed object itself.
#ifndef QEL_PLATFORM_H
#define QEL_PLATFORM_H

#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>

#include <string>

#include "qelExport.h"

struct utsname;
struct sysinfo;
struct ifaddrs;
struct sockaddr;

namespace qelPlatform {

class QEL_EXPORT Platform {
public:
    Platform();
    virtual ~Platform();

    // The prefix put in front of every fixed path; empty in production.
    void setRoot(const std::string& root) { root_ = root; }
    const std::string& root() const { return root_; }
    // Where the fixed path `path` ("/dev/mem", ...) is to be opened.
    virtual std::string path(const std::string& path) const;

    virtual int uname(struct utsname* out) const;
    virtual int gethostname(char* name, size_t length) const;
    virtual time_t time() const;
    virtual int clockGettime(clockid_t clock, struct timespec* out) const;
    virtual int sysinfo(struct sysinfo* out) const;

    // Network inventory.
    virtual int socket(int domain, int type, int protocol) const;
    virtual int ioctl(int fd, unsigned long request, void* argument) const;
    virtual int getifaddrs(struct ifaddrs** out) const;
    virtual void freeifaddrs(struct ifaddrs* list) const;
    virtual ssize_t send(int fd, const void* data, size_t length, int flags) const;
    virtual ssize_t recv(int fd, void* data, size_t length, int flags) const;
    virtual int close(int fd) const;

    // Agent: waiting and the alarm safety net.
    virtual unsigned int sleep(unsigned int seconds) const;
    virtual unsigned int alarm(unsigned int seconds) const;
    // As pthread_cond_timedwait with an absolute CLOCK_REALTIME deadline.
    virtual int condTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                              const struct timespec* deadline) const;

    // Agent: syslog. `text` is the complete message; it is logged as it
    // stands, never interpreted as a format (an interface name may hold a
    // "%"), so callers format their arguments first.
    virtual void openlog(const char* ident, int option, int facility) const;
    virtual void syslog(int priority, const char* text) const;
    virtual void closelog() const;

    // Host inventory: the port id the kernel gave a netlink socket, to check
    // that a dump's replies are addressed to us.
    virtual int getsockname(int fd, struct sockaddr* address, socklen_t* length) const;

private:
    std::string root_;
};

// The installed platform; the real one unless a test installed another.
QEL_EXPORT Platform& platform();

// Installs `replacement` (not owned; nullptr restores the real platform) and
// returns what was installed before.
QEL_EXPORT Platform* setPlatform(Platform* replacement);

}  // namespace qelPlatform

#endif
