// The model of a schema: what the reader makes of the text, the checker proves, the layout completes and the
// emitters write out. Plain data; no stage lives here.
#pragma once

#include "diag/statements.h"
#include "frame/value_list.h"
#include "instance/attribute_shape.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace trellis::schema {

/// Where something stands in a schema text; line and column count from 1.
struct location {
    std::string file;
    int line = 0;
    int column = 0;
};

struct record;
struct enumeration;
struct flag_set;
struct table;
struct bundle;

/// What an attribute is made of. Exactly one of the pointers is set, or none for an oid.
struct type_ref {
    std::string name; // as written in the schema
    const built_in_value* value = nullptr;
    record* of_record = nullptr;
    enumeration* of_enumeration = nullptr; // own or imported
    flag_set* of_flag_set = nullptr;
};

/// False for oids, and for what the schema does not declare.
inline bool is_known(const type_ref& type) {
    return type.value != nullptr || type.of_record != nullptr || type.of_enumeration != nullptr ||
           type.of_flag_set != nullptr;
}
/// Scalars and the truth value: passed by value.
inline bool is_plain_value(const type_ref& type) {
    return type.value != nullptr &&
           (type.value->category == value_category::scalar || type.value->category == value_category::boolean);
}

struct attribute {
    std::string name;
    std::string doc;
    location where;
    attribute_shape shape = attribute_shape::plain;
    type_ref type;
    std::uint32_t extent = 0;    // fixed_array, fixed_string
    std::string length_name;     // variable_array, counted_string: the length attribute
    std::string discriminator;   // arm: the discriminator's name
    std::string case_name;       // arm: the member that selects it
    std::int32_t case_value = 0; // arm: that member's user value
    std::string target_table;    // oid: the table it refers to, own or imported
    int since = 0;
    // Completed by the layout (see layout.h):
    std::uint32_t offset = 0;
    std::uint32_t track = 0; // first byte in the tracking area
    std::uint32_t trace = 0; // index of its first trace statement in the unit
    diag::trace_kind trace_kind = diag::trace_kind::plain;
};

/// Sizes of one variant.
struct variant_layout {
    std::uint32_t used_length = 0;
    std::uint32_t layout_size = 0;
    std::uint32_t tracking_size = 0;
    std::uint32_t alloc_slop = 0;
};

/// What every named type has.
struct named {
    std::string name;
    std::string doc;
    location where;
    std::array<std::uint8_t, 16> luid{};
    std::string luid_text;
    std::string definition;      // canonical text of the definition
    std::string definition_hash; // MD5 of it, lower-case hexadecimal
    int trace_unit = 0;
    std::uint32_t trace_base = 0;
    int newest = 0; // highest variant
    std::vector<variant_layout> variants;
    std::uint32_t base_size = 0;
    std::uint32_t call_base = 0; // place of the type's first function in the function order (see names.h)
};

struct record : named {
    std::vector<attribute> attributes;
    bool list_element = false;            // some record holds a list of it
    bool has_nested_records = false;      // in place or in a fixed array
    std::uint32_t oid_count = 0;          // its own oid attributes, nested records not counted
    std::uint32_t tracking_alignment = 1; // of its tracking area: 8 when the area holds a pointer
    /// Lists that hold this record, as (holder, attribute index): each gives a `<attribute>_get_parent`.
    std::vector<std::pair<const record*, std::size_t>> held_by;
};

struct enumeration_member {
    std::string name;
    std::string doc;
    location where;
    std::int32_t value = 0; // user value; the internal value is the place in the list
    int since = 0;
};
struct enumeration : named {
    std::vector<enumeration_member> members;
    bool shared = false;                   // other bundles import it: `_initialize` takes a value's nine arguments
    const bundle* imported_from = nullptr; // null: the bundle's own; else a bundle of which only the name is known
};

struct flag_member {
    std::string name;
    std::string doc;
    location where;
    int since = 0;
};
struct flag_set : named {
    std::vector<flag_member> bits;
    std::uint32_t bit_bytes() const { return static_cast<std::uint32_t>((bits.size() + 7) / 8); }
};

enum class key_kind { attribute, whole_payload, object };

struct table : named {
    location key_where;
    record* payload = nullptr;
    key_kind key = key_kind::attribute;
    std::string key_attribute;            // key_kind::attribute
    record* key_record = nullptr;         // key_kind::object; the payload for whole_payload
    bool ordered = false;                 // payload has the u_int32 attribute `reorder_seq_compact_no`
    std::optional<std::string> told_luid; // a luid given in the schema
    // the table record is a type of its own
    std::array<std::uint8_t, 16> record_luid{};
    std::string record_luid_text;
    std::string record_definition;
    std::string record_definition_hash;
};

struct message : named {
    record* payload = nullptr; // null: none
};

/// A table of another bundle, known by name and luid.
struct foreign_table {
    std::string name;
    std::string luid_text;
    location where;
};

/// A bundle that this one imports from.
struct import {
    std::string bundle_name;
    location where;
    std::unique_ptr<bundle> home;                           // stands for the other bundle: name only
    std::vector<std::unique_ptr<enumeration>> enumerations; // shared enumerations used here; only names count
    std::vector<foreign_table> tables;
};

/// One function of the bundle's interface, in function order; its place is its call counter's index.
struct exported_function {
    std::string name;
    std::string family;              // "record", "accessor", "enumeration", "flag", "table", "message", "bundle"
    const location* where = nullptr; // the declaration that brings it
};

/// One whole schema. All types stand in schema order; the type list of the bundle follows it.
struct bundle {
    std::string name;
    std::string doc;
    location where;
    std::vector<std::unique_ptr<import>> imports;
    std::vector<std::unique_ptr<record>> records;
    std::vector<std::unique_ptr<enumeration>> enumerations;
    std::vector<std::unique_ptr<flag_set>> flag_sets;
    std::vector<std::unique_ptr<table>> tables;
    std::vector<std::unique_ptr<message>> messages;
    /// Order of the table registry: own and foreign tables by name. Empty in the schema: own tables in schema
    /// order, then the foreign ones.
    std::vector<std::string> registry;
};

} // namespace trellis::schema
