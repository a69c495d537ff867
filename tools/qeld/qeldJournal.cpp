#include "qeldJournal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace qeld {

namespace {

// A read of the journal that takes longer than this is given up: the start
// goes on, and the one record at stake may be logged twice.
constexpr int journalctlSeconds = 5;

bool fromHex(const std::string& text, qelSel::RawRecord& out) {
    if (text.size() != out.size() * 2) return false;
    for (std::size_t i = 0; i < out.size(); ++i) {
        unsigned int value = 0;
        for (int n = 0; n < 2; ++n) {
            const char c = text[i * 2 + n];
            value <<= 4;
            if (c >= '0' && c <= '9')
                value |= static_cast<unsigned int>(c - '0');
            else if (c >= 'a' && c <= 'f')
                value |= static_cast<unsigned int>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                value |= static_cast<unsigned int>(c - 'A' + 10);
            else
                return false;
        }
        out[i] = static_cast<uint8_t>(value);
    }
    return true;
}

std::string toHex(const qelSel::RawRecord& raw) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (uint8_t b : raw) {
        out += digits[b >> 4];
        out += digits[b & 0x0F];
    }
    return out;
}

void appendField(std::string& out, const std::string& name, const std::string& value) {
    if (value.find('\n') == std::string::npos) {
        out += name;
        out += '=';
        out += value;
        out += '\n';
        return;
    }
    out += name;
    out += '\n';
    uint64_t size = value.size();
    for (int i = 0; i < 8; ++i) out += static_cast<char>((size >> (8 * i)) & 0xFF);
    out += value;
    out += '\n';
}

