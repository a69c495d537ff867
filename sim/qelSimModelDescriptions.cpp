// Description keywords and dump sections of the watchdog, configuration-space,
// FRU/PNI and LAN models, the traffic summary and the default controller.
#include "qelSimModelDescriptions.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <linux/ipmi.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "qelIpmiCommands.h"
#include "qelSdrRecord.h"
#include "qelSelRecord.h"
#include "qelSensors.h"
#include "qelSimBoard.h"
#include "qelSimConfSpace.h"
#include "qelSimDescription.h"
#include "qelSimFru.h"
#include "qelSimLan.h"
#include "qelSimWatchdog.h"

namespace qelSim {

namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;
using Lock = std::lock_guard<std::recursive_mutex>;

// Defined in the file the build generates from sim/descriptions/default.conf.
extern const char defaultControllerText[];

namespace {

// ---------------------------------------------------------------- words

void needWords(const std::vector<std::string>& w, std::size_t n, const char* keyword) {
    if (w.size() != n)
        throw std::invalid_argument(std::string(keyword) + " takes " + std::to_string(n) +
                                    (n == 1 ? " word" : " words"));
}

// A variable number in hex ("20a", "0x20a"), up to 0xFFFF.
std::uint32_t parseVariable(const std::string& word) {
    std::string digits = word;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
        digits = digits.substr(2);
    if (digits.empty() || digits.size() > 4 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw std::invalid_argument("'" + word + "' is no variable number (hex, up to ffff)");
    return static_cast<std::uint32_t>(std::stoul(digits, nullptr, 16));
}

MacBytes parseMacWord(const std::string& word) {
    MacBytes mac{};
    unsigned int b[6];
    char tail;
    if (std::sscanf(word.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4],
                    &b[5], &tail) != 6)
        throw std::invalid_argument("'" + word + "' is no MAC address (aa:bb:cc:dd:ee:ff) nor 'host'");
    for (int i = 0; i < 6; ++i) mac[i] = static_cast<unsigned char>(b[i]);
    return mac;
}

// The MACs a list of "MAC" and "host" words names. Each "host" takes the
// next host interface; when the host has run out, the placeholder
// 02:00:00:00:0a:0N (N the position, from 1) stands in.
std::vector<MacBytes> resolveMacs(const std::vector<std::string>& words) {
    std::vector<MacBytes> host;
    bool hostRead = false;
    std::size_t nextHost = 0;
    std::vector<MacBytes> macs;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i] != "host") {
            macs.push_back(parseMacWord(words[i]));
            continue;
        }
        if (!hostRead) {
            host = hostNicMacs();
            hostRead = true;
        }
        if (nextHost < host.size())
            macs.push_back(host[nextHost++]);
        else
            macs.push_back(MacBytes{0x02, 0x00, 0x00, 0x00, 0x0a, static_cast<unsigned char>(i + 1)});
    }
    return macs;
}

std::string macText(const unsigned char* mac) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
    return text;
}

std::string addressText(int family, const unsigned char* bytes) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(family, bytes, text, sizeof text) != nullptr ? text : "?";
}

std::string hex16(std::uint32_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "%04x", value & 0xFFFFu);
    return text;
}

std::string quoted(const Bytes& bytes) {
    std::string out = "\"";
    for (unsigned char c : bytes) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char esc[5];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        }
    }
    return out + "\"";
}

// ---------------------------------------------------------------- traffic

struct CommandName {
    unsigned char netFn;
    unsigned char cmd;
    const char* name;
};

