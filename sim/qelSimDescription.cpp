// The controller's description keywords and state dump, and their registry on
// SimBmc (declared in qelSimBmc.h).
#include "qelSimDescription.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <sstream>
#include <stdexcept>

namespace qelSim {

using Lock = std::lock_guard<std::recursive_mutex>;

// ---------------------------------------------------------------- helpers

std::vector<std::string> splitWords(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

unsigned char parseHexByte(const std::string& word) {
    std::string digits = word;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
        digits = digits.substr(2);
    if (digits.empty() || digits.size() > 2 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw std::invalid_argument("'" + word + "' is no hex byte");
    return static_cast<unsigned char>(std::strtoul(digits.c_str(), nullptr, 16));
}

Bytes parseHexBytes(const std::vector<std::string>& words, std::size_t from) {
    Bytes bytes;
    for (std::size_t i = from; i < words.size(); ++i) bytes.push_back(parseHexByte(words[i]));
    return bytes;
}

std::uint64_t parseNumber(const std::string& word, std::uint64_t max) {
    if (word.empty() || word.size() > 20 || word.find_first_not_of("0123456789") != std::string::npos)
        throw std::invalid_argument("'" + word + "' is no decimal number");
    errno = 0;
    unsigned long long v = std::strtoull(word.c_str(), nullptr, 10);
    if (errno == ERANGE || v > max)
        throw std::invalid_argument("'" + word + "' is above " + std::to_string(max));
    return v;
}

bool parseOnOff(const std::string& word) {
    if (word == "on" || word == "1" || word == "yes" || word == "true") return true;
    if (word == "off" || word == "0" || word == "no" || word == "false") return false;
    throw std::invalid_argument("'" + word + "' is neither on nor off");
}

namespace {

struct ErrnoName {
    const char* name;
    int value;
};
// The errors a device or a select can plausibly report.
const ErrnoName errnoNames[] = {
    {"EPERM", EPERM},   {"ENOENT", ENOENT},       {"EINTR", EINTR},   {"EIO", EIO},
    {"ENXIO", ENXIO},   {"EBADF", EBADF},         {"EAGAIN", EAGAIN}, {"ENOMEM", ENOMEM},
    {"EACCES", EACCES}, {"EFAULT", EFAULT},       {"EBUSY", EBUSY},   {"ENODEV", ENODEV},
    {"EINVAL", EINVAL}, {"ENOTTY", ENOTTY},       {"EMSGSIZE", EMSGSIZE},
    {"ETIMEDOUT", ETIMEDOUT}, {"ECONNRESET", ECONNRESET}, {"EPROTO", EPROTO},
};

}  // namespace

int parseErrno(const std::string& word) {
    for (const ErrnoName& e : errnoNames)
        if (word == e.name) return e.value;
    if (!word.empty() && word.find_first_not_of("0123456789") == std::string::npos)
        return static_cast<int>(parseNumber(word, 4095));
    throw std::invalid_argument("'" + word + "' is no errno name or number");
}

std::string hexText(const Bytes& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char b : bytes) {
        if (!out.empty()) out += ' ';
        out += digits[b >> 4];
        out += digits[b & 0xF];
    }
    return out;
}

std::string quotedText(const std::string& text) {
    static const char digits[] = "0123456789abcdef";
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7F) {
            out += "\\x";
            out += digits[c >> 4];
            out += digits[c & 0xF];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + '"';
}

void loadDescription(SimBmc& bmc, std::istream& in, const std::string& source) {
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        try {
            bmc.applyDescriptionLine(line);
        } catch (const std::invalid_argument& e) {
            throw std::invalid_argument(source + ":" + std::to_string(number) + ": " + e.what());
        }
    }
}

// ---------------------------------------------------------------- faults

const char* const faultUsage =
    "send-fails ERRNO | no-reply | select-fails ERRNO | select-not-ready | receive-fails ERRNO | "
    "foreign-msgid | empty-reply | completion-code CC | raw-reply BYTE... | "
    "messages-before RECVTYPE COUNT | wrong-recv-type TYPE | oversize-reply LENGTH; "
    "then optionally: for NETFN CMD";

Fault parseFault(const std::vector<std::string>& all) {
    std::vector<std::string> words = all;
    std::optional<std::pair<unsigned char, unsigned char>> only;
    if (words.size() >= 3 && words[words.size() - 3] == "for") {
        only = std::make_pair(parseHexByte(words[words.size() - 2]), parseHexByte(words.back()));
        words.resize(words.size() - 3);
    }
    if (words.empty()) throw std::invalid_argument(std::string("a fault is: ") + faultUsage);
    const std::string& kind = words[0];
    auto need = [&](std::size_t n) {
        if (words.size() != n + 1)
            throw std::invalid_argument("fault " + kind + " takes " + std::to_string(n) +
                                        (n == 1 ? " word" : " words"));
    };
    Fault f;
    if (kind == "send-fails") {
        need(1);
        f = Fault::sendFails(parseErrno(words[1]));
    } else if (kind == "no-reply") {
        need(0);
        f = Fault::noReply();
    } else if (kind == "select-fails") {
        need(1);
        f = Fault::selectFails(parseErrno(words[1]));
    } else if (kind == "select-not-ready") {
        need(0);
        f = Fault::selectNotReady();
    } else if (kind == "receive-fails") {
        need(1);
        f = Fault::receiveFails(parseErrno(words[1]));
    } else if (kind == "foreign-msgid") {
        need(0);
        f = Fault::foreignMsgId();
    } else if (kind == "empty-reply") {
        need(0);
        f = Fault::emptyReply();
    } else if (kind == "completion-code") {
        need(1);
        f = Fault::completionCode(parseHexByte(words[1]));
    } else if (kind == "raw-reply") {
        f = Fault::rawReply(parseHexBytes(words, 1));
    } else if (kind == "messages-before") {
        need(2);
        f = Fault::messagesBefore(static_cast<int>(parseNumber(words[1], 255)),
                                  static_cast<int>(parseNumber(words[2], 1000)));
    } else if (kind == "wrong-recv-type") {
        need(1);
        f = Fault::wrongRecvType(static_cast<int>(parseNumber(words[1], 255)));
    } else if (kind == "oversize-reply") {
        need(1);
        f = Fault::oversizeReply(static_cast<int>(parseNumber(words[1], 65535)));
    } else {
        throw std::invalid_argument("unknown fault '" + kind + "' (" + faultUsage + ")");
    }
    f.only = only;
    return f;
}

// ---------------------------------------------------------------- requests

std::string formatRequest(const Request& r) {
    std::ostringstream out;
    auto hex = [](unsigned char b) { return hexText(Bytes{b}); };
    out << "addr " << hex(static_cast<unsigned char>(r.addrType)) << " ch "
        << hex(static_cast<unsigned char>(r.channel)) << " sa " << hex(r.slaveAddr) << " lun "
        << static_cast<int>(r.lun) << " msgid " << r.msgId << " netfn " << hex(r.netFn) << " cmd "
        << hex(r.cmd) << " data";
    if (!r.data.empty()) out << ' ' << hexText(r.data);
    return out.str();
}

Request parseRequest(const std::string& line) {
    std::vector<std::string> w = splitWords(line);
    static const char* const keys[] = {"addr", "ch", "sa", "lun", "msgid", "netfn", "cmd"};
    if (w.size() < 15) throw std::invalid_argument("'" + line + "' is no request line");
    for (std::size_t i = 0; i < 7; ++i)
        if (w[2 * i] != keys[i]) throw std::invalid_argument("'" + line + "' is no request line");
    if (w[14] != "data") throw std::invalid_argument("'" + line + "' is no request line");
    Request r;
    r.addrType = parseHexByte(w[1]);
    r.channel = parseHexByte(w[3]);
    r.slaveAddr = parseHexByte(w[5]);
    r.lun = static_cast<unsigned char>(parseNumber(w[7], 3));
    bool negative = !w[9].empty() && w[9][0] == '-';
    long id = static_cast<long>(parseNumber(negative ? w[9].substr(1) : w[9], 0x7FFFFFFFFFFFFFFF));
    r.msgId = negative ? -id : id;
    r.netFn = parseHexByte(w[11]);
    r.cmd = parseHexByte(w[13]);
    r.data = parseHexBytes(w, 15);
    return r;
}

// ---------------------------------------------------------------- the registry

namespace {

// The controller's own keywords, before those of the models.
struct CoreKeyword {
    const char* keyword;
    const char* usage;
    void (*apply)(SimBmc& bmc, const std::vector<std::string>& words);
};

void needWords(const std::vector<std::string>& words, std::size_t n, const char* keyword) {
    if (words.size() != n)
        throw std::invalid_argument(std::string(keyword) + " takes " + std::to_string(n) +
                                    (n == 1 ? " word" : " words"));
}

const CoreKeyword coreKeywords[] = {
    {"deviceid", "deviceid BYTE...: the Get Device ID answer, completion code first",
     [](SimBmc& bmc, const std::vector<std::string>& w) {
         if (w.empty()) throw std::invalid_argument("deviceid needs at least the completion code");
         bmc.setDeviceId(parseHexBytes(w));
     }},
    {"real-timeouts", "real-timeouts on|off: select waits out the caller's time-out",
     [](SimBmc& bmc, const std::vector<std::string>& w) {
         needWords(w, 1, "real-timeouts");
         bmc.setRealTimeouts(parseOnOff(w[0]));
     }},
    {"missing-path", "missing-path [PATH...]: device paths that do not open (ENOENT)",
     [](SimBmc& bmc, const std::vector<std::string>& w) {
         bmc.setMissingPaths(std::set<std::string>(w.begin(), w.end()));
     }},
    {"all-paths-missing", "all-paths-missing on|off: no device path opens",
     [](SimBmc& bmc, const std::vector<std::string>& w) {
         needWords(w, 1, "all-paths-missing");
         bmc.setAllPathsMissing(parseOnOff(w[0]));
     }},
    {"advance", "advance MS: moves the controller's clock on",
     [](SimBmc& bmc, const std::vector<std::string>& w) {
         needWords(w, 1, "advance");
         bmc.advanceMs(parseNumber(w[0], 1ULL << 48));
     }},
    {"fault", "fault KIND [ARGS] [for NETFN CMD]: a fault for the next exchange",
     [](SimBmc& bmc, const std::vector<std::string>& w) { bmc.injectFault(parseFault(w)); }},
    {"clear-faults", "clear-faults: drops the faults not yet applied",
     [](SimBmc& bmc, const std::vector<std::string>& w) {
         needWords(w, 0, "clear-faults");
         bmc.clearFaults();
     }},
};

const CoreKeyword* coreKeyword(const std::string& keyword) {
    for (const CoreKeyword& k : coreKeywords)
        if (keyword == k.keyword) return &k;
    return nullptr;
}

void dumpController(const SimBmc& bmc, std::ostream& out) {
    out << "clock-ms " << bmc.nowMs() << '\n';
    out << "real-timeouts " << (bmc.realTimeouts() ? "on" : "off") << '\n';
    out << "open-devices " << bmc.openDevices() << '\n';
    out << "opens " << bmc.openedPaths().size() << '\n';
    out << "open-attempts " << bmc.openAttempts().size() << '\n';
    out << "select-calls " << bmc.selectCalls() << '\n';
    out << "requests " << bmc.requestCount() << '\n';
}

void dumpDeviceId(const SimBmc& bmc, std::ostream& out) {
    Bytes id = bmc.deviceId();
    out << "bytes " << hexText(id) << '\n';
    if (id.size() < 12 || id[0] != 0) return;
    char text[32];
    out << "device-id " << static_cast<int>(id[1]) << '\n';
    out << "device-revision " << (id[2] & 0x0F) << '\n';
    std::snprintf(text, sizeof text, "%u.%02x", id[3] & 0x7Fu, id[4]);
    out << "firmware " << text << '\n';
    out << "ipmi-version " << (id[5] & 0x0F) << '.' << (id[5] >> 4) << '\n';
    out << "manufacturer " << (id[7] | (id[8] << 8) | (id[9] << 16)) << '\n';
    std::snprintf(text, sizeof text, "0x%04x", id[10] | (id[11] << 8));
    out << "product " << text << '\n';
}

}  // namespace

void SimBmc::addKeyword(const std::string& keyword, const std::string& usage, KeywordFunction apply) {
    Lock lock(mutex_);
    keywords_[keyword] = std::make_pair(usage, std::move(apply));
}

void SimBmc::addDumpSection(const std::string& name, DumpFunction dump) {
    Lock lock(mutex_);
    dumpSections_.emplace_back(name, std::move(dump));
}

void SimBmc::applyDescriptionLine(const std::string& line) {
    std::vector<std::string> words = splitWords(line);
    if (words.empty() || words[0][0] == '#') return;
    std::string keyword = words[0];
    words.erase(words.begin());
    Lock lock(mutex_);
    if (const CoreKeyword* k = coreKeyword(keyword)) {
        k->apply(*this, words);
        return;
    }
    auto it = keywords_.find(keyword);
    if (it == keywords_.end()) throw std::invalid_argument("unknown keyword '" + keyword + "'");
    it->second.second(words);
}

std::vector<std::pair<std::string, std::string>> SimBmc::keywords() const {
    Lock lock(mutex_);
    std::map<std::string, std::string> all;
    for (const auto& k : keywords_) all[k.first] = k.second.first;
    for (const CoreKeyword& k : coreKeywords) all[k.keyword] = k.usage;
    return {all.begin(), all.end()};
}

std::string SimBmc::dump() const {
    Lock lock(mutex_);
    std::ostringstream out;
    out << "[controller]\n";
    dumpController(*this, out);
    out << "[deviceid]\n";
    dumpDeviceId(*this, out);
    for (const auto& section : dumpSections_) {
        out << '[' << section.first << "]\n";
        section.second(out);
    }
    return out.str();
}

}  // namespace qelSim
