// The controller's configuration-space variables.
#ifndef QEL_CONF_SPACE_DATA_H
#define QEL_CONF_SPACE_DATA_H

#include "qelError.h"

// An unreadable watchdog variable; the reading operation catches it itself.
QEL_DECLARE_ERROR(QelConfSpaceDataError);

#endif
