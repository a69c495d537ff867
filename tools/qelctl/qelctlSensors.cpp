// qelctl sensors: every sensor of the controller with its reading, units,
// state, thresholds and, for discrete sensors, the asserted states as text:
// a table (ID, name, type, reading, state, thresholds) or, with --json, a
// document.
// --type and --state choose sensors. The exit status says whether the
// sensors could be read, never how they are: a critical sensor is exit 0.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <memory>

#include "qelSdr.h"
#include "qelSensors.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

struct SensorOptions {
    std::string type;   // as --type gave it
    std::string state;  // as --state gave it
};

// "Power Supply", "power-supply" and "power_supply" are one type.
std::string typeKey(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == ' ' || c == '-' || c == '_') continue;
        out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

const char* const thresholdKeys[qelSensors::thresholdCount] = {
    "lower_non_critical", "lower_critical", "lower_non_recoverable",
    "upper_non_critical", "upper_critical", "upper_non_recoverable",
};

Json number(const std::optional<double>& value) { return value ? Json(*value) : Json(nullptr); }

Json sampleDocument(const qelSensors::SensorSample& s) {
    Json doc;
    doc["record_id"] = s.recordId;
    doc["sensor_number"] = s.sensorNumber;
    doc["name"] = qelSdr::escapeText(s.name);
    doc["type"] = s.typeName;
    doc["reading"] = number(s.reading);
    doc["units"] = s.units.empty() ? Json(nullptr) : Json(s.units);
    doc["state"] = s.state ? Json(std::string(qelSensors::stateName(*s.state))) : Json(nullptr);
    Json thresholds = Json::object();
    for (std::size_t i = 0; i < qelSensors::thresholdCount; ++i) thresholds[thresholdKeys[i]] = number(s.thresholds[i]);
    doc["thresholds"] = thresholds;
    doc["states"] = s.states;
    doc["unavailable"] = s.unavailable;
    doc["scanning_disabled"] = s.scanningDisabled;
    doc["problem"] = s.problem.empty() ? Json(nullptr) : Json(s.problem);
    return doc;
}

// The reading as people read it: up to three decimals, no trailing zeros.
std::string valueText(double v) {
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", v);
    std::string out = text;
    while (!out.empty() && out.back() == '0') out.pop_back();
    if (!out.empty() && out.back() == '.') out.pop_back();
    return out == "-0" ? "0" : out;
}

std::string readingText(const Json& s) {
    if (!s["reading"].is_null())
        return valueText(s["reading"].get<double>()) + (s["units"].is_null() ? "" : " " + s["units"].get<std::string>());
    if (s["unavailable"].get<bool>()) return "unavailable";
    if (s["scanning_disabled"].get<bool>()) return "scanning disabled";
    if (!s["states"].empty()) {
        std::string out;
        for (const Json& t : s["states"]) out += (out.empty() ? "" : ", ") + t.get<std::string>();
        return out;
    }
    if (!s["problem"].is_null()) return "no reading";
    return s["units"].is_null() ? "-" : "no reading";
}

Json sensorsDocument(const SensorOptions& options) {
    static const char* const states[] = {"nominal", "warning", "critical", "non-recoverable"};
    if (!options.state.empty() && std::find(std::begin(states), std::end(states), options.state) == std::end(states))
        throw Failure("sensors: --state takes nominal, warning, critical or non-recoverable");
    qelSensors::QelSensorReader reader;
    const std::vector<qelSdr::SdrRecord> records = sdrRecords("sensors", Bytes(), &reader);
    std::vector<qelSensors::SensorSample> samples;
    try {
        samples = reader.readAll(records);
    } catch (const qelSensors::QelSensorError& e) {
        throw Failure("sensors: " + e.errorText);
    }
    Json list = Json::array();
    for (const qelSensors::SensorSample& s : samples) {
        if (!options.type.empty() && typeKey(s.typeName) != typeKey(options.type)) continue;
        if (!options.state.empty() && (!s.state || qelSensors::stateName(*s.state) != options.state)) continue;
        list.push_back(sampleDocument(s));
    }
    return Json{{"sensors", std::move(list)}, {"requests", reader.requestsSent()}};
}

