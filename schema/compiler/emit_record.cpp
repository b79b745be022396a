// Records: the C struct with its prototypes, the facade, the model, and one line per exported function. What
// the functions do stands in instance/ and codec/.
#include "schema/compiler/emit_families.h"

#include <algorithm>

namespace trellis::schema {

namespace {

// Operations of every record, in the order of the list of functions.
constexpr operation record_operations[] = {
    {"create", "$T*", "$H",
     "A new object, or null. Ended by _destroy, or given to a holder by one of its setters."},
    {"create_cr", "$T*", "loom_handle* handle",
     "A new object; with an error pending or without memory the type's sentinel, which all _cr forms accept."},
    {"create_internal", "$T*", "$H", "Worker of _create and _create_cr."},
    {"initialize", "uint32_t",
     "$H, $T* object, const loom_type_info* tinfo, uint32_t write_through, uint32_t no_accounting, uint8_t "
     "obj_flags, void* sttr_base, $e",
     "Sets up zero-filled memory as an object. `write_through` 0 keeps the write hook out; `sttr_base` is the "
     "tracking area a holder gives to a nested object."},
    {"set_instance_embedded", "void", "$H, $T* object", "Marks the object and what is nested in it as embedded."},
    {"get_oid_count", "uint32_t", "$H, const $T* object, $e", "Object references that the type itself holds."},
    {"get_object_references", "void", "$H, const $T* object, void** references, uint32_t count, $e",
     "Stores the objects referred to, in attribute order."},
    {"sizeof", "uint32_t", "loom_handle* handle", "Bytes of a new object, its tracking area included."},
    {"sizeof_internal", "uint32_t",
     "loom_handle* handle, const $T* object, uint32_t with_tracking, uint32_t tracking_only",
     "Bytes of this object's layout, with or as its tracking area; null counts as the newest layout."},
    {"destroy", "void", "$H, $T* object",
     "Ends an object and all that it owns. Null and the sentinel are allowed."},
    {"destroy_cr", "void", "loom_handle* handle, $T* object", "The same in the handle's domain."},
    {"destroy_internal", "void", "$H, $T* object, uint32_t release",
     "Ends what the object owns, and with `release` 1 its own memory."},
    {"adjust_variant", "void", "$H, $T* object, $e", "Raises the object to the variant that may now be written."},
    {"variant_data_index_cap", "uint32_t", "uint32_t variant",
     "The variant in the low byte, lowered to the newest; a negative one stays."},
    {"get_luid", "void", "$H, const $T* object, uint8_t* luid, $e", "Stores the 16 bytes of the type's identity."},
    {"offset_remove", "void", "$H, $T* object, $e", "Takes nested records out of the handle's side table."},
    {"offset_update", "void", "$H, $T* object, void* new_base, $e",
     "Points nested records at their areas inside the tracking area at `new_base`."},
    {"clone", "void", "$H, const $T* source, $T** out, void* workspace, int32_t workspace_size, $e",
     "Deep copy through the binary form, which must fit into the workspace: _len bytes, under state tracking one "
     "more, or the last state may stay behind. One byte behind the workspace may be stored to. No room: 90. The "
     "caller owns the copy."},
    {"clone_cr", "$T*", "loom_handle* handle, const $T* source",
     "Deep copy with the handle's own workspace; null on failure."},
    {"clone_internal", "void", "$H, const $T* source, $T** out, void* workspace, int32_t workspace_size, $e",
     "As _clone, into the object that `*out` may already name."},
    {"marshal_for_clone", "uint32_t", "$H, void* buffer, const $T* object, int32_t length, $e",
     "As _marshal, whatever the peer speaks."},
    {"marshal", "uint32_t", "$H, void* buffer, const $T* object, int32_t length, $e",
     "Writes the binary form into `length` bytes; returns the bytes written. The buffer has one byte more than "
     "`length`, which may be stored to. No room: 90. An object newer than the peer: 43."},
    {"unmarshal", "uint32_t", "$H, const void* buffer, $T* object, int32_t length, uint32_t existing, $e",
     "Reads what _marshal wrote, no byte behind `length`; returns the bytes read, more than `length` when a jump "
     "leads there. `existing` 0: the object is new and empty."},
    {"len", "uint32_t", "$H, const $T* object", "Upper bound of what _marshal writes; null is allowed."},
    {"len_cr", "uint32_t", "loom_handle* handle, const $T* object", "The same; 0 with an error pending."},
    {"compare", "int32_t", "const $T* a, const $T* b",
     "Negative, 0 or positive as `a` sorts before, with or behind."},
    {"hash", "uint32_t", "const $T* object, uint32_t seed", "Mixes the object into `seed`; null gives the seed."},
    {"is_valid_cr", "uint32_t", "loom_handle* handle, const $T* object, uint32_t index, uint32_t flags",
     "1 when the attribute of that number exists for the peer and (`flags` bit 0 clear) the object."},
    {"get_all", "void", "$H, $T* object$outs, $e", "Stores all plain values and lengths."},
    {"get", "$T*", "$H, $T* object", "The object itself, reported as handed out."},
    {"set_all", "void", "$H, $T* object$values, $e", "Stores all plain values; marks nothing."},
    {"set", "void", "$H, $T* destination, $T* source, $e",
     "Moves the source's contents; the source keeps its strings and loses arrays, arms and lists."},
    {"set_all_state_tracking_flag", "void", "$H, $T* object, uint8_t state",
     "Gives every attribute, also of nested records, that state."},
    {"post_copyout_cleanup", "void", "$H, $T* destination, $T* source, $e",
     "After a block copy: the destination takes or copies what both point at."},
    {"print", "int32_t", "$H, char* buffer, int32_t depth, const char* name, const $T* object, int32_t length, $e",
     "Prints the object as text, indented by `depth`; returns the characters written."},
    {"print_cr", "int32_t", "loom_handle* handle, const $T* object, char* buffer, int32_t length",
     "The same under the type's name; -1 with an error pending."},
    {"to_xml", "uint32_t",
     "$H, const char* name, char* buffer, const $T* object, int32_t length, uint8_t state, $e",
     "Writes the object as an XML element; returns the characters written."},
    {"toxml_cr", "int32_t", "loom_handle* handle, const $T* object, char* buffer, int32_t length",
     "The same under the type's name; -1 with an error pending."},
    {"from_xml", "void",
     "$H, const char* path, const loom_xml_document* document, $T* object, $e, char* message, uint32_t "
     "message_length",
     "Reads the element at `path`. A text that is no value sets 22 and names its path in `message`, if given."},
};

// Accessors, by what an attribute is. `$C` is its C type, `$P` what is passed by value.
constexpr operation get_one = {"get", "$C*", "$H, $T* object, $e", "The storage of the value, or null."};
constexpr operation get_value_one = {"get_value", "$P", "$H, $T* object, $e", ""};
constexpr operation set_one = {"set", "void", "$H, $T* object, $source value, $e", "Copies the value."};
constexpr operation set_value_one = {"set_value", "void", "$H, $T* object, $P value, $e", ""};
constexpr operation state_get = {"state_flag_get", "uint8_t", "$H, $T* object, $e", "The attribute's state byte."};
constexpr operation state_set = {"state_flag_set", "void", "$H, $T* object, uint8_t state, $e", ""};

constexpr operation get_element = {"get", "$C*", "$H, $T* object, uint32_t index, $e",
                                   "The element, or null; an index beyond the end sets 2."};
constexpr operation get_element_value = {"get_value", "$P", "$H, $T* object, uint32_t index, $e", ""};
constexpr operation get_mem = {"get_mem", "void", "$H, $T* object, $C* destination, uint32_t length, $e",
                               "Copies the first `length` elements; more than there are sets 22."};
constexpr operation set_fixed_element = {"set", "void", "$H, $T* object, uint32_t index, $source value, $e",
                                         "Copies the value into an element. The index is not checked."};
constexpr operation set_variable_element = {
    "set", "void", "$H, $T* object, uint32_t index, $source value, $e",
    "Copies the value into an element; the array grows to hold `index`. A record gives away what it points at."};
constexpr operation set_element_cr = {"set_cr", "uint32_t",
                                      "loom_handle* handle, $T* object, uint32_t index, $source value",
                                      "As _set; returns the handle's error."};
constexpr operation set_record_element_cr = {
    "set_cr", "uint32_t", "loom_handle* handle, $T* object, uint32_t index, $C* value, uint32_t by_move",
    "As _set; `by_move` 0 copies the value. Returns the handle's error."};
constexpr operation set_element_value = {"set_value", "void", "$H, $T* object, uint32_t index, $P value, $e", ""};
constexpr operation set_mem = {"set_mem", "void", "$H, $T* object, const $C* source, uint32_t length, $e",
                               "Stores `length` elements; a variable array then has just these."};
constexpr operation set_mem_cr = {"set_mem_cr", "uint32_t",
                                  "loom_handle* handle, $T* object, const $C* source, uint32_t length",
                                  "As _set_mem; returns the handle's error."};
constexpr operation remove_elements = {"remove_elements", "void", "$H, $T* object", "Ends all elements."};
constexpr operation array_states[] = {
    {"state_flag_get", "uint8_t", "$H, $T* object, uint32_t index, $e", "The element's state byte."},
    {"state_flag_set", "void", "$H, $T* object, uint32_t index, uint8_t state, $e", ""},
    {"state_flag_get_arr", "void", "$H, $T* object, uint8_t** out, $e",
     "Stores the address of the elements' state bytes."},
    {"state_flag_set_arr", "void", "$H, $T* object, const uint8_t* source, uint32_t length, $e",
     "Copies `length` state bytes, one per element, to the start of the object's tracking area."},
    {"state_flag_whole_get", "uint8_t", "$H, $T* object, $e", "The whole array's state byte."},
    {"state_flag_whole_set", "void", "$H, $T* object, uint8_t state, $e", ""},
};
constexpr operation string_operations[] = {
    {"get", "void", "$H, $T* object, char* destination, uint32_t size, $e",
     "Copies the text, always terminated; 28 when it had to be cut."},
    {"set", "void", "$H, $T* object, const char* source, uint32_t length, $e", "Copies `length` characters."},
    {"set_cr", "uint32_t", "loom_handle* handle, $T* object, const char* source, uint32_t length",
     "As _set; returns the handle's error."},
};
constexpr operation oid_operations[] = {
    {"get_by_ref", "void*", "$H, $T* object, $e", "The object referred to, or null."},
    {"get_by_ref_cr", "void*", "loom_handle* handle, $T* object", "The same in the handle's domain."},
    {"set_by_ref", "void", "$H, $T* object, void* target, $e",
     "Refers to `target` and takes a reference on it; null drops the reference held."},
    {"set_by_ref_cr", "uint32_t", "loom_handle* handle, $T* object, void* target",
     "As _set_by_ref; returns the handle's error."},
};
constexpr operation arm_operations[] = {
    {"get", "$C*", "$H, $T* object, $e", "The arm's value, or null."},
    {"get_detach", "$C*", "$H, $T* object, $e", "Takes the value out; the caller owns it."},
    {"set", "void", "$H, $T* object, $C* value, $e", "Takes ownership of the value and selects its case."},
    {"set_cr", "uint32_t", "loom_handle* handle, $T* object, $C* value", "As _set; returns the handle's error."},
};
constexpr operation list_operations[] = {
    {"add_cr", "uint32_t", "loom_handle* handle, $T* object, $C* element, uint32_t flag, $C* reference",
     "Links the element: flag 0 first, 1 last, 2 before, 3 after `reference`. Returns the handle's error."},
    {"get_count", "uint32_t", "$H, $T* object, $e", "Elements in the list."},
    {"get_cr", "$C*", "loom_handle* handle, $T* object, uint32_t flag, $C* element",
     "Flag 0 the first element, 1 the last, 2 the one before, 3 behind `element`; null at the end."},
    {"get_first", "$C*", "$H, $T* object, $e", "The first element, or null."},
    {"get_last", "$C*", "$H, $T* object, $e", "The last element, or null."},
    {"get_next", "$C*", "$H, $T* object, $C* element, $e", "The element behind, or null."},
    {"get_prev", "$C*", "$H, $T* object, $C* element, $e", "The element before, or null."},
    {"remove", "void", "$H, $T* object, $C* element, $e", "Unlinks the element; the caller owns it."},
    {"remove_cr", "uint32_t", "loom_handle* handle, $T* object, $C* element", "The same in the handle's domain."},
    {"set_after", "void", "$H, $T* object, $C* reference, $C* element, $e", "Links the element behind another."},
    {"set_before", "void", "$H, $T* object, $C* reference, $C* element, $e", "Links the element before another."},
    {"set_first", "void", "$H, $T* object, $C* element, $e", "Links the element; the list owns it."},
    {"set_last", "void", "$H, $T* object, $C* element, $e", "Links the element; the list owns it."},
};
constexpr operation get_parent = {"get_parent", "$T*", "$H, $C* element, $e", "The object whose list holds it."};

/// What an attribute is called inside its model: no attribute's name can meet a member of the model.
std::string model_member(const attribute& of) { return of.name + "_"; }

/// The accessors of an attribute, in the order of the list of functions.
std::vector<operation> accessors_of(const attribute& of) {
    const bool values = is_plain_value(of.type);
    std::vector<operation> all;
    const auto add = [&all](const auto& operations) {
        all.insert(all.end(), std::begin(operations), std::end(operations));
    };
    switch (of.form) {
    case shape::plain: return {get_one, get_value_one, set_one, set_value_one, state_get, state_set};
    case shape::object: return {get_one, set_one, state_get, state_set};
    case shape::length: return {get_one, get_value_one};
    case shape::fixed_array:
        if (values)
            all = {get_element,       get_element_value, get_mem,   set_fixed_element,
                   set_element_value, set_mem,           set_mem_cr};
        else
            all = {get_element, set_fixed_element};
        add(array_states);
        return all;
    case shape::variable_array:
        if (values)
            all = {get_element,       get_element_value, get_mem,    set_variable_element, set_element_cr,
                   set_element_value, set_mem,           set_mem_cr, remove_elements};
        else
            all = {get_element, set_variable_element,
                   of.type.of_record != nullptr ? set_record_element_cr : set_element_cr, remove_elements};
        add(array_states);
        return all;
    case shape::counted_string:
    case shape::fixed_string: add(string_operations); break;
    case shape::oid: add(oid_operations); break;
    case shape::arm: add(arm_operations); break;
    case shape::list: add(list_operations); break;
    }
    all.push_back(state_get);
    all.push_back(state_set);
    return all;
}

/// Width and alignment follow from the type; the asserts of the unit hold the layout against them.
std::string member_declaration(const attribute& of) {
    const std::string type = c_type(of.type);
    switch (of.form) {
    case shape::plain:
    case shape::object:
    case shape::length: return type + " " + of.name + ";";
    case shape::fixed_array:
    case shape::fixed_string: return type + " " + of.name + "[" + std::to_string(of.extent) + "];";
    case shape::variable_array:
    case shape::counted_string:
    case shape::arm: return type + "* " + of.name + ";";
    case shape::oid: return "loom_type_info* loom_" + of.name + "_type;\n    loom_oid " + of.name + ";";
    case shape::list: return "loom_list_head " + of.name + ";";
    }
    return {};
}

bool is_in_place(const attribute& of) {
    return of.form == shape::plain || of.form == shape::object || of.form == shape::fixed_array;
}

/// Name of the header that declares the attribute's type, or nothing for built-in values and oids.
std::string header_of(const bundle& source, const type_ref& type) {
    if (type.of_enumeration != nullptr && type.of_enumeration->imported_from != nullptr) {
        for (const auto& from : source.imports)
            for (const auto& each : from->enumerations)
                if (each.get() == type.of_enumeration) return "<" + from->bundle_name + "/" + each->name + ".h>";
    }
    if (type.of_record != nullptr) return "<" + source.name + "/" + type.of_record->name + ".h>";
    if (type.of_enumeration != nullptr) return "<" + source.name + "/" + type.of_enumeration->name + ".h>";
    if (type.of_flag_set != nullptr) return "<" + source.name + "/" + type.of_flag_set->name + ".h>";
    return {};
}

bool is_named_type(const type_ref& type) {
    return type.of_record != nullptr || type.of_enumeration != nullptr || type.of_flag_set != nullptr;
}

const variant_layout& newest_layout(const record& type) { return type.variants.back(); }

/// Largest natural alignment inside the tracking area: pointers to element flags, here or in nested areas.
unsigned tracking_alignment(const record& type) {
    unsigned alignment = 1;
    for (const attribute& each : type.attributes) {
        if (each.form == shape::variable_array)
            alignment = 8;
        else if (is_in_place(each) && each.type.of_record != nullptr)
            alignment = std::max(alignment, tracking_alignment(*each.type.of_record));
    }
    return alignment;
}

// ---- Public header ---------------------------------------------------------------------------------------------

std::string c_struct(const record& type) {
    std::string text = doc_comment(type.doc);
    text += "struct " + type.name +
            " {\n    loom_type_info* loom_tinfo;\n    int8_t loom_variant;\n"
            "    uint8_t loom_layout_variant;\n    uint8_t loom_flags;\n";
    if (type.list_element) text += "    loom_list_links loom_links;\n";
    for (const attribute& each : type.attributes)
        text += doc_comment(each.doc, "    ") + "    " + member_declaration(each) + "\n";
    return text + "    uint8_t loom_slop[" + std::to_string(newest_layout(type).alloc_slop) + "];\n};\n\n";
}

void emit_public_header(emission& run, const record& type, const type_text& text) {
    std::vector<std::string> includes;
    std::set<std::string> pointed_at;
    for (const attribute& each : type.attributes) {
        if (!is_named_type(each.type)) continue;
        if (is_in_place(each))
            includes.push_back(header_of(run.source, each.type));
        else
            pointed_at.insert(c_type(each.type));
    }
    for (const auto& [holder, index] : type.held_by)
        pointed_at.insert("struct " + holder->name);
    std::string body;
    for (const std::string& each : pointed_at)
        body += each + ";\n";
    if (!pointed_at.empty()) body += "\n";
    body += c_struct(type);
    body += "extern loom_type_info _" + type.name + "_type_info_internal;\n\n" + text.prototypes;
    run.public_header(type.name, "Record " + type.name + ".", includes, body);
}

// ---- Facade and model ------------------------------------------------------------------------------------------

std::string truth(bool value) { return value ? "true" : "false"; }

/// Values whose binary form is their own bytes.
bool has_fixed_form(const attribute& of) {
    static const std::set<std::string> octets = {"ipv4_addr", "ipv6_addr", "loom_mac_addr"};
    if (of.form == shape::fixed_string) return true;
    if (of.form != shape::plain && of.form != shape::object && of.form != shape::fixed_array) return false;
    const builtin* value = of.type.value;
    return value != nullptr && (value->family == builtin_family::scalar ||
                                value->family == builtin_family::boolean || octets.contains(value->name));
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
    const std::string& bundle = run.source.name;
    const bool is_part = is_part_of_holders(type);
    const auto oids = std::count_if(type.attributes.begin(), type.attributes.end(),
                                    [](const attribute& each) { return each.form == shape::oid; });
    std::string text = generated_notice(run.source, "What other types call on " + type.name + ".");
    text += "#pragma once\n\n#include \"bundle.h\"\n#include \"instance/value_types.h\"\n#include <" + bundle +
            "/" + type.name + ".h>\n\n";
    if (is_part) text += model_declaration(bundle, type.name);
    text += "namespace bundle_" + bundle + "::types {\nstruct " + type.name + " {\n";
    text += "    using c_type = ::" + type.name + ";\n    using bundle = bundle_" + bundle + "::bundle;\n";
    if (is_part) text += model_alias(type.name);
    text += "    static constexpr char name[] = \"" + type.name + "\";\n";
    text += "    static constexpr i8 newest = " + std::to_string(type.newest) + ";\n";
    text += "    static constexpr u32 base_size = " + std::to_string(type.base_size) + ";\n";
    text +=
        "    static constexpr u32 tracking_size = " + std::to_string(newest_layout(type).tracking_size) + ";\n";
    text += "    static constexpr u32 tracking_alignment = " + std::to_string(tracking_alignment(type)) + ";\n";
    text += "    static constexpr int trace_unit = " + std::to_string(type.trace_unit) + ";\n";
    text += "    static constexpr bool has_nested_records = " + truth(type.has_nested_records) + ";\n";
    text += "    static constexpr bool list_element = " + truth(type.list_element) + ";\n";
    text += "    static constexpr u32 oid_count = " + std::to_string(oids) + ";\n";
    text += "    TRELLIS_RECORD_FAMILY(" + type.name + ")\n};\n} // namespace bundle_" + bundle + "::types\n";
    run.out.add("src/types/" + type.name + ".h", std::move(text));
}

/// "shapes::fixed_array<ud_type, types::x, 3, place{16, 0, 0, 1265}>"
std::string shape_of(const record& holder, const attribute& of) {
    const std::string place = "place{" + std::to_string(of.offset) + ", " + std::to_string(of.since) + ", " +
                              std::to_string(of.track) + ", " + std::to_string(of.trace) + "}";
    std::vector<std::string> arguments = {holder.name};
    const char* name = "";
    switch (of.form) {
    case shape::plain:
        name = "plain";
        arguments.push_back(facade(of.type));
        break;
    case shape::object:
        name = "object";
        arguments.push_back(facade(of.type));
        break;
    case shape::length:
        name = "length";
        arguments.push_back(facade(of.type));
        break;
    case shape::list:
        name = "list";
        arguments.push_back(facade(of.type));
        break;
    case shape::fixed_array:
        name = "fixed_array";
        arguments.push_back(facade(of.type));
        arguments.push_back(std::to_string(of.extent));
        break;
    case shape::variable_array:
        name = "variable_array";
        arguments.push_back(facade(of.type));
        arguments.push_back(of.length_name + "_");
        break;
    case shape::counted_string:
        name = "counted_string";
        arguments.push_back(of.length_name + "_");
        break;
    case shape::fixed_string:
        name = "fixed_string";
        arguments.push_back(std::to_string(of.extent));
        break;
    case shape::oid: name = "oid"; break;
    case shape::arm:
        name = "arm";
        arguments.push_back(facade(of.type));
        arguments.push_back(of.discriminator + "_");
        arguments.push_back(std::to_string(of.case_value));
        break;
    }
    arguments.push_back(place);
    return std::string("shapes::") + name + "<" + joined(arguments) + ">";
}

std::string variant_figures(const record& type, std::uint32_t variant_layout::*figure) {
    std::vector<std::string> figures;
    for (const variant_layout& each : type.variants)
        figures.push_back(std::to_string(each.*figure));
    return "{" + joined(figures) + "}";
}

void emit_model(emission& run, const record& type) {
    const std::string& bundle = run.source.name;
    std::set<std::string> facades = {type.name};
    std::set<std::string> parts;
    std::set<std::string> targets;
    for (const attribute& each : type.attributes) {
        if (is_named_type(each.type)) (is_part_of_holders(each.type) ? parts : facades).insert(each.type.name);
        if (each.form == shape::oid) targets.insert(each.target_table);
    }
    std::string text = generated_notice(run.source, "Attributes and figures of " + type.name + ".");
    text += "#pragma once\n\n#include \"instance/attribute.h\"\n";
    for (const std::string& each : parts)
        text += "#include \"models/" + each + ".h\"\n";
    for (const std::string& each : facades)
        text += "#include \"types/" + each + ".h\"\n";
    text += "\n";
    for (const std::string& each : targets)
        text += "extern \"C\" loom_type_info _" + each + "_table_type_info_internal;\n";
    text += "namespace bundle_" + bundle + "::models {\nstruct " + type.name + " {\n";
    text += "    using type = types::" + type.name + ";\n    using object = ::" + type.name + ";\n";
    text += "    using bundle = bundle_" + bundle + "::bundle;\n";
    text += "    static constexpr char name[] = \"" + type.name + "\";\n";
    text += "    static constexpr i8 newest = " + std::to_string(type.newest) + ";\n";
    text +=
        "    static constexpr u32 used_lengths[] = " + variant_figures(type, &variant_layout::used_length) + ";\n";
    text +=
        "    static constexpr u32 layout_sizes[] = " + variant_figures(type, &variant_layout::layout_size) + ";\n";
    text +=
        "    static constexpr u32 tracking_sizes[] = " + variant_figures(type, &variant_layout::tracking_size) +
        ";\n";
    text += "    static constexpr u32 base_size = " + std::to_string(type.base_size) + ";\n";
    text += "    static constexpr int trace_unit = " + std::to_string(type.trace_unit) + ";\n";
    text += "    static constexpr u32 trace_base = " + std::to_string(type.trace_base) + ";\n";
    text += "    static constexpr bool list_element = " + truth(type.list_element) + ";\n";
    std::vector<std::string> members;
    for (const attribute& each : type.attributes) {
        members.push_back(model_member(each));
        text += "    struct " + model_member(each) + " : " + shape_of(type, each) + " {\n";
        text += "        static constexpr char name[] = \"" + each.name + "\";\n";
        if (each.form == shape::oid)
            text += "        static loom_type_info* target() { return &::_" + each.target_table +
                    "_table_type_info_internal; }\n";
        text += "    };\n";
    }
    text += "    using attributes = type_list<" + joined(members) + ">;\n};\n} // namespace bundle_" + bundle +
            "::models\n";
    run.out.add("src/models/" + type.name + ".h", std::move(text));
}

// ---- Unit ------------------------------------------------------------------------------------------------------

/// The layout as the compiler of the library sees it.
std::string layout_asserts(const record& type) {
    std::string text = "static_assert(sizeof(::" + type.name + ") == " + std::to_string(type.base_size) + ");\n";
    for (const attribute& each : type.attributes)
        text += "static_assert(offsetof(::" + type.name + ", " +
                (each.form == shape::oid ? "loom_" + each.name + "_type" : each.name) +
                ") == " + std::to_string(each.offset) + ");\n";
    if (type.list_element)
        text += "static_assert(offsetof(::" + type.name + ", loom_links) == LOOM_LIST_LINKS_OFFSET);\n";
    return text;
}

/// Parameters of get_all and set_all: what is read also has the lengths.
std::string all_parameters(const record& type, bool outs) {
    std::string text;
    for (const attribute& each : type.attributes) {
        if (each.form != shape::plain && !(outs && each.form == shape::length)) continue;
        text += ", " + plain_c_type(each.type) + (outs ? "* out_" : " value_") + each.name;
    }
    return text;
}

void add_accessors(emission& run, const record& type, const attribute& of, type_text& text) {
    const bool is_record = of.type.of_record != nullptr;
    const substitutions with = {{"$T", "struct " + type.name},
                                {"$C", c_type(of.type)},
                                {"$P", plain_c_type(of.type)},
                                {"$source", (is_record ? "" : "const ") + c_type(of.type) + "*"}};
    text.prototypes += "\n/* Attribute " + of.name + ", since variant " + std::to_string(of.since) + ". */\n";
    for (const operation& each : accessors_of(of))
        run.add(text, make_function(each, type.name + "_" + of.name, "accessor",
                                    "models::" + type.name + "::" + model_member(of), with));
}

} // namespace

type_text emit_record(emission& run, const record& type) {
    type_text text;
    text.name = type.name;
    text.includes = {"models/" + type.name + ".h"};
    text.exports = layout_asserts(type);
    text.exports += "void types::" + type.name +
                    "::release_replaced(loom_handle* h, u32 d, c_type* to, const c_type* from) {\n"
                    "    trellis::record::release_replaced<models::" +
                    type.name + ">(h, d, to, from);\n}\n";
    text.exports += "void types::" + type.name +
                    "::forget_references(loom_handle* h, u32 d, c_type* v, bool inside) {\n"
                    "    trellis::record::forget_references<models::" +
                    type.name + ">(h, d, v, inside);\n}\n";
    text.exports += "u32 types::" + type.name +
                    "::len_straight(loom_handle* h, u32 d, const c_type* v) {\n"
                    "    return trellis::record::len_straight<models::" +
                    type.name + ">(h, d, v);\n}\n";
    text.exports +=
        "u32 types::" + type.name +
        "::marshal_straight(loom_handle* h, u32 d, u8* buffer, const c_type* v, i32 length, u32* err) {\n"
        "    return trellis::record::marshal_straight<models::" +
        type.name + ">(h, d, buffer, v, length, err);\n}\n";
    text.exports += "u32 types::" + type.name +
                    "::unmarshal_straight(loom_handle* h, u32 d, const u8* buffer, c_type* v, i32 length, "
                    "u32 existing, u32* err) {\n"
                    "    return trellis::record::unmarshal_straight<models::" +
                    type.name + ">(h, d, buffer, v, length, existing, err);\n}\n";
    const substitutions with = {{"$T", "struct " + type.name},
                                {"$outs", all_parameters(type, true)},
                                {"$values", all_parameters(type, false)}};
    for (const operation& each : record_operations)
        run.add(text, make_function(each, type.name, "record", "models::" + type.name, with));
    for (const attribute& each : type.attributes)
        add_accessors(run, type, each, text);
    for (const auto& [holder, index] : type.held_by) {
        const attribute& list = holder->attributes[index];
        text.includes.push_back("models/" + holder->name + ".h");
        run.add(text, make_function(get_parent, type.name + "_" + list.name, "accessor",
                                    "models::" + holder->name + "::" + model_member(list),
                                    {{"$T", "struct " + holder->name}, {"$C", "struct " + type.name}}));
    }
    emit_public_header(run, type, text);
    emit_facade(run, type);
    emit_model(run, type);
    return text;
}

} // namespace trellis::schema
