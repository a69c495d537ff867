// qel-vm-probe: the library's view of a real machine, for the VM test tier.
//
// Runs inside the guest, on the kernel's IPMI driver and the firmware's
// SMBIOS table, and prints what the library sees in a form the guest's shell
// scripts compare with ipmitool and dmidecode. Every subcommand prints
// "key=value" lines (or plain hex bytes) and exits 0 when it could ask, 1
// when the library failed, 2 on a usage error.
//
//   qel-vm-probe raw NETFN CMD [BYTE...]   one exchange through QelIpmi: the
//                                          completion code, then the data, hex
//   qel-vm-probe identity                  QelIpmiDeviceIdData's fields
//   qel-vm-probe watchdog get              QelIpmiWatchdog's snapshot (SMS/OS)
//   qel-vm-probe watchdog set ACTION INTERVAL_S COUNTDOWN_100MS DONTSTOP
//   qel-vm-probe watchdog reset | stop
//   qel-vm-probe watchdog keepalive SECONDS PERIOD_MS
//                                          resets on time for SECONDS
//   qel-vm-probe smbios                    System Information and Enclosure
//                                          strings through QelSmbios
//   qel-vm-probe blade                     QelBladeInfo(0xff, true)'s decision
//   qel-vm-probe bench N [open]            N Get Device ID round trips through
//                                          one QelIpmi (or one per exchange)
//   qel-vm-probe time N PROGRAM [ARG...]   runs PROGRAM N times, mean wall time
//
// With --firmware-tables first, the SMBIOS reader is shown the firmware's
// tables from /sys/firmware/dmi/tables (qelHostFacts::firmwareTablesImage)
// in place of /dev/mem, as qeld shows them where /dev/mem is refused.
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "qelBladeInfo.h"
#include "qelHostFacts.h"
#include "qelIpmi.h"
#include "qelIpmiWatchdog.h"
#include "qelSmbios.h"

namespace {

using qelIpmi::QelIpmi;
using qelIpmi::QelIpmi_request_msg;
using qelIpmi::QelIpmiWatchdog;

int usage() {
    std::fputs(
        "usage: qel-vm-probe raw NETFN CMD [BYTE...] | identity | smbios | blade\n"
        "       qel-vm-probe watchdog get | reset | stop | set ACTION INTERVAL_S COUNTDOWN_100MS DONTSTOP\n"
        "       qel-vm-probe watchdog keepalive SECONDS PERIOD_MS\n"
        "       qel-vm-probe bench N [open] | time N PROGRAM [ARG...]\n",
        stderr);
    return 2;
}

bool parseNumber(const char* text, unsigned long max, unsigned long& out) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || value > max) return false;
    out = value;
    return true;
}

double nowSeconds() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void printHex(const unsigned char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) std::printf(i ? " %02x" : "%02x", bytes[i]);
    std::printf("\n");
}

// ---------------------------------------------------------------- raw

int raw(int argc, char** argv) {
    if (argc < 2) return usage();
    unsigned long netFn = 0, cmd = 0;
    if (!parseNumber(argv[0], 0x3f, netFn) || !parseNumber(argv[1], 0xff, cmd)) return usage();
    std::vector<unsigned char> data;
    for (int i = 2; i < argc; ++i) {
        unsigned long b = 0;
        if (!parseNumber(argv[i], 0xff, b)) return usage();
        data.push_back(static_cast<unsigned char>(b));
    }
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmi_request_msg msg(static_cast<unsigned char>(netFn), static_cast<unsigned char>(cmd),
                            static_cast<unsigned short>(data.size()), data.data());
    if (!ipmi.sendCmd(msg)) {
        std::fprintf(stderr, "qel-vm-probe: no response\n");
        return 1;
    }
    if (msg.responseLength == 0) {
        std::fprintf(stderr, "qel-vm-probe: response without data\n");
        return 1;
    }
    printHex(msg.responseData, msg.responseLength);
    return 0;
}

// ---------------------------------------------------------------- identity

int identity() {
    qelIpmi::QelIpmiDeviceIdData id;
    std::printf("manufacturerId=%s\n", id.manufacturerId.c_str());
    std::printf("productId=%s\n", id.productId.c_str());
    std::printf("versionString=%s\n", id.versionString.c_str());
    std::printf("firmwareVersion=%s\n", id.firmwareVersion.c_str());
    std::printf("firmwareRevision=0x%04x\n", id.firmwareRevision);
    std::printf("oemFeatureAvailable=%d\n", id.oemFeatureAvailable ? 1 : 0);
    std::printf("ipmiAvailable=%d\n", id.ipmiAvailable ? 1 : 0);
    std::printf("acSystem=%d\n", id.acSystem ? 1 : 0);
    std::printf("guid=%s\n", id.guid.text.c_str());
    return 0;
}

