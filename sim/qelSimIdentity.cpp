#include "qelSimIdentity.h"

#include <algorithm>
#include <cstring>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"

namespace qelSim {

using Lock = std::lock_guard<std::recursive_mutex>;
namespace eeprom = qelIpmi::eepromVersion;
namespace cc = qelIpmi::cc;

SimIdentity::SimIdentity(SimBmc& bmc) : bmc_(bmc) {
    records_[0] = defaultEepromRecord(0);
    records_[1] = defaultEepromRecord(1);
}

Bytes SimIdentity::defaultEepromRecord(unsigned char index) {
    // Completion code, the echoed IANA number, then 16 bytes of version text.
    // Filled in place: GCC 12 at -O2 misreads an insert after a short
    // initializer list as an out-of-bounds copy.
    Bytes record(eeprom::recordSize, 0);
    record[0] = cc::ok;
    std::memcpy(&record[1], qelIpmi::vendorIana, 3);
    const char* text = index == 0 ? "EEPROM-0 V1.00.0" : "EEPROM-1 V2.31.4";
    std::memcpy(&record[4], text, std::min(std::strlen(text), record.size() - 4));
    return record;
}

void SimIdentity::setEepromRecord(unsigned char index, Bytes response) {
    Lock lock(bmc_.mutex());
    records_[index & 1] = std::move(response);
}

Bytes SimIdentity::eepromRecord(unsigned char index) const {
    Lock lock(bmc_.mutex());
    return records_[index & 1];
}

void SimIdentity::setBoardSlotAnswers(bool answers, unsigned char slot) {
    Lock lock(bmc_.mutex());
    slotAnswers_ = answers;
    slot_ = slot;
}

bool SimIdentity::boardSlotAnswers() const {
    Lock lock(bmc_.mutex());
    return slotAnswers_;
}

Response SimIdentity::eepromVersion(const Request& request) const {
    Lock lock(bmc_.mutex());
    const Bytes& d = request.data;
    if (d.size() != eeprom::requestSize) return {cc::requestDataLengthInvalid};
    if (d[0] != qelIpmi::vendorIana[0] || d[1] != qelIpmi::vendorIana[1] ||
        d[2] != qelIpmi::vendorIana[2] || d[eeprom::requestSelector] != eeprom::selector)
        return {cc::invalidDataField};
    const unsigned char index = d[eeprom::requestIndex];
    if (index >= eeprom::records) return {cc::parameterOutOfRange};
    return records_[index];
}

Response SimIdentity::boardSlot(const Request& request) const {
    Lock lock(bmc_.mutex());
    if (!slotAnswers_) return {cc::invalidCommand};
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    return {cc::ok, slot_};
}

SimIdentity& SimBmc::identity() {
    Lock lock(mutex_);
    if (!identity_) identity_ = std::make_shared<SimIdentity>(*this);
    return *identity_;
}

void registerIdentityCommands(SimBmc& bmc) {
    SimIdentity* identity = &bmc.identity();
    bmc.setHandler(qelIpmi::netfn::oemGroup, qelIpmi::cmd::oemVersionInfo,
                   [identity](const Request& r) { return identity->eepromVersion(r); });
    bmc.setHandler(qelIpmi::netfn::oemBoard, qelIpmi::cmd::getBoardSlot,
                   [identity](const Request& r) { return identity->boardSlot(r); });
}

}  // namespace qelSim
