// The management board of the simulated controller: slot, port MACs, the
// board's network settings, port address reports, OS status events and the
// OS and platform texts.
#include "qelSimBoard.h"

#include <arpa/inet.h>
#include <linux/ipmi.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "qelIpmiCommands.h"
#include "qelSimDescription.h"
#include "qelSimIdentity.h"

namespace qelSim {

namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;
namespace cc = qelIpmi::cc;
namespace mmb = qelIpmi::mmb;
using Lock = std::lock_guard<std::recursive_mutex>;

namespace {

// The commands an old board does not know: the extended interface.
const unsigned char oldBoardUnknown[] = {cmd::getBoardCapabilities, cmd::getBoardAddress,
                                         cmd::getBoardMask, cmd::setPortAddress, cmd::getBoardMac};

template <std::size_t N>
void append(Response& out, const std::array<unsigned char, N>& bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
}

SimBoard::Ipv6 maskOf(unsigned int prefixLength) {
    SimBoard::Ipv6 mask{};
    for (unsigned int bit = 0; bit < std::min(prefixLength, 128u); ++bit)
        mask[bit / 8] = static_cast<unsigned char>(mask[bit / 8] | (0x80 >> (bit % 8)));
    return mask;
}

// The text of a whole-text request: behind byte 0, up to the NUL.
std::optional<std::string> nulTerminated(const Bytes& data) {
    auto nul = std::find(data.begin() + 1, data.end(), 0);
    if (nul == data.end()) return std::nullopt;
    return std::string(data.begin() + 1, nul);
}

// ---- text forms for the description and the dump

std::string macText(const SimBoard::Mac& mac) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
    return text;
}

std::string ipv4Text(const SimBoard::Ipv4& a) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, a.data(), text, sizeof text) != nullptr ? text : "?";
}

std::string ipv6Text(const SimBoard::Ipv6& a) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, a.data(), text, sizeof text) != nullptr ? text : "?";
}

SimBoard::Mac parseMac(const std::string& word) {
    SimBoard::Mac mac{};
    unsigned int b[6];
    char tail;
    if (std::sscanf(word.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4],
                    &b[5], &tail) != 6)
        throw std::invalid_argument("'" + word + "' is no MAC address (aa:bb:cc:dd:ee:ff)");
    for (int i = 0; i < 6; ++i) mac[i] = static_cast<unsigned char>(b[i]);
    return mac;
}

SimBoard::Ipv4 parseIpv4(const std::string& word) {
    SimBoard::Ipv4 a{};
    if (inet_pton(AF_INET, word.c_str(), a.data()) != 1)
        throw std::invalid_argument("'" + word + "' is no IPv4 address");
    return a;
}

SimBoard::Ipv6 parseIpv6(const std::string& word) {
    SimBoard::Ipv6 a{};
    if (inet_pton(AF_INET6, word.c_str(), a.data()) != 1)
        throw std::invalid_argument("'" + word + "' is no IPv6 address");
    return a;
}

const char* kindText(SimBoard::Kind kind) {
    switch (kind) {
    case SimBoard::Kind::old:
        return "old";
    case SimBoard::Kind::extended:
        return "extended";
    default:
        return "none";
    }
}

}  // namespace

SimBoard::SimBoard(SimBmc& bmc) : bmc_(bmc) {}

// ---------------------------------------------------------------- presets

void SimBoard::installBoard() {
    if (kind_ == Kind::none) kind_ = Kind::extended;
}

void SimBoard::setKind(Kind kind) {
    Lock lock(bmc_.mutex());
    kind_ = kind;
}

SimBoard::Kind SimBoard::kind() const {
    Lock lock(bmc_.mutex());
    return kind_;
}

void SimBoard::setExtendedCapability(bool on) {
    Lock lock(bmc_.mutex());
    installBoard();
    extendedCapability_ = on;
}

