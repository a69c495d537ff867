// The agent for Linux hosts: QelServerInfo's objects and run modes with a
// loop of its own, in which nothing but a termination request ends the loop.
//
// QelServerInfo's loop keeps the historic behaviour other programs rely on:
// the first exception of a publication ends it and stops the watchdog, the
// operating system is named as on the hypervisor, one NIC's addresses are
// cleared by the next. QelHostAgent replaces the loop through main_action
// and keeps the rest:
// - Watchdog keeping is QelServerInfo's own (updateWatchdog, reset_watchdog,
//   the same period, the SIGALRM safety net, the stop and the connection
//   status at the end). A failing watchdog command is retried on the next
//   pass instead of ending the loop. The settings are read at the start and
//   every watchdogSettingsSeconds (five minutes) rather than every pass, and
//   the timer's state only before a reset; the board's OS and platform texts
//   go when they change and at every republication. The OS status goes every
//   pass: the board takes it as the host's heartbeat. A controller without a
//   configuration space (another make's) holds no settings for the timer:
//   Options::watchdogSeconds and watchdogAction stand in for them there, and
//   without them the agent never arms that timer (it still stops it at its
//   end, as it always has).
// - Every other step (OS status, the facts, the network inventory, the
//   configuration space, the PNI records, the board) runs guarded: an
//   exception is caught and logged, and the next pass comes. A failure is
//   logged once when it starts, with its text, and once when it clears.
// - The facts are the host's: the OS name from os-release (PRETTY_NAME,
//   else NAME and VERSION, else "Linux") and the kernel release as platform
//   text; on VMkernel the library's own. The configuration-space variables
//   that describe the host (system name, operating system, BIOS version)
//   are written when they differ from what the controller holds; those an
//   administrator owns (cabinet location, contact, description) never are.
// - The addresses come from the complete inventory (qelHostInventory): the
//   four configuration-space slots get the primary IPv4 address of the
//   first four interfaces that have one, in index order (slots without one
//   are cleared); every NIC function of the PNI record whose MAC a host
//   interface carries gets that interface's primary IPv4 address and its
//   publishable IPv6 addresses (at most 15), after one clearing of all of
//   them; without PNI the board's ports get the same. IPv6-only interfaces
//   publish their IPv6 addresses. Publication happens when the inventory
//   changed, after a publication that did not complete, and at least every
//   republishSeconds in any case.
//
// - The standard System Info Parameters (Set System Info Parameters) carry
//   the same facts to controllers of every make: 1 firmware version (the
//   BIOS version), 2 system name (the host name), 3 primary OS name and 4 OS
//   name (os-release NAME), 5 present OS version (os-release VERSION, else
//   the kernel release). They are written with the facts, at the first info
//   pass and at every republication. A controller that does not know the
//   command (0xC1), or a parameter (0x80), is not asked again until the
//   agent restarts.
//
// - One owner for the timer: when the kernel's IPMI watchdog driver is
//   loaded (qelHostFacts::kernelIpmiWatchdog) it drives the same BMC timer,
//   and two keepers with different countdowns fight. The agent then says so
//   in the log and in status(), sends no watchdog command at all (nor stops
//   the timer at its end) and goes on publishing. A timer that someone else
//   stopped while the agent keeps it is logged as such (and started again
//   by the reset that was due).
// - The controller's event log learns of the host's boots and shutdowns:
//   "boot completed" (OS Boot sensor type) when the agent starts (Daemon or
//   Thread) in a boot it has not reported yet and less than an hour after
//   it, and "graceful shutdown" (OS Stop/Shutdown) through sendOsEvent,
//   which qeld sends when the system goes down.
//
// A base-class constructor cannot reach a derived main_action, so the agent
// is built with a mode that starts nothing and start() then runs the chosen
// mode: Daemon, Thread or Once (Shutdown needs no agent: QelServerInfo's
// mode Shutdown does it).
//
// Thread safety: as QelServerInfo. status() may be called from any thread.
#ifndef QEL_HOST_AGENT_H
#define QEL_HOST_AGENT_H

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "qelExport.h"
#include "qelHostInventory.h"
#include "qelServerInfo.h"

