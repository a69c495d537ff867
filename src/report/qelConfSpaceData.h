// The controller's configuration space: numbered variables that describe the
// server (location, names, BIOS version, serial number, operating system,
// addresses), the agent's watchdog settings and the agent connection status.
//
// QelConfSpaceData mirrors them in plain public members. `update` reads them
// all from the controller, the setters and `set` write one variable back,
// `updateWatchdogParameter` re-reads the six watchdog variables and
// `changeAgentConnectionStatus` reports the agent's state to the controller.
//
// Promises:
// - Nothing here throws: transport failures (QelIpmiError) are swallowed and
//   turn into a false result, "- unknown -" texts or 0.0.0.0 addresses.
// - A setter that fails leaves its own field as it was; the one deliberate
//   side effect is that an empty text writes "- unknown -" into `systemName`.
// - No reply is ever read past its end: a length byte that claims more bytes
//   than arrived makes the read a failed one.
// - No locking: the agent uses the object from one thread.
#ifndef QEL_CONF_SPACE_DATA_H
#define QEL_CONF_SPACE_DATA_H

#include <cstdint>
#include <string>

#include "qelAddress.h"
#include "qelError.h"
#include "qelExport.h"

// An unreadable watchdog variable; the reading operation catches it itself.
QEL_DECLARE_ERROR(QelConfSpaceDataError);

class QEL_EXPORT QelConfSpaceData {
public:
    // The variable numbers of the configuration space that the agent uses.
    // `set` refuses every number not listed here (0x209 and 0x20E among them)
    // and also 0x2300, which the agent only reads.
    enum ValueIds : std::uint32_t {
        BootWatchdogEnabled = 0x40,     // 1 byte, 1 = enabled
        BootWatchdogTime = 0x41,        // 2 bytes, seconds, little-endian
        SoftWatchdogEnabled = 0x42,     // 1 byte, 1 = enabled
        SoftWatchdogTime = 0x43,        // 2 bytes, seconds, little-endian
        BootWatchdogBehaviour = 0x74,   // 1 byte, a WatchdogBehaviour
        SoftWatchdogBehaviour = 0x75,   // 1 byte, a WatchdogBehaviour
        CabinetLocation = 0x200,        // texts: without a terminating NUL
        SystemName = 0x201,
        BiosVersion = 0x202,
        SystemDescription = 0x203,
        SystemContact = 0x204,
        ServerCabinetModel = 0x205,
        ServerChassisModel = 0x206,
        ServerSerialNumber = 0x207,
        ServerVendorName = 0x208,
        IpAddr_1 = 0x20A,               // addresses: 4 bytes, network order
        IpAddr_2 = 0x20B,
        IpAddr_3 = 0x20C,
        IpAddr_4 = 0x20D,
        ServerOperatingSystem = 0x20F,
        AgentConnectionStatusId = 0x2300,  // 1 byte; read by `update`, never written by `set`
    };

    // What the controller does when a watchdog expires. The controller may
    // report 0, 2 or 4; anything else is ignored when read. The agent itself
    // only ever writes ContinueOnTimeout back: it runs the timer with "no
    // action" and leaves the reaction to the controller's own policy.
    enum WatchdogBehaviour : std::uint32_t {
        ContinueOnTimeout = 0,
        ResetOnTimeout = 2,
        PowerCycleOnTimeout = 4,
    };

    // The agent's state as the controller keeps it. The agent sends
    // AgentDisconnected when its loop ends; 0 is what a controller reports
    // before any agent has registered.
    enum AgentConnectionStatus : std::uint32_t {
        AgentStatusUnknown = 0,
        AgentConnected = 1,
        AgentDisconnected = 2,
    };

    // Sets the initial values below, then update(readConnectionStatus).
    explicit QelConfSpaceData(bool readConnectionStatus);
    virtual ~QelConfSpaceData();

    // Reads every variable: 0x200 first (if it cannot be read the whole space
    // is marked unavailable and nothing else is read), then the other texts,
    // the four addresses and, only when asked, 0x2300. Never throws.
    void update(bool readConnectionStatus);

