#include "schema/compiler/trace_store.h"

#include "schema/compiler/layout.h"

#include <span>
#include <type_traits>

namespace trellis::schema {
namespace {

using substitutions = std::vector<std::pair<std::string, std::string>>;

std::string substituted(std::string text, const substitutions& with) {
    for (const auto& [placeholder, value] : with)
        for (std::size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos; at += value.size())
            text.replace(at, placeholder.size(), value);
    return text;
}

/// How a table's messages name its key: payload and attribute, or the key record and nothing.
std::string key_text(const table& t) {
    if (t.key == key_kind::attribute) return t.payload->name + " " + t.key_attribute;
    return t.key_record->name + " ";
}

/// Meets every statement in order and counts; Bundle is const when only texts are wanted.
template <class Bundle, class Visitor>
class walk {
  public:
    walk(Bundle& b, Visitor visit) : b_(b), visit_(visit) {}

    void run() {
        for (auto& r : b_.records)
            record_statements(*r);
        for (auto& e : b_.enumerations)
            type_statements(*e, diag::enumeration_statements);
        for (auto& f : b_.flag_sets)
            type_statements(*f, diag::flag_set_statements);
        all(2, diag::frame_statements, {});
        for (auto& m : b_.messages)
            message_statements(*m);
        all(4, diag::registry_statements, {});
        for (auto& t : b_.tables)
            table_statements(*t);
    }

  private:
    using type = std::conditional_t<std::is_const_v<Bundle>, const named, named>;

    void meet(int unit, const diag::statement& s, const substitutions& with) {
        for (int copy = 0; copy < s.copies; ++copy)
            visit_(unit, s, with);
        next_[static_cast<std::size_t>(unit)] += s.copies;
    }
    void all(int unit, std::span<const diag::statement> list, substitutions with) {
        with.emplace_back("<bundle>", b_.name);
        for (const diag::statement& s : list)
            meet(unit, s, with);
    }
    void start(type& t) {
        if constexpr (!std::is_const_v<Bundle>) t.trace_base = next_[static_cast<std::size_t>(t.trace_unit)];
    }
    void type_statements(type& t, std::span<const diag::statement> list) {
        start(t);
        all(t.trace_unit, list, {{"<type>", t.name}});
    }

    template <class Record>
    void record_statements(Record& r) {
        start(r);
        for (const diag::statement& s : diag::record_statements)
            if (s.kinds == diag::kinds::of_type) meet(r.trace_unit, s, {{"<type>", r.name}});
        for (auto& a : r.attributes) {
            const diag::trace_kind kind = trace_kind_of(r, a);
            if constexpr (!std::is_const_v<Bundle>) {
                a.trace_kind = kind;
                a.trace = next_[static_cast<std::size_t>(r.trace_unit)];
            }
            for (const diag::statement& s : diag::record_statements)
                if ((s.kinds & diag::only(kind)) != 0)
                    meet(r.trace_unit, s, {{"<type>", r.name}, {"<attribute>", a.name}});
        }
    }

    template <class Message>
    void message_statements(Message& m) {
        start(m);
        const substitutions with = {{"<bundle>", b_.name},
                                    {"<message>", m.name},
                                    {"<name>", m.name + "_action"},
                                    {"<p>", m.payload == nullptr ? "" : m.payload->name}};
        for (const diag::statement& s : diag::message_statements)
            if (m.payload != nullptr || s.kinds != diag::kind_set(diag::message_trait::with_payload))
                meet(m.trace_unit, s, with);
    }

    template <class Table>
    void table_statements(Table& t) {
        start(t);
        const substitutions with = {{"<bundle>", b_.name},
                                    {"<keytext>", key_text(t)},
                                    {"<table>", t.name},
                                    {"<payload>", t.payload->name},
                                    {"<key>", t.key_record == nullptr ? "" : t.key_record->name}};
        for (const diag::statement& s : diag::table_statements) {
            if (s.kinds == diag::kind_set(diag::table_trait::key_object) && t.key != key_kind::object) continue;
            if (s.kinds == diag::kind_set(diag::table_trait::ordered) && !t.ordered) continue;
            meet(t.trace_unit, s, with);
        }
    }

    Bundle& b_;
    Visitor visit_;
    std::array<std::uint32_t, trace_units> next_{};
};

} // namespace

void number_trace_statements(bundle& b) {
    walk(b, [](int, const diag::statement&, const substitutions&) {}).run();
}

std::array<std::vector<trace_entry>, trace_units> trace_entries(const bundle& b) {
    std::array<std::vector<trace_entry>, trace_units> result;
    walk(b, [&](int unit, const diag::statement& s, const substitutions& with) {
        result[static_cast<std::size_t>(unit)].push_back({&s, substituted(s.text, with)});
    }).run();
    return result;
}

} // namespace trellis::schema
