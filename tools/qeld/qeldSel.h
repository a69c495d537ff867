// The controller's event log forwarded by qeld: the forwarder, the sink it
// hands records to (the journal, syslog, or a test's file) and the sensors'
// names from the controller's SDR repository, run as one step of the host
// agent's pass.
#ifndef QELD_SEL_H
#define QELD_SEL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qelSdrRecord.h"
#include "qelSelForwarder.h"

namespace qeld {

// The directories follow systemd's $STATE_DIRECTORY, $CACHE_DIRECTORY and
// $RUNTIME_DIRECTORY (the unit's StateDirectory=qeld and so on) when they
// are set, so a test or a second instance can be given its own; the
// defaults are the unit's. All of them under the platform's root.
struct SelForwardingOptions {
    bool replay = false;          // --sel-replay
    std::string testLogFile;      // --test-sel-log: a file instead of the journal
    // Where the forwarding stands: the last record forwarded.
    std::string statePath = "/var/lib/qeld/sel-state";
    // The SDR repository's copy, for the sensors' names.
    std::string sdrCacheDirectory = "/var/cache/qeld/sdr";
    // The forwarder's figures for `qelctl metrics`, rewritten after every
    // check of the log.
    std::string statusPath = "/run/qeld/sel-status";

    // The defaults, with the service manager's directories where given.
    static SelForwardingOptions fromEnvironment();
};

class SelForwarding {
public:
    explicit SelForwarding(SelForwardingOptions options);
    ~SelForwarding();

    // One step of the agent's pass; throws what the controller threw (the
    // agent logs it once and goes on).
    void pass();

    // The sensor's name for an event, from the SDR repository (read on the
    // first need, from the on-disk cache when it still holds, and checked
    // again at most once an hour); empty when unknown or the repository
    // cannot be read: a missing name never holds a record up.
    std::string sensorName(uint8_t owner, uint8_t lun, uint8_t number);

    SelForwarding(const SelForwarding&) = delete;
    SelForwarding& operator=(const SelForwarding&) = delete;

private:
    void writeStatus();

    SelForwardingOptions options_;
    std::unique_ptr<qelSel::SelSink> sink_;
    std::unique_ptr<qelSel::QelSelForwarder> forwarder_;
    std::vector<qelSdr::SensorName> names_;
    long namesReadAt_ = 0;  // platform time of the last attempt; 0: never
    bool namesFailedLogged_ = false;
    long lastCheckWritten_ = -1;
};

}  // namespace qeld

#endif
