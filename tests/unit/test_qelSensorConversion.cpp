// A threshold sensor's raw byte turned into a value, units and a state. Every
// expected number is worked out by hand in the comment beside it, from the
// factors the test writes down; none comes from the code under test.
#include "qelSensorConversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace {

using namespace qelSensors;
using Bytes = std::vector<unsigned char>;

// Factors written down field by field (no record parsing involved).
ConversionFactors factors(int m, int b, int k1, int k2, AnalogFormat format = AnalogFormat::Unsigned,
                          uint8_t lin = linearization::linear) {
    ConversionFactors f;
    f.m = static_cast<int16_t>(m);
    f.b = static_cast<int16_t>(b);
    f.k1 = static_cast<int8_t>(k1);
    f.k2 = static_cast<int8_t>(k2);
    f.format = format;
    f.linearization = lin;
    return f;
}

ConversionFactors units(uint8_t base, bool percentage = false, ModifierKind kind = ModifierKind::None,
                        uint8_t modifier = 0, RateUnit rate = RateUnit::None) {
    ConversionFactors f;
    f.baseUnit = base;
    f.percentage = percentage;
    f.modifierKind = kind;
    f.modifierUnit = modifier;
    f.rate = rate;
    return f;
}

// A full sensor record whose conversion fields are written out byte by byte:
// M = -2, B = -10, K1 = 1, K2 = -2, tolerance 21, accuracy 677 with exponent
// 3, two's complement readings in % Watts/hour per second, linearization sqr
// with the reserved bit 7 set.
const Bytes kRecord = {
    0x12, 0x00,  // record id
    0x51,        // SDR version
    0x01,        // record type: full sensor record
    0x3B,        // bytes after the header
    0x20, 0x00, 0x30, 0x07, 0x01, 0x7F, 0x68,
    0x01,        // sensor type: temperature
    0x01, 0x95, 0x0A, 0x95, 0x7A, 0x3F, 0x3F,
    0x9B,        // units 1: 10 two's complement, 011 per second, 01 divide, 1 percentage
    0x06,        // base unit: Watts
    0x18,        // modifier unit: 24 hour
    0x88,        // reserved bit 7, linearization 0x08 sqr
    0xFE,        // M bits 7:0 of 0x3FE (-2 in 10 bits)
    0xD5,        // 11 = M bits 9:8, 010101 = tolerance 21
    0xF6,        // B bits 7:0 of 0x3F6 (-10 in 10 bits)
    0xE5,        // 11 = B bits 9:8, 100101 = accuracy bits 5:0 (677 = 0x2A5 = 1010 100101)
    0xAD,        // 1010 = accuracy bits 9:6, 11 = accuracy exponent 3, 01 = direction
    0xE1,        // K2 = 0xE (-2), K1 = 0x1
    0x00, 0x80, 0x00, 0x00, 0xFF, 0x00,  // flags, nominal, normal max/min, sensor max/min
};

// ---------------------------------------------------------------- records

TEST(FullRecordFactors, TakesEveryConversionFieldFromItsByte) {
    const Parsed<ConversionFactors> p = factorsFromFullRecord(kRecord.data(), kRecord.size());
    ASSERT_TRUE(p) << p.error;
    const ConversionFactors& f = *p.value;
    EXPECT_EQ(f.format, AnalogFormat::TwosComplement);
    EXPECT_EQ(f.rate, RateUnit::PerSecond);
    EXPECT_EQ(f.modifierKind, ModifierKind::Divide);
    EXPECT_TRUE(f.percentage);
    EXPECT_EQ(f.baseUnit, 6);
    EXPECT_EQ(f.modifierUnit, 24);
    EXPECT_EQ(f.linearization, 0x08);
    EXPECT_EQ(f.m, -2);
    EXPECT_EQ(f.tolerance, 21);
    EXPECT_EQ(f.b, -10);
    EXPECT_EQ(f.accuracy, 677);
    EXPECT_EQ(f.accuracyExponent, 3);
    EXPECT_EQ(f.k1, 1);
    EXPECT_EQ(f.k2, -2);
    EXPECT_FALSE(f.fromReadingFactors);
    // 677 * 10^3 / 100 = 6770 percent.
    EXPECT_DOUBLE_EQ(f.accuracyPercent(), 6770.0);
}

TEST(FullRecordFactors, ReadsTheExtremesOfTheSignedFields) {
    Bytes r = kRecord;
    r[20] = 0x00;  // unsigned, no rate, no modifier, no percentage
    r[24] = 0xFF;  // M = 0x1FF = 511
    r[25] = 0x40;
    r[26] = 0x00;  // B = 0x200 = -512
    r[27] = 0x80;
    r[28] = 0x00;
    r[29] = 0x78;  // K2 = 7, K1 = 0x8 = -8
    const Parsed<ConversionFactors> p = factorsFromFullRecord(r.data(), r.size());
    ASSERT_TRUE(p) << p.error;
    EXPECT_EQ(p.value->format, AnalogFormat::Unsigned);
    EXPECT_EQ(p.value->rate, RateUnit::None);
    EXPECT_EQ(p.value->modifierKind, ModifierKind::None);
    EXPECT_FALSE(p.value->percentage);
    EXPECT_EQ(p.value->m, 511);
    EXPECT_EQ(p.value->tolerance, 0);
    EXPECT_EQ(p.value->b, -512);
    EXPECT_EQ(p.value->accuracy, 0);
    EXPECT_EQ(p.value->k2, 7);
    EXPECT_EQ(p.value->k1, -8);
}

TEST(FullRecordFactors, NeedsOnlyTheBytesUpToTheExponents) {
    const Parsed<ConversionFactors> p = factorsFromFullRecord(kRecord.data(), 30);
    ASSERT_TRUE(p) << p.error;
    EXPECT_EQ(p.value->k2, -2);
}

TEST(FullRecordFactors, RefusesARecordCutBeforeTheExponents) {
    const Parsed<ConversionFactors> p = factorsFromFullRecord(kRecord.data(), 29);
    EXPECT_FALSE(p);
    EXPECT_EQ(p.error, "full sensor record: 29 bytes, at least 30 expected");
    EXPECT_FALSE(factorsFromFullRecord(nullptr, 0));
    EXPECT_FALSE(factorsFromFullRecord(nullptr, 64));
}

