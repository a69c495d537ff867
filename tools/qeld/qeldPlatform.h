// What qeld puts between the agent and the host: the platform the library
// calls (qelPlatform.h) and a wrapper around the IPMI device provider.
//
// - Every syslog message of the agent also goes to standard error, readably
//   ("qeld: err: <text>"), unless that is the journal, which has it already.
// - Foreground mode learns when the agent's worker thread ends on its own
//   (an error ended the loop): the first library call a thread other than the
//   main thread makes arms a thread-local sentinel, whose destructor at the
//   thread's end sends SIGUSR2 to the process. The main thread waits for it
//   with sigwait, so nothing polls.
// - Test and bench aids, off by default:
//   * time scale N: every wait of the loop (sleep, the worker's timed wait,
//     the alarm) lasts 1/N of the time asked, and the clock (time()) runs N
//     times as fast, so a test runs many passes of a 20-second period, and
//     an hour of the agent's time, quickly. The daemon's 3-second start-up wait is
//     never scaled.
//   * child stall S: the daemon child stops S seconds before it writes the
//     pid file (and so before it reports to its parent), to show the parent
//     giving up after 3 seconds.
//   * stats FILE: CPU time per pass (taken on the loop's own thread, between
//     the end of one wait and the start of the next, so the bookkeeping is
//     not counted), by kind of pass, with descriptors and resident memory,
//     rewritten after every pass.
#ifndef QELD_PLATFORM_H
#define QELD_PLATFORM_H

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "qelIpmiDevice.h"
#include "qelPlatform.h"

namespace qeld {

class QeldPlatform : public qelPlatform::Platform {
public:
    QeldPlatform();
    ~QeldPlatform() override;

    // ---- configuration, before the agent exists
    void setTeeToStderr(bool on) { tee_ = on; }
    void setTimeScale(unsigned int scale) { scale_ = scale == 0 ? 1 : scale; }
    // The daemon's start-up alarm runs in the process that started qeld and
    // stays real; only the loop's waits are scaled.
    void setDaemonMode(bool on) { daemonMode_ = on; }
    void setChildStall(unsigned int seconds) { childStall_ = seconds; }
    void setStatsFile(const std::string& path) { statsFile_ = path; }
    // Where "/dev/mem" is read instead (the simulated blade's SMBIOS tables;
    // qeldBladeSmbios.h); empty: under the root as usual.
    void setMemoryImage(const std::string& path) { memoryImage_ = path; }
    // Arms the worker sentinel (foreground mode).
    void watchWorker(bool on) { watchWorker_ = on; }
    // Called on the loop's thread each time a pass ends (the loop begins its
    // wait): the service manager's keep-alive. Set before the loop starts.
    void setPassHook(std::function<void()> hook) { passHook_ = std::move(hook); }

    // The controller accepted a Reset Watchdog Timer (seen in its reply).
    void noteWatchdogReset() const;
    // Seconds since that happened last, on the agent's clock; -1: never.
    long long secondsSinceWatchdogReset() const;

    // Logs one of qeld's own messages the way the agent's are logged.
    void log(int priority, const std::string& text) const;
    // Writes a text to standard error only (qeld's own messages in modes
    // that must not touch syslog).
    static void say(const std::string& text);

    // Writes the stats file once more (at exit).
    void writeStats() const;

    // ---- the platform
    std::string path(const std::string& path) const override;
    int socket(int domain, int type, int protocol) const override;
    int ioctl(int fd, unsigned long request, void* argument) const override;
    int getifaddrs(struct ifaddrs** out) const override;
    unsigned int sleep(unsigned int seconds) const override;
    unsigned int alarm(unsigned int seconds) const override;
    int condTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                      const struct timespec* deadline) const override;
    // With a time scale N: a clock that runs N times as fast from qeld's
    // start (the timed wait's deadlines are on it).
    time_t time() const override;
    void syslog(int priority, const char* text) const override;

    // A library call on the calling thread (see the sentinel above).
    void noteCall() const;

private:
    bool scaled() const;
    long long agentNanos(long long realNanos) const;
    void passEnds() const;
    void passStarts() const;

    bool tee_ = false;
    unsigned int scale_ = 1;
    bool daemonMode_ = false;
    unsigned int childStall_ = 0;
    std::string statsFile_;
    std::string memoryImage_;
    bool watchWorker_ = false;
    pid_t startPid_;
    pthread_t mainThread_;
    long long startNanos_;
    mutable std::atomic<bool> stalled_{false};
    std::function<void()> passHook_;
    mutable std::atomic<long long> lastResetNanos_{-1};  // realtime

    // Pass accounting (stats); only the loop's thread touches it.
    struct Stats;
    std::unique_ptr<Stats> stats_;
};

// Wraps the provider the agent will use, so that opening the device counts
// as a library call of the opening thread, and so that the controller's
// answers to Reset Watchdog Timer are seen (the service status tells when the
// timer was last reset, whichever loop runs).
class WatchingDeviceProvider : public qelIpmi::QelIpmiDeviceProvider {
public:
    WatchingDeviceProvider(qelIpmi::QelIpmiDeviceProvider& inner, const QeldPlatform& platform)
        : inner_(inner), platform_(platform) {}
    std::unique_ptr<qelIpmi::QelIpmiDevice> open(const char* path, int flags) override;

private:
    qelIpmi::QelIpmiDeviceProvider& inner_;
    const QeldPlatform& platform_;
};

// True when standard error is the systemd journal (JOURNAL_STREAM names its
// device and inode), which receives the syslog messages already.
bool stderrIsJournal();

}  // namespace qeld

#endif
