// A threshold sensor's raw byte turned into a value, its units and a state.
//
// Pure: nothing here talks to the controller or reads the sensor repository.
// The caller brings the bytes (a full sensor record, or a reply with its
// completion code at byte 0, as the transport stores it) and gets back
// values. Bad bytes never throw and never read out of bounds: a record or
// reply that cannot be taken apart gives a Parsed without a value and a
// one-line reason, and a reading that has no value (no analog reading,
// scanning disabled, reading unavailable, ln of 0, 1/0, a result too large
// for a double) gives std::nullopt, never a NaN or an infinity.
//
// The value of a raw reading x is y = L[(M x + B 10^K1) 10^K2], where x is
// the raw byte read as unsigned, one's complement or two's complement, and L
// the record's linearization. Thresholds and the record's nominal, normal
// and sensor range bytes are raw readings too and convert the same way.
#ifndef QEL_SENSOR_CONVERSION_H
#define QEL_SENSOR_CONVERSION_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qelExport.h"

namespace qelSensors {

namespace netfn {
constexpr unsigned char sensorEvent = 0x04;
}  // namespace netfn

namespace cmd {
// netfn::sensorEvent
constexpr unsigned char getSensorReadingFactors = 0x23;
constexpr unsigned char getSensorThresholds = 0x27;
constexpr unsigned char getSensorReading = 0x2D;
}  // namespace cmd

// The six bytes of M, B, their exponents, tolerance and accuracy, laid out
// alike in a full sensor record and in Get Sensor Reading Factors.
namespace factorBytes {
constexpr std::size_t mLow = 0;             // M bits 7:0
constexpr std::size_t mHighTolerance = 1;   // [7:6] M bits 9:8, [5:0] tolerance
constexpr std::size_t bLow = 2;             // B bits 7:0
constexpr std::size_t bHighAccuracy = 3;    // [7:6] B bits 9:8, [5:0] accuracy bits 5:0
constexpr std::size_t accuracyHighExp = 4;  // [7:4] accuracy bits 9:6, [3:2] accuracy exponent,
                                            // [1:0] sensor direction in a record, reserved in the reply
constexpr std::size_t exponents = 5;        // [7:4] K2 (result exponent), [3:0] K1 (B exponent)
constexpr std::size_t size = 6;
}  // namespace factorBytes

// Where the conversion fields sit in a full sensor record (record type 0x01),
// counted from the record's first byte, the 5-byte header included.
namespace fullRecord {
constexpr std::size_t recordType = 3;
constexpr std::size_t sensorType = 12;
constexpr std::size_t units1 = 20;          // [7:6] analog format, [5:3] rate, [2:1] modifier kind, [0] percentage
constexpr std::size_t baseUnit = 21;
constexpr std::size_t modifierUnit = 22;
constexpr std::size_t linearization = 23;   // [6:0]; bit 7 reserved
constexpr std::size_t factors = 24;         // factorBytes, to byte 29
// A record must reach this far for its conversion fields to be read.
constexpr std::size_t conversionEnd = factors + factorBytes::size;
constexpr unsigned char typeFull = 0x01;
}  // namespace fullRecord

// The comparison status and the readable mask have one bit per threshold,
// bit n for Threshold n; bits 7:6 are reserved (many controllers return them
// set) and are cleared on reading.
constexpr unsigned char thresholdBits = 0x3F;

// Get Sensor Reading reply: completion code, raw reading, flags, then for
// threshold sensors the comparison status, for discrete sensors the state
// bits 7:0 and (optionally) 14:8. Controllers leave out the bytes after the
// flags for sensors that have none, so only the first three are required.
namespace sensorReading {
constexpr std::size_t reading = 1;
constexpr std::size_t flags = 2;
constexpr std::size_t status = 3;      // threshold comparison status / discrete states 7:0
constexpr std::size_t moreStates = 4;  // discrete states 14:8
constexpr std::size_t minimumSize = 3;
// Flags. The two "enabled" bits read 0 when the thing is disabled.
constexpr unsigned char eventMessagesEnabled = 0x80;
constexpr unsigned char scanningEnabled = 0x40;
constexpr unsigned char readingUnavailable = 0x20;
}  // namespace sensorReading

// Get Sensor Reading Factors request: sensor number, raw reading. Reply:
// completion code, the next raw reading whose factors differ, factorBytes.
namespace readingFactors {
constexpr std::size_t nextReading = 1;
constexpr std::size_t factors = 2;
constexpr std::size_t size = factors + factorBytes::size;
}  // namespace readingFactors

// Get Sensor Thresholds reply: completion code, readable mask (bit per
// Threshold), then one raw byte per threshold in the order of Threshold. A
// threshold the mask leaves out holds nothing meaningful.
namespace thresholdsReply {
constexpr std::size_t readableMask = 1;
constexpr std::size_t first = 2;
constexpr std::size_t size = 8;
}  // namespace thresholdsReply

// Sensor type codes that decide a Prometheus metric.
namespace sensorType {
constexpr uint8_t temperature = 0x01;
constexpr uint8_t voltage = 0x02;
constexpr uint8_t current = 0x03;
constexpr uint8_t fan = 0x04;
}  // namespace sensorType

// Unit type codes the library gives a meaning of its own (the others are
// only names: see unitName).
namespace unit {
constexpr uint8_t unspecified = 0;
constexpr uint8_t degreesC = 1;
constexpr uint8_t volts = 4;
constexpr uint8_t amps = 5;
constexpr uint8_t watts = 6;
constexpr uint8_t rpm = 18;
}  // namespace unit

enum class AnalogFormat : uint8_t { Unsigned = 0, OnesComplement = 1, TwosComplement = 2, NoAnalogReading = 3 };

// The rate a unit is given per; Reserved (7) is shown as no rate.
enum class RateUnit : uint8_t {
    None = 0, PerMicrosecond = 1, PerMillisecond = 2, PerSecond = 3,
    PerMinute = 4, PerHour = 5, PerDay = 6, Reserved = 7
};

// How the modifier unit combines with the base unit; Reserved (3) is shown
// as no modifier.
enum class ModifierKind : uint8_t { None = 0, Divide = 1, Multiply = 2, Reserved = 3 };

// Linearization codes (record byte 24, bits 6:0). 0x0C-0x6F are reserved;
// 0x70 and the OEM codes 0x71-0x7F are non-linear: the record's factors do
// not apply, Get Sensor Reading Factors gives them for each raw reading.
namespace linearization {
constexpr uint8_t linear = 0x00;
constexpr uint8_t ln = 0x01;
constexpr uint8_t log10 = 0x02;
constexpr uint8_t log2 = 0x03;
constexpr uint8_t e = 0x04;
constexpr uint8_t exp10 = 0x05;
constexpr uint8_t exp2 = 0x06;
constexpr uint8_t reciprocal = 0x07;
constexpr uint8_t sqr = 0x08;
constexpr uint8_t cube = 0x09;
constexpr uint8_t sqrt = 0x0A;
constexpr uint8_t cubeRoot = 0x0B;
constexpr uint8_t nonLinear = 0x70;
constexpr uint8_t nonLinearOemLast = 0x7F;
}  // namespace linearization

// The conversion fields of a full sensor record, as the record holds them
// (signed fields sign-extended). A default-made one reads x as x (M = 1).
struct QEL_EXPORT ConversionFactors {
    AnalogFormat format = AnalogFormat::Unsigned;
    RateUnit rate = RateUnit::None;
    ModifierKind modifierKind = ModifierKind::None;
    bool percentage = false;
    uint8_t baseUnit = 0;       // unit type code
    uint8_t modifierUnit = 0;   // unit type code
    uint8_t linearization = linearization::linear;
    int16_t m = 1;              // 10 bits, two's complement: -512..511
    uint8_t tolerance = 0;      // 6 bits, in half raw counts
    int16_t b = 0;              // 10 bits, two's complement: -512..511
    uint16_t accuracy = 0;      // 10 bits, in 1/100 percent, times 10^accuracyExponent
    uint8_t accuracyExponent = 0;  // 2 bits
    int8_t k1 = 0;              // B exponent, 4 bits, two's complement: -8..7
    int8_t k2 = 0;              // result exponent, 4 bits, two's complement: -8..7
    // True when M, B, K1, K2, tolerance and accuracy came from Get Sensor
    // Reading Factors: then they hold for one range of raw readings and a
    // non-linear sensor's readings in that range convert with them.
    bool fromReadingFactors = false;

