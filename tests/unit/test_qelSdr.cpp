// The SDR repository reader against the simulated controller's repository:
// chaining by next-record IDs, partial reads and the 0xCA fallback, cancelled
// reservations, malformed replies, and the cache on disk.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qelIpmi.h"
#include "qelPlatform.h"
#include "qelSdr.h"
#include "qelSimDescription.h"
#include "qelSimDevice.h"
#include "qelSimSdr.h"
#include "scopedPlatform.h"

using namespace qelSdr;
using qelSim::Fault;
using qelSim::Request;
using qelSim::Response;
using testing::Contains;
using testing::HasSubstr;

namespace {

constexpr unsigned char storage = netfn::storage;

uint16_t le16(const qelSim::Bytes& b, std::size_t at) { return static_cast<uint16_t>(b[at] | (b[at + 1] << 8)); }

// A private root for the cache, removed afterwards.
class TempRoot {
public:
    TempRoot() {
        char pattern[] = "/tmp/qelsdrXXXXXX";
        const char* made = mkdtemp(pattern);
        if (made == nullptr) ADD_FAILURE() << "mkdtemp failed";
        path_ = made ? made : "/nonexistent";
        platform_.setRoot(path_);
    }
    ~TempRoot() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    const std::string& path() const { return path_; }
    qelPlatform::Platform* platform() { return &platform_; }

private:
    std::string path_;
    qelPlatform::Platform platform_;
};

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::vector<std::string> filesIn(const std::string& directory) {
    std::vector<std::string> out;
    if (DIR* d = opendir(directory.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") out.push_back(e->d_name);
        closedir(d);
    }
    return out;
}

bool anyNoteHas(const QelSdrRepository& repo, const std::string& text) {
    for (const std::string& n : repo.notes())
        if (n.find(text) != std::string::npos) return true;
    return false;
}

std::string notesOf(const QelSdrRepository& repo) {
    std::string out;
    for (const std::string& n : repo.notes()) out += n + "\n";
    return out;
}

class Sdr : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    const qelSim::Bytes identity = {0x20, 0x81, 0x01, 0x07, 0x02, 0xd9, 0x7e, 0x00, 0x34, 0x12};

    void SetUp() override {
        // Record IDs 1, 4, 7, ...: a reader that counts instead of chaining misses.
        describe("sdr-id-stride 3");
        describe("sensor 0x01 temperature \"CPU1 Temp\" entity=3.1 unit=celsius unc=85 uc=90 reading=45");
        describe("sensor 0x10 fan FAN1 unit=rpm m=60 lc=10 reading=150");
        describe("sensor 0x20 voltage 12V unit=volts m=63 k2=-3 lc=171 uc=209 reading=190");
        describe("sensor 0x40 power-supply \"PSU1 Status\" entity=0x0a.1");
        describe("sensor 0x70 processor CPU record=compact share=3 modifier=numeric offset=1 entity-increments=on");
        describe("sensor 0x80 os-boot \"OS Boot\" record=event-only");
        describe("sdr-record 12 20 00 00 bf 00 00 00 2e 01 00 c3 42 4d 43");
        sim->clearRequests();
    }

    void describe(const std::string& line) { sim->applyDescriptionLine(line); }
    qelSim::SimSdr& repository() { return sim->sdr(); }

    std::vector<qelSim::Bytes> recordsRead(const QelSdrRepository& repo) {
        std::vector<qelSim::Bytes> out;
        for (const SdrRecord& r : repo.records()) out.push_back(r.bytes);
        return out;
    }

    std::vector<Request> getSdrRequests() { return sim->requests(storage, cmd::getSdr); }

    // The controller's Get SDR, changed by `patch` after it ran.
    void patchGetSdr(std::function<void(const Request&, Response&)> patch) {
        qelSim::SimSdr* repo = &repository();
        sim->setHandler(storage, cmd::getSdr, [repo, patch](const Request& r) {
            Response response = repo->getSdr(r);
            patch(r, response);
            return response;
        });
    }
};

TEST_F(Sdr, ReadsEveryRecordByFollowingTheNextRecordIds) {
    QelSdrRepository repo;
    repo.load();
    EXPECT_EQ(recordsRead(repo), repository().records());
    ASSERT_EQ(repo.records().size(), 7u);
    EXPECT_EQ(repo.records()[1].recordId, 4);
    EXPECT_EQ(repo.info().version, 0x51);
    EXPECT_EQ(repo.info().recordCount, 7);
    EXPECT_EQ(repo.info().lastAddition, repository().lastAddition());
    EXPECT_FALSE(repo.loadedFromCache());
    // Only IDs the controller named were asked for.
    std::set<uint16_t> asked;
    for (const Request& r : getSdrRequests()) asked.insert(le16(r.data, getSdr::requestRecordId));
    EXPECT_EQ(asked, (std::set<uint16_t>{0, 4, 7, 10, 13, 16, 19}));
    EXPECT_EQ(sim->requests(storage, cmd::reserveSdrRepository).size(), 1u);
    EXPECT_EQ(repo.requestsSent(), sim->requestCount());
}

TEST_F(Sdr, NamesEverySensorOfTheRepository) {
    QelSdrRepository repo;
    repo.load();
    std::vector<std::string> names;
    for (const SensorName& n : repo.sensorNames()) names.push_back(n.name);
    EXPECT_EQ(names, (std::vector<std::string>{"CPU1 Temp", "FAN1", "12V", "PSU1 Status", "CPU1", "CPU2", "CPU3",
                                               "OS Boot"}));
    const std::vector<SensorName> all = repo.sensorNames();
    const SensorName* cpu3 = findSensor(all, 0x20, 0, 0x72);
    ASSERT_NE(cpu3, nullptr);
    EXPECT_EQ(cpu3->name, "CPU3");
    EXPECT_EQ(cpu3->recordId, 13);
}

TEST_F(Sdr, ReadsTheHeaderThenTheBodyInPiecesOfAtMost32Bytes) {
    QelSdrRepository repo;
    repo.load();
    const std::vector<Request> reads = getSdrRequests();
    ASSERT_FALSE(reads.empty());
    EXPECT_EQ(reads[0].data[getSdr::requestOffset], 0);
    EXPECT_EQ(reads[0].data[getSdr::requestCount], header::size);
    for (const Request& r : reads) EXPECT_LE(r.data[getSdr::requestCount], 32);
    // The full record's body (49 bytes and more) took two pieces.
    EXPECT_EQ(reads[1].data[getSdr::requestOffset], 5);
    EXPECT_EQ(reads[1].data[getSdr::requestCount], 32);
    EXPECT_EQ(reads[2].data[getSdr::requestOffset], 37);
    EXPECT_EQ(repo.readSize(), 32u);
}

TEST_F(Sdr, ControllerThatRefusesMoreThan16BytesIsReadIn16BytePieces) {
    describe("sdr-max-read 16");
    QelSdrRepository repo;
    repo.load();
    EXPECT_EQ(recordsRead(repo), repository().records());
    EXPECT_EQ(repo.readSize(), 16u);
    EXPECT_TRUE(anyNoteHas(repo, "cannot return 32 bytes at once; reading 16 at a time")) << notesOf(repo);
    // One refusal, then never more than 16 again.
    int refused = 0;
    for (const Request& r : getSdrRequests())
        if (r.data[getSdr::requestCount] > 16) ++refused;
    EXPECT_EQ(refused, 1);
}

TEST_F(Sdr, ControllerThatRefusesEven16BytesIsReadInSmallerPieces) {
    describe("sdr-max-read 6");
    QelSdrRepository repo;
    repo.load();
    EXPECT_EQ(recordsRead(repo), repository().records());
    EXPECT_EQ(repo.readSize(), 4u);
}

TEST_F(Sdr, LongestRecordIsReadWhole) {
    std::string line = "sdr-record c0";
    for (int i = 0; i < 255; ++i) line += " 5a";
    describe(line);
    QelSdrRepository repo;
    repo.load();
    EXPECT_EQ(repo.records().back().bytes.size(), 260u);
    EXPECT_EQ(recordsRead(repo), repository().records());
}

TEST_F(Sdr, RecordTooLongForOneByteOffsetsInTinyPiecesIsAnErrorNotAWrappedRead) {
    std::string line = "sdr-record c0";
    for (int i = 0; i < 255; ++i) line += " 5a";
    describe(line);
    describe("sdr-max-read 4");
    QelSdrRepository repo;
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("is 260 bytes long; its bytes from offset 256 on cannot be asked for"));
    }
}

