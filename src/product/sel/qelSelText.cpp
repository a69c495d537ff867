#include "qelSelText.h"

#include <cstring>
#include <ctime>
#include <functional>
#include <initializer_list>

namespace qelSel {

namespace {

constexpr Severity I = Severity::Info;
constexpr Severity W = Severity::Warning;
constexpr Severity C = Severity::Critical;

template <std::size_t N>
constexpr StateTable tableOf(const StateEntry (&entries)[N]) {
    return StateTable{entries, N};
}

// ------------------------------------------------------------ generic types

// 0x01: the reading crossed a threshold. See Severity for why the direction
// decides the rating.
constexpr StateEntry kThreshold[] = {
    {0x00, "Lower Non-critical going low", W, I},
    {0x01, "Lower Non-critical going high", I, W},
    {0x02, "Lower Critical going low", C, I},
    {0x03, "Lower Critical going high", I, C},
    {0x04, "Lower Non-recoverable going low", C, I},
    {0x05, "Lower Non-recoverable going high", I, C},
    {0x06, "Upper Non-critical going low", I, W},
    {0x07, "Upper Non-critical going high", W, I},
    {0x08, "Upper Critical going low", I, C},
    {0x09, "Upper Critical going high", C, I},
    {0x0A, "Upper Non-recoverable going low", I, C},
    {0x0B, "Upper Non-recoverable going high", C, I},
};

constexpr StateEntry kUsage[] = {
    {0x00, "Transition to Idle", I, I},
    {0x01, "Transition to Active", I, I},
    {0x02, "Transition to Busy", I, I},
};

constexpr StateEntry kDigitalState[] = {
    {0x00, "State Deasserted", I, I},
    {0x01, "State Asserted", I, I},
};

constexpr StateEntry kPredictiveFailure[] = {
    {0x00, "Predictive Failure deasserted", I, I},
    {0x01, "Predictive Failure asserted", W, I},
};

constexpr StateEntry kLimit[] = {
    {0x00, "Limit Not Exceeded", I, I},
    {0x01, "Limit Exceeded", W, I},
};

constexpr StateEntry kPerformance[] = {
    {0x00, "Performance Met", I, I},
    {0x01, "Performance Lags", W, I},
};

// Also the severity of event data 2 when event data 1 says it holds the
// previous state and severity.
constexpr StateEntry kSeverity[] = {
    {0x00, "transition to OK", I, I},
    {0x01, "transition to Non-Critical from OK", W, I},
    {0x02, "transition to Critical from less severe", C, I},
    {0x03, "transition to Non-recoverable from less severe", C, I},
    {0x04, "transition to Non-Critical from more severe", W, I},
    {0x05, "transition to Critical from Non-recoverable", C, I},
    {0x06, "transition to Non-recoverable", C, I},
    {0x07, "Monitor", I, I},
    {0x08, "Informational", I, I},
};

constexpr StateEntry kPresence[] = {
    {0x00, "Device Removed / Device Absent", I, I},
    {0x01, "Device Inserted / Device Present", I, I},
};

constexpr StateEntry kEnabled[] = {
    {0x00, "Device Disabled", I, I},
    {0x01, "Device Enabled", I, I},
};

constexpr StateEntry kAvailability[] = {
    {0x00, "transition to Running", I, I},
    {0x01, "transition to In Test", I, I},
    {0x02, "transition to Power Off", I, I},
    {0x03, "transition to On Line", I, I},
    {0x04, "transition to Off Line", W, I},
    {0x05, "transition to Off Duty", I, I},
    {0x06, "transition to Degraded", W, I},
    {0x07, "transition to Power Save", I, I},
    {0x08, "Install Error", W, I},
};

// Losing redundancy while the resources still suffice is a warning; running
// without enough resources is critical.
constexpr StateEntry kRedundancy[] = {
    {0x00, "Fully Redundant", I, I},
    {0x01, "Redundancy Lost", C, I},
    {0x02, "Redundancy Degraded", W, I},
    {0x03, "Non-redundant: Sufficient Resources from Redundant", W, I},
    {0x04, "Non-redundant: Sufficient Resources from Insufficient Resources", W, I},
    {0x05, "Non-redundant: Insufficient Resources", C, I},
    {0x06, "Redundancy Degraded from Fully Redundant", W, I},
    {0x07, "Redundancy Degraded from Non-redundant", W, I},
};

constexpr StateEntry kDevicePower[] = {
    {0x00, "D0 Power State", I, I},
    {0x01, "D1 Power State", I, I},
    {0x02, "D2 Power State", I, I},
    {0x03, "D3 Power State", I, I},
};

// ------------------------------------------------------ sensor-specific states

constexpr StateEntry kPhysicalSecurity[] = {
    {0x00, "General Chassis Intrusion", W, I},
    {0x01, "Drive Bay intrusion", W, I},
    {0x02, "I/O Card area intrusion", W, I},
    {0x03, "Processor area intrusion", W, I},
    {0x04, "LAN Leash Lost (system is unplugged from LAN)", W, I},
    {0x05, "Unauthorized dock", W, I},
    {0x06, "FAN area intrusion", W, I},
};

constexpr StateEntry kPlatformSecurity[] = {
    {0x00, "Secure Mode (Front Panel Lockout) Violation attempt", W, I},
    {0x01, "Pre-boot Password Violation - user password", W, I},
    {0x02, "Pre-boot Password Violation attempt - setup password", W, I},
    {0x03, "Pre-boot Password Violation - network boot password", W, I},
    {0x04, "Other pre-boot Password Violation", W, I},
    {0x05, "Out-of-band Access Password Violation", W, I},
};

constexpr StateEntry kProcessor[] = {
    {0x00, "IERR", C, I},
    {0x01, "Thermal Trip", C, I},
    {0x02, "FRB1/BIST failure", C, I},
    {0x03, "FRB2/Hang in POST failure", C, I},
    {0x04, "FRB3/Processor Startup/Initialization failure (CPU didn't start)", C, I},
    {0x05, "Configuration Error", C, I},
    {0x06, "SM BIOS 'Uncorrectable CPU-complex Error'", C, I},
    {0x07, "Processor Presence detected", I, I},
    {0x08, "Processor disabled", W, I},
    {0x09, "Terminator Presence Detected", I, I},
    {0x0A, "Processor Automatically Throttled", W, I},
    {0x0B, "Machine Check Exception (Uncorrectable)", C, I},
    {0x0C, "Correctable Machine Check Error", W, I},
};

// A power supply that is no longer present (presence deasserted) leaves the
// system with less power than it was built with.
constexpr StateEntry kPowerSupply[] = {
    {0x00, "Presence detected", I, W},
    {0x01, "Power Supply Failure detected", C, I},
    {0x02, "Predictive Failure", W, I},
    {0x03, "Power Supply input lost (AC/DC)", C, I},
    {0x04, "Power Supply input lost or out-of-range", C, I},
    {0x05, "Power Supply input out-of-range, but present", W, I},
    {0x06, "Configuration error", W, I},
    {0x07, "Power Supply Inactive (in standby state)", I, I},
};

constexpr StateEntry kPowerUnit[] = {
    {0x00, "Power Off / Power Down", I, I},
    {0x01, "Power Cycle", I, I},
    {0x02, "240VA Power Down", C, I},
    {0x03, "Interlock Power Down", W, I},
    {0x04, "AC lost / Power input lost", C, I},
    {0x05, "Soft Power Control Failure", C, I},
    {0x06, "Power Unit Failure detected", C, I},
    {0x07, "Predictive Failure", W, I},
};

constexpr StateEntry kMemory[] = {
    {0x00, "Correctable ECC / other correctable memory error", W, I},
    {0x01, "Uncorrectable ECC / other uncorrectable memory error", C, I},
    {0x02, "Parity", C, I},
    {0x03, "Memory Scrub Failed (stuck bit)", C, I},
    {0x04, "Memory Device Disabled", W, I},
    {0x05, "Correctable ECC / other correctable memory error logging limit reached", W, I},
    {0x06, "Presence detected", I, I},
    {0x07, "Configuration error", W, I},
    {0x08, "Spare", I, I},
    {0x09, "Memory Automatically Throttled", W, I},
    {0x0A, "Critical Overtemperature", C, I},
};

// A drive that is no longer present may be the one an array needs.
constexpr StateEntry kDriveSlot[] = {
    {0x00, "Drive Presence", I, W},
    {0x01, "Drive Fault", C, I},
    {0x02, "Predictive Failure", W, I},
    {0x03, "Hot Spare", I, I},
    {0x04, "Consistency Check / Parity Check in progress", I, I},
    {0x05, "In Critical Array", C, I},
    {0x06, "In Failed Array", C, I},
    {0x07, "Rebuild/Remap in progress", W, I},
    {0x08, "Rebuild/Remap Aborted (was not completed normally)", W, I},
};

// The error codes of offset 0x00 are almost all unrecoverable.
constexpr StateEntry kFirmwareProgress[] = {
    {0x00, "System Firmware Error (POST Error)", C, I},
    {0x01, "System Firmware Hang", C, I},
    {0x02, "System Firmware Progress", I, I},
};

constexpr StateEntry kEventLogging[] = {
    {0x00, "Correctable Memory Error Logging Disabled", W, I},
    {0x01, "Event 'Type' Logging Disabled", W, I},
    {0x02, "Log Area Reset/Cleared", I, I},
    {0x03, "All Event Logging Disabled", W, I},
    {0x04, "SEL Full", W, I},
    {0x05, "SEL Almost Full", W, I},
    {0x06, "Correctable Machine Check Error Logging Disabled", W, I},
};

// An expiry that only reports (status only, pre-timeout) has not acted yet.
constexpr StateEntry kWatchdog1[] = {
    {0x00, "BIOS Watchdog Reset", C, I},
    {0x01, "OS Watchdog Reset", C, I},
    {0x02, "OS Watchdog Shut Down", C, I},
    {0x03, "OS Watchdog Power Down", C, I},
    {0x04, "OS Watchdog Power Cycle", C, I},
    {0x05, "OS Watchdog NMI / Diagnostic Interrupt", C, I},
    {0x06, "OS Watchdog Expired, status only", W, I},
    {0x07, "OS Watchdog pre-timeout Interrupt, non-NMI", W, I},
};

constexpr StateEntry kSystemEvent[] = {
    {0x00, "System Reconfigured", I, I},
    {0x01, "OEM System Boot Event", I, I},
    {0x02, "Undetermined system hardware failure", C, I},
    {0x03, "Entry added to Auxiliary Log", I, I},
    {0x04, "PEF Action", I, I},
    {0x05, "Timestamp Clock Synch", I, I},
};

constexpr StateEntry kCriticalInterrupt[] = {
    {0x00, "Front Panel NMI / Diagnostic Interrupt", C, I},
    {0x01, "Bus Timeout", C, I},
    {0x02, "I/O channel check NMI", C, I},
    {0x03, "Software NMI", C, I},
    {0x04, "PCI PERR", C, I},
    {0x05, "PCI SERR", C, I},
    {0x06, "EISA Fail Safe Timeout", C, I},
    {0x07, "Bus Correctable Error", W, I},
    {0x08, "Bus Uncorrectable Error", C, I},
    {0x09, "Fatal NMI (port 61h, bit 7)", C, I},
    {0x0A, "Bus Fatal Error", C, I},
    {0x0B, "Bus Degraded (bus operating in a degraded performance state)", W, I},
};

constexpr StateEntry kButton[] = {
    {0x00, "Power Button pressed", I, I},
    {0x01, "Sleep Button pressed", I, I},
    {0x02, "Reset Button pressed", I, I},
    {0x03, "FRU latch open (Switch)", I, I},
    {0x04, "FRU service request button", I, I},
};

constexpr StateEntry kChipSet[] = {
    {0x00, "Soft Power Control Failure", C, I},
    {0x01, "Thermal Trip", C, I},
};

constexpr StateEntry kCable[] = {
    {0x00, "Cable/Interconnect is connected", I, I},
    {0x01, "Configuration Error - Incorrect cable connected / Incorrect interconnection", W, I},
};

constexpr StateEntry kSystemBoot[] = {
    {0x00, "Initiated by power up", I, I},
    {0x01, "Initiated by hard reset", I, I},
    {0x02, "Initiated by warm reset", I, I},
    {0x03, "User requested PXE boot", I, I},
    {0x04, "Automatic boot to diagnostic", I, I},
    {0x05, "OS / run-time software initiated hard reset", I, I},
    {0x06, "OS / run-time software initiated warm reset", I, I},
    {0x07, "System Restart", I, I},
};

// Nothing to boot from, or nothing bootable on it, is a system that does not
// come up; the others wait for, or fall back from, one source.
constexpr StateEntry kBootError[] = {
    {0x00, "No bootable media", C, I},
    {0x01, "Non-bootable diskette left in drive", W, I},
    {0x02, "PXE Server not found", W, I},
    {0x03, "Invalid boot sector", C, I},
    {0x04, "Timeout waiting for user selection of boot source", W, I},
};

// Every OS boot state is information, including an installation that failed:
// it reports what the installer did, not that the system is unhealthy.
constexpr StateEntry kOsBoot[] = {
    {0x00, "A: boot completed", I, I},
    {0x01, "C: boot completed", I, I},
    {0x02, "PXE boot completed", I, I},
    {0x03, "Diagnostic boot completed", I, I},
    {0x04, "CD-ROM boot completed", I, I},
    {0x05, "ROM boot completed", I, I},
    {0x06, "boot completed - boot device not specified", I, I},
    {0x07, "Base OS/Hypervisor Installation started", I, I},
    {0x08, "Base OS/Hypervisor Installation completed", I, I},
    {0x09, "Base OS/Hypervisor Installation aborted", I, I},
    {0x0A, "Base OS/Hypervisor Installation failed", I, I},
};

constexpr StateEntry kOsStop[] = {
    {0x00, "Critical stop during OS load / initialization", C, I},
    {0x01, "Run-time Critical Stop", C, I},
    {0x02, "OS Graceful Stop", I, I},
    {0x03, "OS Graceful Shutdown", I, I},
    {0x04, "Soft Shutdown initiated by PEF", I, I},
    {0x05, "Agent Not Responding", W, I},
};

constexpr StateEntry kSlot[] = {
    {0x00, "Fault Status asserted", W, I},
    {0x01, "Identify Status asserted", I, I},
    {0x02, "Slot / Connector Device installed/attached", I, I},
    {0x03, "Slot / Connector Ready for Device Installation", I, I},
    {0x04, "Slot/Connector Ready for Device Removal", I, I},
    {0x05, "Slot Power is Off", I, I},
    {0x06, "Slot / Connector Device Removal Request", I, I},
    {0x07, "Interlock asserted", I, I},
    {0x08, "Slot is Disabled", I, I},
    {0x09, "Slot holds spare device", I, I},
};

// 0x0D is not defined.
constexpr StateEntry kAcpiPower[] = {
    {0x00, "S0 / G0 \"working\"", I, I},
    {0x01, "S1 \"sleeping with system h/w & processor context maintained\"", I, I},
    {0x02, "S2 \"sleeping, processor context lost\"", I, I},
    {0x03, "S3 \"sleeping, processor & h/w context lost, memory retained.\"", I, I},
    {0x04, "S4 \"non-volatile sleep / suspend-to disk\"", I, I},
    {0x05, "S5 / G2 \"soft-off\"", I, I},
    {0x06, "S4 / S5 soft-off, particular S4 / S5 state cannot be determined", I, I},
    {0x07, "G3 / Mechanical Off", I, I},
    {0x08, "Sleeping in an S1, S2, or S3 states", I, I},
    {0x09, "G1 sleeping (S1-S4 state cannot be determined)", I, I},
    {0x0A, "S5 entered by override", I, I},
    {0x0B, "Legacy ON state", I, I},
    {0x0C, "Legacy OFF state", I, I},
    {0x0E, "Unknown", I, I},
};

// 0x04-0x07 are not defined.
constexpr StateEntry kWatchdog2[] = {
    {0x00, "Timer expired, status only (no action, no interrupt)", W, I},
    {0x01, "Hard Reset", C, I},
    {0x02, "Power Down", C, I},
    {0x03, "Power Cycle", C, I},
    {0x08, "Timer interrupt", W, I},
};

constexpr StateEntry kPlatformAlert[] = {
    {0x00, "platform generated page", I, I},
    {0x01, "platform generated LAN alert", I, I},
    {0x02, "Platform Event Trap generated", I, I},
    {0x03, "platform generated SNMP trap, OEM format", I, I},
};

constexpr StateEntry kEntityPresence[] = {
    {0x00, "Entity Present", I, I},
    {0x01, "Entity Absent", I, I},
    {0x02, "Entity Disabled", I, I},
};

constexpr StateEntry kLan[] = {
    {0x00, "LAN Heartbeat Lost", W, I},
    {0x01, "LAN Heartbeat", I, I},
};

constexpr StateEntry kManagementHealth[] = {
    {0x00, "sensor access degraded or unavailable", W, I},
    {0x01, "controller access degraded or unavailable", W, I},
    {0x02, "management controller off-line", W, I},
    {0x03, "management controller unavailable", C, I},
    {0x04, "Sensor failure", W, I},
    {0x05, "FRU failure", W, I},
};

// A battery that is no longer present takes the settings it keeps with it.
constexpr StateEntry kBattery[] = {
    {0x00, "battery low (predictive failure)", W, I},
    {0x01, "battery failed", C, I},
    {0x02, "battery presence detected", I, W},
};

constexpr StateEntry kSessionAudit[] = {
    {0x00, "Session Activated", I, I},
    {0x01, "Session Deactivated", I, I},
    {0x02, "Invalid Username or Password", W, I},
    {0x03, "Invalid password disable", W, I},
};

constexpr StateEntry kVersionChange[] = {
    {0x00, "Hardware change detected with associated Entity", I, I},
    {0x01, "Firmware or software change detected with associated Entity", I, I},
    {0x02, "Hardware incompatibility detected with associated Entity", W, I},
    {0x03, "Firmware or software incompatibility detected with associated Entity", W, I},
    {0x04, "Entity is of an invalid or unsupported hardware version", W, I},
    {0x05, "Entity contains an invalid or unsupported firmware or software version", W, I},
    {0x06, "Hardware Change detected with associated Entity was successful", I, I},
    {0x07, "Software or F/W Change detected with associated Entity was successful", I, I},
};

constexpr StateEntry kFruState[] = {
    {0x00, "FRU Not Installed", I, I},
    {0x01, "FRU Inactive (in standby or 'hot spare' state)", I, I},
    {0x02, "FRU Activation Requested", I, I},
    {0x03, "FRU Activation In Progress", I, I},
    {0x04, "FRU Active", I, I},
    {0x05, "FRU Deactivation Requested", I, I},
    {0x06, "FRU Deactivation In Progress", I, I},
    {0x07, "FRU Communication Lost", W, I},
};

struct SensorTypeRow {
    uint8_t code;
    const char* name;
    StateTable states;
};

// Every standard sensor type, in code order (index = code - 1). The types
// that report thresholds or generic states only have no sensor-specific
// states.
constexpr SensorTypeRow kSensorTypes[] = {
    {0x01, "Temperature", {}},
    {0x02, "Voltage", {}},
    {0x03, "Current", {}},
    {0x04, "Fan", {}},
    {0x05, "Physical Security", tableOf(kPhysicalSecurity)},
    {0x06, "Platform Security", tableOf(kPlatformSecurity)},
    {0x07, "Processor", tableOf(kProcessor)},
    {0x08, "Power Supply", tableOf(kPowerSupply)},
    {0x09, "Power Unit", tableOf(kPowerUnit)},
    {0x0A, "Cooling Device", {}},
    {0x0B, "Other Units Based Sensor", {}},
    {0x0C, "Memory", tableOf(kMemory)},
    {0x0D, "Drive Slot/Bay", tableOf(kDriveSlot)},
    {0x0E, "POST Memory Resize", {}},
    {0x0F, "System Firmware Progress", tableOf(kFirmwareProgress)},
    {0x10, "Event Logging Disabled", tableOf(kEventLogging)},
    {0x11, "Watchdog 1", tableOf(kWatchdog1)},
    {0x12, "System Event", tableOf(kSystemEvent)},
    {0x13, "Critical Interrupt", tableOf(kCriticalInterrupt)},
    {0x14, "Button/Switch", tableOf(kButton)},
    {0x15, "Module/Board", {}},
    {0x16, "Microcontroller/Coprocessor", {}},
    {0x17, "Add-in Card", {}},
    {0x18, "Chassis", {}},
    {0x19, "Chip Set", tableOf(kChipSet)},
    {0x1A, "Other FRU", {}},
    {0x1B, "Cable/Interconnect", tableOf(kCable)},
    {0x1C, "Terminator", {}},
    {0x1D, "System Boot Initiated", tableOf(kSystemBoot)},
    {0x1E, "Boot Error", tableOf(kBootError)},
    {0x1F, "OS Boot", tableOf(kOsBoot)},
    {0x20, "OS Critical Stop", tableOf(kOsStop)},
    {0x21, "Slot/Connector", tableOf(kSlot)},
    {0x22, "System ACPI Power State", tableOf(kAcpiPower)},
    {0x23, "Watchdog 2", tableOf(kWatchdog2)},
    {0x24, "Platform Alert", tableOf(kPlatformAlert)},
    {0x25, "Entity Presence", tableOf(kEntityPresence)},
    {0x26, "Monitor ASIC/IC", {}},
    {0x27, "LAN", tableOf(kLan)},
    {0x28, "Management Subsystem Health", tableOf(kManagementHealth)},
    {0x29, "Battery", tableOf(kBattery)},
    {0x2A, "Session Audit", tableOf(kSessionAudit)},
    {0x2B, "Version Change", tableOf(kVersionChange)},
    {0x2C, "FRU State", tableOf(kFruState)},
};
static_assert(sizeof(kSensorTypes) / sizeof(kSensorTypes[0]) ==
                  sensorType::lastStandard - sensorType::firstStandard + 1,
              "one row per standard sensor type");

constexpr StateTable kGeneric[] = {
    tableOf(kThreshold), tableOf(kUsage), tableOf(kDigitalState), tableOf(kPredictiveFailure),
    tableOf(kLimit), tableOf(kPerformance), tableOf(kSeverity), tableOf(kPresence),
    tableOf(kEnabled), tableOf(kAvailability), tableOf(kRedundancy), tableOf(kDevicePower),
};
static_assert(sizeof(kGeneric) / sizeof(kGeneric[0]) == eventType::lastGeneric,
              "one table per generic event/reading type");

// ------------------------------------------------------ event data 2 and 3

template <std::size_t N>
const char* textAt(const char* const (&texts)[N], unsigned index) {
    return index < N ? texts[index] : nullptr;
}

// System Firmware Progress, offset 0x00.
constexpr const char* kFirmwareErrors[] = {
    "Unspecified",
    "No system memory is physically installed in the system",
    "No usable system memory, all installed memory has experienced an unrecoverable failure",
    "Unrecoverable hard-disk/ATAPI/IDE device failure",
    "Unrecoverable system-board failure",
    "Unrecoverable diskette subsystem failure",
    "Unrecoverable hard-disk controller failure",
    "Unrecoverable PS/2 or USB keyboard failure",
    "Removable boot media not found",
    "Unrecoverable video controller failure",
    "No video device detected",
    "Firmware (BIOS) ROM corruption detected",
    "CPU voltage mismatch (processors that share same supply have mismatched voltage requirements)",
    "CPU speed matching failure",
};

// System Firmware Progress, offsets 0x01 and 0x02; 0x15 is not defined.
constexpr const char* kFirmwareProgressCodes[] = {
    "Unspecified",
    "Memory initialization",
    "Hard-disk initialization",
    "Secondary processor(s) initialization",
    "User authentication",
    "User-initiated system setup",
    "USB resource configuration",
    "PCI resource configuration",
    "Option ROM initialization",
    "Video initialization",
    "Cache initialization",
    "SM Bus initialization",
    "Keyboard controller initialization",
    "Embedded controller/management controller initialization",
    "Docking station attachment",
    "Enabling docking station",
    "Docking station ejection",
    "Disabling docking station",
    "Calling operating system wake-up vector",
    "Starting operating system boot process, e.g. calling Int 19h",
    "Baseboard or motherboard initialization",
    nullptr,
    "Floppy initialization",
    "Keyboard test",
    "Pointing device test",
    "Primary processor initialization",
};

// Power Supply, offset 0x06, event data 3 bits 3:0.
constexpr const char* kPowerSupplyConfigErrors[] = {
    "Vendor mismatch", "Revision mismatch", "Processor missing", "Power Supply rating mismatch",
    "Voltage rating mismatch",
};

// System Event, offset 0x03, event data 2.
constexpr const char* kAuxLogActions[] = {
    "entry added",
    "entry added because event did not map to standard IPMI event",
    "entry added along with one or more corresponding SEL entries",
    "log cleared",
    "log disabled",
    "log enabled",
};
constexpr const char* kAuxLogTypes[] = {"MCA log", "OEM 1 log", "OEM 2 log"};

// System Event, offset 0x04, event data 2: one bit per action, bit 0 first.
constexpr const char* kPefActions[] = {
    "Alert", "power off", "reset", "power cycle", "OEM action", "Diagnostic Interrupt (NMI)",
};

// System Boot Initiated, offset 0x07, event data 2 bits 3:0 (the restart
// causes of Get System Restart Cause).
constexpr const char* kRestartCauses[] = {
    "unknown",
    "Chassis Control command",
    "reset via pushbutton",
    "power-up via power pushbutton",
    "Watchdog expiration",
    "OEM",
    "automatic power-up on AC being applied due to 'always restore' power restore policy",
    "automatic power-up on AC being applied due to 'restore previous power state' power restore policy",
    "reset via PEF",
    "power-cycle via PEF",
    "soft reset (e.g. CTRL-ALT-DEL)",
    "power-up via RTC (system real time clock) wakeup",
};

// Slot/Connector, event data 2 bits 6:0.
constexpr const char* kSlotTypes[] = {
    "PCI",
    "Drive Array",
    "External Peripheral Connector",
    "Docking",
    "other standard internal expansion slot",
    "slot associated with entity specified by Entity ID for sensor",
    "AdvancedTCA",
    "DIMM/memory device",
    "FAN",
    "PCI Express",
    "SCSI (parallel)",
    "SATA / SAS",
};

// Watchdog 2, event data 2: bits 7:4 interrupt type, bits 3:0 timer use.
constexpr const char* kWatchdogInterrupts[] = {"none", "SMI", "NMI", "Messaging Interrupt"};
constexpr const char* kWatchdogTimerUses[] = {nullptr, "BIOS FRB2", "BIOS/POST", "OS Load",
                                              "SMS/OS", "OEM"};

// Session Audit, event data 3 bits 5:4.
constexpr const char* kSessionDeactivations[] = {
    "unspecified cause",
    "Close Session command",
    "timeout",
    "configuration change",
};

// Version Change, event data 2.
constexpr const char* kVersionChangeTypes[] = {
    "unspecified",
    "management controller device ID",
    "management controller firmware revision",
    "management controller device revision",
    "management controller manufacturer ID",
    "management controller IPMI version",
    "management controller auxiliary firmware ID",
    "management controller firmware boot block",
    "other management controller firmware",
    "system firmware (EFI / BIOS) change",
    "SMBIOS change",
    "operating system change",
    "operating system loader change",
    "service or diagnostic partition change",
    "management software agent change",
    "management software application change",
    "management software middleware change",
    "programmable hardware change (e.g. FPGA)",
    "board/FRU module change",
    "board/FRU component change",
    "board/FRU replaced with equivalent version",
    "board/FRU replaced with newer version",
    "board/FRU replaced with older version",
    "board/FRU hardware configuration change",
};

// FRU State, event data 2 bits 7:4; 0xF is "cause unknown".
constexpr const char* kFruStateCauses[] = {
    "Normal State Change",
    "Change Commanded by software external to FRU",
    "State Change due to operator changing a Handle latch",
    "State Change due to operator pressing the hotswap push button",
    "State Change due to FRU programmatic action",
    "Communication Lost",
    "Communication lost due to local failure",
    "State Change due to unexpected extraction",
    "State Change due to operator intervention/update",
    "Unable to compute IPMB address",
    "Unexpected Deactivation",
};

// ---------------------------------------------------------------- formatting

constexpr char kHexDigits[] = "0123456789ABCDEF";

// "0x" and `digits` upper-case digits, built in place: it is called a dozen
// times a record.
std::string hex(uint32_t value, int digits = 2) {
    std::string out(static_cast<std::size_t>(digits) + 2, '0');
    out[1] = 'x';
    for (std::size_t i = out.size() - 1; i >= 2; --i) {
        out[i] = kHexDigits[value & 0xF];
        value >>= 4;
    }
    return out;
}

// The same text in a caller's buffer, for fields that need no string of
// their own.
std::string_view hexIn(char (&text)[12], uint32_t value, int digits = 2) {
    const std::size_t size = static_cast<std::size_t>(digits) + 2;
    text[0] = '0';
    text[1] = 'x';
    for (std::size_t i = size - 1; i >= 2; --i) {
        text[i] = kHexDigits[value & 0xF];
        value >>= 4;
    }
    return std::string_view(text, size);
}

// Bytes as hex digits without separators (32 for a whole record) in a
// caller's buffer.
template <typename It>
std::string_view hexBytesIn(char (&text)[2 * recordSize], It first, It last) {
    std::size_t n = 0;
    for (It it = first; it != last && n + 2 <= sizeof text; ++it) {
        const auto byte = static_cast<uint8_t>(*it);
        text[n++] = kHexDigits[byte >> 4];
        text[n++] = kHexDigits[byte & 0xF];
    }
    return std::string_view(text, n);
}

template <typename It>
std::string hexBytes(It first, It last, const char* separator) {
    std::string out;
    const std::size_t gap = std::strlen(separator);
    out.reserve(static_cast<std::size_t>(last - first) * (2 + gap));
    for (It it = first; it != last; ++it) {
        if (it != first) out.append(separator, gap);
        const auto byte = static_cast<uint8_t>(*it);
        out += kHexDigits[byte >> 4];
        out += kHexDigits[byte & 0xF];
    }
    return out;
}

std::string join(const std::vector<std::string>& parts, const char* separator) {
    std::string out;
    for (const std::string& part : parts) {
        if (!out.empty()) out += separator;
        out += part;
    }
    return out;
}

// A code from a table, or the number when the table has none for it.
template <std::size_t N>
std::string codeText(const char* const (&texts)[N], unsigned code, int digits = 2) {
    const char* text = textAt(texts, code);
    return text != nullptr ? std::string(text) : "code " + hex(code, digits);
}

uint8_t offsetOf(const SelRecord& r) { return r.eventData[0] & 0x0F; }
// Event data 1, bits 7:6 and 5:4: what event data 2 and 3 hold.
unsigned data2Use(const SelRecord& r) { return (r.eventData[0] >> 6) & 0x3; }
unsigned data3Use(const SelRecord& r) { return (r.eventData[0] >> 4) & 0x3; }
constexpr unsigned useUnspecified = 0;
constexpr unsigned useReadingOrPrevious = 1;  // threshold: trigger reading/threshold
constexpr unsigned useOem = 2;
constexpr unsigned useSensorSpecific = 3;

bool isStandardSensorType(uint8_t type) {
    return type >= sensorType::firstStandard && type <= sensorType::lastStandard;
}
bool isOemSensorType(uint8_t type) { return type >= sensorType::firstOem; }
bool isOemEventType(uint8_t type) { return type >= eventType::firstOem && type <= eventType::lastOem; }
bool isGenericEventType(uint8_t type) {
    return type >= eventType::threshold && type <= eventType::lastGeneric;
}

// The state an event names, or what is known about it when no table names it.
std::string stateTextOf(const SelRecord& r) {
    const uint8_t offset = offsetOf(r);
    if (const char* text = eventStateText(r.eventType, r.sensorType, offset)) return text;
    if (r.eventType == eventType::sensorSpecific)
        return isOemSensorType(r.sensorType) ? "OEM offset " + hex(offset)
                                             : "sensor-specific offset " + hex(offset);
    if (isOemEventType(r.eventType))
        return "OEM event type " + hex(r.eventType) + ", offset " + hex(offset);
    if (isGenericEventType(r.eventType)) return "offset " + hex(offset);
    return "event type " + hex(r.eventType) + ", offset " + hex(offset);
}

// ------------------------------------------------ sensor-specific event data

// What event data 2 and 3 mean where a sensor type defines them (event data 1
// says "sensor-specific" for them). Appends to `out` what it knows; returns
// false for each byte it does not, and the caller shows that byte.
struct SpecificData {
    bool haveData2;
    bool haveData3;
    uint8_t data2;
    uint8_t data3;
};

void specificExtras(const SelRecord& r, const SpecificData& d, std::vector<std::string>& out,
                    bool& data2Done, bool& data3Done) {
    const uint8_t offset = offsetOf(r);
    auto put2 = [&](std::string text) {
        out.push_back(std::move(text));
        data2Done = true;
    };
    auto put3 = [&](std::string text) {
        out.push_back(std::move(text));
        data3Done = true;
    };
    switch (r.sensorType) {
    case 0x05:  // Physical Security: the network controller a leash was lost on
        if (offset == 0x04 && d.haveData2) put2("network controller " + std::to_string(d.data2));
        break;
    case 0x08:  // Power Supply: the kind of configuration error
        if (offset == 0x06 && d.haveData3)
            put3("error type: " + codeText(kPowerSupplyConfigErrors, d.data3 & 0x0F, 1));
        break;
    case 0x0C:  // Memory: the module, relative to the sensor's entity
        if (d.haveData3) put3("memory module " + std::to_string(d.data3));
        break;
    case 0x0F:  // System Firmware Progress
        if (d.haveData2 && offset == 0x00) {
            const char* text = firmwareErrorText(d.data2);
            put2(text != nullptr ? "error: " + std::string(text) : "error code " + hex(d.data2));
        } else if (d.haveData2 && (offset == 0x01 || offset == 0x02)) {
            const char* text = firmwareProgressText(d.data2);
            put2(text != nullptr ? "progress: " + std::string(text)
                                 : "progress code " + hex(d.data2));
        }
        break;
    case 0x10:  // Event Logging Disabled
        if (offset == 0x00 && d.haveData2) {
            put2("memory module " + std::to_string(d.data2));
        } else if (offset == 0x01) {
            if (d.haveData2) put2("event type " + hex(d.data2));
            if (d.haveData3) {
                if (d.data3 & 0x20)
                    put3("all events of that type");
                else
                    put3(std::string(d.data3 & 0x10 ? "assertion" : "deassertion") + " offset " +
                         hex(d.data3 & 0x0F));
            }
        } else if (offset == 0x05 && d.haveData3) {
            put3(std::to_string(d.data3) + "% full");
        } else if (offset == 0x06 && d.haveData2) {
            // Event data 3 bit 7 says what kind of number event data 2 is.
            const bool vendorNumber = d.haveData3 && (d.data3 & 0x80) != 0;
            put2((vendorNumber ? "processor " : "entity instance ") + std::to_string(d.data2));
            if (d.haveData3) data3Done = true;
        }
        break;
    case 0x12:  // System Event
        if (offset == 0x03 && d.haveData2) {
            put2(codeText(kAuxLogTypes, d.data2 & 0x0F, 1) + ": " +
                 codeText(kAuxLogActions, (d.data2 >> 4) & 0x0F, 1));
        } else if (offset == 0x04 && d.haveData2) {
            std::vector<std::string> actions;
            for (unsigned bit = 0; bit < 6; ++bit)
                if (d.data2 & (1u << bit)) actions.push_back(kPefActions[bit]);
            if (d.data2 & 0xC0) actions.push_back("reserved bits " + hex(d.data2 & 0xC0));
            put2("PEF actions: " + (actions.empty() ? std::string("none") : join(actions, ", ")));
        } else if (offset == 0x05 && d.haveData2) {
            const unsigned clock = d.data2 & 0x0F;
            std::string text = clock == 0   ? "SEL timestamp clock updated"
                               : clock == 1 ? "SDR timestamp clock updated"
                                            : "clock type " + hex(clock, 1);
            put2(text + (d.data2 & 0x80 ? ", second of pair" : ", first of pair"));
        }
        break;
    case 0x1D:  // System Boot Initiated: why the system restarted, and through which channel
        if (offset == 0x07) {
            if (d.haveData2) put2("restart cause: " + codeText(kRestartCauses, d.data2 & 0x0F, 1));
            if (d.haveData3) put3("channel " + std::to_string(d.data3 & 0x0F));
        }
        break;
    case 0x21:  // Slot/Connector
        if (d.haveData2) put2("slot type: " + codeText(kSlotTypes, d.data2 & 0x7F));
        if (d.haveData3) put3("slot " + std::to_string(d.data3));
        break;
    case 0x23:  // Watchdog 2
        if (d.haveData2) {
            const unsigned interrupt = (d.data2 >> 4) & 0x0F;
            const unsigned use = d.data2 & 0x0F;
            const std::string interruptText =
                interrupt == 0xF ? std::string("unspecified") : codeText(kWatchdogInterrupts, interrupt, 1);
            const std::string useText =
                use == 0xF ? std::string("unspecified") : codeText(kWatchdogTimerUses, use, 1);
            put2("interrupt: " + interruptText + ", timer use: " + useText);
        }
        break;
    case 0x28:  // Management Subsystem Health
        if (offset == 0x04 && d.haveData2) {
            put2("sensor " + hex(d.data2));
        } else if (offset == 0x05) {
            const bool logical = d.haveData2 && (d.data2 & 0x80) != 0;
            if (d.haveData2)
                put2(std::string(logical ? "logical FRU device" : "physical FRU device") + ", LUN " +
                     std::to_string((d.data2 >> 3) & 0x3) + ", private bus " +
                     std::to_string(d.data2 & 0x7));
            if (d.haveData3)
                put3(logical ? "FRU device ID " + std::to_string(d.data3)
                             : "slave address " + hex(d.data3));
        }
        break;
    case 0x2A:  // Session Audit
        if (d.haveData2) {
            const unsigned user = d.data2 & 0x3F;
            put2(user == 0 ? std::string("user unspecified") : "user ID " + std::to_string(user));
        }
        if (d.haveData3) {
            std::string text = "channel " + std::to_string(d.data3 & 0x0F);
            if (offset == 0x01)
                text += ", deactivated by " + codeText(kSessionDeactivations, (d.data3 >> 4) & 0x3, 1);
            put3(text);
        }
        break;
    case 0x2B:  // Version Change
        if (d.haveData2) put2("change type: " + codeText(kVersionChangeTypes, d.data2));
        break;
    case 0x2C:  // FRU State
        if (d.haveData2) {
            const unsigned cause = (d.data2 >> 4) & 0x0F;
            const char* previous = eventStateText(eventType::sensorSpecific, 0x2C, d.data2 & 0x0F);
            put2("cause: " +
                 (cause == 0xF ? std::string("State Change, Cause Unknown")
                               : codeText(kFruStateCauses, cause, 1)) +
                 ", previous state: " +
                 (previous != nullptr ? std::string(previous) : hex(d.data2 & 0x0F)));
        }
        break;
    default:
        break;
    }
}

// The three characters the kernel puts in its panic event: the sensor number
// and event data 2 and 3, up to the first NUL.
std::string panicBreadcrumbs(const SelRecord& r) {
    std::string crumbs;
    for (uint8_t c : {r.sensorNumber, r.eventData[1], r.eventData[2]}) {
        if (c == 0) break;
        crumbs += static_cast<char>(c);
    }
    return crumbs;
}

// What event data 2 and 3 add to a system event, each as a short phrase.
std::vector<std::string> extrasOf(const SelRecord& r) {
    std::vector<std::string> out;
    const uint8_t data2 = r.eventData[1];
    const uint8_t data3 = r.eventData[2];
    const unsigned use2 = data2Use(r);
    const unsigned use3 = data3Use(r);

    if (isKernelPanicEvent(r)) {
        // Event data 2 and 3 are not OEM codes here but the message's start.
        out.push_back("kernel panic, message begins \"" + escapeText(panicBreadcrumbs(r)) + "\"");
        return out;
    }

    if (r.eventType == eventType::threshold) {
        // Raw bytes: turning them into units needs the sensor's SDR.
        std::vector<std::string> values;
        if (use2 == useReadingOrPrevious) values.push_back("trigger reading " + hex(data2));
        if (use3 == useReadingOrPrevious) values.push_back("threshold " + hex(data3));
        if (!values.empty()) out.push_back(join(values, ", "));
        if (use2 == useOem) out.push_back("OEM data 2 " + hex(data2));
        if (use3 == useOem) out.push_back("OEM data 3 " + hex(data3));
        if (use2 == useSensorSpecific) out.push_back("data 2 " + hex(data2));
        if (use3 == useSensorSpecific) out.push_back("data 3 " + hex(data3));
        return out;
    }

    bool data2Done = use2 == useUnspecified;
    bool data3Done = use3 == useUnspecified;
    if (use2 == useReadingOrPrevious) {
        // Discrete: the previous state (bits 3:0) and the severity (7:4).
        const unsigned previous = data2 & 0x0F;
        const unsigned severity = (data2 >> 4) & 0x0F;
        if (previous != 0xF) {
            const char* text = eventStateText(r.eventType, r.sensorType, static_cast<uint8_t>(previous));
            out.push_back("previous state: " + (text != nullptr ? std::string(text) : hex(previous)));
        }
        if (severity != 0xF) {
            const StateEntry* row = tableOf(kSeverity).find(static_cast<uint8_t>(severity));
            out.push_back("severity: " + (row != nullptr ? std::string(row->text) : hex(severity)));
        }
        data2Done = true;
    } else if (use2 == useOem) {
        out.push_back("OEM data 2 " + hex(data2));
        data2Done = true;
    }
    if (use3 == useOem) {
        data3Done = true;
    }
    if ((use2 == useSensorSpecific || use3 == useSensorSpecific) &&
        r.eventType == eventType::sensorSpecific) {
        SpecificData d{use2 == useSensorSpecific, use3 == useSensorSpecific, data2, data3};
        specificExtras(r, d, out, data2Done, data3Done);
    }
    if (!data2Done) out.push_back("data 2 " + hex(data2));
    if (use3 == useOem) out.push_back("OEM data 3 " + hex(data3));
    if (!data3Done) out.push_back("data 3 " + hex(data3));
    return out;
}

// "Temperature #0x30" or "Temperature CPU0 Temp (#0x30)".
void putSensorLabel(std::string& text, const SelRecord& r, const std::string& sensorName) {
    if (const char* name = sensorTypeName(r.sensorType)) text += name;
    else text += sensorTypeText(r.sensorType);
    char number[12];
    const std::string_view hexNumber = hexIn(number, r.sensorNumber);
    text += ' ';
    if (sensorName.empty()) {
        text += '#';
        text += hexNumber;
        return;
    }
    text += escapeText(sensorName);
    text += " (#";
    text += hexNumber;
    text += ')';
}

// Built in one string: the line is made for every record a backlog holds.
std::string systemEventText(const SelRecord& r, const std::string& sensorName) {
    std::string text;
    text.reserve(160);
    putSensorLabel(text, r, sensorName);
    text += ": ";
    if (const char* state = eventStateText(r.eventType, r.sensorType, offsetOf(r))) text += state;
    else text += stateTextOf(r);
    text += r.deassertion ? ", deasserted" : ", asserted";
    const std::vector<std::string> extras = extrasOf(r);
    if (extras.empty()) return text;
    text += "; ";
    // As join(extras, "; "): no separator while nothing was written yet.
    const std::size_t start = text.size();
    for (const std::string& extra : extras) {
        if (text.size() != start) text += "; ";
        text += extra;
    }
    return text;
}

std::string oemBytesText(const SelRecord& r) {
    if (isOemTimestamped(r.recordType))
        return hexBytes(r.raw.begin() + 10, r.raw.end(), " ");
    return hexBytes(r.raw.begin() + 3, r.raw.end(), " ");
}

Severity systemEventSeverity(const SelRecord& r) {
    if (const StateEntry* row = eventState(r.eventType, r.sensorType, offsetOf(r)))
        return r.deassertion ? row->deasserted : row->asserted;
    if (isOemEventType(r.eventType)) return Severity::Info;
    if (r.eventType == eventType::sensorSpecific && isOemSensorType(r.sensorType))
        return Severity::Info;
    return Severity::Warning;  // a value the standard leaves undefined
}

bool isWellFormedUtf8(std::string_view s, std::size_t i, std::size_t& length, uint32_t& codePoint) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char lead = byte(i);
    unsigned char low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        codePoint = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        codePoint = lead & 0x0F;
        if (lead == 0xE0) low = 0xA0;   // no overlong forms
        if (lead == 0xED) high = 0x9F;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        codePoint = lead & 0x07;
        if (lead == 0xF0) low = 0x90;   // no overlong forms
        if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
    } else {
        return false;
    }
    if (s.size() - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
        const unsigned char c = byte(i + k);
        if (c < (k == 1 ? low : 0x80) || c > (k == 1 ? high : 0xBF)) return false;
        codePoint = (codePoint << 6) | (c & 0x3F);
    }
    return true;
}

