// Where qeld puts the controller's event log: the systemd journal, with every
// record's facts as fields a log pipeline can filter on, or syslog where the
// system has no journal.
//
// The journal's native protocol is one datagram of fields to its socket
// ("KEY=value\n", or "KEY\n" + a 64-bit little-endian length + the bytes +
// "\n" for a value that holds a line break), the same few lines of socket
// code as the service notification (qeldNotify.h), so qeld speaks it itself
// instead of linking libsystemd: the watchdog keeper stays small and links
// nothing it would have to load on every server.
//
// The forwarder asks the sink once per start which record the log took last
// (a kill between the journal taking a record and the forwarder's state
// saying so must not repeat the record). The journal answers that through
// journalctl: first `journalctl --sync`, so that what a killed predecessor
// sent is written, then the newest of qeld's SEL entries in the export
// format, whose QEL_SEL_RAW field holds the record's bytes.
#ifndef QELD_JOURNAL_H
#define QELD_JOURNAL_H

#include <memory>
#include <optional>
#include <string>

#include "qelSelForwarder.h"

namespace qeld {

class JournalSelSink : public qelSel::SelSink {
public:
    static constexpr const char* defaultSocket = "/run/systemd/journal/socket";
    static constexpr const char* identifier = "qeld";

    // `journalctl` is the program that reads the journal back; tests give a
    // stand-in. Empty: lastDelivered() does not ask.
    explicit JournalSelSink(std::string socketPath = defaultSocket, std::string journalctl = "journalctl");
    ~JournalSelSink() override;

    // True when a journal listens at `socketPath`.
    static bool available(const std::string& socketPath = defaultSocket);

    // One datagram. False when the journal did not take it (not there, its
    // queue full): the forwarder tries again next pass; the send never
    // blocks the agent's loop. An entry too big for a datagram goes to
    // syslog instead.
    bool deliver(const qelSel::LogEntry& entry) override;
    std::optional<qelSel::RawRecord> lastDelivered() override;

    // The datagram for `entry`: MESSAGE, PRIORITY, SYSLOG_IDENTIFIER,
    // MESSAGE_ID, then the entry's fields in order.
    static std::string serialize(const qelSel::LogEntry& entry);
    // The QEL_SEL_RAW of the last entry in journalctl's export output.
    static std::optional<qelSel::RawRecord> rawFromExport(const std::string& text);

    JournalSelSink(const JournalSelSink&) = delete;
    JournalSelSink& operator=(const JournalSelSink&) = delete;

private:
    std::string socketPath_;
    std::string journalctl_;
    int fd_ = -1;
};

// A test aid (--test-sel-log=FILE): one line per entry appended to FILE,
// "MESSAGE_ID PRIORITY RAW MESSAGE" (RAW: 32 hex digits, "-" for the log's
// own notes), each line one write(2) to a file opened O_APPEND, so a kill
// leaves whole lines. It knows what it took last, as the journal does.
class FileSelSink : public qelSel::SelSink {
public:
    explicit FileSelSink(std::string path);
    bool deliver(const qelSel::LogEntry& entry) override;
    std::optional<qelSel::RawRecord> lastDelivered() override;

private:
    std::string path_;
};

// The sink qeld forwards to: FILE when given, else the journal when there is
// one, else syslog.
std::unique_ptr<qelSel::SelSink> makeSelSink(const std::string& testFile);

}  // namespace qeld

#endif
