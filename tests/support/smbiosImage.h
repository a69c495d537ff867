// Test helpers for the SMBIOS reader: structures, 32-bit entry points, and
// host images under a temporary root (a physical-memory file for Linux, the
// SMBIOS device file for VMware ESXi), plus a platform that presents a chosen
// kernel name. Header-only and free of GoogleTest, so the benchmarks can use
// it too; helper failures throw std::runtime_error.
#ifndef QEL_TEST_SMBIOS_IMAGE_H
#define QEL_TEST_SMBIOS_IMAGE_H

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qelPlatform.h"
#include "scopedPlatform.h"

namespace smbiosTest {

using Bytes = std::vector<uint8_t>;

constexpr const char* kLinuxMemoryPath = "/dev/mem";
constexpr const char* kEsxiDevicePath = "/vmfs/devices/char/mem/smbios";
constexpr size_t kEntryPointLength = 0x1F;
constexpr uint64_t kOneMiB = 0x100000;

inline void putLe16(uint8_t* p, uint16_t value) {
    p[0] = static_cast<uint8_t>(value);
    p[1] = static_cast<uint8_t>(value >> 8);
}
inline void putLe32(uint8_t* p, uint32_t value) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(value >> (8 * i));
}
inline uint16_t getLe16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t getLe32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

inline uint8_t byteSum(const uint8_t* p, size_t n) {
    uint8_t sum = 0;
    for (size_t i = 0; i < n; ++i) sum = static_cast<uint8_t>(sum + p[i]);
    return sum;
}

// Recomputes both checksums of a 32-bit entry point in place: the
// intermediate one (byte 0x15, over 0x10..0x1E) first, because the entry
// point checksum (byte 0x04, over as many bytes as byte 0x05 says) covers it.
inline void fixEntryPointChecksums(uint8_t* ep) {
    ep[0x15] = 0;
    ep[0x15] = static_cast<uint8_t>(-byteSum(ep + 0x10, 15));
    ep[0x04] = 0;
    ep[0x04] = static_cast<uint8_t>(-byteSum(ep, ep[0x05]));
}

// A valid SMBIOS 2.x entry point. `lengthByte` larger than 0x1F makes the
// result that long (the extra bytes zero), as some firmware publishes.
inline Bytes entryPoint(uint16_t tableLength, uint32_t tableAddress, uint16_t structures,
                        uint8_t lengthByte = 0x1F) {
    Bytes ep(std::max<size_t>(kEntryPointLength, lengthByte), 0);
    std::memcpy(ep.data(), "_SM_", 4);
    ep[0x05] = lengthByte;
    ep[0x06] = 2;     // version 2.7
    ep[0x07] = 7;
    putLe16(&ep[0x08], 0x100);  // maximum structure size
    std::memcpy(&ep[0x10], "_DMI_", 5);
    putLe16(&ep[0x16], tableLength);
    putLe32(&ep[0x18], tableAddress);
    putLe16(&ep[0x1C], structures);
    ep[0x1E] = 0x27;
    fixEntryPointChecksums(ep.data());
    return ep;
}

// A structure with a correct length byte: the header, `body` (the formatted
// bytes behind the 4-byte header) and its string set ("\0\0" when empty).
inline Bytes structure(uint8_t type, uint16_t handle, const Bytes& body,
                       const std::vector<std::string>& strings = {}) {
    Bytes out{type, static_cast<uint8_t>(4 + body.size()), 0, 0};
    putLe16(&out[2], handle);
    out.insert(out.end(), body.begin(), body.end());
    for (const std::string& s : strings) {
        // An empty text would end the set early; a set cannot hold one.
        if (s.empty()) throw std::invalid_argument("a string set cannot hold an empty string");
        out.insert(out.end(), s.begin(), s.end());
        out.push_back(0);
    }
    if (strings.empty()) out.push_back(0);
    out.push_back(0);
    return out;
}

// Arbitrary bytes after a header whose length byte is given as it is, for
// corrupt tables.
inline Bytes rawStructure(uint8_t type, uint8_t lengthByte, uint16_t handle, const Bytes& rest) {
    Bytes out{type, lengthByte, 0, 0};
    putLe16(&out[2], handle);
    out.insert(out.end(), rest.begin(), rest.end());
    return out;
}