TEST(FullRecordFactors, RefusesOtherRecordTypes) {
    Bytes compact = kRecord;
    compact[3] = 0x02;
    const Parsed<ConversionFactors> p = factorsFromFullRecord(compact.data(), compact.size());
    EXPECT_FALSE(p);
    EXPECT_EQ(p.error, "full sensor record: record type 0x02 has no conversion factors");
}

// ---------------------------------------------------------------- analog formats

TEST(AnalogFormat, ReadsTheRawByteEachWay) {
    EXPECT_EQ(rawValue(AnalogFormat::Unsigned, 0x80), 128);
    EXPECT_EQ(rawValue(AnalogFormat::Unsigned, 0xFF), 255);
    EXPECT_EQ(rawValue(AnalogFormat::OnesComplement, 0x7F), 127);
    EXPECT_EQ(rawValue(AnalogFormat::OnesComplement, 0x80), -127);  // ~0x80 = 0x7F
    EXPECT_EQ(rawValue(AnalogFormat::OnesComplement, 0xFE), -1);    // ~0xFE = 0x01
    EXPECT_EQ(rawValue(AnalogFormat::OnesComplement, 0xFF), 0);     // -0
    EXPECT_EQ(rawValue(AnalogFormat::TwosComplement, 0x7F), 127);
    EXPECT_EQ(rawValue(AnalogFormat::TwosComplement, 0x80), -128);
    EXPECT_EQ(rawValue(AnalogFormat::TwosComplement, 0xFF), -1);
    EXPECT_EQ(rawValue(AnalogFormat::NoAnalogReading, 0x10), std::nullopt);
}

TEST(Conversion, TwosComplementReading) {
    // x = 0x80 = -128; M x = 2 * -128 = -256; B 10^K1 = -10 * 10 = -100;
    // (-256 - 100) * 10^-2 = -3.56.
    const ConversionFactors f = factors(2, -10, 1, -2, AnalogFormat::TwosComplement);
    EXPECT_DOUBLE_EQ(convertReading(f, 0x80).value(), -3.56);
    // x = 0xFF = -1: (-2 - 100) * 10^-2 = -1.02.
    EXPECT_DOUBLE_EQ(convertReading(f, 0xFF).value(), -1.02);
}

TEST(Conversion, UnsignedReading) {
    // x = 128: (256 - 100) * 10^-2 = 1.56.
    const ConversionFactors f = factors(2, -10, 1, -2, AnalogFormat::Unsigned);
    EXPECT_DOUBLE_EQ(convertReading(f, 0x80).value(), 1.56);
    // x = 255: (510 - 100) * 10^-2 = 4.1.
    EXPECT_DOUBLE_EQ(convertReading(f, 0xFF).value(), 4.1);
    // x = 0: (0 - 100) * 10^-2 = -1.
    EXPECT_DOUBLE_EQ(convertReading(f, 0x00).value(), -1.0);
}

TEST(Conversion, OnesComplementReading) {
    const ConversionFactors f = factors(2, -10, 1, -2, AnalogFormat::OnesComplement);
    // x = 0x80 = -127: (-254 - 100) * 10^-2 = -3.54.
    EXPECT_DOUBLE_EQ(convertReading(f, 0x80).value(), -3.54);
    // x = 0xFE = -1: (-2 - 100) * 10^-2 = -1.02.
    EXPECT_DOUBLE_EQ(convertReading(f, 0xFE).value(), -1.02);
}

TEST(Conversion, OnesComplementMinusZeroIsZero) {
    // x = 0xFF = -0: (0 + 7) * 10^0 = 7, the same as x = 0x00.
    const ConversionFactors f = factors(3, 7, 0, 0, AnalogFormat::OnesComplement);
    EXPECT_DOUBLE_EQ(convertReading(f, 0xFF).value(), 7.0);
    EXPECT_DOUBLE_EQ(convertReading(f, 0x00).value(), 7.0);
}

TEST(Conversion, NoAnalogReadingHasNoValue) {
    const ConversionFactors f = factors(1, 0, 0, 0, AnalogFormat::NoAnalogReading);
    EXPECT_EQ(convertReading(f, 0x00), std::nullopt);
    EXPECT_EQ(convertReading(f, 0x42), std::nullopt);
}

TEST(Conversion, ZeroMGivesTheOffsetForEveryReading) {
    // (0 x + 25 * 10^0) * 10^-1 = 2.5 whatever x is.
    const ConversionFactors f = factors(0, 25, 0, -1);
    EXPECT_DOUBLE_EQ(convertReading(f, 0x00).value(), 2.5);
    EXPECT_DOUBLE_EQ(convertReading(f, 0x80).value(), 2.5);
    EXPECT_DOUBLE_EQ(convertReading(f, 0xFF).value(), 2.5);
}

TEST(Conversion, TypicalVoltageSensor) {
    // x = 0xC4 = 196; M = 78, K2 = -3: 196 * 78 = 15288; * 10^-3 = 15.288 V.
    EXPECT_DOUBLE_EQ(convertReading(factors(78, 0, 0, -3), 0xC4).value(), 15.288);
    // Fan: x = 0x4B = 75; M = 100: 7500 RPM.
    EXPECT_DOUBLE_EQ(convertReading(factors(100, 0, 0, 0), 0x4B).value(), 7500.0);
}

TEST(Conversion, ExtremeFactors) {
    // x = 0x80 = -128, M = -512: M x = 65536; B 10^K1 = 511 * 10^7 = 5110000000;
    // sum 5110065536; * 10^7 = 5.110065536e16.
    const ConversionFactors big = factors(-512, 511, 7, 7, AnalogFormat::TwosComplement);
    EXPECT_DOUBLE_EQ(convertReading(big, 0x80).value(), 5.110065536e16);
    // x = 0, B = 1, K1 = -8, K2 = -8: 1e-8 * 1e-8 = 1e-16.
    EXPECT_DOUBLE_EQ(convertReading(factors(1, 1, -8, -8), 0x00).value(), 1e-16);
}

