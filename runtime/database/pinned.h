// The pinned list: which bytes of an image may differ from what base and journal hold together. The list is
// explained in docs/database.md; everything that is not on it must be the same to the byte.
#pragma once

#include "runtime/database/arena.h"
#include "runtime/database/layout.h"

namespace loom {

/// The pinned bytes of an image below its top, in order and without overlap. `root` may be null.
std::vector<value_range> pinned_ranges(const arena& memory, const database_root* root);

} // namespace loom
