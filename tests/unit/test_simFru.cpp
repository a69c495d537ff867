// The simulated FRU storage, the PNI locate command, the PNI image builder
// and the image validator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimDevice.h"
#include "qelSimFru.h"

using qelSim::Bytes;
using qelSim::PniFunctionSpec;
using qelSim::PniImage;
using qelSim::PniImageBuilder;
using qelSim::Request;
using qelSim::SimFru;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;

Request request(unsigned char fn, unsigned char command, Bytes data) {
    Request r;
    r.netFn = fn;
    r.cmd = command;
    r.data = std::move(data);
    return r;
}

Request readRequest(unsigned char id, unsigned int offset, unsigned char count) {
    return request(netfn::storage, cmd::readFruData,
                   {id, static_cast<unsigned char>(offset & 0xFF), static_cast<unsigned char>(offset >> 8), count});
}

Request writeRequest(unsigned char id, unsigned int offset, Bytes data) {
    Bytes d{id, static_cast<unsigned char>(offset & 0xFF), static_cast<unsigned char>(offset >> 8)};
    d.insert(d.end(), data.begin(), data.end());
    return request(netfn::storage, cmd::writeFruData, d);
}

Bytes counting(std::size_t size) {
    Bytes b(size);
    std::iota(b.begin(), b.end(), 0);
    return b;
}

unsigned char sum(const Bytes& b, std::size_t from, std::size_t length) {
    unsigned char s = 0;
    for (std::size_t i = from; i < from + length; ++i) s = static_cast<unsigned char>(s + b[i]);
    return s;
}

class Fru : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    SimFru& fru() { return sim->fru(); }
};

}  // namespace

// ---------------------------------------------------------------- device

TEST_F(Fru, ReadAnswersCountAndData) {
    fru().setImage(counting(300));
    EXPECT_THAT(fru().readFruData(readRequest(1, 0x0102, 3)), ElementsAre(0x00, 3, 0x02, 0x03, 0x04));
}

TEST_F(Fru, ReadStartingAtTheEndAnswersParameterOutOfRange) {
    fru().setImage(counting(300));
    EXPECT_THAT(fru().readFruData(readRequest(1, 300, 4)), ElementsAre(qelIpmi::cc::parameterOutOfRange));
}

TEST_F(Fru, ReadRunningPastTheEndAnswersTheBytesThatExist) {
    fru().setImage(counting(300));
    EXPECT_THAT(fru().readFruData(readRequest(1, 298, 8)), ElementsAre(0x00, 2, 298 & 0xFF, 299 & 0xFF));
}

TEST_F(Fru, ReadWithWrongLengthOrDeviceIsRefused) {
    fru().setImage(counting(300));
    EXPECT_THAT(fru().readFruData(request(netfn::storage, cmd::readFruData, {1, 0, 0})),
                ElementsAre(qelIpmi::cc::requestDataLengthInvalid));
    EXPECT_THAT(fru().readFruData(readRequest(7, 0, 4)), ElementsAre(qelIpmi::cc::notPresent));
    fru().setDeviceId(7);
    EXPECT_THAT(fru().readFruData(readRequest(7, 0, 1)), ElementsAre(0x00, 1, 0x00));
}

