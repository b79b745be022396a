// The garbage collector: ends records that are pending destruction once the cursors have passed them, tables that
// were taken out of a shared TOC, and objects whose end was put off because of references.
//
// Records are found by walking the tables that count pending ones, not by a list of their own: a record that its
// holder ends in another way then leaves nothing behind. Bundles are reached through their function records.
#include "runtime/database/gc.h"

#include "runtime/export.h"
#include "runtime/oid/oid.h"

#include <utility>
#include <vector>

namespace loom {
namespace {
using record_op = void (*)(loom_handle*, uint32_t, loom_table*, loom_table_record*, uint32_t*);
using end_record_op = void (*)(loom_handle*, uint32_t, loom_table_record*, uint32_t*);
using free_table_op = void (*)(loom_handle*, uint32_t, loom_table*, uint32_t*);

template <class Function>
Function slot(const loom_table_vft& vft, u32 number) {
    return reinterpret_cast<Function>(const_cast<void*>(vft.slots[number]));
}

loom_table_record* record_of(e_avl_node* node) {
    return reinterpret_cast<loom_table_record*>(reinterpret_cast<std::byte*>(node) -
                                                offsetof(loom_table_record, avl_node));
}

const loom_table_vft* vft_of(loom_handle* handle, const loom_table* table) {
    const loom_type_info* info = table->header.loom_tinfo;
    return info && info->magic == LOOM_TYPE_INFO_MAGIC ? loom_find_table_vft(handle, info->luid) : nullptr;
}

bool passed_by_cursors(loom_table* table, loom_table_record* record) {
    const table_cursors* cursors = words_of(table).cursors;
    return !cursors || !cursors->enabled || words_of(record).enqueued <= cursors->read_place;
}

void collect_records(loom_handle* handle, loom_table* table, loom_gc_result& result) {
    if (!table->pending_destroy_count) return;
    std::vector<loom_table_record*> ready;
    for (e_avl_node* node = e_avl_get_first(table->avl_root); node;
         node = e_avl_get_next(table->avl_root, node, nullptr)) {
        loom_table_record* record = record_of(node);
        if (!(record->record_flags & REC_PENDING_DESTROY)) continue;
        if (passed_by_cursors(table, record))
            ready.push_back(record);
        else
            ++result.records_waiting;
    }
    const loom_table_vft* vft = ready.empty() ? nullptr : vft_of(handle, table);
    const u32 domain = static_cast<u32>(words_of(table).domain);
    for (loom_table_record* record : ready) {
        u32 err = vft ? 0u : u32{LOOM_ENOENT};
        if (vft) slot<record_op>(*vft, LOOM_VFT_DELETE)(handle, domain, table, record, &err);
        if (!err) slot<end_record_op>(*vft, LOOM_VFT_DESTROY_RECORD)(handle, domain, record, &err);
        ++(err ? result.records_waiting : result.records_destroyed);
    }
}

void collect_tables(open_handle& own, loom_gc_result& result) {
    loom_handle* handle = &own.view;
    std::vector<loom_table*> waiting;
    for (loom_table* table = own.db->root()->gc_first; table; table = words_of(table).gc_next)
        waiting.push_back(table);
    for (loom_table* table : waiting) {
        const loom_table_vft* vft = vft_of(handle, table);
        const bool refused = !vft || table->avl_root ||
                             free_waiting_table(own, *vft, table, static_cast<u32>(words_of(table).domain)) != 0;
        ++(refused ? result.tables_waiting : result.tables_freed);
    }
}

void collect_objects(open_handle& own, loom_gc_result& result) {
    std::vector<loom_oid_mapping*> waiting;
    for (loom_oid_mapping* each = own.db->root()->pending_objects; each; each = each->next_pending)
        waiting.push_back(each);
    for (loom_oid_mapping* each : waiting) {
        const bool ended = each->count == 0 && destroy_put_off(&own.view, each);
        ++(ended ? result.objects_destroyed : result.objects_waiting);
    }
}
} // namespace

u32 free_waiting_table(open_handle& own, const loom_table_vft& vft, loom_table* table, u32 domain) {
    loom_handle* handle = &own.view;
    const bool listed = table->table_flags & LOOM_TABLE_ON_GC_LIST;
    const u32 gc_context = std::exchange(handle->gc_context, 1);
    u32 err = 0;
    if (listed) loomgc_database_gc_list_remove(handle, domain, table, &err);
    slot<free_table_op>(vft, LOOM_VFT_TABLE_FREE)(handle, domain, table, &err);
    handle->gc_context = gc_context;
    // Refused: the table still exists and goes on waiting.
    if (err && listed) put_on_gc_list(own, table);
    return err;
}

void put_on_gc_list(open_handle& handle, loom_table* table) {
    if (table->table_flags & LOOM_TABLE_ON_GC_LIST) return;
    arena& memory = handle.db->memory;
    database_root& root = *handle.db->root();
    memory.assign(words_of(table).gc_next, root.gc_first);
    memory.assign(root.gc_first, table);
    memory.assign(table->table_flags, static_cast<u8>(table->table_flags | LOOM_TABLE_ON_GC_LIST));
}
} // namespace loom

using namespace loom;

LOOM_EXPORT uint32_t loom_gc_run(loom_handle* handle, loom_gc_result* result) {
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return fail(LOOM_EPERM, "the garbage collector cannot run inside a read section");
    loom_gc_result done{};
    const u32 gc_context = std::exchange(handle->gc_context, 1);
    const u32 last_error = handle->last_error;
    const loom_table_list* tables = own->db->root()->tables;
    for (loom_table* table = tables ? tables->first : nullptr; table; table = table->toc_next)
        collect_records(handle, table, done);
    collect_objects(*own, done);
    collect_tables(*own, done);
    handle->gc_context = gc_context;
    handle->last_error = last_error;
    if (result) *result = done;
    return 0;
}

LOOM_EXPORT void loomgc_database_gc_list_remove(loom_handle* handle, uint32_t, loom_table* table, uint32_t* err) {
    if (*err) return;
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    loom_table** link = &own->db->root()->gc_first;
    while (*link && *link != table)
        link = &words_of(*link).gc_next;
    if (!*link || !scope) {
        *err = *link ? LOOM_EPERM : LOOM_ENOENT;
        loom_store_err(handle, *err);
        return;
    }
    arena& memory = own->db->memory;
    memory.assign(*link, words_of(table).gc_next);
    memory.assign(words_of(table).gc_next, nullptr);
    memory.assign(table->table_flags, static_cast<u8>(table->table_flags & ~LOOM_TABLE_ON_GC_LIST));
}

LOOM_EXPORT void loomgc_validate_table_delete(loom_handle* handle, loom_table* table) {
    if (!table->avl_root && !table->record_count && !table->pending_destroy_count &&
        !(table->table_flags & LOOM_TABLE_ON_GC_LIST))
        return;
    open_handle* own = opened(handle);
    ++own->gc_failures;
    fail(EBUSY, "table \"%s\" id %llu is freed with %u records, %u of them pending destruction", table->table_name,
         static_cast<unsigned long long>(table->table_id), table->record_count, table->pending_destroy_count);
}
LOOM_EXPORT void loom_set_gc_validation(loom_handle* handle, uint32_t on) { handle->gc_validation = on; }
LOOM_EXPORT uint64_t loom_gc_validation_failures(loom_handle* handle) { return opened(handle)->gc_failures; }
