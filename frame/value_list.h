// The built-in value types: the one list of what the schema compiler, its emitters and the families of a bundle
// need to know of each. <loom/values.h> declares their operations, the runtime defines them (runtime/values), and
// <loom/direct.h> says which of them may be done in place.
#pragma once

#include "frame/basic_types.h"

namespace trellis {

enum class value_category : u8 {
    scalar,
    boolean,
    object_value, // addresses, times, strings, byte strings
    opaque_value,
    shared_enumeration, // an enumeration that another bundle owns
    enumeration,
    flag_set,
    record, // records, unions and choices
    oid,
};

/// What a built-in value is made of, and so what may be done with it without a call.
enum class value_make : u8 {
    number,      // on the wire most significant byte first
    octets,      // on the wire as they lie in memory
    text,        // pointer to a block of characters with a zero behind them, and their count
    byte_string, // pointer to a block of bytes, and their count
    parts,       // several members in place; the wire form is the runtime's
    opaque,      // known to the runtime only
};

struct built_in_value {
    const char* name;   // in schemas, and of its operations
    const char* c_type; // in the headers of bundles
    const char* facade; // in trellis::types
    value_category category;
    value_make make;
    u32 width;
    u32 alignment;

    constexpr bool is_number() const { return make == value_make::number; }
    constexpr bool is_no_number() const { return !is_number(); }
    constexpr bool is_octets() const { return make == value_make::octets; }
    constexpr bool owns_block() const { return make == value_make::text || make == value_make::byte_string; }
};

namespace value_list {
using enum value_category;
using enum value_make;
// clang-format off
inline constexpr built_in_value rows[] = {
    {"u_int8", "uint8_t", "u_int8", scalar, number, 1, 1},
    {"u_int16", "uint16_t", "u_int16", scalar, number, 2, 2},
    {"u_int32", "uint32_t", "u_int32", scalar, number, 4, 4},
    {"u_int64", "uint64_t", "u_int64", scalar, number, 8, 8},
    {"int8", "int8_t", "int8", scalar, number, 1, 1},
    {"int16", "int16_t", "int16", scalar, number, 2, 2},
    {"int32", "int32_t", "int32", scalar, number, 4, 4},
    {"int64", "int64_t", "int64", scalar, number, 8, 8},
    {"char", "char", "char_", scalar, number, 1, 1},
    {"double", "double", "double_", scalar, number, 8, 8},
    {"float", "float", "float_", scalar, number, 4, 4},
    {"loom_boolean", "loom_boolean", "loom_boolean", boolean, number, 4, 4},
    {"ipv4_addr", "struct ipv4_addr", "ipv4_addr", object_value, octets, 4, 4},
    {"ipv6_addr", "struct ipv6_addr", "ipv6_addr", object_value, octets, 16, 1},
    {"loom_mac_addr", "struct loom_mac_addr", "loom_mac_addr", object_value, octets, 6, 1},
    {"ip_address", "struct ip_address", "ip_address", object_value, parts, 48, 8},
    {"ip_prefix", "struct ip_prefix", "ip_prefix", object_value, parts, 48, 8},
    {"calendar_time", "struct calendar_time", "calendar_time", object_value, parts, 16, 8},
    {"timestamp", "struct timestamp", "timestamp", object_value, parts, 8, 4},
    {"loom_vstring", "struct loom_vstring", "loom_vstring", object_value, text, 16, 8},
    {"nexa_bytestr", "struct nexa_bytestr", "nexa_bytestr", object_value, byte_string, 16, 8},
    {"loom_phys_addr", "struct loom_phys_addr", "loom_phys_addr", opaque_value, opaque, 16, 8},
    {"loom_aes_vstring", "struct loom_aes_vstring", "loom_aes_vstring", opaque_value, text, 16, 8},
    {"loom_aes_password_vstring", "struct loom_aes_password_vstring", "loom_aes_password_vstring", opaque_value, text, 16, 8},
    {"loom_username_vstring", "struct loom_username_vstring", "loom_username_vstring", opaque_value, text, 16, 8},
};
// clang-format on
} // namespace value_list

/// The row of that name; null when there is none.
constexpr const built_in_value* find_built_in(const char* name) {
    for (const built_in_value& each : value_list::rows)
        if (__builtin_strcmp(each.name, name) == 0) return &each;
    return nullptr;
}

/// The row of a value that code names: one that the list forgets does not compile.
consteval const built_in_value& built_in(const char* name) { return *find_built_in(name); }

} // namespace trellis