TEST_F(Sdr, ControllerThatRefusesEveryReadIsAClearError) {
    patchGetSdr([](const Request&, Response& r) { r = {cc::cannotReturnRequestedBytes}; });
    QelSdrRepository repo;
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("refuses even one byte"));
    }
}

TEST_F(Sdr, ReservationCancelledMidReadIsTakenAgainAndTheRecordReadAgain) {
    // The repository changes while the second record is read: the sensor
    // of the last record gets a new name, which cancels the reservation.
    int reads = 0;
    qelSim::SimSdr* repo = &repository();
    sim->setHandler(storage, cmd::getSdr, [&reads, repo](const Request& r) {
        if (++reads == 4) repo->renameSensor(0x80, "OS Boot 2");
        return repo->getSdr(r);
    });
    QelSdrRepository reader;
    reader.load();
    EXPECT_EQ(sim->requests(storage, cmd::reserveSdrRepository).size(), 2u);
    EXPECT_EQ(recordsRead(reader), repository().records());
    EXPECT_EQ(reader.sensorNames().back().name, "OS Boot 2");
    EXPECT_TRUE(anyNoteHas(reader, "reservation cancelled while reading record 0x0004")) << notesOf(reader);
}

TEST_F(Sdr, ReservationCancelledOverAndOverGivesUp) {
    for (int i = 0; i < 20; ++i)
        sim->injectFault(Fault::completionCode(cc::reservationCancelled).forCommand(storage, cmd::getSdr));
    QelSdrRepository repo;
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("cancelled 9 times while reading record 0x0000"));
    }
    EXPECT_EQ(sim->requests(storage, cmd::reserveSdrRepository).size(), 9u);
}