// Code points that are well-formed but end or reorder a line where they are
// shown: C1 controls, the line and paragraph separators, and the
// bidirectional embeddings, overrides and isolates (a sensor name must not be
// able to make the rest of the line read backwards).
bool breaksLine(uint32_t cp) {
    return (cp >= 0x80 && cp <= 0x9F) || cp == 0x2028 || cp == 0x2029 ||
           (cp >= 0x202A && cp <= 0x202E) || (cp >= 0x2066 && cp <= 0x2069) || cp == 0x200E ||
           cp == 0x200F || cp == 0x061C;
}

void escapeByte(std::string& out, unsigned char c) {
    out += "\\x";
    out += kHexDigits[c >> 4];
    out += kHexDigits[c & 0xF];
}

constexpr std::size_t kPanicPieceBytes = 11;
constexpr std::size_t kPanicPieceSequence = 4;
constexpr std::size_t kPanicPieceText = 5;
constexpr uint8_t kPanicPieceType = 0xF0;
// The kernel's generator: software ID 0x20 in bits 7:1, bit 0 set for a
// software ID. Kernels before 2.6.15 sent 0x21, the ID without the shift.
constexpr uint8_t kKernelGenerator = 0x41;
constexpr uint8_t kOldKernelGenerator = 0x21;
constexpr uint8_t kRunTimeCriticalStop = 0x01;

