// Failures in words: each one leaves a number and a text for its thread, which loom_error_text hands out. Faults
// that no caller can answer end the process here.
//
// Entry points of <loom_runtime/...> clear the text when they succeed: they return done(). Operations that bundles
// call set it when they fail and leave it alone otherwise: no accessor pays for it.
#pragma once

#include <string>

struct loom_handle;

namespace loom {

/// The text of this thread's latest failure; empty when there is none.
std::string error_text();

/// Stores a printf-formatted text for this thread and returns `number`.
unsigned fail(unsigned number, const char* format, ...) __attribute__((format(printf, 2, 3)));
/// The same for a step whose caller, often a bundle, is going to report the number by loom_store_err.
unsigned explain(unsigned number, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// The same for an operation with an error word: the number goes there and into the handle's error slot.
void fail(loom_handle* handle, unsigned* err, unsigned number, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
/// The same with the words that the failing step has left.
void set_error(loom_handle* handle, unsigned* err, unsigned number);

/// Somebody reports `number`, `again` what the handle's slot holds already. The text that belongs to it stays; a
/// number that came without one gets its meaning as text.
void remember_reported_error(unsigned number, bool again);

void clear_error_text();
/// What a successful entry point returns.
inline unsigned done() {
    clear_error_text();
    return 0;
}
/// What an entry point returns whose steps have told why they failed.
inline unsigned done(unsigned error) { return error ? error : done(); }
template <class T>
T* done(T* made) {
    if (made) clear_error_text();
    return made;
}

/// Prints a printf-formatted text to the standard error stream and aborts.
[[noreturn]] void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The words for an errno value.
std::string words_of(int number);
/// The same, and behind a semicolon what can be done about it where that is known of a file.
std::string words_and_cure_of(int number);

} // namespace loom
