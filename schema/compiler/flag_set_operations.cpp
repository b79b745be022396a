// The operations of flag sets.
#include "schema/compiler/operations.h"

namespace trellis::schema {
namespace {

constexpr operation of_flag_set[] = {
    {"variant_data_index_cap", "uint32_t", "uint32_t variant",
     "The variant in the low byte, lowered to the newest; a negative one stays."},
    {"initialize", "uint32_t",
     "$H, $T* object, const loom_type_info* tinfo, uint32_t write_through, uint8_t obj_flags",
     "Sets up zero-filled memory as a flag set. `write_through` 0 keeps the write hook out."},
    {"set_instance_embedded", "void", "$H, $T* object", "Marks the flag set as embedded."},
    {"get_oid_count", "uint32_t", "$H, const $T* object, $e", "0: there are no references inside."},
    {"get_object_references", "void", "$H, const $T* object, void** references, uint32_t count, $e",
     "Stores nothing: there are no references inside."},
    {"get_luid", "void", "$H, const $T* object, uint8_t* luid, $e", "Stores the 16 bytes of the type's identity."},
    {"create_internal", "$T*", "$H", "Worker of _create and _create_cr."},
    {"create", "$T*", "$H", "A new flag set, or null. Ended by _destroy."},
    {"create_cr", "$T*", "loom_handle* handle",
     "A new flag set; with an error pending or without memory the type's sentinel, which all _cr forms accept."},
    {"destroy", "void", "$H, $T* object", "Ends a flag set of _create. Null and the sentinel are allowed."},
    {"destroy_internal", "void", "$H, $T* object, uint32_t release",
     "Ends a flag set, with `release` 1 its memory too."},
    {"destroy_cr", "void", "loom_handle* handle, $T* object", "As _destroy, in the handle's domain."},
    {"adjust_variant", "void", "$H, $T* object, $e",
     "Raises the flag set to the variant that may now be written."},
    {"compare", "int32_t", "const $T* a, const $T* b",
     "Negative, 0 or positive as `a` sorts before, with or behind."},
    {"hash", "uint32_t", "const $T* object, uint32_t seed", "Mixes the bits into `seed`; null gives the seed."},
    {"sizeof", "uint32_t", "loom_handle* handle", "Bytes of a flag set."},
    {"len", "uint32_t", "$H, const $T* object", "Upper bound of what _marshal writes; null is allowed."},
    {"len_cr", "uint32_t", "loom_handle* handle", "The same; 0 with an error pending."},
    {"marshal", "uint32_t", "$H, void* buffer, const $T* object, int32_t length, $e",
     "Writes the binary form into `length` bytes; returns the bytes written."},
    {"unmarshal", "uint32_t", "$H, const void* buffer, $T* object, int32_t length, uint32_t existing, $e",
     "Reads what _marshal wrote, no byte behind `length`; returns the bytes read, more than `length` when the "
     "bits or the jump end there."},
    {"print", "int32_t", "$H, char* buffer, int32_t depth, const char* name, const $T* object, int32_t length, $e",
     "Prints the bits that are set; returns the characters written."},
    {"print_cr", "int32_t", "loom_handle* handle, const $T* object, char* buffer, int32_t length",
     "The same under the type's name; -1 with an error pending."},
    {"to_xml", "uint32_t",
     "$H, const char* name, char* buffer, const $T* object, int32_t length, uint8_t state, $e",
     "Writes the flag set as an XML element; returns the characters written."},
    {"toxml_cr", "int32_t", "loom_handle* handle, const $T* object, char* buffer, int32_t length",
     "The same under the type's name; -1 with an error pending."},
    {"from_xml", "void",
     "$H, const char* path, const loom_xml_document* document, $T* object, $e, char* message, uint32_t "
     "message_length",
     "Reads the element at `path`."},
    {"is_valid_cr", "uint32_t", "loom_handle* handle, uint32_t bit", "1 when the bit may be set for the peer."},
    {"in_range", "uint32_t", "uint32_t bit", "1 when the set has that bit."},
    {"get", "$T*", "$H, $T* object", "The flag set itself, reported as handed out."},
    {"set", "void", "$H, $T* object, const $T* source, $e", "Copies the whole flag set, header included."},
    {"get_value", "uint32_t", "$H, const $T* object, uint32_t bit, $e",
     "1 when the bit is set; out of range: 43."},
    {"get_cr", "uint32_t", "loom_handle* handle, const $T* object, uint32_t bit",
     "The same in the handle's domain."},
    {"set_value", "void", "$H, $T* object, uint32_t bit, uint32_t on, $e", "Sets or clears one bit."},
    {"set_cr", "uint32_t", "loom_handle* handle, $T* object, uint32_t bit, uint32_t on",
     "As _set_value; returns the handle's error."},
};

} // namespace

std::vector<operation_group> operations_of(const flag_set& type) {
    return {{"flag",
             &type.where,
             "",
             type.name + "_",
             of_flag_set,
             "flag_set::",
             "models::" + type.name,
             {{"$T", "struct " + type.name}}}};
}

} // namespace trellis::schema
