// PniAccess against the simulated controller's FRU storage: the FRU
// primitives, the function areas with in-place growth, construction with all
// its checks and error texts, and the publication of addresses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <map>
#include <cstring>
#include <set>
#include <stdexcept>

#include "pniTestSupport.h"

using pniTest::constructionError;
using pniTest::logErr;
using pniTest::macBytes;
using pniTest::offsetOf;
using pniTest::syslogLines;
using pniTest::typicalMac;
using qelIpmi::QelIpmi;
using qelSim::Bytes;
using qelSim::Fault;
using qelSim::Ipv4Bytes;
using qelSim::Ipv6Bytes;
using qelSim::PniAdapterSpec;
using qelSim::PniFunctionSpec;
using qelSim::PniImage;
using qelSim::PniImageBuilder;
using qelSim::PniLayout;
using qelSim::PniPortSpec;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;

class Pni : public pniTest::PniFixture {};

unsigned char sumOf(const Bytes& b, std::size_t from, std::size_t length) {
    unsigned char s = 0;
    for (std::size_t i = from; i < from + length; ++i) s = static_cast<unsigned char>(s + b[i]);
    return s;
}

// The two sums a specific-area write must keep at zero.
void expectChecksumsZero(const Bytes& b, const PniLayout& layout) {
    const unsigned int header = layout.recordHeader;
    EXPECT_EQ(sumOf(b, header, 6), 0) << "record header";
    const unsigned int length = b[header + 2] | b[header + 3] << 8;
    EXPECT_EQ(static_cast<unsigned char>(sumOf(b, header + 6, length) + b[header + 4]), 0) << "record data";
}

IPv6Address ipv6(unsigned char last, unsigned char first = 0x20) {
    unsigned char bytes[16] = {first, 0x01, 0x0d, 0xb8};
    bytes[15] = last;
    return IPv6Address(bytes);
}

Bytes networkBytes(const IPv6Address& a) {
    Bytes b;
    for (int i = 15; i >= 0; --i) b.push_back(a.reversedBytes[i]);
    return b;
}

PniFunctionSpec nicWithIpv4(const qelSim::Mac& mac, int count) {
    PniFunctionSpec fn = PniFunctionSpec::nic(mac);
    for (int i = 0; i < count; ++i) fn.ipv4.push_back(Ipv4Bytes{10, 0, 0, static_cast<unsigned char>(i + 1)});
    return fn;
}

const std::set<std::string>& constructionMessages() {
    static const std::set<std::string> messages = {
        "Read FRU failed ", "Checksum error ", "Invalid unsupported record ", "Memory Error ",
        "Format error "};
    return messages;
}

}  // namespace

// ================================================================ FRU primitives

TEST_F(Pni, ReadOf200BytesIsSentAsFourRequestsOf64_64_64_8) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->clearRequests();
    auto ipmi = this->ipmi();
    unsigned char out[200];
    ASSERT_EQ(pni.readFru(*ipmi, 0x0100, 200, out), PniAccess::resultOk);
    auto reads = fruReads();
    ASSERT_EQ(reads.size(), 4u);
    EXPECT_THAT(reads[0].data, ElementsAre(1, 0x00, 0x01, 64));
    EXPECT_THAT(reads[1].data, ElementsAre(1, 0x40, 0x01, 64));
    EXPECT_THAT(reads[2].data, ElementsAre(1, 0x80, 0x01, 64));
    EXPECT_THAT(reads[3].data, ElementsAre(1, 0xC0, 0x01, 8));
    EXPECT_TRUE(std::equal(out, out + 200, image.bytes.begin() + 0x100));
}

TEST_F(Pni, ReadAnswerShorterThanAskedIsAnIpmiFailure) {
    install(PniImageBuilder::typical().fruSize(1024));
    PniAccess pni;
    auto ipmi = this->ipmi();
    unsigned char out[8];
    std::memset(out, 0xEE, sizeof(out));
    // The device ends 4 bytes in: the controller answers the 4 it has.
    EXPECT_EQ(pni.readFru(*ipmi, 1020, 8, out), PniAccess::resultIpmiFailed);
    // A count byte that promises more than arrived is not believed either.
    sim->injectFault(Fault::rawReply({0x00, 8, 1, 2, 3}).forCommand(netfn::storage, cmd::readFruData));
    EXPECT_EQ(pni.readFru(*ipmi, 0, 8, out), PniAccess::resultIpmiFailed);
    EXPECT_THAT(Bytes(out, out + 8), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(Pni, ReadWithErrorCodeOrWithoutAnswerFails) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    unsigned char out[4];
    sim->injectFault(Fault::completionCode(0xC0).forCommand(netfn::storage, cmd::readFruData));
    EXPECT_EQ(pni.readFru(*ipmi, 0, 4, out), PniAccess::resultIpmiFailed);
    sim->injectFault(Fault::noReply().forCommand(netfn::storage, cmd::readFruData));
    EXPECT_EQ(pni.readFru(*ipmi, 0, 4, out), PniAccess::resultIpmiFailed);
    sim->injectFault(Fault::emptyReply().forCommand(netfn::storage, cmd::readFruData));
    EXPECT_EQ(pni.readFru(*ipmi, 0, 4, out), PniAccess::resultIpmiFailed);
    EXPECT_EQ(pni.readFru(*ipmi, 0, 4, out), PniAccess::resultOk);
}

TEST_F(Pni, WriteIsSentInChunksOf64WithDeviceIdAndOffset) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->clearRequests();
    auto ipmi = this->ipmi();
    Bytes data(100);
    for (int i = 0; i < 100; ++i) data[i] = static_cast<unsigned char>(i + 1);
    ASSERT_EQ(pni.writeFru(*ipmi, 0x0700, 100, data.data()), PniAccess::resultOk);
    auto writes = fruWrites();
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].data.size(), 67u);
    EXPECT_THAT(Bytes(writes[0].data.begin(), writes[0].data.begin() + 4), ElementsAre(1, 0x00, 0x07, 1));
    EXPECT_EQ(writes[1].data.size(), 39u);
    EXPECT_THAT(Bytes(writes[1].data.begin(), writes[1].data.begin() + 4), ElementsAre(1, 0x40, 0x07, 65));
    Bytes now = fru();
    EXPECT_TRUE(std::equal(data.begin(), data.end(), now.begin() + 0x700));
}

TEST_F(Pni, FailedWriteKeepsTheChunksBeforeIt) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    Bytes data(100, 0x5A);
    sim->fru().failWrite(2, 0xC0);
    EXPECT_EQ(pni.writeFru(*ipmi, 0x0700, 100, data.data()), PniAccess::resultIpmiFailed);
    Bytes now = fru();
    EXPECT_EQ(now[0x700], 0x5A);
    EXPECT_EQ(now[0x73F], 0x5A);
    EXPECT_EQ(now[0x740], 0x00);
}

