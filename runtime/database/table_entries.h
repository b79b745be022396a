// The block in which the oid mapping and a TOC keep what they know of one table. Room for it is put by before a
// table is made: a table that is on the list could not be taken off it for want of memory. What the entries say,
// and how they are found, stands in oid/ and toc.cpp.
#pragma once

#include "runtime/handle/open_handle.h"

namespace loom {

/// Makes sure that the entries of one more table can be made; false when there is no memory, with a text.
bool reserve_table_entries(open_handle& handle);
/// Entries of a new table, both unused; null when there is neither memory nor room put by.
table_entries* take_table_entries(open_handle& handle);
/// One of the two has come out of use: the block goes with the other, and serves the next table if none is put by.
void leave_table_entries(open_handle& handle, table_entries* entries);

/// The entries around one of the two.
inline table_entries* entries_around(loom_oid_mapping* mapping) {
    return reinterpret_cast<table_entries*>(mapping);
}
inline table_entries* entries_around(toc_entry* place) {
    return reinterpret_cast<table_entries*>(reinterpret_cast<std::byte*>(place) - offsetof(table_entries, place));
}

} // namespace loom
