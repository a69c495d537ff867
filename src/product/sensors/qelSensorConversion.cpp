#include "qelSensorConversion.h"

#include <cmath>
#include <cstdio>

namespace qelSensors {

namespace {

// The unit type codes, by code. Names as the unit table writes them, so
// that what an admin reads matches the documentation of the controller.
constexpr std::array<std::string_view, 93> unitNames = {
    "unspecified",        // 0
    "degrees C",          // 1
    "degrees F",          // 2
    "degrees K",          // 3
    "Volts",              // 4
    "Amps",               // 5
    "Watts",              // 6
    "Joules",             // 7
    "Coulombs",           // 8
    "VA",                 // 9
    "Nits",               // 10
    "lumen",              // 11
    "lux",                // 12
    "Candela",            // 13
    "kPa",                // 14
    "PSI",                // 15
    "Newton",             // 16
    "CFM",                // 17
    "RPM",                // 18
    "Hz",                 // 19
    "microsecond",        // 20
    "millisecond",        // 21
    "second",             // 22
    "minute",             // 23
    "hour",               // 24
    "day",                // 25
    "week",               // 26
    "mil",                // 27
    "inches",             // 28
    "feet",               // 29
    "cu in",              // 30
    "cu feet",            // 31
    "mm",                 // 32
    "cm",                 // 33
    "m",                  // 34
    "cu cm",              // 35
    "cu m",               // 36
    "liters",             // 37
    "fluid ounce",        // 38
    "radians",            // 39
    "steradians",         // 40
    "revolutions",        // 41
    "cycles",             // 42
    "gravities",          // 43
    "ounce",              // 44
    "pound",              // 45
    "ft-lb",              // 46
    "oz-in",              // 47
    "gauss",              // 48
    "gilberts",           // 49
    "henry",              // 50
    "millihenry",         // 51
    "farad",              // 52
    "microfarad",         // 53
    "ohms",               // 54
    "siemens",            // 55
    "mole",               // 56
    "becquerel",          // 57
    "PPM",                // 58
    "reserved",           // 59: a hole in the table, kept so the codes after it stay in place
    "Decibels",           // 60
    "DbA",                // 61
    "DbC",                // 62
    "gray",               // 63
    "sievert",            // 64
    "color temp deg K",   // 65
    "bit",                // 66
    "kilobit",            // 67
    "megabit",            // 68
    "gigabit",            // 69
    "byte",               // 70
    "kilobyte",           // 71
    "megabyte",           // 72
    "gigabyte",           // 73
    "word",               // 74
    "dword",              // 75
    "qword",              // 76
    "line",               // 77
    "hit",                // 78
    "miss",               // 79
    "retry",              // 80
    "reset",              // 81
    "overrun / overflow", // 82
    "underrun",           // 83
    "collision",          // 84
    "packets",            // 85
    "messages",           // 86
    "characters",         // 87
    "error",              // 88
    "correctable error",  // 89
    "uncorrectable error",// 90
    "fatal error",        // 91
    "grams",              // 92
};

// The unit a rate is "per", by RateUnit; the same names as the unit table's
// time units, so "Watts per hour" reads "Watts/hour" whether the record says
// it with a rate or with a divide modifier.
constexpr std::array<std::string_view, 8> rateNames = {
    "", "microsecond", "millisecond", "second", "minute", "hour", "day", ""};

constexpr std::array<std::string_view, thresholdCount> thresholdNames = {
    "lower non-critical", "lower critical", "lower non-recoverable",
    "upper non-critical", "upper critical", "upper non-recoverable"};

// A field of `bits` bits in two's complement, sign-extended.
int signExtend(unsigned int value, unsigned int bits) {
    const unsigned int sign = 1u << (bits - 1);
    value &= (1u << bits) - 1;
    return static_cast<int>(value ^ sign) - static_cast<int>(sign);
}

// factorBytes at p.
void takeFactors(const unsigned char* p, ConversionFactors& f) {
    using namespace factorBytes;
    f.m = static_cast<int16_t>(signExtend(p[mLow] | ((p[mHighTolerance] & 0xC0u) << 2), 10));
    f.tolerance = p[mHighTolerance] & 0x3F;
    f.b = static_cast<int16_t>(signExtend(p[bLow] | ((p[bHighAccuracy] & 0xC0u) << 2), 10));
    f.accuracy = static_cast<uint16_t>((p[bHighAccuracy] & 0x3Fu) | ((p[accuracyHighExp] & 0xF0u) << 2));
    f.accuracyExponent = (p[accuracyHighExp] >> 2) & 0x03;
    f.k2 = static_cast<int8_t>(signExtend(p[exponents] >> 4, 4));
    f.k1 = static_cast<int8_t>(signExtend(p[exponents] & 0x0Fu, 4));
}

// Exact powers of ten for |exponent| <= 8 (a 4-bit exponent's range).
double powerOfTen(int exponent) {
    double p = 1.0;
    for (int i = 0; i < exponent; ++i) p *= 10.0;
    return p;
}

// v * 10^exponent. A negative exponent divides by the exact power rather
// than multiplying by an inexact 0.01, so -356 * 10^-2 is the double nearest
// -3.56, the number an admin compares with the controller's documentation.
double scaleByTen(double v, int exponent) {
    return exponent >= 0 ? v * powerOfTen(exponent) : v / powerOfTen(-exponent);
}

std::string hexByte(unsigned int value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%02X", value & 0xFFu);
    return text;
}

template <typename T>
Parsed<T> refused(const char* what, std::string reason, uint8_t completionCode = 0) {
    Parsed<T> p;
    p.error = std::string(what) + ": " + reason;
    p.completionCode = completionCode;
    return p;
}

// The checks every reply goes through: something arrived, the controller did
// not refuse, and it is long enough to hold what we read.
template <typename T>
bool replyUsable(const char* what, const unsigned char* reply, std::size_t size, std::size_t minimum,
                 Parsed<T>& result) {
    if (reply == nullptr || size == 0) {
        result = refused<T>(what, "empty reply (no completion code)");
        return false;
    }
    if (reply[0] != 0) {
        result = refused<T>(what, "failed with completion code " + hexByte(reply[0]), reply[0]);
        return false;
    }
    if (size < minimum) {
        result = refused<T>(what, "reply of " + std::to_string(size) + " bytes, at least " +
                                      std::to_string(minimum) + " expected");
        return false;
    }
    return true;
}

std::optional<double> finite(double v) {
    if (!std::isfinite(v)) return std::nullopt;
    return v;
}

std::optional<double> linearize(uint8_t code, double y) {
    switch (code) {
    case linearization::linear: return finite(y);
    case linearization::ln: return y > 0 ? finite(std::log(y)) : std::nullopt;
    case linearization::log10: return y > 0 ? finite(std::log10(y)) : std::nullopt;
    case linearization::log2: return y > 0 ? finite(std::log2(y)) : std::nullopt;
    case linearization::e: return finite(std::exp(y));
    case linearization::exp10: return finite(std::pow(10.0, y));
    case linearization::exp2: return finite(std::exp2(y));
    case linearization::reciprocal: return y != 0 ? finite(1.0 / y) : std::nullopt;
    case linearization::sqr: return finite(y * y);
    case linearization::cube: return finite(y * y * y);
    case linearization::sqrt: return y >= 0 ? finite(std::sqrt(y)) : std::nullopt;
    // The cube root of a negative number is negative, not undefined.
    case linearization::cubeRoot: return finite(std::cbrt(y));
    default: return std::nullopt;  // reserved
    }
}

}  // namespace

double ConversionFactors::accuracyPercent() const {
    return scaleByTen(accuracy, accuracyExponent) / 100.0;
}

Parsed<ConversionFactors> factorsFromFullRecord(const unsigned char* record, std::size_t size) {
    const char* what = "full sensor record";
    if (record == nullptr || size < fullRecord::conversionEnd) {
        return refused<ConversionFactors>(what, std::to_string(record == nullptr ? 0 : size) +
                                                    " bytes, at least " +
                                                    std::to_string(fullRecord::conversionEnd) + " expected");
    }
    if (record[fullRecord::recordType] != fullRecord::typeFull) {
        return refused<ConversionFactors>(
            what, "record type " + hexByte(record[fullRecord::recordType]) + " has no conversion factors");
    }
    ConversionFactors f;
    const unsigned char units1 = record[fullRecord::units1];
    f.format = static_cast<AnalogFormat>(units1 >> 6);
    f.rate = static_cast<RateUnit>((units1 >> 3) & 0x07);
    f.modifierKind = static_cast<ModifierKind>((units1 >> 1) & 0x03);
    f.percentage = (units1 & 0x01) != 0;
    f.baseUnit = record[fullRecord::baseUnit];
    f.modifierUnit = record[fullRecord::modifierUnit];
    f.linearization = record[fullRecord::linearization] & 0x7F;
    takeFactors(record + fullRecord::factors, f);
    Parsed<ConversionFactors> result;
    result.value = f;
    return result;
}

Parsed<ReadingFactors> factorsFromReadingFactorsReply(const ConversionFactors& record, const unsigned char* reply,
                                                      std::size_t size) {
    Parsed<ReadingFactors> result;
    if (!replyUsable("Get Sensor Reading Factors", reply, size, readingFactors::size, result)) return result;
    ReadingFactors r;
    r.factors = record;
    takeFactors(reply + readingFactors::factors, r.factors);
    r.factors.fromReadingFactors = true;
    r.nextReading = reply[readingFactors::nextReading];
    result.value = r;
    return result;
}

std::optional<int> rawValue(AnalogFormat format, uint8_t raw) {
    switch (format) {
    case AnalogFormat::Unsigned: return raw;
    // 0x80..0xFF are -127..-0: the complement of the magnitude.
    case AnalogFormat::OnesComplement: return (raw & 0x80) ? -static_cast<int>(~raw & 0xFF) : raw;
    case AnalogFormat::TwosComplement: return (raw & 0x80) ? static_cast<int>(raw) - 256 : raw;
    case AnalogFormat::NoAnalogReading: break;
    }
    return std::nullopt;
}

std::optional<double> convertReading(const ConversionFactors& f, uint8_t raw) {
    const std::optional<int> x = rawValue(f.format, raw);
    if (!x) return std::nullopt;
    uint8_t l = f.linearization;
    if (f.isNonLinear()) {
        // The record's factors are no guide for a non-linear sensor; those
        // of Get Sensor Reading Factors make the reading linear over their
        // range.
        if (!f.fromReadingFactors) return std::nullopt;
        l = linearization::linear;
    }
    const double y = scaleByTen(static_cast<double>(f.m) * *x + scaleByTen(f.b, f.k1), f.k2);
    return linearize(l, y);
}

std::string_view unitName(uint8_t code) {
    return code < unitNames.size() ? unitNames[code] : std::string_view();
}

std::string_view rateUnitName(RateUnit rate) {
    return rateNames[static_cast<std::size_t>(rate) & 0x07];
}

std::string unitsText(const ConversionFactors& f) {
    auto name = [](uint8_t code) {
        const std::string_view n = unitName(code);
        return n.empty() ? "unknown (" + hexByte(code) + ")" : std::string(n);
    };
    std::string text;
    if (f.percentage && f.baseUnit == unit::unspecified && !f.hasModifier()) {
        // A percentage of an unspecified unit is just a percentage.
        text = "percent";
    } else {
        text = (f.percentage ? "% " : "") + name(f.baseUnit);
        if (f.modifierKind == ModifierKind::Divide) text += "/" + name(f.modifierUnit);
        if (f.modifierKind == ModifierKind::Multiply) text += "*" + name(f.modifierUnit);
    }
    const std::string_view rate = rateUnitName(f.rate);
    if (!rate.empty()) text += "/" + std::string(rate);
    return text;
}

std::string_view thresholdName(Threshold threshold) {
    const auto i = static_cast<std::size_t>(threshold);
    return i < thresholdNames.size() ? thresholdNames[i] : std::string_view();
}

std::string_view stateName(SensorState state) {
    switch (state) {
    case SensorState::Nominal: return "nominal";
    case SensorState::Warning: return "warning";
    case SensorState::Critical: return "critical";
    case SensorState::NonRecoverable: return "non-recoverable";
    case SensorState::Unknown: break;
    }
    return "unknown";
}

bool SensorReading::crossed(Threshold threshold) const {
    return thresholdStatus && (*thresholdStatus & (1u << static_cast<unsigned int>(threshold))) != 0;
}

SensorState SensorReading::state() const {
    if (!hasValue() || !thresholdStatus) return SensorState::Unknown;
    if (crossed(Threshold::LowerNonRecoverable) || crossed(Threshold::UpperNonRecoverable))
        return SensorState::NonRecoverable;
    if (crossed(Threshold::LowerCritical) || crossed(Threshold::UpperCritical)) return SensorState::Critical;
    if (crossed(Threshold::LowerNonCritical) || crossed(Threshold::UpperNonCritical)) return SensorState::Warning;
    return SensorState::Nominal;
}

Parsed<SensorReading> parseSensorReading(const unsigned char* reply, std::size_t size) {
    Parsed<SensorReading> result;
    if (!replyUsable("Get Sensor Reading", reply, size, sensorReading::minimumSize, result)) return result;
    SensorReading r;
    r.raw = reply[sensorReading::reading];
    const unsigned char flags = reply[sensorReading::flags];
    r.eventMessagesEnabled = (flags & sensorReading::eventMessagesEnabled) != 0;
    r.scanningEnabled = (flags & sensorReading::scanningEnabled) != 0;
    r.readingUnavailable = (flags & sensorReading::readingUnavailable) != 0;
    if (size > sensorReading::status) {
        r.thresholdStatus = reply[sensorReading::status] & thresholdBits;
        uint16_t states = reply[sensorReading::status];
        if (size > sensorReading::moreStates) {
            // Bit 7 of the second byte is reserved.
            states |= static_cast<uint16_t>((reply[sensorReading::moreStates] & 0x7F) << 8);
        }
        r.discreteStates = states;
    }
    result.value = r;
    return result;
}

std::optional<double> readingValue(const SensorReading& reading, const ConversionFactors& factors) {
    if (!reading.hasValue()) return std::nullopt;
    return convertReading(factors, reading.raw);
}

bool SensorThresholds::readable(Threshold threshold) const {
    return (readableMask & (1u << static_cast<unsigned int>(threshold))) != 0;
}

Parsed<SensorThresholds> parseSensorThresholds(const unsigned char* reply, std::size_t size) {
    Parsed<SensorThresholds> result;
    if (!replyUsable("Get Sensor Thresholds", reply, size, thresholdsReply::size, result)) return result;
    SensorThresholds t;
    t.readableMask = reply[thresholdsReply::readableMask] & thresholdBits;
    for (std::size_t i = 0; i < thresholdCount; ++i) t.raw[i] = reply[thresholdsReply::first + i];
    result.value = t;
    return result;
}

ThresholdValues convertThresholds(const SensorThresholds& thresholds, const ConversionFactors& factors) {
    ThresholdValues v;
    for (std::size_t i = 0; i < thresholdCount; ++i) {
        if (thresholds.readable(static_cast<Threshold>(i))) v.values[i] = convertReading(factors, thresholds.raw[i]);
    }
    return v;
}

PrometheusMetric prometheusMetric(uint8_t type, const ConversionFactors& f) {
    const bool compound = f.hasModifier() || f.rate != RateUnit::None;
    if (!compound && !f.percentage) {
        switch (f.baseUnit) {
        case unit::degreesC: return {"ipmi_temperature_celsius", "ipmi_temperature_state", 1.0};
        case unit::rpm: return {"ipmi_fan_speed_rpm", "ipmi_fan_speed_state", 1.0};
        case unit::volts: return {"ipmi_voltage_volts", "ipmi_voltage_state", 1.0};
        case unit::amps: return {"ipmi_current_amperes", "ipmi_current_state", 1.0};
        case unit::watts: return {"ipmi_power_watts", "ipmi_power_state", 1.0};
        default: break;
        }
    }
    // A fan's duty or speed as a percentage of its maximum.
    if (!compound && f.percentage && type == sensorType::fan &&
        (f.baseUnit == unit::unspecified || f.baseUnit == unit::rpm)) {
        return {"ipmi_fan_speed_ratio", "ipmi_fan_speed_state", 100.0};
    }
    return {"ipmi_sensor_value", "ipmi_sensor_state", 1.0};
}

std::optional<int> prometheusState(SensorState state) {
    switch (state) {
    case SensorState::Nominal: return 0;
    case SensorState::Warning: return 1;
    case SensorState::Critical:
    case SensorState::NonRecoverable: return 2;
    case SensorState::Unknown: break;
    }
    return std::nullopt;
}

}  // namespace qelSensors