TEST_F(Pni, MoveReadsTheWholeBlockBeforeWriting) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    Bytes start = fru();
    for (int i = 0; i < 100; ++i) start[0x600 + i] = static_cast<unsigned char>(i + 1);
    installBytes(start);
    ASSERT_EQ(pni.moveFru(*ipmi, 0x608, 0x600, 100), PniAccess::resultOk);  // up, overlapping
    Bytes up = fru();
    for (int i = 0; i < 100; ++i) ASSERT_EQ(up[0x608 + i], i + 1) << i;
    ASSERT_EQ(pni.moveFru(*ipmi, 0x5F0, 0x608, 100), PniAccess::resultOk);  // down, overlapping
    Bytes down = fru();
    for (int i = 0; i < 100; ++i) ASSERT_EQ(down[0x5F0 + i], i + 1) << i;
    sim->clearRequests();
    EXPECT_EQ(pni.moveFru(*ipmi, 0x10, 0x20, 0), PniAccess::resultOk);
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(Pni, MoveReportsAFailedRead) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    sim->fru().failReads(0x600, 1, 0xFF);
    sim->clearRequests();
    EXPECT_EQ(pni.moveFru(*ipmi, 0x700, 0x600, 8), PniAccess::resultIpmiFailed);
    EXPECT_TRUE(fruWrites().empty());
}

// ================================================================ function areas

TEST_F(Pni, CommonAreaTransfersAtMost39Bytes) {
    PniFunctionSpec wide = PniFunctionSpec::ofType(qelSim::pniFc);
    wide.commonLength = 48;
    install(PniImageBuilder().adapter({0, {{{PniFunctionSpec::nic({1, 2, 3, 4, 5, 6}), wide}}}}));
    PniAccess pni;
    auto ipmi = this->ipmi();
    sim->clearRequests();
    PniPortfnCommon common = {};
    ASSERT_EQ(pni.readPortFnCommonArea(*ipmi, 0, 0, 1, &common), PniAccess::resultOk);
    ASSERT_EQ(pni.readPortFnCommonArea(*ipmi, 0, 0, 0, &common), PniAccess::resultOk);
    auto reads = fruReads();
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[0].data[3], 39);
    EXPECT_EQ(offsetOf(reads[0]), fn(0, 0, 1).offset);
    EXPECT_EQ(reads[1].data[3], 16);
    EXPECT_EQ(common.bytes[2], 16);
    common.bytes[5] = 0x99;
    ASSERT_EQ(pni.writePortFnCommonArea(*ipmi, 0, 0, 0, &common), PniAccess::resultOk);
    EXPECT_EQ(fruWrites().back().data.size(), 3u + 16u);
    EXPECT_EQ(fru()[fn(0, 0, 0).offset + 5], 0x99);
}

TEST_F(Pni, SpecificAreaReadTakesTheSmallerOfAreaAndLength) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    sim->clearRequests();
    unsigned char out[345];
    ASSERT_EQ(pni.readPortFnSpecificArea(*ipmi, 0, 0, 1, 345, out), PniAccess::resultOk);
    ASSERT_EQ(pni.readPortFnSpecificArea(*ipmi, 0, 0, 1, 6, out), PniAccess::resultOk);
    auto reads = fruReads();
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(offsetOf(reads[0]), fn(0, 0, 1).specificOffset());
    EXPECT_EQ(reads[0].data[3], fn(0, 0, 1).specificLength());
    EXPECT_EQ(reads[1].data[3], 6);
}

TEST_F(Pni, AreasOfAFunctionThatDoesNotExistAreRefused) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    sim->clearRequests();
    PniPortfnCommon common = {};
    unsigned char area[8] = {};
    EXPECT_EQ(pni.readPortFnCommonArea(*ipmi, 0, 0, 2, &common), PniAccess::resultNoRoom);
    EXPECT_EQ(pni.readPortFnCommonArea(*ipmi, 3, 0, 0, &common), PniAccess::resultNoRoom);
    EXPECT_EQ(pni.readPortFnSpecificArea(*ipmi, 0, 2, 0, 8, area), PniAccess::resultNoRoom);
    EXPECT_EQ(pni.writePortFnSpecificArea(*ipmi, 200, 200, 200, 8, area), PniAccess::resultNoRoom);
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 9, 0, 0), "Unknown");
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(Pni, GrowingASpecificAreaBySixReturns4AndChangesNothing) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    sim->clearRequests();
    const int current = fn(0, 0, 1).specificLength();
    Bytes data(current + 6, 0x11);
    EXPECT_EQ(pni.writePortFnSpecificArea(*ipmi, 0, 0, 1, current + 6, data.data()), PniAccess::resultNoRoom);
    EXPECT_EQ(fru(), image.bytes);
    EXPECT_TRUE(fruWrites().empty());
    EXPECT_EQ(pni.endOffset(), image.layout.end);
    EXPECT_EQ(pni.adapterInfo(0).port[0].function[1].entryLength, fn(0, 0, 1).entryLength);
}

TEST_F(Pni, GrowingByEightWithOnlyFourFreeBytesReturns4) {
    const unsigned short end = PniImageBuilder::typical().build().layout.end;
    install(PniImageBuilder::typical().fruSize(end + 4u));
    PniAccess pni;
    ASSERT_EQ(pni.fruCapacity(), end + 4);
    auto ipmi = this->ipmi();
    sim->clearRequests();
    const int current = fn(0, 0, 1).specificLength();
    Bytes data(current + 8, 0x11);
    EXPECT_EQ(pni.writePortFnSpecificArea(*ipmi, 0, 0, 1, current + 8, data.data()), PniAccess::resultNoRoom);
    EXPECT_EQ(fru(), image.bytes);
    EXPECT_TRUE(fruWrites().empty());
    // The 4 bytes that are there can be used.
    EXPECT_EQ(pni.writePortFnSpecificArea(*ipmi, 0, 0, 1, current + 4, data.data()), PniAccess::resultOk);
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(pni.endOffset(), end + 4);
}

TEST_F(Pni, SpecificAreaWritesKeepHeaderAndRecordSumsZero) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    const int current = fn(1, 0, 0).specificLength();  // the FC function
    Bytes data(current + 8);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(0x37 * i + 5);
    for (int length : {current, current - 8, current + 8}) {
        SCOPED_TRACE(length);
        ASSERT_EQ(pni.writePortFnSpecificArea(*ipmi, 1, 0, 0, length, data.data()), PniAccess::resultOk);
        expectChecksumsZero(fru(), image.layout);
        EXPECT_EQ(problem(), "");
        std::reverse(data.begin(), data.end());
    }
}

TEST_F(Pni, AShorterWriteRewritesOnlyItsBytes) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    const auto& fc = fn(1, 0, 0);
    Bytes data(8, 0x42);
    ASSERT_EQ(pni.writePortFnSpecificArea(*ipmi, 1, 0, 0, 8, data.data()), PniAccess::resultOk);
    Bytes now = fru();
    EXPECT_EQ(now[fc.specificOffset() + 7], 0x42);
    EXPECT_EQ(now[fc.specificOffset() + 8], image.bytes[fc.specificOffset() + 8]);
    EXPECT_EQ(pni.adapterInfo(1).port[0].function[0].entryLength, fc.entryLength);
    EXPECT_EQ(pni.endOffset(), image.layout.end);
}

TEST(PniStatic, TechTypeTextsAreMatchedExactly) {
    char nic[] = "NIC", fc[] = "FC", fcoe[] = "FCoE", iscsi[] = "iSCSI", ib[] = "IB";
    EXPECT_EQ(PniAccess::techTypeStringToEnum(nic), 0);
    EXPECT_EQ(PniAccess::techTypeStringToEnum(fc), 1);
    EXPECT_EQ(PniAccess::techTypeStringToEnum(fcoe), 2);
    EXPECT_EQ(PniAccess::techTypeStringToEnum(iscsi), 3);
    EXPECT_EQ(PniAccess::techTypeStringToEnum(ib), 4);
    char lower[] = "fcoe", empty[] = "", longer[] = "NIC ";
    EXPECT_EQ(PniAccess::techTypeStringToEnum(lower), 0xFF);
    EXPECT_EQ(PniAccess::techTypeStringToEnum(empty), 0xFF);
    EXPECT_EQ(PniAccess::techTypeStringToEnum(longer), 0xFF);
}

