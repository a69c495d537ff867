// DCMI, the group extension commands of netfn 0x2C: Get Power Reading (0x02),
// mode 1 (system power statistics).
//
// Only a controller whose description gives it DCMI power management
// (dcmi-power) answers; otherwise, as on a server without it, 0xC1. The
// reading holds the description's current, minimum, maximum and average
// watts over its statistics period; the timestamp is the controller's clock.
// A request whose first byte is not the group extension 0xDC answers 0xCC,
// another mode 0xCC, a wrong length 0xC7.
#ifndef QEL_SIM_DCMI_H
#define QEL_SIM_DCMI_H

#include <cstdint>

#include "qelSimBmc.h"

namespace qelSim {

class SimDcmi {
public:
    struct Power {
        std::uint16_t current = 0;
        std::uint16_t minimum = 0;
        std::uint16_t maximum = 0;
        std::uint16_t average = 0;
        std::uint32_t periodMs = 0;
        bool active = true;
    };

    explicit SimDcmi(SimBmc& bmc);

    // Gives the controller DCMI power management with this reading.
    void setPower(const Power& power);
    // Takes it away: the command answers 0xC1.
    void removePower();
    bool hasPower() const;
    Power power() const;

    Response getPowerReading(const Request& request) const;

    // The timestamp counts from here (seconds since the epoch), as the
    // controller's other clocks do.
    static constexpr std::uint32_t epochBase = 1700000000;

private:
    SimBmc& bmc_;
    bool present_ = false;
    Power power_;
};

}  // namespace qelSim

#endif
