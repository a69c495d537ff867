// The chassis commands: Get Chassis Status (0x00/0x01).
//
// The controller answers the power state, the last power event (none) and
// the misc chassis state from the description: power on or off, the restore
// policy, and the faults a monitoring tool looks at (power fault, cooling
// fault, drive fault, intrusion). The front panel byte is left out, as many
// controllers do.
#ifndef QEL_SIM_CHASSIS_H
#define QEL_SIM_CHASSIS_H

#include "qelSimBmc.h"

namespace qelSim {

class SimChassis {
public:
    explicit SimChassis(SimBmc& bmc);

    void setPowerOn(bool on);
    bool powerOn() const;
    // Bits of the power state byte other than power on (qelSensors::chassis).
    void setPowerFaults(unsigned char bits);
    // Bits of the misc chassis state byte (qelSensors::chassis).
    void setMiscState(unsigned char bits);
    void setRestorePolicy(unsigned char policy);  // 0..3
    // Whether the controller knows the command (unknown: 0xC1).
    void setPresent(bool present);

    Response getStatus(const Request& request) const;

private:
    SimBmc& bmc_;
    bool powerOn_ = true;
    unsigned char powerFaults_ = 0;
    unsigned char misc_ = 0;
    unsigned char restorePolicy_ = 2;  // always power on
};

}  // namespace qelSim

#endif
