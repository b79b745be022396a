// What the database layer keeps per table and per record: replication cursors and cache, pending destruction,
// tenants' counts, stored locations.
#include "runtime/database/gc.h"
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace loom {
namespace {
thread_local u16 current_tenant = 0;

template <class Stored>
Stored* new_zeroed(arena& memory, std::size_t size = sizeof(Stored)) {
    void* block = memory.allocate(size);
    return block ? static_cast<Stored*>(std::memset(block, 0, size)) : nullptr;
}

/// The table's cursors, made if needed; null when there is no memory.
table_cursors* open_cursors(open_handle& handle, loom_table* table) {
    table_words& words = words_of(table);
    if (!words.cursors)
        if (auto* made = new_zeroed<table_cursors>(handle.db->memory))
            handle.db->memory.assign(words.cursors, made);
    return words.cursors;
}

loom_table_record* record_of(e_avl_node* node) {
    return reinterpret_cast<loom_table_record*>(reinterpret_cast<std::byte*>(node) -
                                                offsetof(loom_table_record, avl_node));
}

tenant_node* find_count(const tenant_table& counts, u16 tenant, u8 src) {
    return counts.find(tenant, [&](const tenant_node& node) { return node.tenant == tenant && node.src == src; });
}

/// Records of that tenant and source in the table, found by a walk.
u32 walked_count(const loom_table* table, u16 tenant, const u8* src) {
    u32 count = 0;
    for (e_avl_node* node = e_avl_get_first(table->avl_root); node;
         node = e_avl_get_next(table->avl_root, node, nullptr)) {
        const loom_table_record* record = record_of(node);
        count += record->tenant_id == tenant && (!src || record->src == *src);
    }
    return count;
}

/// The count of that tenant and source, made if needed; null when there is no memory.
tenant_node* open_count(open_handle& handle, loom_table* table, u16 tenant, u8 src) {
    arena& memory = handle.db->memory;
    table_words& words = words_of(table);
    if (!words.tenants) {
        auto* made = new_zeroed<tenant_table>(memory);
        if (!made) return nullptr;
        memory.assign(words.tenants, made);
    }
    if (tenant_node* found = find_count(*words.tenants, tenant, src)) return found;
    auto* node = new_zeroed<tenant_node>(memory);
    if (!node) return nullptr;
    node->tenant = tenant;
    node->src = src;
    if (words.tenants->insert(memory, node)) return node;
    memory.release(node);
    return nullptr;
}

u64 hash_of_text(const char* text, std::size_t length) {
    u64 hash = 14695981039346656037u;
    for (std::size_t i = 0; i < length; ++i)
        hash = (hash ^ static_cast<u8>(text[i])) * 1099511628211u;
    return hash;
}

location_node* open_location(open_handle& handle, const char* text) {
    arena& memory = handle.db->memory;
    location_table& locations = handle.db->root()->locations;
    const std::size_t length = std::strlen(text);
    const u64 hash = hash_of_text(text, length);
    location_node* node = locations.find(hash, [&](const location_node& each) {
        return each.text_hash == hash && each.length == length && std::memcmp(each.text(), text, length) == 0;
    });
    if (node) {
        memory.assign(node->count, node->count + 1);
        return node;
    }
    node = new_zeroed<location_node>(memory, sizeof(location_node) + length + 1);
    if (!node) return nullptr;
    node->count = 1;
    node->text_hash = hash;
    node->length = static_cast<u32>(length);
    std::memcpy(node + 1, text, length + 1);
    if (locations.insert(memory, node)) return node;
    memory.release(node);
    return nullptr;
}
} // namespace

void drop_table_storage(open_handle& handle, loom_table* table) {
    arena& memory = handle.db->memory;
    table_words& words = words_of(table);
    if (table_cursors* cursors = words.cursors) {
        memory.assign(words.cursors, nullptr);
        memory.release(cursors);
    }
    if (tenant_table* tenants = words.tenants) {
        memory.assign(words.tenants, nullptr);
        tenants->each([&](tenant_node& node) { memory.release(&node); });
        if (tenants->slots) memory.release(tenants->slots);
        memory.release(tenants);
    }
}
} // namespace loom

using namespace loom;

