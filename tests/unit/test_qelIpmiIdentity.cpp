// The controller identity (Get Device ID cache, EEPROM version records, Guid),
// run against the simulated controller on a host laid out in a temporary
// directory, with a wall clock the tests move.
//
// The Get Device ID cache is process-wide and outlives a test only through a
// closed gate: every test destroys its objects (which empties the cache) and
// starts its clock far beyond the previous test's, so a gate that a failed
// attempt left closed has long opened again.
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimDevice.h"
#include "qelSimIdentity.h"
#include "qelSmbios.h"
#include "smbiosImage.h"

using qelIpmi::QelIpmiDeviceIdData;
using qelIpmi::QelIpmiEEPROMVersionInfo;
using qelIpmi::QelIpmiError;
using qelSim::Bytes;
using qelSim::Fault;
using qelSim::Request;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;

namespace {

// A host under a temporary root whose wall clock stands still until moved.
class ClockHost : public smbiosTest::FakeHost {
public:
    explicit ClockHost(const std::string& root) : FakeHost(root) {}
    time_t time() const override { return now.load(); }
    void advance(time_t seconds) { now += seconds; }
    std::atomic<time_t> now{0};
};

std::string hex2(unsigned char b) {
    char text[3];
    std::snprintf(text, sizeof text, "%02x", b);
    return text;
}

// A Get Device ID answer with the given firmware and IPMI bytes and
// auxiliary revision, manufacturer 0x0A0B0C, product 0x1234.
Bytes deviceIdAnswer(unsigned char fw1, unsigned char fw2, unsigned char ipmiVersion,
                     Bytes aux) {
    Bytes b = {0x00, 0x20, 0x81, fw1, fw2, ipmiVersion, 0xBF, 0x0C, 0x0B, 0x0A, 0x34, 0x12};
    b.insert(b.end(), aux.begin(), aux.end());
    return b;
}

struct CacheState {
    int count;
    bool hasData;
    Bytes data;
    time_t lastUpdate;
};

CacheState cache() {
    std::lock_guard<std::mutex> lock(QelIpmiDeviceIdData::base_mutex);
    CacheState s{QelIpmiDeviceIdData::instance_count, QelIpmiDeviceIdData::data != nullptr, {},
                 QelIpmiDeviceIdData::last_update};
    if (s.hasData) s.data.assign(QelIpmiDeviceIdData::data, QelIpmiDeviceIdData::data + 16);
    return s;
}

class Identity : public testing::Test {
protected:
    smbiosTest::TempDir root;
    ClockHost host{root.path()};
    smbiosTest::ScopedPlatform platform{&host};
    qelSim::ScopedSimulator sim;

    void SetUp() override {
        static time_t start = 1'700'000'000;
        start += 100'000;
        host.now = start;
        const CacheState s = cache();
        ASSERT_EQ(s.count, 0) << "an earlier test left objects alive";
        ASSERT_FALSE(s.hasData) << "an earlier test left the cache filled";
    }

    std::size_t deviceIdRequests() {
        return sim->requests(netfn::app, cmd::getDeviceId).size();
    }
    std::size_t probeRequests() {
        return sim->requests(netfn::oemBoard, cmd::getBoardSlot).size();
    }
    std::size_t eepromRequests() {
        return sim->requests(netfn::oemGroup, cmd::oemVersionInfo).size();
    }
    std::string defaultManufacturer() {
        return hex2(qelIpmi::vendorIana[0]) + hex2(qelIpmi::vendorIana[1]) +
               hex2(qelIpmi::vendorIana[2]);
    }

    // A Linux host whose SMBIOS table holds `table`.
    void writeSmbios(const Bytes& table, uint16_t structures) {
        smbiosTest::writeLinuxMemory(root.path(), 0xF0000, 0xE0000, table, structures);
    }
    void writeSystemInformation(const std::vector<std::string>& strings) {
        writeSmbios(smbiosTest::concat({smbiosTest::systemInformation(1, strings),
                                        smbiosTest::endOfTable(2)}),
                    2);
    }
};

void expectDefaults(const QelIpmiDeviceIdData& d) {
    EXPECT_EQ(d.manufacturerId, "");
    EXPECT_EQ(d.productId, "");
    EXPECT_EQ(d.versionString, "");
    EXPECT_EQ(d.firmwareVersion, "0.0.0000");
    EXPECT_EQ(d.firmwareRevision, 0);
    EXPECT_FALSE(d.oemFeatureAvailable);
}

}  // namespace

