// The SEL decoder: the standard's tables of event states (every offset of
// every standard sensor type and generic event/reading type, both
// directions), event data 2 and 3 where the tables give them a meaning, the
// severity rule and its journal priorities, the one-line text and the journal
// fields, OEM and unknown records, the kernel's panic records assembled into
// one event, and the escaping of everything the controller supplies. The texts
// of the standard are fixed, so whole strings are compared.
#include "qelSelText.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "selTestSupport.h"

namespace {

using qelSel::DecodedEvent;
using qelSel::JournalField;
using qelSel::PanicAssembler;
using qelSel::SelRecord;
using qelSel::Severity;
using selTest::Event;
using selTest::recordOf;

std::string textOf(const Event& e, const std::string& name = {}) {
    return qelSel::eventText(recordOf(e), name);
}

Severity severityOf(const Event& e) { return qelSel::severityOf(recordOf(e)); }

std::map<std::string, std::string> fieldMap(const std::vector<JournalField>& fields) {
    std::map<std::string, std::string> out;
    for (const JournalField& f : fields) out[f.name] = f.value;
    return out;
}

// True when `text` holds no byte below 0x20 and no DEL.
bool hasNoControlBytes(const std::string& text) {
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7F) return false;
    return true;
}

Event memory(uint8_t offset, uint8_t data1High = 0x00, uint8_t data2 = 0xFF, uint8_t data3 = 0xFF) {
    Event e;
    e.sensorType = 0x0C;
    e.sensorNumber = 0x12;
    e.data1 = static_cast<uint8_t>(data1High | offset);
    e.data2 = data2;
    e.data3 = data3;
    return e;
}

Event specific(uint8_t sensorType, uint8_t offset, uint8_t data1High = 0x00, uint8_t data2 = 0xFF,
               uint8_t data3 = 0xFF) {
    Event e;
    e.sensorType = sensorType;
    e.sensorNumber = 0x05;
    e.data1 = static_cast<uint8_t>(data1High | offset);
    e.data2 = data2;
    e.data3 = data3;
    return e;
}

Event threshold(uint8_t offset, bool deassertion = false, uint8_t data1High = 0x50,
                uint8_t reading = 0x59, uint8_t limit = 0x50) {
    Event e;
    e.sensorType = 0x01;
    e.sensorNumber = 0x30;
    e.eventType = 0x01;
    e.deassertion = deassertion;
    e.data1 = static_cast<uint8_t>(data1High | offset);
    e.data2 = reading;
    e.data3 = limit;
    return e;
}

// ------------------------------------------------------------- the tables

TEST(SelTables, SensorTypeNamesAreTheStandardOnesInCodeOrder) {
    const std::vector<std::string> expected = {
        "Temperature", "Voltage", "Current", "Fan", "Physical Security", "Platform Security",
        "Processor", "Power Supply", "Power Unit", "Cooling Device", "Other Units Based Sensor",
        "Memory", "Drive Slot/Bay", "POST Memory Resize", "System Firmware Progress",
        "Event Logging Disabled", "Watchdog 1", "System Event", "Critical Interrupt",
        "Button/Switch", "Module/Board", "Microcontroller/Coprocessor", "Add-in Card", "Chassis",
        "Chip Set", "Other FRU", "Cable/Interconnect", "Terminator", "System Boot Initiated",
        "Boot Error", "OS Boot", "OS Critical Stop", "Slot/Connector", "System ACPI Power State",
        "Watchdog 2", "Platform Alert", "Entity Presence", "Monitor ASIC/IC", "LAN",
        "Management Subsystem Health", "Battery", "Session Audit", "Version Change", "FRU State"};
    ASSERT_EQ(expected.size(), 0x2Cu);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const uint8_t code = static_cast<uint8_t>(i + 1);
        ASSERT_NE(qelSel::sensorTypeName(code), nullptr) << int(code);
        EXPECT_EQ(qelSel::sensorTypeName(code), expected[i]) << int(code);
        EXPECT_EQ(qelSel::sensorTypeText(code), expected[i]);
    }
}

TEST(SelTables, ReservedAndOemSensorTypesHaveNoNameButTheirNumber) {
    EXPECT_EQ(qelSel::sensorTypeName(0x00), nullptr);
    EXPECT_EQ(qelSel::sensorTypeName(0x2D), nullptr);
    EXPECT_EQ(qelSel::sensorTypeName(0xC0), nullptr);
    EXPECT_EQ(qelSel::sensorTypeText(0x00), "sensor type 0x00");
    EXPECT_EQ(qelSel::sensorTypeText(0x2D), "sensor type 0x2D");
    EXPECT_EQ(qelSel::sensorTypeText(0xBF), "sensor type 0xBF");
    EXPECT_EQ(qelSel::sensorTypeText(0xC0), "OEM sensor type 0xC0");
    EXPECT_EQ(qelSel::sensorTypeText(0xFF), "OEM sensor type 0xFF");
}

// How many states each table defines, and which offsets are left out: the
// gaps are the standard's, not omissions.
TEST(SelTables, EveryStandardTableHasItsStatesAndNoOthers) {
    const std::map<uint8_t, std::size_t> sensorSpecific = {
        {0x05, 7},  {0x06, 6},  {0x07, 13}, {0x08, 8},  {0x09, 8},  {0x0C, 11}, {0x0D, 9},
        {0x0F, 3},  {0x10, 7},  {0x11, 8},  {0x12, 6},  {0x13, 12}, {0x14, 5},  {0x19, 2},
        {0x1B, 2},  {0x1D, 8},  {0x1E, 5},  {0x1F, 11}, {0x20, 6},  {0x21, 10}, {0x22, 14},
        {0x23, 5},  {0x24, 4},  {0x25, 3},  {0x27, 2},  {0x28, 6},  {0x29, 3},  {0x2A, 4},
        {0x2B, 8},  {0x2C, 8}};
    for (unsigned type = 0; type <= 0xFF; ++type) {
        const auto found = sensorSpecific.find(static_cast<uint8_t>(type));
        const std::size_t expected = found == sensorSpecific.end() ? 0 : found->second;
        const qelSel::StateTable table = qelSel::sensorSpecificStates(static_cast<uint8_t>(type));
        EXPECT_EQ(table.count, expected) << "sensor type " << type;
        int previous = -1;
        for (const qelSel::StateEntry& row : table) {
            EXPECT_GT(int(row.offset), previous) << "offsets in order, type " << type;
            EXPECT_LE(row.offset, 0x0E);
            previous = row.offset;
        }
    }
    const std::map<uint8_t, std::size_t> generic = {{0x01, 12}, {0x02, 3}, {0x03, 2}, {0x04, 2},
                                                    {0x05, 2},  {0x06, 2}, {0x07, 9}, {0x08, 2},
                                                    {0x09, 2},  {0x0A, 9}, {0x0B, 8}, {0x0C, 4}};
    for (unsigned type = 0; type <= 0x7F; ++type) {
        const auto found = generic.find(static_cast<uint8_t>(type));
        EXPECT_EQ(qelSel::genericStates(static_cast<uint8_t>(type)).count,
                  found == generic.end() ? 0u : found->second)
            << "event type " << type;
    }
    EXPECT_EQ(qelSel::sensorSpecificStates(0x22).find(0x0D), nullptr);
    EXPECT_EQ(qelSel::sensorSpecificStates(0x23).find(0x04), nullptr);
    EXPECT_EQ(qelSel::sensorSpecificStates(0x23).find(0x07), nullptr);
    ASSERT_NE(qelSel::sensorSpecificStates(0x23).find(0x08), nullptr);
}

