// Joins the files of a schema into one model and resolves its names. What a well-resolved schema may still not say
// is the checker's; sizes and indexes are the layout's.
#pragma once

#include "schema/compiler/diagnostics.h"
#include "schema/compiler/syntax.h"

#include <memory>
#include <vector>

namespace trellis::schema {

/// Never null. What cannot be resolved is told in `out` and left empty in the model: such a model can be checked
/// further, but not laid out.
std::unique_ptr<bundle> build_model(const std::vector<syntax::file>& files, diagnostics& out);

} // namespace trellis::schema
