// The event log forwarder against the simulated controller's SEL: what
// reaches the sink, how often, and what survives a restart. The host is an
// agentTest::AgentPlatform (a private root for the state file, a clock the
// test moves, syslog recorded); the sink records every entry.
#include "qelSelForwarder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <filesystem>
#include <fstream>
#include <cstdio>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "agentPlatform.h"
#include "qelSel.h"
#include "qelSimDevice.h"
#include "qelSimSel.h"
#include "smbiosImage.h"

namespace {

using qelSel::ForwarderOptions;
using qelSel::LogEntry;
using qelSel::QelSelForwarder;
using qelSel::RawRecord;
using testing::SizeIs;

constexpr unsigned char storage = qelSel::netfn::storage;

// A memory event (Correctable ECC on DIMM `dimm`) as system software logs it.
RawRecord ecc(unsigned char dimm) {
    return {0, 0, 0x02, 0, 0, 0, 0, 0x41, 0x00, 0x04, 0x0C, 0x01, 0x6F, 0xA0, 0x00, dimm};
}

// Records the entries; can refuse, and can say what it took last as the
// journal does.
class RecordingSink : public qelSel::SelSink {
public:
    bool deliver(const LogEntry& entry) override {
        if (refuse) return false;
        entries.push_back(entry);
        if (entry.record) last = entry.record;
        return true;
    }
    std::optional<RawRecord> lastDelivered() override { return knowsLast ? last : std::nullopt; }

    std::vector<LogEntry> events(const char* id = qelSel::messageId::selEvent) const {
        std::vector<LogEntry> out;
        for (const LogEntry& e : entries)
            if (e.messageId == id) out.push_back(e);
        return out;
    }
    std::string field(const LogEntry& e, const std::string& name) const {
        for (const auto& f : e.fields)
            if (f.first == name) return f.second;
        return "";
    }

    std::vector<LogEntry> entries;
    std::optional<RawRecord> last;
    bool refuse = false;
    bool knowsLast = false;
};

class SelForwarder : public testing::Test {
protected:
    smbiosTest::TempDir root;
    agentTest::AgentPlatform host{root.path()};
    qelSim::ScopedSimulator sim;
    qelPlatform::Platform* previous = nullptr;
    RecordingSink sink;
    time_t clock_ = 1700000000;

    void SetUp() override {
        previous = qelPlatform::setPlatform(&host);
        host.setTime(clock_);
        host.setUptime(30 * 86400);  // up long before any record: every record is of this boot
        sim->sel().setTime(1800000000);
    }
    void TearDown() override { qelPlatform::setPlatform(previous); }

