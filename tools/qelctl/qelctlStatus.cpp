// qelctl status: everything at a glance. qelctl metrics: the watchdog and
// the agent's state in the Prometheus text format (node_exporter's textfile
// collector), under the names ipmi_exporter's watchdog collector uses where
// it has one, so dashboards and alerts keep working. `metrics --textfile
// DIR` puts the same text in DIR/qeld.prom (qelctlTextfile.h).
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "qelErrorText.h"
#include "qelIpmiCommands.h"
#include "qelSel.h"
#include "qelctlCommands.h"
#include "qelctlTextfile.h"

namespace qelctl {

namespace {

// The section being read (a literal), for the message of a run that timed out.
std::atomic<const char*> currentSection{nullptr};
// Seconds each section took, when metrics asks for them.
std::map<std::string, double>* sectionSeconds = nullptr;

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A section that could not be read is null, with the reason beside it.
Json section(Json (*read)(), Json& errors, const char* name) {
    currentSection = name;
    const auto start = std::chrono::steady_clock::now();
    struct Timed {
        const char* name;
        std::chrono::steady_clock::time_point start;
        ~Timed() {
            if (sectionSeconds != nullptr) (*sectionSeconds)[name] += secondsSince(start);
        }
    } timed{name, start};
    try {
        return read();
    } catch (const std::exception& e) {
        std::string text = qelError::textOf(e);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        errors[name] = text;
        return nullptr;
    }
}

// The controller's sections are read only when its device opens: without
// one, each of them would fail alone with the same open error, while one line
// saying that there is no controller and what to load tells the reader more.
// `missing` is that line (noController()), empty when the device opens; it is
// the only error then, under "controller". The host's sections are read
// either way.
Json statusDocument(const std::string& missing) {
    Json errors = Json::object();
    Json doc;
    const auto qeld = qeldRunning();
    const bool controller = missing.empty();
    doc["qeld"] = Json{{"running", qeld.first}, {"how", qeld.second}};
    doc["identity"] = controller ? section(identityDocument, errors, "identity") : Json();
    doc["watchdog"] = controller ? section(watchdogDocument, errors, "watchdog") : Json();
    doc["config"] = controller ? section(configDocument, errors, "config") : Json();
    doc["lan"] = controller ? section(lanDocument, errors, "lan") : Json();
    doc["board"] = controller ? section(boardDocument, errors, "board") : Json();
    doc["host"] = section(hostDocument, errors, "host");
    doc["inventory"] = section(inventoryDocument, errors, "inventory");
    if (!controller) errors["controller"] = missing;
    doc["errors"] = errors;
    return doc;
}

// No controller (3) before a section that failed (1).
int statusOf(const Json& doc) {
    if (doc["errors"].contains("controller")) return exitNoController;
    return doc["errors"].empty() ? exitOk : exitFailed;
}

// The errors of `doc` on standard error, one line each; the no-controller
// line as qelctl's other commands print it.
void printErrors(const Json& doc, const char* command) {
    for (const auto& e : doc["errors"].items()) {
        if (e.key() == "controller")
            std::cerr << "qelctl: " << e.value().get<std::string>() << '\n';
        else
            std::cerr << "qelctl: " << command << ": " << e.value().get<std::string>() << '\n';
    }
}

const char* const timerUseNames[] = {"reserved", "BIOS FRB2", "BIOS/POST", "OS Load", "SMS/OS", "OEM"};
const char* const actionNames[] = {"none", "hard reset", "power down", "power cycle"};

// With --json the samples are collected here instead of printed.
Json* jsonSamples = nullptr;
// Where the text goes: standard output, or the text of --textfile.
std::ostream* sink = &std::cout;

void metric(const char* name, const char* help, const std::string& labels, double value, bool header = true,
            const char* type = "gauge") {
    if (jsonSamples != nullptr) {
        jsonSamples->push_back(Json{{"name", name}, {"labels", labels}, {"value", value}});
        return;
    }
    if (header) *sink << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
    *sink << name << (labels.empty() ? "" : "{" + labels + "}") << ' ' << value << '\n';
}

// What qeld's event log forwarder wrote after its last look at the log
// (qeldSel.h): nothing when qeld does not forward or has not looked yet.
void selForwarderMetrics() {
    const char* runtime = std::getenv("RUNTIME_DIRECTORY");
    const std::string path =
        std::string(runtime != nullptr && runtime[0] == '/' ? runtime : "/run/qeld") + "/sel-status";
    std::ifstream in(path);
    std::map<std::string, std::string> values;
    std::string key, value;
    while (in >> key >> value) values[key] = value;
    auto number = [&values](const char* name, double& out) {
        const auto found = values.find(name);
        if (found == values.end()) return false;
        char* end = nullptr;
        out = std::strtod(found->second.c_str(), &end);
        return end != found->second.c_str() && *end == '\0';
    };
    double checked = 0, forwarded = 0, lastId = 0, backlog = 0;
    if (!number("checked", checked)) return;
    if (number("forwarded", forwarded))
        metric("qel_sel_forwarded_records_total", "Event log records qeld forwarded to the host's log.", "",
               forwarded, true, "counter");
    if (number("last-id", lastId))
        metric("qel_sel_last_forwarded_record_id", "The record ID of the last event log record qeld forwarded.",
               "", lastId);
    const double age = static_cast<double>(std::time(nullptr)) - checked;
    metric("qel_sel_last_check_age_seconds", "Seconds since qeld last looked at the controller's event log.", "",
           age < 0 ? 0 : age);
    if (number("backlog", backlog))
        metric("qel_sel_backlog", "1 while event log records wait for qeld's next passes.", "", backlog);
}

// The collectors, under ipmi_exporter's names: "bmc" (Get Device ID and
// the controller's other sections that status reads, the system firmware
// version), "bmc-watchdog" (Get Watchdog Timer), "sel" (Get SEL Info). The
// host's own sections (os-release, the interfaces) are no controller work
// and are counted in none.
const char* collectorOf(const char* section) {
    const std::string s = section == nullptr ? "" : section;
    if (s == "watchdog") return "bmc-watchdog";
    if (s == "sel") return "sel";
    if (s == "host" || s == "inventory") return "host";
    return "bmc";
}
const char* const collectors[] = {"bmc", "bmc-watchdog", "sel"};

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

// The samples of one run. `timeouts`, with --textfile: the runs that each
// collector's time-out ended so far.
int collect(const Output& out, const std::map<std::string, double>* timeouts) {
    Json samples = Json::array();
    if (out.json) jsonSamples = &samples;
    std::map<std::string, double> seconds;
    sectionSeconds = &seconds;
    const Json status = statusDocument(noController());
    sectionSeconds = nullptr;
    std::map<std::string, double> scrape;
    for (const auto& s : seconds) scrape[collectorOf(s.first.c_str())] += s.second;
    std::map<std::string, bool> up = {{"bmc", !status["identity"].is_null()},
                                      {"bmc-watchdog", !status["watchdog"].is_null()},
                                      {"sel", false}};
    std::string firmware;
    if (up["bmc"]) {
        currentSection = "system-info";
        const auto start = std::chrono::steady_clock::now();
        try {
            firmware = systemFirmwareVersion();
        } catch (const std::exception&) {
            firmware.clear();  // a label only: the controller's answers count under "identity"
        }
        scrape["bmc"] += secondsSince(start);
    }
    const Json& wd = status["watchdog"];
    metric("qel_up", "1 when the controller answered Get Watchdog Timer", "", wd.is_null() ? 0 : 1);
    if (!wd.is_null()) {
        metric("ipmi_bmc_watchdog_timer_state", "Watchdog timer running (1: running, 0: stopped)", "",
               wd["running"].get<bool>() ? 1 : 0);
        bool first = true;
        for (const char* use : timerUseNames) {
            metric("ipmi_bmc_watchdog_timer_use_state", "Watchdog timer use (1: the current one)",
                   std::string("name=\"") + use + "\"", wd["timer_use"] == use ? 1 : 0, first);
            first = false;
        }
        first = true;
        for (const char* a : actionNames) {
            metric("ipmi_bmc_watchdog_timeout_action_state", "Watchdog timeout action (1: the current one)",
                   std::string("action=\"") + a + "\"", wd["timeout_action"] == a ? 1 : 0, first);
            first = false;
        }
        metric("ipmi_bmc_watchdog_pretimeout_interval_seconds", "Watchdog pre-timeout interval in seconds", "",
               wd["pre_timeout_interval"].get<double>());
        metric("ipmi_bmc_watchdog_initial_countdown_seconds", "Watchdog initial countdown in seconds", "",
               wd["initial_countdown"].get<double>());
        if (!wd["present_countdown"].is_null())
            metric("ipmi_bmc_watchdog_current_countdown_seconds", "Watchdog present countdown in seconds", "",
                   wd["present_countdown"].get<double>());
    }
    metric("qel_agent_running", "1 when qeld runs on this host", "", status["qeld"]["running"].get<bool>() ? 1 : 0);
    if (!status["config"].is_null()) {
        for (const Json& v : status["config"]["variables"]) {
            if (v["name"] == "agent-connection")
                metric("qel_agent_connection_state", "The controller's view of the agent (1: connected)", "",
                       v["value"] == "connected" ? 1 : 0);
            if (v["name"] == "soft-watchdog-time" && v["value"].is_number())
                metric("qel_agent_watchdog_configured_seconds", "The agent's watchdog time in the configuration space",
                       "", v["value"].get<double>());
        }
    }
    if (!status["inventory"].is_null()) {
        double nics = 0;
        for (const Json& i : status["inventory"]["interfaces"])
            if (i["published"].get<std::string>().find("NIC record") != std::string::npos) ++nics;
        metric("qel_agent_nics_published", "Interfaces whose addresses the agent publishes to NIC records", "", nics);
    }
    Json errors = status["errors"];
    if (!status["watchdog"].is_null()) {
        // The event log's fill, under ipmi_exporter's names.
        // A controller without an event log (Get SEL Info refused as an
        // invalid command) has no such metrics; any other failure is one.
        currentSection = "sel";
        const auto start = std::chrono::steady_clock::now();
        qelSel::QelSel sel;
        try {
            const qelSel::SelInfo info = sel.info();
            up["sel"] = true;
            metric("ipmi_sel_logs_count", "Current number of log entries in the SEL.", "", info.entries);
            metric("ipmi_sel_free_space_bytes", "Current free space remaining for new SEL entries.", "",
                   info.freeBytes);
        } catch (const std::exception& e) {
            if (sel.lastCompletionCode() != 0xC1) errors["sel"] = qelError::textOf(e);
        }
        scrape["sel"] += secondsSince(start);
    }
    currentSection = nullptr;
    selForwarderMetrics();
    bool first = true;
    for (const char* c : collectors) {
        metric("ipmi_up", "1 when the collector's controller requests succeeded.",
               std::string("collector=\"") + c + "\"", up[c] ? 1 : 0, first);
        first = false;
    }
    first = true;
    for (const char* c : collectors) {
        metric("ipmi_scrape_duration_seconds", "Seconds the collector's controller requests took.",
               std::string("collector=\"") + c + "\"", scrape[c], first);
        first = false;
    }
    if (up["bmc"]) {
        const Json& id = status["identity"];
        metric("ipmi_bmc_info", "Constant metric with value '1' providing details about the BMC.",
               "firmware_revision=\"" + textfile::escapeLabelValue(id["firmware_revision"].get<std::string>()) +
                   "\",manufacturer_id=\"" + std::to_string(id["manufacturer_id"].get<int>()) +
                   "\",system_firmware_version=\"" + textfile::escapeLabelValue(firmware) + "\"",
               1);
    }
    if (timeouts != nullptr) {
        std::map<std::string, double> counts = {{"bmc", 0}, {"bmc-watchdog", 0}, {"sel", 0}};
        for (const auto& t : *timeouts) counts[t.first] = t.second;
        first = true;
        for (const auto& c : counts) {
            metric("qel_metrics_timeouts_total",
                   "Runs of qelctl metrics --textfile that the time-out ended while this collector read.",
                   "collector=\"" + textfile::escapeLabelValue(c.first) + "\"", c.second, first, "counter");
            first = false;
        }
    }
    Json shown = status;
    shown["errors"] = errors;
    printErrors(shown, "metrics");
    if (out.json) {
        jsonSamples = nullptr;
        Output::print(Json{{"metrics", samples}});
    }
    return statusOf(shown);
}

struct MetricsOptions {
    std::string textfile;
    double timeout = 30;
};

// --textfile: the text of one run, under the lock, within the time-out,
// then in place at once. A run that the time-out ends leaves qeld.prom as it
// was (its age, node_textfile_mtime_seconds, shows that it is stale) and
// counts the time-out against the collector it was in; later runs show the
// count as qel_metrics_timeouts_total. ipmi_up stays what the run itself
// saw: a controller that answers again is up again.
int metricsToTextfile(const Output& out, const MetricsOptions& options) {
    if (out.json) {
        std::cerr << "qelctl: metrics: --textfile writes the text format; --json does not apply\n";
        return exitUsage;
    }
    const std::string dir = options.textfile;
    textfile::DirectoryLock lock(dir);
    const auto timeouts = textfile::readTimeouts(dir);
    const double limit = options.timeout;
    std::ostringstream text;
    struct Restore {
        ~Restore() { sink = &std::cout; }
    } restore;
    sink = &text;
    textfile::Deadline deadline(limit, [dir, limit] {
        const char* section = currentSection.load();
        const std::string collector = collectorOf(section);
        // Straight to the descriptor: the main thread, blocked mid-exchange,
        // may be inside std::cerr, and nothing runs after this.
        std::ostringstream line;
        try {
            textfile::recordTimeout(dir, collector);
        } catch (const std::exception& e) {
            line << "qelctl: " << e.what() << " (the time-out is not counted)\n";
        }
        line << "qelctl: metrics: timed out after " << limit << " s reading " << (section ? section : "the host")
             << " (collector " << collector << "); " << dir << '/' << textfile::fileName << " left as it was\n";
        const std::string text = line.str();
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        std::_Exit(exitFailed);
    });
    const int status = collect(out, &timeouts);
    deadline.disarm();
    textfile::writeAtomically(dir, textfile::fileName, text.str());
    return status;
}

}  // namespace

void addStatus(CLI::App& app, Action& action) {
    app.add_subcommand("status", "everything at a glance")->callback([&action] {
        action = [](const Output& out) {
            const Json doc = statusDocument(noController());
            if (out.json) {
                Output::print(doc);
                return statusOf(doc);
            }
            Output::line("qeld", doc["qeld"]["how"].get<std::string>());
            if (!doc["host"].is_null()) Output::line("watchdog keeper", doc["host"]["watchdog_keeper"].get<std::string>());
            if (!doc["identity"].is_null())
                Output::line("controller", "firmware " + doc["identity"]["firmware_revision"].get<std::string>() +
                                               ", IPMI " + doc["identity"]["ipmi_version"].get<std::string>() +
                                               ", manufacturer " +
                                               std::to_string(doc["identity"]["manufacturer_id"].get<int>()));
            if (!doc["watchdog"].is_null()) {
                const Json& wd = doc["watchdog"];
                char text[128];
                std::snprintf(text, sizeof text, "%s, %s, %.1f s of %.1f s left, action %s",
                              wd["timer_use"].get<std::string>().c_str(), wd["running"].get<bool>() ? "running" : "stopped",
                              wd["present_countdown"].is_null() ? 0.0 : wd["present_countdown"].get<double>(),
                              wd["initial_countdown"].get<double>(), wd["timeout_action"].get<std::string>().c_str());
                Output::line("watchdog", text);
            }
            if (!doc["config"].is_null())
                for (const Json& v : doc["config"]["variables"])
                    if (v["name"] == "soft-watchdog-time" || v["name"] == "soft-watchdog-enabled" ||
                        v["name"] == "agent-connection" || v["name"].get<std::string>().rfind("address-", 0) == 0)
                        Output::line(v["name"].get<std::string>(),
                                     v["value"].is_null()      ? "-"
                                     : v["value"].is_string()  ? v["value"].get<std::string>()
                                     : v["value"].is_boolean() ? (v["value"].get<bool>() ? "on" : "off")
                                                               : v["value"].dump());
            if (!doc["host"].is_null()) {
                Output::line("os", doc["host"]["os_name"].get<std::string>() + " (" + doc["host"]["os_release"].get<std::string>() + ")");
            }
            if (!doc["inventory"].is_null())
                for (const Json& i : doc["inventory"]["interfaces"])
                    Output::line("  " + i["name"].get<std::string>(), i["published"].get<std::string>());
            printErrors(doc, "status");
            return statusOf(doc);
        };
    });
}

void addMetrics(CLI::App& app, Action& action) {
    auto options = std::make_shared<MetricsOptions>();
    CLI::App* metrics =
        app.add_subcommand("metrics", "the watchdog and the agent's state in the Prometheus text format");
    CLI::Option* textfileOption =
        metrics->add_option("--textfile", options->textfile,
                            "write DIR/qeld.prom (whole, renamed into place) for node_exporter's textfile collector");
    metrics->add_option("--timeout", options->timeout,
                        "with --textfile: end a run that takes longer than SECONDS, leaving the file as it was")
        ->check(CLI::PositiveNumber)
        ->needs(textfileOption);
    metrics->callback([&action, options] {
        action = [options](const Output& out) {
            return options->textfile.empty() ? collect(out, nullptr) : metricsToTextfile(out, *options);
        };
    });
}

}  // namespace qelctl
