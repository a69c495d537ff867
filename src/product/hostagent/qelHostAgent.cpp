#define QEL_SOURCE_NAME "qelHostAgent"

#include "qelHostAgent.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "PniAccess.h"
#include "qelBladeInfo.h"
#include "qelConfSpaceData.h"
#include "qelErrorText.h"
#include "qelHostFacts.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelIpmiWatchdog.h"
#include "qelPlatform.h"

using qelHostInventory::Interface;
using qelHostInventory::QelHostInventory;
using qelIpmi::QelIpmiWatchdog;
using qelPlatform::platform;

namespace {

// The cadence of QelServerInfo's loop, which this loop keeps: a pass at least
// every 20 s, shorter when the watchdog needs it, facts and addresses about
// every 120 s.
constexpr unsigned int maximumPeriod = 20;
constexpr unsigned int infoInterval = 120;
constexpr QelIpmiWatchdog::TimerUse agentTimerUse = QelIpmiWatchdog::TIMER_USE_SMS_OS;
// The PNI area holds at most this many IPv6 addresses.
constexpr std::size_t maxPniIpv6 = 15;

constexpr const char* pidFilePath = "/var/run/qeld.pid";
// openlog keeps the pointer: the identity must outlive every syslog call.
const char daemonIdentity[] = "qel_daemon";

void logText(int priority, const std::string& text) { platform().syslog(priority, text.c_str()); }

// The message an exception carries, on one line.
std::string messageOf(const std::exception& e) {
    std::string text = qelError::textOf(e);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text.empty() ? "(no message)" : text;
}

// Of the interfaces that carry one MAC (a bond and its slaves, a bridge and
// its port), the one whose addresses the NIC stands for: the one with an
// IPv4 address, else the one with the most IPv6 addresses, else the first.
const Interface* addressedInterface(const std::vector<const Interface*>& candidates) {
    const Interface* best = nullptr;
    auto rank = [](const Interface* itf) {
        return std::make_pair(itf->primaryIpv4() != nullptr ? 1 : 0, itf->publishableIpv6().size());
    };
    for (const Interface* itf : candidates) {
        if (itf->loopback()) continue;
        if (best == nullptr || rank(itf) > rank(best)) best = itf;
    }
    return best;
}

std::list<IPv6Address> ipv6Of(const Interface& itf, std::size_t limit) {
    std::list<IPv6Address> out;
    for (const auto& entry : itf.publishableIpv6()) {
        if (out.size() >= limit) break;
        out.push_back(entry.address);
    }
    return out;
}

bool sameMac(const MacAddress& a, const MacAddress& b) { return std::memcmp(a.bytes, b.bytes, 6) == 0; }

bool zeroMac(const MacAddress& mac) { return sameMac(mac, MacAddress()); }

}  // namespace

// ---------------------------------------------------------------- lifecycle

QelHostAgent::QelHostAgent() : QelHostAgent(Options()) {}

QelHostAgent::QelHostAgent(Options options)
    : QelServerInfo(static_cast<RunMode>(0)), options_(std::move(options)) {
    struct utsname names;
    std::memset(&names, 0, sizeof names);
    linux_ = platform().uname(&names) == 0 && std::strcmp(names.sysname, "Linux") == 0;
    if (linux_) {
        // What the host's own tools call it; on VMkernel the library's texts
        // (from the hypervisor's product file) stand.
        const qelHostFacts::OsRelease release = qelHostFacts::readOsRelease();
        osName = release.displayName();
        osRelease = qelHostFacts::kernelRelease();
        osReleaseName_ = release.name.empty() ? "Linux" : release.name;
        osReleaseVersion_ = release.version.empty() ? osRelease : release.version;
    } else {
        osReleaseName_ = osName;
        osReleaseVersion_ = osRelease;
    }
    biosVersion_ = qelHostFacts::biosVersion();
    kernelWatchdog_ = qelHostFacts::kernelIpmiWatchdog();
    std::lock_guard<std::mutex> lock(statusMutex_);
    status_.osName = osName;
    status_.platformText = osRelease;
    status_.watchdogKeeper =
        kernelWatchdog_.empty() ? "qeld" : "the kernel's IPMI watchdog driver (" + kernelWatchdog_ + ")";
}

