#include "qelSelRecord.h"

namespace qelSel {

namespace {
uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
}  // namespace

SelRecord SelRecord::fromBytes(const RawRecord& bytes) {
    SelRecord r;
    r.raw = bytes;
    r.recordId = le16(&bytes[0]);
    r.recordType = bytes[2];
    if (r.isSystemEvent()) {
        r.timestamp = le32(&bytes[3]);
        r.generatorId = le16(&bytes[7]);
        r.evmRevision = bytes[9];
        r.sensorType = bytes[10];
        r.sensorNumber = bytes[11];
        r.deassertion = (bytes[12] & 0x80) != 0;
        r.eventType = bytes[12] & 0x7F;
        r.eventData = {bytes[13], bytes[14], bytes[15]};
    } else if (isOemTimestamped(r.recordType)) {
        r.timestamp = le32(&bytes[3]);
        r.manufacturerId = static_cast<uint32_t>(bytes[7]) | (static_cast<uint32_t>(bytes[8]) << 8) |
                           (static_cast<uint32_t>(bytes[9]) << 16);
    }
    return r;
}

}  // namespace qelSel