// The message bytes of one piece, up to its first NUL.
std::string pieceText(const SelRecord& piece) {
    std::string text;
    for (std::size_t i = kPanicPieceText; i < kPanicPieceText + kPanicPieceBytes; ++i) {
        if (piece.raw[i] == 0) break;
        text += static_cast<char>(piece.raw[i]);
    }
    return text;
}

bool pieceIsShort(const SelRecord& piece) { return pieceText(piece).size() < kPanicPieceBytes; }

}  // namespace

// ---------------------------------------------------------------- public API

const char* severityName(Severity severity) {
    switch (severity) {
    case Severity::Info: return "info";
    case Severity::Warning: return "warning";
    case Severity::Critical: return "critical";
    }
    return "critical";
}

int journalPriority(Severity severity) {
    switch (severity) {
    case Severity::Info: return 6;      // LOG_INFO
    case Severity::Warning: return 4;   // LOG_WARNING
    case Severity::Critical: return 2;  // LOG_CRIT
    }
    return 2;
}

const StateEntry* StateTable::find(uint8_t offset) const {
    for (const StateEntry& row : *this)
        if (row.offset == offset) return &row;
    return nullptr;
}

const char* sensorTypeName(uint8_t type) {
    if (!isStandardSensorType(type)) return nullptr;
    return kSensorTypes[type - sensorType::firstStandard].name;
}

