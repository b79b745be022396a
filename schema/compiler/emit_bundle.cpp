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

void emit_unit(emission& run, unsigned number, const std::vector<const type_text*>& types) {
    std::vector<std::string> names;
    std::set<std::string> includes;
    for (const type_text* each : types) {
        names.push_back(each->name);
        includes.insert(each->includes.begin(), each->includes.end());
    }
    template_writer text = run.writer(names.empty() ? "No types." : "Exports of " + joined(names) + ".");
    for (const std::string& each : includes)
        text.add("#include \"$header\"\n", {{"$header", each}});
    if (!types.empty())
        text.add(R"(
#include "codec/codec.h"
#include "frame/export.h"
#include "instance/instance.h"

#include <stddef.h>

namespace bundle_$bundle {
)");
    for (const type_text* each : types)
        text.add("\n// ---- $type\n\n", {{"$type", each->name}}).add_plain(each->exports);
    if (!types.empty()) text.add("\n} // namespace bundle_$bundle\n");
    run.out.add("src/unit_" + two_digits(number) + ".cpp", text.take());
}

/// One header for a whole bundle.
void emit_umbrella(emission& run, const std::vector<type_text>& types) {
    template_writer text = run.writer("All of the bundle $bundle.");
    text.add_plain(doc_comment(run.source.doc));
    text.add(R"(#ifndef LOOM_$bundle_H
#define LOOM_$bundle_H

#include <$bundle/bundle_frame.h>
#include <$bundle/table_registry.h>
)");
    for (const type_text& each : types)
        text.add("#include <$bundle/$type.h>\n", {{"$type", each.name}});
    text.add("\n#endif\n");
    run.out.add("include/" + run.source.name + "/" + run.source.name + ".h", text.take());
}

/// Included by every public header: whoever includes one is built again when the schema changes.
void emit_revision(emission& run) {
    template_writer text =
        run.writer("Tells one revision of the schema from another.", {{"$digest", run.out.digest()}});
    text.add(R"(#ifndef LOOM_$bundle_REVISION_H
#define LOOM_$bundle_REVISION_H
#define $bundle_schema_revision "$digest"
#endif
)");
    run.out.add("include/" + run.source.name + "/revision.h", text.take());
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
        emit_unit(run, unit, parts[unit]);
    emit_umbrella(run, types);
    emit_revision(run);
    emit_type_description(run); // says nothing that the headers do not: users need not be built again for it
}

void emit_bundle(const bundle& source, const std::filesystem::path& out, unsigned units) {
    output_tree tree(out);
    compose_bundle(source, tree, units);
    tree.write();
}

} // namespace trellis::schema
