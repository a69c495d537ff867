// qelctl status: everything at a glance.
#include <cstdio>
#include <iostream>
#include <string>

#include "qelErrorText.h"
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

}  // namespace qelctl
