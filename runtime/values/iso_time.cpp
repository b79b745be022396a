// ISO 8601: calendar arithmetic is the standard library's.
#include "runtime/values/iso_time.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace loom {
namespace {

constexpr i64 seconds_per_day = 86'400;
constexpr i32 minutes_per_day = 1'440;
constexpr i64 first_second = -62'167'219'200; // 0000-01-01T00:00:00
constexpr i64 last_second = 253'402'300'799;  // 9999-12-31T23:59:59

i64 local_seconds(const iso_time& time) { return time.seconds + time.utc_offset * i64{60}; }

/// Takes `count` digits off the front of a text.
class digit_reader {
  public:
    explicit digit_reader(std::string_view text) : rest_(text) {}

    u32 number(size_t count) {
        u32 value = 0;
        for (size_t i = 0; i < count; ++i)
            value = value * 10 + digit();
        return value;
    }
    void expect(char character) { good_ &= take(character); }
    bool take(char character) {
        if (!rest_.starts_with(character)) return false;
        rest_.remove_prefix(1);
        return true;
    }
    /// A fraction of a second in nanoseconds, 1 to 9 digits.
    u32 nanoseconds() {
        u32 value = 0;
        u32 digits = 0;
        for (; digits < 9 && at_digit(); ++digits)
            value = value * 10 + digit();
        good_ &= digits > 0;
        for (; digits < 9; ++digits)
            value *= 10;
        return value;
    }
    bool good() const { return good_; }
    bool at_end() const { return rest_.empty(); }

  private:
    bool at_digit() const { return !rest_.empty() && rest_[0] >= '0' && rest_[0] <= '9'; }
    u32 digit() {
        if (!at_digit()) {
            good_ = false;
            return 0;
        }
        const char c = rest_[0];
        rest_.remove_prefix(1);
        return static_cast<u32>(c - '0');
    }

    std::string_view rest_;
    bool good_ = true;
};
} // namespace

bool is_expressible(const iso_time& time) {
    if (time.nanoseconds >= 1'000'000'000 || time.utc_offset <= -minutes_per_day ||
        time.utc_offset >= minutes_per_day)
        return false;
    if (time.seconds < first_second - seconds_per_day || time.seconds > last_second + seconds_per_day)
        return false;
    return local_seconds(time) >= first_second && local_seconds(time) <= last_second;
}

size_t format_iso(char* text, const iso_time& time, fraction digits) {
    using namespace std::chrono;
    const sys_seconds local{seconds(local_seconds(time))};
    const sys_days day = floor<days>(local);
    const year_month_day date{day};
    const hh_mm_ss clock{local - day};
    char* at = text;
    const auto room = [&] { return static_cast<size_t>(text + iso_text_limit - at); };
    at += std::snprintf(at, room(), "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(date.year()),
                        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                        static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                        static_cast<int>(clock.seconds().count()));
    if (digits == fraction::milliseconds) {
        at += std::snprintf(at, room(), ".%03u", time.nanoseconds / 1'000'000);
    } else if (time.nanoseconds) {
        at += std::snprintf(at, room(), ".%09u", time.nanoseconds);
        while (at[-1] == '0')
            --at;
    }
    const i32 offset = std::abs(time.utc_offset);
    if (offset == 0)
        *at++ = 'Z';
    else
        at += std::snprintf(at, room(), "%c%02d:%02d", time.utc_offset < 0 ? '-' : '+', offset / 60, offset % 60);
    return static_cast<size_t>(at - text);
}

bool parse_iso(std::string_view text, iso_time& time) {
    using namespace std::chrono;
    digit_reader in(text);
    const u32 year_number = in.number(4);
    in.expect('-');
    const u32 month_number = in.number(2);
    in.expect('-');
    const u32 day_number = in.number(2);
    in.expect('T');
    const u32 hour = in.number(2);
    in.expect(':');
    const u32 minute = in.number(2);
    in.expect(':');
    const u32 second = in.number(2);
    time.nanoseconds = in.take('.') ? in.nanoseconds() : 0;

    time.utc_offset = 0;
    const bool ahead = in.take('+');
    if (ahead || in.take('-')) {
        const u32 hours_off = in.number(2);
        in.expect(':');
        const u32 minutes_off = in.number(2);
        if (hours_off > 23 || minutes_off > 59) return false;
        const auto offset = static_cast<i32>(hours_off * 60 + minutes_off);
        time.utc_offset = ahead ? offset : -offset;
    } else {
        in.take('Z');
    }

    const year_month_day date{year(static_cast<int>(year_number)), month(month_number), day(day_number)};
    if (!in.good() || !in.at_end() || !date.ok() || hour > 23 || minute > 59 || second > 59) return false;
    const i64 days_since = sys_days(date).time_since_epoch().count();
    time.seconds = days_since * seconds_per_day + static_cast<i64>(hour * 3600 + minute * 60 + second) -
                   time.utc_offset * i64{60};
    return true;
}
} // namespace loom
