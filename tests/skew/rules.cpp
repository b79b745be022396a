#include "tests/skew/rules.h"

#include <algorithm>

namespace trellis::testing {

namespace {

using nlohmann::json;

template <class T>
const T* found(const std::map<std::string, T>& all, const std::string& name) {
    const auto at = all.find(name);
    return at == all.end() ? nullptr : &at->second;
}

/// The value that a place on the wire stands for. Places beyond the members stand for themselves.
int32_t user_value(const enumeration_description& type, uint32_t place) {
    return place < type.members.size() ? type.members[place].value : static_cast<int32_t>(place);
}
uint32_t place_of(const enumeration_description& type, int32_t value) {
    for (uint32_t place = 0; place < type.members.size(); ++place)
        if (type.members[place].value == value) return place;
    return static_cast<uint32_t>(value);
}

/// Whether the discriminator selects the arm, in a view of the record's attributes.
bool is_selected(const schema_description& schema, const record_description& record,
                 const attribute_description& arm, const json& attributes) {
    const enumeration_description& type = schema.enumerations.at(record.attribute(arm.discriminator).type);
    return user_value(type, attributes.at(arm.discriminator).at("value").at("place")) == arm.case_value;
}

bool is_counted(const attribute_description& a) {
    return a.shape == attribute_shape::variable_array || a.shape == attribute_shape::counted_string;
}
bool holds_values(const attribute_description& a) {
    return a.shape != attribute_shape::counted_string && a.shape != attribute_shape::fixed_string &&
           a.shape != attribute_shape::oid;
}
/// The attributes that travel; counts go with their arrays.
template <class Body>
void each_within(const record_description& record, int variant, Body&& body) {
    for (const attribute_description& a : record.attributes)
        if (a.shape != attribute_shape::length && variant >= 0 && a.since <= variant) body(a);
}

/// A value, or each of several.
template <class Change>
json each_value(const json& values, Change&& change) {
    if (values.is_null()) return nullptr;
    if (!values.is_array()) return change(values);
    json changed = json::array();
    for (const json& value : values)
        changed.push_back(change(value));
    return changed;
}

} // namespace

int newest_variant(const schema_description& schema, const std::string& type) {
    if (const auto* record = found(schema.records, type)) return record->newest;
    if (const auto* enumeration = found(schema.enumerations, type)) return enumeration->newest;
    if (const auto* flags = found(schema.flag_sets, type)) return flags->newest;
    return -1;
}

// ---- Writing
// -----------------------------------------------------------------------------------------------------

json written_form(const schema_description& schema, const std::string& type, const json& view,
                  const schema_description* peer, bool* cut_down) {
    if (!view.is_object()) return view;
    json out = view;
    int variant = view.at("variant");
    if (peer != nullptr && variant > newest_variant(*peer, type)) {
        variant = newest_variant(*peer, type);
        *cut_down = true;
    }
    out["variant"] = variant;
    if (const auto* flags = found(schema.flag_sets, type))
        out["bits"] = view.at("bits").get<std::string>().substr(0, 2 * flags->bytes_within(variant));
    const auto* record = found(schema.records, type);
    if (record == nullptr) return out;

    out["attributes"] = json::object();
    each_within(*record, variant, [&](const attribute_description& a) {
        json sent = view.at("attributes").at(a.name);
        if (a.shape == attribute_shape::arm && !is_selected(schema, *record, a, view.at("attributes")))
            sent["value"] = nullptr;
        else if (holds_values(a))
            sent["value"] = each_value(sent["value"], [&](const json& value) {
                return written_form(schema, a.type, value, peer, cut_down);
            });
        out["attributes"][a.name] = sent;
    });
    return out;
}

// ---- Reading
// -----------------------------------------------------------------------------------------------------

namespace {

json received_flags(const flag_set_description& type, const json& before, const json& written, int variant) {
    // Whole bytes travel: the last may hold bits that the reader has no names for.
    const std::string arrived = written.at("bits").get<std::string>().substr(0, 2 * type.bytes_within(variant));
    std::string bits = before.at("bits");
    bits.replace(0, arrived.size(), arrived);
    return {{"variant", variant}, {"bits", bits}};
}

/// Whether a list keeps its elements and each takes a written one. Otherwise new ones are added at the end, of an
/// empty list when the object is in use.
bool keeps_elements(const reading& how, const json& before, const json& written) {
    return how.existing && before.size() == written.size();
}

json received_values(const reading& how, const attribute_description& a, const json& before, const json& written) {
    const auto into = [&](const json& old, const json& value) { return received_form(how, a.type, old, value); };
    if (a.shape == attribute_shape::plain || a.shape == attribute_shape::object) return into(before, written);
    if (a.shape == attribute_shape::arm) return into(before.is_null() ? how.blank(a.type) : before, written);

    const bool in_place = a.shape == attribute_shape::fixed_array ||
                          (a.shape == attribute_shape::list && keeps_elements(how, before, written));
    json values = a.shape == attribute_shape::list && !how.existing ? before : json::array();
    for (size_t i = 0; i < written.size(); ++i)
        values.push_back(into(in_place ? before.at(i) : how.blank(a.type), written.at(i)));
    return values;
}

void receive_states(const reading& how, const attribute_description& a, json& now, const json& written) {
    if (!how.keeps_states) return;
    if (how.states_arrive) {
        now["state"] = written.at("state");
        if (now.contains("elements")) now["elements"] = written.at("elements");
    } else if (a.shape == attribute_shape::variable_array) {
        std::vector<int> flags = now.at("elements");
        flags.resize(written.at("value").size());
        now["elements"] = flags;
    } else if (a.shape == attribute_shape::list && !written.at("value").empty() &&
               !keeps_elements(how, now.at("value"), written.at("value"))) {
        now["state"] = 2; // adding an element is a change like any other
    }
}

} // namespace

json received_form(const reading& how, const std::string& type, const json& before, const json& written) {
    if (!written.is_object()) return written;
    const int variant = std::min(written.at("variant").get<int>(), newest_variant(how.schema, type));
    if (const auto* enumeration = found(how.schema.enumerations, type)) {
        const int32_t value = user_value(*enumeration, written.at("place"));
        return {{"variant", variant}, {"place", place_of(*enumeration, value)}};
    }
    if (const auto* flags = found(how.schema.flag_sets, type))
        return received_flags(*flags, before, written, variant);

    const record_description& record = how.schema.records.at(type);
    json now = before;
    now["variant"] = variant;
    each_within(record, variant, [&](const attribute_description& a) {
        json& held = now["attributes"].at(a.name);
        const json& arrived = written.at("attributes").at(a.name);
        const json& value = arrived.at("value");
        if (is_counted(a) && (value.empty() || value == "")) {
            // Nothing stands behind a count of zero.
            held["value"] = value;
            if (held.contains("elements")) held["elements"] = json::array();
            return;
        }
        receive_states(how, a, held, arrived);
        if (a.shape == attribute_shape::oid) return;
        if (a.shape == attribute_shape::arm && !is_selected(how.schema, record, a, now.at("attributes"))) return;
        held["value"] = holds_values(a) ? received_values(how, a, held.at("value"), value) : value;
    });
    return now;
}

// ---- XML
// ---------------------------------------------------------------------------------------------------------

namespace {

json shared_member(const enumeration_description& type, const enumeration_description& other, const json& view) {
    const uint32_t place = view.at("place");
    if (place >= type.members.size() || place >= other.members.size()) return nullptr;
    return type.members[place].name;
}

json shared_bits(const flag_set_description& type, const flag_set_description& other, const json& view) {
    const std::string digits = view.at("bits");
    json bits = json::array();
    for (size_t bit = 0; bit < std::min(type.bits.size(), other.bits.size()); ++bit)
        if ((std::stoi(digits.substr(bit / 8 * 2, 2), nullptr, 16) >> (bit % 8) & 1) != 0)
            bits.push_back(type.bits[bit].name);
    return bits;
}

} // namespace

json shared_form(const schema_description& schema, const schema_description& other, const std::string& type,
                 const json& view) {
    if (!view.is_object()) return view;
    if (const auto* enumeration = found(schema.enumerations, type))
        return shared_member(*enumeration, other.enumerations.at(type), view);
    if (const auto* flags = found(schema.flag_sets, type))
        return shared_bits(*flags, other.flag_sets.at(type), view);

    const record_description& record = schema.records.at(type);
    const int common = std::min(record.newest, newest_variant(other, type));
    json shared = json::object();
    each_within(record, common, [&](const attribute_description& a) {
        const json& attributes = view.at("attributes");
        if (a.shape == attribute_shape::oid) return;
        if (a.shape == attribute_shape::arm && !is_selected(schema, record, a, attributes)) return;
        const json& value = attributes.at(a.name).at("value");
        shared[a.name] = !holds_values(a) ? value : each_value(value, [&](const json& each) {
            return shared_form(schema, other, a.type, each);
        });
    });
    return shared;
}

bool holds_shared(const json& writers, const json& readers) {
    if (writers.is_null()) return true;
    if (writers.type() != readers.type() || writers.is_object() != readers.is_object()) return false;
    if (writers.is_object())
        return std::all_of(writers.items().begin(), writers.items().end(), [&](const auto& item) {
            return readers.contains(item.key()) && holds_shared(item.value(), readers.at(item.key()));
        });
    if (!writers.is_array()) return writers == readers;
    if (writers.size() != readers.size()) return false;
    for (size_t i = 0; i < writers.size(); ++i)
        if (!holds_shared(writers[i], readers[i])) return false;
    return true;
}

} // namespace trellis::testing