std::string sensorTypeText(uint8_t type) {
    if (const char* name = sensorTypeName(type)) return name;
    if (isOemSensorType(type)) return "OEM sensor type " + hex(type);
    return "sensor type " + hex(type);
}

StateTable genericStates(uint8_t type) {
    if (!isGenericEventType(type)) return {};
    return kGeneric[type - eventType::threshold];
}

StateTable sensorSpecificStates(uint8_t type) {
    if (!isStandardSensorType(type)) return {};
    return kSensorTypes[type - sensorType::firstStandard].states;
}

const StateEntry* eventState(uint8_t type, uint8_t sensor, uint8_t offset) {
    const uint8_t code = type & 0x7F;
    if (code == eventType::sensorSpecific) return sensorSpecificStates(sensor).find(offset);
    return genericStates(code).find(offset);
}

const char* eventStateText(uint8_t type, uint8_t sensor, uint8_t offset) {
    const StateEntry* row = eventState(type, sensor, offset);
    return row != nullptr ? row->text : nullptr;
}

const char* firmwareErrorText(uint8_t code) { return textAt(kFirmwareErrors, code); }
const char* firmwareProgressText(uint8_t code) { return textAt(kFirmwareProgressCodes, code); }

std::string escapeText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\\') {
            out += "\\\\";
            ++i;
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
            ++i;
        } else if (c < 0x80) {
            escapeByte(out, c);
            ++i;
        } else {
            std::size_t length = 0;
            uint32_t codePoint = 0;
            if (!isWellFormedUtf8(text, i, length, codePoint)) {
                escapeByte(out, c);
                ++i;
            } else if (breaksLine(codePoint)) {
                for (std::size_t k = 0; k < length; ++k)
                    escapeByte(out, static_cast<unsigned char>(text[i + k]));
                i += length;
            } else {
                out.append(text.substr(i, length));
                i += length;
            }
        }
    }
    return out;
}

