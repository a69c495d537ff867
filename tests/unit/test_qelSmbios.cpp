#include "qelSmbios.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "smbiosCorpus.h"
#include "smbiosImage.h"

using qelSmbios::QelSmbios;
using qelSmbios::SmbiosEntryTypes;
using qelSmbios::SmbiosStructHeader;
using namespace smbiosTest;

namespace {

// The reader throws plain std::logic_error (not a subclass) with fixed texts.
::testing::AssertionResult throwsLogicError(const std::function<void()>& action,
                                            const std::string& text) {
    try {
        action();
    } catch (const std::logic_error& e) {
        if (typeid(e) != typeid(std::logic_error))
            return ::testing::AssertionFailure() << "threw " << typeid(e).name() << ": " << e.what();
        if (text != e.what())
            return ::testing::AssertionFailure() << "threw \"" << e.what() << "\", expected \""
                                                 << text << "\"";
        return ::testing::AssertionSuccess();
    } catch (...) {
        return ::testing::AssertionFailure() << "threw something other than std::logic_error";
    }
    return ::testing::AssertionFailure() << "did not throw \"" << text << "\"";
}

SmbiosEntryTypes typeOf(int type) { return static_cast<SmbiosEntryTypes>(type); }

// Enclosure (type 3) of SMBIOS 2.1 layout: manufacturer 1, version 2,
// serial 3, asset tag 4.
Bytes enclosure(uint16_t handle, const std::vector<std::string>& strings) {
    return structure(3, handle, {1, 0x17, 2, 3, 4, 3, 3, 3, 3}, strings);
}

Bytes biosInformation(uint16_t handle) {
    return structure(0, handle, {1, 2, 0x00, 0xE8, 3, 0x0F, 0, 0, 0, 0, 0, 0, 0, 0},
                     {"Firmware Corp.", "1.02", "01/05/2026"});
}

// Five structures: BIOS, System Information, two enclosures, end of table.
Bytes sampleTable() {
    return concat({biosInformation(0x0000),
                   systemInformation(0x0100, {"Maker Inc.", "Server X1", "Rev 2", "SN-0001",
                                              "SKU-9", "Rack Family"}),
                   enclosure(0x0300, {"Maker Inc.", "Chassis A", "CSN-1", "TAG-1"}),
                   enclosure(0x0301, {"Maker Inc.", "Chassis B", "CSN-2", "TAG-2"}),
                   endOfTable(0x7F00)});
}
constexpr uint16_t kSampleStructures = 5;

// A table of exactly `size` bytes: System Information, a filler OEM
// structure whose one string takes up the slack, end of table.
Bytes tableOfSize(size_t size) {
    const Bytes head = systemInformation(0x0100, {"Maker Inc.", "Exact Fit", "1", "SN", "SKU", "F"});
    const Bytes tail = endOfTable(0x7F00);
    const size_t filler = size - head.size() - tail.size();
    const Bytes oem = structure(0x80, 0x8000, {}, {std::string(filler - 4 - 2, 'x')});
    Bytes table = concat({head, oem, tail});
    if (table.size() != size) throw std::runtime_error("tableOfSize miscounted");
    return table;
}

class SmbiosTest : public ::testing::Test {
protected:
    void SetUp() override { QelSmbios::resetOsForTesting(); }
    void TearDown() override { QelSmbios::resetOsForTesting(); }

    const std::string& root() const { return dir.path(); }

    // Checks that `s` holds the sample table.
    void expectSampleTable(QelSmbios& s) {
        EXPECT_EQ(s.getEntryNumber(qelSmbios::BiosInformation), 1u);
        EXPECT_EQ(s.getEntryNumber(qelSmbios::SystemInformation), 1u);
        EXPECT_EQ(s.getEntryNumber(qelSmbios::SystemEnclosure), 2u);
        EXPECT_EQ(s.getEntryNumber(qelSmbios::EndOfTable), 1u);
        SmbiosStructHeader* system = s.getFirstEntry(qelSmbios::SystemInformation);
        ASSERT_NE(system, nullptr);
        EXPECT_EQ(system->handle, 0x0100);
        EXPECT_EQ(QelSmbios::getSmbiosStringS(system, 1), "Maker Inc.");
        EXPECT_EQ(QelSmbios::getSmbiosStringS(system, 2), "Server X1");
        EXPECT_EQ(QelSmbios::getSmbiosStringS(system, 6), "Rack Family");
        SmbiosStructHeader* first = s.getFirstEntry(qelSmbios::SystemEnclosure);
        ASSERT_NE(first, nullptr);
        SmbiosStructHeader* second = s.getNextEntry(first);
        ASSERT_NE(second, nullptr);
        EXPECT_EQ(QelSmbios::getSmbiosStringS(first, 2), "Chassis A");
        EXPECT_EQ(QelSmbios::getSmbiosStringS(second, 2), "Chassis B");
        EXPECT_EQ(s.getNextEntry(second), nullptr);
    }

    static void expectNoTable(QelSmbios& s) {
        for (int type : {0, 1, 3, 127}) {
            EXPECT_EQ(s.getEntryNumber(typeOf(type)), 0u) << "type " << type;
            EXPECT_EQ(s.getFirstEntry(typeOf(type)), nullptr) << "type " << type;
        }
    }

