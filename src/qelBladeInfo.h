// Blade systems: reporting to the management board.
#ifndef QEL_BLADE_INFO_H
#define QEL_BLADE_INFO_H

#include "qelError.h"

// The blade information's error type; it exists for catching.
QEL_DECLARE_ERROR(QelBladeInfoError);

#endif
