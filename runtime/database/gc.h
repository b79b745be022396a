// The garbage collector's list of tables, as the TOC fills it.
#pragma once

#include "runtime/handle/open_handle.h"

namespace loom {
/// Enters a table that waits for its end. Inside the right to write.
void put_on_gc_list(open_handle& handle, loom_table* table);
/// Releases what the database layer keeps for a table that is about to end. Inside the right to write.
void drop_table_storage(open_handle& handle, loom_table* table);
} // namespace loom
