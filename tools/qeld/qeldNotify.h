// Tells the service manager how the agent is doing, in systemd's notification
// protocol: one datagram of "KEY=value" lines to the AF_UNIX socket named by
// $NOTIFY_SOCKET (a path, or an abstract name written with a leading '@').
//
// The protocol is a few lines of socket code, so qeld speaks it itself rather
// than linking libsystemd: the daemon stays small and builds anywhere. Where
// no service manager listens ($NOTIFY_SOCKET unset) every call does nothing.
#ifndef QELD_NOTIFY_H
#define QELD_NOTIFY_H

#include <string>

#include "qelHostAgent.h"

namespace qeld {

class ServiceNotifier {
public:
    // Disabled.
    ServiceNotifier() = default;
    // Sends to `socketName` ("/run/..." or "@abstract"); empty: disabled.
    explicit ServiceNotifier(std::string socketName);

    // From $NOTIFY_SOCKET, which is then removed from the environment so that
    // the programs qeld starts (a simulated controller, systemctl) do not
    // speak for the service.
    static ServiceNotifier fromEnvironment();

    bool enabled() const { return !socketName_.empty(); }
    const std::string& socketName() const { return socketName_; }

    // Sends `state` ("READY=1\nSTATUS=..."). True when the datagram went out;
    // false when disabled or the socket refused it (the agent goes on either
    // way: a service manager that stopped listening is no reason to stop
    // keeping the watchdog).
    bool notify(const std::string& state) const;

    // A STATUS= value on one line: line breaks become spaces.
    static std::string statusLine(const std::string& text);

private:
    std::string socketName_;
};

// The one-line STATUS= of the host agent: who keeps the watchdog and, when
// qeld does, its time-out and the seconds since the controller last
// accepted a reset (-1: not yet); how many of the controller's NICs got
// addresses; the steps that fail. "watchdog 300 s, reset 12 s ago; 3 NICs
// published".
std::string agentStatusLine(const QelHostAgent::Status& status, long long secondsSinceReset);
// The same for QelServerInfo's own loop (--strict), which tells less.
std::string libraryLoopStatusLine(long long secondsSinceReset, unsigned long passes);

}  // namespace qeld

#endif
