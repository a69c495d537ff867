// The Sensor Data Record repository's wire formats, declared once: the storage
// commands that read it, and the records it holds. The library's reader, the
// cache and the simulated controller all use these, so they cannot drift apart.
//
// A record is a 5-byte header (record ID, 2 bytes least significant first;
// SDR version 0x51; record type; length of the rest) and a body of that
// length. Full (0x01), compact (0x02) and event-only (0x03) sensor records are
// taken apart into SensorRecord; every other type is kept as its bytes, named
// by recordTypeName(). Texts from the controller are data: an ID string keeps
// its raw bytes, and escapeText() gives a form that is safe to print or log.
//
// Byte positions below count from 0 at the start of the header, one less than
// the 1-based byte numbers these records are usually described by.
#ifndef QEL_SDR_RECORD_H
#define QEL_SDR_RECORD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qelError.h"
#include "qelExport.h"

namespace qelSdr {

// Thrown by the record parser, the repository reader and its cache.
QEL_DECLARE_ERROR(QelSdrError);

using Bytes = std::vector<uint8_t>;

namespace netfn {
constexpr unsigned char app = 0x06;
constexpr unsigned char sensorEvent = 0x04;
constexpr unsigned char storage = 0x0A;
}  // namespace netfn

namespace cmd {
// netfn::storage
constexpr unsigned char getSdrRepositoryInfo = 0x20;
constexpr unsigned char getSdrRepositoryAllocationInfo = 0x21;
constexpr unsigned char reserveSdrRepository = 0x22;
constexpr unsigned char getSdr = 0x23;
// netfn::sensorEvent
constexpr unsigned char getSensorReading = 0x2D;
// netfn::app
constexpr unsigned char getDeviceId = 0x01;
}  // namespace cmd

namespace cc {
constexpr unsigned char ok = 0x00;
constexpr unsigned char invalidCommand = 0xC1;
// The reservation was cancelled (the repository changed, or someone else
// reserved it) between Reserve SDR Repository and the read that carried it.
constexpr unsigned char reservationCancelled = 0xC5;
constexpr unsigned char requestDataLengthInvalid = 0xC7;
constexpr unsigned char parameterOutOfRange = 0xC9;
// Get SDR: the controller cannot return that many bytes at once. Many refuse
// anything above 16.
constexpr unsigned char cannotReturnRequestedBytes = 0xCA;
// No record with that ID.
constexpr unsigned char requestedDataNotPresent = 0xCB;
constexpr unsigned char invalidDataField = 0xCC;
}  // namespace cc

// Record IDs with a meaning of their own in Get SDR.
constexpr uint16_t firstRecordId = 0x0000;
constexpr uint16_t lastRecordId = 0xFFFF;

// Get SDR Repository Info response (after the completion code): SDR version
// (0x51), record count (2), free space in bytes (2), most recent addition
// timestamp (4), most recent erase timestamp (4), operation support: bit 7
// overflow, bits 6:5 update modes, bit 3 Delete, bit 2 Partial Add, bit 1
// Reserve, bit 0 Get Allocation Info. All multi-byte fields LS byte first.
namespace repositoryInfo {
constexpr unsigned int version = 1;
constexpr unsigned int recordCount = 2;
constexpr unsigned int freeSpace = 4;
constexpr unsigned int lastAddition = 6;
constexpr unsigned int lastErase = 10;
constexpr unsigned int support = 14;
constexpr unsigned int responseSize = 15;
constexpr unsigned char overflow = 0x80;
constexpr unsigned char nonModalUpdate = 0x20;
constexpr unsigned char supportsDelete = 0x08;
constexpr unsigned char supportsPartialAdd = 0x04;
constexpr unsigned char supportsReserve = 0x02;
constexpr unsigned char supportsAllocationInfo = 0x01;
}  // namespace repositoryInfo

// Get SDR Repository Allocation Info response: allocation units (2), unit
// size in bytes (2), free units (2), largest free block in units (2), largest
// record in units (1).
namespace allocationInfo {
constexpr unsigned int units = 1;
constexpr unsigned int unitSize = 3;
constexpr unsigned int freeUnits = 5;
constexpr unsigned int largestFree = 7;
constexpr unsigned int maxRecord = 9;
constexpr unsigned int responseSize = 10;
}  // namespace allocationInfo

// Reserve SDR Repository response: the reservation ID (2).
namespace reserve {
constexpr unsigned int responseReservation = 1;
constexpr unsigned int responseSize = 3;
}  // namespace reserve

// Get SDR request: reservation ID (2; 0 allowed when reading from offset 0),
// record ID (2), offset into the record, bytes to read (0xFF = to the end).
// Response: completion code, next record ID (2; 0xFFFF after the last), the
// bytes read.
namespace getSdr {
constexpr unsigned int requestReservation = 0;
constexpr unsigned int requestRecordId = 2;
constexpr unsigned int requestOffset = 4;
constexpr unsigned int requestCount = 5;
constexpr unsigned int requestSize = 6;
constexpr unsigned char wholeRecord = 0xFF;
constexpr unsigned int responseNextId = 1;
constexpr unsigned int responseData = 3;
}  // namespace getSdr

// The record header.
namespace header {
constexpr unsigned int recordId = 0;
constexpr unsigned int version = 2;
constexpr unsigned int type = 3;
constexpr unsigned int length = 4;
constexpr unsigned int size = 5;
}  // namespace header
constexpr uint8_t sdrVersion = 0x51;
// The body length is one byte.
constexpr std::size_t maxRecordSize = header::size + 0xFF;

namespace recordType {
constexpr uint8_t fullSensor = 0x01;
constexpr uint8_t compactSensor = 0x02;
constexpr uint8_t eventOnly = 0x03;
constexpr uint8_t entityAssociation = 0x08;
constexpr uint8_t deviceRelativeEntityAssociation = 0x09;
constexpr uint8_t genericDeviceLocator = 0x10;
constexpr uint8_t fruDeviceLocator = 0x11;
constexpr uint8_t mcDeviceLocator = 0x12;
constexpr uint8_t mcConfirmation = 0x13;
constexpr uint8_t bmcMessageChannelInfo = 0x14;
constexpr uint8_t oem = 0xC0;
}  // namespace recordType

// "full sensor", "compact sensor", "event-only", "FRU device locator",
// "management controller device locator", ...; "OEM" for 0xC0 and "unknown"
// for a type the standard does not define.
QEL_EXPORT const char* recordTypeName(uint8_t type);

// Positions shared by the three sensor records (bytes 5 to 9).
namespace sensorKey {
constexpr unsigned int ownerId = 5;      // bit 0: 1 = software ID, bits 7:1 address
constexpr unsigned int ownerLun = 6;     // bits 7:4 channel, bits 1:0 LUN
constexpr unsigned int sensorNumber = 7;
constexpr unsigned int entityId = 8;
constexpr unsigned int entityInstance = 9;  // bit 7: logical entity; bits 6:0 instance
}  // namespace sensorKey

// Full (0x01) and compact (0x02) sensor records share bytes 10 to 22.
namespace sensorCommon {
constexpr unsigned int initialization = 10;
constexpr unsigned int capabilities = 11;
constexpr unsigned int sensorType = 12;
constexpr unsigned int eventReadingType = 13;
constexpr unsigned int assertionMask = 14;    // 2 bytes; threshold sensors: lower threshold reading mask
constexpr unsigned int deassertionMask = 16;  // 2 bytes; threshold sensors: upper threshold reading mask
constexpr unsigned int readingMask = 18;      // 2 bytes; threshold sensors: readable (18), settable (19)
constexpr unsigned int units1 = 20;           // bits 7:6 analog data format, 5:3 rate, 2:1 modifier use, 0 percentage
constexpr unsigned int units2 = 21;           // base unit
constexpr unsigned int units3 = 22;           // modifier unit
}  // namespace sensorCommon

namespace fullSensor {
constexpr unsigned int linearization = 23;
constexpr unsigned int mLow = 24;
constexpr unsigned int mHighTolerance = 25;   // bits 7:6 M bits 9:8, bits 5:0 tolerance
constexpr unsigned int bLow = 26;
constexpr unsigned int bHighAccuracy = 27;    // bits 7:6 B bits 9:8, bits 5:0 accuracy bits 5:0
constexpr unsigned int accuracyDirection = 28;  // bits 7:4 accuracy bits 9:6, 3:2 accuracy exponent, 1:0 direction
constexpr unsigned int exponents = 29;        // bits 7:4 R (K2), bits 3:0 B (K1), both signed
constexpr unsigned int analogFlags = 30;
constexpr unsigned int nominalReading = 31;
constexpr unsigned int normalMaximum = 32;
constexpr unsigned int normalMinimum = 33;
constexpr unsigned int sensorMaximum = 34;
constexpr unsigned int sensorMinimum = 35;
constexpr unsigned int upperNonRecoverable = 36;
constexpr unsigned int upperCritical = 37;
constexpr unsigned int upperNonCritical = 38;
constexpr unsigned int lowerNonRecoverable = 39;
constexpr unsigned int lowerCritical = 40;
constexpr unsigned int lowerNonCritical = 41;
constexpr unsigned int positiveHysteresis = 42;
constexpr unsigned int negativeHysteresis = 43;
constexpr unsigned int oem = 46;
constexpr unsigned int idTypeLength = 47;
constexpr unsigned int idString = 48;
}  // namespace fullSensor

namespace compactSensor {
constexpr unsigned int sharing1 = 23;  // bits 7:6 direction, 5:4 modifier type, 3:0 share count
constexpr unsigned int sharing2 = 24;  // bit 7 entity instance increments, 6:0 modifier offset
constexpr unsigned int positiveHysteresis = 25;
constexpr unsigned int negativeHysteresis = 26;
constexpr unsigned int oem = 30;
constexpr unsigned int idTypeLength = 31;
constexpr unsigned int idString = 32;
}  // namespace compactSensor

namespace eventOnlySensor {
constexpr unsigned int sensorType = 10;
constexpr unsigned int eventReadingType = 11;
constexpr unsigned int sharing1 = 12;
constexpr unsigned int sharing2 = 13;
constexpr unsigned int oem = 15;
constexpr unsigned int idTypeLength = 16;
constexpr unsigned int idString = 17;
}  // namespace eventOnlySensor

// Generic device (0x10), FRU device (0x11) and management controller (0x12)
// locators carry their ID string at the same place.
namespace locator {
constexpr unsigned int idTypeLength = 15;
constexpr unsigned int idString = 16;
}  // namespace locator

// The ID string's type/length byte: bits 7:6 the encoding, bits 4:0 the
// length in bytes (at most 16 in a record).
namespace idString {
constexpr uint8_t typeMask = 0xC0;
constexpr uint8_t lengthMask = 0x1F;
constexpr uint8_t unicode = 0x00;
constexpr uint8_t bcdPlus = 0x40;
constexpr uint8_t ascii6 = 0x80;
constexpr uint8_t latin1 = 0xC0;  // 8-bit ASCII + Latin 1, the common one
constexpr std::size_t maxLength = 16;
}  // namespace idString

// Analog data format (units 1, bits 7:6).
namespace analogFormat {
constexpr uint8_t unsignedValue = 0;
constexpr uint8_t onesComplement = 1;
constexpr uint8_t twosComplement = 2;
constexpr uint8_t noAnalogReading = 3;
}  // namespace analogFormat

// Threshold masks (readable and settable): one bit per threshold.
namespace threshold {
constexpr uint8_t lowerNonCritical = 0x01;
constexpr uint8_t lowerCritical = 0x02;
constexpr uint8_t lowerNonRecoverable = 0x04;
constexpr uint8_t upperNonCritical = 0x08;
constexpr uint8_t upperCritical = 0x10;
constexpr uint8_t upperNonRecoverable = 0x20;
}  // namespace threshold

// \\ for a backslash, \" for a quote, \xNN for control characters (below 0x20
// and 0x7F) and for every byte that is not part of valid UTF-8; everything
// else (printable ASCII, well-formed UTF-8) as it is. Latin-1 bytes above 0x7F
// come out as \xNN: a controller's "8-bit ASCII + Latin 1" is in practice as
// often UTF-8, and guessing would corrupt one of the two.
QEL_EXPORT std::string escapeText(const std::string& bytes);

// An ID string as the record holds it, and its characters.
struct QEL_EXPORT IdString {
    uint8_t typeLength = idString::latin1;
    Bytes raw;          // the bytes the type/length byte announced (as far as the record holds them)
    std::string text;   // the characters: 8-bit and Unicode bytes as they are (up to a NUL),
                        // 6-bit ASCII and BCD plus decoded
    bool truncated = false;  // the record ended before the announced length

