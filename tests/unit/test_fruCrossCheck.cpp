// The FRU image as FRU tools written by others see it, before and after the
// library grew PNI function areas in place: the controller process
// (qel-bmcsim) holds a PNI image, the library publishes addresses into it
// through the socket device, and ipmitool (through the stand-in /dev/ipmi0)
// and FreeIPMI's ipmi-fru decode the result. ipmitool prints the info areas
// without looking at their checksums; ipmi-fru checks every one of them, so
// both run. The image validator of the simulator must agree with them. The
// controller's own FRU 0 sits beside the PNI FRU and must stay untouched.
//
// Also the FRU description keywords (fru-image, fru-device-id, fru-other)
// that load images into a controller, and the builder's info area texts.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bmcsimProcess.h"
#include "pniTestSupport.h"
#include "qelSimDescription.h"
#include "qelSimSocket.h"

using bmcsimTest::BmcSim;
using bmcsimTest::readFile;
using bmcsimTest::runTool;
using bmcsimTest::TempDir;
using bmcsimTest::ToolRun;
using qelSim::Bytes;
using qelSim::FruInfoTexts;
using qelSim::PniImage;
using qelSim::PniImageBuilder;
using qelSim::PniLayout;
using testing::HasSubstr;

namespace {

using Fields = std::map<std::string, std::string>;

// ---------------------------------------------------------------- processes

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

// The full path of a program in $PATH or the system directories (ipmi-fru
// lives in /usr/sbin, which a user's PATH may lack); "" when there is none.
std::string programPath(const std::string& name) {
    std::string dirs = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
    dirs += ":/usr/sbin:/usr/bin:/sbin:/bin";
    std::istringstream in(dirs);
    for (std::string dir; std::getline(in, dir, ':');) {
        if (dir.empty()) continue;
        const std::string path = dir + "/" + name;
        if (::access(path.c_str(), X_OK) == 0) return path;
    }
    return "";
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The complaint words of a FRU decoder's report, case ignored, each with its
// line; "" when there is none.
std::string complaints(const ToolRun& run) {
    std::string found;
    std::istringstream in(run.out + "\n" + run.err);
    for (std::string line; std::getline(in, line);) {
        const std::string l = lower(line);
        for (const char* word : {"checksum", "invalid", "error", "not present", "unknown"})
            if (l.find(word) != std::string::npos) {
                found += line + "\n";
                break;
            }
    }
    return found;
}

// "Name : value" lines of a report, both tools' layouts ("  Name   : value",
// "  Name: value"); lines without a colon are left out.
Fields fieldsOf(const std::string& report, const std::string& skipPrefix = "") {
    Fields fields;
    std::istringstream in(report);
    for (std::string line; std::getline(in, line);) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string name = line.substr(0, colon);
        name.erase(0, name.find_first_not_of(' '));
        name.erase(name.find_last_not_of(' ') + 1);
        if (!skipPrefix.empty() && name.rfind(skipPrefix, 0) == 0) continue;
        std::string value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        fields[name] = value;
    }
    return fields;
}

// What ipmitool's "fru print" shows of the builder's info areas. The type
// byte 0x17 (rack mount chassis), the language (English) and the
// manufacturing date (0xC48F60 minutes after 1996-01-01) are the builder's
// fixed bytes; the texts are the ones it was given.
Fields ipmitoolFields(const FruInfoTexts& t) {
    Fields f = {
        {"Chassis Type", "Rack Mount Chassis"},
        {"Chassis Part Number", t.chassisPartNumber},
        {"Chassis Serial", t.chassisSerial},
        {"Board Mfg Date", "Sun Jun 28 16:00:00 2020 UTC"},
        {"Board Mfg", t.boardManufacturer},
        {"Board Product", t.boardProduct},
        {"Board Serial", t.boardSerial},
        {"Board Part Number", t.boardPartNumber},
        {"Product Manufacturer", t.productManufacturer},
        {"Product Name", t.productName},
        {"Product Part Number", t.productPartNumber},
        {"Product Version", t.productVersion},
        {"Product Serial", t.productSerial},
    };
    if (!t.productAssetTag.empty()) f["Product Asset Tag"] = t.productAssetTag;
    return f;
}

// The same for ipmi-fru (its header line "FRU Inventory ..." left out).
Fields freeIpmiFields(const FruInfoTexts& t) {
    Fields f = {
        {"FRU Chassis Type", "Rack Mount Chassis"},
        {"FRU Chassis Part Number", t.chassisPartNumber},
        {"FRU Chassis Serial Number", t.chassisSerial},
        {"FRU Board Language", "English"},
        {"FRU Board Manufacturing Date/Time", "06/28/20 - 16:00:00"},
        {"FRU Board Manufacturer", t.boardManufacturer},
        {"FRU Board Product Name", t.boardProduct},
        {"FRU Board Serial Number", t.boardSerial},
        {"FRU Board Part Number", t.boardPartNumber},
        {"FRU Product Language", "English"},
        {"FRU Product Manufacturer Name", t.productManufacturer},
        {"FRU Product Name", t.productName},
        {"FRU Product Part/Model Number", t.productPartNumber},
        {"FRU Product Version", t.productVersion},
        {"FRU Product Serial Number", t.productSerial},
    };
    if (!t.productAssetTag.empty()) f["FRU Product Asset Tag"] = t.productAssetTag;
    return f;
}

// Texts unlike the builder's defaults, so a match cannot come from them.
FruInfoTexts crossCheckTexts() {
    FruInfoTexts t;
    t.chassisPartNumber = "XC-CHASSIS-7731";
    t.chassisSerial = "CS-55-0193";
    t.boardManufacturer = "Board Works Ltd";
    t.boardProduct = "Cross Check Board";
    t.boardSerial = "BS-4409-17";
    t.boardPartNumber = "BP-0815-A";
    t.productManufacturer = "Product House";
    t.productName = "Cross Check Server";
    t.productPartNumber = "PP-2023-X";
    t.productVersion = "3.14";
    t.productSerial = "PS-77-2041";
    t.productAssetTag = "ASSET-0042";
    return t;
}

// The controller's own FRU 0 (a board FRU without PNI adapters).
FruInfoTexts ownFruTexts() {
    FruInfoTexts t;
    t.chassisPartNumber = "OWN-CH-19";
    t.chassisSerial = "OWN-CS-20";
    t.boardManufacturer = "Controller Maker";
    t.boardProduct = "Management Controller";
    t.boardSerial = "MC-000731";
    t.boardPartNumber = "MC-PN-5";
    t.productManufacturer = "Controller Maker";
    t.productName = "Own FRU";
    t.productPartNumber = "OWN-PP-1";
    t.productVersion = "7.1";
    t.productSerial = "OWN-PS-2";
    return t;
}

IPv6Address ipv6(unsigned char group, unsigned char last) {
    unsigned char bytes[16] = {0x20, 0x01, 0x0d, 0xb8, 0x00, group};
    bytes[15] = last;
    return IPv6Address(bytes);
}

std::list<IPv6Address> ipv6List(unsigned char group, int count) {
    std::list<IPv6Address> list;
    for (int i = 1; i <= count; ++i) list.push_back(ipv6(group, static_cast<unsigned char>(i)));
    return list;
}

// The address counts of a NIC function's specific area (byte 44: IPv4 in the
// low four bits, IPv6 in the high four).
std::pair<int, int> addressCounts(const Bytes& image, const PniLayout::Function& fn) {
    const unsigned char counts = image.at(fn.specificOffset() + 44u);
    return {counts & 0x0F, counts >> 4};
}

// ---------------------------------------------------------------- fixture

// One FRU device of the controller as the test built it.
struct BuiltFru {
    unsigned char id = 0;
    PniImage image;
    FruInfoTexts texts;
};

class FruCrossCheck : public testing::Test {
protected:
    void SetUp() override {
        ipmitool = programPath("ipmitool");
        ipmiFru = programPath("ipmi-fru");
        ASSERT_FALSE(ipmitool.empty())
            << "ipmitool is not installed; scripts/install-deps.sh installs it (Debian package ipmitool)";
        ASSERT_FALSE(ipmiFru.empty()) << "ipmi-fru is not installed; scripts/install-deps.sh installs it "
                                         "(Debian package freeipmi-tools)";
        ASSERT_TRUE(dir.ok()) << "no temporary directory: " << std::strerror(errno);
        pniTest::syslogLines().clear();
    }

