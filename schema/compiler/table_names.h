// The exported function names of tables and messages.
#pragma once

#include "schema/compiler/model.h"

namespace trellis::schema {

/// All functions of a table, workers included, in function order: 112 with a key inside the payload, 117 with a
/// key object, 119 in ordered tables.
std::vector<std::string> table_function_names(const table& type);

/// All functions of a message in function order: 21, or 25 with a payload.
std::vector<std::string> message_function_names(const message& type);

} // namespace trellis::schema
