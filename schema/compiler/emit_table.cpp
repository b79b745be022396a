// Tables: the C struct of the table record with its prototypes, the model, and one line per exported function.
// What the functions do stands in tables/.
#include "schema/compiler/c_names.h"
#include "schema/compiler/emit_families.h"
#include "schema/compiler/table_keys.h"

namespace trellis::schema {

namespace {

/// Functions that other functions of the table call: their names in the model, and as exported.
constexpr std::string_view workers =
    R"(    static constexpr auto table_open_internal = &::$table_table_open_internal;
    static constexpr auto table_free = &::$table_table_free;
    static constexpr auto request_table_free = &::$table_request_table_free;
    static constexpr auto create_record_internal = &::$table_create_record_internal;
    static constexpr auto destroy_record_internal = &::$table_destroy_record_internal;
    static constexpr auto pkey_create = &::$table_pkey_create;
    static constexpr auto insert_internal = &::$table_insert_internal;
    static constexpr auto delete_internal = &::$table_delete_internal;
    static constexpr auto search_internal = &::$path_search_internal;
    static constexpr auto get_next_internal = &::$path_get_next_internal;
    static constexpr auto get_prev_internal = &::$path_get_prev_internal;
    static constexpr auto get_first_internal = &::$table_get_first_internal;
    static constexpr auto get_last_internal = &::$table_get_last_internal;
    static constexpr auto get_sub_next = &::$path_get_sub_next;
    static constexpr auto compare = &::$path_avl_compare;
    static constexpr auto avl_internal_walk = &::$path_avl_internal_walk;
    static constexpr auto table_record_marshal_internal = &::$table_table_record_marshal_internal;
    static constexpr auto table_record_print_internal = &::$table_table_record_print_internal;
)";

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

substitutions placeholders(const emission& run, const table& type) {
    const std::string path = key_path(type);
    return {{"$table", type.name},
            {"$path", type.name + "_" + path.substr(0, path.size() - 1)},
            {"$payload", type.payload->name},
            {"$keytype", key_holder(type)->name},
            {"$handlers", run.source.name + "_" + type.name + "_table_record"},
            {"$key_label", type.key == key_kind::attribute ? type.key_attribute : ""},
            {"$ordered", type.ordered},
            {"$trace_unit", type.trace_unit},
            {"$trace_base", type.trace_base}};
}

// ---- Public header -------------------------------------------------------------------------------------------

void add_record_struct(template_writer& body, const table& type) {
    body.add(R"(/** A record of the table: the database layer's part, then the instances it holds. */
struct $table_table_record {
    loom_table_record loom_record;
    struct $payload* $payload;
)");
    if (type.key == key_kind::object) body.add("    struct $keytype* $keytype;\n");
    if (type.ordered)
        body.add(R"(    void* seq_next; /**< the neighbours' seq_next cells, in the order of the sequence */
    void* seq_prev;
)");
    body.add("};\n\n");
}

void emit_public_header(emission& run, const table& type, const type_text& text) {
    template_writer body(placeholders(run, type));
    body.add_plain(doc_comment(type.doc));
    add_record_struct(body, type);
    body.add(R"(/** Shown every record by the walks; non-zero ends the walk. */
typedef int32_t (*$table_record_visitor)(struct $table_table_record* record, void* user);

extern loom_type_info _$table_table_type_info_internal;
extern loom_type_info _$table_table_record_type_info_internal;

/* Functions that are given a null table set 2 and do nothing else; those that do otherwise say so. */

)");
    body.add_plain(text.prototypes);
    body.add("\n/* Handlers that an application may define. */\n");
    for (const event& each : events)
        body.add("void $handlers_$event_handler($handed);\n",
                 {{"$event", each.name}, {"$handed", each.parameters}});
    std::vector<std::string> includes = {"<" + run.source.name + "/" + type.payload->name + ".h>"};
    if (type.key == key_kind::object)
        includes.push_back("<" + run.source.name + "/" + type.key_record->name + ".h>");
    run.public_header(type.name, "Table " + type.name + ".", includes, body.take());
}

// ---- Model ---------------------------------------------------------------------------------------------------

/// The key as the families see it.
std::string key_type(const table& type) {
    const substitutions with = {{"$payload", type.payload->name}, {"$attribute", type.key_attribute}};
    switch (type.key) {
    case key_kind::object:
        return substitute("trellis::table::object_key<types::$keytype>", {{"$keytype", type.key_record->name}});
    case key_kind::whole_payload: return substitute("trellis::table::payload_key<types::$payload>", with);
    case key_kind::attribute: break;
    }
    return "trellis::table::attribute_key<" + facade(key_attribute(type)->type) +
           substitute(", &::$payload::$attribute>", with);
}

/// Facades that the model names.
std::set<std::string> facades_of(const table& type) {
    std::set<std::string> names = {type.payload->name, key_holder(type)->name};
    if (const attribute* key = key_attribute(type); key != nullptr && key->type.value == nullptr)
        names.insert(key->type.name);
    return names;
}

void emit_model(emission& run, const table& type) {
    template_writer text = run.writer("Key, record and workers of $table.", placeholders(run, type));
    text.add("#pragma once\n\n#include \"bundle.h\"\n#include \"tables/table.h\"\n");
    for (const std::string& each : facades_of(type))
        text.add("#include \"types/$facade.h\"\n", {{"$facade", each}});
    text.add("\nextern \"C\" {\n");
    for (const event& each : events)
        text.add("void $handlers_$event_handler($handed) __attribute__((weak, visibility(\"default\")));\n",
                 {{"$event", each.name}, {"$handed", each.parameters}});
    text.add(R"(}

#include <$bundle/$table.h>
#include <$bundle/table_registry.h>

namespace bundle_$bundle::tables {
struct $table {
    using bundle = bundle_$bundle::bundle;
    using record = ::$table_table_record;
    using payload = types::$payload;
    static constexpr auto payload_field = &record::$payload;
    using key = $key_type;
)",
             {{"$key_type", key_type(type)}});
    if (type.key == key_kind::object) text.add("    static constexpr auto key_field = &record::$keytype;\n");
    text.add(R"(    static constexpr char key_label[] = "$key_label";
    static constexpr bool ordered = $ordered;
)");
    if (type.ordered) text.add("    static constexpr auto sequence = &::$payload::reorder_seq_compact_no;\n");
    text.add(R"(    static constexpr char name[] = "$table";
    static constexpr int trace_unit = $trace_unit;
    static constexpr u32 trace_base = $trace_base;
    static const u8* luid() { return ::table_$table_luid; }
    static const char* luid_text() { return ::table_$table_luid_text; }
    static loom_type_info* type_info() { return &::_$table_table_type_info_internal; }
    static loom_type_info* record_type_info() { return &::_$table_table_record_type_info_internal; }
)");
    text.add(workers);
    if (type.key == key_kind::object)
        text.add(
            "    static constexpr auto table_record_to_xml_internal = &::$table_table_record_to_xml_internal;\n");
    for (const event& each : events)
        text.add("    static constexpr auto $event_handler = &::$handlers_$event_handler;\n",
                 {{"$event", each.name}});
    text.add("};\n} // namespace bundle_$bundle::tables\n");
    run.out.add("src/models/" + type.name + ".h", text.take());
}

/// The places that the runtime and the C struct agree on.
std::string layout_asserts(const table& type) {
    return substitute(R"(static_assert(offsetof(::$table_table_record, loom_record) == 0);
static_assert(offsetof(::$table_table_record, $payload) == sizeof(loom_table_record));
)",
                      {{"$table", type.name}, {"$payload", type.payload->name}});
}

} // namespace

type_text emit_table(emission& run, const table& type) {
    type_text text;
    text.name = type.name;
    text.includes = {"models/" + type.name + ".h"};
    text.exports = layout_asserts(type);
    for (const operation_group& each : operations_of(type))
        run.add(text, each);
    emit_public_header(run, type, text);
    emit_model(run, type);
    return text;
}

} // namespace trellis::schema
