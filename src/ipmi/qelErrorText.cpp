#include "qelErrorText.h"

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

namespace qelError {

namespace {

template <typename Error>
bool takeErrorText(const std::exception& error, std::string& text) {
    const auto* own = dynamic_cast<const Error*>(&error);
    if (own == nullptr) return false;
    text = own->errorText;
    return true;
}

}  // namespace

std::string textOf(const std::exception& error) {
    std::string text;
    if (takeErrorText<qelIpmi::QelIpmiError>(error, text) || takeErrorText<qelIpmi::QelIpmiLanError>(error, text) ||
        takeErrorText<qelIpmi::QelIpmiWatchdogError>(error, text) || takeErrorText<PniAccessError>(error, text) ||
        takeErrorText<qelIp::QelIpError>(error, text) ||
        takeErrorText<qelSystemInfo::QelSystemInfoError>(error, text) ||
        takeErrorText<QelConfSpaceDataError>(error, text) || takeErrorText<QelBladeInfoError>(error, text) ||
        takeErrorText<QelCondQueueError>(error, text) || takeErrorText<QelAccessControlError>(error, text) ||
        takeErrorText<qelHostInventory::QelHostInventoryError>(error, text) ||
        takeErrorText<qelSdr::QelSdrError>(error, text) || takeErrorText<qelSel::QelSelError>(error, text) ||
        takeErrorText<qelSensors::QelSensorError>(error, text))
        return text;
    return error.what();
}

}  // namespace qelError
