// What the host says about itself: os-release parsed as its format says, the
// names the agent makes of it, the kernel release, the BIOS version, and the
// firmware tables of /sys/firmware/dmi/tables presented as the memory image
// the SMBIOS reader searches (checked over the whole corpus of real tables).
#include "qelHostFacts.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "agentPlatform.h"
#include "qelSmbios.h"
#include "smbiosCorpus.h"
#include "smbiosImage.h"

namespace {

using qelHostFacts::OsRelease;
using qelHostFacts::parseOsRelease;
using smbiosTest::Bytes;

class HostFacts : public ::testing::Test {
protected:
    smbiosTest::TempDir root;
    agentTest::AgentPlatform host{root.path()};
    qelPlatform::Platform* previous = nullptr;

    void SetUp() override {
        previous = qelPlatform::setPlatform(&host);
        qelSmbios::QelSmbios::resetOsForTesting();
    }
    void TearDown() override {
        qelSmbios::QelSmbios::resetOsForTesting();
        qelPlatform::setPlatform(previous);
    }
    void writeFile(const std::string& fixed, const std::string& content) {
        const std::string path = root.path() + fixed;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }
    static std::string text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }
};

// ---------------------------------------------------------------- os-release

TEST(OsReleaseParse, ReadsTheFieldsOfATypicalFile) {
    const OsRelease r = parseOsRelease(
        "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"
        "NAME=\"Debian GNU/Linux\"\n"
        "VERSION_ID=\"12\"\n"
        "VERSION=\"12 (bookworm)\"\n"
        "VERSION_CODENAME=bookworm\n"
        "ID=debian\n"
        "HOME_URL=\"https://www.debian.org/\"\n");
    EXPECT_EQ(r.prettyName, "Debian GNU/Linux 12 (bookworm)");
    EXPECT_EQ(r.name, "Debian GNU/Linux");
    EXPECT_EQ(r.version, "12 (bookworm)");
    EXPECT_EQ(r.versionId, "12");
    EXPECT_EQ(r.id, "debian");
}

TEST(OsReleaseParse, SingleQuotesBareValuesAndEscapes) {
    const OsRelease r = parseOsRelease(
        "NAME='Red Hat Enterprise Linux'\n"
        "ID=rhel\n"
        "PRETTY_NAME=\"A \\\"quoted\\\" \\$name with \\\\ and \\`tick\\`\"\n");
    EXPECT_EQ(r.name, "Red Hat Enterprise Linux");
    EXPECT_EQ(r.id, "rhel");
    EXPECT_EQ(r.prettyName, "A \"quoted\" $name with \\ and `tick`");
}

TEST(OsReleaseParse, BackslashBeforeOtherCharactersStays) {
    EXPECT_EQ(parseOsRelease("NAME=\"a\\nb\"\n").name, "a\\nb");
}

TEST(OsReleaseParse, IgnoresCommentsBlankLinesAndLinesThatDoNotFit) {
    const OsRelease r = parseOsRelease(
        "# a comment with NAME=wrong\n"
        "\n"
        "   \n"
        "no equals sign here\n"
        "lower_case=ignored\n"
        "NAME=\"unterminated\n"
        "VERSION=\"1\" trailing words\n"
        "ID=bare value with blanks\n"
        "=empty key\n"
        "  PRETTY_NAME=\"Indented Linux\"  \r\n");
    EXPECT_EQ(r.name, "");
    EXPECT_EQ(r.version, "");
    EXPECT_EQ(r.id, "");
    EXPECT_EQ(r.prettyName, "Indented Linux");
}

TEST(OsReleaseParse, LaterAssignmentsWinAndEmptyValuesAreEmpty) {
    const OsRelease r = parseOsRelease("NAME=First\nNAME=Second\nVERSION=\nID=\"\"\n");
    EXPECT_EQ(r.name, "Second");
    EXPECT_EQ(r.version, "");
    EXPECT_EQ(r.id, "");
}