TEST(PniStatic, SumWrapsAndZeroChecksumTakesTheInitialValue) {
    unsigned char data[] = {0x01, 0x02, 0xFF};
    EXPECT_EQ(PniAccess::sum(data, 3), 0x02);
    EXPECT_EQ(PniAccess::sum(data, 0), 0x00);
    EXPECT_TRUE(PniAccess::validateZeroChecksum(data, 3, 0xFE));
    EXPECT_FALSE(PniAccess::validateZeroChecksum(data, 3, 0x00));
    unsigned char zero[] = {0x10, 0xF0};
    EXPECT_TRUE(PniAccess::validateZeroChecksum(zero, 2, 0));
}

TEST_F(Pni, FunctionTypeOfVersion11WithTypeByte5IsUnknown) {
    install(PniImageBuilder().version(11).adapter(
        {0, {{{PniFunctionSpec::nic({1, 2, 3, 4, 5, 6}), PniFunctionSpec::ofType(5)}}}}));
    PniAccess pni;
    auto ipmi = this->ipmi();
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 0, 0, 1), "Unknown");
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 0, 0, 0), "NIC");
    EXPECT_EQ(pni.adapterInfo(0).port[0].function[1].type, 0xFFu);
}

TEST_F(Pni, FunctionTypesOfVersion12AreTheTableTexts) {
    install(PniImageBuilder::typical(12));
    PniAccess pni;
    auto ipmi = this->ipmi();
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 0, 0, 0), "NIC");
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 0, 0, 1), "FCoE");
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 0, 1, 1), "iSCSI");
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 1, 0, 0), "FC");
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 2, 0, 0), "IB");
}

TEST_F(Pni, FunctionTypeOfVersion10IsTheStoredText) {
    PniFunctionSpec odd = PniFunctionSpec::ofType(9);
    odd.typeText = "RoCE";
    install(PniImageBuilder::typical(10).adapter({3, {{{odd}}}}));
    PniAccess pni;
    auto ipmi = this->ipmi();
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 0, 0, 1), "FCoE");
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 3, 0, 0), "RoCE");
    EXPECT_EQ(pni.adapterInfo(0).port[0].function[1].type, 2u);
    EXPECT_EQ(pni.adapterInfo(3).port[0].function[0].type, 0xFFu);
}

TEST_F(Pni, FunctionTypeIsUnknownWhenTheCommonAreaCannotBeRead) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    sim->fru().failReads(fn(0, 0, 0).offset, 1, 0xFF);
    EXPECT_EQ(pni.getPortFunctionType(*ipmi, 0, 0, 0), "Unknown");
}

// ================================================================ construction

TEST_F(Pni, ConstructionLocatesAndParsesTheRecord) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto locates = sim->requests(netfn::oemPni, cmd::pniLocate);
    ASSERT_EQ(locates.size(), 1u);
    EXPECT_THAT(locates[0].data, ElementsAre(0xFF, 0xFF));
    EXPECT_EQ(locates[0].addrType, 0x0C);
    EXPECT_EQ(locates[0].lun, 0);
    EXPECT_EQ(pni.fruDeviceId(), 1);
    EXPECT_EQ(pni.fruCapacity(), 2048);
    EXPECT_EQ(pni.statusFlags(), 0x03);
    EXPECT_EQ(pni.recordVersion(), 12);
    EXPECT_EQ(pni.recordHeaderOffset(), image.layout.recordHeader);
    EXPECT_EQ(pni.recordDataOffset(), image.layout.recordData);
    EXPECT_EQ(pni.endOffset(), image.layout.end);
    ASSERT_EQ(pni.numberOfAdapters(), 3);
    const unsigned int types[3][2][2] = {{{0, 2}, {0, 3}}, {{1, 0}, {}}, {{4, 0}, {}}};
    for (int a = 0; a < 3; ++a) {
        const auto& la = image.layout.adapters[a];
        const PniAdapterInfo& info = pni.adapterInfo(a);
        EXPECT_EQ(info.index, a);
        EXPECT_EQ(info.fruOffset, la.offset);
        EXPECT_EQ(info.entryLength, 8);
        ASSERT_EQ(info.numberOfPorts, la.ports.size());
        for (std::size_t p = 0; p < la.ports.size(); ++p) {
            EXPECT_EQ(info.port[p].fruOffset, la.ports[p].offset);
            EXPECT_EQ(info.port[p].entryLength, 4);
            ASSERT_EQ(info.port[p].numberOfFunctions, la.ports[p].functions.size());
            for (std::size_t f = 0; f < la.ports[p].functions.size(); ++f) {
                const PniPortFnInfo& fi = info.port[p].function[f];
                EXPECT_EQ(fi.fruOffset, la.ports[p].functions[f].offset);
                EXPECT_EQ(fi.entryLength, la.ports[p].functions[f].entryLength);
                EXPECT_EQ(fi.commonLength, 16);
                EXPECT_EQ(fi.type, types[a][p][f]) << a << p << f;
            }
        }
    }
}

TEST_F(Pni, LocateErrorIsReportedWithItsCodeAndWrappedTwice) {
    install(PniImageBuilder::typical());
    sim->fru().setLocateCompletionCode(0xC0);
    try {
        PniAccess pni;
        FAIL() << "no error";
    } catch (const PniAccessError& e) {
        EXPECT_EQ(pniTest::wrappedMessage(e), "IPMI access has failed. (Return code: c0) ");
        EXPECT_EQ(e.fileName, "PniAccess");
        EXPECT_EQ(e.lineNumber, 640u);
        EXPECT_THAT(e.errorText, testing::MatchesRegex(
                                     "Error: Error: IPMI access has failed\\. \\(Return code: c0\\) "
                                     "\\(PniAccess, [0-9]+\\)\n\\(PniAccess, 640\\)\n"));
        const std::exception& asStd = e;
        EXPECT_STREQ(asStd.what(), "");
    }
}

TEST_F(Pni, LocateThatIsAnUnknownCommandBecomesRuntimeError) {
    install(PniImageBuilder::typical());
    sim->fru().setLocateCompletionCode(0xC1);
    try {
        PniAccess pni;
        FAIL() << "no error";
    } catch (const PniAccessError& e) {
        FAIL() << "PniAccessError " << e.errorText;
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "IPMI access has failed.");
    }
    // A controller without a PNI FRU answers the same by default.
    sim->fru().setImage({});
    sim->fru().setLocateCompletionCode(std::nullopt);
    EXPECT_THROW(PniAccess(), std::runtime_error);
}

TEST_F(Pni, LocateWithoutAnswerReportsUnspecified) {
    install(PniImageBuilder::typical());
    sim->injectFault(Fault::noReply().forCommand(netfn::oemPni, cmd::pniLocate));
    EXPECT_EQ(constructionError(), "IPMI access has failed. (Return code: ff) ");
    sim->injectFault(Fault::rawReply({0x00, 0x01}).forCommand(netfn::oemPni, cmd::pniLocate));
    EXPECT_EQ(constructionError(), "IPMI access has failed. (Return code: ff) ");
}

