#include "qelSensors.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string_view>
#include <utility>

#include "qelErrorText.h"
#include "qelIpmi.h"
#include "qelPlatform.h"
#include "qelSelText.h"

#define QEL_SOURCE_NAME "qelSensors"

namespace qelSensors {

QEL_DEFINE_ERROR(QelSensorError)

// The answers of Get Sensor Reading Factors and Get Sensor Thresholds kept
// on disk. Text, one answer a line, after the repository info it holds for:
//   qel-sensor-answers 1
//   repository 51 56 1700000123 0 8000
//   factors 20 00 0c 0 140 00 0c 55 ...     owner LUN sensor from to reply
//   thresholds 20 00 31 1764190000 00 3f ... owner LUN sensor when reply
//   end 3 5f3a09c2
// The end line counts the answers and holds the FNV-1a hash of every byte
// before it, so a file cut short or changed anywhere is not taken.
struct AnswerStore {
    struct Factors {
        uint32_t sensor;  // owner << 16 | LUN << 8 | number
        unsigned int from;
        unsigned int to;
        std::vector<uint8_t> reply;
    };
    struct Thresholds {
        time_t when;
        std::vector<uint8_t> reply;
    };
    std::string path;
    std::string key;
    bool loaded = false;
    bool changed = false;
    std::vector<Factors> factors;
    std::map<uint32_t, Thresholds> thresholds;
    std::vector<std::string> notes;

    void load();
    void save();
};

namespace {

using Bytes = std::vector<uint8_t>;
namespace sdr = qelSdr;

constexpr uint8_t ccOk = 0x00;
constexpr uint8_t bmcAddress = 0x20;
// The record's owner ID byte: bit 0 set means a system software ID, which
// no request can be addressed to.
constexpr uint8_t softwareOwner = 0x01;

std::string hex2(unsigned int v) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", v & 0xFF);
    return text;
}

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// The answer to one request, or why there is none.
struct Answer {
    Bytes bytes;          // completion code first; empty when problem is set
    std::string problem;  // one line
    int completionCode = -1;  // the controller's, when it answered one
    explicit operator bool() const { return problem.empty(); }
};

// The open devices of one call, one per address a request goes to: the
// controller's own LUNs on the system interface, other owners over IPMB.
class Link {
public:
    explicit Link(unsigned int& requests) : requests_(requests) {}

    // Opens the system interface at once, so a missing controller is told
    // before any sensor is tried.
    void open() { (void)device(bmcAddress, 0); }

