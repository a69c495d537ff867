// The SEL decoder beside an independent one: ipmitool decodes the same
// 16-byte records from a file ("sel readraw"), and the two must agree on
// every record's sensor type, sensor number, state and direction, on OEM
// records' bytes and on the kernel's panic text.
//
// ipmitool opens its IPMI device before it reads the file (it also asks the
// controller for SDRs to name sensors), so it runs against qel-bmcsim through
// the preload library; the controller's answers do not change the decoding
// (it holds no SDR repository, so no sensor gets a name).
//
// Where ipmitool words a state or a sensor type differently from the
// standard's table, the difference is listed below with ipmitool's exact text
// and the reason; a difference not listed, or a listed one that went away,
// fails the test. Differences of letter case only are counted, not listed:
// ipmitool capitalises as it likes ("Run-time critical stop" for the
// standard's "Run-time Critical Stop").
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "bmcsimProcess.h"
#include "qelSelText.h"
#include "selTestSupport.h"

using bmcsimTest::BmcSim;
using bmcsimTest::runTool;
using bmcsimTest::TempDir;
using bmcsimTest::ToolRun;
using qelSel::SelRecord;

namespace {

// The full path of a program in $PATH or the system directories; "" when
// there is none.
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

std::string trim(std::string text) {
    text.erase(0, text.find_first_not_of(' '));
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::vector<std::string> columns(const std::string& line) {
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string column; std::getline(in, column, '|');) out.push_back(trim(column));
    return out;
}

std::string hex2(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", value & 0xFF);
    return text;
}

// ipmitool's names for sensor types where they are not the standard's.
// All are ipmitool's own short forms of the same names.
const std::map<uint8_t, std::string> kIpmitoolSensorTypeNames = {
    {0x0B, "Other"},
    {0x0D, "Drive Slot / Bay"},
    {0x0F, "System Firmwares"},
    {0x11, "Watchdog1"},
    {0x14, "Button"},
    {0x15, "Module / Board"},
    {0x16, "Microcontroller"},
    {0x1B, "Cable / Interconnect"},
    {0x21, "Slot / Connector"},
    {0x23, "Watchdog2"},
    {0x28, "Management Subsys Health"},
};

// A state: the sensor type for sensor-specific states, 0x100 + the event
// type for generic ones; and the offset.
using StateKey = std::pair<int, int>;
constexpr int generic(int eventType) { return 0x100 + eventType; }

// ipmitool's texts for states where they are not the standard's (beyond
// letter case), with the reason.
const std::map<StateKey, std::string> kIpmitoolStates = {
    // ipmitool shortens the standard's text: it drops the sensor type the
    // line already names ("Power Supply Failure detected" on a Power Supply
    // sensor), explanations in parentheses, and words it finds redundant.
    {{0x07, 0x04}, "FRB3/Processor startup/init failure"},
    {{0x07, 0x07}, "Presence detected"},
    {{0x07, 0x08}, "Disabled"},
    {{0x07, 0x0A}, "Throttled"},
    {{0x08, 0x01}, "Failure detected"},
    {{0x08, 0x07}, "Power Supply Inactive"},
    {{0x09, 0x06}, "Failure detected"},
    {{0x0C, 0x00}, "Correctable ECC"},
    {{0x0C, 0x01}, "Uncorrectable ECC"},
    {{0x0C, 0x03}, "Memory Scrub Failed"},
    {{0x0C, 0x05}, "Correctable ECC logging limit reached"},
    {{0x0C, 0x09}, "Throttled"},
    {{0x0D, 0x04}, "Parity Check In Progress"},
    {{0x0D, 0x07}, "Rebuild In Progress"},
    {{0x0D, 0x08}, "Rebuild Aborted"},
    {{0x11, 0x00}, "BIOS Reset"},
    {{0x11, 0x01}, "OS Reset"},
    {{0x11, 0x02}, "OS Shut Down"},
    {{0x11, 0x03}, "OS Power Down"},
    {{0x11, 0x04}, "OS Power Cycle"},
    {{0x11, 0x05}, "OS NMI/Diag Interrupt"},
    {{0x11, 0x06}, "OS Expired"},
    {{0x11, 0x07}, "OS pre-timeout Interrupt"},
    {{0x12, 0x05}, "Timestamp Clock Sync"},
    {{0x13, 0x00}, "NMI/Diag Interrupt"},
    {{0x13, 0x06}, "EISA failsafe timeout"},
    {{0x13, 0x09}, "Fatal NMI"},
    {{0x13, 0x0B}, "Bus Degraded"},
    {{0x14, 0x03}, "FRU Latch"},
    {{0x14, 0x04}, "FRU Service"},
    {{0x1B, 0x00}, "Connected"},
    {{0x1D, 0x05}, "OS initiated hard reset"},
    {{0x1D, 0x06}, "OS initiated warm reset"},
    {{0x1E, 0x04}, "Timeout waiting for selection"},
    {{0x1F, 0x06}, "boot completed - device not specified"},
    {{0x1F, 0x07}, "Installation started"},
    {{0x1F, 0x08}, "Installation completed"},
    {{0x1F, 0x09}, "Installation aborted"},
    {{0x1F, 0x0A}, "Installation failed"},
    {{0x21, 0x00}, "Fault Status"},
    {{0x21, 0x01}, "Identify Status"},
    {{0x21, 0x02}, "Device Installed"},
    {{0x21, 0x03}, "Ready for Device Installation"},
    {{0x21, 0x04}, "Ready for Device Removal"},
    {{0x21, 0x06}, "Device Removal Request"},
    {{0x21, 0x07}, "Interlock"},
    {{0x21, 0x09}, "Spare Device"},
    {{0x22, 0x06}, "S4/S5: soft-off"},
    {{0x22, 0x08}, "Sleeping in S1/S2/S3 state"},
    {{0x22, 0x09}, "G1: sleeping"},
    {{0x23, 0x00}, "Timer expired"},
    {{0x25, 0x00}, "Present"},
    {{0x25, 0x01}, "Absent"},
    {{0x25, 0x02}, "Disabled"},
    {{0x27, 0x00}, "Heartbeat Lost"},
    {{0x27, 0x01}, "Heartbeat"},
    {{0x29, 0x00}, "Low"},
    {{0x29, 0x01}, "Failed"},
    {{0x29, 0x02}, "Presence Detected"},
    {{0x2B, 0x00}, "Hardware change detected"},
    {{0x2B, 0x02}, "Hardware incompatibility detected"},
    {{0x2B, 0x03}, "Firmware or software incompatibility detected"},
    {{0x2B, 0x04}, "Invalid or unsupported hardware version"},
    {{0x2B, 0x05}, "Invalid or unsupported firmware or software version"},
    {{0x2B, 0x06}, "Hardware change success"},
    {{0x2C, 0x00}, "Not Installed"},
    {{0x2C, 0x01}, "Inactive"},
    {{0x2C, 0x02}, "Activation Requested"},
    {{0x2C, 0x03}, "Activation in Progress"},
    {{0x2C, 0x04}, "Active"},
    {{0x2C, 0x05}, "Deactivation Requested"},
    {{0x2C, 0x06}, "Deactivation in Progress"},
    {{0x2C, 0x07}, "Communication lost"},
    {{generic(0x08), 0x00}, "Device Absent"},
    {{generic(0x08), 0x01}, "Device Present"},
    {{generic(0x0B), 0x03}, "Non-Redundant: Sufficient from Redundant"},
    {{generic(0x0B), 0x04}, "Non-Redundant: Sufficient from Insufficient"},

    // ipmitool's own wording for the same state.
    {{0x05, 0x04}, "System unplugged from LAN"},
    {{0x06, 0x00}, "Front Panel Lockout violation attempted"},
    {{0x06, 0x02}, "Pre-boot password violation - setup password"},
    {{0x07, 0x06}, "SM BIOS Uncorrectable CPU-complex Error"},
    {{0x07, 0x0B}, "Uncorrectable machine check exception"},
    {{0x08, 0x03}, "Power Supply AC lost"},
    {{0x08, 0x04}, "AC lost or out-of-range"},
    {{0x08, 0x05}, "AC out-of-range, but present"},
    {{0x08, 0x06}, "Config Error"},
    {{0x09, 0x00}, "Power off/down"},
    {{0x09, 0x04}, "AC lost"},
    {{0x09, 0x05}, "Soft-power control failure"},
    {{0x0D, 0x00}, "Drive Present"},
    {{0x10, 0x01}, "Event logging disabled"},
    {{0x10, 0x04}, "Log full"},
    {{0x10, 0x05}, "Log almost full"},
    {{0x1B, 0x01}, "Config Error"},
    {{0x1E, 0x01}, "Non-bootable disk in drive"},
    {{0x20, 0x00}, "Error during system startup"},
    {{0x20, 0x04}, "PEF initiated soft shutdown"},
    {{0x22, 0x00}, "S0/G0: working"},
    {{0x22, 0x01}, "S1: sleeping with system hw & processor context maintained"},
    {{0x22, 0x02}, "S2: sleeping, processor context lost"},
    {{0x22, 0x03}, "S3: sleeping, processor & hw context lost, memory retained"},
    {{0x22, 0x04}, "S4: non-volatile sleep/suspend-to-disk"},
    {{0x22, 0x05}, "S5/G2: soft-off"},
    {{0x22, 0x07}, "G3: mechanical off"},
    {{0x22, 0x0A}, "S5: entered by override"},

    // ipmitool names a System Firmware Progress event by its event data 2
    // code, and says "Unknown" when event data 1 leaves it unspecified; the
    // decoder names the offset's state and adds the code when there is one.
    {{0x0F, 0x00}, "Unknown Error"},
    {{0x0F, 0x01}, "Unknown Hang"},
    {{0x0F, 0x02}, "Unknown Progress"},

    // ipmitool has no text for these states (newer rows of the table, or
    // rows it keys to a particular event data 2 value).
    {{0x10, 0x06}, ""},
    {{0x2A, 0x00}, ""},
    {{0x2A, 0x01}, ""},
    {{0x2A, 0x02}, ""},
    {{0x2A, 0x03}, ""},
    {{0x2B, 0x01}, ""},
    {{0x2B, 0x07}, ""},
};

class SelCrossCheck : public testing::Test {
protected:
    void SetUp() override {
        ipmitool = programPath("ipmitool");
        ASSERT_FALSE(ipmitool.empty())
            << "ipmitool is not installed; scripts/install-deps.sh installs it (Debian package ipmitool)";
        ASSERT_TRUE(dir.ok()) << "no temporary directory: " << std::strerror(errno);
        ASSERT_TRUE(sim.ready()) << sim.errors();
    }

