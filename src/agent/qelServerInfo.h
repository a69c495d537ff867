// The agent object: keeps the controller's watchdog alive and publishes the
// host's facts to the management controller while the operating system runs.
//
// The daemon's executable constructs one QelServerInfo with a RunMode. The
// constructor builds the objects that talk to the controller (configuration
// space, blade reporting, PNI records; each optional one is left null when the
// controller lacks it), clears the four published addresses and then, by
// mode, forks the daemon (Daemon), starts a worker thread (Thread), runs one
// pass of the loop (Once) or only stops the watchdog (Shutdown).
//
// Promises:
// - Every wait, alarm, syslog call, fixed path, host name and clock reading
//   goes through qelPlatform::platform(), so a test drives the loop pass by
//   pass. Process control (fork, setsid, signals, exit) is always the real one.
// - The loop never lets an exception out: it ends with exitCode -1 and still
//   stops the watchdog and reports the agent as disconnected.
// - The configuration-space object is never deleted; it lives as long as the
//   process (the controller layer may still be used from signal handlers).
// - loopMutex and loopCond are initialised in every mode, so the loop's final
//   unlock and the destructor never touch an uninitialised mutex; the loop
//   unlocks only when its own thread holds the mutex.
// - A stop_main_action_thread that comes before the worker reached its first
//   wait is not lost: the worker sees loopThread changed and ends after its
//   pass instead of waiting for a signal that already went by.
// - The pid-file message names the path actually looked at (the fixed path
//   under the platform's root prefix; the fixed path itself in production).
// - The daemon creates its pid file with mode 0644, whatever its umask.
// - main_action is virtual, but calls made from the constructor (modes Once
//   and Daemon) and the worker started by it (mode Thread) reach this class's
//   loop: a derived agent's override is only in force after construction.
#ifndef QEL_SERVER_INFO_H
#define QEL_SERVER_INFO_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "qelExport.h"
#include "qelIpmiWatchdog.h"

class QelBladeInfo;
class QelConfSpaceData;
class PniAccess;
namespace qelIp {
class QelIp;
}

class QEL_EXPORT QelServerInfo {
public:
    enum RunMode : std::int32_t {
        Daemon = 1,    // fork a daemon that writes the pid file and loops until a signal
        Thread = 2,    // loop in a worker thread until stop_main_action_thread
        Once = 4,      // one pass of the loop in the constructor's thread
        Shutdown = 5,  // stop the watchdog only; nothing else is built
    };

    // Builds and starts as the mode says; any value other than the four above
    // builds the objects and starts nothing. Throws std::logic_error
    // "new (nothrow) QelBladeInfo() failed" when the blade object cannot be
    // allocated. In mode Daemon it returns only in the process that called it
    // when a pid file already exists; otherwise both processes end in it.
    explicit QelServerInfo(RunMode mode);

    // The loop; exitCode 0 on a normal end, -1 when an exception ended it
    // (untouched when another loop of this object holds the mutex in mode
    // Thread).
    virtual void main_action(int& exitCode);

    // Mode Thread: stops and joins the worker. Then frees the owned objects.
    virtual ~QelServerInfo();

    QelServerInfo(const QelServerInfo&) = delete;
    QelServerInfo& operator=(const QelServerInfo&) = delete;

    // openlog "QELD", LOG_PID | LOG_CONS, LOG_USER.
    static void open_syslog();

    void start_main_action_daemon();
    void start_main_action_thread();
    // From any thread but the worker: wakes the worker, waits for its end.
    // Called by the worker itself it does nothing.
    void stop_main_action_thread();
    static void* thread_function(void* agent);
    // SIGALRM resets the watchdog; SIGTERM, SIGHUP, SIGINT end the loop.
    static void signal_handler(int sig);
    // The start-up handshake of the daemon: SIGUSR1 exits 0, SIGCHLD and
    // SIGALRM exit 1, after deleting this_QelServerInfo if it is set.
    static void child_handler(int sig);
    // Deletes lastInventory, pniAccess and bladeInfo, in that order.
    void free_data();

    // The first line of "/opt/zum/cimprovider-versionstring" holding `key`;
    // "" when the file is missing, no line holds it or `key` is null.
    [[nodiscard]] std::string getVibVersionString(const char* key);

    // Brings the controller's watchdog in line with the configuration space;
    // true when the settings were (re)applied.
    bool updateWatchdog();
    // Resets the timer (stops it when the reset fails), arms the SIGALRM
    // safety net at half the usable watchdog time and returns after how many
    // seconds the loop should reset again (0: no usable time).
    static unsigned int reset_watchdog(qelIpmi::QelIpmiWatchdog::TimerUse use, bool);
    // Cancels the alarm and stops the timer; the result of stopTimer.
    static bool stop_watchdog(qelIpmi::QelIpmiWatchdog::TimerUse use);
    // Platform info and status, and the host's addresses when they changed.
    void setInfo();
    // Reports the operating system as shut down.
    void setShutdownInfo();

    RunMode runMode;
    bool deviceIdFlag;
    std::string osName;
    std::string hostName;
    std::string osRelease;
    std::unique_ptr<QelBladeInfo> bladeInfo;
    QelConfSpaceData* confSpace;  // never deleted
    std::unique_ptr<PniAccess> pniAccess;
    std::unique_ptr<qelIp::QelIp> lastInventory;
    bool wdEnabled;
    std::int32_t wdTime;   // 100 ms units
    std::int32_t wdForce;  // non-zero: re-apply the watchdog settings
    pthread_t loopThread;
    // Cleared by the termination handler (mode Daemon) and read by the loop
    // between passes, possibly on another thread (mode Thread): a lock-free
    // atomic is both async-signal-safe and free of data races, where a plain
    // bool is neither and may be kept in a register across the wait.
    std::atomic<bool> running;
    pthread_mutex_t loopMutex;
    pthread_cond_t loopCond;

    // The agent the signal handlers act on; set by the daemon child only.
    static QelServerInfo* this_QelServerInfo;
};

#endif
