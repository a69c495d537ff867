#include "qelError.h"

#include <sstream>

namespace qelError {

std::string composeText(const std::string& message, const std::string& file, unsigned int line,
                        const char* separator) {
    std::ostringstream out;
    out << "Error: " << message << "(" << file << separator << line << ")" << std::endl;
    return out.str();
}

std::string overwriteWithNumber(const std::string& message, int number) {
    // Plain output mode: the stream starts writing at position 0 of the copy,
    // so the digits replace the first characters instead of being appended.
    std::ostringstream out(message, std::ios_base::out);
    out << number;
    return out.str();
}

}  // namespace qelError
