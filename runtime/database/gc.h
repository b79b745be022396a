// The garbage collector's list of tables, as the TOC fills it.
#pragma once

#include "runtime/handle/open_handle.h"

namespace loom {
/// Enters a table that waits for its end. Inside the right to write.
void put_on_gc_list(open_handle& handle, loom_table* table);
/// Ends a table of the list through its bundle, with the rights of the collector. One that will not go yet stays
/// on the list: it has records, references, or no bundle that knows it. Inside the right to write.
bool end_waiting_table(open_handle& handle, loom_table* table);
/// A free by hand was put off. The table does not go before its caller repeats it, whoever it waited for until
/// now. Inside the right to write.
void leave_to_caller(open_handle& handle, loom_table* table);
/// Releases what the database layer keeps for a table that is about to end. Inside the right to write.
void drop_table_storage(open_handle& handle, loom_table* table);
} // namespace loom