void SimBoard::setSlot(std::optional<unsigned char> slot) {
    Lock lock(bmc_.mutex());
    if (slot) installBoard();
    slot_ = slot;
}

void SimBoard::setCommandKnown(unsigned char command, bool known) {
    Lock lock(bmc_.mutex());
    installBoard();
    if (known)
        unknownCommands_.erase(command);
    else
        unknownCommands_.insert(command);
}

void SimBoard::setPorts(const std::vector<std::pair<unsigned int, Mac>>& ports) {
    Lock lock(bmc_.mutex());
    installBoard();
    ports_.clear();
    for (const auto& p : ports) ports_[p.first] = Port{p.second, true};
}

void SimBoard::setPort(unsigned int port, const Mac& mac) {
    Lock lock(bmc_.mutex());
    installBoard();
    ports_[port] = Port{mac, true};
}

void SimBoard::setPortWithoutMac(unsigned int port) {
    Lock lock(bmc_.mutex());
    installBoard();
    ports_[port] = Port{Mac{}, false};
}

void SimBoard::setOutOfRangePorts(std::set<unsigned int> ports) {
    Lock lock(bmc_.mutex());
    installBoard();
    outOfRange_ = std::move(ports);
}

void SimBoard::setPortCount(std::optional<unsigned char> count) {
    Lock lock(bmc_.mutex());
    installBoard();
    portCount_ = count;
}

void SimBoard::setIpv4(unsigned char index, const Ipv4& address, const Ipv4& mask) {
    if (index > 1) throw std::invalid_argument("the board has IPv4 indexes 0 and 1");
    Lock lock(bmc_.mutex());
    installBoard();
    ipv4_[index] = address;
    ipv4Mask_[index] = mask;
}

void SimBoard::setIpv6(unsigned char index, const Ipv6& address, unsigned int prefixLength) {
    if (index < 2 || index > 3) throw std::invalid_argument("the board has IPv6 indexes 2 and 3");
    if (prefixLength > 128) throw std::invalid_argument("an IPv6 prefix is at most 128 bits");
    Lock lock(bmc_.mutex());
    installBoard();
    ipv6_[index - 2] = address;
    ipv6Prefix_[index - 2] = prefixLength;
}

void SimBoard::setMac(unsigned char selector, const Mac& mac) {
    if (selector > 1) throw std::invalid_argument("the board has MAC selectors 0 and 1");
    Lock lock(bmc_.mutex());
    installBoard();
    mac_[selector] = mac;
}

// ---------------------------------------------------------------- read back

std::map<std::pair<unsigned int, unsigned int>, SimBoard::PortReport> SimBoard::portReports() const {
    Lock lock(bmc_.mutex());
    return reports_;
}

std::optional<SimBoard::PortReport> SimBoard::portReport(unsigned int slot, unsigned int port) const {
    Lock lock(bmc_.mutex());
    auto it = reports_.find({slot, port});
    if (it == reports_.end()) return std::nullopt;
    return it->second;
}

std::vector<unsigned char> SimBoard::osStatuses() const {
    Lock lock(bmc_.mutex());
    return osStatuses_;
}

std::vector<SimBoard::PlatformEvent> SimBoard::platformEvents() const {
    Lock lock(bmc_.mutex());
    return events_;
}

std::optional<SimBoard::ReceivedText> SimBoard::osText() const {
    Lock lock(bmc_.mutex());
    return osText_;
}

std::optional<SimBoard::ReceivedText> SimBoard::platformText() const {
    Lock lock(bmc_.mutex());
    return platformText_;
}

void SimBoard::clearReceived() {
    Lock lock(bmc_.mutex());
    reports_.clear();
    osStatuses_.clear();
    events_.clear();
    osText_.reset();
    platformText_.reset();
    assembly_.clear();
    nextChunk_.reset();
}

// ---------------------------------------------------------------- handlers

