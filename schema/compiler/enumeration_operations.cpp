// The operations of enumerations.
#include "schema/compiler/operations.h"

namespace trellis::schema {
namespace {

constexpr operation of_any[] = {
    {"variant_data_index_cap", "uint32_t", "uint32_t variant",
     "The variant in the low byte, lowered to the newest; a negative one stays."},
};
constexpr operation initialize[] = {
    {"initialize", "uint32_t",
     "$H, $T* object, const loom_type_info* tinfo, uint32_t write_through, uint8_t obj_flags",
     "Sets up zero-filled memory as a value. `write_through` 0 keeps the write hook out."},
};
constexpr operation initialize_shared[] = {
    {"initialize", "uint32_t",
     "$H, $T* object, const loom_type_info* tinfo, uint32_t write_through, uint32_t no_accounting, uint8_t "
     "obj_flags, void* sttr_base, $e",
     "Sets up zero-filled memory as a value, with the arguments of a built-in value."},
};
constexpr operation of_value[] = {
    {"set_instance_embedded", "void", "$H, $T* object", "Marks the value as embedded."},
    {"get_oid_count", "uint32_t", "$H, const $T* object, $e", "0: there are no references inside."},
    {"get_object_references", "void", "$H, const $T* object, void** references, uint32_t count, $e",
     "Stores nothing: there are no references inside."},
    {"get_luid", "void", "$H, const $T* object, uint8_t* luid, $e", "Stores the 16 bytes of the type's identity."},
    {"create_internal", "$T*", "$H", "Worker of _create and _create_cr."},
    {"create", "$T*", "$H", "A new value, or null. Ended by _destroy."},
    {"create_cr", "$T*", "loom_handle* handle",
     "A new value; with an error pending or without memory the type's sentinel, which all _cr forms accept."},
    {"destroy", "void", "$H, $T* object", "Ends a value of _create. Null and the sentinel are allowed."},
    {"destroy_internal", "void", "$H, $T* object, uint32_t release",
     "Ends a value, with `release` 1 its memory too."},
    {"destroy_cr", "void", "loom_handle* handle, $T* object", "As _destroy, in the handle's domain."},
    {"map_to_user_value", "int32_t", "int32_t value", "Returns its argument."},
    {"map_to_internal_value", "int32_t", "int32_t user_value",
     "The member's place in the declaration; a value that is no member stays."},
    {"adjust_variant", "void", "$H, $T* object, $e", "Raises the value to the variant that may now be written."},
    {"compare", "int32_t", "const $T* a, const $T* b",
     "Negative, 0 or positive as `a` sorts before, with or behind."},
    {"hash", "uint32_t", "const $T* object, uint32_t seed", "Mixes the value into `seed`; null gives the seed."},
    {"sizeof", "uint32_t", "loom_handle* handle", "Bytes of a value."},
    {"len", "uint32_t", "$H, const $T* object", "Bytes that _marshal writes; the value is not read."},
    {"len_cr", "uint32_t", "loom_handle* handle", "The same; 0 with an error pending."},
    {"get", "$T*", "$H, $T* object", "The value itself, reported as handed out."},
    {"get_value", "int32_t", "$H, const $T* object, $e", "The user value."},
    {"set", "void", "$H, $T* object, const $T* source, $e", "Copies the whole value, header included."},
    {"set_value", "void", "$H, $T* object, int32_t value, $e",
     "Stores a user value; a member of a later variant than the value's sets 43."},
    {"marshal", "uint32_t", "$H, void* buffer, const $T* object, int32_t length, $e",
     "Writes the binary form into `length` bytes; returns the bytes written."},
    {"unmarshal", "uint32_t", "$H, const void* buffer, $T* object, int32_t length, uint32_t existing, $e",
     "Reads what _marshal wrote; returns the bytes read."},
    {"print", "int32_t", "$H, char* buffer, int32_t depth, const char* name, const $T* object, int32_t length, $e",
     "Prints the value as a line of text; returns the characters written."},
    {"print_cr", "int32_t", "loom_handle* handle, const $T* object, char* buffer, int32_t length",
     "The same under the type's name; -1 with an error pending."},
    {"to_xml", "uint32_t",
     "$H, const char* name, char* buffer, const $T* object, int32_t length, uint8_t state, $e",
     "Writes the value as an XML element; returns the characters written."},
    {"toxml_cr", "int32_t", "loom_handle* handle, const $T* object, char* buffer, int32_t length",
     "The same under the type's name; -1 with an error pending."},
    {"from_xml", "void",
     "$H, const char* path, const loom_xml_document* document, $T* object, $e, char* message, uint32_t "
     "message_length",
     "Reads the element at `path`. A text that is no member sets 22 and names its path in `message`, if given."},
    {"is_valid_cr", "uint32_t", "loom_handle* handle, int32_t user_value",
     "1 when the value may be set for the peer."},
};

} // namespace

std::vector<operation_group> operations_of(const enumeration& type) {
    std::vector<operation_group> groups;
    const auto add = [&](std::span<const operation> table) {
        groups.push_back({"enumeration",
                          &type.where,
                          "",
                          type.name + "_",
                          table,
                          "enumeration::",
                          "models::" + type.name,
                          {{"$T", "struct " + type.name}}});
    };
    add(of_any);
    add(type.shared ? std::span(initialize_shared) : std::span(initialize));
    add(of_value);
    return groups;
}

} // namespace trellis::schema