namespace {

// "YYYY-MM-DDTHH:MM:SSZ" (20 characters) in `text`, as gmtime_r and
// strftime's "%Y-%m-%dT%H:%M:%SZ" write it but without their time zone lock
// and locale machinery, which were most of a record's formatting time.
// False for what it does not cover (the caller then asks strftime).
bool utcIn(uint32_t timestamp, char (&text)[32]) {
    // The civil date of a day count (days since 1970-01-01), in eras of 400
    // years: pure arithmetic, where gmtime_r takes the time zone lock.
    const uint32_t days = timestamp / 86400;
    const uint32_t secondOfDay = timestamp % 86400;
    const uint32_t z = days + 719468;  // days since 0000-03-01
    const uint32_t era = z / 146097;
    const uint32_t dayOfEra = z - era * 146097;
    const uint32_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const uint32_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const uint32_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    std::tm parts{};
    parts.tm_mday = static_cast<int>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1);
    parts.tm_mon = static_cast<int>(monthFromMarch < 10 ? monthFromMarch + 2 : monthFromMarch - 10);
    const int year = static_cast<int>(yearOfEra + era * 400) + (parts.tm_mon <= 1 ? 1 : 0);
    parts.tm_hour = static_cast<int>(secondOfDay / 3600);
    parts.tm_min = static_cast<int>(secondOfDay / 60 % 60);
    parts.tm_sec = static_cast<int>(secondOfDay % 60);
    if (year < 1000 || year > 9999) return false;
    const auto two = [&text](std::size_t at, int value) {
        text[at] = static_cast<char>('0' + value / 10);
        text[at + 1] = static_cast<char>('0' + value % 10);
    };
    two(0, year / 100);
    two(2, year % 100);
    text[4] = '-';
    two(5, parts.tm_mon + 1);
    text[7] = '-';
    two(8, parts.tm_mday);
    text[10] = 'T';
    two(11, parts.tm_hour);
    text[13] = ':';
    two(14, parts.tm_min);
    text[16] = ':';
    two(17, parts.tm_sec);
    text[19] = 'Z';
    text[20] = '\0';
    return true;
}

}  // namespace

