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
constexpr unsigned char setBmcGlobalEnables = 0x2E;
constexpr unsigned char getBmcGlobalEnables = 0x2F;
constexpr unsigned char resetWatchdogTimer = 0x22;
constexpr unsigned char setWatchdogTimer = 0x24;
constexpr unsigned char getWatchdogTimer = 0x25;
constexpr unsigned char getChannelInfo = 0x42;
constexpr unsigned char setSystemInfoParameters = 0x58;
constexpr unsigned char getSystemInfoParameters = 0x59;
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
constexpr unsigned char requestedDataNotPresent = 0xCB;
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

// Controller identity (Get Device ID, the EEPROM version records, the OEM
// feature probe) and the LAN configuration reader.
namespace cmd {
// netfn::oemGroup: version information; data byte 3 selects what is read.
constexpr unsigned char oemVersionInfo = 0xF5;
// netfn::oemBoard: the board's slot query. A controller that answers it with
// success offers the OEM features, so it doubles as the feature probe.
constexpr unsigned char getBoardSlot = 0x18;
}  // namespace cmd

// Get Device ID response: completion code and 15 data bytes.
namespace deviceId {
constexpr unsigned int responseSize = 16;
constexpr unsigned int firmwareRevision1 = 3;  // bit 7 device available, bits 6-0 major
constexpr unsigned int firmwareRevision2 = 4;  // minor, BCD
constexpr unsigned int ipmiVersion = 5;        // BCD, e.g. 0x51 or 0x02
constexpr unsigned int manufacturerId = 7;     // 3 bytes, least significant first
constexpr unsigned int productId = 10;         // 2 bytes
constexpr unsigned int auxFirmwareRevision = 12;  // 4 bytes
constexpr unsigned int oemMarker = 15;         // last auxiliary byte
constexpr unsigned char oemMarkerPresent = 'G';
constexpr unsigned char oemMarkerAbsent = 'A';
}  // namespace deviceId

// EEPROM version records (cmd::oemVersionInfo): request IANA, 0x12, index;
// the response is a record of 20 bytes, completion code included.
namespace eepromVersion {
constexpr unsigned char selector = 0x12;
constexpr unsigned int requestSelector = 3;
constexpr unsigned int requestIndex = 4;
constexpr unsigned int requestSize = 5;
constexpr unsigned int recordSize = 20;
constexpr unsigned int records = 2;
}  // namespace eepromVersion

// Get Channel Info (cmd::getChannelInfo): request the channel number.
namespace channelInfo {
constexpr unsigned int responseChannel = 1;
constexpr unsigned int responseMedium = 2;    // bits 6-0
constexpr unsigned int responseProtocol = 3;  // bits 4-0
constexpr unsigned int responseSize = 10;
constexpr unsigned char mediumLan8023 = 0x04;
constexpr unsigned char protocolIpmb = 0x01;
constexpr unsigned char firstChannel = 1;
constexpr unsigned char lastChannel = 7;
}  // namespace channelInfo

// Get LAN Configuration Parameters (cmd::getLanConfigParameters): request
// channel, parameter, set selector, block selector; response completion code,
// parameter revision, parameter data.
namespace lanConfig {
constexpr unsigned int requestSize = 4;
constexpr unsigned char revisionOnly = 0x80;  // request byte 0, bit 7
constexpr unsigned int responseRevision = 1;
constexpr unsigned int responseData = 2;
constexpr unsigned char revision = 0x11;  // what controllers answer in byte 1

constexpr unsigned char ipAddress = 3;
constexpr unsigned char ipAddressSource = 4;
constexpr unsigned char macAddress = 5;
constexpr unsigned char subnetMask = 6;
constexpr unsigned char defaultGateway = 12;
// Vendor parameters.
constexpr unsigned char ipv6Status = 0xC0;         // data bit 2: IPv6 disabled
constexpr unsigned char ipv6Address = 0xC8;        // per set selector: 16 bytes
constexpr unsigned char ipv6AddressSource = 0xC9;  // per set selector: bits 2-0
constexpr unsigned char ipv6AddressState = 0xCA;   // per set selector: bits 2-0
constexpr unsigned char ipv6PrefixLength = 0xCB;   // per set selector
constexpr unsigned char ipv6PrimaryState = 0xCD;
constexpr unsigned char ipv6PrimaryAddress = 0xCE;
constexpr unsigned char ipv6AddressCount = 0xCF;
constexpr unsigned char ipv6DisabledBit = 0x04;
}  // namespace lanConfig

// Management-board commands (netfn::oemBoard; the slot query cmd::getBoardSlot
// is above) and the OS status event that goes to the board over IPMB.
namespace cmd {
constexpr unsigned char getPortMacsLegacy = 0x55;     // every port's MAC at once
constexpr unsigned char getPortMac = 0x75;            // one port's MAC
constexpr unsigned char getBoardIpv4Legacy = 0x80;    // old boards: the board's IPv4 address
constexpr unsigned char getBoardMaskLegacy = 0x81;    // old boards: its subnet mask
constexpr unsigned char setPortIpv4 = 0xA3;           // a port's IPv4 address
constexpr unsigned char setOsText = 0xA8;             // OS text in chunks of 32 bytes
constexpr unsigned char setOsTextLegacy = 0xB0;       // OS text in one request
constexpr unsigned char setPlatformText = 0xB1;       // platform text in one request
constexpr unsigned char getBoardAddress = 0xE1;       // family, index -> address
constexpr unsigned char getBoardMask = 0xE3;          // family, index -> mask
constexpr unsigned char setPortAddress = 0xE7;        // a port's IPv4 or IPv6 address
constexpr unsigned char getBoardCapabilities = 0xE8;  // bit 0: the extended interface
constexpr unsigned char getBoardMac = 0xF0;           // selector -> the board's MAC
}  // namespace cmd

