#define QEL_SOURCE_NAME "qelServerInfo"

#include "qelServerInfo.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <list>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "PniAccess.h"
#include "qelAccessControl.h"
#include "qelAddress.h"
#include "qelBladeInfo.h"
#include "qelCondQueue.h"
#include "qelConfSpaceData.h"
#include "qelErrorText.h"
#include "qelIp.h"
#include "qelIpmi.h"
#include "qelPlatform.h"
#include "qelSystemInfo.h"

using qelIpmi::QelIpmiWatchdog;
using qelPlatform::platform;

QelServerInfo* QelServerInfo::this_QelServerInfo = nullptr;

namespace {

static_assert(std::atomic<bool>::is_always_lock_free,
              "the running flag is written from a signal handler");

constexpr const char* pidFilePath = "/var/run/qeld.pid";
constexpr const char* productStringPath = "/opt/zum/vmware-product-string";
constexpr const char* versionStringPath = "/opt/zum/cimprovider-versionstring";

constexpr QelIpmiWatchdog::TimerUse agentTimerUse = QelIpmiWatchdog::TIMER_USE_SMS_OS;

// The longest pass; shorter when the watchdog must be reset more often.
constexpr unsigned int maximumPeriod = 20;
// Network and platform information is collected about this often (seconds).
constexpr unsigned int infoInterval = 120;
// The agent never runs a watchdog shorter than four minutes (100 ms units).
constexpr std::int32_t minimumWatchdogTime = 2400;
constexpr unsigned short minimumWatchdogSeconds = 240;
// The longest countdown the Set Watchdog Timer command can carry.
constexpr std::int32_t maximumWatchdogTime = 0xFFFF;

// openlog keeps the pointer, so the identities must outlive every syslog call.
const char agentIdentity[] = "QELD";
const char daemonIdentity[] = "qel_daemon";

// Every configuration-space object an agent made. They are never deleted
// (they live as long as the process), and this list keeps them reachable, so
// that they are not mistaken for leaks either.
void keepForProcessLifetime(QelConfSpaceData* space) {
    static std::mutex mutex;
    static std::vector<QelConfSpaceData*>* kept = new std::vector<QelConfSpaceData*>;
    std::lock_guard<std::mutex> lock(mutex);
    kept->push_back(space);
}

void logText(int priority, const std::string& text) {
    platform().syslog(priority, text.c_str());
}

// "... code %d (%s)"-style messages: the error number and its text behind the
// message, formatted here because the platform logs finished texts only.
void logErrno(const char* format, int number) {
    char text[256];
    std::snprintf(text, sizeof text, format, number, std::strerror(number));
    platform().syslog(LOG_ERR, text);
}

// Installs `action` for `sig`; on failure logs and ends the process, as the
// daemon cannot run without its handlers.
void installOrExit(int sig, const struct sigaction& action) {
    if (sigaction(sig, &action, nullptr) != 0) {
        logErrno("unable to install signal handler, code %d (%s)", errno);
        std::exit(1);
    }
}

void removePidFileAfterSignal() {
    const std::string path = platform().path(pidFilePath);
    if (std::remove(path.c_str()) != 0) {
        const int number = errno;
        char text[512];
        std::snprintf(text, sizeof text, "unable to remove file %s, code %d (%s)", path.c_str(),
                      number, std::strerror(number));
        platform().syslog(LOG_ERR, text);
    }
}

}  // namespace

// ---------------------------------------------------------------- lifecycle

