// Names follow from the operations; here the placeholders of a name are filled in.
#include "schema/compiler/table_names.h"

#include "schema/compiler/table_operations.h"

#include <string_view>
#include <utility>

namespace trellis::schema {

namespace {

using replacements = std::vector<std::pair<std::string_view, std::string>>;

std::string filled_in(std::string text, const replacements& with) {
    for (const auto& [placeholder, value] : with)
        for (std::size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos; at += value.size())
            text.replace(at, placeholder.size(), value);
    return text;
}

/// The type name behind the table's in the key path.
const std::string& key_holder(const table& type) {
    return type.key == key_form::object ? type.key_record->name : type.payload->name;
}

} // namespace

std::string key_path(const table& type) {
    return type.name + "_" + key_holder(type) + "_" +
           (type.key == key_form::attribute ? type.key_attribute : std::string());
}

std::vector<std::string> table_function_names(const table& type) {
    std::string joined_path = key_path(type);
    if (joined_path.back() == '_') joined_path.pop_back();
    const replacements with = {{"$table", type.name},
                               {"$path", key_path(type)},
                               {"$crpath", joined_path},
                               {"$payload", type.payload->name},
                               {"$keytype", key_holder(type)}};
    std::vector<std::string> names;
    for (const table_operation& operation : table_operations())
        if (has_operation(type, operation)) names.push_back(filled_in(operation.name, with));
    return names;
}

std::vector<std::string> message_function_names(const message& type) {
    const replacements with = {{"$message", type.name},
                               {"$payload", type.payload == nullptr ? std::string() : type.payload->name}};
    std::vector<std::string> names;
    for (const message_operation& operation : message_operations())
        if (has_operation(type, operation)) names.push_back(filled_in(operation.name, with));
    return names;
}

} // namespace trellis::schema
