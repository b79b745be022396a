#include "schema_model.h"

#include "bundles.h"
#include "failure.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

namespace fs = std::filesystem;

namespace tool {
namespace {

using json = nlohmann::json;

trellis::attribute_shape shape_of(const std::string& name) {
    trellis::attribute_shape shape{};
    if (!trellis::shape_named(name.c_str(), &shape))
        throw std::runtime_error("there is no form of attributes '" + name + "'");
    return shape;
}

schema_model::attribute read_attribute(const json& from) {
    schema_model::attribute result;
    result.name = from.at("name");
    result.shape = shape_of(from.at("form"));
    result.type = from.value("type", "");
    result.extent = from.value("extent", 0u);
    result.length_name = from.value("length", "");
    result.discriminator = from.value("discriminator", "");
    result.case_name = from.value("case", "");
    result.since = from.value("since", 0);
    return result;
}

/// The model that was built with the bundle: beside its library, or among the shared data of an installation.
fs::path model_of(const std::string& module) {
    const fs::path directory = fs::path(bundles::library_path(module)).parent_path();
    for (const char* relative : {".", "../share/trellis", "../../share/trellis"}) {
        fs::path path = directory / relative / (module + ".json");
        if (fs::is_regular_file(path)) return path;
    }
    throw failure("there is no schema model " + module + ".json beside the bundle in " + directory.string(),
                  "make one with 'trellisc json', and name it with --schema");
}

} // namespace

schema_model schema_model::load(const std::optional<std::string>& file, const std::string& module) {
    const fs::path path = file ? fs::path(*file) : model_of(module);
    std::ifstream stream(path);
    if (!stream) throw failure(path.string() + ": cannot be read", "make the file with 'trellisc json'");
    schema_model model;
    try {
        const json root = json::parse(stream);
        for (const json& each : root.at("records"))
            for (const json& attribute : each.at("attributes"))
                model.records_[each.at("name")].attributes.push_back(read_attribute(attribute));
    } catch (const std::exception& error) {
        throw failure(path.string() + ": is no schema model: " + error.what(),
                      "make the file with 'trellisc json'");
    }
    return model;
}

const schema_model::record* schema_model::find_record(const std::string& name) const {
    const auto found = records_.find(name);
    return found == records_.end() ? nullptr : &found->second;
}

} // namespace tool
