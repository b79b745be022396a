// Who a type is: its definition as canonical text, its luid and its definition hash. The luid covers what never
// changes, kind, names and the definition of variant 0, so that peers of different schema versions mean the same
// type by it; the hash covers the whole definition.
#pragma once

#include "schema/compiler/model.h"

namespace trellis::schema {

/// A type as the schema writes it: "u_int8[b_arr_len]", "oid -> tbl_child", "list of entry".
std::string written_type(const attribute& a);

/// Fills definition, definition_hash, luid and luid_text of every type. A luid told in the schema wins.
void identify_types(bundle& b);

} // namespace trellis::schema
