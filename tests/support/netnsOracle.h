// What `ip -j addr show` says about a namespace's interfaces, as the
// independent account the inventory is checked against.
//
// The JSON reader is deliberately small (objects, arrays, strings with the
// escapes iproute2 emits, numbers, true/false/null) and throws on anything it
// does not understand, so a change in the tool's output fails loudly.
#ifndef QEL_TEST_NETNS_ORACLE_H
#define QEL_TEST_NETNS_ORACLE_H

#include <arpa/inet.h>
#include <net/if.h>

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace qelTest {

struct Json {
    enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
    bool boolean = false;
    std::string text;  // String, and Number as written
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;

    const Json* find(const std::string& key) const {
        for (const auto& member : members)
            if (member.first == key) return &member.second;
        return nullptr;
    }
    const Json& at(const std::string& key) const {
        const Json* found = find(key);
        if (found == nullptr) throw std::runtime_error("JSON: no member " + key);
        return *found;
    }
    long long integer() const {
        if (kind != Number) throw std::runtime_error("JSON: not a number");
        return std::stoll(text);
    }
    const std::string& string() const {
        if (kind != String) throw std::runtime_error("JSON: not a string");
        return text;
    }

    static Json parse(const std::string& input) {
        size_t at = 0;
        Json value = parseValue(input, at);
        skipSpace(input, at);
        if (at != input.size()) throw std::runtime_error("JSON: trailing text");
        return value;
    }

private:
    static void skipSpace(const std::string& s, size_t& at) {
        while (at < s.size() && (s[at] == ' ' || s[at] == '\n' || s[at] == '\t' || s[at] == '\r'))
            ++at;
    }
    static void expect(const std::string& s, size_t& at, char c) {
        skipSpace(s, at);
        if (at >= s.size() || s[at] != c)
            throw std::runtime_error(std::string("JSON: expected ") + c + " at " + std::to_string(at));
        ++at;
    }
    static std::string parseString(const std::string& s, size_t& at) {
        expect(s, at, '"');
        std::string out;
        while (true) {
            if (at >= s.size()) throw std::runtime_error("JSON: open string");
            char c = s[at++];
            if (c == '"') return out;
            if (c != '\\') {
                out += c;
                continue;
            }
            if (at >= s.size()) throw std::runtime_error("JSON: open escape");
            char e = s[at++];
            switch (e) {
            case '"': case '\\': case '/': out += e; break;
            case 'n': out += '\n'; break;
            case 't': out += '\t'; break;
            case 'r': out += '\r'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'u': {
                if (at + 4 > s.size()) throw std::runtime_error("JSON: short \\u");
                unsigned long code = std::stoul(s.substr(at, 4), nullptr, 16);
                at += 4;
                if (code > 0x7F) throw std::runtime_error("JSON: non-ASCII \\u not expected");
                out += static_cast<char>(code);
                break;
            }
            default: throw std::runtime_error("JSON: bad escape");
            }
        }
    }
    static Json parseValue(const std::string& s, size_t& at) {
        skipSpace(s, at);
        if (at >= s.size()) throw std::runtime_error("JSON: unexpected end");
        Json v;
        char c = s[at];
        if (c == '{') {
            v.kind = Object;
            ++at;
            skipSpace(s, at);
            if (at < s.size() && s[at] == '}') {
                ++at;
                return v;
            }
            while (true) {
                std::string key = parseString(s, at);
                expect(s, at, ':');
                v.members.emplace_back(key, parseValue(s, at));
                skipSpace(s, at);
                if (at < s.size() && s[at] == ',') {
                    ++at;
                    continue;
                }
                expect(s, at, '}');
                return v;
            }
        }
        if (c == '[') {
            v.kind = Array;
            ++at;
            skipSpace(s, at);
            if (at < s.size() && s[at] == ']') {
                ++at;
                return v;
            }
            while (true) {
                v.items.push_back(parseValue(s, at));
                skipSpace(s, at);
                if (at < s.size() && s[at] == ',') {
                    ++at;
                    continue;
                }
                expect(s, at, ']');
                return v;
            }
        }
        if (c == '"') {
            v.kind = String;
            v.text = parseString(s, at);
            return v;
        }
        if (s.compare(at, 4, "true") == 0) {
            v.kind = Bool;
            v.boolean = true;
            at += 4;
            return v;
        }
        if (s.compare(at, 5, "false") == 0) {
            v.kind = Bool;
            at += 5;
            return v;
        }
        if (s.compare(at, 4, "null") == 0) {
            at += 4;
            return v;
        }
        size_t start = at;
        while (at < s.size() && (std::isdigit(static_cast<unsigned char>(s[at])) || s[at] == '-' ||
                                 s[at] == '+' || s[at] == '.' || s[at] == 'e' || s[at] == 'E'))
            ++at;
        if (start == at) throw std::runtime_error("JSON: unexpected character at " + std::to_string(at));
        v.kind = Number;
        v.text = s.substr(start, at - start);
        return v;
    }
};

struct OracleIpv4 {
    std::array<uint8_t, 4> local{};
    unsigned prefixLength = 0;
    std::array<uint8_t, 4> broadcast{};  // zero when the tool shows none
    std::string label;
};

struct OracleIpv6 {
    std::array<uint8_t, 16> local{};  // network order
    std::string text;
    unsigned prefixLength = 0;
    std::string scope;
};

struct OracleInterface {
    unsigned index = 0;
    std::string name;
    std::array<uint8_t, 6> mac{};
    unsigned mtu = 0;
    unsigned flags = 0;  // IFF_* bits as the kernel reports them (full width)
    std::vector<OracleIpv4> ipv4;
    std::vector<OracleIpv6> ipv6;
};

// The IFF_* value of one of iproute2's flag names; RUNNING is not printed by
// the tool but implied by UP without NO-CARRIER.
inline unsigned flagsFromNames(const Json& names) {
    static const std::map<std::string, unsigned> bits = {
        {"UP", IFF_UP},           {"BROADCAST", IFF_BROADCAST}, {"DEBUG", IFF_DEBUG},
        {"LOOPBACK", IFF_LOOPBACK}, {"POINTOPOINT", IFF_POINTOPOINT},
        {"NOTRAILERS", IFF_NOTRAILERS}, {"NOARP", IFF_NOARP},   {"PROMISC", IFF_PROMISC},
        {"ALLMULTI", IFF_ALLMULTI}, {"MASTER", IFF_MASTER},     {"SLAVE", IFF_SLAVE},
        {"MULTICAST", IFF_MULTICAST}, {"PORTSEL", IFF_PORTSEL}, {"AUTOMEDIA", IFF_AUTOMEDIA},
        {"DYNAMIC", IFF_DYNAMIC},   {"LOWER_UP", 0x10000},      {"DORMANT", 0x20000},
        {"ECHO", 0x40000}};
    unsigned flags = 0;
    bool noCarrier = false;
    for (const Json& item : names.items) {
        const std::string& name = item.string();
        if (name == "NO-CARRIER") {
            noCarrier = true;
            continue;
        }
        if (name == "M-DOWN") continue;  // the peer's state, no flag of this link
        auto found = bits.find(name);
        if (found == bits.end()) throw std::runtime_error("unknown link flag " + name);
        flags |= found->second;
    }
    if ((flags & IFF_UP) && !noCarrier) flags |= IFF_RUNNING;
    return flags;
}

inline std::array<uint8_t, 6> parseMac(const std::string& text) {
    std::array<uint8_t, 6> mac{};
    unsigned v[6];
    if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6)
        throw std::runtime_error("bad MAC " + text);
    for (int i = 0; i < 6; ++i) mac[i] = static_cast<uint8_t>(v[i]);
    return mac;
}

