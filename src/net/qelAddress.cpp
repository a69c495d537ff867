#include "qelAddress.h"

#include <netinet/in.h>

#include <cstring>
#include <sstream>

namespace {

void parseDotted(const std::string& text, uint8_t (&octets)[4]) {
    // A failed extraction leaves 0 behind (and stops the rest), so a text
    // that is no address at all becomes 0.0.0.0 without complaint.
    unsigned int a = 0, b = 0, c = 0, d = 0;
    char separator = 0;
    std::istringstream stream(text);
    stream >> std::dec >> a >> separator >> b >> separator >> c >> separator >> d;
    octets[0] = static_cast<uint8_t>(a & 0xFF);
    octets[1] = static_cast<uint8_t>(b & 0xFF);
    octets[2] = static_cast<uint8_t>(c & 0xFF);
    octets[3] = static_cast<uint8_t>(d & 0xFF);
}

}  // namespace

IPv4Address::IPv4Address(std::string text) { parseDotted(text, octets); }

IPv4Address& IPv4Address::operator=(const char* text) {
    parseDotted(std::string(text), octets);
    return *this;
}

IPv4Address& IPv4Address::operator=(const unsigned char* bytes) {
    std::memcpy(octets, bytes, sizeof octets);
    return *this;
}

bool IPv4Address::operator==(const IPv4Address& other) const {
    return std::memcmp(octets, other.octets, sizeof octets) == 0;
}

IPv6Address::IPv6Address(const unsigned char* bytes) {
    for (int i = 0; i < 16; ++i) {
        reversedBytes[i] = bytes[15 - i];
        networkBytes[i] = bytes[i];
    }
}

IPv6Address::IPv6Address(const in6_addr& address) : IPv6Address(address.s6_addr) {}

IPv6Address::IPv6Address(const IPv6Address& other) {
    for (int i = 0; i < 16; ++i) {
        reversedBytes[i] = other.reversedBytes[i];
        networkBytes[i] = other.reversedBytes[15 - i];
    }
}

IPv6Address& IPv6Address::operator=(const IPv6Address& other) {
    std::memmove(reversedBytes, other.reversedBytes, sizeof reversedBytes);
    return *this;
}

// Walks from the last address byte to the first. A zero byte resets the count,
// a partial mask byte sets it, 0xFF adds eight, anything else is skipped. For a
// contiguous mask that is the prefix length; for other masks the result is
// what the board and the PNI records have always been given, so it stays.
unsigned int IPv6Address::getNumberOfLeadingOnes() const {
    unsigned int count = 0;
    for (uint8_t byte : reversedBytes) {
        switch (byte) {
        case 0x00: count = 0; break;
        case 0x80: count = 1; break;
        case 0xC0: count = 2; break;
        case 0xE0: count = 3; break;
        case 0xF0: count = 4; break;
        case 0xF8: count = 5; break;
        case 0xFC: count = 6; break;
        case 0xFE: count = 7; break;
        case 0xFF: count += 8; break;
        default: break;
        }
    }
    return count;
}

bool IPv6Address::operator==(const IPv6Address& other) const {
    return std::memcmp(reversedBytes, other.reversedBytes, sizeof reversedBytes) == 0;
}