const CommandName commandNames[] = {
    {netfn::app, cmd::getDeviceId, "Get Device ID"},
    {netfn::app, cmd::resetWatchdogTimer, "Reset Watchdog Timer"},
    {netfn::app, cmd::setWatchdogTimer, "Set Watchdog Timer"},
    {netfn::app, cmd::getWatchdogTimer, "Get Watchdog Timer"},
    {netfn::app, cmd::getChannelInfo, "Get Channel Info"},
    {netfn::app, cmd::setBmcGlobalEnables, "Set BMC Global Enables"},
    {netfn::app, cmd::getBmcGlobalEnables, "Get BMC Global Enables"},
    {netfn::app, cmd::setSystemInfoParameters, "Set System Info Parameters"},
    {netfn::app, cmd::getSystemInfoParameters, "Get System Info Parameters"},
    // Over IPMB to the management board; the same command on the system
    // interface goes into the controller's own event log (see dumpTraffic).
    {netfn::sensorEvent, cmd::platformEvent, "Platform Event (OS status to the board)"},
    {qelSel::netfn::storage, qelSel::cmd::getSelInfo, "Get SEL Info"},
    {qelSel::netfn::storage, qelSel::cmd::getSelAllocationInfo, "Get SEL Allocation Info"},
    {qelSel::netfn::storage, qelSel::cmd::reserveSel, "Reserve SEL"},
    {qelSel::netfn::storage, qelSel::cmd::getSelEntry, "Get SEL Entry"},
    {qelSel::netfn::storage, qelSel::cmd::addSelEntry, "Add SEL Entry"},
    {qelSel::netfn::storage, qelSel::cmd::deleteSelEntry, "Delete SEL Entry"},
    {qelSel::netfn::storage, qelSel::cmd::clearSel, "Clear SEL"},
    {qelSel::netfn::storage, qelSel::cmd::getSelTime, "Get SEL Time"},
    {qelSel::netfn::storage, qelSel::cmd::setSelTime, "Set SEL Time"},
    {netfn::storage, cmd::getFruInventoryAreaInfo, "Get FRU Inventory Area Info"},
    {netfn::storage, cmd::readFruData, "Read FRU Data"},
    {netfn::storage, cmd::writeFruData, "Write FRU Data"},
    {netfn::transport, cmd::getLanConfigParameters, "Get LAN Configuration Parameters"},
    {netfn::oemGroup, cmd::configSpace, "configuration space"},
    {netfn::oemGroup, cmd::agentConnectionStatus, "agent connection status"},
    {netfn::oemGroup, cmd::oemVersionInfo, "EEPROM version record"},
    {netfn::oemBoard, cmd::getBoardSlot, "board: slot"},
    {netfn::oemBoard, cmd::getPortMacsLegacy, "board: port MACs (legacy)"},
    {netfn::oemBoard, cmd::getPortMac, "board: port MAC"},
    {netfn::oemBoard, cmd::getBoardIpv4Legacy, "board: its IPv4 address (legacy)"},
    {netfn::oemBoard, cmd::getBoardMaskLegacy, "board: its mask (legacy)"},
    {netfn::oemBoard, cmd::setPortIpv4, "board: port IPv4 address"},
    {netfn::oemBoard, cmd::setOsText, "board: OS text"},
    {netfn::oemBoard, cmd::setOsTextLegacy, "board: OS text (legacy)"},
    {netfn::oemBoard, cmd::setPlatformText, "board: platform text"},
    {netfn::oemBoard, cmd::getBoardAddress, "board: its address"},
    {netfn::oemBoard, cmd::getBoardMask, "board: its mask"},
    {netfn::oemBoard, cmd::setPortAddress, "board: port address"},
    {netfn::oemBoard, cmd::getBoardCapabilities, "board: capabilities"},
    {netfn::oemBoard, cmd::getBoardMac, "board: its MAC"},
    {netfn::oemPni, cmd::pniLocate, "PNI locate"},
    {qelSdr::netfn::storage, qelSdr::cmd::getSdrRepositoryInfo, "Get SDR Repository Info"},
    {qelSdr::netfn::storage, qelSdr::cmd::getSdrRepositoryAllocationInfo, "Get SDR Repository Allocation Info"},
    {qelSdr::netfn::storage, qelSdr::cmd::reserveSdrRepository, "Reserve SDR Repository"},
    {qelSdr::netfn::storage, qelSdr::cmd::getSdr, "Get SDR"},
    {qelSdr::netfn::sensorEvent, qelSdr::cmd::getSensorReading, "Get Sensor Reading"},
    {qelSdr::netfn::sensorEvent, qelSensors::cmd::getSensorReadingFactors, "Get Sensor Reading Factors"},
    {qelSdr::netfn::sensorEvent, qelSensors::cmd::getSensorThresholds, "Get Sensor Thresholds"},
    {qelSensors::chassis::netfn, qelSensors::chassis::getChassisStatus, "Get Chassis Status"},
    {qelSensors::dcmi::netfn, qelSensors::dcmi::getPowerReading, "DCMI Get Power Reading"},
};