TEST(SelTables, EventStateTextLooksUpTheGenericOrTheSensorSpecificTable) {
    EXPECT_STREQ(qelSel::eventStateText(0x6F, 0x0C, 0x00),
                 "Correctable ECC / other correctable memory error");
    EXPECT_STREQ(qelSel::eventStateText(0x6F, 0x0C, 0x01),
                 "Uncorrectable ECC / other uncorrectable memory error");
    EXPECT_STREQ(qelSel::eventStateText(0x6F, 0x08, 0x01), "Power Supply Failure detected");
    EXPECT_STREQ(qelSel::eventStateText(0x6F, 0x1F, 0x01), "C: boot completed");
    EXPECT_STREQ(qelSel::eventStateText(0x6F, 0x20, 0x01), "Run-time Critical Stop");
    EXPECT_STREQ(qelSel::eventStateText(0x6F, 0x2C, 0x07), "FRU Communication Lost");
    EXPECT_STREQ(qelSel::eventStateText(0x01, 0x01, 0x09), "Upper Critical going high");
    EXPECT_STREQ(qelSel::eventStateText(0x01, 0x02, 0x00), "Lower Non-critical going low");
    EXPECT_STREQ(qelSel::eventStateText(0x07, 0x12, 0x02), "transition to Critical from less severe");
    EXPECT_STREQ(qelSel::eventStateText(0x0B, 0x04, 0x01), "Redundancy Lost");
    EXPECT_STREQ(qelSel::eventStateText(0x0C, 0x12, 0x03), "D3 Power State");
    // The direction bit is not part of the event/reading type.
    EXPECT_STREQ(qelSel::eventStateText(0x80 | 0x6F, 0x0C, 0x00),
                 "Correctable ECC / other correctable memory error");
    EXPECT_EQ(qelSel::eventStateText(0x6F, 0x0C, 0x0B), nullptr);
    EXPECT_EQ(qelSel::eventStateText(0x6F, 0x01, 0x00), nullptr);
    EXPECT_EQ(qelSel::eventStateText(0x6F, 0xC0, 0x00), nullptr);
    EXPECT_EQ(qelSel::eventStateText(0x70, 0x0C, 0x00), nullptr);
    EXPECT_EQ(qelSel::eventStateText(0x00, 0x0C, 0x00), nullptr);
    EXPECT_EQ(qelSel::eventStateText(0x0D, 0x0C, 0x00), nullptr);
}

// ---------------------------------------------- every offset, generated

// Every state of every standard table, asserted and deasserted, decodes to
// its sensor type, number, state and direction and nothing more (event data
// 2 and 3 unspecified), with the state and direction in the fields.
TEST(SelText, EveryStandardStateDecodesInBothDirections) {
    const std::vector<SelRecord> corpus = selTest::everyStandardState();
    ASSERT_EQ(corpus.size(), 2u * (12 + 3 + 2 + 2 + 2 + 2 + 9 + 2 + 2 + 9 + 8 + 4 + 204));
    std::set<std::pair<int, int>> seen;
    for (const SelRecord& r : corpus) {
        const uint8_t offset = r.eventData[0] & 0x0F;
        const char* state = qelSel::eventStateText(r.eventType, r.sensorType, offset);
        ASSERT_NE(state, nullptr);
        const std::string expected = std::string(qelSel::sensorTypeName(r.sensorType)) +
                                     " #0x10: " + state +
                                     (r.deassertion ? ", deasserted" : ", asserted");
        EXPECT_EQ(qelSel::eventText(r), expected);
        const auto fields = fieldMap(qelSel::journalFields(r));
        EXPECT_EQ(fields.at("QEL_SEL_EVENT_STATE"), state);
        EXPECT_EQ(fields.at("QEL_SEL_EVENT_DIRECTION"), r.deassertion ? "deassertion" : "assertion");
        seen.insert({r.eventType == 0x6F ? r.sensorType : 0x100 + r.eventType, offset});
    }
    EXPECT_EQ(seen.size(), corpus.size() / 2);
}

// Offsets no table defines still decode, by their number, and draw a
// warning: the record is damaged or from a newer standard.
TEST(SelText, UndefinedOffsetsOfEveryStandardTableShowTheirNumber) {
    for (unsigned type = 0x01; type <= 0x2C; ++type) {
        for (uint8_t offset = 0; offset <= 0x0F; ++offset) {
            if (qelSel::sensorSpecificStates(static_cast<uint8_t>(type)).find(offset)) continue;
            Event e = specific(static_cast<uint8_t>(type), offset);
            const std::string hexOffset = offset < 10 ? "0x0" + std::to_string(offset)
                                                      : std::string("0x0") + char('A' + offset - 10);
            EXPECT_EQ(textOf(e), std::string(qelSel::sensorTypeName(static_cast<uint8_t>(type))) +
                                     " #0x05: sensor-specific offset " + hexOffset + ", asserted");
            EXPECT_EQ(severityOf(e), Severity::Warning);
        }
    }
    Event generic = specific(0x12, 0x0D);
    generic.eventType = 0x0B;
    EXPECT_EQ(textOf(generic), "System Event #0x05: offset 0x0D, asserted");
    EXPECT_EQ(severityOf(generic), Severity::Warning);
}

// ------------------------------------------------------- hand-picked texts