    ForwarderOptions options() {
        ForwarderOptions o;
        return o;
    }
    // `n` passes, one every 20 s of both clocks.
    void passes(QelSelForwarder& f, int n) {
        for (int i = 0; i < n; ++i) {
            f.pass();
            clock_ += 20;
            host.setTime(clock_);
            sim->advanceMs(20000);
        }
    }
    void add(unsigned int n, unsigned char first = 0) {
        for (unsigned int i = 0; i < n; ++i)
            ASSERT_TRUE(sim->sel().add(ecc(static_cast<unsigned char>(first + i))).has_value());
    }
    std::vector<unsigned> dimmsForwarded() {
        std::vector<unsigned> out;
        for (const LogEntry& e : sink.events()) out.push_back(e.record ? (*e.record)[15] : 999u);
        return out;
    }
    std::vector<unsigned> range(unsigned from, unsigned to) {
        std::vector<unsigned> out;
        for (unsigned i = from; i < to; ++i) out.push_back(i);
        return out;
    }
    size_t requests(unsigned char cmd) { return sim->requests(storage, cmd).size(); }
    std::string statePath() { return root.path() + "/var/lib/qeld/sel-state"; }
    std::string progressPath() { return statePath() + ".pass"; }
    static std::string read(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // The DIMM of the record a state file says was the last forwarded (byte
    // 15 of its "last-raw"), or -1.
    static int lastDimmIn(const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            if (line.rfind("last-raw ", 0) == 0 && line.size() == 9 + 32) return std::stoi(line.substr(9 + 30, 2), nullptr, 16);
        return -1;
    }
    // A state text edited by hand signed again: its check line is FNV-1a
    // (64 bits, offset basis 0xcbf29ce484222325, prime 0x100000001b3) over
    // the lines before it, in 16 lower-case hex digits.
    static std::string resign(const std::string& text) {
        std::string covered;
        std::istringstream lines(text);
        std::string line;
        while (std::getline(lines, line) && line.rfind("check ", 0) != 0) covered += line + "\n";
        uint64_t h = 0xcbf29ce484222325ull;
        for (unsigned char c : covered) h = (h ^ c) * 0x100000001b3ull;
        char digits[17];
        std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(h));
        return covered + "check " + digits + "\nend\n";
    }
    std::vector<agentTest::LogLine> logsContaining(const std::string& part) {
        std::vector<agentTest::LogLine> out;
        for (const auto& l : host.logs())
            if (l.text.find(part) != std::string::npos) out.push_back(l);
        return out;
    }
};

TEST_F(SelForwarder, RecordsAreForwardedOnceInOrderWithTheirFields) {
    QelSelForwarder f(sink, options());
    add(3);
    passes(f, 1);
    ASSERT_THAT(sink.events(), SizeIs(3));
    const LogEntry e = sink.events()[0];
    EXPECT_EQ(e.priority, LOG_WARNING) << "a correctable ECC error";
    EXPECT_EQ(e.message.rfind("SEL record 0x", 0), 0u) << e.message;
    EXPECT_NE(e.message.find("Correctable ECC"), std::string::npos) << e.message;
    EXPECT_EQ(sink.field(e, "QEL_SEL_SENSOR_TYPE_CODE"), "0x0C");
    EXPECT_EQ(sink.field(e, "QEL_SEL_EVENT_DIRECTION"), "assertion");
    EXPECT_EQ(sink.field(e, "QEL_SEL_SEVERITY"), "warning");
    EXPECT_EQ(sink.field(e, "QEL_SEL_RAW").size(), 32u);
    passes(f, 10);
    EXPECT_EQ(dimmsForwarded(), range(0, 3)) << "nothing again";
    add(2, 3);
    passes(f, 3);  // within a minute
    EXPECT_EQ(dimmsForwarded(), range(0, 5));
    EXPECT_EQ(f.stats().forwarded, 5u);
}

TEST_F(SelForwarder, AtRestItAsksOneGetSelInfoAMinuteAndNothingElse) {
    QelSelForwarder f(sink, options());
    add(2);
    passes(f, 3);
    sim->clearRequests();
    passes(f, 180);  // an hour
    EXPECT_EQ(sim->requestCount(), 60u);
    EXPECT_EQ(requests(qelSel::cmd::getSelInfo), 60u);
}

TEST_F(SelForwarder, ABurstOfAThousandDrainsABoundedNumberAPassWithinTheRequestBudget) {
    sim->sel().setCapacity(2000);
    QelSelForwarder f(sink, options());
    passes(f, 1);
    sim->clearRequests();
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(sim->sel().add(ecc(static_cast<unsigned char>(i))).has_value());
    size_t most = 0;
    for (int pass = 0; pass < 40 && (f.stats().backlog || sink.events().size() < 1000); ++pass) {
        const size_t before = sink.events().size();
        passes(f, 1);
        most = std::max(most, sink.events().size() - before);
    }
    EXPECT_THAT(sink.events(), SizeIs(1000));
    EXPECT_LE(most, 32u);
    EXPECT_LE(static_cast<double>(sim->requestCount()), 1.1 * 1000) << sim->requestCount() << " requests";
    std::set<std::string> raws;
    for (const LogEntry& e : sink.events()) raws.insert(sink.field(e, "QEL_SEL_RECORD_ID"));
    EXPECT_EQ(raws.size(), 1000u) << "each record once";
}

TEST_F(SelForwarder, NonConsecutiveRecordIdsAreFollowedByTheirNextId) {
    sim->sel().setIdStep(7);
    QelSelForwarder f(sink, options());
    add(20);
    passes(f, 1);
    EXPECT_EQ(dimmsForwarded(), range(0, 20));
}

TEST_F(SelForwarder, AFullCircularLogThatWrapsLosesAndRepeatsNothing) {
    sim->sel().setCapacity(50);
    sim->sel().setMode(qelSim::SimSel::Mode::circular);
    QelSelForwarder f(sink, options());
    add(50);
    passes(f, 4);
    ASSERT_EQ(dimmsForwarded(), range(0, 50));
    // Full: the entry count and the erase time stay; only the addition time
    // tells that 20 new records replaced the oldest.
    add(20, 50);
    passes(f, 3);
    EXPECT_EQ(dimmsForwarded(), range(0, 70));
}

TEST_F(SelForwarder, ALogThatWrappedPastTheLastForwardedRecordGoesOnWithTheNewerOnes) {
    sim->sel().setCapacity(20);
    sim->sel().setMode(qelSim::SimSel::Mode::circular);
    {
        QelSelForwarder f(sink, options());
        add(10);
        passes(f, 1);
    }
    ASSERT_EQ(dimmsForwarded(), range(0, 10));
    add(30, 10);  // 30 more into 20 places: the last forwarded one is overwritten
    QelSelForwarder f(sink, options());
    passes(f, 2);
    // 10..19 were overwritten before anyone read them; 20..39 are there.
    std::vector<unsigned> expected = range(0, 10);
    for (unsigned d : range(20, 40)) expected.push_back(d);
    EXPECT_EQ(dimmsForwarded(), expected);
}

TEST_F(SelForwarder, AClearIsLoggedOnceAndForwardingGoesOnFromTheFirstRecord) {
    QelSelForwarder f(sink, options());
    add(5);
    passes(f, 1);
    sim->advanceMs(5000);
    sim->sel().clear();
    add(2, 100);
    passes(f, 4);
    EXPECT_THAT(sink.events(qelSel::messageId::selCleared), SizeIs(1));
    EXPECT_EQ(dimmsForwarded(), (std::vector<unsigned>{0, 1, 2, 3, 4, 100, 101}));
    passes(f, 10);
    EXPECT_THAT(sink.events(qelSel::messageId::selCleared), SizeIs(1));
}

TEST_F(SelForwarder, TheFillLevelIsLoggedAt75And90AndFullOncePerRise) {
    sim->sel().setCapacity(20);
    sim->sel().setMode(qelSim::SimSel::Mode::stopWhenFull);
    QelSelForwarder f(sink, options());
    for (int i = 0; i < 20; ++i) {
        add(1, static_cast<unsigned char>(i));
        passes(f, 3);
    }
    const auto filling = sink.events(qelSel::messageId::selFilling);
    ASSERT_THAT(filling, SizeIs(3));
    EXPECT_EQ(filling[0].message, "the controller's event log is 75 % full");
    EXPECT_EQ(filling[1].message, "the controller's event log is 90 % full");
    EXPECT_EQ(filling[0].priority, LOG_WARNING);
    // A clear and a new rise: told again.
    sim->sel().clear();
    passes(f, 3);
    for (int i = 0; i < 16; ++i) add(1, static_cast<unsigned char>(50 + i));
    passes(f, 3);
    EXPECT_THAT(sink.events(qelSel::messageId::selFilling), SizeIs(4));
}

TEST_F(SelForwarder, AnOverflowIsLoggedOnce) {
    sim->sel().setCapacity(4);
    sim->sel().setMode(qelSim::SimSel::Mode::stopWhenFull);
    QelSelForwarder f(sink, options());
    add(4);
    EXPECT_FALSE(sim->sel().add(ecc(9)).has_value()) << "full: dropped";
    passes(f, 10);
    const auto overflow = sink.events(qelSel::messageId::selOverflow);
    ASSERT_THAT(overflow, SizeIs(1));
    EXPECT_EQ(overflow[0].message, "the controller's event log overflowed: events have been dropped");
}

TEST_F(SelForwarder, ARestartGoesOnWhereTheLastOneStopped) {
    {
        QelSelForwarder f(sink, options());
        add(3);
        passes(f, 1);
    }
    add(4, 3);  // while the agent was down
    QelSelForwarder f(sink, options());
    passes(f, 1);
    EXPECT_EQ(dimmsForwarded(), range(0, 7));
}

TEST_F(SelForwarder, TheFirstStartForwardsOnlyWhatCameSinceThisBoot) {
    // Two records from long before this boot, one from after it.
    host.setUptime(3600);
    const uint32_t now = sim->sel().time();
    RawRecord old1 = ecc(1), old2 = ecc(2), fresh = ecc(3);
    auto stamp = [](RawRecord& r, uint16_t id, uint32_t t) {
        r[0] = static_cast<unsigned char>(id);
        r[1] = static_cast<unsigned char>(id >> 8);
        for (int i = 0; i < 4; ++i) r[3 + i] = static_cast<unsigned char>(t >> (8 * i));
    };
    stamp(old1, 1, now - 86400);
    stamp(old2, 2, now - 7200);
    stamp(fresh, 3, now - 600);
    sim->sel().addExact(old1);
    sim->sel().addExact(old2);
    sim->sel().addExact(fresh);
    QelSelForwarder f(sink, options());
    passes(f, 1);
    EXPECT_EQ(dimmsForwarded(), (std::vector<unsigned>{3}));
    EXPECT_EQ(f.stats().skipped, 2u);
}

TEST_F(SelForwarder, ReplayForwardsTheWholeLogOnce) {
    host.setUptime(60);
    RawRecord old = ecc(1);
    const uint32_t t = sim->sel().time() - 86400;
    old[0] = 1;
    for (int i = 0; i < 4; ++i) old[3 + i] = static_cast<unsigned char>(t >> (8 * i));
    sim->sel().addExact(old);
    ForwarderOptions o = options();
    o.replay = true;
    QelSelForwarder f(sink, o);
    passes(f, 5);
    EXPECT_EQ(dimmsForwarded(), (std::vector<unsigned>{1}));
}

class UnusableState : public SelForwarder, public testing::WithParamInterface<std::string> {};

TEST_P(UnusableState, IsSaidOnceAndForwardingStartsAtThisBootNotTheWholeLog) {
    host.setUptime(3600);
    RawRecord old = ecc(1);
    const uint32_t t = sim->sel().time() - 86400;
    old[0] = 1;
    for (int i = 0; i < 4; ++i) old[3 + i] = static_cast<unsigned char>(t >> (8 * i));
    sim->sel().addExact(old);
    std::filesystem::create_directories(root.path() + "/var/lib/qeld");
    std::ofstream(statePath()) << GetParam();
    QelSelForwarder f(sink, options());
    add(1, 7);
    passes(f, 2);
    EXPECT_EQ(dimmsForwarded(), (std::vector<unsigned>{7}));
    EXPECT_THAT(logsContaining("forwarding what"), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(
    SelForwarder, UnusableState,
    testing::Values("", "garbage\n", "qeld-sel-state 1\nlast-id 5\n",
                    "qeld-sel-state 1\ncontroller guid:ffffffffffffffffffffffffffffffff\nlast-id 1\n"
                    "last-timestamp 5\nlast-raw 0100020500000041000400010c6fa00000\nend\n",
                    "qeld-sel-state 1\ncontroller device:ffffffffffff\nlast-id 1\nlast-timestamp 5\n"
                    "last-raw 01000205000000410004000c016fa00001\nend\n"));

TEST_F(SelForwarder, TheStateFileIsReplacedWholeAfterEveryPass) {
    QelSelForwarder f(sink, options());
    add(2);
    passes(f, 1);
    std::ifstream in(statePath());
    std::string first;
    std::getline(in, first);
    EXPECT_EQ(first, "qeld-sel-state 1");
    EXPECT_FALSE(std::filesystem::exists(statePath() + ".new"));
    EXPECT_EQ(std::filesystem::status(statePath()).permissions() & std::filesystem::perms::others_read,
              std::filesystem::perms::none);
}

TEST_F(SelForwarder, ARecordTheJournalTookJustBeforeAKillIsNotForwardedAgain) {
    sink.knowsLast = true;
    {
        QelSelForwarder f(sink, options());
        add(3);
        passes(f, 1);
    }
    // The kill came after the journal took record 3 and before the state
    // said so: put back the state of after record 2.
    std::string state;
    {
        // Re-run to record 2 only, in a fresh root, to get that state.
        std::ifstream in(statePath());
        state.assign(std::istreambuf_iterator<char>(in), {});
    }
    const std::vector<qelSel::RawRecord> log = sim->sel().records();
    ASSERT_EQ(log.size(), 3u);
    auto hex = [](const RawRecord& r) {
        static const char d[] = "0123456789abcdef";
        std::string s;
        for (unsigned char b : r) s += {d[b >> 4], d[b & 15]};
        return s;
    };
    const uint16_t id2 = static_cast<uint16_t>(log[1][0] | (log[1][1] << 8));
    const uint32_t t2 = static_cast<uint32_t>(log[1][3] | (log[1][4] << 8) | (log[1][5] << 16) |
                                              (static_cast<uint32_t>(log[1][6]) << 24));
    std::string rewound;
    std::istringstream lines(state);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("last-id ", 0) == 0) line = "last-id " + std::to_string(id2);
        else if (line.rfind("last-timestamp ", 0) == 0) line = "last-timestamp " + std::to_string(t2);
        else if (line.rfind("last-raw ", 0) == 0) line = "last-raw " + hex(log[1]);
        rewound += line + "\n";
    }
    std::ofstream(statePath()) << resign(rewound);
    QelSelForwarder f(sink, options());
    add(1, 3);
    passes(f, 1);
    EXPECT_EQ(dimmsForwarded(), range(0, 4)) << "record 3 not twice";
}

// The state is saved once a pass: a kill late in a pass leaves it a pass's
// records behind what the journal took. None of those is handed again.
TEST_F(SelForwarder, RecordsTheJournalTookInAPassAKillCutShortAreNotForwardedAgain) {
    sink.knowsLast = true;
    std::string early;
    {
        QelSelForwarder f(sink, options());
        add(2);
        passes(f, 1);
        std::ifstream in(statePath());
        early.assign(std::istreambuf_iterator<char>(in), {});
        add(30, 2);
        passes(f, 4);  // the next check comes a minute later
    }
    ASSERT_EQ(dimmsForwarded(), range(0, 32));
    // Killed before that pass's end: the state of after the first pass.
    std::ofstream(statePath()) << early;
    QelSelForwarder f(sink, options());
    add(3, 32);
    passes(f, 2);
    EXPECT_EQ(dimmsForwarded(), range(0, 35)) << "the 30 records of the cut pass not twice, the 3 new once";
}

// A backlog's passes between two syncs rewrite the progress file in place
// and leave the synced state alone: after the first pass (synced) and a
// second 20 s later, the state says record 32 and the progress file 64. A
// kill keeps both; the next start goes on from the newer without the sink's
// help.
TEST_F(SelForwarder, ABacklogsPassesBetweenSyncsNoteProgressAndAKillGoesOnFromIt) {
    {
        QelSelForwarder f(sink, options());
        add(100);
        passes(f, 2);
        EXPECT_EQ(lastDimmIn(read(statePath())), 31);
        EXPECT_EQ(lastDimmIn(read(progressPath())), 63);
        EXPECT_EQ(read(progressPath()).size(), 512u) << "one block, rewritten in place";
        EXPECT_EQ(std::filesystem::status(progressPath()).permissions() & std::filesystem::perms::others_read,
                  std::filesystem::perms::none);
    }
    ASSERT_EQ(dimmsForwarded(), range(0, 64));
    QelSelForwarder f(sink, options());
    passes(f, 3);
    EXPECT_EQ(dimmsForwarded(), range(0, 100)) << "each once";
}

TEST_F(SelForwarder, TheEndOfABacklogIsSynced) {
    QelSelForwarder f(sink, options());
    add(70);
    passes(f, 3);  // 32 (the first save is synced), 64 (progress), 70: the end
    ASSERT_EQ(dimmsForwarded(), range(0, 70));
    EXPECT_EQ(lastDimmIn(read(statePath())), 69);
}

TEST_F(SelForwarder, ALongBacklogIsSyncedEverySyncSeconds) {
    ForwarderOptions o = options();
    o.syncSeconds = 60;
    QelSelForwarder f(sink, o);
    add(250);
    passes(f, 3);  // t = 0 synced, 20 and 40 not
    EXPECT_EQ(lastDimmIn(read(statePath())), 31);
    passes(f, 1);  // t = 60
    EXPECT_EQ(lastDimmIn(read(statePath())), 127);
}

// A power cut can tear the progress file (or leave it behind): a torn one
// fails its check, is said once, and forwarding goes on from the synced
// state: what came after it is forwarded again, nothing is lost.
TEST_F(SelForwarder, ATornProgressFileIsIgnoredAndNothingIsLost) {
    {
        QelSelForwarder f(sink, options());
        add(100);
        passes(f, 2);
    }
    std::string torn = read(progressPath());
    const std::size_t at = torn.find("last-raw ");
    ASSERT_NE(at, std::string::npos);
    torn[at + 9 + 31] = torn[at + 9 + 31] == '0' ? '1' : '0';  // a byte of the old block under the new
    std::ofstream(progressPath(), std::ios::binary) << torn;
    QelSelForwarder f(sink, options());
    passes(f, 4);
    EXPECT_THAT(logsContaining("progress file"), SizeIs(1));
    EXPECT_THAT(logsContaining("progress file")[0].text, testing::HasSubstr("check mismatch"));
    std::vector<unsigned> expected = range(0, 64);
    for (unsigned i = 32; i < 100; ++i) expected.push_back(i);
    EXPECT_EQ(dimmsForwarded(), expected);
}

// An older progress file than the synced state (written before the state's
// last sync) is not taken.
TEST_F(SelForwarder, AProgressFileOlderThanTheStateIsNotTaken) {
    {
        QelSelForwarder f(sink, options());
        add(70);
        passes(f, 3);  // progress at 64, then synced at 70
    }
    ASSERT_EQ(lastDimmIn(read(progressPath())), 63);
    QelSelForwarder f(sink, options());
    add(2, 70);
    passes(f, 1);
    EXPECT_EQ(dimmsForwarded(), range(0, 72));
}

TEST_F(SelForwarder, ARefusingSinkLosesNothing) {
    QelSelForwarder f(sink, options());
    add(3);
    sink.refuse = true;
    passes(f, 3);
    sink.refuse = false;
    passes(f, 4);
    EXPECT_EQ(dimmsForwarded(), range(0, 3));
}

TEST_F(SelForwarder, SensorNamesFromTheControllerAreEscaped) {
    ForwarderOptions o = options();
    o.sensorName = [](uint8_t, uint8_t, uint8_t number) {
        return number == 0x01 ? std::string("DIMM\nA1 \x1b[31m") : std::string();
    };
    QelSelForwarder f(sink, o);
    add(1);
    passes(f, 1);
    ASSERT_THAT(sink.events(), SizeIs(1));
    const LogEntry e = sink.events()[0];
    EXPECT_EQ(e.message.find('\n'), std::string::npos);
    EXPECT_EQ(e.message.find('\x1b'), std::string::npos);
    EXPECT_NE(e.message.find("DIMM\\x0AA1"), std::string::npos) << e.message;
    for (const auto& field : e.fields)
        for (char c : field.second) EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20) << field.first;
}

