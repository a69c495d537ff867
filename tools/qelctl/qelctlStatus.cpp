// qelctl status: everything at a glance. qelctl metrics: the watchdog and
// the agent's state in the Prometheus text format (node_exporter's textfile
// collector), under the names ipmi_exporter's watchdog collector uses where
// it has one, so dashboards and alerts keep working.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <string>

#include "qelErrorText.h"
#include "qelSel.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

// A section that could not be read is null, with the reason beside it.
Json section(Json (*read)(), Json& errors, const char* name) {
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

void metric(const char* name, const char* help, const std::string& labels, double value, bool header = true,
            const char* type = "gauge") {
    if (jsonSamples != nullptr) {
        jsonSamples->push_back(Json{{"name", name}, {"labels", labels}, {"value", value}});
        return;
    }
    if (header) std::cout << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
    std::cout << name << (labels.empty() ? "" : "{" + labels + "}") << ' ' << value << '\n';
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

int metrics(const Output& out) {
    Json samples = Json::array();
    if (out.json) jsonSamples = &samples;
    const Json status = statusDocument(noController());
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
        qelSel::QelSel sel;
        try {
            const qelSel::SelInfo info = sel.info();
            metric("ipmi_sel_logs_count", "Current number of log entries in the SEL.", "", info.entries);
            metric("ipmi_sel_free_space_bytes", "Current free space remaining for new SEL entries.", "",
                   info.freeBytes);
        } catch (const std::exception& e) {
            if (sel.lastCompletionCode() != 0xC1) errors["sel"] = qelError::textOf(e);
        }
    }
    selForwarderMetrics();
    Json shown = status;
    shown["errors"] = errors;
    printErrors(shown, "metrics");
    if (out.json) {
        jsonSamples = nullptr;
        Output::print(Json{{"metrics", samples}});
    }
    return statusOf(shown);
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
    app.add_subcommand("metrics", "the watchdog and the agent's state in the Prometheus text format")
        ->callback([&action] { action = metrics; });
}

}  // namespace qelctl
