#include "qelSmbios.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "qelPlatform.h"

namespace qelSmbios {

namespace {

constexpr const char* kLinuxMemory = "/dev/mem";
constexpr const char* kEsxiSmbios = "/vmfs/devices/char/mem/smbios";

// The device is searched in blocks of this size; entry points sit on 16-byte
// boundaries, so a block holds 256 candidates.
constexpr unsigned int kBlockSize = 4096;
constexpr unsigned int kCandidateStep = 16;
constexpr unsigned int kEntryPointSize = 31;

// A candidate's checksum covers as many bytes as its length byte says, up to
// 255, so a candidate in the last slots of a block reaches up to 254 bytes
// past the block (15 just for the intermediate area of the one at 4080).
// Rather than reading past the buffer, the block buffer is kept this much
// longer and the extra bytes stay zero: whatever lies beyond the block can
// therefore never complete an entry point ("_DMI_" would have to be there),
// and a straddling entry point is simply not found.
constexpr unsigned int kBlockSlack = 256;

// The table buffer is this many zero bytes longer than the table. A structure
// handed out by the walks starts inside the table and its formatted length is
// at most 255, so its string set starts at most 254 bytes past the table's
// end; with 256 zero bytes behind the table every scan that has no bound of
// its own (dataLength's search for two NULs, the string walks, strlen) stops
// inside memory the buffer owns, even on a table with unterminated strings or
// lengths that point past its end. The results are those of the plain
// algorithm on a table followed by zeros.
constexpr uint64_t kTableTail = 256;

constexpr uint32_t kSearchFinished = 0xFFFFFFFFu;

// Below 1 MiB the table is read through the stream; above it is mapped.
constexpr int32_t kHighestStreamAddress = 0xFFFFF;

uint16_t littleEndian16(const unsigned char* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t littleEndian32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// The string walk shared by both getSmbiosString forms: a pointer to string
// `number`, or null where the text does not exist. Relies on the structure
// lying in a QelSmbios table (zeroed tail) for its termination.
char* stringAt(SmbiosStructHeader* entry, unsigned char number) {
    if (entry == nullptr || number == 0) return nullptr;
    char* position = reinterpret_cast<char*>(entry) + entry->length;
    for (unsigned int i = 1; i < number; ++i) {
        if (position == nullptr) return nullptr;
        if (*position != 0) {
            position += std::strlen(position) + 1;
        } else {
            // The set's closing NUL: every further string is missing. Asking
            // for the one just behind the last string still ends on this NUL
            // and gives "", which the callers have always seen.
            position = nullptr;
        }
    }
    return position;
}

}  // namespace

std::atomic<int> QelSmbios::os{0};
char QelSmbios::empty_string[2] = " ";

void QelSmbios::resetOsForTesting() { os = 0; }

QelSmbios::QelSmbios() {
    std::ifstream stream;
    struct utsname names;
    if (qelPlatform::platform().uname(&names) == 0) {
        if (std::strcmp(names.sysname, "Linux") == 0) {
            os = 1;
            stream.open(qelPlatform::platform().path(kLinuxMemory),
                        std::ios::in | std::ios::binary);
        } else if (std::strcmp(names.sysname, "VMkernel") == 0) {
            os = 2;
            stream.open(qelPlatform::platform().path(kEsxiSmbios),
                        std::ios::in | std::ios::binary);
        }
        // Any other system opens nothing; an earlier decision stands.
    }
    if (os == 0) throw std::logic_error("unsupported Operating System");

    // A device we cannot open is not an error: the object holds no table and
    // the callers find nothing in it.
    if (!stream.is_open() || !stream.good()) return;

    try {
        std::vector<char> block(kBlockSize + kBlockSlack, 0);
        uint32_t position = 0;
        do {
            stream.read(block.data(), kBlockSize);
            const std::streamsize got = stream.gcount();
            // A short read at the end of the device leaves the rest of the
            // block zero rather than the previous block's bytes.
            if (got < static_cast<std::streamsize>(kBlockSize))
                std::memset(block.data() + got, 0, kBlockSize - static_cast<size_t>(got));
            // Only the low 32 bits are kept: all ones is also what a failed
            // tellg gives once the read met the end of the device.
            position = static_cast<uint32_t>(static_cast<std::streamoff>(stream.tellg()));
            if (stream.bad()) throw std::logic_error("no data available");

            // Every candidate is tested, even after a hit: a later entry point
            // in the same block replaces the first, as it always has.
            // Only a boundary holding '_' can start one: memchr skips the
            // runs of other bytes (mostly zeros) instead of a test per
            // boundary. The search starts again behind each candidate, over
            // the block as it is then (reading the ESXi table reuses it).
            for (unsigned int offset = 0; offset < kBlockSize;) {
                const void* mark = std::memchr(block.data() + offset, '_', kBlockSize - offset);
                if (mark == nullptr) break;
                const auto at = static_cast<unsigned int>(static_cast<const char*>(mark) - block.data());
                offset = (at + kCandidateStep - 1) / kCandidateStep * kCandidateStep;
                if (offset != at) continue;
                if (isSmbiosHeader(block.data() + offset)) {
                    takeTable(block.data(), offset, stream);
                    position = kSearchFinished;
                }
                offset += kCandidateStep;
            }
        } while (position != kSearchFinished);
    } catch (...) {
        std::free(table_);
        table_ = nullptr;
        tableLength_ = 0;
        throw;
    }

    if (stream.is_open()) stream.close();
}

QelSmbios::~QelSmbios() { std::free(table_); }

void QelSmbios::takeTable(char* block, unsigned int offset, std::ifstream& stream) {
    std::memcpy(entryPoint_, block + offset, kEntryPointSize);

    const uint64_t length = littleEndian16(entryPoint_ + 22);
    // A second entry point in the same block replaces the first table.
    std::free(table_);
    tableLength_ = 0;
    table_ = static_cast<unsigned char*>(std::malloc(length + kTableTail));
    if (table_ == nullptr) throw std::logic_error("no memory available");
    std::memset(table_, 0, length + kTableTail);
    tableLength_ = length;

    if (os == 1) {
        // The address field is read as a signed number: 0x80000000 and above
        // become negative, take the stream route and fail there with "no data
        // available". Callers have always seen that text for such tables.
        const int32_t address = static_cast<int32_t>(littleEndian32(entryPoint_ + 24));
        if (address > kHighestStreamAddress) {
            stream.close();
            mmapData(qelPlatform::platform().path(kLinuxMemory).c_str(), address);
        } else {
            stream.seekg(static_cast<std::streamoff>(address), std::ios::beg);
            stream.read(reinterpret_cast<char*>(table_), static_cast<std::streamsize>(length));
            if (stream.fail() || stream.bad()) throw std::logic_error("no data available");
        }
    } else if (os == 2) {
        // The ESXi device has no physical addresses: the table follows the
        // entry point directly. A valid entry point never straddles the block
        // (see kBlockSlack), so at least one byte of the block follows it.
        int64_t remaining = static_cast<int64_t>(kBlockSize) - offset - kEntryPointSize;
        if (remaining < 0) remaining = 0;
        const char* behind = block + offset + kEntryPointSize;
        if (length < static_cast<uint64_t>(remaining)) {
            std::memcpy(table_, behind, length);
        } else {
            std::memcpy(table_, behind, static_cast<size_t>(remaining));
            uint64_t copied = static_cast<uint64_t>(remaining);
            // The rest comes in chunks through the block buffer, so the scan
            // of the block's remaining candidates goes on over the last chunk.
            // An early end of the device is not detected: the missing bytes
            // stay zero.
            while (copied < length) {
                const uint64_t chunk = std::min<uint64_t>(kBlockSize, length - copied);
                stream.read(block, static_cast<std::streamsize>(chunk));
                if (stream.bad()) throw std::logic_error("no data available");
                const std::streamsize got = stream.gcount();
                if (static_cast<uint64_t>(got) < chunk)
                    std::memset(block + got, 0, static_cast<size_t>(chunk - got));
                std::memcpy(table_ + copied, block, static_cast<size_t>(chunk));
                copied += chunk;
            }
        }
    }
}

void QelSmbios::mmapData(const char* devicePath, long address) {
    // Nothing to copy into: the table buffer is made by the constructor.
    if (table_ == nullptr) return;

    const int fd = ::open(devicePath, O_RDONLY);
    if (fd < 0) throw std::logic_error("QelMmap::QelMmap: open failed");

    const long pageSize = ::sysconf(_SC_PAGESIZE);
    const long slack = address % pageSize;
    const size_t span = static_cast<size_t>(slack) + tableLength_;

    // A memory device has no size; a regular file standing in for one (an
    // image of physical memory) must hold the whole range, or touching the
    // mapping behind its end would kill the process instead of failing.
    struct stat status;
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<uint64_t>(status.st_size) < static_cast<uint64_t>(address) + tableLength_) {
        ::close(fd);
        throw std::logic_error("QelMmap::QelMmap: mmap failed");
    }

