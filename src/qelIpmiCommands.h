// IPMI network functions, commands and completion codes used by the library,
// declared once. The simulated controller answers by the same names, so the
// two sides cannot drift apart silently.
#ifndef QEL_IPMI_COMMANDS_H
#define QEL_IPMI_COMMANDS_H

namespace qelIpmi {

namespace netfn {
constexpr unsigned char sensorEvent = 0x04;
constexpr unsigned char app = 0x06;
constexpr unsigned char storage = 0x0A;
constexpr unsigned char transport = 0x0C;
constexpr unsigned char oemGroup = 0x2E;   // OEM commands that carry the vendor IANA number
constexpr unsigned char oemBoard = 0x30;   // management-board (MMB) commands
constexpr unsigned char oemPni = 0x34;     // PNI locate command
}  // namespace netfn

namespace cmd {
// netfn::app
constexpr unsigned char getDeviceId = 0x01;
constexpr unsigned char resetWatchdogTimer = 0x22;
constexpr unsigned char setWatchdogTimer = 0x24;
constexpr unsigned char getWatchdogTimer = 0x25;
constexpr unsigned char getChannelInfo = 0x42;
// netfn::sensorEvent
constexpr unsigned char platformEvent = 0x02;
// netfn::storage
constexpr unsigned char readFruData = 0x11;
constexpr unsigned char writeFruData = 0x12;
// netfn::transport
constexpr unsigned char getLanConfigParameters = 0x02;
// netfn::oemGroup (data start with the vendor IANA number; see confSpace below)
constexpr unsigned char configSpace = 0xE0;            // read or write a configuration-space variable
constexpr unsigned char agentConnectionStatus = 0x02;  // query or set the agent connection status
}  // namespace cmd

// Completion codes (response byte 0).
namespace cc {
constexpr unsigned char ok = 0x00;
// Command-specific: a configuration variable the controller does not have
// (as for the IPMI configuration-parameter commands).
constexpr unsigned char parameterNotSupported = 0x80;
constexpr unsigned char nodeBusy = 0xC0;
constexpr unsigned char invalidCommand = 0xC1;
constexpr unsigned char timeout = 0xC3;
constexpr unsigned char requestDataLengthInvalid = 0xC7;
constexpr unsigned char parameterOutOfRange = 0xC9;
constexpr unsigned char cannotReturnRequestedBytes = 0xCA;
constexpr unsigned char invalidDataField = 0xCC;
constexpr unsigned char unspecified = 0xFF;
}  // namespace cc

// Byte layout of the configuration-space command (cmd::configSpace) and the
// agent connection command (cmd::agentConnectionStatus), shared by the
// library and the simulated controller.
namespace confSpace {
// Request: IANA (3 bytes, least significant first), operation, 0x00,
// variable number (2 bytes, little-endian); a write adds the length and data.
constexpr unsigned char opRead = 0x01;
constexpr unsigned char opWrite = 0x02;
constexpr unsigned int requestIana = 0;
constexpr unsigned int requestOperation = 3;
constexpr unsigned int requestIndex = 4;  // always 0x00
constexpr unsigned int requestVariable = 5;
constexpr unsigned int requestLength = 7;
constexpr unsigned int requestValue = 8;
constexpr unsigned int readRequestSize = 7;
constexpr unsigned int maxValueLength = 255;  // one length byte
// Response: completion code, IANA (3 bytes), value length, value.
constexpr unsigned int responseIana = 1;
constexpr unsigned int responseLength = 4;
constexpr unsigned int responseValue = 5;
// Agent connection request: IANA, then one byte: query or the new state.
constexpr unsigned char agentQuery = 0x08;
constexpr unsigned int agentRequestSize = 4;
}  // namespace confSpace

// FRU storage (Read/Write FRU Data, Get FRU Inventory Area Info) and the PNI
// locate command (netfn::oemPni), which names the FRU device holding the PNI
// port records.
namespace cmd {
// netfn::storage
constexpr unsigned char getFruInventoryAreaInfo = 0x10;
// netfn::oemPni: request pniLocateRequest; response completion code, FRU
// device id, FRU capacity (2 bytes, least significant first).
constexpr unsigned char pniLocate = 0x40;
}  // namespace cmd

namespace cc {
// Requested sensor, data or record not present (an unknown FRU device id).
constexpr unsigned char notPresent = 0xCB;
}  // namespace cc

namespace fruData {
// Read FRU Data request: device id, offset (2 bytes, least significant
// first), count. Response: completion code, count returned, data.
// Write FRU Data request: device id, offset (2 bytes), data. Response:
// completion code, count written.
constexpr unsigned int requestDeviceId = 0;
constexpr unsigned int requestOffset = 1;
constexpr unsigned int readRequestCount = 3;
constexpr unsigned int readRequestSize = 4;
constexpr unsigned int writeRequestData = 3;
constexpr unsigned int responseCount = 1;
constexpr unsigned int readResponseData = 2;
// Get FRU Inventory Area Info: request the device id; response completion
// code, size (2 bytes, least significant first), access (bit 0: 1 = words).
constexpr unsigned int infoResponseSize = 4;
}  // namespace fruData

namespace pniLocate {
constexpr unsigned char request[2] = {0xFF, 0xFF};
constexpr unsigned int responseDeviceId = 1;
constexpr unsigned int responseCapacity = 2;  // 2 bytes, least significant first
constexpr unsigned int responseSize = 4;
}  // namespace pniLocate

}  // namespace qelIpmi

#endif
