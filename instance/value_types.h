// Facades of the value types: what a generated operation calls on an attribute, whatever the attribute's type.
// A facade forwards to the exported functions `<type>_<operation>` and evens out the few argument lists that
// differ. Facades of built-in values stand here; those of a bundle's own types are generated, from the family
// macros below.
#pragma once

#include "frame/value_list.h"

#include <loom/direct.h>
#include <loom/oid.h>
#include <loom/values.h>

namespace trellis {

/// Passed by value: arrays of these have get_value, set_value and the _mem operations.
constexpr bool is_plain_value(value_category c) {
    return c == value_category::scalar || c == value_category::boolean;
}
constexpr bool is_any_enumeration(value_category c) {
    return c == value_category::enumeration || c == value_category::shared_enumeration;
}
/// The `is_enumeration` argument of loom_get_instance_variant for attributes of the type.
constexpr u32 variant_indicator(value_category c) {
    return c == value_category::boolean || is_any_enumeration(c) || c == value_category::flag_set;
}
/// Has type information and an initialize of its own.
constexpr bool is_initialised(value_category c) { return c != value_category::scalar && c != value_category::oid; }
/// Begins with an object header of its own.
constexpr bool has_header(value_category c) {
    return c == value_category::record || c == value_category::flag_set || is_any_enumeration(c);
}
/// Owns outside storage or may: copies of raw bytes need a repair.
constexpr bool owns_storage(value_category c) {
    return c == value_category::object_value || c == value_category::opaque_value || c == value_category::record;
}

/// An enumeration, flag set or flat record of the holder's own bundle, whose model its holders may use
/// (codec/part_form.h).
template <class Type>
concept has_part_model = requires {
    typename Type::model;
};

// What follows names the exported functions `<type>_<operation>` of a type T: only a macro can make names. A line
// is a reference that calls see through; functions stand where the argument list differs from that of other types.
#define TRELLIS_OPERATION(T, OPERATION) static constexpr auto& OPERATION = ::T##_##OPERATION;

// Operations that every value type has.
#define TRELLIS_COMMON_FAMILY(T)                                                                                  \
    TRELLIS_OPERATION(T, len)                                                                                     \
    TRELLIS_OPERATION(T, marshal)                                                                                 \
    TRELLIS_OPERATION(T, unmarshal)                                                                               \
    TRELLIS_OPERATION(T, print)                                                                                   \
    TRELLIS_OPERATION(T, to_xml)                                                                                  \
    TRELLIS_OPERATION(T, from_xml)                                                                                \
    TRELLIS_OPERATION(T, hash)                                                                                    \
    TRELLIS_OPERATION(T, create)                                                                                  \
    TRELLIS_OPERATION(T, destroy)                                                                                 \
    TRELLIS_OPERATION(T, destroy_internal)                                                                        \
    TRELLIS_OPERATION(T, set)

// Operations of those that are passed by value.
#define TRELLIS_PLAIN_FAMILY(T)                                                                                   \
    TRELLIS_OPERATION(T, get_value)                                                                               \
    TRELLIS_OPERATION(T, set_value)

#define TRELLIS_EMBEDDED_FAMILY(T)                                                                                \
    static loom_type_info* type_info() { return &::_##T##_type_info_internal; }                                   \
    TRELLIS_OPERATION(T, set_instance_embedded)

#define TRELLIS_REFERENCES_FAMILY(T)                                                                              \
    TRELLIS_OPERATION(T, get_oid_count)                                                                           \
    TRELLIS_OPERATION(T, get_object_references)                                                                   \
    TRELLIS_OPERATION(T, set_all_state_tracking_flag)                                                             \
    TRELLIS_OPERATION(T, post_copyout_cleanup)

// The `get` of types of bundles has no error word, that of built-in values has.
#define TRELLIS_GET_WITHOUT_ERROR(T)                                                                              \
    static c_type* get(loom_handle* h, u32 d, c_type* v, u32*) { return ::T##_get(h, d, v); }

// `initialize` is called with nine arguments or with six.
#define TRELLIS_VALUE_INITIALIZE(T)                                                                               \
    static void initialize(loom_handle* h, u32 d, c_type* v, u32 write_through, u32 no_accounting, void* base,    \
                           u32* err) {                                                                            \
        ::T##_initialize(h, d, v, type_info(), write_through, no_accounting, OBJ_NESTED, base, err);              \
    }
#define TRELLIS_SHORT_INITIALIZE(T)                                                                               \
    static void initialize(loom_handle* h, u32 d, c_type* v, u32 write_through, u32, void*, u32*) {               \
        ::T##_initialize(h, d, v, type_info(), write_through, OBJ_NESTED);                                        \
    }

// What records, enumerations and flag sets of a bundle share.
#define TRELLIS_BUNDLE_FAMILY(T)                                                                                  \
    TRELLIS_COMMON_FAMILY(T)                                                                                      \
    TRELLIS_OPERATION(T, compare)                                                                                 \
    TRELLIS_GET_WITHOUT_ERROR(T)                                                                                  \
    TRELLIS_EMBEDDED_FAMILY(T)                                                                                    \
    TRELLIS_OPERATION(T, create_internal)

// A record, union or choice of a bundle.
#define TRELLIS_RECORD_FAMILY(T)                                                                                  \
    static constexpr value_category category = value_category::record;                                            \
    TRELLIS_BUNDLE_FAMILY(T)                                                                                      \
    TRELLIS_VALUE_INITIALIZE(T)                                                                                   \
    TRELLIS_REFERENCES_FAMILY(T)                                                                                  \
    TRELLIS_OPERATION(T, marshal_for_clone)                                                                       \
    TRELLIS_OPERATION(T, clone_internal)                                                                          \
    TRELLIS_OPERATION(T, offset_update)                                                                           \
    TRELLIS_OPERATION(T, offset_remove)                                                                           \
    /* A record of its own, not inside another. */                                                                \
    static void initialize_alone(loom_handle* h, u32 d, c_type* v, u32* err) {                                    \
        ::T##_initialize(h, d, v, type_info(), 1, 0, 0, nullptr, err);                                            \
    }                                                                                                             \
    /* Workers of the type's own unit, for the functions of these names in record, some in the codecs. */         \
    static void release_replaced(loom_handle* h, u32 d, c_type* to, const c_type* from);                          \
    static void forget_references(loom_handle* h, u32 d, c_type* v, bool inside);                                 \
    static u32 len_straight(loom_handle* h, u32 d, const c_type* v);                                              \
    static u32 marshal_straight(loom_handle* h, u32 d, u8* buffer, const c_type* v, i32 length, u32* err);        \
    static u32 unmarshal_straight(loom_handle* h, u32 d, const u8* buffer, c_type* v, i32 length, u32 existing,   \
                                  u32* err);

// An enumeration of a bundle, and one that another bundle shares.
#define TRELLIS_ENUMERATION_FAMILY(T)                                                                             \
    static constexpr value_category category = value_category::enumeration;                                       \
    TRELLIS_BUNDLE_FAMILY(T)                                                                                      \
    TRELLIS_PLAIN_FAMILY(T)                                                                                       \
    TRELLIS_OPERATION(T, map_to_user_value)                                                                       \
    TRELLIS_SHORT_INITIALIZE(T)
#define TRELLIS_SHARED_ENUMERATION_FAMILY(T)                                                                      \
    static constexpr value_category category = value_category::shared_enumeration;                                \
    TRELLIS_BUNDLE_FAMILY(T)                                                                                      \
    TRELLIS_PLAIN_FAMILY(T)                                                                                       \
    TRELLIS_OPERATION(T, map_to_user_value)                                                                       \
    TRELLIS_VALUE_INITIALIZE(T)

// A flag set of a bundle.
#define TRELLIS_FLAG_SET_FAMILY(T)                                                                                \
    static constexpr value_category category = value_category::flag_set;                                          \
    TRELLIS_BUNDLE_FAMILY(T)                                                                                      \
    TRELLIS_SHORT_INITIALIZE(T)

namespace types {

// The list's row of T, which a forgotten one has not.
#define TRELLIS_BUILT_IN(T)                                                                                       \
    static constexpr char name[] = #T;                                                                            \
    static constexpr built_in_value row = built_in(name);                                                         \
    static constexpr value_category category = row.category;                                                      \
    static_assert(sizeof(c_type) == row.width && alignof(c_type) == row.alignment);                               \
    TRELLIS_COMMON_FAMILY(T)                                                                                      \
    TRELLIS_OPERATION(T, get)
#define TRELLIS_SCALAR(FACADE, T, C)                                                                              \
    struct FACADE {                                                                                               \
        using c_type = C;                                                                                         \
        using plain_type = C;                                                                                     \
        TRELLIS_BUILT_IN(T)                                                                                       \
        TRELLIS_PLAIN_FAMILY(T)                                                                                   \
    };
#define TRELLIS_VALUE(T)                                                                                          \
    struct T {                                                                                                    \
        using c_type = ::T;                                                                                       \
        TRELLIS_BUILT_IN(T)                                                                                       \
        TRELLIS_OPERATION(T, compare)                                                                             \
        TRELLIS_EMBEDDED_FAMILY(T)                                                                                \
        TRELLIS_VALUE_INITIALIZE(T)                                                                               \
        TRELLIS_REFERENCES_FAMILY(T)                                                                              \
    };

// clang-format off
TRELLIS_SCALAR(u_int8, u_int8, std::uint8_t)
TRELLIS_SCALAR(u_int16, u_int16, std::uint16_t)
TRELLIS_SCALAR(u_int32, u_int32, std::uint32_t)
TRELLIS_SCALAR(u_int64, u_int64, std::uint64_t)
TRELLIS_SCALAR(int8, int8, std::int8_t)
TRELLIS_SCALAR(int16, int16, std::int16_t)
TRELLIS_SCALAR(int32, int32, std::int32_t)
TRELLIS_SCALAR(int64, int64, std::int64_t)
TRELLIS_SCALAR(char_, char, char)
TRELLIS_SCALAR(double_, double, double)
TRELLIS_SCALAR(float_, float, float)
struct loom_boolean {
    using c_type = ::loom_boolean;
    using plain_type = ::loom_boolean;
    TRELLIS_BUILT_IN(loom_boolean)
    TRELLIS_PLAIN_FAMILY(loom_boolean)
    TRELLIS_OPERATION(loom_boolean, compare)
    TRELLIS_EMBEDDED_FAMILY(loom_boolean)
    TRELLIS_VALUE_INITIALIZE(loom_boolean)
};
LOOM_DIRECT_VALUES(TRELLIS_VALUE)
// clang-format on

/// An oid attribute has operations of its own; this only says what it is.
struct oid {
    using c_type = ::loom_oid;
    static constexpr value_category category = value_category::oid;
    static constexpr char name[] = "oid";
};

#undef TRELLIS_BUILT_IN
#undef TRELLIS_SCALAR
#undef TRELLIS_VALUE

} // namespace types

/// What a C type is made of that stands for one built-in value; others are numbers.
template <class C>
inline constexpr value_make make_of = value_make::number;
#define TRELLIS_MAKE(T)                                                                                           \
    template <>                                                                                                   \
    inline constexpr value_make make_of<::T> = types::T::row.make;
LOOM_DIRECT_VALUES(TRELLIS_MAKE)
#undef TRELLIS_MAKE

} // namespace trellis
