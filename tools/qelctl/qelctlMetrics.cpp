// qelctl metrics: the controller and the agent in the Prometheus text format,
// for node_exporter's textfile collector, under the names and labels
// ipmi_exporter uses, so its dashboards and alerts keep working. Each of its
// collectors is one part here, and says whether it could read what it reads
// (ipmi_up{collector}) and how long that took
// (ipmi_scrape_duration_seconds{collector}):
//   bmc           Get Device ID and the system firmware version: ipmi_bmc_info
//   bmc-watchdog  Get Watchdog Timer: ipmi_bmc_watchdog_*; and the agent's
//                 own watchdog variables in the configuration space
//   sel           Get SEL Info: ipmi_sel_logs_count, ipmi_sel_free_space_bytes
//   ipmi          every sensor of the SDR repository: ipmi_temperature_celsius
//                 and the others by units, each with its *_state, and
//                 ipmi_sensor_value/ipmi_sensor_state for the rest
//   dcmi          the DCMI power reading: ipmi_dcmi_power_consumption_watts
//   chassis       Get Chassis Status: ipmi_chassis_power_state, _drive_fault_state,
//                 _cooling_fault_state
// --collectors chooses them (all by default). What the host itself says (qeld
// running, the interfaces, the event log forwarder's figures) is always
// there and costs the controller nothing.
//
// `metrics --textfile DIR` puts the same text in DIR/qeld.prom (qelctlTextfile.h).
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "qelErrorText.h"
#include "qelIpmiCommands.h"
#include "qelSel.h"
#include "qelSensors.h"
#include "qelctlCommands.h"
#include "qelctlTextfile.h"

