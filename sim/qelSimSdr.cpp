#include "qelSimSdr.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <ostream>
#include <stdexcept>

#include "qelSensorConversion.h"
#include "qelSimDescription.h"

namespace qelSim {

namespace {

using Lock = std::lock_guard<std::recursive_mutex>;
namespace cc = qelSdr::cc;
namespace sdr = qelSdr;

uint16_t le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
void putLe16(Response& r, unsigned int v) {
    r.push_back(static_cast<unsigned char>(v & 0xFF));
    r.push_back(static_cast<unsigned char>((v >> 8) & 0xFF));
}
void putLe32(Response& r, uint32_t v) {
    for (int i = 0; i < 4; ++i) r.push_back(static_cast<unsigned char>((v >> (8 * i)) & 0xFF));
}

unsigned int shareOf(const sdr::SensorRecord& s) {
    return s.recordType == sdr::recordType::fullSensor ? 1u : std::max<unsigned int>(1, s.shareCount);
}

}  // namespace

SimSdr::SimSdr(SimBmc& bmc) : bmc_(bmc), lastAddition_(epochBase), lastErase_(epochBase) {}

Bytes SimSdr::Entry::bytes() const {
    if (sensor) {
        sdr::SensorRecord s = *sensor;
        s.recordId = id;
        return s.toBytes();
    }
    Bytes b = {static_cast<unsigned char>(id & 0xFF), static_cast<unsigned char>(id >> 8), sdr::sdrVersion, type,
               static_cast<unsigned char>(body.size())};
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

std::uint32_t SimSdr::now() const { return epochBase + static_cast<std::uint32_t>(bmc_.nowMs() / 1000); }

void SimSdr::changed() {
    // Two changes within one second must still differ for a reader that
    // compares the addition time.
    lastAddition_ = std::max(lastAddition_ + 1, now());
    reservationValid_ = false;
}

std::uint16_t SimSdr::nextId() {
    lastId_ = lastId_ == 0 ? 1 : static_cast<std::uint16_t>(lastId_ + stride_);
    if (lastId_ == 0 || lastId_ == sdr::lastRecordId) lastId_ = static_cast<std::uint16_t>(lastId_ + 1);
    return lastId_;
}

std::uint16_t SimSdr::addSensor(sdr::SensorRecord record, unsigned char reading, std::vector<FactorRange> ranges) {
    Lock lock(bmc_.mutex());
    if (record.recordType != sdr::recordType::fullSensor && record.recordType != sdr::recordType::compactSensor &&
        record.recordType != sdr::recordType::eventOnly)
        throw std::invalid_argument("a sensor record is full, compact or event-only");
    Entry e;
    e.id = nextId();
    e.type = record.recordType;
    e.readings.assign(shareOf(record), reading);
    std::sort(ranges.begin(), ranges.end(),
              [](const FactorRange& a, const FactorRange& b) { return a.from < b.from; });
    e.ranges = std::move(ranges);
    e.sensor = std::move(record);
    entries_.push_back(std::move(e));
    changed();
    return entries_.back().id;
}

std::uint16_t SimSdr::addRecord(unsigned char type, const Bytes& body) {
    Lock lock(bmc_.mutex());
    if (body.size() > 0xFF) throw std::invalid_argument("a record body holds at most 255 bytes");
    Entry e;
    e.id = nextId();
    e.type = type;
    e.body = body;
    entries_.push_back(std::move(e));
    changed();
    return entries_.back().id;
}

SimSdr::Entry* SimSdr::sensorEntry(unsigned char number, std::size_t* index) {
    return const_cast<Entry*>(static_cast<const SimSdr*>(this)->sensorEntry(number, index));
}

const SimSdr::Entry* SimSdr::sensorEntry(unsigned char number, std::size_t* index) const {
    for (const Entry& e : entries_) {
        if (!e.sensor) continue;
        const unsigned int first = e.sensor->sensorNumber;
        if (number >= first && number < first + shareOf(*e.sensor)) {
            if (index) *index = number - first;
            return &e;
        }
    }
    return nullptr;
}

bool SimSdr::renameSensor(unsigned char number, const std::string& name) {
    Lock lock(bmc_.mutex());
    Entry* e = sensorEntry(number);
    if (!e) return false;
    e->sensor->id = sdr::IdString::latin1Text(name);
    changed();
    return true;
}

bool SimSdr::removeSensor(unsigned char number) {
    Lock lock(bmc_.mutex());
    Entry* e = sensorEntry(number);
    if (!e) return false;
    entries_.erase(entries_.begin() + (e - entries_.data()));
    changed();
    return true;
}

void SimSdr::erase() {
    Lock lock(bmc_.mutex());
    entries_.clear();
    lastErase_ = std::max(lastErase_ + 1, now());
    reservationValid_ = false;
}

bool SimSdr::setReading(unsigned char number, unsigned char raw) {
    Lock lock(bmc_.mutex());
    std::size_t index = 0;
    Entry* e = sensorEntry(number, &index);
    if (!e) return false;
    e->readings[index] = raw;
    return true;
}

std::vector<Bytes> SimSdr::records() const {
    Lock lock(bmc_.mutex());
    std::vector<Bytes> out;
    for (const Entry& e : entries_) out.push_back(e.bytes());
    return out;
}

std::uint16_t SimSdr::reservation() const {
    Lock lock(bmc_.mutex());
    return reservationValid_ ? reservation_ : 0;
}

std::uint32_t SimSdr::lastAddition() const {
    Lock lock(bmc_.mutex());
    return lastAddition_;
}

void SimSdr::setMaxRead(unsigned int bytes) {
    Lock lock(bmc_.mutex());
    maxRead_ = bytes;
}

unsigned int SimSdr::maxRead() const {
    Lock lock(bmc_.mutex());
    return maxRead_;
}

void SimSdr::setIdStride(unsigned int stride) {
    Lock lock(bmc_.mutex());
    stride_ = std::max(1u, stride);
}

void SimSdr::setPresent(bool present) {
    Lock lock(bmc_.mutex());
    const unsigned char storage = sdr::netfn::storage;
    if (present) {
        bmc_.setHandler(storage, sdr::cmd::getSdrRepositoryInfo, [this](const Request& r) { return info(r); });
        bmc_.setHandler(storage, sdr::cmd::getSdrRepositoryAllocationInfo,
                        [this](const Request& r) { return allocationInfo(r); });
        bmc_.setHandler(storage, sdr::cmd::reserveSdrRepository, [this](const Request& r) { return reserve(r); });
        bmc_.setHandler(storage, sdr::cmd::getSdr, [this](const Request& r) { return getSdr(r); });
        bmc_.setHandler(sdr::netfn::sensorEvent, sdr::cmd::getSensorReading,
                        [this](const Request& r) { return getSensorReading(r); });
        bmc_.setHandler(sdr::netfn::sensorEvent, qelSensors::cmd::getSensorReadingFactors,
                        [this](const Request& r) { return getSensorReadingFactors(r); });
        bmc_.setHandler(sdr::netfn::sensorEvent, qelSensors::cmd::getSensorThresholds,
                        [this](const Request& r) { return getSensorThresholds(r); });
    } else {
        bmc_.removeHandler(storage, sdr::cmd::getSdrRepositoryInfo);
        bmc_.removeHandler(storage, sdr::cmd::getSdrRepositoryAllocationInfo);
        bmc_.removeHandler(storage, sdr::cmd::reserveSdrRepository);
        bmc_.removeHandler(storage, sdr::cmd::getSdr);
        bmc_.removeHandler(sdr::netfn::sensorEvent, sdr::cmd::getSensorReading);
        bmc_.removeHandler(sdr::netfn::sensorEvent, qelSensors::cmd::getSensorReadingFactors);
        bmc_.removeHandler(sdr::netfn::sensorEvent, qelSensors::cmd::getSensorThresholds);
    }
}

Response SimSdr::info(const Request& request) const {
    Lock lock(bmc_.mutex());
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    unsigned int used = 0;
    for (const Entry& e : entries_) used += static_cast<unsigned int>(e.bytes().size());
    Response r = {cc::ok, sdr::sdrVersion};
    putLe16(r, static_cast<unsigned int>(entries_.size()));
    putLe16(r, used >= capacity ? 0 : capacity - used);
    putLe32(r, lastAddition_);
    putLe32(r, lastErase_);
    r.push_back(sdr::repositoryInfo::nonModalUpdate | sdr::repositoryInfo::supportsReserve |
                sdr::repositoryInfo::supportsAllocationInfo);
    return r;
}

Response SimSdr::allocationInfo(const Request& request) const {
    Lock lock(bmc_.mutex());
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    unsigned int usedUnits = 0;
    for (const Entry& e : entries_)
        usedUnits += static_cast<unsigned int>((e.bytes().size() + allocationUnit - 1) / allocationUnit);
    const unsigned int units = capacity / allocationUnit;
    const unsigned int freeUnits = usedUnits >= units ? 0 : units - usedUnits;
    Response r = {cc::ok};
    putLe16(r, units);
    putLe16(r, allocationUnit);
    putLe16(r, freeUnits);
    putLe16(r, freeUnits);
    r.push_back(static_cast<unsigned char>((sdr::maxRecordSize + allocationUnit - 1) / allocationUnit));
    return r;
}

Response SimSdr::reserve(const Request& request) {
    Lock lock(bmc_.mutex());
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    reservation_ = static_cast<std::uint16_t>(reservation_ + 1);
    if (reservation_ == 0) reservation_ = 1;
    reservationValid_ = true;
    Response r = {cc::ok};
    putLe16(r, reservation_);
    return r;
}

Response SimSdr::getSdr(const Request& request) const {
    Lock lock(bmc_.mutex());
    const Bytes& d = request.data;
    if (d.size() != sdr::getSdr::requestSize) return {cc::requestDataLengthInvalid};
    const std::uint16_t reservation = le16(&d[sdr::getSdr::requestReservation]);
    const std::uint16_t id = le16(&d[sdr::getSdr::requestRecordId]);
    const unsigned int offset = d[sdr::getSdr::requestOffset];
    const unsigned int count = d[sdr::getSdr::requestCount];
    // A reservation is needed to read from inside a record; a stale one is
    // refused whatever the offset.
    if ((offset != 0 || reservation != 0) && (!reservationValid_ || reservation != reservation_))
        return {cc::reservationCancelled};
    if (entries_.empty()) return {cc::requestedDataNotPresent};
    std::size_t at = 0;
    if (id == sdr::firstRecordId) {
        at = 0;
    } else if (id == sdr::lastRecordId) {
        at = entries_.size() - 1;
    } else {
        while (at < entries_.size() && entries_[at].id != id) ++at;
        if (at == entries_.size()) return {cc::requestedDataNotPresent};
    }
    const Bytes bytes = entries_[at].bytes();
    if (offset > bytes.size() || (offset == bytes.size() && count != 0 && count != sdr::getSdr::wholeRecord))
        return {cc::parameterOutOfRange};
    const std::size_t left = bytes.size() - offset;
    const std::size_t n = count == sdr::getSdr::wholeRecord ? left : std::min<std::size_t>(count, left);
    if (maxRead_ != 0 && n > maxRead_) return {cc::cannotReturnRequestedBytes};
    Response r = {cc::ok};
    putLe16(r, at + 1 < entries_.size() ? entries_[at + 1].id : sdr::lastRecordId);
    r.insert(r.end(), bytes.begin() + static_cast<long>(offset), bytes.begin() + static_cast<long>(offset + n));
    return r;
}

Response SimSdr::getSensorReading(const Request& request) const {
    Lock lock(bmc_.mutex());
    if (request.data.size() != 1) return {cc::requestDataLengthInvalid};
    std::size_t index = 0;
    const Entry* e = sensorEntry(request.data[0], &index);
    // Event-only sensors have no reading.
    if (!e || e->type == sdr::recordType::eventOnly) return {cc::requestedDataNotPresent};
    const sdr::SensorRecord& s = *e->sensor;
    const unsigned char raw = e->readings[index];
    if (!s.isThresholdBased()) {
        // Discrete sensors: the reading is the state bits 7:0; the raw byte
        // means nothing.
        return {cc::ok, 0x00, 0xC0, raw, 0x80};
    }
    // Events and scanning enabled.
    return {cc::ok, raw, 0xC0, thresholdStatus(s, raw), 0x80};
}

Response SimSdr::getSensorThresholds(const Request& request) const {
    Lock lock(bmc_.mutex());
    if (request.data.size() != 1) return {cc::requestDataLengthInvalid};
    const Entry* e = sensorEntry(request.data[0]);
    if (!e || e->type == sdr::recordType::eventOnly) return {cc::requestedDataNotPresent};
    const sdr::SensorRecord& s = *e->sensor;
    // A discrete sensor has no thresholds to read: an empty mask.
    if (!s.isThresholdBased()) return {cc::ok, 0, 0, 0, 0, 0, 0, 0};
    const unsigned char readable = s.readableThresholds();
    auto only = [readable](unsigned char bit, unsigned char value) {
        return static_cast<unsigned char>((readable & bit) ? value : 0);
    };
    namespace t = sdr::threshold;
    return {cc::ok,
            readable,
            only(t::lowerNonCritical, s.lowerNonCritical),
            only(t::lowerCritical, s.lowerCritical),
            only(t::lowerNonRecoverable, s.lowerNonRecoverable),
            only(t::upperNonCritical, s.upperNonCritical),
            only(t::upperCritical, s.upperCritical),
            only(t::upperNonRecoverable, s.upperNonRecoverable)};
}

Response SimSdr::getSensorReadingFactors(const Request& request) const {
    Lock lock(bmc_.mutex());
    if (request.data.size() != 2) return {cc::requestDataLengthInvalid};
    const Entry* e = sensorEntry(request.data[0]);
    // Only a full record has factors.
    if (!e || e->type != sdr::recordType::fullSensor) return {cc::requestedDataNotPresent};
    const sdr::SensorRecord& s = *e->sensor;
    const unsigned char raw = request.data[1];
    FactorRange f{0, s.m, s.b, s.k1, s.k2};
    unsigned char next = 0xFF;
    if (s.linearization >= qelSensors::linearization::nonLinear && !e->ranges.empty()) {
        // The range the raw reading falls in; readings below the first range
        // take the first range's factors.
        std::size_t at = 0;
        while (at + 1 < e->ranges.size() && e->ranges[at + 1].from <= raw) ++at;
        f = e->ranges[at];
        if (at + 1 < e->ranges.size()) next = e->ranges[at + 1].from;
    }
    const unsigned int m = static_cast<unsigned int>(f.m) & 0x3FF;
    const unsigned int b = static_cast<unsigned int>(f.b) & 0x3FF;
    // Tolerance, accuracy and its exponent stay 0, as in the records this
    // controller builds.
    return {cc::ok,
            next,
            static_cast<unsigned char>(m & 0xFF),
            static_cast<unsigned char>((m >> 8) << 6),
            static_cast<unsigned char>(b & 0xFF),
            static_cast<unsigned char>((b >> 8) << 6),
            0x00,
            static_cast<unsigned char>(((static_cast<unsigned int>(f.k2) & 0x0F) << 4) |
                                       (static_cast<unsigned int>(f.k1) & 0x0F))};
}

unsigned char SimSdr::thresholdStatus(const sdr::SensorRecord& s, unsigned char raw) {
    // The raw bytes compare as the analog format reads them, so a two's
    // complement sensor at -5 is below a threshold at 0. No analog reading:
    // nothing to compare.
    const auto format = static_cast<qelSensors::AnalogFormat>(s.analogDataFormat());
    const auto value = qelSensors::rawValue(format, raw);
    if (!value) return 0;
    auto as = [format](unsigned char threshold) { return qelSensors::rawValue(format, threshold).value_or(0); };
    const unsigned char readable = s.readableThresholds();
    namespace t = sdr::threshold;
    unsigned char state = 0;
    if ((readable & t::lowerNonCritical) && *value <= as(s.lowerNonCritical)) state |= t::lowerNonCritical;
    if ((readable & t::lowerCritical) && *value <= as(s.lowerCritical)) state |= t::lowerCritical;
    if ((readable & t::lowerNonRecoverable) && *value <= as(s.lowerNonRecoverable)) state |= t::lowerNonRecoverable;
    if ((readable & t::upperNonCritical) && *value >= as(s.upperNonCritical)) state |= t::upperNonCritical;
    if ((readable & t::upperCritical) && *value >= as(s.upperCritical)) state |= t::upperCritical;
    if ((readable & t::upperNonRecoverable) && *value >= as(s.upperNonRecoverable)) state |= t::upperNonRecoverable;
    return state;
}

// ---------------------------------------------------------------- description

namespace {

struct Named {
    const char* name;
    unsigned int value;
};

const Named sensorTypes[] = {
    {"temperature", 0x01}, {"voltage", 0x02},        {"current", 0x03},       {"fan", 0x04},
    {"physical-security", 0x05}, {"processor", 0x07}, {"power-supply", 0x08}, {"power-unit", 0x09},
    {"other", 0x0B},       {"memory", 0x0C},         {"drive-slot", 0x0D},    {"event-logging", 0x10},
    {"system-event", 0x12}, {"critical-interrupt", 0x13}, {"button", 0x14},   {"os-boot", 0x1F},
    {"os-stop", 0x20},     {"watchdog", 0x23},       {"management-subsystem-health", 0x28},
};
const Named units[] = {
    {"none", 0}, {"celsius", 1}, {"fahrenheit", 2}, {"kelvin", 3}, {"volts", 4},
    {"amps", 5}, {"watts", 6},   {"joules", 7},     {"cfm", 17},  {"rpm", 18},
};
// Types whose reading is a threshold-based value; the others are discrete.
bool analogType(unsigned int type) { return type >= 0x01 && type <= 0x04; }

unsigned int lookup(const Named* table, std::size_t size, const std::string& word, const char* what,
                    unsigned int max) {
    for (std::size_t i = 0; i < size; ++i)
        if (word == table[i].name) return table[i].value;
    if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X')) return parseHexByte(word);
    if (!word.empty() && word.find_first_not_of("0123456789") == std::string::npos)
        return static_cast<unsigned int>(parseNumber(word, max));
    throw std::invalid_argument("'" + word + "' is no " + what);
}

// Decimal, or hex with 0x.
unsigned int parseByte(const std::string& word) {
    if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X')) return parseHexByte(word);
    return static_cast<unsigned int>(parseNumber(word, 0xFF));
}

int parseSigned(const std::string& word, int min, int max) {
    const bool negative = !word.empty() && word[0] == '-';
    const long v = static_cast<long>(parseNumber(negative ? word.substr(1) : word, 1u << 16));
    const long value = negative ? -v : v;
    if (value < min || value > max)
        throw std::invalid_argument("'" + word + "' is not within " + std::to_string(min) + ".." + std::to_string(max));
    return static_cast<int>(value);
}

// A name: one word, or several in double quotes; \xNN, \\ and \" inside.
std::string parseName(const std::vector<std::string>& words, std::size_t& at) {
    std::string raw = words[at++];
    if (!raw.empty() && raw[0] == '"') {
        raw.erase(0, 1);
        while (raw.empty() || raw.back() != '"' || (raw.size() >= 2 && raw[raw.size() - 2] == '\\')) {
            if (at >= words.size()) throw std::invalid_argument("a quoted sensor name has no closing quote");
            raw += ' ' + words[at++];
        }
        raw.pop_back();
    }
    std::string out;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\\') {
            out += raw[i];
        } else if (i + 1 < raw.size() && (raw[i + 1] == '\\' || raw[i + 1] == '"')) {
            out += raw[++i];
        } else if (i + 3 < raw.size() + 0 && raw[i + 1] == 'x') {
            out += static_cast<char>(parseHexByte(raw.substr(i + 2, 2)));
            i += 3;
        } else {
            throw std::invalid_argument("a sensor name has a bad escape: " + raw);
        }
    }
    return out;
}

}  // namespace

