// A host for the agent's tests: the platform seam with everything the agent
// object asks of it under the test's control.
//
// - Fixed paths lie under a root directory of the test's own.
// - uname, the host name and the wall clock are presented as set.
// - The network inventory is crafted: interfaces (SIOCGIFCONF order, index,
//   IPv4, MAC, flags) and their IPv6 addresses (through getifaddrs).
// - The loop's waits (sleep, the timed condition wait), alarm, openlog,
//   syslog and closelog are recorded; a test hooks the waits to count passes
//   and end the loop, or to let the worker wait on the real condition.
//
// The loop may run on a worker thread while the test reads the records, so
// every record is kept under one mutex and handed out as a copy. Hooks run
// without that mutex held.
#ifndef QEL_TEST_AGENT_PLATFORM_H
#define QEL_TEST_AGENT_PLATFORM_H

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "qelPlatform.h"

namespace agentTest {

struct Interface {
    std::string name;
    int index = 0;
    std::string ipv4 = "0.0.0.0";
    std::array<unsigned char, 6> mac{};
    short flags = IFF_UP | IFF_RUNNING;
    std::vector<std::string> ipv6;  // reported through getifaddrs, in this order

    Interface(std::string name, int index, std::string ipv4, std::array<unsigned char, 6> mac = {},
              short flags = IFF_UP | IFF_RUNNING, std::vector<std::string> ipv6 = {})
        : name(std::move(name)),
          index(index),
          ipv4(std::move(ipv4)),
          mac(mac),
          flags(flags),
          ipv6(std::move(ipv6)) {}
};

struct LogLine {
    int priority;
    std::string text;
    bool operator==(const LogLine& other) const {
        return priority == other.priority && text == other.text;
    }
};

// For test failure messages.
inline std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << "{" << line.priority << ", \"" << line.text << "\"}";
}

struct OpenLog {
    std::string ident;
    int option;
    int facility;
};

class AgentPlatform : public qelPlatform::Platform {
public:
    explicit AgentPlatform(const std::string& root) { setRoot(root); }

    // ---- what the host presents (set before the agent runs, or from hooks)
    void setKernel(const std::string& sysname, const std::string& release,
                   const std::string& version) {
        std::lock_guard<std::mutex> lock(mutex_);
        sysname_ = sysname;
        release_ = release;
        version_ = version;
    }
    void setUnameErrno(int number) {
        std::lock_guard<std::mutex> lock(mutex_);
        unameErrno_ = number;
    }
    void setHostName(const std::string& name, int errorNumber = 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        hostName_ = name;
        hostNameErrno_ = errorNumber;
    }
    // Seconds since the boot as sysinfo reports them; negative: the real ones.
    void setUptime(long seconds) {
        std::lock_guard<std::mutex> lock(mutex_);
        uptime_ = seconds;
    }
    // 0: the real clock.
    void setTime(time_t now) {
        std::lock_guard<std::mutex> lock(mutex_);
        time_ = now;
    }
    void setInterfaces(std::vector<Interface> interfaces) {
        std::lock_guard<std::mutex> lock(mutex_);
        interfaces_ = std::move(interfaces);
    }

    // ---- hooks; each gets the number of the call (1 for the first)
    // sleep: the return value is what sleep returns.
    std::function<unsigned int(int call, unsigned int seconds)> onSleep;
    // The timed wait: what it returns; unset: ETIMEDOUT at once.
    std::function<int(int call, pthread_cond_t*, pthread_mutex_t*, const struct timespec*)>
        onCondWait;
    // An inventory scan starts (the AF_INET socket is asked for).
    std::function<void(int scan)> onScan;

