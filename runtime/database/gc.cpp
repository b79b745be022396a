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

/// The thread works under that tenant in its scope.
class tenant_scope {
  public:
    explicit tenant_scope(u16 tenant) {
        mt_get_tenant_id(&before_);
        loom_set_tenant(tenant);
    }
    ~tenant_scope() { loom_set_tenant(before_); }
    tenant_scope(const tenant_scope&) = delete;
    tenant_scope& operator=(const tenant_scope&) = delete;

  private:
    u16 before_ = 0;
};

/// Takes the record out of its table and gives up the table's reference, under the record's own tenant: bundles
/// may count for the tenant at work. What has left its table is ended whatever the bundle says of the way out,
/// since no later run would find it. False when it is still there.
bool end_record(loom_handle* handle, const loom_table_vft& vft, u32 domain, loom_table_record* record) {
    const tenant_scope scope(record->tenant_id);
    u32 err = 0;
    slot<record_op>(vft, LOOM_VFT_DELETE)(handle, domain, record->table, record, &err);
    if (record->table) return false;
    err = 0;
    slot<end_record_op>(vft, LOOM_VFT_DESTROY_RECORD)(handle, domain, record, &err);
    return err == 0;
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
    for (loom_table_record* record : ready)
        ++(vft && end_record(handle, *vft, domain, record) ? result.records_destroyed : result.records_waiting);
}

/// The request for a table's free leaves a replicated one to the collector. Where the TOC is shared it is on the
/// list since then; elsewhere it is told by its marks: out of the TOC, and nobody else is about to free it.
void list_requested_tables(open_handle& own) {
    const loom_table_list* tables = own.db->root()->tables;
    for (loom_table* table = tables ? tables->first : nullptr; table; table = table->toc_next) {
        const table_words& words = words_of(table);
        const bool requested = (words.marks & (table_out_of_toc | table_left_to_caller)) == table_out_of_toc;
        if (requested && words.cursors) put_on_gc_list(own, table);
    }
}

void collect_tables(open_handle& own, loom_gc_result& result) {
    list_requested_tables(own);
    std::vector<loom_table*> waiting;
    for (loom_table* table = own.db->root()->gc_first; table; table = words_of(table).gc_next)
        waiting.push_back(table);
    for (loom_table* table : waiting)
        ++(end_waiting_table(own, table) ? result.tables_freed : result.tables_waiting);
}

/// False when the table is not there.
bool take_off_gc_list(open_handle& own, loom_table* table) {
    loom_table** link = &own.db->root()->gc_first;
    while (*link && *link != table)
        link = &words_of(*link).gc_next;
    if (!*link) return false;
    arena& memory = own.db->memory;
    memory.assign(*link, words_of(table).gc_next);
    memory.assign(words_of(table).gc_next, nullptr);
    memory.assign(table->table_flags, static_cast<u8>(table->table_flags & ~LOOM_TABLE_ON_GC_LIST));
    return true;
}

/// The end of one object may end another that waits, by the references that it held: mappings are kept by number.
void collect_objects(open_handle& own, loom_gc_result& result) {
    const database_root& root = *own.db->root();
    std::vector<u64> waiting;
    for (const loom_oid_mapping* each = root.pending_objects; each; each = each->next_pending)
        waiting.push_back(each->reference);
    for (const u64 reference : waiting) {
        loom_oid_mapping* mapping = find_by_reference(root, reference);
        const bool ended = !mapping || (mapping->count == 0 && destroy_put_off(&own.view, mapping));
        ++(ended ? result.objects_destroyed : result.objects_waiting);
    }
}
} // namespace

bool end_waiting_table(open_handle& own, loom_table* table) {
    loom_handle* handle = &own.view;
    const loom_table_vft* vft = table->avl_root ? nullptr : vft_of(handle, table);
    if (!vft) return false;
    const u32 domain = static_cast<u32>(words_of(table).domain);
    const u32 gc_context = std::exchange(handle->gc_context, 1);
    u32 err = 0;
    take_off_gc_list(own, table);
    slot<free_table_op>(*vft, LOOM_VFT_TABLE_FREE)(handle, domain, table, &err);
    handle->gc_context = gc_context;
    // Refused: the table still exists and goes on waiting.
    if (err) put_on_gc_list(own, table);
    return err == 0;
}

void leave_to_caller(open_handle& own, loom_table* table) {
    take_off_gc_list(own, table);
    own.db->memory.assign(words_of(table).marks, words_of(table).marks | table_left_to_caller);
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
    if (!scope) return scope.error();
    loom_gc_result counts{};
    const u32 gc_context = std::exchange(handle->gc_context, 1);
    const u32 last_error = handle->last_error;
    const loom_table_list* tables = own->db->root()->tables;
    for (loom_table* table = tables ? tables->first : nullptr; table; table = table->toc_next)
        collect_records(handle, table, counts);
    collect_objects(*own, counts);
    collect_tables(*own, counts);
    handle->gc_context = gc_context;
    handle->last_error = last_error;
    if (result) *result = counts;
    return done();
}

LOOM_EXPORT void loomgc_database_gc_list_remove(loom_handle* handle, uint32_t, loom_table* table, uint32_t* err) {
    if (*err) return;
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return set_error(handle, err, scope.error());
    if (!take_off_gc_list(*own, table))
        fail(handle, err, LOOM_ENOENT, "the table \"%s\" does not wait for the collector", table->table_name);
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
