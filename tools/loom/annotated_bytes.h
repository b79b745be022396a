// The binary form of a table record, bytes beside what they mean: the frame, and each record inside it attribute
// by attribute. The model of the schema gives names and order; what a value's bytes say is asked of the value
// itself.
#pragma once

#include "schema_model.h"
#include "table_type.h"

#include <cstddef>
#include <ostream>
#include <span>

namespace tool {

/// Writes one line per field: offset, bytes, name, meaning. Bytes that the model does not explain are shown as
/// such. Throws failure where the bytes contradict the model.
void write_annotated(std::ostream& out, std::span<const std::byte> bytes, const table_type& type,
                     const schema_model& model);

} // namespace tool
