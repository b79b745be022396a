#include "schema/compiler/c_names.h"

namespace trellis::schema {

std::string c_type(const type_ref& type) {
    if (type.value != nullptr) return type.value->c_type;
    if (type.of_record != nullptr) return "struct " + type.of_record->name;
    if (type.of_enumeration != nullptr) return "struct " + type.of_enumeration->name;
    if (type.of_flag_set != nullptr) return "struct " + type.of_flag_set->name;
    return "loom_oid";
}

std::string plain_c_type(const type_ref& type) {
    return type.of_enumeration != nullptr ? "int32_t" : c_type(type);
}

std::string facade(const type_ref& type) {
    if (type.value != nullptr) return std::string("trellis::types::") + type.value->facade;
    if (type.of_record != nullptr) return "types::" + type.of_record->name;
    if (type.of_enumeration != nullptr) return "types::" + type.of_enumeration->name;
    if (type.of_flag_set != nullptr) return "types::" + type.of_flag_set->name;
    return "trellis::types::oid";
}

std::string model_member(const attribute& of) { return of.name + "_"; }

} // namespace trellis::schema
