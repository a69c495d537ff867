#include "qelConfSpaceData.h"

QEL_DEFINE_ERROR(QelConfSpaceDataError)
