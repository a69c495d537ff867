// Sensor Data Records taken apart from hand-made bytes: the three sensor
// record types, the shared-sensor names, ID string encodings, texts that are
// not safe to print, and records too short for their type.
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qelSdrRecord.h"

using namespace qelSdr;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// A full threshold record, "CPU1 Temp": M = -3 (10-bit), B = 300, K1 = 3,
// K2 = -2, tolerance 5, accuracy 421 with exponent 2, direction 1.
const Bytes fullRecord = {
    0x01, 0x00, 0x51, 0x01, 0x34,                    // header: ID 1, v0x51, full, 52 bytes
    0x20, 0x00, 0x01, 0x03, 0x01,                    // owner, LUN, sensor 1, entity 3.1
    0x7F, 0x68, 0x01, 0x01,                          // init, capabilities, temperature, threshold
    0x80, 0x0A, 0x80, 0x0A, 0x38, 0x18,              // masks: readable UNC/UC/UNR, settable UNC/UC
    0x00, 0x01, 0x00,                                // units: unsigned, degrees C
    0x00, 0xFD, 0xC5, 0x2C, 0x65, 0x69, 0xE3,        // linear, M, tolerance, B, accuracy, exponents
    0x07, 0x2D, 0x50, 0x0A, 0xFF, 0x00,              // flags, nominal 45, normal max/min, sensor max/min
    0x5F, 0x5A, 0x55, 0x01, 0x02, 0x03,              // UNR 95, UC 90, UNC 85, LNR 1, LC 2, LNC 3
    0x02, 0x03, 0x00, 0x00, 0x77,                    // hysteresis +2 -3, reserved, OEM
    0xC9, 'C', 'P', 'U', '1', ' ', 'T', 'e', 'm', 'p'};

// A compact discrete record shared by three processors, numeric from 1,
// entity instance incrementing.
const Bytes compactRecord = {
    0x10, 0x00, 0x51, 0x02, 0x1E,
    0x20, 0x00, 0x70, 0x03, 0x01,
    0x7F, 0x40, 0x07, 0x6F,
    0xFF, 0x00, 0xFF, 0x00, 0xFF, 0x00,
    0xC0, 0x00, 0x00,
    0x03, 0x81,                                      // numeric, share 3; increments, offset 1
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0xC3, 'C', 'P', 'U'};

const Bytes eventOnlyRecord = {
    0x20, 0x00, 0x51, 0x03, 0x13,
    0x20, 0x00, 0x80, 0x23, 0x01,
    0x1F, 0x6F, 0x00, 0x00, 0x00, 0x00,
    0xC7, 'O', 'S', ' ', 'B', 'o', 'o', 't'};

// The compact record with other sharing bytes and ID string.
Bytes compactWith(uint8_t sharing1, uint8_t sharing2, const std::string& id) {
    Bytes b(compactRecord.begin(), compactRecord.begin() + 31);
    b[compactSensor::sharing1] = sharing1;
    b[compactSensor::sharing2] = sharing2;
    b.push_back(static_cast<uint8_t>(0xC0 | id.size()));
    b.insert(b.end(), id.begin(), id.end());
    b[header::length] = static_cast<uint8_t>(b.size() - 5);
    return b;
}

std::vector<std::string> namesOf(const Bytes& bytes) {
    std::vector<std::string> out;
    for (const SensorName& n : SensorRecord::fromRecord(SdrRecord::fromBytes(bytes)).names()) out.push_back(n.name);
    return out;
}

TEST(SdrRecord, HeaderIsTakenApart) {
    const SdrRecord r = SdrRecord::fromBytes(fullRecord);
    EXPECT_EQ(r.recordId, 1);
    EXPECT_EQ(r.version, 0x51);
    EXPECT_EQ(r.type, recordType::fullSensor);
    EXPECT_EQ(r.bodyLength(), 52u);
    EXPECT_TRUE(r.isSensor());
}

TEST(SdrRecord, LengthThatDisagreesWithTheBodyIsAnError) {
    Bytes b = fullRecord;
    b[header::length] = 60;
    try {
        (void)SdrRecord::fromBytes(b);
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("announces 60 bytes"));
    }
    EXPECT_THROW((void)SdrRecord::fromBytes({0x01, 0x00, 0x51}), QelSdrError);
}

