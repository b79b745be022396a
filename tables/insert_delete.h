// Putting a record into its table's tree and taking it out, with the table's counters. Neither takes or gives a
// reference. What ordered tables add stands in ordered.h.
#pragma once

#include "tables/ordered.h"

namespace trellis::table {

/// Enters or removes a record in the counters of its tenant; the default tenant has none. The record's own tenant,
/// as in the order of the tree: whoever takes it out, under whatever tenant, the counts agree with what is there.
inline void count_for_tenant(const call& c, loom_table* table, const loom_table_record& head, u32 up) {
    if (head.tenant_id != 0)
        loomdb_update_tenant_counter(c.handle, c.domain, table, up, head.tenant_id, head.src, c.error);
}

inline void count_inserted(const call& c, loom_table* table, const loom_table_record& head) {
    c.store<u32>(&table->record_count, table->record_count + 1, nullptr);
    if (head.src == shadow_source) c.store<u32>(&table->shadow_count, table->shadow_count + 1, table);
    count_for_tenant(c, table, head, 1);
}

template <class T>
inline void count_deleted(const call& c, loom_table* table, const loom_table_record& head) {
    if (table->record_count == 0) {
        say<T, says::delete_internal_count_already_zero>();
        return;
    }
    c.store<u32>(&table->record_count, table->record_count - 1, nullptr);
    if (head.src == shadow_source && table->shadow_count != 0)
        c.store<u32>(&table->shadow_count, table->shadow_count - 1, table);
    if ((head.record_flags & REC_PENDING_DESTROY) != 0) {
        c.store<u32>(&table->pending_destroy_count, table->pending_destroy_count - 1, nullptr);
        u64* total = &c.handle->pending_totals->pending_destroy;
        c.store<u64>(total, *total - 1, nullptr);
    }
    count_for_tenant(c, table, head, 0);
}

template <class T>
void insert_internal(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record, u32 pkey,
                     u32* err) {
    const call c{handle, domain, err};
    if (record == nullptr) {
        c.fail(LOOM_EEXIST);
        return;
    }
    if (!enter_table(c, table)) return;
    loom_table_record& head = record->loom_record;
    const u32 old_flags = head.record_flags;
    if constexpr (T::ordered) {
        if (!accept_position<T>(c, table, record)) return;
    }
    if (e_avl_insert(handle->alloc_ctx, domain, &table->avl_root, &head.avl_node, &table->avl_aux, T::compare) ==
        0) {
        if (handle->suppress_duplicate_trace == 0) say<T, says::insert_internal_exists>();
        c.fail(LOOM_EEXIST);
        return;
    }
    c.store<loom_table*>(&head.table, table, record);
    if constexpr (T::ordered) {
        if (head.src != shadow_source) enter_sequence<T>(c, table, record);
    }
    count_inserted(c, table, head);
    const u32 mark = pkey != 0 ? u32{REC_PKEY_MARK} : 0;
    const u32 kept = old_flags & ~u32{REC_PKEY_MARK | REC_PENDING_DESTROY};
    c.store<u32>(&head.record_flags, kept | mark | REC_IN_TABLE, record);
    if (loomdb_table_are_cursors_enabled(handle, domain, table, err) != 0 &&
        loomdb_table_implicit_write_cursor_enabled(handle, domain, table, err) != 0)
        loomdb_enq_rec_move_write_cursor_internal(handle, domain, table, &head, err);
    report(c, subject::record, record, table);
}

/// Entry of both deletes: a table marked for replication is left to the garbage collector.
template <class T, says Replicated>
inline bool enter_delete(const call& c, loom_table* table) {
    if (!enter_table(c, table)) return false;
    if (loomdb_table_are_cursors_enabled(c.handle, c.domain, table, c.error) == 0 || c.handle->gc_context != 0)
        return true;
    say<T, Replicated>();
    c.fail(LOOM_EINVAL);
    return false;
}

inline void set_pkey_mark(const call& c, loom_table_record& head) {
    if ((head.record_flags & REC_PKEY_MARK) == 0)
        c.store<u32>(&head.record_flags, head.record_flags | REC_PKEY_MARK, &head);
}

template <class T>
void delete_internal(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record, u32 pkey,
                     u32* err) {
    const call c{handle, domain, err};
    if (!enter_delete<T, says::delete_internal_replicated>(c, table)) return;
    if (record == nullptr) {
        say<T, says::delete_internal_not_found>();
        c.fail(LOOM_ENOENT);
        return;
    }
    loom_table_record& head = record->loom_record;
    const u32 old_flags = head.record_flags;
    if (pkey != 0) {
        set_pkey_mark(c, head);
        return;
    }
    if (e_avl_delete(handle->alloc_ctx, domain, &table->avl_root, &head.avl_node, &table->avl_aux, T::compare) ==
        0) {
        say<T, says::delete_internal_not_found>();
        c.fail(LOOM_ENOENT);
        return;
    }
    c.store<loom_table*>(&head.table, nullptr, record);
    if ((old_flags & REC_PKEY_MARK) != 0)
        c.store<u32>(&head.record_flags, head.record_flags & ~u32{REC_PKEY_MARK}, nullptr);
    if (c.pending()) return; // the question about replication failed
    if constexpr (T::ordered) {
        if (head.src != shadow_source && !leave_sequence<T>(c, table, record)) return;
    }
    count_deleted<T>(c, table, head);
    report_end(c, record);
}

template <class T>
void insert(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record, u32* err) {
    T::insert_internal(handle, domain, table, record, 0, err);
}

template <class T>
void pkey_insert(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record, u32* err) {
    T::insert_internal(handle, domain, table, record, 1, err);
}

template <class T>
u32 insert_cr(loom_handle* handle, loom_table* table, record_of<T>* record, u32 pkey) {
    T::insert_internal(handle, handle->cr_domain, table, record, pkey, &handle->last_error);
    return handle->last_error;
}

template <class T>
void delete_(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record, u32* err) {
    T::delete_internal(handle, domain, table, record, 0, err);
}

template <class T>
void pkey_delete(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record, u32* err) {
    const call c{handle, domain, err};
    if (!enter_delete<T, says::pkey_delete_replicated>(c, table)) return;
    if (record == nullptr)
        c.fail(LOOM_ENOENT);
    else
        set_pkey_mark(c, record->loom_record);
}

template <class T>
u32 delete_cr(loom_handle* handle, loom_table* table, record_of<T>* record, u32 destroy) {
    T::delete_internal(handle, handle->cr_domain, table, record, 0, &handle->last_error);
    if (destroy != 0) T::destroy_record_internal(handle, handle->cr_domain, record, &handle->last_error);
    return handle->last_error;
}

template <class T>
u32 table_get_count(loom_handle* handle, u32 domain, loom_table* table) {
    if (table == nullptr) return 0;
    const u16 tenant = current_tenant();
    if (tenant == 0) return table->record_count;
    u32 count = 0;
    loomdb_get_tenant_counter(handle, domain, table, &count, tenant, nullptr);
    return count;
}

template <class T>
u32 table_get_count_cr(loom_handle* handle, loom_table* table) {
    return table_get_count<T>(handle, handle->cr_domain, table);
}

} // namespace trellis::table
