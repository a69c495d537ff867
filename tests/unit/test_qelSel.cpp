// The SEL reader against the simulated controller's event log: every command
// byte for byte, walking non-consecutive IDs, draining a backlog within its
// request budget, both full-log modes, records read in pieces, reservations
// lost between pieces, the polled clear, and replies that are malformed.
#include "qelSel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "qelIpmi.h"
#include "qelPlatform.h"
#include "qelSimDevice.h"
#include "qelSimSel.h"
#include "qelSimWatchdog.h"
#include "scopedPlatform.h"

using qelSel::QelSel;
using qelSel::QelSelError;
using qelSim::Bytes;
using qelSim::Fault;
using testing::HasSubstr;

namespace {

constexpr unsigned char storage = qelSel::netfn::storage;
constexpr std::uint32_t defaultTime = 1767225600;  // the fresh controller's SEL clock

// Sleeps return at once; each moves the controller's clock by its seconds,
// so an erase that takes time completes under the reader's polls.
class SleepingPlatform : public qelPlatform::Platform {
public:
    explicit SleepingPlatform(qelSim::SimBmc& bmc) : bmc_(bmc) {}
    unsigned int sleep(unsigned int seconds) const override {
        sleeps.push_back(seconds);
        bmc_.advanceMs(seconds * 1000ull);
        return 0;
    }
    mutable std::vector<unsigned int> sleeps;

private:
    qelSim::SimBmc& bmc_;
};

// One request as the controller received it: command and data.
struct Sent {
    unsigned char cmd;
    Bytes data;
    bool operator==(const Sent& o) const { return cmd == o.cmd && data == o.data; }
};
std::ostream& operator<<(std::ostream& out, const Sent& s) {
    out << "{cmd 0x" << std::hex << int(s.cmd) << ":";
    for (unsigned char b : s.data) out << ' ' << int(b);
    return out << std::dec << "}";
}

Sent whole(std::uint16_t id) {
    return {qelSel::cmd::getSelEntry, {0, 0, static_cast<unsigned char>(id), static_cast<unsigned char>(id >> 8), 0, 0xFF}};
}
Sent piece(std::uint16_t reservation, std::uint16_t id, unsigned char offset, unsigned char count) {
    return {qelSel::cmd::getSelEntry,
            {static_cast<unsigned char>(reservation), static_cast<unsigned char>(reservation >> 8),
             static_cast<unsigned char>(id), static_cast<unsigned char>(id >> 8), offset, count}};
}
const Sent reserveRequest{qelSel::cmd::reserveSel, {}};

qelSel::RawRecord event(unsigned char sensorNumber) {
    return {0, 0, 0x02, 0, 0, 0, 0, 0x20, 0x00, 0x04, 0x01, sensorNumber, 0x01, 0x57, 0x40, 0x3C};
}

std::vector<std::uint16_t> idsOf(const std::vector<qelSel::SelRecord>& records) {
    std::vector<std::uint16_t> ids;
    for (const auto& r : records) ids.push_back(r.recordId);
    return ids;
}

class SelReader : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    SleepingPlatform host{sim.bmc()};
    platformTest::ScopedPlatform installed{&host};
    QelSel sel;

    void addEvents(unsigned int n) {
        for (unsigned int i = 0; i < n; ++i) ASSERT_TRUE(sim->sel().add(event(static_cast<unsigned char>(i))));
    }
    // The storage requests since the last call, in order.
    std::vector<Sent> sent() {
        std::vector<Sent> out;
        for (const qelSim::Request& r : sim->requests()) {
            EXPECT_EQ(r.netFn, storage);
            EXPECT_EQ(r.addrType, IPMI_SYSTEM_INTERFACE_ADDR_TYPE);
            out.push_back({r.cmd, r.data});
        }
        sim->clearRequests();
        return out;
    }
    std::string failureOf(const std::function<void()>& body) {
        try {
            body();
        } catch (const QelSelError& e) {
            return e.errorText;
        }
        ADD_FAILURE() << "no QelSelError was thrown";
        return "";
    }
};

// ---------------------------------------------------------------- commands