QelServerInfo::QelServerInfo(RunMode mode)
    : runMode(mode),
      deviceIdFlag(false),
      osName("VMware ESXi "),
      confSpace(nullptr),
      wdEnabled(false),
      wdTime(0),
      wdForce(0),
      loopThread(pthread_self()),
      running(false) {
    // Initialised in every mode, not only for the worker: the loop's final
    // unlock and the destructor must never meet an uninitialised mutex.
    pthread_mutex_init(&loopMutex, nullptr);
    pthread_cond_init(&loopCond, nullptr);

    if (runMode == Shutdown) {
        // The host is going down: only the watchdog must not fire. No blade
        // object exists here, so setShutdownInfo reports nothing.
        stop_watchdog(agentTimerUse);
        setShutdownInfo();
        return;
    }

    // In mode Thread the host program owns syslog.
    if (runMode != Thread) open_syslog();

    {
        qelIpmi::QelIpmiDeviceIdData identity;
        deviceIdFlag = identity.oemFeatureAvailable;
    }

    confSpace = new (std::nothrow) QelConfSpaceData(deviceIdFlag);
    if (confSpace != nullptr && !confSpace->configSpaceAvailable) {
        delete confSpace;
        confSpace = nullptr;
    }
    if (confSpace != nullptr) keepForProcessLifetime(confSpace);

    char buffer[64] = {};
    if (platform().gethostname(buffer, sizeof buffer) == 0)
        hostName.assign(buffer, strnlen(buffer, sizeof buffer));

    bool vmkernel = false;
    std::string kernelVersion;
    try {
        qelSystemInfo::QelSystemInfo system;
        kernelVersion = system.unameData.version;
        if (system.osType == qelSystemInfo::QelSystemInfo::kOsTypeVmwareEsxi) {
            vmkernel = true;
            osRelease = system.unameData.release;
            const std::string path = platform().path(productStringPath);
            struct stat info;
            if (::stat(path.c_str(), &info) == 0) {
                std::ifstream product(path);
                if (product.is_open()) {
                    char line[256] = {};
                    product.getline(line, sizeof line);
                    osName = line;
                }
            }
        }
    } catch (const qelSystemInfo::QelSystemInfoError& error) {
        logText(LOG_ERR, error.errorText);
        // QelSystemInfo throws before its facts reach us, so this fallback
        // only matters should it ever fail after naming the kernel.
        if (vmkernel) osName = "VMware ESXi " + osRelease + " " + kernelVersion.substr(0, 4);
    }

    bladeInfo.reset(new (std::nothrow) QelBladeInfo(QelBladeInfo::unknownSlot, true));
    if (!bladeInfo) throw std::logic_error("new (nothrow) QelBladeInfo() failed");

    try {
        pniAccess.reset(new (std::nothrow) PniAccess());
        if (pniAccess &&
            (pniAccess->fruDeviceId() == 0 ||
             (pniAccess->statusFlags() & PniAccess::statusTableValid) == 0)) {
            logText(LOG_ERR, "QelServerInfo::QelServerInfo No access to PNI");
            pniAccess.reset();
        }
    } catch (const PniAccessError& error) {
        logText(LOG_ERR, error.errorText);
        pniAccess.reset();
    } catch (const std::runtime_error&) {
        // A controller without the PNI locate command: the normal case.
        pniAccess.reset();
    }

    if (confSpace != nullptr) {
        // Addresses published by an earlier run may be stale by now.
        const IPv4Address none;
        confSpace->setIpAddr_1(none);
        confSpace->setIpAddr_2(none);
        confSpace->setIpAddr_3(none);
        confSpace->setIpAddr_4(none);
    }

    switch (runMode) {
    case Thread:
        start_main_action_thread();
        break;
    case Once: {
        int exitCode = 0;
        main_action(exitCode);
        break;
    }
    case Daemon: {
        // The path shown is the one actually looked at (the fixed path under
        // the platform's root prefix, which is empty in production).
        const std::string path = platform().path(pidFilePath);
        if (FILE* existing = std::fopen(path.c_str(), "r")) {
            std::fclose(existing);
            std::fprintf(stderr, "It seems as if QELD daemon is already running.\n");
            // The sentence ends here on purpose.
            std::fprintf(stderr, "Delete file: '%s' if it does not\n", path.c_str());
            return;
        }
        platform().openlog(daemonIdentity, LOG_PID, LOG_LOCAL5);
        platform().syslog(LOG_INFO, "starting");
        start_main_action_daemon();
        platform().closelog();
        break;
    }
    default:
        break;
    }
}