    static BuiltFru built(unsigned char id, const PniImageBuilder& builder) {
        return BuiltFru{id, builder.build(), builder.infoTexts()};
    }

    // Starts the controller with the PNI FRU and the controller's own FRU 0,
    // both loaded through the description keywords, and makes it the
    // process's IPMI device.
    void start(BuiltFru pniFru, BuiltFru ownFru) {
        pni = std::move(pniFru);
        own = std::move(ownFru);
        auto save = [&](const std::string& name, const Bytes& bytes) {
            writeFile(dir / name, std::string(bytes.begin(), bytes.end()));
            return dir / name;
        };
        std::ostringstream config;
        config << "# the PNI FRU and the controller's own FRU of the cross-check\n"
               << "fru-device-id " << int(pni.id) << "\n"
               << "fru-image " << save("pni.bin", pni.image.bytes) << "\n"
               << "fru-other " << int(own.id) << " " << save("own.bin", own.image.bytes) << "\n";
        writeFile(dir / "bmc.conf", config.str());
        sim = std::make_unique<BmcSim>(dir, std::vector<std::string>{"--config", dir / "bmc.conf"});
        ASSERT_TRUE(sim->ready()) << "qel-bmcsim did not get ready: " << sim->errors();
        device = std::make_unique<qelSim::ScopedSocketDevice>(sim->socket());
    }