TEST(SelText, HandPickedRecordsReadAsTheStandardSays) {
    EXPECT_EQ(textOf(memory(0x00)),
              "Memory #0x12: Correctable ECC / other correctable memory error, asserted");
    EXPECT_EQ(textOf(specific(0x07, 0x00)), "Processor #0x05: IERR, asserted");
    EXPECT_EQ(textOf(specific(0x07, 0x0C)),
              "Processor #0x05: Correctable Machine Check Error, asserted");
    EXPECT_EQ(textOf(specific(0x08, 0x01)),
              "Power Supply #0x05: Power Supply Failure detected, asserted");
    EXPECT_EQ(textOf(specific(0x05, 0x00)), "Physical Security #0x05: General Chassis Intrusion, asserted");
    EXPECT_EQ(textOf(specific(0x11, 0x01)), "Watchdog 1 #0x05: OS Watchdog Reset, asserted");
    EXPECT_EQ(textOf(specific(0x13, 0x09)),
              "Critical Interrupt #0x05: Fatal NMI (port 61h, bit 7), asserted");
    EXPECT_EQ(textOf(specific(0x1F, 0x06)),
              "OS Boot #0x05: boot completed - boot device not specified, asserted");
    EXPECT_EQ(textOf(specific(0x20, 0x03)), "OS Critical Stop #0x05: OS Graceful Shutdown, asserted");
    EXPECT_EQ(textOf(specific(0x22, 0x00)), "System ACPI Power State #0x05: S0 / G0 \"working\", asserted");
    EXPECT_EQ(textOf(specific(0x22, 0x0E)), "System ACPI Power State #0x05: Unknown, asserted");
    EXPECT_EQ(textOf(specific(0x23, 0x08)), "Watchdog 2 #0x05: Timer interrupt, asserted");
    EXPECT_EQ(textOf(specific(0x29, 0x01)), "Battery #0x05: battery failed, asserted");
    EXPECT_EQ(textOf(specific(0x2A, 0x02)), "Session Audit #0x05: Invalid Username or Password, asserted");
    Event removed = specific(0x25, 0x00);
    removed.deassertion = true;
    EXPECT_EQ(textOf(removed), "Entity Presence #0x05: Entity Present, deasserted");
}

TEST(SelText, ASensorNameFromTheRepositoryReplacesNothingButAddsItself) {
    EXPECT_EQ(textOf(memory(0x01), "DIMM_A1"),
              "Memory DIMM_A1 (#0x12): Uncorrectable ECC / other uncorrectable memory error, asserted");
    const auto fields = fieldMap(qelSel::journalFields(recordOf(memory(0x01)), "DIMM_A1"));
    EXPECT_EQ(fields.at("QEL_SEL_SENSOR_NAME"), "DIMM_A1");
    EXPECT_EQ(fieldMap(qelSel::journalFields(recordOf(memory(0x01)))).count("QEL_SEL_SENSOR_NAME"), 0u);
}

TEST(SelText, OemAndReservedCodesShowTheirNumbers) {
    Event oemSensor = specific(0xC5, 0x03);
    EXPECT_EQ(textOf(oemSensor), "OEM sensor type 0xC5 #0x05: OEM offset 0x03, asserted");
    EXPECT_EQ(severityOf(oemSensor), Severity::Info);

    Event oemEvent = specific(0x12, 0x02);
    oemEvent.eventType = 0x70;
    EXPECT_EQ(textOf(oemEvent), "System Event #0x05: OEM event type 0x70, offset 0x02, asserted");
    EXPECT_EQ(severityOf(oemEvent), Severity::Info);
    oemEvent.eventType = 0x7F;
    EXPECT_EQ(textOf(oemEvent), "System Event #0x05: OEM event type 0x7F, offset 0x02, asserted");

    Event reservedSensor = specific(0x2D, 0x00);
    EXPECT_EQ(textOf(reservedSensor), "sensor type 0x2D #0x05: sensor-specific offset 0x00, asserted");
    EXPECT_EQ(severityOf(reservedSensor), Severity::Warning);

    Event reservedEvent = specific(0x0C, 0x01);
    reservedEvent.eventType = 0x20;
    EXPECT_EQ(textOf(reservedEvent), "Memory #0x05: event type 0x20, offset 0x01, asserted");
    EXPECT_EQ(severityOf(reservedEvent), Severity::Warning);
    reservedEvent.eventType = 0x00;
    EXPECT_EQ(textOf(reservedEvent), "Memory #0x05: event type 0x00, offset 0x01, asserted");
}

// ------------------------------------------------------------ event data

TEST(SelText, ThresholdEventsShowTheTriggerReadingAndThresholdRaw) {
    EXPECT_EQ(textOf(threshold(0x09)),
              "Temperature #0x30: Upper Critical going high, asserted; trigger reading 0x59, "
              "threshold 0x50");
    EXPECT_EQ(textOf(threshold(0x09), "CPU0 Temp"),
              "Temperature CPU0 Temp (#0x30): Upper Critical going high, asserted; trigger "
              "reading 0x59, threshold 0x50");
    EXPECT_EQ(textOf(threshold(0x02, true, 0x50, 0x12, 0x10)),
              "Temperature #0x30: Lower Critical going low, deasserted; trigger reading 0x12, "
              "threshold 0x10");
    // Only the reading; only the threshold; neither.
    EXPECT_EQ(textOf(threshold(0x07, false, 0x40)),
              "Temperature #0x30: Upper Non-critical going high, asserted; trigger reading 0x59");
    EXPECT_EQ(textOf(threshold(0x07, false, 0x10)),
              "Temperature #0x30: Upper Non-critical going high, asserted; threshold 0x50");
    EXPECT_EQ(textOf(threshold(0x07, false, 0x00)),
              "Temperature #0x30: Upper Non-critical going high, asserted");
    // OEM and sensor-specific bytes are shown as bytes.
    EXPECT_EQ(textOf(threshold(0x07, false, 0xA0)),
              "Temperature #0x30: Upper Non-critical going high, asserted; OEM data 2 0x59; OEM "
              "data 3 0x50");
    EXPECT_EQ(textOf(threshold(0x07, false, 0xF0)),
              "Temperature #0x30: Upper Non-critical going high, asserted; data 2 0x59; data 3 0x50");
}

TEST(SelText, MemoryEventsNameTheModuleInData3) {
    EXPECT_EQ(textOf(memory(0x00, 0x30, 0xFF, 3)),
              "Memory #0x12: Correctable ECC / other correctable memory error, asserted; memory module 3");
    // Data 3 unspecified: no module.
    EXPECT_EQ(textOf(memory(0x00, 0x00, 0xFF, 3)),
              "Memory #0x12: Correctable ECC / other correctable memory error, asserted");
    // Data 3 as an OEM code.
    EXPECT_EQ(textOf(memory(0x00, 0x20, 0xFF, 3)),
              "Memory #0x12: Correctable ECC / other correctable memory error, asserted; OEM data 3 0x03");
}

TEST(SelText, DiscreteData2CanHoldThePreviousStateAndSeverity) {
    EXPECT_EQ(textOf(memory(0x01, 0x40, 0x20)),
              "Memory #0x12: Uncorrectable ECC / other uncorrectable memory error, asserted; previous "
              "state: Correctable ECC / other correctable memory error; severity: transition to "
              "Critical from less severe");
    // 0xF: unspecified.
    EXPECT_EQ(textOf(memory(0x01, 0x40, 0xFF)),
              "Memory #0x12: Uncorrectable ECC / other uncorrectable memory error, asserted");
    EXPECT_EQ(textOf(memory(0x01, 0x40, 0xF0)),
              "Memory #0x12: Uncorrectable ECC / other uncorrectable memory error, asserted; previous "
              "state: Correctable ECC / other correctable memory error");
    EXPECT_EQ(textOf(memory(0x01, 0x40, 0x9E)),
              "Memory #0x12: Uncorrectable ECC / other uncorrectable memory error, asserted; previous "
              "state: 0x0E; severity: 0x09");
}

