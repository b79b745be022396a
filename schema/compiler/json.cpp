#include "schema/compiler/json.h"

#include "schema/compiler/identity.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <limits>

namespace trellis::schema {
namespace {

using json = nlohmann::ordered_json;

// ---- Writing -------------------------------------------------------------------------------------------------

json of_variants(const named& type) {
    json list = json::array();
    for (const variant_layout& v : type.variants)
        list.push_back({{"used_length", v.used_length},
                        {"layout_size", v.layout_size},
                        {"tracking_size", v.tracking_size},
                        {"alloc_slop", v.alloc_slop}});
    return list;
}

json start(const named& type) {
    json result = {{"name", type.name}};
    if (!type.doc.empty()) result["doc"] = type.doc;
    return result;
}
void finish(json& result, const named& type) {
    result["luid"] = type.luid_text;
    result["definition_hash"] = type.definition_hash;
    result["trace_unit"] = type.trace_unit;
    result["trace_base"] = type.trace_base;
    result["call_base"] = type.call_base;
    result["newest"] = type.newest;
    result["base_size"] = type.base_size;
    result["variants"] = of_variants(type);
}

json of(const attribute& a) {
    json result = {{"name", a.name}};
    if (!a.doc.empty()) result["doc"] = a.doc;
    result["form"] = name_of(a.shape);
    result["type"] = a.shape == attribute_shape::counted_string || a.shape == attribute_shape::fixed_string
                         ? "string"
                         : a.type.name;
    if (a.extent != 0) result["extent"] = a.extent;
    if (!a.length_name.empty()) result["length"] = a.length_name;
    if (!a.target_table.empty()) result["target"] = a.target_table;
    if (!a.discriminator.empty()) {
        result["discriminator"] = a.discriminator;
        result["case"] = a.case_name;
        result["case_value"] = a.case_value;
    }
    result["since"] = a.since;
    result["offset"] = a.offset;
    if (facts_of(a.shape).tracked) result["track"] = a.track;
    result["trace"] = a.trace;
    return result;
}

json of(const record& r) {
    json result = start(r);
    result["attributes"] = json::array();
    for (const attribute& a : r.attributes)
        result["attributes"].push_back(of(a));
    result["list_element"] = r.list_element;
    finish(result, r);
    return result;
}

json of(const enumeration& e) {
    json result = start(e);
    result["shared"] = e.shared;
    result["members"] = json::array();
    for (const enumeration_member& m : e.members) {
        json member = {{"name", m.name}};
        if (!m.doc.empty()) member["doc"] = m.doc;
        member["value"] = m.value;
        member["since"] = m.since;
        result["members"].push_back(std::move(member));
    }
    finish(result, e);
    return result;
}

json of(const flag_set& f) {
    json result = start(f);
    result["bits"] = json::array();
    for (const flag_member& m : f.bits) {
        json member = {{"name", m.name}};
        if (!m.doc.empty()) member["doc"] = m.doc;
        member["since"] = m.since;
        result["bits"].push_back(std::move(member));
    }
    finish(result, f);
    return result;
}

json of(const table& t) {
    json result = start(t);
    result["payload"] = t.payload->name;
    switch (t.key) {
    case key_kind::attribute: result["key"] = {{"attribute", t.key_attribute}}; break;
    case key_kind::whole_payload: result["key"] = {{"whole_payload", true}}; break;
    case key_kind::object: result["key"] = {{"record", t.key_record->name}}; break;
    }
    result["ordered"] = t.ordered;
    if (t.told_luid) result["told_luid"] = *t.told_luid;
    result["record_luid"] = t.record_luid_text;
    result["record_definition_hash"] = t.record_definition_hash;
    finish(result, t);
    return result;
}

json of(const message& m) {
    json result = start(m);
    if (m.payload != nullptr) result["payload"] = m.payload->name;
    finish(result, m);
    return result;
}

json of(const import& i) {
    json result = {{"bundle", i.bundle_name}, {"enumerations", json::array()}, {"tables", json::array()}};
    for (const auto& e : i.enumerations)
        result["enumerations"].push_back(e->name);
    for (const foreign_table& t : i.tables)
        result["tables"].push_back({{"name", t.name}, {"luid", t.luid_text}});
    return result;
}

template <class List>
json of_all(const List& list) {
    json result = json::array();
    for (const auto& item : list)
        result.push_back(of(*item));
    return result;
}

// ---- Reading -------------------------------------------------------------------------------------------------

class json_reader {
  public:
    json_reader(const std::string& name, diagnostics& out) : where_{name, 1, 1}, out_(out) { file_.name = name; }

