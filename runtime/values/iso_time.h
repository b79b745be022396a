// Dates and times as ISO 8601 text and back. Used by the time types and by the time stamps of recordings.
#pragma once

#include "frame/basic_types.h"

#include <string_view>

namespace loom {
using namespace trellis;

/// A point in time with the offset of the clock that tells it.
struct iso_time {
    i64 seconds = 0;     ///< since 1970-01-01T00:00:00Z
    u32 nanoseconds = 0; ///< below 1,000,000,000
    i32 utc_offset = 0;  ///< minutes
};

enum class fraction {
    as_needed,    ///< up to 9 digits, none for whole seconds
    milliseconds, ///< always 3
};

/// No ISO text is longer.
constexpr size_t iso_text_limit = 40;

/// True for what ISO 8601 can say: years 0000 to 9999, offsets of less than a day.
bool is_expressible(const iso_time& time);
/// Writes at most iso_text_limit characters of an expressible time; returns their number.
size_t format_iso(char* text, const iso_time& time, fraction digits);
/// Reads YYYY-MM-DDThh:mm:ss, up to 9 fraction digits, and "Z", "+hh:mm", "-hh:mm" or nothing (UTC).
bool parse_iso(std::string_view text, iso_time& time);
} // namespace loom
