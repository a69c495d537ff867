#include "qeldSel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <string>

#include "qelPlatform.h"
#include "qelSdr.h"
#include "qeldJournal.h"

namespace qeld {

namespace {

// The names change when the controller's firmware does; an hour bounds how
// long a renamed sensor keeps its old name, at one request an hour while
// records come in, and none at rest.
constexpr long namesRefreshSeconds = 3600;

void makeDirectories(const std::string& path) {
    for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1))
        ::mkdir(path.substr(0, at).c_str(), 0755);
}

// The first directory of a $..._DIRECTORY list (systemd separates several
// with ':'), or `fallback`.
std::string directoryFrom(const char* variable, const std::string& fallback) {
    const char* value = std::getenv(variable);
    if (value == nullptr || value[0] != '/') return fallback;
    std::string first(value);
    first = first.substr(0, first.find(':'));
    while (first.size() > 1 && first.back() == '/') first.pop_back();
    return first;
}

}  // namespace

SelForwardingOptions SelForwardingOptions::fromEnvironment() {
    SelForwardingOptions o;
    o.statePath = directoryFrom("STATE_DIRECTORY", "/var/lib/qeld") + "/sel-state";
    o.sdrCacheDirectory = directoryFrom("CACHE_DIRECTORY", "/var/cache/qeld") + "/sdr";
    o.statusPath = directoryFrom("RUNTIME_DIRECTORY", "/run/qeld") + "/sel-status";
    return o;
}

SelForwarding::SelForwarding(SelForwardingOptions options) : options_(std::move(options)) {
    sink_ = makeSelSink(options_.testLogFile);
    qelSel::ForwarderOptions f;
    f.replay = options_.replay;
    f.statePath = options_.statePath;
    f.sensorName = [this](uint8_t owner, uint8_t lun, uint8_t number) { return sensorName(owner, lun, number); };
    // The state directory is the unit's StateDirectory=; outside the unit
    // (a sandbox root, a manual start) it is made here.
    makeDirectories(qelPlatform::platform().path(f.statePath));
    forwarder_.reset(new qelSel::QelSelForwarder(*sink_, f));
}

SelForwarding::~SelForwarding() = default;

std::string SelForwarding::sensorName(uint8_t owner, uint8_t lun, uint8_t number) {
    const long now = static_cast<long>(qelPlatform::platform().time());
    if (namesReadAt_ == 0 || now - namesReadAt_ >= namesRefreshSeconds || now < namesReadAt_) {
        namesReadAt_ = now == 0 ? 1 : now;
        try {
            const std::string& cache = options_.sdrCacheDirectory;
            makeDirectories(qelPlatform::platform().path(cache) + "/");
            qelSdr::QelSdrRepository repository(cache);
            repository.load();
            names_ = repository.sensorNames();
            namesFailedLogged_ = false;
        } catch (const std::exception& e) {
            // Records go on without names; said once until it works again.
            if (!namesFailedLogged_)
                qelPlatform::platform().syslog(
                    LOG_WARNING,
                    (std::string("the controller's sensor names are not known (SDR repository: ") + e.what() +
                     "); event log records are forwarded without them")
                        .c_str());
            namesFailedLogged_ = true;
        }
    }
    const qelSdr::SensorName* found = qelSdr::findSensor(names_, owner, lun, number);
    return found == nullptr ? std::string() : found->name;
}

void SelForwarding::pass() {
    forwarder_->pass();
    writeStatus();
}

// For `qelctl metrics`: a few lines in /run, rewritten (no fsync: they only
// matter while the system runs) when the forwarder looked at the log again.
void SelForwarding::writeStatus() {
    const qelSel::ForwarderStats s = forwarder_->stats();
    if (s.lastCheck == lastCheckWritten_) return;
    lastCheckWritten_ = s.lastCheck;
    const std::string path = qelPlatform::platform().path(options_.statusPath);
    makeDirectories(path);
    const std::string temporary = path + ".tmp";
    std::FILE* out = std::fopen(temporary.c_str(), "w");
    if (out == nullptr) return;
    std::fprintf(out,
                 "checked %lld\nforwarded %lu\nlast-id %s\nbacklog %d\nentries %u\nfree-bytes %u\n"
                 "percent-used %u\n",
                 static_cast<long long>(std::time(nullptr)), s.forwarded,
                 s.haveLast ? std::to_string(s.lastRecordId).c_str() : "-", s.backlog ? 1 : 0, s.entries,
                 s.freeBytes, s.percentUsed);
    const bool ok = std::fclose(out) == 0;
    if (ok)
        std::rename(temporary.c_str(), path.c_str());
    else
        std::remove(temporary.c_str());
}

}  // namespace qeld