TEST_F(Pni, ReadFailureAtEveryStepIsReadFruFailed) {
    const PniImage built = PniImageBuilder::typical().build();
    const auto& l = built.layout;
    const std::pair<unsigned short, unsigned short> ranges[] = {
        {0, 8}, {l.internalUseArea, 8}, {l.recordHeader, 6}, {l.recordData, l.recordDataLength}};
    for (const auto& range : ranges) {
        install(built);
        sim->fru().clearFaults();
        sim->fru().failReads(range.first, range.second, 0xC0);
        EXPECT_EQ(constructionError(), "Read FRU failed ") << range.first;
    }
}

TEST_F(Pni, ChecksumFailureAtEveryStepIsChecksumError) {
    const PniImage built = PniImageBuilder::typical().build();
    const auto& l = built.layout;
    for (unsigned int at : {5u, l.internalUseArea + 5u, l.recordHeader + 4u, l.recordData + 0u}) {
        Bytes b = built.bytes;
        b[at] ^= 0x01;
        installBytes(b);
        EXPECT_EQ(constructionError(), "Checksum error ") << at;
    }
}

TEST_F(Pni, UnsupportedHeadersAreInvalidUnsupportedRecord) {
    const PniImage built = PniImageBuilder::typical().build();
    const auto& l = built.layout;
    const std::pair<unsigned int, unsigned char> changes[] = {
        {l.internalUseArea + 0u, 2}, {l.internalUseArea + 1u, 0}, {l.recordHeader + 0u, 0xF1},
        {l.recordHeader + 1u, 9},    {l.recordHeader + 1u, 13}};
    for (const auto& change : changes) {
        Bytes b = built.bytes;
        b[change.first] = change.second;
        qelSim::resealPniImage(b);
        installBytes(b);
        EXPECT_EQ(constructionError(), "Invalid unsupported record ") << change.first;
    }
    // Only the low nibble is the version.
    Bytes b = built.bytes;
    b[l.recordHeader + 1] = 0x8C;
    qelSim::resealPniImage(b);
    installBytes(b);
    EXPECT_EQ(constructionError(), "");
}

TEST_F(Pni, SecondPortEntryWithIndex2IsFormatError) {
    install(PniImageBuilder::typical());
    Bytes b = image.bytes;
    const unsigned int port1 = image.layout.adapters[0].ports[1].offset;
    ASSERT_EQ(b[port1], 0x81);
    b[port1] = 0x82;
    qelSim::resealPniImage(b);
    installBytes(b);
    EXPECT_EQ(constructionError(), "Format error ");
}

TEST_F(Pni, BrokenStructureIsFormatError) {
    const PniImage built = PniImageBuilder::typical().build();
    const auto& l = built.layout;
    const unsigned int a0 = l.adapters[0].offset, a2 = l.adapters[2].offset;
    const unsigned int p10 = l.adapters[1].ports[0].offset;
    const unsigned int f000 = l.function(0, 0, 0).offset, f201 = l.function(2, 0, 1).offset;
    const struct {
        const char* name;
        unsigned int at;
        unsigned char value;
    } changes[] = {
        {"record format", l.recordData + 3u, 2},
        {"mark on a middle adapter", a0, 0x80},
        {"no mark on the last adapter", a2, 0x02},
        {"no mark on the last function", f201, 0x01},
        {"function index", f000, 0x01},
        {"adapter length past the record end", a2 + 1, 0xFF},
        {"port length past the record end", p10 + 1, 0xFF},
        {"function length past the record end", f201 + 1, 0xFF},
        {"adapter length zero", a0 + 1, 0},
        {"port length zero", p10 + 1, 0},
        {"function length zero", f000 + 1, 0},
        {"common area longer than the entry", f000 + 2, 0xFF},
        {"common area without the type byte", f000 + 2, 14},
        {"more ports than the record holds", a2 + 2, 0xFF},
        {"more functions than the record holds", p10 + 2, 0xFF},
    };
    for (const auto& change : changes) {
        Bytes b = built.bytes;
        b[change.at] = change.value;
        qelSim::resealPniImage(b);
        installBytes(b);
        EXPECT_EQ(constructionError(), "Format error ") << change.name;
    }
}

TEST_F(Pni, RecordTooShortForItsFormatByteIsFormatError) {
    Bytes b = PniImageBuilder::typical().build().bytes;
    const auto& l = PniImageBuilder::typical().build().layout;
    for (unsigned char length : {0, 3}) {
        Bytes c = b;
        c[l.recordHeader + 2] = length;
        c[l.recordHeader + 3] = 0;
        qelSim::resealPniImage(c);
        installBytes(c);
        EXPECT_EQ(constructionError(), "Format error ") << int(length);
    }
}

