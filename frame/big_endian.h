// Integers as bytes, most significant first: the order of everything that travels. Nothing else lives here.
#pragma once

#include "frame/basic_types.h"

#include <bit>
#include <concepts>
#include <cstring>

namespace trellis {

template <std::unsigned_integral T>
constexpr T byte_swapped_on_little_endian(T value) {
    if constexpr (std::endian::native == std::endian::big || sizeof(T) == 1)
        return value;
    else if constexpr (sizeof(T) == 2)
        return __builtin_bswap16(value);
    else if constexpr (sizeof(T) == 4)
        return __builtin_bswap32(value);
    else
        return __builtin_bswap64(value);
}

/// Writes `value` to `sizeof(T)` bytes at `out`.
template <std::unsigned_integral T>
void store_big_endian(void* out, T value) {
    const T swapped = byte_swapped_on_little_endian(value);
    std::memcpy(out, &swapped, sizeof swapped);
}

/// Reads `sizeof(T)` bytes at `in`.
template <std::unsigned_integral T>
T load_big_endian(const void* in) {
    T value;
    std::memcpy(&value, in, sizeof value);
    return byte_swapped_on_little_endian(value);
}
} // namespace trellis
