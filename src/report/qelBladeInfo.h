// Blade systems: reporting to the management board (MMB).
//
// A QelBladeInfo decides once, at construction, whether the host has a
// management board to report to (bladeSystem), learns its slot, the MAC
// addresses of its ports and the board's own network settings, and then lets
// the agent report the OS status, the OS and platform texts and each port's
// IPv4 and IPv6 addresses. On a host without a board every reporting
// operation returns false and sends nothing.
//
// - Every operation opens its own short-lived controller connection; nothing
//   is kept between calls.
// - A reply is decoded only after its length was checked: a reply that says
//   success but is too short to hold what would be read counts as no reply
//   at all (the same fallbacks apply), so nothing is read past its end.
// - After construction no operation throws: transport errors give false (or,
//   in the constructor's own look-ups, end them and keep what was learnt).
//   The constructor lets the SMBIOS reader's and the controller identity's
//   errors through.
// - Used by one thread (the agent's worker); no locking.
//
// The reporting results are plain bools and deliberately not [[nodiscard]]:
// the agent reports every pass and has nothing to do about a failure.
#ifndef QEL_BLADE_INFO_H
#define QEL_BLADE_INFO_H

#include <cstdint>
#include <map>
#include <string>

#include "qelAddress.h"
#include "qelError.h"
#include "qelExport.h"

// The blade information's error type; it exists for catching.
QEL_DECLARE_ERROR(QelBladeInfoError);

class QEL_EXPORT QelBladeInfo {
public:
    // Operating-system states as the board knows them. The value travels in
    // the low bits of event data 1 of the OS status event (setOSStatus), so
    // any value below 0x40 can be sent; the agent sends these two.
    enum AC_systemStatus : uint32_t {
        AC_OS_RUNNING = 5,    // sent every pass of the agent's loop
        AC_OS_SHUT_DOWN = 6,  // sent when the agent's daemon stops
    };

    // The slot number that means "not known"; the constructor then asks the
    // board.
    static constexpr uint32_t unknownSlot = 0xFF;

    // detect false: the host is taken for a blade system without looking at
    // SMBIOS or the controller identity (acSystem stays false). detect true:
    // a blade system is one with more than one System Enclosure structure,
    // a controller with OEM features, or exactly one enclosure whose serial
    // number differs from the system's (both longer than one character).
    // A blade system then reads the board's network settings, its slot (when
    // `slot` is unknownSlot) and the port MACs.
    QelBladeInfo(unsigned int slot, bool detect);
    virtual ~QelBladeInfo();

    // Reads the board's network settings into mmbIpv4_1 .. mmbMacAddress.
    // Returns bladeSystem (false at once without a board; false also when the
    // transport failed part way, the members keeping what was read).
    bool getMMBNetworkInfo();

    // Reports the address of the port whose MAC is `mac` to the board. False
    // without a board, without a known slot, for a MAC that is no known port
    // (nothing is sent then), or when the board did not take it.
    bool sendIpAddressInfo(const IPv4Address& address, const MacAddress& mac) const;
    bool sendIpAddressInfo(const IPv6Address& address, const MacAddress& mac) const;

    // Sends the OS status event to the board; only machines of the
    // ALDERCROFT line (acSystem) do. True when the board took it.
    bool setOSStatus(AC_systemStatus status) const;

    // Sends the OS text (at most 127 characters reach the board) and the
    // platform text (at most 31). True when the board took both.
    bool setOSPlatformInfo(const std::string& osText, const std::string& platformText) const;

    // The board members. mmbIpv4_1 is the board's IPv4 address and
    // mmbIpv4_3 its mask; mmbIpv4_2 and mmbIpv4_4 are the second address
    // entry and its mask (an old board answers its only address for both
    // address members and its only mask for mmbIpv4_4).
    bool bladeSystem;
    bool acSystem;
    bool mmbNetworkInfoRead;
    bool extendedMmbInterface;
    uint32_t bladeSlot;  // 1-based; unknownSlot: not known
    std::map<uint32_t, MacAddress> macAddresses;  // port number (1-based) -> MAC
    IPv4Address mmbIpv4_1;
    IPv4Address mmbIpv4_2;
    IPv4Address mmbIpv4_3;
    IPv4Address mmbIpv4_4;
    IPv6Address mmbIpv6_1;
    IPv6Address mmbIpv6_2;
    uint32_t mmbIpv6Prefix_1;
    uint32_t mmbIpv6Prefix_2;
    MacAddress mmbMacAddress;
};

#endif