TEST_F(Pni, RecordAnnouncingTenAdaptersIsWalkedForEight) {
    PniImageBuilder builder;
    for (unsigned char a = 0; a < 10; ++a)
        builder.adapter({a, {{{PniFunctionSpec::nic({0x02, 0, 0, 0, 0x0c, a})}}}});
    install(builder);
    // Adapters 9 and 10 are never looked at: even a header that would be
    // rejected is not.
    Bytes b = image.bytes;
    b[image.layout.adapters[8].offset + 1] = 0;
    qelSim::resealPniImage(b);
    installBytes(b);
    PniAccess pni;
    EXPECT_EQ(pni.numberOfAdapters(), 10);
    EXPECT_EQ(pni.getNumberOfMacAddresses(), 8);
    EXPECT_EQ(pni.adapterInfo(7).fruOffset, image.layout.adapters[7].offset);
    EXPECT_EQ(pni.endOffset(), image.layout.adapters[8].offset);
    EXPECT_THAT(macBytes(pni.getMacAddress(7)), ElementsAre(0x02, 0, 0, 0, 0x0c, 7));
    EXPECT_THAT(macBytes(pni.getMacAddress(8)), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(Pni, PortsAndFunctionsBeyondSixteenAreCheckedButNotStored) {
    PniPortSpec wide;
    for (int f = 0; f < 18; ++f) wide.functions.push_back(PniFunctionSpec::ofType(qelSim::pniFc));
    PniAdapterSpec adapter{0, {}};
    for (int p = 0; p < 17; ++p) adapter.ports.push_back({{PniFunctionSpec::ofType(qelSim::pniIb)}});
    adapter.ports.push_back(wide);  // port 17
    adapter.ports[3] = wide;
    install(PniImageBuilder().fruSize(4096).adapter(adapter));
    {
        PniAccess pni;
        EXPECT_EQ(pni.adapterInfo(0).numberOfPorts, 18);
        EXPECT_EQ(pni.adapterInfo(0).port[3].numberOfFunctions, 18);
        EXPECT_EQ(pni.adapterInfo(0).port[3].function[15].fruOffset, fn(0, 3, 15).offset);
        EXPECT_EQ(pni.adapterInfo(0).port[15].fruOffset, image.layout.adapters[0].ports[15].offset);
        EXPECT_EQ(pni.endOffset(), image.layout.end);
    }
    // The skipped ones are still checked.
    for (unsigned int at : {unsigned(fn(0, 3, 16).offset), unsigned(fn(0, 17, 17).offset),
                            unsigned(image.layout.adapters[0].ports[16].offset)}) {
        Bytes b = image.bytes;
        b[at] ^= 0x01;  // index no longer the position
        qelSim::resealPniImage(b);
        installBytes(b);
        EXPECT_EQ(constructionError(), "Format error ") << at;
    }
}

TEST_F(Pni, IpmiFailureDuringConstructionIsLoggedAndLeavesAnUnusableObject) {
    install(PniImageBuilder::typical());
    sim->setAllPathsMissing(true);
    PniAccess pni;
    ASSERT_EQ(syslogLines().size(), 2u);
    EXPECT_EQ(syslogLines()[0].priority, logErr);
    EXPECT_EQ(syslogLines()[0].text, "IPMI access has failed.");
    EXPECT_EQ(syslogLines()[1].priority, logErr);
    EXPECT_THAT(syslogLines()[1].text, StartsWith("Error: Open failed: "));
    EXPECT_EQ(pni.statusFlags() & PniAccess::statusTableValid, 0);
    sim->setAllPathsMissing(false);
    sim->clearRequests();
    EXPECT_EQ(pni.getNumberOfMacAddresses(), 0);
    EXPECT_THAT(macBytes(pni.getMacAddress(0)), ElementsAre(0, 0, 0, 0, 0, 0));
    EXPECT_FALSE(pni.setIpv4Address(typicalMac(1), IPv4Address("10.1.1.1")));
    EXPECT_FALSE(pni.setIpv6Address(typicalMac(1), {ipv6(1)}));
    EXPECT_FALSE(pni.clearIpAddressData());
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(Pni, IpmiFailureWhileReadingTheRecordIsLoggedToo) {
    install(PniImageBuilder::typical());
    sim->injectFault(Fault::wrongRecvType(4).forCommand(netfn::storage, cmd::readFruData));
    PniAccess pni;
    ASSERT_EQ(syslogLines().size(), 2u);
    EXPECT_EQ(syslogLines()[0].text, "IPMI access has failed.");
    EXPECT_THAT(syslogLines()[1].text, HasSubstr("eply message has wrong type: "));
    EXPECT_EQ(pni.statusFlags(), 0);
    EXPECT_EQ(pni.getNumberOfMacAddresses(), 0);
}

TEST_F(Pni, FruDeviceIdZeroMakesEveryOperationGiveItsZeroResult) {
    install(PniImageBuilder::typical());
    sim->fru().setDeviceId(0);
    PniAccess pni;
    EXPECT_EQ(pni.fruDeviceId(), 0);
    EXPECT_EQ(pni.statusFlags(), 0x03);
    sim->clearRequests();
    EXPECT_EQ(pni.getNumberOfMacAddresses(), 0);
    EXPECT_THAT(macBytes(pni.getMacAddress(0)), ElementsAre(0, 0, 0, 0, 0, 0));
    EXPECT_FALSE(pni.setIpv4Address(typicalMac(1), IPv4Address("10.1.1.1")));
    EXPECT_FALSE(pni.clearIpAddressData());
    EXPECT_EQ(sim->requestCount(), 0u);
}

// ================================================================ publication

TEST_F(Pni, NumberOfMacAddressesCountsNicFunctions) {
    for (unsigned char version : {10, 11, 12}) {
        install(PniImageBuilder::typical(version));
        PniAccess pni;
        EXPECT_EQ(pni.getNumberOfMacAddresses(), 4) << int(version);
    }
}

TEST_F(Pni, MacAddressesComeInTableOrder) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    for (unsigned char n = 0; n < 4; ++n)
        EXPECT_THAT(macBytes(pni.getMacAddress(n)), ElementsAreArray(macBytes(typicalMac(n + 1))));
    EXPECT_THAT(macBytes(pni.getMacAddress(4)), ElementsAre(0, 0, 0, 0, 0, 0));
    EXPECT_THAT(macBytes(pni.getMacAddress(-1)), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(Pni, AnUnreadableAreaIsNotCountedSoTheLaterMacsMoveUp) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->fru().failReads(fn(0, 1, 0).specificOffset(), 1, 0xFF);  // the second NIC
    EXPECT_THAT(macBytes(pni.getMacAddress(0)), ElementsAreArray(macBytes(typicalMac(1))));
    EXPECT_THAT(macBytes(pni.getMacAddress(1)), ElementsAreArray(macBytes(typicalMac(3))));
    EXPECT_THAT(macBytes(pni.getMacAddress(2)), ElementsAreArray(macBytes(typicalMac(4))));
    EXPECT_THAT(macBytes(pni.getMacAddress(3)), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(Pni, PublicationConsidersOnlyFunctionsWhoseCommonAreaStillSaysNic) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    // The controller changed the first NIC's type after we parsed it.
    Bytes b = fru();
    b[fn(0, 0, 0).offset + 14] = 1;
    installBytes(b);
    sim->clearRequests();
    EXPECT_THAT(macBytes(pni.getMacAddress(0)), ElementsAreArray(macBytes(typicalMac(1))));
    EXPECT_FALSE(pni.setIpv4Address(typicalMac(1), IPv4Address("10.1.1.1")));
    EXPECT_TRUE(fruWrites().empty());
}

TEST_F(Pni, SettingTheFirstStoredIpv4AddressWritesNothing) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->clearRequests();
    EXPECT_TRUE(pni.setIpv4Address(typicalMac(2), IPv4Address("192.0.2.10")));
    EXPECT_TRUE(fruWrites().empty());
    EXPECT_EQ(fru(), image.bytes);
}

TEST_F(Pni, OnlyTheFirstStoredIpv4AddressIsCompared) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->clearRequests();
    EXPECT_TRUE(pni.setIpv4Address(typicalMac(2), IPv4Address("192.0.2.11")));
    EXPECT_FALSE(fruWrites().empty());
    EXPECT_EQ(problem(), "");
}

TEST_F(Pni, SetIpv4ReplacesTheListAndPutsTheIpv6BytesBackFromByte46) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    const auto& nic2 = fn(0, 1, 0);  // 2 IPv4, 1 IPv6: 45 + 8 + 16 + 3 = 72 bytes
    ASSERT_EQ(nic2.specificLength(), 72);
    sim->clearRequests();
    ASSERT_TRUE(pni.setIpv4Address(typicalMac(2), IPv4Address("198.51.100.7")));
    const Bytes before = specificArea(image.bytes, nic2);
    const Bytes after = specificArea(fru(), nic2);
    // Bytes 0-43 as they were.
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + 44, after.begin()));
    EXPECT_EQ(after[44], 0x11);
    EXPECT_EQ(after[45], 198);
    // The 16 bytes saved from byte 45 + 2 (the IPv4 count taken as bytes) come
    // back from byte 46: the rest of the old IPv4 list and most of the IPv6
    // address.
    EXPECT_THAT(Bytes(after.begin() + 46, after.begin() + 62),
                ElementsAre(2, 10, 192, 0, 2, 11, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0));
    // Data length 49 + 16 = 65, padded with 3 zero bytes: 68 bytes written;
    // the area is not shrunk, bytes 68-71 stay.
    EXPECT_THAT(Bytes(after.begin() + 62, after.begin() + 68), ElementsAre(0, 0, 0, 0, 0, 0));
    EXPECT_EQ(bytesWrittenWithin(nic2.specificOffset(), nic2.specificOffset() + 72), 68u);
    EXPECT_TRUE(std::equal(before.begin() + 68, before.end(), after.begin() + 68));
    EXPECT_EQ(problem(), "");
}

TEST_F(Pni, SetIpv4MatchesTheOtherMacToo) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    ASSERT_TRUE(pni.setIpv4Address(typicalMac(3, 0x0b), IPv4Address("203.0.113.5")));
    // 49 data bytes and 3 of padding: the area grew from 48 to 52.
    auto layout = qelSim::readPniLayout(fru());
    ASSERT_TRUE(layout);
    ASSERT_EQ(layout->function(1, 0, 1).specificLength(), 52);
    const Bytes after = specificArea(fru(), layout->function(1, 0, 1));
    EXPECT_EQ(after[44], 0x01);
    EXPECT_THAT(Bytes(after.begin() + 45, after.begin() + 49), ElementsAre(203, 0, 113, 5));
    EXPECT_EQ(problem(), "");
}