bool SimBoard::knows(unsigned char command) const {
    if (kind_ == Kind::none || unknownCommands_.count(command) != 0) return false;
    if (kind_ == Kind::old)
        return std::find(std::begin(oldBoardUnknown), std::end(oldBoardUnknown), command) ==
               std::end(oldBoardUnknown);
    return true;
}

bool SimBoard::answers(unsigned int port) const {
    return ports_.count(port) != 0 && outOfRange_.count(port) == 0;
}

unsigned int SimBoard::answeringPorts() const {
    unsigned int n = 0;
    for (const auto& p : ports_)
        if (answers(p.first)) ++n;
    return n;
}

Response SimBoard::slot(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!slot_) return bmc_.identity().boardSlot(request);
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    return {cc::ok, *slot_};
}

Response SimBoard::portMac(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::getPortMac)) return {cc::invalidCommand};
    if (request.data.size() != 1) return {cc::requestDataLengthInvalid};
    const unsigned int number = request.data[0];
    if (!answers(number)) return {cc::parameterOutOfRange};
    const Port& port = ports_.at(number);
    const unsigned int count = portCount_ ? *portCount_ : answeringPorts();
    Response r = {cc::ok, static_cast<unsigned char>(count),
                  static_cast<unsigned char>(port.macValid ? mmb::portPresent : 0)};
    append(r, port.mac);
    return r;
}

Response SimBoard::legacyPortMacs(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::getPortMacsLegacy)) return {cc::invalidCommand};
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    Response r = {cc::ok, static_cast<unsigned char>(ports_.size())};
    for (const auto& p : ports_) r.insert(r.end(), p.second.mac.rbegin(), p.second.mac.rend());
    return r;
}

Response SimBoard::capabilities(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::getBoardCapabilities)) return {cc::invalidCommand};
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    return {cc::ok, static_cast<unsigned char>(extendedCapability_ ? mmb::capabilityExtended : 0)};
}

Response SimBoard::boardAddress(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::getBoardAddress)) return {cc::invalidCommand};
    const Bytes& d = request.data;
    if (d.size() != mmb::addressRequestSize) return {cc::requestDataLengthInvalid};
    Response r = {cc::ok, d[0], d[1]};
    if (d[0] == mmb::familyIpv4) {
        if (d[1] > 1) return {cc::parameterOutOfRange};
        append(r, ipv4_[d[1]]);
    } else if (d[0] == mmb::familyIpv6) {
        if (d[1] < 2 || d[1] > 3) return {cc::parameterOutOfRange};
        append(r, ipv6_[d[1] - 2]);
    } else {
        return {cc::invalidDataField};
    }
    return r;
}

Response SimBoard::boardMask(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::getBoardMask)) return {cc::invalidCommand};
    const Bytes& d = request.data;
    if (d.size() != mmb::addressRequestSize) return {cc::requestDataLengthInvalid};
    Response r = {cc::ok, d[0], d[1]};
    if (d[0] == mmb::familyIpv4) {
        if (d[1] > 1) return {cc::parameterOutOfRange};
        append(r, ipv4Mask_[d[1]]);
    } else if (d[0] == mmb::familyIpv6) {
        if (d[1] < 2 || d[1] > 3) return {cc::parameterOutOfRange};
        append(r, maskOf(ipv6Prefix_[d[1] - 2]));
    } else {
        return {cc::invalidDataField};
    }
    return r;
}

Response SimBoard::legacyAddress(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::getBoardIpv4Legacy)) return {cc::invalidCommand};
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    Response r = {cc::ok};
    append(r, ipv4_[0]);
    return r;
}

Response SimBoard::legacyMask(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::getBoardMaskLegacy)) return {cc::invalidCommand};
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    Response r = {cc::ok};
    append(r, ipv4Mask_[0]);
    return r;
}

Response SimBoard::boardMac(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::getBoardMac)) return {cc::invalidCommand};
    if (request.data.size() != mmb::macRequestSize) return {cc::requestDataLengthInvalid};
    if (request.data[0] > 1) return {cc::parameterOutOfRange};
    Response r = {cc::ok};
    append(r, mac_[request.data[0]]);
    return r;
}

