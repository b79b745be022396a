// A model as text for people and tools. What the texts are made from is the stages'.
#pragma once

#include "schema/compiler/model.h"

#include <string>

namespace trellis::schema {

/// One line: how many types, functions and trace statements.
std::string summary(const bundle& b);

/// Sizes, offsets and tracking places of all types, in schema order.
std::string layout_text(const bundle& b);

} // namespace trellis::schema
