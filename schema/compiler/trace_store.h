// The trace statements of a bundle, unit by unit: what diag/statements.h declares, once per type, attribute, table
// and message it stands for. How a store is written into a library is the emitters'.
#pragma once

#include "schema/compiler/model.h"

#include <array>
#include <string>
#include <vector>

namespace trellis::schema {

/// Units 0, 1 and 5 hold records (1 also enumerations and flag sets), 2 the bundle's frame, 3 messages, 4 the
/// registry and tables.
constexpr int trace_units = 6;

/// One entry of a unit. Its place in the unit is the index that the generated code passes.
struct trace_entry {
    const diag::statement* statement;
    std::string text; // placeholders replaced; without the blank that the store puts before it
};

/// Sets the trace bases of types and the trace places and kinds of attributes.
void number_trace_statements(bundle& b);

/// All entries in the order of their indexes.
std::array<std::vector<trace_entry>, trace_units> trace_entries(const bundle& b);

} // namespace trellis::schema
