// The shape shared by every error class of the library.
//
// Each component throws its own class, named after the component with "Error"
// behind it. All of them derive directly from std::logic_error (none derives
// from another error class, so a handler for one component never catches
// another's) and carry, in this order: the source file that threw, the line of
// the throw, and the text. The std::logic_error base never holds the message:
// it holds "" (or "errm" for one constructor of QelIpmiError), so code that
// wants the message reads errorText.
//
// The classes are declared with their components through the macros below, so
// the layout is written once and cannot drift between components.
#ifndef QEL_ERROR_H
#define QEL_ERROR_H

#include <stdexcept>
#include <string>

#include "qelExport.h"

namespace qelError {

// "Error: " message "(" file sep line ")" and a line feed. QelIpmiError uses
// "," as the separator and PniAccessError ", "; callers parse neither, but the
// two texts are compared verbatim by the tools that read the logs.
QEL_EXPORT std::string composeText(const std::string& message, const std::string& file,
                                   unsigned int line, const char* separator);

// The text of the four-argument constructors: the decimal number is written
// over the start of the message (an output stream opened over a copy of the
// message, write position at the start). "reply message has wrong type: " with
// 4 gives "4eply message has wrong type: ". Callers that want the number behind
// the message append strerror() themselves and use the three-argument form.
QEL_EXPORT std::string overwriteWithNumber(const std::string& message, int number);

}  // namespace qelError

// Declares an error class with the three-argument constructor.
#define QEL_DECLARE_ERROR(Name)                                                       \
    class QEL_EXPORT Name : public std::logic_error {                                 \
    public:                                                                           \
        std::string fileName;                                                         \
        unsigned int lineNumber;                                                      \
        std::string errorText;                                                        \
        Name(const std::string& message, const std::string& file, const unsigned int& line); \
        Name(const Name& other);                                                      \
        ~Name() override;                                                             \
    }

// Declares an error class that also has the four-argument (error number) form.
#define QEL_DECLARE_ERROR_WITH_ERRNO(Name)                                            \
    class QEL_EXPORT Name : public std::logic_error {                                 \
    public:                                                                           \
        std::string fileName;                                                         \
        unsigned int lineNumber;                                                      \
        std::string errorText;                                                        \
        Name(const std::string& message, const std::string& file, const unsigned int& line); \
        Name(const std::string& message, const std::string& file, const unsigned int& line, \
             const int& errorNumber);                                                 \
        Name(const Name& other);                                                      \
        ~Name() override;                                                             \
    }

// Definitions, for the component's .cpp. TEXT is an expression over `message`,
// `file` and `line` giving errorText of the three-argument form.
#define QEL_DEFINE_ERROR_COMMON(Qualified, Base3, TEXT)                               \
    Qualified::Qualified(const std::string& message, const std::string& file,         \
                         const unsigned int& line)                                    \
        : std::logic_error(Base3), fileName(file), lineNumber(line), errorText(TEXT) {} \
    Qualified::Qualified(const Qualified& other)                                      \
        : std::logic_error(other), fileName(other.fileName), lineNumber(other.lineNumber), \
          errorText(other.errorText) {}                                               \
    Qualified::~Qualified() = default;

#define QEL_DEFINE_ERROR(Qualified) QEL_DEFINE_ERROR_COMMON(Qualified, "", message)

#define QEL_DEFINE_ERROR_ERRNO_FORM(Qualified)                                        \
    Qualified::Qualified(const std::string& message, const std::string& file,         \
                         const unsigned int& line, const int& errorNumber)            \
        : std::logic_error(""), fileName(file), lineNumber(line),                     \
          errorText(qelError::overwriteWithNumber(message, errorNumber)) {}

#define QEL_DEFINE_ERROR_WITH_ERRNO(Qualified)                                        \
    QEL_DEFINE_ERROR(Qualified)                                                       \
    QEL_DEFINE_ERROR_ERRNO_FORM(Qualified)

// Throws a component error with the file and line of the throw site. The file
// is the component's own name, as the logs have always shown it.
#define QEL_THROW(ErrorClass, message) throw ErrorClass((message), QEL_SOURCE_NAME, __LINE__)

#endif
