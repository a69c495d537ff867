// The simulated controller's System Event Log: the storage commands that
// read and manage it (network function 0x0A, 0x40-0x49) and the events the
// controller itself logs.
//
// The log holds up to `capacity` 16-byte records in the order they were
// added. A full log either overwrites its oldest record (circular) or refuses
// the new one with 0x80 (stop when full); both set the overflow flag that Get
// SEL Info reports until the log is cleared. Record IDs are handed out in
// steps of `idStep` (1 by default; a larger step makes them non-consecutive,
// as on controllers that number by storage offset), never 0x0000 or 0xFFFF.
//
// Reserve SEL hands out a reservation that an add, a delete, a clear or the
// next reservation cancels (0xC5). Get SEL Entry checks it only for partial
// reads (offset above 0), Delete and Clear always. A controller can be made
// to refuse reads of more than `maxRead` bytes at once (0xCA), as some do for
// whole records. Clear SEL erases at once but reports "in progress" until
// the `erasePolls`-th status request or until `eraseMs` of the controller's
// clock passed; meanwhile reads, adds and deletes answer 0x81.
//
// The SEL clock is the controller's clock (SimBmc::nowMs) plus an offset that
// Set SEL Time moves. Events land in the log from three sources: Add SEL
// Entry, Platform Event Messages that system software sends on the system
// interface (the board keeps answering the ones it receives over IPMB), and
// the watchdog's expiry unless its timer use said "don't log".
#ifndef QEL_SIM_SEL_H
#define QEL_SIM_SEL_H

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <optional>
#include <set>
#include <vector>

#include "qelSelRecord.h"
#include "qelSimBmc.h"

namespace qelSim {

class SimSel {
public:
    enum class Mode { circular, stopWhenFull };

    explicit SimSel(SimBmc& bmc);
    SimSel(const SimSel&) = delete;
    SimSel& operator=(const SimSel&) = delete;

    // ---- shape of the log (description keywords sel-*)
    void setCapacity(unsigned int records);  // 1 .. maxCapacity; drops the oldest beyond it
    unsigned int capacity() const;
    void setMode(Mode mode);
    Mode mode() const;
    void setIdStep(unsigned int step);  // 1 .. 0x7FFF
    // Reads of more than `bytes` at once answer 0xCA (16: every read works).
    void setMaxRead(unsigned int bytes);
    unsigned int maxRead() const;
    // How long an erase reports "in progress": status polls and clock time.
    void setEraseDuration(unsigned int polls, std::uint64_t ms);

    // ---- the log, for tests and ctl commands
    // Adds a record as Add SEL Entry does (the controller sets its ID and,
    // for timestamped types, its time): the new ID, or nothing when the log
    // is full and stops, or an erase is under way.
    std::optional<std::uint16_t> add(const qelSel::RawRecord& record);
    // Adds a record exactly as given, ID and timestamp included (a preloaded
    // log); the ID counter continues behind it. Throws std::invalid_argument
    // for ID 0x0000 or 0xFFFF, or an ID already present.
    void addExact(const qelSel::RawRecord& record);
    // Erases the log at once, as a completed Clear SEL.
    void clear();
    std::vector<qelSel::RawRecord> records() const;
    bool overflow() const;
    bool eraseInProgress() const;
    // Seconds on the SEL clock.
    std::uint32_t time() const;
    void setTime(std::uint32_t seconds);
    // The reservation a Reserve SEL last handed out (0: none valid).
    std::uint16_t reservation() const;

    // ---- the command handlers
    Response info(const Request& request) const;
    Response allocationInfo(const Request& request) const;
    Response reserve(const Request& request);
    Response getEntry(const Request& request);
    Response addEntry(const Request& request);
    Response deleteEntry(const Request& request);
    Response clearRequest(const Request& request);
    Response getTime(const Request& request) const;
    Response setTimeRequest(const Request& request);
    // The Platform Event Message: system software's event on the system
    // interface becomes a system event record once the board took it.
    Response platformEvent(const Request& request);
    void tick(std::uint64_t nowMs);

    void dump(std::ostream& out) const;

    static constexpr unsigned int maxCapacity = 0xFFFE;
    // The sensor number the controller's own watchdog sensor has.
    static constexpr unsigned char watchdogSensorNumber = 0x81;

private:
    std::uint16_t takeId();
    void dropOldest();
    void append(const qelSel::RawRecord& record);
    void cancelReservation();
    std::optional<std::uint16_t> store(qelSel::RawRecord record);
    // Index of the record `id` names (0x0000 first, 0xFFFF last), or -1.
    long find(std::uint16_t id) const;
    void finishEraseIfDue();
    void logWatchdogExpiries();

    SimBmc& bmc_;
    std::deque<qelSel::RawRecord> records_;  // oldest first
    std::set<std::uint16_t> ids_;             // the IDs in records_
    unsigned int capacity_ = 512;
    Mode mode_ = Mode::circular;
    unsigned int idStep_ = 1;
    std::uint16_t nextId_ = 1;
    unsigned int maxRead_ = qelSel::recordSize;
    bool overflow_ = false;
    std::uint32_t lastAddition_ = qelSel::unspecifiedTimestamp;
    std::uint32_t lastErase_ = qelSel::unspecifiedTimestamp;
    std::int64_t timeOffset_ = 0;  // SEL seconds minus controller seconds
    std::uint16_t reservation_ = 0;
    std::uint16_t lastReservation_ = 0;
    bool erasing_ = false;
    unsigned int erasePolls_ = 2;
    std::uint64_t eraseMs_ = 1000;
    unsigned int erasePollsLeft_ = 0;
    std::uint64_t eraseEndsMs_ = 0;
    std::size_t watchdogExpiriesSeen_ = 0;
};

}  // namespace qelSim

#endif
