// The firmware tables of the simulated blade. A simulated controller is a
// blade's controller, and the agent learns that the machine belongs to the
// ALDERCROFT blade line (and so reports its OS status to the management
// board) from SMBIOS, not from the controller. So with a simulated controller
// qeld shows the agent the blade's own SMBIOS tables in place of the host's
// /dev/mem: an entry point at the start of an in-memory file, the structure
// table behind it.
#ifndef QELD_BLADE_SMBIOS_H
#define QELD_BLADE_SMBIOS_H

#include <string>

namespace qeld {

// A path that reads like a physical-memory image holding the simulated
// blade's SMBIOS 2.8 tables (System Information with family "ALDERCROFT", a
// System Enclosure with the chassis' serial number). It stays valid for the
// life of the process and its children. Throws std::runtime_error.
std::string simulatedBladeSmbios();

// A path that reads as `image` (an in-memory file kept for the life of the
// process and its children). Throws std::runtime_error.
std::string memoryImageFile(const std::string& image, const char* name);

}  // namespace qeld

#endif