    uint8_t encoding() const { return typeLength & idString::typeMask; }
    std::string escaped() const { return escapeText(text); }

    // Decodes `length` bytes at `data` (the byte after the type/length byte);
    // `available` is how many the record holds from there.
    static IdString decode(uint8_t typeLength, const uint8_t* data, std::size_t available);
    // The type/length byte and bytes for `text` in 8-bit encoding (at most 16 bytes kept).
    static IdString latin1Text(const std::string& text);
};

// Any record, its bytes kept whole.
struct QEL_EXPORT SdrRecord {
    Bytes bytes;  // header and body
    uint16_t recordId = 0;
    uint8_t version = 0;
    uint8_t type = 0;

    std::size_t bodyLength() const { return bytes.size() - header::size; }
    bool isSensor() const {
        return type == recordType::fullSensor || type == recordType::compactSensor ||
               type == recordType::eventOnly;
    }
    // The ID string of sensor and locator records; none for other types or
    // when the record ends before its type/length byte.
    std::optional<IdString> idString() const;

    // Takes the header apart. Throws QelSdrError when the bytes are shorter
    // than a header or the header's length byte does not match the body.
    static SdrRecord fromBytes(Bytes bytes);
};

// The name one sensor goes by, and what identifies it in an event: the owner
// (the generator ID of its events), LUN, channel and sensor number.
struct QEL_EXPORT SensorName {
    uint16_t recordId = 0;
    uint8_t recordType = 0;
    uint8_t ownerId = 0;
    uint8_t ownerLun = 0;
    uint8_t channel = 0;
    uint8_t sensorNumber = 0;
    uint8_t entityId = 0;
    uint8_t entityInstance = 0;
    uint8_t sensorType = 0;
    uint8_t eventReadingType = 0;
    std::string name;  // raw bytes from the controller (ID string and modifier)
    std::string escaped() const { return escapeText(name); }
};

// A full, compact or event-only sensor record taken apart. Fields a record
// type does not have stay zero.
struct QEL_EXPORT SensorRecord {
    uint16_t recordId = 0;
    uint8_t recordType = 0;
    uint8_t ownerId = 0;
    uint8_t ownerLun = 0;   // bits 1:0 of the byte
    uint8_t channel = 0;    // bits 7:4 of the byte
    uint8_t sensorNumber = 0;
    uint8_t entityId = 0;
    uint8_t entityInstance = 0;  // bits 6:0
    bool logicalEntity = false;  // bit 7
    uint8_t sensorType = 0;
    uint8_t eventReadingType = 0;