std::string timestampText(uint32_t timestamp) {
    if (timestamp == unspecifiedTimestamp) return "unspecified";
    if (timestamp <= preInitTimestampMax) return "pre-init +" + std::to_string(timestamp) + " s";
    char text[32];
    if (utcIn(timestamp, text)) return std::string(text, 20);
    const std::time_t seconds = static_cast<std::time_t>(timestamp);
    std::tm parts{};
    if (::gmtime_r(&seconds, &parts) == nullptr) return "+" + std::to_string(timestamp) + " s";
    if (std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0)
        return "+" + std::to_string(timestamp) + " s";
    return text;
}

Severity severityOf(const SelRecord& r) {
    if (r.isSystemEvent()) return systemEventSeverity(r);
    if (isOemTimestamped(r.recordType) || isOemNonTimestamped(r.recordType)) return Severity::Info;
    return Severity::Warning;  // a record type nobody defined
}

std::string eventText(const SelRecord& r, const std::string& sensorName) {
    if (r.isSystemEvent()) return systemEventText(r, sensorName);
    if (isOemTimestamped(r.recordType))
        return "OEM record type " + hex(r.recordType) + ", manufacturer " + hex(r.manufacturerId, 6) +
               ", data " + oemBytesText(r);
    if (isOemNonTimestamped(r.recordType))
        return "OEM record type " + hex(r.recordType) + ", data " + oemBytesText(r);
    return "Unknown record type " + hex(r.recordType) + ", data " + oemBytesText(r);
}