TEST(SdrRecord, FullRecordFieldsAndConversionFactors) {
    const SensorRecord s = SensorRecord::fromRecord(SdrRecord::fromBytes(fullRecord));
    EXPECT_EQ(s.ownerId, 0x20);
    EXPECT_EQ(s.ownerLun, 0);
    EXPECT_EQ(s.sensorNumber, 1);
    EXPECT_EQ(s.entityId, 3);
    EXPECT_EQ(s.entityInstance, 1);
    EXPECT_EQ(s.sensorType, 0x01);
    EXPECT_EQ(s.eventReadingType, 0x01);
    EXPECT_TRUE(s.isThresholdBased());
    EXPECT_EQ(s.units2, 0x01);
    EXPECT_EQ(s.analogDataFormat(), analogFormat::unsignedValue);
    EXPECT_EQ(s.m, -3);
    EXPECT_EQ(s.b, 300);
    EXPECT_EQ(s.k1, 3);
    EXPECT_EQ(s.k2, -2);
    EXPECT_EQ(s.tolerance, 5);
    EXPECT_EQ(s.accuracy, 421);
    EXPECT_EQ(s.accuracyExponent, 2);
    EXPECT_EQ(s.sensorDirection, 1);
    EXPECT_THAT(s.conversionRaw, ElementsAre(0x00, 0xFD, 0xC5, 0x2C, 0x65, 0x69, 0xE3));
    EXPECT_EQ(s.nominalReading, 45);
    EXPECT_EQ(s.upperNonRecoverable, 95);
    EXPECT_EQ(s.upperCritical, 90);
    EXPECT_EQ(s.upperNonCritical, 85);
    EXPECT_EQ(s.lowerNonRecoverable, 1);
    EXPECT_EQ(s.lowerCritical, 2);
    EXPECT_EQ(s.lowerNonCritical, 3);
    EXPECT_EQ(s.readableThresholds(), threshold::upperNonCritical | threshold::upperCritical |
                                          threshold::upperNonRecoverable);
    EXPECT_EQ(s.settableThresholds(), threshold::upperNonCritical | threshold::upperCritical);
    EXPECT_EQ(s.positiveHysteresis, 2);
    EXPECT_EQ(s.negativeHysteresis, 3);
    EXPECT_EQ(s.oem, 0x77);
    EXPECT_EQ(s.id.text, "CPU1 Temp");
    EXPECT_EQ(s.id.encoding(), idString::latin1);
    EXPECT_THAT(namesOf(fullRecord), ElementsAre("CPU1 Temp"));
}

TEST(SdrRecord, PositiveTenBitFactorsAndExponents) {
    Bytes b = fullRecord;
    b[fullSensor::mLow] = 0xFF;
    b[fullSensor::mHighTolerance] = 0x40;  // M = 0x1FF = 511
    b[fullSensor::bLow] = 0x00;
    b[fullSensor::bHighAccuracy] = 0x80;   // B = 0x200 = -512
    b[fullSensor::exponents] = 0x78;       // K2 = 7, K1 = -8
    const SensorRecord s = SensorRecord::fromRecord(SdrRecord::fromBytes(b));
    EXPECT_EQ(s.m, 511);
    EXPECT_EQ(s.b, -512);
    EXPECT_EQ(s.k2, 7);
    EXPECT_EQ(s.k1, -8);
}

TEST(SdrRecord, FullRecordBuiltFromItsFieldsGivesTheSameBytes) {
    const SensorRecord s = SensorRecord::fromRecord(SdrRecord::fromBytes(fullRecord));
    EXPECT_EQ(s.toBytes(), fullRecord);
    EXPECT_EQ(SensorRecord::fromRecord(SdrRecord::fromBytes(compactRecord)).toBytes(), compactRecord);
    EXPECT_EQ(SensorRecord::fromRecord(SdrRecord::fromBytes(eventOnlyRecord)).toBytes(), eventOnlyRecord);
}

TEST(SdrRecord, CompactRecordSharedByThreeSensorsNamesEachWithANumber) {
    const SensorRecord s = SensorRecord::fromRecord(SdrRecord::fromBytes(compactRecord));
    EXPECT_EQ(s.shareCount, 3);
    EXPECT_EQ(s.modifierType, 0);
    EXPECT_EQ(s.modifierOffset, 1);
    EXPECT_TRUE(s.entityInstanceIncrements);
    const std::vector<SensorName> names = s.names();
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[0].name, "CPU1");
    EXPECT_EQ(names[1].name, "CPU2");
    EXPECT_EQ(names[2].name, "CPU3");
    EXPECT_EQ(names[0].sensorNumber, 0x70);
    EXPECT_EQ(names[2].sensorNumber, 0x72);
    EXPECT_EQ(names[0].entityInstance, 1);
    EXPECT_EQ(names[2].entityInstance, 3);
    EXPECT_EQ(names[1].recordId, 0x10);
}

