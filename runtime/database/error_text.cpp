// Texts of failures, and the end of a process that must not go on.
#include "runtime/database/error_text.h"

#include "runtime/export.h"

#include <loom_runtime/runtime.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace loom {
namespace {
/// A thread's latest failure. The text of a number that came without one is made when somebody asks for it.
struct latest_failure {
    unsigned number = 0;
    bool reported = false; ///< nobody is expected to report the number any more
    char text[1024] = "";
};
thread_local latest_failure latest;

/// What the numbers of operations with an error word mean, for those who have to do something about it.
const char* meaning_of(unsigned number) {
    switch (number) {
    case LOOM_EPERM: return "this is not allowed here";
    case LOOM_ENOENT: return "what was asked for, or what the operation needs, is not there";
    case LOOM_ENOMEM: return "no memory";
    case LOOM_EFAULT: return "there is no place for the result";
    case LOOM_EEXIST: return "it is there already";
    case LOOM_EINVAL: return "an argument is not valid";
    case LOOM_ENOSYS: return "nobody handles it";
    case LOOM_EIDRM: return "it lies beyond the variant of the instance";
    case LOOM_EBADE: return "the peer does not know it";
    case LOOM_EMSGSIZE: return "the buffer is too short";
    default: return std::strerror(static_cast<int>(number));
    }
}

const char* text_of(latest_failure& failure) {
    if (failure.number && !*failure.text)
        std::snprintf(failure.text, sizeof failure.text, "error %u: %s", failure.number,
                      meaning_of(failure.number));
    return failure.text;
}

void store(unsigned number, bool reported, const char* format, va_list arguments) {
    // Not at once into its place: an argument may be the present text.
    char text[sizeof latest.text];
    std::vsnprintf(text, sizeof text, format, arguments);
    latest.number = number;
    latest.reported = reported;
    std::memcpy(latest.text, text, std::strlen(text) + 1);
}
} // namespace

std::string error_text() { return text_of(latest); }

void clear_error_text() {
    latest.number = 0;
    *latest.text = 0;
}

unsigned fail(unsigned number, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    store(number, true, format, arguments);
    va_end(arguments);
    return number;
}

unsigned explain(unsigned number, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    store(number, false, format, arguments);
    va_end(arguments);
    return number;
}

void fail(loom_handle* handle, unsigned* err, unsigned number, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    store(number, true, format, arguments);
    va_end(arguments);
    set_error(handle, err, number);
}

void set_error(loom_handle* handle, unsigned* err, unsigned number) {
    *err = number;
    remember_reported_error(number, true);
    if (handle) handle->last_error = number;
}

void remember_reported_error(unsigned number, bool again) {
    const bool same = latest.number == number && (again || !latest.reported);
    if (!same) *latest.text = 0;
    latest.number = number;
    latest.reported = true;
}

void fatal(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    std::fprintf(stderr, "loom runtime: %s\n", text);
    va_end(arguments);
    std::abort();
}

std::string words_of(int number) { return std::strerror(number); }

std::string words_and_cure_of(int number) {
    const char* cure = nullptr;
    switch (number) {
    case ENOSPC:
    case EDQUOT: cure = "make room on the disk"; break;
    case EFBIG: cure = "let the process make larger files (ulimit -f)"; break;
    case ENOMEM: cure = "let the process have more memory (ulimit -v), or end others"; break;
    case EMFILE: cure = "let the process have more files open (ulimit -n)"; break;
    case ENFILE: cure = "let the system have more files open (fs.file-max), or end processes"; break;
    case EACCES:
    case EPERM: cure = "get the right to write it, or open the database for reading only"; break;
    case EROFS: cure = "open the database for reading only, or copy it to where it can be written"; break;
    case EIO: cure = "look at the system's messages about the disk; restore the database from a backup"; break;
    case ENOENT: cure = "restore the database from a backup"; break;
    default: break;
    }
    return cure ? words_of(number) + "; " + cure : words_of(number);
}

} // namespace loom

LOOM_EXPORT const char* loom_error_text(void) { return loom::text_of(loom::latest); }