TEST_F(Sdr, ReplyTooShortForTheNextRecordIdIsAnError) {
    sim->injectFault(Fault::rawReply({0x00, 0x04}).forCommand(storage, cmd::getSdr));
    QelSdrRepository repo;
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("asked for 5 bytes, the answer holds no next record ID"));
    }
}

TEST_F(Sdr, ReplyWithMoreOrFewerBytesThanAskedIsAnError) {
    sim->injectFault(Fault::rawReply({0x00, 0x04, 0x00, 0x01, 0x00, 0x51}).forCommand(storage, cmd::getSdr));
    QelSdrRepository repo;
    EXPECT_THROW(repo.load(), QelSdrError);
    sim->injectFault(
        Fault::rawReply({0x00, 0x04, 0x00, 0x01, 0x00, 0x51, 0x01, 0x30, 0x99}).forCommand(storage, cmd::getSdr));
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("asked for 5 bytes, the answer holds 6"));
    }
}

TEST_F(Sdr, RecordIdLoopIsAnErrorNotAHang) {
    // The third record leads back to the second.
    patchGetSdr([](const Request& r, Response& response) {
        if (response[0] == cc::ok && le16(r.data, getSdr::requestRecordId) == 7) {
            response[1] = 4;
            response[2] = 0;
        }
    });
    QelSdrRepository repo;
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("leads back to record 0x0004 after 3 records"));
    }
}

TEST_F(Sdr, RecordThatLeadsToItselfIsAnError) {
    patchGetSdr([](const Request& r, Response& response) {
        if (response[0] == cc::ok) {
            const uint16_t id = le16(r.data, getSdr::requestRecordId);
            response[1] = static_cast<unsigned char>(id == 0 ? 1 : id);
            response[2] = 0;
        }
    });
    QelSdrRepository repo;
    EXPECT_THROW(repo.load(), QelSdrError);
}

TEST_F(Sdr, RefusalsAndSilenceAreErrorsNamingTheCommand) {
    sim->injectFault(Fault::completionCode(cc::requestedDataNotPresent).forCommand(storage, cmd::getSdr));
    QelSdrRepository repo;
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("Get SDR of record 0x0000 at offset 0 failed: 0xCB requested data not present"));
    }
    sim->injectFault(Fault::noReply().forCommand(storage, cmd::getSdrRepositoryInfo));
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("Get SDR Repository Info: no answer"));
    }
    sim->injectFault(Fault::rawReply({0x00, 0x51, 0x07}).forCommand(storage, cmd::getSdrRepositoryInfo));
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("the answer has 3 bytes, it needs 15"));
    }
    sim->injectFault(Fault::rawReply({0x00, 0x01}).forCommand(storage, cmd::reserveSdrRepository));
    EXPECT_THROW(repo.load(), QelSdrError);
    repository().setPresent(false);
    try {
        repo.load();
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("0xC1 invalid command"));
    }
}

