#include "schema/compiler/report.h"

#include "schema/compiler/identity.h"
#include "schema/compiler/names.h"
#include "schema/compiler/trace_store.h"

#include <algorithm>

namespace trellis::schema {
namespace {

std::string count(std::size_t n, const std::string& one, const std::string& many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string padded(std::string text, std::size_t width, bool right = false) {
    const std::size_t missing = width > text.size() ? width - text.size() : 0;
    return right ? std::string(missing, ' ') + text : text + std::string(missing, ' ');
}
std::string number(std::uint32_t value) { return padded(std::to_string(value), 7, true); }

std::string variant_lines(const named& type) {
    std::string text;
    for (std::size_t v = 0; v < type.variants.size(); ++v) {
        const variant_layout& l = type.variants[v];
        text += "  variant " + std::to_string(v) + ": used " + std::to_string(l.used_length) + ", size " +
                std::to_string(l.layout_size) + ", slop " + std::to_string(l.alloc_slop);
        if (l.tracking_size != 0) text += ", tracking " + std::to_string(l.tracking_size);
        text += "\n";
    }
    return text;
}

std::string text_of(const record& r) {
    std::string text = "record " + r.name + ", base size " + std::to_string(r.base_size) + "\n" + variant_lines(r);
    std::size_t widest = 0;
    for (const attribute& a : r.attributes)
        widest = std::max(widest, a.name.size());
    text += "   offset  tracks  since  attribute\n";
    for (const attribute& a : r.attributes) {
        const std::string track = facts_of(a.shape).tracked ? number(a.track) : padded("-", 7, true);
        text += "  " + number(a.offset) + " " + track + "  " + padded(std::to_string(a.since), 5, true) + "  " +
                padded(a.name, widest) + "  " + written_type(a);
        if (a.shape == attribute_shape::arm) text += " in case " + a.case_name + " of " + a.discriminator;
        text += "\n";
    }
    return text + "\n";
}

} // namespace

std::string summary(const bundle& b) {
    std::size_t statements = 0;
    for (const auto& unit : trace_entries(b))
        statements += unit.size();
    return "bundle " + b.name + ": " + count(b.records.size(), "record", "records") + ", " +
           count(b.enumerations.size(), "enum", "enums") + ", " +
           count(b.flag_sets.size(), "flag set", "flag sets") + ", " + count(b.tables.size(), "table", "tables") +
           ", " + count(b.messages.size(), "message", "messages") + "; " +
           count(exported_functions(b).size(), "function", "functions") + ", " +
           count(statements, "trace statement", "trace statements") + "\n";
}

std::string layout_text(const bundle& b) {
    std::string text;
    for (const auto& r : b.records)
        text += text_of(*r);
    for (const auto& e : b.enumerations)
        text +=
            "enum " + e->name + ", base size " + std::to_string(e->base_size) + "\n" + variant_lines(*e) + "\n";
    for (const auto& f : b.flag_sets)
        text += "flags " + f->name + ", base size " + std::to_string(f->base_size) + ", " +
                std::to_string(f->bit_bytes()) + " bytes of bits\n" + variant_lines(*f) + "\n";
    return text;
}

} // namespace trellis::schema
