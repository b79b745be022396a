// The operations of records and of their attributes.
#include "schema/compiler/c_names.h"
#include "schema/compiler/operations.h"

namespace trellis::schema {
namespace {

constexpr operation of_record[] = {
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

// Accessors, by what an attribute is. `$C` is its C type, `$P` what is passed by value, `$source` what is copied
// or taken.
constexpr operation get_one = {"get", "$C*", "$H, $T* object, $e", "The storage of the value, or null."};
constexpr operation get_value_one = {"get_value", "$P", "$H, $T* object, $e", ""};
constexpr operation set_one = {"set", "void", "$H, $T* object, $source value, $e", "Copies the value."};
constexpr operation set_value_one = {"set_value", "void", "$H, $T* object, $P value, $e", ""};
constexpr operation of_plain[] = {get_one, get_value_one, set_one, set_value_one};
constexpr operation of_object[] = {get_one, set_one};
constexpr operation of_length[] = {get_one, get_value_one};
constexpr operation states[] = {
    {"state_flag_get", "uint8_t", "$H, $T* object, $e", "The attribute's state byte."},
    {"state_flag_set", "void", "$H, $T* object, uint8_t state, $e", ""},
};

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
constexpr operation of_fixed_values[] = {get_element,       get_element_value, get_mem,   set_fixed_element,
                                         set_element_value, set_mem,           set_mem_cr};
constexpr operation of_fixed_objects[] = {get_element, set_fixed_element};
constexpr operation of_variable_values[] = {get_element,    get_element_value, get_mem, set_variable_element,
                                            set_element_cr, set_element_value, set_mem, set_mem_cr,
                                            remove_elements};
constexpr operation of_variable_objects[] = {get_element, set_variable_element, set_element_cr, remove_elements};
constexpr operation of_variable_records[] = {get_element, set_variable_element, set_record_element_cr,
                                             remove_elements};
constexpr operation states_of_elements[] = {
    {"state_flag_get", "uint8_t", "$H, $T* object, uint32_t index, $e", "The element's state byte."},
    {"state_flag_set", "void", "$H, $T* object, uint32_t index, uint8_t state, $e", ""},
    {"state_flag_get_arr", "void", "$H, $T* object, uint8_t** out, $e",
     "Stores the address of the elements' state bytes."},
    {"state_flag_set_arr", "void", "$H, $T* object, const uint8_t* source, uint32_t length, $e",
     "Copies `length` state bytes, one per element, to the start of the object's tracking area."},
    {"state_flag_whole_get", "uint8_t", "$H, $T* object, $e", "The whole array's state byte."},
    {"state_flag_whole_set", "void", "$H, $T* object, uint8_t state, $e", ""},
};
constexpr operation of_string[] = {
    {"get", "void", "$H, $T* object, char* destination, uint32_t size, $e",
     "Copies the text, always terminated; 28 when it had to be cut."},
    {"set", "void", "$H, $T* object, const char* source, uint32_t length, $e", "Copies `length` characters."},
    {"set_cr", "uint32_t", "loom_handle* handle, $T* object, const char* source, uint32_t length",
     "As _set; returns the handle's error."},
};
constexpr operation of_oid[] = {
    {"get_by_ref", "void*", "$H, $T* object, $e", "The table referred to, or null while there is none."},
    {"get_by_ref_cr", "void*", "loom_handle* handle, $T* object", "The same in the handle's domain."},
    {"set_by_ref", "void", "$H, $T* object, void* target, $e",
     "Refers to the table `target` and takes a reference on it; null drops the reference held. 22: the target is "
     "no table of the type that the schema names, as none of its records is; the reference held stays."},
    {"set_by_ref_cr", "uint32_t", "loom_handle* handle, $T* object, void* target",
     "As _set_by_ref; returns the handle's error."},
};
constexpr operation of_arm[] = {
    {"get", "$C*", "$H, $T* object, $e", "The arm's value, or null."},
    {"get_detach", "$C*", "$H, $T* object, $e", "Takes the value out; the caller owns it."},
    {"set", "void", "$H, $T* object, $C* value, $e", "Takes ownership of the value and selects its case."},
    {"set_cr", "uint32_t", "loom_handle* handle, $T* object, $C* value", "As _set; returns the handle's error."},
};
constexpr operation of_list[] = {
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
constexpr operation of_list_element[] = {
    {"get_parent", "$T*", "$H, $C* element, $e", "The object whose list holds it."}};

/// The tables of an attribute's accessors; none when nobody knows what the attribute is.
std::vector<std::span<const operation>> accessors_of(const attribute& of) {
    if (of.shape == attribute_shape::oid) return {of_oid, states};
    if (!is_known(of.type)) return {};
    const bool values = is_plain_value(of.type);
    switch (of.shape) {
    case attribute_shape::plain: return {of_plain, states};
    case attribute_shape::object: return {of_object, states};
    case attribute_shape::length: return {of_length};
    case attribute_shape::fixed_array:
        if (values) return {of_fixed_values, states_of_elements};
        return {of_fixed_objects, states_of_elements};
    case attribute_shape::variable_array:
        if (values) return {of_variable_values, states_of_elements};
        if (of.type.of_record != nullptr) return {of_variable_records, states_of_elements};
        return {of_variable_objects, states_of_elements};
    case attribute_shape::arm: return {of_arm, states};
    case attribute_shape::list: return {of_list, states};
    case attribute_shape::counted_string:
    case attribute_shape::fixed_string: return {of_string, states};
    case attribute_shape::oid: break;
    }
    return {of_oid, states};
}

/// Parameters of get_all and set_all: what is read also has the lengths.
std::string all_parameters(const record& type, bool outs) {
    std::string text;
    for (const attribute& each : type.attributes)
        if (outs ? facts_of(each.shape).gettable : facts_of(each.shape).settable)
            text += ", " + plain_c_type(each.type) + (outs ? "* out_" : " value_") + each.name;
    return text;
}

void add_accessors(std::vector<operation_group>& to, const record& type, const attribute& of) {
    const std::string source = (of.type.of_record == nullptr ? "const " : "") + c_type(of.type) + "*";
    std::string heading = "Attribute " + of.name + ", since variant " + std::to_string(of.since) + ".";
    for (const std::span<const operation> table : accessors_of(of)) {
        to.push_back({"accessor",
                      &of.where,
                      heading,
                      type.name + "_" + of.name + "_",
                      table,
                      "accessor::",
                      "models::" + type.name + "::" + model_member(of),
                      {{"$T", "struct " + type.name},
                       {"$C", c_type(of.type)},
                       {"$P", plain_c_type(of.type)},
                       {"$source", source}}});
        heading.clear();
    }
}

} // namespace

std::vector<operation_group> operations_of(const record& type) {
    std::vector<operation_group> groups = {{"record",
                                            &type.where,
                                            "",
                                            type.name + "_",
                                            of_record,
                                            "record::",
                                            "models::" + type.name,
                                            {{"$T", "struct " + type.name},
                                             {"$outs", all_parameters(type, true)},
                                             {"$values", all_parameters(type, false)}}}};
    for (const attribute& each : type.attributes)
        add_accessors(groups, type, each);
    for (const auto& [holder, index] : type.held_by) {
        const attribute& list = holder->attributes[index];
        groups.push_back({"accessor",
                          &list.where,
                          "",
                          type.name + "_" + list.name + "_",
                          of_list_element,
                          "accessor::",
                          "models::" + holder->name + "::" + model_member(list),
                          {{"$T", "struct " + holder->name}, {"$C", "struct " + type.name}}});
    }
    return groups;
}

} // namespace trellis::schema
