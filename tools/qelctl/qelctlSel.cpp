// qelctl sel: the controller's event log. `info` is the log's state, `list`
// and `get` its records with the same text the forwarder gives the journal,
// `clear` erases it (only with --yes: what is erased is gone).
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <vector>

#include "qelSdrRecord.h"
#include "qelSel.h"
#include "qelSelText.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

std::string timeText(uint32_t t) {
    if (t == qelSel::unspecifiedTimestamp) return "never";
    return qelSel::timestampText(t);
}

// The library's errors say what failed; the completion code gets its name.
[[noreturn]] void failed(const std::string& what, const qelSel::QelSel& sel, const qelSel::QelSelError& e) {
    std::string text = what + ": " + e.errorText;
    if (sel.lastCompletionCode() != 0) text += " (" + completionCodeText(sel.lastCompletionCode()) + ")";
    throw Failure(text);
}

// The sensors' names from the controller's SDR repository, so a record reads
// as qeld gives it to the journal. qeld's cache of the repository is used
// (and kept current) where it exists; a repository that cannot be read
// leaves the names out, never the records.
const std::vector<qelSdr::SensorName>& sensorNames() {
    static const std::vector<qelSdr::SensorName> names = [] {
        try {
            return qelSdr::sensorNames(sdrRecords("sel"));
        } catch (const std::exception&) {
            return std::vector<qelSdr::SensorName>();
        }
    }();
    return names;
}

std::string nameOf(const qelSel::SelRecord& r) {
    if (!r.isSystemEvent()) return std::string();
    const qelSdr::SensorName* found =
        qelSdr::findSensor(sensorNames(), static_cast<uint8_t>(r.generatorId & 0xFF),
                           static_cast<uint8_t>((r.generatorId >> 8) & 0x03), r.sensorNumber);
    return found == nullptr ? std::string() : found->name;
}

Json recordDocument(const qelSel::SelRecord& r) {
    const qelSel::DecodedEvent event = qelSel::decode(r, nameOf(r));
    Json doc;
    auto field = [&](const char* name) -> Json {
        for (const auto& f : event.fields)
            if (f.name == name) return f.value;
        return nullptr;
    };
    doc["record_id"] = r.recordId;
    doc["record_type"] = r.recordType;
    doc["timestamp"] = r.hasTimestamp() ? Json(qelSel::timestampText(r.timestamp)) : Json(nullptr);
    doc["generator_id"] = r.isSystemEvent() ? Json(r.generatorId) : Json(nullptr);
    doc["sensor_type"] = r.isSystemEvent() ? Json(qelSel::sensorTypeText(r.sensorType)) : Json(nullptr);
    doc["sensor_type_code"] = r.isSystemEvent() ? Json(r.sensorType) : Json(nullptr);
    doc["sensor_number"] = r.isSystemEvent() ? Json(r.sensorNumber) : Json(nullptr);
    doc["sensor_name"] = field(qelSel::field::sensorName);
    doc["event_type_code"] = r.isSystemEvent() ? Json(r.eventType) : Json(nullptr);
    doc["event_direction"] = r.isSystemEvent() ? Json(r.deassertion ? "deassertion" : "assertion") : Json(nullptr);
    doc["event_data"] = field(qelSel::field::eventData);
    doc["severity"] = qelSel::severityName(event.severity);
    doc["text"] = event.text;
    doc["raw"] = field(qelSel::field::raw);
    return doc;
}

void printRecord(const Json& r) {
    char id[8];
    std::snprintf(id, sizeof id, "0x%04X", r["record_id"].get<unsigned>());
    const std::string when = r["timestamp"].is_null() ? "-" : r["timestamp"].get<std::string>();
    std::cout << id << "  " << when << "  " << r["severity"].get<std::string>() << "  "
              << r["text"].get<std::string>() << '\n';
}

Json infoDocument(qelSel::QelSel& sel) {
    qelSel::SelInfo info;
    try {
        info = sel.info();
    } catch (const qelSel::QelSelError& e) {
        failed("sel info: Get SEL Info", sel, e);
    }
    char version[8];
    std::snprintf(version, sizeof version, "%u.%u", info.version & 0x0F, info.version >> 4);
    Json doc;
    doc["version"] = version;
    doc["entries"] = info.entries;
    doc["free_bytes"] = info.freeBytes;
    doc["percent_used"] = info.percentUsed();
    doc["last_addition"] = info.lastAddition == qelSel::unspecifiedTimestamp ? Json(nullptr)
                                                                              : Json(timeText(info.lastAddition));
    doc["last_erase"] = info.lastErase == qelSel::unspecifiedTimestamp ? Json(nullptr) : Json(timeText(info.lastErase));
    doc["overflow"] = info.overflow;
    doc["supports"] = Json{{"delete", info.supportsDelete()},
                           {"partial_add", info.supportsPartialAdd()},
                           {"reserve", info.supportsReserve()},
                           {"allocation_info", info.supportsAllocationInfo()}};
    return doc;
}

struct ListOptions {
    unsigned int last = 0;      // 0: every record
    std::string sinceId;        // records after this ID
};

