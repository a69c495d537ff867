// The controller's Sensor Data Record repository, read through the IPMI
// transport and kept in a cache on disk.
//
// load() asks Get SDR Repository Info. With a cache directory, a cache file
// written under the same repository info (SDR version, record count, free
// space, addition and erase timestamps) is taken as it is: a warm load costs
// that one request. When the controller's identity is known (given, or the
// process's Get Device ID answer), a cache written for another controller or
// without an identity is not taken; when it is not known, no Get Device ID
// is sent for it and the repository info alone decides. Otherwise it
// reserves the repository and reads every record by following the
// next-record IDs the controller returns (never by counting), each one as its
// 5-byte header and then its body in pieces: 32 bytes at first, 16 once the
// controller answers 0xCA (many refuse more than 16), smaller only if it
// refuses those as well. A cancelled reservation (0xC5: the repository
// changed or someone else reserved it) is taken again and the record
// re-read, at most maxReservations times per load. A reply
// that does not add up (too short, a length that disagrees with the header,
// a record ID seen twice, a completion code other than these) throws
// QelSdrError naming the record and what was wrong; nothing hangs and nothing
// is read past the end of a reply.
//
// The cache is written atomically (a temporary file in the same directory,
// fsync, rename), so a reader never sees half of it; a corrupt, truncated or
// foreign file is ignored with a note and the repository read again. Paths go
// through the platform's root prefix.
//
// A failed load() leaves what the object held before.
#ifndef QEL_SDR_H
#define QEL_SDR_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qelExport.h"
#include "qelSdrRecord.h"

namespace qelSdr {

// The check the cache files end with (the repository's, and the sensors'
// answers kept beside it): the 32-bit FNV-1a hash of every byte before
// their end line. Inline: it is no part of the library's binary interface.
inline uint32_t cacheChecksum(std::string_view text) {
    uint32_t h = 2166136261u;
    for (unsigned char c : text) {
        h ^= c;
        h *= 16777619u;
    }
    return h;
}

// The answer to Get SDR Repository Info.
struct QEL_EXPORT RepositoryInfo {
    uint8_t version = 0;
    uint16_t recordCount = 0;
    uint16_t freeSpace = 0;
    uint32_t lastAddition = 0;
    uint32_t lastErase = 0;
    uint8_t support = 0;

    // Whether records read under `other` still hold under this info: same
    // version, record count and timestamps.
    [[nodiscard]] bool sameContents(const RepositoryInfo& other) const;
    // sameContents and the same free space: what a cache is taken on.
    [[nodiscard]] bool sameRepository(const RepositoryInfo& other) const;
    // Version (hex), record count, last addition, last erase and free space
    // as one line of words: what a cache beside the records is keyed on.
    [[nodiscard]] std::string key() const;
    // Takes the response (completion code first) apart; throws QelSdrError
    // when it is shorter than the 15 bytes of the answer.
    static RepositoryInfo fromResponse(const Bytes& response);
};

class QEL_EXPORT QelSdrRepository {
public:
    // Where qeld keeps its cache (under the platform's root).
    static constexpr const char* defaultCacheDirectory = "/var/cache/qeld/sdr";
    static constexpr const char* cacheFileName = "repository.sdr";
    // The sensors' answers kept beside the records (QelSensorReader's
    // cache); removed whenever the repository is read again.
    static constexpr const char* answersFileName = "sensor-answers";
    // The first piece size; the fallback goes to 16.
    static constexpr unsigned int initialReadSize = 32;
    static constexpr unsigned int fallbackReadSize = 16;
    static constexpr unsigned int maxReservations = 8;

    // An empty directory: no cache, every load reads the whole repository.
    explicit QelSdrRepository(std::string cacheDirectory = std::string());

    // The bytes that identify the controller in the cache. Without them a
    // load with a cache takes them from the process's Get Device ID answer
    // (QelIpmiDeviceIdData) when there is one, and otherwise goes by the
    // repository info alone: a warm load costs one request.
    void setControllerIdentity(Bytes identity);
    // Device ID, revision, firmware, IPMI version, manufacturer and product
    // from a Get Device ID response (completion code first); empty when the
    // response is a refusal or too short.
    static Bytes identityFromDeviceId(const Bytes& response);
    const Bytes& controllerIdentity() const { return identity_; }

    // Throws QelSdrError (malformed or refused replies) and QelIpmiError (no
    // device, a failing device).
    void load();

    const RepositoryInfo& info() const { return info_; }
    const std::vector<SdrRecord>& records() const { return records_; }
    // Every sensor's name (see qelSdrRecord.h); records that do not parse are
    // skipped and named in `problems`.
    std::vector<SensorName> sensorNames(std::vector<std::string>* problems = nullptr) const;

    // About the last load: whether the records came from the cache, how many
    // requests it sent, the piece size it settled on, and what it ignored or
    // fell back from, one sentence each ("SDR cache ...: corrupt ..., reading
    // the repository").
    bool loadedFromCache() const { return fromCache_; }
    unsigned int requestsSent() const { return requests_; }
    unsigned int readSize() const { return readSize_; }
    const std::vector<std::string>& notes() const { return notes_; }

    // The cache file as opened (root prefix applied); empty without a cache.
    std::string cachePath() const;
    // The sensors' answers file beside it (root prefix applied); empty
    // without a cache.
    std::string answersPath() const;

    // A cache file beside the records (`path` with the root prefix
    // applied): written atomically (temporary file, fsync, rename), its
    // directory made when missing; 0 or an errno value.
    static int writeCacheFile(const std::string& path, const std::string& text);
    // Its contents, or empty with `error` set (ENOENT: none; EINVAL: not a
    // regular file or far too large).
    static std::string readCacheFile(const std::string& path, int& error);

private:
    std::string cacheDirectory_;
    Bytes identity_;
    RepositoryInfo info_;
    std::vector<SdrRecord> records_;
    bool fromCache_ = false;
    unsigned int requests_ = 0;
    unsigned int readSize_ = initialReadSize;
    std::vector<std::string> notes_;
};

}  // namespace qelSdr

#endif