    // The bytes of FRU device `fru`, read with plain Read FRU Data requests.
    static Bytes deviceBytes(const BuiltFru& fru) {
        qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
        Bytes out;
        const std::size_t size = fru.image.bytes.size();
        while (out.size() < size) {
            const unsigned int offset = static_cast<unsigned int>(out.size());
            const auto count = static_cast<unsigned char>(std::min<std::size_t>(32, size - offset));
            const unsigned char data[] = {fru.id, static_cast<unsigned char>(offset & 0xFF),
                                          static_cast<unsigned char>(offset >> 8), count};
            qelIpmi::QelIpmi_request_msg msg(qelIpmi::netfn::storage, qelIpmi::cmd::readFruData,
                                             sizeof data, data);
            if (!ipmi.sendCmd(msg) || msg.responseLength != 2u + count || msg.responseData[0] != 0 ||
                msg.responseData[1] != count) {
                ADD_FAILURE() << "Read FRU Data of device " << int(fru.id) << " at " << offset << " failed";
                return {};
            }
            out.insert(out.end(), msg.responseData + 2, msg.responseData + 2 + count);
        }
        return out;
    }

    static void expectCleanAndFields(const ToolRun& run, const Fields& expected, const std::string& skipPrefix) {
        EXPECT_EQ(run.status, 0) << run.command << "\n" << run.out << run.err;
        EXPECT_EQ(complaints(run), "") << run.command << " complains:\n" << run.out << run.err;
        EXPECT_EQ(fieldsOf(run.out, skipPrefix), expected) << run.command << " printed:\n" << run.out;
    }

    // What the tools say about one device that holds `now`: ipmitool's
    // listing, ipmitool's copy of the bytes, and ipmi-fru (which checks the
    // header and area checksums) on that copy.
    void toolsAgree(const BuiltFru& fru, const Bytes& now) {
        const std::string id = std::to_string(fru.id);
        expectCleanAndFields(runTool(dir, ipmitool, {"-I", "open", "fru", "print", id}, sim->socket()),
                             ipmitoolFields(fru.texts), "");
        const std::string copy = dir / ("fru" + id + "-read.bin");
        std::remove(copy.c_str());
        const ToolRun read = runTool(dir, ipmitool, {"-I", "open", "fru", "read", id, copy}, sim->socket());
        EXPECT_EQ(read.status, 0) << read.command << "\n" << read.out << read.err;
        EXPECT_EQ(complaints(read), "") << read.command << " complains:\n" << read.out << read.err;
        EXPECT_EQ(bytesOf(readFile(copy)), now) << "ipmitool read other bytes than FRU " << id << " holds";
        expectCleanAndFields(runTool(dir, ipmiFru, {"-vv", "--fru-file=" + copy}), freeIpmiFields(fru.texts),
                             "FRU Inventory");
    }

