// The simulated SDR repository (storage 0x20-0x23) and Get Sensor Reading
// (0x04/0x2D), request by request: reservations and their cancellation,
// partial reads and the read limit, the first and last record, the
// description keywords.
#include "qelSimSdr.h"

#include <gtest/gtest.h>

#include "qelSdrRecord.h"

namespace {

using qelSim::Bytes;
using qelSim::Request;
namespace sdr = qelSdr;

uint16_t le16(const Bytes& b, std::size_t at) { return static_cast<uint16_t>(b[at] | (b[at + 1] << 8)); }

class SimSdrTest : public ::testing::Test {
protected:
    qelSim::SimBmc bmc;

    void SetUp() override {
        bmc.applyDescriptionLine("sdr-id-stride 5");
        bmc.applyDescriptionLine("sensor 0x10 fan FAN1 unit=rpm m=60 lc=10 lnc=15 reading=150");
        bmc.applyDescriptionLine("sensor 0x70 processor CPU record=compact share=3 offset=1 reading=0x80");
        bmc.applyDescriptionLine("sensor 0x80 os-boot \"OS Boot\" record=event-only");
    }

    Bytes send(unsigned char netFn, unsigned char cmd, Bytes data = {}) {
        Request r;
        r.netFn = netFn;
        r.cmd = cmd;
        r.data = std::move(data);
        return bmc.dispatch(r);
    }
    Bytes reserve() { return send(sdr::netfn::storage, sdr::cmd::reserveSdrRepository); }
    Bytes get(uint16_t reservation, uint16_t id, unsigned char offset, unsigned char count) {
        return send(sdr::netfn::storage, sdr::cmd::getSdr,
                    {static_cast<unsigned char>(reservation & 0xFF), static_cast<unsigned char>(reservation >> 8),
                     static_cast<unsigned char>(id & 0xFF), static_cast<unsigned char>(id >> 8), offset, count});
    }
    Bytes reading(unsigned char number) { return send(sdr::netfn::sensorEvent, sdr::cmd::getSensorReading, {number}); }
};

TEST_F(SimSdrTest, InfoCountsTheRecordsAndEveryChangeMovesTheAdditionTimeOn) {
    const Bytes info = send(sdr::netfn::storage, sdr::cmd::getSdrRepositoryInfo);
    ASSERT_EQ(info.size(), sdr::repositoryInfo::responseSize);
    EXPECT_EQ(info[0], sdr::cc::ok);
    EXPECT_EQ(info[sdr::repositoryInfo::version], 0x51);
    EXPECT_EQ(le16(info, sdr::repositoryInfo::recordCount), 3);
    EXPECT_TRUE(info[sdr::repositoryInfo::support] & sdr::repositoryInfo::supportsReserve);
    bmc.applyDescriptionLine("sdr-rename 0x10 Fan1");
    const Bytes after = send(sdr::netfn::storage, sdr::cmd::getSdrRepositoryInfo);
    EXPECT_NE(le16(after, sdr::repositoryInfo::lastAddition), le16(info, sdr::repositoryInfo::lastAddition));
    EXPECT_EQ(send(sdr::netfn::storage, sdr::cmd::getSdrRepositoryInfo, {0x00}), Bytes{sdr::cc::requestDataLengthInvalid});
}

TEST_F(SimSdrTest, AllocationInfoDescribesTheSpace) {
    const Bytes alloc = send(sdr::netfn::storage, sdr::cmd::getSdrRepositoryAllocationInfo);
    ASSERT_EQ(alloc.size(), sdr::allocationInfo::responseSize);
    EXPECT_EQ(alloc[0], sdr::cc::ok);
    EXPECT_EQ(le16(alloc, sdr::allocationInfo::unitSize), 16);
    EXPECT_LT(le16(alloc, sdr::allocationInfo::freeUnits), le16(alloc, sdr::allocationInfo::units));
}

TEST_F(SimSdrTest, RecordIdsFollowTheStrideAndChainToTheLast) {
    const Bytes first = get(0, sdr::firstRecordId, 0, 0xFF);
    ASSERT_EQ(first[0], sdr::cc::ok);
    EXPECT_EQ(le16(first, 3), 1);  // the record's own ID
    EXPECT_EQ(le16(first, 1), 6);  // the next one
    const Bytes second = get(0, 6, 0, 0xFF);
    EXPECT_EQ(le16(second, 1), 11);
    const Bytes last = get(0, sdr::lastRecordId, 0, 0xFF);
    EXPECT_EQ(le16(last, 1), sdr::lastRecordId);
    EXPECT_EQ(Bytes(last.begin() + 3, last.end()), bmc.sdr().records().back());
    EXPECT_EQ(get(0, 2, 0, 5), Bytes{sdr::cc::requestedDataNotPresent});
}

TEST_F(SimSdrTest, PartialReadsNeedTheCurrentReservation) {
    const Bytes one = reserve();
    const Bytes two = reserve();
    EXPECT_EQ(get(le16(one, 1), 1, 5, 4), Bytes{sdr::cc::reservationCancelled});
    EXPECT_EQ(get(0, 1, 5, 4), Bytes{sdr::cc::reservationCancelled});
    const Bytes piece = get(le16(two, 1), 1, 5, 4);
    ASSERT_EQ(piece.size(), 7u);
    const Bytes record = bmc.sdr().records()[0];
    EXPECT_EQ(Bytes(piece.begin() + 3, piece.end()), Bytes(record.begin() + 5, record.begin() + 9));
    // Any change cancels it.
    bmc.applyDescriptionLine("sdr-rename 0x70 Proc");
    EXPECT_EQ(get(le16(two, 1), 1, 5, 4), Bytes{sdr::cc::reservationCancelled});
    EXPECT_EQ(get(le16(two, 1), 1, 0, 5), Bytes{sdr::cc::reservationCancelled});
}

TEST_F(SimSdrTest, ReadLimitRefusesLongerReadsWithCannotReturn) {
    bmc.applyDescriptionLine("sdr-max-read 16");
    EXPECT_EQ(get(0, 1, 0, 0xFF), Bytes{sdr::cc::cannotReturnRequestedBytes});
    EXPECT_EQ(get(0, 1, 0, 17), Bytes{sdr::cc::cannotReturnRequestedBytes});
    EXPECT_EQ(get(0, 1, 0, 16).size(), 3u + 16u);
    EXPECT_EQ(get(0, 1, 0, 5).size(), 3u + 5u);
}

TEST_F(SimSdrTest, BadRequestsAreRefused) {
    EXPECT_EQ(send(sdr::netfn::storage, sdr::cmd::getSdr, {0, 0, 1}), Bytes{sdr::cc::requestDataLengthInvalid});
    const Bytes r = reserve();
    EXPECT_EQ(get(le16(r, 1), 1, 200, 5), Bytes{sdr::cc::parameterOutOfRange});
    bmc.applyDescriptionLine("sdr-erase");
    EXPECT_EQ(get(0, 0, 0, 5), Bytes{sdr::cc::requestedDataNotPresent});
    bmc.sdr().setPresent(false);
    EXPECT_EQ(reserve(), Bytes{0xC1});
}

TEST_F(SimSdrTest, SensorReadingsAndThresholdStates) {
    const Bytes fan = reading(0x10);
    ASSERT_EQ(fan.size(), 5u);
    EXPECT_EQ(fan[1], 150);
    EXPECT_EQ(fan[3], 0);
    bmc.applyDescriptionLine("sensor-reading 0x10 12");
    EXPECT_EQ(reading(0x10)[3], sdr::threshold::lowerNonCritical);
    bmc.applyDescriptionLine("sensor-reading 0x10 5");
    EXPECT_EQ(reading(0x10)[3], sdr::threshold::lowerNonCritical | sdr::threshold::lowerCritical);
    // A shared record's sensors each have their own state; discrete states in byte 3.
    bmc.applyDescriptionLine("sensor-reading 0x72 0x01");
    EXPECT_EQ(reading(0x71)[3], 0x80);
    EXPECT_EQ(reading(0x72)[3], 0x01);
    EXPECT_EQ(reading(0x80), Bytes{sdr::cc::requestedDataNotPresent});
    EXPECT_EQ(reading(0x73), Bytes{sdr::cc::requestedDataNotPresent});
}

TEST_F(SimSdrTest, DescriptionBuildsTheRecordTheKeysSay) {
    bmc.applyDescriptionLine(
        "sensor 0x20 voltage \"CPU \\\"core\\\"\\x0a\" unit=volts m=-3 b=300 k1=3 k2=-2 entity=3.2 owner=0x2c lun=1 "
        "channel=2 lnr=1 lc=2 lnc=3 unc=85 uc=90 unr=95 hyst=2 nominal=45 format=twos");
    const sdr::SensorRecord s =
        sdr::SensorRecord::fromRecord(sdr::SdrRecord::fromBytes(bmc.sdr().records().back()));
    EXPECT_EQ(s.recordType, sdr::recordType::fullSensor);
    EXPECT_EQ(s.sensorNumber, 0x20);
    EXPECT_EQ(s.sensorType, 0x02);
    EXPECT_EQ(s.eventReadingType, 0x01);
    EXPECT_EQ(s.id.text, "CPU \"core\"\n");
    EXPECT_EQ(s.m, -3);
    EXPECT_EQ(s.b, 300);
    EXPECT_EQ(s.k1, 3);
    EXPECT_EQ(s.k2, -2);
    EXPECT_EQ(s.ownerId, 0x2c);
    EXPECT_EQ(s.ownerLun, 1);
    EXPECT_EQ(s.channel, 2);
    EXPECT_EQ(s.entityId, 3);
    EXPECT_EQ(s.entityInstance, 2);
    EXPECT_EQ(s.units2, 4);
    EXPECT_EQ(s.analogDataFormat(), sdr::analogFormat::twosComplement);
    EXPECT_EQ(s.readableThresholds(), 0x3F);
    EXPECT_EQ(s.settableThresholds(), 0x3F);
    EXPECT_EQ(s.upperNonRecoverable, 95);
    EXPECT_EQ(s.lowerNonRecoverable, 1);
    EXPECT_EQ(s.positiveHysteresis, 2);
    EXPECT_EQ(s.nominalReading, 45);

    const sdr::SensorRecord shared =
        sdr::SensorRecord::fromRecord(sdr::SdrRecord::fromBytes(bmc.sdr().records()[1]));
    EXPECT_EQ(shared.recordType, sdr::recordType::compactSensor);
    EXPECT_EQ(shared.shareCount, 3);
    EXPECT_EQ(shared.modifierOffset, 1);
    EXPECT_EQ(shared.eventReadingType, 0x6F);
}

TEST_F(SimSdrTest, BadDescriptionLinesSayWhatIsWrong) {
    EXPECT_THROW(bmc.applyDescriptionLine("sensor 0x99 nonsense X"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sensor 0x99 fan X m=600"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sensor 0x99 fan X colour=blue"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sensor 0x99 fan \"unterminated"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sensor 0x99 fan bad\\q"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sdr-rename 0x99 X"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sdr-remove 0x99"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sensor-reading 0x99 1"), std::invalid_argument);
    bmc.applyDescriptionLine("sdr-remove 0x10");
    EXPECT_EQ(bmc.sdr().records().size(), 2u);
}

TEST_F(SimSdrTest, ThresholdsAnswerTheReadableMaskAndTheRawBytes) {
    const Bytes fan = send(sdr::netfn::sensorEvent, 0x27, {0x10});
    // Lower critical 10, lower non-critical 15; the others read 0.
    EXPECT_EQ(fan, (Bytes{sdr::cc::ok, 0x03, 15, 10, 0, 0, 0, 0}));
    bmc.applyDescriptionLine("sensor 0x21 voltage V1 unit=volts lnr=1 lc=2 lnc=3 unc=85 uc=90 unr=95");
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x27, {0x21}), (Bytes{sdr::cc::ok, 0x3F, 3, 2, 1, 85, 90, 95}));
    // A compact record cannot hold them; the controller still has them.
    bmc.applyDescriptionLine("sensor 0x22 temperature T1 record=compact unit=celsius unc=70 uc=80");
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x27, {0x22}), (Bytes{sdr::cc::ok, 0x18, 0, 0, 0, 70, 80, 0}));
    // Discrete sensors have none; event-only and unknown sensors no answer.
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x27, {0x70}), (Bytes{sdr::cc::ok, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x27, {0x80}), Bytes{sdr::cc::requestedDataNotPresent});
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x27, {0x99}), Bytes{sdr::cc::requestedDataNotPresent});
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x27, {}), Bytes{sdr::cc::requestDataLengthInvalid});
}