// ---------------------------------------------------------------- Guid

TEST(GuidText, FreshGuidIsAllZero) {
    Guid g;
    EXPECT_EQ(g.text, "00000000-0000-0000-0000-000000000000");
    EXPECT_EQ(g.text.size(), 36u);
    for (unsigned char b : g.bytes) EXPECT_EQ(b, 0);
}

TEST(GuidText, BytesInStorageOrderUpperCaseWithoutSwapping) {
    Guid g;
    for (int i = 0; i < 16; ++i) g.bytes[i] = static_cast<unsigned char>(i);
    g.buildString();
    EXPECT_EQ(g.text, "00010203-0405-0607-0809-0A0B0C0D0E0F");
    for (int i = 0; i < 16; ++i) g.bytes[i] = static_cast<unsigned char>(0xA0 + i * 3);
    g.buildString();
    EXPECT_EQ(g.text, "A0A3A6A9-ACAF-B2B5-B8BB-BEC1C4C7CACD");
}

TEST(GuidText, AssignmentCopiesBytesAndRebuildsText) {
    Guid source;
    source.bytes[0] = 0xFE;
    source.bytes[15] = 0x01;
    source.buildString();
    Guid target;
    target = source;
    EXPECT_EQ(target.text, "FE000000-0000-0000-0000-000000000001");
    EXPECT_EQ(target.bytes[0], 0xFE);
}

TEST(GuidText, SelfAssignmentChangesNothing) {
    Guid g;
    g.bytes[3] = 0x7C;
    g.buildString();
    Guid& same = g;
    g = same;
    EXPECT_EQ(g.text, "0000007C-0000-0000-0000-000000000000");
}

// ---------------------------------------------------------------- Get Device ID

TEST_F(Identity, FirstObjectAsksAndDecodesTheAnswer) {
    QelIpmiDeviceIdData d;
    auto requests = sim->requests(netfn::app, cmd::getDeviceId);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(requests[0].data.empty());
    EXPECT_EQ(requests[0].addrType, 0x0C);
    EXPECT_EQ(requests[0].lun, 0);
    EXPECT_EQ(d.manufacturerId, defaultManufacturer());
    EXPECT_EQ(d.productId, "3412");
    EXPECT_EQ(d.versionString, "IPMIv2 - fw v1.07.00.00.00.47");
    EXPECT_EQ(d.firmwareVersion, "1.07.00000047");
    EXPECT_EQ(d.firmwareRevision, 0x0107);
    EXPECT_TRUE(d.oemFeatureAvailable);
    EXPECT_TRUE(d.ipmiAvailable);
    EXPECT_FALSE(d.acSystem);
    EXPECT_EQ(d.guid.text, "00000000-0000-0000-0000-000000000000");
    EXPECT_EQ(cache().data, sim->deviceId());
    EXPECT_EQ(cache().lastUpdate, host.now.load());
}

TEST_F(Identity, SecondObjectOneAfterTheOtherDoesNotAsk) {
    QelIpmiDeviceIdData first;
    QelIpmiDeviceIdData second;
    EXPECT_EQ(deviceIdRequests(), 1u);
    EXPECT_EQ(first.firmwareVersion, "1.07.00000047");
    EXPECT_EQ(second.manufacturerId, "");
    EXPECT_EQ(second.firmwareVersion, "0.0.0000");
    expectDefaults(second);
    EXPECT_TRUE(second.ipmiAvailable);
    EXPECT_EQ(cache().count, 2);
}

TEST_F(Identity, DestroyingAllObjectsThenCreatingOneAsksAgainAtOnce) {
    { QelIpmiDeviceIdData first; }
    EXPECT_FALSE(cache().hasData);
    EXPECT_EQ(cache().lastUpdate, 0);
    EXPECT_EQ(cache().count, 0);
    QelIpmiDeviceIdData again;  // same clock second
    EXPECT_EQ(deviceIdRequests(), 2u);
    EXPECT_EQ(again.firmwareVersion, "1.07.00000047");
}

TEST_F(Identity, DocumentedAnswerGivesTheDocumentedTexts) {
    sim->setDeviceId(deviceIdAnswer(0x81, 0x07, 0x51, {0x00, 0x00, 0x00, 0x47}));
    QelIpmiDeviceIdData d;
    EXPECT_EQ(d.versionString, "IPMIv51 - fw v1.07.00.00.00.47");
    EXPECT_EQ(d.firmwareVersion, "1.07.00000047");
    EXPECT_EQ(d.firmwareRevision, 0x0107);
    EXPECT_TRUE(d.oemFeatureAvailable);
    EXPECT_EQ(probeRequests(), 0u);
    EXPECT_EQ(d.manufacturerId, "0c0b0a");
    EXPECT_EQ(d.productId, "3412");
}

