// Type information: the 272-byte record of every type, the variant tables that count its objects, the list of all
// records, and the names and luids of tables and messages as exported constants.
#include "schema/compiler/emit_families.h"

namespace trellis::schema {

namespace {

/// One entry of a variant table.
struct variant_figures {
    std::uint32_t variant;
    std::uint32_t used_length;
    std::uint32_t alloc_slop;
};

/// What one record says.
struct information {
    std::string symbol;
    std::string name;
    std::string kind;
    const std::array<std::uint8_t, 16>& luid;
    const std::string& luid_text;
    std::vector<variant_figures> variants;
};

std::vector<variant_figures> figures_of(const named& type) {
    std::vector<variant_figures> figures;
    for (std::size_t i = 0; i < type.variants.size(); ++i)
        figures.push_back(
            {static_cast<std::uint32_t>(i), type.variants[i].used_length, type.variants[i].alloc_slop});
    return figures;
}

/// Tables and table records have no variants; their single entry is told.
const std::vector<variant_figures> table_figures = {{1, 8, 0}};

/// All records in the order of the list: records, enumerations, flag sets, each table with its table record,
/// messages.
std::vector<information> all_information(const bundle& source) {
    std::vector<information> all;
    const auto add_type = [&all](const named& type, const char* kind) {
        all.push_back({"_" + type.name + "_type_info_internal", type.name, kind, type.luid, type.luid_text,
                       figures_of(type)});
    };
    for (const auto& each : source.records)
        add_type(*each, "type");
    for (const auto& each : source.enumerations)
        add_type(*each, "enum");
    for (const auto& each : source.flag_sets)
        add_type(*each, "flag");
    for (const auto& each : source.tables) {
        all.push_back({"_" + each->name + "_table_type_info_internal", each->name, "table", each->luid,
                       each->luid_text, table_figures});
        all.push_back({"_" + each->name + "_table_record_type_info_internal", each->name + "_record",
                       "table_record", each->record_luid, each->record_luid_text, table_figures});
    }
    for (const auto& each : source.messages)
        all.push_back({"_" + each->name + "_action_message_type_info_internal", each->name, "message", each->luid,
                       each->luid_text, figures_of(*each)});
    return all;
}

void add_variant_tables(template_writer& text, const std::vector<information>& all) {
    text.add("// Writable: the entries count objects.\nloom_variant_entry entries[] = {\n");
    for (const information& each : all) {
        text.add("    // $type\n", {{"$type", each.name}});
        for (const variant_figures& figures : each.variants)
            text.add("    {$variant, $used_length, $alloc_slop, 0, 0, 0, 0},\n",
                     {{"$variant", figures.variant},
                      {"$used_length", figures.used_length},
                      {"$alloc_slop", figures.alloc_slop}});
    }
    text.add("};\nloom_variant_table tables[] = {\n");
    std::size_t place = 0;
    for (const information& each : all) {
        text.add("    {$variants, entries + $place}, // $type\n",
                 {{"$variants", each.variants.size()}, {"$place", place}, {"$type", each.name}});
        place += each.variants.size();
    }
    text.add("};\n");
}

void add_type_info(template_writer& text, const information& of, std::size_t place) {
    text.add(
        "TRELLIS_TYPE_INFO loom_type_info $symbol = {LOOM_TYPE_INFO_MAGIC, {$luid}, \"$luid_text\", \"$type\", "
        "\"$bundle\", \"$kind\", {}, -1, 0, tables + $place, 0, 0};\n",
        {{"$symbol", of.symbol},
         {"$luid", byte_list(of.luid.data(), of.luid.size())},
         {"$luid_text", of.luid_text},
         {"$type", of.name},
         {"$kind", of.kind},
         {"$place", place}});
}

/// Name text, luid and luid text of a table or message stand under names that begin alike in every bundle.
struct identity {
    std::string symbol;
    std::string text;
    const named& of;
};

std::vector<identity> all_identities(const bundle& source) {
    std::vector<identity> all;
    for (const auto& each : source.tables)
        all.push_back({"table_" + each->name, "table " + each->name, *each});
    for (const auto& each : source.messages)
        all.push_back({"message_action_" + each->name, "message_action " + each->name, *each});
    return all;
}

} // namespace

void emit_type_information(emission& run) {
    const std::vector<information> all = all_information(run.source);
    const std::vector<identity> identities = all_identities(run.source);
    template_writer text = run.writer("Type information of all types.");
    text.add(R"(#include "bundle.h"

#include "frame/export.h"

#include <loom/registry.h>

// Read-only once the loader has filled in the addresses.
#define TRELLIS_TYPE_INFO __attribute__((section(".data.rel.ro.type_info")))

namespace {
)");
    add_variant_tables(text, all);
    text.add("} // namespace\n\nextern \"C\" {\n\n");
    for (const information& each : all)
        text.add("extern TRELLIS_EXPORT_DATA loom_type_info $symbol;\n", {{"$symbol", each.symbol}});
    for (const identity& each : identities)
        text.add(R"(extern TRELLIS_EXPORT_DATA const char $symbol_name[], $symbol_luid_text[33];
extern TRELLIS_EXPORT_DATA const uint8_t $symbol_luid[16];
)",
                 {{"$symbol", each.symbol}});
    text.add("\n");
    for (std::size_t i = 0; i < all.size(); ++i)
        add_type_info(text, all[i], i);
    text.add("\nloom_type_info* const $bundle_type_infos[] = {\n");
    for (const information& each : all)
        text.add("    &$symbol,\n", {{"$symbol", each.symbol}});
    text.add("    nullptr,\n};\n\n");
    for (const identity& each : identities)
        text.add(R"(const char $symbol_name[] = "$text";
const uint8_t $symbol_luid[16] = {$bytes};
const char $symbol_luid_text[33] = "$hexadecimal";
)",
                 {{"$symbol", each.symbol},
                  {"$text", each.text},
                  {"$bytes", byte_list(each.of.luid.data(), each.of.luid.size())},
                  {"$hexadecimal", each.of.luid_text}});
    text.add("\n} // extern \"C\"\n");
    run.out.add("src/type_information.cpp", text.take());
}

} // namespace trellis::schema