TEST(Conversion, NegativeExponentGivesTheDoubleNearestTheDecimal) {
    // 48 * 10^-1 is 4.8 exactly as a decimal; multiplying by the double 0.1
    // would give 4.800000000000001, which a metrics scrape or a JSON document
    // (shortest round-trip text) would show. Compared exactly on purpose.
    const ConversionFactors f = factors(1, 0, 0, -1);
    EXPECT_EQ(convertReading(f, 48).value(), 4.8);
    EXPECT_EQ(convertReading(f, 96).value(), 9.6);
    // B 10^K1 with K1 = -1: 3 * 10^-1 = 0.3 (3 * 0.1 would be 0.30000000000000004).
    EXPECT_EQ(convertReading(factors(0, 3, -1, 0), 0).value(), 0.3);
}

// ---------------------------------------------------------------- linearizations

TEST(Linearization, LnOfTheScaledReading) {
    // y = 1 * 1 = 1; ln 1 = 0.
    EXPECT_DOUBLE_EQ(convertReading(factors(1, 0, 0, 0, AnalogFormat::Unsigned, linearization::ln), 1).value(), 0.0);
    // y = 100; ln 100 = 2 ln 10 = 2 * 2.302585092994046 = 4.605170185988092.
    EXPECT_NEAR(convertReading(factors(1, 0, 0, 0, AnalogFormat::Unsigned, linearization::ln), 100).value(),
                4.605170185988092, 1e-12);
}

TEST(Linearization, LnOfZeroOrLessHasNoValue) {
    const ConversionFactors f = factors(1, 0, 0, 0, AnalogFormat::TwosComplement, linearization::ln);
    EXPECT_EQ(convertReading(f, 0x00), std::nullopt);  // ln 0
    EXPECT_EQ(convertReading(f, 0xFF), std::nullopt);  // ln -1
}

TEST(Linearization, Log10) {
    // y = 10 * 100 = 1000; log10 1000 = 3.
    const ConversionFactors f = factors(10, 0, 0, 0, AnalogFormat::Unsigned, linearization::log10);
    EXPECT_NEAR(convertReading(f, 100).value(), 3.0, 1e-12);
    EXPECT_EQ(convertReading(f, 0), std::nullopt);  // log10 0
}

TEST(Linearization, Log2) {
    // y = 2 * 128 = 256 = 2^8; log2 256 = 8.
    EXPECT_DOUBLE_EQ(
        convertReading(factors(2, 0, 0, 0, AnalogFormat::Unsigned, linearization::log2), 0x80).value(), 8.0);
    // Read as two's complement, the same byte is -128: y = -256, no log2.
    EXPECT_EQ(convertReading(factors(2, 0, 0, 0, AnalogFormat::TwosComplement, linearization::log2), 0x80),
              std::nullopt);
}

TEST(Linearization, E) {
    // y = 1 * 1 + 1 * 10^0 = 2; e^2 = 2.718281828459045^2 = 7.389056098930650.
    const ConversionFactors f = factors(1, 1, 0, 0, AnalogFormat::Unsigned, linearization::e);
    EXPECT_NEAR(convertReading(f, 1).value(), 7.389056098930650, 1e-12);
    // y = -1 (x = 0, B = -1): e^-1 = 1 / 2.718281828459045 = 0.36787944117144233.
    EXPECT_NEAR(convertReading(factors(1, -1, 0, 0, AnalogFormat::Unsigned, linearization::e), 0).value(),
                0.36787944117144233, 1e-15);
}

TEST(Linearization, Exp10AppliesAfterTheResultExponent) {
    // y = 30 * 10^-1 = 3; 10^3 = 1000 (not 10^30 * 10^-1).
    const ConversionFactors f = factors(1, 0, 0, -1, AnalogFormat::TwosComplement, linearization::exp10);
    EXPECT_NEAR(convertReading(f, 30).value(), 1000.0, 1e-9);
    // x = 0xEC = 236 - 256 = -20; y = -2; 10^-2 = 0.01.
    EXPECT_NEAR(convertReading(f, 0xEC).value(), 0.01, 1e-15);
}

TEST(Linearization, Exp2) {
    // y = 10; 2^10 = 1024.
    EXPECT_DOUBLE_EQ(convertReading(factors(1, 0, 0, 0, AnalogFormat::Unsigned, linearization::exp2), 10).value(),
                     1024.0);
}

TEST(Linearization, Reciprocal) {
    // y = 4; 1/4 = 0.25.
    const ConversionFactors f = factors(1, 0, 0, 0, AnalogFormat::Unsigned, linearization::reciprocal);
    EXPECT_DOUBLE_EQ(convertReading(f, 4).value(), 0.25);
    // y = 8 * 10^-3 = 0.008; 1/0.008 = 125.
    EXPECT_NEAR(convertReading(factors(8, 0, 0, -3, AnalogFormat::Unsigned, linearization::reciprocal), 1).value(),
                125.0, 1e-9);
}

TEST(Linearization, ReciprocalOfZeroHasNoValue) {
    EXPECT_EQ(convertReading(factors(1, 0, 0, 0, AnalogFormat::Unsigned, linearization::reciprocal), 0),
              std::nullopt);
    // M = 0, B = 0: y = 0 for every reading.
    EXPECT_EQ(convertReading(factors(0, 0, 0, 0, AnalogFormat::Unsigned, linearization::reciprocal), 0x55),
              std::nullopt);
}

TEST(Linearization, SqrAppliesAfterTheResultExponent) {
    // x = 0xF4 = 244 - 256 = -12; y = -12; (-12)^2 = 144.
    EXPECT_DOUBLE_EQ(
        convertReading(factors(1, 0, 0, 0, AnalogFormat::TwosComplement, linearization::sqr), 0xF4).value(), 144.0);
    // y = 30 * 10^-1 = 3; 3^2 = 9 (not 30^2 * 10^-1 = 90).
    EXPECT_NEAR(convertReading(factors(1, 0, 0, -1, AnalogFormat::Unsigned, linearization::sqr), 30).value(), 9.0,
                1e-12);
}