TEST_F(Identity, HexadecimalFieldsAreLowerCaseAndPadded) {
    sim->setDeviceId(deviceIdAnswer(0x0C, 0x3A, 0x51, {0xAB, 0x0C, 0xDE, 0x47}));
    QelIpmiDeviceIdData d;
    EXPECT_EQ(d.versionString, "IPMIv51 - fw vc.3a.ab.0c.de.47");
    EXPECT_EQ(d.firmwareVersion, "c.3a.ab0cde47");
    EXPECT_EQ(d.firmwareRevision, 0x0C3A);
}

TEST_F(Identity, MajorRevisionOfSixtyFourAndAboveComesOutNegative) {
    sim->setDeviceId(deviceIdAnswer(0xC0, 0x07, 0x02, {0x00, 0x00, 0x00, 0x47}));
    QelIpmiDeviceIdData d;
    EXPECT_EQ(d.versionString, "IPMIv2 - fw vffffffc0.07.00.00.00.47");
    EXPECT_EQ(d.firmwareVersion, "ffffffc0.07.00000047");
    EXPECT_EQ(d.firmwareRevision, 0xC007);
}

TEST_F(Identity, MarkerAMeansNoOemFeaturesWithoutProbe) {
    sim->identity().setBoardSlotAnswers(true);
    sim->setDeviceId(deviceIdAnswer(0x01, 0x07, 0x02, {0x00, 0x00, 0x00, 'A'}));
    QelIpmiDeviceIdData d;
    EXPECT_FALSE(d.oemFeatureAvailable);
    EXPECT_EQ(probeRequests(), 0u);
    EXPECT_EQ(d.firmwareVersion, "1.07.00000041");
}

TEST_F(Identity, OtherMarkerProbesAndAnsweredProbeMeansOemFeatures) {
    sim->identity().setBoardSlotAnswers(true, 3);
    sim->setDeviceId(deviceIdAnswer(0x01, 0x07, 0x02, {0x00, 0x00, 0x00, 0x00}));
    QelIpmiDeviceIdData d;
    auto probes = sim->requests(netfn::oemBoard, cmd::getBoardSlot);
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_TRUE(probes[0].data.empty());
    EXPECT_EQ(probes[0].addrType, 0x0C);
    EXPECT_EQ(probes[0].lun, 0);
    EXPECT_TRUE(d.oemFeatureAvailable);
}

TEST_F(Identity, OtherMarkerProbesAndRefusedProbeMeansNoOemFeatures) {
    sim->setDeviceId(deviceIdAnswer(0x01, 0x07, 0x02, {0x00, 0x00, 0x00, 'g'}));
    QelIpmiDeviceIdData d;  // the simulator's default: 0xC1 for the probe
    EXPECT_EQ(probeRequests(), 1u);
    EXPECT_FALSE(d.oemFeatureAvailable);
    EXPECT_TRUE(d.ipmiAvailable);
    EXPECT_EQ(d.firmwareVersion, "1.07.00000067");
}

TEST_F(Identity, ProbeWithoutAnswerMeansNoOemFeatures) {
    sim->identity().setBoardSlotAnswers(true);
    sim->setDeviceId(deviceIdAnswer(0x01, 0x07, 0x02, {0x00, 0x00, 0x00, 0x00}));
    sim->injectFault(Fault::emptyReply().forCommand(netfn::oemBoard, cmd::getBoardSlot));
    QelIpmiDeviceIdData d;
    EXPECT_FALSE(d.oemFeatureAvailable);
    EXPECT_TRUE(d.ipmiAvailable);
}

TEST_F(Identity, FifteenByteAnswerChangesNoStringAndMarksIpmiUnavailable) {
    QelIpmiDeviceIdData d;
    ASSERT_EQ(d.firmwareVersion, "1.07.00000047");
    const Bytes cached = cache().data;
    host.advance(301);
    Bytes fifteen = sim->deviceId();
    fifteen.resize(15);
    sim->setDeviceId(fifteen);
    EXPECT_FALSE(d.update());
    EXPECT_FALSE(d.ipmiAvailable);
    EXPECT_EQ(d.manufacturerId, defaultManufacturer());
    EXPECT_EQ(d.versionString, "IPMIv2 - fw v1.07.00.00.00.47");
    EXPECT_EQ(d.firmwareVersion, "1.07.00000047");
    EXPECT_EQ(d.firmwareRevision, 0x0107);
    EXPECT_EQ(cache().data, cached);
    EXPECT_EQ(deviceIdRequests(), 2u);
}

