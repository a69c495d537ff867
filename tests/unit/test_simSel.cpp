// The simulated controller's System Event Log, request by request: record IDs
// and timestamps, both full-log modes, reservations, partial reads and their
// refusal, the polled erase, the SEL clock, and the events the controller logs
// itself (system software's Platform Events, the watchdog's expiry).
#include "qelSimSel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/ipmi.h>

#include "qelIpmiCommands.h"
#include "qelSimBoard.h"
#include "qelSimDescription.h"
#include "qelSimWatchdog.h"

namespace {

using qelSim::Bytes;
using qelSim::Request;
namespace sel = qelSel;

constexpr std::uint32_t defaultTime = 1767225600;  // the fresh controller's SEL clock

class SimSelTest : public ::testing::Test {
protected:
    qelSim::SimBmc bmc;
    qelSim::SimSel& log = bmc.sel();

    Bytes send(unsigned char cmd, Bytes data, unsigned char netFn = sel::netfn::storage,
               int addrType = IPMI_SYSTEM_INTERFACE_ADDR_TYPE, unsigned char slaveAddr = 0) {
        Request r;
        r.addrType = addrType;
        r.slaveAddr = slaveAddr;
        r.netFn = netFn;
        r.cmd = cmd;
        r.data = std::move(data);
        return bmc.dispatch(r);
    }
    Bytes info() { return send(sel::cmd::getSelInfo, {}); }
    std::uint16_t reserve() {
        const Bytes r = send(sel::cmd::reserveSel, {});
        EXPECT_EQ(r.size(), 3u);
        return static_cast<std::uint16_t>(r.at(1) | (r.at(2) << 8));
    }
    Bytes entry(std::uint16_t id, unsigned char offset = 0, unsigned char count = 0xFF, std::uint16_t res = 0) {
        return send(sel::cmd::getSelEntry, {static_cast<unsigned char>(res), static_cast<unsigned char>(res >> 8),
                                            static_cast<unsigned char>(id), static_cast<unsigned char>(id >> 8),
                                            offset, count});
    }
    Bytes add(Bytes record) { return send(sel::cmd::addSelEntry, std::move(record)); }
    static Bytes event(unsigned char sensorType = 0x01, unsigned char type = 0x02) {
        return {0xAA, 0xBB, type, 1, 2, 3, 4, 0x20, 0x00, 0x04, sensorType, 0x05, 0x01, 0x57, 0x40, 0x3C};
    }
    static std::uint16_t idAt(const Bytes& r, std::size_t at) {
        return static_cast<std::uint16_t>(r.at(at) | (r.at(at + 1) << 8));
    }
    static std::uint32_t u32At(const Bytes& r, std::size_t at) {
        return static_cast<std::uint32_t>(r.at(at) | (r.at(at + 1) << 8) | (r.at(at + 2) << 16)) |
               (static_cast<std::uint32_t>(r.at(at + 3)) << 24);
    }
};

TEST_F(SimSelTest, AnEmptyLogReportsVersionCapacityAndSupport) {
    EXPECT_EQ(info(), (Bytes{0x00, 0x51, 0, 0, 0x00, 0x20, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x0B}));
    EXPECT_EQ(send(sel::cmd::getSelAllocationInfo, {}),
              (Bytes{0x00, 0x00, 0x02, 0x10, 0x00, 0x00, 0x02, 0x00, 0x02, 0x01}));
    EXPECT_EQ(entry(0x0000), Bytes{0xCB});
    EXPECT_EQ(info().size(), sel::selInfo::responseSize);
    EXPECT_EQ(send(sel::cmd::getSelInfo, {0}), Bytes{0xC7});
}

TEST_F(SimSelTest, AddSetsTheRecordIdAndTheTimestampOfTimestampedTypes) {
    bmc.advanceMs(5000);
    EXPECT_EQ(add(event()), (Bytes{0x00, 0x01, 0x00}));
    Bytes r = entry(0x0001);
    ASSERT_EQ(r.size(), 19u);
    EXPECT_EQ(idAt(r, 1), 0xFFFF);
    EXPECT_EQ(idAt(r, 3), 0x0001);
    EXPECT_EQ(u32At(r, 6), defaultTime + 5);
    const Bytes sent = event();
    EXPECT_EQ(Bytes(r.begin() + 10, r.end()), Bytes(sent.begin() + 7, sent.end()));
    // An OEM record without a timestamp keeps its 13 bytes.
    EXPECT_EQ(add(event(0x01, 0xE5)), (Bytes{0x00, 0x02, 0x00}));
    r = entry(0x0002);
    const Bytes oem = event(0x01, 0xE5);
    EXPECT_EQ(Bytes(r.begin() + 5, r.end()), Bytes(oem.begin() + 2, oem.end()));
    // An OEM timestamped record gets the time.
    add(event(0x01, 0xC1));
    EXPECT_EQ(u32At(entry(0x0003), 6), defaultTime + 5);
    EXPECT_EQ(u32At(info(), sel::selInfo::lastAddition), defaultTime + 5);
    EXPECT_EQ(add({1, 2, 3}), Bytes{0xC7});
}

TEST_F(SimSelTest, RecordIdsFollowTheStepAndTheChainOfNextIds) {
    bmc.applyDescriptionLine("sel-id-step 7");
    for (int i = 0; i < 3; ++i) add(event());
    EXPECT_EQ(idAt(entry(0x0000), 1), 8);  // first is 1, next 8
    EXPECT_EQ(idAt(entry(0x0000), 3), 1);
    EXPECT_EQ(idAt(entry(8), 1), 15);
    EXPECT_EQ(idAt(entry(15), 1), 0xFFFF);
    EXPECT_EQ(idAt(entry(0xFFFF), 3), 15);
    EXPECT_EQ(entry(2), Bytes{0xCB});
}

TEST_F(SimSelTest, IdsNeverTakeTheFirstAndLastMarkers) {
    bmc.applyDescriptionLine("sel-record fe ff 02 00 00 00 00 20 00 04 01 01 01 57 40 3c");
    add(event());  // 0xFFFF and 0x0000 come next, and are passed over
    EXPECT_EQ(idAt(entry(0xFFFE), 1), 0x0001);
    EXPECT_THROW(bmc.applyDescriptionLine("sel-record ff ff 02 00 00 00 00 20 00 04 01 01 01 57 40 3c"),
                 std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sel-record fe ff 02 00 00 00 00 20 00 04 01 01 01 57 40 3c"),
                 std::invalid_argument);
}

TEST_F(SimSelTest, AStepThatCyclesThroughFewIdsGoesOnWithTheNextFreeOne) {
    // 0x4000 reaches four IDs only; a log of more records still gets unique
    // ones (found by fuzz_sel: the controller gave up on the fifth record).
    bmc.applyDescriptionLine("sel-id-step 16384");
    for (int i = 0; i < 6; ++i) ASSERT_EQ(add(event())[0], 0x00);
    std::vector<std::uint16_t> ids;
    for (const sel::RawRecord& r : log.records()) ids.push_back(static_cast<std::uint16_t>(r[0] | (r[1] << 8)));
    EXPECT_EQ(ids, (std::vector<std::uint16_t>{0x0001, 0x4001, 0x8001, 0xC001, 0x0002, 0x4002}));
}

TEST_F(SimSelTest, ACircularLogOverwritesTheOldestAndKeepsItsCount) {
    bmc.applyDescriptionLine("sel-capacity 3");
    for (int i = 0; i < 3; ++i) add(event());
    EXPECT_EQ(info()[sel::selInfo::support] & sel::selInfo::overflow, 0);
    bmc.advanceMs(60000);
    EXPECT_EQ(add(event()), (Bytes{0x00, 0x04, 0x00}));
    const Bytes i = info();
    EXPECT_EQ(idAt(i, sel::selInfo::entries), 3);
    EXPECT_EQ(idAt(i, sel::selInfo::freeSpace), 0);
    EXPECT_EQ(u32At(i, sel::selInfo::lastAddition), defaultTime + 60);
    EXPECT_NE(i[sel::selInfo::support] & sel::selInfo::overflow, 0);
    EXPECT_EQ(entry(1), Bytes{0xCB});
    EXPECT_EQ(idAt(entry(0x0000), 3), 2);
}

TEST_F(SimSelTest, AStopWhenFullLogRefusesWithOutOfSpaceAndFlagsOverflow) {
    bmc.applyDescriptionLine("sel-capacity 2");
    bmc.applyDescriptionLine("sel-mode stop-when-full");
    add(event());
    add(event());
    EXPECT_EQ(add(event()), Bytes{0x80});
    const Bytes i = info();
    EXPECT_EQ(idAt(i, sel::selInfo::entries), 2);
    EXPECT_NE(i[sel::selInfo::support] & sel::selInfo::overflow, 0);
    EXPECT_EQ(idAt(entry(0xFFFF), 3), 2);
}

TEST_F(SimSelTest, PartialReadsNeedTheLiveReservation) {
    add(event());
    EXPECT_EQ(entry(1, 8, 8, 0), Bytes{0xC5});
    const std::uint16_t res = reserve();
    EXPECT_NE(res, 0);
    const Bytes tail = entry(1, 8, 8, res);
    ASSERT_EQ(tail.size(), 11u);
    const Bytes sent = event();
    EXPECT_EQ(Bytes(tail.begin() + 3, tail.end()), Bytes(sent.begin() + 8, sent.end()));
    // An add cancels it; so does the next reservation.
    add(event());
    EXPECT_EQ(entry(1, 8, 8, res), Bytes{0xC5});
    const std::uint16_t second = reserve();
    EXPECT_NE(second, res);
    reserve();
    EXPECT_EQ(entry(1, 8, 8, second), Bytes{0xC5});
    // A read from offset 0 needs none.
    EXPECT_EQ(entry(1, 0, 8, 0x1234).size(), 11u);
    EXPECT_EQ(entry(1, 16, 1, bmc.sel().reservation()), Bytes{0xC9});
}

TEST_F(SimSelTest, AControllerThatRefusesWholeRecordsAnswers0xCA) {
    bmc.applyDescriptionLine("sel-max-read 8");
    add(event());
    EXPECT_EQ(entry(1), Bytes{0xCA});
    EXPECT_EQ(entry(1, 0, 9), Bytes{0xCA});
    EXPECT_EQ(entry(1, 0, 8).size(), 11u);
    // 0xFF from offset 8 asks for the 8 bytes left: allowed.
    EXPECT_EQ(entry(1, 8, 0xFF, reserve()).size(), 11u);
}

TEST_F(SimSelTest, DeleteNeedsTheReservationAndRecordsTheEraseTime) {
    add(event());
    add(event());
    bmc.advanceMs(3000);
    EXPECT_EQ(send(sel::cmd::deleteSelEntry, {0, 0, 1, 0}), Bytes{0xC5});
    std::uint16_t res = reserve();
    EXPECT_EQ(send(sel::cmd::deleteSelEntry, {static_cast<unsigned char>(res), static_cast<unsigned char>(res >> 8), 1, 0}),
              (Bytes{0x00, 0x01, 0x00}));
    EXPECT_EQ(u32At(info(), sel::selInfo::lastErase), defaultTime + 3);
    EXPECT_EQ(idAt(entry(0x0000), 3), 2);
    // The delete cancelled the reservation.
    EXPECT_EQ(send(sel::cmd::deleteSelEntry, {static_cast<unsigned char>(res), static_cast<unsigned char>(res >> 8), 2, 0}),
              Bytes{0xC5});
    res = reserve();
    EXPECT_EQ(send(sel::cmd::deleteSelEntry, {static_cast<unsigned char>(res), static_cast<unsigned char>(res >> 8), 9, 0}),
              Bytes{0xCB});
}

TEST_F(SimSelTest, ClearIsPolledUntilTheEraseCompletes) {
    bmc.applyDescriptionLine("sel-erase 3 100000");
    add(event());
    const std::uint16_t res = reserve();
    auto clear = [&](unsigned char what, std::uint16_t r) {
        return send(sel::cmd::clearSel, {static_cast<unsigned char>(r), static_cast<unsigned char>(r >> 8), 'C', 'L', 'R', what});
    };
    EXPECT_EQ(clear(0xAA, res ^ 1), Bytes{0xC5});
    EXPECT_EQ(send(sel::cmd::clearSel, {static_cast<unsigned char>(res), static_cast<unsigned char>(res >> 8), 'C', 'L', 'X', 0xAA}),
              Bytes{0xCC});
    EXPECT_EQ(clear(0xAA, res), (Bytes{0x00, 0x00}));
    EXPECT_EQ(idAt(info(), sel::selInfo::entries), 0);
    EXPECT_EQ(add(event()), Bytes{0x81});
    EXPECT_EQ(entry(0), Bytes{0x81});
    EXPECT_EQ(clear(0x00, res), (Bytes{0x00, 0x00}));
    EXPECT_EQ(clear(0x00, res), (Bytes{0x00, 0x00}));
    EXPECT_EQ(clear(0x00, res), (Bytes{0x00, 0x01}));
    EXPECT_EQ(add(event()), (Bytes{0x00, 0x02, 0x00}));
}

TEST_F(SimSelTest, AnEraseAlsoEndsWithTheClock) {
    bmc.applyDescriptionLine("sel-erase 100 500");
    add(event());
    const std::uint16_t res = reserve();
    send(sel::cmd::clearSel, {static_cast<unsigned char>(res), static_cast<unsigned char>(res >> 8), 'C', 'L', 'R', 0xAA});
    EXPECT_TRUE(log.eraseInProgress());
    bmc.advanceMs(500);
    EXPECT_FALSE(log.eraseInProgress());
    EXPECT_EQ(entry(0), Bytes{0xCB});
}

TEST_F(SimSelTest, SetSelTimeMovesTheClockThatStampsRecords) {
    EXPECT_EQ(send(sel::cmd::getSelTime, {}), (Bytes{0x00, 0x00, 0xB9, 0x55, 0x69}));
    EXPECT_EQ(send(sel::cmd::setSelTime, {0x10, 0x00, 0x00, 0x00}), Bytes{0x00});
    bmc.advanceMs(2500);
    EXPECT_EQ(send(sel::cmd::getSelTime, {}), (Bytes{0x00, 0x12, 0x00, 0x00, 0x00}));
    add(event());
    EXPECT_EQ(u32At(entry(1), 6), 0x12u);  // a pre-init time: seconds since start
    EXPECT_EQ(send(sel::cmd::setSelTime, {1}), Bytes{0xC7});
}

TEST_F(SimSelTest, SystemSoftwaresPlatformEventIsLoggedWithItsGeneratorId) {
    // The agent's "boot completed": software ID 0x41.
    EXPECT_EQ(send(sel::cmd::platformEvent, {0x41, 0x04, 0x1F, 0x00, 0x6F, 0x01, 0xFF, 0xFF}, sel::netfn::sensorEvent),
              Bytes{0x00});
    const Bytes r = entry(0);
    ASSERT_EQ(r.size(), 19u);
    EXPECT_EQ(Bytes(r.begin() + 3, r.end()),
              (Bytes{0x01, 0x00, 0x02, 0x00, 0xB9, 0x55, 0x69, 0x41, 0x00, 0x04, 0x1F, 0x00, 0x6F, 0x01, 0xFF, 0xFF}));
    // The board saw it as it always did.
    EXPECT_EQ(bmc.board().platformEvents().size(), 1u);
}

TEST_F(SimSelTest, TheOsStatusToTheBoardOverIpmbStaysOutOfTheLog) {
    bmc.board().setKind(qelSim::SimBoard::Kind::extended);
    const Bytes r = send(sel::cmd::platformEvent, {0x04, 0xC0, 0x09, 0x6F, 0x41, 0x8F, 0xFF}, sel::netfn::sensorEvent,
                         IPMI_IPMB_ADDR_TYPE, 0x24);
    EXPECT_EQ(r, Bytes{0x00});
    EXPECT_EQ(bmc.board().platformEvents().size(), 1u);
    EXPECT_EQ(bmc.board().osStatuses(), std::vector<unsigned char>{1});
    EXPECT_TRUE(log.records().empty());
    // A request the board refuses is not logged either.
    EXPECT_EQ(send(sel::cmd::platformEvent, {0x41, 0x04}, sel::netfn::sensorEvent), Bytes{0xC7});
    EXPECT_TRUE(log.records().empty());
}

TEST_F(SimSelTest, TheWatchdogsExpiryIsLoggedByItsAction) {
    // SMS/OS timer, NMI pre-timeout, power cycle, 10 s; started.
    bmc.watchdog().preset(qelSim::WatchdogState::fromBytes({0x44, 0x23, 0x01, 0x00, 0x64, 0x00, 0x64, 0x00}));
    bmc.advanceMs(10000);
    ASSERT_EQ(log.records().size(), 1u);
    const sel::SelRecord r = sel::SelRecord::fromBytes(log.records()[0]);
    EXPECT_EQ(r.sensorType, 0x23);
    EXPECT_EQ(r.generatorId, 0x0020);
    EXPECT_EQ(r.eventType, 0x6F);
    EXPECT_EQ(r.eventData, (std::array<std::uint8_t, 3>{0xC3, 0x24, 0xFF}));
    EXPECT_EQ(r.timestamp, defaultTime + 10);
}

TEST_F(SimSelTest, TheWatchdogsDontLogBitKeepsItsExpiryOutOfTheLog) {
    bmc.watchdog().preset(qelSim::WatchdogState::fromBytes({0xC4, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x0A, 0x00}));
    bmc.advanceMs(2000);
    EXPECT_EQ(bmc.watchdog().expiries().size(), 1u);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(SimSelTest, DescriptionAndDumpRoundTrip) {
    bmc.applyDescriptionLine("sel-capacity 10");
    bmc.applyDescriptionLine("sel-add-many 3");
    const std::string dump = bmc.dump();
    EXPECT_THAT(dump, testing::HasSubstr("[sel]\ncapacity 10\nmode circular\n"));
    EXPECT_THAT(dump, testing::HasSubstr("entries 3\n"));
    EXPECT_THAT(dump, testing::HasSubstr("record 03 00 02 00 b9 55 69 20 00 04 01 03 01 57 42 3c\n"));
    qelSim::SimBmc other;
    other.applyDescriptionLine("sel-record 03 00 02 00 b9 55 69 20 00 04 01 03 01 57 42 3c");
    EXPECT_EQ(other.sel().records(), std::vector<sel::RawRecord>{log.records()[2]});
    bmc.applyDescriptionLine("sel-clear");
    EXPECT_TRUE(log.records().empty());
    EXPECT_THROW(bmc.applyDescriptionLine("sel-mode sometimes"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sel-capacity 0"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sel-max-read 17"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sel-add 01 02"), std::invalid_argument);
}

TEST_F(SimSelTest, TheTrafficSummaryNamesTheSelCommands) {
    Request r;
    r.netFn = sel::netfn::storage;
    r.cmd = sel::cmd::getSelEntry;
    bmc.record(r);
    EXPECT_THAT(bmc.dump(), testing::HasSubstr("sent 0a 43 x1  Get SEL Entry\n"));
}

}  // namespace
