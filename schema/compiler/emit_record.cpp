// Records: the C struct with its prototypes, the facade, the model, and one line per exported function. What
// the functions do stands in instance/ and codec/.
#include "schema/compiler/c_names.h"
#include "schema/compiler/emit_families.h"

#include <algorithm>

namespace trellis::schema {

namespace {

/// Width and alignment follow from the type; the asserts of the unit hold the layout against them.
std::string_view member_declaration(const attribute& of) {
    switch (of.shape) {
    case attribute_shape::plain:
    case attribute_shape::object:
    case attribute_shape::length: return "    $c_type $attribute;\n";
    case attribute_shape::fixed_array:
    case attribute_shape::fixed_string: return "    $c_type $attribute[$extent];\n";
    case attribute_shape::variable_array:
    case attribute_shape::counted_string:
    case attribute_shape::arm: return "    $c_type* $attribute;\n";
    case attribute_shape::oid: return "    loom_type_info* loom_$attribute_type;\n    loom_oid $attribute;\n";
    case attribute_shape::list: return "    loom_list_head $attribute;\n";
    }
    return {};
}

bool is_named_type(const type_ref& type) {
    return type.of_record != nullptr || type.of_enumeration != nullptr || type.of_flag_set != nullptr;
}

/// Name of the header that declares a named type.
std::string header_of(const bundle& source, const type_ref& type) {
    const std::string* home = &source.name;
    if (type.of_enumeration != nullptr && type.of_enumeration->imported_from != nullptr)
        home = &type.of_enumeration->imported_from->name;
    return substitute("<$home/$type.h>", {{"$home", *home}, {"$type", type.name}});
}

const variant_layout& newest_layout(const record& type) { return type.variants.back(); }

// ---- Public header ---------------------------------------------------------------------------------------------

void add_c_struct(template_writer& body, const record& type) {
    body.add_plain(doc_comment(type.doc));
    body.add(R"(struct $type {
    loom_type_info* loom_tinfo;
    int8_t loom_variant;
    uint8_t loom_layout_variant;
    uint8_t loom_flags;
)");
    if (type.list_element) body.add("    loom_list_links loom_links;\n");
    for (const attribute& each : type.attributes)
        body.add_plain(doc_comment(each.doc, "    "))
            .add(member_declaration(each),
                 {{"$c_type", c_type(each.type)}, {"$attribute", each.name}, {"$extent", each.extent}});
    body.add(R"(    uint8_t loom_slop[$slop];
};

)",
             {{"$slop", newest_layout(type).alloc_slop}});
}

void emit_public_header(emission& run, const record& type, const type_text& text) {
    std::vector<std::string> includes;
    std::set<std::string> pointed_at;
    for (const attribute& each : type.attributes) {
        if (!is_named_type(each.type)) continue;
        if (facts_of(each.shape).in_place)
            includes.push_back(header_of(run.source, each.type));
        else
            pointed_at.insert(c_type(each.type));
    }
    for (const auto& [holder, index] : type.held_by)
        pointed_at.insert("struct " + holder->name);
    template_writer body({{"$type", type.name}});
    for (const std::string& each : pointed_at)
        body.add("$c_type;\n", {{"$c_type", each}});
    if (!pointed_at.empty()) body.add("\n");
    add_c_struct(body, type);
    body.add("extern loom_type_info _$type_type_info_internal;\n\n").add_plain(text.prototypes);
    run.public_header(type.name, "Record " + type.name + ".", includes, body.take());
}

// ---- Facade and model ------------------------------------------------------------------------------------------

/// Values whose binary form is their own bytes.
bool has_fixed_form(const attribute& of) {
    if (of.shape == attribute_shape::fixed_string) return true;
    if (!facts_of(of.shape).in_place) return false;
    const built_in_value* value = of.type.value;
    return value != nullptr && (value->is_number() || value->is_octets());
}

/// Small records of which holders write and read the binary form in place (codec/part_form.h).
bool is_part_of_holders(const record& type) {
    constexpr std::size_t most_attributes = 16;
    return !type.attributes.empty() && type.attributes.size() <= most_attributes && !type.list_element &&
           std::all_of(type.attributes.begin(), type.attributes.end(),
                       [](const attribute& each) { return each.since == 0 && has_fixed_form(each); });
}
bool is_part_of_holders(const type_ref& type) {
    if (type.of_enumeration != nullptr)
        return type.of_enumeration->imported_from == nullptr && !type.of_enumeration->shared;
    if (type.of_flag_set != nullptr) return true;
    return type.of_record != nullptr && is_part_of_holders(*type.of_record);
}