TEST_F(Identity, FifteenByteAnswerOnAFreshObjectKeepsTheDefaults) {
    Bytes fifteen = sim->deviceId();
    fifteen.resize(15);
    sim->setDeviceId(fifteen);
    QelIpmiDeviceIdData d;
    expectDefaults(d);
    EXPECT_FALSE(d.ipmiAvailable);
    EXPECT_FALSE(cache().hasData);
    EXPECT_EQ(probeRequests(), 0u);
}

TEST_F(Identity, SeventeenByteAnswerIsRejectedToo) {
    Bytes seventeen = sim->deviceId();
    seventeen.push_back(0x00);
    sim->setDeviceId(seventeen);
    QelIpmiDeviceIdData d;
    expectDefaults(d);
    EXPECT_FALSE(d.ipmiAvailable);
}

TEST_F(Identity, ErrorCompletionCodeIsRejected) {
    Bytes answer = sim->deviceId();
    answer[0] = 0xC0;
    sim->setDeviceId(answer);
    QelIpmiDeviceIdData d;
    expectDefaults(d);
    EXPECT_FALSE(d.ipmiAvailable);
}

TEST_F(Identity, NoAnswerIsRejected) {
    sim->injectFault(Fault::noReply().forCommand(netfn::app, cmd::getDeviceId));
    QelIpmiDeviceIdData d;
    expectDefaults(d);
    EXPECT_FALSE(d.ipmiAvailable);
}

TEST_F(Identity, MissingDeviceIsCaughtAndClosesTheGate) {
    sim->setAllPathsMissing(true);
    QelIpmiDeviceIdData first;
    EXPECT_FALSE(first.ipmiAvailable);
    expectDefaults(first);
    const std::size_t attempts = sim->openAttempts().size();
    EXPECT_GT(attempts, 0u);
    sim->setAllPathsMissing(false);
    QelIpmiDeviceIdData second;  // within 300 s of the failed attempt
    EXPECT_EQ(sim->openAttempts().size(), attempts);
    EXPECT_TRUE(second.ipmiAvailable);
    EXPECT_EQ(deviceIdRequests(), 0u);
}

TEST_F(Identity, FailedAttemptKeepsTheGateClosedAfterTheLastObjectGoes) {
    // Only a filled cache is dropped with the last object; a failed attempt
    // leaves nothing to drop, so its gate stands.
    sim->injectFault(Fault::selectFails(EIO).forCommand(netfn::app, cmd::getDeviceId));
    { QelIpmiDeviceIdData failed; EXPECT_FALSE(failed.ipmiAvailable); }
    EXPECT_EQ(cache().lastUpdate, host.now.load());
    QelIpmiDeviceIdData next;
    EXPECT_EQ(deviceIdRequests(), 1u);
    expectDefaults(next);
    host.advance(301);
    EXPECT_TRUE(next.update());
    EXPECT_TRUE(next.ipmiAvailable);
    EXPECT_EQ(deviceIdRequests(), 2u);
}

TEST_F(Identity, SuccessAfterFailureMakesIpmiAvailableAgain) {
    sim->setAllPathsMissing(true);
    QelIpmiDeviceIdData d;
    ASSERT_FALSE(d.ipmiAvailable);
    sim->setAllPathsMissing(false);
    host.advance(301);
    EXPECT_TRUE(d.update());
    EXPECT_TRUE(d.ipmiAvailable);
    EXPECT_EQ(d.firmwareVersion, "1.07.00000047");
}

// ---------------------------------------------------------------- the 300-second gate

TEST_F(Identity, GateTwoObjectsWithinThreeHundredSecondsSendOneRequest) {
    QelIpmiDeviceIdData first;
    host.advance(300);  // exactly 300 s: not more than 300
    QelIpmiDeviceIdData second;
    EXPECT_EQ(deviceIdRequests(), 1u);
    expectDefaults(second);
}

