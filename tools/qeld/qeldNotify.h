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

}  // namespace qeld

#endif