    // Full and compact records.
    uint8_t initialization = 0;
    uint8_t capabilities = 0;
    uint16_t assertionMask = 0;
    uint16_t deassertionMask = 0;
    uint16_t readingMask = 0;
    uint8_t units1 = 0;
    uint8_t units2 = 0;  // base unit
    uint8_t units3 = 0;  // modifier unit
    uint8_t analogDataFormat() const { return units1 >> 6; }
    uint8_t positiveHysteresis = 0;
    uint8_t negativeHysteresis = 0;

    // Full records: the conversion y = L[(M x + B 10^K1) 10^K2], raw bytes
    // 23 to 29 as the record holds them and the fields taken apart.
    std::array<uint8_t, 7> conversionRaw{};
    uint8_t linearization = 0;  // bits 6:0
    int16_t m = 0;              // 10-bit signed
    int16_t b = 0;              // 10-bit signed
    uint8_t tolerance = 0;      // 6 bits, in +/- half raw counts
    uint16_t accuracy = 0;      // 10 bits, in 1/100 percent scaled by 10^accuracyExponent
    uint8_t accuracyExponent = 0;
    uint8_t sensorDirection = 0;
    int8_t k1 = 0;              // B exponent, 4-bit signed
    int8_t k2 = 0;              // result exponent, 4-bit signed
    uint8_t analogFlags = 0;    // bit 0 nominal, 1 normal max, 2 normal min specified
    uint8_t nominalReading = 0;
    uint8_t normalMaximum = 0;
    uint8_t normalMinimum = 0;
    uint8_t sensorMaximum = 0;
    uint8_t sensorMinimum = 0;
    // Thresholds, raw: upper non-recoverable, critical, non-critical, then
    // lower non-recoverable, critical, non-critical.
    uint8_t upperNonRecoverable = 0;
    uint8_t upperCritical = 0;
    uint8_t upperNonCritical = 0;
    uint8_t lowerNonRecoverable = 0;
    uint8_t lowerCritical = 0;
    uint8_t lowerNonCritical = 0;
    // threshold:: bits; only meaningful for threshold sensors (event/reading
    // type 0x01), whose reading mask these bytes are.
    uint8_t readableThresholds() const { return static_cast<uint8_t>(readingMask & 0x3F); }
    uint8_t settableThresholds() const { return static_cast<uint8_t>((readingMask >> 8) & 0x3F); }

