// What a System Event Log record means, for the person who reads the host's
// journal: a one-line text, a severity with its journal priority, and the
// record's facts as journal fields for filters.
//
// Every 16-byte record decodes to something: the standard event and sensor
// tables name what they define, and anything else (OEM codes, reserved
// values, OEM records, record types nobody defined) is shown by its numbers
// and bytes. Nothing the controller supplies (sensor names, OEM text, the
// kernel's panic message) reaches the output unescaped: see escapeText.
//
// The tables of event states are data, declared once, so the simulated
// controller and the sensor reader can use the same texts and severities.
#ifndef QEL_SEL_TEXT_H
#define QEL_SEL_TEXT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "qelExport.h"
#include "qelSelRecord.h"

namespace qelSel {

// How bad an event is. The rule, applied row by row in the tables:
//  - Critical: a component failed or stopped, data was or may be lost, or the
//    system stopped or restarted against the operator's will (uncorrectable
//    ECC, power supply failure, a watchdog reset, a run-time critical stop),
//    and every critical or non-recoverable threshold crossed outwards.
//  - Warning: degraded but working, a predicted failure, a correctable error,
//    a security violation attempt, a log that lost events, a non-critical
//    threshold crossed outwards; and a value the standard leaves undefined
//    in a standard table (a reserved offset, sensor type or event type): the
//    record may be damaged or from a newer controller, so someone should look.
//  - Info: everything else, in particular every state that reports normal
//    operation (boot completed, presence detected, a button pressed), OEM
//    codes and OEM records (only their vendor can rate them), and, with few
//    exceptions noted in the tables, every deassertion: a state that stops
//    being true returns towards normal.
// Threshold events (event/reading type 0x01) are rated by the direction in
// which the reading moved: a lower threshold "going low" or an upper one
// "going high" asserted means the reading crossed to the abnormal side, so it
// takes the level of the threshold (non-critical: Warning, critical and
// non-recoverable: Critical) and its deassertion is Info; the opposite pair
// ("going high" on a lower threshold, "going low" on an upper one) asserted
// means the reading is back on the normal side (Info), and its deassertion
// that it left it again (the level of the threshold).
enum class Severity { Info, Warning, Critical };

// "info", "warning", "critical".
QEL_EXPORT const char* severityName(Severity severity);

// The syslog/journal priority: Critical is LOG_CRIT (2), the level of
// "hardware device error" in syslog(3), above the priorities applications use
// for their own errors (LOG_ERR, 3) so a failed DIMM stands out from a failed
// service; Warning is LOG_WARNING (4); Info is LOG_INFO (6), not LOG_NOTICE
// (5): most records are routine and must not clutter "journalctl -p notice".
QEL_EXPORT int journalPriority(Severity severity);

// One row of an event state table: the state at an offset (event data 1,
// bits 3:0), its text as the standard gives it, and how bad it is when the
// state is asserted and when it is deasserted.
struct StateEntry {
    uint8_t offset;
    const char* text;
    Severity asserted;
    Severity deasserted;
};

// The states of one event/reading type or one sensor type, in offset order.
struct QEL_EXPORT StateTable {
    const StateEntry* entries = nullptr;
    std::size_t count = 0;