TEST(OsReleaseParse, EmptyAndBinaryTextGiveNothing) {
    EXPECT_EQ(parseOsRelease("").displayName(), "Linux");
    EXPECT_EQ(parseOsRelease(std::string("\0\xff\x01NAME", 7)).displayName(), "Linux");
}

TEST(OsReleaseDisplayName, PrettyNameFirst) {
    OsRelease r;
    r.prettyName = "Ubuntu 24.04.1 LTS";
    r.name = "Ubuntu";
    r.version = "24.04.1 LTS (Noble Numbat)";
    EXPECT_EQ(r.displayName(), "Ubuntu 24.04.1 LTS");
}

TEST(OsReleaseDisplayName, NameAndVersionWithoutPrettyName) {
    OsRelease r;
    r.name = "Rocky Linux";
    r.version = "9.4 (Blue Onyx)";
    EXPECT_EQ(r.displayName(), "Rocky Linux 9.4 (Blue Onyx)");
    r.version.clear();
    EXPECT_EQ(r.displayName(), "Rocky Linux");
    r.name.clear();
    r.version = "9.4";
    EXPECT_EQ(r.displayName(), "9.4");
}

TEST(OsReleaseDisplayName, LinuxWhenNothingIsKnown) { EXPECT_EQ(OsRelease().displayName(), "Linux"); }

TEST_F(HostFacts, EtcOsReleaseComesFirst) {
    writeFile("/etc/os-release", "PRETTY_NAME=\"From etc\"\n");
    writeFile("/usr/lib/os-release", "PRETTY_NAME=\"From usr\"\n");
    EXPECT_EQ(qelHostFacts::readOsRelease().prettyName, "From etc");
}

TEST_F(HostFacts, UsrLibOsReleaseWhenEtcHasNone) {
    writeFile("/usr/lib/os-release", "NAME=Fallback\nVERSION=7\n");
    EXPECT_EQ(qelHostFacts::readOsRelease().displayName(), "Fallback 7");
}

TEST_F(HostFacts, NoOsReleaseAtAllGivesLinux) {
    EXPECT_EQ(qelHostFacts::readOsRelease().displayName(), "Linux");
}

TEST_F(HostFacts, KernelReleaseIsUnamesRelease) {
    host.setKernel("Linux", "6.1.0-27-amd64", "#1 SMP PREEMPT_DYNAMIC Debian 6.1.115-1");
    EXPECT_EQ(qelHostFacts::kernelRelease(), "6.1.0-27-amd64");
    host.setUnameErrno(EFAULT);
    EXPECT_EQ(qelHostFacts::kernelRelease(), "");
}

// ---------------------------------------------------------------- the kernel's watchdog driver

TEST_F(HostFacts, NoIpmiWatchdogDriverOnAPlainHost) {
    writeFile("/sys/class/watchdog/watchdog0/identity", "iTCO_wdt\n");
    EXPECT_EQ(qelHostFacts::kernelIpmiWatchdog(), "");
}

TEST_F(HostFacts, TheIpmiWatchdogModuleIsFound) {
    writeFile("/sys/module/ipmi_watchdog/parameters/timeout", "10\n");
    EXPECT_EQ(qelHostFacts::kernelIpmiWatchdog(), "ipmi_watchdog module");
}

TEST_F(HostFacts, AWatchdogDeviceWhoseIdentityIsIpmiIsFound) {
    writeFile("/sys/class/watchdog/watchdog0/identity", "iTCO_wdt\n");
    writeFile("/sys/class/watchdog/watchdog1/identity", "IPMI\n");
    EXPECT_EQ(qelHostFacts::kernelIpmiWatchdog(), "watchdog1 (IPMI)");
}

TEST_F(HostFacts, BootIdIsTheKernelsWithoutItsLineFeed) {
    EXPECT_EQ(qelHostFacts::bootId(), "");
    writeFile("/proc/sys/kernel/random/boot_id", "5f3a-1\n");
    EXPECT_EQ(qelHostFacts::bootId(), "5f3a-1");
}

