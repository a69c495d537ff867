// Description keywords and state-dump sections for the controller's models
// that had none (watchdog, configuration space, FRU/PNI, LAN), a readable
// summary of the recorded traffic, and the default controller.
//
// Keywords (SimBmc::keywords() lists them with their usage):
//   watchdog-state B0..B7        the watchdog as the 8 bytes of a Get answer
//   watchdog-pretimeout INT SEC  only the pre-timeout interrupt and interval
//                                (a timer never set up becomes use 4); the
//                                agent keeps them when it programs the timer,
//                                so its reset interval shrinks (tests use
//                                this for short loop periods)
//   soft-watchdog on|off SECONDS configuration-space watchdog variables
//   confspace-var ID BYTE...     a variable's bytes (ID and bytes in hex)
//   confspace-text ID TEXT...    a variable's text
//   confspace-remove ID          the variable is not there (0x80)
//   confspace-fail ID CC         every access to ID answers CC
//   confspace-heal ID            back to normal answers
//   pni-nics MAC|host...|none    PNI FRU: one adapter, one port per NIC
//   nic-ports MAC|host...        the board's ports 1..n and the PNI FRU
//   lan-channel N on|off         a LAN channel with default settings, or none
// "host" stands for the MAC of the next interface of the host the description
// is applied on (hostNicMacs()).
//
// Dump sections: [traffic] (requests per command, by name), [watchdog],
// [confspace], [pni], [lan]; each line is "key value...".
#ifndef QEL_SIM_MODEL_DESCRIPTIONS_H
#define QEL_SIM_MODEL_DESCRIPTIONS_H

#include <array>
#include <string>
#include <vector>

#include "qelSimBmc.h"

namespace qelSim {

using MacBytes = std::array<unsigned char, 6>;

// The MACs of the host's interfaces in the order "host" takes them: those
// with an IPv4 address first, then the rest, each group by interface index;
// loopback and all-zero MACs never. Empty when the host has none.
std::vector<MacBytes> hostNicMacs();

// The text of sim/descriptions/default.conf, built into the library.
const std::string& defaultControllerDescription();
// Applies it to `bmc` (the source name in errors is "default.conf").
void applyDefaultController(SimBmc& bmc);

// A readable name of a command ("Reset Watchdog Timer"), or "" when unknown.
std::string commandName(unsigned char netFn, unsigned char cmd);

}  // namespace qelSim

#endif
