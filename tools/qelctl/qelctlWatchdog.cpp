// qelctl watchdog get | set | reset | stop: the controller's real timer,
// whichever timer use holds it.
#include <cmath>
#include <cstdio>
#include <iostream>

#include "qelIpmiCommands.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

const char* const timerUses[] = {"reserved", "BIOS FRB2", "BIOS/POST", "OS Load", "SMS/OS", "OEM", "reserved",
                                 "reserved"};
const char* const actions[] = {"none", "hard reset", "power down", "power cycle"};
const char* const interrupts[] = {"none", "SMI", "NMI / diagnostic interrupt", "messaging interrupt"};

double tenths(unsigned value) { return std::round(value) / 10.0; }

Json decode(const Bytes& r) {
    if (r.size() < 7) throw Failure("watchdog get: Get Watchdog Timer: answer too short (" + std::to_string(r.size()) + " bytes)");
    Json doc;
    doc["timer_use"] = timerUses[r[0] & 0x07];
    doc["running"] = (r[0] & 0x40) != 0;
    doc["dont_log"] = (r[0] & 0x80) != 0;
    doc["timeout_action"] = (r[1] & 0x07) < 4 ? actions[r[1] & 0x07] : "reserved";
    doc["pre_timeout_interrupt"] = interrupts[(r[1] >> 4) & 0x03];
    doc["pre_timeout_interval"] = r[2];
    doc["expiration_flags"] = r[3];
    doc["initial_countdown"] = tenths(r[4] | (r[5] << 8));
    doc["present_countdown"] = r.size() >= 8 ? Json(tenths(r[6] | (r[7] << 8))) : Json(nullptr);
    return doc;
}

std::string seconds(const Json& value) {
    if (value.is_null()) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", value.get<double>());
    return text;
}

void print(const Json& doc) {
    Output::line("Timer Use", doc["timer_use"].get<std::string>());
    Output::line("Timer", doc["running"].get<bool>() ? "running" : "stopped");
    Output::line("Logging", doc["dont_log"].get<bool>() ? "off" : "on");
    Output::line("Timeout Action", doc["timeout_action"].get<std::string>());
    Output::line("Pre-timeout Interrupt", doc["pre_timeout_interrupt"].get<std::string>());
    Output::line("Pre-timeout Interval", std::to_string(doc["pre_timeout_interval"].get<int>()) + " s");
    Output::line("Expiration Flags", hex8(doc["expiration_flags"].get<int>()));
    Output::line("Initial Countdown", seconds(doc["initial_countdown"]));
    Output::line("Present Countdown", seconds(doc["present_countdown"]));
}

Bytes getRaw() {
    return exchange("watchdog get: Get Watchdog Timer", qelIpmi::netfn::app, qelIpmi::cmd::getWatchdogTimer);
}

struct SetOptions {
    double timeout = 0;
    std::string action = "none";
    std::string pretimeout = "none";
    unsigned interval = 0;
    bool yes = false;
};