    // ---- records
    std::vector<unsigned int> sleeps() const { return copy(sleeps_); }
    std::vector<struct timespec> condWaits() const { return copy(condWaits_); }
    std::vector<unsigned int> alarms() const { return copy(alarms_); }
    std::vector<OpenLog> openlogs() const { return copy(openlogs_); }
    std::vector<LogLine> logs() const { return copy(logs_); }
    int closelogs() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return closelogs_;
    }
    int scans() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return scans_;
    }
    std::vector<size_t> hostNameLengths() const { return copy(hostNameLengths_); }
    // Passes so far: waits of either kind.
    int waits() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int>(sleeps_.size() + condWaits_.size());
    }

    // ---- the seam
    int uname(struct utsname* out) const override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (unameErrno_ != 0) {
            errno = unameErrno_;
            return -1;
        }
        std::memset(out, 0, sizeof *out);
        std::strncpy(out->sysname, sysname_.c_str(), sizeof out->sysname - 1);
        std::strncpy(out->nodename, hostName_.c_str(), sizeof out->nodename - 1);
        std::strncpy(out->release, release_.c_str(), sizeof out->release - 1);
        std::strncpy(out->version, version_.c_str(), sizeof out->version - 1);
        std::strncpy(out->machine, "x86_64", sizeof out->machine - 1);
        return 0;
    }
    int gethostname(char* name, size_t length) const override {
        std::lock_guard<std::mutex> lock(mutex_);
        hostNameLengths_.push_back(length);
        if (hostNameErrno_ != 0) {
            errno = hostNameErrno_;
            return -1;
        }
        std::strncpy(name, hostName_.c_str(), length);
        return 0;
    }
    time_t time() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        return time_ != 0 ? time_ : ::time(nullptr);
    }

    int socket(int domain, int type, int protocol) const override {
        if (domain != AF_INET) return Platform::socket(domain, type, protocol);
        int scan;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            scan = ++scans_;
        }
        if (onScan) onScan(scan);
        return inetSocket;
    }
    int ioctl(int fd, unsigned long request, void* argument) const override {
        if (fd != inetSocket) return Platform::ioctl(fd, request, argument);
        std::lock_guard<std::mutex> lock(mutex_);
        if (request == SIOCGIFCONF) return ifconf(static_cast<struct ifconf*>(argument));
        auto* r = static_cast<struct ifreq*>(argument);
        const std::string name(r->ifr_name, strnlen(r->ifr_name, IFNAMSIZ));
        const Interface* found = nullptr;
        for (const Interface& candidate : interfaces_)
            if (candidate.name == name) {
                found = &candidate;
                break;
            }
        if (found == nullptr) return fail(ENODEV);
        const Interface& itf = *found;
        switch (request) {
        case SIOCGIFINDEX:
            r->ifr_ifindex = itf.index;
            return 0;
        case SIOCGIFMTU: r->ifr_mtu = 1500; return 0;
        case SIOCGIFHWADDR:
            r->ifr_hwaddr.sa_family = 1;
            std::memcpy(r->ifr_hwaddr.sa_data, itf.mac.data(), 6);
            return 0;
        case SIOCGIFNETMASK: setInet(&r->ifr_netmask, "255.255.255.0"); return 0;
        case SIOCGIFBRDADDR: setInet(&r->ifr_broadaddr, "0.0.0.0"); return 0;
        case SIOCGIFFLAGS: r->ifr_flags = itf.flags; return 0;
        default: return fail(EINVAL);
        }
    }
    int getifaddrs(struct ifaddrs** out) const override {
        std::lock_guard<std::mutex> lock(mutex_);
        lists_.emplace_back();
        auto& nodes = lists_.back();
        for (const Interface& itf : interfaces_) {
            for (const std::string& text : itf.ipv6) {
                nodes.push_back(std::make_unique<Node>());
                Node& node = *nodes.back();
                node.name = itf.name;
                node.entry.ifa_name = &node.name[0];
                node.address.sin6_family = AF_INET6;
                inet_pton(AF_INET6, text.c_str(), &node.address.sin6_addr);
                node.entry.ifa_addr = reinterpret_cast<sockaddr*>(&node.address);
                node.mask.sin6_family = AF_INET6;
                inet_pton(AF_INET6, "ffff:ffff:ffff:ffff::", &node.mask.sin6_addr);
                node.entry.ifa_netmask = reinterpret_cast<sockaddr*>(&node.mask);
            }
        }
        for (size_t i = 0; i + 1 < nodes.size(); ++i) nodes[i]->entry.ifa_next = &nodes[i + 1]->entry;
        *out = nodes.empty() ? nullptr : &nodes.front()->entry;
        if (nodes.empty()) lists_.pop_back();
        return 0;
    }
    void freeifaddrs(struct ifaddrs* list) const override {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = lists_.begin(); it != lists_.end(); ++it)
            if (!it->empty() && &it->front()->entry == list) {
                lists_.erase(it);
                return;
            }
    }
    int close(int fd) const override {
        if (fd == inetSocket) return 0;
        return Platform::close(fd);
    }

    int sysinfo(struct sysinfo* out) const override {
        long uptime;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            uptime = uptime_;
        }
        const int rc = Platform::sysinfo(out);
        if (rc == 0 && uptime >= 0) out->uptime = uptime;
        return rc;
    }

    unsigned int sleep(unsigned int seconds) const override {
        int call;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            sleeps_.push_back(seconds);
            call = static_cast<int>(sleeps_.size());
        }
        return onSleep ? onSleep(call, seconds) : 0;
    }
    unsigned int alarm(unsigned int seconds) const override {
        std::lock_guard<std::mutex> lock(mutex_);
        alarms_.push_back(seconds);
        return 0;
    }
    int condTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                      const struct timespec* deadline) const override {
        int call;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            condWaits_.push_back(*deadline);
            call = static_cast<int>(condWaits_.size());
        }
        return onCondWait ? onCondWait(call, cond, mutex, deadline) : ETIMEDOUT;
    }

    void openlog(const char* ident, int option, int facility) const override {
        std::lock_guard<std::mutex> lock(mutex_);
        openlogs_.push_back({ident, option, facility});
    }
    void syslog(int priority, const char* text) const override {
        std::lock_guard<std::mutex> lock(mutex_);
        logs_.push_back({priority, text});
    }
    void closelog() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++closelogs_;
    }

