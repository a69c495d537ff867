// The host's SMBIOS structure table.
//
// A QelSmbios finds the 32-bit ("_SM_"/"_DMI_") entry point, copies the whole
// structure table into a buffer it owns, once, at construction, and then
// answers questions about that copy: how many structures of a type there are,
// the first and the next one of a type, and the numbered strings of a
// structure. The 64-bit SMBIOS 3 entry point is not recognised.
//
// - On Linux the entry point is searched in "/dev/mem" from physical address 0
//   on every 16-byte boundary; the table is read at its physical address
//   (through the stream below 1 MiB, through a short-lived mapping above).
//   On VMware ESXi the table follows the entry point directly in
//   "/vmfs/devices/char/mem/smbios". Both paths go through the platform seam.
// - A device that cannot be opened, or a search that finds no entry point, is
//   not an error: the object then holds no table and every lookup finds
//   nothing. Real failures throw plain std::logic_error with fixed texts.
// - Lookups never read outside memory the object owns, even on a corrupt
//   table: the buffer carries a zeroed tail behind the table (see the .cpp).
// - Objects are short-lived and used by one thread at a time.
#ifndef QEL_SMBIOS_H
#define QEL_SMBIOS_H

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "qelExport.h"

namespace qelSmbios {

// The standard header in front of every structure. `length` is the length of
// the formatted area, header included; the string set follows it.
struct SmbiosStructHeader {
    uint8_t type;
    uint8_t length;
    uint16_t handle;
} __attribute__((packed));

// SMBIOS structure type numbers. The library itself uses System Information
// and System Enclosure; the others are named for callers and tests.
enum SmbiosEntryTypes : uint8_t {
    BiosInformation = 0,
    SystemInformation = 1,
    BaseboardInformation = 2,
    SystemEnclosure = 3,
    ProcessorInformation = 4,
    MemoryDevice = 17,
    EndOfTable = 127,
};

class QEL_EXPORT QelSmbios {
public:
    // The operating-system decision: 0 not yet decided, 1 Linux, 2 VMware
    // ESXi. Decided by the first construction whose uname names a supported
    // system and kept for the process; a later construction that cannot
    // decide keeps it. Atomic because readers are built from any thread (the
    // controller identity is); every writer stores the same value.
    static std::atomic<int> os;
    // What getSmbiosString returns for a string that does not exist: one
    // blank, deliberately not an empty text (callers print it as it is).
    static char empty_string[2];

    // Finds and copies the table. Throws std::logic_error with
    // "unsupported Operating System", "no data available",
    // "no memory available" or one of mmapData's texts.
    QelSmbios();
    virtual ~QelSmbios();

    QelSmbios(const QelSmbios&) = delete;
    QelSmbios& operator=(const QelSmbios&) = delete;

    // Number of structures of `type`, walking at most as many structures as
    // the entry point announces.
    [[nodiscard]] unsigned int getEntryNumber(SmbiosEntryTypes type);
    // The first structure of `type`, or null.
    [[nodiscard]] SmbiosStructHeader* getFirstEntry(SmbiosEntryTypes type);
    // The next structure of the same type as `entry`, or null. A structure
    // whose formatted length is 0 has no length to step over: the search then
    // starts at `entry` itself and finds it again.
    [[nodiscard]] SmbiosStructHeader* getNextEntry(SmbiosStructHeader* entry);

    // String `number` (1-based) of `entry`: a NUL-terminated text inside the
    // table, or empty_string when there is none. Asking for the string just
    // behind the last one gives "" (the set's closing NUL), asking further " ".
    [[nodiscard]] static char* getSmbiosString(SmbiosStructHeader* entry, unsigned char number);
    // The same string without trailing blanks; "" where getSmbiosString gives
    // empty_string.
    [[nodiscard]] static std::string getSmbiosStringS(SmbiosStructHeader* entry,
                                                      unsigned char number);
    // Total length of `entry` (formatted area and string set); 0 when its
    // formatted length is 0. Meant for structures inside a QelSmbios table.
    [[nodiscard]] static unsigned long dataLength(SmbiosStructHeader* entry);
    // True if the `count` bytes sum to 0 modulo 256 (true for count 0).
    [[nodiscard]] static bool checksum(const unsigned char* bytes, unsigned long count);
    // True if a valid 32-bit entry point starts at `candidate`. Reads up to
    // 255 bytes from there (as many as its length byte says).
    [[nodiscard]] static bool isSmbiosHeader(const char* candidate);

    // Copies the table from physical address `address` of the memory device
    // `devicePath` (opened as given) into the table buffer. Used by the
    // constructor for tables above 1 MiB. Throws std::logic_error with
    // "QelMmap::QelMmap: open failed" / "mmap failed" / "munmap failed".
    void mmapData(const char* devicePath, long address);

    // Tests only: forgets the operating-system decision, so that each test
    // case starts from an undecided process. Production code never calls it.
    static void resetOsForTesting();

private:
    // Copies the table at the entry point that starts at `block + offset`.
    void takeTable(char* block, unsigned int offset, std::ifstream& stream);
    // Total length of the structure at `offset`, never reading beyond the
    // memory the buffer owns.
    uint64_t lengthAt(uint64_t offset) const;
    // The loop shared by getFirstEntry and getNextEntry.
    SmbiosStructHeader* findFrom(uint64_t offset, uint8_t type) const;
    uint16_t announcedStructures() const;

    unsigned char* table_ = nullptr;
    uint64_t tableLength_ = 0;
    unsigned char entryPoint_[31] = {};
};

}  // namespace qelSmbios

#endif