TEST_F(SelReader, InfoDecodesEveryFieldAndThePercentUsed) {
    sim->applyDescriptionLine("sel-capacity 8");
    addEvents(2);
    const qelSel::SelInfo info = sel.info();
    EXPECT_EQ(sent(), (std::vector<Sent>{Sent{qelSel::cmd::getSelInfo, {}}}));
    EXPECT_EQ(info.version, 0x51);
    EXPECT_EQ(info.entries, 2);
    EXPECT_EQ(info.freeBytes, 6 * 16);
    EXPECT_EQ(info.lastAddition, defaultTime);
    EXPECT_EQ(info.lastErase, 0xFFFFFFFFu);
    EXPECT_FALSE(info.overflow);
    EXPECT_TRUE(info.supportsDelete());
    EXPECT_TRUE(info.supportsReserve());
    EXPECT_TRUE(info.supportsAllocationInfo());
    EXPECT_FALSE(info.supportsPartialAdd());
    EXPECT_EQ(info.percentUsed(), 25u);
    EXPECT_EQ(sel.requestsSent(), 1u);
}

TEST_F(SelReader, PercentUsedCountsSixteenBytesARecord) {
    qelSel::SelInfo info;
    EXPECT_EQ(info.percentUsed(), 0u);
    info.entries = 3;
    EXPECT_EQ(info.percentUsed(), 100u);
    info.freeBytes = 16;
    EXPECT_EQ(info.percentUsed(), 75u);
    info.entries = 1;
    info.freeBytes = 0xFFFF;
    EXPECT_EQ(info.percentUsed(), 0u);
}

TEST_F(SelReader, AllocationInfoReserveAndTimeAreOneRequestEach) {
    sim->applyDescriptionLine("sel-capacity 100");
    addEvents(1);
    const qelSel::SelAllocationInfo a = sel.allocationInfo();
    EXPECT_EQ(a.possibleUnits, 100);
    EXPECT_EQ(a.unitSize, 16);
    EXPECT_EQ(a.freeUnits, 99);
    EXPECT_EQ(a.largestFreeBlock, 99);
    EXPECT_EQ(a.maxRecordSize, 1);
    const std::uint16_t first = sel.reserve();
    EXPECT_NE(sel.reserve(), first);
    sim->advanceMs(42000);
    EXPECT_EQ(sel.time(), defaultTime + 42);
    EXPECT_EQ(sent(), (std::vector<Sent>{{qelSel::cmd::getSelAllocationInfo, {}}, reserveRequest, reserveRequest,
                                          {qelSel::cmd::getSelTime, {}}}));
}

// ---------------------------------------------------------------- reading

TEST_F(SelReader, ReadsForwardByTheNextIdEachEntryGives) {
    sim->applyDescriptionLine("sel-id-step 5");
    addEvents(3);
    const qelSel::SelBatch batch = sel.readForward(qelSel::firstRecordId, 10);
    EXPECT_EQ(idsOf(batch.records), (std::vector<std::uint16_t>{1, 6, 11}));
    EXPECT_TRUE(batch.atEnd());
    EXPECT_EQ(sent(), (std::vector<Sent>{whole(0x0000), whole(6), whole(11)}));
    EXPECT_EQ(batch.records[1].sensorNumber, 1);
    EXPECT_EQ(batch.records[1].timestamp, defaultTime);
}

TEST_F(SelReader, ReadsOneRecordByIdFirstAndLast) {
    sim->applyDescriptionLine("sel-id-step 3");
    addEvents(3);
    EXPECT_EQ(sel.read(4).record.recordId, 4);
    EXPECT_EQ(sel.read(4).nextId, 7);
    EXPECT_EQ(sel.read(qelSel::firstRecordId).record.recordId, 1);
    EXPECT_EQ(sel.read(qelSel::lastRecordId).record.recordId, 7);
    EXPECT_EQ(sel.read(qelSel::lastRecordId).nextId, qelSel::lastRecordId);
    EXPECT_THAT(failureOf([&] { (void)sel.read(5); }), HasSubstr("completion code 0xcb"));
    EXPECT_EQ(sel.lastCompletionCode(), 0xCB);
}