QelServerInfo::~QelServerInfo() {
    if (runMode == Thread) stop_main_action_thread();
    pthread_cond_destroy(&loopCond);
    pthread_mutex_destroy(&loopMutex);
    free_data();
}

void QelServerInfo::open_syslog() { platform().openlog(agentIdentity, LOG_PID | LOG_CONS, LOG_USER); }

void QelServerInfo::free_data() {
    lastInventory.reset();
    pniAccess.reset();
    bladeInfo.reset();
    // confSpace stays: it lives as long as the process.
}

void QelServerInfo::start_main_action_daemon() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = child_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;

    // Started by init already (a respawning service manager, say): refuse,
    // the double fork would only orphan the daemon once more.
    if (getppid() == 1) std::exit(1);

    try {
        installOrExit(SIGCHLD, action);
        installOrExit(SIGUSR1, action);
        // The parent's 3-second wait ends by SIGALRM through child_handler
        // (status 1); left at its default action the alarm would kill the
        // parent with a signal status instead. The child installs its own
        // SIGALRM handler before it arms any alarm.
        installOrExit(SIGALRM, action);

        const pid_t child = fork();
        if (child == -1) {
            logErrno("unable to fork daemon, code=%d (%s)", errno);
            std::exit(1);
        }
        if (child > 0) {
            // The parent waits for the child's report (SIGUSR1), its death
            // (SIGCHLD) or 3 seconds (SIGALRM); child_handler ends it.
            free_data();
            platform().alarm(3);
            pause();
            std::exit(1);
        }

        const pid_t parent = getppid();

        struct sigaction defaults;
        std::memset(&defaults, 0, sizeof defaults);
        defaults.sa_handler = SIG_DFL;
        sigemptyset(&defaults.sa_mask);
        installOrExit(SIGCHLD, defaults);

        struct sigaction ignore = defaults;
        ignore.sa_handler = SIG_IGN;
        installOrExit(SIGTSTP, ignore);
        installOrExit(SIGTTOU, ignore);
        installOrExit(SIGTTIN, ignore);

        struct sigaction handler = defaults;
        handler.sa_handler = signal_handler;
        installOrExit(SIGALRM, handler);
        installOrExit(SIGTERM, handler);
        installOrExit(SIGHUP, handler);
        installOrExit(SIGINT, handler);

        umask(0);

        if (setsid() < 0) {
            logErrno("unable to create a new session, code %d (%s)", errno);
            std::exit(1);
        }

        if (chdir("/") < 0) {
            const int number = errno;
            char text[256];
            std::snprintf(text, sizeof text, "unable to change directory to %s, code %d (%s)", "/",
                          number, std::strerror(number));
            platform().syslog(LOG_ERR, text);
            std::exit(1);
        }

        if (std::freopen("/dev/null", "r", stdin) == nullptr)
            platform().syslog(LOG_ERR, "Cannot perform freopen on stdin.");
        if (std::freopen("/dev/null", "w", stdout) == nullptr)
            platform().syslog(LOG_ERR, "Cannot perform freopen on stdout.");
        if (std::freopen("/dev/null", "w", stderr) == nullptr)
            platform().syslog(LOG_ERR, "Cannot perform freopen on stderr.");

        const std::string path = platform().path(pidFilePath);
        // The mode is given explicitly: after umask(0) above, fopen would
        // create the file 0666, and anybody could then point a service
        // manager's kill at any process. Root may write it, everybody read.
        const int pidFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (FILE* pidFile = pidFd >= 0 ? ::fdopen(pidFd, "w") : nullptr) {
            std::fprintf(pidFile, "%d\n", static_cast<int>(getpid()));
            std::fflush(pidFile);
            std::fclose(pidFile);
        } else if (pidFd >= 0) {
            ::close(pidFd);
        }

        kill(parent, SIGUSR1);

        int exitCode = 0;
        running = true;
        this_QelServerInfo = this;
        main_action(exitCode);

        // After a termination signal the handler has removed the file
        // already, so this message is expected then.
        if (std::remove(path.c_str()) != 0) {
            const std::string text = "unable to remove file: " + path;
            platform().syslog(LOG_ERR, text.c_str());
        }
        free_data();
        std::exit(exitCode != 0 ? 1 : 0);
    } catch (...) {
        std::exit(1);
    }
}

