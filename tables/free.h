// The end of a table. Closing one is nothing, since opening takes no reference; a private table is freed at once,
// a shared one leaves the table of contents and is ended by the garbage collector. Records are not looked at.
#pragma once

#include "tables/open.h"

namespace trellis::table {

template <class T>
void table_close(loom_handle* handle, u32 domain, loom_table*, u32* err) {
    call{handle, domain, err}.enter();
}

template <class T>
u32 table_close_cr(loom_handle* handle, loom_table* table, u32 how) {
    const call c = chain_call(handle);
    c.enter();
    if (how == 1)
        T::table_free(handle, c.domain, table, c.error);
    else if (how == 2)
        T::request_table_free(handle, c.domain, table, c.error);
    return handle->last_error;
}

/// First part of a free: out of the table of contents, unless the request has done that. False when the free ends
/// here.
template <class T>
inline bool leave_contents(const call& c, loom_table* table) {
    loom_handle* handle = c.handle;
    loom_toc_root* contents = loomdb_database_toc_open(handle, c.domain, c.error);
    if (contents == nullptr || c.pending()) {
        say<T, says::table_free_no_toc_root>(error_text(*c.error));
        return false;
    }
    const bool shared = (contents->flags & LOOM_TOC_SHARED) != 0;
    if (!shared) {
        loomdb_database_toc_delete(handle, c.domain, table, c.error);
        if (c.pending()) say<T, says::table_free_toc_delete_failed, 0>(error_text(*c.error));
        return !c.pending();
    }
    if (handle->gc_context != 0) return true;
    say<T, says::table_free_wrong_call>();
    loomdb_database_toc_delete(handle, c.domain, table, c.error);
    if (c.pending()) say<T, says::table_free_toc_delete_failed, 1>(error_text(*c.error));
    return false;
}

/// Removes the table's object reference; error 11 while others hold it.
template <class T>
inline bool leave_mapping(const call& c, loom_table* table) {
    const u32 gone = loom_request_oid_mapping_destroy(c.handle, c.domain, table, c.error);
    if (c.pending()) {
        say<T, says::table_free_mapping_not_removed>(error_text(*c.error));
        return false;
    }
    if (gone == 0) {
        c.fail(LOOM_EAGAIN);
        return false;
    }
    say<T, says::table_free_mapping_removed>();
    return true;
}

/// Lowers the number of tables open under an id. Ids are not used again.
template <class T>
inline bool give_back_id(const call& c) {
    path_text key;
    loom_table_id_root* root = find_id_root<T>(c, key);
    if (c.pending()) return false;
    if (root == nullptr) {
        c.fail(LOOM_ENOENT);
        return false;
    }
    c.store<u32>(&root->open_tables, root->open_tables - 1, nullptr);
    return true;
}

template <class T>
inline void unlink_from_list(const call& c, loom_table_list* list, loom_table* table) {
    constexpr says refused = says::table_free_arena_refused;
    if (table->toc_next != nullptr)
        store_link<T, refused, 0, loom_table**>(c, &table->toc_next->toc_prev, table->toc_prev, table->toc_next);
    else
        store_link<T, refused, 1, loom_table**>(c, &list->last, table->toc_prev, list);
    store_link<T, refused, 2, loom_table*>(c, table->toc_prev, table->toc_next, list);
}

template <class T>
void table_free(loom_handle* handle, u32 domain, loom_table* table, u32* err) {
    const call c{handle, domain, err};
    if (!enter_table(c, table)) return;
    if (!leave_contents<T>(c, table) || !leave_mapping<T>(c, table)) return;
    if (table->open_mode != static_cast<u32>(open_mode::by_name) && !give_back_id<T>(c)) return;
    loom_table_list* list = loomlib_database_table_toc_create(handle, LOOM_DOMAIN_NONE, err);
    if (c.pending()) return;
    unlink_from_list<T>(c, list, table);
    if ((table->table_flags & LOOM_TABLE_ON_GC_LIST) != 0) {
        say<T, says::table_free_still_on_gc_list>();
        loomgc_database_gc_list_remove(handle, domain, table, err);
        if (c.pending()) {
            say<T, says::table_free_gc_list_failed>(error_text(*err));
            return;
        }
    }
    if (handle->gc_validation != 0) loomgc_validate_table_delete(handle, table);
    const loom_type_info* tinfo = table->header.loom_tinfo;
    loom_variant_entry* statistics =
        statistics_of<T, says::table_free_corrupted_tinfo, says::table_free_no_variant_table,
                      says::table_free_variant_beyond_table>(tinfo);
    count_one(tinfo, &statistics->objects_destroyed);
    *err = 0;
    report_end(c, table);
    c.release(table);
}

template <class T>
void request_table_free(loom_handle* handle, u32 domain, loom_table* table, u32* err) {
    const call c{handle, domain, err};
    if (!enter_table(c, table)) return;
    if (loomlib_db_is_shared() == 0) say<T, says::request_table_free_not_shared>();
    if (loomdb_database_toc_open(handle, domain, err) == nullptr || c.pending()) {
        say<T, says::request_table_free_no_toc_root>(error_text(*err));
        return;
    }
    loomdb_database_toc_delete(handle, domain, table, err);
    if (*err == LOOM_ENOENT) *err = 0; // an earlier request has taken it out
    if (c.pending()) {
        say<T, says::request_table_free_toc_delete_failed>(error_text(*err));
        return;
    }
    if (loomdb_table_are_cursors_enabled(handle, domain, table, err) != 0) {
        report_end(c, table);
        return;
    }
    T::table_free(handle, domain, table, err);
    if (c.pending()) say<T, says::request_table_free_destroy_failed>(error_text(*err));
}

} // namespace trellis::table
