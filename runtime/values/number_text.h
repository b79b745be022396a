// Numbers as text: the shortest text that reads back as the same number. For the kinds in this folder.
#pragma once

#include "frame/basic_types.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace loom {
using namespace trellis;

/// The whole text is one number that `T` holds; a leading plus sign is allowed. `base` is for integers.
template <class T>
bool parse_integer(std::string_view text, T& value, int base = 10) {
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    return error == std::errc() && stop == end;
}

template <class T>
size_t format_integer(char* text, size_t room, T value, int base = 10) {
    return static_cast<size_t>(std::to_chars(text, text + room, value, base).ptr - text);
}

template <class T>
using bits_of = std::conditional_t<sizeof(T) == 8, u64, u32>;

/// "NaN" is the quiet NaN without payload; any other tells all its bits: "NaN(7ff0000000000001)".
template <class T>
constexpr bits_of<T> plain_nan = sizeof(T) == 8 ? static_cast<bits_of<T>>(0x7ff8000000000000) : 0x7fc00000;

/// Decimal numbers, and "NaN", "INF", "-INF" as XML Schema writes them.
template <class T>
size_t format_floating(char* text, size_t room, T value) {
    const auto put = [&](std::string_view word) {
        std::memcpy(text, word.data(), word.size());
        return word.size();
    };
    if (std::isinf(value)) return put(value < 0 ? "-INF" : "INF");
    if (!std::isnan(value)) return static_cast<size_t>(std::to_chars(text, text + room, value).ptr - text);
    const auto bits = std::bit_cast<bits_of<T>>(value);
    size_t size = put("NaN");
    if (bits == plain_nan<T>) return size;
    text[size++] = '(';
    size += format_integer(text + size, room - size, bits, 16);
    text[size++] = ')';
    return size;
}

template <class T>
bool parse_floating(std::string_view text, T& value) {
    if (text == "INF" || text == "+INF")
        value = std::numeric_limits<T>::infinity();
    else if (text == "-INF")
        value = -std::numeric_limits<T>::infinity();
    else if (text == "NaN")
        value = std::bit_cast<T>(plain_nan<T>);
    else if (text.starts_with("NaN(") && text.ends_with(')')) {
        bits_of<T> bits;
        if (!parse_integer(text.substr(4, text.size() - 5), bits, 16)) return false;
        value = std::bit_cast<T>(bits);
        return std::isnan(value);
    } else {
        if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, value);
        return error == std::errc() && stop == end && std::isfinite(value);
    }
    return true;
}
} // namespace loom
