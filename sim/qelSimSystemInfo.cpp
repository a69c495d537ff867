#include "qelSimSystemInfo.h"

#include <ostream>
#include <stdexcept>

#include "qelIpmiCommands.h"
#include "qelSimDescription.h"

namespace qelSim {

namespace {

using Lock = std::lock_guard<std::recursive_mutex>;
namespace cc = qelIpmi::cc;

constexpr unsigned char parameterRevision = 0x11;
constexpr std::size_t blockSize = 16;
// Block 0 carries the encoding and the length in front of its 14 bytes.
constexpr std::size_t firstBlockText = blockSize - 2;

}  // namespace

SimSystemInfo::SimSystemInfo(SimBmc& bmc) : bmc_(bmc) {}

bool SimSystemInfo::supported(unsigned char parameter) const {
    return parameter <= lastString && unsupported_.count(parameter) == 0;
}

std::optional<std::string> SimSystemInfo::text(unsigned char parameter) const {
    Lock lock(bmc_.mutex());
    const auto it = values_.find(parameter);
    if (it == values_.end()) return std::nullopt;
    return it->second.bytes.substr(0, it->second.length);
}

void SimSystemInfo::setText(unsigned char parameter, const std::string& text) {
    Lock lock(bmc_.mutex());
    Value v;
    v.length = static_cast<unsigned int>(std::min<std::size_t>(text.size(), maximumLength));
    v.bytes = text.substr(0, v.length);
    v.bytes.resize(maximumLength + firstBlockText, '\0');
    values_[parameter] = v;
}

void SimSystemInfo::setKnown(bool known) {
    Lock lock(bmc_.mutex());
    known_ = known;
    if (known) {
        bmc_.setHandler(qelIpmi::netfn::app, qelIpmi::cmd::setSystemInfoParameters,
                        [this](const Request& r) { return set(r); });
        bmc_.setHandler(qelIpmi::netfn::app, qelIpmi::cmd::getSystemInfoParameters,
                        [this](const Request& r) { return get(r); });
    } else {
        bmc_.removeHandler(qelIpmi::netfn::app, qelIpmi::cmd::setSystemInfoParameters);
        bmc_.removeHandler(qelIpmi::netfn::app, qelIpmi::cmd::getSystemInfoParameters);
    }
}

void SimSystemInfo::setUnsupported(unsigned char parameter, bool unsupported) {
    Lock lock(bmc_.mutex());
    if (unsupported)
        unsupported_.insert(parameter);
    else
        unsupported_.erase(parameter);
}

Response SimSystemInfo::set(const Request& request) {
    Lock lock(bmc_.mutex());
    const Bytes& d = request.data;
    if (d.empty()) return {cc::requestDataLengthInvalid};
    const unsigned char parameter = d[0];
    if (!supported(parameter)) return {cc::parameterNotSupported};
    if (parameter == 0) {
        if (d.size() != 2) return {cc::requestDataLengthInvalid};
        if (d[1] > 1) return {cc::invalidDataField};
        setInProgress_ = d[1];
        return {cc::ok};
    }
    if (d.size() != 2 + blockSize) return {cc::requestDataLengthInvalid};
    const unsigned char setSelector = d[1];
    const unsigned char* block = d.data() + 2;
    if (setSelector == 0) {
        if (block[0] > 2) return {cc::invalidDataField};
        Value& v = values_[parameter];
        v.encoding = block[0];
        v.length = block[1];
        v.bytes.assign(maximumLength + firstBlockText, '\0');
        v.bytes.replace(0, firstBlockText, reinterpret_cast<const char*>(block + 2), firstBlockText);
        return {cc::ok};
    }
    const auto it = values_.find(parameter);
    const std::size_t offset = setSelector * blockSize - 2;
    if (it == values_.end() || offset >= it->second.length) return {cc::invalidDataField};
    it->second.bytes.replace(offset, blockSize, reinterpret_cast<const char*>(block), blockSize);
    return {cc::ok};
}

Response SimSystemInfo::get(const Request& request) const {
    Lock lock(bmc_.mutex());
    const Bytes& d = request.data;
    if (d.size() != 4) return {cc::requestDataLengthInvalid};
    const bool revisionOnly = (d[0] & 0x80) != 0;
    const unsigned char parameter = d[1];
    const unsigned char setSelector = d[2];
    if (!supported(parameter)) return {cc::parameterNotSupported};
    if (revisionOnly) return {cc::ok, parameterRevision};
    if (parameter == 0) return {cc::ok, parameterRevision, setInProgress_};
    const auto it = values_.find(parameter);
    if (it == values_.end()) return {cc::requestedDataNotPresent};
    const Value& v = it->second;
    Response r = {cc::ok, parameterRevision, setSelector};
    if (setSelector == 0) {
        r.push_back(v.encoding);
        r.push_back(static_cast<unsigned char>(v.length));
        r.insert(r.end(), v.bytes.begin(), v.bytes.begin() + firstBlockText);
        return r;
    }
    const std::size_t offset = setSelector * blockSize - 2;
    if (offset >= v.length) return {cc::parameterOutOfRange};
    r.insert(r.end(), v.bytes.begin() + static_cast<long>(offset),
             v.bytes.begin() + static_cast<long>(offset + blockSize));
    return r;
}

SimSystemInfo& SimBmc::systemInfo() {
    Lock lock(mutex_);
    if (!systemInfo_) systemInfo_ = std::make_shared<SimSystemInfo>(*this);
    return *systemInfo_;
}

void registerSystemInfoCommands(SimBmc& bmc) {
    SimSystemInfo* info = &bmc.systemInfo();
    info->setKnown(true);
    bmc.addKeyword("sysinfo", "sysinfo known|unknown: whether the System Info Parameters commands exist (0xC1)",
                   [info](const std::vector<std::string>& w) {
                       if (w.size() != 1 || (w[0] != "known" && w[0] != "unknown"))
                           throw std::invalid_argument("sysinfo known|unknown");
                       info->setKnown(w[0] == "known");
                   });
    bmc.addKeyword("sysinfo-unsupported", "sysinfo-unsupported N...: System Info Parameters that answer 0x80",
                   [info](const std::vector<std::string>& w) {
                       if (w.empty()) throw std::invalid_argument("sysinfo-unsupported N...");
                       for (const std::string& word : w) info->setUnsupported(static_cast<unsigned char>(parseNumber(word, 0xFF)), true);
                   });
    bmc.addKeyword("sysinfo-text", "sysinfo-text N TEXT...: a System Info Parameter's string",
                   [info](const std::vector<std::string>& w) {
                       if (w.size() < 2) throw std::invalid_argument("sysinfo-text N TEXT...");
                       std::string text;
                       for (std::size_t i = 1; i < w.size(); ++i) text += (i > 1 ? " " : "") + w[i];
                       info->setText(static_cast<unsigned char>(parseNumber(w[0], 0xFF)), text);
                   });
    bmc.addDumpSection("system-info", [info](std::ostream& out) {
        if (!info->known()) {
            out << "sysinfo unknown\n";
            return;
        }
        for (unsigned char p = SimSystemInfo::firstString; p <= SimSystemInfo::lastString; ++p) {
            const auto t = info->text(p);
            out << "sysinfo-" << int(p) << ' ' << (t ? quotedText(*t) : std::string("-")) << '\n';
        }
    });
}

}  // namespace qelSim
