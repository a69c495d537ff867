#include "qelSdr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <cctype>
#include <set>
#include <sstream>
#include <string_view>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelPlatform.h"

#define QEL_SOURCE_NAME "qelSdr"

namespace qelSdr {

namespace {

using qelIpmi::QelIpmi;
using qelIpmi::QelIpmi_request_msg;

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

std::string hex16(uint16_t v) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", v);
    return text;
}

std::string ccText(uint8_t code) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", code);
    const char* name = nullptr;
    switch (code) {
    case 0xC0: name = "node busy"; break;
    case cc::invalidCommand: name = "invalid command"; break;
    case 0xC3: name = "timeout"; break;
    case cc::reservationCancelled: name = "reservation cancelled"; break;
    case cc::requestDataLengthInvalid: name = "request data length invalid"; break;
    case cc::parameterOutOfRange: name = "parameter out of range"; break;
    case cc::cannotReturnRequestedBytes: name = "cannot return the requested number of bytes"; break;
    case cc::requestedDataNotPresent: name = "requested data not present"; break;
    case cc::invalidDataField: name = "invalid data field"; break;
    case 0xD5: name = "not supported in the present state"; break;
    case 0xFF: name = "unspecified error"; break;
    default: break;
    }
    return name ? std::string(text) + " " + name : std::string(text);
}

// One open device for the whole load, and the count of requests sent on it.
class Session {
public:
    explicit Session(unsigned int& count) : ipmi_(0, 0, QelIpmi::SYSTEM_INTERFACE), count_(count) {}

    // The response, completion code first; throws when none or an empty one came.
    Bytes call(unsigned char netFn, unsigned char command, const Bytes& data, const std::string& what) {
        QelIpmi_request_msg msg(netFn, command, static_cast<unsigned short>(data.size()),
                                data.empty() ? nullptr : data.data());
        ++count_;
        if (!ipmi_.sendCmd(msg)) QEL_THROW(QelSdrError, what + ": no answer from the controller");
        if (msg.responseLength == 0 || msg.responseData == nullptr)
            QEL_THROW(QelSdrError, what + ": the controller answered without a completion code");
        return Bytes(msg.responseData, msg.responseData + msg.responseLength);
    }

private:
    QelIpmi ipmi_;
    unsigned int& count_;
};

RepositoryInfo askInfo(Session& s) {
    Bytes r = s.call(netfn::storage, cmd::getSdrRepositoryInfo, {}, "Get SDR Repository Info");
    if (r[0] != cc::ok) QEL_THROW(QelSdrError, "Get SDR Repository Info failed: " + ccText(r[0]));
    return RepositoryInfo::fromResponse(r);
}

uint16_t reserve(Session& s) {
    Bytes r = s.call(netfn::storage, cmd::reserveSdrRepository, {}, "Reserve SDR Repository");
    if (r[0] != cc::ok) QEL_THROW(QelSdrError, "Reserve SDR Repository failed: " + ccText(r[0]));
    if (r.size() < reserve::responseSize)
        QEL_THROW(QelSdrError, "Reserve SDR Repository: the answer has " + std::to_string(r.size()) +
                                   " bytes, a reservation ID needs 3");
    return le16(&r[reserve::responseReservation]);
}

// Reads the whole repository by next-record IDs.
class Reader {
public:
    Reader(Session& s, unsigned int& readSize, std::vector<std::string>& notes)
        : s_(s), readSize_(readSize), notes_(notes) {}

