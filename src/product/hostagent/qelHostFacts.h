// What a Linux host says about itself, read the way the host's own tools read
// it: the operating system's name and version from os-release, the kernel
// release from uname, the firmware's version from SMBIOS.
//
// Promises:
// - Files are opened under the platform's root prefix (qelPlatform), so a
//   test lays out any host in a directory.
// - Nothing here throws for what a host holds: a missing or malformed file
//   gives empty fields and the documented fallbacks.
// - os-release is parsed as its format says (KEY=value lines, values in
//   double or single quotes or bare, backslash escapes of \ " $ ` inside
//   double quotes, # comments); lines that do not fit are ignored.
#ifndef QEL_HOST_FACTS_H
#define QEL_HOST_FACTS_H

#include <functional>
#include <string>

#include "qelExport.h"

namespace qelHostFacts {

struct QEL_EXPORT OsRelease {
    std::string name;        // NAME
    std::string version;     // VERSION
    std::string prettyName;  // PRETTY_NAME
    std::string id;          // ID
    std::string versionId;   // VERSION_ID

    // PRETTY_NAME; else NAME and VERSION (either alone when the other is
    // missing); else "Linux".
    [[nodiscard]] std::string displayName() const;
};

// Parses the text of an os-release file.
QEL_EXPORT OsRelease parseOsRelease(const std::string& text);

// Reads "/etc/os-release", or "/usr/lib/os-release" when the first does not
// exist; empty fields when neither can be read.
QEL_EXPORT OsRelease readOsRelease();

// The kernel release (uname -r); "" when uname fails.
QEL_EXPORT std::string kernelRelease();

// The BIOS version (SMBIOS type 0, string at offset 5) of the host's SMBIOS
// table as the library reads it; "" when there is no table, no such
// structure or the reader fails.
QEL_EXPORT std::string biosVersion();

// The kernel's IPMI watchdog driver, when it is loaded: it drives the
// controller's watchdog timer itself (through /dev/watchdog, for example
// under a service manager's runtime watchdog), so a second keeper with
// another countdown would fight it. Looks for "/sys/module/ipmi_watchdog"
// and for a "/sys/class/watchdog/*/identity" of "IPMI", without opening any
// watchdog device (opening one starts it). Returns what it found
// ("ipmi_watchdog module", "watchdog1 (IPMI)"), or "" when nothing.
QEL_EXPORT std::string kernelIpmiWatchdog();

// The kernel's boot id ("/proc/sys/kernel/random/boot_id"), "" when it
// cannot be read.
QEL_EXPORT std::string bootId();

// The firmware's SMBIOS tables as the kernel exports them
// ("/sys/firmware/dmi/tables/smbios_entry_point" and ".../DMI"), laid out as
// the memory image the SMBIOS reader searches when it opens "/dev/mem": a
// 32-bit entry point at address 0 and the table behind it. Kernel lockdown
// refuses /dev/mem but not these files. An SMBIOS 3 (64-bit) entry point is
// presented through a 32-bit one, which is all the reader knows; a table
// longer than a 32-bit entry point can announce (65,535 bytes) is cut after
// the last whole structure that fits. Returns the image's bytes; empty when
// the files are missing or hold no structure.
QEL_EXPORT std::string firmwareTablesImage();

// Runs `work` with that image in place of "/dev/mem" (an in-memory file),
// under a platform that is the default one in everything else, then puts
// the platform that was installed back. For programs on the default
// platform; qeld presents the image through a platform of its own. False,
// and `work` not run, when there is no image or no in-memory file.
QEL_EXPORT bool withFirmwareTables(const std::function<void()>& work);

}  // namespace qelHostFacts

#endif