QelHostAgent::~QelHostAgent() {
    // The worker runs this class's loop: it must end before this class's
    // members go, which is before QelServerInfo's destructor would stop it.
    if (runMode == Thread) stop_main_action_thread();
}

bool QelHostAgent::start(RunMode mode) {
    switch (mode) {
    case Daemon: {
        runMode = Daemon;
        const std::string path = platform().path(pidFilePath);
        if (FILE* existing = std::fopen(path.c_str(), "r")) {
            std::fclose(existing);
            std::fprintf(stderr, "It seems as if QELD daemon is already running.\n");
            std::fprintf(stderr, "Delete file: '%s' if it does not\n", path.c_str());
            return false;
        }
        platform().openlog(daemonIdentity, LOG_PID, LOG_LOCAL5);
        platform().syslog(LOG_INFO, "starting");
        reportBoot();
        start_main_action_daemon();
        platform().closelog();
        return true;
    }
    case Thread:
        runMode = Thread;
        reportBoot();
        start_main_action_thread();
        return true;
    case Once: {
        runMode = Once;
        int exitCode = 0;
        main_action(exitCode);
        return exitCode == 0;
    }
    default:
        return false;
    }
}

QelHostAgent::Status QelHostAgent::status() const {
    std::lock_guard<std::mutex> lock(statusMutex_);
    return status_;
}

// ---------------------------------------------------------------- failures

void QelHostAgent::failed(const std::string& step, const std::string& text) {
    {
        std::lock_guard<std::mutex> lock(statusMutex_);
        if (!status_.failing.emplace(step, text).second) return;  // logged when it started
    }
    logText(LOG_ERR, step + " failed: " + text);
}

void QelHostAgent::succeeded(const std::string& step) {
    {
        std::lock_guard<std::mutex> lock(statusMutex_);
        if (status_.failing.erase(step) == 0) return;
    }
    logText(LOG_INFO, step + " works again");
}

bool QelHostAgent::guarded(const std::string& step, const std::function<void()>& work) {
    try {
        work();
        succeeded(step);
        return true;
    } catch (const std::exception& e) {
        failed(step, messageOf(e));
    } catch (...) {
        failed(step, "unknown exception");
    }
    return false;
}

// ---------------------------------------------------------------- the loop

void QelHostAgent::main_action(int& exitCode) {
    bool holdsMutex = false;
    if (runMode == Thread) {
        // A second loop on the same object must not start.
        if (pthread_mutex_trylock(&loopMutex) != 0) return;
        holdsMutex = true;
    }
    const bool watchdogMode = runMode == Daemon || runMode == Thread;
    // One owner for the timer: the kernel's driver, when it is there.
    const bool keepsWatchdog = watchdogMode && kernelWatchdog_.empty();
    if (watchdogMode && !keepsWatchdog)
        logText(LOG_WARNING, "the kernel's IPMI watchdog driver is loaded (" + kernelWatchdog_ +
                                 ") and keeps the BMC watchdog: qeld leaves the timer to it and only publishes");

    int watchdogCountdown = 1;
    unsigned int period = maximumPeriod;
    int infoCountdown = 1;

    do {
        guarded("OS status report", [&] {
            if (bladeInfo) bladeInfo->setOSStatus(QelBladeInfo::AC_OS_RUNNING);
        });
        if (keepsWatchdog) keepWatchdog(watchdogCountdown, period);
        for (const auto& step : options_.steps) guarded(step.first, step.second);
        if (--infoCountdown <= 0) {
            publish();
            infoCountdown = static_cast<int>(std::max(1u, infoInterval / period));
        }
        {
            std::lock_guard<std::mutex> lock(statusMutex_);
            ++status_.passes;
        }

        if (runMode == Thread) {
            // As in QelServerInfo's loop: a stop that came before this worker
            // took the mutex shows as loopThread changed.
            if (!pthread_equal(loopThread, pthread_self())) {
                running = false;
            } else {
                struct timespec deadline;
                deadline.tv_sec = platform().time() + static_cast<time_t>(period);
                deadline.tv_nsec = 0;
                if (platform().condTimedWait(&loopCond, &loopMutex, &deadline) != ETIMEDOUT) running = false;
            }
        } else if (runMode == Daemon) {
            platform().sleep(period);  // a signal cuts it short
        }
    } while (running);
    exitCode = 0;

    if (watchdogMode) {
        if (keepsWatchdog) guarded("watchdog", [] { stop_watchdog(agentTimerUse); });
        guarded("agent connection status", [&] {
            if (confSpace != nullptr) confSpace->changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected);
        });
    }
    if (runMode == Daemon) guarded("OS status report", [&] { setShutdownInfo(); });

    if (holdsMutex) pthread_mutex_unlock(&loopMutex);
}

