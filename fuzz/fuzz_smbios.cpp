// SMBIOS: QelSmbios over a memory image built from the input, then every
// structure walked and every string read.
//
// Input:
//   byte 0   placement: bit 0 the host is VMware ESXi (the table follows the
//            entry point in the SMBIOS device), bit 1 the entry point's
//            checksums are made right, bit 2 the table lies above 1 MiB
//            (else in low memory), bit 3 the entry point's address field is
//            made to say where the table lies, bit 4 the table length field
//            says how many table bytes the input has
//   byte 1   where in the F-segment (0xF0000-0xFFFFF) the entry point sits,
//            in 256-byte steps
//   31 bytes the 32-bit entry point
//   the rest the structure table
// The memory image is a sparse memory file presented as /dev/mem (or the ESXi
// device) through the platform seam. Seeds: the real tables of the test data,
// in the F-segment and above 1 MiB.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>
#include <string>
#include <vector>

#include "fuzzNetwork.h"
#include "fuzzPlatform.h"
#include "qelSmbios.h"

namespace {

using qelSmbios::QelSmbios;
using qelSmbios::SmbiosStructHeader;

constexpr uint64_t kFSegment = 0xF0000;
constexpr uint64_t kOneMiB = 0x100000;
constexpr size_t kEntryPointLength = 31;

// Presents one memory file at both fixed paths of the SMBIOS reader.
class MemoryHost : public qelFuzz::FuzzPlatform {
public:
    MemoryHost() {
        fd_ = ::memfd_create("qelFuzzMemory", 0);
        if (fd_ < 0) std::abort();
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    std::string path(const std::string& fixed) const override {
        if (fixed == "/dev/mem" || fixed == "/vmfs/devices/char/mem/smbios") return path_;
        return FuzzPlatform::path(fixed);
    }
    // The image: `size` bytes, zero but for the pieces.
    void lay(uint64_t size, uint64_t at1, const uint8_t* p1, size_t n1, uint64_t at2, const uint8_t* p2,
             size_t n2) {
        if (::ftruncate(fd_, 0) != 0 || ::ftruncate(fd_, static_cast<off_t>(size)) != 0) std::abort();
        if (n1 != 0 && ::pwrite(fd_, p1, n1, static_cast<off_t>(at1)) != static_cast<ssize_t>(n1)) std::abort();
        if (n2 != 0 && ::pwrite(fd_, p2, n2, static_cast<off_t>(at2)) != static_cast<ssize_t>(n2)) std::abort();
    }

private:
    int fd_ = -1;
    std::string path_;
};

uint8_t byteSum(const uint8_t* p, size_t n) {
    uint8_t sum = 0;
    for (size_t i = 0; i < n; ++i) sum = static_cast<uint8_t>(sum + p[i]);
    return sum;
}

void walk(QelSmbios& smbios, const std::set<uint8_t>& types) {
    for (const uint8_t type : types) {
        const auto wanted = static_cast<qelSmbios::SmbiosEntryTypes>(type);
        (void)smbios.getEntryNumber(wanted);
        SmbiosStructHeader* entry = smbios.getFirstEntry(wanted);
        // A structure of formatted length 0 is found again and again, as
        // documented: the walk stops at the first repetition.
        for (int steps = 0; entry != nullptr && steps < 512; ++steps) {
            (void)QelSmbios::dataLength(entry);
            (void)QelSmbios::getSmbiosString(entry, 0);
            for (unsigned number = 1; number < 256; ++number) {
                const char* text = QelSmbios::getSmbiosString(entry, static_cast<unsigned char>(number));
                (void)std::strlen(text);
                (void)QelSmbios::getSmbiosStringS(entry, static_cast<unsigned char>(number));
                if (text == QelSmbios::empty_string) break;
            }
            (void)QelSmbios::getSmbiosString(entry, 255);
            SmbiosStructHeader* next = smbios.getNextEntry(entry);
            if (next == entry) break;
            entry = next;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static MemoryHost host;
    host.reset();
    if (size < 2 + kEntryPointLength) return 0;
    const uint8_t placement = data[0];
    const uint64_t entryAt = kFSegment + uint64_t{data[1]} * 256;
    uint8_t ep[kEntryPointLength];
    std::memcpy(ep, data + 2, kEntryPointLength);
    const uint8_t* table = data + 2 + kEntryPointLength;
    const size_t tableBytes = size - 2 - kEntryPointLength;

    const bool esxi = (placement & 0x01) != 0;
    const bool high = (placement & 0x04) != 0;
    const uint64_t tableAt = high ? kOneMiB + 0x2000 : 0x8000;
    if (placement & 0x10) {
        ep[0x16] = static_cast<uint8_t>(tableBytes);
        ep[0x17] = static_cast<uint8_t>(tableBytes >> 8);
    }
    if (placement & 0x08) {
        for (int i = 0; i < 4; ++i) ep[0x18 + i] = static_cast<uint8_t>(tableAt >> (8 * i));
    }
    if (placement & 0x02) {
        ep[0x15] = 0;
        ep[0x15] = static_cast<uint8_t>(-byteSum(ep + 0x10, 15));
        ep[0x04] = 0;
        // The checksum covers as many bytes as the length byte says; the
        // entry point's copy has 31, the rest of the image is zero there.
        ep[0x04] = static_cast<uint8_t>(-byteSum(ep, ep[0x05] < kEntryPointLength ? ep[0x05] : kEntryPointLength));
    }

    if (esxi) {
        // The device: the entry point at its offset, the table right behind.
        std::vector<uint8_t> behind(ep, ep + kEntryPointLength);
        behind.insert(behind.end(), table, table + tableBytes);
        const uint64_t at = uint64_t{data[1]} * 16;
        host.lay(at + behind.size(), at, behind.data(), behind.size(), 0, nullptr, 0);
        host.sysname = "VMkernel";
    } else {
        const uint64_t end = tableAt + tableBytes;
        host.lay(end > kOneMiB ? end : kOneMiB, entryAt, ep, kEntryPointLength, tableAt, table, tableBytes);
        host.sysname = "Linux";
    }
    QelSmbios::resetOsForTesting();
    qelFuzz::ScopedPlatform installed(&host);

    // The types to look for: those the library names and every type byte of
    // the table as a plain walk of the input finds it.
    std::set<uint8_t> types = {0, 1, 2, 3, 4, 17, 127, 255};
    for (size_t at = 0; at + 4 <= tableBytes && types.size() < 40;) {
        types.insert(table[at]);
        size_t p = at + (table[at + 1] != 0 ? table[at + 1] : 4);
        while (p + 1 < tableBytes && (table[p] != 0 || table[p + 1] != 0)) ++p;
        at = p + 2;
    }

    try {
        QelSmbios smbios;
        walk(smbios, types);
    } catch (const std::exception&) {
        // The documented failures: an unreadable device or table.
    }
    return 0;
}