    // Sends the in-memory value of `id`. True when the controller answered
    // with completion code 0; false for an id it does not write (nothing is
    // sent then), a refused request or a transport failure.
    [[nodiscard]] bool set(ValueIds id);

    // Text setters: a text longer than 255 characters is refused without a
    // request. An empty text writes "- unknown -" into `systemName` (not into
    // the setter's own field, which keeps its old value and is sent as it
    // is). On failure the setter's own field gets its old value back.
    // setServerSerialNumber stores the serial number but sends
    // `serverVendorName` under 0x207. Both asymmetries are intended and kept:
    // what the controller holds today was written this way, so do not "fix"
    // one side alone.
    bool setCabinetLocation(const std::string& text);
    bool setSystemName(const std::string& text);
    bool setBiosVersion(const std::string& text);
    bool setSystemDescription(const std::string& text);
    bool setSystemContact(const std::string& text);
    bool setServerCabinetModel(const std::string& text);
    bool setServerChassisModel(const std::string& text);
    bool setServerSerialNumber(const std::string& text);
    bool setServerOperatingSystem(const std::string& text);
    bool setServerVendorName(const std::string& text);

    // Store, send (even when unchanged), restore the old value on failure.
    bool setIpAddr_1(const IPv4Address& address);
    bool setIpAddr_2(const IPv4Address& address);
    bool setIpAddr_3(const IPv4Address& address);
    bool setIpAddr_4(const IPv4Address& address);
    bool setSoftWatchdogEnabled(bool enabled);
    bool setBootWatchdogEnabled(bool enabled);
    bool setSoftWatchdogTime(const unsigned short& seconds);
    bool setBootWatchdogTime(const unsigned short& seconds);
    bool setSoftWatchdogBehaviour(const WatchdogBehaviour& behaviour);
    bool setBootWatchdogBehaviour(const WatchdogBehaviour& behaviour);

    // Reads 0x40, 0x42, 0x41, 0x43, 0x74, 0x75 in this order. The first
    // unreadable variable ends the walk silently; what was read before it is
    // kept. Never throws.
    void updateWatchdogParameter();

    // Queries the controller's view first and sends `status` (1 or 2) only
    // while the controller reports the agent as connected. Returns true when
    // nothing had to be sent, otherwise whether the set request succeeded;
    // false for a status other than 1 or 2 (nothing is sent) and on a
    // transport failure.
    bool changeAgentConnectionStatus(AgentConnectionStatus status);

    // The error updateWatchdogParameter raises (and catches) for an
    // unreadable watchdog variable: "Cannot read ConfigSpaceVariable: " from
    // file "qelConfSpaceData" with the variable's fixed line number (923,
    // 936, 951, 966, 994, 1022 for 0x40, 0x42, 0x41, 0x43, 0x74, 0x75). Any
    // other id gives line 0.
    static QelConfSpaceDataError watchdogReadError(ValueIds id);

    bool configSpaceAvailable;
    std::string cabinetLocation;        // 0x200
    std::string systemName;             // 0x201
    std::string biosVersion;            // 0x202
    std::string systemDescription;      // 0x203
    std::string systemContact;          // 0x204
    std::string serverCabinetModel;     // 0x205
    std::string serverChassisModel;     // 0x206
    std::string serverSerialNumber;     // 0x207
    std::string serverOperatingSystem;  // 0x20F
    std::string serverVendorName;       // 0x208
    IPv4Address ipAddr_1;               // 0x20A
    IPv4Address ipAddr_2;               // 0x20B
    IPv4Address ipAddr_3;               // 0x20C
    IPv4Address ipAddr_4;               // 0x20D
    bool softWatchdogEnabled;           // 0x42
    bool bootWatchdogEnabled;           // 0x40
    std::uint16_t softWatchdogTime;     // 0x43, seconds
    std::uint16_t bootWatchdogTime;     // 0x41, seconds
    WatchdogBehaviour softWatchdogBehaviour;  // 0x75
    WatchdogBehaviour bootWatchdogBehaviour;  // 0x74
    AgentConnectionStatus agentConnectionStatus;  // 0x2300
    bool agentConnected;                // the controller's last answer to the query

private:
    bool setText(std::string QelConfSpaceData::*field, ValueIds id, const std::string& text);
};

#endif