// One line of the summary: a command, or for the configuration space one
// operation, with how often it came and which variables it touched.
struct TrafficLine {
    std::string key;  // "06 22", "2e e0 read", ...
    std::string name;
    int count = 0;
    std::set<std::uint32_t> variables;
};

void dumpTraffic(const SimBmc& bmc, std::ostream& out) {
    const std::vector<Request> requests = bmc.requests();
    out << "requests-total " << requests.size() << '\n';
    std::vector<TrafficLine> lines;  // in order of first appearance
    std::map<std::string, std::size_t> where;
    for (const Request& r : requests) {
        std::string key = hexText(Bytes{r.netFn, r.cmd});
        std::string name = commandName(r.netFn, r.cmd);
        if (name.empty()) name = "?";
        // One command, two receivers: OS status events go over IPMB to the
        // board, while system software's own events (the agent's OS boot and
        // shutdown) go to the controller's event log on the system interface.
        // Counted apart, so neither is mistaken for the other.
        if (r.netFn == netfn::sensorEvent && r.cmd == cmd::platformEvent &&
            r.addrType == IPMI_SYSTEM_INTERFACE_ADDR_TYPE) {
            key += " log";
            name = "Platform Event (OS boot or shutdown, to the controller's event log)";
        }
        bool variable = false;
        std::uint32_t id = 0;
        if (r.netFn == netfn::oemGroup && r.cmd == cmd::configSpace &&
            r.data.size() >= qelIpmi::confSpace::readRequestSize) {
            namespace cs = qelIpmi::confSpace;
            const unsigned char op = r.data[cs::requestOperation];
            const char* opName = op == cs::opRead ? "read" : op == cs::opWrite ? "write" : "other";
            key += std::string(" ") + opName;
            name += std::string(" ") + opName;
            variable = true;
            id = r.data[cs::requestVariable] | (r.data[cs::requestVariable + 1] << 8);
        }
        auto it = where.find(key);
        if (it == where.end()) {
            it = where.emplace(key, lines.size()).first;
            lines.push_back(TrafficLine{key, name, 0, {}});
        }
        TrafficLine& line = lines[it->second];
        ++line.count;
        if (variable) line.variables.insert(id);
    }
    for (const TrafficLine& line : lines) {
        out << "sent " << line.key << " x" << line.count << "  " << line.name;
        if (!line.variables.empty()) {
            out << ":";
            for (std::uint32_t id : line.variables) out << ' ' << hex16(id);
        }
        out << '\n';
    }
}

// ---------------------------------------------------------------- watchdog

const char* timerUseName(unsigned use) {
    static const char* const names[] = {"reserved", "BIOS FRB2", "BIOS/POST", "OS load", "SMS/OS", "OEM"};
    return use < 6 ? names[use] : "undefined";
}

const char* actionName(unsigned action) {
    static const char* const names[] = {"none", "hard reset", "power down", "power cycle"};
    return action < 4 ? names[action] : "reserved";
}

const char* interruptName(unsigned interrupt) {
    static const char* const names[] = {"none", "SMI", "NMI", "messaging interrupt"};
    return interrupt < 4 ? names[interrupt] : "reserved";
}

std::string seconds(unsigned counts) {
    char text[32];
    std::snprintf(text, sizeof text, "%u.%u s", counts / 10, counts % 10);
    return text;
}

