#include "qelBladeInfo.h"

QEL_DEFINE_ERROR(QelBladeInfoError)
