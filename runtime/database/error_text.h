// Failures in words: every entry point of the runtime that fails leaves a text for its thread. Faults that no
// caller can answer end the process here.
#pragma once

#include <string>

namespace loom {

/// The text of this thread's latest failure.
std::string& error_text();

/// Stores a printf-formatted text for this thread and returns `number`.
unsigned fail(unsigned number, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Prints a printf-formatted text to the standard error stream and aborts.
[[noreturn]] void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The words for an errno value.
std::string words_of(int number);

} // namespace loom