void emit_facade(emission& run, const record& type) {
    const bool is_part = is_part_of_holders(type);
    template_writer text =
        run.writer("What other types call on $type.", {{"$type", type.name},
                                                       {"$newest", type.newest},
                                                       {"$base_size", type.base_size},
                                                       {"$tracking_size", newest_layout(type).tracking_size},
                                                       {"$tracking_alignment", type.tracking_alignment},
                                                       {"$trace_unit", type.trace_unit},
                                                       {"$has_nested_records", type.has_nested_records},
                                                       {"$list_element", type.list_element},
                                                       {"$oid_count", type.oid_count}});
    text.add(R"(#pragma once

#include "bundle.h"
#include "instance/value_types.h"
#include <$bundle/$type.h>

)");
    if (is_part) text.add("namespace bundle_$bundle::models {\nstruct $type;\n}\n");
    text.add(R"(namespace bundle_$bundle::types {
struct $type {
    using c_type = ::$type;
    using bundle = bundle_$bundle::bundle;
)");
    if (is_part) text.add("    using model = models::$type;\n");
    text.add(R"(    static constexpr char name[] = "$type";
    static constexpr i8 newest = $newest;
    static constexpr u32 base_size = $base_size;
    static constexpr u32 tracking_size = $tracking_size;
    static constexpr u32 tracking_alignment = $tracking_alignment;
    static constexpr int trace_unit = $trace_unit;
    static constexpr bool has_nested_records = $has_nested_records;
    static constexpr bool list_element = $list_element;
    static constexpr u32 oid_count = $oid_count;
    TRELLIS_RECORD_FAMILY($type)
};
} // namespace bundle_$bundle::types
)");
    run.out.add("src/types/" + type.name + ".h", text.take());
}

/// The base of an attribute in the model up to its place. Other attributes go by their names in the model.
std::string_view shape_of(const attribute& of) {
    switch (of.shape) {
    case attribute_shape::plain: return "plain<$type, $facade";
    case attribute_shape::object: return "object<$type, $facade";
    case attribute_shape::length: return "length<$type, $facade";
    case attribute_shape::list: return "list<$type, $facade";
    case attribute_shape::fixed_array: return "fixed_array<$type, $facade, $extent";
    case attribute_shape::variable_array: return "variable_array<$type, $facade, $length_";
    case attribute_shape::counted_string: return "counted_string<$type, $length_";
    case attribute_shape::fixed_string: return "fixed_string<$type, $extent";
    case attribute_shape::oid: return "oid<$type";
    case attribute_shape::arm: return "arm<$type, $facade, $discriminator_, $case";
    }
    return {};
}

void add_attribute(template_writer& text, const attribute& of) {
    const substitutions with = {
        {"$member", model_member(of)}, {"$attribute", of.name},     {"$facade", facade(of.type)},
        {"$extent", of.extent},        {"$length", of.length_name}, {"$discriminator", of.discriminator},
        {"$case", of.case_value},      {"$offset", of.offset},      {"$since", of.since},
        {"$track", of.track},          {"$trace", of.trace},        {"$target", of.target_table}};
    text.add("    struct $member : shapes::", with).add(shape_of(of), with);
    text.add(R"(, place{$offset, $since, $track, $trace}> {
        static constexpr char name[] = "$attribute";
)",
             with);
    if (facts_of(of.shape).reference)
        text.add("        static loom_type_info* target() { return &::_$target_table_type_info_internal; }\n",
                 with);
    text.add("    };\n");
}

std::string variant_figures(const record& type, std::uint32_t variant_layout::*figure) {
    std::vector<std::string> figures;
    for (const variant_layout& each : type.variants)
        figures.push_back(std::to_string(each.*figure));
    return "{" + joined(figures) + "}";
}