bool QelHostAgent::updateWatchdogFromOptions() {
    // The same rules as the configured time: at least 240 s, at most what
    // the controller's 16-bit countdown (100 ms units) holds.
    const std::int32_t time =
        std::min<std::int32_t>(std::max<std::int64_t>(std::int64_t{options_.watchdogSeconds} * 10, 2400), 0xFFFF);
    const int action = options_.watchdogAction & 0x07;
    QelIpmiWatchdog watchdog(agentTimerUse);
    if (wdEnabled && time == wdTime && wdForce == 0 && time == watchdog.initialCountdown &&
        watchdog.timeoutAction == action)
        return false;
    wdEnabled = true;
    wdTime = time;
    wdForce = 0;
    if (watchdog.timeoutAction == action && watchdog.initialCountdown == time && watchdog.running)
        return true;  // already right: only the caller's reset is due
    watchdog.timeoutAction = action;
    watchdog.initialCountdown = static_cast<unsigned short>(time);
    // A running timer keeps running through the change: the host is as
    // unguarded as before only until the reset the caller makes at once.
    watchdog.set(true);
    return true;
}

void QelHostAgent::keepWatchdog(int& countdown, unsigned int& period) {
    const bool kept = guarded("watchdog", [&] {
        // The settings live in the configuration space, where an
        // administrator changes them rarely, and reading them costs seven
        // requests (six variables and the timer): they are read at the start
        // and then every watchdogSettingsSeconds, and a change is applied as
        // soon as it is read. A read that threw is tried again next pass.
        const long now = static_cast<long>(platform().time());
        bool applied = false;
        if (settingsReadAt_ == 0) {
            if (confSpace == nullptr && options_.watchdogSeconds == 0)
                logText(LOG_NOTICE, "the controller has no configuration space to hold the watchdog settings: qeld "
                                    "does not run the BMC watchdog (qeld --watchdog SECONDS turns it on)");
            else if (confSpace == nullptr)
                logText(LOG_INFO, "the controller has no configuration space: qeld keeps the BMC watchdog with "
                                  "its own settings (--watchdog, --watchdog-action)");
            else if (options_.watchdogSeconds != 0)
                logText(LOG_NOTICE, "--watchdog is not used: the controller's configuration space holds the "
                                    "watchdog settings");
        }
        if (settingsReadAt_ == 0 || now - settingsReadAt_ >= static_cast<long>(options_.watchdogSettingsSeconds) ||
            now < settingsReadAt_) {
            applied = confSpace == nullptr && options_.watchdogSeconds != 0 ? updateWatchdogFromOptions()
                                                                            : updateWatchdog();
            settingsReadAt_ = now == 0 ? 1 : now;
        }
        if (applied) countdown = 1;
        {
            std::lock_guard<std::mutex> lock(statusMutex_);
            status_.watchdogSeconds = wdEnabled ? static_cast<unsigned int>(wdTime / 10) : 0;
        }
        if (!wdEnabled || --countdown > 0) return;
        // Before the reset, once the timer ran: is it still running? A timer
        // stopped by somebody else is started again by the reset, but the
        // log should say that it was stopped. (Just after the settings were
        // applied the timer is stopped by the Set itself.)
        if (resetBefore_ && !applied) {
            QelIpmiWatchdog now(agentTimerUse);
            if (!now.running) logText(LOG_WARNING, "the BMC watchdog was stopped by someone else; qeld starts it again");
        }
        resetBefore_ = true;
        const unsigned int seconds = reset_watchdog(agentTimerUse, true);
        if (seconds == 0) {
            countdown = 1;
            period = maximumPeriod;
        } else {
            // Reset every `seconds`, rounded down to whole passes, but at
            // least once a pass.
            period = std::min(seconds, maximumPeriod);
            countdown = static_cast<int>(seconds / period);
        }
    });
    // The controller did not take a watchdog command: try again on the next
    // pass. The alarm armed by the last good reset still stands as the
    // safety net.
    if (!kept) countdown = 1;
}

