// The configuration space of the simulated controller: OEM commands 0x2E/0xE0
// (read or write a variable) and 0x2E/0x02 (agent connection status).
#include "qelSimConfSpace.h"

#include "qelIpmi.h"
#include "qelIpmiCommands.h"

namespace qelSim {

namespace {

namespace layout = qelIpmi::confSpace;
namespace cc = qelIpmi::cc;
using Guard = std::lock_guard<std::mutex>;

bool ianaMatches(const Bytes& data) {
    return data.size() >= 3 && data[0] == qelIpmi::vendorIana[0] &&
           data[1] == qelIpmi::vendorIana[1] && data[2] == qelIpmi::vendorIana[2];
}

// Completion code, then the IANA number echoed, as every successful OEM
// answer of the controller starts.
Response okWithIana() {
    return {cc::ok, qelIpmi::vendorIana[0], qelIpmi::vendorIana[1], qelIpmi::vendorIana[2]};
}

Bytes textBytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

}  // namespace

SimConfSpace::SimConfSpace() {
    variables_[0x40] = {0x00};        // boot watchdog disabled
    variables_[0x41] = {0x58, 0x02};  // boot watchdog 600 s
    variables_[0x42] = {0x01};        // software watchdog enabled
    variables_[0x43] = {0x2C, 0x01};  // software watchdog 300 s
    variables_[0x74] = {0x02};        // boot watchdog: reset on expiry
    variables_[0x75] = {0x00};        // software watchdog: continue
    variables_[0x200] = textBytes("Lab 2, rack 14, unit 22");
    variables_[0x201] = textBytes("qel-node-07");
    variables_[0x202] = textBytes("V5.0.0.11 R1.22.0");
    variables_[0x203] = textBytes("Two-socket rack server");
    variables_[0x204] = textBytes("operations@example.org");
    variables_[0x205] = textBytes("QC-42U standard rack");
    variables_[0x206] = textBytes("QX 2U chassis");
    variables_[0x207] = textBytes("QX2U000123456");
    variables_[0x208] = textBytes("QEL Computing");
    variables_[0x20A] = {192, 0, 2, 10};  // documentation addresses, never routed
    variables_[0x20B] = {192, 0, 2, 11};
    variables_[0x20C] = {0, 0, 0, 0};
    variables_[0x20D] = {0, 0, 0, 0};
    variables_[0x20F] = textBytes("Linux");
    variables_[agentConnectionVariable] = {0x01};  // connected
}

std::optional<std::size_t> SimConfSpace::fixedSize(std::uint32_t id) {
    switch (id) {
    case 0x40: case 0x42: case 0x74: case 0x75: case agentConnectionVariable:
        return 1;
    case 0x41: case 0x43:
        return 2;
    case 0x20A: case 0x20B: case 0x20C: case 0x20D:
        return 4;
    default:
        return std::nullopt;
    }
}

// ---------------------------------------------------------------- state

void SimConfSpace::setVariable(std::uint32_t id, Bytes value) {
    Guard guard(mutex_);
    variables_[id] = std::move(value);
}

void SimConfSpace::setText(std::uint32_t id, const std::string& text) {
    setVariable(id, textBytes(text));
}

void SimConfSpace::setAddress(std::uint32_t id, unsigned char a, unsigned char b,
                              unsigned char c, unsigned char d) {
    setVariable(id, {a, b, c, d});
}

void SimConfSpace::setByte(std::uint32_t id, unsigned char value) { setVariable(id, {value}); }

void SimConfSpace::setWord(std::uint32_t id, std::uint16_t value) {
    setVariable(id, {static_cast<unsigned char>(value & 0xFF), static_cast<unsigned char>(value >> 8)});
}

void SimConfSpace::removeVariable(std::uint32_t id) {
    Guard guard(mutex_);
    variables_.erase(id);
}

bool SimConfSpace::hasVariable(std::uint32_t id) const {
    Guard guard(mutex_);
    return variables_.count(id) != 0;
}

std::optional<Bytes> SimConfSpace::variable(std::uint32_t id) const {
    Guard guard(mutex_);
    auto it = variables_.find(id);
    if (it == variables_.end()) return std::nullopt;
    return it->second;
}

std::string SimConfSpace::text(std::uint32_t id) const {
    std::optional<Bytes> value = variable(id);
    return value ? std::string(value->begin(), value->end()) : std::string();
}

int SimConfSpace::writeCount(std::uint32_t id) const {
    Guard guard(mutex_);
    auto it = writes_.find(id);
    return it == writes_.end() ? 0 : it->second;
}

void SimConfSpace::failVariable(std::uint32_t id, unsigned char completionCode) {
    Guard guard(mutex_);
    failures_[id] = completionCode;
}

void SimConfSpace::claimLength(std::uint32_t id, unsigned char lengthByte) {
    Guard guard(mutex_);
    claimedLengths_[id] = lengthByte;
}

void SimConfSpace::healVariable(std::uint32_t id) {
    Guard guard(mutex_);
    failures_.erase(id);
    claimedLengths_.erase(id);
}

void SimConfSpace::setAgentState(unsigned char state) { setByte(agentConnectionVariable, state); }

unsigned char SimConfSpace::agentState() const {
    std::optional<Bytes> value = variable(agentConnectionVariable);
    return value && !value->empty() ? (*value)[0] : 0;
}

// ---------------------------------------------------------------- commands

Response SimConfSpace::handleConfigSpace(const Request& request) {
    const Bytes& data = request.data;
    // Without the IANA number we cannot even tell whether the request is
    // meant for us; with a foreign one the OEM layer rejects the field.
    if (data.size() < 3) return {cc::requestDataLengthInvalid};
    if (!ianaMatches(data)) return {cc::invalidDataField};
    if (data.size() <= layout::requestOperation) return {cc::requestDataLengthInvalid};

    const unsigned char op = data[layout::requestOperation];
    if (op == layout::opRead) {
        if (data.size() != layout::readRequestSize) return {cc::requestDataLengthInvalid};
    } else if (op == layout::opWrite) {
        if (data.size() <= layout::requestLength ||
            data.size() != layout::requestValue + data[layout::requestLength])
            return {cc::requestDataLengthInvalid};
    } else {
        return {cc::invalidDataField};
    }
    // Byte 4 selects an instance of the variable; every variable here has
    // only instance 0.
    if (data[layout::requestIndex] != 0) return {cc::invalidDataField};

    const std::uint32_t id = data[layout::requestVariable] |
                             (static_cast<std::uint32_t>(data[layout::requestVariable + 1]) << 8);

    Guard guard(mutex_);
    auto failure = failures_.find(id);
    if (failure != failures_.end()) return {failure->second};
    auto it = variables_.find(id);
    if (it == variables_.end()) return {cc::parameterNotSupported};

    Response response = okWithIana();
    if (op == layout::opRead) {
        auto claimed = claimedLengths_.find(id);
        response.push_back(claimed != claimedLengths_.end()
                               ? claimed->second
                               : static_cast<unsigned char>(it->second.size()));
        response.insert(response.end(), it->second.begin(), it->second.end());
        return response;
    }

    const std::size_t length = data[layout::requestLength];
    std::optional<std::size_t> size = fixedSize(id);
    if (size && *size != length) return {cc::requestDataLengthInvalid};
    it->second.assign(data.begin() + layout::requestValue, data.end());
    ++writes_[id];
    return response;
}

Response SimConfSpace::handleAgentConnection(const Request& request) {
    const Bytes& data = request.data;
    if (data.size() < 3) return {cc::requestDataLengthInvalid};
    if (!ianaMatches(data)) return {cc::invalidDataField};
    if (data.size() != layout::agentRequestSize) return {cc::requestDataLengthInvalid};

    const unsigned char what = data[3];
    Guard guard(mutex_);
    Bytes& state = variables_[agentConnectionVariable];
    if (state.size() != 1) state = {0x00};
    if (what == layout::agentQuery) {
        Response response = okWithIana();
        response.push_back(1);
        response.push_back(state[0]);
        return response;
    }
    if (what == 0x01 || what == 0x02) {
        state[0] = what;
        return okWithIana();
    }
    return {cc::invalidDataField};
}

SimConfSpace& SimBmc::confSpace() {
    std::lock_guard<std::recursive_mutex> lock(mutex());
    if (!confSpace_) confSpace_ = std::make_shared<SimConfSpace>();
    return *confSpace_;
}

void registerConfSpaceCommands(SimBmc& bmc) {
    SimConfSpace* space = &bmc.confSpace();
    using qelIpmi::netfn::oemGroup;
    namespace cmd = qelIpmi::cmd;
    bmc.setHandler(oemGroup, cmd::configSpace,
                   [space](const Request& r) { return space->handleConfigSpace(r); });
    bmc.setHandler(oemGroup, cmd::agentConnectionStatus,
                   [space](const Request& r) { return space->handleAgentConnection(r); });
}

}  // namespace qelSim
