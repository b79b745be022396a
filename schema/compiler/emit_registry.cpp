// The registry of tables: the function records of own and foreign tables as one block in registry order, which is
// also the source that the exported array is filled from, and the constants of the lookup by luid. What the
// registry does stands in frame/registry.h.
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

std::string lookup_constants(const std::vector<registered>& all) {
    std::vector<luid_words> keys;
    for (const registered& each : all)
        keys.push_back(words_of(each.luid_text));
    const perfect_hash hash = find_hash(keys);
    std::string text = "    static constexpr u32 count = " + std::to_string(all.size()) + ";\n";
    text += "    static constexpr u64 multiplier = " + hexadecimal(hash.multiplier) + ";\n";
    text += "    static constexpr u32 shift = " + std::to_string(hash.shift) + ";\n";
    text += std::string("    static constexpr ") + (all.size() < 256 ? "u8" : "u16") + " slots[] = {";
    for (std::size_t i = 0; i < hash.slots.size(); ++i)
        text += (i % 32 == 0 ? "\n        " : " ") + std::to_string(hash.slots[i]) + ",";
    text += "\n    };\n    static constexpr frame::luid_words keys[] = {\n";
    for (std::size_t i = 0; i < all.size(); ++i)
        text += "        {" + hexadecimal(keys[i].low) + ", " + hexadecimal(keys[i].high) + "}, // " +
                all[i].name + "\n";
    if (all.empty()) text += "        {},\n";
    return text + "    };\n";
}

// ---- Files -----------------------------------------------------------------------------------------------------

constexpr operation registry_operations[] = {
    {"table_mrst_lookup", "int32_t", "const uint8_t* luid",
     "The registry index of a table's 16-byte luid, or -1."},
    {"table_vft_init", "uint32_t", "void", "Fills the array of function records, once; 0 or an error number."},
    {"table_get_vft", "void",
     "loom_handle* handle, uint32_t domain, const uint8_t* luid, const loom_table_vft** out, uint32_t* err",
     "Stores the address of the table's function record; for an unknown luid null, and 2 in `*err`."},
    {"fetch_table_get_vft", "loom_table_get_vft_fn", "void", "The address of the lookup by luid."},
};

std::string registry_source(emission& run, const std::vector<registered>& all) {
    const std::string& name = run.source.name;
    const std::string extent = std::to_string(std::max<std::size_t>(1, all.size()));
    std::string text = generated_notice(run.source, "Lookup of tables by luid.");
    text += "#include \"bundle.h\"\n\n#include \"frame/bundle.h\"\n\n#include <" + name + "/table_registry.h>\n\n";
    text += "extern \"C\" __attribute__((visibility(\"hidden\"))) const loom_table_vft " + name +
            "_table_records[];\n";
    text +=
        "extern \"C\" {\nTRELLIS_EXPORT_DATA loom_table_vft " + name + "_table_lut[" + extent + "] = {};\n}\n\n";
    text += "namespace bundle_" + name + " {\n\nnamespace {\n\nu32 registry_state = 0;\n\n";
    text += "struct registry {\n    using bundle = bundle_" + name +
            "::bundle;\n"
            "    static constexpr int trace_unit = 4;\n    static constexpr u32 trace_base = 0;\n";
    text += lookup_constants(all);
    text += "    static const loom_table_vft* records() { return ::" + name + "_table_records; }\n";
    text += "    static loom_table_vft* filled() { return ::" + name + "_table_lut; }\n";
    text += "    static u32& state() { return registry_state; }\n};\n\n} // namespace\n\n";
    const std::string bodies[] = {
        "frame::lookup<registry>(luid)", "frame::initialize_records<registry>()",
        "static_cast<void>(domain), frame::find_record<registry>(handle, luid, out, err)",
        "::" + name + "_table_get_vft"};
    for (std::size_t i = 0; i < std::size(registry_operations); ++i) {
        const operation& op = registry_operations[i];
        const std::string function = name + "_" + op.suffix;
        text += std::string("TRELLIS_EXPORT ") + op.result + " " + function + "(" + op.parameters +
                ") { bundle::count(" + std::to_string(run.counter(function)) + "); return " + bodies[i] + "; }\n";
    }
    return text + "\n} // namespace bundle_" + name + "\n";
}

void emit_registry_header(emission& run, const std::vector<registered>& all) {
    const std::string& name = run.source.name;
    std::string body;
    for (const operation& each : registry_operations)
        body +=
            doc_comment(each.doc) + each.result + " " + name + "_" + each.suffix + "(" + each.parameters + ");\n";
    body += doc_comment("Function records in registry order; zero until the first lookup.");
    body += "extern loom_table_vft " + name + "_table_lut[" +
            std::to_string(std::max<std::size_t>(1, all.size())) + "];\n\n";
    for (const registered& each : all) {
        body += "extern const loom_table_vft " + each.name + "_table_vft;\n";
        if (!each.own) continue;
        body += "extern const char table_" + each.name + "_name[];\nextern const uint8_t table_" + each.name +
                "_luid[16];\nextern const char table_" + each.name + "_luid_text[33];\n";
    }
    run.public_header("table_registry", "Lookup of tables by luid, and their function records.", {}, body);
}

/// One function record; the linker fills in the addresses.
std::string function_record(const registered& of, const std::string& name_symbol) {
    const std::string symbol = of.name + "_table_vft";
    std::string text = "    .globl " + symbol + "\n    .type " + symbol + ", @object\n    .size " + symbol +
                       ", 392\n" + symbol + ":\n";
    text += "    .quad table_" + of.name + "_luid\n    .quad " + name_symbol + "\n";
    for (const char* const function : slot_functions)
        text +=
            function == nullptr ? std::string("    .quad 0\n") : "    .quad " + of.name + "_" + function + "\n";
    return text;
}

std::string function_records(const bundle& source, const std::vector<registered>& all) {
    const std::string block = source.name + "_table_records";
    std::string text = generated_notice(source, "Function records of own and foreign tables, in registry order.");
    text += "    .section .data.rel.ro, \"aw\", @progbits\n    .balign 8\n    .globl " + block + "\n    .hidden " +
            block + "\n    .type " + block + ", @object\n    .size " + block + ", " +
            std::to_string(392 * all.size()) + "\n" + block + ":\n";
    std::string names;
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (all[i].own) {
            text += function_record(all[i], "table_" + all[i].name + "_name");
        } else {
            // A foreign table's name text is the bundle's own.
            const std::string label = ".Lname_" + std::to_string(i);
            text += function_record(all[i], label);
            names += label + ":\n    .asciz \"table " + all[i].name + "\"\n";
        }
    }
    if (!names.empty()) text += "    .section .rodata\n" + names;
    return text + "    .section .note.GNU-stack, \"\", @progbits\n";
}

} // namespace

void emit_registry(emission& run) {
    const std::vector<registered> all = registry_of(run.source);
    run.out.add("src/registry.cpp", registry_source(run, all));
    run.out.add("src/function_records.S", function_records(run.source, all));
    emit_registry_header(run, all);
}

} // namespace trellis::schema