    // ipmitool's lines for `records`, by record ID (its first column, hex).
    std::map<unsigned, std::vector<std::string>> ipmitoolLines(const std::vector<SelRecord>& records) {
        std::string bytes;
        for (const SelRecord& r : records) bytes.append(r.raw.begin(), r.raw.end());
        {
            std::ofstream out(dir / "sel.bin", std::ios::binary | std::ios::trunc);
            out << bytes;
        }
        const ToolRun run = runTool(dir, ipmitool, {"sel", "readraw", dir / "sel.bin"}, sim.socket());
        EXPECT_EQ(run.status, 0) << run.command << "\n" << run.err;
        std::map<unsigned, std::vector<std::string>> lines;
        std::istringstream in(run.out);
        for (std::string line; std::getline(in, line);) {
            const std::vector<std::string> cols = columns(line);
            if (cols.size() < 2) continue;
            lines[static_cast<unsigned>(std::stoul(cols[0], nullptr, 16))] = cols;
        }
        return lines;
    }

    std::string ipmitool;
    TempDir dir;
    BmcSim sim{dir};
};

TEST_F(SelCrossCheck, EveryStandardStateReadsTheSameInIpmitool) {
    const std::vector<SelRecord> corpus = selTest::everyStandardState();
    const auto lines = ipmitoolLines(corpus);
    ASSERT_EQ(lines.size(), corpus.size());

    std::map<StateKey, std::string> listedButEqual;
    std::size_t same = 0, caseOnly = 0, listed = 0;
    for (const SelRecord& r : corpus) {
        SCOPED_TRACE("record " + std::to_string(r.recordId) + ": " + qelSel::eventText(r));
        const auto found = lines.find(r.recordId);
        ASSERT_NE(found, lines.end());
        const std::vector<std::string>& cols = found->second;
        // id | date | time | "<sensor type> #0xNN" | state | direction
        ASSERT_EQ(cols.size(), 6u);

        const std::string sensor = cols[3];
        const std::size_t hash = sensor.rfind(" #0x");
        ASSERT_NE(hash, std::string::npos) << sensor;
        const std::string typeName = sensor.substr(0, hash);
        const auto listedName = kIpmitoolSensorTypeNames.find(r.sensorType);
        EXPECT_EQ(typeName, listedName != kIpmitoolSensorTypeNames.end()
                                ? listedName->second
                                : std::string(qelSel::sensorTypeName(r.sensorType)));
        EXPECT_EQ(lower(sensor.substr(hash + 2)), lower(hex2(r.sensorNumber)));

        const uint8_t offset = r.eventData[0] & 0x0F;
        const StateKey key{r.eventType == 0x6F ? int(r.sensorType) : generic(r.eventType), offset};
        const std::string ours = qelSel::eventStateText(r.eventType, r.sensorType, offset);
        const std::string theirs = cols[4];
        const auto difference = kIpmitoolStates.find(key);
        if (difference != kIpmitoolStates.end()) {
            EXPECT_EQ(theirs, difference->second) << "ours: " << ours;
            if (lower(theirs) == lower(ours)) listedButEqual[key] = theirs;
            ++listed;
        } else if (theirs == ours) {
            ++same;
        } else {
            EXPECT_EQ(lower(theirs), lower(ours)) << "a difference that is not listed";
            ++caseOnly;
        }

        EXPECT_EQ(cols[5], r.deassertion ? "Deasserted" : "Asserted");
    }
    EXPECT_TRUE(listedButEqual.empty()) << "listed as different but the same: " << listedButEqual.size();
    // Most states read the same; what differs is listed above.
    std::printf("states: %zu the same, %zu in letter case only, %zu listed as ipmitool's wording\n",
                same, caseOnly, listed);
    EXPECT_GT(same + caseOnly, listed);
}

// ipmitool's verbose form names a system event's facts one per line; they are
// the journal fields' facts in ipmitool's notation (hex without "0x", lower
// case). Its timestamp line is left out: it prints the date twice and no time.
TEST_F(SelCrossCheck, SystemEventFactsAreTheJournalFieldsInIpmitool) {
    std::vector<SelRecord> records = selTest::everyStandardState();
    std::mt19937 random(7);
    std::uniform_int_distribution<int> byte(0, 255);
    for (uint16_t id = static_cast<uint16_t>(records.size() + 1); records.size() < 800; ++id) {
        selTest::Event e;
        e.id = id;
        e.generatorId = static_cast<uint16_t>(byte(random) | (byte(random) << 8));
        e.sensorType = static_cast<uint8_t>(byte(random));
        e.sensorNumber = static_cast<uint8_t>(byte(random));
        e.eventType = static_cast<uint8_t>(byte(random) & 0x7F);
        e.deassertion = byte(random) & 1;
        e.data1 = static_cast<uint8_t>(byte(random));
        e.data2 = static_cast<uint8_t>(byte(random));
        e.data3 = static_cast<uint8_t>(byte(random));
        records.push_back(selTest::recordOf(e));
    }

    std::string bytes;
    for (const SelRecord& r : records) bytes.append(r.raw.begin(), r.raw.end());
    {
        std::ofstream out(dir / "sel.bin", std::ios::binary | std::ios::trunc);
        out << bytes;
    }
    const ToolRun run = runTool(dir, ipmitool, {"-v", "sel", "readraw", dir / "sel.bin"}, sim.socket());
    ASSERT_EQ(run.status, 0) << run.command << "\n" << run.err;
    // "SEL Record ID          : 0001" starts a record; " Name : value" follow.
    std::map<unsigned, std::map<std::string, std::string>> theirs;
    std::map<std::string, std::string>* current = nullptr;
    std::istringstream in(run.out);
    for (std::string line; std::getline(in, line);) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        const std::string name = trim(line.substr(0, colon));
        const std::string value = trim(line.substr(colon + 1));
        if (name == "SEL Record ID") current = &theirs[static_cast<unsigned>(std::stoul(value, nullptr, 16))];
        if (current != nullptr) (*current)[name] = value;
    }
    ASSERT_EQ(theirs.size(), records.size());