// ---------------------------------------------------------------- watchdog

void printWatchdog(const QelIpmiWatchdog& wd) {
    std::printf("timerUse=%d\n", static_cast<int>(wd.timerUse));
    std::printf("dontLog=%d\n", wd.dontLog ? 1 : 0);
    std::printf("expired=%d\n", wd.expired ? 1 : 0);
    std::printf("running=%d\n", wd.running ? 1 : 0);
    std::printf("preTimeoutInterrupt=%d\n", static_cast<int>(wd.preTimeoutInterrupt));
    std::printf("timeoutAction=%d\n", static_cast<int>(wd.timeoutAction));
    std::printf("preTimeoutInterval=%u\n", static_cast<unsigned>(wd.preTimeoutInterval));
    std::printf("initialCountdown=%u\n", static_cast<unsigned>(wd.initialCountdown));
    std::printf("presentCountdown=%u\n", static_cast<unsigned>(wd.presentCountdown));
}

int watchdog(int argc, char** argv) {
    if (argc < 1) return usage();
    const std::string op = argv[0];
    QelIpmiWatchdog wd(QelIpmiWatchdog::TIMER_USE_SMS_OS);
    if (op == "get") {
        printWatchdog(wd);
        return 0;
    }
    if (op == "reset") {
        const bool ok = wd.resetTimer();
        std::printf("result=%d\n", ok ? 1 : 0);
        return ok ? 0 : 1;
    }
    if (op == "stop") {
        const bool ok = wd.stopTimer();
        std::printf("result=%d\n", ok ? 1 : 0);
        return ok ? 0 : 1;
    }
    if (op == "set") {
        unsigned long action = 0, interval = 0, countdown = 0, dontStop = 0;
        if (argc != 5 || !parseNumber(argv[1], 7, action) || !parseNumber(argv[2], 0xff, interval) ||
            !parseNumber(argv[3], 0xffff, countdown) || !parseNumber(argv[4], 1, dontStop))
            return usage();
        wd.timeoutAction = static_cast<int>(action);
        wd.preTimeoutInterrupt = 0;
        wd.preTimeoutInterval = static_cast<unsigned char>(interval);
        wd.initialCountdown = static_cast<unsigned short>(countdown);
        const bool ok = wd.set(dontStop != 0);
        std::printf("result=%d\n", ok ? 1 : 0);
        return ok ? 0 : 1;
    }
    if (op == "keepalive") {
        // Resets the timer every PERIOD_MS for SECONDS, as the agent's loop
        // does, and reports how many resets the controller took.
        unsigned long seconds = 0, periodMs = 0;
        if (argc != 3 || !parseNumber(argv[1], 3600, seconds) || !parseNumber(argv[2], 60000, periodMs) ||
            periodMs == 0)
            return usage();
        const double end = nowSeconds() + static_cast<double>(seconds);
        unsigned resets = 0, failures = 0;
        while (nowSeconds() < end) {
            QelIpmiWatchdog each(QelIpmiWatchdog::TIMER_USE_SMS_OS);
            if (each.resetTimer())
                ++resets;
            else
                ++failures;
            usleep(static_cast<useconds_t>(periodMs * 1000));
        }
        std::printf("resets=%u\nfailures=%u\n", resets, failures);
        return failures == 0 ? 0 : 1;
    }
    return usage();
}

// ---------------------------------------------------------------- smbios

void printString(const char* prefix, qelSmbios::SmbiosStructHeader* entry, unsigned offset,
                 const char* name) {
    const unsigned char* formatted = reinterpret_cast<const unsigned char*>(entry);
    const unsigned number = offset < entry->length ? formatted[offset] : 0;
    std::printf("%s.%s.index=%u\n", prefix, name, number);
    std::printf("%s.%s=%s\n", prefix, name,
                qelSmbios::QelSmbios::getSmbiosString(entry, static_cast<unsigned char>(number)));
}