void dumpWatchdog(SimWatchdog& wd, std::ostream& out) {
    const WatchdogState s = wd.state();
    out << "timer " << (s.running ? "running" : "stopped") << (s.initialized ? "" : " (never set)") << '\n';
    out << "timer-use " << int(s.timerUse) << " (" << timerUseName(s.timerUse) << ")\n";
    out << "timeout-action " << int(s.timeoutAction) << " (" << actionName(s.timeoutAction) << ")\n";
    out << "pre-timeout " << int(s.preTimeoutInterrupt) << " (" << interruptName(s.preTimeoutInterrupt)
        << ") interval " << int(s.preTimeoutInterval) << " s\n";
    out << "initial-countdown " << s.initialCountdown << " (" << seconds(s.initialCountdown) << ")\n";
    out << "present-countdown " << s.presentCountdown << " (" << seconds(s.presentCountdown) << ")\n";
    out << "expiration-flags " << hexText(Bytes{s.expirationFlags}) << '\n';
    const std::vector<WatchdogExpiry> expiries = wd.expiries();
    out << "expiries " << expiries.size() << '\n';
    for (const WatchdogExpiry& e : expiries)
        out << "expired at-ms " << e.timeMs << " use " << int(e.timerUse) << " action " << int(e.action)
            << " (" << actionName(e.action) << ")\n";
    out << "pre-timeouts " << wd.preTimeouts().size() << '\n';
}

// ---------------------------------------------------------------- configuration space

void dumpConfSpace(const SimConfSpace& cs, std::ostream& out) {
    auto byteOf = [&](std::uint32_t id) -> int {
        std::optional<Bytes> v = cs.variable(id);
        return v && !v->empty() ? (*v)[0] : -1;
    };
    auto wordOf = [&](std::uint32_t id) -> int {
        std::optional<Bytes> v = cs.variable(id);
        return v && v->size() >= 2 ? ((*v)[0] | ((*v)[1] << 8)) : -1;
    };
    auto watchdog = [&](const char* name, std::uint32_t enabled, std::uint32_t time, std::uint32_t behaviour) {
        out << name << ' ';
        const int e = byteOf(enabled), t = wordOf(time), b = byteOf(behaviour);
        out << (e < 0 ? "-" : e ? "on" : "off") << ' ';
        if (t < 0) out << "- s"; else out << t << " s";
        out << " behaviour ";
        if (b < 0) out << "-"; else out << b;
        out << '\n';
    };
    watchdog("soft-watchdog", 0x42, 0x43, 0x75);
    watchdog("boot-watchdog", 0x40, 0x41, 0x74);
    const int agent = byteOf(SimConfSpace::agentConnectionVariable);
    out << "agent-connection ";
    if (agent < 0) out << "-";
    else out << agent << (agent == 1 ? " (connected)" : agent == 2 ? " (disconnected)" : "");
    out << '\n';
    for (std::uint32_t slot = 1; slot <= 4; ++slot) {
        const std::uint32_t id = 0x209 + slot;
        std::optional<Bytes> v = cs.variable(id);
        out << "address-" << slot << ' ';
        if (!v) out << '-';
        else if (v->size() == 4) out << addressText(AF_INET, v->data());
        else out << "(" << v->size() << " bytes) " << hexText(*v);
        out << "  writes " << cs.writeCount(id) << '\n';
    }
    static const std::uint32_t texts[] = {0x200, 0x201, 0x202, 0x203, 0x204, 0x205, 0x206, 0x207, 0x208, 0x20F};
    for (std::uint32_t id : texts) {
        std::optional<Bytes> v = cs.variable(id);
        out << "text " << hex16(id) << ' ' << (v ? quoted(*v) : std::string("-")) << '\n';
    }
}

// ---------------------------------------------------------------- FRU / PNI

