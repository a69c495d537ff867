#include "qeldPlatform.h"

#include <dirent.h>
#include <linux/ipmi.h>
#include <sys/ioctl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace qeld {

namespace {

constexpr long long nanosPerSecond = 1000000000LL;

const char* priorityName(int priority) {
    static const char* const names[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
    return names[LOG_PRI(priority)];
}

// The worker's sentinel: destroyed when the thread that armed it ends.
struct WorkerSentinel {
    bool armed = false;
    ~WorkerSentinel() {
        if (armed) ::kill(::getpid(), SIGUSR2);
    }
};

long long nanosOf(const struct timespec& t) { return t.tv_sec * nanosPerSecond + t.tv_nsec; }

struct timespec timespecOf(long long nanos) {
    struct timespec t;
    t.tv_sec = static_cast<time_t>(nanos / nanosPerSecond);
    t.tv_nsec = static_cast<long>(nanos % nanosPerSecond);
    return t;
}

long long threadCpuNanos() {
    struct timespec t;
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return nanosOf(t);
}

int openDescriptors() {
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    while (struct dirent* e = ::readdir(dir))
        if (e->d_name[0] != '.') ++count;
    ::closedir(dir);
    return count - 1;  // the directory's own descriptor
}

long residentKb() {
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return -1;
    long size = 0, resident = 0;
    const int n = std::fscanf(f, "%ld %ld", &size, &resident);
    std::fclose(f);
    return n == 2 ? resident * (::sysconf(_SC_PAGESIZE) / 1024) : -1;
}

long long realtimeNanos() {
    struct timespec t;
    ::clock_gettime(CLOCK_REALTIME, &t);
    return nanosOf(t);
}

}  // namespace

struct QeldPlatform::Stats {
    long long passStartCpu = 0;
    std::atomic<bool> scanned{false};
    std::atomic<bool> reset{false};
    unsigned long passes = 0;
    long long firstPassCpu = 0;
    unsigned long count[3] = {0, 0, 0};  // plain, reset, info
    long long cpu[3] = {0, 0, 0};
    int fdsFirst = -1, fdsLast = -1, fdsMax = -1;
    long rssFirst = -1, rssLast = -1, rssMax = -1;
    struct Sample {
        unsigned long pass;
        int fds;
        long rss;
    };
    std::vector<Sample> samples;
};

QeldPlatform::QeldPlatform()
    : startPid_(::getpid()), mainThread_(::pthread_self()), startNanos_(realtimeNanos()), stats_(new Stats) {}

QeldPlatform::~QeldPlatform() = default;

// ---------------------------------------------------------------- logging

void QeldPlatform::syslog(int priority, const char* text) const {
    noteCall();
    qelPlatform::Platform::syslog(priority, text);
    if (!tee_) return;
    // Some error texts end in a line feed of their own.
    std::size_t length = std::strlen(text);
    while (length > 0 && text[length - 1] == '\n') --length;
    std::fprintf(stderr, "qeld: %s: %.*s\n", priorityName(priority), static_cast<int>(length), text);
}

void QeldPlatform::log(int priority, const std::string& text) const { syslog(priority, text.c_str()); }

void QeldPlatform::say(const std::string& text) { std::fprintf(stderr, "qeld: %s\n", text.c_str()); }

bool stderrIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr) return false;
    unsigned long long device = 0, inode = 0;
    if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
    struct stat st;
    if (::fstat(STDERR_FILENO, &st) != 0) return false;
    return static_cast<unsigned long long>(st.st_dev) == device &&
           static_cast<unsigned long long>(st.st_ino) == inode;
}

// ---------------------------------------------------------------- the worker's end

void QeldPlatform::noteCall() const {
    if (!watchWorker_ || ::pthread_equal(::pthread_self(), mainThread_)) return;
    thread_local WorkerSentinel sentinel;
    sentinel.armed = true;
}

