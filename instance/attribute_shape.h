// The shapes that an attribute can have: the one list of them, with their names in the JSON form of a schema. The
// schema compiler gives each attribute a shape, every family of operations has one piece of code per shape, and
// the tool explains bytes by it. What an attribute of each shape consists of stands in attribute.h.
#pragma once

#include "frame/basic_types.h"

namespace trellis {

enum class attribute_shape : u8 {
    plain,          // scalar, boolean, enumeration (discriminators too), in place
    object,         // string, address, time, flag set, record, in place
    fixed_array,    // N values in place
    variable_array, // pointer to a block, behind a length attribute
    length,         // count of the variable array or counted string that follows
    counted_string, // pointer to terminated characters, behind a length attribute
    fixed_string,   // N characters in place
    oid,            // type word and oid value
    arm,            // pointer, null until set
    list,           // head of a chain
};

/// In the order of the enumeration.
inline constexpr const char* attribute_shape_names[] = {
    "plain",        "object", "fixed array", "variable array", "length", "counted string",
    "fixed string", "oid",    "arm",         "list",
};
static_assert(sizeof attribute_shape_names / sizeof *attribute_shape_names ==
              static_cast<unsigned>(attribute_shape::list) + 1);

constexpr const char* name_of(attribute_shape shape) { return attribute_shape_names[static_cast<u8>(shape)]; }

/// The shape of that name; false, and `*shape` is left alone, when there is none.
constexpr bool shape_named(const char* name, attribute_shape* shape) {
    for (u8 i = 0; i <= static_cast<u8>(attribute_shape::list); ++i) {
        if (__builtin_strcmp(attribute_shape_names[i], name) != 0) continue;
        *shape = static_cast<attribute_shape>(i);
        return true;
    }
    return false;
}

} // namespace trellis
