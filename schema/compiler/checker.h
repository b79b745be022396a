// What a resolved schema may not say: the rules of keys, tables, nesting, names and luids. Resolving is the
// builder's.
#pragma once

#include "schema/compiler/diagnostics.h"

namespace trellis::schema {

/// Checks a model, whole or with holes where names were not resolved; holes give no further diagnostics.
void check_model(const bundle& b, diagnostics& out);

} // namespace trellis::schema
