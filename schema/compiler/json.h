// The model as JSON, for other tools and for keeping what was released, and the way back.
#pragma once

#include "schema/compiler/diagnostics.h"
#include "schema/compiler/syntax.h"

#include <string>
#include <string_view>

namespace trellis::schema {

/// Everything the schema says and everything the layout made of it, in schema order. The model must be laid out.
std::string json_text(const bundle& b);

/// Reads what json_text wrote, as one file of a schema; what the layout made is computed again. Locations name
/// the file alone. Takes any bytes: what does not fit becomes a diagnostic.
syntax::file read_json(const std::string& name, std::string_view text, diagnostics& out);

} // namespace trellis::schema