// ---------------------------------------------------------------- BIOS version

Bytes biosInformation(uint16_t handle, unsigned char versionString, const std::vector<std::string>& strings) {
    Bytes body(0x12 - 4, 0);
    body[0] = 1;              // vendor
    body[1] = versionString;  // version
    body[4] = 2;              // release date... any string number
    return smbiosTest::structure(0, handle, body, strings);
}

TEST_F(HostFacts, BiosVersionIsTheStringAtOffsetFiveOfTypeZero) {
    const Bytes table = smbiosTest::concat(
        {biosInformation(0, 2, {"Vendor Inc.", "R1.23.0   ", "01/02/2024"}),
         smbiosTest::systemInformation(1, {"Maker", "Model", "1.0", "SN", "SKU", "FAM"}),
         smbiosTest::endOfTable(2)});
    smbiosTest::writeLinuxMemory(root.path(), 0xF0000, 0xE0000, table, 3);
    EXPECT_EQ(qelHostFacts::biosVersion(), "R1.23.0") << "trailing blanks dropped";
}

TEST_F(HostFacts, BiosVersionIsEmptyWithoutTableTypeZeroOrString) {
    EXPECT_EQ(qelHostFacts::biosVersion(), "") << "no /dev/mem at all";

    smbiosTest::writeLinuxMemory(root.path(), 0xF0000, 0xE0000,
                                 smbiosTest::concat({smbiosTest::systemInformation(1, {"M", "P", "V", "S", "K", "F"}),
                                                     smbiosTest::endOfTable(2)}),
                                 2);
    EXPECT_EQ(qelHostFacts::biosVersion(), "") << "no type 0";

    smbiosTest::writeLinuxMemory(root.path(), 0xF0000, 0xE0000,
                                 smbiosTest::concat({biosInformation(0, 0, {"Vendor"}), smbiosTest::endOfTable(2)}), 2);
    EXPECT_EQ(qelHostFacts::biosVersion(), "") << "string number 0: no version";

    smbiosTest::writeLinuxMemory(
        root.path(), 0xF0000, 0xE0000,
        smbiosTest::concat({smbiosTest::rawStructure(0, 5, 0, {1, 0, 0}), smbiosTest::endOfTable(2)}), 2);
    EXPECT_EQ(qelHostFacts::biosVersion(), "") << "formatted area too short for the version byte";
}

TEST_F(HostFacts, BiosVersionIsEmptyOnAnUnsupportedKernel) {
    host.setKernel("FreeBSD", "14.1", "#0");
    EXPECT_EQ(qelHostFacts::biosVersion(), "");
}

// ---------------------------------------------------------------- firmware tables

// Reads the image back through the SMBIOS reader, as the agent will.
struct ReadBack {
    unsigned int structures[128] = {};
    std::string product;
};

class FirmwareTables : public HostFacts {
protected:
    void writeSysfs(const Bytes& entry, const Bytes& table) {
        writeFile("/sys/firmware/dmi/tables/smbios_entry_point", text(entry));
        writeFile("/sys/firmware/dmi/tables/DMI", text(table));
    }
    // Lays the image out as /dev/mem of a second root and reads it there.
    ReadBack readImage(const std::string& image) {
        smbiosTest::TempDir other;
        const std::string mem = other.path() + "/dev/mem";
        std::filesystem::create_directories(other.path() + "/dev");
        std::ofstream(mem, std::ios::binary) << image;
        host.setRoot(other.path());
        ReadBack out;
        {
            qelSmbios::QelSmbios table;
            for (unsigned int type = 0; type < 128; ++type)
                out.structures[type] = table.getEntryNumber(static_cast<qelSmbios::SmbiosEntryTypes>(type));
            if (auto* system = table.getFirstEntry(qelSmbios::SystemInformation))
                out.product = qelSmbios::QelSmbios::getSmbiosStringS(system, 2);
        }
        host.setRoot(root.path());
        return out;
    }
};