TEST(SelText, FirmwareProgressNamesTheErrorOrProgressCode) {
    EXPECT_EQ(textOf(specific(0x0F, 0x00, 0xC0, 0x01)),
              "System Firmware Progress #0x05: System Firmware Error (POST Error), asserted; error: No "
              "system memory is physically installed in the system");
    EXPECT_EQ(textOf(specific(0x0F, 0x00, 0xC0, 0x0B)),
              "System Firmware Progress #0x05: System Firmware Error (POST Error), asserted; error: "
              "Firmware (BIOS) ROM corruption detected");
    EXPECT_EQ(textOf(specific(0x0F, 0x00, 0xC0, 0x0E)),
              "System Firmware Progress #0x05: System Firmware Error (POST Error), asserted; error "
              "code 0x0E");
    EXPECT_EQ(textOf(specific(0x0F, 0x01, 0xC0, 0x19)),
              "System Firmware Progress #0x05: System Firmware Hang, asserted; progress: Primary "
              "processor initialization");
    EXPECT_EQ(textOf(specific(0x0F, 0x02, 0xC0, 0x01)),
              "System Firmware Progress #0x05: System Firmware Progress, asserted; progress: Memory "
              "initialization");
    EXPECT_EQ(textOf(specific(0x0F, 0x02, 0xC0, 0x15)),
              "System Firmware Progress #0x05: System Firmware Progress, asserted; progress code 0x15");
    EXPECT_STREQ(qelSel::firmwareProgressText(0x13),
                 "Starting operating system boot process, e.g. calling Int 19h");
    EXPECT_EQ(qelSel::firmwareProgressText(0x1A), nullptr);
    EXPECT_EQ(qelSel::firmwareErrorText(0x0E), nullptr);
}

TEST(SelText, WatchdogTwoNamesTheInterruptAndTimerUse) {
    EXPECT_EQ(textOf(specific(0x23, 0x01, 0xC0, 0x24)),
              "Watchdog 2 #0x05: Hard Reset, asserted; interrupt: NMI, timer use: SMS/OS");
    EXPECT_EQ(textOf(specific(0x23, 0x08, 0xC0, 0x13)),
              "Watchdog 2 #0x05: Timer interrupt, asserted; interrupt: SMI, timer use: OS Load");
    EXPECT_EQ(textOf(specific(0x23, 0x00, 0xC0, 0xFF)),
              "Watchdog 2 #0x05: Timer expired, status only (no action, no interrupt), asserted; "
              "interrupt: unspecified, timer use: unspecified");
    EXPECT_EQ(textOf(specific(0x23, 0x00, 0xC0, 0x70)),
              "Watchdog 2 #0x05: Timer expired, status only (no action, no interrupt), asserted; "
              "interrupt: code 0x7, timer use: code 0x0");
}

TEST(SelText, EventLoggingDisabledSaysWhatStoppedBeingLogged) {
    EXPECT_EQ(textOf(specific(0x10, 0x00, 0xC0, 0x02)),
              "Event Logging Disabled #0x05: Correctable Memory Error Logging Disabled, asserted; "
              "memory module 2");
    EXPECT_EQ(textOf(specific(0x10, 0x01, 0xF0, 0x6F, 0x13)),
              "Event Logging Disabled #0x05: Event 'Type' Logging Disabled, asserted; event type "
              "0x6F; assertion offset 0x03");
    EXPECT_EQ(textOf(specific(0x10, 0x01, 0xF0, 0x01, 0x20)),
              "Event Logging Disabled #0x05: Event 'Type' Logging Disabled, asserted; event type "
              "0x01; all events of that type");
    EXPECT_EQ(textOf(specific(0x10, 0x05, 0x30, 0xFF, 90)),
              "Event Logging Disabled #0x05: SEL Almost Full, asserted; 90% full");
    EXPECT_EQ(textOf(specific(0x10, 0x06, 0xF0, 0x01, 0x80)),
              "Event Logging Disabled #0x05: Correctable Machine Check Error Logging Disabled, "
              "asserted; processor 1");
    EXPECT_EQ(textOf(specific(0x10, 0x06, 0xF0, 0x01, 0x00)),
              "Event Logging Disabled #0x05: Correctable Machine Check Error Logging Disabled, "
              "asserted; entity instance 1");
}

TEST(SelText, SystemEventDataNamesLogActionsPefActionsAndClocks) {
    EXPECT_EQ(textOf(specific(0x12, 0x03, 0xC0, 0x30)),
              "System Event #0x05: Entry added to Auxiliary Log, asserted; MCA log: log cleared");
    EXPECT_EQ(textOf(specific(0x12, 0x04, 0xC0, 0x05)),
              "System Event #0x05: PEF Action, asserted; PEF actions: Alert, reset");
    EXPECT_EQ(textOf(specific(0x12, 0x04, 0xC0, 0x00)),
              "System Event #0x05: PEF Action, asserted; PEF actions: none");
    EXPECT_EQ(textOf(specific(0x12, 0x05, 0xC0, 0x81)),
              "System Event #0x05: Timestamp Clock Synch, asserted; SDR timestamp clock updated, "
              "second of pair");
}

TEST(SelText, OtherSensorSpecificDataIsDecodedWhereTheTablesDefineIt) {
    EXPECT_EQ(textOf(specific(0x05, 0x04, 0xC0, 0x01)),
              "Physical Security #0x05: LAN Leash Lost (system is unplugged from LAN), asserted; "
              "network controller 1");
    EXPECT_EQ(textOf(specific(0x08, 0x06, 0x30, 0xFF, 0x03)),
              "Power Supply #0x05: Configuration error, asserted; error type: Power Supply rating "
              "mismatch");
    EXPECT_EQ(textOf(specific(0x1D, 0x07, 0xF0, 0x02, 0x01)),
              "System Boot Initiated #0x05: System Restart, asserted; restart cause: reset via "
              "pushbutton; channel 1");
    EXPECT_EQ(textOf(specific(0x21, 0x02, 0xF0, 0x09, 0x04)),
              "Slot/Connector #0x05: Slot / Connector Device installed/attached, asserted; slot "
              "type: PCI Express; slot 4");
    EXPECT_EQ(textOf(specific(0x28, 0x04, 0xC0, 0x31)),
              "Management Subsystem Health #0x05: Sensor failure, asserted; sensor 0x31");
    EXPECT_EQ(textOf(specific(0x28, 0x05, 0xF0, 0x8A, 0x02)),
              "Management Subsystem Health #0x05: FRU failure, asserted; logical FRU device, LUN 1, "
              "private bus 2; FRU device ID 2");
    EXPECT_EQ(textOf(specific(0x2A, 0x01, 0xF0, 0x03, 0x21)),
              "Session Audit #0x05: Session Deactivated, asserted; user ID 3; channel 1, deactivated "
              "by timeout");
    EXPECT_EQ(textOf(specific(0x2A, 0x00, 0xF0, 0x00, 0x01)),
              "Session Audit #0x05: Session Activated, asserted; user unspecified; channel 1");
    EXPECT_EQ(textOf(specific(0x2B, 0x01, 0xC0, 0x09)),
              "Version Change #0x05: Firmware or software change detected with associated Entity, "
              "asserted; change type: system firmware (EFI / BIOS) change");
    EXPECT_EQ(textOf(specific(0x2C, 0x04, 0xC0, 0x23)),
              "FRU State #0x05: FRU Active, asserted; cause: State Change due to operator changing a "
              "Handle latch, previous state: FRU Activation In Progress");
    EXPECT_EQ(textOf(specific(0x2C, 0x07, 0xC0, 0xF4)),
              "FRU State #0x05: FRU Communication Lost, asserted; cause: State Change, Cause Unknown, "
              "previous state: FRU Active");
    // A sensor type whose table gives data 2 and 3 no meaning: the bytes.
    EXPECT_EQ(textOf(specific(0x13, 0x04, 0xF0, 0x12, 0x34)),
              "Critical Interrupt #0x05: PCI PERR, asserted; data 2 0x12; data 3 0x34");
}