    TempDir dir;
    FakeHost host{dir.path()};
    ScopedPlatform installed{&host};
};

// --- entry point recognition ---------------------------------------------

TEST_F(SmbiosTest, EntryPointWithLength1FAndZeroChecksumsIsAccepted) {
    const Bytes ep = entryPoint(100, 0xF1000, 3);
    ASSERT_EQ(ep.size(), 0x1Fu);
    EXPECT_EQ(ep[5], 0x1F);
    EXPECT_EQ(byteSum(ep.data(), 0x1F), 0);
    EXPECT_EQ(byteSum(ep.data() + 16, 15), 0);
    EXPECT_EQ(std::memcmp(ep.data() + 16, "_DMI_", 5), 0);
    EXPECT_TRUE(QelSmbios::isSmbiosHeader(reinterpret_cast<const char*>(ep.data())));
}

TEST_F(SmbiosTest, WrongIntermediateChecksumAloneRejectsTheEntryPoint) {
    Bytes ep = entryPoint(100, 0xF1000, 3);
    // Break the intermediate sum and compensate in the formatted area outside
    // it, so that the entry point checksum still holds.
    ep[0x15] = static_cast<uint8_t>(ep[0x15] + 1);
    ep[0x0B] = static_cast<uint8_t>(ep[0x0B] - 1);
    ASSERT_TRUE(QelSmbios::checksum(ep.data(), 0x1F));
    ASSERT_FALSE(QelSmbios::checksum(ep.data() + 16, 15));
    EXPECT_FALSE(QelSmbios::isSmbiosHeader(reinterpret_cast<const char*>(ep.data())));

    const Bytes table = sampleTable();
    writeImage(root() + kLinuxMemoryPath, kOneMiB, {{0xF0000, ep}, {0xF1000, table}});
    QelSmbios s;
    expectNoTable(s);
}

TEST_F(SmbiosTest, WrongEntryPointChecksumRejectsTheEntryPoint) {
    Bytes ep = entryPoint(100, 0xF1000, 3);
    ep[0x04] = static_cast<uint8_t>(ep[0x04] + 1);
    EXPECT_FALSE(QelSmbios::isSmbiosHeader(reinterpret_cast<const char*>(ep.data())));
}

TEST_F(SmbiosTest, MissingIntermediateAnchorRejectsTheEntryPoint) {
    Bytes ep = entryPoint(100, 0xF1000, 3);
    std::memcpy(&ep[0x10], "_DMX_", 5);
    fixEntryPointChecksums(ep.data());
    ASSERT_TRUE(QelSmbios::checksum(ep.data(), 0x1F));
    ASSERT_TRUE(QelSmbios::checksum(ep.data() + 16, 15));
    EXPECT_FALSE(QelSmbios::isSmbiosHeader(reinterpret_cast<const char*>(ep.data())));
}

TEST_F(SmbiosTest, EntryPointChecksumCoversAsManyBytesAsItsLengthByteSays) {
    // Some firmware announces 0x20 bytes: the 32nd byte then counts.
    Bytes ep = entryPoint(100, 0xF1000, 3, 0x20);
    ASSERT_EQ(ep.size(), 0x20u);
    ep[0x1F] = 0x55;
    fixEntryPointChecksums(ep.data());
    EXPECT_TRUE(QelSmbios::isSmbiosHeader(reinterpret_cast<const char*>(ep.data())));
    ep[0x1F] = 0x56;
    EXPECT_FALSE(QelSmbios::isSmbiosHeader(reinterpret_cast<const char*>(ep.data())));
}

TEST_F(SmbiosTest, ChecksumIsTheEightBitSumWithWrapAround) {
    const unsigned char none[1] = {0x7};
    EXPECT_TRUE(QelSmbios::checksum(none, 0));
    const unsigned char wraps[] = {0x80, 0x80};
    EXPECT_TRUE(QelSmbios::checksum(wraps, 2));
    const unsigned char pair[] = {0xFF, 0x01, 0x10, 0xF0};
    EXPECT_TRUE(QelSmbios::checksum(pair, 4));
    EXPECT_FALSE(QelSmbios::checksum(pair, 3));
    const unsigned char one[] = {1};
    EXPECT_FALSE(QelSmbios::checksum(one, 1));
}

// --- the search on Linux ----------------------------------------------------

TEST_F(SmbiosTest, EntryPointOnEverySixteenByteBoundaryOfABlockIsFound) {
    const Bytes table = sampleTable();
    // Every candidate slot of one F-segment block, and the first and last
    // usable slots of the segment.
    std::vector<uint64_t> offsets;
    for (uint64_t slot = 0; slot < 255; ++slot) offsets.push_back(0xF7000 + slot * 16);
    offsets.push_back(0xF0000);
    offsets.push_back(0xFFFE0);
    for (uint64_t offset : offsets) {
        SCOPED_TRACE(::testing::Message() << "entry point at 0x" << std::hex << offset);
        QelSmbios::resetOsForTesting();
        writeLinuxMemory(root(), offset, 0x9000, table, kSampleStructures);
        QelSmbios s;
        EXPECT_EQ(QelSmbios::os.load(), 1);
        EXPECT_EQ(s.getEntryNumber(qelSmbios::SystemEnclosure), 2u);
        SmbiosStructHeader* system = s.getFirstEntry(qelSmbios::SystemInformation);
        ASSERT_NE(system, nullptr);
        EXPECT_EQ(QelSmbios::getSmbiosStringS(system, 2), "Server X1");
    }
}

TEST_F(SmbiosTest, EntryPointStraddlingTwoBlocksIsNotFound) {
    // The last slot of a block (offset 4080) would need its intermediate
    // area from the next block; the search does not look there.
    writeLinuxMemory(root(), 0xF3FF0, 0x9000, sampleTable(), kSampleStructures);
    QelSmbios s;
    expectNoTable(s);
}

TEST_F(SmbiosTest, AnchorsInTheLastSlotsWithTheLargestLengthStayInsideTheBlockBuffer) {
    // Anchors whose length byte asks for a 255-byte checksum from the last
    // two slots of a block; the one at 4080 even passes that checksum over
    // the block's end. Neither may read beyond the reader's own buffer, and
    // neither is an entry point ("_DMI_" cannot be found past the block).
    Bytes block(4096, 0);
    for (size_t slot : {4064u, 4080u}) {
        std::memcpy(&block[slot], "_SM_", 4);
        block[slot + 5] = 0xFF;
    }
    block[4080 + 4] = static_cast<uint8_t>(-byteSum(&block[4080], 16));
    ASSERT_EQ(byteSum(&block[4080], 16), 0);
    for (const char* kernel : {"Linux", "VMkernel"}) {
        SCOPED_TRACE(kernel);
        QelSmbios::resetOsForTesting();
        host.sysname = kernel;
        const std::string device =
            root() + (std::string(kernel) == "Linux" ? kLinuxMemoryPath : kEsxiDevicePath);
        writeImage(device, 3 * 4096, {{4096, block}});
        QelSmbios s;
        expectNoTable(s);
    }
}

TEST_F(SmbiosTest, AnchorOffTheSixteenByteBoundaryIsNeverFound) {
    const Bytes table = sampleTable();
    for (uint64_t offset : {0xF0001u, 0xF0004u, 0xF0008u, 0xF000Fu, 0xFE00Cu}) {
        SCOPED_TRACE(::testing::Message() << "entry point at 0x" << std::hex << offset);
        writeLinuxMemory(root(), offset, 0x9000, table, kSampleStructures);
        QelSmbios s;
        expectNoTable(s);
    }
}

TEST_F(SmbiosTest, LinuxTableAt0xF1000IsReadThroughTheStream) {
    writeLinuxMemory(root(), 0xF0000, 0xF1000, sampleTable(), kSampleStructures);
    QelSmbios s;
    EXPECT_EQ(QelSmbios::os.load(), 1);
    expectSampleTable(s);
}

TEST_F(SmbiosTest, LowTableCutShortByTheDeviceEndIsNoDataAvailable) {
    // Only the stream route can meet the end of the device this way: the
    // image stops in the middle of the table.
    const Bytes table = sampleTable();
    const Bytes head(table.begin(), table.begin() + 10);
    writeImage(root() + kLinuxMemoryPath, 0xF1000 + head.size(),
               {{0xE0000, entryPoint(static_cast<uint16_t>(table.size()), 0xF1000, 5)},
                {0xF1000, head}});
    EXPECT_TRUE(throwsLogicError([] { QelSmbios s; }, "no data available"));
}

TEST_F(SmbiosTest, LinuxTableAt0x7FF00000IsCopiedThroughAMapping) {
    writeLinuxMemory(root(), 0xF0000, 0x7FF00000, sampleTable(), kSampleStructures);
    QelSmbios s;
    expectSampleTable(s);
}

TEST_F(SmbiosTest, HighTableOffAPageBoundaryIsMappedFromItsPage) {
    writeLinuxMemory(root(), 0xF0000, 0x100123, sampleTable(), kSampleStructures);
    QelSmbios s;
    expectSampleTable(s);
}

TEST_F(SmbiosTest, HighTableBeyondTheImageFailsTheMapping) {
    // Evidence of the mapping route: a stream read would say "no data
    // available" here.
    const Bytes table = sampleTable();
    writeImage(root() + kLinuxMemoryPath, kOneMiB,
               {{0xF0000, entryPoint(static_cast<uint16_t>(table.size()), 0x7FF00000, 5)}});
    EXPECT_TRUE(throwsLogicError([] { QelSmbios s; }, "QelMmap::QelMmap: mmap failed"));
}

TEST_F(SmbiosTest, LinuxTableAt0x80000000IsNoDataAvailable) {
    writeLinuxMemory(root(), 0xF0000, 0x80000000u, sampleTable(), kSampleStructures, kOneMiB);
    EXPECT_TRUE(throwsLogicError([] { QelSmbios s; }, "no data available"));
}

TEST_F(SmbiosTest, LaterEntryPointInTheSameBlockReplacesTheFirst) {
    const Bytes first = concat({systemInformation(0x0100, {"First", "A", "V", "S", "K", "F"}),
                                endOfTable(0x7F00)});
    const Bytes second = concat({systemInformation(0x0101, {"Second", "B", "V", "S", "K", "F"}),
                                 endOfTable(0x7F01)});
    writeImage(root() + kLinuxMemoryPath, 0x7FF00000 + second.size(),
               {{0xF0000, entryPoint(static_cast<uint16_t>(first.size()), 0x10000, 2)},
                {0xF0100, entryPoint(static_cast<uint16_t>(second.size()), 0x20000, 2)},
                {0x10000, first},
                {0x20000, second}});
    QelSmbios s;
    SmbiosStructHeader* system = s.getFirstEntry(qelSmbios::SystemInformation);
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(QelSmbios::getSmbiosStringS(system, 1), "Second");
}

TEST_F(SmbiosTest, EntryPointInALaterBlockIsNotReachedOnceATableWasTaken) {
    const Bytes first = concat({systemInformation(0x0100, {"First", "A", "V", "S", "K", "F"}),
                                endOfTable(0x7F00)});
    const Bytes second = concat({systemInformation(0x0101, {"Second", "B", "V", "S", "K", "F"}),
                                 endOfTable(0x7F01)});
    writeImage(root() + kLinuxMemoryPath, kOneMiB,
               {{0xF0000, entryPoint(static_cast<uint16_t>(first.size()), 0x10000, 2)},
                {0xF1000, entryPoint(static_cast<uint16_t>(second.size()), 0x20000, 2)},
                {0x10000, first},
                {0x20000, second}});
    QelSmbios s;
    SmbiosStructHeader* system = s.getFirstEntry(qelSmbios::SystemInformation);
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(QelSmbios::getSmbiosStringS(system, 1), "First");
}

TEST_F(SmbiosTest, DeviceWithoutEntryPointGivesAnObjectWithoutTable) {
    writeImage(root() + kLinuxMemoryPath, kOneMiB, {{0xF0000, Bytes{'_', 'S', 'M', '_'}}});
    QelSmbios s;
    expectNoTable(s);
    EXPECT_EQ(s.getNextEntry(nullptr), nullptr);
}

TEST_F(SmbiosTest, DeviceThatCannotBeOpenedGivesAnObjectWithoutTable) {
    QelSmbios s;  // nothing under the root
    EXPECT_EQ(QelSmbios::os.load(), 1);
    expectNoTable(s);
}

TEST_F(SmbiosTest, HardReadErrorWhileSearchingIsNoDataAvailable) {
    // A directory opens, but reading it fails with EISDIR: a hard error.
    std::filesystem::create_directories(root() + kLinuxMemoryPath);
    EXPECT_TRUE(throwsLogicError([] { QelSmbios s; }, "no data available"));
}

// --- the operating-system decision --------------------------------------------

TEST_F(SmbiosTest, UnknownKernelWithNoEarlierDecisionIsUnsupported) {
    host.sysname = "FreeBSD";
    EXPECT_TRUE(throwsLogicError([] { QelSmbios s; }, "unsupported Operating System"));
    EXPECT_EQ(QelSmbios::os.load(), 0);
}

TEST_F(SmbiosTest, FailingUnameWithNoEarlierDecisionIsUnsupported) {
    host.unameErrno = EFAULT;
    EXPECT_TRUE(throwsLogicError([] { QelSmbios s; }, "unsupported Operating System"));
}

TEST_F(SmbiosTest, EarlierDecisionSurvivesAKernelThatCannotBeRecognised) {
    writeLinuxMemory(root(), 0xF0000, 0xF1000, sampleTable(), kSampleStructures);
    { QelSmbios onLinux; }
    ASSERT_EQ(QelSmbios::os.load(), 1);
    host.sysname = "FreeBSD";
    QelSmbios other;  // opens nothing, keeps the decision
    EXPECT_EQ(QelSmbios::os.load(), 1);
    expectNoTable(other);
    host.unameErrno = EIO;
    QelSmbios failing;
    EXPECT_EQ(QelSmbios::os.load(), 1);
    expectNoTable(failing);
}

TEST_F(SmbiosTest, VmkernelDecidesEsxi) {
    host.sysname = "VMkernel";
    writeEsxiDevice(root(), 0, sampleTable(), kSampleStructures);
    QelSmbios s;
    EXPECT_EQ(QelSmbios::os.load(), 2);
    expectSampleTable(s);
}

// --- VMware ESXi ------------------------------------------------------------

TEST_F(SmbiosTest, EsxiTableFollowsTheEntryPointInsideTheBlock) {
    host.sysname = "VMkernel";
    writeEsxiDevice(root(), 0x1230, sampleTable(), kSampleStructures);
    QelSmbios s;
    expectSampleTable(s);
}

TEST_F(SmbiosTest, EsxiTableLongerThanTheRestOfTheBlockIsCompletedFromTheFollowingChunks) {
    host.sysname = "VMkernel";
    // 2033 bytes of the table lie in the entry point's block, then one whole
    // chunk and a partial one follow.
    std::vector<Bytes> parts{systemInformation(0x0100, {"Maker Inc.", "Long", "V", "S", "K", "F"})};
    for (int i = 0; i < 300; ++i)
        parts.push_back(structure(11, static_cast<uint16_t>(0x1000 + i), {1},
                                  {"oem string " + std::to_string(i)}));
    parts.push_back(enclosure(0x0300, {"Maker Inc.", "Last", "CSN", "TAG"}));
    parts.push_back(endOfTable(0x7F00));
    const Bytes table = concat(parts);
    ASSERT_GT(table.size(), 4096u + 2033u);
    writeEsxiDevice(root(), 0x7F0, table, 303);
    QelSmbios s;
    EXPECT_EQ(s.getEntryNumber(typeOf(11)), 300u);
    int index = 0;
    for (SmbiosStructHeader* e = s.getFirstEntry(typeOf(11)); e != nullptr && index < 400;
         e = s.getNextEntry(e), ++index) {
        EXPECT_EQ(e->handle, 0x1000 + index);
        EXPECT_EQ(QelSmbios::getSmbiosStringS(e, 1), "oem string " + std::to_string(index));
    }
    EXPECT_EQ(index, 300);
    SmbiosStructHeader* last = s.getFirstEntry(qelSmbios::SystemEnclosure);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(QelSmbios::getSmbiosStringS(last, 2), "Last");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(last, 4), "TAG");
}