TEST(SdrRecord, AlphaModifiersCountLikeColumnsPastZ) {
    EXPECT_THAT(namesOf(compactWith(0x13, 0x00, "DIMM ")), ElementsAre("DIMM A", "DIMM B", "DIMM C"));
    EXPECT_THAT(namesOf(compactWith(0x13, 25, "D")), ElementsAre("DZ", "DAA", "DAB"));
    EXPECT_EQ(instanceModifier(1, 51), "AZ");
    EXPECT_EQ(instanceModifier(1, 52), "BA");
    EXPECT_EQ(instanceModifier(1, 26 + 26 * 26), "AAA");
    EXPECT_EQ(instanceModifier(0, 0), "0");
}

TEST(SdrRecord, EntityInstanceStaysWhenTheRecordSaysSo) {
    const std::vector<SensorName> names =
        SensorRecord::fromRecord(SdrRecord::fromBytes(compactWith(0x02, 0x00, "P"))).names();
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(names[0].name, "P0");
    EXPECT_EQ(names[1].entityInstance, names[0].entityInstance);
}

TEST(SdrRecord, ShareCountOfZeroOrOneIsOneSensorNamedByItsIdString) {
    EXPECT_THAT(namesOf(compactWith(0x00, 0x05, "Watchdog")), ElementsAre("Watchdog"));
    EXPECT_THAT(namesOf(compactWith(0x01, 0x05, "Watchdog")), ElementsAre("Watchdog"));
}

TEST(SdrRecord, SharedSensorNumbersStopAt255) {
    Bytes b = compactWith(0x0F, 0x00, "X");
    b[sensorKey::sensorNumber] = 0xFE;
    EXPECT_THAT(namesOf(b), ElementsAre("X0", "X1"));
}

TEST(SdrRecord, EventOnlyRecord) {
    const SensorRecord s = SensorRecord::fromRecord(SdrRecord::fromBytes(eventOnlyRecord));
    EXPECT_EQ(s.sensorNumber, 0x80);
    EXPECT_EQ(s.sensorType, 0x1F);
    EXPECT_EQ(s.eventReadingType, 0x6F);
    EXPECT_EQ(s.entityId, 0x23);
    EXPECT_THAT(namesOf(eventOnlyRecord), ElementsAre("OS Boot"));
}

TEST(SdrRecord, SixBitPackedAndBcdPlusIdStrings) {
    const uint8_t ascii6[] = {0xA1, 0x38, 0x92};
    EXPECT_EQ(IdString::decode(0x83, ascii6, 3).text, "ABCD");
    const uint8_t bcd[] = {0x12, 0x3C, 0x4D, 0xAB, 0xEF};
    EXPECT_EQ(IdString::decode(0x45, bcd, 5).text, "123.4: -,_");
}

TEST(SdrRecord, IdStringLongerThanTheRecordIsCutAndSaysSo) {
    const uint8_t bytes[] = {'A', 'B'};
    const IdString id = IdString::decode(0xD0, bytes, 2);
    EXPECT_TRUE(id.truncated);
    EXPECT_EQ(id.text, "AB");
    Bytes b = eventOnlyRecord;
    b[eventOnlySensor::idTypeLength] = 0xCF;  // 15 announced, 7 present
    EXPECT_THAT(namesOf(b), ElementsAre("OS Boot"));
}

TEST(SdrRecord, EightBitNameEndsAtTheFirstNul) {
    const uint8_t bytes[] = {'F', 'A', 'N', 0, 0, 'x'};
    const IdString id = IdString::decode(0xC6, bytes, 6);
    EXPECT_EQ(id.text, "FAN");
    EXPECT_EQ(id.raw.size(), 6u);
}

TEST(SdrRecord, UnsafeTextsAreEscapedAndTheirBytesKept) {
    const std::string raw = std::string("A\"B\\C\nD") + '\x01' + '\x7F' + "\xC3\xA9" + '\xFF' + "\xE2\x82";
    EXPECT_EQ(escapeText(raw), "A\\\"B\\\\C\\x0aD\\x01\\x7f\xC3\xA9\\xff\\xe2\\x82");
    // Overlong forms and surrogates are not UTF-8.
    EXPECT_EQ(escapeText("\xC0\xAF"), "\\xc0\\xaf");
    EXPECT_EQ(escapeText("\xED\xA0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(escapeText("\xF0\x9F\x98\x80"), "\xF0\x9F\x98\x80");

    Bytes b(eventOnlyRecord.begin(), eventOnlyRecord.begin() + 16);
    const std::string name = "T\n\"x\x1b[2J\xFF";
    b.push_back(static_cast<uint8_t>(0xC0 | name.size()));
    b.insert(b.end(), name.begin(), name.end());
    b[header::length] = static_cast<uint8_t>(b.size() - 5);
    const std::vector<SensorName> names = SensorRecord::fromRecord(SdrRecord::fromBytes(b)).names();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0].name, name);
    EXPECT_EQ(names[0].escaped(), "T\\x0a\\\"x\\x1b[2J\\xff");
}