// ---------------------------------------------------------------- OS events

bool QelHostAgent::sendOsEvent(OsEvent event) {
    // A Platform Event Message from system software (generator id 0x41) of a
    // sensor-specific event type: OS Boot (0x1F) offset 1 "C: boot
    // completed", or OS Stop/Shutdown (0x20) offset 3 "OS graceful
    // shutdown"; the other event data unspecified.
    const bool boot = event == OsEvent::BootCompleted;
    unsigned char data[8] = {0x41, 0x04, static_cast<unsigned char>(boot ? 0x1F : 0x20), 0x00, 0x6F,
                             static_cast<unsigned char>(boot ? 0x01 : 0x03), 0xFF, 0xFF};
    try {
        qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
        qelIpmi::QelIpmi_request_msg msg(qelIpmi::netfn::sensorEvent, qelIpmi::cmd::platformEvent, sizeof data,
                                         data);
        return ipmi.sendCmd(msg) && msg.responseLength > 0 && msg.responseData[0] == qelIpmi::cc::ok;
    } catch (const std::exception&) {
        return false;
    }
}

void QelHostAgent::reportBoot() {
    const std::string id = qelHostFacts::bootId();
    if (id.empty()) return;
    // Kept in /run, which every boot starts empty; the boot id guards
    // against a /run that is not.
    const std::string directory = platform().path("/run/qeld");
    const std::string marker = directory + "/boot-id";
    std::string reported;
    std::getline(std::ifstream(marker), reported);
    if (reported == id) return;  // a restart of the agent in the same boot

    struct sysinfo info;
    std::memset(&info, 0, sizeof info);
    const bool fresh = platform().sysinfo(&info) == 0 && info.uptime >= 0 && info.uptime < freshBootSeconds;
    // A start long after the boot (an installation, a late start) is no
    // boot: nothing is logged, and this boot counts as reported.
    if (fresh && !sendOsEvent(OsEvent::BootCompleted)) return;  // tried again at the next start
    if (fresh) logText(LOG_INFO, "boot completed: logged in the controller's event log");
    std::error_code ignored;
    std::filesystem::create_directories(directory, ignored);
    std::ofstream(marker) << id << '\n';
}

// ---------------------------------------------------------------- publication

void QelHostAgent::publish() {
    const long now = static_cast<long>(platform().time());
    const bool due = lastPublication_ == 0 || now - lastPublication_ >= static_cast<long>(options_.republishSeconds) ||
                     now < lastPublication_;  // the clock went back
    guarded("host facts", [&] { publishFacts(due && lastPublication_ != 0); });
    if (due) guarded("system info parameters", [&] { publishSystemInfo(); });

    std::unique_ptr<QelHostInventory> inventory;
    guarded("network inventory", [&] {
        inventory.reset(new QelHostInventory(options_.inventory ? options_.inventory() : QelHostInventory()));
    });
    if (!inventory) return;

    const bool changed = !published_ || *published_ != *inventory;
    if (!changed && !pending_ && !due) return;

    nicsWritten_ = 0;
    if (publishAddresses(*inventory)) {
        published_ = std::move(inventory);
        lastPublication_ = now == 0 ? 1 : now;
        pending_ = false;
    } else {
        // Everything is written again on the next info pass.
        pending_ = true;
    }
    std::lock_guard<std::mutex> lock(statusMutex_);
    if (!pending_) {
        ++status_.publications;
        status_.nicsPublished = nicsWritten_;
    }
    status_.publicationPending = pending_;
}

