// Tables: the C struct of the table record with its prototypes, the model, and one line per exported function.
// What the functions do stands in tables/.
#include "schema/compiler/emit_families.h"
#include "schema/compiler/emit_table_operations.h"

#include <algorithm>
#include <stdexcept>

namespace trellis::schema {

namespace {

/// A function that other functions of the table call: its name in the model and its exported name.
struct worker {
    const char* member;
    const char* name;
};
constexpr worker workers[] = {
    {"table_open_internal", "$table_table_open_internal"},
    {"table_free", "$table_table_free"},
    {"request_table_free", "$table_request_table_free"},
    {"create_record_internal", "$table_create_record_internal"},
    {"destroy_record_internal", "$table_destroy_record_internal"},
    {"pkey_create", "$table_pkey_create"},
    {"insert_internal", "$table_insert_internal"},
    {"delete_internal", "$table_delete_internal"},
    {"search_internal", "$path_search_internal"},
    {"get_next_internal", "$path_get_next_internal"},
    {"get_prev_internal", "$path_get_prev_internal"},
    {"get_first_internal", "$table_get_first_internal"},
    {"get_last_internal", "$table_get_last_internal"},
    {"get_sub_next", "$path_get_sub_next"},
    {"compare", "$path_avl_compare"},
    {"avl_internal_walk", "$path_avl_internal_walk"},
    {"table_record_marshal_internal", "$table_table_record_marshal_internal"},
    {"table_record_print_internal", "$table_table_record_print_internal"},
};
constexpr worker workers_of_key_objects[] = {
    {"table_record_to_xml_internal", "$table_table_record_to_xml_internal"},
};

/// An event's name in `<bundle>_<table>_table_record_<event>_handler`, and what its handler gets.
struct event {
    const char* name;
    const char* parameters;
};
constexpr event events[] = {
    {"create", "loom_handle* handle, uint32_t domain, uint64_t a, uint64_t b, uint32_t* err"},
    {"modify", "loom_handle* handle, uint32_t domain, uint64_t a, uint64_t b, uint32_t* err"},
    {"delete", "loom_handle* handle, uint32_t domain, uint64_t a, uint64_t b, uint32_t* err"},
    {"create_dm", "loom_handle* handle, uint32_t domain, uint64_t a, uint32_t* err"},
    {"delete_dm", "loom_handle* handle, uint32_t domain, uint64_t a, uint32_t* err"},
    {"grouping", "loom_handle* handle, uint32_t domain, uint64_t a, uint32_t* err, uint64_t b, uint64_t c, "
                 "uint32_t d, uint64_t e"},
    {"free", "loom_handle* handle, uint32_t domain, uint64_t a, uint32_t d, uint32_t* err, uint64_t b"},
};

std::string handler_name(const emission& run, const table& type, const event& of) {
    return run.source.name + "_" + type.name + "_table_record_" + of.name + "_handler";
}

/// Name of the record that the keyed functions carry: the key object's or the payload's.
const std::string& key_holder(const table& type) {
    return type.key == key_form::object ? type.key_record->name : type.payload->name;
}

const attribute* attribute_of(const record& type, const std::string& name) {
    const auto found = std::find_if(type.attributes.begin(), type.attributes.end(),
                                    [&](const attribute& each) { return each.name == name; });
    return found == type.attributes.end() ? nullptr : &*found;
}

const attribute& key_attribute(const table& type) {
    const attribute* found = attribute_of(*type.payload, type.key_attribute);
    if (found == nullptr)
        throw std::logic_error("table " + type.name + " has no key attribute " + type.key_attribute);
    return *found;
}

/// The C type behind a key pointer.
std::string key_value(const table& type) {
    return type.key == key_form::attribute ? plain_c_type(key_attribute(type).type) : "struct " + key_holder(type);
}

substitutions placeholders(const table& type) {
    const std::string holder = type.name + "_" + key_holder(type);
    const bool by_attribute = type.key == key_form::attribute;
    return {{"$table", type.name},
            {"$path", holder + "_" + (by_attribute ? type.key_attribute : "")},
            {"$crpath", by_attribute ? holder + "_" + type.key_attribute : holder},
            {"$payload", type.payload->name},
            {"$keytype", key_holder(type)},
            {"$keyvalue", key_value(type)},
            {"$keyobject", "struct " + key_holder(type)}};
}

// ---- Public header -------------------------------------------------------------------------------------------

std::string record_struct(const table& type) {
    const std::string& payload = type.payload->name;
    std::string text = "/** A record of the table: the database layer's part, then the instances it holds. */\n";
    text += "struct " + type.name + "_table_record {\n    loom_table_record loom_record;\n    struct " + payload +
            "* " + payload + ";\n";
    if (type.key == key_form::object)
        text += "    struct " + type.key_record->name + "* " + type.key_record->name + ";\n";
    if (type.ordered)
        text += "    void* seq_next; /**< the neighbours' seq_next cells, in the order of the sequence */\n"
                "    void* seq_prev;\n";
    return text + "};\n\n";
}

void emit_public_header(emission& run, const table& type, const type_text& text) {
    std::string body = doc_comment(type.doc) + record_struct(type);
    body += "/** Shown every record by the walks; non-zero ends the walk. */\ntypedef int32_t (*" + type.name +
            "_record_visitor)(struct " + type.name + "_table_record* record, void* user);\n\n";
    body += "extern loom_type_info _" + type.name + "_table_type_info_internal;\nextern loom_type_info _" +
            type.name + "_table_record_type_info_internal;\n\n";
    body += text.prototypes + "\n/* Handlers that an application may define. */\n";
    for (const event& each : events)
        body += "void " + handler_name(run, type, each) + "(" + each.parameters + ");\n";
    std::vector<std::string> includes = {"<" + run.source.name + "/" + type.payload->name + ".h>"};
    if (type.key == key_form::object)
        includes.push_back("<" + run.source.name + "/" + type.key_record->name + ".h>");
    run.public_header(type.name, "Table " + type.name + ".", includes, body);
}

// ---- Model ---------------------------------------------------------------------------------------------------

std::string key_type(const table& type) {
    if (type.key == key_form::object) return "trellis::table::object_key<types::" + type.key_record->name + ">";
    if (type.key == key_form::whole_payload)
        return "trellis::table::payload_key<types::" + type.payload->name + ">";
    return "trellis::table::attribute_key<" + facade(key_attribute(type).type) + ", &::" + type.payload->name +
           "::" + type.key_attribute + ">";
}

/// Facades that the model names.
std::set<std::string> facades_of(const table& type) {
    std::set<std::string> names = {type.payload->name};
    if (type.key == key_form::object) names.insert(type.key_record->name);
    if (type.key == key_form::attribute) {
        const type_ref& key = key_attribute(type).type;
        if (key.value == nullptr) names.insert(key.name);
    }
    return names;
}

std::string weak_handlers(const emission& run, const table& type) {
    std::string text = "extern \"C\" {\n";
    for (const event& each : events)
        text += "void " + handler_name(run, type, each) + "(" + each.parameters +
                ") __attribute__((weak, visibility(\"default\")));\n";
    return text + "}\n\n";
}

std::string model_members(const emission& run, const table& type) {
    const std::string constant = "    static constexpr ";
    std::string text = "    using bundle = bundle_" + run.source.name + "::bundle;\n";
    text += "    using record = ::" + type.name +
            "_table_record;\n    using payload = types::" + type.payload->name + ";\n";
    text += constant + "auto payload_field = &record::" + type.payload->name + ";\n";
    text += "    using key = " + key_type(type) + ";\n";
    if (type.key == key_form::object)
        text += constant + "auto key_field = &record::" + type.key_record->name + ";\n";
    text +=
        constant + "char key_label[] = \"" + (type.key == key_form::attribute ? type.key_attribute : "") + "\";\n";
    text += constant + "bool ordered = " + (type.ordered ? "true" : "false") + ";\n";
    if (type.ordered)
        text += constant + "auto sequence = &::" + type.payload->name + "::reorder_seq_compact_no;\n";
    text += constant + "char name[] = \"" + type.name + "\";\n";
    text += constant + "int trace_unit = " + std::to_string(type.trace_unit) + ";\n";
    text += constant + "u32 trace_base = " + std::to_string(type.trace_base) + ";\n";
    text += "    static const u8* luid() { return ::table_" + type.name + "_luid; }\n";
    text += "    static const char* luid_text() { return ::table_" + type.name + "_luid_text; }\n";
    text += "    static loom_type_info* type_info() { return &::_" + type.name + "_table_type_info_internal; }\n";
    text += "    static loom_type_info* record_type_info() { return &::_" + type.name +
            "_table_record_type_info_internal; }\n";
    return text;
}

void emit_model(emission& run, const table& type) {
    const substitutions with = placeholders(type);
    std::string text = generated_notice(run.source, "Key, record and workers of " + type.name + ".");
    text += "#pragma once\n\n#include \"bundle.h\"\n#include \"tables/table.h\"\n";
    for (const std::string& each : facades_of(type))
        text += "#include \"types/" + each + ".h\"\n";
    text += "\n" + weak_handlers(run, type);
    text += "#include <" + run.source.name + "/" + type.name + ".h>\n#include <" + run.source.name +
            "/table_registry.h>\n\n";
    text += "namespace bundle_" + run.source.name + "::tables {\nstruct " + type.name + " {\n";
    text += model_members(run, type);
    const auto add_worker = [&](const worker& each) {
        text += std::string("    static constexpr auto ") + each.member + " = &::" + substitute(each.name, with) +
                ";\n";
    };
    for (const worker& each : workers)
        add_worker(each);
    if (type.key == key_form::object)
        for (const worker& each : workers_of_key_objects)
            add_worker(each);
    for (const event& each : events)
        text += std::string("    static constexpr auto ") + each.name +
                "_handler = &::" + handler_name(run, type, each) + ";\n";
    text += "};\n} // namespace bundle_" + run.source.name + "::tables\n";
    run.out.add("src/models/" + type.name + ".h", std::move(text));
}

/// The places that the runtime and the C struct agree on.
std::string layout_asserts(const table& type) {
    const std::string name = "::" + type.name + "_table_record";
    return "static_assert(offsetof(" + name + ", loom_record) == 0);\nstatic_assert(offsetof(" + name + ", " +
           type.payload->name + ") == sizeof(loom_table_record));\n";
}

} // namespace

type_text emit_table(emission& run, const table& type) {
    type_text text;
    text.name = type.name;
    text.includes = {"models/" + type.name + ".h"};
    text.exports = layout_asserts(type);
    const substitutions with = placeholders(type);
    for (const table_operation& each : operations_of_tables()) {
        if (!has_operation(type, each)) continue;
        run.add(text,
                {substitute(each.name, with), substitute(each.result, with), substitute(each.parameters, with),
                 std::string("table::") + each.worker + "<tables::" + type.name + ">",
                 substitute(each.doc, with)});
    }
    emit_public_header(run, type, text);
    emit_model(run, type);
    return text;
}

} // namespace trellis::schema