void visitJournalFields(const SelRecord& r, const std::string& sensorName,
                        const std::function<void(const char* name, std::string_view value)>& put) {
    char number[12];
    char bytes[2 * recordSize];
    put(field::recordId, hexIn(number, r.recordId, 4));
    put(field::recordType, hexIn(number, r.recordType));
    if (r.hasTimestamp()) {
        char text[32];
        if (r.timestamp > preInitTimestampMax && r.timestamp != unspecifiedTimestamp && utcIn(r.timestamp, text))
            put(field::timestamp, std::string_view(text, 20));
        else
            put(field::timestamp, timestampText(r.timestamp));
    }
    if (r.isSystemEvent()) {
        put(field::generatorId, hexIn(number, r.generatorId, 4));
        if (const char* name = sensorTypeName(r.sensorType)) put(field::sensorType, name);
        else put(field::sensorType, sensorTypeText(r.sensorType));
        put(field::sensorTypeCode, hexIn(number, r.sensorType));
        put(field::sensorNumber, hexIn(number, r.sensorNumber));
        if (!sensorName.empty()) put(field::sensorName, escapeText(sensorName));
        put(field::eventType, hexIn(number, r.eventType));
        put(field::eventDir, r.deassertion ? "deassertion" : "assertion");
        put(field::eventData, hexBytesIn(bytes, r.eventData.begin(), r.eventData.end()));
        if (const char* text = eventStateText(r.eventType, r.sensorType, offsetOf(r))) put(field::eventState, text);
        else put(field::eventState, stateTextOf(r));
    } else {
        if (isOemTimestamped(r.recordType)) put(field::manufacturerId, hexIn(number, r.manufacturerId, 6));
        const auto first = r.raw.begin() + (isOemTimestamped(r.recordType) ? 10 : 3);
        put(field::oemData, hexBytesIn(bytes, first, r.raw.end()));
    }
    put(field::severity, severityName(severityOf(r)));
    put(field::raw, hexBytesIn(bytes, r.raw.begin(), r.raw.end()));
}