// The forwarder writes most entries into strings it keeps from record to
// record; each must still say exactly what decode() says of its record,
// whatever came before it (longer or shorter entries, a kernel panic).
TEST_F(SelForwarder, EveryEntryIsTheDecodedRecordWhateverCameBefore) {
    const std::vector<RawRecord> records = {
        ecc(1),
        // Threshold: temperature upper critical going high, trigger reading and threshold.
        {0, 0, 0x02, 0, 0, 0, 0, 0x20, 0x00, 0x04, 0x01, 0x07, 0x01, 0x57, 0x60, 0x50},
        // OEM timestamped and non-timestamped records, and a type nobody defined.
        {0, 0, 0xC1, 0, 0, 0, 0, 0x57, 0x01, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06},
        {0, 0, 0xE0, 0x57, 0x01, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A},
        {0, 0, 0x05, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13},
        // A kernel panic's critical stop and its message pieces.
        {0, 0, 0x02, 0, 0, 0, 0, 0x41, 0x00, 0x04, 0x20, 0x4F, 0x6F, 0xA1, 0x6F, 0x70},
        {0, 0, 0xF0, 0x20, 0x00, 0x73, 0x3A, 0x20, 0x6B, 0x65, 0x72, 0x6E, 0x65, 0x6C, 0x20, 0x4E},
        {0, 0, 0xF0, 0x20, 0x01, 0x55, 0x4C, 0x4C, 0, 0, 0, 0, 0, 0, 0, 0},
        // A deassertion of an OEM sensor type, and a named sensor.
        {0, 0, 0x02, 0, 0, 0, 0, 0x20, 0x00, 0x04, 0xC0, 0x09, 0xEF, 0x03, 0xFF, 0xFF},
        {0, 0, 0x02, 0, 0, 0, 0, 0x20, 0x00, 0x04, 0x02, 0x11, 0x01, 0x52, 0x40, 0x40},
        ecc(2),
    };
    for (int round = 0; round < 3; ++round)
        for (const RawRecord& r : records) ASSERT_TRUE(sim->sel().add(r).has_value());
    ForwarderOptions o = options();
    o.replay = true;
    o.sensorName = [](uint8_t, uint8_t, uint8_t number) {
        return number == 0x11 ? std::string("P12V rail\n") : number == 0x07 ? std::string("CPU0 Temp") : std::string();
    };
    QelSelForwarder f(sink, o);
    passes(f, 5);
    size_t checked = 0;
    for (const LogEntry& e : sink.events()) {
        ASSERT_TRUE(e.record.has_value());
        const qelSel::SelRecord record = qelSel::SelRecord::fromBytes(*e.record);
        const std::string name = record.isSystemEvent() ? o.sensorName(0, 0, record.sensorNumber) : std::string();
        const qelSel::DecodedEvent decoded = qelSel::decode(record, name);
        char id[8];
        std::snprintf(id, sizeof id, "0x%04X", record.recordId);
        EXPECT_EQ(e.message, std::string("SEL record ") + id + ": " + decoded.text);
        EXPECT_EQ(e.priority, qelSel::journalPriority(decoded.severity));
        std::vector<std::pair<std::string, std::string>> expected;
        for (const qelSel::JournalField& field : decoded.fields) expected.emplace_back(field.name, field.value);
        EXPECT_EQ(e.fields, expected) << e.message;
        ++checked;
    }
    // 8 plain records a round; the panic and its pieces are one entry of
    // another kind.
    EXPECT_EQ(checked, 3u * 8u);
    EXPECT_THAT(sink.events(qelSel::messageId::previousBootPanicked), SizeIs(3));
}

TEST_F(SelForwarder, AControllerFailureThrowsAndTheNextPassGoesOn) {
    QelSelForwarder f(sink, options());
    add(2);
    sim->injectFault(qelSim::Fault::completionCode(0xC0).forCommand(storage, qelSel::cmd::getSelInfo));
    EXPECT_THROW(f.pass(), qelSel::QelSelError);
    clock_ += 60;
    host.setTime(clock_);
    passes(f, 1);
    EXPECT_EQ(dimmsForwarded(), range(0, 2));
}

}  // namespace
