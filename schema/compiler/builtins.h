// The built-in value types: what stands in a schema without being declared there. Nothing here is bundle data.
#pragma once

#include "schema/compiler/model.h"

#include <span>
#include <string_view>

namespace trellis::schema {

std::span<const builtin> builtins();
/// Null when there is none of that name.
const builtin* find_builtin(std::string_view name);

} // namespace trellis::schema