namespace {

class WatchedDevice : public qelIpmi::QelIpmiDevice {
public:
    WatchedDevice(std::unique_ptr<qelIpmi::QelIpmiDevice> inner, const QeldPlatform& platform)
        : inner_(std::move(inner)), platform_(platform) {}
    int fd() const override { return inner_->fd(); }
    int select(int nfds, fd_set* readSet, struct timeval* timeout) override {
        return inner_->select(nfds, readSet, timeout);
    }
    int ioctl(unsigned long request, void* argument) override {
        const int rc = inner_->ioctl(request, argument);
        if (rc == 0 && (request == IPMICTL_RECEIVE_MSG_TRUNC || request == IPMICTL_RECEIVE_MSG)) {
            const auto* recv = static_cast<const struct ipmi_recv*>(argument);
            // The response to Reset Watchdog Timer (App response 0x07, 0x22)
            // with completion code 0.
            if (recv->recv_type == IPMI_RESPONSE_RECV_TYPE && recv->msg.netfn == 0x07 && recv->msg.cmd == 0x22 &&
                recv->msg.data_len >= 1 && recv->msg.data != nullptr && recv->msg.data[0] == 0x00)
                platform_.noteWatchdogReset();
        }
        return rc;
    }

private:
    std::unique_ptr<qelIpmi::QelIpmiDevice> inner_;
    const QeldPlatform& platform_;
};

}  // namespace

std::unique_ptr<qelIpmi::QelIpmiDevice> WatchingDeviceProvider::open(const char* path, int flags) {
    platform_.noteCall();
    std::unique_ptr<qelIpmi::QelIpmiDevice> device = inner_.open(path, flags);
    if (!device) return device;
    return std::make_unique<WatchedDevice>(std::move(device), platform_);
}

void QeldPlatform::noteWatchdogReset() const { lastResetNanos_ = realtimeNanos(); }

long long QeldPlatform::secondsSinceWatchdogReset() const {
    const long long at = lastResetNanos_;
    if (at < 0) return -1;
    const long long elapsed = agentNanos(realtimeNanos()) - agentNanos(at);
    return elapsed < 0 ? 0 : elapsed / nanosPerSecond;
}

// ---------------------------------------------------------------- calls passed on

std::string QeldPlatform::path(const std::string& fixedPath) const {
    // The daemon child asks for the pid file's path right before it writes
    // the file and reports to its parent: the one place to stall it.
    if (childStall_ != 0 && fixedPath == "/var/run/qeld.pid" && ::getpid() != startPid_ &&
        !stalled_.exchange(true)) {
        struct timespec left = timespecOf(static_cast<long long>(childStall_) * nanosPerSecond);
        while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
        }
    }
    if (!memoryImage_.empty() && fixedPath == "/dev/mem") return memoryImage_;
    return qelPlatform::Platform::path(fixedPath);
}

int QeldPlatform::socket(int domain, int type, int protocol) const {
    noteCall();
    if (domain == AF_NETLINK) stats_->scanned = true;  // the host agent's inventory
    return qelPlatform::Platform::socket(domain, type, protocol);
}

int QeldPlatform::ioctl(int fd, unsigned long request, void* argument) const {
    noteCall();
    return qelPlatform::Platform::ioctl(fd, request, argument);
}

int QeldPlatform::getifaddrs(struct ifaddrs** out) const {
    noteCall();
    stats_->scanned = true;  // one network scan per info pass
    return qelPlatform::Platform::getifaddrs(out);
}

// ---------------------------------------------------------------- waits

bool QeldPlatform::scaled() const { return scale_ > 1 && !(daemonMode_ && ::getpid() == startPid_); }

unsigned int QeldPlatform::sleep(unsigned int seconds) const {
    passEnds();
    unsigned int left = 0;
    if (!scaled()) {
        left = qelPlatform::Platform::sleep(seconds);
    } else {
        struct timespec wait = timespecOf(static_cast<long long>(seconds) * nanosPerSecond / scale_);
        struct timespec rest {};
        if (::nanosleep(&wait, &rest) != 0)  // a signal cut it short
            left = static_cast<unsigned int>((nanosOf(rest) * scale_ + nanosPerSecond - 1) / nanosPerSecond);
    }
    passStarts();
    return left;
}

