// The manifest: one line per type with its identity, the hash of its definition, its newest variant and its size,
// and a record of the build, in a section that is not loaded.
#include "schema/compiler/assembler.h"
#include "schema/compiler/emit_families.h"

#include <algorithm>
#include <stdexcept>

namespace trellis::schema {

namespace {

constexpr std::uint32_t kind_manifest = 2;
constexpr std::uint32_t kind_build = 1;
/// Every build record has this length; what the text leaves is zero bytes.
constexpr std::size_t build_record_size = 286;

/// One line without its line feed: 79 characters.
struct line {
    std::string luid_text;
    std::string text;
};

std::string padded(std::size_t value, std::size_t width) {
    std::string text = std::to_string(value);
    return text.size() < width ? std::string(width - text.size(), '0') + text : text;
}

line make_line(const std::string& luid_text, const std::string& hash, const char* kind, int newest,
               std::size_t size) {
    return {luid_text,
            substitute("$luid:$hash$kind$newest:$sizeN", {{"$luid", luid_text},
                                                          {"$hash", hash},
                                                          {"$kind", kind},
                                                          {"$newest", padded(static_cast<std::size_t>(newest), 3)},
                                                          {"$size", padded(size, 5)}})};
}

line line_of(const named& type, const char* kind) {
    const std::size_t end = type.variants.back().used_length;
    return make_line(type.luid_text, type.definition_hash, kind, type.newest, (end + 7) / 8 * 8);
}

void append_by_luid(std::string& text, std::vector<line> lines) {
    std::sort(lines.begin(), lines.end(), [](const line& a, const line& b) { return a.luid_text < b.luid_text; });
    for (const line& each : lines)
        text += each.text + "\n";
}

/// Types by name, then messages, then tables and table records, both by luid text; a zero byte closes the text
/// and another one the payload.
std::string manifest(const bundle& source) {
    std::vector<std::pair<std::string, line>> types;
    for (const auto& each : source.enumerations)
        types.emplace_back(each->name, line_of(*each, "enum"));
    for (const auto& each : source.flag_sets)
        types.emplace_back(each->name, line_of(*each, "flag"));
    for (const auto& each : source.records)
        types.emplace_back(each->name, line_of(*each, "type"));
    std::sort(types.begin(), types.end(), [](const auto& a, const auto& b) { return a.first < b.first; });

    std::string text = "# " + source.name + ".minime\n";
    for (const auto& [name, of] : types)
        text += of.text + "\n";
    std::vector<line> messages;
    for (const auto& each : source.messages)
        messages.push_back(make_line(each->luid_text, each->definition_hash, "mess", 0, 0));
    append_by_luid(text, std::move(messages));
    std::vector<line> tables;
    for (const auto& each : source.tables) {
        tables.push_back(make_line(each->luid_text, each->definition_hash, "tabl", 0, 0));
        tables.push_back(make_line(each->record_luid_text, each->record_definition_hash, "trec", 0, 0));
    }
    append_by_luid(text, std::move(tables));
    return text + std::string(2, '\0');
}

/// The schema's name, a zero byte, and what the build says about itself.
std::string build_record(const bundle& source) {
    std::string text = source.name + '\0' +
                       substitute("trellisc manifest 1: records $records, enumerations $enumerations, flag sets "
                                  "$flag_sets, tables $tables, messages $messages; imports",
                                  {{"$records", source.records.size()},
                                   {"$enumerations", source.enumerations.size()},
                                   {"$flag_sets", source.flag_sets.size()},
                                   {"$tables", source.tables.size()},
                                   {"$messages", source.messages.size()}});
    for (const auto& each : source.imports)
        text += " " + each->bundle_name;
    if (source.imports.empty()) text += " none";
    if (text.size() >= build_record_size) text.resize(build_record_size - 1);
    text.resize(build_record_size, '\0');
    return text;
}

/// Length, kind, payload, and zero bytes up to a multiple of 4.
std::string entry(std::uint32_t kind, const std::string& payload) {
    return substitute("    .long $size, $kind\n", {{"$size", payload.size()}, {"$kind", kind}}) +
           character_lines(payload) + "    .balign 4, 0\n";
}

} // namespace

void emit_manifest(emission& run) {
    template_writer text = run.writer("The types of the bundle with their hashes.");
    text.add_plain(section(".corvo", ""));
    text.add_plain(entry(kind_manifest, manifest(run.source)));
    text.add_plain(entry(kind_build, build_record(run.source)));
    run.out.add("src/manifest.S", text.add_plain(end_of_assembler).take());
}

} // namespace trellis::schema