TEST_F(SmbiosTest, EsxiTableEndingExactlyAtTheBlockEndNeedsNoFurtherRead) {
    host.sysname = "VMkernel";
    const uint64_t entryOffset = 0x50;
    const Bytes table = tableOfSize(4096 - entryOffset - 31);
    // The device ends with the block: a further read would find nothing.
    writeEsxiDevice(root(), entryOffset, table, 3, 4096);
    QelSmbios s;
    EXPECT_EQ(s.getEntryNumber(qelSmbios::SystemInformation), 1u);
    EXPECT_EQ(s.getEntryNumber(qelSmbios::EndOfTable), 1u);
    SmbiosStructHeader* end = s.getFirstEntry(qelSmbios::EndOfTable);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(reinterpret_cast<unsigned char*>(end) + QelSmbios::dataLength(end),
              reinterpret_cast<unsigned char*>(s.getFirstEntry(qelSmbios::SystemInformation)) +
                  table.size());
    EXPECT_EQ(QelSmbios::getSmbiosStringS(s.getFirstEntry(qelSmbios::SystemInformation), 2),
              "Exact Fit");
}

TEST_F(SmbiosTest, EsxiEntryPointInALaterBlockIsFound) {
    host.sysname = "VMkernel";
    writeEsxiDevice(root(), 3 * 4096 + 0x40, sampleTable(), kSampleStructures);
    QelSmbios s;
    expectSampleTable(s);
}

