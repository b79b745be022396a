#include "schema/compiler/identity.h"

#include "schema/compiler/md5.h"

namespace trellis::schema {
namespace {

std::string line_of(const attribute& a) {
    std::string line = a.name + ": " + written_type(a) + " since " + std::to_string(a.since);
    if (a.shape == attribute_shape::arm) line += " in case " + a.case_name + " of " + a.discriminator;
    return line + "\n";
}
std::string line_of(const enumeration_member& m) {
    return m.name + " = " + std::to_string(m.value) + " since " + std::to_string(m.since) + "\n";
}
std::string line_of(const flag_member& m) { return m.name + " since " + std::to_string(m.since) + "\n"; }

template <class Parts>
std::string lines_of(const Parts& parts, int up_to) {
    std::string text;
    for (const auto& part : parts)
        if (part.since <= up_to) text += line_of(part);
    return text;
}

std::string text_of(const table& t) {
    std::string text = "of " + (t.payload == nullptr ? "" : t.payload->name);
    switch (t.key) {
    case key_kind::attribute: text += " keyed by " + t.key_attribute; break;
    case key_kind::whole_payload: text += " keyed by itself"; break;
    case key_kind::object:
        text += " keyed by record " + (t.key_record == nullptr ? "" : t.key_record->name);
        break;
    }
    return text + (t.ordered ? " ordered\n" : "\n");
}

void settle(named& type, const std::string& heading, const std::string& lasting, const std::string& whole) {
    type.definition = heading + whole;
    type.definition_hash = hex(md5(type.definition));
    type.luid = md5("luid\n" + heading + lasting);
    type.luid_text = hex(type.luid);
}

std::array<std::uint8_t, 16> bytes_of(const std::string& digits) {
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
    return bytes;
}

} // namespace

std::string written_type(const attribute& a) {
    switch (a.shape) {
    case attribute_shape::fixed_array: return a.type.name + "[" + std::to_string(a.extent) + "]";
    case attribute_shape::variable_array: return a.type.name + "[" + a.length_name + "]";
    case attribute_shape::counted_string: return "string[" + a.length_name + "]";
    case attribute_shape::fixed_string: return "string[" + std::to_string(a.extent) + "]";
    case attribute_shape::oid: return "oid -> " + a.target_table;
    case attribute_shape::list: return "list of " + a.type.name;
    case attribute_shape::plain:
    case attribute_shape::object:
    case attribute_shape::length:
    case attribute_shape::arm: return a.type.name;
    }
    __builtin_unreachable();
}

void identify_types(bundle& b) {
    const auto heading = [&](const char* kind, const std::string& name) {
        return "bundle " + b.name + "\n" + kind + " " + name + "\n";
    };
    constexpr int all = 127;
    for (auto& r : b.records)
        settle(*r, heading("type", r->name), lines_of(r->attributes, 0), lines_of(r->attributes, all));
    for (auto& e : b.enumerations)
        settle(*e, heading("enum", e->name), lines_of(e->members, 0), lines_of(e->members, all));
    for (auto& f : b.flag_sets)
        settle(*f, heading("flag", f->name), lines_of(f->bits, 0), lines_of(f->bits, all));
    for (auto& t : b.tables) {
        named row;
        settle(row, heading("table_record", t->name + "_record"), text_of(*t), text_of(*t));
        t->record_luid = row.luid;
        t->record_luid_text = row.luid_text;
        t->record_definition = row.definition;
        t->record_definition_hash = row.definition_hash;
        settle(*t, heading("table", t->name), text_of(*t), text_of(*t));
        if (!t->told_luid) continue;
        t->luid = bytes_of(*t->told_luid);
        t->luid_text = *t->told_luid;
    }
    for (auto& m : b.messages) {
        const std::string text = m->payload == nullptr ? "empty\n" : "carries " + m->payload->name + "\n";
        settle(*m, heading("message", m->name), text, text);
    }
}

} // namespace trellis::schema
