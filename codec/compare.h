// Order of records by the values of their fields: every attribute of every variant takes part with what the
// instance holds, in schema order. Header, variant and state bytes do not. Only the sign of a result has meaning.
#pragma once

#include "codec/walk.h"

namespace trellis::codec {

/// Three-way without subtraction. A value that is not a number is neither greater nor less, hence equal.
template <class T>
constexpr i32 order_of(T a, T b) {
    return a > b ? 1 : a < b ? -1 : 0;
}

/// Null sorts first.
inline i32 order_of_null(const void* a, const void* b) { return (a != nullptr) - (b != nullptr); }

/// Two values of the attribute's type.
template <class A>
inline i32 compare_values(const value_of<A>* a, const value_of<A>* b) {
    if constexpr (A::type::category == value_category::scalar)
        return order_of(*a, *b);
    else
        return A::type::compare(a, b);
}

template <class A>
inline i32 compare_elements(const value_of<A>* a, const value_of<A>* b, u32 count) {
    if constexpr (is_integer_array<A>) {
        return count == 0 ? 0 : memcmp(a, b, size_t{count} * sizeof *a);
    } else {
        for (u32 i = 0; i < count; ++i)
            if (const i32 order = compare_values<A>(a + i, b + i); order != 0) return order;
        return 0;
    }
}

template <class A>
inline i32 compare_lists(const holder_of<A>* a, const holder_of<A>* b) {
    const loom_list_head* heads[] = {list_of<A>(a), list_of<A>(b)};
    if (const i32 order = order_of(heads[0]->count, heads[1]->count); order != 0) return order;
    const void* elements[] = {first_of(heads[0]), first_of(heads[1])};
    while (elements[0] != nullptr && elements[1] != nullptr) {
        const i32 order = A::type::compare(static_cast<const value_of<A>*>(elements[0]),
                                           static_cast<const value_of<A>*>(elements[1]));
        if (order != 0) return order;
        for (int side = 0; side < 2; ++side)
            elements[side] = next_of(heads[side], elements[side]);
    }
    return order_of_null(elements[0], elements[1]);
}

template <class A>
[[gnu::always_inline]] inline i32 compare_attribute(const holder_of<A>* a, const holder_of<A>* b) {
    if constexpr (is_length<A>) {
        return 0; // compared in front of its array
    } else if constexpr (is_plain<A> || is_object<A>) {
        return compare_values<A>(field_of<A>(a), field_of<A>(b));
    } else if constexpr (is_fixed_array<A>) {
        return compare_elements<A>(field_of<A>(a), field_of<A>(b), A::extent);
    } else if constexpr (is_fixed_string<A>) {
        return memcmp(field_of<A>(a), field_of<A>(b), A::extent);
    } else if constexpr (is_variable_array<A> || is_counted_string<A>) {
        const u32 count = count_of<A>(a);
        if (const i32 order = order_of(count, count_of<A>(b)); order != 0) return order;
        if constexpr (is_counted_string<A>)
            return count == 0 ? 0 : memcmp(pointer_of<A>(a), pointer_of<A>(b), count);
        else
            return compare_elements<A>(pointer_of<A>(a), pointer_of<A>(b), count);
    } else if constexpr (is_oid<A>) {
        return loomlib_oid_compare(oid_of<A>(a), oid_of<A>(b));
    } else if constexpr (is_arm<A>) {
        // The discriminators, compared before, are equal.
        if (!is_selected<A>(object_or_empty<typename A::discriminator>(a))) return 0;
        const value_of<A>* arms[] = {arm_of<A>(a), arm_of<A>(b)};
        if (arms[0] == nullptr || arms[1] == nullptr) return order_of_null(arms[0], arms[1]);
        return compare_values<A>(arms[0], arms[1]);
    } else {
        static_assert(is_list<A>);
        return compare_lists<A>(a, b);
    }
}

} // namespace trellis::codec

namespace trellis::record {

template <class M>
i32 compare(const typename M::object* a, const typename M::object* b) {
    if (a == nullptr || b == nullptr) return codec::order_of_null(a, b);
    i32 order = 0;
    all_attributes(
        typename M::attributes{}, [&]<class A>() __attribute__((always_inline)) {
            order = codec::compare_attribute<A>(object_or_empty<A>(a), object_or_empty<A>(b));
            return order == 0;
        });
    return order;
}

} // namespace trellis::record