TEST_F(SmbiosTest, EsxiDeviceShorterThanItsTableLeavesTheRestZero) {
    host.sysname = "VMkernel";
    const Bytes table = sampleTable();
    // The entry point announces 3000 more bytes than the device holds.
    Bytes ep = entryPoint(static_cast<uint16_t>(table.size() + 3000), 0, kSampleStructures);
    ep.insert(ep.end(), table.begin(), table.end());
    writeImage(root() + kEsxiDevicePath, 4000 + ep.size(), {{4000, ep}});
    QelSmbios s;
    expectSampleTable(s);
    EXPECT_EQ(s.getFirstEntry(typeOf(0x99)), nullptr);
}

// --- strings ------------------------------------------------------------------

class SmbiosStringTest : public SmbiosTest {
protected:
    void load(const Bytes& table, uint16_t structures) {
        writeLinuxMemory(root(), 0xF0000, 0x20000, table, structures);
        smbios = std::make_unique<QelSmbios>();
    }
    std::unique_ptr<QelSmbios> smbios;
};

TEST_F(SmbiosStringTest, StringNumberZeroOrNoStructureGivesOneBlank) {
    load(sampleTable(), kSampleStructures);
    SmbiosStructHeader* system = smbios->getFirstEntry(qelSmbios::SystemInformation);
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(QelSmbios::getSmbiosString(system, 0), QelSmbios::empty_string);
    EXPECT_STREQ(QelSmbios::getSmbiosString(system, 0), " ");
    EXPECT_EQ(QelSmbios::getSmbiosString(nullptr, 1), QelSmbios::empty_string);
    EXPECT_STREQ(QelSmbios::getSmbiosString(nullptr, 1), " ");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(system, 0), "");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(nullptr, 1), "");
}