void QelServerInfo::child_handler(int sig) {
    if (sig != SIGUSR1 && sig != SIGALRM && sig != SIGCHLD) return;
    if (this_QelServerInfo != nullptr) {
        delete this_QelServerInfo;
        this_QelServerInfo = nullptr;
    }
    std::exit(sig == SIGUSR1 ? 0 : 1);
}

void QelServerInfo::signal_handler(int sig) {
    switch (sig) {
    case SIGALRM:
        platform().syslog(LOG_INFO, "Alarm signal received");
        reset_watchdog(agentTimerUse, false);
        break;
    case SIGTERM:
    case SIGHUP:
    case SIGINT: {
        platform().syslog(LOG_INFO, "Termination signal received");
        QelServerInfo* agent = this_QelServerInfo;
        if (agent == nullptr) return;
        agent->setShutdownInfo();
        agent->running = false;
        if (agent->runMode == Daemon) removePidFileAfterSignal();
        break;
    }
    default:
        break;
    }
}

void QelServerInfo::start_main_action_thread() {
    if (!pthread_equal(loopThread, pthread_self())) return;  // a worker exists already
    pthread_create(&loopThread, nullptr, thread_function, this);
}

void* QelServerInfo::thread_function(void* agent) {
    auto* self = static_cast<QelServerInfo*>(agent);
    int exitCode = 0;
    self->running = true;
    self->main_action(exitCode);
    return nullptr;
}

void QelServerInfo::stop_main_action_thread() {
    if (runMode != Thread) return;
    if (pthread_equal(loopThread, pthread_self())) return;  // the worker cannot join itself
    pthread_mutex_lock(&loopMutex);
    const pthread_t worker = loopThread;
    loopThread = pthread_self();
    pthread_cond_signal(&loopCond);
    pthread_mutex_unlock(&loopMutex);
    pthread_join(worker, nullptr);
}

std::string QelServerInfo::getVibVersionString(const char* key) {
    std::string result;
    if (key == nullptr) return result;
    const std::string path = platform().path(versionStringPath);
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) return result;
    std::ifstream file(path);
    while (file.good()) {
        char line[256] = {};
        file.getline(line, sizeof line);
        if (std::strstr(line, key) != nullptr) {
            result = line;
            break;
        }
    }
    return result;
}

// ---------------------------------------------------------------- the loop

