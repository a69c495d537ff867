// Facts about the running kernel and the host's boot time.
//
// A QelSystemInfo reads, once at construction, the kernel identification
// (uname), an operating-system type code and the boot time (real-time clock
// minus the sysinfo uptime), the latter also as CIM date-time text. Two
// further operations give the current time as seconds and as CIM date-time
// text; they never throw and may be called from any thread (localtime_r).
// All host calls go through the platform seam.
//
// CIM date-time text: yyyymmddhhmmss.uuuuuu, a sign, and the local offset from
// UTC in minutes in a zero-filled field of width 3, e.g.
// "20260105070809.000000+060". A negative offset keeps its own minus sign
// inside the field, behind the sign character: "--300" for UTC-5 and "-0-5"
// for five minutes west; the readers of these texts expect exactly that.
#ifndef QEL_SYSTEM_INFO_H
#define QEL_SYSTEM_INFO_H

#include <sys/utsname.h>

#include <cstdint>
#include <string>

#include "qelError.h"
#include "qelExport.h"

namespace qelSystemInfo {

// A failing uname, clock_gettime or sysinfo during construction. The message
// carries strerror of the error number; the four-argument form exists for the
// family's shape.
QEL_DECLARE_ERROR_WITH_ERRNO(QelSystemInfoError);

class QEL_EXPORT QelSystemInfo {
public:
    // The CIM operating-system type codes this agent reports.
    static constexpr uint32_t kOsTypeLinux = 36;
    static constexpr uint32_t kOsTypeVmwareEsxi = 104;

    // 36 for "Linux", 104 for "VMkernel", otherwise 0.
    uint32_t osType = 0;
    struct utsname unameData;
    // The boot time as CIM date-time text, microseconds 000000.
    std::string lastBootUpTime;
    // The boot time in seconds since 1970: the clock minus the uptime.
    int64_t bootTime = 0;

    // Throws QelSystemInfoError when uname, clock_gettime or sysinfo fails.
    QelSystemInfo();
    virtual ~QelSystemInfo();

    // The current time in whole seconds; 0 if the clock cannot be read.
    [[nodiscard]] int64_t getDateTime();
    // The current local time as CIM date-time text; if the clock cannot be
    // read, "00000000000000.000000+000".
    [[nodiscard]] std::string getDateTimeStr();
};

}  // namespace qelSystemInfo

#endif