TEST_F(Pni, SetIpv4GrowsAnAreaWithoutAddressesAndMovesWhatFollows) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    ASSERT_EQ(fn(0, 0, 0).specificLength(), 48);
    ASSERT_TRUE(pni.setIpv4Address(typicalMac(1), IPv4Address("203.0.113.9")));
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(pni.endOffset(), image.layout.end + 4);
    PniAccess fresh;
    for (unsigned char n = 0; n < 4; ++n)
        EXPECT_THAT(macBytes(fresh.getMacAddress(n)), ElementsAreArray(macBytes(typicalMac(n + 1))));
    EXPECT_TRUE(fresh.setIpv4Address(typicalMac(1), IPv4Address("203.0.113.9")));
}

TEST_F(Pni, SetIpv4WithFifteenStoredAddressesWritesNothing) {
    install(PniImageBuilder().adapter({0, {{{nicWithIpv4({1, 2, 3, 4, 5, 6}, 15)}}}}));
    PniAccess pni;
    sim->clearRequests();
    EXPECT_TRUE(pni.setIpv4Address(pniTest::macOf({1, 2, 3, 4, 5, 6}), IPv4Address("10.9.9.9")));
    EXPECT_TRUE(fruWrites().empty());
}

TEST_F(Pni, SetIpv4ForAnUnknownMacIsFalse) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->clearRequests();
    EXPECT_FALSE(pni.setIpv4Address(typicalMac(9), IPv4Address("10.9.9.9")));
    EXPECT_TRUE(fruWrites().empty());
}

TEST_F(Pni, SetIpv6With3AddressesAfter2Ipv4WritesAt53_69_85) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    const auto& nic2 = fn(0, 1, 0);
    sim->clearRequests();
    const std::list<IPv6Address> addresses = {ipv6(1), ipv6(2), ipv6(3)};
    ASSERT_TRUE(pni.setIpv6Address(typicalMac(2), addresses));
    const Bytes now = fru();
    const unsigned int area = nic2.specificOffset();
    EXPECT_EQ(now[area + 44], 0x32);
    EXPECT_THAT(Bytes(now.begin() + area + 45, now.begin() + area + 53), ElementsAre(192, 0, 2, 10, 192, 0, 2, 11));
    EXPECT_THAT(Bytes(now.begin() + area + 53, now.begin() + area + 69), ElementsAreArray(networkBytes(ipv6(1))));
    EXPECT_THAT(Bytes(now.begin() + area + 69, now.begin() + area + 85), ElementsAreArray(networkBytes(ipv6(2))));
    EXPECT_THAT(Bytes(now.begin() + area + 85, now.begin() + area + 101), ElementsAreArray(networkBytes(ipv6(3))));
    // Data length 101, common area 16: 3 bytes of padding, 104 bytes written;
    // the area grew from 72 to 104.
    EXPECT_THAT(Bytes(now.begin() + area + 101, now.begin() + area + 104), ElementsAre(0, 0, 0));
    EXPECT_EQ(bytesWrittenWithin(area, area + 104), 104u);
    EXPECT_EQ(pni.adapterInfo(0).port[1].function[0].entryLength, nic2.entryLength + 32);
    EXPECT_EQ(problem(), "");
    expectChecksumsZero(now, image.layout);
}

TEST_F(Pni, SetIpv6MatchesOnlyTheReportedMac) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->clearRequests();
    EXPECT_FALSE(pni.setIpv6Address(typicalMac(2, 0x0b), {ipv6(1)}));
    EXPECT_TRUE(fruWrites().empty());
}

TEST_F(Pni, SetIpv6CutsTheListAtFifteen) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    std::list<IPv6Address> addresses;
    for (unsigned char i = 1; i <= 17; ++i) addresses.push_back(ipv6(i));
    ASSERT_TRUE(pni.setIpv6Address(typicalMac(1), addresses));
    const Bytes now = fru();
    const unsigned int area = fn(0, 0, 0).specificOffset();
    EXPECT_EQ(now[area + 44], 0xF0);
    EXPECT_THAT(Bytes(now.begin() + area + 45 + 14 * 16, now.begin() + area + 45 + 15 * 16),
                ElementsAreArray(networkBytes(ipv6(15))));
    // 45 + 240 = 285 and 3 bytes of padding
    EXPECT_EQ(pni.adapterInfo(0).port[0].function[0].entryLength, 16 + 288);
    EXPECT_EQ(problem(), "");
    PniAccess fresh;
    EXPECT_THAT(macBytes(fresh.getMacAddress(3)), ElementsAreArray(macBytes(typicalMac(4))));
}

TEST_F(Pni, SetIpv6WithAnEmptyListKeepsOnlyTheIpv4Addresses) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    const auto& nic2 = fn(0, 1, 0);
    sim->clearRequests();
    ASSERT_TRUE(pni.setIpv6Address(typicalMac(2), {}));
    const Bytes after = specificArea(fru(), nic2);
    EXPECT_EQ(after[44], 0x02);
    EXPECT_THAT(Bytes(after.begin() + 45, after.begin() + 56), ElementsAre(192, 0, 2, 10, 192, 0, 2, 11, 0, 0, 0));
    EXPECT_EQ(bytesWrittenWithin(nic2.specificOffset(), nic2.specificOffset() + 72), 56u);
    EXPECT_EQ(problem(), "");
}

TEST_F(Pni, SetIpv6RewritesEveryTime) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    ASSERT_TRUE(pni.setIpv6Address(typicalMac(2), {ipv6(1)}));
    sim->clearRequests();
    ASSERT_TRUE(pni.setIpv6Address(typicalMac(2), {ipv6(1)}));
    EXPECT_FALSE(fruWrites().empty());
    EXPECT_EQ(problem(), "");
}

TEST_F(Pni, ClearWith16ByteCommonAreasWrites48BytesPerNic) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->clearRequests();
    ASSERT_TRUE(pni.clearIpAddressData());
    const Bytes now = fru();
    int areaWrites = 0;
    for (const auto& a : image.layout.adapters)
        for (const auto& p : a.ports)
            for (const auto& f : p.functions) {
                if (!f.nic) continue;
                ++areaWrites;
                EXPECT_EQ(bytesWrittenWithin(f.specificOffset(), f.specificOffset() + f.specificLength()), 48u);
                EXPECT_EQ(now[f.specificOffset() + 44], 0);
                EXPECT_THAT(Bytes(now.begin() + f.specificOffset() + 45, now.begin() + f.specificOffset() + 48),
                            ElementsAre(0, 0, 0));
            }
    EXPECT_EQ(areaWrites, 4);
    // Each area write is followed by the header with its checksums.
    EXPECT_EQ(fruWrites().size(), 8u);
    EXPECT_EQ(problem(), "");
}

TEST_F(Pni, ClearWithoutNicFunctionsIsTrue) {
    install(PniImageBuilder().adapter({0, {{{PniFunctionSpec::ofType(qelSim::pniFc)}}}}));
    PniAccess pni;
    sim->clearRequests();
    EXPECT_TRUE(pni.clearIpAddressData());
    EXPECT_TRUE(fruWrites().empty());
}