namespace mmb {
// Slot query: response completion code, slot number (1-based).
constexpr unsigned int slotResponseSize = 2;

// Port MAC (cmd::getPortMac): request the port number (1-based, bits 6-0).
// Response completion code, number of ports, flags, MAC (6 bytes). A port
// number the board has no record for answers cc::parameterOutOfRange.
constexpr unsigned char portNumberMask = 0x7F;
constexpr unsigned int portResponseCount = 1;
constexpr unsigned int portResponseFlags = 2;
constexpr unsigned int portResponseMac = 3;
constexpr unsigned int portHeaderSize = 3;   // enough for a port without a MAC
constexpr unsigned int portResponseSize = 9;
constexpr unsigned char portPresent = 0x80;  // flags: the MAC is valid
constexpr unsigned int portLimit = 32;       // ports are asked below this number

// Legacy port MACs (cmd::getPortMacsLegacy): response completion code, a byte
// the library does not read (the board puts the record count there), then one
// 6-byte record per port in port order, each MAC's bytes reversed.
constexpr unsigned int legacyResponseCount = 1;
constexpr unsigned int legacyRecords = 2;
constexpr unsigned int legacyRecordSize = 6;

// Capabilities (cmd::getBoardCapabilities): completion code, flags.
constexpr unsigned int capabilitiesResponseSize = 2;
constexpr unsigned char capabilityExtended = 0x01;

// Board address and mask (cmd::getBoardAddress, cmd::getBoardMask): request
// family, index. Response completion code, family, index, the address (4 or
// 16 bytes, network order). IPv4 indexes 0 and 1, IPv6 indexes 2 and 3.
constexpr unsigned char familyIpv4 = 0x01;
constexpr unsigned char familyIpv6 = 0x02;
constexpr unsigned int addressRequestSize = 2;
constexpr unsigned int addressResponseFamily = 1;
constexpr unsigned int addressResponseIndex = 2;
constexpr unsigned int addressResponseValue = 3;
constexpr unsigned int ipv4ResponseSize = 7;
constexpr unsigned int ipv6ResponseSize = 19;
// Old boards (cmd::getBoardIpv4Legacy, cmd::getBoardMaskLegacy): completion
// code and four octets.
constexpr unsigned int legacyAddressResponseSize = 5;

// Board MAC (cmd::getBoardMac): request a selector (0, else 1); response
// completion code, MAC.
constexpr unsigned int macRequestSize = 1;
constexpr unsigned int macResponseSize = 7;

// Port addresses. cmd::setPortIpv4: slot - 1, port - 1, four octets.
// cmd::setPortAddress: slot - 1, port - 1 (bits 6-0), kind, family, address.
constexpr unsigned int reportSlot = 0;
constexpr unsigned int reportPort = 1;
constexpr unsigned int ipv4ReportAddress = 2;
constexpr unsigned int ipv4ReportSize = 6;
constexpr unsigned int reportKind = 2;
constexpr unsigned int reportFamily = 3;
constexpr unsigned int reportAddress = 4;
constexpr unsigned int ipv4AddressReportSize = 8;
constexpr unsigned int ipv6AddressReportSize = 20;
constexpr unsigned char kindIpv4 = 0x00;
constexpr unsigned char kindLinkLocal = 0x02;  // fe80::/10
constexpr unsigned char kindGlobal = 0x03;     // any other IPv6 address

// OS and platform texts (cmd::setOsText, cmd::setOsTextLegacy,
// cmd::setPlatformText): byte 0 holds the chunk number in bits 7-6 and
// slot - 1 in bits 5-0, then the text, NUL-terminated when it ends there.
constexpr unsigned int textChunkSize = 32;
constexpr unsigned int textRequestMax = 33;
constexpr unsigned int chunkShift = 6;
constexpr unsigned char chunkMask = 0xC0;
constexpr unsigned char textSlotMask = 0x3F;
constexpr unsigned int osTextChunks = 4;

// OS status: a Platform Event Message (netfn::sensorEvent, cmd::platformEvent)
// over IPMB to the board: event message revision, sensor type, sensor number,
// event direction and type, event data 1 (status | osStatusMarker), event
// data 2, event data 3.
constexpr unsigned char boardIpmbAddress = 0x24;
constexpr unsigned char eventRevision = 0x04;
constexpr unsigned char osSensorType = 0xC0;  // OEM
constexpr unsigned char osSensorNumber = 0x09;
constexpr unsigned char osEventType = 0x6F;   // sensor-specific, assertion
constexpr unsigned char osStatusMarker = 0x40;
constexpr unsigned char osEventData2 = 0x8F;
constexpr unsigned char osEventData3 = 0xFF;
constexpr unsigned int osEventSize = 7;
constexpr unsigned int osEventData1 = 4;
}  // namespace mmb

}  // namespace qelIpmi

#endif
