// Flag sets: the C struct with its bit indices, the facade, the model, and one line per exported function. What
// the functions do stands in instance/flag_set.h and codec/.
#include "schema/compiler/emit_families.h"

namespace trellis::schema {

namespace {

constexpr operation operations[] = {
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
     "bits "
     "or the jump end there."},
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

/// Header and bits; the rest of the base size is slop.
std::uint32_t slop_of(const flag_set& type) { return type.base_size - 11 - type.bit_bytes(); }

void emit_public_header(emission& run, const flag_set& type, const type_text& text) {
    std::string body = doc_comment(type.doc);
    body += "struct " + type.name +
            " {\n    loom_type_info* loom_tinfo;\n    int8_t loom_variant;\n"
            "    uint8_t loom_layout_variant;\n    uint8_t loom_flags;\n    uint8_t bits[" +
            std::to_string(type.bit_bytes()) + "]; /**< bit i lies in byte i / 8 */\n    uint8_t loom_slop[" +
            std::to_string(slop_of(type)) + "];\n};\n\n/** Bits of " + type.name + ". */\nenum {\n";
    for (std::size_t i = 0; i < type.bits.size(); ++i)
        if (!type.bits[i].name.empty())
            body += doc_comment(type.bits[i].doc, "    ") + "    " +
                    run.constant_name(type.name + "_" + type.bits[i].name) + " = " + std::to_string(i) + ",\n";
    body += "    " + type.name + "_bit_count = " + std::to_string(type.bits.size()) + "\n};\n\n";
    body += "extern loom_type_info _" + type.name + "_type_info_internal;\n\n" + text.prototypes;
    run.public_header(type.name, "Flag set " + type.name + ".", {}, body);
}

void emit_facade(emission& run, const flag_set& type) {
    const std::string& bundle = run.source.name;
    std::string text = generated_notice(run.source, "What other types call on " + type.name + ".");
    text += "#pragma once\n\n#include \"bundle.h\"\n#include \"instance/value_types.h\"\n";
    text += "#include <" + bundle + "/" + type.name + ".h>\n\n";
    text += model_declaration(bundle, type.name);
    text += "namespace bundle_" + bundle + "::types {\nstruct " + type.name + " {\n";
    text += "    using c_type = ::" + type.name + ";\n    using bundle = bundle_" + bundle + "::bundle;\n";
    text += model_alias(type.name);
    text += "    static constexpr char name[] = \"" + type.name + "\";\n";
    text += "    static constexpr i8 newest = " + std::to_string(type.newest) + ";\n";
    text += "    static constexpr u32 bit_bytes = " + std::to_string(type.bit_bytes()) + ";\n";
    text += "    TRELLIS_FLAG_SET_FAMILY(" + type.name + ")\n};\n} // namespace bundle_" + bundle + "::types\n";
    run.out.add("src/types/" + type.name + ".h", std::move(text));
}

void emit_model(emission& run, const flag_set& type) {
    const std::string& bundle = run.source.name;
    std::string text = generated_notice(run.source, "Bits of " + type.name + ".");
    text += "#pragma once\n\n#include \"instance/flag_set.h\"\n#include \"types/" + type.name + ".h\"\n\n";
    text += "namespace bundle_" + bundle + "::models {\nstruct " + type.name + " {\n";
    text += "    using type = types::" + type.name + ";\n    using object = ::" + type.name + ";\n";
    text += "    using bundle = bundle_" + bundle + "::bundle;\n";
    text += "    static constexpr char name[] = \"" + type.name + "\";\n";
    text += "    static constexpr i8 newest = " + std::to_string(type.newest) + ";\n";
    text += "    static constexpr u32 base_size = " + std::to_string(type.base_size) + ";\n";
    text += "    static constexpr int trace_unit = " + std::to_string(type.trace_unit) + ";\n";
    text += "    static constexpr u32 trace_base = " + std::to_string(type.trace_base) + ";\n";
    text += "    static constexpr u32 bit_bytes = " + std::to_string(type.bit_bytes()) + ";\n";
    text += "    static constexpr flag_bit bits[] = {\n";
    for (const flag_member& each : type.bits)
        text += "        {" + (each.name.empty() ? std::string("nullptr") : "\"" + each.name + "\"") + ", " +
                std::to_string(each.since) + "},\n";
    text += "    };\n};\n} // namespace bundle_" + bundle + "::models\n";
    run.out.add("src/models/" + type.name + ".h", std::move(text));
}

} // namespace

type_text emit_flag_set(emission& run, const flag_set& type) {
    type_text text;
    text.name = type.name;
    text.includes = {"models/" + type.name + ".h"};
    text.exports = "static_assert(sizeof(::" + type.name + ") == " + std::to_string(type.base_size) +
                   " && offsetof(::" + type.name + ", bits) == LOOM_OBJECT_HEADER_SIZE);\n";
    for (const operation& each : operations)
        run.add(text, make_function(each, type.name, "flag_set", "models::" + type.name,
                                    {{"$T", "struct " + type.name}}));
    emit_public_header(run, type, text);
    emit_facade(run, type);
    emit_model(run, type);
    return text;
}

} // namespace trellis::schema
