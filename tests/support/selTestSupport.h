// SEL records built in a line: system events, OEM records, the kernel's
// panic records, and the corpus of one record per standard event state in
// both directions that the decoder's tests and the cross-check with other
// tools share.
#ifndef QEL_SEL_TEST_SUPPORT_H
#define QEL_SEL_TEST_SUPPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "qelSelRecord.h"
#include "qelSelText.h"

namespace selTest {

using qelSel::RawRecord;
using qelSel::SelRecord;

// 2021-01-14T08:25:36Z: a controller whose clock was set.
constexpr uint32_t kSetClock = 0x60000000;

struct Event {
    uint16_t id = 1;
    uint8_t sensorType = 0x0C;
    uint8_t sensorNumber = 0x10;
    uint8_t eventType = 0x6F;  // 7 bits
    bool deassertion = false;
    uint8_t data1 = 0x00;
    uint8_t data2 = 0xFF;
    uint8_t data3 = 0xFF;
    uint32_t timestamp = kSetClock;
    uint16_t generatorId = 0x0020;  // the BMC itself
    uint8_t evmRevision = 0x04;
};

inline RawRecord rawOf(const Event& e) {
    return RawRecord{static_cast<uint8_t>(e.id & 0xFF),
                     static_cast<uint8_t>(e.id >> 8),
                     qelSel::systemEventRecord,
                     static_cast<uint8_t>(e.timestamp & 0xFF),
                     static_cast<uint8_t>((e.timestamp >> 8) & 0xFF),
                     static_cast<uint8_t>((e.timestamp >> 16) & 0xFF),
                     static_cast<uint8_t>(e.timestamp >> 24),
                     static_cast<uint8_t>(e.generatorId & 0xFF),
                     static_cast<uint8_t>(e.generatorId >> 8),
                     e.evmRevision,
                     e.sensorType,
                     e.sensorNumber,
                     static_cast<uint8_t>((e.deassertion ? 0x80 : 0x00) | (e.eventType & 0x7F)),
                     e.data1,
                     e.data2,
                     e.data3};
}

inline SelRecord recordOf(const Event& e) { return SelRecord::fromBytes(rawOf(e)); }

// An OEM record of `type` with `bytes` after the record type (13 bytes; for
// 0xC0-0xDF: timestamp, manufacturer ID, 6 OEM bytes).
inline SelRecord oemRecord(uint16_t id, uint8_t type, const std::vector<uint8_t>& bytes) {
    RawRecord raw{};
    raw[0] = static_cast<uint8_t>(id & 0xFF);
    raw[1] = static_cast<uint8_t>(id >> 8);
    raw[2] = type;
    for (std::size_t i = 0; i < bytes.size() && i + 3 < raw.size(); ++i) raw[i + 3] = bytes[i];
    return SelRecord::fromBytes(raw);
}

// What the kernel's IPMI driver leaves on a panic: the platform event, whose
// sensor number and event data 2 and 3 are the message's first characters.
inline SelRecord kernelPanicEvent(uint16_t id, const std::string& message,
                                  uint16_t generatorId = 0x0041) {
    Event e;
    e.id = id;
    e.generatorId = generatorId;
    e.evmRevision = 0x03;
    e.sensorType = 0x20;
    e.eventType = 0x6F;
    e.data1 = 0xA1;
    e.sensorNumber = message.size() > 0 ? static_cast<uint8_t>(message[0]) : 0;
    e.data2 = message.size() > 1 ? static_cast<uint8_t>(message[1]) : 0;
    e.data3 = message.size() > 2 ? static_cast<uint8_t>(message[2]) : 0;
    return recordOf(e);
}

// The 0xF0 records that hold the message: controller address, sequence
// number, 11 bytes of text padded with NULs.
inline std::vector<SelRecord> kernelPanicPieces(uint16_t firstId, const std::string& message) {
    std::vector<SelRecord> pieces;
    for (std::size_t at = 0, n = 0; at < message.size(); at += 11, ++n) {
        std::vector<uint8_t> bytes = {0x20, static_cast<uint8_t>(n)};
        for (std::size_t i = 0; i < 11; ++i)
            bytes.push_back(at + i < message.size() ? static_cast<uint8_t>(message[at + i]) : 0);
        pieces.push_back(oemRecord(static_cast<uint16_t>(firstId + n), 0xF0, bytes));
    }
    return pieces;
}

// One record per state of every standard table (the threshold states on a
// Temperature sensor, the generic discrete ones on a System Event sensor, the
// sensor-specific ones on their sensor type), asserted and deasserted, with
// event data 2 and 3 unspecified. Record IDs count from 1.
inline std::vector<SelRecord> everyStandardState() {
    std::vector<SelRecord> out;
    uint16_t id = 1;
    auto add = [&](uint8_t sensorType, uint8_t eventType, const qelSel::StateTable& table) {
        for (const qelSel::StateEntry& row : table) {
            for (bool deassertion : {false, true}) {
                Event e;
                e.id = id++;
                e.sensorType = sensorType;
                e.eventType = eventType;
                e.deassertion = deassertion;
                e.data1 = row.offset;
                out.push_back(recordOf(e));
            }
        }
    };
    add(0x01, 0x01, qelSel::genericStates(0x01));
    for (uint8_t type = 0x02; type <= 0x0C; ++type) add(0x12, type, qelSel::genericStates(type));
    for (uint8_t type = 0x01; type <= 0x2C; ++type)
        add(type, 0x6F, qelSel::sensorSpecificStates(type));
    return out;
}

}  // namespace selTest

#endif
