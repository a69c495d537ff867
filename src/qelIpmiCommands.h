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
}  // namespace cmd

// Completion codes (response byte 0).
namespace cc {
constexpr unsigned char ok = 0x00;
constexpr unsigned char nodeBusy = 0xC0;
constexpr unsigned char invalidCommand = 0xC1;
constexpr unsigned char timeout = 0xC3;
constexpr unsigned char requestDataLengthInvalid = 0xC7;
constexpr unsigned char parameterOutOfRange = 0xC9;
constexpr unsigned char cannotReturnRequestedBytes = 0xCA;
constexpr unsigned char invalidDataField = 0xCC;
constexpr unsigned char unspecified = 0xFF;
}  // namespace cc

}  // namespace qelIpmi

#endif
