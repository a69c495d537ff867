// PNI port records in the controller's FRU storage.
#ifndef PNI_ACCESS_H
#define PNI_ACCESS_H

#include "qelError.h"

// Composes "Error: msg(file, line)\n", with a blank after the comma where
// QelIpmiError has none. Both forms appear in existing logs; keep them apart.
QEL_DECLARE_ERROR(PniAccessError);

#endif