// -------------------------------------------------------------- severity

TEST(SelSeverity, FollowsTheRuleOnTheExamplesAdministratorsKnow) {
    EXPECT_EQ(severityOf(memory(0x00)), Severity::Warning);   // correctable ECC
    EXPECT_EQ(severityOf(memory(0x01)), Severity::Critical);  // uncorrectable ECC
    EXPECT_EQ(severityOf(specific(0x08, 0x01)), Severity::Critical);  // power supply failure
    EXPECT_EQ(severityOf(threshold(0x09)), Severity::Critical);       // upper critical going high
    EXPECT_EQ(severityOf(threshold(0x0B)), Severity::Critical);       // upper non-recoverable
    EXPECT_EQ(severityOf(threshold(0x04)), Severity::Critical);       // lower non-recoverable
    EXPECT_EQ(severityOf(threshold(0x07)), Severity::Warning);        // upper non-critical
    EXPECT_EQ(severityOf(threshold(0x00)), Severity::Warning);        // lower non-critical
    EXPECT_EQ(severityOf(threshold(0x09, true)), Severity::Info);     // back to normal
    // The reading back on the normal side, and leaving it again.
    EXPECT_EQ(severityOf(threshold(0x08)), Severity::Info);
    EXPECT_EQ(severityOf(threshold(0x08, true)), Severity::Critical);
    for (uint8_t offset = 0; offset <= 0x0A; ++offset)
        EXPECT_EQ(severityOf(specific(0x1F, offset)), Severity::Info) << int(offset);  // OS boot
    EXPECT_EQ(severityOf(specific(0x20, 0x01)), Severity::Critical);  // run-time critical stop
    EXPECT_EQ(severityOf(specific(0x11, 0x01)), Severity::Critical);  // watchdog reset
    EXPECT_EQ(severityOf(specific(0x10, 0x04)), Severity::Warning);   // SEL full
    Event ecc = memory(0x01);
    ecc.deassertion = true;
    EXPECT_EQ(severityOf(ecc), Severity::Info);
    // A power supply that is gone is not back to normal.
    Event supply = specific(0x08, 0x00);
    EXPECT_EQ(severityOf(supply), Severity::Info);
    supply.deassertion = true;
    EXPECT_EQ(severityOf(supply), Severity::Warning);
}

TEST(SelSeverity, MapsToJournalPriorities) {
    EXPECT_EQ(qelSel::journalPriority(Severity::Info), 6);
    EXPECT_EQ(qelSel::journalPriority(Severity::Warning), 4);
    EXPECT_EQ(qelSel::journalPriority(Severity::Critical), 2);
    EXPECT_STREQ(qelSel::severityName(Severity::Info), "info");
    EXPECT_STREQ(qelSel::severityName(Severity::Warning), "warning");
    EXPECT_STREQ(qelSel::severityName(Severity::Critical), "critical");
}

// --------------------------------------------------- timestamps and fields

TEST(SelFields, TimestampsAreUtcPreInitOrUnspecified) {
    EXPECT_EQ(qelSel::timestampText(0x60000000), "2021-01-14T08:25:36Z");
    EXPECT_EQ(qelSel::timestampText(0x20000001), "1987-01-05T18:48:33Z");
    EXPECT_EQ(qelSel::timestampText(0x20000000), "pre-init +536870912 s");
    EXPECT_EQ(qelSel::timestampText(123), "pre-init +123 s");
    EXPECT_EQ(qelSel::timestampText(0), "pre-init +0 s");
    EXPECT_EQ(qelSel::timestampText(0xFFFFFFFF), "unspecified");
    EXPECT_EQ(qelSel::timestampText(0xFFFFFFFE), "2106-02-07T06:28:14Z");
}

TEST(SelFields, TimestampsReadAsStrftimeWritesThemAcrossTheWholeRange) {
    // Leap days, year ends and the last second there is, and every day
    // (a step a second short of one) at a time of day that moves.
    std::vector<uint32_t> times = {0x20000001, 951782400 /* 2000-02-29 */, 951868799, 4107542399u /* 2100-02-28 */,
                                   4107542400u, 1704067199 /* 2023-12-31T23:59:59 */, 0xFFFFFFFE};
    for (uint64_t t = 0x20000001; t < 0xFFFFFFFF; t += 86399) times.push_back(static_cast<uint32_t>(t));
    for (const uint32_t t : times) {
        const std::time_t seconds = t;
        std::tm parts{};
        ASSERT_NE(::gmtime_r(&seconds, &parts), nullptr);
        char expected[32];
        ASSERT_NE(std::strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%SZ", &parts), 0u);
        EXPECT_EQ(qelSel::timestampText(t), expected) << t;
    }
}

TEST(SelFields, ASystemEventGivesEveryFactInAFixedOrder) {
    Event e = memory(0x00, 0x30, 0xFF, 3);
    e.id = 0x0102;
    e.generatorId = 0x0041;
    const std::vector<JournalField> fields = qelSel::journalFields(recordOf(e), "DIMM\nA1");
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"QEL_SEL_RECORD_ID", "0x0102"},
        {"QEL_SEL_RECORD_TYPE", "0x02"},
        {"QEL_SEL_TIMESTAMP", "2021-01-14T08:25:36Z"},
        {"QEL_SEL_GENERATOR_ID", "0x0041"},
        {"QEL_SEL_SENSOR_TYPE", "Memory"},
        {"QEL_SEL_SENSOR_TYPE_CODE", "0x0C"},
        {"QEL_SEL_SENSOR_NUMBER", "0x12"},
        {"QEL_SEL_SENSOR_NAME", "DIMM\\x0AA1"},
        {"QEL_SEL_EVENT_TYPE_CODE", "0x6F"},
        {"QEL_SEL_EVENT_DIRECTION", "assertion"},
        {"QEL_SEL_EVENT_DATA", "30FF03"},
        {"QEL_SEL_EVENT_STATE", "Correctable ECC / other correctable memory error"},
        {"QEL_SEL_SEVERITY", "warning"},
        {"QEL_SEL_RAW", "020102000000604100040C126F30FF03"},
    };
    std::vector<std::pair<std::string, std::string>> actual;
    for (const JournalField& f : fields) actual.emplace_back(f.name, f.value);
    EXPECT_EQ(actual, expected);
    const DecodedEvent decoded = qelSel::decode(recordOf(e), "DIMM\nA1");
    EXPECT_EQ(decoded.recordIds, std::vector<uint16_t>{0x0102});
    EXPECT_EQ(decoded.severity, Severity::Warning);
    EXPECT_EQ(decoded.text, "Memory DIMM\\x0AA1 (#0x12): Correctable ECC / other correctable memory "
                            "error, asserted; memory module 3");
    EXPECT_EQ(decoded.fields.size(), fields.size());
}