TEST(SdrRecord, RecordTooShortForItsTypeIsAClearError) {
    Bytes b(fullRecord.begin(), fullRecord.begin() + 30);
    b[header::length] = 25;
    try {
        (void)SensorRecord::fromRecord(SdrRecord::fromBytes(b));
        FAIL() << "no QelSdrError";
    } catch (const QelSdrError& e) {
        EXPECT_THAT(e.errorText, HasSubstr("full sensor record 0x0001 is 30 bytes long, needs at least 48"));
    }
    Bytes c(compactRecord.begin(), compactRecord.begin() + 31);
    c[header::length] = 26;
    EXPECT_THROW((void)SensorRecord::fromRecord(SdrRecord::fromBytes(c)), QelSdrError);
    Bytes e(eventOnlyRecord.begin(), eventOnlyRecord.begin() + 16);
    e[header::length] = 11;
    EXPECT_THROW((void)SensorRecord::fromRecord(SdrRecord::fromBytes(e)), QelSdrError);
}

TEST(SdrRecord, OtherRecordTypesAreNamedAndKeptAsBytes) {
    const Bytes mc = {0x30, 0x00, 0x51, 0x12, 0x0E, 0x20, 0x00, 0x00, 0xBF, 0x00, 0x00,
                      0x00, 0x2E, 0x01, 0x00, 0xC3, 'B',  'M',  'C'};
    const SdrRecord r = SdrRecord::fromBytes(mc);
    EXPECT_FALSE(r.isSensor());
    EXPECT_STREQ(recordTypeName(r.type), "management controller device locator");
    EXPECT_STREQ(recordTypeName(recordType::fruDeviceLocator), "FRU device locator");
    EXPECT_STREQ(recordTypeName(0x42), "unknown");
    ASSERT_TRUE(r.idString().has_value());
    EXPECT_EQ(r.idString()->text, "BMC");
    EXPECT_EQ(r.bytes, mc);
    EXPECT_THROW((void)SensorRecord::fromRecord(r), QelSdrError);
}

TEST(SdrRecord, SensorNamesSkipBrokenRecordsAndSayWhy) {
    Bytes broken(fullRecord.begin(), fullRecord.begin() + 20);
    broken[header::length] = 15;
    std::vector<std::string> problems;
    const std::vector<SensorName> names =
        sensorNames({SdrRecord::fromBytes(fullRecord), SdrRecord::fromBytes(broken),
                     SdrRecord::fromBytes(compactRecord), SdrRecord::fromBytes(eventOnlyRecord)},
                    &problems);
    ASSERT_EQ(names.size(), 5u);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_THAT(problems[0], HasSubstr("needs at least"));
    const SensorName* cpu2 = findSensor(names, 0x20, 0, 0x71);
    ASSERT_NE(cpu2, nullptr);
    EXPECT_EQ(cpu2->name, "CPU2");
    EXPECT_EQ(findSensor(names, 0x20, 1, 0x71), nullptr);
    EXPECT_EQ(findSensor(names, 0x20, 0, 0x73), nullptr);
}

TEST(SdrRecord, ArbitraryBytesParseOrFailCleanly) {
    // Whatever a controller or a damaged cache holds: a record, a clear
    // error, never a read past the bytes (the sanitizer build checks that).
    std::mt19937 random(20261126);
    int parsed = 0;
    int refused = 0;
    for (int i = 0; i < 20000; ++i) {
        Bytes b(random() % 72);
        for (uint8_t& byte : b) byte = static_cast<uint8_t>(random());
        if (b.size() >= header::size && (i % 2) == 0) {
            b[header::type] = static_cast<uint8_t>(1 + random() % 3);
            b[header::length] = static_cast<uint8_t>(b.size() - header::size);
        }
        try {
            const SdrRecord r = SdrRecord::fromBytes(b);
            (void)r.idString();
            if (r.isSensor()) {
                for (const SensorName& n : SensorRecord::fromRecord(r).names()) (void)n.escaped();
            }
            ++parsed;
        } catch (const QelSdrError& e) {
            EXPECT_FALSE(e.errorText.empty());
            ++refused;
        }
    }
    EXPECT_GT(parsed, 1000);
    EXPECT_GT(refused, 1000);
}

TEST(SdrRecord, EscapedTextsHoldNoControlBytes) {
    std::mt19937 random(7);
    for (int i = 0; i < 5000; ++i) {
        std::string raw(random() % 20, '\0');
        for (char& c : raw) c = static_cast<char>(random());
        for (unsigned char c : escapeText(raw)) EXPECT_TRUE(c >= 0x20 && c != 0x7F) << int(c);
    }
}

}  // namespace
