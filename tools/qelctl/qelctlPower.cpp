// qelctl power: what the chassis draws, from the controller's DCMI power
// reading (current, minimum, maximum and average watts over its statistics
// period), with the chassis power state and faults beside it.
#include <ctime>
#include <iostream>
#include <string>

#include "qelSensors.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

std::string utcText(uint32_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    char text[32];
    if (::gmtime_r(&t, &tm) == nullptr || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0) return "";
    return text;
}

Json powerDocument() {
    qelSensors::QelSensorReader reader;
    Json doc;
    const auto power = reader.readDcmiPower();
    if (!power) {
        const int code = reader.lastCompletionCode();
        // Refused as unknown or unsupported: the controller has no DCMI
        // power management, which is a fact to show, not a failure.
        if (code == 0xC1 || code == 0xD4 || code == 0xD6) {
            doc["dcmi"] = nullptr;
            doc["dcmi_problem"] = reader.lastProblem();
        } else {
            throw Failure("power: " + reader.lastProblem());
        }
    } else {
        doc["dcmi"] = Json{{"current_watts", power->currentWatts},
                           {"minimum_watts", power->minimumWatts},
                           {"maximum_watts", power->maximumWatts},
                           {"average_watts", power->averageWatts},
                           {"timestamp", utcText(power->timestamp)},
                           {"period_ms", power->periodMs},
                           {"measurement_active", power->active}};
        doc["dcmi_problem"] = nullptr;
    }
    const auto chassis = reader.readChassisStatus();
    if (!chassis) throw Failure("power: " + reader.lastProblem());
    static const char* const policies[] = {"stay off", "restore", "power on", "unknown"};
    doc["chassis"] = Json{{"power_on", chassis->powerOn},
                          {"power_overload", chassis->powerOverload},
                          {"power_interlock", chassis->interlock},
                          {"power_fault", chassis->powerFault},
                          {"power_control_fault", chassis->powerControlFault},
                          {"restore_policy", policies[chassis->restorePolicy & 3]},
                          {"intrusion", chassis->intrusion},
                          {"drive_fault", chassis->driveFault},
                          {"cooling_fault", chassis->coolingFault}};
    return doc;
}

const char* yesNo(bool b) { return b ? "yes" : "no"; }

}  // namespace

void addPower(CLI::App& app, Action& action) {
    app.add_subcommand("power", "the DCMI power reading and the chassis power state")->callback([&action] {
        action = [](const Output& out) {
            const Json doc = powerDocument();
            if (out.json) {
                Output::print(doc);
                return static_cast<int>(exitOk);
            }
            const Json& c = doc["chassis"];
            Output::line("chassis power", c["power_on"].get<bool>() ? "on" : "off");
            if (doc["dcmi"].is_null()) {
                Output::line("power reading", "none: " + doc["dcmi_problem"].get<std::string>() +
                                                  " (no DCMI power management)");
            } else {
                const Json& d = doc["dcmi"];
                auto watts = [&d](const char* key) { return std::to_string(d[key].get<int>()) + " W"; };
                Output::line("current power", watts("current_watts"));
                Output::line("minimum power", watts("minimum_watts"));
                Output::line("maximum power", watts("maximum_watts"));
                Output::line("average power", watts("average_watts"));
                Output::line("statistics period", std::to_string(d["period_ms"].get<unsigned long>()) + " ms");
                Output::line("reading taken", d["timestamp"].get<std::string>());
                Output::line("measurement", d["measurement_active"].get<bool>() ? "active" : "not active");
            }
            Output::line("power fault", yesNo(c["power_fault"].get<bool>()));
            Output::line("power overload", yesNo(c["power_overload"].get<bool>()));
            Output::line("drive fault", yesNo(c["drive_fault"].get<bool>()));
            Output::line("cooling fault", yesNo(c["cooling_fault"].get<bool>()));
            Output::line("restore policy", c["restore_policy"].get<std::string>());
            return static_cast<int>(exitOk);
        };
    });
}

}  // namespace qelctl