    for (const SelRecord& r : records) {
        SCOPED_TRACE(qelSel::eventText(r));
        std::map<std::string, std::string> ours;
        for (const qelSel::JournalField& f : qelSel::journalFields(r)) ours[f.name] = lower(f.value);
        const std::map<std::string, std::string>& t = theirs.at(r.recordId);
        EXPECT_EQ(t.at("SEL Record ID"), ours.at("QEL_SEL_RECORD_ID").substr(2));
        EXPECT_EQ(t.at("Record Type"), ours.at("QEL_SEL_RECORD_TYPE").substr(2));
        EXPECT_EQ(t.at("Generator ID"), ours.at("QEL_SEL_GENERATOR_ID").substr(2));
        EXPECT_EQ(t.at("Sensor Number"), ours.at("QEL_SEL_SENSOR_NUMBER").substr(2));
        EXPECT_EQ(t.at("Event Direction"), ours.at("QEL_SEL_EVENT_DIRECTION") == "assertion"
                                               ? "Assertion Event"
                                               : "Deassertion Event");
        EXPECT_EQ(t.at("Event Data"), ours.at("QEL_SEL_EVENT_DATA"));
    }
}

TEST_F(SelCrossCheck, OemRecordsCarryTheSameBytesInIpmitool) {
    const std::vector<SelRecord> records = {
        selTest::oemRecord(1, 0xC1, {0x00, 0x00, 0x00, 0x60, 0x34, 0x12, 0x00, 1, 2, 3, 4, 5, 6}),
        selTest::oemRecord(2, 0xDF, {0x00, 0x10, 0x00, 0x60, 0xAB, 0xCD, 0xEF, 0xFF, 0, 0x7F, 0x80, 9, 10}),
        selTest::oemRecord(3, 0xE1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}),
        selTest::oemRecord(4, 0xFF, {0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA, 0x99, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33}),
    };
    const auto lines = ipmitoolLines(records);
    ASSERT_EQ(lines.size(), records.size());
    for (const SelRecord& r : records) {
        SCOPED_TRACE(qelSel::eventText(r));
        const std::vector<std::string>& cols = lines.at(r.recordId);
        std::map<std::string, std::string> fields;
        for (const qelSel::JournalField& f : qelSel::journalFields(r)) fields[f.name] = f.value;
        if (qelSel::isOemTimestamped(r.recordType)) {
            // id | date | time | "OEM record c1" | manufacturer (wire order) | data
            ASSERT_EQ(cols.size(), 6u);
            EXPECT_EQ(cols[3], "OEM record " + lower(hex2(r.recordType).substr(2)));
            const std::string wire = fields.at("QEL_SEL_MANUFACTURER_ID").substr(2);
            EXPECT_EQ(cols[4], lower(wire.substr(4, 2) + wire.substr(2, 2) + wire.substr(0, 2)));
            EXPECT_EQ(cols[5], lower(fields.at("QEL_SEL_OEM_DATA")));
        } else {
            // id | "OEM record e1" | data
            ASSERT_EQ(cols.size(), 3u);
            EXPECT_EQ(cols[1], "OEM record " + lower(hex2(r.recordType).substr(2)));
            EXPECT_EQ(cols[2], lower(fields.at("QEL_SEL_OEM_DATA")));
        }
    }
}