TEST_F(SelReader, AnEmptyLogReadsAsNothing) {
    const qelSel::SelBatch batch = sel.readForward(qelSel::firstRecordId, 5);
    EXPECT_TRUE(batch.records.empty());
    EXPECT_TRUE(batch.atEnd());
    EXPECT_EQ(sel.requestsSent(), 1u);
}

TEST_F(SelReader, ABacklogDrainsInBoundedPassesWithinItsRequestBudget) {
    sim->applyDescriptionLine("sel-id-step 2");
    addEvents(200);
    std::vector<std::uint16_t> ids;
    qelSel::SelBatch batch = sel.readForward(qelSel::firstRecordId, 16);
    ids = idsOf(batch.records);
    std::uint16_t last = ids.back();
    int passes = 1;
    for (;; ++passes) {
        batch = sel.readAfter(last, 16);
        if (batch.records.empty()) break;
        for (std::uint16_t id : idsOf(batch.records)) ids.push_back(id);
        last = ids.back();
        ASSERT_LT(passes, 100);
    }
    ASSERT_EQ(ids.size(), 200u);
    for (std::size_t i = 0; i < ids.size(); ++i) EXPECT_EQ(ids[i], 1 + 2 * i);
    EXPECT_EQ(passes, 13);
    // One request per record and one per pass to find where the log goes on.
    EXPECT_LE(sel.requestsSent(), 200u * 11 / 10);
    // Nothing new: one request tells.
    sim->clearRequests();
    EXPECT_FALSE(sel.after(last).has_value());
    EXPECT_EQ(sent(), (std::vector<Sent>{whole(last)}));
    // A record added later is found behind the last one read.
    addEvents(1);
    const auto next = sel.after(last);
    ASSERT_TRUE(next.has_value());
    EXPECT_EQ(next->recordId, last + 2);
}

TEST_F(SelReader, ACircularLogThatWrappedKeepsTheNewestAndLosesTheReadPosition) {
    sim->applyDescriptionLine("sel-capacity 4");
    addEvents(4);
    const std::uint16_t last = sel.readForward(qelSel::firstRecordId, 2).records.back().recordId;
    EXPECT_EQ(last, 2);
    addEvents(3);  // overwrites 1, 2, 3
    const qelSel::SelInfo info = sel.info();
    EXPECT_EQ(info.entries, 4);
    EXPECT_TRUE(info.overflow);
    EXPECT_EQ(info.percentUsed(), 100u);
    EXPECT_THAT(failureOf([&] { (void)sel.readAfter(last, 10); }), HasSubstr("0xcb"));
    EXPECT_EQ(idsOf(sel.readForward(qelSel::firstRecordId, 10).records), (std::vector<std::uint16_t>{4, 5, 6, 7}));
}

TEST_F(SelReader, AStopWhenFullLogReportsTheOverflow) {
    sim->applyDescriptionLine("sel-capacity 2");
    sim->applyDescriptionLine("sel-mode stop-when-full");
    addEvents(2);
    EXPECT_FALSE(sim->sel().add(event(9)));
    const qelSel::SelInfo info = sel.info();
    EXPECT_TRUE(info.overflow);
    EXPECT_EQ(info.entries, 2);
    EXPECT_EQ(info.freeBytes, 0);
    EXPECT_EQ(idsOf(sel.readForward(qelSel::firstRecordId, 10).records), (std::vector<std::uint16_t>{1, 2}));
}

TEST_F(SelReader, AControllerThatRefusesWholeRecordsIsReadInPiecesOfEight) {
    sim->applyDescriptionLine("sel-max-read 8");
    addEvents(2);
    const qelSel::SelBatch batch = sel.readForward(qelSel::firstRecordId, 10);
    ASSERT_EQ(idsOf(batch.records), (std::vector<std::uint16_t>{1, 2}));
    EXPECT_EQ(batch.records[1].raw, sim->sel().records()[1]);
    EXPECT_TRUE(sel.readsInPieces());
    const std::uint16_t r = sim->sel().reservation();
    EXPECT_EQ(sent(), (std::vector<Sent>{whole(0x0000), reserveRequest, piece(r, 0x0000, 0, 8), piece(r, 1, 8, 8),
                                          piece(r, 2, 0, 8), piece(r, 2, 8, 8)}));
    // The object remembers: the next read goes straight to pieces, under the
    // same reservation.
    (void)sel.read(1);
    EXPECT_EQ(sent(), (std::vector<Sent>{piece(r, 1, 0, 8), piece(r, 1, 8, 8)}));
}