void QelServerInfo::main_action(int& exitCode) {
    bool holdsMutex = false;
    if (runMode == Thread) {
        // A second loop on the same object must not start.
        if (pthread_mutex_trylock(&loopMutex) != 0) return;
        holdsMutex = true;
    }
    const bool watchdogMode = runMode == Daemon || runMode == Thread;

    int watchdogCountdown = 1;
    unsigned int period = maximumPeriod;
    int infoCountdown = 1;

    try {
        do {
            if (bladeInfo) bladeInfo->setOSStatus(QelBladeInfo::AC_OS_RUNNING);

            if (watchdogMode) {
                if (updateWatchdog()) watchdogCountdown = 1;
                if (wdEnabled && --watchdogCountdown == 0) {
                    const unsigned int seconds = reset_watchdog(agentTimerUse, true);
                    if (seconds == 0) {
                        watchdogCountdown = 1;
                        period = maximumPeriod;
                    } else {
                        // Reset every `seconds`, rounded down to whole passes,
                        // but at least once a pass.
                        period = std::min(seconds, maximumPeriod);
                        watchdogCountdown = static_cast<int>(seconds / period);
                    }
                }
            }

            if (--infoCountdown == 0) {
                setInfo();
                infoCountdown = static_cast<int>(infoInterval / period);
            }

            if (runMode == Thread) {
                // stop_main_action_thread names its own thread in loopThread
                // while holding the mutex. A stop that came before this
                // worker took the mutex found nobody waiting and its signal
                // is gone; seeing loopThread changed, the loop ends instead
                // of waiting for a signal that will not come.
                if (!pthread_equal(loopThread, pthread_self())) {
                    running = false;
                } else {
                    struct timespec deadline;
                    deadline.tv_sec = platform().time() + static_cast<time_t>(period);
                    deadline.tv_nsec = 0;
                    if (platform().condTimedWait(&loopCond, &loopMutex, &deadline) != ETIMEDOUT)
                        running = false;
                }
            } else if (runMode == Daemon) {
                platform().sleep(period);  // a signal cuts it short
            }
        } while (running);
        exitCode = 0;
    } catch (const std::logic_error& error) {
        // The library's error classes keep their message in errorText and
        // give what() only "" (or "errm"); qelError::textOf knows them all.
        logText(LOG_ERR, qelError::textOf(error));
        exitCode = -1;
    } catch (...) {
        exitCode = -1;
    }

    if (watchdogMode) {
        stop_watchdog(agentTimerUse);
        if (confSpace != nullptr) confSpace->changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected);
    }
    if (runMode == Daemon) setShutdownInfo();

    // Only a loop that took the mutex gives it back: unlocking a mutex this
    // thread does not hold is undefined.
    if (holdsMutex) pthread_mutex_unlock(&loopMutex);
}

bool QelServerInfo::updateWatchdog() {
    if (confSpace == nullptr) return false;
    confSpace->updateWatchdogParameter();

    std::int32_t time = static_cast<std::int32_t>(confSpace->softWatchdogTime) * 10;
    const bool enabled = confSpace->softWatchdogEnabled;

    // The agent runs the timer with "no action" and leaves the reaction to
    // the controller's own policy.
    if (enabled && confSpace->softWatchdogBehaviour != QelConfSpaceData::ContinueOnTimeout)
        confSpace->setSoftWatchdogBehaviour(QelConfSpaceData::ContinueOnTimeout);

    if (time < minimumWatchdogTime) {
        time = minimumWatchdogTime;
        confSpace->setSoftWatchdogTime(minimumWatchdogSeconds);
    }
    // The controller's countdown has 16 bits; a longer configured time is
    // applied as the longest it can hold, or it would never compare equal
    // and the timer would be rewritten every pass.
    time = std::min(time, maximumWatchdogTime);

    QelIpmiWatchdog watchdog(agentTimerUse);
    if (enabled == wdEnabled && time == wdTime && wdForce == 0 && time == watchdog.initialCountdown)
        return false;

    wdEnabled = enabled;
    wdTime = time;
    wdForce = 0;

    if (watchdog.timeoutAction == 0 && watchdog.initialCountdown == time && watchdog.running == enabled)
        return true;  // already right: only the caller's reset is due

    watchdog.timeoutAction = 0;
    watchdog.initialCountdown = static_cast<unsigned short>(time);
    watchdog.set(false);
    return true;
}

unsigned int QelServerInfo::reset_watchdog(QelIpmiWatchdog::TimerUse use, bool) {
    QelIpmiWatchdog watchdog(use);
    if (!watchdog.resetTimer()) watchdog.stopTimer();

    unsigned int seconds = watchdog.initialCountdown / 10u;
    // With a pre-timeout interrupt configured the interval is, as intended,
    // not subtracted. An interval longer than the countdown leaves no usable
    // time (0) rather than wrapping round to a reset period of decades.
    if (watchdog.preTimeoutInterrupt == 0) {
        const unsigned int interval = watchdog.preTimeoutInterval;
        seconds = seconds > interval ? seconds - interval : 0;
    }

    platform().alarm((seconds + 1) / 2);
    return (seconds + 2) / 3;
}

