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

std::string variant_tables(const std::vector<information>& all) {
    std::string entries = "// Writable: the entries count objects.\nloom_variant_entry entries[] = {\n";
    std::string tables = "loom_variant_table tables[] = {\n";
    std::size_t place = 0;
    for (const information& each : all) {
        entries += "    // " + each.name + "\n";
        for (const variant_figures& figures : each.variants)
            entries += "    {" + std::to_string(figures.variant) + ", " + std::to_string(figures.used_length) +
                       ", " + std::to_string(figures.alloc_slop) + ", 0, 0, 0, 0},\n";
        tables += "    {" + std::to_string(each.variants.size()) + ", entries + " + std::to_string(place) +
                  "}, // " + each.name + "\n";
        place += each.variants.size();
    }
    return entries + "};\n" + tables + "};\n";
}

std::string type_info_record(const bundle& source, const information& of, std::size_t place) {
    return "TRELLIS_TYPE_INFO loom_type_info " + of.symbol + " = {LOOM_TYPE_INFO_MAGIC, {" +
           byte_list(of.luid.data(), of.luid.size()) + "}, \"" + of.luid_text + "\", \"" + of.name + "\", \"" +
           source.name + "\", \"" + of.kind + "\", {}, -1, 0, tables + " + std::to_string(place) + ", 0, 0};\n";
}

std::string identity_declarations(const std::string& symbol) {
    return "extern TRELLIS_EXPORT_DATA const char " + symbol + "_name[], " + symbol + "_luid_text[33];\n" +
           "extern TRELLIS_EXPORT_DATA const uint8_t " + symbol + "_luid[16];\n";
}

/// Name text, luid and luid text of a table or message, under the names every bundle uses.
std::string identity(const std::string& symbol, const std::string& text, const named& of) {
    return "const char " + symbol + "_name[] = \"" + text + "\";\n" + "const uint8_t " + symbol + "_luid[16] = {" +
           byte_list(of.luid.data(), of.luid.size()) + "};\n" + "const char " + symbol + "_luid_text[33] = \"" +
           of.luid_text + "\";\n";
}

} // namespace

void emit_type_information(emission& run) {
    const bundle& source = run.source;
    const std::vector<information> all = all_information(source);
    std::string text = generated_notice(source, "Type information of all types.");
    text += "#include \"bundle.h\"\n\n#include \"frame/export.h\"\n\n#include <loom/registry.h>\n\n";
    text += "// Read-only once the loader has filled in the addresses.\n"
            "#define TRELLIS_TYPE_INFO __attribute__((section(\".data.rel.ro.type_info\")))\n\n";
    text += "namespace {\n" + variant_tables(all) + "} // namespace\n\nextern \"C\" {\n\n";
    for (const information& each : all)
        text += "extern TRELLIS_EXPORT_DATA loom_type_info " + each.symbol + ";\n";
    for (const auto& each : source.tables)
        text += identity_declarations("table_" + each->name);
    for (const auto& each : source.messages)
        text += identity_declarations("message_action_" + each->name);
    text += "\n";
    for (std::size_t i = 0; i < all.size(); ++i)
        text += type_info_record(source, all[i], i);
    text += "\nloom_type_info* const " + source.name + "_type_infos[] = {\n";
    for (const information& each : all)
        text += "    &" + each.symbol + ",\n";
    text += "    nullptr,\n};\n\n";
    for (const auto& each : source.tables)
        text += identity("table_" + each->name, "table " + each->name, *each);
    for (const auto& each : source.messages)
        text += identity("message_action_" + each->name, "message_action " + each->name, *each);
    text += "\n} // extern \"C\"\n";
    run.out.add("src/type_information.cpp", std::move(text));
}

} // namespace trellis::schema