    std::vector<SdrRecord> readAll() {
        reservation_ = reserve(s_);
        std::vector<SdrRecord> records;
        std::set<uint16_t> seen;
        uint16_t id = firstRecordId;
        while (id != lastRecordId) {
            if (!seen.insert(id).second)
                QEL_THROW(QelSdrError, "Get SDR: the controller leads back to record " + hex16(id) +
                                           " after " + std::to_string(records.size()) +
                                           " records (a record ID loop)");
            uint16_t next = 0;
            records.push_back(readRecord(id, next));
            id = next;
        }
        return records;
    }

private:
    // One record: the header, then the body. A cancelled reservation starts
    // the record again under a new one.
    SdrRecord readRecord(uint16_t id, uint16_t& next) {
        for (;;) {
            try {
                Bytes bytes = readBytes(id, 0, header::size, &next);
                const std::size_t body = bytes[header::length];
                if (body > 0) {
                    Bytes rest = readBytes(id, header::size, body, nullptr);
                    bytes.insert(bytes.end(), rest.begin(), rest.end());
                }
                return SdrRecord::fromBytes(std::move(bytes));
            } catch (const Cancelled&) {
                if (++reservations_ > QelSdrRepository::maxReservations)
                    QEL_THROW(QelSdrError, "Get SDR: the reservation was cancelled " +
                                               std::to_string(reservations_) +
                                               " times while reading record " + hex16(id) + "; giving up");
                notes_.push_back("SDR reservation cancelled while reading record " + hex16(id) +
                                 " (the repository changed or another reader reserved it); reserving again");
                reservation_ = reserve(s_);
            }
        }
    }

    struct Cancelled {};

    // `count` bytes of record `id` from `offset`, in pieces of at most readSize_.
    Bytes readBytes(uint16_t id, unsigned int offset, std::size_t count, uint16_t* next) {
        Bytes out;
        while (out.size() < count) {
            const unsigned int at = offset + static_cast<unsigned int>(out.size());
            // The offset is one byte: a record whose pieces would start past
            // it cannot be read, and a wrapped offset would read the wrong bytes.
            if (at > 0xFF)
                QEL_THROW(QelSdrError, "Get SDR: record " + hex16(id) + " is " + std::to_string(offset + count) +
                                           " bytes long; its bytes from offset 256 on cannot be asked for");
            const std::size_t want = std::min<std::size_t>(count - out.size(), readSize_);
            Bytes request(getSdr::requestSize);
            request[getSdr::requestReservation] = static_cast<uint8_t>(reservation_ & 0xFF);
            request[getSdr::requestReservation + 1] = static_cast<uint8_t>(reservation_ >> 8);
            request[getSdr::requestRecordId] = static_cast<uint8_t>(id & 0xFF);
            request[getSdr::requestRecordId + 1] = static_cast<uint8_t>(id >> 8);
            request[getSdr::requestOffset] = static_cast<uint8_t>(at);
            request[getSdr::requestCount] = static_cast<uint8_t>(want);
            const std::string what = "Get SDR of record " + hex16(id) + " at offset " + std::to_string(at);
            Bytes r = s_.call(netfn::storage, cmd::getSdr, request, what);
            if (r[0] == cc::reservationCancelled) throw Cancelled{};
            if (r[0] == cc::cannotReturnRequestedBytes) {
                if (want <= 1) QEL_THROW(QelSdrError, what + ": the controller refuses even one byte (" + ccText(r[0]) + ")");
                const unsigned int smaller = want > fallbackSize ? fallbackSize : static_cast<unsigned int>(want / 2);
                notes_.push_back("Get SDR: the controller cannot return " + std::to_string(want) +
                                 " bytes at once; reading " + std::to_string(smaller) + " at a time");
                readSize_ = smaller;
                continue;
            }
            if (r[0] != cc::ok) QEL_THROW(QelSdrError, what + " failed: " + ccText(r[0]));
            if (r.size() != getSdr::responseData + want)
                QEL_THROW(QelSdrError, what + ": asked for " + std::to_string(want) + " bytes, the answer holds " +
                                           (r.size() < getSdr::responseData
                                                ? std::string("no next record ID")
                                                : std::to_string(r.size() - getSdr::responseData)));
            if (next != nullptr && out.empty()) *next = le16(&r[getSdr::responseNextId]);
            out.insert(out.end(), r.begin() + getSdr::responseData, r.end());
        }
        return out;
    }

    static constexpr unsigned int fallbackSize = QelSdrRepository::fallbackReadSize;
    Session& s_;
    unsigned int& readSize_;
    std::vector<std::string>& notes_;
    uint16_t reservation_ = 0;
    unsigned int reservations_ = 0;
};

