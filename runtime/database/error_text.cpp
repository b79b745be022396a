// Texts of failures, and the end of a process that must not go on.
#include "runtime/database/error_text.h"

#include "runtime/export.h"

#include <loom_runtime/runtime.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace loom {
namespace {
std::string formatted(const char* format, va_list arguments) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    return text;
}
} // namespace

std::string& error_text() {
    thread_local std::string text;
    return text;
}

unsigned fail(unsigned number, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    error_text() = formatted(format, arguments);
    va_end(arguments);
    return number;
}

void fatal(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::fprintf(stderr, "loom runtime: %s\n", formatted(format, arguments).c_str());
    va_end(arguments);
    std::abort();
}

std::string words_of(int number) { return std::strerror(number); }

} // namespace loom

LOOM_EXPORT const char* loom_error_text(void) { return loom::error_text().c_str(); }