void QelHostAgent::publishFacts(bool refresh) {
    // The OS status went out at the start of this pass already. The texts
    // take several requests; the board keeps them, so they go again only
    // when they changed and at every republication.
    if (bladeInfo && (refresh || boardTexts_ != std::make_pair(osName, osRelease))) {
        if (bladeInfo->setOSPlatformInfo(osName, osRelease))
            boardTexts_ = std::make_pair(osName, osRelease);
        else
            boardTexts_ = {};  // tried again next info pass
    }
    if (confSpace == nullptr) return;
    // What the controller holds was read when the agent started and is kept
    // current by the writes below; once per republication period it is read
    // again, so a controller that lost it gets it back.
    if (refresh) confSpace->update(false);
    std::vector<std::string> refused;
    if (!hostName.empty() && confSpace->systemName != hostName && !confSpace->setSystemName(hostName))
        refused.push_back("system name");
    if (!osName.empty() && confSpace->serverOperatingSystem != osName &&
        !confSpace->setServerOperatingSystem(osName))
        refused.push_back("operating system");
    if (!biosVersion_.empty() && confSpace->biosVersion != biosVersion_ && !confSpace->setBiosVersion(biosVersion_))
        refused.push_back("BIOS version");
    if (refused.empty()) return;
    std::string text = "the controller refused the ";
    for (std::size_t i = 0; i < refused.size(); ++i) text += (i ? ", " : "") + refused[i];
    throw std::runtime_error(text);
}

void QelHostAgent::publishSystemInfo() {
    if (systemInfoUnknown_) return;
    const std::pair<unsigned char, std::string> parameters[] = {
        {1, biosVersion_}, {2, hostName}, {3, osReleaseName_}, {4, osReleaseName_}, {5, osReleaseVersion_}};
    qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    std::vector<std::string> refused;
    for (const auto& parameter : parameters) {
        const unsigned char selector = parameter.first;
        if (parameter.second.empty() || (systemInfoUnsupported_ & (1u << selector)) != 0) continue;
        // Strings travel in blocks of 16 bytes: block 0 holds the encoding
        // (0: ASCII/Latin-1), the total length and the first 14 bytes.
        const std::string text = parameter.second.substr(0, 255);
        const std::size_t blocks = text.size() <= 14 ? 1 : 1 + (text.size() - 14 + 15) / 16;
        for (std::size_t block = 0; block < blocks; ++block) {
            unsigned char data[18] = {selector, static_cast<unsigned char>(block)};
            if (block == 0) {
                data[2] = 0;
                data[3] = static_cast<unsigned char>(text.size());
                text.copy(reinterpret_cast<char*>(data + 4), 14, 0);
            } else {
                text.copy(reinterpret_cast<char*>(data + 2), 16, 14 + (block - 1) * 16);
            }
            qelIpmi::QelIpmi_request_msg msg(qelIpmi::netfn::app, qelIpmi::cmd::setSystemInfoParameters,
                                             sizeof data, data);
            if (!ipmi.sendCmd(msg) || msg.responseLength == 0) {
                refused.push_back("parameter " + std::to_string(selector) + " (no answer)");
                break;
            }
            const unsigned char code = msg.responseData[0];
            if (code == qelIpmi::cc::invalidCommand) {
                // The controller does not know the command: not asked again.
                systemInfoUnknown_ = true;
                logText(LOG_INFO, "the controller does not know Set System Info Parameters; not asked again");
                return;
            }
            if (code == qelIpmi::cc::parameterNotSupported) {
                systemInfoUnsupported_ |= 1u << selector;
                break;
            }
            if (code != qelIpmi::cc::ok) {
                char hex[8];
                std::snprintf(hex, sizeof hex, "0x%02X", code);
                refused.push_back("parameter " + std::to_string(selector) + " (" + hex + ")");
                break;
            }
        }
    }
    if (refused.empty()) return;
    std::string text = "the controller refused ";
    for (std::size_t i = 0; i < refused.size(); ++i) text += (i ? ", " : "") + refused[i];
    throw std::runtime_error(text);
}

