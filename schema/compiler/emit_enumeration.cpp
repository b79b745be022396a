// Enumerations: the C struct with its constants, the facade, the model, and one line per exported function. What
// the functions do stands in instance/enumeration.h and codec/.
#include "schema/compiler/emit_families.h"

namespace trellis::schema {

namespace {

constexpr operation create_operations[] = {
    {"variant_data_index_cap", "uint32_t", "uint32_t variant",
     "The variant in the low byte, lowered to the newest; a negative one stays."},
    {"get_luid", "void", "$H, const $T* object, uint8_t* luid, $e", "Stores the 16 bytes of the type's identity."},
    {"create", "$T*", "$H", "A new value, or null. Ended by _destroy."},
    {"create_internal", "$T*", "$H", "Worker of _create and _create_cr."},
    {"create_cr", "$T*", "loom_handle* handle",
     "A new value; with an error pending or without memory the type's sentinel, which all _cr forms accept."},
};
constexpr operation own_initialize = {
    "initialize", "uint32_t",
    "$H, $T* object, const loom_type_info* tinfo, uint32_t write_through, uint8_t obj_flags",
    "Sets up zero-filled memory as a value. `write_through` 0 keeps the write hook out."};
constexpr operation shared_initialize = {
    "initialize", "uint32_t",
    "$H, $T* object, const loom_type_info* tinfo, uint32_t write_through, uint32_t no_accounting, uint8_t "
    "obj_flags, void* sttr_base, $e",
    "Sets up zero-filled memory as a value, with the arguments of a built-in value."};
constexpr operation value_operations[] = {
    {"set_instance_embedded", "void", "$H, $T* object", "Marks the value as embedded."},
    {"get_oid_count", "uint32_t", "$H, const $T* object, $e", "0: there are no references inside."},
    {"get_object_references", "void", "$H, const $T* object, void** references, uint32_t count, $e",
     "Stores nothing: there are no references inside."},
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

void emit_public_header(emission& run, const enumeration& type, const type_text& text) {
    std::string body = doc_comment(type.doc);
    body += "struct " + type.name +
            " {\n    loom_type_info* loom_tinfo;\n    int8_t loom_variant;\n"
            "    uint8_t loom_layout_variant;\n    uint8_t loom_flags;\n    int32_t value;\n};\n\n";
    body += "/** User values of " + type.name + ". */\nenum {\n";
    for (const enumeration_member& each : type.members)
        body += doc_comment(each.doc, "    ") + "    " + run.constant_name(type.name + "_" + each.name) + " = " +
                std::to_string(each.value) + ",\n";
    body += "};\n\nextern loom_type_info _" + type.name + "_type_info_internal;\n\n" + text.prototypes;
    run.public_header(type.name, "Enumeration " + type.name + ".", {}, body);
}

void emit_model(emission& run, const enumeration& type) {
    const std::string& bundle = run.source.name;
    std::string text = generated_notice(run.source, "Members of " + type.name + ".");
    text += "#pragma once\n\n#include \"instance/enumeration.h\"\n#include \"types/" + type.name + ".h\"\n\n";
    text += "namespace bundle_" + bundle + "::models {\nstruct " + type.name + " {\n";
    text += "    using type = types::" + type.name + ";\n    using object = ::" + type.name + ";\n";
    text += "    using bundle = bundle_" + bundle + "::bundle;\n";
    text += "    static constexpr char name[] = \"" + type.name + "\";\n";
    text += "    static constexpr i8 newest = " + std::to_string(type.newest) + ";\n";
    text += "    static constexpr u32 base_size = " + std::to_string(type.base_size) + ";\n";
    text += "    static constexpr int trace_unit = " + std::to_string(type.trace_unit) + ";\n";
    text += "    static constexpr u32 trace_base = " + std::to_string(type.trace_base) + ";\n";
    text += "    static constexpr enumeration_member members[] = {\n";
    for (const enumeration_member& each : type.members)
        text += "        {\"" + each.name + "\", " + std::to_string(each.value) + ", " +
                std::to_string(each.since) + "},\n";
    text += "    };\n};\n} // namespace bundle_" + bundle + "::models\n";
    run.out.add("src/models/" + type.name + ".h", std::move(text));
}

/// The facade; `home` is the bundle whose public header declares the enumeration.
void emit_facade(emission& run, const std::string& home, const enumeration& type, bool takes_nine_arguments) {
    const std::string& bundle = run.source.name;
    std::string text = generated_notice(run.source, "What other types call on " + type.name + ".");
    text += "#pragma once\n\n#include \"bundle.h\"\n#include \"instance/value_types.h\"\n";
    text += "#include <" + home + "/" + type.name + ".h>\n\n";
    if (!takes_nine_arguments) text += model_declaration(bundle, type.name);
    text += "namespace bundle_" + bundle + "::types {\nstruct " + type.name + " {\n";
    text += "    using c_type = ::" + type.name + ";\n    using plain_type = i32;\n";
    if (!takes_nine_arguments) text += model_alias(type.name);
    text += "    static constexpr char name[] = \"" + type.name + "\";\n";
    text += takes_nine_arguments ? "    TRELLIS_SHARED_ENUMERATION_FAMILY(" : "    TRELLIS_ENUMERATION_FAMILY(";
    text += type.name + ")\n};\n} // namespace bundle_" + bundle + "::types\n";
    run.out.add("src/types/" + type.name + ".h", std::move(text));
}

} // namespace

type_text emit_enumeration(emission& run, const enumeration& type) {
    type_text text;
    text.name = type.name;
    text.includes = {"models/" + type.name + ".h"};
    text.exports =
        "static_assert(sizeof(::" + type.name + ") == 16 && offsetof(::" + type.name + ", value) == 12);\n";
    const substitutions with = {{"$T", "struct " + type.name}};
    const auto add = [&](const operation& each) {
        run.add(text, make_function(each, type.name, "enumeration", "models::" + type.name, with));
    };
    for (const operation& each : create_operations)
        add(each);
    add(type.shared ? shared_initialize : own_initialize);
    for (const operation& each : value_operations)
        add(each);
    emit_public_header(run, type, text);
    emit_facade(run, run.source.name, type, type.shared);
    emit_model(run, type);
    return text;
}

void emit_imported_enumeration(emission& run, const import& from, const enumeration& type) {
    emit_facade(run, from.bundle_name, type, true);
}

} // namespace trellis::schema