// ---------------------------------------------------------------- cache file
//
// Text, so an administrator can read it:
//   qel-sdr-cache 2
//   controller 20 01 81 07 02 d9 7e 00 34 12
//   repository 51 9 1700000123 0 8000
//   record 01 00 51 01 35 20 00 01 ...
//   end 9 5f3a09c2
// The end line holds the number of records and the FNV-1a hash of every byte
// before it: a file cut short or changed anywhere is not taken. The
// controller line is empty when the writer did not know the controller.
// The repository line: version, records, last addition, last erase, free
// space.

constexpr const char* cacheMagic = "qel-sdr-cache 2";
// Far above any repository (65535 records of 260 bytes in hex).
constexpr off_t maxCacheSize = 64L * 1024 * 1024;

std::string hexBytes(const Bytes& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        if (!out.empty()) out += ' ';
        out += digits[b >> 4];
        out += digits[b & 0x0F];
    }
    return out;
}

// The words of a piece of the file, split at white space as the C locale
// has it. A warm load reads every record of the cache this way: string
// streams there cost a command more CPU than the sensors it then reads.
class Words {
public:
    explicit Words(std::string_view text) : text_(text) {}
    // The next word, or an empty one when there is none.
    std::string_view next() {
        while (at_ < text_.size() && space(text_[at_])) ++at_;
        const std::size_t from = at_;
        while (at_ < text_.size() && !space(text_[at_])) ++at_;
        return text_.substr(from, at_ - from);
    }
    // What next() has not read yet, all taken.
    std::string_view rest() {
        const std::string_view rest = text_.substr(at_);
        at_ = text_.size();
        return rest;
    }
    // What the classic locale calls space, whatever the process's locale.
    static bool space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

private:
    std::string_view text_;
    std::size_t at_ = 0;
};

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Two hex digits, nothing else; -1 for anything else.
int hexByte(std::string_view w) {
    if (w.size() != 2) return -1;
    const int high = hexDigit(w[0]);
    const int low = hexDigit(w[1]);
    return high < 0 || low < 0 ? -1 : high << 4 | low;
}

// Strict: two hex digits per word, nothing else. The words of a record
// line are read in place (a warm load reads every byte of the repository
// here), the bytes reserved at once.
bool parseHexWords(Words& in, Bytes& out) {
    const std::string_view text = in.rest();
    out.reserve(out.size() + (text.size() + 1) / 3);
    for (std::size_t at = 0;;) {
        while (at < text.size() && Words::space(text[at])) ++at;
        if (at == text.size()) return true;
        const int high = hexDigit(text[at]);
        const int low = at + 1 < text.size() ? hexDigit(text[at + 1]) : -1;
        if (high < 0 || low < 0 || (at + 2 < text.size() && !Words::space(text[at + 2]))) return false;
        out.push_back(static_cast<uint8_t>(high << 4 | low));
        at += 2;
    }
}

bool parseUnsigned(std::string_view word, unsigned long max, unsigned long& out) {
    if (word.empty() || word.size() > 10 || word.find_first_not_of("0123456789") != std::string_view::npos)
        return false;
    unsigned long long value = 0;
    for (char c : word) value = value * 10 + static_cast<unsigned long long>(c - '0');
    if (value > max) return false;
    out = static_cast<unsigned long>(value);
    return true;
}

std::string formatCache(const Bytes& identity, const RepositoryInfo& info, const std::vector<SdrRecord>& records) {
    std::ostringstream out;
    char version[4];
    std::snprintf(version, sizeof version, "%02x", info.version);
    out << cacheMagic << '\n';
    out << "controller" << (identity.empty() ? "" : " ") << hexBytes(identity) << '\n';
    out << "repository " << version << ' ' << info.recordCount << ' ' << info.lastAddition << ' '
        << info.lastErase << ' ' << info.freeSpace << '\n';
    for (const SdrRecord& r : records) out << "record " << hexBytes(r.bytes) << '\n';
    std::string text = out.str();
    char end[48];
    std::snprintf(end, sizeof end, "end %zu %08x\n", records.size(), cacheChecksum(text));
    return text + end;
}

struct CacheContents {
    Bytes identity;
    RepositoryInfo info;
    std::vector<SdrRecord> records;
};

