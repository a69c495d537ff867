#include "qelSystemInfo.h"

#include <gtest/gtest.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <string>
#include <type_traits>

#include "qelPlatform.h"

using qelSystemInfo::QelSystemInfo;
using qelSystemInfo::QelSystemInfoError;

namespace {

// A host with a chosen kernel name, clock and uptime; each call can be made to
// fail with an error number.
class FakeHost : public qelPlatform::Platform {
public:
    std::string sysname = "Linux";
    std::string release = "6.1.0-test";
    struct timespec clock = {0, 0};
    long uptime = 0;
    int unameErrno = 0;
    int clockErrno = 0;
    int sysinfoErrno = 0;
    mutable int clocksAsked = 0;
    mutable clockid_t lastClock = -1;

    int uname(struct utsname* out) const override {
        if (unameErrno != 0) return failWith(unameErrno);
        std::memset(out, 0, sizeof *out);
        std::strncpy(out->sysname, sysname.c_str(), sizeof out->sysname - 1);
        std::strncpy(out->nodename, "testhost", sizeof out->nodename - 1);
        std::strncpy(out->release, release.c_str(), sizeof out->release - 1);
        std::strncpy(out->version, "#1 SMP", sizeof out->version - 1);
        std::strncpy(out->machine, "x86_64", sizeof out->machine - 1);
        return 0;
    }
    int clockGettime(clockid_t id, struct timespec* out) const override {
        ++clocksAsked;
        lastClock = id;
        if (clockErrno != 0) return failWith(clockErrno);
        *out = clock;
        return 0;
    }
    int sysinfo(struct sysinfo* out) const override {
        if (sysinfoErrno != 0) return failWith(sysinfoErrno);
        std::memset(out, 0, sizeof *out);
        out->uptime = uptime;
        return 0;
    }

private:
    static int failWith(int number) {
        errno = number;
        return -1;
    }
};

// Seconds since 1970 of a UTC calendar time.
time_t utc(int year, int month, int day, int hour, int minute, int second) {
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    return timegm(&t);
}

class SystemInfoTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tz = std::getenv("TZ");
        hadTz_ = tz != nullptr;
        if (hadTz_) savedTz_ = tz;
        previous_ = qelPlatform::setPlatform(&host);
    }
    void TearDown() override {
        qelPlatform::setPlatform(previous_);
        if (hadTz_)
            setenv("TZ", savedTz_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

    // Time zones are POSIX TZ strings, so the tests need no zone database.
    static void useZone(const char* tz) {
        setenv("TZ", tz, 1);
        tzset();
    }

    // Boots the fake host at `boot` and lets `upFor` seconds pass.
    void bootAt(time_t boot, long upFor, long nanoseconds = 0) {
        host.uptime = upFor;
        host.clock.tv_sec = boot + upFor;
        host.clock.tv_nsec = nanoseconds;
    }

    FakeHost host;

private:
    qelPlatform::Platform* previous_ = nullptr;
    bool hadTz_ = false;
    std::string savedTz_;
};

TEST_F(SystemInfoTest, LinuxKernelGivesOsType36) {
    useZone("UTC0");
    bootAt(utc(2026, 1, 5, 7, 8, 9), 100);
    QelSystemInfo info;
    EXPECT_EQ(info.osType, 36u);
    EXPECT_STREQ(info.unameData.sysname, "Linux");
    EXPECT_STREQ(info.unameData.release, "6.1.0-test");
    EXPECT_STREQ(info.unameData.nodename, "testhost");
}

TEST_F(SystemInfoTest, VmkernelGivesOsType104) {
    host.sysname = "VMkernel";
    bootAt(utc(2026, 1, 5, 7, 8, 9), 100);
    QelSystemInfo info;
    EXPECT_EQ(info.osType, 104u);
}

TEST_F(SystemInfoTest, OtherKernelConstructsWithOsType0) {
    host.sysname = "FreeBSD";
    bootAt(utc(2026, 1, 5, 7, 8, 9), 100);
    QelSystemInfo info;
    EXPECT_EQ(info.osType, 0u);
    EXPECT_STREQ(info.unameData.sysname, "FreeBSD");
}

TEST_F(SystemInfoTest, BootTimeIsTheRealTimeClockMinusTheUptime) {
    useZone("UTC0");
    const time_t boot = utc(2026, 1, 5, 7, 8, 9);
    bootAt(boot, 86400 * 3 + 17, 999999999);
    QelSystemInfo info;
    EXPECT_EQ(info.bootTime, static_cast<int64_t>(boot));
    EXPECT_EQ(host.lastClock, CLOCK_REALTIME);
    // The boot text never carries microseconds, whatever the clock said.
    EXPECT_EQ(info.lastBootUpTime, "20260105070809.000000+000");
}

TEST_F(SystemInfoTest, BootInAZoneAtUtcPlusOneCarriesPlus060) {
    useZone("CET-1");
    bootAt(utc(2026, 1, 5, 6, 8, 9), 5000, 250000000);  // 07:08:09 local
    QelSystemInfo info;
    EXPECT_EQ(info.lastBootUpTime, "20260105070809.000000+060");
    EXPECT_EQ(info.lastBootUpTime.size(), 25u);
}

TEST_F(SystemInfoTest, BootInAZoneAtUtcMinusFiveCarriesTwoMinusSigns) {
    useZone("EST5");
    bootAt(utc(2026, 1, 5, 12, 8, 9), 5000);  // 07:08:09 local
    QelSystemInfo info;
    EXPECT_EQ(info.lastBootUpTime, "20260105070809.000000--300");
}

TEST_F(SystemInfoTest, SmallNegativeOffsetIsPaddedInFrontOfItsMinusSign) {
    useZone("ABC0:05");  // five minutes west of UTC
    bootAt(utc(2026, 1, 5, 7, 13, 9), 60);
    QelSystemInfo info;
    EXPECT_EQ(info.lastBootUpTime, "20260105070809.000000-0-5");
}

TEST_F(SystemInfoTest, SmallPositiveOffsetIsZeroPadded) {
    useZone("ABC-0:05");
    bootAt(utc(2026, 1, 5, 7, 3, 9), 60);
    QelSystemInfo info;
    EXPECT_EQ(info.lastBootUpTime, "20260105070809.000000+005");
}

TEST_F(SystemInfoTest, YearMonthAndDayAreZeroPadded) {
    useZone("UTC0");
    bootAt(utc(1999, 3, 4, 0, 0, 1), 10);
    QelSystemInfo info;
    EXPECT_EQ(info.lastBootUpTime, "19990304000001.000000+000");
}

TEST_F(SystemInfoTest, CurrentTimeTextCarriesMicrosecondsFromNanoseconds) {
    useZone("CET-1");
    bootAt(utc(2026, 1, 5, 6, 8, 9), 100);
    QelSystemInfo info;
    host.clock.tv_sec = utc(2026, 1, 5, 11, 0, 0);  // 12:00:00 local
    host.clock.tv_nsec = 123456789;
    EXPECT_EQ(info.getDateTimeStr(), "20260105120000.123456+060");
    host.clock.tv_nsec = 999;
    EXPECT_EQ(info.getDateTimeStr(), "20260105120000.000000+060");
    useZone("EST5");
    host.clock.tv_nsec = 1000;
    EXPECT_EQ(info.getDateTimeStr(), "20260105060000.000001--300");
}

TEST_F(SystemInfoTest, CurrentTimeIsWholeSecondsOfTheRealTimeClock) {
    bootAt(utc(2026, 1, 5, 6, 8, 9), 100);
    QelSystemInfo info;
    host.clock = {1767600000, 999999999};
    host.lastClock = -1;
    EXPECT_EQ(info.getDateTime(), 1767600000);
    EXPECT_EQ(host.lastClock, CLOCK_REALTIME);
}

TEST_F(SystemInfoTest, UnreadableClockGivesZeroAndTheZeroText) {
    bootAt(utc(2026, 1, 5, 6, 8, 9), 100);
    QelSystemInfo info;
    host.clockErrno = EINVAL;
    EXPECT_EQ(info.getDateTime(), 0);
    EXPECT_EQ(info.getDateTimeStr(), "00000000000000.000000+000");
}

// The three construction failures: fixed texts, strerror of the error number,
// the file name and the line numbers the logs have always shown.
TEST_F(SystemInfoTest, FailingUnameThrowsWithLine43) {
    host.unameErrno = EPERM;
    try {
        QelSystemInfo info;
        FAIL() << "no exception";
    } catch (const QelSystemInfoError& e) {
        EXPECT_EQ(e.errorText, std::string("QelSystemInfo::QelSystemInfo(): Uname returned error (") +
                                   std::strerror(EPERM) + ")");
        EXPECT_EQ(e.fileName, "qelSystemInfo");
        EXPECT_EQ(e.lineNumber, 43u);
        EXPECT_STREQ(e.what(), "");
    }
}

TEST_F(SystemInfoTest, FailingClockThrowsWithLine57) {
    host.clockErrno = EINVAL;
    try {
        QelSystemInfo info;
        FAIL() << "no exception";
    } catch (const QelSystemInfoError& e) {
        EXPECT_EQ(e.errorText,
                  std::string("QelSystemInfo::QelSystemInfo(): clock_gettime returned error (") +
                      std::strerror(EINVAL) + ")");
        EXPECT_EQ(e.fileName, "qelSystemInfo");
        EXPECT_EQ(e.lineNumber, 57u);
    }
}

TEST_F(SystemInfoTest, FailingSysinfoThrowsWithLine62) {
    host.sysinfoErrno = EFAULT;
    try {
        QelSystemInfo info;
        FAIL() << "no exception";
    } catch (const QelSystemInfoError& e) {
        EXPECT_EQ(e.errorText,
                  std::string("QelSystemInfo::QelSystemInfo(): sysinfo returned error (") +
                      std::strerror(EFAULT) + ")");
        EXPECT_EQ(e.fileName, "qelSystemInfo");
        EXPECT_EQ(e.lineNumber, 62u);
    }
}

TEST(SystemInfoError, HasTheFamilyShapeWithTheNumberForm) {
    static_assert(std::is_base_of<std::logic_error, QelSystemInfoError>::value, "");
    const QelSystemInfoError plain("message", "f", 7);
    EXPECT_EQ(plain.errorText, "message");
    EXPECT_STREQ(plain.what(), "");
    const QelSystemInfoError numbered("abc", "f", 7, 5);
    EXPECT_EQ(numbered.errorText, "5bc");
    EXPECT_EQ(QelSystemInfoError("abc", "f", 7, 12345).errorText, "12345");
    const QelSystemInfoError copy(numbered);
    EXPECT_EQ(copy.fileName, "f");
    EXPECT_EQ(copy.lineNumber, 7u);
    EXPECT_EQ(copy.errorText, "5bc");
}

TEST(SystemInfoOnThisHost, RealCallsGiveABootTimeInThePast) {
    QelSystemInfo info;
    struct utsname names;
    ASSERT_EQ(::uname(&names), 0);
    if (std::strcmp(names.sysname, "Linux") == 0) {
        EXPECT_EQ(info.osType, 36u);
    }
    EXPECT_LE(info.bootTime, static_cast<int64_t>(::time(nullptr)));
    EXPECT_GT(info.bootTime, 0);
    EXPECT_TRUE(std::regex_match(info.lastBootUpTime,
                                 std::regex(R"(\d{14}\.000000[+-](\d{3}|-\d{3}|0-\d|-\d\d))")))
        << info.lastBootUpTime;
    EXPECT_EQ(info.getDateTimeStr().size(), info.lastBootUpTime.size());
}

}  // namespace