    Answer send(uint8_t owner, uint8_t lun, uint8_t netFn, uint8_t command, const Bytes& data, const char* name) {
        Answer a;
        if (owner & softwareOwner) {
            a.problem = std::string(name) + ": the sensor is owned by system software (ID " + hex2(owner) +
                        "), not a controller";
            return a;
        }
        qelIpmi::QelIpmi* ipmi = nullptr;
        try {
            ipmi = &device(owner, lun);
        } catch (const std::exception& e) {
            a.problem = std::string(name) + ": " + qelError::textOf(e);
            return a;
        }
        qelIpmi::QelIpmi_request_msg msg(netFn, command, static_cast<unsigned short>(data.size()),
                                         data.empty() ? nullptr : data.data());
        ++requests_;
        bool answered = false;
        try {
            answered = ipmi->sendCmd(msg);
        } catch (const std::exception& e) {
            a.problem = std::string(name) + ": " + qelError::textOf(e);
            return a;
        }
        if (!answered || msg.responseLength == 0 || msg.responseData == nullptr) {
            a.problem = std::string(name) + (answered ? ": an empty answer" : ": no answer from the controller");
            return a;
        }
        a.completionCode = msg.responseData[0];
        if (msg.responseData[0] != ccOk) {
            a.problem = std::string(name) + ": the controller answered completion code " + hex2(msg.responseData[0]);
            return a;
        }
        a.bytes.assign(msg.responseData, msg.responseData + msg.responseLength);
        return a;
    }

private:
    qelIpmi::QelIpmi& device(uint8_t owner, uint8_t lun) {
        const auto key = std::make_pair(owner, lun);
        auto it = devices_.find(key);
        if (it == devices_.end()) {
            std::unique_ptr<qelIpmi::QelIpmi> d;
            if (owner == bmcAddress)
                d = std::make_unique<qelIpmi::QelIpmi>(lun, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
            else
                d = std::make_unique<qelIpmi::QelIpmi>(lun, static_cast<unsigned char>(owner),
                                                       qelIpmi::QelIpmi::IPMB);
            it = devices_.emplace(key, std::move(d)).first;
        }
        return *it->second;
    }

    unsigned int& requests_;
    std::map<std::pair<uint8_t, uint8_t>, std::unique_ptr<qelIpmi::QelIpmi>> devices_;
};

constexpr const char* answersMagic = "qel-sensor-answers 1";

uint32_t sensorKey(uint8_t owner, uint8_t lun, uint8_t number) {
    return static_cast<uint32_t>(owner) << 16 | static_cast<uint32_t>(lun) << 8 | number;
}

void putHex(std::ostringstream& out, unsigned int value) {
    char text[4];
    std::snprintf(text, sizeof text, "%02x", value & 0xFF);
    out << text;
}

// Two hex digits, nothing else.
bool hexWord(const std::string& word, unsigned int& out) {
    if (word.size() != 2 || !std::isxdigit(static_cast<unsigned char>(word[0])) ||
        !std::isxdigit(static_cast<unsigned char>(word[1])))
        return false;
    out = static_cast<unsigned int>(std::stoul(word, nullptr, 16));
    return true;
}

bool decimal(const std::string& word, unsigned long long max, unsigned long long& out) {
    if (word.empty() || word.size() > 19 || word.find_first_not_of("0123456789") != std::string::npos) return false;
    out = std::stoull(word);
    return out <= max;
}

bool readSensorKey(std::istringstream& in, uint32_t& key) {
    std::string o, l, n;
    unsigned int owner = 0, lun = 0, number = 0;
    if (!(in >> o >> l >> n) || !hexWord(o, owner) || !hexWord(l, lun) || !hexWord(n, number) || lun > 3)
        return false;
    key = sensorKey(static_cast<uint8_t>(owner), static_cast<uint8_t>(lun), static_cast<uint8_t>(number));
    return true;
}

// The rest of the line: a reply, completion code first (0x00).
bool readReply(std::istringstream& in, std::vector<uint8_t>& reply) {
    std::string word;
    while (in >> word) {
        unsigned int b = 0;
        if (!hexWord(word, b) || reply.size() >= 64) return false;
        reply.push_back(static_cast<uint8_t>(b));
    }
    return !reply.empty() && reply[0] == ccOk;
}

// Why `text` is not usable, or empty when `store` was filled (its key
// checked by the caller).
std::string parseAnswers(const std::string& text, AnswerStore& store, std::string& key) {
    if (text.compare(0, std::strlen(answersMagic) + 1, std::string(answersMagic) + "\n") != 0)
        return "not an answers file of this program";
    const std::size_t endAt = text.rfind("\nend ");
    if (endAt == std::string::npos || text.back() != '\n') return "truncated (no end line)";
    const std::string body = text.substr(0, endAt + 1);
    std::istringstream end(text.substr(endAt + 1));
    std::string word, countWord, hashWord, extra;
    unsigned long long count = 0;
    if (!(end >> word >> countWord >> hashWord) || (end >> extra) || word != "end" ||
        !decimal(countWord, 0xFFFFFF, count) || hashWord.size() != 8)
        return "corrupt (bad end line)";
    char hash[16];
    std::snprintf(hash, sizeof hash, "%08x", qelSdr::cacheChecksum(body));
    if (hashWord != hash) return "corrupt (its checksum does not match its contents)";
    std::istringstream lines(body);
    std::string line;
    std::getline(lines, line);  // the magic line, checked
    int number = 1;
    unsigned long long answers = 0;
    bool haveKey = false;
    while (std::getline(lines, line)) {
        ++number;
        std::istringstream in(line);
        std::string kind;
        in >> kind;
        const std::string where = "corrupt (line " + std::to_string(number) + ")";
        if (kind == "repository" && !haveKey) {
            std::string rest;
            std::getline(in >> std::ws, rest);
            key = rest;
            haveKey = true;
        } else if (kind == "factors" && haveKey) {
            AnswerStore::Factors f;
            std::string fromWord, toWord;
            unsigned long long from = 0, to = 0;
            if (!readSensorKey(in, f.sensor) || !(in >> fromWord >> toWord) || !decimal(fromWord, 255, from) ||
                !decimal(toWord, 256, to) || to <= from || !readReply(in, f.reply))
                return where;
            f.from = static_cast<unsigned int>(from);
            f.to = static_cast<unsigned int>(to);
            store.factors.push_back(std::move(f));
            ++answers;
        } else if (kind == "thresholds" && haveKey) {
            uint32_t sensor = 0;
            AnswerStore::Thresholds t;
            std::string whenWord;
            unsigned long long when = 0;
            if (!readSensorKey(in, sensor) || !(in >> whenWord) || !decimal(whenWord, 0xFFFFFFFFFFull, when) ||
                !readReply(in, t.reply))
                return where;
            t.when = static_cast<time_t>(when);
            store.thresholds[sensor] = std::move(t);
            ++answers;
        } else {
            return where;
        }
    }
    if (!haveKey) return "corrupt (no repository line)";
    if (answers != count) return "corrupt (the end line counts another number of answers)";
    return std::string();
}

// A compact record has no conversion: its readings are taken as they are
// (M = 1), with the record's format and units. The record names units and
// a format for its readings and no factors, so the identity is the only
// conversion it can mean; a DIMM temperature in a compact record then reads
// in degrees, where tools that insist on factors show nothing.
ConversionFactors compactFactors(const sdr::SensorRecord& s) {
    ConversionFactors f;
    f.format = static_cast<AnalogFormat>(s.units1 >> 6);
    f.rate = static_cast<RateUnit>((s.units1 >> 3) & 0x07);
    f.modifierKind = static_cast<ModifierKind>((s.units1 >> 1) & 0x03);
    f.percentage = (s.units1 & 0x01) != 0;
    f.baseUnit = s.units2;
    f.modifierUnit = s.units3;
    return f;
}

// The factors a non-linear sensor's raw readings convert with, asked once per
// range of readings: a reply for x that names n as the next reading with
// other factors holds for x..n-1. With a store, the answers kept there serve
// first and new ones are added to it.
class FactorCache {
public:
    FactorCache(Link& link, const sdr::SensorRecord& s, const ConversionFactors& record, AnswerStore* store)
        : link_(link), s_(s), record_(record), store_(store) {}

