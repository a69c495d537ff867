// How `qelctl metrics --textfile DIR` hands its text to node_exporter's
// textfile collector: label values made safe, one writer at a time, a file
// that is always whole, and a run that cannot hang for ever on a controller
// that stopped answering.
//
// In DIR, beside qeld.prom (the collector reads only *.prom):
//   qeld.prom.lock      flock'ed by the run that writes qeld.prom
//   qeld.prom.timeouts  how many runs each collector's time-out ended
//   qeld.prom.stale     the collector a run was in when its time-out ended,
//                       until a run writes qeld.prom again
#ifndef QELCTL_TEXTFILE_H
#define QELCTL_TEXTFILE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace qelctl {
namespace textfile {

constexpr const char* fileName = "qeld.prom";

// A label value as the text format wants it: a backslash, a double quote and
// a newline escaped, and bytes that are not UTF-8 replaced by U+FFFD (the
// collector refuses a whole file for one invalid label value), as are
// control bytes other than the newline (they would reach a terminal raw).
std::string escapeLabelValue(const std::string& raw);

// The exclusive flock on DIR/qeld.prom.lock, held until destruction.
class DirectoryLock {
public:
    // Throws Failure when DIR is missing or not writable, or when another
    // run holds the lock (it does not wait: see the definition for why).
    explicit DirectoryLock(const std::string& dir);
    ~DirectoryLock();
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

private:
    int fd_ = -1;
};

// Writes `text` as DIR/NAME: into a new temporary file in DIR (mode 0644),
// then renamed over NAME, so a reader sees the old file or the new one, whole.
// Throws Failure naming the path and the error; NAME is untouched then.
void writeAtomically(const std::string& dir, const std::string& name, const std::string& text);

// The time-outs recorded in DIR/qeld.prom.timeouts, by collector; empty when
// there is no such file (or it cannot be read: the figures then start over).
[[nodiscard]] std::map<std::string, double> readTimeouts(const std::string& dir);
// Adds one time-out of `collector` to the file (written atomically).
void recordTimeout(const std::string& dir, const std::string& collector);

// The stale mark: set by a run that its time-out ends, read and cleared by
// the next runs. readStale gives "" when there is none.
void recordStale(const std::string& dir, const std::string& collector);
[[nodiscard]] std::string readStale(const std::string& dir);
void clearStale(const std::string& dir);
// Rewrites DIR/qeld.prom (atomically) with `collector`'s ipmi_up sample at
// 0, the rest as it was; nothing when there is no such file or sample.
void markCollectorDown(const std::string& dir, const std::string& collector);

// Ends the process when the collection takes longer than `seconds`. The
// collection runs in this thread and may be blocked inside a controller
// exchange that cannot be cancelled, so a watcher thread calls `expired`
// (which must not return: the default prints and _exits) at the deadline
// unless disarm() came first. After disarm() returns, `expired` never runs.
class Deadline {
public:
    Deadline(double seconds, std::function<void()> expired);
    ~Deadline();
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;
    void disarm();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool disarmed_ = false;
    std::function<void()> expired_;
    std::thread watcher_;
};

}  // namespace textfile
}  // namespace qelctl

#endif
