#include "qelctlTextfile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "qelctlCommon.h"

namespace qelctl {
namespace textfile {

namespace {

std::string errorText(const std::string& what, int error) { return what + ": " + std::strerror(error); }

// The length of the UTF-8 sequence at `s[i]`, 0 when it is not a valid one
// (overlong forms, surrogates and code points above U+10FFFF included).
std::size_t utf8Length(const std::string& s, std::size_t i) {
    const auto byte = [&s](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char b = byte(i);
    if (b < 0x80) return 1;
    std::size_t n = 0;
    unsigned min = 0;
    unsigned code = 0;
    if ((b & 0xE0) == 0xC0) n = 2, min = 0x80, code = b & 0x1F;
    else if ((b & 0xF0) == 0xE0) n = 3, min = 0x800, code = b & 0x0F;
    else if ((b & 0xF8) == 0xF0) n = 4, min = 0x10000, code = b & 0x07;
    else return 0;
    if (i + n > s.size()) return 0;
    for (std::size_t k = 1; k < n; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        code = (code << 6) | (byte(i + k) & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return n;
}

std::string pathOf(const std::string& dir, const std::string& name) {
    return dir.empty() || dir.back() == '/' ? dir + name : dir + "/" + name;
}

}  // namespace

std::string escapeLabelValue(const std::string& raw) {
    std::string out;
    out.reserve(raw.size());
    for (std::size_t i = 0; i < raw.size();) {
        const std::size_t n = utf8Length(raw, i);
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
            continue;
        }
        if (n == 1) {
            switch (raw[i]) {
            case '\\': out += "\\\\"; break;
            case '"': out += "\\\""; break;
            case '\n': out += "\\n"; break;
            default:
                // Control bytes from the controller would reach a terminal
                // raw (`qelctl metrics`): they become U+FFFD, as bytes that
                // are not UTF-8 do.
                if (static_cast<unsigned char>(raw[i]) < 0x20 || raw[i] == 0x7F) out += "\xEF\xBF\xBD";
                else out += raw[i];
            }
        } else {
            out.append(raw, i, n);
        }
        i += n;
    }
    return out;
}

// A second run does not wait for the first: the timer's service cannot run
// twice at once (systemd starts a oneshot unit that is still active no
// second time), so the overlap is an administrator's run by hand beside the
// timer's, and the run that holds the lock is about to leave a fresh file
// anyway. Waiting would only send the controller the same requests again a
// moment later, and a wait bounded by the time-out could still pile runs up
// behind a controller that does not answer.
DirectoryLock::DirectoryLock(const std::string& dir) {
    struct stat info;
    if (::stat(dir.c_str(), &info) != 0) throw Failure("metrics: " + errorText(dir, errno));
    if (!S_ISDIR(info.st_mode)) throw Failure("metrics: " + dir + ": not a directory");
    const std::string path = pathOf(dir, std::string(fileName) + ".lock");
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd_ < 0) throw Failure("metrics: " + errorText(path, errno));
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        ::close(fd_);
        fd_ = -1;
        if (error == EWOULDBLOCK)
            throw Failure("metrics: " + path + ": another qelctl metrics run is writing " + pathOf(dir, fileName));
        throw Failure("metrics: " + errorText(path, error));
    }
}

DirectoryLock::~DirectoryLock() {
    if (fd_ >= 0) ::close(fd_);  // releases the lock
}

void writeAtomically(const std::string& dir, const std::string& name, const std::string& text) {
    const std::string target = pathOf(dir, name);
    // The temporary name does not end in .prom: the collector skips it.
    std::string temporary = pathOf(dir, "." + name + ".XXXXXX");
    std::vector<char> buffer(temporary.begin(), temporary.end());
    buffer.push_back('\0');
    const int fd = ::mkostemp(buffer.data(), O_CLOEXEC);
    if (fd < 0) throw Failure("metrics: " + errorText(target, errno));
    temporary = buffer.data();
    auto fail = [&](const std::string& what, int error) {
        ::close(fd);
        ::unlink(temporary.c_str());
        throw Failure("metrics: " + errorText(what, error));
    };
    // mkostemp makes the file 0600; node_exporter runs as its own user.
    if (::fchmod(fd, 0644) != 0) fail(temporary, errno);
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) fail(temporary, errno);
        done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throw Failure("metrics: " + errorText(temporary, error));
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throw Failure("metrics: " + errorText(target, error));
    }
}

std::map<std::string, double> readTimeouts(const std::string& dir) {
    std::map<std::string, double> counts;
    std::ifstream in(pathOf(dir, std::string(fileName) + ".timeouts"));
    std::string collector;
    double count = 0;
    while (in >> collector >> count)
        if (count >= 0) counts[collector] = count;
    return counts;
}

void recordTimeout(const std::string& dir, const std::string& collector) {
    auto counts = readTimeouts(dir);
    counts[collector] += 1;
    std::string text;
    for (const auto& c : counts) text += c.first + ' ' + std::to_string(static_cast<unsigned long long>(c.second)) + '\n';
    writeAtomically(dir, std::string(fileName) + ".timeouts", text);
}

void recordStale(const std::string& dir, const std::string& collector) {
    writeAtomically(dir, std::string(fileName) + ".stale", collector + '\n');
}

std::string readStale(const std::string& dir) {
    std::ifstream in(pathOf(dir, std::string(fileName) + ".stale"));
    std::string collector;
    in >> collector;
    return collector;
}

void clearStale(const std::string& dir) {
    const std::string path = pathOf(dir, std::string(fileName) + ".stale");
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw Failure("metrics: " + errorText(path, errno));
}

void markCollectorDown(const std::string& dir, const std::string& collector) {
    std::ifstream in(pathOf(dir, fileName));
    if (!in) return;
    const std::string up = "ipmi_up{collector=\"" + escapeLabelValue(collector) + "\"} ";
    std::string text, line;
    bool changed = false;
    while (std::getline(in, line)) {
        if (line.rfind(up, 0) == 0 && line != up + "0") {
            line = up + "0";
            changed = true;
        }
        text += line + '\n';
    }
    if (changed) writeAtomically(dir, fileName, text);
}

Deadline::Deadline(double seconds, std::function<void()> expired) : expired_(std::move(expired)) {
    const auto until = std::chrono::steady_clock::now() +
                       std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                           std::chrono::duration<double>(seconds));
    watcher_ = std::thread([this, until] {
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_until(lock, until, [this] { return disarmed_; })) return;
        // Still holding the mutex: a disarm() that comes now waits for the
        // end of the process, so the collection cannot go on to write.
        expired_();
        std::_Exit(exitFailed);  // `expired` must not return; if it does, end anyway
    });
}

void Deadline::disarm() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        disarmed_ = true;
    }
    changed_.notify_all();
}

Deadline::~Deadline() {
    disarm();
    watcher_.join();
}

}  // namespace textfile
}  // namespace qelctl