    // The value of `raw`, or none with the reason in `problem`.
    std::optional<double> convert(uint8_t raw, std::string& problem) {
        for (const Range& r : ranges_)
            if (raw >= r.from && raw < r.to) return convertReading(r.factors, raw);
        const uint32_t key = sensorKey(s_.ownerId, s_.ownerLun, s_.sensorNumber);
        if (store_ != nullptr) {
            for (const AnswerStore::Factors& f : store_->factors) {
                if (f.sensor != key || raw < f.from || raw >= f.to) continue;
                const Parsed<ReadingFactors> p = factorsFromReadingFactorsReply(record_, f.reply.data(), f.reply.size());
                if (!p) continue;  // the record changed under it: asked again below
                ranges_.push_back(Range{f.from, f.to, p.value->factors});
                return convertReading(p.value->factors, raw);
            }
        }
        const Answer a = link_.send(s_.ownerId, s_.ownerLun, netfn::sensorEvent, cmd::getSensorReadingFactors,
                                    {s_.sensorNumber, raw}, "Get Sensor Reading Factors");
        if (!a) {
            problem = a.problem;
            return std::nullopt;
        }
        const Parsed<ReadingFactors> p = factorsFromReadingFactorsReply(record_, a.bytes.data(), a.bytes.size());
        if (!p) {
            problem = "Get Sensor Reading Factors: " + p.error;
            return std::nullopt;
        }
        // A next reading at or below this one holds for this reading only.
        const unsigned int to = p.value->nextReading > raw ? p.value->nextReading : raw + 1u;
        ranges_.push_back(Range{raw, to, p.value->factors});
        if (store_ != nullptr) {
            store_->factors.push_back(AnswerStore::Factors{key, raw, to, a.bytes});
            store_->changed = true;
        }
        return convertReading(p.value->factors, raw);
    }

private:
    struct Range {
        unsigned int from;
        unsigned int to;
        ConversionFactors factors;
    };
    Link& link_;
    const sdr::SensorRecord& s_;
    ConversionFactors record_;
    AnswerStore* store_;
    std::vector<Range> ranges_;
};

void addProblem(SensorSample& sample, const std::string& problem) {
    if (problem.empty()) return;
    sample.problem += (sample.problem.empty() ? "" : "; ") + problem;
}

std::string stateText(uint8_t eventReadingType, uint8_t sensorType, unsigned int bit) {
    if (const char* text = qelSel::eventStateText(eventReadingType, sensorType, static_cast<uint8_t>(bit)))
        return text;
    // OEM and reserved codes: the bit is all there is to say.
    return "state " + std::to_string(bit);
}

// One sensor of a record: the reading, then what it needs besides.
void readSensor(Link& link, const sdr::SensorRecord& s, const sdr::SdrRecord& record, SensorSample& sample,
                bool withThresholds, AnswerStore* store) {
    // The units and the metric family come from the record: a sensor whose
    // reading fails still has them (its value is then none).
    ConversionFactors factors = compactFactors(s);
    if (sample.thresholdBased) {
        if (s.recordType == sdr::recordType::fullSensor) {
            const Parsed<ConversionFactors> f = factorsFromFullRecord(record.bytes.data(), record.bytes.size());
            if (!f) return addProblem(sample, "the record's conversion: " + f.error);
            factors = *f.value;
        }
        sample.units = unitsText(factors);
        sample.metric = prometheusMetric(s.sensorType, factors);
    }
    const Answer a =
        link.send(s.ownerId, s.ownerLun, netfn::sensorEvent, cmd::getSensorReading, {s.sensorNumber}, "Get Sensor Reading");
    if (!a) return addProblem(sample, a.problem);
    const Parsed<SensorReading> parsed = parseSensorReading(a.bytes.data(), a.bytes.size());
    if (!parsed) return addProblem(sample, "Get Sensor Reading: " + parsed.error);
    const SensorReading& r = *parsed.value;
    sample.unavailable = r.readingUnavailable;
    sample.scanningDisabled = !r.scanningEnabled;

    if (!sample.thresholdBased) {
        // Without the state bytes nothing is known about the states: no
        // state rather than a "nominal" nobody measured.
        if (!r.hasValue() || !r.discreteStates) return;
        sample.rawStates = static_cast<uint16_t>(r.discreteStates.value_or(0) & 0x7FFF);
        for (unsigned int bit = 0; bit < 15; ++bit)
            if (sample.rawStates & (1u << bit))
                sample.states.push_back(stateText(s.eventReadingType, s.sensorType, bit));
        sample.state = discreteState(s.sensorType, s.eventReadingType, sample.rawStates);
        return;
    }

    FactorCache nonLinear(link, s, factors, store);

    if (r.hasValue()) {
        if (factors.isNonLinear()) {
            std::string problem;
            sample.reading = nonLinear.convert(r.raw, problem);
            addProblem(sample, problem);
        } else {
            sample.reading = convertReading(factors, r.raw);
        }
        const SensorState state = r.state();
        if (state != SensorState::Unknown) sample.state = state;
    }

    // The thresholds: a full record holds them (one request for the sensor);
    // a compact one only says which the controller can read.
    const uint8_t readable = s.readableThresholds();
    if (readable == 0 || !withThresholds) return;
    SensorThresholds t;
    if (s.recordType == sdr::recordType::fullSensor) {
        t.readableMask = readable;
        t.raw = {s.lowerNonCritical, s.lowerCritical, s.lowerNonRecoverable,
                 s.upperNonCritical, s.upperCritical, s.upperNonRecoverable};
    } else {
        const uint32_t key = sensorKey(s.ownerId, s.ownerLun, s.sensorNumber);
        const time_t now = qelPlatform::platform().time();
        Answer ta;
        const auto kept = store != nullptr ? store->thresholds.find(key) : std::map<uint32_t, AnswerStore::Thresholds>::iterator();
        // A clock set back makes an answer from the future: asked again.
        if (store != nullptr && kept != store->thresholds.end() && kept->second.when <= now &&
            now - kept->second.when < QelSensorReader::thresholdsMaxAge) {
            ta.bytes = kept->second.reply;
        } else {
            ta = link.send(s.ownerId, s.ownerLun, netfn::sensorEvent, cmd::getSensorThresholds, {s.sensorNumber},
                           "Get Sensor Thresholds");
            if (!ta) return addProblem(sample, ta.problem);
            if (store != nullptr && parseSensorThresholds(ta.bytes.data(), ta.bytes.size())) {
                store->thresholds[key] = AnswerStore::Thresholds{now, ta.bytes};
                store->changed = true;
            }
        }
        const Parsed<SensorThresholds> pt = parseSensorThresholds(ta.bytes.data(), ta.bytes.size());
        if (!pt) return addProblem(sample, "Get Sensor Thresholds: " + pt.error);
        t = *pt.value;
    }
    if (!factors.isNonLinear()) {
        sample.thresholds = convertThresholds(t, factors).values;
        return;
    }
    // Lowest raw byte first: a range learnt from one threshold then covers
    // those above it up to the next change of factors.
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < thresholdCount; ++i)
        if (t.readable(static_cast<Threshold>(i))) order.push_back(i);
    std::sort(order.begin(), order.end(), [&t](std::size_t a, std::size_t b) { return t.raw[a] < t.raw[b]; });
    for (std::size_t i : order) {
        std::string problem;
        sample.thresholds[i] = nonLinear.convert(t.raw[i], problem);
        addProblem(sample, problem);
    }
}

}  // namespace