Response SimBoard::portIpv4(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::setPortIpv4)) return {cc::invalidCommand};
    const Bytes& d = request.data;
    if (d.size() != mmb::ipv4ReportSize) return {cc::requestDataLengthInvalid};
    PortReport& report = reports_[{d[mmb::reportSlot] + 1u, d[mmb::reportPort] + 1u}];
    Ipv4 address;
    std::copy_n(d.begin() + mmb::ipv4ReportAddress, address.size(), address.begin());
    report.ipv4 = address;
    report.ipv4Command = cmd::setPortIpv4;
    return {cc::ok};
}

Response SimBoard::portAddress(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::setPortAddress)) return {cc::invalidCommand};
    const Bytes& d = request.data;
    if (d.size() < mmb::reportAddress) return {cc::requestDataLengthInvalid};
    const unsigned char family = d[mmb::reportFamily];
    const unsigned char kind = d[mmb::reportKind];
    if (family == mmb::familyIpv4) {
        if (d.size() != mmb::ipv4AddressReportSize) return {cc::requestDataLengthInvalid};
        if (kind != mmb::kindIpv4) return {cc::invalidDataField};
    } else if (family == mmb::familyIpv6) {
        if (d.size() != mmb::ipv6AddressReportSize) return {cc::requestDataLengthInvalid};
        if (kind != mmb::kindLinkLocal && kind != mmb::kindGlobal) return {cc::invalidDataField};
    } else {
        return {cc::invalidDataField};
    }
    PortReport& report =
        reports_[{d[mmb::reportSlot] + 1u, (d[mmb::reportPort] & mmb::portNumberMask) + 1u}];
    if (family == mmb::familyIpv4) {
        Ipv4 address;
        std::copy_n(d.begin() + mmb::reportAddress, address.size(), address.begin());
        report.ipv4 = address;
        report.ipv4Command = cmd::setPortAddress;
    } else {
        Ipv6Report entry;
        entry.kind = kind;
        std::copy_n(d.begin() + mmb::reportAddress, entry.address.size(), entry.address.begin());
        auto same = [&](const Ipv6Report& r) { return r.kind == entry.kind && r.address == entry.address; };
        if (std::none_of(report.ipv6.begin(), report.ipv6.end(), same)) report.ipv6.push_back(entry);
    }
    return {cc::ok};
}

Response SimBoard::osTextChunk(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!knows(cmd::setOsText)) return {cc::invalidCommand};
    const Bytes& d = request.data;
    if (d.size() < 2 || d.size() > mmb::textRequestMax) return {cc::requestDataLengthInvalid};
    const unsigned int chunk = d[0] >> mmb::chunkShift;
    if (chunk == 0) {
        assembly_.clear();
        assemblyByte0_ = d[0];
    } else if (!nextChunk_ || *nextChunk_ != chunk) {
        nextChunk_.reset();
        return {cc::invalidDataField};
    }
    if (std::optional<std::string> end = nulTerminated(d)) {
        osText_ = ReceivedText{assembly_ + *end, cmd::setOsText, assemblyByte0_};
        assembly_.clear();
        nextChunk_.reset();
        return {cc::ok};
    }
    // Without its NUL a chunk must be full, and must not be the last one.
    if (d.size() != mmb::textRequestMax || chunk + 1 == mmb::osTextChunks) {
        nextChunk_.reset();
        return {cc::invalidDataField};
    }
    assembly_.append(d.begin() + 1, d.end());
    nextChunk_ = chunk + 1;
    return {cc::ok};
}

Response SimBoard::text(const Request& request, std::optional<ReceivedText>& into) {
    if (!knows(request.cmd)) return {cc::invalidCommand};
    const Bytes& d = request.data;
    if (d.size() < 2 || d.size() > mmb::textRequestMax) return {cc::requestDataLengthInvalid};
    std::optional<std::string> received = nulTerminated(d);
    if (!received) return {cc::invalidDataField};
    into = ReceivedText{*received, request.cmd, d[0]};
    return {cc::ok};
}