// The thresholds there are, lowest first: "lc 10.773, uc 13.167".
std::string thresholdsText(const Json& thresholds) {
    static const std::pair<const char*, const char*> order[] = {
        {"lower_non_recoverable", "lnr"}, {"lower_critical", "lc"},  {"lower_non_critical", "lnc"},
        {"upper_non_critical", "unc"},    {"upper_critical", "uc"},  {"upper_non_recoverable", "unr"},
    };
    std::string out;
    for (const auto& t : order)
        if (!thresholds[t.first].is_null())
            out += (out.empty() ? "" : ", ") + std::string(t.second) + ' ' + valueText(thresholds[t.first].get<double>());
    return out.empty() ? "-" : out;
}

// One row a sensor under a header, columns as wide as their widest cell
// (names are escaped already); a problem follows its row in parentheses.
void printTable(const Json& sensors) {
    std::vector<std::array<std::string, 6>> rows = {{"ID", "Name", "Type", "Reading", "State", "Thresholds"}};
    std::vector<std::string> problems = {""};
    for (const Json& s : sensors) {
        rows.push_back({std::to_string(s["record_id"].get<int>()), s["name"].get<std::string>(),
                        s["type"].get<std::string>(), readingText(s),
                        s["state"].is_null() ? "-" : s["state"].get<std::string>(), thresholdsText(s["thresholds"])});
        problems.push_back(s["problem"].is_null() ? "" : s["problem"].get<std::string>());
    }
    std::array<std::size_t, 6> width{};
    for (const auto& row : rows)
        for (std::size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        std::string line;
        for (std::size_t c = 0; c < rows[r].size(); ++c)
            line += rows[r][c] + (c + 1 < rows[r].size() ? std::string(width[c] + 2 - rows[r][c].size(), ' ') : "");
        if (!problems[r].empty()) line += "  (" + problems[r] + ")";
        std::cout << line << '\n';
    }
}

}  // namespace

std::vector<qelSdr::SdrRecord> sdrRecords(const std::string& command, const Bytes& deviceId,
                                          qelSensors::QelSensorReader* reader) {
    const char* env = std::getenv("CACHE_DIRECTORY");
    const bool given = env != nullptr && env[0] == '/';
    const std::string cache = std::string(given ? env : "/var/cache/qeld") + "/sdr";
    // A directory systemd made for this run (the metrics unit's
    // CacheDirectory=): the cache goes there even before qeld made it.
    if (given) (void)::mkdir(cache.c_str(), 0755);
    struct stat info;
    const bool cached = ::stat(cache.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && ::access(cache.c_str(), W_OK) == 0;
    qelSdr::QelSdrRepository repository(cached ? cache : std::string());
    if (cached && !deviceId.empty()) {
        Bytes answer{0x00};
        answer.insert(answer.end(), deviceId.begin(), deviceId.end());
        repository.setControllerIdentity(qelSdr::QelSdrRepository::identityFromDeviceId(answer));
    }
    try {
        repository.load();
    } catch (const qelSdr::QelSdrError& e) {
        throw Failure(command + ": the SDR repository: " + e.errorText);
    }
    if (reader != nullptr && cached) reader->setAnswerCache(repository.answersPath(), repository.info());
    return repository.records();
}

void addSensors(CLI::App& app, Action& action) {
    auto options = std::make_shared<SensorOptions>();
    CLI::App* sensors = app.add_subcommand("sensors", "every sensor: reading, units, state, thresholds");
    sensors->add_option("--type", options->type, "only sensors of this type (temperature, fan, power-supply, ...)");
    sensors->add_option("--state", options->state, "only sensors in this state (nominal, warning, critical, "
                                                    "non-recoverable)");
    sensors->callback([&action, options] {
        action = [options](const Output& out) {
            const Json doc = sensorsDocument(*options);
            if (out.json) {
                Output::print(doc);
                return static_cast<int>(exitOk);
            }
            printTable(doc["sensors"]);
            return static_cast<int>(exitOk);
        };
    });
}

}  // namespace qelctl