TEST_F(SelReader, SmallerPiecesWhenEightAreRefusedToo) {
    sim->applyDescriptionLine("sel-max-read 4");
    addEvents(1);
    EXPECT_EQ(sel.read(1).record.raw, sim->sel().records()[0]);
    const std::uint16_t r = sim->sel().reservation();
    EXPECT_EQ(sent(), (std::vector<Sent>{whole(1), reserveRequest, piece(r, 1, 0, 8), piece(r, 1, 0, 4),
                                          piece(r, 1, 4, 4), piece(r, 1, 8, 4), piece(r, 1, 12, 4)}));
}

TEST_F(SelReader, AReservationCancelledBetweenPiecesIsTakenAgainAndTheRecordReadAnew) {
    sim->applyDescriptionLine("sel-max-read 8");
    addEvents(1);
    qelSim::SimSel* log = &sim->sel();
    int firstPieces = 0;
    // An event arrives right after the first piece of the first attempt.
    sim->setHandler(storage, qelSel::cmd::getSelEntry, [log, &firstPieces](const qelSim::Request& r) {
        qelSim::Response answer = log->getEntry(r);
        if (r.data[4] == 0 && answer[0] == 0 && ++firstPieces == 1) (void)log->add(event(7));
        return answer;
    });
    const qelSel::SelEntry e = sel.read(1);
    EXPECT_EQ(e.record.raw, log->records()[0]);
    EXPECT_EQ(e.nextId, 2);
    const std::vector<Sent> requests = sent();
    // whole (0xCA), reserve, piece, piece (0xC5), reserve, piece, piece.
    ASSERT_EQ(requests.size(), 7u);
    EXPECT_EQ(requests[4], reserveRequest);
    EXPECT_EQ(requests[6], piece(2, 1, 8, 8));
    EXPECT_EQ(sel.lastCompletionCode(), 0x00);
}

TEST_F(SelReader, AReservationLostEveryTimeEndsWithAClearErrorAfterBoundedRetries) {
    sim->applyDescriptionLine("sel-max-read 8");
    addEvents(1);
    qelSim::SimSel* log = &sim->sel();
    sim->setHandler(storage, qelSel::cmd::getSelEntry, [log](const qelSim::Request& r) {
        qelSim::Response answer = log->getEntry(r);
        if (r.data[4] == 0 && answer[0] == 0) (void)log->add(event(7));
        return answer;
    });
    QelSel limited(QelSel::Limits{2, 30});
    EXPECT_THAT(failureOf([&] { (void)limited.read(1); }),
                HasSubstr("the reservation was cancelled 3 times while reading record 0x0001"));
    // whole (0xCA), then three times: reserve, piece, piece (0xC5).
    EXPECT_EQ(limited.requestsSent(), 10u);
}

// ---------------------------------------------------------------- clear

TEST_F(SelReader, ClearReservesStartsTheEraseAndPollsUntilCompleted) {
    sim->applyDescriptionLine("sel-erase 3 1000000");
    addEvents(5);
    sim->clearRequests();
    sel.clear();
    EXPECT_EQ(sim->sel().reservation(), 0);  // the erase cancelled the reader's (1)
    const std::vector<Sent> requests = sent();
    ASSERT_EQ(requests.size(), 5u);
    EXPECT_EQ(requests[0], reserveRequest);
    EXPECT_EQ(requests[1], (Sent{qelSel::cmd::clearSel, {1, 0, 'C', 'L', 'R', 0xAA}}));
    for (int i = 2; i < 5; ++i) EXPECT_EQ(requests[i], (Sent{qelSel::cmd::clearSel, {1, 0, 'C', 'L', 'R', 0x00}}));
    EXPECT_EQ(host.sleeps, (std::vector<unsigned int>{1, 1, 1}));
    const qelSel::SelInfo info = sel.info();
    EXPECT_EQ(info.entries, 0);
    EXPECT_EQ(info.lastErase, defaultTime);
}