TEST_F(Sdr, DamagedRepliesGiveErrorsNeverACrashOrAHang) {
    // Every Get SDR answer cut short, lengthened or with a byte changed, at
    // random: the load ends with the records or a QelSdrError.
    std::mt19937 random(1126);
    patchGetSdr([&random](const Request&, Response& r) {
        switch (random() % 4) {
        case 0:
            r.resize(1 + random() % r.size());
            break;
        case 1:
            r.push_back(static_cast<unsigned char>(random()));
            break;
        case 2:
            r[random() % r.size()] = static_cast<unsigned char>(random());
            break;
        default:
            break;
        }
    });
    int loaded = 0;
    int refused = 0;
    for (int i = 0; i < 300; ++i) {
        QelSdrRepository repo;
        try {
            repo.load();
            ++loaded;
        } catch (const QelSdrError& e) {
            EXPECT_FALSE(e.errorText.empty());
            ++refused;
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_EQ(loaded + refused, 300);
}

TEST_F(Sdr, FailedLoadKeepsWhatWasReadBefore) {
    QelSdrRepository repo;
    repo.load();
    const auto before = recordsRead(repo);
    sim->injectFault(Fault::completionCode(0xFF).forCommand(storage, cmd::getSdr));
    describe("sdr-rename 0x01 Other");
    EXPECT_THROW(repo.load(), QelSdrError);
    EXPECT_EQ(recordsRead(repo), before);
}

TEST_F(Sdr, EmptyRepositoryHasNoRecords) {
    describe("sdr-erase");
    QelSdrRepository repo;
    repo.load();
    EXPECT_TRUE(repo.records().empty());
    EXPECT_EQ(repo.info().recordCount, 0);
    // Get SDR of record 0 would answer 0xCB: not asked.
    EXPECT_TRUE(getSdrRequests().empty());
}

TEST_F(Sdr, UnsafeSensorNamesComeThroughAsBytesAndEscaped) {
    describe("sdr-rename 0x10 \"FAN\\x0a\\\"1\\\"\\x1b\\xff\"");
    QelSdrRepository repo;
    repo.load();
    const std::vector<SensorName> all = repo.sensorNames();
    const SensorName* fan = findSensor(all, 0x20, 0, 0x10);
    ASSERT_NE(fan, nullptr);
    EXPECT_EQ(fan->name, "FAN\n\"1\"\x1b\xff");
    EXPECT_EQ(fan->escaped(), "FAN\\x0a\\\"1\\\"\\x1b\\xff");
}

// ---------------------------------------------------------------- the cache

class SdrCache : public Sdr {
protected:
    TempRoot root;
    platformTest::ScopedPlatform scoped{root.platform()};
    const std::string directory = "/var/cache/qeld/sdr";
    std::string file() const { return root.path() + directory + "/" + QelSdrRepository::cacheFileName; }

    QelSdrRepository fresh() {
        QelSdrRepository repo(directory);
        repo.setControllerIdentity(identity);
        return repo;
    }
};

TEST_F(SdrCache, ColdLoadReadsEverythingAndWritesTheCache) {
    QelSdrRepository repo = fresh();
    repo.load();
    EXPECT_FALSE(repo.loadedFromCache());
    EXPECT_EQ(repo.cachePath(), file());
    EXPECT_TRUE(anyNoteHas(repo, "none yet")) << notesOf(repo);
    const std::string text = readText(file());
    EXPECT_EQ(text.rfind("qel-sdr-cache 2\ncontroller 20 81 01 07 02 d9 7e 00 34 12\nrepository 51 7 ", 0), 0u)
        << text;
    EXPECT_THAT(text, HasSubstr("\nrecord 01 00 51 01 "));
    EXPECT_THAT(text, HasSubstr("\nend 7 "));
    // Written through a temporary file that is gone now.
    EXPECT_EQ(filesIn(root.path() + directory), std::vector<std::string>{QelSdrRepository::cacheFileName});
    struct stat st {};
    ASSERT_EQ(stat(file().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST_F(SdrCache, WarmLoadCostsExactlyOneRequest) {
    QelSdrRepository cold = fresh();
    cold.load();
    sim->clearRequests();
    QelSdrRepository warm = fresh();
    warm.load();
    EXPECT_TRUE(warm.loadedFromCache());
    EXPECT_EQ(warm.requestsSent(), 1u);
    ASSERT_EQ(sim->requestCount(), 1u);
    EXPECT_EQ(sim->requests()[0].cmd, cmd::getSdrRepositoryInfo);
    EXPECT_EQ(recordsRead(warm), recordsRead(cold));
    EXPECT_EQ(warm.info().recordCount, cold.info().recordCount);
    EXPECT_TRUE(warm.notes().empty()) << notesOf(warm);
}

TEST_F(SdrCache, WithoutAKnownIdentityNoGetDeviceIdIsSentAndTheInfoDecides) {
    QelSdrRepository repo(directory);
    repo.load();
    EXPECT_TRUE(sim->requests(netfn::app, cmd::getDeviceId).empty());
    EXPECT_TRUE(repo.controllerIdentity().empty());
    EXPECT_EQ(readText(file()).rfind("qel-sdr-cache 2\ncontroller\nrepository ", 0), 0u);
    sim->clearRequests();
    QelSdrRepository warm(directory);
    warm.load();
    EXPECT_TRUE(warm.loadedFromCache()) << notesOf(warm);
    EXPECT_EQ(sim->requestCount(), 1u);
    EXPECT_EQ(recordsRead(warm), recordsRead(repo));
}

// The cache as written, with its repository line replaced and the checksum
// made to match, so only the info differs.
std::string withRepositoryLine(const std::string& text, const std::string& line) {
    const std::size_t from = text.find("\nrepository ") + 1;
    const std::size_t to = text.find('\n', from);
    std::string changed = text.substr(0, from) + line + text.substr(to);
    const std::size_t endAt = changed.rfind("\nend ") + 1;
    uint32_t h = 2166136261u;
    for (std::size_t i = 0; i < endAt; ++i) {
        h ^= static_cast<unsigned char>(changed[i]);
        h *= 16777619u;
    }
    const std::string endLine = changed.substr(endAt);
    const std::size_t hashAt = endLine.rfind(' ') + 1;
    char hash[16];
    std::snprintf(hash, sizeof hash, "%08x", h);
    return changed.substr(0, endAt) + endLine.substr(0, hashAt) + hash + "\n";
}

TEST_F(SdrCache, CacheIsRefusedWhenAnyFieldOfTheRepositoryInfoDiffersAndTakenWhenAllMatch) {
    QelSdrRepository cold(directory);
    cold.load();
    const std::string good = readText(file());
    const RepositoryInfo info = cold.info();
    ASSERT_NE(info.freeSpace, 0u);
    const auto line = [](unsigned int version, unsigned int count, uint32_t addition, uint32_t erase,
                         unsigned int free) {
        char text[96];
        std::snprintf(text, sizeof text, "repository %02x %u %u %u %u", version, count, addition, erase, free);
        return std::string(text);
    };
    const std::vector<std::pair<std::string, std::string>> changes = {
        {line(0x02, info.recordCount, info.lastAddition, info.lastErase, info.freeSpace), "version"},
        {line(info.version, info.recordCount + 1u, info.lastAddition, info.lastErase, info.freeSpace), "records"},
        {line(info.version, info.recordCount, info.lastAddition - 1, info.lastErase, info.freeSpace), "last addition"},
        {line(info.version, info.recordCount, info.lastAddition, info.lastErase + 1, info.freeSpace), "last erase"},
        {line(info.version, info.recordCount, info.lastAddition, info.lastErase, info.freeSpace + 1u), "free space"},
    };
    for (const auto& [changed, field] : changes) {
        writeText(file(), withRepositoryLine(good, changed));
        sim->clearRequests();
        QelSdrRepository repo(directory);
        repo.load();
        EXPECT_FALSE(repo.loadedFromCache()) << changed;
        EXPECT_TRUE(anyNoteHas(repo, "the repository changed (" + field)) << notesOf(repo);
        EXPECT_TRUE(sim->requests(netfn::app, cmd::getDeviceId).empty());
    }
    const std::string same = line(info.version, info.recordCount, info.lastAddition, info.lastErase, info.freeSpace);
    writeText(file(), withRepositoryLine(good, same));
    EXPECT_EQ(readText(file()), good);  // the helper changes nothing else
    sim->clearRequests();
    QelSdrRepository warm(directory);
    warm.load();
    EXPECT_TRUE(warm.loadedFromCache()) << notesOf(warm);
    ASSERT_EQ(sim->requestCount(), 1u);
    EXPECT_EQ(sim->requests()[0].cmd, cmd::getSdrRepositoryInfo);
}

TEST_F(SdrCache, AProcessThatKnowsTheControllerRefusesACacheWrittenWithoutItsIdentity) {
    QelSdrRepository anonymous(directory);
    anonymous.load();
    QelSdrRepository known = fresh();
    known.load();
    EXPECT_FALSE(known.loadedFromCache());
    EXPECT_TRUE(anyNoteHas(known, "written without the controller's identity")) << notesOf(known);
    // Rewritten with it: taken from then on, by both kinds of process.
    QelSdrRepository again = fresh();
    again.load();
    EXPECT_TRUE(again.loadedFromCache()) << notesOf(again);
    QelSdrRepository anonymousAgain(directory);
    anonymousAgain.load();
    EXPECT_TRUE(anonymousAgain.loadedFromCache()) << notesOf(anonymousAgain);
}

TEST(SdrIdentity, TakenFromAGetDeviceIdAnswerWithoutTheSupportByteOrAuxiliaryRevision) {
    const qelSim::Bytes answer = {0x00, 0x20, 0x81, 0x01, 0x07, 0x02, 0xbf, 0xd9, 0x7e, 0x00, 0x34, 0x12,
                                  0x00, 0x00, 0x00, 0x47};
    EXPECT_EQ(QelSdrRepository::identityFromDeviceId(answer),
              (qelSim::Bytes{0x20, 0x81, 0x01, 0x07, 0x02, 0xd9, 0x7e, 0x00, 0x34, 0x12}));
    EXPECT_TRUE(QelSdrRepository::identityFromDeviceId({0xC1}).empty());
    EXPECT_TRUE(QelSdrRepository::identityFromDeviceId({0x00, 0x20, 0x81}).empty());
}

TEST_F(SdrCache, AControllerWithoutGetDeviceIdStillHasItsRepositoryCached) {
    sim->injectFault(Fault::noReply().forCommand(netfn::app, cmd::getDeviceId));
    QelSdrRepository repo(directory);
    repo.load();
    EXPECT_EQ(recordsRead(repo), repository().records());
    QelSdrRepository warm(directory);
    warm.load();
    EXPECT_TRUE(warm.loadedFromCache()) << notesOf(warm);
}

TEST_F(SdrCache, ChangedRepositoryIsReadAgain) {
    fresh().load();
    describe("sdr-rename 0x01 \"CPU0 Temp\"");
    sim->clearRequests();
    QelSdrRepository repo = fresh();
    repo.load();
    EXPECT_FALSE(repo.loadedFromCache());
    EXPECT_TRUE(anyNoteHas(repo, "the repository changed (last addition")) << notesOf(repo);
    EXPECT_EQ(repo.sensorNames()[0].name, "CPU0 Temp");
    EXPECT_GT(sim->requestCount(), 1u);
    // ... and the cache now holds the new name.
    sim->clearRequests();
    QelSdrRepository again = fresh();
    again.load();
    EXPECT_TRUE(again.loadedFromCache());
    EXPECT_EQ(again.sensorNames()[0].name, "CPU0 Temp");

    describe("sensor 0x90 temperature \"DIMM Temp\" unit=celsius");
    QelSdrRepository added = fresh();
    added.load();
    EXPECT_FALSE(added.loadedFromCache());
    EXPECT_TRUE(anyNoteHas(added, "records 7 -> 8")) << notesOf(added);
    EXPECT_EQ(added.sensorNames().back().name, "DIMM Temp");
}

TEST_F(SdrCache, CorruptCacheIsIgnoredWithANoteAndReadAgain) {
    fresh().load();
    std::string text = readText(file());
    const std::size_t at = text.find("record 01 00 51 01");
    ASSERT_NE(at, std::string::npos);
    text[at + 8] = '0';  // record 00 00 ...: another record ID, same length
    writeText(file(), text);
    sim->clearRequests();
    QelSdrRepository repo = fresh();
    repo.load();
    EXPECT_FALSE(repo.loadedFromCache());
    EXPECT_TRUE(anyNoteHas(repo, "corrupt (its checksum does not match its contents), ignoring it and reading the "
                                 "repository"))
        << notesOf(repo);
    EXPECT_EQ(recordsRead(repo), repository().records());
    // The cache was written again, good now.
    QelSdrRepository warm = fresh();
    warm.load();
    EXPECT_TRUE(warm.loadedFromCache());
}

TEST_F(SdrCache, TruncatedCacheIsIgnored) {
    fresh().load();
    const std::string text = readText(file());
    for (std::size_t cut : {text.size() - 1, text.size() / 2, std::size_t{20}, std::size_t{0}}) {
        writeText(file(), text.substr(0, cut));
        QelSdrRepository repo = fresh();
        repo.load();
        EXPECT_FALSE(repo.loadedFromCache()) << "cut at " << cut;
        EXPECT_EQ(recordsRead(repo), repository().records());
        EXPECT_TRUE(anyNoteHas(repo, "ignoring it and reading the repository")) << notesOf(repo);
    }
}

TEST_F(SdrCache, CacheWithARecordThatDoesNotAddUpIsIgnored) {
    // A well-formed file (its checksum recomputed) whose record's length byte lies.
    fresh().load();
    std::string text = readText(file());
    const std::size_t at = text.find("record 01 00 51 01 ");
    text.replace(at + 19, 2, "ff");
    const std::size_t end = text.rfind("end ");
    std::string body = text.substr(0, end);
    uint32_t h = 2166136261u;
    for (unsigned char c : body) {
        h ^= c;
        h *= 16777619u;
    }
    char line[48];
    std::snprintf(line, sizeof line, "end 7 %08x\n", h);
    writeText(file(), body + line);
    QelSdrRepository repo = fresh();
    repo.load();
    EXPECT_FALSE(repo.loadedFromCache());
    EXPECT_TRUE(anyNoteHas(repo, "announces 255 bytes")) << notesOf(repo);
}

// The cache text with its end line made again for what it now holds, as if
// the program had written it.
std::string resealed(const std::string& text) {
    const std::size_t end = text.rfind("end ");
    const std::string body = text.substr(0, end);
    const std::string count = text.substr(end + 4, text.find(' ', end + 4) - end - 4);
    uint32_t h = 2166136261u;
    for (unsigned char c : body) {
        h ^= c;
        h *= 16777619u;
    }
    char line[48];
    std::snprintf(line, sizeof line, " %08x\n", h);
    return body + "end " + count + line;
}

TEST_F(SdrCache, CacheWordsMayBeSeparatedByAnyWhiteSpaceAndInUpperCase) {
    // An administrator's editor may leave tabs, CRs and capitals: still the
    // same records.
    fresh().load();
    std::string text = readText(file());
    const std::size_t at = text.find("record 01 00 51 01 ");
    ASSERT_NE(at, std::string::npos);
    text.replace(at, 19, "record\t01 \v00\f 51  01\r ");
    const std::size_t controller = text.find("controller 20 81");
    text.replace(controller + 11, 5, "20\t81");
    const std::size_t d9 = text.find("d9 7e");
    ASSERT_LT(d9, text.find('\n', controller));
    for (std::size_t i = d9; i < d9 + 5; ++i)
        text[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
    writeText(file(), resealed(text));
    sim->clearRequests();
    QelSdrRepository repo = fresh();
    repo.load();
    EXPECT_TRUE(repo.loadedFromCache()) << notesOf(repo);
    EXPECT_EQ(recordsRead(repo), repository().records());
    EXPECT_EQ(sim->requestCount(), 1u);
}

TEST_F(SdrCache, CacheWordsThatAreNotTwoHexDigitsAreCorrupt) {
    fresh().load();
    const std::string good = readText(file());
    const std::size_t at = good.find("record 01 00 51 01 ");
    ASSERT_NE(at, std::string::npos);
    const std::string line = std::to_string(std::count(good.begin(), good.begin() + at, '\n') + 1);
    for (const char* word : {"1", "123", "0g", "+1", "-1", "0x"}) {
        std::string text = good;
        text.replace(at + 7, 2, word);
        writeText(file(), resealed(text));
        QelSdrRepository repo = fresh();
        repo.load();
        EXPECT_FALSE(repo.loadedFromCache()) << word;
        EXPECT_TRUE(anyNoteHas(repo, "corrupt (line " + line + "), ignoring it")) << word << ": " << notesOf(repo);
        EXPECT_EQ(recordsRead(repo), repository().records());
    }
}

TEST_F(SdrCache, CacheRepositoryLineOutOfRangeOrWithMoreWordsIsCorrupt) {
    fresh().load();
    const std::string good = readText(file());
    const std::size_t at = good.find("\nrepository ") + 1;
    const std::size_t lineEnd = good.find('\n', at);
    const std::string original = good.substr(at, lineEnd - at);
    for (const std::string& line : {std::string("repository 51 65536 0 0"), std::string("repository 51 7 4294967296 0"),
                                    std::string("repository 51 7 0 99999999999"), std::string("repository 5 7 0 0"),
                                    std::string("repository 51 7 0"), original + " 1", std::string("repository 51 +7 0 0")}) {
        writeText(file(), resealed(good.substr(0, at) + line + good.substr(lineEnd)));
        QelSdrRepository repo = fresh();
        repo.load();
        EXPECT_FALSE(repo.loadedFromCache()) << line;
        EXPECT_TRUE(anyNoteHas(repo, "corrupt (line 3), ignoring it")) << line << ": " << notesOf(repo);
    }
    // The end line is as strict: a word more, a count that is no number.
    for (const char* tail : {" x", ""}) {
        std::string text = resealed(good);
        text.insert(text.size() - 1, tail);
        if (*tail == '\0') text.replace(text.rfind("end ") + 4, 1, "z");
        writeText(file(), text);
        QelSdrRepository repo = fresh();
        repo.load();
        EXPECT_FALSE(repo.loadedFromCache()) << tail;
        EXPECT_TRUE(anyNoteHas(repo, "corrupt (bad end line)")) << notesOf(repo);
    }
}

TEST_F(SdrCache, ForeignFilesAndOtherControllersCachesAreIgnored) {
    fresh().load();
    const std::string good = readText(file());
    writeText(file(), "this is not a cache\n");
    QelSdrRepository foreign = fresh();
    foreign.load();
    EXPECT_FALSE(foreign.loadedFromCache());
    EXPECT_TRUE(anyNoteHas(foreign, "not a cache file of this program")) << notesOf(foreign);

    writeText(file(), good);
    QelSdrRepository other(directory);
    other.setControllerIdentity({0x20, 0x81, 0x01, 0x07, 0x02, 0xd9, 0x7e, 0x00, 0x99, 0x99});
    other.load();
    EXPECT_FALSE(other.loadedFromCache());
    EXPECT_TRUE(anyNoteHas(other, "written for another controller")) << notesOf(other);
}

TEST_F(SdrCache, CacheThatCannotBeWrittenIsNotedAndTheRecordsStillServe) {
    // A file where the directory should be.
    ASSERT_EQ(std::system(("mkdir -p '" + root.path() + "/var/cache/qeld' && touch '" + root.path() +
                           "/var/cache/qeld/sdr'")
                              .c_str()),
              0);
    QelSdrRepository repo = fresh();
    repo.load();
    EXPECT_EQ(recordsRead(repo), repository().records());
    EXPECT_TRUE(anyNoteHas(repo, "not written")) << notesOf(repo);
}

TEST_F(SdrCache, RewriteReplacesTheFileWhole) {
    fresh().load();
    struct stat before {};
    ASSERT_EQ(stat(file().c_str(), &before), 0);
    describe("sdr-rename 0x01 X");
    fresh().load();
    struct stat after {};
    ASSERT_EQ(stat(file().c_str(), &after), 0);
    // A new file renamed into place, never the old one rewritten in place.
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ(filesIn(root.path() + directory).size(), 1u);
}

}  // namespace
