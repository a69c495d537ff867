// The controller's watchdog timer.
#ifndef QEL_IPMI_WATCHDOG_H
#define QEL_IPMI_WATCHDOG_H

#include "qelError.h"

namespace qelIpmi {

// A failed Get Watchdog Timer; the watchdog catches it itself.
QEL_DECLARE_ERROR(QelIpmiWatchdogError);

}  // namespace qelIpmi

#endif