TEST_F(SelReader, AnEraseThatTakesTimeCompletesWhileTheReaderSleeps) {
    sim->applyDescriptionLine("sel-erase 1000 2500");
    addEvents(1);
    sel.clear();
    EXPECT_EQ(host.sleeps.size(), 3u);
    EXPECT_FALSE(sim->sel().eraseInProgress());
}

TEST_F(SelReader, AnEraseThatNeverCompletesEndsAfterTheBoundedPolls) {
    sim->applyDescriptionLine("sel-erase 1000 100000000");
    addEvents(1);
    QelSel limited(QelSel::Limits{3, 5});
    EXPECT_THAT(failureOf([&] { limited.clear(); }), HasSubstr("not completed after 5 polls"));
    EXPECT_EQ(host.sleeps.size(), 5u);
    EXPECT_EQ(limited.requestsSent(), 2u + 5u);
}

TEST_F(SelReader, ClearTakesTheReservationAgainWhenItWasCancelled) {
    sim->injectFault(Fault::completionCode(0xC5).forCommand(storage, qelSel::cmd::clearSel));
    addEvents(1);
    sim->clearRequests();
    sel.clear();
    EXPECT_EQ(sent().at(2), reserveRequest);
    EXPECT_TRUE(sim->sel().records().empty());
}

// ---------------------------------------------------------------- events the controller logs

TEST_F(SelReader, TheAgentsPlatformEventIsReadBackWithItsSoftwareId) {
    const unsigned char boot[8] = {0x41, 0x04, 0x1F, 0x00, 0x6F, 0x01, 0xFF, 0xFF};
    {
        qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
        qelIpmi::QelIpmi_request_msg msg(qelSel::netfn::sensorEvent, qelSel::cmd::platformEvent, sizeof boot, boot);
        ASSERT_TRUE(ipmi.sendCmd(msg));
        ASSERT_EQ(msg.responseData[0], 0x00);
    }
    const qelSel::SelRecord r = sel.read(qelSel::lastRecordId).record;
    EXPECT_EQ(r.generatorId, 0x0041);
    EXPECT_EQ(r.sensorType, 0x1F);
    EXPECT_EQ(r.eventData[0], 0x01);
    EXPECT_EQ(r.timestamp, defaultTime);
}

TEST_F(SelReader, TheWatchdogsHardResetIsReadBack) {
    sim->watchdog().preset(qelSim::WatchdogState::fromBytes({0x44, 0x01, 0x00, 0x00, 0x32, 0x00, 0x32, 0x00}));
    sim->advanceMs(5000);
    const qelSel::SelRecord r = sel.read(qelSel::firstRecordId).record;
    EXPECT_EQ(r.sensorType, 0x23);
    EXPECT_EQ(r.eventData[0] & 0x0F, 1);
    EXPECT_EQ(r.eventData[1], 0x04);
    EXPECT_EQ(r.timestamp, defaultTime + 5);
}

// ---------------------------------------------------------------- malformed replies

TEST_F(SelReader, AShortInfoAnswerIsAnError) {
    sim->injectFault(Fault::rawReply({0x00, 0x51, 0x01}));
    EXPECT_THAT(failureOf([&] { (void)sel.info(); }), HasSubstr("Get SEL Info: an answer of 3 bytes, expected 15"));
}

TEST_F(SelReader, ARefusedCommandNamesItsCompletionCode) {
    sim->injectFault(Fault::completionCode(0xC1));
    EXPECT_THAT(failureOf([&] { (void)sel.allocationInfo(); }),
                HasSubstr("Get SEL Allocation Info: the controller answered completion code 0xc1"));
    EXPECT_EQ(sel.lastCompletionCode(), 0xC1);
}