Json listDocument(const ListOptions& options) {
    qelSel::QelSel sel;
    Json records = Json::array();
    uint16_t from = qelSel::firstRecordId;
    bool after = false;
    if (!options.sinceId.empty()) {
        char* end = nullptr;
        const unsigned long id = std::strtoul(options.sinceId.c_str(), &end, 0);
        if (end == options.sinceId.c_str() || *end != '\0' || id > 0xFFFE)
            throw Failure("sel list: --since-id takes a record ID (0x0001-0xFFFE)");
        from = static_cast<uint16_t>(id);
        after = true;
    }
    std::vector<qelSel::SelRecord> all;
    try {
        // Read in batches so a long log is never held twice in the library.
        qelSel::SelBatch batch = after ? sel.readAfter(from, 256) : sel.readForward(from, 256);
        for (;;) {
            all.insert(all.end(), batch.records.begin(), batch.records.end());
            if (batch.atEnd() || batch.records.empty()) break;
            batch = sel.readForward(batch.nextId, 256);
        }
    } catch (const qelSel::QelSelError& e) {
        failed("sel list", sel, e);
    }
    const std::size_t start = options.last != 0 && all.size() > options.last ? all.size() - options.last : 0;
    for (std::size_t i = start; i < all.size(); ++i) records.push_back(recordDocument(all[i]));
    return Json{{"records", records}};
}

}  // namespace

void addSel(CLI::App& app, Action& action) {
    CLI::App* sel = app.add_subcommand("sel", "the controller's event log: info, list, get, clear");
    sel->require_subcommand(1);

    sel->add_subcommand("info", "entries, free space, fill level, last addition and erase, overflow")
        ->callback([&action] {
            action = [](const Output& out) {
                qelSel::QelSel sel;
                const Json doc = infoDocument(sel);
                if (out.json) {
                    Output::print(Json{{"info", doc}});
                    return static_cast<int>(exitOk);
                }
                Output::line("Version", doc["version"].get<std::string>());
                Output::line("Entries", std::to_string(doc["entries"].get<unsigned>()));
                Output::line("Free Space", std::to_string(doc["free_bytes"].get<unsigned>()) + " bytes");
                Output::line("Percent Used", std::to_string(doc["percent_used"].get<unsigned>()) + " %");
                Output::line("Last Addition", doc["last_addition"].is_null() ? "never" : doc["last_addition"].get<std::string>());
                Output::line("Last Erase", doc["last_erase"].is_null() ? "never" : doc["last_erase"].get<std::string>());
                Output::line("Overflow", doc["overflow"].get<bool>() ? "yes: events have been dropped" : "no");
                std::string supports;
                for (const auto& s : doc["supports"].items())
                    if (s.value().get<bool>()) supports += (supports.empty() ? "" : ", ") + s.key();
                Output::line("Supports", supports.empty() ? "-" : supports);
                return static_cast<int>(exitOk);
            };
        });

    auto list = std::make_shared<ListOptions>();
    CLI::App* listCmd = sel->add_subcommand("list", "one line per record, oldest first");
    listCmd->add_option("--last", list->last, "only the last N records")->check(CLI::Range(1u, 65535u));
    listCmd->add_option("--since-id", list->sinceId, "only the records after this record ID");
    listCmd->callback([&action, list] {
        action = [list](const Output& out) {
            const Json doc = listDocument(*list);
            if (out.json) {
                Output::print(doc);
                return static_cast<int>(exitOk);
            }
            for (const Json& r : doc["records"]) printRecord(r);
            return static_cast<int>(exitOk);
        };
    });

    auto id = std::make_shared<std::string>();
    CLI::App* get = sel->add_subcommand("get", "one record, decoded, with its bytes");
    get->add_option("ID", *id, "the record ID (decimal or 0x...)")->required();
    get->callback([&action, id] {
        action = [id](const Output& out) {
            char* end = nullptr;
            const unsigned long value = std::strtoul(id->c_str(), &end, 0);
            if (end == id->c_str() || *end != '\0' || value > 0xFFFF)
                throw Failure("sel get: '" + *id + "' is no record ID");
            qelSel::QelSel sel;
            Json doc;
            try {
                doc = recordDocument(sel.read(static_cast<uint16_t>(value)).record);
            } catch (const qelSel::QelSelError& e) {
                failed("sel get", sel, e);
            }
            if (out.json) {
                Output::print(Json{{"records", Json::array({doc})}});
                return static_cast<int>(exitOk);
            }
            printRecord(doc);
            Output::line("Raw", doc["raw"].get<std::string>());
            return static_cast<int>(exitOk);
        };
    });

    auto yes = std::make_shared<bool>(false);
    CLI::App* clear = sel->add_subcommand("clear", "erase the log (asks for --yes)");
    clear->add_flag("--yes", *yes, "really erase every record");
    clear->callback([&action, yes] {
        action = [yes](const Output& out) {
            if (!*yes) {
                std::cerr << "qelctl: sel clear erases every record of the controller's event log; "
                             "add --yes to do it\n";
                return static_cast<int>(exitUsage);
            }
            qelSel::QelSel sel;
            try {
                sel.clear();
            } catch (const qelSel::QelSelError& e) {
                failed("sel clear", sel, e);
            }
            if (out.json)
                Output::print(Json{{"cleared", true}});
            else
                std::cout << "the controller's event log was cleared\n";
            return static_cast<int>(exitOk);
        };
    });
}

}  // namespace qelctl