unsigned int QeldPlatform::alarm(unsigned int seconds) const {
    noteCall();
    if (seconds != 0) stats_->reset = true;  // reset_watchdog arms the safety net
    if (!scaled()) return qelPlatform::Platform::alarm(seconds);
    struct itimerval next {}, previous {};
    long long micros = static_cast<long long>(seconds) * 1000000LL / scale_;
    if (seconds != 0 && micros == 0) micros = 1;
    next.it_value.tv_sec = static_cast<time_t>(micros / 1000000);
    next.it_value.tv_usec = static_cast<suseconds_t>(micros % 1000000);
    ::setitimer(ITIMER_REAL, &next, &previous);
    const long long left = (previous.it_value.tv_sec * 1000000LL + previous.it_value.tv_usec) * scale_;
    return static_cast<unsigned int>((left + 999999) / 1000000);
}

int QeldPlatform::condTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                const struct timespec* deadline) const {
    noteCall();
    passEnds();
    int rc;
    if (!scaled()) {
        rc = qelPlatform::Platform::condTimedWait(cond, mutex, deadline);
    } else {
        // The deadline is on the agent's clock (time() below): the wait
        // lasts 1/N of what is left on that clock.
        const long long now = realtimeNanos();
        long long left = nanosOf(*deadline) - agentNanos(now);
        if (left < 0) left = 0;
        const struct timespec shorter = timespecOf(now + left / scale_);
        rc = qelPlatform::Platform::condTimedWait(cond, mutex, &shorter);
    }
    passStarts();
    return rc;
}

long long QeldPlatform::agentNanos(long long realNanos) const {
    return startNanos_ + (realNanos - startNanos_) * static_cast<long long>(scale_);
}

time_t QeldPlatform::time() const {
    // With a time scale the agent's clock runs N times as fast from the
    // start, so its hourly duties come within an hour's test of 1/N.
    if (!scaled()) return qelPlatform::Platform::time();
    return static_cast<time_t>(agentNanos(realtimeNanos()) / nanosPerSecond);
}

// ---------------------------------------------------------------- stats

void QeldPlatform::passEnds() const {
    if (passHook_) passHook_();
    if (statsFile_.empty()) return;
    Stats& s = *stats_;
    const long long used = threadCpuNanos() - s.passStartCpu;
    const int kind = s.scanned ? 2 : s.reset ? 1 : 0;
    if (s.passes == 0) s.firstPassCpu = used;
    ++s.passes;
    ++s.count[kind];
    s.cpu[kind] += used;
    s.scanned = false;
    s.reset = false;
    const int fds = openDescriptors();
    const long rss = residentKb();
    if (s.passes == 1) {
        s.fdsFirst = fds;
        s.rssFirst = rss;
    }
    s.fdsLast = fds;
    s.rssLast = rss;
    if (fds > s.fdsMax) s.fdsMax = fds;
    if (rss > s.rssMax) s.rssMax = rss;
    if (s.passes == 1 || s.passes % 1000 == 0) s.samples.push_back({s.passes, fds, rss});
    writeStats();
}

void QeldPlatform::passStarts() const {
    if (statsFile_.empty()) return;
    stats_->passStartCpu = threadCpuNanos();
}

void QeldPlatform::writeStats() const {
    if (statsFile_.empty()) return;
    const Stats& s = *stats_;
    const std::string temporary = statsFile_ + ".new";
    std::FILE* f = std::fopen(temporary.c_str(), "w");
    if (f == nullptr) return;
    static const char* const kinds[] = {"plain", "reset", "info"};
    std::fprintf(f, "passes %lu\n", s.passes);
    std::fprintf(f, "first-pass-cpu-us %lld\n", s.firstPassCpu / 1000);
    for (int k = 0; k < 3; ++k)
        std::fprintf(f, "%s-passes %lu cpu-us %lld per-pass-us %.1f\n", kinds[k], s.count[k], s.cpu[k] / 1000,
                     s.count[k] ? s.cpu[k] / 1000.0 / s.count[k] : 0.0);
    std::fprintf(f, "fds first %d last %d max %d\n", s.fdsFirst, s.fdsLast, s.fdsMax);
    std::fprintf(f, "rss-kb first %ld last %ld max %ld\n", s.rssFirst, s.rssLast, s.rssMax);
    for (const Stats::Sample& sample : s.samples)
        std::fprintf(f, "sample pass %lu fds %d rss-kb %ld\n", sample.pass, sample.fds, sample.rss);
    if (std::fclose(f) == 0) std::rename(temporary.c_str(), statsFile_.c_str());
}

}  // namespace qeld