    syntax::file read(std::string_view text) {
        const json root = parsed(text);
        if (!root.is_object()) {
            if (file_.is_text) wrong("this is no JSON object");
            file_.is_text = false;
            return std::move(file_);
        }
        if (const json* name = required(root, "bundle", "the file")) {
            file_.bundle = word(*name, "bundle");
            file_.doc = text_in(root, "doc");
        }
        each(root, "imports", [&](const json& i) { import(i); });
        each(root, "registry", [&](const json& t) { file_.registry.push_back(word(t, "registry")); });
        each(root, "records", [&](const json& r) { record(r); });
        each(root, "enumerations", [&](const json& e) { enumeration(e); });
        each(root, "flag_sets", [&](const json& f) { flag_set(f); });
        each(root, "tables", [&](const json& t) { table(t); });
        each(root, "messages", [&](const json& m) { message(m); });
        return std::move(file_);
    }

  private:
    /// Null after a mistake, which is told with its place.
    json parsed(std::string_view text) {
        try {
            return json::parse(text);
        } catch (const json::parse_error& error) {
            return refused(text, error.byte == 0 ? 0 : error.byte - 1, "this is no JSON");
        } catch (const json::out_of_range& error) { // names the number, not its place
            const std::string_view said = error.what();
            const std::size_t begin = said.find('\'') + 1;
            const std::string_view number = said.substr(begin, said.rfind('\'') - begin);
            return refused(text, std::min(text.find(number), text.size()), "the number is too large");
        }
    }
    json refused(std::string_view text, std::size_t offset, std::string what) {
        const std::string_view before = text.substr(0, offset);
        location where = where_;
        where.line += static_cast<int>(std::count(before.begin(), before.end(), '\n'));
        where.column = static_cast<int>(before.size() - (before.rfind('\n') + 1)) + 1;
        out_.add(where, std::move(what), "write the file with trellisc json");
        file_.is_text = false;
        return nullptr;
    }

    void wrong(std::string what) { out_.add(where_, std::move(what), "write the file with trellisc json"); }

    const json* required(const json& in, const char* key, const std::string& of) {
        if (const auto found = in.find(key); in.is_object() && found != in.end()) return &*found;
        wrong(of + " has no \"" + key + "\"");
        return nullptr;
    }
    syntax::word word(const json& value, const std::string& what) {
        if (!value.is_string()) wrong("\"" + what + "\" is no text");
        return {value.is_string() ? value.get<std::string>() : "", where_};
    }
    syntax::word word_in(const json& in, const char* key, const std::string& of) {
        const json* value = required(in, key, of);
        return value == nullptr ? syntax::word{"", where_} : word(*value, key);
    }
    static bool holds(const json& in, const char* key) { return in.is_object() && in.contains(key); }
    std::string text_in(const json& in, const char* key) { return holds(in, key) ? word(in[key], key).text : ""; }
    bool flag_in(const json& in, const char* key) {
        return holds(in, key) && in[key].is_boolean() && in[key].get<bool>();
    }
    std::int64_t number_in(const json& in, const char* key, std::int64_t least, std::int64_t most) {
        if (!holds(in, key)) return least > 0 ? least : 0;
        const json& value = in[key];
        const bool fits =
            value.is_number_integer() && value.get<std::int64_t>() >= least && value.get<std::int64_t>() <= most &&
            !(value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(most));
        if (fits) return value.get<std::int64_t>();
        wrong(std::string("\"") + key + "\" is no number from " + std::to_string(least) + " to " +
              std::to_string(most));
        return least > 0 ? least : 0;
    }
    template <class Body>
    void each(const json& in, const char* key, Body body) {
        if (!holds(in, key)) return;
        if (!in[key].is_array()) return wrong(std::string("\"") + key + "\" is no list");
        for (const json& item : in[key])
            body(item);
    }

    void import(const json& from) {
        syntax::import result;
        result.bundle = word_in(from, "bundle", "an import");
        each(from, "enumerations", [&](const json& e) { result.enumerations.push_back(word(e, "enumerations")); });
        each(from, "tables", [&](const json& t) {
            result.tables.push_back(
                {word_in(t, "name", "an imported table"), word_in(t, "luid", "an imported table")});
        });
        file_.imports.push_back(std::move(result));
    }

    int since_in(const json& from) { return static_cast<int>(number_in(from, "since", 0, 126)); }