TEST_F(SimSdrTest, CompactAndSignedSensorsCompareTheirReadingsWithTheirThresholds) {
    bmc.applyDescriptionLine("sensor 0x22 temperature T1 record=compact unit=celsius unc=70 uc=80 reading=75");
    EXPECT_EQ(reading(0x22)[3], sdr::threshold::upperNonCritical);
    // Two's complement: 0xFB is -5, below a lower threshold of 0.
    bmc.applyDescriptionLine("sensor 0x23 temperature Cold unit=celsius format=twos lc=0 lnc=5 reading=0xfb");
    EXPECT_EQ(reading(0x23)[3], sdr::threshold::lowerNonCritical | sdr::threshold::lowerCritical);
    bmc.applyDescriptionLine("sensor-reading 0x23 6");
    EXPECT_EQ(reading(0x23)[3], 0);
}

TEST_F(SimSdrTest, ReadingFactorsOfANonLinearSensorFollowItsRanges) {
    bmc.applyDescriptionLine(
        "sensor 0x24 fan NL unit=rpm linear=0x70 factors=0:10:0:0:0 factors=100:20:-5:1:-1 reading=120");
    auto factors = [this](unsigned char raw) {
        return send(sdr::netfn::sensorEvent, 0x23, {0x24, raw});
    };
    EXPECT_EQ(factors(0), (Bytes{sdr::cc::ok, 100, 10, 0x00, 0, 0x00, 0x00, 0x00}));
    EXPECT_EQ(factors(99), (Bytes{sdr::cc::ok, 100, 10, 0x00, 0, 0x00, 0x00, 0x00}));
    // B = -5 is 0x3FB in ten bits: 0xFB and bits 9:8 (11) in 7:6; K2 -1 is 0xF, K1 1.
    EXPECT_EQ(factors(100), (Bytes{sdr::cc::ok, 0xFF, 20, 0x00, 0xFB, 0xC0, 0x00, 0xF1}));
    EXPECT_EQ(factors(255), (Bytes{sdr::cc::ok, 0xFF, 20, 0x00, 0xFB, 0xC0, 0x00, 0xF1}));
    // A linear sensor answers its record's factors.
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x23, {0x10, 5}), (Bytes{sdr::cc::ok, 0xFF, 60, 0x00, 0, 0x00, 0x00, 0x00}));
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x23, {0x70, 5}), Bytes{sdr::cc::requestedDataNotPresent});
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x23, {0x24}), Bytes{sdr::cc::requestDataLengthInvalid});
    EXPECT_THROW(bmc.applyDescriptionLine("sensor 0x25 fan L factors=0:1:0:0:0"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sensor 0x25 fan L linear=0x70 factors=0:1:0"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sensor 0x25 fan L linear=0x70 factors=0:1:0:9:0"), std::invalid_argument);
}

TEST_F(SimSdrTest, WithoutTheRepositoryTheSensorCommandsAreUnknown) {
    bmc.sdr().setPresent(false);
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x23, {0x10, 5}), Bytes{0xC1});
    EXPECT_EQ(send(sdr::netfn::sensorEvent, 0x27, {0x10}), Bytes{0xC1});
}

TEST_F(SimSdrTest, DumpListsEveryRecord) {
    const std::string dump = bmc.dump();
    EXPECT_NE(dump.find("[sdr]\n"), std::string::npos);
    EXPECT_NE(dump.find("record 6 compact sensor sensor 112 share 3 \"CPU\"\n"), std::string::npos) << dump;
    EXPECT_NE(dump.find("record 11 event-only sensor 128 share 0 \"OS Boot\"\n"), std::string::npos) << dump;
}

}  // namespace
