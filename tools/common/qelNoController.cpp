#include "qelNoController.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "qelIpmi.h"

namespace qelTool {

std::string probeDevices(qelIpmi::QelIpmiDeviceProvider& provider) {
    std::string problems;
    for (const char* path : qelIpmi::QelIpmi::devicePaths) {
        errno = 0;
        if (provider.open(path, O_RDWR)) return "";
        const int error = errno;
        if (!problems.empty()) problems += ", ";
        problems += std::string(path) + ": " + std::strerror(error);
    }
    return problems;
}

std::string noControllerText(const std::string& problems, const std::string& socketPath) {
    if (!socketPath.empty()) return "no IPMI controller: no controller at " + socketPath + " (" + problems + ")";
    // The message handler (ipmi_devintf) makes the device node; a system
    // interface driver (ipmi_si) finds the controller behind it.
    return "no IPMI controller: " + problems + "; load the IPMI drivers (ipmi_si, ipmi_devintf) or use --simulate";
}

}  // namespace qelTool