TEST(SelFields, DeassertionAndPreInitTimestampInFields) {
    Event e = threshold(0x09, true);
    e.timestamp = 42;
    const auto fields = fieldMap(qelSel::journalFields(recordOf(e)));
    EXPECT_EQ(fields.at("QEL_SEL_TIMESTAMP"), "pre-init +42 s");
    EXPECT_EQ(fields.at("QEL_SEL_EVENT_DIRECTION"), "deassertion");
    EXPECT_EQ(fields.at("QEL_SEL_EVENT_TYPE_CODE"), "0x01");
    EXPECT_EQ(fields.at("QEL_SEL_EVENT_DATA"), "595950");
    EXPECT_EQ(fields.at("QEL_SEL_SEVERITY"), "info");
}

// ------------------------------------------------ OEM and unknown records

TEST(SelText, OemRecordsAreKeptAsTheirBytes) {
    const SelRecord timestamped = selTest::oemRecord(
        7, 0xC1, {0x00, 0x00, 0x00, 0x60, 0x34, 0x12, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06});
    EXPECT_EQ(qelSel::eventText(timestamped),
              "OEM record type 0xC1, manufacturer 0x001234, data 01 02 03 04 05 06");
    EXPECT_EQ(qelSel::severityOf(timestamped), Severity::Info);
    std::vector<std::pair<std::string, std::string>> actual;
    for (const JournalField& f : qelSel::journalFields(timestamped)) actual.emplace_back(f.name, f.value);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"QEL_SEL_RECORD_ID", "0x0007"},
        {"QEL_SEL_RECORD_TYPE", "0xC1"},
        {"QEL_SEL_TIMESTAMP", "2021-01-14T08:25:36Z"},
        {"QEL_SEL_MANUFACTURER_ID", "0x001234"},
        {"QEL_SEL_OEM_DATA", "010203040506"},
        {"QEL_SEL_SEVERITY", "info"},
        {"QEL_SEL_RAW", "0700C100000060341200010203040506"},
    };
    EXPECT_EQ(actual, expected);

    const SelRecord plain = selTest::oemRecord(8, 0xE0, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13});
    EXPECT_EQ(qelSel::eventText(plain),
              "OEM record type 0xE0, data 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D");
    const auto fields = fieldMap(qelSel::journalFields(plain));
    EXPECT_EQ(fields.count("QEL_SEL_TIMESTAMP"), 0u);
    EXPECT_EQ(fields.at("QEL_SEL_OEM_DATA"), "0102030405060708090A0B0C0D");
    EXPECT_EQ(qelSel::eventText(selTest::oemRecord(9, 0xFF, {})),
              "OEM record type 0xFF, data 00 00 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(qelSel::eventText(selTest::oemRecord(9, 0xDF, {0, 0, 0, 0, 0xFF, 0xFF, 0xFF})),
              "OEM record type 0xDF, manufacturer 0xFFFFFF, data 00 00 00 00 00 00");
}

TEST(SelText, UnknownRecordTypesAreKeptAsTheirBytesWithAWarning) {
    for (unsigned type : {0x00u, 0x01u, 0x03u, 0x10u, 0xBFu}) {
        const SelRecord r = selTest::oemRecord(3, static_cast<uint8_t>(type),
                                               {0xAA, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0xBB});
        char hexType[8];
        std::snprintf(hexType, sizeof hexType, "0x%02X", type);
        EXPECT_EQ(qelSel::eventText(r),
                  "Unknown record type " + std::string(hexType) + ", data AA 01 02 03 04 05 06 07 08 09 0A 0B BB");
        EXPECT_EQ(qelSel::severityOf(r), Severity::Warning);
        const auto fields = fieldMap(qelSel::journalFields(r));
        EXPECT_EQ(fields.count("QEL_SEL_TIMESTAMP"), 0u);
        EXPECT_EQ(fields.at("QEL_SEL_OEM_DATA"), "AA0102030405060708090A0BBB");
    }
}

// ---------------------------------------------------------------- escaping

TEST(SelEscape, PrintableAsciiAndUtf8StayAsTheyAre) {
    EXPECT_EQ(qelSel::escapeText("CPU0 Temp"), "CPU0 Temp");
    EXPECT_EQ(qelSel::escapeText("Lüfter 3 °C"), "Lüfter 3 °C");
    EXPECT_EQ(qelSel::escapeText("\xE2\x82\xAC \xF0\x9F\x94\xA5"), "\xE2\x82\xAC \xF0\x9F\x94\xA5");
    EXPECT_EQ(qelSel::escapeText(""), "");
}