void dumpPni(const SimFru& fru, std::ostream& out) {
    const Bytes image = fru.image();
    if (image.empty()) {
        out << "fru none\n";
        return;
    }
    out << "fru device " << int(fru.deviceId()) << " size " << image.size() << '\n';
    std::string problem;
    std::optional<PniLayout> layout = readPniLayout(image, &problem);
    if (!layout) {
        out << "pni-record invalid: " << problem << '\n';
        return;
    }
    out << "pni-record version " << int(layout->version) << " adapters " << layout->adapters.size() << '\n';
    for (std::size_t a = 0; a < layout->adapters.size(); ++a) {
        const PniLayout::Adapter& adapter = layout->adapters[a];
        for (std::size_t p = 0; p < adapter.ports.size(); ++p) {
            for (std::size_t f = 0; f < adapter.ports[p].functions.size(); ++f) {
                const PniLayout::Function& fn = adapter.ports[p].functions[f];
                out << "adapter " << int(adapter.index) << " port " << p << " function " << f;
                if (!fn.nic) {
                    out << " (not a NIC)\n";
                    continue;
                }
                out << " nic " << macText(fn.mac.data());
                // The NIC area: two MACs, then the counts at byte 44 (IPv4 in
                // the low nibble, IPv6 in the high one) and the addresses.
                const unsigned char* s = image.data() + fn.specificOffset();
                const unsigned v4 = s[44] & 0x0F, v6 = s[44] >> 4;
                const unsigned char* at = s + 45;
                out << " ipv4";
                if (v4 == 0) out << " -";
                for (unsigned i = 0; i < v4; ++i, at += 4) out << ' ' << addressText(AF_INET, at);
                out << " ipv6";
                if (v6 == 0) out << " -";
                for (unsigned i = 0; i < v6; ++i, at += 16) out << ' ' << addressText(AF_INET6, at);
                out << '\n';
            }
        }
    }
}

// A PNI FRU with one adapter, one port per MAC, one NIC function each.
Bytes nicImage(const std::vector<MacBytes>& macs) {
    PniAdapterSpec adapter;
    adapter.index = 0;
    for (const MacBytes& mac : macs) adapter.ports.push_back(PniPortSpec{{PniFunctionSpec::nic(mac)}, 4});
    PniImageBuilder builder;
    builder.adapter(adapter);
    return builder.build().bytes;
}

// ---------------------------------------------------------------- LAN

void dumpLan(const SimLan& lan, std::ostream& out) {
    namespace lc = qelIpmi::lanConfig;
    int channels = 0;
    for (unsigned char n = qelIpmi::channelInfo::firstChannel; n <= qelIpmi::channelInfo::lastChannel; ++n) {
        Request r;
        r.netFn = netfn::app;
        r.cmd = cmd::getChannelInfo;
        r.data = {n};
        const Response info = lan.getChannelInfo(r);
        if (info.size() < qelIpmi::channelInfo::responseSize || info[0] != qelIpmi::cc::ok) continue;
        ++channels;
        const unsigned medium = info[qelIpmi::channelInfo::responseMedium] & 0x7F;
        out << "channel " << int(n) << " medium " << medium
            << (medium == qelIpmi::channelInfo::mediumLan8023 ? " (802.3 LAN)" : "");
        if (medium == qelIpmi::channelInfo::mediumLan8023) {
            std::optional<Bytes> ip = lan.parameter(n, lc::ipAddress);
            std::optional<Bytes> mac = lan.parameter(n, lc::macAddress);
            if (ip && ip->size() == 4) out << " ip " << addressText(AF_INET, ip->data());
            if (mac && mac->size() == 6) out << " mac " << macText(mac->data());
        }
        out << '\n';
    }
    if (channels == 0) out << "channels none\n";
}

// ---------------------------------------------------------------- keywords