    // A modifier unit that takes part (Divide or Multiply).
    bool hasModifier() const {
        return modifierKind == ModifierKind::Divide || modifierKind == ModifierKind::Multiply;
    }
    bool isNonLinear() const {
        return linearization >= linearization::nonLinear && linearization <= linearization::nonLinearOemLast;
    }
    // The accuracy in percent: accuracy * 10^accuracyExponent / 100.
    double accuracyPercent() const;
};

// The outcome of taking a record or reply apart: the value, or why not.
template <typename T>
struct [[nodiscard]] Parsed {
    std::optional<T> value;
    std::string error;               // one line, empty when value is set
    uint8_t completionCode = 0;      // the controller's refusal, when that was why

    explicit operator bool() const { return value.has_value(); }
};

// The conversion fields of a full sensor record (type 0x01); `record` holds
// `size` bytes from the record's first byte (the header included). A record
// of another type, or one too short to reach byte 30, is refused.
QEL_EXPORT Parsed<ConversionFactors> factorsFromFullRecord(const unsigned char* record, std::size_t size);

struct QEL_EXPORT ReadingFactors {
    ConversionFactors factors;  // the record's, with the reply's M, B, K1, K2, tolerance, accuracy
    uint8_t nextReading = 0;    // the next raw reading whose factors differ
};

// A Get Sensor Reading Factors reply (completion code first) applied to the
// factors of the sensor's record: format, units and linearization stay the
// record's, the rest are the reply's, and fromReadingFactors is set.
QEL_EXPORT Parsed<ReadingFactors> factorsFromReadingFactorsReply(const ConversionFactors& record,
                                                                 const unsigned char* reply, std::size_t size);

// The raw byte as the format reads it: 0..255, -127..127 (0xFF is -0), or
// -128..127; no value without an analog reading.
QEL_EXPORT std::optional<int> rawValue(AnalogFormat format, uint8_t raw);

// y = L[(M x + B 10^K1) 10^K2]. No value: no analog reading, a reserved
// linearization, a non-linear sensor with the record's factors (it needs
// those of Get Sensor Reading Factors), or L undefined at the point (ln,
// log10 or log2 of y <= 0, 1/0, sqrt of y < 0) or overflowing a double.
QEL_EXPORT std::optional<double> convertReading(const ConversionFactors& factors, uint8_t raw);

// ---------------------------------------------------------------- units

// The unit type code's name as the unit table has it ("degrees C", "RPM",
// "Volts", ..., "grams" for 92); empty for codes past the table.
QEL_EXPORT std::string_view unitName(uint8_t code);
// The rate's unit ("second" for PerSecond); empty for None and Reserved.
QEL_EXPORT std::string_view rateUnitName(RateUnit rate);

// The units as admins read them: "degrees C", "% RPM", "Watts/hour" (divide
// modifier, or rate per hour), "Amps*second" (multiply modifier), "percent"
// (percentage of nothing in particular); "unknown (0x5D)" for a code past the
// table.
QEL_EXPORT std::string unitsText(const ConversionFactors& factors);

// ---------------------------------------------------------------- states

// One threshold; also its bit in the readable mask and the comparison status.
enum class Threshold : uint8_t {
    LowerNonCritical = 0, LowerCritical = 1, LowerNonRecoverable = 2,
    UpperNonCritical = 3, UpperCritical = 4, UpperNonRecoverable = 5
};
constexpr std::size_t thresholdCount = 6;
// "lower non-critical", ..., "upper non-recoverable".
QEL_EXPORT std::string_view thresholdName(Threshold threshold);

// The worst threshold the reading is at or beyond. Unknown: the reading has
// no value, or the controller gave no comparison status.
enum class SensorState : uint8_t { Nominal, Warning, Critical, NonRecoverable, Unknown };
// "nominal", "warning", "critical", "non-recoverable", "unknown".
QEL_EXPORT std::string_view stateName(SensorState state);

// A Get Sensor Reading reply taken apart.
struct QEL_EXPORT SensorReading {
    uint8_t raw = 0;
    bool eventMessagesEnabled = false;
    bool scanningEnabled = false;
    bool readingUnavailable = false;
    std::optional<uint8_t> thresholdStatus;   // byte 4, reserved bits 7:6 cleared
    std::optional<uint16_t> discreteStates;   // bytes 4 and 5 (bits 14:0), as far as present

