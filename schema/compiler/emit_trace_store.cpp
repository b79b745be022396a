// The trace store: one loaded section per trace unit with the lengths of its texts, and two sections that are not
// loaded, all texts in one compressed stream and the decoder's bytes. Which statements there are and in which
// order stands in trace_store.h.
#include "schema/compiler/assembler.h"
#include "schema/compiler/emit_families.h"

#include "schema/compiler/md5.h"
#include "schema/compiler/trace_store.h"

#include <bzlib.h>

#include <stdexcept>

namespace trellis::schema {

namespace {

/// Carried unchanged by every build, for the offline decoder.
constexpr std::uint8_t decoder_bytes[] = {1, 3, 4, 1, 1, 3, 4, 4, 4, 5, 4, 1, 4, 4, 4, 4, 5,
                                          4, 1, 4, 1, 2, 4, 7, 4, 1, 4, 1, 4, 1, 4, 4, 1, 4};

/// Any number will do; this one is the same for all statements of a function.
std::uint32_t call_id_of(const trace_entry& of) {
    std::uint32_t id = 0x811c9dc5u;
    for (const char* function = of.statement->function; *function != '\0'; ++function)
        id = (id ^ static_cast<unsigned char>(*function)) * 0x01000193u;
    return id;
}

/// The text as the store holds it.
std::string stored_text(const trace_entry& of) { return " " + of.text; }

void add_unit_section(template_writer& text, const bundle& source, std::size_t unit,
                      const std::vector<trace_entry>& entries) {
    const md5_digest hash = md5(source.name + " trace unit " + std::to_string(unit));
    const std::string symbol = source.name + "_trace_unit_" + std::to_string(unit);
    text.add_plain(section(".spoor_luids_" + hex(hash), "a"));
    text.add("    .balign 4\n    .short 1, $unit\n", {{"$unit", unit}});
    text.add_plain(object_label(symbol, hash.size(), true)).add_plain(byte_lines(hash));
    for (const trace_entry& each : entries) {
        const std::size_t length = stored_text(each).size();
        if (length > 0xFFFF)
            throw std::runtime_error("a trace text is longer than its length field: " + each.text);
        text.add("    .long $call; .short $length\n", {{"$call", call_id_of(each)}, {"$length", length}});
    }
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
    template_writer text = run.writer("Trace units and the texts of their statements.");
    std::string texts;
    const auto entries = trace_entries(run.source);
    for (std::size_t unit = 0; unit < entries.size(); ++unit) {
        add_unit_section(text, run.source, unit, entries[unit]);
        for (const trace_entry& each : entries[unit])
            texts += stored_text(each);
    }
    text.add_plain(section(".spoor_format_strings", "")).add_plain(byte_lines(compressed(std::move(texts))));
    text.add_plain(section(".spoor_decoder", "")).add_plain(byte_lines(decoder_bytes));
    run.out.add("src/trace_store.S", text.add_plain(end_of_assembler).take());
}

} // namespace trellis::schema
