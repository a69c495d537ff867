// The System Event Log of the simulated controller: the storage commands
// 0x40-0x49 (network function 0x0A), the events the controller logs itself,
// its description keywords and its dump section.
#include "qelSimSel.h"

#include <linux/ipmi.h>

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <stdexcept>

#include "qelIpmiCommands.h"
#include "qelSimBoard.h"
#include "qelSimDescription.h"
#include "qelSimWatchdog.h"

namespace qelSim {

namespace {

using Lock = std::lock_guard<std::recursive_mutex>;
namespace cc = qelIpmi::cc;
namespace sel = qelSel;

// The SEL clock of a fresh controller: 2026-01-01 00:00:00 UTC. A set clock,
// so the records of a test have readable, reproducible dates.
constexpr std::uint32_t defaultEpoch = 1767225600;
constexpr unsigned char selVersion = 0x51;
constexpr unsigned char ccEraseInProgress = sel::cc::eraseInProgress;
constexpr unsigned char ccReservationCancelled = sel::cc::reservationCancelled;
// Generator ID of the controller's own events: its slave address 0x20, LUN 0.
constexpr unsigned char bmcGenerator = 0x20;
constexpr unsigned char evmRevision = 0x04;
constexpr unsigned char watchdog2SensorType = 0x23;
constexpr unsigned char sensorSpecificEventType = 0x6F;
// Event data 1: bits 7:6 = 11b, event data 2 holds the sensor-specific
// extension (for the watchdog: interrupt type and timer use).
constexpr unsigned char extensionInData2 = 0xC0;

void put16(unsigned char* p, std::uint16_t v) {
    p[0] = static_cast<unsigned char>(v & 0xFF);
    p[1] = static_cast<unsigned char>(v >> 8);
}
void put32(unsigned char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
std::uint16_t le16(const unsigned char* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
std::uint16_t idOf(const sel::RawRecord& r) { return le16(r.data()); }
bool timestamped(unsigned char type) { return type == sel::systemEventRecord || sel::isOemTimestamped(type); }

void append16(Response& r, std::uint16_t v) {
    r.push_back(static_cast<unsigned char>(v & 0xFF));
    r.push_back(static_cast<unsigned char>(v >> 8));
}
void append32(Response& r, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) r.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

sel::RawRecord recordFrom(const Bytes& bytes) {
    if (bytes.size() != sel::recordSize)
        throw std::invalid_argument("a SEL record is 16 bytes, not " + std::to_string(bytes.size()));
    sel::RawRecord r{};
    std::copy(bytes.begin(), bytes.end(), r.begin());
    return r;
}

}  // namespace

SimSel::SimSel(SimBmc& bmc) : bmc_(bmc), timeOffset_(defaultEpoch) {}

// ---------------------------------------------------------------- shape

void SimSel::setCapacity(unsigned int records) {
    if (records < 1 || records > maxCapacity)
        throw std::invalid_argument("the SEL holds 1 to " + std::to_string(maxCapacity) + " records");
    Lock lock(bmc_.mutex());
    capacity_ = records;
    while (records_.size() > capacity_) dropOldest();
}

unsigned int SimSel::capacity() const {
    Lock lock(bmc_.mutex());
    return capacity_;
}

void SimSel::setMode(Mode mode) {
    Lock lock(bmc_.mutex());
    mode_ = mode;
}

SimSel::Mode SimSel::mode() const {
    Lock lock(bmc_.mutex());
    return mode_;
}

void SimSel::setIdStep(unsigned int step) {
    if (step < 1 || step > 0x7FFF) throw std::invalid_argument("the record ID step is 1 to 32767");
    Lock lock(bmc_.mutex());
    idStep_ = step;
}

void SimSel::setMaxRead(unsigned int bytes) {
    if (bytes < 1 || bytes > sel::recordSize) throw std::invalid_argument("a read returns 1 to 16 bytes");
    Lock lock(bmc_.mutex());
    maxRead_ = bytes;
}

unsigned int SimSel::maxRead() const {
    Lock lock(bmc_.mutex());
    return maxRead_;
}

void SimSel::setEraseDuration(unsigned int polls, std::uint64_t ms) {
    Lock lock(bmc_.mutex());
    erasePolls_ = polls;
    eraseMs_ = ms;
}

// ---------------------------------------------------------------- the log

std::uint32_t SimSel::time() const {
    Lock lock(bmc_.mutex());
    return static_cast<std::uint32_t>(timeOffset_ + static_cast<std::int64_t>(bmc_.nowMs() / 1000));
}

void SimSel::setTime(std::uint32_t seconds) {
    Lock lock(bmc_.mutex());
    timeOffset_ = static_cast<std::int64_t>(seconds) - static_cast<std::int64_t>(bmc_.nowMs() / 1000);
}

std::uint16_t SimSel::reservation() const {
    Lock lock(bmc_.mutex());
    return reservation_;
}

bool SimSel::overflow() const {
    Lock lock(bmc_.mutex());
    return overflow_;
}

bool SimSel::eraseInProgress() const {
    Lock lock(bmc_.mutex());
    return erasing_;
}

std::vector<sel::RawRecord> SimSel::records() const {
    Lock lock(bmc_.mutex());
    return std::vector<sel::RawRecord>(records_.begin(), records_.end());
}

std::uint16_t SimSel::takeId() {
    // IDs 0x0000 and 0xFFFF mean "first" and "last" in Get SEL Entry and are
    // never given to a record; neither is an ID still in the log (a wrapped
    // counter on a log with non-consecutive IDs).
    auto free = [this](std::uint16_t id) {
        return id != sel::firstRecordId && id != sel::lastRecordId && ids_.count(id) == 0;
    };
    // A step that shares a factor with 65536 runs through fewer IDs than
    // the log may hold; once that cycle is used up, the next free ID above it.
    const std::uint16_t start = nextId_;
    do {
        const std::uint16_t id = nextId_;
        nextId_ = static_cast<std::uint16_t>(nextId_ + idStep_);
        if (free(id)) return id;
    } while (nextId_ != start);
    for (std::uint16_t id = static_cast<std::uint16_t>(start + 1); id != start; ++id) {
        if (free(id)) {
            nextId_ = static_cast<std::uint16_t>(id + idStep_);
            return id;
        }
    }
    throw std::logic_error("no free SEL record ID");  // cannot happen: the log holds at most 0xFFFE
}

void SimSel::cancelReservation() { reservation_ = 0; }

void SimSel::dropOldest() {
    ids_.erase(idOf(records_.front()));
    records_.pop_front();
}

void SimSel::append(const sel::RawRecord& record) {
    records_.push_back(record);
    ids_.insert(idOf(record));
}

std::optional<std::uint16_t> SimSel::store(sel::RawRecord record) {
    if (erasing_) return std::nullopt;
    if (records_.size() >= capacity_) {
        overflow_ = true;
        if (mode_ == Mode::stopWhenFull) return std::nullopt;
        // Circular: the oldest record makes room; the count stays.
        dropOldest();
    }
    const std::uint16_t id = takeId();
    put16(record.data(), id);
    const std::uint32_t now = time();
    if (timestamped(record[2])) put32(record.data() + 3, now);
    append(record);
    lastAddition_ = now;
    cancelReservation();
    return id;
}

std::optional<std::uint16_t> SimSel::add(const sel::RawRecord& record) {
    Lock lock(bmc_.mutex());
    return store(record);
}

void SimSel::addExact(const sel::RawRecord& record) {
    Lock lock(bmc_.mutex());
    const std::uint16_t id = idOf(record);
    if (id == sel::firstRecordId || id == sel::lastRecordId)
        throw std::invalid_argument("record IDs 0000 and ffff are reserved");
    if (ids_.count(id) != 0) {
        char text[8];
        std::snprintf(text, sizeof text, "%04x", id);
        throw std::invalid_argument(std::string("the SEL holds record ") + text + " already");
    }
    if (records_.size() >= capacity_) {
        overflow_ = true;
        if (mode_ == Mode::stopWhenFull) throw std::invalid_argument("the SEL is full");
        dropOldest();
    }
    append(record);
    nextId_ = static_cast<std::uint16_t>(id + idStep_);
    lastAddition_ = time();
    cancelReservation();
}

void SimSel::clear() {
    Lock lock(bmc_.mutex());
    records_.clear();
    ids_.clear();
    overflow_ = false;
    erasing_ = false;
    lastErase_ = time();
    cancelReservation();
}

long SimSel::find(std::uint16_t id) const {
    if (records_.empty()) return -1;
    if (id == sel::firstRecordId) return 0;
    if (id == sel::lastRecordId) return static_cast<long>(records_.size()) - 1;
    for (std::size_t i = 0; i < records_.size(); ++i)
        if (idOf(records_[i]) == id) return static_cast<long>(i);
    return -1;
}

void SimSel::finishEraseIfDue() {
    if (erasing_ && (erasePollsLeft_ == 0 || bmc_.nowMs() >= eraseEndsMs_)) erasing_ = false;
}

// ---------------------------------------------------------------- commands

Response SimSel::info(const Request& request) const {
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    Lock lock(bmc_.mutex());
    Response r{cc::ok, selVersion};
    append16(r, static_cast<std::uint16_t>(records_.size()));
    // Free space in bytes; 0xFFFF stands for "65535 or more".
    const std::uint32_t freeBytes = static_cast<std::uint32_t>(capacity_ - records_.size()) * sel::recordSize;
    append16(r, static_cast<std::uint16_t>(std::min<std::uint32_t>(freeBytes, 0xFFFF)));
    append32(r, lastAddition_);
    append32(r, lastErase_);
    r.push_back(static_cast<unsigned char>((overflow_ ? sel::selInfo::overflow : 0) | sel::selInfo::supportsDelete |
                                           sel::selInfo::supportsReserve | sel::selInfo::supportsAllocationInfo));
    return r;
}

Response SimSel::allocationInfo(const Request& request) const {
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    Lock lock(bmc_.mutex());
    // One allocation unit per record.
    Response r{cc::ok};
    append16(r, static_cast<std::uint16_t>(capacity_));
    append16(r, sel::recordSize);
    const auto freeUnits = static_cast<std::uint16_t>(capacity_ - records_.size());
    append16(r, freeUnits);
    append16(r, freeUnits);  // the free units lie in one block
    r.push_back(1);          // the largest record takes one unit
    return r;
}

Response SimSel::reserve(const Request& request) {
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    Lock lock(bmc_.mutex());
    // A new reservation cancels the one before it; 0 never names one.
    lastReservation_ = static_cast<std::uint16_t>(lastReservation_ + 1);
    if (lastReservation_ == 0) lastReservation_ = 1;
    reservation_ = lastReservation_;
    Response r{cc::ok};
    append16(r, reservation_);
    return r;
}

Response SimSel::getEntry(const Request& request) {
    namespace e = sel::selEntry;
    const Bytes& d = request.data;
    if (d.size() != e::requestSize) return {cc::requestDataLengthInvalid};
    Lock lock(bmc_.mutex());
    finishEraseIfDue();
    if (erasing_) return {ccEraseInProgress};
    const std::uint16_t reservation = le16(&d[e::requestReservation]);
    const std::uint16_t id = le16(&d[e::requestRecordId]);
    const unsigned int offset = d[e::requestOffset];
    const unsigned int count = d[e::requestCount];
    // Only a partial read needs the reservation: it guards the pieces of one
    // record against a change in between.
    if (offset != 0 && (reservation_ == 0 || reservation != reservation_)) return {ccReservationCancelled};
    if (offset >= sel::recordSize) return {cc::parameterOutOfRange};
    const long index = find(id);
    if (index < 0) return {cc::requestedDataNotPresent};
    const unsigned int available = sel::recordSize - offset;
    const unsigned int asked = count == e::wholeRecord ? available : count;
    if (asked > maxRead_) return {cc::cannotReturnRequestedBytes};
    const unsigned int n = std::min(asked, available);
    const std::size_t i = static_cast<std::size_t>(index);
    Response r{cc::ok};
    append16(r, i + 1 < records_.size() ? idOf(records_[i + 1]) : sel::lastRecordId);
    r.insert(r.end(), records_[i].begin() + offset, records_[i].begin() + offset + n);
    return r;
}

Response SimSel::addEntry(const Request& request) {
    if (request.data.size() != sel::recordSize) return {cc::requestDataLengthInvalid};
    Lock lock(bmc_.mutex());
    finishEraseIfDue();
    if (erasing_) return {ccEraseInProgress};
    const auto id = store(recordFrom(request.data));
    if (!id) return {sel::cc::outOfSpace};
    Response r{cc::ok};
    append16(r, *id);
    return r;
}

Response SimSel::deleteEntry(const Request& request) {
    const Bytes& d = request.data;
    if (d.size() != 4) return {cc::requestDataLengthInvalid};
    Lock lock(bmc_.mutex());
    finishEraseIfDue();
    if (erasing_) return {ccEraseInProgress};
    if (reservation_ == 0 || le16(&d[0]) != reservation_) return {ccReservationCancelled};
    const long index = find(le16(&d[2]));
    if (index < 0) return {cc::requestedDataNotPresent};
    const std::uint16_t id = idOf(records_[static_cast<std::size_t>(index)]);
    records_.erase(records_.begin() + index);
    ids_.erase(id);
    lastErase_ = time();
    cancelReservation();
    Response r{cc::ok};
    append16(r, id);
    return r;
}

Response SimSel::clearRequest(const Request& request) {
    namespace c = sel::clearSel;
    const Bytes& d = request.data;
    if (d.size() != 6) return {cc::requestDataLengthInvalid};
    if (d[2] != c::clr[0] || d[3] != c::clr[1] || d[4] != c::clr[2]) return {cc::invalidDataField};
    Lock lock(bmc_.mutex());
    const std::uint16_t reservation = le16(&d[0]);
    if (d[5] == c::getStatus) {
        // The status is answered without the reservation: the erase itself
        // cancelled it, and whoever started it still polls with it.
        if (erasing_ && erasePollsLeft_ > 0) --erasePollsLeft_;
        finishEraseIfDue();
        return {cc::ok, static_cast<unsigned char>(erasing_ ? 0x00 : c::completed)};
    }
    if (d[5] != c::initiate) return {cc::invalidDataField};
    if (reservation_ == 0 || reservation != reservation_) return {ccReservationCancelled};
    records_.clear();
    ids_.clear();
    overflow_ = false;
    lastErase_ = time();
    cancelReservation();
    erasing_ = erasePolls_ > 0 && eraseMs_ > 0;
    erasePollsLeft_ = erasePolls_;
    eraseEndsMs_ = bmc_.nowMs() + eraseMs_;
    return {cc::ok, static_cast<unsigned char>(erasing_ ? 0x00 : c::completed)};
}

Response SimSel::getTime(const Request& request) const {
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    Response r{cc::ok};
    append32(r, time());
    return r;
}

Response SimSel::setTimeRequest(const Request& request) {
    const Bytes& d = request.data;
    if (d.size() != 4) return {cc::requestDataLengthInvalid};
    setTime(static_cast<std::uint32_t>(d[0] | (d[1] << 8) | (d[2] << 16) | (static_cast<std::uint32_t>(d[3]) << 24)));
    return {cc::ok};
}

Response SimSel::platformEvent(const Request& request) {
    Lock lock(bmc_.mutex());
    // The board answers first, as it always has: the OS status over IPMB is
    // its business alone, and a request it refuses is not logged either.
    Response r = bmc_.board().platformEvent(request);
    const Bytes& d = request.data;
    if (r.empty() || r[0] != cc::ok || request.addrType != IPMI_SYSTEM_INTERFACE_ADDR_TYPE || d.size() != 8)
        return r;
    // System software's event: generator ID byte 1 is its software ID (from
    // the request), byte 2 the channel (0, the system interface) and LUN.
    sel::RawRecord record{};
    record[2] = sel::systemEventRecord;
    record[7] = d[0];
    record[8] = static_cast<unsigned char>(request.lun & 0x03);
    std::copy(d.begin() + 1, d.end(), record.begin() + 9);
    store(record);  // a full log that stops drops it; the overflow flag tells
    return r;
}

void SimSel::logWatchdogExpiries() {
    const std::vector<WatchdogExpiry> expiries = bmc_.watchdog().expiries();
    for (; watchdogExpiriesSeen_ < expiries.size(); ++watchdogExpiriesSeen_) {
        const WatchdogExpiry& x = expiries[watchdogExpiriesSeen_];
        if (!x.logged) continue;
        // Watchdog 2: offset 0 timer expired (action none), 1 hard reset,
        // 2 power down, 3 power cycle; event data 2 the pre-timeout
        // interrupt (bits 7:4) and the timer use that ran out (bits 3:0).
        const unsigned char interrupt = bmc_.watchdog().state().preTimeoutInterrupt;
        sel::RawRecord record = {0, 0, sel::systemEventRecord, 0, 0, 0, 0, bmcGenerator, 0x00, evmRevision,
                                 watchdog2SensorType, watchdogSensorNumber, sensorSpecificEventType,
                                 static_cast<unsigned char>(extensionInData2 | (x.action & 0x0F)),
                                 static_cast<unsigned char>(((interrupt & 0x0F) << 4) | (x.timerUse & 0x0F)), 0xFF};
        if (!store(record)) continue;
        // Stamped with the moment of the expiry, not the end of the tick.
        put32(records_.back().data() + 3,
              static_cast<std::uint32_t>(timeOffset_ + static_cast<std::int64_t>(x.timeMs / 1000)));
    }
}

void SimSel::tick(std::uint64_t) {
    Lock lock(bmc_.mutex());
    finishEraseIfDue();
    logWatchdogExpiries();
}

// ---------------------------------------------------------------- dump

void SimSel::dump(std::ostream& out) const {
    Lock lock(bmc_.mutex());
    out << "capacity " << capacity_ << '\n';
    out << "mode " << (mode_ == Mode::circular ? "circular" : "stop-when-full") << '\n';
    out << "id-step " << idStep_ << '\n';
    out << "max-read " << maxRead_ << '\n';
    out << "entries " << records_.size() << '\n';
    out << "overflow " << (overflow_ ? "on" : "off") << '\n';
    out << "time " << time() << '\n';
    out << "last-addition " << lastAddition_ << '\n';
    out << "last-erase " << lastErase_ << '\n';
    out << "erase " << (erasing_ ? "in-progress" : "idle") << '\n';
    // The lines sel-record takes back.
    for (const sel::RawRecord& r : records_) out << "record " << hexText(Bytes(r.begin(), r.end())) << '\n';
}

// ---------------------------------------------------------------- registration

SimSel& SimBmc::sel() {
    Lock lock(mutex_);
    if (!sel_) sel_ = std::make_shared<SimSel>(*this);
    return *sel_;
}

namespace {

// A system event record for sel-add-many: a temperature sensor going over
// its upper non-critical threshold, the sensor number and reading varying
// with `n` so the records are told apart.
sel::RawRecord sampleRecord(unsigned int n) {
    return {0, 0, sel::systemEventRecord, 0, 0, 0, 0, bmcGenerator, 0x00, evmRevision, 0x01,
            static_cast<unsigned char>(1 + n % 32), 0x01, 0x57, static_cast<unsigned char>(0x40 + n % 16), 0x3C};
}

void addSelKeywords(SimBmc& bmc, SimSel* s) {
    auto need = [](const std::vector<std::string>& w, std::size_t n, const char* usage) {
        if (w.size() != n) throw std::invalid_argument(usage);
    };
    bmc.addKeyword("sel-capacity", "sel-capacity N: the event log holds N records (default 512)",
                   [s, need](const std::vector<std::string>& w) {
                       need(w, 1, "sel-capacity N");
                       s->setCapacity(static_cast<unsigned int>(parseNumber(w[0], SimSel::maxCapacity)));
                   });
    bmc.addKeyword("sel-mode", "sel-mode circular|stop-when-full: what a full event log does with a new record",
                   [s, need](const std::vector<std::string>& w) {
                       need(w, 1, "sel-mode circular|stop-when-full");
                       if (w[0] == "circular")
                           s->setMode(SimSel::Mode::circular);
                       else if (w[0] == "stop-when-full")
                           s->setMode(SimSel::Mode::stopWhenFull);
                       else
                           throw std::invalid_argument("sel-mode circular|stop-when-full");
                   });
    bmc.addKeyword("sel-id-step", "sel-id-step N: event log record IDs go up in steps of N (default 1)",
                   [s, need](const std::vector<std::string>& w) {
                       need(w, 1, "sel-id-step N");
                       s->setIdStep(static_cast<unsigned int>(parseNumber(w[0], 0x7FFF)));
                   });
    bmc.addKeyword("sel-max-read", "sel-max-read N: Get SEL Entry answers 0xCA to reads of more than N bytes (16: none)",
                   [s, need](const std::vector<std::string>& w) {
                       need(w, 1, "sel-max-read N");
                       s->setMaxRead(static_cast<unsigned int>(parseNumber(w[0], 16)));
                   });
    bmc.addKeyword("sel-erase", "sel-erase POLLS MS: Clear SEL reports 'in progress' for POLLS status requests or MS of the clock",
                   [s, need](const std::vector<std::string>& w) {
                       need(w, 2, "sel-erase POLLS MS");
                       s->setEraseDuration(static_cast<unsigned int>(parseNumber(w[0], 1000)),
                                           parseNumber(w[1], 1ULL << 40));
                   });
    bmc.addKeyword("sel-time", "sel-time SECONDS: sets the event log's clock (seconds since 1970)",
                   [s, need](const std::vector<std::string>& w) {
                       need(w, 1, "sel-time SECONDS");
                       s->setTime(static_cast<std::uint32_t>(parseNumber(w[0], 0xFFFFFFFF)));
                   });
    bmc.addKeyword("sel-record", "sel-record BYTE x16: a record as it stands in the event log (ID and time included)",
                   [s](const std::vector<std::string>& w) { s->addExact(recordFrom(parseHexBytes(w))); });
    bmc.addKeyword("sel-add", "sel-add BYTE x16: adds a record as Add SEL Entry does (the controller sets ID and time)",
                   [s](const std::vector<std::string>& w) {
                       if (!s->add(recordFrom(parseHexBytes(w))))
                           throw std::invalid_argument("the event log takes no record (full, or erasing)");
                   });
    bmc.addKeyword("sel-add-many", "sel-add-many N: adds N temperature events as Add SEL Entry does",
                   [s, need](const std::vector<std::string>& w) {
                       need(w, 1, "sel-add-many N");
                       const auto n = static_cast<unsigned int>(parseNumber(w[0], 1000000));
                       for (unsigned int i = 0; i < n; ++i) s->add(sampleRecord(i));
                   });
    bmc.addKeyword("sel-clear", "sel-clear: erases the event log at once",
                   [s, need](const std::vector<std::string>& w) {
                       need(w, 0, "sel-clear");
                       s->clear();
                   });
}

}  // namespace

void registerSelCommands(SimBmc& bmc) {
    SimSel* s = &bmc.sel();
    namespace cmd = sel::cmd;
    const unsigned char storage = sel::netfn::storage;
    bmc.setHandler(storage, cmd::getSelInfo, [s](const Request& r) { return s->info(r); });
    bmc.setHandler(storage, cmd::getSelAllocationInfo, [s](const Request& r) { return s->allocationInfo(r); });
    bmc.setHandler(storage, cmd::reserveSel, [s](const Request& r) { return s->reserve(r); });
    bmc.setHandler(storage, cmd::getSelEntry, [s](const Request& r) { return s->getEntry(r); });
    bmc.setHandler(storage, cmd::addSelEntry, [s](const Request& r) { return s->addEntry(r); });
    bmc.setHandler(storage, cmd::deleteSelEntry, [s](const Request& r) { return s->deleteEntry(r); });
    bmc.setHandler(storage, cmd::clearSel, [s](const Request& r) { return s->clearRequest(r); });
    bmc.setHandler(storage, cmd::getSelTime, [s](const Request& r) { return s->getTime(r); });
    bmc.setHandler(storage, cmd::setSelTime, [s](const Request& r) { return s->setTimeRequest(r); });
    // Replaces the board's registration; the board still answers first.
    bmc.setHandler(sel::netfn::sensorEvent, cmd::platformEvent, [s](const Request& r) { return s->platformEvent(r); });
    // After the watchdog's ticker, so an expiry is logged in the tick it happens.
    bmc.addTicker([s](std::uint64_t now) { s->tick(now); });
    addSelKeywords(bmc, s);
    bmc.addDumpSection("sel", [s](std::ostream& out) { s->dump(out); });
}

}  // namespace qelSim
