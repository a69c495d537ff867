// The standard System Info Parameters: Set (0x06/0x58) and Get (0x06/0x59).
//
// Parameters 1 to 5 (system firmware version, system name, primary OS name,
// OS name, present OS version) are strings of up to 255 bytes, written and
// read in blocks: block 0 holds the encoding, the total length and the first
// 14 bytes, every later block 16 bytes. Parameter 0 (set in progress) takes
// a state byte. The controller behaves as common BMC firmware does:
// - a parameter never set answers 0xCB on Get;
// - a later block is refused (0xCC) when block 0 was never written or the
//   block lies wholly behind the length block 0 announced;
// - an encoding above 2 is refused (0xCC); a request of the wrong length
//   answers 0xC7; any other parameter 0x80.
// A test can make the controller not know the commands at all (0xC1) or not
// support one parameter (0x80).
#ifndef QEL_SIM_SYSTEM_INFO_H
#define QEL_SIM_SYSTEM_INFO_H

#include <map>
#include <optional>
#include <set>
#include <string>

#include "qelSimBmc.h"

namespace qelSim {

class SimSystemInfo {
public:
    explicit SimSystemInfo(SimBmc& bmc);

    // The string a parameter holds (its announced length), if it was set.
    std::optional<std::string> text(unsigned char parameter) const;
    void setText(unsigned char parameter, const std::string& text);
    // Whether the controller knows the two commands (unknown: 0xC1).
    void setKnown(bool known);
    bool known() const { return known_; }
    // A parameter answered 0x80.
    void setUnsupported(unsigned char parameter, bool unsupported);

    Response set(const Request& request);
    Response get(const Request& request) const;

    static constexpr unsigned char firstString = 1;
    static constexpr unsigned char lastString = 5;
    static constexpr unsigned int maximumLength = 255;

private:
    struct Value {
        unsigned char encoding = 0;
        unsigned int length = 0;
        std::string bytes;  // maximumLength + 14 bytes, as written
    };
    bool supported(unsigned char parameter) const;

    SimBmc& bmc_;
    bool known_ = true;
    std::set<unsigned char> unsupported_;
    std::map<unsigned char, Value> values_;
    unsigned char setInProgress_ = 0;
};

}  // namespace qelSim

#endif
