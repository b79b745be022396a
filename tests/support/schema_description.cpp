// Reads the schema compiler's JSON into the walker's description.
#include "tests/support/model_walker.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <stdexcept>

namespace trellis::testing {

namespace {

using nlohmann::json;

attribute_shape shape_of(const std::string& name) {
    attribute_shape shape{};
    if (!shape_named(name.c_str(), &shape)) throw std::runtime_error("unknown form of attribute " + name);
    return shape;
}

attribute_description attribute_of(const json& from) {
    attribute_description a;
    a.name = from.at("name");
    a.shape = shape_of(from.at("form"));
    const bool is_text = a.shape == attribute_shape::counted_string || a.shape == attribute_shape::fixed_string;
    a.type = is_text ? "char" : from.at("type").get<std::string>();
    a.offset = from.at("offset");
    a.track = from.value("track", 0u);
    a.since = from.at("since");
    a.extent = from.value("extent", 0u);
    a.length = from.value("length", "");
    a.discriminator = from.value("discriminator", "");
    a.target = from.value("target", "");
    a.case_value = from.value("case_value", 0);
    return a;
}

record_description record_of(const json& from) {
    record_description record;
    record.name = from.at("name");
    record.newest = from.at("newest");
    record.base_size = from.at("base_size");
    for (const json& variant : from.at("variants")) {
        record.layout_sizes.push_back(variant.at("layout_size"));
        record.tracking_sizes.push_back(variant.at("tracking_size"));
    }
    for (const json& a : from.at("attributes"))
        record.attributes.push_back(attribute_of(a));
    return record;
}

} // namespace

schema_description schema_description::read(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read " + path);
    const json root = json::parse(in);
    schema_description schema;
    schema.bundle = root.at("bundle");
    for (const json& from : root.at("records")) {
        record_description record = record_of(from);
        schema.records.emplace(record.name, std::move(record));
    }
    for (const json& from : root.at("enumerations")) {
        enumeration_description type;
        type.name = from.at("name");
        type.newest = from.at("newest");
        for (const json& member : from.at("members"))
            type.members.push_back({member.at("name"), member.at("value"), member.at("since")});
        schema.enumerations.emplace(type.name, type);
    }
    for (const json& from : root.at("flag_sets")) {
        flag_set_description type;
        type.name = from.at("name");
        type.newest = from.at("newest");
        type.size = from.at("base_size");
        for (const json& bit : from.at("bits"))
            type.bits.push_back({bit.at("name"), bit.at("since")});
        schema.flag_sets.emplace(type.name, type);
    }
    for (const json& from : root.at("tables"))
        schema.tables.push_back(
            {from.at("name"), from.at("payload"), from.at("key").value("record", ""), from.at("ordered")});
    for (const json& from : root.at("messages"))
        schema.messages[from.at("name")] = from.value("payload", "");
    return schema;
}

} // namespace trellis::testing
