// Values whose binary form is their own bytes: scalars and booleans, most significant byte first, addresses that
// are nothing but octets, fixed arrays and fixed strings of them. Attributes of this kind that stand next to each
// other form a run, which is written and read with one test of the room where the runtime offers that
// (frame/direct_forms.h). The cursors that do it stand in binary_writer.h and binary_reader.h.
#pragma once

#include "codec/walk.h"
#include "frame/big_endian.h"
#include "instance/direct_values.h"

namespace trellis::codec {

using direct::is_counted_value;
using direct::is_octets;

template <class T>
using form_word =
    std::conditional_t<sizeof(T) == 1, u8,
                       std::conditional_t<sizeof(T) == 2, u16, std::conditional_t<sizeof(T) == 4, u32, u64>>>;

/// Puts `count` values to `out`.
template <class T>
[[gnu::always_inline]] inline void store_form(u8* out, const T* values, u32 count) {
    if constexpr (sizeof(T) == 1 || is_octets<T>) {
        memcpy(out, values, count * sizeof(T));
    } else {
        for (u32 i = 0; i < count; ++i)
            store_big_endian(out + i * sizeof(T), std::bit_cast<form_word<T>>(values[i]));
    }
}
template <class T>
[[gnu::always_inline]] inline void load_form(const u8* in, T* values, u32 count) {
    if constexpr (sizeof(T) == 1 || is_octets<T>) {
        memcpy(values, in, count * sizeof(T));
    } else {
        for (u32 i = 0; i < count; ++i)
            values[i] = std::bit_cast<T>(load_big_endian<form_word<T>>(in + i * sizeof(T)));
    }
}

template <class Type>
concept has_fixed_form_type = is_plain_value(Type::category) || is_octets<typename Type::c_type>;
template <class A>
concept lies_in_place = A::facts.in_place || is_fixed_string<A>;
template <class A>
concept has_fixed_form = lies_in_place<A> && has_fixed_form_type<typename A::type>;

template <class A>
constexpr u32 values_in_form = [] {
    if constexpr (is_fixed_array<A> || is_fixed_string<A>)
        return A::extent;
    else
        return 1u;
}();
/// Bytes of an attribute of fixed form; 0 for every other.
template <class A>
constexpr u32 fixed_form_size = [] {
    if constexpr (has_fixed_form<A>)
        return values_in_form<A> * static_cast<u32>(sizeof(value_of<A>));
    else
        return 0u;
}();

/// Bytes of the run that begins with the attribute at `offset`; 0 when none begins there.
template <class... A>
consteval u32 run_beginning_at(type_list<A...>, u32 offset) {
    constexpr u32 sizes[] = {fixed_form_size<A>..., 0};
    constexpr i8 since[] = {A::at.since..., 0};
    constexpr u32 offsets[] = {A::at.offset..., 0};
    u32 i = 0;
    while (offsets[i] != offset)
        ++i;
    if (sizes[i] == 0 || (i > 0 && sizes[i - 1] != 0 && since[i - 1] == since[i])) return 0;
    u32 size = 0;
    for (const i8 variant = since[i]; i < sizeof...(A) && sizes[i] != 0 && since[i] == variant; ++i)
        size += sizes[i];
    return size;
}
template <class A>
constexpr u32 run_begun_by = run_beginning_at(typename A::model::attributes{}, A::at.offset);

} // namespace trellis::codec
