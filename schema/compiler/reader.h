// Reads one schema text. Knows the grammar and nothing about what names mean; that is the builder's. The language
// is told in docs/schema-language.md.
#pragma once

#include "schema/compiler/diagnostics.h"
#include "schema/compiler/syntax.h"

#include <string>
#include <string_view>

namespace trellis::schema {

/// Reads `text`; `name` stands for it in locations. Takes any bytes: a line that is no schema becomes a
/// diagnostic and reading goes on behind it, so that the result holds whatever was well formed.
syntax::file read_schema(const std::string& name, std::string_view text, diagnostics& out);

} // namespace trellis::schema
