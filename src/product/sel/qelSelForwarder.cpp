#include "qelSelForwarder.h"

#define QEL_SOURCE_NAME "qelSelForwarder"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelPlatform.h"
#include "qelSel.h"
#include "qelSelText.h"

namespace qelSel {

namespace {

constexpr char stateMagic[] = "qeld-sel-state 1";

std::string hex(const uint8_t* bytes, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0x0F];
    }
    return out;
}

bool unhex(const std::string& text, uint8_t* out, std::size_t size) {
    if (text.size() != size * 2) return false;
    for (std::size_t i = 0; i < size; ++i) {
        unsigned int value = 0;
        for (int n = 0; n < 2; ++n) {
            const char c = text[i * 2 + n];
            value <<= 4;
            if (c >= '0' && c <= '9') value |= static_cast<unsigned int>(c - '0');
            else if (c >= 'a' && c <= 'f') value |= static_cast<unsigned int>(c - 'a' + 10);
            else return false;
        }
        out[i] = static_cast<uint8_t>(value);
    }
    return true;
}

// Who the controller is, so a state file written for another one (a board
// swapped, a disk moved) is not taken for this one's: the device GUID where
// the controller has one, else its Get Device ID triplet.
std::string controllerIdentity() {
    qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    {
        qelIpmi::QelIpmi_request_msg msg(qelIpmi::netfn::app, 0x08 /* Get Device GUID */, 0, nullptr);
        if (ipmi.sendCmd(msg) && msg.responseLength >= 17 && msg.responseData[0] == qelIpmi::cc::ok)
            return "guid:" + hex(msg.responseData + 1, 16);
    }
    qelIpmi::QelIpmi_request_msg msg(qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId, 0, nullptr);
    if (ipmi.sendCmd(msg) && msg.responseLength >= 12 && msg.responseData[0] == qelIpmi::cc::ok) {
        const uint8_t id[] = {msg.responseData[7], msg.responseData[8], msg.responseData[9],
                              msg.responseData[10], msg.responseData[11], msg.responseData[1]};
        return "device:" + hex(id, sizeof id);
    }
    return "";  // unknown: any state is taken as this controller's
}

}  // namespace

SelSink::~SelSink() = default;

bool SyslogSelSink::deliver(const LogEntry& entry) {
    std::string text = entry.message;
    // Syslog has no fields: the facts a filter needs most ride along.
    for (const auto& field : entry.fields)
        if (field.first == "QEL_SEL_RECORD_ID" || field.first == "QEL_SEL_TIMESTAMP" ||
            field.first == "QEL_SEL_RAW")
            text += " " + field.first.substr(8) + "=" + field.second;
    qelPlatform::platform().syslog(entry.priority, text.c_str());
    return true;
}

// ---------------------------------------------------------------- state

struct QelSelForwarder::State {
    std::string controller;
    bool haveLast = false;
    uint16_t lastId = 0;
    uint32_t lastTimestamp = 0;
    RawRecord lastRaw{};
    bool haveInfo = false;
    SelInfo info{};
    unsigned int fillReported = 0;  // 0, 75, 90 or 100
    bool overflowReported = false;
    unsigned long forwarded = 0;
    unsigned long long sequence = 0;  // counts the writes: the newer of two files has the larger
};

// Where the next record comes from in this process.
struct QelSelForwarder::Cursor {
    bool valid = false;
    uint16_t next = firstRecordId;
    bool atEnd = false;           // the last record read was the log's last
    // Records at or below this timestamp are passed over (a first start, a
    // log that wrapped past the last forwarded record).
    bool filter = false;
    uint32_t notAfter = 0;
    RawRecord notThis{};          // the last forwarded record, when the log wrapped
};

QelSelForwarder::QelSelForwarder(SelSink& sink, ForwarderOptions options)
    : sink_(sink), options_(std::move(options)), state_(new State), cursor_(new Cursor) {
    loadState();
}

QelSelForwarder::~QelSelForwarder() {
    if (progressFd_ >= 0) ::close(progressFd_);
}