TEST(Linearization, Cube) {
    // x = 0xFD = 253 - 256 = -3; (-3)^3 = -27.
    EXPECT_DOUBLE_EQ(
        convertReading(factors(1, 0, 0, 0, AnalogFormat::TwosComplement, linearization::cube), 0xFD).value(), -27.0);
}

TEST(Linearization, Sqrt) {
    const ConversionFactors f = factors(1, 0, 0, 0, AnalogFormat::TwosComplement, linearization::sqrt);
    EXPECT_DOUBLE_EQ(convertReading(f, 0x79).value(), 11.0);  // 0x79 = 121 = 11^2
    EXPECT_DOUBLE_EQ(convertReading(f, 0x00).value(), 0.0);
    EXPECT_EQ(convertReading(f, 0xFF), std::nullopt);  // sqrt -1
}

TEST(Linearization, CubeRootOfNegativeIsNegative) {
    const ConversionFactors f = factors(1, 0, 0, 0, AnalogFormat::TwosComplement, linearization::cubeRoot);
    // x = 0xE5 = 229 - 256 = -27; cbrt -27 = -3.
    EXPECT_NEAR(convertReading(f, 0xE5).value(), -3.0, 1e-12);
    // y = 8 * 125 = 1000; cbrt 1000 = 10.
    EXPECT_NEAR(convertReading(factors(8, 0, 0, 0, AnalogFormat::Unsigned, linearization::cubeRoot), 125).value(),
                10.0, 1e-12);
}

TEST(Linearization, ReservedCodesHaveNoValue) {
    EXPECT_EQ(convertReading(factors(1, 0, 0, 0, AnalogFormat::Unsigned, 0x0C), 5), std::nullopt);
    EXPECT_EQ(convertReading(factors(1, 0, 0, 0, AnalogFormat::Unsigned, 0x6F), 5), std::nullopt);
}

TEST(Linearization, OverflowHasNoValue) {
    // y = (511 * 255) * 10^7 = 1.303e12; e^y and 10^y are far beyond a double.
    EXPECT_EQ(convertReading(factors(511, 0, 0, 7, AnalogFormat::Unsigned, linearization::e), 0xFF), std::nullopt);
    EXPECT_EQ(convertReading(factors(511, 0, 0, 7, AnalogFormat::Unsigned, linearization::exp10), 0xFF),
              std::nullopt);
    EXPECT_EQ(convertReading(factors(511, 0, 0, 7, AnalogFormat::Unsigned, linearization::exp2), 0xFF), std::nullopt);
    // ... while e^-y only comes close to 0.
    EXPECT_EQ(
        convertReading(factors(-512, 0, 0, 7, AnalogFormat::Unsigned, linearization::e), 0xFF).value(), 0.0);
}

TEST(Linearization, NonLinearNeedsTheReadingFactors) {
    const ConversionFactors record = factors(5, -3, 0, -1, AnalogFormat::Unsigned, linearization::nonLinear);
    EXPECT_TRUE(record.isNonLinear());
    EXPECT_EQ(convertReading(record, 0x50), std::nullopt);
    ConversionFactors oem = factors(5, -3, 0, -1, AnalogFormat::Unsigned, linearization::nonLinearOemLast);
    EXPECT_EQ(convertReading(oem, 0x50), std::nullopt);
    // With the reading factors, the formula is linear: (5 * 80 - 3) * 10^-1 = 39.7.
    oem.fromReadingFactors = true;
    EXPECT_DOUBLE_EQ(convertReading(oem, 0x50).value(), 39.7);
}

// ---------------------------------------------------------------- reading factors

