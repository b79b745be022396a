// How a table's key is told: the record that holds it, its C type, and the path that stands in the names of the
// keyed functions. Models with mistakes have answers as well.
#pragma once

#include "schema/compiler/model.h"

#include <string>

namespace trellis::schema {

/// The record with the key: the key object, or the payload. Null when the schema names none.
const record* key_holder(const table& type);
/// The attribute that is the key; null for the other forms, or when the payload has none of that name.
const attribute* key_attribute(const table& type);
/// The C type behind a key pointer.
std::string key_value(const table& type);
/// The key's path behind `<table>_`, with its last underscore or underscores: "rec_sing_type_singleton_id_",
/// "comp_key__".
std::string key_path(const table& type);
/// The same with one underscore, whatever the key.
std::string joined_key_path(const table& type);
/// Empty for null.
std::string name_of(const record* type);

} // namespace trellis::schema
