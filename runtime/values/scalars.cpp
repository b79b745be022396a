// The scalar types and the truth value: kinds and exports. On the wire a scalar is its bytes, most significant
// first; the hash is taken over its bytes in memory.
#include "frame/big_endian.h"
#include "runtime/values/exports.h"
#include "runtime/values/number_text.h"

namespace loom {
namespace {

template <class T>
using wire_integer =
    std::conditional_t<sizeof(T) == 1, u8,
                       std::conditional_t<sizeof(T) == 2, u16, std::conditional_t<sizeof(T) == 4, u32, u64>>>;

/// Wire form and hash of everything that is a number of 1, 2, 4 or 8 bytes.
template <class T>
struct scalar_kind {
    using type = T;

    static u32 wire_size(const T&) { return sizeof(T); }
    static void write(u8* out, const T& value) { store_big_endian(out, std::bit_cast<wire_integer<T>>(value)); }
    static read_result read(const u8* in, u32 room, T& value) {
        if (room < sizeof(T)) return {0, LOOM_EMSGSIZE};
        value = std::bit_cast<T>(load_big_endian<wire_integer<T>>(in));
        return {sizeof(T), 0};
    }
    static u32 hash(const T& value, u32 seed) { return SuperFastHash(&value, sizeof value, seed); }
};

template <class T>
struct integer_kind : scalar_kind<T> {
    static constexpr size_t text_limit = 24;
    static size_t format(char* text, const T& value) { return format_integer(text, text_limit, value); }
    static bool parse(std::string_view text, T& value) { return parse_integer(text, value); }
};

template <class T>
struct floating_kind : scalar_kind<T> {
    static constexpr size_t text_limit = 40;
    static size_t format(char* text, const T& value) { return format_floating(text, text_limit, value); }
    static bool parse(std::string_view text, T& value) { return parse_floating(text, value); }
    /// The two zeros are equal and hash alike.
    static u32 hash(const T& value, u32 seed) { return scalar_kind<T>::hash(value == 0 ? T{0} : value, seed); }
};

struct character_kind : scalar_kind<char> {
    static constexpr bool any_text = true;
    static constexpr size_t text_limit = 1;
    static size_t format(char* text, char value) {
        *text = value;
        return 1;
    }
    static bool parse(std::string_view text, char& value) {
        if (text.size() != 1) return false;
        value = text[0];
        return true;
    }
};

/// Keeps its 32 bits on the wire; order, hash and texts only see whether they are zero.
struct boolean_kind : scalar_kind<loom_boolean> {
    static constexpr size_t text_limit = 8;
    static size_t format(char* text, const loom_boolean& value) {
        const std::string_view word = value ? "true" : "false";
        std::memcpy(text, word.data(), word.size());
        return word.size();
    }
    static bool parse(std::string_view text, loom_boolean& value) {
        value = text == "true" || text == "1";
        return value || text == "false" || text == "0";
    }
    static i32 compare(const loom_boolean& a, const loom_boolean& b) { return order(a != 0, b != 0); }
    static u32 hash(const loom_boolean& value, u32 seed) { return scalar_kind::hash(value != 0, seed); }
};
} // namespace
} // namespace loom

using namespace loom;

EXPORT_SCALAR(u_int8, uint8_t, integer_kind<u8>)
EXPORT_SCALAR(u_int16, uint16_t, integer_kind<u16>)
EXPORT_SCALAR(u_int32, uint32_t, integer_kind<u32>)
EXPORT_SCALAR(u_int64, uint64_t, integer_kind<u64>)
EXPORT_SCALAR(int8, int8_t, integer_kind<i8>)
EXPORT_SCALAR(int16, int16_t, integer_kind<i16>)
EXPORT_SCALAR(int32, int32_t, integer_kind<i32>)
EXPORT_SCALAR(int64, int64_t, integer_kind<i64>)
EXPORT_SCALAR(char, char, character_kind)
EXPORT_SCALAR(double, double, floating_kind<double>)
EXPORT_SCALAR(float, float, floating_kind<float>)
EXPORT_BOOLEAN(loom_boolean, boolean_kind)