void addKeywords(SimBmc& bmc) {
    SimBmc* b = &bmc;
    // A controller of another make knows none of the vendor's commands: no
    // configuration space, no management board, no PNI locate, no EEPROM
    // records. Once removed they stay removed for the controller's life.
    bmc.addKeyword("vendor-commands",
                   "vendor-commands on|off: off: every vendor OEM command answers 0xC1 (a controller of another make)",
                   [b](const std::vector<std::string>& w) {
                       needWords(w, 1, "vendor-commands");
                       if (w[0] == "on") return;
                       if (w[0] != "off") throw std::invalid_argument("vendor-commands takes on or off");
                       b->removeHandlers(netfn::oemGroup);
                       b->removeHandlers(netfn::oemBoard);
                       b->removeHandlers(netfn::oemPni);
                   });
    bmc.addKeyword("watchdog-state", "watchdog-state B0..B7: the watchdog as the 8 bytes of a Get answer (hex)",
                   [b](const std::vector<std::string>& w) {
                       needWords(w, 8, "watchdog-state");
                       b->watchdog().preset(WatchdogState::fromBytes(parseHexBytes(w)));
                   });
    bmc.addKeyword("watchdog-pretimeout",
                   "watchdog-pretimeout INTERRUPT SECONDS: the pre-timeout only (interrupt 0-3; a timer "
                   "never set becomes use 4); the agent keeps it, so its reset interval shrinks",
                   [b](const std::vector<std::string>& w) {
                       needWords(w, 2, "watchdog-pretimeout");
                       WatchdogState s = b->watchdog().state();
                       s.preTimeoutInterrupt = static_cast<unsigned char>(parseNumber(w[0], 3));
                       s.preTimeoutInterval = static_cast<unsigned char>(parseNumber(w[1], 255));
                       // The times belong to the use that set the timer up; a
                       // timer nobody set up is given to the OS (use 4), whose
                       // agent is what this is for.
                       if (s.timerUse == 0) s.timerUse = 4;
                       // Keep the state one the controller would accept.
                       const unsigned short least = static_cast<unsigned short>(s.preTimeoutInterval * 10);
                       if (s.initialCountdown < least) s.initialCountdown = least;
                       if (s.presentCountdown < least && !s.running) s.presentCountdown = s.initialCountdown;
                       b->watchdog().preset(s);
                   });
    bmc.addKeyword("soft-watchdog", "soft-watchdog on|off SECONDS: the configuration space's software watchdog",
                   [b](const std::vector<std::string>& w) {
                       needWords(w, 2, "soft-watchdog");
                       const bool on = parseOnOff(w[0]);
                       const auto time = static_cast<std::uint16_t>(parseNumber(w[1], 65535));
                       b->confSpace().setByte(0x42, on ? 1 : 0);
                       b->confSpace().setWord(0x43, time);
                   });
    bmc.addKeyword("confspace-var", "confspace-var ID BYTE...: a configuration-space variable's bytes (hex)",
                   [b](const std::vector<std::string>& w) {
                       if (w.empty()) throw std::invalid_argument("confspace-var needs a variable number");
                       b->confSpace().setVariable(parseVariable(w[0]), parseHexBytes(w, 1));
                   });
    bmc.addKeyword("confspace-text", "confspace-text ID TEXT...: a configuration-space variable's text",
                   [b](const std::vector<std::string>& w) {
                       if (w.empty()) throw std::invalid_argument("confspace-text needs a variable number");
                       std::string text;
                       for (std::size_t i = 1; i < w.size(); ++i) text += (i > 1 ? " " : "") + w[i];
                       b->confSpace().setText(parseVariable(w[0]), text);
                   });
    bmc.addKeyword("confspace-remove", "confspace-remove ID: the variable is not there (reads answer 0x80)",
                   [b](const std::vector<std::string>& w) {
                       needWords(w, 1, "confspace-remove");
                       b->confSpace().removeVariable(parseVariable(w[0]));
                   });
    bmc.addKeyword("confspace-fail", "confspace-fail ID CC: every access to the variable answers CC (hex)",
                   [b](const std::vector<std::string>& w) {
                       needWords(w, 2, "confspace-fail");
                       b->confSpace().failVariable(parseVariable(w[0]), parseHexByte(w[1]));
                   });
    bmc.addKeyword("confspace-heal", "confspace-heal ID: the variable answers normally again",
                   [b](const std::vector<std::string>& w) {
                       needWords(w, 1, "confspace-heal");
                       b->confSpace().healVariable(parseVariable(w[0]));
                   });
    bmc.addKeyword("pni-nics",
                   "pni-nics MAC|host... | none: a PNI FRU with one adapter and one NIC port per MAC, or no PNI",
                   [b](const std::vector<std::string>& w) {
                       if (w.empty()) throw std::invalid_argument("pni-nics needs MACs, 'host' or 'none'");
                       if (w.size() == 1 && w[0] == "none") {
                           b->fru().setImage({});
                           return;
                       }
                       b->fru().setImage(nicImage(resolveMacs(w)));
                   });
    bmc.addKeyword("nic-ports",
                   "nic-ports MAC|host...: the blade's NIC ports: the board's ports 1..n and the PNI FRU",
                   [b](const std::vector<std::string>& w) {
                       if (w.empty() || w.size() > 16)
                           throw std::invalid_argument("nic-ports takes 1 to 16 MACs or 'host'");
                       const std::vector<MacBytes> macs = resolveMacs(w);
                       std::vector<std::pair<unsigned int, SimBoard::Mac>> ports;
                       for (std::size_t i = 0; i < macs.size(); ++i)
                           ports.emplace_back(static_cast<unsigned int>(i + 1), macs[i]);
                       b->board().setPorts(ports);
                       b->fru().setImage(nicImage(macs));
                   });
    bmc.addKeyword("lan-channel", "lan-channel N on|off: channel N (1-7) is a LAN channel with default settings, or absent",
                   [b](const std::vector<std::string>& w) {
                       needWords(w, 2, "lan-channel");
                       const auto n = static_cast<unsigned char>(parseNumber(w[0], 7));
                       if (n == 0) throw std::invalid_argument("channels are 1 to 7");
                       if (parseOnOff(w[1])) {
                           b->lan().addLanChannel(n);
                       } else {
                           b->lan().removeChannel(n);
                           b->lan().clearParameters(n);
                       }
                   });
}

}  // namespace

