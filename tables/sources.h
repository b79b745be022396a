// Reads that look at the sources of one key, shadow records, and counts by source. A source tells which producer a
// record comes from; 255 marks the shadow that stands behind the live records of its key.
#pragma once

#include "tables/walk.h"

namespace trellis::table {

/// The next record with the same key; tenants and sources play no part.
template <class T>
record_of<T>* keyed_get_sub_next(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record,
                                 u32* err) {
    const call c{handle, domain, err};
    if (!enter_table(c, table)) return nullptr;
    record_of<T>* next = step<T, direction::forward>(table, record);
    if (next == nullptr || compare_keys<T>(record, next) != 0) return hand_out_nothing<T>(c, table);
    return hand_out<T>(c, table, next);
}

template <class T>
record_of<T>* keyed_get_shadow(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record,
                               u32* err) {
    while (record != nullptr && record->loom_record.src != shadow_source)
        record = T::get_sub_next(handle, domain, table, record, err);
    return record;
}

template <class T>
record_of<T>* keyed_get_next_ignore_src(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record,
                                        u32* err) {
    const call c{handle, domain, err};
    if (!enter_table(c, table)) return nullptr;
    const u16 tenant = current_tenant();
    record_of<T>* next = step<T, direction::forward>(table, record);
    if (next == nullptr) return hand_out_nothing<T>(c, table);
    return next->loom_record.tenant_id == tenant ? hand_out<T>(c, table, next) : nullptr;
}

template <class T>
record_of<T>* keyed_get_first_ignore_src(loom_handle* handle, u32 domain, loom_table* table, u32* err) {
    return T::get_first_internal(handle, domain, table, default_source, 0, 0, err);
}

/// The default tenant counts no source but the shadows.
template <class T>
u32 table_get_count_by_src(loom_handle* handle, u32 domain, loom_table* table, u32 src_word) {
    if (table == nullptr) return 0;
    const u8 src = static_cast<u8>(src_word);
    const u16 tenant = current_tenant();
    if (tenant == 0) return src == shadow_source ? table->shadow_count : 0;
    u32 count = 0;
    loomdb_get_tenant_counter(handle, domain, table, &count, tenant, &src);
    return count;
}

} // namespace trellis::table