    // Scanning enabled and the reading available: the raw byte means something.
    bool hasValue() const { return scanningEnabled && !readingUnavailable; }
    // Whether the comparison status says the reading is at or beyond it.
    bool crossed(Threshold threshold) const;
    SensorState state() const;
};

QEL_EXPORT Parsed<SensorReading> parseSensorReading(const unsigned char* reply, std::size_t size);

// The reading's value: none when the reading has none or the conversion gives none.
QEL_EXPORT std::optional<double> readingValue(const SensorReading& reading, const ConversionFactors& factors);

// A Get Sensor Thresholds reply taken apart.
struct QEL_EXPORT SensorThresholds {
    uint8_t readableMask = 0;              // bits 5:0, reserved bits cleared
    std::array<uint8_t, thresholdCount> raw{};

    bool readable(Threshold threshold) const;
};

QEL_EXPORT Parsed<SensorThresholds> parseSensorThresholds(const unsigned char* reply, std::size_t size);

// Each threshold's value, in the order of Threshold; none when it is not
// readable or converts to no value. A non-linear sensor's thresholds need
// the reading factors of each raw threshold: convert those one by one.
struct QEL_EXPORT ThresholdValues {
    std::array<std::optional<double>, thresholdCount> values{};
    std::optional<double> operator[](Threshold threshold) const {
        return values[static_cast<std::size_t>(threshold)];
    }
};

QEL_EXPORT ThresholdValues convertThresholds(const SensorThresholds& thresholds, const ConversionFactors& factors);

// ---------------------------------------------------------------- Prometheus

// The metric family a sensor's value goes to, with ipmi_exporter's names.
struct QEL_EXPORT PrometheusMetric {
    std::string_view valueName;   // "ipmi_temperature_celsius", ..., "ipmi_sensor_value"
    std::string_view stateName;   // "ipmi_temperature_state", ..., "ipmi_sensor_state"
    // The value is published divided by this (100 for a percentage shown as
    // a ratio). A division, not a multiplication by 0.01, so 50 % gives
    // exactly 0.5.
    double divisor = 1.0;

    double scaled(double value) const { return value / divisor; }
};

// By the units: degrees C, RPM, Volts, Amps and Watts (without modifier,
// rate or percentage) have their own families whatever the sensor type; a
// fan (sensor type 0x04) in percent (of nothing or of RPM) is a speed ratio;
// everything else is ipmi_sensor_value.
QEL_EXPORT PrometheusMetric prometheusMetric(uint8_t sensorType, const ConversionFactors& factors);

// The state gauge: 0 nominal, 1 warning, 2 critical or non-recoverable;
// none (NaN in the exposition) for Unknown.
QEL_EXPORT std::optional<int> prometheusState(SensorState state);

}  // namespace qelSensors

#endif
