#include "qelSdrRecord.h"

#include <algorithm>
#include <cstdio>

#define QEL_SOURCE_NAME "qelSdrRecord"

namespace qelSdr {

QEL_DEFINE_ERROR(QelSdrError)

namespace {

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

// A two's-complement field of `bits` bits.
int signExtend(unsigned int value, unsigned int bits) {
    const unsigned int sign = 1u << (bits - 1);
    value &= (1u << bits) - 1;
    return (value & sign) ? static_cast<int>(value) - static_cast<int>(1u << bits) : static_cast<int>(value);
}

std::string hex16(uint16_t v) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", v);
    return text;
}

// The 6-bit packed characters are ASCII 0x20 to 0x5F; four of them fill three
// bytes, least significant bits first.
std::string decodeAscii6(const uint8_t* data, std::size_t length) {
    std::string out;
    const std::size_t characters = length * 8 / 6;
    for (std::size_t i = 0; i < characters; ++i) {
        const std::size_t bit = i * 6;
        const std::size_t byte = bit / 8;
        const unsigned int shift = bit % 8;
        unsigned int value = data[byte] >> shift;
        if (shift > 2 && byte + 1 < length) value |= static_cast<unsigned int>(data[byte + 1]) << (8 - shift);
        out += static_cast<char>(0x20 + (value & 0x3F));
    }
    return out;
}

// BCD plus: digits, then space, '-', '.', ':', ',', '_'; the high nibble first.
std::string decodeBcdPlus(const uint8_t* data, std::size_t length) {
    static const char digits[] = "0123456789 -.:,_";
    std::string out;
    for (std::size_t i = 0; i < length; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 0x0F];
    }
    return out;
}

