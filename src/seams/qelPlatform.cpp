#include "qelPlatform.h"

#include <ifaddrs.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>

namespace qelPlatform {

Platform::Platform() = default;
Platform::~Platform() = default;

std::string Platform::path(const std::string& path) const { return root_ + path; }

int Platform::uname(struct utsname* out) const { return ::uname(out); }
int Platform::gethostname(char* name, size_t length) const { return ::gethostname(name, length); }
time_t Platform::time() const { return ::time(nullptr); }
int Platform::clockGettime(clockid_t clock, struct timespec* out) const {
    return ::clock_gettime(clock, out);
}
int Platform::sysinfo(struct sysinfo* out) const { return ::sysinfo(out); }

int Platform::socket(int domain, int type, int protocol) const {
    return ::socket(domain, type, protocol);
}
int Platform::ioctl(int fd, unsigned long request, void* argument) const {
    return ::ioctl(fd, request, argument);
}
int Platform::getifaddrs(struct ifaddrs** out) const { return ::getifaddrs(out); }
void Platform::freeifaddrs(struct ifaddrs* list) const { ::freeifaddrs(list); }
ssize_t Platform::send(int fd, const void* data, size_t length, int flags) const {
    return ::send(fd, data, length, flags);
}
ssize_t Platform::recv(int fd, void* data, size_t length, int flags) const {
    return ::recv(fd, data, length, flags);
}
int Platform::close(int fd) const { return ::close(fd); }

unsigned int Platform::sleep(unsigned int seconds) const { return ::sleep(seconds); }
unsigned int Platform::alarm(unsigned int seconds) const { return ::alarm(seconds); }
int Platform::condTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                            const struct timespec* deadline) const {
    return ::pthread_cond_timedwait(cond, mutex, deadline);
}

void Platform::openlog(const char* ident, int option, int facility) const {
    ::openlog(ident, option, facility);
}
void Platform::syslog(int priority, const char* text) const { ::syslog(priority, "%s", text); }
void Platform::closelog() const { ::closelog(); }

int Platform::getsockname(int fd, struct sockaddr* address, socklen_t* length) const {
    return ::getsockname(fd, address, length);
}

namespace {
Platform& realPlatform() {
    static Platform real;
    return real;
}
std::atomic<Platform*> installed{nullptr};
}  // namespace

Platform& platform() {
    Platform* p = installed.load(std::memory_order_acquire);
    return p ? *p : realPlatform();
}

Platform* setPlatform(Platform* replacement) {
    return installed.exchange(replacement, std::memory_order_acq_rel);
}

}  // namespace qelPlatform