Response SimBoard::osTextLegacy(const Request& request) {
    Lock lock(bmc_.mutex());
    return text(request, osText_);
}

Response SimBoard::platformTextRequest(const Request& request) {
    Lock lock(bmc_.mutex());
    return text(request, platformText_);
}

Response SimBoard::platformEvent(const Request& request) {
    Lock lock(bmc_.mutex());
    const bool overIpmb = request.addrType == IPMI_IPMB_ADDR_TYPE;
    if (overIpmb && (kind_ == Kind::none || request.slaveAddr != mmb::boardIpmbAddress))
        return {cc::timeout};  // nobody answers at that address
    const Bytes& d = request.data;
    // Over IPMB the requester's address is the generator; system software
    // adds a generator byte in front.
    if (d.size() != mmb::osEventSize + (overIpmb ? 0 : 1)) return {cc::requestDataLengthInvalid};
    events_.push_back(PlatformEvent{request.addrType, request.slaveAddr, d});
    if (overIpmb && d[0] == mmb::eventRevision && d[1] == mmb::osSensorType &&
        d[2] == mmb::osSensorNumber && d[3] == mmb::osEventType &&
        (d[mmb::osEventData1] & mmb::osStatusMarker) != 0 && d[5] == mmb::osEventData2 &&
        d[6] == mmb::osEventData3)
        osStatuses_.push_back(static_cast<unsigned char>(d[mmb::osEventData1] & 0x3F));
    return {cc::ok};
}

// ---------------------------------------------------------------- dump

void SimBoard::dump(std::ostream& out) const {
    Lock lock(bmc_.mutex());
    out << "kind " << kindText(kind_) << '\n';
    if (kind_ == Kind::extended) out << "capability-extended " << (extendedCapability_ ? "on" : "off") << '\n';
    out << "slot ";
    if (slot_)
        out << static_cast<int>(*slot_) << '\n';
    else
        out << "-\n";
    for (const auto& p : ports_)
        out << "port " << p.first << ' ' << macText(p.second.mac)
            << (p.second.macValid ? "" : " no-mac") << (outOfRange_.count(p.first) ? " out-of-range" : "")
            << '\n';
    out << "port-count " << (portCount_ ? *portCount_ : answeringPorts())
        << (portCount_ ? "" : " (the ports that answer)") << '\n';
    if (!unknownCommands_.empty()) {
        out << "unknown-commands";
        for (unsigned char c : unknownCommands_) out << ' ' << hexText(Bytes{c});
        out << '\n';
    }
    for (int i = 0; i < 2; ++i)
        out << "ipv4 " << i << ' ' << ipv4Text(ipv4_[i]) << ' ' << ipv4Text(ipv4Mask_[i]) << '\n';
    for (int i = 0; i < 2; ++i) out << "ipv6 " << i + 2 << ' ' << ipv6Text(ipv6_[i]) << ' ' << ipv6Prefix_[i] << '\n';
    for (int i = 0; i < 2; ++i) out << "mac " << i << ' ' << macText(mac_[i]) << '\n';
    for (const auto& r : reports_) {
        const std::string where =
            "report slot " + std::to_string(r.first.first) + " port " + std::to_string(r.first.second);
        if (r.second.ipv4)
            out << where << " ipv4 " << ipv4Text(*r.second.ipv4) << " via "
                << hexText(Bytes{r.second.ipv4Command}) << '\n';
        for (const Ipv6Report& v6 : r.second.ipv6)
            out << where << " ipv6 " << (v6.kind == mmb::kindLinkLocal ? "link-local " : "global ")
                << ipv6Text(v6.address) << '\n';
    }
    out << "os-status";
    if (osStatuses_.empty()) out << " -";
    for (unsigned char s : osStatuses_) out << ' ' << static_cast<int>(s);
    out << '\n';
    out << "events " << events_.size() << '\n';
    // System software's events for the event log (generator id first).
    for (const PlatformEvent& e : events_) {
        if (e.addrType == IPMI_SYSTEM_INTERFACE_ADDR_TYPE && e.data.size() == 8)
            out << "sel-event sensor-type " << hexText(Bytes{e.data[2]}) << " offset "
                << hexText(Bytes{static_cast<unsigned char>(e.data[5] & 0x0F)}) << '\n';
    }
    if (osText_)
        out << "os-text " << quotedText(osText_->text) << " via " << hexText(Bytes{osText_->command})
            << " byte0 " << hexText(Bytes{osText_->byte0}) << '\n';
    if (platformText_)
        out << "platform-text " << quotedText(platformText_->text) << " via "
            << hexText(Bytes{platformText_->command}) << " byte0 " << hexText(Bytes{platformText_->byte0})
            << '\n';
}