TEST_F(SmbiosStringTest, StringsAreNumberedFromOneAndTheOneBehindTheLastIsEmpty) {
    load(concat({structure(0x80, 0x8000, {0, 0}, {"A", "B"}), endOfTable(0x7F00)}), 2);
    SmbiosStructHeader* e = smbios->getFirstEntry(typeOf(0x80));
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(QelSmbios::getSmbiosString(e, 1), "A");
    EXPECT_STREQ(QelSmbios::getSmbiosString(e, 2), "B");
    // 3 rests on the set's closing NUL: an empty text inside the table.
    EXPECT_STREQ(QelSmbios::getSmbiosString(e, 3), "");
    EXPECT_NE(QelSmbios::getSmbiosString(e, 3), QelSmbios::empty_string);
    for (unsigned char n : {4, 5, 255}) {
        EXPECT_EQ(QelSmbios::getSmbiosString(e, n), QelSmbios::empty_string) << int(n);
        EXPECT_EQ(QelSmbios::getSmbiosStringS(e, n), "") << int(n);
    }
    EXPECT_EQ(QelSmbios::getSmbiosStringS(e, 1), "A");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(e, 3), "");
}

TEST_F(SmbiosStringTest, TrailingBlanksAreRemovedOnlyByTheSForm) {
    load(concat({structure(0x80, 0x8000, {0}, {"Rack Server   ", "   ", "  lead", "tab\t "}),
                 endOfTable(0x7F00)}),
         2);
    SmbiosStructHeader* e = smbios->getFirstEntry(typeOf(0x80));
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(QelSmbios::getSmbiosString(e, 1), "Rack Server   ");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(e, 1), "Rack Server");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(e, 2), "");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(e, 3), "  lead");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(e, 4), "tab\t");  // only 0x20 is a blank here
}

TEST_F(SmbiosStringTest, DataLengthCoversFormattedAreaAndStringSet) {
    load(concat({structure(0x80, 0x8000, {1, 2, 3}), structure(0x81, 0x8100, {0}, {"A", "BC"}),
                 endOfTable(0x7F00)}),
         3);
    SmbiosStructHeader* bare = smbios->getFirstEntry(typeOf(0x80));
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(bare->length, 7);
    EXPECT_EQ(QelSmbios::dataLength(bare), 7u + 2u);
    SmbiosStructHeader* strings = smbios->getFirstEntry(typeOf(0x81));
    ASSERT_NE(strings, nullptr);
    EXPECT_EQ(QelSmbios::dataLength(strings), 5u + 2u + 3u + 1u);
    EXPECT_EQ(QelSmbios::dataLength(nullptr), 0u);
}

// --- walks ----------------------------------------------------------------------

TEST_F(SmbiosStringTest, AbsentTypeIsNotFoundAfterWalkingToTheTableEnd) {
    // No end-of-table structure: the walk must stop at the table's length.
    load(concat({biosInformation(0), systemInformation(0x100, {"M", "P", "V", "S", "K", "F"})}), 2);
    EXPECT_EQ(smbios->getFirstEntry(qelSmbios::SystemEnclosure), nullptr);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::SystemEnclosure), 0u);
    EXPECT_EQ(smbios->getFirstEntry(qelSmbios::EndOfTable), nullptr);
}

TEST_F(SmbiosStringTest, NextEntryOfTheLastStructureOfATypeIsNull) {
    load(sampleTable(), kSampleStructures);
    SmbiosStructHeader* system = smbios->getFirstEntry(qelSmbios::SystemInformation);
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(smbios->getNextEntry(system), nullptr);
    SmbiosStructHeader* end = smbios->getFirstEntry(qelSmbios::EndOfTable);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(smbios->getNextEntry(end), nullptr);
}

TEST_F(SmbiosStringTest, CountStopsAtTheAnnouncedNumberButTheFirstEntrySearchDoesNot) {
    // Five structures, three announced; a type 2 stands behind the end of
    // table.
    load(concat({biosInformation(0), enclosure(0x300, {"a", "b", "c", "d"}), endOfTable(0x7F00),
                 structure(2, 0x200, {1}, {"Board"}), enclosure(0x301, {"e", "f", "g", "h"})}),
         3);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::SystemEnclosure), 1u);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::BaseboardInformation), 0u);
    SmbiosStructHeader* board = smbios->getFirstEntry(qelSmbios::BaseboardInformation);
    ASSERT_NE(board, nullptr);
    EXPECT_EQ(QelSmbios::getSmbiosStringS(board, 1), "Board");
    SmbiosStructHeader* second =
        smbios->getNextEntry(smbios->getFirstEntry(qelSmbios::SystemEnclosure));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->handle, 0x301);
}