// Why the file is not usable, or empty when `out` was filled.
std::string parseCache(const std::string& text, CacheContents& out) {
    const std::size_t endAt = text.rfind("\nend ");
    if (text.compare(0, std::strlen(cacheMagic) + 1, std::string(cacheMagic) + "\n") != 0)
        return "not a cache file of this program (foreign or of another format)";
    if (endAt == std::string::npos || text.empty() || text.back() != '\n')
        return "truncated (no end line)";
    const std::string_view body = std::string_view(text).substr(0, endAt + 1);
    {
        Words end(std::string_view(text).substr(endAt + 1));
        const std::string_view word = end.next(), countWord = end.next(), hashWord = end.next();
        unsigned long count = 0;
        if (word != "end" || !parseUnsigned(countWord, 0xFFFF, count) || hashWord.size() != 8 || !end.next().empty())
            return "corrupt (bad end line)";
        char hash[16];
        std::snprintf(hash, sizeof hash, "%08x", cacheChecksum(body));
        if (hashWord != hash) return "corrupt (its checksum does not match its contents)";
        out.records.reserve(count);
        // The magic line is checked; the others follow it, each ending in
        // a newline (the body ends with one).
        std::size_t at = body.find('\n') + 1;
        int number = 1;
        bool haveController = false;
        bool haveRepository = false;
        while (at < body.size()) {
            const std::size_t lineEnd = body.find('\n', at);
            Words in(body.substr(at, lineEnd - at));
            at = lineEnd + 1;
            ++number;
            const std::string_view key = in.next();
            const auto where = [number] { return "corrupt (line " + std::to_string(number) + ")"; };
            if (key == "controller" && !haveController) {
                if (!parseHexWords(in, out.identity)) return where();
                haveController = true;
            } else if (key == "repository" && !haveRepository) {
                const std::string_view v = in.next(), n = in.next(), a = in.next(), e = in.next(), f = in.next();
                unsigned long count2 = 0, addition = 0, erase = 0, free = 0;
                const int version = hexByte(v);
                if (version < 0 || !parseUnsigned(n, 0xFFFF, count2) || !parseUnsigned(a, 0xFFFFFFFFul, addition) ||
                    !parseUnsigned(e, 0xFFFFFFFFul, erase) || !parseUnsigned(f, 0xFFFF, free) || !in.next().empty())
                    return where();
                out.info.freeSpace = static_cast<uint16_t>(free);
                out.info.version = static_cast<uint8_t>(version);
                out.info.recordCount = static_cast<uint16_t>(count2);
                out.info.lastAddition = static_cast<uint32_t>(addition);
                out.info.lastErase = static_cast<uint32_t>(erase);
                haveRepository = true;
            } else if (key == "record" && haveRepository) {
                Bytes bytes;
                if (!parseHexWords(in, bytes)) return where();
                try {
                    out.records.push_back(SdrRecord::fromBytes(std::move(bytes)));
                } catch (const QelSdrError& e) {
                    return where() + ": " + e.errorText;
                }
            } else {
                return where();
            }
        }
        if (!haveController || !haveRepository) return "corrupt (no controller or repository line)";
        if (out.records.size() != count) return "corrupt (the end line counts another number of records)";
    }
    return std::string();
}

// The file's contents, or an empty string with `error` set (ENOENT: none).
std::string readFile(const std::string& path, int& error) {
    error = 0;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = errno;
        return std::string();
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > maxCacheSize) {
        error = EINVAL;
        ::close(fd);
        return std::string();
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = errno;
            ::close(fd);
            return std::string();
        }
        if (n == 0) break;
        text.append(buffer, static_cast<std::size_t>(n));
        if (static_cast<off_t>(text.size()) > maxCacheSize) {
            error = EINVAL;
            break;
        }
    }
    ::close(fd);
    return text;
}

