// Chained hash of records: every attribute of every variant in schema order, each seeded by the result before it.
// Stored hashes must agree between builds, so the chain is part of the format: counts go in twice, unselected
// arms go in, an absent value gives its seed.
#pragma once

#include "codec/walk.h"

namespace trellis::codec {

/// One value. Enumerations and flag sets of the bundle stand as the call that their own hash is.
template <class A>
inline u32 hash_value(const value_of<A>* value, u32 seed) {
    if constexpr (A::type::category == value_category::enumeration)
        return SuperFastHash(&value->value, sizeof value->value, seed);
    else if constexpr (A::type::category == value_category::flag_set)
        return SuperFastHash(value->bits, sizeof value->bits, seed);
    else
        return A::type::hash(value, seed);
}

template <class A>
inline u32 hash_elements(const value_of<A>* elements, u32 count, u32 seed) {
    if constexpr (is_integer_array<A>)
        return SuperFastHash(elements, static_cast<u32>(count * sizeof *elements), seed);
    for (u32 i = 0; i < count; ++i)
        seed = hash_value<A>(elements + i, seed);
    return seed;
}

template <class A>
[[gnu::always_inline]] inline u32 hash_attribute(const holder_of<A>* object, u32 seed) {
    if constexpr (is_length<A>) {
        return seed; // goes in with its array
    } else if constexpr (is_plain<A> || is_object<A>) {
        return hash_value<A>(field_of<A>(object), seed);
    } else if constexpr (is_fixed_array<A>) {
        return hash_elements<A>(field_of<A>(object), A::extent, seed);
    } else if constexpr (is_fixed_string<A>) {
        return SuperFastHash(field_of<A>(object), A::extent, seed);
    } else if constexpr (is_variable_array<A> || is_counted_string<A>) {
        const auto* count = field_of<typename A::length>(object);
        seed = A::length::type::hash(count, seed);
        seed = A::length::type::hash(count, seed);
        if constexpr (is_counted_string<A>)
            return SuperFastHash(pointer_of<A>(object), count_of<A>(object), seed);
        else
            return hash_elements<A>(pointer_of<A>(object), count_of<A>(object), seed);
    } else if constexpr (is_oid<A>) {
        return SuperFastHash(oid_of<A>(object), 4, seed);
    } else if constexpr (is_arm<A>) {
        using selects = typename A::discriminator;
        const auto* discriminator = field_of<selects>(object_or_empty<selects>(object));
        seed = SuperFastHash(&discriminator->value, sizeof discriminator->value, seed);
        return A::type::hash(arm_of<A>(object), seed);
    } else {
        static_assert(is_list<A>);
        const loom_list_head* head = list_of<A>(object);
        seed = SuperFastHash(&head->count, sizeof head->count, seed);
        each_element<A>(object, [&](const value_of<A>* element) {
            seed = A::type::hash(element, seed);
            return true;
        });
        return seed;
    }
}

} // namespace trellis::codec

namespace trellis::record {

template <class M>
u32 hash(const typename M::object* object, u32 seed) {
    if (object == nullptr) return seed;
    for_each_attribute(
        typename M::attributes{}, [&]<class A>() __attribute__((always_inline)) {
            seed = codec::hash_attribute<A>(object_or_empty<A>(object), seed);
        });
    return seed;
}

} // namespace trellis::record