    // Everything the FRU tools and the validator say about the controller's
    // FRU devices now; returns the PNI device's bytes.
    Bytes crossCheck() {
        const Bytes now = deviceBytes(pni);
        if (now.empty()) return now;
        EXPECT_EQ(qelSim::validatePniImage(now), "");
        // Growth stays inside the internal use area: the common header and the
        // info areas in front of it are the builder's bytes still.
        EXPECT_TRUE(std::equal(now.begin(), now.begin() + pni.image.layout.internalUseArea,
                               pni.image.bytes.begin()))
            << "bytes in front of the internal use area changed";
        {
            SCOPED_TRACE("PNI FRU " + std::to_string(pni.id));
            toolsAgree(pni, now);
        }
        // The controller's own FRU 0 is never written; ipmi-fru also reads it
        // through the device (without an SDR it reads no other device).
        SCOPED_TRACE("own FRU 0");
        toolsAgree(own, own.image.bytes);
        expectCleanAndFields(runTool(dir, ipmiFru, {"-D", "OPENIPMI", "--ignore-sdr-cache", "-vv"}, sim->socket()),
                             freeIpmiFields(own.texts), "FRU Inventory");
        return now;
    }

    TempDir dir;
    std::string ipmitool;
    std::string ipmiFru;
    BuiltFru pni;
    BuiltFru own;
    std::unique_ptr<BmcSim> sim;
    std::unique_ptr<qelSim::ScopedSocketDevice> device;
};

}  // namespace

// ---------------------------------------------------------------- growth

class FruCrossCheckGrowth : public FruCrossCheck {
protected:
    PniLayout checkedLayout(const std::string& stage) {
        SCOPED_TRACE(stage);
        const Bytes now = crossCheck();
        std::string problem;
        std::optional<PniLayout> layout = qelSim::readPniLayout(now, &problem);
        if (!layout) {
            ADD_FAILURE() << problem;
            return {};
        }
        current = now;
        return *layout;
    }
    Bytes current;
};

