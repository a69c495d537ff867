// The controller's event log (SEL) forwarded into the host's log: every
// record the controller keeps reaches the host once, decoded, with a priority
// that says how bad it is, and nothing is lost or repeated across restarts,
// kills, clears and a log that wraps.
//
// The forwarder is one step of the host agent's pass (qeld hands it to
// QelHostAgent in Options::steps, which runs it guarded after the watchdog's
// step), so it must never hold up a watchdog reset:
// - At rest it asks the controller one Get SEL Info every checkSeconds and
//   nothing more unless the entries, the last addition or erase time, the
//   free space or the overflow flag changed. A full circular log keeps its
//   entry count and erase time while new records replace old ones; its
//   addition time moves, and that is enough.
// - New records are read forward by the "next record ID" each entry gives
//   (IDs need not be consecutive and wrap), at most maxRecordsPerPass a
//   pass; a backlog drains over the following passes.
// - Where it stands (the last forwarded record's ID, timestamp and bytes,
//   the log's info last seen, the fill level and overflow already reported)
//   is written at the end of every pass to a temporary file, fsynced and
//   renamed over statePath, so a kill at any moment loses nothing. Once a
//   pass, not once a record: a backlog then costs one write and one fsync
//   per 32 records instead of one each, which is most of a drain's CPU. The
//   records handed to the sink in a pass a kill cut short are not handed
//   again when the sink can say what it took last (SelSink::lastDelivered:
//   the journal can): at the next start the records after the saved state
//   are read up to that one and counted as forwarded. A sink that cannot
//   tell (syslog) may see the records of that one pass twice.
// - With no usable state (the first start, a missing, empty, corrupt or
//   foreign state file) only what the controller logged since this boot is
//   forwarded, judged by the records' timestamps against the controller's
//   clock less the host's uptime and a margin for the two clocks: never the
//   whole log again. Options::replay forwards the whole log once.
// - The last forwarded record gone while the erase time moved: the log was
//   cleared; that is logged once and forwarding goes on from its first
//   record. Gone without a clear: the log wrapped past it; forwarding goes
//   on with the first record newer than it.
// - The fill level is logged as a warning at 75 %, 90 % and full, each
//   once per rise; the overflow flag once while it stands.
//
// Every record becomes one LogEntry: MESSAGE (the decoded line behind the
// record ID), PRIORITY from the severity, a fixed MESSAGE_ID per kind of
// entry and the record's facts in QEL_SEL_* fields. The library's default
// sink is syslog; qeld hands entries to the journal.
//
// Not thread-safe: one thread runs pass(); stats() may be called from any
// thread.
#ifndef QEL_SEL_FORWARDER_H
#define QEL_SEL_FORWARDER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qelExport.h"
#include "qelSel.h"
#include "qelSelRecord.h"
#include "qelSelText.h"