// ---------------------------------------------------------------- public

std::vector<MacBytes> hostNicMacs() {
    struct Interface {
        unsigned int index = 0;
        MacBytes mac{};
        bool ipv4 = false;
    };
    std::map<std::string, Interface> byName;
    std::set<std::string> withIpv4;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return {};
    for (ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
        if (a->ifa_addr == nullptr || (a->ifa_flags & IFF_LOOPBACK) != 0) continue;
        if (a->ifa_addr->sa_family == AF_INET) {
            withIpv4.insert(a->ifa_name);
        } else if (a->ifa_addr->sa_family == AF_PACKET) {
            const auto* ll = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
            if (ll->sll_halen != 6) continue;
            Interface i;
            i.index = static_cast<unsigned int>(ll->sll_ifindex);
            std::copy(ll->sll_addr, ll->sll_addr + 6, i.mac.begin());
            if (i.mac != MacBytes{}) byName[a->ifa_name] = i;
        }
    }
    ::freeifaddrs(list);
    std::vector<Interface> ordered;
    for (auto& entry : byName) {
        entry.second.ipv4 = withIpv4.count(entry.first) != 0;
        ordered.push_back(entry.second);
    }
    // Addresses are published only for interfaces with IPv4, so those come
    // first; index order inside each group.
    std::sort(ordered.begin(), ordered.end(), [](const Interface& x, const Interface& y) {
        return x.ipv4 != y.ipv4 ? x.ipv4 : x.index < y.index;
    });
    std::vector<MacBytes> macs;
    for (const Interface& i : ordered) macs.push_back(i.mac);
    return macs;
}

const std::string& defaultControllerDescription() {
    static const std::string text(defaultControllerText);
    return text;
}

void applyDefaultController(SimBmc& bmc) {
    std::istringstream in(defaultControllerDescription());
    loadDescription(bmc, in, "default.conf");
}

std::string commandName(unsigned char netFn, unsigned char command) {
    for (const CommandName& c : commandNames)
        if (c.netFn == netFn && c.cmd == command) return c.name;
    return "";
}

void registerModelDescriptions(SimBmc& bmc) {
    addKeywords(bmc);
    SimBmc* b = &bmc;
    bmc.addDumpSection("traffic", [b](std::ostream& out) { dumpTraffic(*b, out); });
    bmc.addDumpSection("watchdog", [b](std::ostream& out) { dumpWatchdog(b->watchdog(), out); });
    bmc.addDumpSection("confspace", [b](std::ostream& out) { dumpConfSpace(b->confSpace(), out); });
    bmc.addDumpSection("pni", [b](std::ostream& out) { dumpPni(b->fru(), out); });
    bmc.addDumpSection("lan", [b](std::ostream& out) { dumpLan(b->lan(), out); });
}

}  // namespace qelSim