// The PNI FRU is device 3 here: the library must follow the locate answer,
// and FRU 0, the controller's own, stays what it was.
TEST_F(FruCrossCheckGrowth, AreasTheLibraryGrewLeaveBothFrusCleanForFruTools) {
    // Three adapters; NICs 1 and 3 hold no address, NIC 2 two IPv4 and one
    // IPv6 address; every NIC area has the least room (45 bytes and padding).
    ASSERT_NO_FATAL_FAILURE(start(built(3, PniImageBuilder::typical().infoTexts(crossCheckTexts())),
                                  built(0, PniImageBuilder().fruSize(512).infoTexts(ownFruTexts()))));
    PniLayout layout = checkedLayout("as built");
    ASSERT_FALSE(HasFailure());

    PniAccess access;
    ASSERT_EQ(access.statusFlags(), PniAccess::statusTableValid | PniAccess::statusConstructed);
    ASSERT_EQ(access.fruDeviceId(), 3);
    ASSERT_EQ(access.endOffset(), pni.image.layout.end);
    unsigned short end = pni.image.layout.end;

    // NIC 1 (first function of the first adapter: every entry behind it moves).
    ASSERT_TRUE(access.setIpv6Address(pniTest::typicalMac(1), ipv6List(1, 6)));
    layout = checkedLayout("six IPv6 addresses on NIC 1");
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(addressCounts(current, layout.function(0, 0, 0)), std::make_pair(0, 6));
    EXPECT_EQ(layout.end, end + 6 * 16) << "NIC 1's area did not grow by its six addresses";
    EXPECT_EQ(access.endOffset(), layout.end);
    end = layout.end;

    // NIC 3 (second function of adapter 1): one IPv4 address, 4 bytes more.
    ASSERT_TRUE(access.setIpv4Address(pniTest::typicalMac(3), IPv4Address("198.51.100.7")));
    layout = checkedLayout("an IPv4 address on NIC 3");
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(addressCounts(current, layout.function(1, 0, 1)), std::make_pair(1, 0));
    EXPECT_EQ(layout.end, end + 4);
    end = layout.end;

    // NIC 2: fifteen IPv6 addresses beside its two IPv4 ones (14 more).
    ASSERT_TRUE(access.setIpv6Address(pniTest::typicalMac(2), ipv6List(2, 15)));
    layout = checkedLayout("fifteen IPv6 addresses on NIC 2");
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(addressCounts(current, layout.function(0, 1, 0)), std::make_pair(2, 15));
    EXPECT_EQ(layout.end, end + 14 * 16);
    end = layout.end;

    // NIC 4, the last entry of the record, found by its other MAC.
    ASSERT_TRUE(access.setIpv4Address(pniTest::typicalMac(4, 0x0b), IPv4Address("198.51.100.8")));
    layout = checkedLayout("an IPv4 address on NIC 4");
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(addressCounts(current, layout.function(2, 0, 1)), std::make_pair(1, 0));
    EXPECT_EQ(layout.end, end + 4);
    end = layout.end;

    // Clearing empties the areas but never shrinks them.
    ASSERT_TRUE(access.clearIpAddressData());
    layout = checkedLayout("addresses cleared");
    ASSERT_FALSE(HasFailure());
    for (const auto& at : {std::make_tuple(0, 0, 0), std::make_tuple(0, 1, 0), std::make_tuple(1, 0, 1),
                           std::make_tuple(2, 0, 1)})
        EXPECT_EQ(addressCounts(current, layout.function(std::get<0>(at), std::get<1>(at), std::get<2>(at))),
                  std::make_pair(0, 0));
    EXPECT_EQ(layout.end, end);
    EXPECT_EQ(access.endOffset(), end);

    // The library's own checks agree: a new object finds the grown record.
    PniAccess again;
    EXPECT_EQ(again.statusFlags(), PniAccess::statusTableValid | PniAccess::statusConstructed);
    EXPECT_EQ(again.endOffset(), end);
    for (const pniTest::LogLine& line : pniTest::syslogLines())
        EXPECT_NE(line.priority, pniTest::logErr) << "the library logged an error: " << line.text;
}

// The checks above catch what this test breaks: without it a clean report
// could come from decoders that check nothing. (ipmitool's "fru print" does
// not look at area checksums, which is why ipmi-fru decodes the copies.)
TEST_F(FruCrossCheck, BrokenBoardAreaChecksumIsReportedByIpmiFruAndTheValidator) {
    BuiltFru broken = built(1, PniImageBuilder::typical().infoTexts(crossCheckTexts()));
    // The first letter of the board manufacturer: 'B' -> 'C'.
    broken.image.bytes.at(broken.image.layout.boardArea + 7) ^= 0x01;
    ASSERT_NO_FATAL_FAILURE(start(broken, built(0, PniImageBuilder().fruSize(512).infoTexts(ownFruTexts()))));

    EXPECT_EQ(qelSim::validatePniImage(deviceBytes(pni)), "board area checksum");
    const std::string copy = dir / "fru-read.bin";
    const ToolRun read = runTool(dir, ipmitool, {"-I", "open", "fru", "read", "1", copy}, sim->socket());
    ASSERT_EQ(read.status, 0) << read.out << read.err;
    const ToolRun decoded = runTool(dir, ipmiFru, {"-vv", "--fru-file=" + copy});
    EXPECT_THAT(decoded.out, HasSubstr("board info area checksum invalid"));
    EXPECT_THAT(complaints(decoded), HasSubstr("checksum"));
    // The other areas still decode.
    EXPECT_EQ(fieldsOf(decoded.out, "FRU Inventory")["FRU Product Name"], "Cross Check Server");
}