bool QelServerInfo::stop_watchdog(QelIpmiWatchdog::TimerUse use) {
    platform().alarm(0);
    QelIpmiWatchdog watchdog(use);
    return watchdog.stopTimer();
}

// ---------------------------------------------------------------- publication

void QelServerInfo::setShutdownInfo() {
    if (!bladeInfo) return;
    bladeInfo->setOSStatus(QelBladeInfo::AC_OS_SHUT_DOWN);
    bladeInfo->setOSPlatformInfo("", "");
}

void QelServerInfo::setInfo() {
    if (bladeInfo) {
        bladeInfo->setOSPlatformInfo(osName, osRelease);
        bladeInfo->setOSStatus(QelBladeInfo::AC_OS_RUNNING);
    }

    // An exception of the scan leaves setInfo and ends the loop.
    std::unique_ptr<qelIp::QelIp> inventory(new (std::nothrow) qelIp::QelIp());
    if (!inventory) {
        platform().syslog(LOG_ERR, "QelServerInfo::setInfo()  new(nothrow)QelIp failed.");
        return;
    }
    if (lastInventory && *lastInventory == *inventory) return;  // nothing changed
    lastInventory = std::move(inventory);
    const qelIp::QelIp& current = *lastInventory;

    bool published = false;
    // Next configuration-space slot, 1 to 4; 0 once no further slot is written.
    int slot = 1;

    // Interfaces in the order of their index (index 0 is never used). The map
    // is ordered by index, so walking it is walking the indices 1, 2, 3, ...
    // with the absent ones skipped, without stepping through the gaps.
    unsigned int found = 0;
    for (const auto& entry : current.ifParameters) {
        if (found >= current.numberOfInterfaces) break;
        const unsigned int index = entry.first;
        if (index == 0) continue;
        ++found;
        try {
            const IPv4Address address = current.getIpv4Address(index);
            // Without an IPv4 address the interface is skipped as a whole,
            // its IPv6 addresses included.
            if (address == IPv4Address() || current.isLoopback(index)) continue;

            if (confSpace != nullptr && slot != 0) {
                bool written = false;
                switch (slot) {
                case 1: written = confSpace->setIpAddr_1(address); break;
                case 2: written = confSpace->setIpAddr_2(address); break;
                case 3: written = confSpace->setIpAddr_3(address); break;
                default: written = confSpace->setIpAddr_4(address); break;
                }
                if (written && slot == 1) published = true;
                slot = written && slot < 4 ? slot + 1 : 0;
            }

            const MacAddress mac = current.getMacAddress(index);
            if (pniAccess) {
                pniAccess->clearIpAddressData();
                pniAccess->setIpv4Address(mac, address);
                std::list<IPv6Address> ipv6;
                const unsigned int count = current.getNumberOfIpv6Addresses(index);
                for (unsigned int n = 0; n < count; ++n)
                    ipv6.push_back(current.getIpv6AddressInfo(index, n).address);
                if (!ipv6.empty()) pniAccess->setIpv6Address(mac, ipv6);
            } else if (bladeInfo) {
                bladeInfo->sendIpAddressInfo(address, mac);
                const unsigned int count = current.getNumberOfIpv6Addresses(index);
                for (unsigned int n = 0; n < count; ++n)
                    bladeInfo->sendIpAddressInfo(current.getIpv6AddressInfo(index, n).address, mac);
            }
        } catch (const qelIpmi::QelIpmiError& error) {
            logText(LOG_ERR, error.errorText);
        } catch (const PniAccessError& error) {
            logText(LOG_ERR, error.errorText);
        }
    }

    // Nothing reached the configuration space: forget the scan, so that the
    // next info pass publishes everything again instead of finding no change.
    if (!published) lastInventory.reset();
}
