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

/// What those who walk all attributes need to know of a shape. A shape without a case here does not compile.
struct shape_facts {
    const char* name = nullptr; // in the JSON form; null for what is no shape
    bool tracked = true;        // has a place in the tracking area
    bool whole = false;         // one value of the attribute's type, in place: set as a whole
    bool in_place = false;      // values of the type in place: that one, or N
    bool gettable = false;      // get_all hands it out
    bool settable = false;      // set_all takes it
    bool flag_block = false;    // the tracking area points at a block with one state byte per element
    bool reference = false;     // refers to a stored object and counts there
};

constexpr shape_facts facts_of(attribute_shape shape) {
    switch (shape) {
    case attribute_shape::plain:
        return {.name = "plain", .whole = true, .in_place = true, .gettable = true, .settable = true};
    case attribute_shape::object: return {.name = "object", .whole = true, .in_place = true};
    case attribute_shape::fixed_array: return {.name = "fixed array", .in_place = true};
    case attribute_shape::variable_array: return {.name = "variable array", .flag_block = true};
    case attribute_shape::length: return {.name = "length", .tracked = false, .gettable = true};
    case attribute_shape::oid: return {.name = "oid", .reference = true};
    case attribute_shape::counted_string: return {.name = "counted string"};
    case attribute_shape::fixed_string: return {.name = "fixed string"};
    case attribute_shape::arm: return {.name = "arm"};
    case attribute_shape::list: return {.name = "list"};
    }
    return {};
}

constexpr const char* name_of(attribute_shape shape) { return facts_of(shape).name; }

/// The shape of that name; false, and `*shape` is left alone, when there is none.
constexpr bool shape_named(const char* name, attribute_shape* shape) {
    for (u8 i = 0; name_of(static_cast<attribute_shape>(i)) != nullptr; ++i) {
        if (__builtin_strcmp(name_of(static_cast<attribute_shape>(i)), name) != 0) continue;
        *shape = static_cast<attribute_shape>(i);
        return true;
    }
    return false;
}

} // namespace trellis
