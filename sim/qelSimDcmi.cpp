#include "qelSimDcmi.h"

#include <ostream>
#include <stdexcept>

#include "qelSensors.h"
#include "qelSimDescription.h"

namespace qelSim {

namespace {

using Lock = std::lock_guard<std::recursive_mutex>;
namespace dc = qelSensors::dcmi;

constexpr unsigned char ccOk = 0x00;
constexpr unsigned char ccRequestDataLengthInvalid = 0xC7;
constexpr unsigned char ccInvalidDataField = 0xCC;

void putLe16(Response& r, unsigned int v) {
    r.push_back(static_cast<unsigned char>(v & 0xFF));
    r.push_back(static_cast<unsigned char>((v >> 8) & 0xFF));
}
void putLe32(Response& r, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) r.push_back(static_cast<unsigned char>((v >> (8 * i)) & 0xFF));
}

}  // namespace

SimDcmi::SimDcmi(SimBmc& bmc) : bmc_(bmc) {}

void SimDcmi::setPower(const Power& power) {
    Lock lock(bmc_.mutex());
    power_ = power;
    if (!present_)
        bmc_.setHandler(dc::netfn, dc::getPowerReading, [this](const Request& r) { return getPowerReading(r); });
    present_ = true;
}

void SimDcmi::removePower() {
    Lock lock(bmc_.mutex());
    present_ = false;
    bmc_.removeHandler(dc::netfn, dc::getPowerReading);
}

bool SimDcmi::hasPower() const {
    Lock lock(bmc_.mutex());
    return present_;
}

SimDcmi::Power SimDcmi::power() const {
    Lock lock(bmc_.mutex());
    return power_;
}

Response SimDcmi::getPowerReading(const Request& request) const {
    Lock lock(bmc_.mutex());
    const Bytes& d = request.data;
    if (d.size() != dc::requestSize) return {ccRequestDataLengthInvalid};
    if (d[0] != dc::groupExtension || d[1] != dc::modeSystemPower) return {ccInvalidDataField};
    Response r = {ccOk, dc::groupExtension};
    putLe16(r, power_.current);
    putLe16(r, power_.minimum);
    putLe16(r, power_.maximum);
    putLe16(r, power_.average);
    putLe32(r, epochBase + static_cast<std::uint32_t>(bmc_.nowMs() / 1000));
    putLe32(r, power_.periodMs);
    r.push_back(power_.active ? dc::measurementActive : 0x00);
    return r;
}

SimDcmi& SimBmc::dcmi() {
    Lock lock(mutex_);
    if (!dcmi_) dcmi_ = std::make_shared<SimDcmi>(*this);
    return *dcmi_;
}

void registerDcmiCommands(SimBmc& bmc) {
    SimDcmi* dcmi = &bmc.dcmi();
    bmc.addKeyword("dcmi-power",
                   "dcmi-power CURRENT MIN MAX AVERAGE PERIOD-MS [inactive] | dcmi-power off: DCMI power management "
                   "and its power reading in watts (without it DCMI Get Power Reading answers 0xC1)",
                   [dcmi](const std::vector<std::string>& w) {
                       if (w.size() == 1 && w[0] == "off") {
                           dcmi->removePower();
                           return;
                       }
                       if (w.size() != 5 && !(w.size() == 6 && w[5] == "inactive"))
                           throw std::invalid_argument("dcmi-power CURRENT MIN MAX AVERAGE PERIOD-MS [inactive] | off");
                       SimDcmi::Power p;
                       p.current = static_cast<std::uint16_t>(parseNumber(w[0], 0xFFFF));
                       p.minimum = static_cast<std::uint16_t>(parseNumber(w[1], 0xFFFF));
                       p.maximum = static_cast<std::uint16_t>(parseNumber(w[2], 0xFFFF));
                       p.average = static_cast<std::uint16_t>(parseNumber(w[3], 0xFFFF));
                       p.periodMs = static_cast<std::uint32_t>(parseNumber(w[4], 0xFFFFFFFFu));
                       p.active = w.size() == 5;
                       dcmi->setPower(p);
                   });
    bmc.addDumpSection("dcmi", [dcmi](std::ostream& out) {
        if (!dcmi->hasPower()) {
            out << "dcmi-power off\n";
            return;
        }
        const SimDcmi::Power p = dcmi->power();
        out << "dcmi-power " << p.current << ' ' << p.minimum << ' ' << p.maximum << ' ' << p.average << ' '
            << p.periodMs << (p.active ? "" : " inactive") << '\n';
    });
}

}  // namespace qelSim