namespace qelSel {

// The MESSAGE_IDs, one per kind of entry; the journal catalog explains each.
namespace messageId {
constexpr char selEvent[] = "b94984b79cc44ea099a87728d5a050b2";
constexpr char selCleared[] = "07faf9da97ed40b3bd5dda6ee772a6e1";
constexpr char selFilling[] = "80ae02ab00074fdcb90d9ebca3c8149b";
constexpr char selOverflow[] = "0323904fa6dd4011a466ea89bf43b390";
constexpr char previousBootPanicked[] = "7e680caac35a413ca077b8eab6034cf3";
}  // namespace messageId

// One entry for the host's log.
struct QEL_EXPORT LogEntry {
    std::string messageId;  // 32 hex digits
    int priority = 6;       // syslog priority
    std::string message;    // for a person; controller texts already escaped
    std::vector<std::pair<std::string, std::string>> fields;  // QEL_SEL_* (no MESSAGE, PRIORITY)
    // The record behind a SEL event entry (absent for the log's own notes).
    std::optional<RawRecord> record;
};

class QEL_EXPORT SelSink {
public:
    virtual ~SelSink();
    // Hands one entry to the host's log. False when the log did not take
    // it: the record stays first in line for the next pass.
    virtual bool deliver(const LogEntry& entry) = 0;
    // The record of the last SEL event entry this sink took, as far as the
    // log can tell (the journal keeps it in QEL_SEL_RAW); nothing when it
    // cannot tell.
    virtual std::optional<RawRecord> lastDelivered() { return std::nullopt; }
};

// Syslog through the platform: the message with its record's facts
// appended, at the entry's priority.
class QEL_EXPORT SyslogSelSink : public SelSink {
public:
    bool deliver(const LogEntry& entry) override;
};

struct QEL_EXPORT ForwarderOptions {
    // Under the platform's root; the unit's StateDirectory.
    std::string statePath = "/var/lib/qeld/sel-state";
    unsigned int checkSeconds = 60;
    unsigned int maxRecordsPerPass = 32;
    // A backlog's passes sync the state at most this often (its end always).
    unsigned int syncSeconds = 60;
    // Forward the whole log once, as if nothing had been forwarded before.
    bool replay = false;
    // How far the controller's clock may be off the host's, for the first
    // start's "since this boot".
    unsigned int clockMarginSeconds = 300;
    // The sensor's name for (generator's owner ID, its LUN, sensor number),
    // empty when unknown; the SDR repository's names in qeld.
    std::function<std::string(uint8_t owner, uint8_t lun, uint8_t number)> sensorName;
};

struct QEL_EXPORT ForwarderStats {
    unsigned long forwarded = 0;    // SEL records handed to the sink, over the state's life
    unsigned long skipped = 0;      // records passed over as older than the starting point
    bool haveLast = false;
    uint16_t lastRecordId = 0;      // the last forwarded record
    long lastCheck = 0;             // platform time of the last Get SEL Info; 0: none yet
    bool backlog = false;           // records wait for the next pass
    unsigned int percentUsed = 0;
    unsigned int entries = 0;
    unsigned int freeBytes = 0;
};

class QEL_EXPORT QelSelForwarder {
public:
    // Reads the state file. Throws nothing: a state that cannot be used is
    // logged (through the platform's syslog) and replaced.
    explicit QelSelForwarder(SelSink& sink, ForwarderOptions options = {});
    ~QelSelForwarder();

    // One step: nothing unless a check is due or a backlog waits. Throws
    // QelSelError when the controller fails; the next pass tries again.
    void pass();

    [[nodiscard]] ForwarderStats stats() const;

    QelSelForwarder(const QelSelForwarder&) = delete;
    QelSelForwarder& operator=(const QelSelForwarder&) = delete;

private:
    struct State;
    struct Cursor;
    void loadState();
    static bool parseState(const std::string& text, bool needCheck, State& out, std::string& why);
    void saveState(bool durable);
    bool saveProgress(const std::string& path, std::string text);
    void identify();
    void startingPoint(QelSel& sel, const SelInfo& info);
    void reconcile(QelSel& sel);
    bool feed(const SelRecord& record);
    bool deliver(DecodedEvent& event, const SelRecord& last);
    bool deliverPlain(const SelRecord& record, const std::string& sensorName);
    void advance(const SelRecord& record, bool forwarded);
    void noteFill(unsigned int percent);
    void noteOverflow(bool overflow);
    bool note(const char* id, int priority, const std::string& message);

    SelSink& sink_;
    ForwarderOptions options_;
    std::unique_ptr<State> state_;
    std::unique_ptr<Cursor> cursor_;
    PanicAssembler panics_;
    // The entry of a record that is an event of its own, kept with its
    // strings' room from record to record; and the fields a longer entry
    // had beyond the current one.
    LogEntry plain_;
    std::vector<std::pair<std::string, std::string>> spareFields_;
    std::unique_ptr<QelSel> sel_;
    bool identified_ = false;
    bool reconciled_ = false;
    int progressFd_ = -1;
    long lastSync_ = 0;  // platform time of the last synced state; 0: none yet
    mutable std::mutex statsMutex_;
    ForwarderStats stats_;
};

}  // namespace qelSel

#endif