inline std::array<uint8_t, 4> parseIpv4(const std::string& text) {
    std::array<uint8_t, 4> out{};
    if (inet_pton(AF_INET, text.c_str(), out.data()) != 1) throw std::runtime_error("bad IPv4 " + text);
    return out;
}

inline std::array<uint8_t, 16> parseIpv6(const std::string& text) {
    std::array<uint8_t, 16> out{};
    if (inet_pton(AF_INET6, text.c_str(), out.data()) != 1) throw std::runtime_error("bad IPv6 " + text);
    return out;
}

inline std::array<uint8_t, 4> maskFromPrefix(unsigned prefix) {
    const uint32_t mask = prefix == 0 ? 0 : 0xFFFFFFFFu << (32 - prefix);
    return {static_cast<uint8_t>(mask >> 24), static_cast<uint8_t>(mask >> 16),
            static_cast<uint8_t>(mask >> 8), static_cast<uint8_t>(mask)};
}

// Parses the output of `ip -j addr show` (or `ip -j -6 addr show`).
inline std::map<unsigned, OracleInterface> parseIpAddrShow(const std::string& json) {
    std::map<unsigned, OracleInterface> result;
    const Json root = Json::parse(json);
    if (root.kind != Json::Array) throw std::runtime_error("ip -j addr: not an array");
    for (const Json& link : root.items) {
        if (link.find("ifindex") == nullptr) continue;  // the -6 form may list bare entries
        OracleInterface itf;
        itf.index = static_cast<unsigned>(link.at("ifindex").integer());
        if (const Json* name = link.find("ifname")) itf.name = name->string();
        if (const Json* mac = link.find("address")) itf.mac = parseMac(mac->string());
        if (const Json* mtu = link.find("mtu")) itf.mtu = static_cast<unsigned>(mtu->integer());
        if (const Json* flags = link.find("flags")) itf.flags = flagsFromNames(*flags);
        if (const Json* info = link.find("addr_info")) {
            for (const Json& address : info->items) {
                const Json* family = address.find("family");
                if (family == nullptr) continue;
                if (family->string() == "inet") {
                    OracleIpv4 a;
                    a.local = parseIpv4(address.at("local").string());
                    a.prefixLength = static_cast<unsigned>(address.at("prefixlen").integer());
                    if (const Json* brd = address.find("broadcast")) a.broadcast = parseIpv4(brd->string());
                    if (const Json* label = address.find("label")) a.label = label->string();
                    itf.ipv4.push_back(a);
                } else if (family->string() == "inet6") {
                    OracleIpv6 a;
                    a.text = address.at("local").string();
                    a.local = parseIpv6(a.text);
                    a.prefixLength = static_cast<unsigned>(address.at("prefixlen").integer());
                    if (const Json* scope = address.find("scope")) a.scope = scope->string();
                    itf.ipv6.push_back(a);
                }
            }
        }
        result[itf.index] = itf;
    }
    return result;
}

}  // namespace qelTest

#endif
