// Operations on built-in values without a call, where the runtime offers it (frame/direct_forms.h): finding,
// reading, storing and setting up. Their binary form stands in codec/fixed_form.h.
#pragma once

#include "instance/call.h"
#include "instance/value_types.h"

#include <type_traits>

namespace trellis::direct {

/// Values of the runtime, as opposed to those that a bundle makes.
constexpr bool is_built_in(value_category c) {
    return is_plain_value(c) || c == value_category::object_value || c == value_category::opaque_value;
}

/// Addresses that are nothing but their octets.
template <class T>
constexpr bool is_octets = make_of<T> == value_make::octets;

/// Counted texts and byte strings: a length and a block of their own.
template <class T>
concept is_counted_value = make_of<T>
== value_make::text || make_of<T> == value_make::byte_string;
template <is_counted_value T>
inline auto& bytes_of(T& value) {
    if constexpr (make_of<T> == value_make::byte_string)
        return value.bytes;
    else
        return value.text;
}
template <is_counted_value T>
inline const void* bytes_of(const T& value) {
    return bytes_of(const_cast<T&>(value));
}
/// Texts keep a zero behind their last character.
template <is_counted_value T>
constexpr u32 terminator_size = make_of<T> == value_make::text ? 1 : 0;
/// A value without a block is empty.
template <is_counted_value T>
inline u32 byte_count_of(const T& value) {
    return bytes_of(value) == nullptr ? 0 : value.length;
}

template <class Type>
inline typename Type::c_type* get(const call& c, typename Type::c_type* value) {
    if constexpr (is_built_in(Type::category))
        if (offered) return value;
    return Type::get(c.handle, c.domain, value, c.error);
}

template <class Type>
inline typename Type::plain_type get_value(const call& c, const typename Type::c_type* value) {
    if constexpr (is_plain_value(Type::category))
        if (offered && value != nullptr && !c.pending()) return *value;
    return Type::get_value(c.handle, c.domain, value, c.error);
}

template <class Type>
inline void set_value(const call& c, typename Type::c_type* to, typename Type::plain_type value) {
    if constexpr (is_plain_value(Type::category)) {
        if (offered && to != nullptr && !c.pending()) return c.store<typename Type::c_type>(to, value, to);
    }
    Type::set_value(c.handle, c.domain, to, value, c.error);
}

template <class Type, class Source>
inline void set(const call& c, typename Type::c_type* to, Source* from) {
    if constexpr (is_plain_value(Type::category)) {
        if (offered && to != nullptr && from != nullptr && !c.pending())
            return c.store<typename Type::c_type>(to, *from, to);
    }
    Type::set(c.handle, c.domain, to, from, c.error);
}

/// True for a value whose initialize and set_instance_embedded do nothing.
template <class Type>
inline bool is_ready_when_zero() {
    if constexpr (is_built_in(Type::category)) return offered;
    return false;
}

/// Addresses and times lie whole in their place.
template <class T>
constexpr bool lies_in_place = make_of<T> == value_make::octets || make_of<T> == value_make::parts;

template <class Type>
inline u32 get_oid_count(const call& c, const typename Type::c_type* value) {
    if constexpr (is_built_in(Type::category))
        if (offered) return 0;
    return Type::get_oid_count(c.handle, c.domain, value, c.error);
}

/// True for a value in place, not null, that holds no references and no block: nothing is to be done at its end.
template <class Type>
inline bool ends_without_trace(const typename Type::c_type* value) {
    using type = typename Type::c_type;
    if constexpr (lies_in_place<type>)
        return offered;
    else if constexpr (is_counted_value<type>)
        return offered && bytes_of(*value) == nullptr;
    return false;
}

} // namespace trellis::direct