// ipmitool shows each of the kernel's 0xF0 pieces as "Linux kernel panic:
// <piece>"; put together they are the message the assembler gives.
TEST_F(SelCrossCheck, TheKernelPanicMessageIsTheOneIpmitoolShowsInPieces) {
    const std::string message = "Attempted to kill init! exitcode=0x00000009";
    std::vector<SelRecord> records = {selTest::kernelPanicEvent(1, message)};
    for (const SelRecord& piece : selTest::kernelPanicPieces(2, message)) records.push_back(piece);
    const auto lines = ipmitoolLines(records);
    ASSERT_EQ(lines.size(), records.size());

    const std::vector<std::string>& stop = lines.at(1);
    ASSERT_EQ(stop.size(), 6u);
    EXPECT_EQ(stop[3], "OS Critical Stop #0x41");  // 'A', the message's first character
    EXPECT_EQ(lower(stop[4]), lower(qelSel::eventStateText(0x6F, 0x20, 0x01)));

    std::string theirs;
    for (std::size_t i = 1; i < records.size(); ++i) {
        const std::vector<std::string>& cols = lines.at(records[i].recordId);
        ASSERT_EQ(cols.size(), 2u);
        const std::string prefix = "Linux kernel panic: ";
        ASSERT_EQ(cols[1].rfind(prefix, 0), 0u) << cols[1];
        theirs += cols[1].substr(prefix.size());
    }
    qelSel::PanicAssembler assembler;
    std::vector<qelSel::DecodedEvent> events;
    for (const SelRecord& r : records)
        for (qelSel::DecodedEvent& e : assembler.feed(r)) events.push_back(std::move(e));
    for (qelSel::DecodedEvent& e : assembler.flush()) events.push_back(std::move(e));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].text, "The previous boot ended in a kernel panic: " + theirs);
    EXPECT_EQ(theirs, message);
}

}  // namespace
