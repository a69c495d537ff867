// Shared by the tests of the management board (the blade information and the
// simulated board): the port MACs the tests give the board, and the bytes
// they expect of it.
#ifndef QEL_TEST_BOARD_SUPPORT_H
#define QEL_TEST_BOARD_SUPPORT_H

#include "qelSimBmc.h"
#include "qelSimBoard.h"

namespace boardTest {

using qelSim::Bytes;
using qelSim::SimBoard;

// Locally administered, one per port number.
inline const SimBoard::Mac mac1{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
inline const SimBoard::Mac mac2{0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
inline const SimBoard::Mac mac3{0x02, 0x00, 0x00, 0x00, 0x00, 0x03};
inline const SimBoard::Mac mac4{0x02, 0x00, 0x00, 0x00, 0x00, 0x04};

inline Bytes bytesOf(const SimBoard::Mac& m) { return Bytes(m.begin(), m.end()); }

// `a` followed by `b`: an answer's head and a MAC or address behind it.
inline Bytes cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

}  // namespace boardTest

#endif