namespace {

// FNV-1a, 64 bits: enough to tell a progress file a power cut tore from
// one written whole.
std::string checkOf(const std::string& text) {
    uint64_t h = 14695981039346656037ull;
    for (const char c : text) {
        h ^= static_cast<unsigned char>(c);
        h *= 1099511628211ull;
    }
    char out[17];
    std::snprintf(out, sizeof out, "%016llx", static_cast<unsigned long long>(h));
    return out;
}

std::string fileText(const std::string& path, bool& exists) {
    std::ifstream in(path, std::ios::binary);
    exists = static_cast<bool>(in);
    if (!exists) return std::string();
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

// A state file's text taken apart: true with `out` filled, or false with
// why not. `needCheck`: the text must carry its check line (the progress
// file; state files of earlier versions have none).
bool QelSelForwarder::parseState(const std::string& text, bool needCheck, State& out, std::string& why) {
    std::istringstream in(text);
    std::string line;
    if (!std::getline(in, line)) return why = "empty", false;
    if (line != stateMagic) return why = "not a state file", false;
    State s;
    bool haveRaw = false;
    bool checked = false;
    std::string covered = line + '\n';
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string key, value;
        words >> key;
        std::getline(words >> std::ws, value);
        try {
            if (key == "controller") s.controller = value;
            else if (key == "sequence") s.sequence = std::stoull(value);
            else if (key == "last-id") { s.lastId = static_cast<uint16_t>(std::stoul(value, nullptr, 0)); s.haveLast = true; }
            else if (key == "last-timestamp") s.lastTimestamp = static_cast<uint32_t>(std::stoul(value));
            else if (key == "last-raw") haveRaw = unhex(value, s.lastRaw.data(), s.lastRaw.size());
            else if (key == "info") {
                std::istringstream v(value);
                unsigned long entries, freeBytes, addition, erase, overflow;
                if (!(v >> entries >> freeBytes >> addition >> erase >> overflow)) return why = "bad info line", false;
                s.info.entries = static_cast<uint16_t>(entries);
                s.info.freeBytes = static_cast<uint16_t>(freeBytes);
                s.info.lastAddition = static_cast<uint32_t>(addition);
                s.info.lastErase = static_cast<uint32_t>(erase);
                s.info.overflow = overflow != 0;
                s.haveInfo = true;
            } else if (key == "fill-reported") s.fillReported = static_cast<unsigned int>(std::stoul(value));
            else if (key == "overflow-reported") s.overflowReported = value == "1";
            else if (key == "forwarded") s.forwarded = std::stoul(value);
            else if (key == "check") {
                if (value != checkOf(covered)) return why = "check mismatch", false;
                checked = true;
            } else if (key == "end") {
                if (needCheck && !checked) return why = "no check", false;
                if (s.haveLast && !haveRaw) return why = "no record bytes", false;
                out = s;
                return true;
            }
        } catch (const std::exception&) {
            return why = "bad value for " + key, false;
        }
        covered += line + '\n';
    }
    return why = "cut short", false;
}

// Two files: the state proper (`statePath`), replaced whole (written
// beside it, synced, renamed over it), and the progress file beside it
// (".pass"), rewritten in place unsynced by the passes of a backlog between
// two syncs. A kill leaves both as they were written (the page cache
// outlives the process), so the newer of the two is where to go on. A power
// cut may leave the progress file torn or behind: its check line rejects a
// torn one, and a state from before the cut only forwards again what came
// after it (the journal itself keeps entries unsynced for minutes), while a
// state ahead of what reached the disk would lose records.
void QelSelForwarder::loadState() {
    const std::string path = qelPlatform::platform().path(options_.statePath);
    const std::string progressPath = path + ".pass";
    bool haveFile = false, haveProgressFile = false;
    const std::string text = fileText(path, haveFile);
    const std::string progressText = fileText(progressPath, haveProgressFile);
    State saved, progress;
    std::string why, progressWhy;
    const bool savedOk = haveFile && parseState(text, false, saved, why);
    const bool progressOk = haveProgressFile && parseState(progressText, true, progress, progressWhy);
    if (haveProgressFile && !progressOk && !progressText.empty())
        qelPlatform::platform().syslog(LOG_NOTICE, ("the SEL forwarder's progress file " + progressPath +
                                                    " is unusable (" + progressWhy + "); going on from " + path)
                                                       .c_str());
    if (progressOk && (!savedOk || progress.sequence > saved.sequence)) {
        *state_ = progress;
        return;
    }
    if (savedOk) {
        *state_ = saved;
        return;
    }
    if (!haveFile) return;  // the first start: nothing to say
    *state_ = State();
    qelPlatform::platform().syslog(LOG_WARNING, ("the SEL forwarder's state " + path + " is unusable (" + why +
                                                 "); forwarding what the controller logged since this boot")
                                                    .c_str());
}

void QelSelForwarder::saveState(bool durable) {
    State& s = *state_;
    ++s.sequence;
    // Written once a pass: appended piece by piece rather than through a
    // stream, whose set-up was most of the cost of a backlog's pass.
    std::string text;
    text.reserve(320);
    const auto line = [&text](const char* key, const std::string& value) {
        text.append(key).append(1, ' ').append(value).append(1, '\n');
    };
    text.append(stateMagic).append(1, '\n');
    line("controller", s.controller);
    line("sequence", std::to_string(s.sequence));
    if (s.haveLast) {
        line("last-id", std::to_string(s.lastId));
        line("last-timestamp", std::to_string(s.lastTimestamp));
        line("last-raw", hex(s.lastRaw.data(), s.lastRaw.size()));
    }
    if (s.haveInfo)
        line("info", std::to_string(s.info.entries) + ' ' + std::to_string(s.info.freeBytes) + ' ' +
                         std::to_string(s.info.lastAddition) + ' ' + std::to_string(s.info.lastErase) + ' ' +
                         (s.info.overflow ? '1' : '0'));
    line("fill-reported", std::to_string(s.fillReported));
    line("overflow-reported", s.overflowReported ? "1" : "0");
    line("forwarded", std::to_string(s.forwarded));
    text += "check " + checkOf(text) + "\nend\n";

    const std::string path = qelPlatform::platform().path(options_.statePath);
    if (durable || progressFd_ < 0) {
        const std::string directory = path.substr(0, path.find_last_of('/') + 1);
        std::error_code ignored;  // a directory that cannot be made shows in the open below
        std::filesystem::create_directories(directory, ignored);
    }
    if (!durable && saveProgress(path + ".pass", text)) return;
    // A temporary file beside it, synced, then renamed over it: a kill at
    // any moment leaves the old state or the new one, never half of one.
    const std::string temporary = path + ".new";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) QEL_THROW(QelSelError, "cannot write the SEL forwarder's state " + temporary + ": " + std::strerror(errno));
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int error = errno;
            ::close(fd);
            QEL_THROW(QelSelError, "cannot write the SEL forwarder's state " + temporary + ": " + std::strerror(error));
        }
        done += static_cast<std::size_t>(n);
    }
    if (::fsync(fd) != 0 || ::close(fd) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0)
        QEL_THROW(QelSelError, "cannot save the SEL forwarder's state " + path + ": " + std::strerror(errno));
}

