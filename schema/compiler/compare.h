// What changed between two versions of a schema, and what of it peers and databases of the old one do not survive.
#pragma once

#include "schema/compiler/model.h"

#include <string>
#include <vector>

namespace trellis::schema {

/// One change. `where` is in the new schema, or in the old one for what is gone.
struct change {
    location where;
    bool breaks;
    std::string what;
    std::string cure; // of changes that break
};

/// "file:line:column: breaks: what; cure" or "file:line:column: fine: what"
std::string text_of(const change& c);

/// All changes, kind by kind, in schema order. Both models must be laid out. Variants only grow: within a type,
/// what old variants hold stays as it is, and what is new comes in a variant behind them.
std::vector<change> changes_between(const bundle& before, const bundle& after);

} // namespace trellis::schema