// mkdir -p for the part of `path` below the root prefix.
int makeDirectories(const std::string& root, const std::string& path) {
    std::size_t at = root.size();
    while (at < path.size()) {
        const std::size_t slash = path.find('/', at + 1);
        const std::string part = path.substr(0, slash == std::string::npos ? path.size() : slash);
        if (!part.empty() && ::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return errno;
        if (slash == std::string::npos) break;
        at = slash;
    }
    return 0;
}

bool writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Writes `text` to `path` through a temporary file in the same directory:
// written, flushed to the disk, then renamed over the old file. 0 or an errno value.
int writeAtomically(const std::string& root, const std::string& directory, const std::string& path,
                    const std::string& text) {
    if (int e = makeDirectories(root, directory)) return e;
    std::string pattern = directory + "/." + path.substr(path.rfind('/') + 1) + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    if (fd < 0) return errno;
    int error = 0;
    if (::fchmod(fd, 0644) != 0 || !writeAll(fd, text) || ::fsync(fd) != 0) error = errno ? errno : EIO;
    if (::close(fd) != 0 && error == 0) error = errno;
    if (error == 0 && ::rename(name.data(), path.c_str()) != 0) error = errno;
    if (error != 0) {
        ::unlink(name.data());
        return error;
    }
    // The rename itself is durable once the directory is.
    const int dirFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        (void)::fsync(dirFd);
        ::close(dirFd);
    }
    return 0;
}

std::string describeChange(const RepositoryInfo& cached, const RepositoryInfo& now) {
    std::ostringstream out;
    if (cached.version != now.version) out << " version " << int(cached.version) << " -> " << int(now.version);
    if (cached.recordCount != now.recordCount) out << " records " << cached.recordCount << " -> " << now.recordCount;
    if (cached.lastAddition != now.lastAddition)
        out << " last addition " << cached.lastAddition << " -> " << now.lastAddition;
    if (cached.lastErase != now.lastErase) out << " last erase " << cached.lastErase << " -> " << now.lastErase;
    if (cached.freeSpace != now.freeSpace) out << " free space " << cached.freeSpace << " -> " << now.freeSpace;
    return out.str();
}

}  // namespace

bool RepositoryInfo::sameContents(const RepositoryInfo& other) const {
    return version == other.version && recordCount == other.recordCount && lastAddition == other.lastAddition &&
           lastErase == other.lastErase;
}

bool RepositoryInfo::sameRepository(const RepositoryInfo& other) const {
    return sameContents(other) && freeSpace == other.freeSpace;
}

std::string RepositoryInfo::key() const {
    char text[64];
    std::snprintf(text, sizeof text, "%02x %u %u %u %u", version, recordCount, lastAddition, lastErase, freeSpace);
    return text;
}

RepositoryInfo RepositoryInfo::fromResponse(const Bytes& r) {
    if (r.size() < repositoryInfo::responseSize)
        QEL_THROW(QelSdrError, "Get SDR Repository Info: the answer has " + std::to_string(r.size()) +
                                   " bytes, it needs " + std::to_string(repositoryInfo::responseSize));
    RepositoryInfo info;
    info.version = r[repositoryInfo::version];
    info.recordCount = le16(&r[repositoryInfo::recordCount]);
    info.freeSpace = le16(&r[repositoryInfo::freeSpace]);
    info.lastAddition = le32(&r[repositoryInfo::lastAddition]);
    info.lastErase = le32(&r[repositoryInfo::lastErase]);
    info.support = r[repositoryInfo::support];
    return info;
}

QelSdrRepository::QelSdrRepository(std::string cacheDirectory) : cacheDirectory_(std::move(cacheDirectory)) {
    while (cacheDirectory_.size() > 1 && cacheDirectory_.back() == '/') cacheDirectory_.pop_back();
}

void QelSdrRepository::setControllerIdentity(Bytes identity) { identity_ = std::move(identity); }

Bytes QelSdrRepository::identityFromDeviceId(const Bytes& response) {
    // Device ID, revision, firmware (2), IPMI version, then manufacturer (3)
    // and product (2); the device support byte (6) says nothing about which
    // controller this is.
    if (response.size() < 12 || response[0] != cc::ok) return Bytes();
    Bytes identity(response.begin() + 1, response.begin() + 6);
    identity.insert(identity.end(), response.begin() + 7, response.begin() + 12);
    return identity;
}

