#include "qelIpmiWatchdog.h"

namespace qelIpmi {

QEL_DEFINE_ERROR(QelIpmiWatchdogError)

}  // namespace qelIpmi