// A discrete sensor's state is the worst of its asserted states, as the
// event tables rate them when asserted: Critical there (a failed power
// supply, an uncorrectable ECC error, a drive fault) is critical here,
// Warning (a predictive failure, a correctable error, degraded redundancy) is
// warning, and Info (presence detected, a device inserted, fully redundant)
// is nominal. A sensor with no state asserted is nominal. The tables say
// nothing of OEM states, so those count as nominal: only their vendor can
// rate them.
SensorState discreteState(uint8_t sensorType, uint8_t eventReadingType, uint16_t states) {
    SensorState worst = SensorState::Nominal;
    for (unsigned int bit = 0; bit < 15; ++bit) {
        if (!(states & (1u << bit))) continue;
        const qelSel::StateEntry* e = qelSel::eventState(eventReadingType, sensorType, static_cast<uint8_t>(bit));
        if (!e) continue;
        if (e->asserted == qelSel::Severity::Critical) worst = SensorState::Critical;
        else if (e->asserted == qelSel::Severity::Warning && worst == SensorState::Nominal) worst = SensorState::Warning;
    }
    return worst;
}

std::vector<SensorSample> QelSensorReader::readAll(const std::vector<sdr::SdrRecord>& records) {
    Link link(requests_);
    try {
        link.open();
    } catch (const std::exception& e) {
        QEL_THROW(QelSensorError, "no controller: " + qelError::textOf(e));
    }
    std::vector<SensorSample> samples;
    for (const sdr::SdrRecord& record : records) {
        if (record.type != sdr::recordType::fullSensor && record.type != sdr::recordType::compactSensor) continue;
        sdr::SensorRecord s;
        try {
            s = sdr::SensorRecord::fromRecord(record);
        } catch (const std::exception& e) {
            SensorSample bad;
            bad.recordId = record.recordId;
            bad.recordType = record.type;
            bad.problem = "record " + std::to_string(record.recordId) + ": " + qelError::textOf(e);
            samples.push_back(std::move(bad));
            continue;
        }
        for (const sdr::SensorName& n : s.names()) {
            SensorSample sample;
            sample.recordId = s.recordId;
            sample.recordType = s.recordType;
            sample.sensorNumber = n.sensorNumber;
            sample.ownerId = s.ownerId;
            sample.ownerLun = s.ownerLun;
            sample.name = n.name;
            sample.sensorType = s.sensorType;
            sample.typeName = qelSel::sensorTypeText(s.sensorType);
            sample.eventReadingType = s.eventReadingType;
            sample.thresholdBased = s.isThresholdBased();
            sdr::SensorRecord one = s;
            one.sensorNumber = n.sensorNumber;
            readSensor(link, one, record, sample, thresholds_, answers_.get());
            samples.push_back(std::move(sample));
        }
    }
    if (answers_) answers_->save();
    return samples;
}