TEST_F(SmbiosStringTest, NextEntryOfAPointerOutsideTheTableIsNull) {
    load(sampleTable(), kSampleStructures);
    SmbiosStructHeader outside{1, 4, 0};
    EXPECT_EQ(smbios->getNextEntry(&outside), nullptr);
}

// --- corrupt tables -------------------------------------------------------------

TEST_F(SmbiosStringTest, StructureWithLengthZeroSwallowsTheRestOfTheTable) {
    const Bytes table =
        concat({systemInformation(0x100, {"M", "P", "V", "S", "K", "F"}),
                rawStructure(3, 0, 0x300, {0x41, 0x42, 0, 0}), enclosure(0x301, {"a", "b", "c", "d"}),
                endOfTable(0x7F00)});
    load(table, 4);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::SystemInformation), 1u);
    // Its end would lie a whole table length further: the count stops there.
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::SystemEnclosure), 0u);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::EndOfTable), 0u);
    SmbiosStructHeader* zero = smbios->getFirstEntry(qelSmbios::SystemEnclosure);
    ASSERT_NE(zero, nullptr);
    EXPECT_EQ(zero->length, 0);
    EXPECT_EQ(QelSmbios::dataLength(zero), 0u);
    // Nothing to step over: the search finds the same structure again.
    EXPECT_EQ(smbios->getNextEntry(zero), zero);
    EXPECT_EQ(smbios->getFirstEntry(qelSmbios::EndOfTable), nullptr);
    // Its "string set" starts at its own header; the walk stays in the table.
    EXPECT_STREQ(QelSmbios::getSmbiosString(zero, 1), "\x03");
    (void)QelSmbios::getSmbiosStringS(zero, 9);
}

TEST_F(SmbiosStringTest, FirstStructureWithLengthZeroIsCountedOnce) {
    load(concat({rawStructure(3, 0, 0x300, {0, 0}), enclosure(0x301, {"a", "b", "c", "d"})}), 2);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::SystemEnclosure), 1u);
}

TEST_F(SmbiosStringTest, TableLengthLargerThanItsStructuresWalksIntoZeros) {
    Bytes table = sampleTable();
    const size_t structures = table.size();
    table.resize(structures + 3000, 0);
    load(table, 40);  // more announced than there are
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::SystemEnclosure), 2u);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::BiosInformation), 1u);
    EXPECT_EQ(smbios->getFirstEntry(typeOf(0x99)), nullptr);
}

TEST_F(SmbiosStringTest, UnterminatedStringsAtTheTableEndStayInsideTheBuffer) {
    Bytes table = concat({biosInformation(0)});
    Bytes last = rawStructure(1, 8, 0x100, {1, 2, 3, 4});
    const std::string text = "Maker";
    last.insert(last.end(), text.begin(), text.end());  // no NUL, and the table ends
    table.insert(table.end(), last.begin(), last.end());
    load(table, 2);
    SmbiosStructHeader* system = smbios->getFirstEntry(qelSmbios::SystemInformation);
    ASSERT_NE(system, nullptr);
    EXPECT_STREQ(QelSmbios::getSmbiosString(system, 1), "Maker");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(system, 2), "");
    EXPECT_EQ(QelSmbios::getSmbiosString(system, 3), QelSmbios::empty_string);
    // Its end lies past the table, so it is not counted.
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::SystemInformation), 0u);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::BiosInformation), 1u);
    EXPECT_EQ(smbios->getNextEntry(system), nullptr);
    EXPECT_EQ(QelSmbios::dataLength(system), 8u + 5u + 2u);
}

TEST_F(SmbiosStringTest, FormattedLengthReachingPastTheTableStaysInsideTheBuffer) {
    Bytes table = biosInformation(0);
    const Bytes stub{0x80, 0xFF, 0x00, 0x80};  // 255 bytes announced, 4 present
    table.insert(table.end(), stub.begin(), stub.end());
    load(table, 3);
    SmbiosStructHeader* stubEntry = smbios->getFirstEntry(typeOf(0x80));
    ASSERT_NE(stubEntry, nullptr);
    EXPECT_STREQ(QelSmbios::getSmbiosString(stubEntry, 1), "");
    EXPECT_EQ(QelSmbios::getSmbiosStringS(stubEntry, 2), "");
    EXPECT_EQ(QelSmbios::dataLength(stubEntry), 255u + 2u);
    EXPECT_EQ(smbios->getNextEntry(stubEntry), nullptr);
    EXPECT_EQ(smbios->getEntryNumber(typeOf(0x80)), 0u);
    // Stepping over the stub leaves the table.
    EXPECT_EQ(smbios->getFirstEntry(qelSmbios::SystemInformation), nullptr);
}

TEST_F(SmbiosStringTest, HeaderCutByTheTableEndStaysInsideTheBuffer) {
    Bytes table = biosInformation(0);
    table.push_back(1);  // a System Information header cut after its type byte
    load(table, 3);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::BiosInformation), 1u);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::SystemInformation), 0u);
    SmbiosStructHeader* cut = smbios->getFirstEntry(qelSmbios::SystemInformation);
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(cut->length, 0);  // read from the zeros behind the table
    EXPECT_EQ(QelSmbios::dataLength(cut), 0u);
    EXPECT_EQ(smbios->getNextEntry(cut), cut);
    EXPECT_STREQ(QelSmbios::getSmbiosString(cut, 1), "\x01");
    EXPECT_EQ(QelSmbios::getSmbiosString(cut, 3), QelSmbios::empty_string);
}

