// The exported functions of a bundle, by name, in function order: records with their accessors, enumerations, flag
// sets, tables, messages, the bundle's own. A function's place in the list is the index of its call counter. What
// the functions do is the families' in the library.
#pragma once

#include "schema/compiler/model.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace trellis::schema {

/// Operations behind `<type>_`, in order.
std::span<const std::string_view> record_operations();
std::span<const std::string_view> enumeration_operations();
std::span<const std::string_view> flag_set_operations();
/// Operations behind `<type>_<attribute>_`, in order; empty if the attribute's type is not known.
std::span<const std::string_view> accessors_of(const attribute& a);

/// The key's path behind `<table>_`, with its last underscore or underscores: "rec_sing_type_singleton_id_",
/// "comp_key__".
std::string key_path(const table& t);

/// The bundle's own functions, whole names.
std::vector<std::string> bundle_functions(const bundle& b);

std::vector<exported_function> exported_functions(const bundle& b);

/// Exported data: type-information records, and per table and message its name, luid and luid text.
std::vector<exported_function> exported_data(const bundle& b);

/// Sets `call_base` of all types.
void number_functions(bundle& b);

} // namespace trellis::schema
