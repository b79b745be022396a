#include "failure.h"

#include <loom_runtime/runtime.h>

#include <cstring>

namespace tool {

failure runtime_failure(const std::string& cure) {
    const std::string text = loom_error_text();
    const std::size_t end = text.rfind("; ");
    return end == std::string::npos ? failure(text, cure) : failure(text.substr(0, end), text.substr(end + 2));
}

std::string error_number_text(unsigned number) {
    return std::to_string(number) + " (" + std::strerror(static_cast<int>(number)) + ")";
}

} // namespace tool