TEST(SelEscape, ControlBytesAndBackslashAreEscaped) {
    EXPECT_EQ(qelSel::escapeText("a\nb"), "a\\x0Ab");
    EXPECT_EQ(qelSel::escapeText("a\r\tb\x1b[31m"), "a\\x0D\\x09b\\x1B[31m");
    EXPECT_EQ(qelSel::escapeText(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(qelSel::escapeText("\x7F"), "\\x7F");
    EXPECT_EQ(qelSel::escapeText("C:\\x41"), "C:\\\\x41");
}

TEST(SelEscape, InvalidUtf8IsEscapedByteByByte) {
    EXPECT_EQ(qelSel::escapeText("\xFF\xFE"), "\\xFF\\xFE");
    EXPECT_EQ(qelSel::escapeText("\xC3"), "\\xC3");               // truncated
    EXPECT_EQ(qelSel::escapeText("\xC3x"), "\\xC3x");             // continuation missing
    EXPECT_EQ(qelSel::escapeText("\xC0\xAF"), "\\xC0\\xAF");      // overlong '/'
    EXPECT_EQ(qelSel::escapeText("\xE0\x80\xAF"), "\\xE0\\x80\\xAF");  // overlong
    EXPECT_EQ(qelSel::escapeText("\xED\xA0\x80"), "\\xED\\xA0\\x80");  // surrogate
    EXPECT_EQ(qelSel::escapeText("\xF4\x90\x80\x80"), "\\xF4\\x90\\x80\\x80");  // above U+10FFFF
    EXPECT_EQ(qelSel::escapeText("\x80"), "\\x80");               // lone continuation
    EXPECT_EQ(qelSel::escapeText("\xE2\x82"), "\\xE2\\x82");      // cut off at the end
}

TEST(SelEscape, CodePointsThatBreakOrReorderALineAreEscaped) {
    EXPECT_EQ(qelSel::escapeText("\xC2\x85"), "\\xC2\\x85");            // NEL (C1)
    EXPECT_EQ(qelSel::escapeText("a\xE2\x80\xA8z"), "a\\xE2\\x80\\xA8z");  // line separator
    EXPECT_EQ(qelSel::escapeText("\xE2\x80\xAE" "cba"), "\\xE2\\x80\\xAE" "cba");  // RLO
    EXPECT_EQ(qelSel::escapeText("\xE2\x81\xA6"), "\\xE2\\x81\\xA6");  // LRI
}

TEST(SelEscape, ControllerTextNeverReachesTextOrFieldsRaw) {
    const std::string name = "evil\nMESSAGE=forged\x1b" "\xFF\\";
    const DecodedEvent decoded = qelSel::decode(recordOf(memory(0x00)), name);
    EXPECT_EQ(decoded.text, "Memory evil\\x0AMESSAGE=forged\\x1B\\xFF\\\\ (#0x12): Correctable ECC / "
                            "other correctable memory error, asserted");
    for (const JournalField& f : decoded.fields) EXPECT_TRUE(hasNoControlBytes(f.value)) << f.name;
}

// ------------------------------------------------------------ kernel panic

std::vector<DecodedEvent> feedAll(PanicAssembler& assembler, const std::vector<SelRecord>& records) {
    std::vector<DecodedEvent> out;
    for (const SelRecord& r : records) {
        std::vector<DecodedEvent> events = assembler.feed(r);
        out.insert(out.end(), events.begin(), events.end());
    }
    return out;
}

TEST(SelPanic, TheKernelsRecordsAreRecognised) {
    EXPECT_TRUE(qelSel::isKernelPanicEvent(selTest::kernelPanicEvent(1, "Fatal exception")));
    EXPECT_TRUE(qelSel::isKernelPanicEvent(selTest::kernelPanicEvent(1, "Fatal exception", 0x0021)));
    // Another generator, another offset, a deassertion: not the kernel's panic.
    EXPECT_FALSE(qelSel::isKernelPanicEvent(selTest::kernelPanicEvent(1, "Fatal", 0x0020)));
    EXPECT_FALSE(qelSel::isKernelPanicEvent(recordOf(specific(0x20, 0x01))));
    EXPECT_TRUE(qelSel::isKernelPanicPiece(selTest::kernelPanicPieces(2, "x")[0]));
    EXPECT_FALSE(qelSel::isKernelPanicPiece(selTest::oemRecord(2, 0xF1, {})));
}

TEST(SelPanic, ASingleRecordReadsAsAKernelPanicWithTheMessagesStart) {
    EXPECT_EQ(qelSel::eventText(selTest::kernelPanicEvent(1, "Fatal exception")),
              "OS Critical Stop #0x46: Run-time Critical Stop, asserted; kernel panic, message "
              "begins \"Fat\"");
    EXPECT_EQ(qelSel::severityOf(selTest::kernelPanicEvent(1, "Fatal exception")), Severity::Critical);
    EXPECT_EQ(qelSel::eventText(selTest::kernelPanicPieces(2, "Fatal exception")[0]),
              "OEM record type 0xF0, data 20 00 46 61 74 61 6C 20 65 78 63 65 70");
}

TEST(SelPanic, TheCriticalStopAndItsPiecesBecomeOneEvent) {
    const std::string message = "Attempted to kill init! exitcode=0x0000000b";
    std::vector<SelRecord> records = {recordOf(specific(0x1F, 0x01))};
    records.push_back(selTest::kernelPanicEvent(2, message));
    for (const SelRecord& piece : selTest::kernelPanicPieces(3, message)) records.push_back(piece);
    ASSERT_EQ(records.size(), 2u + 4u);  // 44 characters: the last piece is full
    records.push_back(recordOf(specific(0x1D, 0x00)));

    PanicAssembler assembler;
    const std::vector<DecodedEvent> events = feedAll(assembler, records);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].text, "OS Boot #0x05: C: boot completed, asserted");
    EXPECT_EQ(events[1].text, "The previous boot ended in a kernel panic: " + message);
    EXPECT_EQ(events[1].severity, Severity::Critical);
    EXPECT_EQ(events[1].recordIds, (std::vector<uint16_t>{2, 3, 4, 5, 6}));
    const auto fields = fieldMap(events[1].fields);
    EXPECT_EQ(fields.at("QEL_SEL_PANIC_TEXT"), message);
    EXPECT_EQ(fields.at("QEL_SEL_RECORD_ID"), "0x0002");
    EXPECT_EQ(fields.at("QEL_SEL_EVENT_STATE"), "Run-time Critical Stop");
    EXPECT_EQ(fields.at("QEL_SEL_SEVERITY"), "critical");
    EXPECT_EQ(events[2].text, "System Boot Initiated #0x05: Initiated by power up, asserted");
    EXPECT_FALSE(assembler.holding());
}

TEST(SelPanic, AShortLastPieceCompletesTheMessageAtOnce) {
    const std::string message = "Fatal exception in interrupt";
    PanicAssembler assembler;
    EXPECT_TRUE(assembler.feed(selTest::kernelPanicEvent(10, message)).empty());
    EXPECT_TRUE(assembler.holding());
    const std::vector<SelRecord> pieces = selTest::kernelPanicPieces(11, message);
    ASSERT_EQ(pieces.size(), 3u);
    EXPECT_TRUE(assembler.feed(pieces[0]).empty());
    EXPECT_TRUE(assembler.feed(pieces[1]).empty());
    const std::vector<DecodedEvent> events = assembler.feed(pieces[2]);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].text, "The previous boot ended in a kernel panic: Fatal exception in interrupt");
    EXPECT_FALSE(assembler.holding());
    EXPECT_TRUE(assembler.flush().empty());
}