// ---------------------------------------------------------------- registration

SimBoard& SimBmc::board() {
    Lock lock(mutex_);
    if (!board_) board_ = std::make_shared<SimBoard>(*this);
    return *board_;
}

namespace {

void needWords(const std::vector<std::string>& w, std::size_t n, const char* keyword) {
    if (w.size() != n)
        throw std::invalid_argument(std::string(keyword) + " takes " + std::to_string(n) +
                                    (n == 1 ? " word" : " words"));
}

void addBoardKeywords(SimBmc& bmc, SimBoard* board) {
    bmc.addKeyword("board", "board none|old|extended: the kind of management board",
                   [board](const std::vector<std::string>& w) {
                       needWords(w, 1, "board");
                       if (w[0] == "none")
                           board->setKind(SimBoard::Kind::none);
                       else if (w[0] == "old")
                           board->setKind(SimBoard::Kind::old);
                       else if (w[0] == "extended")
                           board->setKind(SimBoard::Kind::extended);
                       else
                           throw std::invalid_argument("'" + w[0] + "' is no board kind (none, old, extended)");
                   });
    bmc.addKeyword("board-slot", "board-slot N|-: the slot the board's slot query answers",
                   [board](const std::vector<std::string>& w) {
                       needWords(w, 1, "board-slot");
                       if (w[0] == "-")
                           board->setSlot(std::nullopt);
                       else
                           board->setSlot(static_cast<unsigned char>(parseNumber(w[0], 255)));
                   });
    bmc.addKeyword("board-port", "board-port N MAC|no-mac: a port of the blade and its MAC",
                   [board](const std::vector<std::string>& w) {
                       needWords(w, 2, "board-port");
                       const auto port = static_cast<unsigned int>(parseNumber(w[0], 127));
                       if (w[1] == "no-mac")
                           board->setPortWithoutMac(port);
                       else
                           board->setPort(port, parseMac(w[1]));
                   });
    bmc.addKeyword("board-port-count", "board-port-count N|auto: the number of ports 0x75 announces",
                   [board](const std::vector<std::string>& w) {
                       needWords(w, 1, "board-port-count");
                       if (w[0] == "auto")
                           board->setPortCount(std::nullopt);
                       else
                           board->setPortCount(static_cast<unsigned char>(parseNumber(w[0], 255)));
                   });
    bmc.addKeyword("board-out-of-range", "board-out-of-range [N...]: ports that answer 0xC9",
                   [board](const std::vector<std::string>& w) {
                       std::set<unsigned int> ports;
                       for (const std::string& word : w)
                           ports.insert(static_cast<unsigned int>(parseNumber(word, 127)));
                       board->setOutOfRangePorts(ports);
                   });
    bmc.addKeyword("board-command", "board-command CMD known|unknown: whether the board knows a command",
                   [board](const std::vector<std::string>& w) {
                       needWords(w, 2, "board-command");
                       if (w[1] != "known" && w[1] != "unknown")
                           throw std::invalid_argument("'" + w[1] + "' is neither known nor unknown");
                       board->setCommandKnown(parseHexByte(w[0]), w[1] == "known");
                   });
    bmc.addKeyword("board-capability-extended",
                   "board-capability-extended on|off: bit 0 of the board's capabilities",
                   [board](const std::vector<std::string>& w) {
                       needWords(w, 1, "board-capability-extended");
                       board->setExtendedCapability(parseOnOff(w[0]));
                   });
    bmc.addKeyword("board-ipv4", "board-ipv4 INDEX ADDRESS MASK: the board's IPv4 entry 0 or 1",
                   [board](const std::vector<std::string>& w) {
                       needWords(w, 3, "board-ipv4");
                       board->setIpv4(static_cast<unsigned char>(parseNumber(w[0], 1)), parseIpv4(w[1]),
                                      parseIpv4(w[2]));
                   });
    bmc.addKeyword("board-ipv6", "board-ipv6 INDEX ADDRESS PREFIX: the board's IPv6 entry 2 or 3",
                   [board](const std::vector<std::string>& w) {
                       needWords(w, 3, "board-ipv6");
                       const auto index = static_cast<unsigned char>(parseNumber(w[0], 3));
                       if (index < 2) throw std::invalid_argument("the board has IPv6 entries 2 and 3");
                       board->setIpv6(index, parseIpv6(w[1]), static_cast<unsigned int>(parseNumber(w[2], 128)));
                   });
    bmc.addKeyword("board-mac", "board-mac SELECTOR MAC: the board's MAC for selector 0 or 1",
                   [board](const std::vector<std::string>& w) {
                       needWords(w, 2, "board-mac");
                       board->setMac(static_cast<unsigned char>(parseNumber(w[0], 1)), parseMac(w[1]));
                   });
}

}  // namespace