    // Compact and event-only records: one record for several sensors.
    uint8_t shareCount = 0;          // as the record says; 0 and 1 both mean one sensor
    uint8_t modifierType = 0;        // 0 numeric, 1 alpha
    uint8_t modifierOffset = 0;
    bool entityInstanceIncrements = false;

    uint8_t oem = 0;
    IdString id;

    bool isThresholdBased() const { return eventReadingType == 0x01; }

    // The name of every sensor the record stands for: one for a full record,
    // shareCount for the others, each the ID string followed by its instance
    // modifier (numeric: offset + i in decimal; alpha: "A".."Z", "AA", "AB",
    // ... counted from the offset), with the sensor number (and the entity
    // instance, when the record says so) incremented. A sensor number past
    // 255 ends the list.
    std::vector<SensorName> names() const;

    // Takes a full, compact or event-only record apart. Throws QelSdrError
    // for another record type or a body too short for its fixed fields.
    static SensorRecord fromRecord(const SdrRecord& record);

    // The record's bytes (header included, record ID as set, SDR version
    // 0x51) for a full, compact or event-only record built from these fields;
    // the conversion is written from m, b, k1, k2 and the other fields, not
    // from conversionRaw. For the simulated controller and tests.
    Bytes toBytes() const;
};

// The instance modifier of sensor `index` counted from `offset`: numeric
// (type 0) "1", "2", ...; alpha (type 1) "A".."Z", "AA", "AB", ...
QEL_EXPORT std::string instanceModifier(uint8_t type, unsigned int offsetPlusIndex);

// The names of every sensor of `records`, in record order. A sensor record
// that cannot be taken apart is skipped; its reason goes to `problems` when
// given.
QEL_EXPORT std::vector<SensorName> sensorNames(const std::vector<SdrRecord>& records,
                                               std::vector<std::string>* problems = nullptr);

// The entry of `names` for the sensor an event names (owner ID as the
// event's generator ID byte, LUN, sensor number), or null. The channel is not
// compared: a system event record carries it only for IPMB owners. The
// pointer is into `names`, so a temporary list is refused.
QEL_EXPORT const SensorName* findSensor(const std::vector<SensorName>& names, uint8_t ownerId,
                                        uint8_t ownerLun, uint8_t sensorNumber);
const SensorName* findSensor(std::vector<SensorName>&& names, uint8_t ownerId, uint8_t ownerLun,
                             uint8_t sensorNumber) = delete;

}  // namespace qelSdr

#endif
