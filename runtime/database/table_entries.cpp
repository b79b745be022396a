// Room for what is known of a table: put by, taken, given back.
#include "runtime/database/table_entries.h"

#include <cstring>

namespace loom {
namespace {
table_entries* new_entries(arena& memory) {
    void* block = memory.allocate(sizeof(table_entries));
    return block ? static_cast<table_entries*>(std::memset(block, 0, sizeof(table_entries))) : nullptr;
}
} // namespace

bool reserve_table_entries(open_handle& handle) {
    arena& memory = handle.db->memory;
    database_root& root = *handle.db->root();
    if (!root.oids_by_reference.reserve(memory) || !root.oids_by_object.reserve(memory)) return false;
    if (root.spare_entries) return true;
    if (table_entries* made = new_entries(memory)) memory.assign(root.spare_entries, made);
    return root.spare_entries != nullptr;
}

table_entries* take_table_entries(open_handle& handle) {
    arena& memory = handle.db->memory;
    database_root& root = *handle.db->root();
    if (table_entries* made = new_entries(memory)) return made;
    table_entries* spare = root.spare_entries;
    if (!spare) return nullptr;
    memory.assign(root.spare_entries, nullptr);
    memory.announce_or_end(spare, sizeof *spare);
    return static_cast<table_entries*>(std::memset(static_cast<void*>(spare), 0, sizeof *spare));
}

void leave_table_entries(open_handle& handle, table_entries* entries) {
    if (entries->mapping.object || entries->place.table) return;
    arena& memory = handle.db->memory;
    database_root& root = *handle.db->root();
    if (root.spare_entries)
        memory.release(entries);
    else
        memory.assign(root.spare_entries, entries);
}
} // namespace loom