// ---------------------------------------------------------------------------------------------- replication

LOOM_EXPORT uint32_t loomdb_table_are_cursors_enabled(loom_handle*, uint32_t, loom_table* table, uint32_t*) {
    return table && words_of(table).cursors && words_of(table).cursors->enabled;
}
LOOM_EXPORT uint32_t loomdb_table_implicit_write_cursor_enabled(loom_handle*, uint32_t, loom_table* table,
                                                                uint32_t*) {
    return table && words_of(table).cursors && words_of(table).cursors->implicit_write;
}

LOOM_EXPORT uint32_t loom_table_set_replication(loom_handle* handle, uint32_t, loom_table* table, uint32_t cursors,
                                                uint32_t implicit_write_cursor) {
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return scope.error();
    table_cursors* state = open_cursors(*own, table);
    if (!state) return LOOM_ENOMEM;
    own->db->memory.assign(state->enabled, cursors != 0);
    own->db->memory.assign(state->implicit_write, implicit_write_cursor != 0);
    return done();
}

LOOM_EXPORT void loomdb_enq_rec_move_write_cursor_internal(loom_handle* handle, uint32_t, loom_table* table,
                                                           loom_table_record* record, uint32_t* err) {
    if (*err) return;
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return set_error(handle, err, scope.error());
    table_cursors* state = open_cursors(*own, table);
    if (!state) return set_error(handle, err, LOOM_ENOMEM);
    own->db->memory.assign(state->write_place, state->write_place + 1);
    own->db->memory.assign(words_of(record).enqueued, state->write_place);
}

LOOM_EXPORT uint64_t loom_table_write_cursor(loom_handle*, loom_table* table) {
    return words_of(table).cursors ? words_of(table).cursors->write_place : 0;
}
LOOM_EXPORT uint64_t loom_table_read_cursor(loom_handle*, loom_table* table) {
    return words_of(table).cursors ? words_of(table).cursors->read_place : 0;
}
LOOM_EXPORT uint32_t loom_table_advance_read_cursor(loom_handle* handle, loom_table* table, uint64_t place) {
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    table_cursors* state = words_of(table).cursors;
    if (!scope) return scope.error();
    if (!state || place < state->read_place || place > state->write_place)
        return fail(LOOM_EINVAL, "the read cursor of the table cannot go to place %llu",
                    static_cast<unsigned long long>(place));
    own->db->memory.assign(state->read_place, place);
    return done();
}

LOOM_EXPORT uint32_t loom_table_each_enqueued(loom_handle*, loom_table* table, uint64_t place,
                                              loom_record_fn visit, void* context) {
    std::vector<loom_table_record*> found;
    for (e_avl_node* node = e_avl_get_first(table->avl_root); node;
         node = e_avl_get_next(table->avl_root, node, nullptr))
        if (words_of(record_of(node)).enqueued > place) found.push_back(record_of(node));
    std::sort(found.begin(), found.end(),
              [](auto* a, auto* b) { return words_of(a).enqueued < words_of(b).enqueued; });
    for (loom_table_record* record : found)
        visit(table, record, words_of(record).enqueued, context);
    return done();
}

LOOM_EXPORT void loomrepl_add_to_cache(loom_handle* handle, uint32_t, loom_table* table, loom_table_record* record,
                                       uint32_t*) {
    replication_cache& cache = opened(handle)->replication;
    cache.latest[cache.count++ % cache.latest.size()] = {table, record};
}
LOOM_EXPORT uint64_t loom_replication_cache_count(loom_handle* handle) {
    return opened(handle)->replication.count;
}
LOOM_EXPORT void loom_replication_cache_each(loom_handle* handle, loom_record_fn visit, void* context) {
    const replication_cache& cache = opened(handle)->replication;
    const u64 kept = std::min<u64>(cache.count, cache.latest.size());
    for (u64 place = cache.count - kept; place < cache.count; ++place) {
        const replication_cache::seen& each = cache.latest[place % cache.latest.size()];
        visit(each.table, each.record, place + 1, context);
    }
}

// ------------------------------------------------------------------------------------- pending destruction

