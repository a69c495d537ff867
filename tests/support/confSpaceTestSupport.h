// Shared by the configuration-space tests (the library's QelConfSpaceData and
// the simulated configuration space): the OEM configuration-space requests
// (0x2E/0xE0) spelled out byte for byte, independently of the library's and
// the simulator's own encoders, so a slip in either one shows.
#ifndef QEL_TEST_CONF_SPACE_SUPPORT_H
#define QEL_TEST_CONF_SPACE_SUPPORT_H

#include <cstdint>
#include <string>

#include "qelSimBmc.h"

namespace confSpaceTest {

using qelSim::Bytes;

// The vendor IANA number, least significant byte first.
constexpr unsigned char iana0 = 0xD9, iana1 = 0x7E, iana2 = 0x00;

// Read variable `id`: IANA, 0x01, 0x00, id (2 bytes, least significant first).
inline Bytes readRequest(std::uint16_t id) {
    return {iana0, iana1, iana2, 0x01, 0x00, static_cast<unsigned char>(id & 0xFF),
            static_cast<unsigned char>(id >> 8)};
}

// Write `value` to variable `id`: IANA, 0x02, 0x00, id, length, value.
inline Bytes writeRequest(std::uint16_t id, const Bytes& value) {
    Bytes out = {iana0, iana1, iana2, 0x02, 0x00, static_cast<unsigned char>(id & 0xFF),
                 static_cast<unsigned char>(id >> 8), static_cast<unsigned char>(value.size())};
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

inline Bytes textBytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

}  // namespace confSpaceTest

#endif
