// Address value types carried between the interface inventory, the PNI port
// records, the blade reporting and the configuration-space variables.
//
// All three are plain copyable values: no heap storage, no virtual operations.
// - IPv4Address: four octets in network order (octets[0] is the first number
//   of the dotted form); the same layout as in_addr::s_addr, so a raw s_addr
//   may be copied into it byte for byte.
// - IPv6Address: the address twice. `reversedBytes` (element 0 = last byte)
//   is authoritative and is what equality looks at; `networkBytes` is a
//   network-order copy. Assignment copies only `reversedBytes`, the copy
//   constructor rebuilds `networkBytes`: code that reads the network-order
//   copy must read it from a copy-constructed value (for example one taken out
//   of a container), not from an assignment target.
// - MacAddress: six bytes in wire order, no operations of its own.
#ifndef QEL_ADDRESS_H
#define QEL_ADDRESS_H

#include <cstdint>
#include <string>

#include "qelExport.h"

struct in6_addr;

class QEL_EXPORT IPv4Address {
public:
    uint8_t octets[4] = {0, 0, 0, 0};

    IPv4Address() = default;
    // Parses "a.b.c.d" leniently: any single character separates the numbers,
    // each number is truncated to its low 8 bits, nothing after the fourth
    // number is looked at, and what cannot be read stays 0. Never fails: the
    // configuration space and the board hand us texts we must not reject.
    IPv4Address(std::string text);  // NOLINT: implicit on purpose, as a value type

    // Parses like the constructor.
    IPv4Address& operator=(const char* text);
    // Copies four raw bytes, network order (e.g. an in_addr's s_addr).
    IPv4Address& operator=(const unsigned char* bytes);

    bool operator==(const IPv4Address& other) const;
    bool operator!=(const IPv4Address& other) const { return !(*this == other); }
};

class QEL_EXPORT IPv6Address {
public:
    // Authoritative value, reversed: reversedBytes[0] is the last address byte.
    uint8_t reversedBytes[16] = {};
    // Network-order copy: networkBytes[0] is the first address byte.
    uint8_t networkBytes[16] = {};

    // The unspecified address ::.
    IPv6Address() = default;
    // `bytes` points at sixteen bytes in network order.
    explicit IPv6Address(const unsigned char* bytes);
    explicit IPv6Address(const in6_addr& address);
    // Copies the authoritative array and rebuilds the network-order copy.
    IPv6Address(const IPv6Address& other);
    // Copies the authoritative array only; the target's network-order copy
    // keeps what it had. Kept this way because publishers read the
    // network-order copy only from values copied out of containers.
    IPv6Address& operator=(const IPv6Address& other);

    // Prefix length of a netmask (see the .cpp for the exact, lenient rule).
    [[nodiscard]] unsigned int getNumberOfLeadingOnes() const;

    // Compares the authoritative array only.
    bool operator==(const IPv6Address& other) const;
    bool operator!=(const IPv6Address& other) const { return !(*this == other); }
};

struct MacAddress {
    uint8_t bytes[6] = {0, 0, 0, 0, 0, 0};
};

#endif
