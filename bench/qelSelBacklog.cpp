// qel-sel-backlog: the two halves of bench/bench_sel_backlog.sh.
//
//   qel-sel-backlog forward --socket PATH --state FILE --records N [--sdr-cache DIR]
//     The event log forwarder as qeld runs it, against the simulated
//     controller process serving PATH (the socket qeld and qelctl use): a
//     fresh state, replay on so the whole log is forwarded, passes one after
//     the other until no backlog waits, sensors named from the SDR
//     repository through the cache in DIR as qeld does (the first record
//     that names a sensor loads it). The sink keeps nothing: what is
//     measured is the reading, decoding, naming and state keeping. Prints
//     "forwarded ENTRIES last-id ID passes P" (ID in decimal: the caller
//     checks it is the log's last record). Exits 1 when a log of N records
//     does not drain in ten times the passes it needs, or a pass fails.
//
//   qel-sel-backlog cpu --out FILE COMMAND [ARGS...]
//     Runs COMMAND and writes its CPU time to FILE as "USER_US SYS_US" (the
//     child's rusage from wait4, microseconds): every client of the
//     benchmark is measured the same way, as a whole process, and this
//     process's own time is not counted. Exits with the command's status.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "qelSdr.h"
#include "qelSelForwarder.h"
#include "qelSimSocket.h"

namespace {

int usage() {
    std::fputs("usage: qel-sel-backlog forward --socket PATH --state FILE --records N [--sdr-cache DIR]\n"
               "       qel-sel-backlog cpu --out FILE COMMAND [ARGS...]\n",
               stderr);
    return 64;
}

// Takes every entry and keeps only a count and a sum over its bytes, so the
// entries are built in full but go nowhere.
class DiscardingSink : public qelSel::SelSink {
public:
    bool deliver(const qelSel::LogEntry& entry) override {
        ++entries;
        bytes += entry.message.size();
        for (const auto& field : entry.fields) bytes += field.second.size();
        return true;
    }
    unsigned long entries = 0;
    unsigned long bytes = 0;
};

int forward(const std::string& socket, const std::string& state, unsigned long records,
            const std::string& sdrCache) {
    // A fresh state: nothing forwarded before.
    ::unlink(state.c_str());
    ::unlink((state + ".pass").c_str());
    qelSim::ScopedSocketDevice device(socket);
    DiscardingSink sink;
    qelSel::ForwarderOptions options;
    options.statePath = state;
    options.replay = true;
    std::vector<qelSdr::SensorName> names;
    bool namesLoaded = false;
    if (!sdrCache.empty())
        options.sensorName = [&](uint8_t owner, uint8_t lun, uint8_t number) {
            if (!namesLoaded) {
                namesLoaded = true;
                qelSdr::QelSdrRepository repository(sdrCache);
                repository.load();
                names = repository.sensorNames();
            }
            const qelSdr::SensorName* found = qelSdr::findSensor(names, owner, lun, number);
            return found == nullptr ? std::string() : found->name;
        };
    qelSel::QelSelForwarder forwarder(sink, options);
    // Records become fewer entries where a kernel panic's pieces join its
    // critical stop, so the end is the backlog gone, not a count reached.
    const unsigned long maxPasses = 10 * (records / options.maxRecordsPerPass + 2);
    unsigned long passes = 0;
    qelSel::ForwarderStats stats;
    do {
        forwarder.pass();
        ++passes;
        stats = forwarder.stats();
    } while (stats.backlog && passes < maxPasses);
    std::printf("forwarded %lu last-id %u passes %lu\n", stats.forwarded, stats.haveLast ? stats.lastRecordId : 0U,
                passes);
    if (stats.backlog) {
        std::fprintf(stderr, "qel-sel-backlog: a backlog still waits after %lu passes (%lu entries forwarded)\n",
                     passes, stats.forwarded);
        return 1;
    }
    return 0;
}

int cpu(const std::string& out, char** command) {
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("qel-sel-backlog: fork");
        return 1;
    }
    if (child == 0) {
        ::execvp(command[0], command);
        std::fprintf(stderr, "qel-sel-backlog: %s: %s\n", command[0], std::strerror(errno));
        ::_exit(127);
    }
    int status = 0;
    struct rusage usage {};
    pid_t waited;
    do waited = ::wait4(child, &status, 0, &usage);
    while (waited < 0 && errno == EINTR);
    if (waited < 0) {
        std::perror("qel-sel-backlog: wait4");
        return 1;
    }
    FILE* file = std::fopen(out.c_str(), "w");
    if (file == nullptr) {
        std::fprintf(stderr, "qel-sel-backlog: %s: %s\n", out.c_str(), std::strerror(errno));
        return 1;
    }
    std::fprintf(file, "%ld %ld\n", usage.ru_utime.tv_sec * 1000000L + usage.ru_utime.tv_usec,
                 usage.ru_stime.tv_sec * 1000000L + usage.ru_stime.tv_usec);
    if (std::fclose(file) != 0) return 1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    std::fprintf(stderr, "qel-sel-backlog: %s ended by signal %d\n", command[0], WTERMSIG(status));
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    const std::string mode = argv[1];
    try {
        if (mode == "forward") {
            std::string socket, state, sdrCache;
            unsigned long records = 0;
            for (int i = 2; i + 1 < argc; i += 2) {
                const std::string option = argv[i];
                if (option == "--socket") socket = argv[i + 1];
                else if (option == "--state") state = argv[i + 1];
                else if (option == "--records") records = std::strtoul(argv[i + 1], nullptr, 10);
                else if (option == "--sdr-cache") sdrCache = argv[i + 1];
                else return usage();
            }
            if (argc % 2 != 0 || socket.empty() || state.empty() || records == 0) return usage();
            return forward(socket, state, records, sdrCache);
        }
        if (mode == "cpu") {
            if (argc < 5 || std::string(argv[2]) != "--out") return usage();
            return cpu(argv[3], argv + 4);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qel-sel-backlog: %s\n", e.what());
        return 1;
    }
    return usage();
}