TEST_F(SmbiosStringTest, TwoHundredFiftyFiveStructuresOfOneTypeAreAllFound) {
    std::vector<Bytes> parts;
    for (int i = 0; i < 255; ++i) {
        Bytes body(0x28 - 4, 0);
        body[0x10 - 4] = 1;  // device locator
        parts.push_back(structure(17, static_cast<uint16_t>(0x1100 + i), body,
                                  {"DIMM " + std::to_string(i)}));
    }
    parts.push_back(endOfTable(0x7F00));
    load(concat(parts), 256);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::MemoryDevice), 255u);
    int index = 0;
    for (SmbiosStructHeader* e = smbios->getFirstEntry(qelSmbios::MemoryDevice);
         e != nullptr && index < 300; e = smbios->getNextEntry(e), ++index) {
        EXPECT_EQ(QelSmbios::getSmbiosStringS(e, 1), "DIMM " + std::to_string(index));
    }
    EXPECT_EQ(index, 255);
    EXPECT_EQ(smbios->getEntryNumber(qelSmbios::EndOfTable), 1u);
}

TEST_F(SmbiosTest, EmptyTableFindsNothing) {
    writeLinuxMemory(root(), 0xF0000, 0xF1000, {}, 3);
    QelSmbios onLinux;
    // Type 0 too: the zeros behind the table are not a structure.
    expectNoTable(onLinux);

    QelSmbios::resetOsForTesting();
    host.sysname = "VMkernel";
    writeEsxiDevice(root(), 0, {}, 3);
    QelSmbios esxi;
    expectNoTable(esxi);
}

TEST_F(SmbiosTest, RandomCorruptTablesNeverLeaveTheBuffer) {
    // Deterministic garbage: lengths, strings and ends in every combination.
    std::mt19937 random(20260105);
    host.sysname = "VMkernel";
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(::testing::Message() << "round " << round);
        Bytes table;
        const size_t size = random() % 700;
        while (table.size() < size) {
            switch (random() % 4) {
                case 0: table.push_back(0); break;
                case 1: table.push_back(static_cast<uint8_t>(random() % 4)); break;
                case 2: {
                    const std::string s = "text" + std::to_string(random() % 100);
                    table.insert(table.end(), s.begin(), s.end());
                    break;
                }
                default: table.push_back(static_cast<uint8_t>(random())); break;
            }
        }
        table.resize(size);
        QelSmbios::resetOsForTesting();
        writeEsxiDevice(root(), (random() % 200) * 16, table, static_cast<uint16_t>(random() % 300));
        QelSmbios s;
        for (int type : {0, 1, 2, 3, 127, 255}) {
            (void)s.getEntryNumber(typeOf(type));
            int steps = 0;
            for (SmbiosStructHeader* e = s.getFirstEntry(typeOf(type)); e != nullptr && steps < 50;
                 e = s.getNextEntry(e), ++steps) {
                (void)QelSmbios::dataLength(e);
                for (unsigned char n = 0; n < 8; ++n) {
                    (void)QelSmbios::getSmbiosString(e, n);
                    (void)QelSmbios::getSmbiosStringS(e, n);
                }
            }
        }
    }
}

TEST_F(SmbiosStringTest, MmapDataReportsItsFailures) {
    load(sampleTable(), kSampleStructures);
    EXPECT_TRUE(throwsLogicError(
        [&] { smbios->mmapData((root() + "/no/such/device").c_str(), 0x100000); },
        "QelMmap::QelMmap: open failed"));
    EXPECT_TRUE(throwsLogicError([&] { smbios->mmapData(root().c_str(), 0x100000); },
                                 "QelMmap::QelMmap: mmap failed"));
    // The table is still the one copied at construction.
    expectSampleTable(*smbios);
}

// --- real firmware tables ---------------------------------------------------------

// The memory images hold low physical memory of real machines with the table at
// its physical address; the reader and dmidecode search them the same way.
TEST_F(SmbiosTest, RealMemoryImagesMatchDmidecode) {
    const std::string corpus = corpusDirectory(__FILE__);
    if (!std::filesystem::is_directory(corpus + "/memimages")) {
        if (corpusOptional()) GTEST_SKIP() << "!!! SMBIOS memory images missing at " << corpus;
        FAIL() << "SMBIOS test data missing: expected " << corpus
               << "/memimages (set " << kCorpusEnv << " to its location)";
    }
    for (const char* name : {"dell-optiplex-gx110-mem1m.img", "dell-bad-data-mem1m-malformed.img"}) {
        SCOPED_TRACE(name);
        const std::string image = corpus + "/memimages/" + name;
        const Oracle oracle = runDmidecode("--no-sysfs -d '" + image + "'");
        ASSERT_TRUE(oracle.ran) << "dmidecode is needed: apt-get install dmidecode";
        ASSERT_FALSE(oracle.structures.empty()) << oracle.output;
        std::filesystem::create_directories(root() + "/dev");
        std::filesystem::copy_file(image, root() + kLinuxMemoryPath,
                                   std::filesystem::copy_options::overwrite_existing);
        QelSmbios::resetOsForTesting();
        QelSmbios s;
        for (int type = 0; type < 256; ++type) {
            EXPECT_EQ(s.getEntryNumber(typeOf(type)), oracle.ofType(type).size()) << "type " << type;
        }
    }
}

class SmbiosCorpusTest : public SmbiosTest, public ::testing::WithParamInterface<std::string> {
protected:
    // Compares what the reader found with dmidecode's decoding of the dump.
    void compare(QelSmbios& s, const Oracle& oracle) {
        for (int type = 0; type < 256; ++type) {
            const auto expected = oracle.ofType(type);
            ASSERT_EQ(s.getEntryNumber(typeOf(type)), expected.size()) << "type " << type;
            SmbiosStructHeader* e = s.getFirstEntry(typeOf(type));
            for (size_t i = 0; i < expected.size(); ++i, e = s.getNextEntry(e)) {
                ASSERT_NE(e, nullptr) << "type " << type << " #" << i;
                EXPECT_EQ(e->handle, expected[i]->handle) << "type " << type << " #" << i;
                // dmidecode prints the length it read, before any fix-up.
                EXPECT_EQ(e->length, expected[i]->length) << "type " << type << " #" << i;
                if (type == 1) compareStrings(e, *expected[i], systemFields);
                if (type == 3) compareStrings(e, *expected[i], enclosureFields);
            }
        }
    }

