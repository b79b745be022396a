// The garbage collector's list of tables, as the TOC fills it.
#pragma once

#include "runtime/handle/open_handle.h"

namespace loom {
/// Enters a table that waits for its end. Inside the right to write.
void put_on_gc_list(open_handle& handle, loom_table* table);
/// Ends a table through its bundle, with the rights of the collector. A table that will not go yet stays on the
/// list if it was there; the result is the error number. Inside the right to write.
u32 free_waiting_table(open_handle& handle, const loom_table_vft& vft, loom_table* table, u32 domain);
/// Releases what the database layer keeps for a table that is about to end. Inside the right to write.
void drop_table_storage(open_handle& handle, loom_table* table);
} // namespace loom