// ---------------------------------------------------------------- keywords

namespace {

class FruKeywords : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.ok()); }

    std::string error(const std::string& line) {
        try {
            bmc.applyDescriptionLine(line);
        } catch (const std::invalid_argument& e) {
            return e.what();
        }
        return "<accepted>";
    }

    TempDir dir;
    qelSim::SimBmc bmc;
};

qelSim::Request fruRequest(unsigned char cmd, Bytes data) {
    qelSim::Request r;
    r.netFn = qelIpmi::netfn::storage;
    r.cmd = cmd;
    r.data = std::move(data);
    return r;
}

}  // namespace

TEST_F(FruKeywords, FruImageLoadsTheFileAndFruDeviceIdSetsTheId) {
    const PniImage image = PniImageBuilder::typical().build();
    writeFile(dir / "fru.bin", std::string(image.bytes.begin(), image.bytes.end()));
    bmc.applyDescriptionLine("fru-image " + (dir / "fru.bin"));
    bmc.applyDescriptionLine("fru-device-id 0");
    EXPECT_EQ(bmc.fru().image(), image.bytes);
    EXPECT_EQ(bmc.fru().deviceId(), 0);
    bmc.applyDescriptionLine("fru-device-id 255");
    EXPECT_EQ(bmc.fru().deviceId(), 255);
    bmc.applyDescriptionLine("fru-image none");
    EXPECT_TRUE(bmc.fru().image().empty());
}

TEST_F(FruKeywords, FruImageRejectsMissingEmptyAndOversizeFilesAndKeepsTheImage) {
    bmc.fru().setImage({1, 2, 3});
    EXPECT_EQ(error("fru-image " + (dir / "missing.bin")),
              "fru-image: " + (dir / "missing.bin") + ": No such file or directory");
    writeFile(dir / "empty.bin", "");
    EXPECT_EQ(error("fru-image " + (dir / "empty.bin")), "fru-image: " + (dir / "empty.bin") + " is empty");
    writeFile(dir / "big.bin", std::string(65536, '\0'));
    EXPECT_EQ(error("fru-image " + (dir / "big.bin")),
              "fru-image: " + (dir / "big.bin") + " holds 65536 bytes, above the 65535 a FRU device can address");
    EXPECT_EQ(error("fru-image"), "fru-image takes 1 word");
    EXPECT_EQ(error("fru-image a b"), "fru-image takes 1 word");
    EXPECT_EQ(bmc.fru().image(), (Bytes{1, 2, 3}));
}

TEST_F(FruKeywords, FruDeviceIdRejectsWhatIsNoByte) {
    EXPECT_EQ(error("fru-device-id 256"), "'256' is above 255");
    EXPECT_EQ(error("fru-device-id 0x01"), "'0x01' is no decimal number");
    EXPECT_EQ(error("fru-device-id"), "fru-device-id takes 1 word");
    EXPECT_EQ(bmc.fru().deviceId(), qelSim::SimFru::defaultDeviceId);
}