void AnswerStore::load() {
    loaded = true;
    int error = 0;
    const std::string text = sdr::QelSdrRepository::readCacheFile(path, error);
    if (error == ENOENT) return;
    if (error != 0) {
        notes.push_back("sensor answers cache " + path + ": cannot be read (" + std::strerror(error) +
                        "), asking the sensors");
        return;
    }
    AnswerStore parsed;
    std::string fileKey;
    if (const std::string why = parseAnswers(text, parsed, fileKey); !why.empty()) {
        notes.push_back("sensor answers cache " + path + ": " + why + ", ignoring it and asking the sensors");
        changed = true;  // replaced by the answers of this run
        return;
    }
    if (fileKey != key) {
        changed = true;  // kept for other records
        return;
    }
    factors = std::move(parsed.factors);
    thresholds = std::move(parsed.thresholds);
}

void AnswerStore::save() {
    if (!changed) return;
    std::ostringstream out;
    out << answersMagic << "\nrepository " << key << '\n';
    for (const Factors& f : factors) {
        out << "factors ";
        putHex(out, f.sensor >> 16);
        out << ' ';
        putHex(out, f.sensor >> 8);
        out << ' ';
        putHex(out, f.sensor);
        out << ' ' << f.from << ' ' << f.to;
        for (uint8_t b : f.reply) {
            out << ' ';
            putHex(out, b);
        }
        out << '\n';
    }
    for (const auto& [sensor, t] : thresholds) {
        out << "thresholds ";
        putHex(out, sensor >> 16);
        out << ' ';
        putHex(out, sensor >> 8);
        out << ' ';
        putHex(out, sensor);
        out << ' ' << static_cast<unsigned long long>(t.when < 0 ? 0 : t.when);
        for (uint8_t b : t.reply) {
            out << ' ';
            putHex(out, b);
        }
        out << '\n';
    }
    const std::string body = out.str();
    char end[48];
    std::snprintf(end, sizeof end, "end %zu %08x\n", factors.size() + thresholds.size(),
                  qelSdr::cacheChecksum(body));
    if (const int e = sdr::QelSdrRepository::writeCacheFile(path, body + end))
        notes.push_back("sensor answers cache " + path + ": not written (" + std::strerror(e) + ")");
    changed = false;
}