    const StateEntry* begin() const { return entries; }
    const StateEntry* end() const { return entries + count; }
    bool empty() const { return count == 0; }
    // The row for `offset`; nullptr when the table defines none.
    const StateEntry* find(uint8_t offset) const;
};

namespace eventType {
constexpr uint8_t unspecified = 0x00;
constexpr uint8_t threshold = 0x01;
constexpr uint8_t lastGeneric = 0x0C;  // 0x02-0x0C: generic discrete
constexpr uint8_t severity = 0x07;
constexpr uint8_t sensorSpecific = 0x6F;
constexpr uint8_t firstOem = 0x70;
constexpr uint8_t lastOem = 0x7F;
}  // namespace eventType

namespace sensorType {
constexpr uint8_t firstStandard = 0x01;
constexpr uint8_t lastStandard = 0x2C;
constexpr uint8_t firstOem = 0xC0;
constexpr uint8_t osCriticalStop = 0x20;
}  // namespace sensorType

// The name of a standard sensor type (0x01-0x2C), "Temperature" to "FRU
// State"; nullptr for reserved and OEM types.
QEL_EXPORT const char* sensorTypeName(uint8_t sensorType);
// The name, or the number for the others: "OEM sensor type 0xC5",
// "sensor type 0x2D" (reserved).
QEL_EXPORT std::string sensorTypeText(uint8_t sensorType);

// The states of a generic event/reading type (0x01 threshold, 0x02-0x0C
// discrete); empty for any other code.
QEL_EXPORT StateTable genericStates(uint8_t eventType);
// The sensor-specific states (event/reading type 0x6F) of a sensor type;
// empty for the types that define none (e.g. Temperature) and for reserved
// and OEM types.
QEL_EXPORT StateTable sensorSpecificStates(uint8_t sensorType);
// The row that an event with this event/reading type (7 bits), sensor type
// and offset names; nullptr when the tables define none.
QEL_EXPORT const StateEntry* eventState(uint8_t eventType, uint8_t sensorType, uint8_t offset);
// Its text; nullptr when the tables define none.
QEL_EXPORT const char* eventStateText(uint8_t eventType, uint8_t sensorType, uint8_t offset);

// System Firmware Progress (sensor type 0x0F), event data 2: the error code
// of offset 0x00, the progress code of offsets 0x01 (hang) and 0x02;
// nullptr for reserved codes.
QEL_EXPORT const char* firmwareErrorText(uint8_t code);
QEL_EXPORT const char* firmwareProgressText(uint8_t code);

// Controller-supplied text made safe for one line of a log: printable ASCII
// and well-formed UTF-8 stay as they are; a backslash becomes "\\"; control
// bytes (C0, DEL), bytes that are not well-formed UTF-8 and the code points
// that break or reorder a line when shown (C1 controls, U+2028/U+2029, the
// bidirectional overrides and isolates) become "\xNN", byte by byte. The
// result is valid UTF-8 with no control character, and the original bytes
// can be recovered from it.
[[nodiscard]] QEL_EXPORT std::string escapeText(std::string_view text);

// A record timestamp as the journal shows it: ISO 8601 UTC
// ("2026-11-26T05:32:11Z"); "pre-init +123 s" for the seconds since the
// controller started (at or below preInitTimestampMax: its clock was not
// set); "unspecified" for 0xFFFFFFFF.
QEL_EXPORT std::string timestampText(uint32_t timestamp);

// One journal field: a name as the journal accepts it (upper case, digits,
// underscore) and its value. Values never hold control characters.
struct JournalField {
    std::string name;
    std::string value;
};

// Journal field names. Hex values are "0x" and upper-case digits.
namespace field {
constexpr const char* recordId = "QEL_SEL_RECORD_ID";            // "0x0012"
constexpr const char* recordType = "QEL_SEL_RECORD_TYPE";        // "0x02"
constexpr const char* timestamp = "QEL_SEL_TIMESTAMP";           // timestampText
constexpr const char* generatorId = "QEL_SEL_GENERATOR_ID";      // "0x0041"
constexpr const char* sensorType = "QEL_SEL_SENSOR_TYPE";        // sensorTypeText
constexpr const char* sensorTypeCode = "QEL_SEL_SENSOR_TYPE_CODE";  // "0x0C"
constexpr const char* sensorNumber = "QEL_SEL_SENSOR_NUMBER";    // "0x12"
constexpr const char* sensorName = "QEL_SEL_SENSOR_NAME";        // escaped; only when known
constexpr const char* eventType = "QEL_SEL_EVENT_TYPE_CODE";          // "0x6F"
constexpr const char* eventDir = "QEL_SEL_EVENT_DIRECTION";            // "assertion" or "deassertion"
constexpr const char* eventData = "QEL_SEL_EVENT_DATA";          // "A0FF03": data 1, 2, 3
constexpr const char* eventState = "QEL_SEL_EVENT_STATE";        // the state text
constexpr const char* manufacturerId = "QEL_SEL_MANUFACTURER_ID";  // "0x001234"
constexpr const char* oemData = "QEL_SEL_OEM_DATA";  // hex: 6 or 13 bytes (also unknown types)
constexpr const char* severity = "QEL_SEL_SEVERITY";             // severityName
constexpr const char* raw = "QEL_SEL_RAW";                       // 32 hex digits
constexpr const char* panicText = "QEL_SEL_PANIC_TEXT";          // escaped; kernel panics only
}  // namespace field

// One event as it goes to the journal.
struct DecodedEvent {
    std::vector<uint16_t> recordIds;  // the records it stands for, in log order
    Severity severity = Severity::Info;
    std::string text;                 // one line, for a person (MESSAGE)
    std::vector<JournalField> fields;  // for filters, in a fixed order
};

// The severity of one record (see Severity for the rule).
QEL_EXPORT Severity severityOf(const SelRecord& record);

// One line as an administrator reads it:
//   "Memory #0x12: Correctable ECC / other correctable memory error, asserted; memory module 3"
//   "Temperature CPU0 Temp (#0x30): Upper Critical going high, asserted; trigger reading 0x59, threshold 0x50"
//   "OEM record type 0xC1, manufacturer 0x001234, data 01 02 03 04 05 06"
// `sensorName` (from the sensor's SDR, when the caller has it) is escaped.
QEL_EXPORT std::string eventText(const SelRecord& record, const std::string& sensorName = {});

// The record's facts (see field::): record ID, type, timestamp, then for a
// system event the generator, sensor type, number (and name), event type,
// direction, data and state; for an OEM record its manufacturer and bytes;
// then severity and the raw bytes.
QEL_EXPORT std::vector<JournalField> journalFields(const SelRecord& record,
                                                   const std::string& sensorName = {});

// The same fields, in the same order, handed one at a time to `put` rather
// than collected: `value` lasts only for the call. For a caller that keeps
// its own strings from record to record (the forwarder) and would otherwise
// allocate every name and value anew.
QEL_EXPORT void visitJournalFields(const SelRecord& record, const std::string& sensorName,
                                   const std::function<void(const char* name, std::string_view value)>& put);

// All three for one record.
[[nodiscard]] QEL_EXPORT DecodedEvent decode(const SelRecord& record,
                                            const std::string& sensorName = {});

// The Linux kernel's panic records. On a panic the kernel's IPMI driver
// sends a platform event (generator ID 0x41: software ID 0x20, system
// management software, in bits 7:1 with bit 0 set; kernels before 2.6.15 sent
// 0x21, which is recognised too; sensor type OS Critical Stop, offset 0x01
// "Run-time Critical Stop", event data 1 0xA1) whose sensor number and event
// data 2 and 3 hold the first three characters of the panic message; with
// panic string logging it then adds OEM records of type 0xF0 (no timestamp),
// each holding the controller's address, a sequence number from 0 and 11
// bytes of the message (NUL-padded; the last piece is shorter unless the
// message fills it exactly).
QEL_EXPORT bool isKernelPanicEvent(const SelRecord& record);
QEL_EXPORT bool isKernelPanicPiece(const SelRecord& record);

// Turns the kernel's panic records into one Critical event,
//   "The previous boot ended in a kernel panic: <message>",
// and passes every other record through decode(). Feed the records in log
// order; each call returns the events that are complete, in log order. The
// assembler holds a kernel critical stop until its message is complete (a
// piece shorter than 11 bytes, a record that is not the next piece, or
// flush()), and pieces that came before a critical stop until it follows (if
// something else follows, they are decoded as the OEM records they are). Call
// flush() when the log has no more records for now: it returns what is held.
class QEL_EXPORT PanicAssembler {
public:
    [[nodiscard]] std::vector<DecodedEvent> feed(const SelRecord& record,
                                                 const std::string& sensorName = {});
    [[nodiscard]] std::vector<DecodedEvent> flush();
    // Records are held, waiting for the rest of a panic.
    bool holding() const { return haveStop_ || !pieces_.empty(); }

private:
    void emitHeld(std::vector<DecodedEvent>& out);
    bool pieceContinues(const SelRecord& piece) const;
    bool messageComplete() const;

    bool haveStop_ = false;
    SelRecord stop_;
    std::string stopSensorName_;
    std::vector<SelRecord> pieces_;
};

}  // namespace qelSel

#endif