TEST_F(Identity, GateOpensAfterThreeHundredAndOneSeconds) {
    QelIpmiDeviceIdData first;
    host.advance(301);
    sim->setDeviceId(deviceIdAnswer(0x02, 0x10, 0x51, {0x01, 0x02, 0x03, 0x47}));
    QelIpmiDeviceIdData second;
    EXPECT_EQ(deviceIdRequests(), 2u);
    EXPECT_EQ(second.firmwareVersion, "2.10.01020347");
    EXPECT_EQ(first.firmwareVersion, "1.07.00000047");  // objects are not refreshed behind
    EXPECT_EQ(cache().data, sim->deviceId());
    EXPECT_EQ(cache().lastUpdate, host.now.load());
}

TEST_F(Identity, GateUnchangedAnswerLeavesTheNewObjectsStringsAlone) {
    QelIpmiDeviceIdData first;
    host.advance(301);
    QelIpmiDeviceIdData second;
    EXPECT_EQ(deviceIdRequests(), 2u);
    expectDefaults(second);  // the answer equals the cache: nothing is taken over
    host.advance(301);
    EXPECT_FALSE(second.update());
    EXPECT_EQ(deviceIdRequests(), 3u);
}

TEST_F(Identity, GateUpdateWithinThreeHundredSecondsReturnsFalseWithoutAsking) {
    QelIpmiDeviceIdData d;
    host.advance(200);
    EXPECT_FALSE(d.update());
    EXPECT_EQ(deviceIdRequests(), 1u);
}

TEST_F(Identity, GateChangedAnswerRefreshesCacheAndObject) {
    QelIpmiDeviceIdData d;
    host.advance(400);
    sim->setDeviceId(deviceIdAnswer(0x03, 0x00, 0x51, {0x00, 0x00, 0x00, 'A'}));
    EXPECT_TRUE(d.update());
    EXPECT_EQ(d.firmwareVersion, "3.00.00000041");
    EXPECT_FALSE(d.oemFeatureAvailable);
    EXPECT_EQ(cache().data, sim->deviceId());
}

// ---------------------------------------------------------------- copies

TEST_F(Identity, CopyCarriesEverythingAndCounts) {
    QelIpmiDeviceIdData original;
    original.acSystem = true;
    original.ipmiAvailable = false;
    original.guid.bytes[0] = 0x42;
    original.guid.buildString();
    QelIpmiDeviceIdData copy(original);
    EXPECT_EQ(cache().count, 2);
    EXPECT_EQ(copy.manufacturerId, original.manufacturerId);
    EXPECT_EQ(copy.productId, "3412");
    EXPECT_EQ(copy.versionString, original.versionString);
    EXPECT_EQ(copy.firmwareVersion, "1.07.00000047");
    EXPECT_EQ(copy.firmwareRevision, 0x0107);
    EXPECT_TRUE(copy.oemFeatureAvailable);
    EXPECT_FALSE(copy.ipmiAvailable);
    EXPECT_TRUE(copy.acSystem);
    EXPECT_EQ(copy.guid.text, "42000000-0000-0000-0000-000000000000");
    EXPECT_EQ(deviceIdRequests(), 1u);
}

TEST_F(Identity, CopyKeepsTheCacheAliveAfterTheOriginalGoes) {
    auto* original = new QelIpmiDeviceIdData;
    QelIpmiDeviceIdData copy(*original);
    delete original;
    EXPECT_TRUE(cache().hasData);
    EXPECT_EQ(cache().count, 1);
    QelIpmiDeviceIdData third;
    EXPECT_EQ(deviceIdRequests(), 1u);
}

TEST_F(Identity, AssignmentLeavesAcSystemAsItIs) {
    QelIpmiDeviceIdData filled;
    filled.acSystem = true;
    filled.guid.bytes[15] = 0x99;
    filled.guid.buildString();
    QelIpmiDeviceIdData target;
    ASSERT_EQ(target.firmwareVersion, "0.0.0000");
    target = filled;
    EXPECT_FALSE(target.acSystem);
    EXPECT_EQ(target.firmwareVersion, "1.07.00000047");
    EXPECT_EQ(target.manufacturerId, defaultManufacturer());
    EXPECT_EQ(target.firmwareRevision, 0x0107);
    EXPECT_TRUE(target.oemFeatureAvailable);
    EXPECT_EQ(target.guid.text, "00000000-0000-0000-0000-000000000099");
    EXPECT_EQ(cache().count, 2);

    QelIpmiDeviceIdData other;
    other.acSystem = false;
    filled = other;
    EXPECT_TRUE(filled.acSystem);
    EXPECT_EQ(filled.firmwareVersion, "0.0.0000");
}