int smbios() {
    qelSmbios::QelSmbios table;
    std::printf("systems=%u\n", table.getEntryNumber(qelSmbios::SystemInformation));
    std::printf("enclosures=%u\n", table.getEntryNumber(qelSmbios::SystemEnclosure));
    if (auto* sys = table.getFirstEntry(qelSmbios::SystemInformation)) {
        printString("system", sys, 0x04, "manufacturer");
        printString("system", sys, 0x05, "product");
        printString("system", sys, 0x06, "version");
        printString("system", sys, 0x07, "serial");
        printString("system", sys, 0x19, "sku");
        printString("system", sys, 0x1A, "family");
    }
    if (auto* enc = table.getFirstEntry(qelSmbios::SystemEnclosure)) {
        printString("chassis", enc, 0x04, "manufacturer");
        printString("chassis", enc, 0x06, "version");
        printString("chassis", enc, 0x07, "serial");
        printString("chassis", enc, 0x08, "asset");
    }
    return 0;
}

// ---------------------------------------------------------------- blade

int blade() {
    QelBladeInfo info(QelBladeInfo::unknownSlot, true);
    std::printf("bladeSystem=%d\n", info.bladeSystem ? 1 : 0);
    std::printf("acSystem=%d\n", info.acSystem ? 1 : 0);
    return 0;
}

// ---------------------------------------------------------------- bench

int bench(int argc, char** argv) {
    unsigned long count = 0;
    if (argc < 1 || !parseNumber(argv[0], 1000000, count)) return usage();
    const bool openEach = argc > 1 && std::strcmp(argv[1], "open") == 0;
    unsigned failures = 0;
    const double start = nowSeconds();
    if (openEach) {
        for (unsigned long i = 0; i < count; ++i) {
            QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
            QelIpmi_request_msg msg(0x06, 0x01, 0, nullptr);
            if (!ipmi.sendCmd(msg) || msg.responseLength == 0 || msg.responseData[0] != 0) ++failures;
        }
    } else {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        QelIpmi_request_msg msg(0x06, 0x01, 0, nullptr);
        for (unsigned long i = 0; i < count; ++i)
            if (!ipmi.sendCmd(msg) || msg.responseLength == 0 || msg.responseData[0] != 0) ++failures;
    }
    const double elapsed = nowSeconds() - start;
    std::printf("count=%lu\nfailures=%u\nseconds=%.6f\nus_per_exchange=%.1f\n", count, failures,
                elapsed, count ? elapsed * 1e6 / static_cast<double>(count) : 0.0);
    return failures == 0 ? 0 : 1;
}

// Runs a program N times with its output discarded: the wall time per run,
// start-up included, as a script that calls it in a loop sees it.
int timeRuns(int argc, char** argv) {
    unsigned long count = 0;
    if (argc < 2 || !parseNumber(argv[0], 100000, count)) return usage();
    unsigned failures = 0;
    const double start = nowSeconds();
    for (unsigned long i = 0; i < count; ++i) {
        const pid_t pid = fork();
        if (pid < 0) {
            std::perror("fork");
            return 1;
        }
        if (pid == 0) {
            if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(127);
            execvp(argv[1], argv + 1);
            _exit(127);
        }
        int status = 0;
        if (waitpid(pid, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failures;
    }
    const double elapsed = nowSeconds() - start;
    std::printf("count=%lu\nfailures=%u\nseconds=%.6f\nus_per_run=%.1f\n", count, failures, elapsed,
                count ? elapsed * 1e6 / static_cast<double>(count) : 0.0);
    return failures == 0 ? 0 : 1;
}

int dispatch(int argc, char** argv) {
    if (argc < 2) return usage();
    const std::string command = argv[1];
    try {
        if (command == "raw") return raw(argc - 2, argv + 2);
        if (command == "identity") return identity();
        if (command == "watchdog") return watchdog(argc - 2, argv + 2);
        if (command == "smbios") return smbios();
        if (command == "blade") return blade();
        if (command == "bench") return bench(argc - 2, argv + 2);
        if (command == "time") return timeRuns(argc - 2, argv + 2);
    } catch (qelIpmi::QelIpmiError& e) {
        std::fprintf(stderr, "qel-vm-probe: %s\n", e.what());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qel-vm-probe: %s\n", e.what());
        return 1;
    }
    return usage();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "--firmware-tables") == 0) {
        int status = 1;
        if (!qelHostFacts::withFirmwareTables([&] { status = dispatch(argc - 1, argv + 1); })) {
            std::fprintf(stderr, "qel-vm-probe: no firmware tables in /sys/firmware/dmi/tables\n");
            return 1;
        }
        return status;
    }
    return dispatch(argc, argv);
}
