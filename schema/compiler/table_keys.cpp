#include "schema/compiler/table_keys.h"

#include "schema/compiler/c_names.h"

#include <algorithm>

namespace trellis::schema {

std::string name_of(const record* type) { return type == nullptr ? std::string() : type->name; }

const record* key_holder(const table& type) {
    return type.key == key_kind::object ? type.key_record : type.payload;
}

const attribute* key_attribute(const table& type) {
    if (type.key != key_kind::attribute || type.payload == nullptr) return nullptr;
    const auto& all = type.payload->attributes;
    const auto found = std::ranges::find(all, type.key_attribute, &attribute::name);
    return found == all.end() ? nullptr : &*found;
}

std::string key_value(const table& type) {
    if (type.key != key_kind::attribute) return "struct " + name_of(key_holder(type));
    const attribute* key = key_attribute(type);
    return key == nullptr ? std::string() : plain_c_type(key->type);
}

std::string joined_key_path(const table& type) {
    const std::string holder = name_of(type.key == key_kind::attribute ? type.payload : type.key_record);
    return holder + "_" + (type.key == key_kind::attribute ? type.key_attribute + "_" : "");
}

std::string key_path(const table& type) {
    return joined_key_path(type) + (type.key == key_kind::attribute ? "" : "_");
}

} // namespace trellis::schema