TEST_F(Identity, SelfAssignmentChangesNothing) {
    QelIpmiDeviceIdData d;
    QelIpmiDeviceIdData& same = d;
    d = same;
    EXPECT_EQ(d.firmwareVersion, "1.07.00000047");
    EXPECT_EQ(cache().count, 1);
}

// ---------------------------------------------------------------- the ALDERCROFT line

TEST_F(Identity, SmbiosFamilyAldercroftSendsNoGetDeviceIdAtAll) {
    writeSystemInformation({"Maker", "Model 9", "1.0", "SN0001", "SKU1", "ALDERCROFT"});
    QelIpmiDeviceIdData d;
    EXPECT_TRUE(d.acSystem);
    EXPECT_EQ(sim->requestCount(), 0u);
    EXPECT_TRUE(sim->openAttempts().empty());
    expectDefaults(d);
    EXPECT_TRUE(d.ipmiAvailable);
    host.advance(1000);
    EXPECT_FALSE(d.update());
    EXPECT_EQ(sim->requestCount(), 0u);
    EXPECT_EQ(cache().lastUpdate, 0);
}

TEST_F(Identity, SmbiosProductNameContainingAldercroftMakesAnAcSystem) {
    writeSystemInformation({"Maker", "XR ALDERCROFT 2000", "1.0", "SN0001", "SKU1", "Racks"});
    QelIpmiDeviceIdData d;
    EXPECT_TRUE(d.acSystem);
    EXPECT_EQ(deviceIdRequests(), 0u);
}

TEST_F(Identity, SmbiosFamilyMustEqualAldercroftExactly) {
    writeSystemInformation({"Maker", "Model 9", "1.0", "SN0001", "SKU1", "ALDERCROFT2"});
    QelIpmiDeviceIdData d;
    EXPECT_FALSE(d.acSystem);
    EXPECT_EQ(deviceIdRequests(), 1u);
}

TEST_F(Identity, SmbiosLowerCaseNameIsNotTheLine) {
    writeSystemInformation({"Maker", "aldercroft", "1.0", "SN0001", "SKU1", "aldercroft"});
    QelIpmiDeviceIdData d;
    EXPECT_FALSE(d.acSystem);
    EXPECT_EQ(deviceIdRequests(), 1u);
}

TEST_F(Identity, SmbiosShortSystemStructureIsReadOnlyAsFarAsItGoes) {
    // An SMBIOS 2.0 System Information structure ends at 0x08: no family.
    writeSmbios(smbiosTest::concat({smbiosTest::structure(1, 1, {1, 2, 3, 4},
                                                          {"Maker", "ALDERCROFT mini", "1", "S"}),
                                    smbiosTest::endOfTable(2)}),
                2);
    QelIpmiDeviceIdData d;
    EXPECT_TRUE(d.acSystem);
    EXPECT_EQ(deviceIdRequests(), 0u);
}

TEST_F(Identity, SmbiosWithoutSystemInformationIsNoAcSystem) {
    writeSmbios(smbiosTest::concat({smbiosTest::structure(3, 1, Bytes(0x11, 0), {"Chassis"}),
                                    smbiosTest::endOfTable(2)}),
                2);
    QelIpmiDeviceIdData d;
    EXPECT_FALSE(d.acSystem);
    EXPECT_EQ(deviceIdRequests(), 1u);
}

TEST_F(Identity, NoSmbiosTableIsNoAcSystem) {
    QelIpmiDeviceIdData d;  // the root holds no memory device
    EXPECT_FALSE(d.acSystem);
    EXPECT_EQ(deviceIdRequests(), 1u);
}

TEST_F(Identity, SmbiosReaderErrorIsTakenAsNoAcSystem) {
    writeSystemInformation({"Maker", "Model 9", "1.0", "SN0001", "SKU1", "ALDERCROFT"});
    qelSmbios::QelSmbios::resetOsForTesting();
    host.sysname = "SunOS";  // the reader throws "unsupported Operating System"
    QelIpmiDeviceIdData d;
    host.sysname = "Linux";
    qelSmbios::QelSmbios::resetOsForTesting();
    EXPECT_FALSE(d.acSystem);
    EXPECT_EQ(deviceIdRequests(), 1u);
    EXPECT_EQ(d.firmwareVersion, "1.07.00000047");
}