    void* mapping = ::mmap(nullptr, span, PROT_READ, MAP_SHARED, fd,
                           static_cast<off_t>(address - slack));
    if (mapping == MAP_FAILED) {
        ::close(fd);
        throw std::logic_error("QelMmap::QelMmap: mmap failed");
    }
    std::memcpy(table_, static_cast<const unsigned char*>(mapping) + slack, tableLength_);
    if (::munmap(mapping, span) != 0) {
        ::close(fd);
        throw std::logic_error("QelMmap::QelMmap: munmap failed");
    }
    ::close(fd);
}

bool QelSmbios::checksum(const unsigned char* bytes, unsigned long count) {
    unsigned char sum = 0;
    for (unsigned long i = 0; i < count; ++i) sum = static_cast<unsigned char>(sum + bytes[i]);
    return sum == 0;
}

bool QelSmbios::isSmbiosHeader(const char* candidate) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(candidate);
    // The search asks this of every 16-byte boundary below the entry point,
    // about 61,000 of them for one in the F-segment, and nearly all hold
    // zeros: the first byte alone turns them away before any call.
    if (bytes[0] != '_') return false;
    return std::memcmp(candidate, "_SM_", 4) == 0 && checksum(bytes, bytes[5]) &&
           checksum(bytes + 16, 15) && std::memcmp(candidate + 16, "_DMI_", 5) == 0;
}