TEST_F(FirmwareTables, NoFilesNoImage) { EXPECT_EQ(qelHostFacts::firmwareTablesImage(), ""); }

TEST_F(FirmwareTables, AnUnknownEntryPointOrAnEmptyTableGivesNoImage) {
    const Bytes table = smbiosTest::concat({smbiosTest::systemInformation(1, {"M", "P", "V", "S", "K", "F"}),
                                            smbiosTest::endOfTable(2)});
    writeSysfs(Bytes{'J', 'U', 'N', 'K'}, table);
    EXPECT_EQ(qelHostFacts::firmwareTablesImage(), "");
    writeSysfs(smbiosTest::entryPoint(0, 0, 0), Bytes{});
    EXPECT_EQ(qelHostFacts::firmwareTablesImage(), "");
    writeSysfs(smbiosTest::entryPoint(4, 0, 1), Bytes{1, 2, 0, 0});
    EXPECT_EQ(qelHostFacts::firmwareTablesImage(), "") << "formatted length below 4";
}

TEST_F(FirmwareTables, TheReaderFindsTheTableInTheImage) {
    const Bytes table = smbiosTest::concat(
        {biosInformation(0, 2, {"Vendor", "V9.9"}),
         smbiosTest::systemInformation(1, {"Maker", "PRIMEQ 42", "1.0", "SN", "SKU", "FAM"}),
         smbiosTest::endOfTable(2)});
    writeSysfs(smbiosTest::entryPoint(static_cast<uint16_t>(table.size()), 0xE0000, 3), table);
    const std::string image = qelHostFacts::firmwareTablesImage();
    ASSERT_FALSE(image.empty());
    EXPECT_EQ(image.size() % 4096, 0u);
    const ReadBack back = readImage(image);
    EXPECT_EQ(back.structures[0], 1u);
    EXPECT_EQ(back.structures[1], 1u);
    EXPECT_EQ(back.structures[127], 1u);
    EXPECT_EQ(back.product, "PRIMEQ 42");
}

TEST_F(FirmwareTables, ATruncatedLastStructureIsLeftOut) {
    Bytes table = smbiosTest::concat({smbiosTest::systemInformation(1, {"Maker", "Whole", "1", "S", "K", "F"}),
                                      biosInformation(0, 1, {"never ends"})});
    table.resize(table.size() - 2);  // the second structure's closing NULs are gone
    writeSysfs(smbiosTest::entryPoint(static_cast<uint16_t>(table.size()), 0, 2), table);
    const std::string image = qelHostFacts::firmwareTablesImage();
    ASSERT_FALSE(image.empty());
    const ReadBack back = readImage(image);
    EXPECT_EQ(back.structures[1], 1u);
    EXPECT_EQ(back.structures[0], 0u);
}

TEST_F(FirmwareTables, ATableLongerThanAnEntryPointCanAnnounceIsCutAtAStructure) {
    std::vector<Bytes> parts;
    const std::string filler(200, 'x');
    for (uint16_t handle = 0; handle < 400; ++handle)
        parts.push_back(smbiosTest::systemInformation(handle, {"Maker", filler, "1", "S", "K", "F"}));
    const Bytes table = smbiosTest::concat(parts);
    ASSERT_GT(table.size(), 0xFFFFu);
    Bytes entry(0x18, 0);
    std::memcpy(entry.data(), "_SM3_", 5);
    entry[7] = 3;
    entry[8] = 4;
    writeSysfs(entry, table);
    const std::string image = qelHostFacts::firmwareTablesImage();
    ASSERT_FALSE(image.empty());
    const auto* ep = reinterpret_cast<const unsigned char*>(image.data());
    const unsigned int announced = ep[22] | ep[23] << 8;
    const unsigned int count = ep[28] | ep[29] << 8;
    EXPECT_LE(announced, 0xFFFFu);
    EXPECT_EQ(announced % (parts[0].size()), 0u) << "whole structures only";
    EXPECT_EQ(count, announced / parts[0].size());
    EXPECT_EQ(readImage(image).structures[1], count);
}

