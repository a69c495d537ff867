#define QEL_SOURCE_NAME "qelSystemInfo"

#include "qelSystemInfo.h"

#include <sys/sysinfo.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "qelPlatform.h"

namespace qelSystemInfo {

QEL_DEFINE_ERROR_WITH_ERRNO(QelSystemInfoError)

namespace {

// The line numbers the logs have always shown for these three failures; the
// tools that read the logs match on them, so they are fixed here rather than
// taken from wherever the throw happens to stand.
constexpr unsigned int kUnameFailedLine = 43;
constexpr unsigned int kClockFailedLine = 57;
constexpr unsigned int kSysinfoFailedLine = 62;

constexpr const char* kNoTime = "00000000000000.000000+000";

[[noreturn]] void fail(const char* prefix, int errorNumber, unsigned int line) {
    throw QelSystemInfoError(std::string(prefix) + std::strerror(errorNumber) + ")",
                             QEL_SOURCE_NAME, line);
}

// CIM date-time text of a broken-down local time. The offset is written with
// the stream's plain right alignment, so the fill goes in front of a minus
// sign: -300 gives "-300" and -5 gives "0-5" behind the sign character.
std::string cimDateTime(const struct tm& local, long microseconds) {
    const long offsetMinutes = local.tm_gmtoff / 60;
    std::ostringstream out;
    out << std::setfill('0') << std::setw(4) << local.tm_year + 1900 << std::setw(2)
        << local.tm_mon + 1 << std::setw(2) << local.tm_mday << std::setw(2) << local.tm_hour
        << std::setw(2) << local.tm_min << std::setw(2) << local.tm_sec << '.' << std::setw(6)
        << microseconds << (offsetMinutes >= 0 ? '+' : '-') << std::setw(3) << offsetMinutes;
    return out.str();
}

}  // namespace

QelSystemInfo::QelSystemInfo() {
    std::memset(&unameData, 0, sizeof unameData);
    qelPlatform::Platform& host = qelPlatform::platform();

    if (host.uname(&unameData) != 0)
        fail("QelSystemInfo::QelSystemInfo(): Uname returned error (", errno, kUnameFailedLine);
    if (std::strcmp(unameData.sysname, "Linux") == 0)
        osType = kOsTypeLinux;
    else if (std::strcmp(unameData.sysname, "VMkernel") == 0)
        osType = kOsTypeVmwareEsxi;

    struct timespec now;
    if (host.clockGettime(CLOCK_REALTIME, &now) != 0)
        fail("QelSystemInfo::QelSystemInfo(): clock_gettime returned error (", errno,
             kClockFailedLine);

    struct sysinfo system;
    if (host.sysinfo(&system) != 0)
        fail("QelSystemInfo::QelSystemInfo(): sysinfo returned error (", errno,
             kSysinfoFailedLine);

    bootTime = static_cast<int64_t>(now.tv_sec) - static_cast<int64_t>(system.uptime);

    const time_t boot = static_cast<time_t>(bootTime);
    struct tm local;
    if (localtime_r(&boot, &local) != nullptr) lastBootUpTime = cimDateTime(local, 0);
}

QelSystemInfo::~QelSystemInfo() = default;

int64_t QelSystemInfo::getDateTime() {
    struct timespec now;
    if (qelPlatform::platform().clockGettime(CLOCK_REALTIME, &now) != 0) return 0;
    return static_cast<int64_t>(now.tv_sec);
}

std::string QelSystemInfo::getDateTimeStr() {
    struct timespec now;
    if (qelPlatform::platform().clockGettime(CLOCK_REALTIME, &now) != 0) return kNoTime;
    struct tm local;
    if (localtime_r(&now.tv_sec, &local) == nullptr) return kNoTime;
    return cimDateTime(local, now.tv_nsec / 1000);
}

}  // namespace qelSystemInfo
