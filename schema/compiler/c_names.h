// What types are called in generated C and C++: in the public headers, and as facades in the models.
#pragma once

#include "schema/compiler/model.h"

#include <string>

namespace trellis::schema {

/// Names in the public headers: "struct ud_type", "uint32_t".
std::string c_type(const type_ref& type);
/// What get_value and set_value pass: "int32_t" for enumerations.
std::string plain_c_type(const type_ref& type);
/// The facade as a model names it: "types::ud_type", "trellis::types::u_int32".
std::string facade(const type_ref& type);
/// What an attribute is called inside its model: no attribute's name can meet a member of the model.
std::string model_member(const attribute& of);

} // namespace trellis::schema
