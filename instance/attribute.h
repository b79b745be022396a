// What an attribute of each shape (attribute_shape.h) consists of. The schema compiler describes each attribute of
// a record by one of these templates. Nothing here does anything.
//
// A generated model reads:
//
//     struct ud_type {                                 // in namespace bundle_<bundle>::models
//         using type = types::ud_type;                 // the facade other types call (value_types.h)
//         using object = ::ud_type;                    // the C struct
//         using bundle = bundle_<bundle>::bundle;
//         static constexpr char name[] = "ud_type";
//         static constexpr i8 newest = 4;
//         static constexpr u32 used_lengths[] = {...}, layout_sizes[] = {...}, tracking_sizes[] = {...};
//         static constexpr u32 base_size = 616;
//         static constexpr int trace_unit = 1;
//         static constexpr u32 trace_base = 1234;      // index of the type's first statement in the unit
//         static constexpr bool list_element = false;  // has the three links at offset 16
//         struct st_att : shapes::object<ud_type, types::loom_vstring, place{16, 0, 0, 1265}> {
//             static constexpr char name[] = "st_att";
//         };
//         ...
//         using attributes = type_list<st_att, ...>;   // schema order, lengths included
//     };
#pragma once

#include "diag/statements.h"
#include "frame/basic_types.h"
#include "instance/attribute_shape.h"
#include "instance/value_types.h"