TEST_F(Pni, ClearStopsAtTheFirstFailedWrite) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->clearRequests();
    sim->fru().failWrite(1, 0xC0);
    EXPECT_FALSE(pni.clearIpAddressData());
    EXPECT_EQ(fruWrites().size(), 1u);
    EXPECT_EQ(fru(), image.bytes);
}

TEST_F(Pni, PublicationCatchesIpmiErrorsAndLogsThem) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    const Fault fault = Fault::wrongRecvType(4);
    sim->injectFault(fault);
    EXPECT_FALSE(pni.setIpv4Address(typicalMac(1), IPv4Address("10.1.1.1")));
    sim->injectFault(fault);
    EXPECT_FALSE(pni.setIpv6Address(typicalMac(1), {ipv6(1)}));
    sim->injectFault(fault);
    EXPECT_THAT(macBytes(pni.getMacAddress(0)), ElementsAre(0, 0, 0, 0, 0, 0));
    sim->injectFault(fault);
    EXPECT_TRUE(pni.clearIpAddressData());  // reported as done, on purpose
    ASSERT_EQ(syslogLines().size(), 4u);
    for (const auto& line : syslogLines()) {
        EXPECT_EQ(line.priority, logErr);
        EXPECT_THAT(line.text, HasSubstr("eply message has wrong type: "));
    }
    EXPECT_EQ(fru(), image.bytes);
}

TEST_F(Pni, VersionTenRecordsArePublishedAlike) {
    install(PniImageBuilder::typical(10));
    PniAccess pni;
    ASSERT_TRUE(pni.setIpv6Address(typicalMac(4), {ipv6(1), ipv6(2)}));
    ASSERT_TRUE(pni.setIpv4Address(typicalMac(1), IPv4Address("203.0.113.1")));
    ASSERT_TRUE(pni.clearIpAddressData());
    EXPECT_EQ(problem(), "");
    PniAccess fresh;
    EXPECT_EQ(fresh.getNumberOfMacAddresses(), 4);
    EXPECT_THAT(macBytes(fresh.getMacAddress(3)), ElementsAreArray(macBytes(typicalMac(4))));
}

// ================================================================ growth

namespace {

struct GrowthCase {
    int adapter, port, function;
    int grow;
};

class PniGrowth : public pniTest::PniFixture, public testing::WithParamInterface<GrowthCase> {};

// Was (a, p, f) behind (ga, gp, gf) in table order?
bool behind(int a, int p, int f, const GrowthCase& g) {
    if (a != g.adapter) return a > g.adapter;
    if (p != g.port) return p > g.port;
    return f > g.function;
}

}  // namespace

TEST_P(PniGrowth, EntriesBehindMoveAndAFreshParseFindsThem) {
    const GrowthCase g = GetParam();
    install(PniImageBuilder::typical());
    PniAccess pni;
    auto ipmi = this->ipmi();
    const auto& target = fn(g.adapter, g.port, g.function);
    Bytes data = specificArea(image.bytes, target);
    for (int i = 0; i < g.grow; ++i) data.push_back(static_cast<unsigned char>(0xC0 + i));
    ASSERT_EQ(pni.writePortFnSpecificArea(*ipmi, g.adapter, g.port, g.function,
                                          static_cast<int>(data.size()), data.data()),
              PniAccess::resultOk);

    const Bytes now = fru();
    ASSERT_EQ(problem(), "");
    expectChecksumsZero(now, image.layout);
    auto layout = qelSim::readPniLayout(now);
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->end, image.layout.end + g.grow);
    EXPECT_EQ(pni.endOffset(), layout->end);
    PniAccess fresh;
    EXPECT_EQ(fresh.endOffset(), layout->end);

    for (int a = 0; a < 3; ++a) {
        const auto& oldA = image.layout.adapters[a];
        const int adapterShift = a > g.adapter ? g.grow : 0;
        EXPECT_EQ(layout->adapters[a].offset, oldA.offset + adapterShift);
        EXPECT_EQ(pni.adapterInfo(a).fruOffset, layout->adapters[a].offset);
        EXPECT_EQ(fresh.adapterInfo(a).fruOffset, layout->adapters[a].offset);
        for (std::size_t p = 0; p < oldA.ports.size(); ++p) {
            const int portShift = (a > g.adapter || (a == g.adapter && int(p) > g.port)) ? g.grow : 0;
            EXPECT_EQ(layout->adapters[a].ports[p].offset, oldA.ports[p].offset + portShift);
            EXPECT_EQ(pni.adapterInfo(a).port[p].fruOffset, layout->adapters[a].ports[p].offset);
            EXPECT_EQ(fresh.adapterInfo(a).port[p].fruOffset, layout->adapters[a].ports[p].offset);
            for (std::size_t f = 0; f < oldA.ports[p].functions.size(); ++f) {
                SCOPED_TRACE(testing::Message() << a << "/" << p << "/" << f);
                const auto& oldF = oldA.ports[p].functions[f];
                const auto& newF = layout->adapters[a].ports[p].functions[f];
                const bool isTarget = a == g.adapter && int(p) == g.port && int(f) == g.function;
                EXPECT_EQ(newF.offset, oldF.offset + (behind(a, p, f, g) ? g.grow : 0));
                EXPECT_EQ(newF.entryLength, oldF.entryLength + (isTarget ? g.grow : 0));
                EXPECT_EQ(newF.mac, oldF.mac);
                const PniPortFnInfo& mine = pni.adapterInfo(a).port[p].function[f];
                const PniPortFnInfo& theirs = fresh.adapterInfo(a).port[p].function[f];
                EXPECT_EQ(mine.fruOffset, newF.offset);
                EXPECT_EQ(theirs.fruOffset, newF.offset);
                EXPECT_EQ(mine.entryLength, newF.entryLength);
                EXPECT_EQ(theirs.entryLength, newF.entryLength);
                EXPECT_EQ(theirs.type, mine.type);
                if (isTarget) {
                    EXPECT_EQ(specificArea(now, newF), data);
                } else {
                    // Every other entry is byte for byte what it was.
                    EXPECT_TRUE(std::equal(image.bytes.begin() + oldF.offset,
                                           image.bytes.begin() + oldF.offset + oldF.entryLength,
                                           now.begin() + newF.offset));
                }
            }
        }
    }
    for (unsigned char n = 0; n < 4; ++n)
        EXPECT_THAT(macBytes(fresh.getMacAddress(n)), ElementsAreArray(macBytes(typicalMac(n + 1))));
    // Both objects go on publishing into the moved entries.
    EXPECT_TRUE(pni.setIpv4Address(typicalMac(4), IPv4Address("203.0.113.44")));
    EXPECT_EQ(problem(), "");
}

INSTANTIATE_TEST_SUITE_P(
    BySizeAndPlace, PniGrowth,
    testing::Values(GrowthCase{0, 0, 1, 8}, GrowthCase{0, 0, 1, 12}, GrowthCase{0, 0, 1, 64},
                    GrowthCase{0, 0, 0, 8}, GrowthCase{1, 0, 0, 12}, GrowthCase{0, 1, 1, 64},
                    GrowthCase{2, 0, 1, 8}, GrowthCase{2, 0, 1, 64}),
    [](const testing::TestParamInfo<GrowthCase>& info) {
        const GrowthCase& g = info.param;
        return "Function" + std::to_string(g.adapter) + std::to_string(g.port) + std::to_string(g.function) +
               "By" + std::to_string(g.grow);
    });