// ---------------------------------------------------------------- EEPROM version records

TEST_F(Identity, EepromConstructorReadsBothRecords) {
    QelIpmiEEPROMVersionInfo info;
    auto requests = sim->requests(netfn::oemGroup, cmd::oemVersionInfo);
    ASSERT_EQ(requests.size(), 2u);
    const unsigned char* iana = qelIpmi::vendorIana;
    EXPECT_THAT(requests[0].data, ElementsAre(iana[0], iana[1], iana[2], 0x12, 0x00));
    EXPECT_THAT(requests[1].data, ElementsAre(iana[0], iana[1], iana[2], 0x12, 0x01));
    EXPECT_EQ(requests[0].addrType, 0x0C);
    EXPECT_EQ(Bytes(info.versionRecord[0], info.versionRecord[0] + 20),
              qelSim::SimIdentity::defaultEepromRecord(0));
    EXPECT_EQ(Bytes(info.versionRecord[1], info.versionRecord[1] + 20),
              qelSim::SimIdentity::defaultEepromRecord(1));
    EXPECT_EQ(info.lastCheck, host.now.load());
}

TEST_F(Identity, EepromIsUpToDateTwiceWithinOneHundredTwentySecondsSendsNothing) {
    QelIpmiEEPROMVersionInfo info;
    sim->clearRequests();
    host.advance(60);
    EXPECT_FALSE(info.isUpToDate());
    host.advance(60);  // exactly 120 s: not more than 120
    EXPECT_FALSE(info.isUpToDate());
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(Identity, EepromIsUpToDateAfterOneHundredTwentyOneSecondsAsks) {
    QelIpmiEEPROMVersionInfo info;
    sim->clearRequests();
    host.advance(121);
    EXPECT_FALSE(info.isUpToDate());  // asked, nothing changed
    EXPECT_EQ(eepromRequests(), 2u);
    EXPECT_EQ(info.lastCheck, host.now.load());
    host.advance(60);
    EXPECT_FALSE(info.isUpToDate());
    EXPECT_EQ(eepromRequests(), 2u);
}

TEST_F(Identity, EepromChangedRecordIsReportedAndKept) {
    QelIpmiEEPROMVersionInfo info;
    Bytes changed = qelSim::SimIdentity::defaultEepromRecord(1);
    changed[19] = 0x5A;
    sim->identity().setEepromRecord(1, changed);
    host.advance(121);
    EXPECT_TRUE(info.isUpToDate());
    EXPECT_EQ(Bytes(info.versionRecord[1], info.versionRecord[1] + 20), changed);
    EXPECT_FALSE(info.update());  // read again: nothing new
}

TEST_F(Identity, EepromRefusedRecordKeepsTheOldOne) {
    QelIpmiEEPROMVersionInfo info;
    sim->injectFault(Fault::completionCode(0xC1).forCommand(netfn::oemGroup, cmd::oemVersionInfo));
    Bytes changed = qelSim::SimIdentity::defaultEepromRecord(0);
    changed[5] = 'X';
    sim->identity().setEepromRecord(0, changed);
    EXPECT_FALSE(info.update());  // index 0 refused, index 1 unchanged
    EXPECT_EQ(Bytes(info.versionRecord[0], info.versionRecord[0] + 20),
              qelSim::SimIdentity::defaultEepromRecord(0));
    EXPECT_TRUE(info.update());
}

TEST_F(Identity, EepromThreeByteReplyIsKeptAsFarAsItGoes) {
    sim->identity().setEepromRecord(0, {0x00, 0xAA, 0xBB});
    QelIpmiEEPROMVersionInfo info;
    Bytes expected(20, 0);
    expected[1] = 0xAA;
    expected[2] = 0xBB;
    EXPECT_EQ(Bytes(info.versionRecord[0], info.versionRecord[0] + 20), expected);
    // A full record that starts the same way is a change.
    sim->identity().setEepromRecord(0, qelSim::SimIdentity::defaultEepromRecord(0));
    EXPECT_TRUE(info.update());
}

TEST_F(Identity, EepromLongReplyKeepsTheFirstTwentyBytes) {
    Bytes longer = qelSim::SimIdentity::defaultEepromRecord(1);
    longer.insert(longer.end(), {0xEE, 0xEE, 0xEE});
    sim->identity().setEepromRecord(1, longer);
    QelIpmiEEPROMVersionInfo info;
    EXPECT_EQ(Bytes(info.versionRecord[1], info.versionRecord[1] + 20),
              qelSim::SimIdentity::defaultEepromRecord(1));
}

TEST_F(Identity, EepromTransportErrorsPassOn) {
    QelIpmiEEPROMVersionInfo info;
    sim->injectFault(Fault::selectFails(EIO).forCommand(netfn::oemGroup, cmd::oemVersionInfo));
    EXPECT_THROW(info.update(), QelIpmiError);
    sim->setAllPathsMissing(true);
    EXPECT_THROW(QelIpmiEEPROMVersionInfo(), QelIpmiError);
}

TEST_F(Identity, SimulatedEepromCommandChecksItsRequest) {
    qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    auto ask = [&](Bytes data) {
        qelIpmi::QelIpmi_request_msg msg(netfn::oemGroup, cmd::oemVersionInfo,
                                         static_cast<unsigned short>(data.size()), data.data());
        EXPECT_TRUE(ipmi.sendCmd(msg));
        return Bytes(msg.responseData, msg.responseData + msg.responseLength);
    };
    const unsigned char* iana = qelIpmi::vendorIana;
    EXPECT_EQ(ask({iana[0], iana[1], iana[2], 0x12, 0}).size(), 20u);
    EXPECT_THAT(ask({iana[0], iana[1], iana[2], 0x12, 2}), ElementsAre(0xC9));
    EXPECT_THAT(ask({static_cast<unsigned char>(iana[0] ^ 1), iana[1], iana[2], 0x12, 0}),
                ElementsAre(0xCC));
    EXPECT_THAT(ask({iana[0], iana[1], iana[2], 0x13, 0}), ElementsAre(0xCC));
    EXPECT_THAT(ask({iana[0], iana[1], iana[2], 0x12}), ElementsAre(0xC7));
}

// ---------------------------------------------------------------- concurrency

namespace {

// Releases all waiting threads at once.
class StartGate {
public:
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [this] { return open_; });
    }
    void open() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            open_ = true;
        }
        cv_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
};

