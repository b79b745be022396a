// Parts whose binary form has one length: enumerations, flag sets and flat records of the holder's own bundle.
// Where a record is written or read on the straight path (binary_writer.h), its parts of this kind go out and come
// in without a call of their own operations; those use the same code for their common case. What is done here in
// place is no call of the part's operation, and is not counted as one.
//
// An enumeration is its variant and its internal value; a flag set its variant, its jump and its bits; a flat
// record has nothing but attributes of fixed form, all of variant 0.
#pragma once

#include "codec/fixed_form.h"
#include "frame/wire_sizes.h"
#include "instance/flag_set.h"

namespace trellis::codec {

template <class F>
constexpr u32 bit_bytes_of = sizeof(F::object::bits);
/// Bytes of the bits that a variant has: a set may have grown by whole bytes since. A negative variant has those
/// of variant 0.
template <class F>
constexpr u32 bit_bytes_within(i8 variant) {
    return (flag_set::bits_within<F>(variant < 0 ? i8{0} : variant) + 7) / 8;
}
template <class F>
inline u32 bit_bytes_on_wire(i8 variant) {
    if constexpr (bit_bytes_within<F>(0) == bit_bytes_of<F>)
        return bit_bytes_of<F>;
    else
        return bit_bytes_within<F>(variant);
}

/// Bytes of a part, those of the newest variant for a flag set.
template <class Model>
constexpr u32 part_size = [] {
    constexpr value_category category = Model::type::category;
    if constexpr (category == value_category::flag_set)
        return wire::flag_set_frame_size + bit_bytes_of<Model>;
    else if constexpr (is_any_enumeration(category))
        return wire::enumeration_size;
    else {
        u32 size = wire::record_frame_size;
        for_each_attribute(typename Model::attributes{}, [&]<class A>() { size += fixed_form_size<A>; });
        return size;
    }
}();

/// Lowers a variant on the wire to what the instance's layout can hold.
inline i8 lowered_variant(u8 wire, const loom_object* header) {
    const i8 variant = static_cast<i8>(wire);
    return variant > header->loom_layout_variant ? static_cast<i8>(header->loom_layout_variant) : variant;
}

/// Writes a part for a peer of this build, with room for all of it. False, and nothing is written, when its form
/// differs from the common one.
template <class Model>
[[gnu::always_inline]] inline bool put_part(u8* out, const typename Model::object* part) {
    constexpr value_category category = Model::type::category;
    const loom_object* header = header_of(part);
    const i8 variant = header->loom_variant;
    if (variant > Model::newest) return false;
    if constexpr (category == value_category::flag_set) {
        if (bit_bytes_on_wire<Model>(variant) != bit_bytes_of<Model>) return false;
        constexpr loom_wire_jump jump = part_size<Model> - wire::flag_set_jump_place;
        store_form(out + wire::flag_set_jump_place, &jump, 1);
        memcpy(out + wire::flag_set_frame_size, part->bits, bit_bytes_of<Model>);
    } else if constexpr (is_any_enumeration(category)) {
        const u32 internal = static_cast<u32>(enumeration::map_to_internal_value<Model>(part->value));
        store_form(out + wire::enumeration_value_place, &internal, 1);
    } else {
        if (variant < 0 || (header->loom_flags & OBJ_RA_DATA) != 0) return false;
        out[wire::flags_place] = 0;
        constexpr loom_wire_jump jump = part_size<Model> - wire::record_jump_place;
        store_form(out + wire::record_jump_place, &jump, 1);
        u32 place = wire::record_frame_size;
        for_each_attribute(
            typename Model::attributes{}, [&]<class A>() __attribute__((always_inline)) {
                store_form(out + place, field_of<A>(part), values_in_form<A>);
                place += fixed_form_size<A>;
            });
    }
    out[0] = static_cast<u8>(variant);
    return true;
}

/// Reads a part that is there with all its bytes, where nobody follows stores, no states are on the wire or in the
/// instance, and type information lies in the bundle. False, and nothing is taken, when its form differs from the
/// common one.
template <class Model>
[[gnu::always_inline]] inline bool take_part(const u8* in, typename Model::object* part) {
    constexpr value_category category = Model::type::category;
    loom_object* header = header_of(part);
    const i8 variant = lowered_variant(in[0], header);
    if constexpr (category == value_category::flag_set) {
        loom_wire_jump jump;
        load_form(in + wire::flag_set_jump_place, &jump, 1);
        if (jump != part_size<Model> - wire::flag_set_jump_place ||
            bit_bytes_on_wire<Model>(variant) != bit_bytes_of<Model>)
            return false;
        memcpy(part->bits, in + wire::flag_set_frame_size, bit_bytes_of<Model>);
    } else if constexpr (is_any_enumeration(category)) {
        u32 internal;
        load_form(in + wire::enumeration_value_place, &internal, 1);
        part->value = enumeration::user_value_of_internal<Model>(internal);
    } else {
        loom_wire_jump jump;
        load_form(in + wire::record_jump_place, &jump, 1);
        if (variant < 0 || (in[wire::flags_place] & LOOM_WIRE_FLAGS) != 0 ||
            jump != part_size<Model> - wire::record_jump_place)
            return false;
        u32 place = wire::record_frame_size;
        for_each_attribute(
            typename Model::attributes{}, [&]<class A>() __attribute__((always_inline)) {
                load_form(in + place, field_of<A>(part), values_in_form<A>);
                place += fixed_form_size<A>;
            });
    }
    header->loom_variant = variant;
    header->loom_tinfo = Model::type::type_info();
    return true;
}

} // namespace trellis::codec