TEST(ReadingFactors, ReplaceTheRecordsFactorsAndKeepItsUnits) {
    ConversionFactors record = factors(1, 0, 0, 0, AnalogFormat::Unsigned, linearization::nonLinear);
    record.baseUnit = unit::degreesC;
    const Bytes reply = {
        0x00,        // completion code
        0x90,        // next reading
        0x05, 0x15,  // M = 5, tolerance 0x15
        0xFD, 0xC1,  // B = 0x3FD = -3, accuracy bits 5:0 = 1
        0x24,        // accuracy bits 9:6 = 2 (2 << 6 | 1 = 129), exponent 1
        0xF0,        // K2 = -1, K1 = 0
    };
    const Parsed<ReadingFactors> p = factorsFromReadingFactorsReply(record, reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    const ConversionFactors& f = p.value->factors;
    EXPECT_EQ(p.value->nextReading, 0x90);
    EXPECT_EQ(f.m, 5);
    EXPECT_EQ(f.tolerance, 0x15);
    EXPECT_EQ(f.b, -3);
    EXPECT_EQ(f.accuracy, 129);
    EXPECT_EQ(f.accuracyExponent, 1);
    EXPECT_EQ(f.k1, 0);
    EXPECT_EQ(f.k2, -1);
    EXPECT_TRUE(f.fromReadingFactors);
    EXPECT_EQ(f.baseUnit, unit::degreesC);
    EXPECT_EQ(f.linearization, linearization::nonLinear);
    // x = 0x50 = 80: (5 * 80 - 3) * 10^-1 = 39.7.
    EXPECT_DOUBLE_EQ(convertReading(f, 0x50).value(), 39.7);
}

TEST(ReadingFactors, RefusedOrShortReplyIsAnError) {
    const ConversionFactors record;
    const Bytes refused = {0xCB};
    const Parsed<ReadingFactors> r = factorsFromReadingFactorsReply(record, refused.data(), refused.size());
    EXPECT_FALSE(r);
    EXPECT_EQ(r.completionCode, 0xCB);
    EXPECT_EQ(r.error, "Get Sensor Reading Factors: failed with completion code 0xCB");
    const Bytes shortReply = {0x00, 0x90, 0x05, 0x15, 0xFD, 0xC1, 0x24};
    const Parsed<ReadingFactors> s = factorsFromReadingFactorsReply(record, shortReply.data(), shortReply.size());
    EXPECT_FALSE(s);
    EXPECT_EQ(s.completionCode, 0);
    EXPECT_EQ(s.error, "Get Sensor Reading Factors: reply of 7 bytes, at least 8 expected");
}

// ---------------------------------------------------------------- units

TEST(Units, NamesFromTheUnitTable) {
    EXPECT_EQ(unitName(0), "unspecified");
    EXPECT_EQ(unitName(1), "degrees C");
    EXPECT_EQ(unitName(2), "degrees F");
    EXPECT_EQ(unitName(3), "degrees K");
    EXPECT_EQ(unitName(4), "Volts");
    EXPECT_EQ(unitName(5), "Amps");
    EXPECT_EQ(unitName(6), "Watts");
    EXPECT_EQ(unitName(9), "VA");
    EXPECT_EQ(unitName(14), "kPa");
    EXPECT_EQ(unitName(17), "CFM");
    EXPECT_EQ(unitName(18), "RPM");
    EXPECT_EQ(unitName(19), "Hz");
    EXPECT_EQ(unitName(20), "microsecond");
    EXPECT_EQ(unitName(30), "cu in");
    EXPECT_EQ(unitName(46), "ft-lb");
    EXPECT_EQ(unitName(58), "PPM");
    EXPECT_EQ(unitName(59), "reserved");
    EXPECT_EQ(unitName(60), "Decibels");
    EXPECT_EQ(unitName(65), "color temp deg K");
    EXPECT_EQ(unitName(70), "byte");
    EXPECT_EQ(unitName(82), "overrun / overflow");
    EXPECT_EQ(unitName(89), "correctable error");
    EXPECT_EQ(unitName(92), "grams");
    EXPECT_EQ(unitName(93), "");
    EXPECT_EQ(unitName(255), "");
}

TEST(Units, TextOfPlainUnits) {
    EXPECT_EQ(unitsText(units(1)), "degrees C");
    EXPECT_EQ(unitsText(units(18)), "RPM");
    EXPECT_EQ(unitsText(units(4)), "Volts");
    EXPECT_EQ(unitsText(units(0)), "unspecified");
}

TEST(Units, TextOfPercentages) {
    EXPECT_EQ(unitsText(units(18, true)), "% RPM");
    EXPECT_EQ(unitsText(units(0, true)), "percent");
    EXPECT_EQ(unitsText(units(6, true, ModifierKind::Divide, 24)), "% Watts/hour");
}

TEST(Units, TextOfModifiers) {
    EXPECT_EQ(unitsText(units(6, false, ModifierKind::Divide, 24)), "Watts/hour");
    EXPECT_EQ(unitsText(units(5, false, ModifierKind::Multiply, 22)), "Amps*second");
    // The reserved kind (3) leaves the modifier out.
    EXPECT_EQ(unitsText(units(4, false, ModifierKind::Reserved, 22)), "Volts");
}

TEST(Units, TextOfRates) {
    EXPECT_EQ(unitsText(units(6, false, ModifierKind::None, 0, RateUnit::PerHour)), "Watts/hour");
    EXPECT_EQ(unitsText(units(19, false, ModifierKind::None, 0, RateUnit::PerMicrosecond)), "Hz/microsecond");
    EXPECT_EQ(unitsText(units(41, false, ModifierKind::None, 0, RateUnit::PerMinute)), "revolutions/minute");
    EXPECT_EQ(unitsText(units(85, false, ModifierKind::None, 0, RateUnit::PerSecond)), "packets/second");
    EXPECT_EQ(unitsText(units(88, false, ModifierKind::None, 0, RateUnit::PerDay)), "error/day");
    EXPECT_EQ(unitsText(units(7, false, ModifierKind::None, 0, RateUnit::PerMillisecond)), "Joules/millisecond");
    EXPECT_EQ(unitsText(units(4, false, ModifierKind::None, 0, RateUnit::Reserved)), "Volts");
    EXPECT_EQ(rateUnitName(RateUnit::None), "");
}

TEST(Units, CodesPastTheTableAreShownAsUnknown) {
    EXPECT_EQ(unitsText(units(93)), "unknown (0x5D)");
    EXPECT_EQ(unitsText(units(4, false, ModifierKind::Divide, 200)), "Volts/unknown (0xC8)");
}

TEST(Units, TextOfTheRecordsUnits) {
    const Parsed<ConversionFactors> p = factorsFromFullRecord(kRecord.data(), kRecord.size());
    ASSERT_TRUE(p) << p.error;
    // Percentage, Watts divided by hour, per second.
    EXPECT_EQ(unitsText(*p.value), "% Watts/hour/second");
}

// ---------------------------------------------------------------- sensor reading

TEST(SensorReadingReply, TakesReadingFlagsAndStatusApart) {
    const Bytes reply = {0x00, 0x80, 0xC0, 0xC0};  // status: only the reserved bits
    const Parsed<SensorReading> p = parseSensorReading(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    EXPECT_EQ(p.value->raw, 0x80);
    EXPECT_TRUE(p.value->eventMessagesEnabled);
    EXPECT_TRUE(p.value->scanningEnabled);
    EXPECT_FALSE(p.value->readingUnavailable);
    EXPECT_TRUE(p.value->hasValue());
    EXPECT_EQ(p.value->thresholdStatus, 0x00);
    EXPECT_EQ(p.value->state(), SensorState::Nominal);
    // x = 128, M = 2, B = -10, K1 = 1, K2 = -2: (256 - 100) * 10^-2 = 1.56.
    EXPECT_DOUBLE_EQ(readingValue(*p.value, factors(2, -10, 1, -2)).value(), 1.56);
}

TEST(SensorReadingReply, EachComparisonBitGivesItsState) {
    const struct {
        unsigned char bit;
        Threshold threshold;
        SensorState state;
    } cases[] = {
        {0x01, Threshold::LowerNonCritical, SensorState::Warning},
        {0x02, Threshold::LowerCritical, SensorState::Critical},
        {0x04, Threshold::LowerNonRecoverable, SensorState::NonRecoverable},
        {0x08, Threshold::UpperNonCritical, SensorState::Warning},
        {0x10, Threshold::UpperCritical, SensorState::Critical},
        {0x20, Threshold::UpperNonRecoverable, SensorState::NonRecoverable},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.bit));
        const Bytes reply = {0x00, 0x10, 0xC0, c.bit};
        const Parsed<SensorReading> p = parseSensorReading(reply.data(), reply.size());
        ASSERT_TRUE(p) << p.error;
        EXPECT_EQ(p.value->state(), c.state);
        for (int t = 0; t < 6; ++t) {
            EXPECT_EQ(p.value->crossed(static_cast<Threshold>(t)), static_cast<Threshold>(t) == c.threshold);
        }
    }
}

