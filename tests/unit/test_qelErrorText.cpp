// The text of an exception: every library error class gives its errorText,
// anything else what().
#include "qelErrorText.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "PniAccess.h"
#include "qelAccessControl.h"
#include "qelBladeInfo.h"
#include "qelCondQueue.h"
#include "qelConfSpaceData.h"
#include "qelHostInventory.h"
#include "qelIp.h"
#include "qelIpmi.h"
#include "qelIpmiWatchdog.h"
#include "qelSdrRecord.h"
#include "qelSel.h"
#include "qelSensors.h"
#include "qelSystemInfo.h"

namespace {

template <typename Error>
void expectTextOf(const char* name) {
    const Error error("something failed", "component", 12);
    const std::exception& base = error;
    EXPECT_EQ(qelError::textOf(base), error.errorText) << name;
    EXPECT_NE(qelError::textOf(base), "") << name;
}

TEST(ErrorTextOf, EveryLibraryErrorGivesItsErrorText) {
    expectTextOf<qelIpmi::QelIpmiError>("QelIpmiError");
    expectTextOf<qelIpmi::QelIpmiLanError>("QelIpmiLanError");
    expectTextOf<qelIpmi::QelIpmiWatchdogError>("QelIpmiWatchdogError");
    expectTextOf<PniAccessError>("PniAccessError");
    expectTextOf<qelIp::QelIpError>("QelIpError");
    expectTextOf<qelSystemInfo::QelSystemInfoError>("QelSystemInfoError");
    expectTextOf<QelConfSpaceDataError>("QelConfSpaceDataError");
    expectTextOf<QelBladeInfoError>("QelBladeInfoError");
    expectTextOf<QelCondQueueError>("QelCondQueueError");
    expectTextOf<QelAccessControlError>("QelAccessControlError");
    expectTextOf<qelHostInventory::QelHostInventoryError>("QelHostInventoryError");
    expectTextOf<qelSdr::QelSdrError>("QelSdrError");
    expectTextOf<qelSel::QelSelError>("QelSelError");
    expectTextOf<qelSensors::QelSensorError>("QelSensorError");
}

TEST(ErrorTextOf, AnyOtherExceptionGivesWhat) {
    EXPECT_EQ(qelError::textOf(std::runtime_error("IPMI access has failed.")), "IPMI access has failed.");
    EXPECT_EQ(qelError::textOf(std::logic_error("new (nothrow) QelBladeInfo() failed")),
              "new (nothrow) QelBladeInfo() failed");
}

}  // namespace
