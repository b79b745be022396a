// How many bytes a record takes in the binary form: an upper bound, exact but for the whole-array bytes of empty
// arrays and for flag sets of a variant that has fewer bytes of bits than the newest. The form itself is told in
// binary_writer.h.
#pragma once

#include "codec/binary_writer.h"

namespace trellis::codec {

/// A text too long for any form has the greatest length there is.
constexpr u32 counted_size(u32 count) {
    constexpr u32 most = 0xFFFFFFFFu;
    return count > most - sizeof(u32) ? most : static_cast<u32>(sizeof(u32)) + count;
}

/// One value. Those of the bundle's enumerations and flag sets all have one size, which stands as the call that
/// their own len is.
template <class A, bool Straight>
[[gnu::always_inline]] inline u32 length_of_value(const call& c, const value_of<A>* value) {
    using type = typename A::type;
    if constexpr (type::category == value_category::enumeration) return wire::enumeration_size;
    if constexpr (type::category == value_category::flag_set)
        return wire::flag_set_frame_size + sizeof value->bits;
    if constexpr (type::category == value_category::record && Straight) {
        if (value != nullptr) {
            if constexpr (has_part_model<type>)
                return header_of(value)->loom_variant < 0 ? wire::record_frame_size
                                                          : part_size<typename type::model>;
            else
                return type::len_straight(c.handle, c.domain, value);
        }
    }
    if constexpr (is_counted_value<value_of<A>> && Straight)
        if (value != nullptr) return counted_size(direct::byte_count_of(*value));
    return type::len(c.handle, c.domain, value);
}

/// Bytes of one attribute without state bytes. Straight: sizes that the form fixes are not asked for.
template <class A, bool Straight>
[[gnu::always_inline]] inline u32 length_of(const call& c, const holder_of<A>* object) {
    if constexpr (has_fixed_form<A> && Straight) {
        return fixed_form_size<A>;
    } else if constexpr (is_length<A>) {
        return 0; // counted with its array
    } else if constexpr (is_plain<A> || is_object<A>) {
        return length_of_value<A, Straight>(c, field_of<A>(object));
    } else if constexpr (is_fixed_string<A> || (is_fixed_array<A> && is_byte_array<A>)) {
        return A::extent * length_of_value<A, Straight>(c, field_of<A>(object));
    } else if constexpr (is_fixed_array<A>) {
        u32 sum = 0;
        for (u32 i = 0; i < A::extent; ++i)
            sum += length_of_value<A, Straight>(c, field_of<A>(object) + i);
        return sum;
    } else if constexpr (is_variable_array<A> || is_counted_string<A>) {
        const u32 count = count_of<A>(object);
        if constexpr (has_fixed_form_type<typename A::type> && Straight)
            return static_cast<u32>(sizeof(value_of<typename A::length>) + count * sizeof(value_of<A>));
        u32 sum = A::length::type::len(c.handle, c.domain, field_of<typename A::length>(object));
        const value_of<A>* block = pointer_of<A>(object);
        if constexpr (is_counted_string<A> || is_byte_array<A>) {
            if (count != 0) sum += count * length_of_value<A, Straight>(c, block);
        } else {
            for (u32 i = 0; i < count; ++i)
                sum += length_of_value<A, Straight>(c, block + i);
        }
        return sum;
    } else if constexpr (is_oid<A>) {
        return loomlib_oid_len(c.handle, c.domain, oid_of<A>(object));
    } else if constexpr (is_arm<A>) {
        // A selected arm without value is asked for its size all the same; none of it is written.
        if (!is_selected<A>(object)) return 0;
        const value_of<A>* arm = pointer_of<A>(object);
        const u32 length = length_of_value<A, Straight>(c, arm);
        return arm == nullptr ? 0 : length;
    } else {
        static_assert(is_list<A>);
        const u32* count = &list_of<A>(object)->count;
        u32 sum = Straight ? static_cast<u32>(sizeof *count) : types::u_int32::len(c.handle, c.domain, count);
        each_element<A>(object, [&](const value_of<A>* element) {
            sum += length_of_value<A, Straight>(c, element);
            return true;
        });
        return sum;
    }
}

/// Bytes of one attribute of an absent instance: its value types say what an absent value takes.
template <class A>
inline u32 length_of_absent(const call& c) {
    const auto absent = [&]<class Type>() { return Type::len(c.handle, c.domain, nullptr); };
    if constexpr (is_plain<A> || is_object<A>)
        return absent.template operator()<typename A::type>();
    else if constexpr (is_fixed_array<A> || is_fixed_string<A>)
        return A::extent * absent.template operator()<typename A::type>();
    else if constexpr (is_variable_array<A> || is_counted_string<A>)
        return absent.template operator()<typename A::length::type>();
    else if constexpr (is_oid<A>)
        return loomlib_oid_len(c.handle, c.domain, nullptr);
    else if constexpr (is_list<A>)
        return absent.template operator()<types::u_int32>();
    else {
        needs_nothing<A, attribute_shape::length,
                      attribute_shape::arm>(); // length: with its array; no arm is selected
        return 0;
    }
}

/// State bytes of one attribute, as if no array were empty.
template <class A>
[[gnu::always_inline]] inline u32 state_bytes_of(const holder_of<A>* object) {
    if constexpr (is_length<A>)
        return 0;
    else if constexpr (is_fixed_array<A>)
        return 1 + A::extent;
    else if constexpr (is_variable_array<A>)
        return 1 + count_of<A>(object);
    else {
        using enum attribute_shape;
        needs_nothing<A, plain, object, counted_string, fixed_string, oid, arm, list>(); // but their own
        return 1;
    }
}

} // namespace trellis::codec

