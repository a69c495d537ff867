// The text of any exception the library throws, taken in one place.
//
// The library's error classes keep their message in errorText and give
// std::exception::what() only "" (or "errm"); this is the one place that
// knows every one of them, so the agents, qeld and qelctl log and show the
// same text. It lives apart from qelError.h, which every component includes,
// because it has to include every component in turn.
#ifndef QEL_ERROR_TEXT_H
#define QEL_ERROR_TEXT_H

#include <exception>
#include <string>

#include "qelExport.h"

namespace qelError {

// errorText for the library's error classes, what() for anything else; the
// text as it stands (some end in a line feed).
QEL_EXPORT std::string textOf(const std::exception& error);

}  // namespace qelError

#endif