sdr::SensorRecord parseSensorWords(const std::vector<std::string>& words, unsigned char* reading,
                                   std::vector<FactorRange>* ranges) {
    if (words.size() < 3) throw std::invalid_argument("sensor NUMBER TYPE NAME [KEY=VALUE...]");
    sdr::SensorRecord s;
    s.recordType = sdr::recordType::fullSensor;
    s.ownerId = 0x20;
    s.sensorNumber = static_cast<uint8_t>(parseByte(words[0]));
    s.sensorType = static_cast<uint8_t>(lookup(sensorTypes, std::size(sensorTypes), words[1], "sensor type", 0xFF));
    std::size_t at = 2;
    const std::string name = parseName(words, at);
    const bool analog = analogType(s.sensorType);
    s.eventReadingType = analog ? 0x01 : 0x6F;
    s.units1 = analog ? 0x00 : 0xC0;
    s.m = 1;
    s.entityId = 0x07;  // system board
    s.entityInstance = 1;
    s.initialization = 0x7F;
    s.capabilities = analog ? 0x68 : 0x40;
    s.sensorMaximum = 0xFF;
    unsigned int raw = 0;
    unsigned char readable = 0;
    std::vector<FactorRange> factorRanges;
    for (; at < words.size(); ++at) {
        const std::string& w = words[at];
        const std::size_t eq = w.find('=');
        if (eq == std::string::npos) throw std::invalid_argument("'" + w + "' is no KEY=VALUE");
        const std::string key = w.substr(0, eq);
        const std::string v = w.substr(eq + 1);
        if (key == "record") {
            if (v == "full") s.recordType = sdr::recordType::fullSensor;
            else if (v == "compact") s.recordType = sdr::recordType::compactSensor;
            else if (v == "event-only") s.recordType = sdr::recordType::eventOnly;
            else throw std::invalid_argument("record=full|compact|event-only");
        } else if (key == "event") {
            if (v == "threshold") s.eventReadingType = 0x01;
            else if (v == "specific") s.eventReadingType = 0x6F;
            else s.eventReadingType = static_cast<uint8_t>(parseByte(v));
            s.units1 = s.eventReadingType == 0x01 ? (s.units1 & 0x3F) : 0xC0;
        } else if (key == "unit") {
            s.units2 = static_cast<uint8_t>(lookup(units, std::size(units), v, "unit", 0xFF));
        } else if (key == "format") {
            unsigned int f;
            if (v == "unsigned") f = 0;
            else if (v == "ones") f = 1;
            else if (v == "twos") f = 2;
            else if (v == "none") f = 3;
            else throw std::invalid_argument("format=unsigned|ones|twos|none");
            s.units1 = static_cast<uint8_t>((s.units1 & 0x3F) | (f << 6));
        } else if (key == "m") {
            s.m = static_cast<int16_t>(parseSigned(v, -512, 511));
        } else if (key == "b") {
            s.b = static_cast<int16_t>(parseSigned(v, -512, 511));
        } else if (key == "k1") {
            s.k1 = static_cast<int8_t>(parseSigned(v, -8, 7));
        } else if (key == "k2") {
            s.k2 = static_cast<int8_t>(parseSigned(v, -8, 7));
        } else if (key == "linear") {
            const unsigned int l = parseByte(v);
            if (l > 0x7F) throw std::invalid_argument("linear= takes 0..0x7F");
            s.linearization = static_cast<uint8_t>(l);
        } else if (key == "unr" || key == "uc" || key == "unc" || key == "lnr" || key == "lc" || key == "lnc") {
            const uint8_t value = static_cast<uint8_t>(parseByte(v));
            namespace t = sdr::threshold;
            if (key == "unr") { s.upperNonRecoverable = value; readable |= t::upperNonRecoverable; }
            if (key == "uc") { s.upperCritical = value; readable |= t::upperCritical; }
            if (key == "unc") { s.upperNonCritical = value; readable |= t::upperNonCritical; }
            if (key == "lnr") { s.lowerNonRecoverable = value; readable |= t::lowerNonRecoverable; }
            if (key == "lc") { s.lowerCritical = value; readable |= t::lowerCritical; }
            if (key == "lnc") { s.lowerNonCritical = value; readable |= t::lowerNonCritical; }
        } else if (key == "hyst") {
            s.positiveHysteresis = s.negativeHysteresis = static_cast<uint8_t>(parseByte(v));
        } else if (key == "nominal") {
            s.nominalReading = static_cast<uint8_t>(parseByte(v));
            s.analogFlags |= 0x01;
        } else if (key == "min") {
            s.sensorMinimum = static_cast<uint8_t>(parseByte(v));
        } else if (key == "max") {
            s.sensorMaximum = static_cast<uint8_t>(parseByte(v));
        } else if (key == "share") {
            s.shareCount = static_cast<uint8_t>(parseNumber(v, 15));
        } else if (key == "modifier") {
            if (v == "numeric") s.modifierType = 0;
            else if (v == "alpha") s.modifierType = 1;
            else throw std::invalid_argument("modifier=numeric|alpha");
        } else if (key == "offset") {
            s.modifierOffset = static_cast<uint8_t>(parseNumber(v, 0x7F));
        } else if (key == "entity-increments") {
            s.entityInstanceIncrements = parseOnOff(v);
        } else if (key == "entity") {
            const std::size_t dot = v.find('.');
            if (dot == std::string::npos) throw std::invalid_argument("entity=ID.INSTANCE");
            s.entityId = static_cast<uint8_t>(parseByte(v.substr(0, dot)));
            s.entityInstance = static_cast<uint8_t>(parseNumber(v.substr(dot + 1), 0x7F));
        } else if (key == "owner") {
            s.ownerId = static_cast<uint8_t>(parseByte(v));
        } else if (key == "lun") {
            s.ownerLun = static_cast<uint8_t>(parseNumber(v, 3));
        } else if (key == "channel") {
            s.channel = static_cast<uint8_t>(parseNumber(v, 15));
        } else if (key == "reading") {
            raw = parseByte(v);
        } else if (key == "factors") {
            // FROM:M:B:K1:K2, the factors of raw readings from FROM up.
            std::vector<std::string> parts;
            for (std::size_t from = 0;;) {
                const std::size_t colon = v.find(':', from);
                parts.push_back(v.substr(from, colon == std::string::npos ? std::string::npos : colon - from));
                if (colon == std::string::npos) break;
                from = colon + 1;
            }
            if (parts.size() != 5) throw std::invalid_argument("factors=FROM:M:B:K1:K2");
            FactorRange f;
            f.from = static_cast<unsigned char>(parseByte(parts[0]));
            f.m = parseSigned(parts[1], -512, 511);
            f.b = parseSigned(parts[2], -512, 511);
            f.k1 = parseSigned(parts[3], -8, 7);
            f.k2 = parseSigned(parts[4], -8, 7);
            factorRanges.push_back(f);
        } else {
            throw std::invalid_argument("unknown sensor key '" + key + "'");
        }
    }
    if (s.isThresholdBased()) {
        // Readable and settable alike; the events follow the thresholds:
        // going low for the lower ones, going high for the upper ones.
        s.readingMask = static_cast<uint16_t>(readable | (readable << 8));
        uint16_t assertions = 0;
        if (readable & 0x01) assertions |= 0x0001;  // lower non-critical going low
        if (readable & 0x02) assertions |= 0x0004;  // lower critical going low
        if (readable & 0x04) assertions |= 0x0010;  // lower non-recoverable going low
        if (readable & 0x08) assertions |= 0x0080;  // upper non-critical going high
        if (readable & 0x10) assertions |= 0x0200;  // upper critical going high
        if (readable & 0x20) assertions |= 0x0800;  // upper non-recoverable going high
        s.assertionMask = assertions;
        s.deassertionMask = assertions;
    } else {
        s.assertionMask = 0x00FF;
        s.readingMask = 0x00FF;
    }
    s.id = sdr::IdString::latin1Text(name);
    if (!factorRanges.empty() && s.linearization < qelSensors::linearization::nonLinear)
        throw std::invalid_argument("factors= is for non-linear sensors (linear=0x70..0x7F)");
    if (reading) *reading = static_cast<unsigned char>(raw);
    if (ranges) *ranges = std::move(factorRanges);
    return s;
}