// ================================================================ robustness

namespace {

// Constructs from `bytes` and, when that works, publishes; returns the
// construction's error message ("" on success). Anything but a PniAccessError
// escapes and fails the test.
std::string exercise(qelSim::ScopedSimulator& sim, const Bytes& bytes, bool publish) {
    sim->fru().setImage(bytes);
    std::unique_ptr<PniAccess> pni;
    try {
        pni = std::make_unique<PniAccess>();
    } catch (const PniAccessError& e) {
        return pniTest::wrappedMessage(e);
    }
    const int macs = pni->getNumberOfMacAddresses();
    EXPECT_LE(macs, 8 * 16 * 16);
    if (publish) {
        MacAddress first = pni->getMacAddress(0);
        (void)pni->setIpv4Address(first, IPv4Address("198.51.100.1"));
        (void)pni->setIpv6Address(first, {ipv6(7)});
        (void)pni->clearIpAddressData();
    }
    return "";
}

// A few values per byte by default; QEL_PNI_FUZZ_ALL=1 tries all 256.
std::vector<unsigned char> fuzzValues(unsigned char original) {
    if (std::getenv("QEL_PNI_FUZZ_ALL") != nullptr) {
        std::vector<unsigned char> all;
        for (int v = 0; v < 256; ++v) all.push_back(static_cast<unsigned char>(v));
        return all;
    }
    return {0x00, 0xFF, static_cast<unsigned char>(original ^ 0x01), static_cast<unsigned char>(original ^ 0x80),
            static_cast<unsigned char>(original + 4)};
}

}  // namespace

TEST_F(Pni, EverySingleByteCorruptionIsAcceptedOrAnError) {
    // Without resealing: the checksums must catch what they can.
    const PniImage base = PniImageBuilder::typical().build();
    std::map<std::string, int> outcomes;
    for (std::size_t i = 0; i < base.layout.end; ++i) {
        for (unsigned char value : fuzzValues(base.bytes[i])) {
            if (value == base.bytes[i]) continue;
            Bytes b = base.bytes;
            b[i] = value;
            const std::string message = exercise(sim, b, false);
            ++outcomes[message];
            if (!message.empty()) {
                ASSERT_EQ(constructionMessages().count(message), 1u) << "byte " << i << ": " << message;
            }
            // Only the info areas, which construction does not read, may change
            // without being noticed.
            if (message.empty() && i >= base.layout.internalUseArea)
                ADD_FAILURE() << "corruption of byte " << i << " went unnoticed";
        }
    }
    EXPECT_GT(outcomes["Checksum error "], 0);
}

TEST_F(Pni, EverySingleByteCorruptionWithGoodChecksumsIsHandled) {
    // Resealed: the structure checks and the publication run on whatever the
    // record says.
    const PniImage base = PniImageBuilder::typical().build();
    std::map<std::string, int> outcomes;
    for (std::size_t i = base.layout.internalUseArea; i < base.layout.end; ++i) {
        for (unsigned char value : fuzzValues(base.bytes[i])) {
            Bytes b = base.bytes;
            b[i] = value;
            qelSim::resealPniImage(b);
            const std::string message = exercise(sim, b, true);
            ++outcomes[message];
            if (!message.empty()) {
                ASSERT_EQ(constructionMessages().count(message), 1u) << "byte " << i << ": " << message;
            }
        }
    }
    EXPECT_GT(outcomes[""], 0);
    EXPECT_GT(outcomes["Format error "], 0);
    EXPECT_GT(outcomes["Invalid unsupported record "], 0);
}

TEST_F(Pni, EntryLengthsPointingPastTheRecordEndAreFormatErrors) {
    const PniImage base = PniImageBuilder::typical().build();
    const auto& l = base.layout;
    const unsigned int end = l.end;
    int checked = 0;
    auto tryLength = [&](unsigned int at, unsigned int startOfEntry, unsigned int unit) {
        for (unsigned int value = 3; value <= 0xFF; ++value) {
            if (startOfEntry + value * unit <= end) continue;  // still inside
            Bytes b = base.bytes;
            b[at] = static_cast<unsigned char>(value);
            qelSim::resealPniImage(b);
            installBytes(b);
            ASSERT_EQ(constructionError(), "Format error ") << "offset " << at << " length " << value;
            ++checked;
        }
    };
    tryLength(l.adapters[2].offset + 1, l.adapters[2].offset, 1);
    tryLength(l.adapters[2].ports[0].offset + 1, l.adapters[2].ports[0].offset, 1);
    tryLength(l.function(2, 0, 1).offset + 1, l.function(2, 0, 1).offset, 4);
    EXPECT_GT(checked, 300);
}

// ================================================================ failed publication
//
// A publication is a series of Write FRU Data requests without roll-back: the
// area in chunks of 64, then the record header with both checksums; a growth
// first moves what follows, rewrites the common area and the header.

TEST_F(Pni, FailureOfTheFirstWriteLeavesTheImageAsItWas) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    sim->fru().failWrite(1, 0xC0);
    EXPECT_FALSE(pni.setIpv4Address(typicalMac(2), IPv4Address("198.51.100.7")));
    EXPECT_EQ(fru(), image.bytes);
    EXPECT_TRUE(pni.setIpv4Address(typicalMac(2), IPv4Address("198.51.100.7")));
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(specificArea(fru(), fn(0, 1, 0))[45], 198);
}

TEST_F(Pni, FailureOfTheHeaderWriteLeavesNewDataWithAStaleChecksum) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    // 68 bytes: chunks of 64 and 4, then the header.
    sim->fru().failWrite(3, 0xC0);
    EXPECT_FALSE(pni.setIpv4Address(typicalMac(2), IPv4Address("198.51.100.7")));
    EXPECT_EQ(specificArea(fru(), fn(0, 1, 0))[45], 198);
    EXPECT_EQ(problem(), "record checksum");
    EXPECT_EQ(constructionError(), "Checksum error ");
    // The object goes on: the next publication is written as asked, and its
    // checksum update is relative, so the record stays off by the same amount.
    EXPECT_TRUE(pni.setIpv4Address(typicalMac(1), IPv4Address("198.51.100.8")));
    EXPECT_EQ(specificArea(fru(), fn(0, 0, 0))[45], 198);
    EXPECT_EQ(problem(), "record checksum");
}

TEST_F(Pni, FailureInsideAGrowthLeavesTheTableAsItWas) {
    install(PniImageBuilder::typical());
    PniAccess pni;
    // Growing the second NIC by 32 first moves everything behind it in
    // chunks of 64; the second chunk fails.
    sim->fru().failWrite(2, 0xC0);
    EXPECT_FALSE(pni.setIpv6Address(typicalMac(2), {ipv6(1), ipv6(2), ipv6(3)}));
    EXPECT_EQ(pni.endOffset(), image.layout.end);
    EXPECT_EQ(pni.adapterInfo(0).port[1].function[0].entryLength, fn(0, 1, 0).entryLength);
    EXPECT_EQ(pni.statusFlags(), 0x03);
    // The first chunk of the moved entries stands above their old place: the
    // record no longer adds up.
    EXPECT_NE(problem(), "");
    EXPECT_EQ(constructionError(), "Checksum error ");
    // Entries before the torn region are still written where they are.
    EXPECT_TRUE(pni.setIpv4Address(typicalMac(1), IPv4Address("198.51.100.9")));
    EXPECT_EQ(specificArea(fru(), fn(0, 0, 0))[45], 198);
}
