// The controller's replies: every request of the controller identity, the
// EEPROM version records, the watchdog, the LAN configuration, the
// configuration space and the blade reporting answered by a controller whose
// replies the input bends (fuzzController.h).
//
// Input: one byte picks the component, the rest drives the controller and
// the arguments of the operations.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <exception>
#include <list>
#include <string>

#include "fuzzController.h"
#include "fuzzNetwork.h"
#include "fuzzPlatform.h"
#include "qelBladeInfo.h"
#include "qelConfSpaceData.h"
#include "qelIpmi.h"
#include "qelIpmiWatchdog.h"

namespace {

using qelFuzz::FuzzController;

IPv4Address someIpv4(FuzzedDataProvider& in) {
    IPv4Address address;
    const std::uint32_t value = in.ConsumeIntegral<std::uint32_t>();
    unsigned char bytes[4];
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    address = bytes;
    return address;
}

IPv6Address someIpv6(FuzzedDataProvider& in) {
    unsigned char bytes[16] = {};
    for (unsigned char& b : bytes) b = in.ConsumeIntegral<unsigned char>();
    return IPv6Address(bytes);
}

MacAddress someMac(FuzzedDataProvider& in) {
    MacAddress mac;
    for (unsigned char& b : mac.bytes) b = in.ConsumeIntegral<unsigned char>();
    return mac;
}

void identity(FuzzedDataProvider& in) {
    qelIpmi::QelIpmiDeviceIdData first;
    // A second look after the gate opened again (the platform clock moves
    // 1000 s a reading), and copies, which share the cache.
    first.update();
    qelIpmi::QelIpmiDeviceIdData copy(first);
    copy = first;
    if (in.ConsumeBool()) copy.update();
}

void eeprom(FuzzedDataProvider& in) {
    try {
        qelIpmi::QelIpmiEEPROMVersionInfo info;
        if (info.isUpToDate()) info.update();
        if (in.ConsumeBool()) (void)info.isUpToDate();
    } catch (qelIpmi::QelIpmiError&) {
        // Transport errors pass through this class by design.
    }
}

void watchdog(FuzzedDataProvider& in) {
    using qelIpmi::QelIpmiWatchdog;
    const auto use = static_cast<QelIpmiWatchdog::TimerUse>(in.ConsumeIntegralInRange<int>(0, 7));
    QelIpmiWatchdog dog(use);
    dog.update();
    dog.dontLog = in.ConsumeBool();
    dog.timeoutAction = in.ConsumeIntegralInRange<int>(0, 3);
    dog.preTimeoutInterrupt = in.ConsumeIntegralInRange<int>(0, 3);
    dog.preTimeoutInterval = in.ConsumeIntegral<unsigned char>();
    dog.initialCountdown = in.ConsumeIntegral<unsigned short>();
    dog.set(in.ConsumeBool());
    (void)dog.resetTimer();
    dog.update();
    dog.stopTimer();
}

void lan(FuzzedDataProvider& in) {
    try {
        qelIpmi::QelIpmiLan found(0);
        found.update();
        qelIpmi::QelIpmiLan given(in.ConsumeIntegralInRange<unsigned char>(1, 9));
        given.update();
        (void)qelIpmi::QelIpmiLan::getLanChannelNumber(in.ConsumeIntegralInRange<unsigned char>(0, 8));
    } catch (qelIpmi::QelIpmiError&) {
        // Opening the device may fail; nothing else throws.
    }
}

void confSpace(FuzzedDataProvider& in) {
    QelConfSpaceData space(in.ConsumeBool());
    space.updateWatchdogParameter();
    const std::string text = in.ConsumeRandomLengthString(300);
    switch (in.ConsumeIntegralInRange<int>(0, 4)) {
    case 0:
        space.setSystemName(text);
        space.setServerOperatingSystem(text);
        break;
    case 1:
        space.setBiosVersion(text);
        space.setServerSerialNumber(text);
        break;
    case 2:
        space.setIpAddr_1(someIpv4(in));
        space.setIpAddr_4(someIpv4(in));
        break;
    case 3:
        space.setSoftWatchdogTime(in.ConsumeIntegral<unsigned short>());
        space.setSoftWatchdogBehaviour(
            static_cast<QelConfSpaceData::WatchdogBehaviour>(in.ConsumeIntegralInRange<int>(0, 5)));
        space.setSoftWatchdogEnabled(in.ConsumeBool());
        break;
    default:
        (void)space.set(static_cast<QelConfSpaceData::ValueIds>(in.ConsumeIntegralInRange<int>(0x40, 0x210)));
        break;
    }
    space.changeAgentConnectionStatus(
        static_cast<QelConfSpaceData::AgentConnectionStatus>(in.ConsumeIntegralInRange<int>(0, 3)));
    space.update(true);
}

void blade(FuzzedDataProvider& in) {
    const unsigned int slot = in.ConsumeBool() ? QelBladeInfo::unknownSlot : in.ConsumeIntegral<unsigned char>();
    try {
        QelBladeInfo board(slot, in.ConsumeBool());
        board.getMMBNetworkInfo();
        MacAddress mac = someMac(in);
        if (!board.macAddresses.empty() && in.ConsumeBool()) mac = board.macAddresses.begin()->second;
        board.sendIpAddressInfo(someIpv4(in), mac);
        board.sendIpAddressInfo(someIpv6(in), mac);
        board.setOSStatus(in.ConsumeBool() ? QelBladeInfo::AC_OS_RUNNING : QelBladeInfo::AC_OS_SHUT_DOWN);
        const std::string os = in.ConsumeRandomLengthString(200);
        board.setOSPlatformInfo(os, in.ConsumeRandomLengthString(60));
    } catch (const std::exception&) {
        // The constructor lets the SMBIOS reader's and identity's errors out.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    qelFuzz::SelectedInput input(data, size);
    const unsigned char component = input.selector;
    FuzzedDataProvider& in = input.rest;
    FuzzController controller(in, 96);
    controller.describeBlade();
    switch (component % 6) {
    case 0: identity(in); break;
    case 1: eeprom(in); break;
    case 2: watchdog(in); break;
    case 3: lan(in); break;
    case 4: confSpace(in); break;
    default: blade(in); break;
    }
    return 0;
}