namespace trellis::record {

/// Worker of len in every case but the plain one.
template <class M>
[[gnu::noinline]] u32 len_internal(loom_handle* handle, u32 domain, const typename M::object* object) {
    const call c{handle, domain, nullptr};
    const i8 variant = direct::instance_variant(object, 1, 0);
    u32 sum = wire::record_frame_size;
    if (object == nullptr) {
        codec::each_reached<M>(0, [&]<class A>() {
            sum += codec::length_of_absent<A>(c);
            return true;
        });
        return sum;
    }
    if (variant >= 0)
        codec::each_reached<M>(
            variant, [&]<class A>() __attribute__((always_inline)) {
                sum += codec::length_of<A, false>(c, object);
                return true;
            });
    const tracking_mode mode = c.mode();
    if (mode == tracking_mode::corrupted) diag::die<M, diag::record_says::len_corrupted_handle>();
    if (mode == tracking_mode::on && variant >= 0)
        codec::each_reached<M>(
            variant, [&]<class A>() __attribute__((always_inline)) {
                sum += codec::state_bytes_of<A>(object);
                return true;
            });
    return sum;
}

/// Worker of len in the plain case.
template <class M>
[[gnu::always_inline]] inline u32 len_straight(loom_handle* handle, u32 domain, const typename M::object* object) {
    const call c{handle, domain, nullptr};
    u32 sum = wire::record_frame_size;
    const i8 variant = header_of(object)->loom_variant;
    if (variant >= 0)
        codec::each_reached<M>(
            variant, [&]<class A>() __attribute__((always_inline)) {
                sum += codec::length_of<A, true>(c, object);
                return true;
            });
    return sum;
}

template <class M>
[[gnu::always_inline]] inline u32 len(loom_handle* handle, u32 domain, const typename M::object* object) {
    const tracking_mode mode = tracking_mode_of(handle);
    const bool untracked = mode == tracking_mode::absent || mode == tracking_mode::off;
    if (!direct::offered || object == nullptr || !untracked) return len_internal<M>(handle, domain, object);
    return M::type::len_straight(handle, domain, object);
}

template <class M>
u32 len_cr(loom_handle* handle, const typename M::object* object) {
    return handle->last_error != 0 ? 0 : M::type::len(handle, handle->cr_domain, object);
}

} // namespace trellis::record
