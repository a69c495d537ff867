// What qeld and qelctl say when no IPMI controller answers: every device path
// tried, each with the system's reason, and what to do about it, in one line.
// Both tools print the same text, so an administrator who meets it in either
// gets the same advice. Nothing is sent to a device that opens.
#ifndef QEL_NO_CONTROLLER_H
#define QEL_NO_CONTROLLER_H

#include <string>

#include "qelIpmiDevice.h"

namespace qelTool {

// Opens the library's device paths one after the other through `provider`
// and closes the first that opens. "" when one opened; else every path with
// the reason it did not ("/dev/ipmi0: No such file or directory, ...").
[[nodiscard]] std::string probeDevices(qelIpmi::QelIpmiDeviceProvider& provider);

// The line for `problems` (what probeDevices returned, not empty):
// - the kernel's device (`socketPath` empty): "no IPMI controller: PROBLEMS;
//   load the IPMI drivers (ipmi_si, ipmi_devintf) or use --simulate";
// - a simulated controller process at `socketPath`: "no IPMI controller: no
//   controller at SOCKET (PROBLEMS)": nothing to load there.
[[nodiscard]] std::string noControllerText(const std::string& problems, const std::string& socketPath);

}  // namespace qelTool

#endif