TEST(SensorReadingReply, TheWorstCrossedThresholdWins) {
    auto stateOf = [](unsigned char status) {
        const Bytes reply = {0x00, 0x10, 0xC0, status};
        return parseSensorReading(reply.data(), reply.size()).value->state();
    };
    EXPECT_EQ(stateOf(0x09), SensorState::Warning);         // both non-critical
    EXPECT_EQ(stateOf(0x1B), SensorState::Critical);        // LNC, LC, UNC, UC
    EXPECT_EQ(stateOf(0x3F), SensorState::NonRecoverable);  // all six
    EXPECT_EQ(stateOf(0xD8), SensorState::Critical);        // reserved bits, UNC, UC
}

TEST(SensorReadingReply, ScanningDisabledHasNoValueAndIsNoError) {
    const Bytes reply = {0x00, 0x55, 0x80, 0x02};
    const Parsed<SensorReading> p = parseSensorReading(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    EXPECT_FALSE(p.value->scanningEnabled);
    EXPECT_TRUE(p.value->eventMessagesEnabled);
    EXPECT_FALSE(p.value->hasValue());
    EXPECT_EQ(readingValue(*p.value, factors(1, 0, 0, 0)), std::nullopt);
    EXPECT_EQ(p.value->state(), SensorState::Unknown);
}

TEST(SensorReadingReply, UnavailableReadingHasNoValue) {
    const Bytes reply = {0x00, 0x55, 0xE0, 0x00};
    const Parsed<SensorReading> p = parseSensorReading(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    EXPECT_TRUE(p.value->readingUnavailable);
    EXPECT_FALSE(p.value->hasValue());
    EXPECT_EQ(readingValue(*p.value, factors(1, 0, 0, 0)), std::nullopt);
    EXPECT_EQ(p.value->state(), SensorState::Unknown);
}

TEST(SensorReadingReply, EventMessagesDisabledStillHasAValue) {
    const Bytes reply = {0x00, 0x55, 0x40, 0x00};
    const Parsed<SensorReading> p = parseSensorReading(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    EXPECT_FALSE(p.value->eventMessagesEnabled);
    EXPECT_TRUE(p.value->hasValue());
    EXPECT_DOUBLE_EQ(readingValue(*p.value, factors(1, 0, 0, 0)).value(), 85.0);  // 0x55
    EXPECT_EQ(p.value->state(), SensorState::Nominal);
}

TEST(SensorReadingReply, WithoutStatusByteTheStateIsUnknown) {
    const Bytes reply = {0x00, 0x55, 0xC0};
    const Parsed<SensorReading> p = parseSensorReading(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    EXPECT_EQ(p.value->thresholdStatus, std::nullopt);
    EXPECT_EQ(p.value->discreteStates, std::nullopt);
    EXPECT_FALSE(p.value->crossed(Threshold::UpperCritical));
    EXPECT_EQ(p.value->state(), SensorState::Unknown);
    EXPECT_DOUBLE_EQ(readingValue(*p.value, factors(1, 0, 0, 0)).value(), 85.0);
}

TEST(SensorReadingReply, DiscreteStatesFromBothBytes) {
    const Bytes reply = {0x00, 0x00, 0xC0, 0x05, 0x81};
    const Parsed<SensorReading> p = parseSensorReading(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    // 0x05 | (0x81 & 0x7F) << 8 = 0x0105: bit 15 is reserved.
    EXPECT_EQ(p.value->discreteStates, 0x0105);
}

TEST(SensorReadingReply, RefusedReplyIsAnErrorWithItsCompletionCode) {
    const Bytes reply = {0xCB};
    const Parsed<SensorReading> p = parseSensorReading(reply.data(), reply.size());
    EXPECT_FALSE(p);
    EXPECT_EQ(p.completionCode, 0xCB);
    EXPECT_EQ(p.error, "Get Sensor Reading: failed with completion code 0xCB");
}

TEST(SensorReadingReply, EmptyOrShortReplyIsAnError) {
    const Parsed<SensorReading> empty = parseSensorReading(nullptr, 0);
    EXPECT_FALSE(empty);
    EXPECT_EQ(empty.error, "Get Sensor Reading: empty reply (no completion code)");
    const Bytes shortReply = {0x00, 0x10};
    const Parsed<SensorReading> s = parseSensorReading(shortReply.data(), shortReply.size());
    EXPECT_FALSE(s);
    EXPECT_EQ(s.error, "Get Sensor Reading: reply of 2 bytes, at least 3 expected");
}

// ---------------------------------------------------------------- thresholds

TEST(ThresholdsReply, ConvertsEveryReadableThreshold) {
    // Raw LNC 0x10, LC 0x20, LNR 0x30, UNC 0x40, UC 0x50, UNR 0x60.
    const Bytes reply = {0x00, 0x3F, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60};
    const Parsed<SensorThresholds> p = parseSensorThresholds(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    EXPECT_EQ(p.value->readableMask, 0x3F);
    // M = 1, K2 = -1: 16 / 10, 32 / 10, ...
    const ThresholdValues v = convertThresholds(*p.value, factors(1, 0, 0, -1));
    EXPECT_DOUBLE_EQ(v[Threshold::LowerNonCritical].value(), 1.6);
    EXPECT_DOUBLE_EQ(v[Threshold::LowerCritical].value(), 3.2);
    EXPECT_DOUBLE_EQ(v[Threshold::LowerNonRecoverable].value(), 4.8);
    EXPECT_DOUBLE_EQ(v[Threshold::UpperNonCritical].value(), 6.4);
    EXPECT_DOUBLE_EQ(v[Threshold::UpperCritical].value(), 8.0);
    EXPECT_DOUBLE_EQ(v[Threshold::UpperNonRecoverable].value(), 9.6);
}

TEST(ThresholdsReply, UnreadableThresholdsHaveNoValue) {
    // Only LNC (bit 0) and UNC (bit 3) readable.
    const Bytes reply = {0x00, 0x09, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60};
    const Parsed<SensorThresholds> p = parseSensorThresholds(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    EXPECT_TRUE(p.value->readable(Threshold::LowerNonCritical));
    EXPECT_FALSE(p.value->readable(Threshold::LowerCritical));
    EXPECT_TRUE(p.value->readable(Threshold::UpperNonCritical));
    const ThresholdValues v = convertThresholds(*p.value, factors(2, 0, 0, 0));
    EXPECT_DOUBLE_EQ(v[Threshold::LowerNonCritical].value(), 32.0);  // 2 * 0x10
    EXPECT_EQ(v[Threshold::LowerCritical], std::nullopt);
    EXPECT_EQ(v[Threshold::LowerNonRecoverable], std::nullopt);
    EXPECT_DOUBLE_EQ(v[Threshold::UpperNonCritical].value(), 128.0);  // 2 * 0x40
    EXPECT_EQ(v[Threshold::UpperCritical], std::nullopt);
    EXPECT_EQ(v[Threshold::UpperNonRecoverable], std::nullopt);
}

TEST(ThresholdsReply, ReservedMaskBitsMakeNothingReadable) {
    const Bytes reply = {0x00, 0xC0, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60};
    const Parsed<SensorThresholds> p = parseSensorThresholds(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    EXPECT_EQ(p.value->readableMask, 0x00);
    const ThresholdValues v = convertThresholds(*p.value, factors(1, 0, 0, 0));
    for (const auto& value : v.values) EXPECT_EQ(value, std::nullopt);
}

TEST(ThresholdsReply, SignedThresholdsConvertWithTheSensorsFormat) {
    // Raw LC 0xF6: two's complement -10; M = 1, B = 0: -10 degrees.
    const Bytes reply = {0x00, 0x02, 0x00, 0xF6, 0x00, 0x00, 0x00, 0x00};
    const Parsed<SensorThresholds> p = parseSensorThresholds(reply.data(), reply.size());
    ASSERT_TRUE(p) << p.error;
    const ThresholdValues v = convertThresholds(*p.value, factors(1, 0, 0, 0, AnalogFormat::TwosComplement));
    EXPECT_DOUBLE_EQ(v[Threshold::LowerCritical].value(), -10.0);
}

TEST(ThresholdsReply, RefusedOrShortReplyIsAnError) {
    const Bytes refused = {0xD5};
    const Parsed<SensorThresholds> r = parseSensorThresholds(refused.data(), refused.size());
    EXPECT_FALSE(r);
    EXPECT_EQ(r.completionCode, 0xD5);
    EXPECT_EQ(r.error, "Get Sensor Thresholds: failed with completion code 0xD5");
    const Bytes shortReply = {0x00, 0x3F, 0x10, 0x20, 0x30, 0x40, 0x50};
    const Parsed<SensorThresholds> s = parseSensorThresholds(shortReply.data(), shortReply.size());
    EXPECT_FALSE(s);
    EXPECT_EQ(s.error, "Get Sensor Thresholds: reply of 7 bytes, at least 8 expected");
}

TEST(Thresholds, Names) {
    EXPECT_EQ(thresholdName(Threshold::LowerNonCritical), "lower non-critical");
    EXPECT_EQ(thresholdName(Threshold::LowerCritical), "lower critical");
    EXPECT_EQ(thresholdName(Threshold::LowerNonRecoverable), "lower non-recoverable");
    EXPECT_EQ(thresholdName(Threshold::UpperNonCritical), "upper non-critical");
    EXPECT_EQ(thresholdName(Threshold::UpperCritical), "upper critical");
    EXPECT_EQ(thresholdName(Threshold::UpperNonRecoverable), "upper non-recoverable");
}

// ---------------------------------------------------------------- bad bytes

// Every parser over every length from 0 to past its full size, each input in
// a heap block of exactly that length (so a sanitizer build sees any read
// past the end): too short is an error naming the length, long enough parses.
TEST(BadBytes, EveryLengthIsEitherParsedOrRefusedWithoutReadingPastTheEnd) {
    const Bytes full = {0x00, 0x11, 0xC0, 0x3F, 0x7F, 0x22, 0x33, 0x44, 0x55, 0x66};
    for (std::size_t n = 0; n <= full.size(); ++n) {
        SCOPED_TRACE(n);
        const std::unique_ptr<unsigned char[]> block(new unsigned char[n == 0 ? 1 : n]);
        std::copy(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n), block.get());
        const Parsed<SensorReading> r = parseSensorReading(block.get(), n);
        EXPECT_EQ(static_cast<bool>(r), n >= 3);
        EXPECT_EQ(r.error.empty(), n >= 3);
        if (r) {
            EXPECT_EQ(r.value->thresholdStatus.has_value(), n >= 4);
            EXPECT_EQ(r.value->discreteStates.has_value(), n >= 4);
        }
        const Parsed<SensorThresholds> t = parseSensorThresholds(block.get(), n);
        EXPECT_EQ(static_cast<bool>(t), n >= 8);
        EXPECT_EQ(t.error.empty(), n >= 8);
        const Parsed<ReadingFactors> f = factorsFromReadingFactorsReply(ConversionFactors(), block.get(), n);
        EXPECT_EQ(static_cast<bool>(f), n >= 8);
        EXPECT_EQ(f.error.empty(), n >= 8);
    }
    for (std::size_t n = 0; n <= kRecord.size(); ++n) {
        SCOPED_TRACE(n);
        const std::unique_ptr<unsigned char[]> block(new unsigned char[n == 0 ? 1 : n]);
        std::copy(kRecord.begin(), kRecord.begin() + static_cast<std::ptrdiff_t>(n), block.get());
        const Parsed<ConversionFactors> p = factorsFromFullRecord(block.get(), n);
        EXPECT_EQ(static_cast<bool>(p), n >= 30);
    }
}

TEST(BadBytes, EveryRawByteOfEveryFormatAndLinearizationIsAFiniteValueOrNone) {
    // The largest factors in both signs, so the linearizations meet their
    // undefined points (0, negatives) and overflow.
    for (int lin = 0; lin <= 0x7F; ++lin) {
        for (int format = 0; format < 4; ++format) {
            for (const int m : {-512, 0, 1, 511}) {
                for (const int k : {-8, 0, 7}) {
                    const ConversionFactors f =
                        factors(m, -m, k, k, static_cast<AnalogFormat>(format), static_cast<uint8_t>(lin));
                    for (int raw = 0; raw <= 0xFF; ++raw) {
                        const std::optional<double> y = convertReading(f, static_cast<uint8_t>(raw));
                        if (y) {
                            ASSERT_TRUE(std::isfinite(*y)) << lin << " " << format << " " << m << " " << raw;
                        }
                    }
                }
            }
        }
    }
}

// ---------------------------------------------------------------- Prometheus

TEST(PrometheusMapping, UnitsChooseTheMetricFamily) {
    EXPECT_EQ(prometheusMetric(sensorType::temperature, units(unit::degreesC)).valueName, "ipmi_temperature_celsius");
    EXPECT_EQ(prometheusMetric(sensorType::temperature, units(unit::degreesC)).stateName, "ipmi_temperature_state");
    EXPECT_EQ(prometheusMetric(sensorType::fan, units(unit::rpm)).valueName, "ipmi_fan_speed_rpm");
    EXPECT_EQ(prometheusMetric(sensorType::fan, units(unit::rpm)).stateName, "ipmi_fan_speed_state");
    EXPECT_EQ(prometheusMetric(sensorType::voltage, units(unit::volts)).valueName, "ipmi_voltage_volts");
    EXPECT_EQ(prometheusMetric(sensorType::voltage, units(unit::volts)).stateName, "ipmi_voltage_state");
    EXPECT_EQ(prometheusMetric(sensorType::current, units(unit::amps)).valueName, "ipmi_current_amperes");
    EXPECT_EQ(prometheusMetric(sensorType::current, units(unit::amps)).stateName, "ipmi_current_state");
    // Power supplies report watts under sensor types of their own (0x08, 0x0B).
    EXPECT_EQ(prometheusMetric(0x08, units(unit::watts)).valueName, "ipmi_power_watts");
    EXPECT_EQ(prometheusMetric(0x08, units(unit::watts)).stateName, "ipmi_power_state");
    // The unit decides, not the type: a processor's temperature is a temperature.
    EXPECT_EQ(prometheusMetric(0x07, units(unit::degreesC)).valueName, "ipmi_temperature_celsius");
}

TEST(PrometheusMapping, FanPercentIsARatio) {
    const PrometheusMetric m = prometheusMetric(sensorType::fan, units(unit::unspecified, true));
    EXPECT_EQ(m.valueName, "ipmi_fan_speed_ratio");
    EXPECT_EQ(m.stateName, "ipmi_fan_speed_state");
    EXPECT_EQ(m.scaled(50.0), 0.5);   // 50 / 100
    EXPECT_EQ(m.scaled(100.0), 1.0);
    EXPECT_EQ(prometheusMetric(sensorType::fan, units(unit::rpm, true)).valueName, "ipmi_fan_speed_ratio");
    // A percentage that is not a fan's stays a plain value.
    const PrometheusMetric other = prometheusMetric(0x0B, units(unit::unspecified, true));
    EXPECT_EQ(other.valueName, "ipmi_sensor_value");
    EXPECT_EQ(other.scaled(50.0), 50.0);
}

TEST(PrometheusMapping, EverythingElseIsASensorValue) {
    const auto name = [](uint8_t type, const ConversionFactors& f) {
        return std::string(prometheusMetric(type, f).valueName);
    };
    EXPECT_EQ(name(sensorType::temperature, units(2)), "ipmi_sensor_value");  // degrees F
    EXPECT_EQ(name(sensorType::temperature, units(3)), "ipmi_sensor_value");  // degrees K
    EXPECT_EQ(name(0x08, units(unit::watts, false, ModifierKind::Divide, 24)), "ipmi_sensor_value");
    EXPECT_EQ(name(0x08, units(unit::watts, false, ModifierKind::None, 0, RateUnit::PerHour)), "ipmi_sensor_value");
    EXPECT_EQ(name(sensorType::fan, units(unit::rpm, false, ModifierKind::None, 0, RateUnit::PerMinute)),
              "ipmi_sensor_value");
    EXPECT_EQ(name(sensorType::voltage, units(unit::volts, true)), "ipmi_sensor_value");  // % Volts
    EXPECT_EQ(name(sensorType::fan, units(unit::unspecified)), "ipmi_sensor_value");
    EXPECT_EQ(name(sensorType::fan, units(unit::unspecified, true, ModifierKind::Divide, 22)), "ipmi_sensor_value");
    EXPECT_EQ(prometheusMetric(0x0C, units(0)).stateName, "ipmi_sensor_state");
}

TEST(PrometheusMapping, StateNumbers) {
    EXPECT_EQ(prometheusState(SensorState::Nominal), 0);
    EXPECT_EQ(prometheusState(SensorState::Warning), 1);
    EXPECT_EQ(prometheusState(SensorState::Critical), 2);
    EXPECT_EQ(prometheusState(SensorState::NonRecoverable), 2);
    EXPECT_EQ(prometheusState(SensorState::Unknown), std::nullopt);
}

TEST(States, Names) {
    EXPECT_EQ(stateName(SensorState::Nominal), "nominal");
    EXPECT_EQ(stateName(SensorState::Warning), "warning");
    EXPECT_EQ(stateName(SensorState::Critical), "critical");
    EXPECT_EQ(stateName(SensorState::NonRecoverable), "non-recoverable");
    EXPECT_EQ(stateName(SensorState::Unknown), "unknown");
}

}  // namespace