// An object either has the strings of the simulator's default answer or
// none at all: never a mixture.
bool consistent(const QelIpmiDeviceIdData& d, const std::string& manufacturer) {
    if (d.manufacturerId.empty())
        return d.productId.empty() && d.versionString.empty() &&
               d.firmwareVersion == "0.0.0000" && d.firmwareRevision == 0;
    return d.manufacturerId == manufacturer && d.productId == "3412" &&
           d.versionString == "IPMIv2 - fw v1.07.00.00.00.47" &&
           d.firmwareVersion == "1.07.00000047" && d.firmwareRevision == 0x0107 &&
           d.oemFeatureAvailable;
}

}  // namespace

TEST_F(Identity, ConcurrencyThreadsBesideALiveObjectShareItsOneAnswer) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    QelIpmiDeviceIdData keeper;
    const std::string manufacturer = defaultManufacturer();
    StartGate gate;
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            gate.wait();
            for (int i = 0; i < kRounds; ++i) {
                QelIpmiDeviceIdData fresh;
                QelIpmiDeviceIdData copy(keeper);
                fresh = copy;
                if (!consistent(fresh, manufacturer) || fresh.manufacturerId.empty()) ++bad;
            }
        });
    }
    gate.open();
    for (auto& t : threads) t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(deviceIdRequests(), 1u);
    EXPECT_EQ(cache().count, 1);
    EXPECT_EQ(cache().data, sim->deviceId());
}

TEST_F(Identity, ConcurrencyConstructAndDestroyKeepTheCacheConsistent) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    const std::string manufacturer = defaultManufacturer();
    StartGate gate;
    std::atomic<int> bad{0};
    std::atomic<int> filled{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            gate.wait();
            for (int i = 0; i < kRounds; ++i) {
                QelIpmiDeviceIdData d;
                if (!consistent(d, manufacturer)) ++bad;
                if (!d.manufacturerId.empty()) ++filled;
                const CacheState s = cache();
                if (s.count < 1 || (s.hasData && s.data != sim->deviceId())) ++bad;
            }
        });
    }
    gate.open();
    for (auto& t : threads) t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GE(filled.load(), 1);
    EXPECT_GE(deviceIdRequests(), static_cast<std::size_t>(filled.load()));
    const CacheState s = cache();
    EXPECT_EQ(s.count, 0);
    EXPECT_FALSE(s.hasData);
    EXPECT_EQ(s.lastUpdate, 0);
}