// How many bytes of a well-formed UTF-8 sequence start at `p` (at most `left`
// bytes available), or 0 when it is not one. Overlong forms, surrogates and
// code points above U+10FFFF are not well formed.
std::size_t utf8Sequence(const unsigned char* p, std::size_t left) {
    const unsigned char c = p[0];
    std::size_t n;
    unsigned int min;
    unsigned int cp;
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
        min = 0x80;
        cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        min = 0x800;
        cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        min = 0x10000;
        cp = c & 0x07;
    } else {
        return 0;
    }
    if (left < n) return 0;
    for (std::size_t i = 1; i < n; ++i) {
        if ((p[i] & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return n;
}

void need(const SdrRecord& record, std::size_t size, const char* what) {
    if (record.bytes.size() < size)
        QEL_THROW(QelSdrError, std::string(what) + " record " + hex16(record.recordId) + " is " +
                                   std::to_string(record.bytes.size()) + " bytes long, needs at least " +
                                   std::to_string(size));
}

IdString idAt(const Bytes& bytes, unsigned int typeLengthAt) {
    const std::size_t from = typeLengthAt + 1;
    return IdString::decode(bytes[typeLengthAt], bytes.data() + from, bytes.size() - from);
}

void putLe16(Bytes& b, unsigned int at, unsigned int v) {
    b[at] = static_cast<uint8_t>(v & 0xFF);
    b[at + 1] = static_cast<uint8_t>((v >> 8) & 0xFF);
}

}  // namespace

const char* recordTypeName(uint8_t type) {
    switch (type) {
    case recordType::fullSensor: return "full sensor";
    case recordType::compactSensor: return "compact sensor";
    case recordType::eventOnly: return "event-only";
    case recordType::entityAssociation: return "entity association";
    case recordType::deviceRelativeEntityAssociation: return "device-relative entity association";
    case recordType::genericDeviceLocator: return "generic device locator";
    case recordType::fruDeviceLocator: return "FRU device locator";
    case recordType::mcDeviceLocator: return "management controller device locator";
    case recordType::mcConfirmation: return "management controller confirmation";
    case recordType::bmcMessageChannelInfo: return "BMC message channel info";
    case recordType::oem: return "OEM";
    default: return "unknown";
    }
}

std::string escapeText(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t size = bytes.size();
    for (std::size_t i = 0; i < size;) {
        const unsigned char c = p[i];
        if (c == '\\' || c == '"') {
            out += '\\';
            out += static_cast<char>(c);
            ++i;
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
            ++i;
        } else if (std::size_t n = c >= 0x80 ? utf8Sequence(p + i, size - i) : 0) {
            out.append(bytes, i, n);
            i += n;
        } else {
            out += "\\x";
            out += digits[c >> 4];
            out += digits[c & 0x0F];
            ++i;
        }
    }
    return out;
}

IdString IdString::decode(uint8_t typeLength, const uint8_t* data, std::size_t available) {
    IdString id;
    id.typeLength = typeLength;
    std::size_t length = typeLength & idString::lengthMask;
    if (length > available) {
        id.truncated = true;
        length = available;
    }
    id.raw.assign(data, data + length);
    switch (typeLength & idString::typeMask) {
    case idString::ascii6:
        id.text = decodeAscii6(data, length);
        break;
    case idString::bcdPlus:
        id.text = decodeBcdPlus(data, length);
        break;
    default: {
        // Controllers pad the 8-bit string with NULs; the name ends at the first.
        const auto end = std::find(id.raw.begin(), id.raw.end(), uint8_t{0});
        id.text.assign(id.raw.begin(), end);
        break;
    }
    }
    return id;
}

IdString IdString::latin1Text(const std::string& text) {
    IdString id;
    const std::size_t length = std::min(text.size(), idString::maxLength);
    id.typeLength = static_cast<uint8_t>(idString::latin1 | length);
    id.raw.assign(text.begin(), text.begin() + static_cast<long>(length));
    id.text = text.substr(0, length);
    return id;
}

SdrRecord SdrRecord::fromBytes(Bytes bytes) {
    if (bytes.size() < header::size)
        QEL_THROW(QelSdrError, "an SDR record of " + std::to_string(bytes.size()) +
                                   " bytes is shorter than its 5-byte header");
    SdrRecord r;
    r.recordId = le16(&bytes[header::recordId]);
    r.version = bytes[header::version];
    r.type = bytes[header::type];
    const std::size_t announced = bytes[header::length];
    if (bytes.size() - header::size != announced)
        QEL_THROW(QelSdrError, "SDR record " + hex16(r.recordId) + " announces " + std::to_string(announced) +
                                   " bytes behind its header but has " +
                                   std::to_string(bytes.size() - header::size));
    r.bytes = std::move(bytes);
    return r;
}

std::optional<IdString> SdrRecord::idString() const {
    unsigned int at;
    switch (type) {
    case recordType::fullSensor: at = fullSensor::idTypeLength; break;
    case recordType::compactSensor: at = compactSensor::idTypeLength; break;
    case recordType::eventOnly: at = eventOnlySensor::idTypeLength; break;
    case recordType::genericDeviceLocator:
    case recordType::fruDeviceLocator:
    case recordType::mcDeviceLocator: at = locator::idTypeLength; break;
    default: return std::nullopt;
    }
    if (bytes.size() <= at) return std::nullopt;
    return idAt(bytes, at);
}

SensorRecord SensorRecord::fromRecord(const SdrRecord& record) {
    const Bytes& d = record.bytes;
    SensorRecord s;
    s.recordId = record.recordId;
    s.recordType = record.type;
    unsigned int sharing1 = 0;
    unsigned int sharing2 = 0;
    switch (record.type) {
    case recordType::fullSensor:
        need(record, fullSensor::idTypeLength + 1, "full sensor");
        break;
    case recordType::compactSensor:
        need(record, compactSensor::idTypeLength + 1, "compact sensor");
        break;
    case recordType::eventOnly:
        need(record, eventOnlySensor::idTypeLength + 1, "event-only sensor");
        break;
    default:
        QEL_THROW(QelSdrError, "SDR record " + hex16(record.recordId) + " is a " +
                                   recordTypeName(record.type) + " record, not a sensor record");
    }
    s.ownerId = d[sensorKey::ownerId];
    s.ownerLun = d[sensorKey::ownerLun] & 0x03;
    s.channel = d[sensorKey::ownerLun] >> 4;
    s.sensorNumber = d[sensorKey::sensorNumber];
    s.entityId = d[sensorKey::entityId];
    s.entityInstance = d[sensorKey::entityInstance] & 0x7F;
    s.logicalEntity = (d[sensorKey::entityInstance] & 0x80) != 0;

    if (record.type == recordType::eventOnly) {
        s.sensorType = d[eventOnlySensor::sensorType];
        s.eventReadingType = d[eventOnlySensor::eventReadingType];
        sharing1 = d[eventOnlySensor::sharing1];
        sharing2 = d[eventOnlySensor::sharing2];
        s.oem = d[eventOnlySensor::oem];
        s.id = idAt(d, eventOnlySensor::idTypeLength);
    } else {
        s.initialization = d[sensorCommon::initialization];
        s.capabilities = d[sensorCommon::capabilities];
        s.sensorType = d[sensorCommon::sensorType];
        s.eventReadingType = d[sensorCommon::eventReadingType];
        s.assertionMask = le16(&d[sensorCommon::assertionMask]);
        s.deassertionMask = le16(&d[sensorCommon::deassertionMask]);
        s.readingMask = le16(&d[sensorCommon::readingMask]);
        s.units1 = d[sensorCommon::units1];
        s.units2 = d[sensorCommon::units2];
        s.units3 = d[sensorCommon::units3];
    }

    if (record.type == recordType::compactSensor) {
        sharing1 = d[compactSensor::sharing1];
        sharing2 = d[compactSensor::sharing2];
        s.positiveHysteresis = d[compactSensor::positiveHysteresis];
        s.negativeHysteresis = d[compactSensor::negativeHysteresis];
        s.oem = d[compactSensor::oem];
        s.id = idAt(d, compactSensor::idTypeLength);
    }

    if (record.type == recordType::fullSensor) {
        std::copy(d.begin() + fullSensor::linearization, d.begin() + fullSensor::exponents + 1,
                  s.conversionRaw.begin());
        s.linearization = d[fullSensor::linearization] & 0x7F;
        s.m = static_cast<int16_t>(
            signExtend(d[fullSensor::mLow] | ((d[fullSensor::mHighTolerance] & 0xC0u) << 2), 10));
        s.tolerance = d[fullSensor::mHighTolerance] & 0x3F;
        s.b = static_cast<int16_t>(
            signExtend(d[fullSensor::bLow] | ((d[fullSensor::bHighAccuracy] & 0xC0u) << 2), 10));
        s.accuracy = static_cast<uint16_t>((d[fullSensor::bHighAccuracy] & 0x3F) |
                                           ((d[fullSensor::accuracyDirection] & 0xF0u) << 2));
        s.accuracyExponent = (d[fullSensor::accuracyDirection] >> 2) & 0x03;
        s.sensorDirection = d[fullSensor::accuracyDirection] & 0x03;
        s.k2 = static_cast<int8_t>(signExtend(d[fullSensor::exponents] >> 4, 4));
        s.k1 = static_cast<int8_t>(signExtend(d[fullSensor::exponents] & 0x0F, 4));
        s.analogFlags = d[fullSensor::analogFlags];
        s.nominalReading = d[fullSensor::nominalReading];
        s.normalMaximum = d[fullSensor::normalMaximum];
        s.normalMinimum = d[fullSensor::normalMinimum];
        s.sensorMaximum = d[fullSensor::sensorMaximum];
        s.sensorMinimum = d[fullSensor::sensorMinimum];
        s.upperNonRecoverable = d[fullSensor::upperNonRecoverable];
        s.upperCritical = d[fullSensor::upperCritical];
        s.upperNonCritical = d[fullSensor::upperNonCritical];
        s.lowerNonRecoverable = d[fullSensor::lowerNonRecoverable];
        s.lowerCritical = d[fullSensor::lowerCritical];
        s.lowerNonCritical = d[fullSensor::lowerNonCritical];
        s.positiveHysteresis = d[fullSensor::positiveHysteresis];
        s.negativeHysteresis = d[fullSensor::negativeHysteresis];
        s.oem = d[fullSensor::oem];
        s.id = idAt(d, fullSensor::idTypeLength);
    } else {
        s.shareCount = static_cast<uint8_t>(sharing1 & 0x0F);
        s.modifierType = (sharing1 >> 4) & 0x03;
        s.modifierOffset = sharing2 & 0x7F;
        s.entityInstanceIncrements = (sharing2 & 0x80) != 0;
    }
    return s;
}

std::string instanceModifier(uint8_t type, unsigned int n) {
    if (type != 1) return std::to_string(n);
    // Alpha counts like spreadsheet columns: 0 is "A", 25 "Z", 26 "AA".
    std::string out;
    unsigned int v = n + 1;
    while (v > 0) {
        --v;
        out.insert(out.begin(), static_cast<char>('A' + v % 26));
        v /= 26;
    }
    return out;
}

std::vector<SensorName> SensorRecord::names() const {
    std::vector<SensorName> out;
    const bool shared = recordType != recordType::fullSensor;
    // A share count of 0 means one sensor, as 1 does.
    const unsigned int count = shared ? std::max<unsigned int>(1, shareCount) : 1;
    for (unsigned int i = 0; i < count; ++i) {
        if (sensorNumber + i > 0xFF) break;
        SensorName n;
        n.recordId = recordId;
        n.recordType = recordType;
        n.ownerId = ownerId;
        n.ownerLun = ownerLun;
        n.channel = channel;
        n.sensorNumber = static_cast<uint8_t>(sensorNumber + i);
        n.entityId = entityId;
        n.entityInstance = static_cast<uint8_t>((entityInstance + (entityInstanceIncrements ? i : 0)) & 0x7F);
        n.sensorType = sensorType;
        n.eventReadingType = eventReadingType;
        n.name = id.text;
        // A record for one sensor names it by the ID string alone.
        if (shared && shareCount > 1) n.name += instanceModifier(modifierType, modifierOffset + i);
        out.push_back(std::move(n));
    }
    return out;
}

Bytes SensorRecord::toBytes() const {
    unsigned int idAtPos;
    switch (recordType) {
    case recordType::fullSensor: idAtPos = fullSensor::idTypeLength; break;
    case recordType::compactSensor: idAtPos = compactSensor::idTypeLength; break;
    case recordType::eventOnly: idAtPos = eventOnlySensor::idTypeLength; break;
    default:
        QEL_THROW(QelSdrError, std::string("cannot build a ") + recordTypeName(recordType) + " record as a sensor record");
    }
    const std::size_t idLength = std::min<std::size_t>(id.raw.size(), idString::maxLength);
    Bytes r(idAtPos + 1 + idLength, 0);
    putLe16(r, header::recordId, recordId);
    r[header::version] = sdrVersion;
    r[header::type] = recordType;
    r[header::length] = static_cast<uint8_t>(r.size() - header::size);
    r[sensorKey::ownerId] = ownerId;
    r[sensorKey::ownerLun] = static_cast<uint8_t>((channel << 4) | (ownerLun & 0x03));
    r[sensorKey::sensorNumber] = sensorNumber;
    r[sensorKey::entityId] = entityId;
    r[sensorKey::entityInstance] = static_cast<uint8_t>((logicalEntity ? 0x80 : 0) | (entityInstance & 0x7F));
    const uint8_t sharing1 = static_cast<uint8_t>(((modifierType & 0x03) << 4) | (shareCount & 0x0F));
    const uint8_t sharing2 = static_cast<uint8_t>((entityInstanceIncrements ? 0x80 : 0) | (modifierOffset & 0x7F));
    if (recordType == recordType::eventOnly) {
        r[eventOnlySensor::sensorType] = sensorType;
        r[eventOnlySensor::eventReadingType] = eventReadingType;
        r[eventOnlySensor::sharing1] = sharing1;
        r[eventOnlySensor::sharing2] = sharing2;
        r[eventOnlySensor::oem] = oem;
    } else {
        r[sensorCommon::initialization] = initialization;
        r[sensorCommon::capabilities] = capabilities;
        r[sensorCommon::sensorType] = sensorType;
        r[sensorCommon::eventReadingType] = eventReadingType;
        putLe16(r, sensorCommon::assertionMask, assertionMask);
        putLe16(r, sensorCommon::deassertionMask, deassertionMask);
        putLe16(r, sensorCommon::readingMask, readingMask);
        r[sensorCommon::units1] = units1;
        r[sensorCommon::units2] = units2;
        r[sensorCommon::units3] = units3;
    }
    if (recordType == recordType::compactSensor) {
        r[compactSensor::sharing1] = sharing1;
        r[compactSensor::sharing2] = sharing2;
        r[compactSensor::positiveHysteresis] = positiveHysteresis;
        r[compactSensor::negativeHysteresis] = negativeHysteresis;
        r[compactSensor::oem] = oem;
    }
    if (recordType == recordType::fullSensor) {
        const unsigned int m10 = static_cast<unsigned int>(m) & 0x3FF;
        const unsigned int b10 = static_cast<unsigned int>(this->b) & 0x3FF;
        r[fullSensor::linearization] = linearization & 0x7F;
        r[fullSensor::mLow] = static_cast<uint8_t>(m10 & 0xFF);
        r[fullSensor::mHighTolerance] = static_cast<uint8_t>(((m10 >> 8) << 6) | (tolerance & 0x3F));
        r[fullSensor::bLow] = static_cast<uint8_t>(b10 & 0xFF);
        r[fullSensor::bHighAccuracy] = static_cast<uint8_t>(((b10 >> 8) << 6) | (accuracy & 0x3F));
        r[fullSensor::accuracyDirection] = static_cast<uint8_t>((((accuracy >> 6) & 0x0F) << 4) |
                                                                ((accuracyExponent & 0x03) << 2) |
                                                                (sensorDirection & 0x03));
        r[fullSensor::exponents] = static_cast<uint8_t>(((static_cast<unsigned int>(k2) & 0x0F) << 4) |
                                                        (static_cast<unsigned int>(k1) & 0x0F));
        r[fullSensor::analogFlags] = analogFlags;
        r[fullSensor::nominalReading] = nominalReading;
        r[fullSensor::normalMaximum] = normalMaximum;
        r[fullSensor::normalMinimum] = normalMinimum;
        r[fullSensor::sensorMaximum] = sensorMaximum;
        r[fullSensor::sensorMinimum] = sensorMinimum;
        r[fullSensor::upperNonRecoverable] = upperNonRecoverable;
        r[fullSensor::upperCritical] = upperCritical;
        r[fullSensor::upperNonCritical] = upperNonCritical;
        r[fullSensor::lowerNonRecoverable] = lowerNonRecoverable;
        r[fullSensor::lowerCritical] = lowerCritical;
        r[fullSensor::lowerNonCritical] = lowerNonCritical;
        r[fullSensor::positiveHysteresis] = positiveHysteresis;
        r[fullSensor::negativeHysteresis] = negativeHysteresis;
        r[fullSensor::oem] = oem;
    }
    r[idAtPos] = static_cast<uint8_t>((id.typeLength & idString::typeMask) | idLength);
    std::copy(id.raw.begin(), id.raw.begin() + static_cast<long>(idLength), r.begin() + idAtPos + 1);
    return r;
}

std::vector<SensorName> sensorNames(const std::vector<SdrRecord>& records, std::vector<std::string>* problems) {
    std::vector<SensorName> out;
    for (const SdrRecord& r : records) {
        if (!r.isSensor()) continue;
        try {
            for (SensorName& n : SensorRecord::fromRecord(r).names()) out.push_back(std::move(n));
        } catch (const QelSdrError& e) {
            if (problems) problems->push_back(e.errorText);
        }
    }
    return out;
}

const SensorName* findSensor(const std::vector<SensorName>& names, uint8_t ownerId, uint8_t ownerLun,
                             uint8_t sensorNumber) {
    for (const SensorName& n : names)
        if (n.ownerId == ownerId && n.ownerLun == (ownerLun & 0x03) && n.sensorNumber == sensorNumber) return &n;
    return nullptr;
}

}  // namespace qelSdr
