// The exported functions of a bundle, by name, in function order: records with their accessors, enumerations, flag
// sets, tables, messages, the bundle's own. A function's place in the list is the index of its call counter. What
// the functions do is the families' in the library; what operations there are, of operations.h.
#pragma once

#include "schema/compiler/model.h"

#include <vector>

namespace trellis::schema {

std::vector<exported_function> exported_functions(const bundle& b);

/// Exported data: type-information records, and per table and message its name, luid and luid text.
std::vector<exported_function> exported_data(const bundle& b);

/// Sets `call_base` of all types.
void number_functions(bundle& b);

} // namespace trellis::schema