// The progress file: one block rewritten at its start, never truncated or
// synced, so a pass of a backlog costs a write to the page cache. False when
// it cannot be written; the caller saves the state proper instead.
bool QelSelForwarder::saveProgress(const std::string& path, std::string text) {
    constexpr std::size_t block = 512;
    if (text.size() < block) text.resize(block, '\n');  // lines after "end" are not read
    if (progressFd_ < 0) {
        progressFd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (progressFd_ < 0) return false;
    }
    const ssize_t n = ::pwrite(progressFd_, text.data(), text.size(), 0);
    if (n != static_cast<ssize_t>(text.size()) || (text.size() > block && ::ftruncate(progressFd_, n) != 0)) {
        ::close(progressFd_);
        progressFd_ = -1;
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- notes

bool QelSelForwarder::note(const char* id, int priority, const std::string& message) {
    LogEntry entry;
    entry.messageId = id;
    entry.priority = priority;
    entry.message = message;
    return sink_.deliver(entry);
}

void QelSelForwarder::noteFill(unsigned int percent) {
    State& s = *state_;
    const unsigned int level = percent >= 100 ? 100 : percent >= 90 ? 90 : percent >= 75 ? 75 : 0;
    if (level < s.fillReported) {
        s.fillReported = level;  // it went down (a clear): the next rise is told again
        return;
    }
    if (level == s.fillReported || level == 0) return;
    const std::string text = level == 100
        ? "the controller's event log is full: new events are dropped or overwrite the oldest"
        : "the controller's event log is " + std::to_string(percent) + " % full";
    if (note(messageId::selFilling, LOG_WARNING, text)) s.fillReported = level;
}

void QelSelForwarder::noteOverflow(bool overflow) {
    State& s = *state_;
    if (!overflow) {
        s.overflowReported = false;
        return;
    }
    if (s.overflowReported) return;
    if (note(messageId::selOverflow, LOG_WARNING,
             "the controller's event log overflowed: events have been dropped"))
        s.overflowReported = true;
}

// ---------------------------------------------------------------- forwarding

namespace {

bool goneError(const QelSel& sel) { return sel.lastCompletionCode() == cc::requestedDataNotPresent; }

bool isPanic(const DecodedEvent& event) {
    const std::string_view panicText(field::panicText);
    for (const JournalField& f : event.fields)
        if (f.name == panicText) return true;
    return false;
}

// "SEL record 0x0012: " in front of an event's text.
void putRecordLabel(std::string& message, uint16_t recordId) {
    static const char digits[] = "0123456789ABCDEF";
    const char label[] = {'S', 'E', 'L', ' ', 'r', 'e', 'c', 'o', 'r', 'd', ' ', '0', 'x',
                          digits[(recordId >> 12) & 0xF], digits[(recordId >> 8) & 0xF],
                          digits[(recordId >> 4) & 0xF], digits[recordId & 0xF], ':', ' '};
    message.append(label, sizeof label);
}

}  // namespace

void QelSelForwarder::identify() {
    if (identified_) return;
    const std::string identity = controllerIdentity();
    State& s = *state_;
    if (!identity.empty() && !s.controller.empty() && s.controller != identity) {
        qelPlatform::platform().syslog(
            LOG_WARNING, ("the SEL forwarder's state " + qelPlatform::platform().path(options_.statePath) +
                          " was written for another controller (" + s.controller + ", this one is " + identity +
                          "); forwarding what this controller logged since this boot")
                             .c_str());
        s = State();
    }
    if (!identity.empty()) s.controller = identity;
    identified_ = true;
}

void QelSelForwarder::startingPoint(QelSel& sel, const SelInfo& info) {
    Cursor& c = *cursor_;
    State& s = *state_;
    c = Cursor();
    c.valid = true;
    panics_ = PanicAssembler();
    if (options_.replay) {
        options_.replay = false;  // once
        return;
    }
    if (s.haveLast) {
        try {
            const SelEntry last = sel.read(s.lastId);
            if (last.record.raw == s.lastRaw) {
                c.next = last.nextId;
                c.atEnd = last.nextId == lastRecordId;
                return;
            }
        } catch (const QelSelError&) {
            if (!goneError(sel)) throw;
        }
        // The last record dealt with is gone.
        if (!s.haveInfo || info.lastErase != s.info.lastErase) {
            note(messageId::selCleared, LOG_NOTICE,
                 "the controller's event log was cleared; forwarding goes on from its first record");
            return;  // every record the log holds now came after the clear
        }
        // Not cleared: the log wrapped past it. What is newer goes on.
        c.filter = true;
        c.notAfter = s.lastTimestamp > 0 ? s.lastTimestamp - 1 : 0;
        c.notThis = s.lastRaw;
        return;
    }
    // No usable state: what the controller logged since this boot, by its
    // own clock less the host's uptime and a margin for the two clocks.
    struct sysinfo host;
    std::memset(&host, 0, sizeof host);
    const long uptime = qelPlatform::platform().sysinfo(&host) == 0 ? host.uptime : 0;
    const long now = static_cast<long>(sel.time());
    const long since = now - uptime - static_cast<long>(options_.clockMarginSeconds);
    c.filter = true;
    c.notAfter = since > 0 ? static_cast<uint32_t>(since - 1) : 0;
}

// Records handed to the journal just before a kill, after the state was last
// saved: the journal knows the last one it took, so none of them is handed
// again. The state is saved once a pass, so up to a pass's records (and the
// pieces of a kernel panic held over from the pass before) lie between it
// and what the journal took.
void QelSelForwarder::reconcile(QelSel& sel) {
    reconciled_ = true;
    Cursor& c = *cursor_;
    if (!state_->haveLast || c.atEnd) return;
    const std::optional<RawRecord> delivered = sink_.lastDelivered();
    if (!delivered || *delivered == state_->lastRaw) return;
    const SelBatch batch = sel.readForward(c.next, 2 * options_.maxRecordsPerPass + 16);
    std::size_t taken = 0;
    while (taken < batch.records.size() && batch.records[taken].raw != *delivered) ++taken;
    if (taken == batch.records.size()) return;  // not among them: nothing was taken unsaid
    ++taken;
    for (std::size_t i = 0; i < taken; ++i) advance(batch.records[i], true);
    saveState(true);
    if (taken == batch.records.size()) {
        c.next = batch.nextId;
        c.atEnd = batch.atEnd();
    } else {
        c.next = batch.records[taken].recordId;
        c.atEnd = false;
    }
}

void QelSelForwarder::advance(const SelRecord& record, bool forwarded) {
    State& s = *state_;
    s.haveLast = true;
    s.lastId = record.recordId;
    s.lastTimestamp = record.timestamp;
    s.lastRaw = record.raw;
    if (forwarded) ++s.forwarded;
}

// Takes the event's fields (moved, not copied: a record's dozen fields are
// most of what a backlog allocates).
bool QelSelForwarder::deliver(DecodedEvent& event, const SelRecord& last) {
    LogEntry entry;
    const bool panic = isPanic(event);
    entry.messageId = panic ? messageId::previousBootPanicked : messageId::selEvent;
    entry.priority = journalPriority(event.severity);
    entry.message.reserve(20 + event.text.size());
    putRecordLabel(entry.message, event.recordIds.empty() ? last.recordId : event.recordIds.front());
    entry.message.append(event.text);
    entry.fields.reserve(event.fields.size());
    for (JournalField& f : event.fields) entry.fields.emplace_back(std::move(f.name), std::move(f.value));
    entry.record = last.raw;
    return sink_.deliver(entry);
}

// One record as decode() and deliver() make its entry, written into the
// entry the forwarder keeps: after the first records its strings have the
// room, and a record allocates next to nothing.
bool QelSelForwarder::deliverPlain(const SelRecord& record, const std::string& sensorName) {
    LogEntry& entry = plain_;
    entry.messageId.assign(messageId::selEvent);
    entry.priority = journalPriority(severityOf(record));
    entry.message.clear();
    putRecordLabel(entry.message, record.recordId);
    entry.message.append(eventText(record, sensorName));
    auto& fields = entry.fields;
    std::size_t used = 0;
    visitJournalFields(record, sensorName, [this, &fields, &used](const char* name, std::string_view value) {
        if (used == fields.size()) {
            // Fields a shorter entry left over keep their strings' room.
            if (spareFields_.empty()) {
                fields.emplace_back();
            } else {
                fields.push_back(std::move(spareFields_.back()));
                spareFields_.pop_back();
            }
        }
        // The same field sits in the same place record after record: its
        // name is mostly there already, and appending to a cleared string
        // is cheaper than assign's overlap handling.
        auto& field = fields[used];
        const std::string_view key(name);
        if (field.first != key) field.first.assign(key.data(), key.size());
        field.second.clear();
        field.second.append(value.data(), value.size());
        ++used;
    });
    while (fields.size() > used) {
        spareFields_.push_back(std::move(fields.back()));
        fields.pop_back();
    }
    entry.record = record.raw;
    return sink_.deliver(entry);
}

// Decodes one record and hands what it completes to the sink. The state
// moves to a record once everything up to it was handed over; records a
// kernel panic still holds are read again after a restart.
bool QelSelForwarder::feed(const SelRecord& record) {
    std::string name;
    if (record.isSystemEvent() && options_.sensorName)
        name = options_.sensorName(static_cast<uint8_t>(record.generatorId & 0xFF),
                                   static_cast<uint8_t>((record.generatorId >> 8) & 0x03), record.sensorNumber);
    if (!panics_.holding() && !isKernelPanicEvent(record) && !isKernelPanicPiece(record)) {
        // What nearly every record is: one event of its own, which the panic
        // assembler would only decode and pass through.
        if (!deliverPlain(record, name)) return false;
        advance(record, true);
        return true;
    }
    std::vector<DecodedEvent> events = panics_.feed(record, name);
    for (DecodedEvent& event : events)
        if (!deliver(event, record)) return false;
    // The state is saved at the end of the pass: one write (and fsync) for
    // up to a pass's records, not one each.
    if (!panics_.holding()) advance(record, true);
    return true;
}

void QelSelForwarder::pass() {
    const long now = static_cast<long>(qelPlatform::platform().time());
    Cursor& c = *cursor_;
    State& s = *state_;
    const bool backlog = c.valid && !c.atEnd;
    const bool due = stats_.lastCheck == 0 || now - stats_.lastCheck >= static_cast<long>(options_.checkSeconds) ||
                     now < stats_.lastCheck;
    if (!due && !backlog) return;

    identify();
    // The device stays open from pass to pass while a backlog drains, and is
    // closed once the log is read to its end or a pass fails.
    if (!sel_) sel_.reset(new QelSel);
    QelSel& sel = *sel_;
    struct CloseUnlessDraining {
        std::unique_ptr<QelSel>& sel;
        const Cursor& c;
        ~CloseUnlessDraining() {
            if (std::uncaught_exceptions() > 0 || !c.valid || c.atEnd) sel.reset();
        }
    } closing{sel_, c};
    const SelInfo info = sel.info();
    {
        std::lock_guard<std::mutex> lock(statsMutex_);
        stats_.lastCheck = now == 0 ? 1 : now;
        stats_.entries = info.entries;
        stats_.freeBytes = info.freeBytes;
        stats_.percentUsed = info.percentUsed();
    }
    const bool changed = !s.haveInfo || info.entries != s.info.entries || info.freeBytes != s.info.freeBytes ||
                         info.lastAddition != s.info.lastAddition || info.lastErase != s.info.lastErase ||
                         info.overflow != s.info.overflow;
    if (!changed && c.valid && c.atEnd) return;

    noteFill(info.percentUsed());
    noteOverflow(info.overflow);
    // A clear under way leaves the cursor pointing into a log that is gone.
    if (c.valid && s.haveInfo && info.lastErase != s.info.lastErase) c.valid = false;

    if (!c.valid) {
        startingPoint(sel, info);
        if (!reconciled_) reconcile(sel);
    } else if (c.atEnd && s.haveLast) {
        // New records follow the last one: its next ID now says where.
        try {
            const SelEntry last = sel.read(s.lastId);
            if (last.record.raw == s.lastRaw) {
                c.next = last.nextId;
                c.atEnd = last.nextId == lastRecordId;
            } else {
                startingPoint(sel, info);
            }
        } catch (const QelSelError&) {
            if (!goneError(sel)) throw;
            startingPoint(sel, info);
        }
    } else if (c.atEnd) {
        c.next = firstRecordId;  // nothing was ever there: read from the first
        c.atEnd = false;
    }

    SelBatch batch;
    if (!c.atEnd) {
        try {
            batch = sel.readForward(c.next, options_.maxRecordsPerPass);
        } catch (const QelSelError&) {
            if (!goneError(sel)) throw;
            // The record went away under us (a clear, a delete): find the
            // way again next pass.
            c.valid = false;
        }
    }
    bool complete = c.valid;
    for (const SelRecord& record : batch.records) {
        bool passOver = false;
        if (c.filter) {
            if (!record.hasTimestamp() || record.timestamp <= c.notAfter || record.raw == c.notThis)
                passOver = true;
            else
                c.filter = false;  // from here on, everything
        }
        if (passOver) {
            advance(record, false);
            std::lock_guard<std::mutex> lock(statsMutex_);
            ++stats_.skipped;
            continue;
        }
        if (!feed(record)) {
            // The log did not take it: from the last record it took, next pass.
            c.valid = false;
            complete = false;
            break;
        }
    }
    if (complete) {
        c.next = batch.nextId;
        c.atEnd = batch.atEnd();
        if (c.atEnd) {
            // The end of the log for now: a panic still held is complete.
            for (DecodedEvent& event : panics_.flush())
                if (!deliver(event, batch.records.empty() ? SelRecord() : batch.records.back())) c.valid = false;
            if (c.valid && !batch.records.empty()) advance(batch.records.back(), false);
        }
    }
    s.info = info;
    s.haveInfo = true;
    // Between two syncs a backlog's passes only note their progress; the end
    // of a backlog, and a long one every syncSeconds, is synced.
    const bool more = c.valid && !c.atEnd;
    const bool durable = !more || lastSync_ == 0 || now - lastSync_ >= static_cast<long>(options_.syncSeconds) ||
                         now < lastSync_;
    saveState(durable);
    if (durable) lastSync_ = now == 0 ? 1 : now;
    std::lock_guard<std::mutex> lock(statsMutex_);
    stats_.forwarded = s.forwarded;
    stats_.haveLast = s.haveLast;
    stats_.lastRecordId = s.lastId;
    stats_.backlog = c.valid && !c.atEnd;
}

ForwarderStats QelSelForwarder::stats() const {
    std::lock_guard<std::mutex> lock(statsMutex_);
    return stats_;
}

}  // namespace qelSel
