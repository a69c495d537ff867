// qelctl config list | get NAME|ID | set NAME|ID VALUE: the configuration-
// space variables by name, read and written one by one as they are (the
// agent's watchdog time, for one, lives only here).
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

namespace layout = qelIpmi::confSpace;

enum class Kind { Text, Address, Flag, Seconds, Behaviour, Connection };

struct Variable {
    const char* name;
    unsigned id;
    Kind kind;
};

const Variable variables[] = {
    {"cabinet-location", 0x200, Kind::Text},       {"system-name", 0x201, Kind::Text},
    {"bios-version", 0x202, Kind::Text},           {"system-description", 0x203, Kind::Text},
    {"system-contact", 0x204, Kind::Text},         {"server-cabinet-model", 0x205, Kind::Text},
    {"server-chassis-model", 0x206, Kind::Text},   {"server-serial-number", 0x207, Kind::Text},
    {"server-vendor-name", 0x208, Kind::Text},     {"address-1", 0x20A, Kind::Address},
    {"address-2", 0x20B, Kind::Address},           {"address-3", 0x20C, Kind::Address},
    {"address-4", 0x20D, Kind::Address},           {"server-operating-system", 0x20F, Kind::Text},
    {"boot-watchdog-enabled", 0x40, Kind::Flag},   {"boot-watchdog-time", 0x41, Kind::Seconds},
    {"soft-watchdog-enabled", 0x42, Kind::Flag},   {"soft-watchdog-time", 0x43, Kind::Seconds},
    {"boot-watchdog-behaviour", 0x74, Kind::Behaviour}, {"soft-watchdog-behaviour", 0x75, Kind::Behaviour},
    {"agent-connection", 0x2300, Kind::Connection},
};

const Variable& find(const std::string& key) {
    for (const Variable& v : variables)
        if (key == v.name) return v;
    char* end = nullptr;
    const unsigned long id = std::strtoul(key.c_str(), &end, 0);
    if (end != key.c_str() && *end == '\0')
        for (const Variable& v : variables)
            if (v.id == id) return v;
    throw Failure("config: no variable '" + key + "' (qelctl config list names them)");
}

std::string idText(unsigned id) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%03X", id);
    return text;
}

Bytes request(unsigned char operation, unsigned id) {
    return {qelIpmi::vendorIana[0], qelIpmi::vendorIana[1], qelIpmi::vendorIana[2], operation, 0x00,
            static_cast<unsigned char>(id & 0xFF), static_cast<unsigned char>(id >> 8)};
}

const char* behaviourText(unsigned value) {
    switch (value) {
    case 0: return "continue";
    case 2: return "reset";
    case 4: return "power-cycle";
    default: return nullptr;
    }
}

// The value as JSON (null when the controller does not have the variable).
// `noSpace`, when given, is set (and null returned) when the controller has
// no configuration space at all: it refuses the read as an invalid command.
Json read(const Variable& v, bool* noSpace = nullptr) {
    Bytes r;
    const unsigned char code = exchangeCode("config get " + std::string(v.name) + ": configuration space read",
                                            qelIpmi::netfn::oemGroup, qelIpmi::cmd::configSpace,
                                            request(layout::opRead, v.id), r);
    if (code == qelIpmi::cc::parameterNotSupported) return nullptr;
    if (noSpace != nullptr && code == 0xC1) {
        *noSpace = true;
        return nullptr;
    }
    if (code != 0)
        throw Failure("config get " + std::string(v.name) + ": configuration space read: " + completionCodeText(code));
    // Response behind the completion code: IANA (3), length, value.
    if (r.size() < 4 || r.size() < 4u + r[3])
        throw Failure("config get " + std::string(v.name) + ": answer too short");
    const unsigned char* value = r.data() + 4;
    const unsigned length = r[3];
    switch (v.kind) {
    case Kind::Text: return std::string(reinterpret_cast<const char*>(value), length);
    case Kind::Address: return length >= 4 ? Json(ipv4Text(value)) : Json(nullptr);
    case Kind::Flag: return length >= 1 ? Json(value[0] == 1) : Json(nullptr);
    case Kind::Seconds: return length >= 2 ? Json(value[0] | (value[1] << 8)) : Json(nullptr);
    case Kind::Behaviour: {
        if (length < 1) return nullptr;
        const char* text = behaviourText(value[0]);
        return text ? Json(text) : Json(value[0]);
    }
    case Kind::Connection: {
        if (length < 1) return nullptr;
        return value[0] == 1 ? "connected" : value[0] == 2 ? "disconnected" : value[0] == 0 ? "unknown" : "other";
    }
    }
    return nullptr;
}