unsigned long QelSmbios::dataLength(SmbiosStructHeader* entry) {
    if (entry == nullptr || entry->length == 0) return 0;
    const auto* start = reinterpret_cast<const unsigned char*>(entry);
    const unsigned char* p = start + entry->length;
    // No bound of its own: the zeroed tail behind every table ends the scan.
    while (p[0] != 0 || p[1] != 0) ++p;
    return static_cast<unsigned long>(p - start) + 2;
}

uint64_t QelSmbios::lengthAt(uint64_t offset) const {
    // The same scan as dataLength, with the end of the owned memory as its
    // bound. Callers only ask for offsets inside the table, so the length
    // byte itself (at most the first tail byte) is always owned.
    const uint64_t owned = tableLength_ + kTableTail;
    const uint8_t formatted = table_[offset + 1];
    if (formatted == 0) return 0;
    uint64_t p = offset + formatted;
    // Jump from NUL to NUL; a NUL followed by a non-NUL cannot start the
    // pair, nor can the byte behind it.
    while (p + 1 < owned) {
        const void* zero = std::memchr(table_ + p, 0, static_cast<size_t>(owned - 1 - p));
        if (zero == nullptr) {
            p = owned - 1;
            break;
        }
        p = static_cast<uint64_t>(static_cast<const unsigned char*>(zero) - table_);
        if (table_[p + 1] == 0) break;
        p += 2;
    }
    p = std::min(p, owned - 1);
    return p - offset + 2;
}

uint16_t QelSmbios::announcedStructures() const { return littleEndian16(entryPoint_ + 28); }

unsigned int QelSmbios::getEntryNumber(SmbiosEntryTypes type) {
    if (table_ == nullptr) return 0;
    unsigned int count = 0;
    uint64_t position = 0;
    const uint16_t announced = announcedStructures();
    for (unsigned int step = 0; step < announced; ++step) {
        // The end of the table is tested before a type byte is read.
        if (position >= tableLength_) break;
        const uint64_t length = lengthAt(position);
        // A structure without a length swallows the rest of the table.
        const uint64_t end = position + (length != 0 ? length : tableLength_);
        if (end > tableLength_) break;
        if (table_[position] == type) ++count;
        position = end;
    }
    return count;
}

SmbiosStructHeader* QelSmbios::findFrom(uint64_t position, uint8_t type) const {
    // The announced number of structures is not consulted here, and the
    // end-of-table structure is walked past like any other.
    while (position < tableLength_ && table_[position] != type) {
        const uint64_t length = lengthAt(position);
        position += length != 0 ? length : tableLength_;
    }
    if (position < tableLength_) return reinterpret_cast<SmbiosStructHeader*>(table_ + position);
    return nullptr;
}

SmbiosStructHeader* QelSmbios::getFirstEntry(SmbiosEntryTypes type) {
    if (table_ == nullptr) return nullptr;
    return findFrom(0, type);
}

SmbiosStructHeader* QelSmbios::getNextEntry(SmbiosStructHeader* entry) {
    if (entry == nullptr || table_ == nullptr) return nullptr;
    const auto address = reinterpret_cast<uintptr_t>(entry);
    const auto start = reinterpret_cast<uintptr_t>(table_);
    if (address < start || address - start >= tableLength_) return nullptr;
    const uint64_t offset = address - start;
    // Not guarded against a length of 0: such a structure is found again.
    return findFrom(offset + lengthAt(offset), table_[offset]);
}

char* QelSmbios::getSmbiosString(SmbiosStructHeader* entry, unsigned char number) {
    char* text = stringAt(entry, number);
    return text != nullptr ? text : empty_string;
}

std::string QelSmbios::getSmbiosStringS(SmbiosStructHeader* entry, unsigned char number) {
    const char* text = stringAt(entry, number);
    if (text == nullptr) return std::string();
    std::string result(text);
    const size_t last = result.find_last_not_of(' ');
    result.erase(last == std::string::npos ? 0 : last + 1);
    return result;
}

}  // namespace qelSmbios