void emit_model(emission& run, const record& type) {
    std::set<std::string> facades = {type.name};
    std::set<std::string> parts;
    std::set<std::string> targets;
    std::vector<std::string> members;
    for (const attribute& each : type.attributes) {
        if (is_named_type(each.type)) (is_part_of_holders(each.type) ? parts : facades).insert(each.type.name);
        if (facts_of(each.shape).reference) targets.insert(each.target_table);
        members.push_back(model_member(each));
    }
    template_writer text = run.writer("Attributes and figures of $type.",
                                      {{"$type", type.name},
                                       {"$newest", type.newest},
                                       {"$used_lengths", variant_figures(type, &variant_layout::used_length)},
                                       {"$layout_sizes", variant_figures(type, &variant_layout::layout_size)},
                                       {"$tracking_sizes", variant_figures(type, &variant_layout::tracking_size)},
                                       {"$base_size", type.base_size},
                                       {"$trace_unit", type.trace_unit},
                                       {"$trace_base", type.trace_base},
                                       {"$list_element", type.list_element},
                                       {"$members", joined(members)}});
    text.add("#pragma once\n\n#include \"instance/attribute.h\"\n");
    for (const std::string& each : parts)
        text.add("#include \"models/$part.h\"\n", {{"$part", each}});
    for (const std::string& each : facades)
        text.add("#include \"types/$facade.h\"\n", {{"$facade", each}});
    text.add("\n");
    for (const std::string& each : targets)
        text.add("extern \"C\" loom_type_info _$target_table_type_info_internal;\n", {{"$target", each}});
    text.add(R"(namespace bundle_$bundle::models {
struct $type {
    using type = types::$type;
    using object = ::$type;
    using bundle = bundle_$bundle::bundle;
    static constexpr char name[] = "$type";
    static constexpr i8 newest = $newest;
    static constexpr u32 used_lengths[] = $used_lengths;
    static constexpr u32 layout_sizes[] = $layout_sizes;
    static constexpr u32 tracking_sizes[] = $tracking_sizes;
    static constexpr u32 base_size = $base_size;
    static constexpr int trace_unit = $trace_unit;
    static constexpr u32 trace_base = $trace_base;
    static constexpr bool list_element = $list_element;
)");
    for (const attribute& each : type.attributes)
        add_attribute(text, each);
    text.add(R"(    using attributes = type_list<$members>;
};
} // namespace bundle_$bundle::models
)");
    run.out.add("src/models/" + type.name + ".h", text.take());
}

// ---- Unit ------------------------------------------------------------------------------------------------------

/// The layout as the compiler of the library sees it.
void add_layout_asserts(template_writer& exports, const record& type) {
    exports.add("static_assert(sizeof(::$type) == $size);\n", {{"$size", type.base_size}});
    for (const attribute& each : type.attributes)
        exports.add("static_assert(offsetof(::$type, $member) == $offset);\n",
                    {{"$member", each.shape == attribute_shape::oid ? "loom_" + each.name + "_type" : each.name},
                     {"$offset", each.offset}});
    if (type.list_element)
        exports.add("static_assert(offsetof(::$type, loom_links) == LOOM_LIST_LINKS_OFFSET);\n");
}

/// Workers that facades declare for holders in other units.
constexpr std::string_view facade_workers =
    R"(void types::$type::release_replaced(loom_handle* h, u32 d, c_type* to, const c_type* from) {
    trellis::record::release_replaced<models::$type>(h, d, to, from);
}
void types::$type::forget_references(loom_handle* h, u32 d, c_type* v, bool inside) {
    trellis::record::forget_references<models::$type>(h, d, v, inside);
}
u32 types::$type::len_straight(loom_handle* h, u32 d, const c_type* v) {
    return trellis::record::len_straight<models::$type>(h, d, v);
}
u32 types::$type::marshal_straight(loom_handle* h, u32 d, u8* buffer, const c_type* v, i32 length, u32* err) {
    return trellis::record::marshal_straight<models::$type>(h, d, buffer, v, length, err);
}
u32 types::$type::unmarshal_straight(loom_handle* h, u32 d, const u8* buffer, c_type* v, i32 length, u32 existing, u32* err) {
    return trellis::record::unmarshal_straight<models::$type>(h, d, buffer, v, length, existing, err);
}
)";

} // namespace

type_text emit_record(emission& run, const record& type) {
    type_text text;
    text.name = type.name;
    text.includes = {"models/" + type.name + ".h"};
    for (const auto& [holder, index] : type.held_by)
        text.includes.push_back("models/" + holder->name + ".h");
    template_writer exports({{"$type", type.name}});
    add_layout_asserts(exports, type);
    text.exports = exports.add(facade_workers).take();
    for (const operation_group& each : operations_of(type))
        run.add(text, each);
    emit_public_header(run, type, text);
    emit_facade(run, type);
    emit_model(run, type);
    return text;
}

} // namespace trellis::schema