TEST_F(FruKeywords, FruOtherAddsADeviceThatTheFruCommandsServeAndLocateIgnores) {
    writeFile(dir / "own.bin", std::string("\x01\x02\x03\x04\x05", 5));
    bmc.fru().setImage(Bytes(16, 0xAA));
    bmc.applyDescriptionLine("fru-other 0 " + (dir / "own.bin"));
    EXPECT_EQ(bmc.fru().otherDevice(0), (Bytes{1, 2, 3, 4, 5}));
    qelSim::SimFru& fru = bmc.fru();
    EXPECT_EQ(fru.inventoryAreaInfo(fruRequest(qelIpmi::cmd::getFruInventoryAreaInfo, {0})),
              (Bytes{0x00, 5, 0, 0}));
    EXPECT_EQ(fru.readFruData(fruRequest(qelIpmi::cmd::readFruData, {0, 1, 0, 8})), (Bytes{0x00, 4, 2, 3, 4, 5}));
    EXPECT_EQ(fru.writeFruData(fruRequest(qelIpmi::cmd::writeFruData, {0, 4, 0, 0x77, 0x88})), (Bytes{0x00, 1}));
    EXPECT_EQ(fru.otherDevice(0), (Bytes{1, 2, 3, 4, 0x77}));
    EXPECT_EQ(fru.image(), Bytes(16, 0xAA)) << "a write to FRU 0 reached the PNI device";
    // Locate names the PNI device only.
    qelSim::Request locate;
    locate.netFn = qelIpmi::netfn::oemPni;
    locate.cmd = qelIpmi::cmd::pniLocate;
    locate.data = {0xFF, 0xFF};
    EXPECT_EQ(fru.pniLocate(locate), (Bytes{0x00, qelSim::SimFru::defaultDeviceId, 16, 0}));
    // The PNI device wins a shared id; "none" removes the other one.
    fru.setDeviceId(0);
    EXPECT_EQ(fru.inventoryAreaInfo(fruRequest(qelIpmi::cmd::getFruInventoryAreaInfo, {0})),
              (Bytes{0x00, 16, 0, 0}));
    fru.setDeviceId(1);
    bmc.applyDescriptionLine("fru-other 0 none");
    EXPECT_TRUE(fru.otherDevice(0).empty());
    EXPECT_EQ(fru.readFruData(fruRequest(qelIpmi::cmd::readFruData, {0, 0, 0, 1})),
              (Bytes{qelIpmi::cc::notPresent}));
}

TEST_F(FruKeywords, FruOtherRejectsBadWords) {
    EXPECT_EQ(error("fru-other 0"), "fru-other takes 2 words");
    EXPECT_EQ(error("fru-other 300 none"), "'300' is above 255");
    EXPECT_EQ(error("fru-other 2 " + (dir / "missing.bin")),
              "fru-other: " + (dir / "missing.bin") + ": No such file or directory");
}

TEST_F(FruKeywords, KeywordListNamesAllThree) {
    std::map<std::string, std::string> usage;
    for (const auto& k : bmc.keywords()) usage.insert(k);
    EXPECT_THAT(usage["fru-image"], HasSubstr("fru-image FILE|none"));
    EXPECT_THAT(usage["fru-device-id"], HasSubstr("fru-device-id N"));
    EXPECT_THAT(usage["fru-other"], HasSubstr("fru-other N FILE|none"));
}

// ---------------------------------------------------------------- builder texts

TEST(FruInfoTexts, DefaultTextsAreTheBuildersOwn) {
    // Images built before the texts could be chosen keep their bytes.
    const Bytes image = PniImageBuilder::typical().build().bytes;
    const Bytes same = PniImageBuilder::typical().infoTexts(FruInfoTexts{}).build().bytes;
    EXPECT_EQ(image, same);
    const std::string text(image.begin(), image.end());
    for (const char* t : {"QEL-CH-0001", "CH0000042", "Example Systems", "QEL Test Board", "BD0000042",
                          "QEL-BD-0001", "QEL Test Server", "QEL-SV-0001", "SV0000042"})
        EXPECT_NE(text.find(t), std::string::npos) << t;
}

TEST(FruInfoTexts, TextsUpTo63BytesFitAndLongerOnesAreRejected) {
    FruInfoTexts t;
    t.boardProduct = std::string(63, 'b');
    const PniImage fits = PniImageBuilder::typical().infoTexts(t).build();
    EXPECT_EQ(qelSim::validatePniImage(fits.bytes), "");
    t.productAssetTag = std::string(64, 'a');
    EXPECT_THROW(PniImageBuilder::typical().infoTexts(t).build(), std::length_error);
}

// A one-byte text would be written C1 'x', and C1 ends the area's fields:
// ipmi-fru then drops every field behind it.
TEST(FruInfoTexts, OneByteTextIsRejectedAsItWouldEndTheFields) {
    FruInfoTexts t;
    t.productVersion = "7";
    EXPECT_THROW(PniImageBuilder::typical().infoTexts(t).build(), std::length_error);
    t.productVersion = "";
    t.productAssetTag = "AT";
    EXPECT_NO_THROW(PniImageBuilder::typical().infoTexts(t).build());
}