    void record(const json& from) {
        syntax::record result;
        result.name = word_in(from, "name", "a record");
        result.doc = text_in(from, "doc");
        if (holds(from, "trace_unit")) result.unit = unit_in(from);
        each(from, "attributes", [&](const json& a) { result.attributes.push_back(attribute(a)); });
        file_.records.push_back(std::move(result));
    }
    int unit_in(const json& from) {
        const auto unit = static_cast<int>(number_in(from, "trace_unit", 0, 5));
        if (unit <= 1 || unit == 5) return unit;
        wrong("trace unit " + std::to_string(unit) + " holds no records");
        return 1;
    }
    syntax::attribute attribute(const json& from) {
        syntax::attribute result;
        result.name = word_in(from, "name", "an attribute");
        result.doc = text_in(from, "doc");
        result.since = since_in(from);
        result.type.name = word_in(from, "type", "an attribute");
        attribute_shape shape = attribute_shape::plain;
        shape_named(text_in(from, "form").c_str(), &shape);
        fill_type(from, shape, result.type);
        if (shape == attribute_shape::arm) {
            result.discriminator = word_in(from, "discriminator", "an arm");
            result.selected_by = word_in(from, "case", "an arm");
        }
        return result;
    }

    void fill_type(const json& from, attribute_shape shape, syntax::type& into) {
        const auto extent = [&] { return static_cast<std::uint32_t>(number_in(from, "extent", 1, 65535)); };
        const auto length = [&] { return word_in(from, "length", "an array"); };
        switch (shape) {
        case attribute_shape::fixed_array: into.is = syntax::type_kind::array, into.extent = extent(); break;
        case attribute_shape::variable_array: into.is = syntax::type_kind::array, into.length = length(); break;
        case attribute_shape::fixed_string: into.is = syntax::type_kind::text, into.extent = extent(); break;
        case attribute_shape::counted_string: into.is = syntax::type_kind::text, into.length = length(); break;
        case attribute_shape::list: into.is = syntax::type_kind::list; break;
        case attribute_shape::oid:
            into.is = syntax::type_kind::oid;
            into.name = word_in(from, "target", "an oid");
            break;
        case attribute_shape::plain:
        case attribute_shape::object:
        case attribute_shape::length:
        case attribute_shape::arm: break; // the type's name says all
        }
    }

    syntax::member member(const json& from) {
        constexpr std::int64_t least = std::numeric_limits<std::int32_t>::min();
        constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
        syntax::member result;
        result.name = word_in(from, "name", "a member");
        result.doc = text_in(from, "doc");
        result.value = static_cast<std::int32_t>(number_in(from, "value", least, most));
        result.since = since_in(from);
        return result;
    }
    void enumeration(const json& from) {
        syntax::enumeration result;
        result.name = word_in(from, "name", "an enumeration");
        result.doc = text_in(from, "doc");
        result.shared = flag_in(from, "shared");
        each(from, "members", [&](const json& m) { result.members.push_back(member(m)); });
        file_.enumerations.push_back(std::move(result));
    }
    void flag_set(const json& from) {
        syntax::flag_set result;
        result.name = word_in(from, "name", "a flag set");
        result.doc = text_in(from, "doc");
        each(from, "bits", [&](const json& m) { result.bits.push_back(member(m)); });
        file_.flag_sets.push_back(std::move(result));
    }

    void table(const json& from) {
        syntax::table result;
        result.name = word_in(from, "name", "a table");
        result.doc = text_in(from, "doc");
        result.payload = word_in(from, "payload", "a table");
        if (const json* key = required(from, "key", "a table")) {
            if (holds(*key, "record")) {
                result.key = key_kind::object;
                result.key_name = word_in(*key, "record", "a key");
            } else if (flag_in(*key, "whole_payload")) {
                result.key = key_kind::whole_payload;
                result.key_name = {"itself", where_};
            } else
                result.key_name = word_in(*key, "attribute", "a key");
        }
        result.ordered = flag_in(from, "ordered");
        if (holds(from, "told_luid")) result.luid = word_in(from, "told_luid", "a table");
        file_.tables.push_back(std::move(result));
    }
    void message(const json& from) {
        syntax::message result;
        result.name = word_in(from, "name", "a message");
        result.doc = text_in(from, "doc");
        if (holds(from, "payload")) result.payload = word_in(from, "payload", "a message");
        file_.messages.push_back(std::move(result));
    }

    location where_;
    diagnostics& out_;
    syntax::file file_;
};

} // namespace

std::string json_text(const bundle& b) {
    json root = {{"bundle", b.name}};
    if (!b.doc.empty()) root["doc"] = b.doc;
    root["imports"] = of_all(b.imports);
    root["registry"] = b.registry;
    root["records"] = of_all(b.records);
    root["enumerations"] = of_all(b.enumerations);
    root["flag_sets"] = of_all(b.flag_sets);
    root["tables"] = of_all(b.tables);
    root["messages"] = of_all(b.messages);
    // Doc comments may hold bytes that are no UTF-8.
    return root.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

syntax::file read_json(const std::string& name, std::string_view text, diagnostics& out) {
    return json_reader(name, out).read(text);
}

} // namespace trellis::schema