namespace trellis {

/// A list of types; attributes stand in schema order.
template <class... T>
struct type_list {
    static constexpr u32 size = sizeof...(T);
};

/// Where an attribute lives.
struct place {
    u32 offset; // bytes from the start of the object
    i8 since;   // the variant that introduced it
    u32 track;  // its first byte in the tracking area; lengths have none
    u32 trace;  // index of its first trace statement in the type's unit
};

namespace shapes {

template <class Model, class Type, place P, attribute_shape S>
struct attribute {
    using model = Model;
    using type = Type; // facade of the value or element type
    static constexpr place at = P;
    static constexpr attribute_shape shape = S;
    static constexpr shape_facts facts = facts_of(S);
};

template <class Model, class Type, place P>
struct plain : attribute<Model, Type, P, attribute_shape::plain> {};

template <class Model, class Type, place P>
struct object : attribute<Model, Type, P, attribute_shape::object> {};

template <class Model, class Type, u32 N, place P>
struct fixed_array : attribute<Model, Type, P, attribute_shape::fixed_array> {
    static constexpr u32 extent = N;
    static constexpr u32 track_elements = P.track + 1; // N flag bytes, then N nested areas for records
};

/// Type is the facade of the length's own integer type.
template <class Model, class Type, place P>
struct length : attribute<Model, Type, P, attribute_shape::length> {};

template <class Model, class Type, class Length, place P>
struct variable_array : attribute<Model, Type, P, attribute_shape::variable_array> {
    using length = Length;                                      // the attribute with the count
    static constexpr u32 track_block = (P.track + 1 + 7) & ~7u; // pointer to one flag byte per element
};

template <class Model, class Length, place P>
struct counted_string : attribute<Model, types::char_, P, attribute_shape::counted_string> {
    using length = Length;
};

template <class Model, u32 N, place P>
struct fixed_string : attribute<Model, types::char_, P, attribute_shape::fixed_string> {
    static constexpr u32 extent = N;
};

/// The generated attribute adds `static loom_type_info* target();`, the referred table's static record.
/// The type word lies at the offset, the oid value 8 bytes behind it.
template <class Model, place P>
struct oid : attribute<Model, types::oid, P, attribute_shape::oid> {};

/// Discriminator is the attribute that selects the arm, Case its user value.
template <class Model, class Type, class Discriminator, i32 Case, place P>
struct arm : attribute<Model, Type, P, attribute_shape::arm> {
    using discriminator = Discriminator;
    static constexpr i32 selected_by = Case;
};

template <class Model, class Type, place P>
struct list : attribute<Model, Type, P, attribute_shape::list> {};

} // namespace shapes

template <class A>
concept is_plain = A::shape == attribute_shape::plain;
template <class A>
concept is_object = A::shape == attribute_shape::object;
template <class A>
concept is_fixed_array = A::shape == attribute_shape::fixed_array;
template <class A>
concept is_variable_array = A::shape == attribute_shape::variable_array;
template <class A>
concept is_length = A::shape == attribute_shape::length;
template <class A>
concept is_counted_string = A::shape == attribute_shape::counted_string;
template <class A>
concept is_fixed_string = A::shape == attribute_shape::fixed_string;
template <class A>
concept is_oid = A::shape == attribute_shape::oid;
template <class A>
concept is_arm = A::shape == attribute_shape::arm;
template <class A>
concept is_list = A::shape == attribute_shape::list;
template <class A>
concept is_array = is_fixed_array<A> || is_variable_array<A>;

/// A record, union or choice in place: has a tracking area inside its holder's.
template <class A>
concept is_nested_record = is_object<A> && A::type::category == value_category::record;
/// The same, or N of them.
template <class A>
concept nests_records = (A::type::category == value_category::record) && A::facts.in_place;
/// The tracking area points at a block with one state byte per element.
template <class A>
concept has_flag_block = A::facts.flag_block;
/// Refers to a stored object, which counts its references.
template <class A>
concept is_reference = A::facts.reference;
/// Arrays of scalars and booleans, whose elements pass by value.
template <class A>
concept is_array_of_values = is_array<A> && is_plain_value(A::type::category);
template <class A>
concept is_array_of_records = is_array<A> && A::type::category == value_category::record;
template <class A>
concept is_variable_array_of_values = is_variable_array<A> && is_array_of_values<A>;
template <class A>
concept is_variable_array_of_records = is_variable_array<A> && is_array_of_records<A>;
template <class A>
concept is_fixed_array_of_values = is_fixed_array<A> && is_array_of_values<A>;
template <class A>
concept is_single = !is_array<A>;
template <class A>
concept is_string = is_counted_string<A> || is_fixed_string<A>;

/// One value in the record itself.
template <class A>
concept is_one_value = A::facts.whole || is_length<A>;
/// Of these: what `get_value` and `get_all` hand out by value, and what is set by one store.
template <class A>
concept is_read_by_value = A::facts.gettable;
template <class A>
concept is_set_as_a_whole = A::facts.whole;

/// The last branch of a chain over shapes: names those that need nothing there. An attribute of any other shape
/// does not compile, so that who adds a shape is led to every chain.
template <class A, attribute_shape... S>
constexpr void needs_nothing() {
    static_assert(((A::shape == S) || ...), "a chain over attribute shapes has no branch for this shape");
}

/// Calls `body.template operator()<A>()` for each attribute in schema order.
template <class... A, class Body>
constexpr void for_each_attribute(type_list<A...>, Body&& body) {
    (body.template operator()<A>(), ...);
}

/// The same, as long as the body returns true.
template <class... A, class Body>
constexpr bool all_attributes(type_list<A...>, Body&& body) {
    return (body.template operator()<A>() && ...);
}

/// What an attribute is to its trace statements.
template <class A>
consteval diag::trace_kind trace_kind_of() {
    using enum diag::trace_kind;
    if constexpr (is_plain<A>)
        return plain;
    else if constexpr (is_fixed_array<A>)
        return is_array_of_values<A> ? fixed_values : fixed_objects;
    else if constexpr (is_variable_array<A>)
        return is_array_of_values<A>    ? variable_values
               : is_array_of_records<A> ? variable_records
                                        : variable_objects;
    else if constexpr (is_length<A>)
        return length;
    else if constexpr (is_counted_string<A>)
        return counted_string;
    else if constexpr (is_fixed_string<A>)
        return fixed_string;
    else if constexpr (is_oid<A>)
        return oid;
    else if constexpr (is_arm<A>)
        return arm;
    else if constexpr (is_list<A>)
        return list;
    else if constexpr (A::type::category == value_category::flag_set)
        return flag_set;
    else if constexpr (is_nested_record<A>)
        return A::type::trace_unit == A::model::trace_unit && A::type::oid_count == 0 ? near_record : far_record;
    else {
        needs_nothing<A, attribute_shape::object>(); // no more than any other value
        return value_object;
    }
}

} // namespace trellis