int set(const Output& out, const SetOptions& o) {
    unsigned char action = 0;
    for (unsigned char i = 0; i < 4; ++i)
        if (o.action == std::string(i == 0 ? "none" : i == 1 ? "reset" : i == 2 ? "power-off" : "power-cycle")) action = i;
    unsigned char interrupt = 0;
    if (o.pretimeout == "smi") interrupt = 1;
    else if (o.pretimeout == "nmi") interrupt = 2;
    else if (o.pretimeout == "msg") interrupt = 3;
    const unsigned countdown = static_cast<unsigned>(std::lround(o.timeout * 10));
    if (countdown == 0 || countdown > 0xFFFF) throw Failure("watchdog set: --timeout must be 0.1 to 6553.5 seconds");
    if (o.interval > 255 || (interrupt != 0 && o.interval * 10 >= countdown))
        throw Failure("watchdog set: the pre-timeout interval must be shorter than the timeout");
    if (action != 0) {
        const auto running = qeldRunning();
        std::cerr << "qelctl: the controller will " << actions[action] << " the host when the timer runs out"
                  << (running.first ? " (" + running.second + " keeps resetting it)" : "; qeld is not running")
                  << "\n";
        if (!running.first && !o.yes) {
            std::cerr << "qelctl: give --yes to arm it anyway\n";
            return exitUsage;
        }
    }
    // Keep the timer use that holds the timer now (SMS/OS when none does).
    const Bytes now = getRaw();
    unsigned char use = now.empty() ? 4 : now[0] & 0x07;
    if (use == 0) use = 4;
    const Bytes request = {static_cast<unsigned char>(use | 0x40 /* don't stop a running timer */),
                           static_cast<unsigned char>(action | (interrupt << 4)),
                           static_cast<unsigned char>(interrupt != 0 ? o.interval : 0),
                           0x00,
                           static_cast<unsigned char>(countdown & 0xFF),
                           static_cast<unsigned char>(countdown >> 8)};
    exchange("watchdog set: Set Watchdog Timer", qelIpmi::netfn::app, qelIpmi::cmd::setWatchdogTimer, request);
    const Json doc = decode(getRaw());
    if (out.json) Output::print(doc);
    else print(doc);
    return exitOk;
}

}  // namespace

Json watchdogDocument() { return decode(getRaw()); }

void addWatchdog(CLI::App& app, Action& action) {
    auto* wd = app.add_subcommand("watchdog", "the controller's watchdog timer");
    wd->require_subcommand(1);
    wd->add_subcommand("get", "show the timer")->callback([&action] {
        action = [](const Output& out) {
            const Json doc = watchdogDocument();
            if (out.json) Output::print(doc);
            else print(doc);
            return static_cast<int>(exitOk);
        };
    });
    auto options = std::make_shared<SetOptions>();
    auto* s = wd->add_subcommand("set", "program the timer (keeps its timer use; a running timer goes on)");
    s->add_option("--timeout", options->timeout, "countdown in seconds (0.1 to 6553.5)")->required();
    s->add_option("--action", options->action, "on expiry: none, reset, power-off, power-cycle")
        ->check(CLI::IsMember({"none", "reset", "power-off", "power-cycle"}));
    s->add_option("--pretimeout", options->pretimeout, "pre-timeout interrupt: none, smi, nmi, msg")
        ->check(CLI::IsMember({"none", "smi", "nmi", "msg"}));
    s->add_option("--pretimeout-interval", options->interval, "seconds before the timeout");
    s->add_flag("--yes", options->yes, "arm an action even though qeld is not running");
    s->callback([&action, options] { action = [options](const Output& out) { return set(out, *options); }; });
    wd->add_subcommand("reset", "restart the countdown")->callback([&action] {
        action = [](const Output& out) {
            exchange("watchdog reset: Reset Watchdog Timer", qelIpmi::netfn::app, qelIpmi::cmd::resetWatchdogTimer);
            const Json doc = watchdogDocument();
            if (out.json) Output::print(doc);
            else print(doc);
            return static_cast<int>(exitOk);
        };
    });
    wd->add_subcommand("stop", "stop the timer (its settings stay)")->callback([&action] {
        action = [](const Output& out) {
            const Bytes now = getRaw();
            if (now.size() < 6) throw Failure("watchdog stop: Get Watchdog Timer: answer too short");
            const Bytes request = {static_cast<unsigned char>(now[0] & 0x87), now[1], now[2], 0x00, now[4], now[5]};
            exchange("watchdog stop: Set Watchdog Timer", qelIpmi::netfn::app, qelIpmi::cmd::setWatchdogTimer, request);
            const Json doc = watchdogDocument();
            if (out.json) Output::print(doc);
            else print(doc);
            return static_cast<int>(exitOk);
        };
    });
}

}  // namespace qelctl