int QelSdrRepository::writeCacheFile(const std::string& path, const std::string& text) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return EINVAL;
    const std::string root = qelPlatform::platform().root();
    return writeAtomically(path.compare(0, root.size(), root) == 0 ? root : std::string(), path.substr(0, slash),
                           path, text);
}

std::string QelSdrRepository::readCacheFile(const std::string& path, int& error) { return readFile(path, error); }

std::string QelSdrRepository::answersPath() const {
    if (cacheDirectory_.empty()) return std::string();
    return qelPlatform::platform().path(cacheDirectory_ + "/" + answersFileName);
}

std::string QelSdrRepository::cachePath() const {
    if (cacheDirectory_.empty()) return std::string();
    return qelPlatform::platform().path(cacheDirectory_ + "/" + cacheFileName);
}

std::vector<SensorName> QelSdrRepository::sensorNames(std::vector<std::string>* problems) const {
    return qelSdr::sensorNames(records_, problems);
}

void QelSdrRepository::load() {
    unsigned int requests = 0;
    unsigned int readSize = readSize_;
    std::vector<std::string> notes;
    Bytes identity = identity_;
    std::vector<SdrRecord> records;
    bool fromCache = false;
    RepositoryInfo info;
    try {
        Session session(requests);
        info = askInfo(session);
        const std::string path = cachePath();
        if (!path.empty() && identity.empty()) {
            // The process's Get Device ID answer, when someone asked already,
            // costs no request. Without one the cache is taken on the
            // repository info alone (its version, record count, free space
            // and both timestamps), which another controller's repository
            // does not match: asking Get Device ID for it would cost every
            // short-lived client a request on each run.
            std::lock_guard<std::mutex> lock(qelIpmi::QelIpmiDeviceIdData::base_mutex);
            if (const unsigned char* known = qelIpmi::QelIpmiDeviceIdData::data)
                identity = identityFromDeviceId(Bytes(known, known + qelIpmi::deviceId::responseSize));
        }
        if (!path.empty()) {
            int error = 0;
            const std::string text = readFile(path, error);
            CacheContents cached;
            if (error == ENOENT) {
                notes.push_back("SDR cache " + path + ": none yet; reading the repository");
            } else if (error != 0) {
                notes.push_back("SDR cache " + path + ": cannot be read (" + std::strerror(error) +
                                "), ignoring it and reading the repository");
            } else if (std::string why = parseCache(text, cached); !why.empty()) {
                notes.push_back("SDR cache " + path + ": " + why + ", ignoring it and reading the repository");
            } else if (!identity.empty() && cached.identity != identity) {
                notes.push_back("SDR cache " + path +
                                (cached.identity.empty() ? ": written without the controller's identity"
                                                         : ": written for another controller") +
                                ", ignoring it and reading the repository");
            } else if (!cached.info.sameRepository(info)) {
                notes.push_back("SDR cache " + path + ": the repository changed (" +
                                describeChange(cached.info, info).substr(1) + "); reading it again");
            } else {
                records = std::move(cached.records);
                fromCache = true;
            }
        }
        // An empty repository answers 0xCB for its first record.
        if (!fromCache && info.recordCount != 0) {
            Reader reader(session, readSize, notes);
            records = reader.readAll();
        }
    } catch (...) {
        requests_ = requests;
        notes_ = std::move(notes);
        throw;
    }
    if (!fromCache && !cacheDirectory_.empty()) {
        // The sensors' answers kept beside the records hold for these
        // records only.
        const std::string answers = answersPath();
        if (::unlink(answers.c_str()) != 0 && errno != ENOENT)
            notes.push_back("sensor answers cache " + answers + ": not removed (" + std::strerror(errno) + ")");
        const std::string path = cachePath();
        const std::string directory = path.substr(0, path.rfind('/'));
        if (int e = writeAtomically(qelPlatform::platform().root(), directory, path,
                                    formatCache(identity, info, records)))
            notes.push_back("SDR cache " + path + ": not written (" + std::strerror(e) + "), ignoring");
    }
    info_ = info;
    records_ = std::move(records);
    identity_ = std::move(identity);
    fromCache_ = fromCache;
    requests_ = requests;
    readSize_ = readSize;
    notes_ = std::move(notes);
}

}  // namespace qelSdr
