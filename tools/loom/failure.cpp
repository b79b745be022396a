#include "failure.h"

#include <cstring>

namespace tool {

std::string error_number_text(unsigned number) {
    return std::to_string(number) + " (" + std::strerror(static_cast<int>(number)) + ")";
}

} // namespace tool
