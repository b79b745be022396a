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

// Operations that every value type has.
#define TRELLIS_COMMON_FAMILY(T)                                                                                  \
    static u32 len(loom_handle* h, u32 d, const c_type* v) { return ::T##_len(h, d, v); }                         \
    static u32 marshal(loom_handle* h, u32 d, void* buffer, const c_type* v, i32 length, u32* err) {              \
        return ::T##_marshal(h, d, buffer, v, length, err);                                                       \
    }                                                                                                             \
    static u32 unmarshal(loom_handle* h, u32 d, const void* buffer, c_type* v, i32 length, u32 existing,          \
                         u32* err) {                                                                              \
        return ::T##_unmarshal(h, d, buffer, v, length, existing, err);                                           \
    }                                                                                                             \
    static i32 print(loom_handle* h, u32 d, char* buffer, i32 depth, const char* label, const c_type* v,          \
                     i32 length, u32* err) {                                                                      \
        return ::T##_print(h, d, buffer, depth, label, v, length, err);                                           \
    }                                                                                                             \
    static u32 to_xml(loom_handle* h, u32 d, const char* element, char* buffer, const c_type* v, i32 length,      \
                      u8 state, u32* err) {                                                                       \
        return ::T##_to_xml(h, d, element, buffer, v, length, state, err);                                        \
    }                                                                                                             \
    static void from_xml(loom_handle* h, u32 d, const char* path, const loom_xml_document* document, c_type* v,   \
                         u32* err, char* message, u32 message_length) {                                           \
        ::T##_from_xml(h, d, path, document, v, err, message, message_length);                                    \
    }                                                                                                             \
    static u32 hash(const c_type* v, u32 seed) { return ::T##_hash(v, seed); }                                    \
    static c_type* create(loom_handle* h, u32 d) { return ::T##_create(h, d); }                                   \
    static void destroy(loom_handle* h, u32 d, c_type* v) { ::T##_destroy(h, d, v); }                             \
    static void destroy_internal(loom_handle* h, u32 d, c_type* v, u32 release) {                                 \
        ::T##_destroy_internal(h, d, v, release);                                                                 \
    }

#define TRELLIS_COMPARE_FAMILY(T)                                                                                 \
    static i32 compare(const c_type* a, const c_type* b) { return ::T##_compare(a, b); }

// A set that leaves its source alone; a record's takes what its source points at.
#define TRELLIS_COPY_FAMILY(T)                                                                                    \
    static void set(loom_handle* h, u32 d, c_type* to, const c_type* from, u32* err) {                            \
        ::T##_set(h, d, to, from, err);                                                                           \
    }

#define TRELLIS_GET_FAMILY(T)                                                                                     \
    static c_type* get(loom_handle* h, u32 d, c_type* v, u32* err) { return ::T##_get(h, d, v, err); }

#define TRELLIS_PLAIN_FAMILY(T)                                                                                   \
    static plain_type get_value(loom_handle* h, u32 d, const c_type* v, u32* err) {                               \
        return ::T##_get_value(h, d, v, err);                                                                     \
    }                                                                                                             \
    static void set_value(loom_handle* h, u32 d, c_type* v, plain_type plain, u32* err) {                         \
        ::T##_set_value(h, d, v, plain, err);                                                                     \
    }

#define TRELLIS_EMBEDDED_FAMILY(T)                                                                                \
    static loom_type_info* type_info() { return &::_##T##_type_info_internal; }                                   \
    static void set_instance_embedded(loom_handle* h, u32 d, c_type* v) { ::T##_set_instance_embedded(h, d, v); }

// `initialize` of values that are called with nine arguments.
#define TRELLIS_VALUE_INITIALIZE(T)                                                                               \
    static void initialize(loom_handle* h, u32 d, c_type* v, u32 write_through, u32 no_accounting, void* base,    \
                           u32* err) {                                                                            \
        ::T##_initialize(h, d, v, type_info(), write_through, no_accounting, OBJ_NESTED, base, err);              \
    }

#define TRELLIS_REFERENCES_FAMILY(T)                                                                              \
    static u32 get_oid_count(loom_handle* h, u32 d, const c_type* v, u32* err) {                                  \
        return ::T##_get_oid_count(h, d, v, err);                                                                 \
    }                                                                                                             \
    static void get_object_references(loom_handle* h, u32 d, const c_type* v, void** references, u32 count,       \
                                      u32* err) {                                                                 \
        ::T##_get_object_references(h, d, v, references, count, err);                                             \
    }                                                                                                             \
    static void set_all_state_tracking_flag(loom_handle* h, u32 d, c_type* v, u8 state) {                         \
        ::T##_set_all_state_tracking_flag(h, d, v, state);                                                        \
    }

// A record, union or choice of a bundle.
#define TRELLIS_RECORD_FAMILY(T)                                                                                  \
    static constexpr value_category category = value_category::record;                                            \
    TRELLIS_COMMON_FAMILY(T)                                                                                      \
    static void set(loom_handle* h, u32 d, c_type* to, c_type* from, u32* err) {                                  \
        ::T##_set(h, d, to, from, err);                                                                           \
    }                                                                                                             \
    TRELLIS_COMPARE_FAMILY(T)                                                                                     \
    static c_type* get(loom_handle* h, u32 d, c_type* v, u32*) { return ::T##_get(h, d, v); }                     \
    TRELLIS_EMBEDDED_FAMILY(T)                                                                                    \
    TRELLIS_VALUE_INITIALIZE(T)                                                                                   \
    TRELLIS_REFERENCES_FAMILY(T)                                                                                  \
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
                                  u32* err);                                                                      \
    static c_type* create_internal(loom_handle* h, u32 d) { return ::T##_create_internal(h, d); }                 \
    static u32 marshal_for_clone(loom_handle* h, u32 d, void* buffer, const c_type* v, i32 length, u32* err) {    \
        return ::T##_marshal_for_clone(h, d, buffer, v, length, err);                                             \
    }                                                                                                             \
    static void clone_internal(loom_handle* h, u32 d, const c_type* from, c_type** out, void* workspace,          \
                               i32 size, u32* err) {                                                              \
        ::T##_clone_internal(h, d, from, out, workspace, size, err);                                              \
    }                                                                                                             \
    static void post_copyout_cleanup(loom_handle* h, u32 d, c_type* to, c_type* from, u32* err) {                 \
        ::T##_post_copyout_cleanup(h, d, to, from, err);                                                          \
    }                                                                                                             \
    static void offset_update(loom_handle* h, u32 d, c_type* v, void* base, u32* err) {                           \
        ::T##_offset_update(h, d, v, base, err);                                                                  \
    }                                                                                                             \
    static void offset_remove(loom_handle* h, u32 d, c_type* v, u32* err) { ::T##_offset_remove(h, d, v, err); }

// An enumeration of a bundle: six arguments to initialize.
#define TRELLIS_ENUMERATION_FAMILY(T)                                                                             \
    static constexpr value_category category = value_category::enumeration;                                       \
    TRELLIS_COMMON_FAMILY(T)                                                                                      \
    TRELLIS_COPY_FAMILY(T)                                                                                        \
    TRELLIS_COMPARE_FAMILY(T)                                                                                     \
    static c_type* get(loom_handle* h, u32 d, c_type* v, u32*) { return ::T##_get(h, d, v); }                     \
    TRELLIS_PLAIN_FAMILY(T)                                                                                       \
    static c_type* create_internal(loom_handle* h, u32 d) { return ::T##_create_internal(h, d); }                 \
    TRELLIS_EMBEDDED_FAMILY(T)                                                                                    \
    static i32 map_to_user_value(i32 value) { return ::T##_map_to_user_value(value); }                            \
    static void initialize(loom_handle* h, u32 d, c_type* v, u32 write_through, u32, void*, u32*) {               \
        ::T##_initialize(h, d, v, type_info(), write_through, OBJ_NESTED);                                        \
    }

// An enumeration that another bundle shares: the argument list of a value.
#define TRELLIS_SHARED_ENUMERATION_FAMILY(T)                                                                      \
    static constexpr value_category category = value_category::shared_enumeration;                                \
    TRELLIS_COMMON_FAMILY(T)                                                                                      \
    TRELLIS_COPY_FAMILY(T)                                                                                        \
    TRELLIS_COMPARE_FAMILY(T)                                                                                     \
    static c_type* get(loom_handle* h, u32 d, c_type* v, u32*) { return ::T##_get(h, d, v); }                     \
    static c_type* create_internal(loom_handle* h, u32 d) { return ::T##_create_internal(h, d); }                 \
    TRELLIS_PLAIN_FAMILY(T)                                                                                       \
    static i32 map_to_user_value(i32 value) { return ::T##_map_to_user_value(value); }                            \
    TRELLIS_EMBEDDED_FAMILY(T)                                                                                    \
    TRELLIS_VALUE_INITIALIZE(T)

// A flag set of a bundle.
#define TRELLIS_FLAG_SET_FAMILY(T)                                                                                \
    static constexpr value_category category = value_category::flag_set;                                          \
    TRELLIS_COMMON_FAMILY(T)                                                                                      \
    TRELLIS_COPY_FAMILY(T)                                                                                        \
    TRELLIS_COMPARE_FAMILY(T)                                                                                     \
    static c_type* get(loom_handle* h, u32 d, c_type* v, u32*) { return ::T##_get(h, d, v); }                     \
    static c_type* create_internal(loom_handle* h, u32 d) { return ::T##_create_internal(h, d); }                 \
    TRELLIS_EMBEDDED_FAMILY(T)                                                                                    \
    static void initialize(loom_handle* h, u32 d, c_type* v, u32 write_through, u32, void*, u32*) {               \
        ::T##_initialize(h, d, v, type_info(), write_through, OBJ_NESTED);                                        \
    }

namespace types {

// The list's row of T, which a forgotten one has not.
#define TRELLIS_BUILT_IN(T)                                                                                       \
    static constexpr char name[] = #T;                                                                            \
    static constexpr built_in_value row = built_in(name);                                                         \
    static constexpr value_category category = row.category;                                                      \
    static_assert(sizeof(c_type) == row.width && alignof(c_type) == row.alignment);                               \
    TRELLIS_COMMON_FAMILY(T)                                                                                      \
    TRELLIS_COPY_FAMILY(T)                                                                                        \
    TRELLIS_GET_FAMILY(T)
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
        TRELLIS_COMPARE_FAMILY(T)                                                                                 \
        TRELLIS_EMBEDDED_FAMILY(T)                                                                                \
        TRELLIS_VALUE_INITIALIZE(T)                                                                               \
        TRELLIS_REFERENCES_FAMILY(T)                                                                              \
        static void post_copyout_cleanup(loom_handle* h, u32 d, c_type* to, const c_type* from, u32* err) {       \
            ::T##_post_copyout_cleanup(h, d, to, from, err);                                                      \
        }                                                                                                         \
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
    TRELLIS_COMPARE_FAMILY(loom_boolean)
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