class QEL_EXPORT QelHostAgent : public QelServerInfo {
public:
    struct Options {
        // Where the interfaces come from; the kernel (QelHostInventory())
        // when unset. Tests present a host through it.
        std::function<qelHostInventory::QelHostInventory()> inventory;
        // The longest time between two publications of the addresses and
        // facts, so a controller that lost its state is repaired.
        unsigned int republishSeconds = 3600;
        // How often the watchdog settings are read from the configuration
        // space. The timer itself is reset on its own schedule in between.
        unsigned int watchdogSettingsSeconds = 300;
        // The watchdog where the controller has no configuration space (a
        // controller of another make): nowhere there holds the settings an
        // administrator gives the agent's timer, so these stand in for them.
        // 0 seconds (the default): the agent does not arm the timer there.
        // Otherwise the timer (SMS/OS) runs with this time (at least 240 s,
        // as the configured one) and action (0 none, 1 hard reset, 2 power
        // down, 3 power cycle). Where the configuration space exists, its
        // settings win and these are ignored (said once in the log).
        unsigned int watchdogSeconds = 0;
        int watchdogAction = 1;
        // More work for every pass, each run guarded under its name after
        // the watchdog's step (the event log's forwarder in qeld). A step
        // must return quickly: the next watchdog reset waits for it.
        std::vector<std::pair<std::string, std::function<void()>>> steps;
    };

    // What the agent did last; for status displays.
    struct Status {
        std::string osName;       // as published
        std::string platformText; // as published
        unsigned long passes = 0;
        unsigned long publications = 0;  // complete publications
        bool publicationPending = false; // the last one did not complete
        std::map<std::string, std::string> failing;  // step -> text, while it fails
        std::string watchdogKeeper;  // "qeld", or the kernel's driver that keeps the timer
        unsigned int watchdogSeconds = 0;  // the timer's time-out while qeld keeps it running; 0: off
        unsigned int nicsPublished = 0;    // controller NICs (PNI functions or board ports) given
                                           // addresses by the last complete publication
    };

    enum class OsEvent { BootCompleted, GracefulShutdown };
    // Logs `event` in the controller's event log (a Platform Event Message
    // from system software). True when the controller took it; never throws.
    static bool sendOsEvent(OsEvent event);
    // How long after the boot a start still counts as the boot's.
    static constexpr long freshBootSeconds = 3600;

    // Builds QelServerInfo's objects (without starting anything) and learns
    // the host's facts. Throws as QelServerInfo's constructor does.
    QelHostAgent();
    explicit QelHostAgent(Options options);
    ~QelHostAgent() override;

    // Runs `mode` as QelServerInfo's constructor would: Daemon forks (false
    // when the pid file exists; the reason is on standard error), Thread
    // starts the worker, Once runs one pass here. Other modes: false.
    bool start(RunMode mode);

    void main_action(int& exitCode) override;

    [[nodiscard]] Status status() const;

    // One info pass: the facts, then the addresses when due. Public for
    // callers that drive passes themselves; never throws.
    void publish();

private:
    // Runs one step; false (and the failure logged once) when it threw.
    bool guarded(const std::string& step, const std::function<void()>& work);
    void failed(const std::string& step, const std::string& text);
    void succeeded(const std::string& step);
    void keepWatchdog(int& countdown, unsigned int& period);
    // updateWatchdog's work from Options::watchdogSeconds and
    // watchdogAction, for a controller without a configuration space.
    bool updateWatchdogFromOptions();
    void reportBoot();
    void publishFacts(bool refresh);
    void publishSystemInfo();
    // True when every write went through; the others throw what failed.
    bool publishAddresses(const qelHostInventory::QelHostInventory& inventory);
    void publishSlots(const qelHostInventory::QelHostInventory& inventory);
    void publishPni(const qelHostInventory::QelHostInventory& inventory);
    void publishBoard(const qelHostInventory::QelHostInventory& inventory);

    Options options_;
    bool linux_ = false;
    std::string kernelWatchdog_;  // non-empty: the kernel's driver keeps the timer
    bool resetBefore_ = false;
    std::string osReleaseName_;     // os-release NAME
    std::string osReleaseVersion_;  // os-release VERSION
    bool systemInfoUnknown_ = false;
    unsigned int systemInfoUnsupported_ = 0;  // bit per parameter
    std::string biosVersion_;
    std::unique_ptr<qelHostInventory::QelHostInventory> published_;
    long lastPublication_ = 0;  // platform time of the last complete one
    long settingsReadAt_ = 0;   // platform time the watchdog settings were last read
    std::pair<std::string, std::string> boardTexts_;  // OS and platform text the board holds
    bool pending_ = false;
    unsigned int nicsWritten_ = 0;  // by the publication under way
    mutable std::mutex statusMutex_;
    Status status_;
};

#endif