TEST_F(FirmwareTables, WithFirmwareTablesShowsTheImageAsDevMemAndPutsThePlatformBack) {
    bool ran = false;
    EXPECT_FALSE(qelHostFacts::withFirmwareTables([&] { ran = true; })) << "no files, no image";
    EXPECT_FALSE(ran);

    const Bytes table = smbiosTest::concat({smbiosTest::systemInformation(1, {"Maker", "From Sysfs", "1", "S", "K", "F"}),
                                            smbiosTest::endOfTable(2)});
    writeSysfs(smbiosTest::entryPoint(static_cast<uint16_t>(table.size()), 0, 2), table);
    std::string product;
    EXPECT_TRUE(qelHostFacts::withFirmwareTables([&] {
        qelSmbios::QelSmbios reader;
        if (auto* system = reader.getFirstEntry(qelSmbios::SystemInformation))
            product = qelSmbios::QelSmbios::getSmbiosStringS(system, 2);
    }));
    EXPECT_EQ(product, "From Sysfs");
    EXPECT_EQ(&qelPlatform::platform(), &host) << "the platform installed before is back";
}

// Every real table of the corpus, offered as the kernel exports it, reads
// back through the image as it reads from a memory image of its own.
TEST_F(FirmwareTables, EveryCorpusTableReadsAsFromMemory) {
    const std::string corpus = smbiosTest::corpusDirectory(__FILE__);
    const auto dumps = smbiosTest::corpusDumps(corpus);
    if (dumps.empty() && smbiosTest::corpusOptional()) GTEST_SKIP() << "no SMBIOS corpus at " << corpus;
    ASSERT_FALSE(dumps.empty()) << "the SMBIOS corpus is missing at " << corpus
                                << " (set QEL_SMBIOS_TESTDATA, or QEL_SMBIOS_CORPUS_OPTIONAL=1 to skip)";
    for (const std::string& name : dumps) {
        SCOPED_TRACE(name);
        const Bytes file = smbiosTest::readFile(corpus + "/" + name);
        const smbiosTest::Dump dump = smbiosTest::loadDump(corpus + "/" + name);
        // The kernel exports the firmware's own entry point (a 64-bit one
        // where the firmware has only that) and the table.
        const size_t entryLength = file[0] == '_' && file[3] == '3' ? 0x18 : dump.entryPoint.size();
        writeSysfs(Bytes(file.begin(), file.begin() + static_cast<long>(entryLength)), dump.table);
        const std::string image = qelHostFacts::firmwareTablesImage();
        ASSERT_FALSE(image.empty());

        // The same table as physical memory with its own entry point.
        smbiosTest::TempDir direct;
        const Bytes ep = smbiosTest::relocatedEntryPoint(dump, 0xE0000);
        smbiosTest::writeImage(direct.path() + "/dev/mem", 0x100000, {{0xF0000, ep}, {0xE0000, dump.table}});
        host.setRoot(direct.path());
        unsigned int expected[128] = {};
        std::string product;
        {
            qelSmbios::QelSmbios table;
            for (unsigned int type = 0; type < 128; ++type)
                expected[type] = table.getEntryNumber(static_cast<qelSmbios::SmbiosEntryTypes>(type));
            if (auto* system = table.getFirstEntry(qelSmbios::SystemInformation))
                product = qelSmbios::QelSmbios::getSmbiosStringS(system, 2);
        }
        host.setRoot(root.path());

        const ReadBack back = readImage(image);
        for (unsigned int type = 0; type < 128; ++type)
            EXPECT_EQ(back.structures[type], expected[type]) << "type " << type;
        EXPECT_EQ(back.product, product);
    }
}

}  // namespace
