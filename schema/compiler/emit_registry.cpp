// The registry of tables: the function records of own and foreign tables as one block in registry order, which is
// also the source that the exported array is filled from, and the constants of the lookup by luid. What the
// registry does stands in frame/registry.h.
#include "schema/compiler/assembler.h"
#include "schema/compiler/emit_families.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <stdexcept>

namespace trellis::schema {

namespace {

/// What the functions of slots 2 to 48 are called behind the table's name; slot 37 is reserved.
constexpr const char* slot_functions[] = {
    "table_open",
    "table_open_by_id",
    "table_open_by_ior_with_name",
    "table_open_by_ior_with_id",
    "table_close",
    "table_free",
    "table_record_create_cb",
    "table_record_modify_cb",
    "table_record_delete_cb",
    "table_record_create_dm_cb",
    "table_record_delete_dm_cb",
    "table_record_grouping_cb",
    "table_record_free_cb",
    "search",
    "search_w_src",
    "create_record",
    "record_add_ref",
    "destroy_record",
    "insert",
    "delete",
    "pkey_insert",
    "pkey_delete",
    "pkey_get_next",
    "pkey_get_prev",
    "pkey_get_first",
    "pkey_get_last",
    "table_get_count",
    "table_get_count_by_src",
    "pkey_get_first_by_src",
    "pkey_get_first_ignore_src",
    "pkey_get_next_by_src",
    "pkey_get_next_ignore_src",
    "table_record_print",
    "table_record_to_xml",
    "table_record_from_xml",
    nullptr,
    "request_record_destroy",
    "table_record_marshal",
    "table_record_unmarshal",
    "table_record_len",
    "table_pkey_marshal",
    "table_pkey_unmarshal",
    "table_pkey_len",
    "pkey_destroy",
    "get_next_by_key",
    "get_prev_by_key",
    "pkey_print",
};
static_assert(std::size(slot_functions) == 47, "49 slots, two of them data");
/// Bytes of a function record.
constexpr std::size_t record_size = 8 * (2 + std::size(slot_functions));

/// A table of the registry, own or foreign.
struct registered {
    std::string name;
    std::string luid_text;
    bool own;
};

std::vector<registered> registry_of(const bundle& source) {
    std::vector<registered> all;
    for (const auto& each : source.tables)
        all.push_back({each->name, each->luid_text, true});
    for (const auto& from : source.imports)
        for (const foreign_table& each : from->tables)
            all.push_back({each.name, each.luid_text, false});
    if (source.registry.empty()) return all;
    std::vector<registered> ordered;
    for (const std::string& name : source.registry) {
        const auto found =
            std::find_if(all.begin(), all.end(), [&](const registered& each) { return each.name == name; });
        if (found == all.end()) throw std::logic_error("the registry names no table of the bundle: " + name);
        ordered.push_back(*found);
    }
    return ordered;
}

// ---- Lookup ----------------------------------------------------------------------------------------------------

/// A luid as two little-endian words.
struct luid_words {
    std::uint64_t low = 0;
    std::uint64_t high = 0;
};

luid_words words_of(const std::string& luid_text) {
    luid_words words;
    for (unsigned i = 0; i < 16; ++i) {
        const std::uint64_t byte = std::stoul(luid_text.substr(2 * i, 2), nullptr, 16);
        (i < 8 ? words.low : words.high) |= byte << (8 * (i % 8));
    }
    return words;
}

/// A multiplicative hash without collisions among the keys.
struct perfect_hash {
    std::uint64_t multiplier;
    unsigned shift;
    std::vector<std::size_t> slots; // place of the key, or the number of keys
};

std::optional<perfect_hash> hash_with(const std::vector<luid_words>& keys, std::uint64_t multiplier,
                                      unsigned bits) {
    perfect_hash hash{multiplier, 64 - bits, std::vector<std::size_t>(std::size_t{1} << bits, keys.size())};
    for (std::size_t i = 0; i < keys.size(); ++i) {
        std::size_t& slot = hash.slots[((keys[i].low ^ keys[i].high) * multiplier) >> hash.shift];
        if (slot != keys.size()) return std::nullopt;
        slot = i;
    }
    return hash;
}

/// Tries multipliers of a fixed sequence, and a table of twice the size when none of them will do.
perfect_hash find_hash(const std::vector<luid_words>& keys) {
    constexpr unsigned attempts_per_size = 100'000;
    std::uint64_t state = 0x9e3779b97f4a7c15u;
    for (unsigned bits = std::max(1u, static_cast<unsigned>(std::bit_width(2 * keys.size()))); bits <= 20;
         ++bits) {
        for (unsigned attempt = 0; attempt < attempts_per_size; ++attempt) {
            state += 0x9e3779b97f4a7c15u;
            std::uint64_t multiplier = (state ^ (state >> 30)) * 0xbf58476d1ce4e5b9u;
            multiplier = (multiplier ^ (multiplier >> 27)) | 1;
            if (const auto found = hash_with(keys, multiplier, bits)) return *found;
        }
    }
    throw std::runtime_error("no lookup without collisions for the luids of the registry");
}

std::string hexadecimal(std::uint64_t value) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text = "0x";
    for (int shift = 60; shift >= 0; shift -= 4)
        text += digits[(value >> shift) & 15];
    return text + "u";
}

void add_lookup_constants(template_writer& text, const std::vector<registered>& all) {
    std::vector<luid_words> keys;
    for (const registered& each : all)
        keys.push_back(words_of(each.luid_text));
    const perfect_hash hash = find_hash(keys);
    text.add(R"(    static constexpr u32 count = $count;
    static constexpr u64 multiplier = $multiplier;
    static constexpr u32 shift = $shift;
    static constexpr $place slots[] = {)",
             {{"$count", all.size()},
              {"$multiplier", hexadecimal(hash.multiplier)},
              {"$shift", hash.shift},
              {"$place", all.size() < 256 ? "u8" : "u16"}});
    for (std::size_t i = 0; i < hash.slots.size(); ++i)
        text.add(i % 32 == 0 ? "\n        $slot," : " $slot,", {{"$slot", hash.slots[i]}});
    text.add("\n    };\n    static constexpr frame::luid_words keys[] = {\n");
    for (std::size_t i = 0; i < all.size(); ++i)
        text.add(
            "        {$low, $high}, // $table\n",
            {{"$low", hexadecimal(keys[i].low)}, {"$high", hexadecimal(keys[i].high)}, {"$table", all[i].name}});
    if (all.empty()) text.add("        {},\n");
    text.add("    };\n");
}

// ---- Files -----------------------------------------------------------------------------------------------------

void emit_registry_source(emission& run, const std::vector<registered>& all, const type_text& functions) {
    template_writer text =
        run.writer("Lookup of tables by luid.", {{"$extent", std::max<std::size_t>(1, all.size())}});
    text.add(R"(#include "bundle.h"

#include "frame/bundle.h"

#include <$bundle/table_registry.h>

extern "C" __attribute__((visibility("hidden"))) const loom_table_vft $bundle_table_records[];
extern "C" {
TRELLIS_EXPORT_DATA loom_table_vft $bundle_table_lut[$extent] = {};
}

namespace bundle_$bundle {

namespace {

u32 registry_state = 0;

struct registry {
    using bundle = bundle_$bundle::bundle;
    static constexpr int trace_unit = 4;
    static constexpr u32 trace_base = 0;
)");
    add_lookup_constants(text, all);
    text.add(R"(    static const loom_table_vft* records() { return ::$bundle_table_records; }
    static loom_table_vft* filled() { return ::$bundle_table_lut; }
    static u32& state() { return registry_state; }
};

} // namespace

)");
    text.add_plain(functions.exports);
    text.add("\n} // namespace bundle_$bundle\n");
    run.out.add("src/registry.cpp", text.take());
}

void emit_registry_header(emission& run, const std::vector<registered>& all, const type_text& functions) {
    template_writer body({{"$bundle", run.source.name}, {"$extent", std::max<std::size_t>(1, all.size())}});
    body.add_plain(functions.prototypes);
    body.add(R"(/** Function records in registry order; zero until the first lookup. */
extern loom_table_vft $bundle_table_lut[$extent];

)");
    for (const registered& each : all) {
        const substitutions with = {{"$table", each.name}};
        body.add("extern const loom_table_vft $table_table_vft;\n", with);
        if (each.own)
            body.add(R"(extern const char table_$table_name[];
extern const uint8_t table_$table_luid[16];
extern const char table_$table_luid_text[33];
)",
                     with);
    }
    run.public_header("table_registry", "Lookup of tables by luid, and their function records.", {}, body.take());
}

/// One function record; the linker fills in the addresses.
void add_function_record(template_writer& text, const registered& of, const std::string& name_symbol) {
    const substitutions with = {{"$table", of.name}, {"$name", name_symbol}};
    text.add_plain(object_label(of.name + "_table_vft", record_size));
    text.add("    .quad table_$table_luid\n    .quad $name\n", with);
    for (const char* const function : slot_functions)
        if (function == nullptr)
            text.add("    .quad 0\n");
        else
            text.add("    .quad $table_", with).add_plain(function).add("\n");
}

void emit_function_records(emission& run, const std::vector<registered>& all) {
    template_writer text = run.writer("Function records of own and foreign tables, in registry order.");
    text.add_plain(section(".data.rel.ro", "aw")).add("    .balign 8\n");
    text.add_plain(object_label(run.source.name + "_table_records", record_size * all.size(), true));
    template_writer names({});
    for (std::size_t i = 0; i < all.size(); ++i) {
        const substitutions with = {{"$place", i}, {"$table", all[i].name}};
        // A foreign table's name text is the bundle's own.
        add_function_record(text, all[i], substitute(all[i].own ? "table_$table_name" : ".Lname_$place", with));
        if (!all[i].own) names.add(".Lname_$place:\n    .asciz \"table $table\"\n", with);
    }
    if (const std::string foreign = names.take(); !foreign.empty())
        text.add("    .section .rodata\n").add_plain(foreign);
    run.out.add("src/function_records.S", text.add_plain(end_of_assembler).take());
}

} // namespace

void emit_registry(emission& run) {
    const std::vector<registered> all = registry_of(run.source);
    type_text functions;
    run.add(functions, registry_operations(run.source));
    emit_registry_source(run, all, functions);
    emit_function_records(run, all);
    emit_registry_header(run, all, functions);
}

} // namespace trellis::schema