void registerBoardCommands(SimBmc& bmc) {
    SimBoard* board = &bmc.board();
    auto on = [&bmc, board](unsigned char netFn, unsigned char command,
                            Response (SimBoard::*handler)(const Request&)) {
        bmc.setHandler(netFn, command, [board, handler](const Request& r) { return (board->*handler)(r); });
    };
    on(netfn::oemBoard, cmd::getBoardSlot, &SimBoard::slot);
    on(netfn::oemBoard, cmd::getPortMac, &SimBoard::portMac);
    on(netfn::oemBoard, cmd::getPortMacsLegacy, &SimBoard::legacyPortMacs);
    on(netfn::oemBoard, cmd::getBoardCapabilities, &SimBoard::capabilities);
    on(netfn::oemBoard, cmd::getBoardAddress, &SimBoard::boardAddress);
    on(netfn::oemBoard, cmd::getBoardMask, &SimBoard::boardMask);
    on(netfn::oemBoard, cmd::getBoardIpv4Legacy, &SimBoard::legacyAddress);
    on(netfn::oemBoard, cmd::getBoardMaskLegacy, &SimBoard::legacyMask);
    on(netfn::oemBoard, cmd::getBoardMac, &SimBoard::boardMac);
    on(netfn::oemBoard, cmd::setPortIpv4, &SimBoard::portIpv4);
    on(netfn::oemBoard, cmd::setPortAddress, &SimBoard::portAddress);
    on(netfn::oemBoard, cmd::setOsText, &SimBoard::osTextChunk);
    on(netfn::oemBoard, cmd::setOsTextLegacy, &SimBoard::osTextLegacy);
    on(netfn::oemBoard, cmd::setPlatformText, &SimBoard::platformTextRequest);
    on(netfn::sensorEvent, cmd::platformEvent, &SimBoard::platformEvent);

    addBoardKeywords(bmc, board);
    bmc.addDumpSection("board", [board](std::ostream& out) { board->dump(out); });
}

}  // namespace qelSim
