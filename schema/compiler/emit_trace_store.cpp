// The trace store: one loaded section per trace unit with the lengths of its texts, and two sections that are not
// loaded, all texts in one compressed stream and the decoder's bytes. Statements and their order come from
// diag/statements.h; that the indexes agree with those the layout gave out is checked here.
#include "schema/compiler/emit_families.h"

#include "schema/compiler/md5.h"

#include <bzlib.h>

#include <algorithm>
#include <stdexcept>

namespace trellis::schema {

namespace {

constexpr std::size_t units = 6;
constexpr int frame_unit = 2;
constexpr int registry_unit = 4;

/// Carried unchanged by every build, for the offline decoder.
constexpr std::uint8_t decoder_bytes[] = {1, 3, 4, 1, 1, 3, 4, 4, 4, 5, 4, 1, 4, 4, 4, 4, 5,
                                          4, 1, 4, 1, 2, 4, 7, 4, 1, 4, 1, 4, 1, 4, 4, 1, 4};

struct entry {
    std::uint32_t call_id;
    std::string text;
};

/// The statements of one type, from its base on.
struct block {
    std::uint32_t base;
    std::string owner;
    std::vector<entry> entries;
};

/// Names in a text: "<type>" and what stands for it.
using names = std::vector<std::pair<std::string, std::string>>;

std::string filled_in(std::string text, const names& with) {
    for (const auto& [placeholder, name] : with)
        for (std::size_t at = text.find(placeholder); at != std::string::npos; at = text.find(placeholder, at))
            text.replace(at, placeholder.size(), name), at += name.size();
    return text;
}

/// Any number will do; this one is the same for all statements of a function.
std::uint32_t call_id_of(const std::string& owner, const std::string& function) {
    std::uint32_t id = 0x811c9dc5u;
    for (const char character : owner + function) id = (id ^ static_cast<unsigned char>(character)) * 0x01000193u;
    return id;
}

/// Adds the statements that stand for `kinds`: of the type itself when it is empty.
template <std::size_t N>
void add_statements(block& to, const diag::statement (&statements)[N], diag::kind_set kinds, const names& with) {
    for (const diag::statement& each : statements) {
        const bool applies = kinds == diag::kinds::of_type ? each.kinds == diag::kinds::of_type : (each.kinds & kinds) != 0;
        if (!applies) continue;
        const std::uint32_t id = call_id_of(to.owner, filled_in(each.function, with));
        for (unsigned copy = 0; copy < each.copies; ++copy)
            to.entries.push_back({id, " " + filled_in(each.text, with)});
    }
}

block block_of(const record& type) {
    block made{type.trace_base, type.name, {}};
    names with = {{"<type>", type.name}};
    add_statements(made, diag::record_statements, diag::kinds::of_type, with);
    for (const attribute& each : type.attributes) {
        if (each.form == shape::length) continue;
        if (type.trace_base + made.entries.size() != each.trace)
            throw std::logic_error("trace index of " + type.name + "." + each.name + " is not where the layout has it");
        names of_attribute = with;
        of_attribute.emplace_back("<attribute>", each.name);
        add_statements(made, diag::record_statements, diag::only(each.trace_kind), of_attribute);
    }
    return made;
}

/// What reports of duplicate and missing records call the key.
std::string key_text(const table& type) {
    switch (type.key) {
    case key_form::attribute: return type.payload->name + " " + type.key_attribute;
    case key_form::whole_payload: return type.payload->name + " ";
    case key_form::object: return type.key_record->name + " ";
    }
    return {};
}

block block_of(const bundle& source, const table& type) {
    block made{type.trace_base, type.name, {}};
    const names with = {{"<bundle>", source.name},
                        {"<table>", type.name},
                        {"<keytext>", key_text(type)},
                        {"<payload>", type.payload->name},
                        {"<key>", type.key_record == nullptr ? "" : type.key_record->name}};
    add_statements(made, diag::table_statements, diag::kind_set(diag::table_trait::any), with);
    if (type.key == key_form::object)
        add_statements(made, diag::table_statements, diag::kind_set(diag::table_trait::key_object), with);
    if (type.ordered) add_statements(made, diag::table_statements, diag::kind_set(diag::table_trait::ordered), with);
    return made;
}

block block_of(const bundle& source, const message& type) {
    block made{type.trace_base, type.name, {}};
    const names with = {{"<bundle>", source.name},
                        {"<message>", type.name},
                        {"<name>", type.name + "_action"},
                        {"<p>", type.payload == nullptr ? "" : type.payload->name}};
    add_statements(made, diag::message_statements, diag::kind_set(diag::message_trait::any), with);
    if (type.payload != nullptr)
        add_statements(made, diag::message_statements, diag::kind_set(diag::message_trait::with_payload), with);
    return made;
}

/// All statements of a unit, in the order of their indexes.
std::vector<entry> entries_of_unit(const bundle& source, int unit) {
    std::vector<block> blocks;
    const auto own = [&](const named& type) { return type.trace_unit == unit; };
    if (unit == frame_unit) {
        blocks.push_back({0, "", {}});
        add_statements(blocks.back(), diag::frame_statements, diag::kinds::of_type, {{"<bundle>", source.name}});
    }
    if (unit == registry_unit) {
        blocks.push_back({0, "", {}});
        add_statements(blocks.back(), diag::registry_statements, diag::kinds::of_type, {{"<bundle>", source.name}});
    }
    for (const auto& each : source.records)
        if (own(*each)) blocks.push_back(block_of(*each));
    for (const auto& each : source.enumerations) {
        if (!own(*each)) continue;
        blocks.push_back({each->trace_base, each->name, {}});
        add_statements(blocks.back(), diag::enumeration_statements, diag::kinds::of_type, {{"<type>", each->name}});
    }
    for (const auto& each : source.flag_sets) {
        if (!own(*each)) continue;
        blocks.push_back({each->trace_base, each->name, {}});
        add_statements(blocks.back(), diag::flag_set_statements, diag::kinds::of_type, {{"<type>", each->name}});
    }
    for (const auto& each : source.tables)
        if (own(*each)) blocks.push_back(block_of(source, *each));
    for (const auto& each : source.messages)
        if (own(*each)) blocks.push_back(block_of(source, *each));

    std::stable_sort(blocks.begin(), blocks.end(), [](const block& a, const block& b) { return a.base < b.base; });
    std::vector<entry> entries;
    for (const block& each : blocks) {
        if (each.base != entries.size())
            throw std::logic_error("trace statements of " + each.owner + " do not start where the layout has them");
        entries.insert(entries.end(), each.entries.begin(), each.entries.end());
    }
    return entries;
}

// ---- Sections --------------------------------------------------------------------------------------------------

std::string unit_section(const bundle& source, std::size_t unit, const std::vector<entry>& entries) {
    const md5_digest hash = md5(source.name + " trace unit " + std::to_string(unit));
    const std::string symbol = source.name + "_trace_unit_" + std::to_string(unit);
    std::string text = "    .section .spoor_luids_" + hex(hash) + ", \"a\", @progbits\n    .balign 4\n";
    text += "    .short 1, " + std::to_string(unit) + "\n    .globl " + symbol + "\n    .hidden " + symbol +
            "\n    .type " + symbol + ", @object\n    .size " + symbol + ", 16\n" + symbol + ":\n    .byte " +
            byte_list(hash.data(), hash.size()) + "\n";
    for (const entry& each : entries) {
        if (each.text.size() > 0xFFFF) throw std::runtime_error("a trace text is longer than its length field");
        text += "    .long " + std::to_string(each.call_id) + "; .short " + std::to_string(each.text.size()) + "\n";
    }
    return text;
}

std::string bytes(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t per_line = 32;
    std::string text;
    for (std::size_t at = 0; at < size; at += per_line)
        text += "    .byte " + byte_list(data + at, std::min(per_line, size - at)) + "\n";
    return text;
}

std::vector<std::uint8_t> compressed(std::string texts) {
    unsigned size = static_cast<unsigned>(texts.size() + texts.size() / 100 + 600);
    std::vector<std::uint8_t> stream(size);
    const int result = BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(stream.data()), &size, texts.data(),
                                                static_cast<unsigned>(texts.size()), 9, 0, 0);
    if (result != BZ_OK) throw std::runtime_error("bzip2 fails with " + std::to_string(result));
    stream.resize(size);
    return stream;
}

} // namespace

void emit_trace_store(emission& run) {
    std::string text = generated_notice(run.source, "Trace units and the texts of their statements.");
    std::string texts;
    for (std::size_t unit = 0; unit < units; ++unit) {
        const std::vector<entry> entries = entries_of_unit(run.source, static_cast<int>(unit));
        text += unit_section(run.source, unit, entries);
        for (const entry& each : entries) texts += each.text;
    }
    const std::vector<std::uint8_t> stream = compressed(std::move(texts));
    text += "    .section .spoor_format_strings, \"\", @progbits\n" + bytes(stream.data(), stream.size());
    text += "    .section .spoor_decoder, \"\", @progbits\n" + bytes(decoder_bytes, std::size(decoder_bytes));
    text += "    .section .note.GNU-stack, \"\", @progbits\n";
    run.out.add("src/trace_store.S", std::move(text));
}

} // namespace trellis::schema