TEST(SelPanic, FlushGivesWhatIsHeldAtTheEndOfTheLog) {
    PanicAssembler assembler;
    EXPECT_TRUE(assembler.feed(selTest::kernelPanicEvent(1, "VFS: Unable to mount")).empty());
    const std::vector<SelRecord> pieces = selTest::kernelPanicPieces(2, "VFS: Unable to mount");
    ASSERT_EQ(pieces.size(), 2u);
    EXPECT_TRUE(assembler.feed(pieces[0]).empty());
    // 20 characters: the second piece is short, so the message is complete.
    EXPECT_EQ(assembler.feed(pieces[1]).size(), 1u);
    EXPECT_FALSE(assembler.holding());

    PanicAssembler exact;
    const std::string eleven = "Oops: 00000";  // the piece is full: more may follow
    EXPECT_TRUE(exact.feed(selTest::kernelPanicEvent(1, eleven)).empty());
    EXPECT_TRUE(exact.feed(selTest::kernelPanicPieces(2, eleven)[0]).empty());
    EXPECT_TRUE(exact.holding());
    const std::vector<DecodedEvent> events = exact.flush();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].text, "The previous boot ended in a kernel panic: Oops: 00000");
    EXPECT_FALSE(exact.holding());
}

TEST(SelPanic, WithoutStringLoggingTheEventCarriesTheFirstCharacters) {
    PanicAssembler assembler;
    EXPECT_TRUE(assembler.feed(selTest::kernelPanicEvent(1, "Fatal exception")).empty());
    const std::vector<DecodedEvent> events = assembler.feed(recordOf(specific(0x1D, 0x00)));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].text, "The previous boot ended in a kernel panic: Fat...");
    EXPECT_EQ(events[0].recordIds, std::vector<uint16_t>{1});
    EXPECT_EQ(events[1].text, "System Boot Initiated #0x05: Initiated by power up, asserted");
}

TEST(SelPanic, PiecesBeforeTheCriticalStopAreItsMessage) {
    const std::string message = "Kernel stack is corrupted";
    PanicAssembler assembler;
    std::vector<SelRecord> records = selTest::kernelPanicPieces(1, message);
    records.push_back(selTest::kernelPanicEvent(4, message));
    const std::vector<DecodedEvent> events = feedAll(assembler, records);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].text, "The previous boot ended in a kernel panic: " + message);
    EXPECT_EQ(events[0].recordIds, (std::vector<uint16_t>{4, 1, 2, 3}));
}

TEST(SelPanic, PiecesWithoutACriticalStopStayOemRecords) {
    PanicAssembler assembler;
    std::vector<SelRecord> records = selTest::kernelPanicPieces(1, "Some text");
    records.push_back(recordOf(memory(0x00)));
    const std::vector<DecodedEvent> events = feedAll(assembler, records);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].text, "OEM record type 0xF0, data 20 00 53 6F 6D 65 20 74 65 78 74 00 00");
    EXPECT_EQ(events[1].text, "Memory #0x12: Correctable ECC / other correctable memory error, asserted");
    // A piece out of sequence is an OEM record too.
    PanicAssembler other;
    std::vector<SelRecord> pieces = selTest::kernelPanicPieces(1, "0123456789ABCDEFGHIJ");
    const std::vector<DecodedEvent> second = other.feed(pieces[1]);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(second[0].text, "OEM record type 0xF0, data 20 01 42 43 44 45 46 47 48 49 4A 00 00");
}

TEST(SelPanic, TwoPanicsInARowStayTwoEvents) {
    PanicAssembler assembler;
    std::vector<SelRecord> records = {selTest::kernelPanicEvent(1, "first")};
    for (const SelRecord& piece : selTest::kernelPanicPieces(2, "first panic")) records.push_back(piece);
    records.push_back(selTest::kernelPanicEvent(3, "second"));
    std::vector<DecodedEvent> events = feedAll(assembler, records);
    for (DecodedEvent& e : assembler.flush()) events.push_back(std::move(e));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].text, "The previous boot ended in a kernel panic: first panic");
    EXPECT_EQ(events[1].text, "The previous boot ended in a kernel panic: sec...");
}

TEST(SelPanic, ThePanicTextIsEscaped) {
    const std::string message = "bad\n\x1b[2Jline\xFF";
    PanicAssembler assembler;
    std::vector<SelRecord> records = {selTest::kernelPanicEvent(1, message)};
    for (const SelRecord& piece : selTest::kernelPanicPieces(2, message)) records.push_back(piece);
    const std::vector<DecodedEvent> events = feedAll(assembler, records);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].text, "The previous boot ended in a kernel panic: bad\\x0A\\x1B[2Jline\\xFF");
    for (const JournalField& f : events[0].fields) EXPECT_TRUE(hasNoControlBytes(f.value)) << f.name;
    EXPECT_EQ(qelSel::eventText(selTest::kernelPanicEvent(1, "\n\x01x")),
              "OS Critical Stop #0x0A: Run-time Critical Stop, asserted; kernel panic, message begins "
              "\"\\x0A\\x01x\"");
}

// ------------------------------------------------------------ any 16 bytes

// Every 16-byte pattern decodes: random records of every record type, and
// every record type with every sensor type and event type byte.
TEST(SelText, AnySixteenBytesDecodeToOneSafeLine) {
    std::mt19937 random(20261126);
    std::uniform_int_distribution<int> byte(0, 255);
    PanicAssembler assembler;
    std::size_t events = 0;
    for (int n = 0; n < 50000; ++n) {
        qelSel::RawRecord raw;
        for (uint8_t& b : raw) b = static_cast<uint8_t>(byte(random));
        if (n % 2 == 0) raw[2] = qelSel::systemEventRecord;
        if (n % 7 == 0) raw[2] = 0xF0;
        const SelRecord r = SelRecord::fromBytes(raw);
        const DecodedEvent decoded = qelSel::decode(r, std::string(reinterpret_cast<const char*>(raw.data()), 16));
        ASSERT_FALSE(decoded.text.empty());
        ASSERT_TRUE(hasNoControlBytes(decoded.text)) << decoded.text;
        for (const JournalField& f : decoded.fields) ASSERT_TRUE(hasNoControlBytes(f.value)) << f.name;
        for (const DecodedEvent& e : assembler.feed(r)) {
            ASSERT_TRUE(hasNoControlBytes(e.text)) << e.text;
            ++events;
        }
    }
    events += assembler.flush().size();
    EXPECT_GT(events, 0u);
    for (unsigned type = 0; type <= 0xFF; ++type) {
        for (unsigned eventType = 0; eventType <= 0xFF; ++eventType) {
            Event e;
            e.sensorType = static_cast<uint8_t>(type);
            e.eventType = static_cast<uint8_t>(eventType & 0x7F);
            e.deassertion = eventType & 0x80;
            e.data1 = static_cast<uint8_t>(eventType ^ type);
            const std::string text = textOf(e);
            ASSERT_EQ(text.rfind(qelSel::sensorTypeText(e.sensorType) + " #0x10: ", 0), 0u) << text;
        }
    }
}

}  // namespace
