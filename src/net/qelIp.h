// The network interface inventory: a snapshot of the host's interfaces taken
// when a qelIp::QelIp is constructed.
//
// - Interfaces come from SIOCGIFCONF (so only those with an IPv4 address), each
//   keyed by its interface index, with IPv4 address, netmask, broadcast, MAC,
//   MTU and flags; their IPv6 addresses come from getifaddrs.
// - operator== decides whether the agent publishes the addresses again; its
//   odd rules are relied on (see the .cpp) and must not be "fixed".
// - The accessors give zero values for index 0 and for unknown indexes, never
//   an error.
// - Every failure throws qelIp::QelIpError; a constructor that throws leaves
//   no object and releases what it had acquired.
// - All socket, ioctl, getifaddrs and netlink calls go through
//   qelPlatform::platform(), so tests can present crafted interfaces.
// One inventory belongs to one thread; there is no locking.
#ifndef QEL_IP_H
#define QEL_IP_H

#include <net/if.h>

#include <map>
#include <string>
#include <vector>

#include "qelAddress.h"
#include "qelError.h"
#include "qelExport.h"

namespace qelIp {

QEL_DECLARE_ERROR_WITH_ERRNO(QelIpError);

// One IPv6 address of an interface. Two records stand for the same address
// when their addresses' primary arrays are equal.
class QEL_EXPORT QelIpv6AddressInfo {
public:
    IPv6Address address;
    unsigned int prefixLength = 0;
    // 1 loopback, 2 multicast, 3 broadcast, 4 anycast, 5 link-local (or
    // netlink IFA_LOCAL), 6 other, 8 site-local, 10 IPv4-mapped,
    // 11 IPv4-compatible.
    unsigned int addressType = 0;
    // Free for a caller's own tag; the inventory always leaves it 0.
    unsigned int reserved = 0;

    QelIpv6AddressInfo() = default;
    QelIpv6AddressInfo(const IPv6Address& address, unsigned int prefixLength,
                       unsigned int addressType);

    [[nodiscard]] bool isSameAddress(const QelIpv6AddressInfo& other) const {
        return address == other.address;
    }
};

// One interface of the inventory.
class QEL_EXPORT QelIfParameter {
public:
    int position = -1;  // entry in the SIOCGIFCONF buffer; -1 when made from netlink data
    std::string name;
    IPv4Address ipv4Address;
    IPv4Address netmask;
    IPv4Address broadcastAddress;
    MacAddress macAddress;
    unsigned int mtu = 0;
    unsigned short flags = 0;  // ifr_flags
    bool hasIpv6 = false;
    std::vector<QelIpv6AddressInfo> ipv6Addresses;

    QelIfParameter() = default;
    QelIfParameter(int position, const std::string& name, const IPv4Address& ipv4Address);
};

class QEL_EXPORT QelIp {
public:
    using IfParameterMap = std::map<unsigned int, QelIfParameter>;

    QelIp();
    virtual ~QelIp();
    QelIp(const QelIp&) = delete;
    QelIp& operator=(const QelIp&) = delete;

    // Whether the agent's published addresses are still current. Deliberately
    // not a plain element-wise comparison: see the .cpp before relying on it.
    [[nodiscard]] bool operator==(const QelIp& other) const;

    // Re-reads the flags of one record (SIOCGIFFLAGS on its SIOCGIFCONF entry);
    // records made from netlink data are left alone, a failed ioctl gives 0.
    void updateFlags(IfParameterMap::iterator entry);

    // Adds the IPv6 addresses the kernel reports over NETLINK_ROUTE, creating
    // "noname" records for interfaces not yet listed. Nothing in the library
    // calls it; the constructor uses getifaddrs.
    void getIPv6AddrData();

    [[nodiscard]] bool isLoopback(unsigned int index) const;
    [[nodiscard]] IPv4Address getIpv4Address(unsigned int index) const;
    [[nodiscard]] unsigned int getNumberOfIpv6Addresses(unsigned int index) const;
    [[nodiscard]] QelIpv6AddressInfo getIpv6AddressInfo(unsigned int index, unsigned int n) const;
    [[nodiscard]] MacAddress getMacAddress(unsigned int index) const;

private:
    int socketFd = -1;  // AF_INET datagram socket for the interface ioctls

public:
    // Records inserted so far (SIOCGIFCONF entries and netlink-made ones);
    // operator== compares it first.
    unsigned int numberOfInterfaces = 0;

private:
    unsigned char* netlinkBuffer = nullptr;
    unsigned int netlinkBufferSize = 0;
    // Kept for the object's life: updateFlags issues its ioctl on the entry.
    struct ifconf ifc {};

public:
    // Keyed by interface index.
    IfParameterMap ifParameters;

private:
    void listInterfaces();
    void readInterfaceDetails();
    void readIpv6Addresses();
    void release() noexcept;
    const QelIfParameter* find(unsigned int index) const;
};

}  // namespace qelIp

#endif