// Runs `argv` with standard output into a pipe and no input; what it printed
// (at most `limit` bytes), or nothing when it could not run, failed or took
// longer than journalctlSeconds (then it is killed).
std::optional<std::string> capture(const std::vector<std::string>& argv, std::size_t limit) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return std::nullopt;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    // The agent's threads block signals the child must not inherit blocked.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    sigset_t defaults;
    sigfillset(&defaults);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int spawned = ::posix_spawnp(&pid, args[0], &actions, &attributes, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(pipeFds[1]);
    if (spawned != 0) {
        ::close(pipeFds[0]);
        return std::nullopt;
    }
    std::string out;
    struct timespec start;
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    bool timedOut = false;
    for (;;) {
        struct timespec now;
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        const long elapsedMs = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
        const long leftMs = journalctlSeconds * 1000L - elapsedMs;
        if (leftMs <= 0) {
            timedOut = true;
            break;
        }
        struct pollfd p = {pipeFds[0], POLLIN, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(leftMs));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            timedOut = ready == 0;
            if (ready < 0) break;
            continue;
        }
        char buffer[4096];
        const ssize_t n = ::read(pipeFds[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (out.size() < limit) out.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(pipeFds[0]);
    if (timedOut) ::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (timedOut || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
    return out;
}

}  // namespace

// ---------------------------------------------------------------- journal

JournalSelSink::JournalSelSink(std::string socketPath, std::string journalctl)
    : socketPath_(std::move(socketPath)), journalctl_(std::move(journalctl)) {}

JournalSelSink::~JournalSelSink() {
    if (fd_ >= 0) ::close(fd_);
}

bool JournalSelSink::available(const std::string& socketPath) {
    struct stat info;
    return ::stat(socketPath.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

std::string JournalSelSink::serialize(const qelSel::LogEntry& entry) {
    std::string out;
    appendField(out, "MESSAGE", entry.message);
    appendField(out, "PRIORITY", std::to_string(entry.priority));
    appendField(out, "SYSLOG_IDENTIFIER", identifier);
    appendField(out, "MESSAGE_ID", entry.messageId);
    for (const auto& field : entry.fields) appendField(out, field.first, field.second);
    return out;
}

bool JournalSelSink::deliver(const qelSel::LogEntry& entry) {
    if (fd_ < 0) {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) return false;
    }
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (socketPath_.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, socketPath_.data(), socketPath_.size());
    const std::string datagram = serialize(entry);
    const ssize_t sent = ::sendto(fd_, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (sent == static_cast<ssize_t>(datagram.size())) return true;
    // Far beyond any record's size (a datagram may carry some 200 KiB);
    // rather than hold the log up behind it, the entry goes to syslog.
    if (sent < 0 && errno == EMSGSIZE) return qelSel::SyslogSelSink().deliver(entry);
    return false;
}

std::optional<qelSel::RawRecord> JournalSelSink::rawFromExport(const std::string& text) {
    // The export format: "KEY=value" lines, binary values as "KEY\n" + a
    // 64-bit length + bytes, entries separated by an empty line. The last
    // QEL_SEL_RAW wins.
    std::optional<qelSel::RawRecord> found;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        const std::size_t eq = line.find('=');
        if (eq == std::string::npos) {
            if (line.empty()) continue;
            // A binary field: skip its length and bytes.
            if (at + 8 > text.size()) break;
            uint64_t size = 0;
            for (int i = 7; i >= 0; --i) size = (size << 8) | static_cast<unsigned char>(text[at + i]);
            if (size > text.size() - at - 8) break;
            at += 8 + static_cast<std::size_t>(size) + 1;
            continue;
        }
        if (line.compare(0, eq, "QEL_SEL_RAW") != 0 || eq != 11) continue;
        qelSel::RawRecord raw{};
        if (fromHex(line.substr(eq + 1), raw)) found = raw;
    }
    return found;
}

std::optional<qelSel::RawRecord> JournalSelSink::lastDelivered() {
    if (journalctl_.empty()) return std::nullopt;
    // What a killed predecessor sent may still wait in the journal's queue.
    (void)capture({journalctl_, "--sync"}, 0);
    const std::optional<std::string> out =
        capture({journalctl_, "--no-pager", "--quiet", "--output=export", "--lines=1",
                 std::string("SYSLOG_IDENTIFIER=") + identifier,
                 std::string("MESSAGE_ID=") + qelSel::messageId::selEvent,
                 std::string("MESSAGE_ID=") + qelSel::messageId::previousBootPanicked},
                1 << 20);
    if (!out) return std::nullopt;
    return rawFromExport(*out);
}

// ---------------------------------------------------------------- file

FileSelSink::FileSelSink(std::string path) : path_(std::move(path)) {}

bool FileSelSink::deliver(const qelSel::LogEntry& entry) {
    std::string line = entry.messageId + ' ' + std::to_string(entry.priority) + ' ' +
                       (entry.record ? toHex(*entry.record) : std::string("-")) + ' ' + entry.message;
    for (char& c : line)
        if (c == '\n') c = ' ';
    line += '\n';
    const int fd = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const ssize_t written = ::write(fd, line.data(), line.size());
    ::close(fd);
    return written == static_cast<ssize_t>(line.size());
}

std::optional<qelSel::RawRecord> FileSelSink::lastDelivered() {
    std::ifstream in(path_);
    std::string line;
    std::optional<qelSel::RawRecord> found;
    while (std::getline(in, line)) {
        const std::size_t a = line.find(' ');
        const std::size_t b = a == std::string::npos ? a : line.find(' ', a + 1);
        const std::size_t c = b == std::string::npos ? b : line.find(' ', b + 1);
        if (c == std::string::npos) continue;
        qelSel::RawRecord raw{};
        if (fromHex(line.substr(b + 1, c - b - 1), raw)) found = raw;
    }
    return found;
}

std::unique_ptr<qelSel::SelSink> makeSelSink(const std::string& testFile) {
    if (!testFile.empty()) return std::unique_ptr<qelSel::SelSink>(new FileSelSink(testFile));
    if (JournalSelSink::available()) return std::unique_ptr<qelSel::SelSink>(new JournalSelSink());
    return std::unique_ptr<qelSel::SelSink>(new qelSel::SyslogSelSink());
}

}  // namespace qeld
