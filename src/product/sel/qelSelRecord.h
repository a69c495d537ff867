// The System Event Log's wire formats, declared once: the storage commands
// that read and manage the log, and the 16-byte record they carry. The
// library's reader, its decoder and the simulated controller all use these,
// so the three cannot drift apart.
//
// A record is 16 bytes: record ID (2 bytes, least significant first), record
// type, then 13 bytes whose meaning depends on the type. Type 0x02 is a
// system event record: timestamp (4 bytes), generator ID (2 bytes), event
// message format revision, sensor type, sensor number, event direction (bit
// 7: 1 = deassertion) with the event/reading type code (bits 6:0), event
// data 1-3. Types 0xC0-0xDF are OEM records with a timestamp, manufacturer ID
// (3 bytes) and 6 OEM bytes; 0xE0-0xFF are OEM records of 13 OEM bytes with
// no timestamp. Other types are kept as their bytes.
#ifndef QEL_SEL_RECORD_H
#define QEL_SEL_RECORD_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "qelExport.h"

namespace qelSel {

namespace netfn {
constexpr unsigned char storage = 0x0A;
constexpr unsigned char sensorEvent = 0x04;
}  // namespace netfn

namespace cmd {
// netfn::storage
constexpr unsigned char getSelInfo = 0x40;
constexpr unsigned char getSelAllocationInfo = 0x41;
constexpr unsigned char reserveSel = 0x42;
constexpr unsigned char getSelEntry = 0x43;
constexpr unsigned char addSelEntry = 0x44;
constexpr unsigned char partialAddSelEntry = 0x45;
constexpr unsigned char deleteSelEntry = 0x46;
constexpr unsigned char clearSel = 0x47;
constexpr unsigned char getSelTime = 0x48;
constexpr unsigned char setSelTime = 0x49;
// netfn::sensorEvent
constexpr unsigned char platformEvent = 0x02;
}  // namespace cmd

namespace cc {
// The reservation was cancelled (an entry added, the log cleared, another
// reservation taken) between Reserve SEL and the command that carried it.
constexpr unsigned char reservationCancelled = 0xC5;
// Get SEL Entry: the controller cannot return that many bytes at once.
constexpr unsigned char cannotReturnRequestedBytes = 0xCA;
// No record with that ID.
constexpr unsigned char requestedDataNotPresent = 0xCB;
// Add SEL Entry: the log is full (and not circular).
constexpr unsigned char outOfSpace = 0x80;
// Delete/Clear: an erase is in progress.
constexpr unsigned char eraseInProgress = 0x81;
}  // namespace cc

// Record IDs with a meaning of their own in Get SEL Entry.
constexpr uint16_t firstRecordId = 0x0000;
constexpr uint16_t lastRecordId = 0xFFFF;

// Get SEL Info response (after the completion code): version (0x51 for
// IPMI 1.5/2.0), entries (2 bytes), free space in bytes (2 bytes), most
// recent addition timestamp (4), most recent erase timestamp (4), operation
// support: bit 7 overflow, bit 3 Delete supported, bit 2 Partial Add, bit 1
// Reserve, bit 0 Get SEL Allocation Info.
namespace selInfo {
constexpr unsigned int version = 1;
constexpr unsigned int entries = 2;
constexpr unsigned int freeSpace = 4;
constexpr unsigned int lastAddition = 6;
constexpr unsigned int lastErase = 10;
constexpr unsigned int support = 14;
constexpr unsigned int responseSize = 15;
constexpr unsigned char overflow = 0x80;
constexpr unsigned char supportsDelete = 0x08;
constexpr unsigned char supportsPartialAdd = 0x04;
constexpr unsigned char supportsReserve = 0x02;
constexpr unsigned char supportsAllocationInfo = 0x01;
}  // namespace selInfo

// Get SEL Entry request: reservation ID (2), record ID (2), offset into the
// record, bytes to read (0xFF = the whole record). Response: completion code,
// next record ID (2; 0xFFFF after the last), the record bytes read.
namespace selEntry {
constexpr unsigned int requestReservation = 0;
constexpr unsigned int requestRecordId = 2;
constexpr unsigned int requestOffset = 4;
constexpr unsigned int requestCount = 5;
constexpr unsigned int requestSize = 6;
constexpr unsigned char wholeRecord = 0xFF;
constexpr unsigned int responseNextId = 1;
constexpr unsigned int responseData = 3;
}  // namespace selEntry

// Clear SEL request: reservation ID (2), 'C', 'L', 'R', then 0xAA to start
// the erase or 0x00 to ask how it goes. Response: completion code, erase
// progress (bits 3:0: 0 in progress, 1 completed).
namespace clearSel {
constexpr unsigned char clr[3] = {'C', 'L', 'R'};
constexpr unsigned char initiate = 0xAA;
constexpr unsigned char getStatus = 0x00;
constexpr unsigned char progressMask = 0x0F;
constexpr unsigned char completed = 0x01;
}  // namespace clearSel

// Timestamps at or below this value count seconds since the controller
// started, not since the epoch: the controller's clock had not been set.
constexpr uint32_t preInitTimestampMax = 0x20000000;
constexpr uint32_t unspecifiedTimestamp = 0xFFFFFFFF;

constexpr std::size_t recordSize = 16;
using RawRecord = std::array<uint8_t, recordSize>;

constexpr uint8_t systemEventRecord = 0x02;
inline bool isOemTimestamped(uint8_t type) { return type >= 0xC0 && type <= 0xDF; }
inline bool isOemNonTimestamped(uint8_t type) { return type >= 0xE0; }

// One record, its bytes kept whole and the fields of its type taken apart.
// Fields a type does not have are zero.
struct QEL_EXPORT SelRecord {
    RawRecord raw{};
    uint16_t recordId = 0;
    uint8_t recordType = 0;
    uint32_t timestamp = 0;       // system event and OEM timestamped records
    // System event records (type 0x02).
    uint16_t generatorId = 0;     // byte 1 (bit 0: 1 = software ID), byte 2 (channel << 4 | LUN)
    uint8_t evmRevision = 0;
    uint8_t sensorType = 0;
    uint8_t sensorNumber = 0;
    bool deassertion = false;     // event direction
    uint8_t eventType = 0;        // event/reading type code (7 bits)
    std::array<uint8_t, 3> eventData{};
    // OEM timestamped records: manufacturer ID (3 bytes, least significant first).
    uint32_t manufacturerId = 0;

    bool isSystemEvent() const { return recordType == systemEventRecord; }
    bool hasTimestamp() const { return isSystemEvent() || isOemTimestamped(recordType); }

    // Takes 16 bytes apart; every 16-byte pattern is a record of some type.
    static SelRecord fromBytes(const RawRecord& bytes);
};

}  // namespace qelSel

#endif
