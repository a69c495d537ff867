#include "qelSimChassis.h"

#include <ostream>
#include <stdexcept>

#include "qelSensors.h"
#include "qelSimDescription.h"

namespace qelSim {

namespace {

using Lock = std::lock_guard<std::recursive_mutex>;
namespace ch = qelSensors::chassis;

constexpr unsigned char ccOk = 0x00;
constexpr unsigned char ccRequestDataLengthInvalid = 0xC7;

}  // namespace

SimChassis::SimChassis(SimBmc& bmc) : bmc_(bmc) {}

void SimChassis::setPowerOn(bool on) {
    Lock lock(bmc_.mutex());
    powerOn_ = on;
}

bool SimChassis::powerOn() const {
    Lock lock(bmc_.mutex());
    return powerOn_;
}

void SimChassis::setPowerFaults(unsigned char bits) {
    Lock lock(bmc_.mutex());
    powerFaults_ = static_cast<unsigned char>(bits & ~ch::powerOn & 0x1F);
}

void SimChassis::setMiscState(unsigned char bits) {
    Lock lock(bmc_.mutex());
    misc_ = bits;
}

void SimChassis::setRestorePolicy(unsigned char policy) {
    Lock lock(bmc_.mutex());
    restorePolicy_ = static_cast<unsigned char>(policy & ch::restorePolicyMask);
}

void SimChassis::setPresent(bool present) {
    Lock lock(bmc_.mutex());
    if (present)
        bmc_.setHandler(ch::netfn, ch::getChassisStatus, [this](const Request& r) { return getStatus(r); });
    else
        bmc_.removeHandler(ch::netfn, ch::getChassisStatus);
}

Response SimChassis::getStatus(const Request& request) const {
    Lock lock(bmc_.mutex());
    if (!request.data.empty()) return {ccRequestDataLengthInvalid};
    const unsigned char power = static_cast<unsigned char>((powerOn_ ? ch::powerOn : 0) | powerFaults_ |
                                                           (restorePolicy_ << ch::restorePolicyShift));
    // No power event since the controller started.
    return {ccOk, power, 0x00, misc_};
}

SimChassis& SimBmc::chassis() {
    Lock lock(mutex_);
    if (!chassis_) chassis_ = std::make_shared<SimChassis>(*this);
    return *chassis_;
}

namespace {

struct Bit {
    const char* word;
    bool misc;  // the misc chassis state byte, else the power state byte
    unsigned char bit;
};
const Bit faultBits[] = {
    {"power-overload", false, ch::powerOverload}, {"interlock", false, ch::interlock},
    {"power-fault", false, ch::powerFault},       {"power-control-fault", false, ch::powerControlFault},
    {"intrusion", true, ch::intrusion},           {"front-panel-lockout", true, ch::frontPanelLockout},
    {"drive-fault", true, ch::driveFault},        {"cooling-fault", true, ch::coolingFault},
};

}  // namespace

void registerChassisCommands(SimBmc& bmc) {
    SimChassis* chassis = &bmc.chassis();
    chassis->setPresent(true);
    bmc.addKeyword("chassis-power", "chassis-power on|off: the power state Get Chassis Status answers",
                   [chassis](const std::vector<std::string>& w) {
                       if (w.size() != 1) throw std::invalid_argument("chassis-power on|off");
                       chassis->setPowerOn(parseOnOff(w[0]));
                   });
    bmc.addKeyword("chassis-faults",
                   "chassis-faults none|WORD...: the faults Get Chassis Status answers: power-overload, interlock, "
                   "power-fault, power-control-fault, intrusion, front-panel-lockout, drive-fault, cooling-fault",
                   [chassis](const std::vector<std::string>& w) {
                       if (w.empty()) throw std::invalid_argument("chassis-faults none|WORD...");
                       unsigned char power = 0;
                       unsigned char misc = 0;
                       for (const std::string& word : w) {
                           if (word == "none") continue;
                           bool known = false;
                           for (const Bit& b : faultBits) {
                               if (word != b.word) continue;
                               (b.misc ? misc : power) |= b.bit;
                               known = true;
                           }
                           if (!known) throw std::invalid_argument("'" + word + "' is no chassis fault");
                       }
                       chassis->setPowerFaults(power);
                       chassis->setMiscState(misc);
                   });
    bmc.addKeyword("chassis", "chassis known|unknown: whether Get Chassis Status exists (0xC1)",
                   [chassis](const std::vector<std::string>& w) {
                       if (w.size() != 1 || (w[0] != "known" && w[0] != "unknown"))
                           throw std::invalid_argument("chassis known|unknown");
                       chassis->setPresent(w[0] == "known");
                   });
    bmc.addDumpSection("chassis", [chassis](std::ostream& out) {
        Request r;
        const Response status = chassis->getStatus(r);
        out << "chassis-power " << (chassis->powerOn() ? "on" : "off") << '\n';
        out << "chassis-status " << hexText(status) << '\n';
    });
}

}  // namespace qelSim