LOOM_EXPORT void loomdb_request_record_destroy(loom_handle* handle, uint32_t domain, loom_table_record* record,
                                               uint32_t* err) {
    if (*err) return;
    if (!record) return fail(handle, err, LOOM_EINVAL, "there is no record");
    if (!record->table) return fail(handle, err, LOOM_ENOENT, "the record belongs to no table");
    if (record->record_flags & REC_PENDING_DESTROY) return;
    const write_scope scope(*opened(handle));
    if (!scope) return set_error(handle, err, scope.error());
    const auto raise = [&](auto& counter) {
        handle->write_hook(handle, &counter, sizeof counter, domain, nullptr);
        ++counter;
    };
    handle->write_hook(handle, &record->record_flags, sizeof record->record_flags, domain, record);
    record->record_flags |= REC_PENDING_DESTROY;
    raise(record->table->pending_destroy_count);
    raise(handle->pending_totals->pending_destroy);
}

// -------------------------------------------------------------------------------------------------- tenants

LOOM_EXPORT void loom_set_tenant(uint16_t tenant) { current_tenant = tenant; }
LOOM_EXPORT void mt_get_tenant_id(uint16_t* id) { *id = current_tenant; }

/// A record is in the tree when it is counted, and out of it when it is no longer: too late to refuse it. So a
/// table without memory for a count is marked, and what has no count in it is found by a walk.
LOOM_EXPORT void loomdb_update_tenant_counter(loom_handle* handle, uint32_t, loom_table* table, uint32_t up,
                                              uint16_t tenant, uint8_t src, uint32_t* err) {
    if (*err) return;
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return set_error(handle, err, scope.error());
    arena& memory = own->db->memory;
    table_words& words = words_of(table);
    const bool marked = words.marks & table_not_all_counted;
    tenant_node* node = words.tenants ? find_count(*words.tenants, tenant, src) : nullptr;
    if (!up && !(node && node->count) && !marked)
        return fail(handle, err, LOOM_ENOENT, "tenant %u has no record of source %u in the table", tenant, src);
    if (node) {
        memory.assign(node->count, up ? node->count + 1 : node->count - 1);
    } else if (up) {
        node = open_count(*own, table, tenant, src);
        if (node)
            memory.assign(node->count, marked ? walked_count(table, tenant, &src) : 1);
        else
            memory.assign(words.marks, words.marks | table_not_all_counted);
    }
}

LOOM_EXPORT void loomdb_get_tenant_counter(loom_handle*, uint32_t, loom_table* table, uint32_t* count,
                                           uint16_t tenant, const uint8_t* src) {
    *count = 0;
    if (words_of(table).marks & table_not_all_counted) {
        *count = walked_count(table, tenant, src);
    } else if (const tenant_table* counts = words_of(table).tenants) {
        counts->each([&](const tenant_node& node) {
            if (node.tenant == tenant && (!src || node.src == *src)) *count += node.count;
        });
    }
}

// ------------------------------------------------------------------------------------------ stored locations

LOOM_EXPORT uint32_t loom_record_set_location(loom_handle* handle, uint32_t domain, loom_table_record* record,
                                              const char* location) {
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return scope.error();
    location_node* node = location ? open_location(*own, location) : nullptr;
    if (location && !node) return LOOM_ENOMEM;
    u32 err = 0;
    if (record->location) loomlib_record_dereference_loc(handle, domain, record, &err);
    own->db->memory.assign(record->location, reinterpret_cast<u64>(node));
    return done(err);
}
LOOM_EXPORT const char* loom_record_location(const loom_table_record* record) {
    return record->location ? reinterpret_cast<const location_node*>(record->location)->text() : nullptr;
}

LOOM_EXPORT void loomlib_record_dereference_loc(loom_handle* handle, uint32_t, loom_table_record* record,
                                                uint32_t* err) {
    if (*err || !record->location) return;
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return set_error(handle, err, scope.error());
    arena& memory = own->db->memory;
    auto* node = reinterpret_cast<location_node*>(record->location);
    if (!memory.contains(node) || node->count == 0)
        return fail(handle, err, LOOM_EINVAL, "the record's location is none of this database's");
    memory.assign(node->count, node->count - 1);
    memory.assign(record->location, u64{0});
    if (node->count) return;
    own->db->root()->locations.remove(memory, node);
    memory.release(node);
}