TEST_F(Fru, WriteStoresDataAndReportsCount) {
    fru().setImage(Bytes(16, 0));
    EXPECT_THAT(fru().writeFruData(writeRequest(1, 4, {9, 8, 7})), ElementsAre(0x00, 3));
    EXPECT_THAT(fru().image(), ElementsAre(0, 0, 0, 0, 9, 8, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(Fru, WriteRunningPastTheEndWritesWhatFits) {
    fru().setImage(Bytes(8, 0));
    EXPECT_THAT(fru().writeFruData(writeRequest(1, 6, {1, 2, 3, 4})), ElementsAre(0x00, 2));
    EXPECT_THAT(fru().image(), ElementsAre(0, 0, 0, 0, 0, 0, 1, 2));
    EXPECT_THAT(fru().writeFruData(writeRequest(1, 8, {1})), ElementsAre(qelIpmi::cc::parameterOutOfRange));
    EXPECT_THAT(fru().writeFruData(request(netfn::storage, cmd::writeFruData, {1, 0})),
                ElementsAre(qelIpmi::cc::requestDataLengthInvalid));
}

TEST_F(Fru, InventoryAreaInfoAnswersSizeAndByteAccess) {
    fru().setImage(Bytes(0x0812, 0));
    EXPECT_THAT(fru().inventoryAreaInfo(request(netfn::storage, cmd::getFruInventoryAreaInfo, {1})),
                ElementsAre(0x00, 0x12, 0x08, 0x00));
    EXPECT_THAT(fru().inventoryAreaInfo(request(netfn::storage, cmd::getFruInventoryAreaInfo, {2})),
                ElementsAre(qelIpmi::cc::notPresent));
}

TEST_F(Fru, LocateWithoutImageAnswersInvalidCommand) {
    EXPECT_THAT(fru().pniLocate(request(netfn::oemPni, cmd::pniLocate, {0xFF, 0xFF})),
                ElementsAre(qelIpmi::cc::invalidCommand));
}

TEST_F(Fru, LocateAnswersDeviceAndCapacity) {
    fru().setImage(Bytes(0x0400, 0));
    fru().setDeviceId(5);
    EXPECT_THAT(fru().pniLocate(request(netfn::oemPni, cmd::pniLocate, {0xFF, 0xFF})),
                ElementsAre(0x00, 5, 0x00, 0x04));
    fru().setLocateCapacity(0x1234);
    EXPECT_THAT(fru().pniLocate(request(netfn::oemPni, cmd::pniLocate, {0xFF, 0xFF})),
                ElementsAre(0x00, 5, 0x34, 0x12));
    fru().setLocateCompletionCode(0xC0);
    EXPECT_THAT(fru().pniLocate(request(netfn::oemPni, cmd::pniLocate, {0xFF, 0xFF})), ElementsAre(0xC0));
}

TEST_F(Fru, LocateChecksItsRequestData) {
    fru().setImage(Bytes(64, 0));
    EXPECT_THAT(fru().pniLocate(request(netfn::oemPni, cmd::pniLocate, {0xFF})),
                ElementsAre(qelIpmi::cc::requestDataLengthInvalid));
    EXPECT_THAT(fru().pniLocate(request(netfn::oemPni, cmd::pniLocate, {0xFF, 0x00})),
                ElementsAre(qelIpmi::cc::invalidDataField));
}

TEST_F(Fru, NthWriteFailsOnceAndWritesNothing) {
    fru().setImage(Bytes(8, 0));
    fru().failWrite(2, 0xC0);
    EXPECT_THAT(fru().writeFruData(writeRequest(1, 0, {1})), ElementsAre(0x00, 1));
    EXPECT_THAT(fru().writeFruData(writeRequest(1, 1, {2})), ElementsAre(0xC0));
    EXPECT_THAT(fru().writeFruData(writeRequest(1, 2, {3})), ElementsAre(0x00, 1));
    EXPECT_THAT(fru().image(), ElementsAre(1, 0, 3, 0, 0, 0, 0, 0));
    EXPECT_EQ(fru().writeCount(), 3);
}

TEST_F(Fru, ReadsTouchingAFailedRangeAnswerTheCode) {
    fru().setImage(counting(64));
    fru().failReads(10, 4, 0xFF);
    EXPECT_THAT(fru().readFruData(readRequest(1, 8, 2)), ElementsAre(0x00, 2, 8, 9));
    EXPECT_THAT(fru().readFruData(readRequest(1, 8, 3)), ElementsAre(0xFF));
    EXPECT_THAT(fru().readFruData(readRequest(1, 13, 1)), ElementsAre(0xFF));
    EXPECT_THAT(fru().readFruData(readRequest(1, 14, 1)), ElementsAre(0x00, 1, 14));
    fru().clearFaults();
    EXPECT_THAT(fru().readFruData(readRequest(1, 10, 1)), ElementsAre(0x00, 1, 10));
}

TEST_F(Fru, CommandsAreRegisteredOnTheController) {
    fru().setImage(counting(32));
    qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    unsigned char data[4] = {1, 4, 0, 2};
    qelIpmi::QelIpmi_request_msg read(netfn::storage, cmd::readFruData, 4, data);
    ASSERT_TRUE(ipmi.sendCmd(read));
    EXPECT_THAT(Bytes(read.responseData, read.responseData + read.responseLength), ElementsAre(0, 2, 4, 5));
    unsigned char locateData[2] = {0xFF, 0xFF};
    qelIpmi::QelIpmi_request_msg locate(netfn::oemPni, cmd::pniLocate, 2, locateData);
    ASSERT_TRUE(ipmi.sendCmd(locate));
    EXPECT_THAT(Bytes(locate.responseData, locate.responseData + locate.responseLength),
                ElementsAre(0, 1, 32, 0));
}

// ---------------------------------------------------------------- builder

TEST(PniBuilder, TypicalImagesOfEveryVersionValidate) {
    for (unsigned char version : {10, 11, 12}) {
        PniImage image = PniImageBuilder::typical(version).build();
        EXPECT_EQ(qelSim::validatePniImage(image.bytes), "") << "version " << int(version);
        EXPECT_EQ(image.bytes.size(), 2048u);
        EXPECT_EQ(image.layout.adapters.size(), 3u);
    }
}

TEST(PniBuilder, CommonHeaderPointsAtAreasBeforeTheInternalUseArea) {
    PniImage image = PniImageBuilder::typical().build();
    const Bytes& b = image.bytes;
    EXPECT_EQ(b[0], 0x01);
    EXPECT_EQ(sum(b, 0, 8), 0);
    EXPECT_EQ(b[1] * 8, image.layout.internalUseArea);
    EXPECT_EQ(b[2] * 8, image.layout.chassisArea);
    EXPECT_EQ(b[3] * 8, image.layout.boardArea);
    EXPECT_EQ(b[4] * 8, image.layout.productArea);
    EXPECT_EQ(b[5], 0);  // no multi-record area
    for (unsigned short area : {image.layout.chassisArea, image.layout.boardArea, image.layout.productArea}) {
        ASSERT_NE(area, 0);
        EXPECT_LT(area, image.layout.internalUseArea);
        EXPECT_EQ(b[area], 0x01);
        EXPECT_EQ(sum(b, area, b[area + 1] * 8u), 0);
    }
}

TEST(PniBuilder, LayoutMatchesTheBytes) {
    PniImage image = PniImageBuilder::typical().build();
    const Bytes& b = image.bytes;
    const auto& l = image.layout;
    EXPECT_EQ(b[l.internalUseArea], 1);
    EXPECT_EQ(b[l.internalUseArea + 1], 1);
    EXPECT_EQ(b[l.internalUseArea + 3], 3);
    EXPECT_EQ(l.recordHeader, l.internalUseArea + 8);
    EXPECT_EQ(b[l.recordHeader], 0xF0);
    EXPECT_EQ(b[l.recordHeader + 1], 12);
    EXPECT_EQ(b[l.recordHeader + 2] | b[l.recordHeader + 3] << 8, l.recordDataLength);
    EXPECT_EQ(l.end, l.recordData + l.recordDataLength);
    EXPECT_EQ(b[l.recordData + 3], 1);
    // adapter 2 is the last entry: its mark is set
    EXPECT_EQ(b[l.adapters[2].offset], 0x82);
    EXPECT_EQ(b[l.adapters[0].offset], 0x00);
    const auto& nic2 = l.function(0, 1, 0);
    EXPECT_TRUE(nic2.nic);
    EXPECT_THAT(nic2.mac, ElementsAre(0x02, 0, 0, 0, 0x0a, 2));
    EXPECT_EQ(b[nic2.specificOffset() + 6 + 5], 2);
    EXPECT_EQ(b[nic2.specificOffset() + 44], 0x12);  // one IPv6, two IPv4
    EXPECT_EQ(b[nic2.specificOffset() + 45], 192);
    EXPECT_EQ(nic2.entryLength % 4, 0);
    EXPECT_EQ(b[nic2.offset + 1] * 4, nic2.entryLength);
    EXPECT_EQ(b[nic2.offset + 14], 0);  // NIC
    EXPECT_FALSE(l.function(0, 0, 1).nic);
    EXPECT_EQ(b[l.function(0, 0, 1).offset + 14], 2);  // FCoE
    // free space behind the record
    for (std::size_t i = l.end; i < b.size(); ++i) ASSERT_EQ(b[i], 0) << i;
}

TEST(PniBuilder, VersionTenStoresTheTypeAsText) {
    PniImage image = PniImageBuilder::typical(10).build();
    const auto& fcoe = image.layout.function(0, 0, 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&image.bytes[fcoe.offset + 14])), "FCoE");
    EXPECT_EQ(fcoe.commonLength, 24);
}

TEST(PniBuilder, ThrowsWhenTheImageDoesNotFit) {
    EXPECT_THROW(PniImageBuilder::typical().fruSize(200).build(), std::length_error);
}

TEST(PniBuilder, PaddingOfANicAreaIsOneToFourBytes) {
    // common 16 + 45 data bytes: 61, padded with 3 to 64
    PniImage image = PniImageBuilder().adapter({0, {{{PniFunctionSpec::nic({1, 2, 3, 4, 5, 6})}}}}).build();
    EXPECT_EQ(image.layout.function(0, 0, 0).entryLength, 64);
    // common 19 + 45 = 64 already: still 4 bytes of padding
    PniFunctionSpec fn = PniFunctionSpec::nic({1, 2, 3, 4, 5, 6});
    fn.commonLength = 19;
    image = PniImageBuilder().adapter({0, {{{fn}}}}).build();
    EXPECT_EQ(image.layout.function(0, 0, 0).entryLength, 68);
}

// ---------------------------------------------------------------- validator

namespace {

struct Damage {
    const char* name;
    std::function<void(Bytes&, const qelSim::PniLayout&)> apply;
    bool reseal;
    const char* expected;
};

}  // namespace

TEST(PniValidator, ReportsTheFirstProblem) {
    const Damage cases[] = {
        {"common header", [](Bytes& b, const auto&) { b[6] ^= 1; }, false, "common header checksum"},
        {"chassis area", [](Bytes& b, const auto& l) { b[l.chassisArea + 4] ^= 1; }, false,
         "chassis area checksum"},
        {"area header", [](Bytes& b, const auto& l) { b[l.internalUseArea + 5] ^= 1; }, false,
         "internal use area header checksum"},
        {"record header", [](Bytes& b, const auto& l) { b[l.recordHeader + 1] ^= 0x10; }, false,
         "record header checksum"},
        {"record data", [](Bytes& b, const auto& l) { b[l.recordData + 1] ^= 1; }, false, "record checksum"},
        {"format", [](Bytes& b, const auto& l) { b[l.recordData + 3] = 2; }, true, "record data format is not 1"},
        {"port index", [](Bytes& b, const auto& l) { b[l.adapters[0].ports[1].offset] = 0x82; }, true,
         "adapter 0 port 1: index is not the position"},
        {"adapter mark", [](Bytes& b, const auto& l) { b[l.adapters[0].offset] |= 0x80; }, true,
         "adapter 0: last-entry mark wrong"},
        {"function length", [](Bytes& b, const auto& l) { b[l.adapters[2].ports[0].functions[1].offset + 1] = 0xFF; },
         true, "adapter 2 port 0 function 1: entry runs past the record end"},
        {"short record", [](Bytes& b, const auto& l) { b[l.recordHeader + 2] += 4; }, true,
         "entries end before the record data does"},
        {"nic counts", [](Bytes& b, const auto& l) { b[l.function(0, 0, 0).specificOffset() + 44] = 0xFF; }, true,
         "adapter 0 port 0 function 0: NIC addresses run past the area"},
    };
    for (const Damage& d : cases) {
        PniImage image = PniImageBuilder::typical().build();
        d.apply(image.bytes, image.layout);
        if (d.reseal) qelSim::resealPniImage(image.bytes);
        EXPECT_EQ(qelSim::validatePniImage(image.bytes), d.expected) << d.name;
    }
}

TEST(PniValidator, ResealMakesADeliberateChangeCountAlone) {
    PniImage image = PniImageBuilder::typical().build();
    image.bytes[image.layout.recordData] = 0x77;  // not interpreted
    EXPECT_EQ(qelSim::validatePniImage(image.bytes), "record checksum");
    qelSim::resealPniImage(image.bytes);
    EXPECT_EQ(qelSim::validatePniImage(image.bytes), "");
}

TEST(PniValidator, ReadsTheLayoutOfAValidImage) {
    PniImage image = PniImageBuilder::typical().build();
    auto layout = qelSim::readPniLayout(image.bytes);
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->end, image.layout.end);
    ASSERT_EQ(layout->adapters.size(), 3u);
    EXPECT_EQ(layout->function(2, 0, 1).offset, image.layout.function(2, 0, 1).offset);
    EXPECT_EQ(layout->function(2, 0, 1).mac, image.layout.function(2, 0, 1).mac);
}

TEST(PniValidator, NeverReadsOutsideACorruptImage) {
    // Every single-byte change of the headers and the record, resealed so
    // that the structure checks are reached; run under ASan.
    const PniImage base = PniImageBuilder::typical().build();
    int accepted = 0, rejected = 0;
    for (std::size_t i = 0; i < base.layout.end; ++i) {
        for (unsigned char value : {0x00, 0x03, 0x7F, 0xFF}) {
            Bytes b = base.bytes;
            b[i] = value;
            qelSim::resealPniImage(b);
            std::string problem;
            const bool valid = qelSim::readPniLayout(b, &problem).has_value();
            EXPECT_EQ(valid, problem.empty());
            ++(valid ? accepted : rejected);
        }
    }
    // Bytes that are not interpreted change nothing; structural ones do.
    EXPECT_GT(accepted, 0);
    EXPECT_GT(rejected, 0);
    // and a truncated image
    Bytes shortImage(base.bytes.begin(), base.bytes.begin() + base.layout.recordData + 10);
    EXPECT_THAT(qelSim::validatePniImage(shortImage), HasSubstr("FRU end"));
}