std::string shown(const Json& value) {
    if (value.is_null()) return "- (not there)";
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>() ? "on" : "off";
    return value.dump();
}

Bytes encode(const Variable& v, const std::string& text) {
    auto bad = [&](const char* what) { return Failure("config set " + std::string(v.name) + ": " + what); };
    switch (v.kind) {
    case Kind::Text:
        if (text.size() > layout::maxValueLength) throw bad("a text of at most 255 bytes");
        return Bytes(text.begin(), text.end());
    case Kind::Address: {
        unsigned char b[4];
        if (inet_pton(AF_INET, text.c_str(), b) != 1) throw bad("an IPv4 address, such as 192.0.2.7");
        return Bytes(b, b + 4);
    }
    case Kind::Flag:
        if (text == "on" || text == "1" || text == "true") return {1};
        if (text == "off" || text == "0" || text == "false") return {0};
        throw bad("on or off");
    case Kind::Seconds: {
        char* end = nullptr;
        const unsigned long s = std::strtoul(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || s > 0xFFFF) throw bad("seconds, 0 to 65535");
        return {static_cast<unsigned char>(s & 0xFF), static_cast<unsigned char>(s >> 8)};
    }
    case Kind::Behaviour:
        if (text == "continue") return {0};
        if (text == "reset") return {2};
        if (text == "power-cycle") return {4};
        throw bad("continue, reset or power-cycle");
    case Kind::Connection: throw bad("the agent's connection status is the agent's to set");
    }
    throw bad("cannot be written");
}

void printOne(const Variable& v, const Json& value) { Output::line(std::string(v.name) + " (" + idText(v.id) + ")", shown(value), 40); }

}  // namespace

Json configValues(const std::vector<std::string>& names) {
    Json values = Json::object();
    for (const std::string& name : names) {
        bool noSpace = false;
        const Json value = read(find(name), &noSpace);
        if (noSpace) return Json::object();
        values[name] = value;
    }
    return values;
}

Json configDocument() {
    Json doc;
    doc["variables"] = Json::array();
    for (const Variable& v : variables)
        doc["variables"].push_back(Json{{"id", v.id}, {"name", v.name}, {"value", read(v)}});
    return doc;
}

void addConfig(CLI::App& app, Action& action) {
    auto* config = app.add_subcommand("config", "the configuration-space variables");
    config->require_subcommand(1);
    config->add_subcommand("list", "every variable with its number and value")->callback([&action] {
        action = [](const Output& out) {
            const Json doc = configDocument();
            if (out.json) {
                Output::print(doc);
            } else {
                for (std::size_t i = 0; i < doc["variables"].size(); ++i)
                    printOne(variables[i], doc["variables"][i]["value"]);
            }
            return static_cast<int>(exitOk);
        };
    });
    auto key = std::make_shared<std::string>();
    auto value = std::make_shared<std::string>();
    auto* get = config->add_subcommand("get", "one variable, by name or number");
    get->add_option("variable", *key, "name (cabinet-location, soft-watchdog-time, ...) or number")->required();
    get->callback([&action, key] {
        action = [key](const Output& out) {
            const Variable& v = find(*key);
            const Json current = read(v);
            if (out.json) Output::print(Json{{"id", v.id}, {"name", v.name}, {"value", current}});
            else printOne(v, current);
            return static_cast<int>(exitOk);
        };
    });
    auto* set = config->add_subcommand("set", "write one variable");
    set->add_option("variable", *key, "name or number")->required();
    set->add_option("value", *value, "the new value")->required();
    set->callback([&action, key, value] {
        action = [key, value](const Output& out) {
            const Variable& v = find(*key);
            const Bytes bytes = encode(v, *value);
            Bytes data = request(layout::opWrite, v.id);
            data.push_back(static_cast<unsigned char>(bytes.size()));
            data.insert(data.end(), bytes.begin(), bytes.end());
            exchange("config set " + std::string(v.name) + ": configuration space write", qelIpmi::netfn::oemGroup,
                     qelIpmi::cmd::configSpace, data);
            const Json now = read(v);
            if (out.json) Output::print(Json{{"id", v.id}, {"name", v.name}, {"value", now}});
            else printOne(v, now);
            return static_cast<int>(exitOk);
        };
    });
}

}  // namespace qelctl
