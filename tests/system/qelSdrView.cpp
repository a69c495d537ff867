// qel-sdr-view: the library's view of a controller process's SDR repository,
// for the process-level test that compares it with ipmitool and FreeIPMI.
//
//   qel-sdr-view --socket PATH [--cache DIR [--device-id HEX...]]
//
// --device-id gives the controller's Get Device ID answer (completion code
// first, the bytes as one word, e.g. "00 20 81 ..." quoted), as qeld holds it
// already, so the reader does not ask for it.
//
// Prints, one item a line (names escaped, so a line is always one line):
//   info VERSION RECORDS LAST-ADDITION LAST-ERASE
//   record ID TYPE HEX-BYTES                       (ID decimal, TYPE hex)
//   sensor ID NUMBER SHARED<TAB>ID-STRING<TAB>NAME (NUMBER hex, SHARED 0/1)
//   load cache|controller REQUESTS READ-SIZE
//   note TEXT
// Exit status 0, 1 when the load failed (the error on standard error), 2 for
// bad usage.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "qelErrorText.h"
#include "qelSdr.h"
#include "qelSimSocket.h"

namespace {

std::string hex(const qelSdr::Bytes& bytes) {
    std::string out;
    char two[4];
    for (uint8_t b : bytes) {
        std::snprintf(two, sizeof two, "%02x", b);
        if (!out.empty()) out += ' ';
        out += two;
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    std::string socketPath;
    std::string cache;
    qelSdr::Bytes deviceId;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--socket" && i + 1 < argc) {
            socketPath = argv[++i];
        } else if (a == "--cache" && i + 1 < argc) {
            cache = argv[++i];
        } else if (a == "--device-id" && i + 1 < argc) {
            const std::string words = argv[++i];
            for (std::size_t at = 0; at < words.size();) {
                if (words[at] == ' ') {
                    ++at;
                    continue;
                }
                deviceId.push_back(static_cast<uint8_t>(std::strtoul(words.substr(at, 2).c_str(), nullptr, 16)));
                at += 2;
            }
        } else {
            std::fprintf(stderr, "usage: qel-sdr-view --socket PATH [--cache DIR [--device-id HEX...]]\n");
            return 2;
        }
    }
    if (socketPath.empty()) {
        std::fprintf(stderr, "usage: qel-sdr-view --socket PATH [--cache DIR [--device-id HEX...]]\n");
        return 2;
    }
    qelSim::ScopedSocketDevice device(socketPath);
    qelSdr::QelSdrRepository repo(cache);
    if (!deviceId.empty()) repo.setControllerIdentity(qelSdr::QelSdrRepository::identityFromDeviceId(deviceId));
    try {
        repo.load();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qel-sdr-view: %s\n", qelError::textOf(e).c_str());
        for (const std::string& n : repo.notes()) std::fprintf(stderr, "note %s\n", qelSdr::escapeText(n).c_str());
        return 1;
    }
    const qelSdr::RepositoryInfo& info = repo.info();
    std::printf("info %02x %u %u %u\n", info.version, info.recordCount, info.lastAddition, info.lastErase);
    for (const qelSdr::SdrRecord& r : repo.records())
        std::printf("record %u %02x %s\n", r.recordId, r.type, hex(r.bytes).c_str());
    std::vector<std::string> problems;
    for (const qelSdr::SdrRecord& r : repo.records()) {
        if (!r.isSensor()) continue;
        try {
            const qelSdr::SensorRecord s = qelSdr::SensorRecord::fromRecord(r);
            const bool shared = s.recordType != qelSdr::recordType::fullSensor && s.shareCount > 1;
            for (const qelSdr::SensorName& n : s.names())
                std::printf("sensor %u %02x %d\t%s\t%s\n", n.recordId, n.sensorNumber, shared ? 1 : 0,
                            s.id.escaped().c_str(), n.escaped().c_str());
        } catch (const qelSdr::QelSdrError& e) {
            std::printf("note %s\n", qelSdr::escapeText(e.errorText).c_str());
        }
    }
    std::printf("load %s %u %u\n", repo.loadedFromCache() ? "cache" : "controller", repo.requestsSent(),
                repo.readSize());
    for (const std::string& n : repo.notes()) std::printf("note %s\n", qelSdr::escapeText(n).c_str());
    return std::fflush(stdout) == 0 ? 0 : 1;
}