// A System Information (type 1) structure of SMBIOS 2.4 layout with strings
// 1..6 at the standard offsets: manufacturer, product, version, serial, SKU,
// family.
inline Bytes systemInformation(uint16_t handle, const std::vector<std::string>& strings) {
    Bytes body(0x1B - 4, 0);
    body[0x04 - 4] = 1;
    body[0x05 - 4] = 2;
    body[0x06 - 4] = 3;
    body[0x07 - 4] = 4;
    body[0x18 - 4] = 6;  // wake-up type: power switch
    body[0x19 - 4] = 5;
    body[0x1A - 4] = 6;
    return structure(1, handle, body, strings);
}

inline Bytes endOfTable(uint16_t handle) { return structure(127, handle, {}); }

// Concatenates structures into a table.
inline Bytes concat(const std::vector<Bytes>& parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A temporary directory, removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qelSmbiosXXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// Writes `size` bytes to `path` (parents created): holes read as zero and take
// no disk space, so an image can reach physical addresses near 2 GiB. Each
// piece is written at its offset.
inline void writeImage(const std::string& path, uint64_t size,
                       const std::vector<std::pair<uint64_t, Bytes>>& pieces) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) throw std::runtime_error("cannot create " + path);
    bool ok = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
    for (const auto& piece : pieces) {
        if (piece.second.empty()) continue;
        ok = ok && ::pwrite(fd, piece.second.data(), piece.second.size(),
                            static_cast<off_t>(piece.first)) ==
                       static_cast<ssize_t>(piece.second.size());
    }
    ::close(fd);
    if (!ok) throw std::runtime_error("cannot write " + path);
}

// The physical memory of a Linux host: a 32-bit entry point at `entryOffset`
// announcing `table` at `tableAddress`. The image is 1 MiB or as long as the
// table needs, whichever is larger (or exactly `size` when given).
inline void writeLinuxMemory(const std::string& root, uint64_t entryOffset, uint32_t tableAddress,
                             const Bytes& table, uint16_t structures, uint64_t size = 0) {
    const Bytes ep = entryPoint(static_cast<uint16_t>(table.size()), tableAddress, structures);
    if (size == 0) size = std::max<uint64_t>(kOneMiB, uint64_t{tableAddress} + table.size());
    writeImage(root + kLinuxMemoryPath, size, {{entryOffset, ep}, {tableAddress, table}});
}

// The SMBIOS device of a VMware ESXi host: the entry point at `entryOffset`,
// the table right behind it. The file ends with the table unless `size` says
// otherwise.
inline void writeEsxiDevice(const std::string& root, uint64_t entryOffset, const Bytes& table,
                            uint16_t structures, uint64_t size = 0) {
    Bytes ep = entryPoint(static_cast<uint16_t>(table.size()), 0, structures);
    const uint64_t end = entryOffset + ep.size() + table.size();
    ep.insert(ep.end(), table.begin(), table.end());
    writeImage(root + kEsxiDevicePath, size == 0 ? end : size, {{entryOffset, ep}});
}

// A host whose kernel names itself `sysname` and whose fixed paths lie under
// `root`; uname can be made to fail with an error number.
class FakeHost : public qelPlatform::Platform {
public:
    std::string sysname = "Linux";
    int unameErrno = 0;

    explicit FakeHost(const std::string& root) { setRoot(root); }

    int uname(struct utsname* out) const override {
        if (unameErrno != 0) {
            errno = unameErrno;
            return -1;
        }
        std::memset(out, 0, sizeof *out);
        std::strncpy(out->sysname, sysname.c_str(), sizeof out->sysname - 1);
        std::strncpy(out->nodename, "testhost", sizeof out->nodename - 1);
        std::strncpy(out->release, "6.1.0", sizeof out->release - 1);
        std::strncpy(out->version, "#1 SMP", sizeof out->version - 1);
        std::strncpy(out->machine, "x86_64", sizeof out->machine - 1);
        return 0;
    }
};

using ScopedPlatform = platformTest::ScopedPlatform;

}  // namespace smbiosTest

#endif