std::vector<JournalField> journalFields(const SelRecord& r, const std::string& sensorName) {
    std::vector<JournalField> fields;
    fields.reserve(14);  // a system event's, the most a record has (with a sensor name)
    visitJournalFields(r, sensorName, [&fields](const char* name, std::string_view value) {
        fields.push_back({name, std::string(value)});
    });
    return fields;
}

DecodedEvent decode(const SelRecord& r, const std::string& sensorName) {
    DecodedEvent event;
    event.recordIds.push_back(r.recordId);
    event.severity = severityOf(r);
    event.text = eventText(r, sensorName);
    event.fields = journalFields(r, sensorName);
    return event;
}

// ------------------------------------------------------------- kernel panics

bool isKernelPanicEvent(const SelRecord& r) {
    const uint8_t generator = r.generatorId & 0xFF;
    return r.isSystemEvent() && (generator == kKernelGenerator || generator == kOldKernelGenerator) &&
           r.sensorType == sensorType::osCriticalStop && r.eventType == eventType::sensorSpecific &&
           !r.deassertion && offsetOf(r) == kRunTimeCriticalStop &&
           data2Use(r) == useOem && data3Use(r) == useOem;
}

bool isKernelPanicPiece(const SelRecord& r) { return r.recordType == kPanicPieceType; }

bool PanicAssembler::pieceContinues(const SelRecord& piece) const {
    return isKernelPanicPiece(piece) && piece.raw[kPanicPieceSequence] == pieces_.size() &&
           (pieces_.empty() || !pieceIsShort(pieces_.back()));
}

bool PanicAssembler::messageComplete() const {
    return !pieces_.empty() && pieceIsShort(pieces_.back());
}

void PanicAssembler::emitHeld(std::vector<DecodedEvent>& out) {
    if (!haveStop_) {
        // Pieces that no critical stop followed: only the OEM records they are.
        for (const SelRecord& piece : pieces_) out.push_back(decode(piece));
        pieces_.clear();
        return;
    }
    DecodedEvent event = decode(stop_, stopSensorName_);
    event.severity = Severity::Critical;
    std::string message;
    for (const SelRecord& piece : pieces_) {
        message += pieceText(piece);
        event.recordIds.push_back(piece.recordId);
    }
    // Without the pieces, the event itself carries the message's first
    // characters.
    const std::string shown =
        pieces_.empty() ? escapeText(panicBreadcrumbs(stop_)) + "..." : escapeText(message);
    event.text = "The previous boot ended in a kernel panic: " + shown;
    event.fields.push_back({field::panicText, shown});
    out.push_back(std::move(event));
    haveStop_ = false;
    stopSensorName_.clear();
    pieces_.clear();
}

std::vector<DecodedEvent> PanicAssembler::feed(const SelRecord& record, const std::string& sensorName) {
    std::vector<DecodedEvent> out;
    if (isKernelPanicEvent(record)) {
        // Pieces held before it are its message if they start at 0; a
        // previous critical stop ends here.
        if (haveStop_) emitHeld(out);
        haveStop_ = true;
        stop_ = record;
        stopSensorName_ = sensorName;
        if (messageComplete()) emitHeld(out);
        return out;
    }
    if (isKernelPanicPiece(record)) {
        if (!pieceContinues(record)) {
            emitHeld(out);
            if (record.raw[kPanicPieceSequence] != 0) {
                // Not the start of a message: an OEM record like any other.
                out.push_back(decode(record, sensorName));
                return out;
            }
        }
        pieces_.push_back(record);
        if (haveStop_ && messageComplete()) emitHeld(out);
        return out;
    }
    emitHeld(out);
    out.push_back(decode(record, sensorName));
    return out;
}

std::vector<DecodedEvent> PanicAssembler::flush() {
    std::vector<DecodedEvent> out;
    emitHeld(out);
    return out;
}

}  // namespace qelSel