QelSensorReader::QelSensorReader() = default;
QelSensorReader::~QelSensorReader() = default;
QelSensorReader::QelSensorReader(QelSensorReader&&) noexcept = default;
QelSensorReader& QelSensorReader::operator=(QelSensorReader&&) noexcept = default;

void QelSensorReader::setAnswerCache(std::string path, const sdr::RepositoryInfo& info) {
    if (path.empty()) {
        answers_.reset();
        return;
    }
    answers_.reset(new AnswerStore);
    answers_->path = std::move(path);
    answers_->key = info.key();
    answers_->load();
}

const std::vector<std::string>& QelSensorReader::notes() const {
    static const std::vector<std::string> none;
    return answers_ ? answers_->notes : none;
}

std::optional<ChassisStatus> QelSensorReader::readChassisStatus() {
    lastProblem_.clear();
    Link link(requests_);
    const Answer a = link.send(bmcAddress, 0, chassis::netfn, chassis::getChassisStatus, {}, "Get Chassis Status");
    lastCompletionCode_ = a.completionCode;
    if (!a) {
        lastProblem_ = a.problem;
        return std::nullopt;
    }
    if (a.bytes.size() < chassis::minimumSize) {
        lastProblem_ = "Get Chassis Status: an answer of " + std::to_string(a.bytes.size()) + " bytes, expected " +
                       std::to_string(chassis::minimumSize);
        return std::nullopt;
    }
    const uint8_t power = a.bytes[chassis::powerState];
    const uint8_t misc = a.bytes[chassis::miscState];
    ChassisStatus c;
    c.powerOn = power & chassis::powerOn;
    c.powerOverload = power & chassis::powerOverload;
    c.interlock = power & chassis::interlock;
    c.powerFault = power & chassis::powerFault;
    c.powerControlFault = power & chassis::powerControlFault;
    c.restorePolicy = static_cast<uint8_t>((power >> chassis::restorePolicyShift) & chassis::restorePolicyMask);
    c.intrusion = misc & chassis::intrusion;
    c.frontPanelLockout = misc & chassis::frontPanelLockout;
    c.driveFault = misc & chassis::driveFault;
    c.coolingFault = misc & chassis::coolingFault;
    return c;
}