bool QelHostAgent::publishAddresses(const QelHostInventory& inventory) {
    const bool slots = guarded("configuration-space addresses", [&] { publishSlots(inventory); });
    // With PNI records the NICs' addresses go there, else to the board.
    const bool nics = pniAccess ? guarded("PNI addresses", [&] { publishPni(inventory); })
                                : guarded("board addresses", [&] { publishBoard(inventory); });
    return slots && nics;
}

void QelHostAgent::publishSlots(const QelHostInventory& inventory) {
    if (confSpace == nullptr) return;
    std::vector<IPv4Address> slots;
    for (const Interface& itf : inventory.interfaces()) {
        if (slots.size() == 4) break;
        if (itf.loopback()) continue;
        if (const auto* primary = itf.primaryIpv4()) slots.push_back(primary->address);
    }
    slots.resize(4);  // slots without an interface are cleared
    bool ok = confSpace->setIpAddr_1(slots[0]);
    ok = confSpace->setIpAddr_2(slots[1]) && ok;
    ok = confSpace->setIpAddr_3(slots[2]) && ok;
    ok = confSpace->setIpAddr_4(slots[3]) && ok;
    if (!ok) throw std::runtime_error("the controller refused an address slot");
}

void QelHostAgent::publishPni(const QelHostInventory& inventory) {
    const int count = pniAccess->getNumberOfMacAddresses();
    std::vector<MacAddress> macs;
    for (int n = 0; n < count; ++n) {
        const MacAddress mac = pniAccess->getMacAddress(n);
        if (!zeroMac(mac)) macs.push_back(mac);
    }
    // Clear once, then write each NIC: clearing before each would leave only
    // the last NIC's addresses.
    if (!pniAccess->clearIpAddressData()) throw std::runtime_error("clearing the PNI addresses failed");
    int refused = 0;
    for (const MacAddress& mac : macs) {
        const Interface* itf = addressedInterface(inventory.findByMac(mac));
        if (itf == nullptr) continue;
        if (const auto* primary = itf->primaryIpv4())
            if (!pniAccess->setIpv4Address(mac, primary->address)) ++refused;
        const std::list<IPv6Address> ipv6 = ipv6Of(*itf, maxPniIpv6);
        if (!ipv6.empty() && !pniAccess->setIpv6Address(mac, ipv6)) ++refused;
        if (itf->primaryIpv4() != nullptr || !ipv6.empty()) ++nicsWritten_;
    }
    if (refused != 0)
        throw std::runtime_error(std::to_string(refused) + " PNI address write" + (refused == 1 ? "" : "s") +
                                 " failed");
}

void QelHostAgent::publishBoard(const QelHostInventory& inventory) {
    if (!bladeInfo || !bladeInfo->bladeSystem) return;
    int refused = 0;
    for (const auto& port : bladeInfo->macAddresses) {
        const Interface* itf = addressedInterface(inventory.findByMac(port.second));
        if (itf == nullptr) continue;
        if (const auto* primary = itf->primaryIpv4())
            if (!bladeInfo->sendIpAddressInfo(primary->address, port.second)) ++refused;
        const std::list<IPv6Address> ipv6 = ipv6Of(*itf, static_cast<std::size_t>(-1));
        for (const IPv6Address& address : ipv6)
            if (!bladeInfo->sendIpAddressInfo(address, port.second)) ++refused;
        if (itf->primaryIpv4() != nullptr || !ipv6.empty()) ++nicsWritten_;
    }
    if (refused != 0)
        throw std::runtime_error(std::to_string(refused) + " address report" + (refused == 1 ? "" : "s") +
                                 " to the board failed");
}
