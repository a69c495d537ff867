// The host's complete network inventory, read from rtnetlink alone.
//
// One RTM_GETLINK dump gives the interfaces, one RTM_GETADDR dump (both
// families) their addresses. Unlike qelIp::QelIp, which keeps the agent's
// historic view (one IPv4 address per interface, at most 513 entries), this
// inventory lists every interface and every address the kernel holds, with
// secondaries, labels, IPv6 scope and flags, and never fails because of what
// the host is configured with.
//
// Promises:
// - The socket calls (socket, getsockname, send, recv, close) go through
//   qelPlatform::platform(), so a test can feed crafted netlink data.
// - Sequence numbers and the kernel's port id are checked; a dump the kernel
//   interrupted (NLM_F_DUMP_INTR) is read again, a bounded number of times,
//   and then reported; a truncated or malformed message is an error, and no
//   byte outside what the kernel returned is ever read. The receive buffer is
//   sized by peeking at each datagram (MSG_PEEK | MSG_TRUNC).
// - No cap on the number of interfaces or addresses.
// - On failure the constructor throws QelHostInventoryError with a text that
//   names what failed; nothing half-read is ever returned.
// - Interfaces are in ascending index order; addresses of one family in the
//   order the kernel dumped them (the primary IPv4 address comes first).
#ifndef QEL_HOST_INVENTORY_H
#define QEL_HOST_INVENTORY_H

#include <cstdint>
#include <string>
#include <vector>

#include "qelAddress.h"
#include "qelError.h"
#include "qelExport.h"

namespace qelHostInventory {

QEL_DECLARE_ERROR(QelHostInventoryError);

struct QEL_EXPORT Ipv4AddressEntry {
    IPv4Address address;         // IFA_LOCAL (IFA_ADDRESS where there is none)
    unsigned int prefixLength = 0;
    bool hasBroadcast = false;
    IPv4Address broadcast;       // IFA_BROADCAST, when hasBroadcast
    std::string label;           // IFA_LABEL ("eth0:1"); the interface name when none
    bool secondary = false;      // IFA_F_SECONDARY

    bool operator==(const Ipv4AddressEntry& other) const;
    bool operator!=(const Ipv4AddressEntry& other) const { return !(*this == other); }
};

struct QEL_EXPORT Ipv6AddressEntry {
    // Kernel scopes (RT_SCOPE_*) as rtnetlink reports them.
    enum Scope : unsigned int { Universe = 0, Site = 200, Link = 253, Host = 254 };

    // Built by IPv6Address's constructors only, never assigned into, so its
    // network-order copy is always current (assignment copies only the
    // reversed bytes).
    IPv6Address address;
    unsigned int prefixLength = 0;
    unsigned int scope = Universe;
    std::uint32_t flags = 0;     // IFA_F_* (IFA_FLAGS when present, else ifa_flags)

    [[nodiscard]] bool tentative() const;
    [[nodiscard]] bool deprecated() const;
    [[nodiscard]] bool temporary() const;
    [[nodiscard]] bool dadFailed() const;
    [[nodiscard]] bool permanent() const;
    // Neither tentative nor dadfailed: an address the host really answers on.
    [[nodiscard]] bool publishable() const;

    bool operator==(const Ipv6AddressEntry& other) const;
    bool operator!=(const Ipv6AddressEntry& other) const { return !(*this == other); }
};

struct QEL_EXPORT Interface {
    int index = 0;
    std::string name;
    bool hasMac = false;         // IFLA_ADDRESS of six bytes
    MacAddress mac;
    unsigned int mtu = 0;
    unsigned int flags = 0;      // IFF_* from ifi_flags
    std::vector<Ipv4AddressEntry> ipv4;
    std::vector<Ipv6AddressEntry> ipv6;

    [[nodiscard]] bool up() const;
    [[nodiscard]] bool running() const;
    [[nodiscard]] bool loopback() const;
    [[nodiscard]] bool pointToPoint() const;

    // The first address that is not a secondary; nullptr when there is none.
    [[nodiscard]] const Ipv4AddressEntry* primaryIpv4() const;
    // The IPv6 addresses that are publishable(), in dump order.
    [[nodiscard]] std::vector<Ipv6AddressEntry> publishableIpv6() const;

    bool operator==(const Interface& other) const;
    bool operator!=(const Interface& other) const { return !(*this == other); }
};

class QEL_EXPORT QelHostInventory {
public:
    // Reads the kernel's interfaces and addresses now. Throws
    // QelHostInventoryError when the dumps cannot be read.
    QelHostInventory();
    // An inventory of given interfaces (sorted by index here); for callers
    // that compare or filter, and for tests.
    explicit QelHostInventory(std::vector<Interface> interfaces);

    [[nodiscard]] const std::vector<Interface>& interfaces() const { return interfaces_; }
    // nullptr when no interface has that index or name.
    [[nodiscard]] const Interface* find(int index) const;
    [[nodiscard]] const Interface* findByName(const std::string& name) const;
    // Interfaces whose MAC is `mac`, in index order (a bond and its slaves
    // share one).
    [[nodiscard]] std::vector<const Interface*> findByMac(const MacAddress& mac) const;

    // Field-by-field equality of everything listed: "did anything change".
    bool operator==(const QelHostInventory& other) const;
    bool operator!=(const QelHostInventory& other) const { return !(*this == other); }

    // How often a dump interrupted by a change is read again before the
    // inventory gives up.
    static constexpr int maxDumpAttempts = 5;

private:
    std::vector<Interface> interfaces_;
};

}  // namespace qelHostInventory

#endif