SimSdr& SimBmc::sdr() {
    Lock lock(mutex_);
    if (!sdr_) sdr_ = std::make_shared<SimSdr>(*this);
    return *sdr_;
}

void registerSdrCommands(SimBmc& bmc) {
    SimSdr* repo = &bmc.sdr();
    repo->setPresent(true);
    bmc.addKeyword("sensor",
                   "sensor NUMBER TYPE NAME [KEY=VALUE...]: a sensor and its SDR record; NAME one word or "
                   "\"in quotes\" (\\xNN escapes); TYPE temperature, voltage, current, fan, processor, "
                   "power-supply, memory, watchdog, os-boot, ... or 0xNN; keys: record=full|compact|event-only "
                   "event=threshold|specific|0xNN unit=celsius|volts|amps|watts|cfm|rpm|N format=unsigned|twos|ones|none "
                   "m= b= k1= k2= linear= factors=FROM:M:B:K1:K2 (repeated; non-linear sensors) unr= uc= unc= lnr= lc= lnc= hyst= nominal= min= max= share=N "
                   "modifier=numeric|alpha offset=N entity-increments=on entity=ID.INSTANCE owner= lun= channel= "
                   "reading=RAW",
                   [repo](const std::vector<std::string>& w) {
                       unsigned char reading = 0;
                       std::vector<FactorRange> ranges;
                       sdr::SensorRecord s = parseSensorWords(w, &reading, &ranges);
                       repo->addSensor(std::move(s), reading, std::move(ranges));
                   });
    bmc.addKeyword("sdr-record", "sdr-record TYPE BYTE...: any other SDR record, as its type and body (hex)",
                   [repo](const std::vector<std::string>& w) {
                       if (w.empty()) throw std::invalid_argument("sdr-record TYPE BYTE...");
                       repo->addRecord(parseHexByte(w[0]), parseHexBytes(w, 1));
                   });
    bmc.addKeyword("sdr-rename", "sdr-rename NUMBER NAME: the sensor's record gets a new ID string",
                   [repo](const std::vector<std::string>& w) {
                       if (w.size() < 2) throw std::invalid_argument("sdr-rename NUMBER NAME");
                       std::size_t at = 1;
                       const std::string name = parseName(w, at);
                       if (at != w.size()) throw std::invalid_argument("sdr-rename NUMBER NAME: words after the name");
                       if (!repo->renameSensor(static_cast<unsigned char>(parseByte(w[0])), name))
                           throw std::invalid_argument("no sensor numbered " + w[0]);
                   });
    bmc.addKeyword("sdr-remove", "sdr-remove NUMBER: the sensor's record leaves the repository",
                   [repo](const std::vector<std::string>& w) {
                       if (w.size() != 1) throw std::invalid_argument("sdr-remove NUMBER");
                       if (!repo->removeSensor(static_cast<unsigned char>(parseByte(w[0]))))
                           throw std::invalid_argument("no sensor numbered " + w[0]);
                   });
    bmc.addKeyword("sdr-erase", "sdr-erase: the repository is emptied",
                   [repo](const std::vector<std::string>& w) {
                       if (!w.empty()) throw std::invalid_argument("sdr-erase takes no words");
                       repo->erase();
                   });
    bmc.addKeyword("sdr-max-read", "sdr-max-read N: Get SDR of more than N bytes answers 0xCA (0: no limit)",
                   [repo](const std::vector<std::string>& w) {
                       if (w.size() != 1) throw std::invalid_argument("sdr-max-read N");
                       repo->setMaxRead(static_cast<unsigned int>(parseNumber(w[0], 255)));
                   });
    bmc.addKeyword("sdr-id-stride", "sdr-id-stride N: record IDs of later records grow by N",
                   [repo](const std::vector<std::string>& w) {
                       if (w.size() != 1) throw std::invalid_argument("sdr-id-stride N");
                       repo->setIdStride(static_cast<unsigned int>(parseNumber(w[0], 1000)));
                   });
    bmc.addKeyword("sensor-reading", "sensor-reading NUMBER RAW: the raw reading Get Sensor Reading returns",
                   [repo](const std::vector<std::string>& w) {
                       if (w.size() != 2) throw std::invalid_argument("sensor-reading NUMBER RAW");
                       if (!repo->setReading(static_cast<unsigned char>(parseByte(w[0])),
                                             static_cast<unsigned char>(parseByte(w[1]))))
                           throw std::invalid_argument("no sensor numbered " + w[0]);
                   });
    bmc.addDumpSection("sdr", [repo](std::ostream& out) {
        out << "max-read " << repo->maxRead() << '\n';
        out << "last-addition " << repo->lastAddition() << '\n';
        for (const Bytes& b : repo->records()) {
            const sdr::SdrRecord r = sdr::SdrRecord::fromBytes(b);
            out << "record " << r.recordId << ' ' << sdr::recordTypeName(r.type);
            if (r.isSensor()) {
                const sdr::SensorRecord s = sdr::SensorRecord::fromRecord(r);
                out << " sensor " << int(s.sensorNumber) << " share " << int(s.shareCount);
            }
            if (auto id = r.idString()) out << ' ' << quotedText(id->text);
            out << '\n';
        }
    });
}

}  // namespace qelSim