    struct Field {
        const char* name;
        uint8_t offset;
        uint8_t printedFromLength;  // dmidecode prints it when the length reaches this
    };
    static constexpr Field systemFields[] = {{"Manufacturer", 0x04, 0x08},
                                             {"Product Name", 0x05, 0x08},
                                             {"Version", 0x06, 0x08},
                                             {"Serial Number", 0x07, 0x08},
                                             {"SKU Number", 0x19, 0x1B},
                                             {"Family", 0x1A, 0x1B}};
    static constexpr Field enclosureFields[] = {{"Manufacturer", 0x04, 0x09},
                                                {"Version", 0x06, 0x09},
                                                {"Serial Number", 0x07, 0x09},
                                                {"Asset Tag", 0x08, 0x09}};

    template <size_t N>
    void compareStrings(SmbiosStructHeader* e, const OracleStructure& expected,
                        const Field (&fields)[N]) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(e);
        for (const Field& f : fields) {
            if (e->length < f.printedFromLength) continue;
            const uint8_t number = bytes[f.offset];
            auto printed = expected.fields.find(f.name);
            ASSERT_NE(printed, expected.fields.end()) << f.name << " of 0x" << std::hex << e->handle;
            EXPECT_EQ(asDmidecodePrints(e, number), printed->second) << f.name;
            // The S form is the same text without trailing blanks.
            const char* text = QelSmbios::getSmbiosString(e, number);
            std::string raw = text == QelSmbios::empty_string ? "" : text;
            const size_t last = raw.find_last_not_of(' ');
            raw.erase(last == std::string::npos ? 0 : last + 1);
            EXPECT_EQ(QelSmbios::getSmbiosStringS(e, number), raw) << f.name;
        }
    }
};

std::string corpusLocation() { return corpusDirectory(__FILE__); }

std::vector<std::string> corpusForInstantiation() { return corpusDumps(corpusLocation()); }

TEST(SmbiosCorpus, TestDataAndOracleArePresent) {
    const std::string corpus = corpusLocation();
    const bool present = std::filesystem::is_directory(corpus);
    if (!present && corpusOptional())
        GTEST_SKIP() << "!!! SMBIOS corpus missing at " << corpus << ": real-table checks SKIPPED";
    ASSERT_TRUE(present) << "SMBIOS test data missing: expected " << corpus << " (set "
                         << kCorpusEnv << " to its location, or " << kCorpusOptionalEnv
                         << "=1 to skip)";
    ASSERT_TRUE(dmidecodeAvailable()) << "dmidecode is needed as the oracle: apt-get install dmidecode";
    std::set<std::string> listed;
    for (const std::string& name : manifestFiles(corpus))
        if (name.size() > 4 && name.substr(name.size() - 4) == ".bin") listed.insert(name);
    const std::vector<std::string> dumps = corpusDumps(corpus);
    EXPECT_EQ(std::set<std::string>(dumps.begin(), dumps.end()), listed);
    EXPECT_EQ(dumps.size(), 87u);
}

TEST_P(SmbiosCorpusTest, ReaderMatchesDmidecode) {
    const std::string file = corpusLocation() + "/" + GetParam();
    const Dump dump = loadDump(file);
    const Oracle oracle = runDmidecode("--from-dump '" + file + "'");
    ASSERT_TRUE(oracle.ran) << "dmidecode is needed as the oracle: apt-get install dmidecode";
    ASSERT_FALSE(oracle.structures.empty()) << oracle.output;

    // A spread of entry-point slots and table places, derived from the name.
    const size_t seed = std::hash<std::string>()(GetParam());
    const uint64_t entryOffset = 0xF0000 + (seed % 0xFF0) * 16;
    const uint32_t lowAddress = 0x10000 + static_cast<uint32_t>(seed % 0x100) * 16;
    const uint32_t highAddress = 0x200000 + static_cast<uint32_t>(seed % 0x1000);

    {
        SCOPED_TRACE("Linux, table below 1 MiB");
        QelSmbios::resetOsForTesting();
        writeImage(root() + kLinuxMemoryPath, kOneMiB,
                   {{entryOffset, relocatedEntryPoint(dump, lowAddress)}, {lowAddress, dump.table}});
        QelSmbios s;
        compare(s, oracle);
    }
    {
        SCOPED_TRACE("Linux, table above 1 MiB");
        QelSmbios::resetOsForTesting();
        writeImage(root() + kLinuxMemoryPath, highAddress + dump.table.size(),
                   {{entryOffset, relocatedEntryPoint(dump, highAddress)}, {highAddress, dump.table}});
        QelSmbios s;
        compare(s, oracle);
    }
    {
        SCOPED_TRACE("VMware ESXi");
        QelSmbios::resetOsForTesting();
        host.sysname = "VMkernel";
        Bytes device = relocatedEntryPoint(dump, 0);
        // The table follows the 31-byte entry point directly, so an entry
        // point that announces more bytes is cut to the standard length.
        if (device.size() > kEntryPointLength) {
            device.resize(kEntryPointLength);
            device[5] = kEntryPointLength;
            fixEntryPointChecksums(device.data());
        }
        device.insert(device.end(), dump.table.begin(), dump.table.end());
        const uint64_t offset = (seed % 0x200) * 16;
        writeImage(root() + kEsxiDevicePath, offset + device.size(), {{offset, device}});
        QelSmbios s;
        compare(s, oracle);
    }
}

std::string dumpTestName(const ::testing::TestParamInfo<std::string>& info) {
    std::string name = info.param.substr(0, info.param.size() - 4);
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    return name;
}

// Dumps with only an SMBIOS 3 entry point get a 32-bit one made from their
// table (see loadDump): the reader does not recognise the 64-bit form.
INSTANTIATE_TEST_SUITE_P(RealTables, SmbiosCorpusTest, ::testing::ValuesIn(corpusForInstantiation()),
                         dumpTestName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(SmbiosCorpusTest);

}  // namespace
