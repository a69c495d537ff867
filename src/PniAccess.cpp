#include "PniAccess.h"

QEL_DEFINE_ERROR_COMMON(PniAccessError, "", qelError::composeText(message, file, line, ", "))
