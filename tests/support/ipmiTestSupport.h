// Helpers for tests that drive the IPMI transport directly: the bytes of a
// request's response, and the QelIpmiError a call throws.
#ifndef QEL_TEST_IPMI_SUPPORT_H
#define QEL_TEST_IPMI_SUPPORT_H

#include <gtest/gtest.h>

#include "qelIpmi.h"
#include "qelSimBmc.h"

namespace ipmiTest {

// The response of `msg`, completion code first; empty when it has none.
inline qelSim::Bytes responseOf(const qelIpmi::QelIpmi_request_msg& msg) {
    if (msg.responseData == nullptr) return {};
    return qelSim::Bytes(msg.responseData, msg.responseData + msg.responseLength);
}

// Runs `body` and returns the QelIpmiError it throws; fails the test if none
// comes.
template <typename F>
qelIpmi::QelIpmiError thrownBy(F body) {
    try {
        body();
    } catch (qelIpmi::QelIpmiError& e) {
        return e;
    }
    ADD_FAILURE() << "no QelIpmiError was thrown";
    return qelIpmi::QelIpmiError("none", "none", 0);
}

}  // namespace ipmiTest

#endif