namespace qelctl {

namespace {

// ipmi_exporter's collectors that this command has, in the order they run.
const char* const allCollectors[] = {"bmc", "bmc-watchdog", "sel", "ipmi", "dcmi", "chassis"};

// The collector being read (a literal), for the message of a run that timed out.
std::atomic<const char*> currentCollector{nullptr};

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A sample value as the text format writes it: integers whole (counters and
// byte counts never turn into 1.2e+06), other values to ten significant
// digits (a converted reading carries no more, and 23.400000000000002 shows
// as 23.4), NaN for no value.
std::string valueText(double v) {
    if (std::isnan(v)) return "NaN";
    if (std::isinf(v)) return v > 0 ? "+Inf" : "-Inf";
    if (v == 0) return "0";
    char text[64];
    if (v == std::floor(v) && std::fabs(v) < 1e15)
        std::snprintf(text, sizeof text, "%.0f", v);
    else
        std::snprintf(text, sizeof text, "%.10g", v);
    return text;
}

// The samples of one run, family by family: a family's samples stay
// together under its one HELP and TYPE, whatever order they come in.
class Exposition {
public:
    void add(const std::string& name, const char* help, const std::string& labels, double value,
             const char* type = "gauge") {
        auto found = families_.find(name);
        if (found == families_.end()) {
            order_.push_back(name);
            found = families_.emplace(name, Family{help, type, {}}).first;
        }
        found->second.samples.emplace_back(labels, value);
    }

    std::string text() const {
        std::string out;
        for (const std::string& name : order_) {
            const Family& f = families_.at(name);
            out += "# HELP " + name + ' ' + f.help + "\n# TYPE " + name + ' ' + f.type + '\n';
            for (const auto& s : f.samples)
                out += name + (s.first.empty() ? "" : "{" + s.first + "}") + ' ' + valueText(s.second) + '\n';
        }
        return out;
    }

    Json json() const {
        Json samples = Json::array();
        for (const std::string& name : order_)
            for (const auto& s : families_.at(name).samples)
                samples.push_back(Json{{"name", name}, {"labels", s.first},
                                       {"value", std::isnan(s.second) ? Json(nullptr) : Json(s.second)}});
        return samples;
    }

private:
    struct Family {
        std::string help;
        std::string type;
        std::vector<std::pair<std::string, double>> samples;
    };
    std::vector<std::string> order_;
    std::map<std::string, Family> families_;
};

std::string label(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + textfile::escapeLabelValue(value) + '"';
}

// What one run found, collector by collector.
struct Run {
    Exposition samples;
    std::map<std::string, bool> up;
    std::map<std::string, double> seconds;
    std::map<std::string, std::string> errors;  // by collector
};

// Runs `read` as collector `name`: its time counted, a failure its error
// line (and the collector down).
template <typename Read>
void collector(Run& run, const char* name, Read read) {
    currentCollector = name;
    const auto start = std::chrono::steady_clock::now();
    try {
        run.up[name] = read();
    } catch (const std::exception& e) {
        std::string text = qelError::textOf(e);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        run.errors[name] = text;
        run.up[name] = false;
    }
    run.seconds[name] += secondsSince(start);
    currentCollector = nullptr;
}

// The system firmware version the controller holds (System Info Parameter
// 1, which qeld writes from SMBIOS), as UTF-8; empty when the controller
// has none, does not know the command, or answers something malformed: it
// is only a label of ipmi_bmc_info.
std::string systemFirmwareVersion() {
    Bytes r;
    if (exchangeCode("metrics: Get System Info Parameters", qelIpmi::netfn::app, qelIpmi::cmd::getSystemInfoParameters,
                     {0x00, 0x01, 0x00, 0x00}, r) != 0 ||
        r.size() < 4)
        return "";
    // Revision, set selector, then block 0: encoding, length, 14 bytes.
    const unsigned encoding = r[2] & 0x0F;
    const std::size_t length = r[3];
    std::string bytes(r.begin() + 4, r.end());
    for (unsigned char block = 1; bytes.size() < length && block < 17; ++block) {
        Bytes more;
        if (exchangeCode("metrics: Get System Info Parameters", qelIpmi::netfn::app,
                         qelIpmi::cmd::getSystemInfoParameters, {0x00, 0x01, block, 0x00}, more) != 0 ||
            more.size() <= 2)
            break;
        bytes.append(more.begin() + 2, more.end());
    }
    if (bytes.size() > length) bytes.resize(length);
    while (!bytes.empty() && bytes.back() == '\0') bytes.pop_back();
    if (encoding == 1) return bytes;  // UTF-8
    if (encoding != 0) return "";     // UCS-2: not shown
    std::string text;                 // ISO 8859-1
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        if (b < 0x80) {
            text += c;
        } else {
            text += static_cast<char>(0xC0 | (b >> 6));
            text += static_cast<char>(0x80 | (b & 0x3F));
        }
    }
    return text;
}

// The Get Device ID answer of this run, when the bmc collector got one: the
// SDR cache's check of which controller this is needs no second request.
Bytes deviceIdAnswer;

bool readBmc(Exposition& out) {
    const Json id = deviceIdDocument(&deviceIdAnswer);
    std::string firmware;
    try {
        firmware = systemFirmwareVersion();
    } catch (const std::exception&) {
        firmware.clear();  // a label only: Get Device ID decides whether the collector is up
    }
    out.add("ipmi_bmc_info", "Constant metric with value '1' providing details about the BMC.",
            label("firmware_revision", id["firmware_revision"].get<std::string>()) + ',' +
                label("manufacturer_id", std::to_string(id["manufacturer_id"].get<int>())) + ',' +
                label("system_firmware_version", firmware),
            1);
    return true;
}

// The label values of the exporter's bmc-watchdog collector, beside the
// texts of `qelctl watchdog` they stand for: dashboards select on the
// exporter's exact spellings, and list every value with 0 but the current.
struct WatchdogLabel {
    const char* ours;
    const char* label;
};
const WatchdogLabel timerUseLabels[] = {
    {"BIOS FRB2", "BIOS FRB2"}, {"BIOS/POST", "BIOS POST"}, {"OS Load", "OS LOAD"}, {"SMS/OS", "SMS/OS"}, {"OEM", "OEM"}};
const WatchdogLabel actionLabels[] = {
    {"none", "None"}, {"hard reset", "Hard Reset"}, {"power down", "Power Down"}, {"power cycle", "Power Cycle"}};
const WatchdogLabel interruptLabels[] = {{"none", "None"},
                                         {"SMI", "SMI"},
                                         {"NMI / diagnostic interrupt", "NMI / Diagnostic Interrupt"},
                                         {"messaging interrupt", "Messaging Interrupt"}};

bool readWatchdog(Exposition& out) {
    const Json wd = watchdogDocument();
    out.add("qel_up", "1 when the controller answered Get Watchdog Timer", "", 1);
    out.add("ipmi_bmc_watchdog_timer_state", "Watchdog timer running (1: running, 0: stopped)", "",
            wd["running"].get<bool>() ? 1 : 0);
    for (const WatchdogLabel& use : timerUseLabels)
        out.add("ipmi_bmc_watchdog_timer_use_state", "Watchdog timer use (1: active, 0: inactive)",
                label("name", use.label), wd["timer_use"] == use.ours ? 1 : 0);
    out.add("ipmi_bmc_watchdog_logging_state", "Watchdog log flag (1: enabled, 0: disabled)", "",
            wd["dont_log"].get<bool>() ? 0 : 1);
    for (const WatchdogLabel& a : actionLabels)
        out.add("ipmi_bmc_watchdog_timeout_action_state", "Watchdog timeout action (1: active, 0: inactive)",
                label("action", a.label), wd["timeout_action"] == a.ours ? 1 : 0);
    for (const WatchdogLabel& i : interruptLabels)
        out.add("ipmi_bmc_watchdog_pretimeout_interrupt_state", "Watchdog pre-timeout interrupt (1: active, 0: inactive)",
                label("interrupt", i.label), wd["pre_timeout_interrupt"] == i.ours ? 1 : 0);
    out.add("ipmi_bmc_watchdog_pretimeout_interval_seconds", "Watchdog pre-timeout interval in seconds", "",
            wd["pre_timeout_interval"].get<double>());
    out.add("ipmi_bmc_watchdog_initial_countdown_seconds", "Watchdog initial countdown in seconds", "",
            wd["initial_countdown"].get<double>());
    if (!wd["present_countdown"].is_null())
        out.add("ipmi_bmc_watchdog_current_countdown_seconds", "Watchdog present countdown in seconds", "",
                wd["present_countdown"].get<double>());
    // The agent's side of the timer, where the controller has a configuration
    // space (a controller of another make has none: nothing to show).
    const Json config = configValues({"agent-connection", "soft-watchdog-time"});
    if (config.contains("agent-connection") && !config["agent-connection"].is_null())
        out.add("qel_agent_connection_state", "The controller's view of the agent (1: connected)", "",
                config["agent-connection"] == "connected" ? 1 : 0);
    if (config.contains("soft-watchdog-time") && config["soft-watchdog-time"].is_number())
        out.add("qel_agent_watchdog_configured_seconds", "The agent's watchdog time in the configuration space", "",
                config["soft-watchdog-time"].get<double>());
    return true;
}

// A controller without an event log (Get SEL Info refused as an invalid
// command) has no such metrics and the collector is up; any other failure
// is one.
bool readSel(Exposition& out) {
    qelSel::QelSel sel;
    try {
        const qelSel::SelInfo info = sel.info();
        out.add("ipmi_sel_logs_count", "Current number of log entries in the SEL.", "", info.entries);
        out.add("ipmi_sel_free_space_bytes", "Current free space remaining for new SEL entries.", "", info.freeBytes);
    } catch (const std::exception&) {
        if (sel.lastCompletionCode() != 0xC1) throw;
    }
    return true;
}

// ipmi_exporter's help texts, by family.
const char* helpOf(std::string_view family) {
    static const std::map<std::string_view, const char*> help = {
        {"ipmi_temperature_celsius", "Temperature reading in degree Celsius."},
        {"ipmi_temperature_state", "Reported state of a temperature sensor (0=nominal, 1=warning, 2=critical)."},
        {"ipmi_fan_speed_rpm", "Fan speed in rotations per minute."},
        {"ipmi_fan_speed_ratio", "Fan speed as a proportion of the maximum speed."},
        {"ipmi_fan_speed_state", "Reported state of a fan speed sensor (0=nominal, 1=warning, 2=critical)."},
        {"ipmi_voltage_volts", "Voltage reading in Volts."},
        {"ipmi_voltage_state", "Reported state of a voltage sensor (0=nominal, 1=warning, 2=critical)."},
        {"ipmi_current_amperes", "Current reading in Amperes."},
        {"ipmi_current_state", "Reported state of a current sensor (0=nominal, 1=warning, 2=critical)."},
        {"ipmi_power_watts", "Power reading in Watts."},
        {"ipmi_power_state", "Reported state of a power sensor (0=nominal, 1=warning, 2=critical)."},
        {"ipmi_sensor_value", "Generic data read from an IPMI sensor of unknown type, relying on labels for context."},
        {"ipmi_sensor_state",
         "Indicates the severity of the state reported by an IPMI sensor (0=nominal, 1=warning, 2=critical)."},
    };
    const auto found = help.find(family);
    return found == help.end() ? "IPMI sensor." : found->second;
}

// Every sensor, each with a value and a state sample, NaN where there is
// none (unavailable, scanning disabled, a discrete sensor's value, a request
// that failed): a sensor never vanishes from the metrics because it could
// not be read. One sensor that fails does not take the collector down; an
// SDR repository that cannot be read does.
bool readSensors(Exposition& out, qelSensors::QelSensorReader& reader) {
    const std::vector<qelSdr::SdrRecord> records = sdrRecords("sensors", deviceIdAnswer, &reader);
    std::vector<qelSensors::SensorSample> samples;
    reader.setReadThresholds(false);  // no metric shows them
    try {
        samples = reader.readAll(records);
    } catch (const qelSensors::QelSensorError& e) {
        throw Failure("sensors: " + e.errorText);
    }
    const double nan = std::nan("");
    for (const qelSensors::SensorSample& s : samples) {
        const std::string valueName(s.metric.valueName), stateName(s.metric.stateName);
        std::string labels = label("id", std::to_string(s.recordId)) + ',' + label("name", s.name);
        if (valueName == "ipmi_sensor_value") labels += ',' + label("type", s.typeName);
        out.add(valueName, helpOf(valueName), labels, s.reading ? s.metric.scaled(*s.reading) : nan);
        const std::optional<int> state = s.state ? qelSensors::prometheusState(*s.state) : std::nullopt;
        out.add(stateName, helpOf(stateName), labels, state ? *state : nan);
    }
    return true;
}

// A controller without DCMI power management refuses the command (invalid
// command, or not supported in its present state): the collector is up
// with nothing to show, as it is while no measurement is active.
bool readDcmi(Exposition& out, qelSensors::QelSensorReader& reader) {
    const std::optional<qelSensors::DcmiPower> power = reader.readDcmiPower();
    if (!power) {
        const int code = reader.lastCompletionCode();
        if (code == 0xC1 || code == 0xD4 || code == 0xD6) return true;
        throw Failure(reader.lastProblem());
    }
    if (power->active)
        out.add("ipmi_dcmi_power_consumption_watts", "Current power consumption in Watts.", "", power->currentWatts);
    return true;
}

bool readChassis(Exposition& out, qelSensors::QelSensorReader& reader) {
    const std::optional<qelSensors::ChassisStatus> chassis = reader.readChassisStatus();
    if (!chassis) throw Failure(reader.lastProblem());
    out.add("ipmi_chassis_power_state", "Current power state (1=on, 0=off).", "", chassis->powerOn ? 1 : 0);
    // 1 while there is no fault, as the exporter counts them.
    out.add("ipmi_chassis_drive_fault_state", "Current drive fault state (1=false, 0=true).", "",
            chassis->driveFault ? 0 : 1);
    out.add("ipmi_chassis_cooling_fault_state", "Current Cooling/fan fault state (1=false, 0=true).", "",
            chassis->coolingFault ? 0 : 1);
    return true;
}

// What qeld's event log forwarder wrote after its last look at the log
// (qeldSel.h): nothing when qeld does not forward or has not looked yet.
void selForwarderMetrics(Exposition& out) {
    const char* runtime = std::getenv("RUNTIME_DIRECTORY");
    const std::string path =
        std::string(runtime != nullptr && runtime[0] == '/' ? runtime : "/run/qeld") + "/sel-status";
    std::ifstream in(path);
    std::map<std::string, std::string> values;
    std::string key, value;
    while (in >> key >> value) values[key] = value;
    auto number = [&values](const char* name, double& result) {
        const auto found = values.find(name);
        if (found == values.end()) return false;
        char* end = nullptr;
        result = std::strtod(found->second.c_str(), &end);
        return end != found->second.c_str() && *end == '\0';
    };
    double checked = 0, forwarded = 0, lastId = 0, backlog = 0;
    if (!number("checked", checked)) return;
    if (number("forwarded", forwarded))
        out.add("qel_sel_forwarded_records_total", "Event log records qeld forwarded to the host's log.", "",
                forwarded, "counter");
    if (number("last-id", lastId))
        out.add("qel_sel_last_forwarded_record_id", "The record ID of the last event log record qeld forwarded.", "",
                lastId);
    const double age = static_cast<double>(std::time(nullptr)) - checked;
    out.add("qel_sel_last_check_age_seconds", "Seconds since qeld last looked at the controller's event log.", "",
            age < 0 ? 0 : age);
    if (number("backlog", backlog))
        out.add("qel_sel_backlog", "1 while event log records wait for qeld's next passes.", "", backlog);
}

// The host's own figures: no controller request.
void hostMetrics(Exposition& out, std::map<std::string, std::string>& errors) {
    out.add("qel_agent_running", "1 when qeld runs on this host", "", qeldRunning().first ? 1 : 0);
    try {
        const Json inventory = inventoryDocument();
        double nics = 0;
        for (const Json& i : inventory["interfaces"])
            if (i["published"].get<std::string>().find("NIC record") != std::string::npos) ++nics;
        out.add("qel_agent_nics_published", "Interfaces whose addresses the agent publishes to NIC records", "", nics);
    } catch (const std::exception& e) {
        errors["inventory"] = qelError::textOf(e);
    }
    selForwarderMetrics(out);
}

struct MetricsOptions {
    std::string textfile;
    double timeout = 30;
    std::vector<std::string> collectors;  // empty: all
};

bool chosen(const MetricsOptions& options, const char* collector) {
    if (options.collectors.empty()) return true;
    for (const std::string& c : options.collectors)
        if (c == collector) return true;
    return false;
}

// The samples of one run, as text (or, with --json, as a document on
// standard output: `text` is then untouched). `timeouts`, with --textfile:
// the runs that each collector's time-out ended so far. Returns the exit
// status: 3 without a controller, 1 when a collector failed.
int collect(const Output& out, const MetricsOptions& options, const std::map<std::string, double>* timeouts,
            std::string& text) {
    Run run;
    const std::string missing = noController();
    const bool controller = missing.empty();
    std::vector<const char*> collectors;
    for (const char* c : allCollectors)
        if (chosen(options, c)) collectors.push_back(c);
    qelSensors::QelSensorReader reader;
    for (const char* c : collectors) {
        const std::string name = c;
        if (!controller) {
            run.up[c] = false;
            run.seconds[c] = 0;
        } else if (name == "bmc") {
            collector(run, c, [&] { return readBmc(run.samples); });
        } else if (name == "bmc-watchdog") {
            collector(run, c, [&] { return readWatchdog(run.samples); });
        } else if (name == "sel") {
            collector(run, c, [&] { return readSel(run.samples); });
        } else if (name == "ipmi") {
            collector(run, c, [&] { return readSensors(run.samples, reader); });
        } else if (name == "dcmi") {
            collector(run, c, [&] { return readDcmi(run.samples, reader); });
        } else if (name == "chassis") {
            collector(run, c, [&] { return readChassis(run.samples, reader); });
        }
    }
    if (chosen(options, "bmc-watchdog") && !run.up["bmc-watchdog"])
        run.samples.add("qel_up", "1 when the controller answered Get Watchdog Timer", "", 0);
    hostMetrics(run.samples, run.errors);
    for (const char* c : collectors)
        run.samples.add("ipmi_up", "1 when the collector's controller requests succeeded.", label("collector", c),
                        run.up[c] ? 1 : 0);
    for (const char* c : collectors)
        run.samples.add("ipmi_scrape_duration_seconds", "Seconds the collector's controller requests took.",
                        label("collector", c), run.seconds[c]);
    if (timeouts != nullptr) {
        std::map<std::string, double> counts;
        for (const char* c : allCollectors) counts[c] = 0;
        for (const auto& t : *timeouts) counts[t.first] = t.second;
        for (const auto& c : counts)
            run.samples.add("qel_metrics_timeouts_total",
                            "Runs of qelctl metrics --textfile that the time-out ended while this collector read.",
                            label("collector", c.first), c.second, "counter");
    }
    if (!controller) std::cerr << "qelctl: " << missing << '\n';
    for (const auto& e : run.errors) std::cerr << "qelctl: metrics: " << e.second << '\n';
    if (out.json) Output::print(Json{{"metrics", run.samples.json()}});
    else text = run.samples.text();
    if (!controller) return exitNoController;
    return run.errors.empty() ? exitOk : exitFailed;
}

// --textfile: the text of one run, under the lock, within the time-out,
// then in place at once.
//
// A run that the time-out ends leaves qeld.prom as it was and counts the
// time-out against the collector it was in (qel_metrics_timeouts_total in
// later runs). Its file would go on saying that collector is up, so it also
// marks the collector stale, and the next run begins by setting that
// collector's ipmi_up to 0 in the file: a controller that stopped answering
// shows as down from the next run on, even when that run times out too,
// while one that answers again is up again once the next run ends.
int metricsToTextfile(const Output& out, const MetricsOptions& options) {
    if (out.json) {
        std::cerr << "qelctl: metrics: --textfile writes the text format; --json does not apply\n";
        return exitUsage;
    }
    const std::string dir = options.textfile;
    textfile::DirectoryLock lock(dir);
    const auto timeouts = textfile::readTimeouts(dir);
    const std::string stale = textfile::readStale(dir);
    if (!stale.empty()) textfile::markCollectorDown(dir, stale);
    const double limit = options.timeout;
    textfile::Deadline deadline(limit, [dir, limit] {
        const char* section = currentCollector.load();
        const std::string collector = section != nullptr ? section : "host";
        // Straight to the descriptor: the main thread, blocked mid-exchange,
        // may be inside std::cerr, and nothing runs after this.
        std::ostringstream line;
        try {
            textfile::recordTimeout(dir, collector);
            if (section != nullptr) textfile::recordStale(dir, collector);
        } catch (const std::exception& e) {
            line << "qelctl: " << e.what() << " (the time-out is not counted)\n";
        }
        line << "qelctl: metrics: timed out after " << limit << " s reading "
             << (section != nullptr ? "collector " + collector : std::string("the host")) << "; " << dir << '/'
             << textfile::fileName << " left as it was\n";
        const std::string text = line.str();
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        std::_Exit(exitFailed);
    });
    std::string text;
    const int status = collect(out, options, &timeouts, text);
    deadline.disarm();
    textfile::writeAtomically(dir, textfile::fileName, text);
    textfile::clearStale(dir);
    return status;
}

}  // namespace

void addMetrics(CLI::App& app, Action& action) {
    auto options = std::make_shared<MetricsOptions>();
    CLI::App* metrics = app.add_subcommand(
        "metrics", "the controller's sensors, watchdog, event log and the agent's state in the Prometheus text format");
    CLI::Option* textfileOption =
        metrics->add_option("--textfile", options->textfile,
                            "write DIR/qeld.prom (whole, renamed into place) for node_exporter's textfile collector");
    metrics->add_option("--timeout", options->timeout,
                        "with --textfile: end a run that takes longer than SECONDS, leaving the file as it was")
        ->check(CLI::PositiveNumber)
        ->needs(textfileOption);
    metrics
        ->add_option("--collectors", options->collectors,
                     "only these collectors (bmc, bmc-watchdog, sel, ipmi, dcmi, chassis; comma-separated)")
        ->delimiter(',')
        ->check(CLI::IsMember({"bmc", "bmc-watchdog", "sel", "ipmi", "dcmi", "chassis"}));
    metrics->callback([&action, options] {
        action = [options](const Output& out) {
            if (!options->textfile.empty()) return metricsToTextfile(out, *options);
            std::string text;
            const int status = collect(out, *options, nullptr, text);
            std::cout << text << std::flush;
            return status;
        };
    });
}

}  // namespace qelctl