std::optional<DcmiPower> QelSensorReader::readDcmiPower() {
    lastProblem_.clear();
    Link link(requests_);
    const Answer a = link.send(bmcAddress, 0, dcmi::netfn, dcmi::getPowerReading,
                               {dcmi::groupExtension, dcmi::modeSystemPower, 0x00, 0x00}, "DCMI Get Power Reading");
    lastCompletionCode_ = a.completionCode;
    if (!a) {
        lastProblem_ = a.problem;
        return std::nullopt;
    }
    if (a.bytes.size() < dcmi::replySize) {
        lastProblem_ = "DCMI Get Power Reading: an answer of " + std::to_string(a.bytes.size()) +
                       " bytes, expected " + std::to_string(dcmi::replySize);
        return std::nullopt;
    }
    if (a.bytes[dcmi::replyGroup] != dcmi::groupExtension) {
        lastProblem_ = "DCMI Get Power Reading: group extension " + hex2(a.bytes[dcmi::replyGroup]) +
                       " in the answer, expected 0xDC";
        return std::nullopt;
    }
    const uint8_t* b = a.bytes.data();
    DcmiPower p;
    p.currentWatts = le16(b + dcmi::currentWatts);
    p.minimumWatts = le16(b + dcmi::minimumWatts);
    p.maximumWatts = le16(b + dcmi::maximumWatts);
    p.averageWatts = le16(b + dcmi::averageWatts);
    p.timestamp = le32(b + dcmi::timestamp);
    p.periodMs = le32(b + dcmi::period);
    p.active = b[dcmi::state] & dcmi::measurementActive;
    return p;
}

}  // namespace qelSensors
