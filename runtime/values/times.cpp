// The time types: kinds and exports. Their text is ISO 8601; what its years 0000 to 9999 cannot say (or a clock
// cannot show) stands as plain numbers behind an "@", so that every value has a text that reads back.
//
//   calendar_time  2024-02-29T12:30:00.5+01:00   @seconds,nanoseconds,offset
//   timestamp      2024-02-29T11:30:00.500Z      @milliseconds
#include "frame/big_endian.h"
#include "runtime/values/exports.h"
#include "runtime/values/iso_time.h"
#include "runtime/values/number_text.h"

#include <cinttypes>
#include <cstdio>

namespace loom {
namespace {

struct calendar_kind {
    using type = calendar_time;
    static constexpr u32 wire_limit = 8 + 4 + 2;
    static constexpr size_t text_limit = 64;

    static u32 wire_size(const type&) { return wire_limit; }
    static void write(u8* out, const type& value) {
        store_big_endian(out, static_cast<u64>(value.seconds));
        store_big_endian(out + 8, value.nanoseconds);
        store_big_endian(out + 12, static_cast<u16>(value.utc_offset));
    }
    static read_result read(const u8* in, u32 room, type& value) {
        if (room < wire_limit) return {0, LOOM_EMSGSIZE};
        value.seconds = static_cast<i64>(load_big_endian<u64>(in));
        value.nanoseconds = load_big_endian<u32>(in + 8);
        value.utc_offset = static_cast<i16>(load_big_endian<u16>(in + 12));
        return {wire_limit, 0};
    }
    static size_t format(char* text, const type& value) {
        const iso_time time{value.seconds, value.nanoseconds, value.utc_offset};
        if (is_expressible(time)) return format_iso(text, time, fraction::as_needed);
        return static_cast<size_t>(std::snprintf(text, text_limit, "@%" PRId64 ",%" PRIu32 ",%" PRId16,
                                                 value.seconds, value.nanoseconds, value.utc_offset));
    }
    static bool parse(std::string_view text, type& value) {
        if (text.starts_with('@')) {
            const size_t first = text.find(',');
            const size_t second = text.find(',', first == text.npos ? first : first + 1);
            return second != text.npos && parse_integer(text.substr(1, first - 1), value.seconds) &&
                   parse_integer(text.substr(first + 1, second - first - 1), value.nanoseconds) &&
                   parse_integer(text.substr(second + 1), value.utc_offset);
        }
        iso_time time;
        if (!parse_iso(text, time)) return false;
        value.seconds = time.seconds;
        value.nanoseconds = time.nanoseconds;
        value.utc_offset = static_cast<i16>(time.utc_offset);
        return true;
    }
    static i32 compare(const type& a, const type& b) {
        if (const i32 result = order(a.seconds, b.seconds)) return result;
        if (const i32 result = order(a.nanoseconds, b.nanoseconds)) return result;
        return order(a.utc_offset, b.utc_offset);
    }
    static u32 hash(const type& value, u32 seed) { return hash_of_wire_form<calendar_kind>(value, seed); }
};

struct timestamp_kind {
    using type = timestamp;
    static constexpr size_t text_limit = 40;
    static constexpr u64 per_second = 1000;
    static constexpr u32 nanoseconds_per_unit = 1'000'000;

    static u64 milliseconds(const type& value) { return u64{value.high} << 32 | value.low; }
    static void set_milliseconds(type& value, u64 count) {
        value.high = static_cast<u32>(count >> 32);
        value.low = static_cast<u32>(count);
    }

    static u32 wire_size(const type&) { return sizeof(u64); }
    static void write(u8* out, const type& value) { store_big_endian(out, milliseconds(value)); }
    static read_result read(const u8* in, u32 room, type& value) {
        if (room < sizeof(u64)) return {0, LOOM_EMSGSIZE};
        set_milliseconds(value, load_big_endian<u64>(in));
        return {sizeof(u64), 0};
    }
    static size_t format(char* text, const type& value) {
        const u64 count = milliseconds(value);
        const iso_time time{static_cast<i64>(count / per_second),
                            static_cast<u32>(count % per_second) * nanoseconds_per_unit, 0};
        if (is_expressible(time)) return format_iso(text, time, fraction::milliseconds);
        return static_cast<size_t>(std::snprintf(text, text_limit, "@%" PRIu64, count));
    }
    static bool parse(std::string_view text, type& value) {
        u64 count = 0;
        if (text.starts_with('@')) {
            if (!parse_integer(text.substr(1), count)) return false;
        } else {
            iso_time time;
            if (!parse_iso(text, time) || time.seconds < 0 || time.nanoseconds % nanoseconds_per_unit)
                return false;
            count = static_cast<u64>(time.seconds) * per_second + time.nanoseconds / nanoseconds_per_unit;
        }
        set_milliseconds(value, count);
        return true;
    }
    static i32 compare(const type& a, const type& b) { return order(milliseconds(a), milliseconds(b)); }
    static u32 hash(const type& value, u32 seed) { return SuperFastHash(&value, sizeof value, seed); }
};
} // namespace
} // namespace loom

using namespace loom;

EXPORT_IN_PLACE(calendar_time, calendar_kind)
EXPORT_IN_PLACE(timestamp, timestamp_kind)