TEST_F(SelReader, NoAnswerAndEmptyAnswersAreErrors) {
    sim->injectFault(Fault::noReply());
    EXPECT_THAT(failureOf([&] { (void)sel.time(); }), HasSubstr("Get SEL Time: no answer"));
    sim->injectFault(Fault::emptyReply());
    EXPECT_THAT(failureOf([&] { (void)sel.reserve(); }), HasSubstr("Reserve SEL: an empty answer"));
    sim->injectFault(Fault::rawReply({0x00, 0x01}));
    EXPECT_THAT(failureOf([&] { (void)sel.reserve(); }), HasSubstr("an answer of 2 bytes, expected 3"));
}

TEST_F(SelReader, NoControllerIsAnError) {
    sim->setAllPathsMissing(true);
    EXPECT_THAT(failureOf([&] { (void)sel.info(); }), HasSubstr("no controller"));
}

TEST_F(SelReader, AnEntryOfTheWrongLengthIsAnError) {
    addEvents(1);
    sim->injectFault(Fault::rawReply({0x00, 0xFF, 0xFF, 0x01, 0x00, 0x02}));
    EXPECT_THAT(failureOf([&] { (void)sel.read(1); }), HasSubstr("an answer of 6 bytes for a whole record, expected 19"));
    Bytes longer(20, 0x00);
    sim->injectFault(Fault::rawReply(longer));
    EXPECT_THAT(failureOf([&] { (void)sel.read(1); }), HasSubstr("an answer of 20 bytes"));
}

TEST_F(SelReader, AShortPieceIsAnError) {
    sim->applyDescriptionLine("sel-max-read 8");
    addEvents(1);
    (void)sel.read(1);
    sim->injectFault(Fault::rawReply({0x00, 0xFF, 0xFF, 0x01, 0x00}).forCommand(storage, qelSel::cmd::getSelEntry));
    EXPECT_THAT(failureOf([&] { (void)sel.read(1); }),
                HasSubstr("an answer of 5 bytes for 8 bytes at offset 0, expected 11"));
}

TEST_F(SelReader, AnEntryForAnotherRecordIsAnError) {
    addEvents(2);
    Bytes other = {0x00, 0xFF, 0xFF};
    const qelSel::RawRecord second = sim->sel().records()[1];
    other.insert(other.end(), second.begin(), second.end());
    sim->injectFault(Fault::rawReply(other));
    EXPECT_THAT(failureOf([&] { (void)sel.read(1); }), HasSubstr("asked for record 0x0001, got record 0x0002"));
}

TEST_F(SelReader, AnEntryThatNamesItselfAsNextIsAnErrorNotAHang) {
    addEvents(1);
    Bytes self = {0x00, 0x01, 0x00};
    const qelSel::RawRecord first = sim->sel().records()[0];
    self.insert(self.end(), first.begin(), first.end());
    sim->setHandler(storage, qelSel::cmd::getSelEntry, [self](const qelSim::Request&) { return self; });
    EXPECT_THAT(failureOf([&] { (void)sel.readForward(qelSel::firstRecordId, 1000); }),
                HasSubstr("record 0x0001 names itself as the next record"));
    EXPECT_EQ(sel.requestsSent(), 1u);
}

TEST_F(SelReader, ALogThatLeadsBackIsAnErrorNotAHang) {
    addEvents(3);
    qelSim::SimSel* log = &sim->sel();
    // Record 3 names record 1 as the next.
    sim->setHandler(storage, qelSel::cmd::getSelEntry, [log](const qelSim::Request& r) {
        qelSim::Response answer = log->getEntry(r);
        if (answer.size() == 19 && answer[3] == 3) answer[1] = 1, answer[2] = 0;
        return answer;
    });
    EXPECT_THAT(failureOf([&] { (void)sel.readForward(qelSel::firstRecordId, 1000); }),
                HasSubstr("leads back to record 0x0001"));
    EXPECT_EQ(sel.requestsSent(), 4u);
    EXPECT_THAT(failureOf([&] { (void)sel.readAfter(2, 1000); }), HasSubstr("leads back to record"));
}

}  // namespace