private:
    static constexpr int inetSocket = 1000;

    struct Node {
        struct ifaddrs entry {};
        sockaddr_in6 address{};
        sockaddr_in6 mask{};
        std::string name;
    };

    template <typename T>
    std::vector<T> copy(const std::vector<T>& records) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return records;
    }
    static int fail(int number) {
        errno = number;
        return -1;
    }
    static void setInet(sockaddr* target, const std::string& text) {
        sockaddr_in in{};
        in.sin_family = AF_INET;
        inet_pton(AF_INET, text.c_str(), &in.sin_addr);
        std::memcpy(target, &in, sizeof in);
    }
    int ifconf(struct ifconf* request) const {
        const size_t room = static_cast<size_t>(request->ifc_len) / sizeof(struct ifreq);
        const size_t n = std::min(room, interfaces_.size());
        for (size_t i = 0; i < n; ++i) {
            struct ifreq entry;
            std::memset(&entry, 0, sizeof entry);
            std::strncpy(entry.ifr_name, interfaces_[i].name.c_str(), IFNAMSIZ - 1);
            setInet(&entry.ifr_addr, interfaces_[i].ipv4);
            std::memcpy(&request->ifc_req[i], &entry, sizeof entry);
        }
        request->ifc_len = static_cast<int>(n * sizeof(struct ifreq));
        return 0;
    }

    mutable std::mutex mutex_;
    std::string sysname_ = "Linux";
    std::string release_ = "6.1.0-agent";
    std::string version_ = "#1 SMP PREEMPT_DYNAMIC";
    int unameErrno_ = 0;
    std::string hostName_ = "agenthost";
    int hostNameErrno_ = 0;
    time_t time_ = 0;
    long uptime_ = -1;
    std::vector<Interface> interfaces_;

    mutable std::list<std::vector<std::unique_ptr<Node>>> lists_;
    mutable std::vector<unsigned int> sleeps_;
    mutable std::vector<struct timespec> condWaits_;
    mutable std::vector<unsigned int> alarms_;
    mutable std::vector<OpenLog> openlogs_;
    mutable std::vector<LogLine> logs_;
    mutable int closelogs_ = 0;
    mutable int scans_ = 0;
    mutable std::vector<size_t> hostNameLengths_;
};

}  // namespace agentTest

#endif
