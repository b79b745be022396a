// Runs the emitters over a bundle, spreads the types over the source units, and writes the umbrella header. Which
// files a build has to expect is known from the number of units alone.
#include "schema/compiler/emit_bundle.h"

#include "schema/compiler/emit_families.h"
#include "schema/compiler/names.h"

#include <stdexcept>

namespace trellis::schema {

namespace {

std::vector<type_text> emit_types(emission& run) {
    const bundle& source = run.source;
    std::vector<type_text> types;
    for (const auto& each : source.records)
        types.push_back(emit_record(run, *each));
    for (const auto& each : source.enumerations)
        types.push_back(emit_enumeration(run, *each));
    for (const auto& each : source.flag_sets)
        types.push_back(emit_flag_set(run, *each));
    for (const auto& each : source.tables)
        types.push_back(emit_table(run, *each));
    for (const auto& each : source.messages)
        types.push_back(emit_message(run, *each));
    for (const auto& from : source.imports)
        for (const auto& each : from->enumerations)
            emit_imported_enumeration(run, *from, *each);
    return types;
}

/// Several small types or a big one: unit i holds the types whose middle lies in the i-th part of all functions.
std::vector<std::vector<const type_text*>> spread(const std::vector<type_text>& types, unsigned units) {
    unsigned long total = 0;
    for (const type_text& each : types)
        total += each.weight;
    std::vector<std::vector<const type_text*>> spread(units);
    unsigned long before = 0;
    for (const type_text& each : types) {
        const unsigned long middle = before + each.weight / 2;
        spread[total == 0 ? 0 : middle * units / total].push_back(&each);
        before += each.weight;
    }
    return spread;
}

std::string two_digits(unsigned number) { return (number < 10 ? "0" : "") + std::to_string(number); }

std::string unit_source(const bundle& source, const std::vector<const type_text*>& types) {
    std::vector<std::string> names;
    std::set<std::string> includes;
    for (const type_text* each : types) {
        names.push_back(each->name);
        includes.insert(each->includes.begin(), each->includes.end());
    }
    std::string text = generated_notice(source, names.empty() ? "No types." : "Exports of " + joined(names) + ".");
    if (types.empty()) return text;
    for (const std::string& each : includes)
        text += "#include " + (each.front() == '<' ? each : c_literal(each)) + "\n";
    text += "\n#include \"codec/codec.h\"\n#include \"frame/export.h\"\n#include \"instance/instance.h\"\n\n"
            "#include <stddef.h>\n\nnamespace bundle_" +
            source.name + " {\n";
    for (const type_text* each : types)
        text += "\n// ---- " + each->name + "\n\n" + each->exports;
    return text + "\n} // namespace bundle_" + source.name + "\n";
}

/// One header for a whole bundle.
std::string umbrella(const bundle& source, const std::vector<type_text>& types) {
    const std::string guard = "LOOM_" + source.name + "_H";
    std::string text = generated_notice(source, "All of the bundle " + source.name + ".");
    text += doc_comment(source.doc) + "#ifndef " + guard + "\n#define " + guard + "\n\n";
    const auto include = [&](const std::string& name) {
        text += "#include <" + source.name + "/" + name + ".h>\n";
    };
    include("bundle_frame");
    include("table_registry");
    for (const type_text& each : types)
        include(each.name);
    return text + "\n#endif\n";
}

/// Included by every public header: whoever includes one is built again when the schema changes.
std::string revision(const bundle& source, const std::string& digest) {
    const std::string guard = "LOOM_" + source.name + "_REVISION_H";
    return generated_notice(source, "Tells one revision of the schema from another.") + "#ifndef " + guard +
           "\n#define " + guard + "\n#define " + source.name + "_schema_revision \"" + digest + "\"\n#endif\n";
}

} // namespace

void compose_bundle(const bundle& source, output_tree& tree, unsigned units) {
    if (units == 0 || units > 1000) throw std::runtime_error("a bundle has 1 to 1000 source units");
    emission run(source, exported_functions(source), tree);
    const std::vector<type_text> types = emit_types(run);
    emit_type_information(run);
    emit_frame(run);
    emit_registry(run);
    emit_trace_store(run);
    emit_manifest(run);
    run.require_all_emitted();
    const auto parts = spread(types, units);
    for (unsigned unit = 0; unit < units; ++unit)
        tree.add("src/unit_" + two_digits(unit) + ".cpp", unit_source(source, parts[unit]));
    tree.add("include/" + source.name + "/" + source.name + ".h", umbrella(source, types));
    tree.add("include/" + source.name + "/revision.h", revision(source, tree.digest()));
}

void emit_bundle(const bundle& source, const std::filesystem::path& out, unsigned units) {
    output_tree tree(out);
    compose_bundle(source, tree, units);
    tree.write();
}

} // namespace trellis::schema
