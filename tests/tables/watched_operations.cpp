// Runtime operations that the table layer calls, written into the test handle's log and made to fail on demand.
#include "forms.h"

#include <loom/loom.h>

#include <dlfcn.h>

#include <cstdlib>
#include <optional>

using trellis::u16;
using trellis::u32;
using trellis::u64;
using trellis::u8;
using trellis::testing::test_handle;

namespace {
std::map<std::string, u32, std::less<>> failures;
std::optional<bool> shared; // the lock, while the database counts as shared
} // namespace

void let_fail(loom_handle*, u32, const char* operation, u32 number) { failures[operation] = number; }
void let_work(loom_handle*, u32, const char* operation) { failures.erase(operation); }
void count_as_shared(loom_handle*, u32, u32 write_locked) { shared = write_locked != 0; }

namespace {

template <class Function>
Function* next(const char* name) {
    auto* found = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    if (found == nullptr) abort();
    return found;
}

void log(const loom_handle* handle, const std::string& line) {
    if (test_handle* seen = test_handle::of_handle(handle)) seen->log(line);
}
std::string named(const loom_handle* handle, const void* address) {
    test_handle* seen = test_handle::of_handle(handle);
    return seen == nullptr ? "?" : seen->name_of(address);
}
/// Stores the number the operation is to fail with, if it is.
bool fails(const char* operation, u32* err) {
    const auto found = failures.find(operation);
    if (found == failures.end()) return false;
    if (err != nullptr) *err = found->second;
    return true;
}

} // namespace

#define WATCHED extern "C" __attribute__((visibility("default")))
#define REAL(name) static auto* const real = next<decltype(name)>(#name)

WATCHED void loomrepl_add_to_cache(loom_handle* handle, u32 domain, loom_table* table, loom_table_record* record,
                                   u32* err) {
    REAL(loomrepl_add_to_cache);
    log(handle, "cache " + named(handle, record));
    if (!fails("loomrepl_add_to_cache", err)) real(handle, domain, table, record, err);
}

WATCHED void loomdb_database_toc_insert(loom_handle* handle, u32 domain, loom_table* table, u32 dynamic,
                                        u32* err) {
    REAL(loomdb_database_toc_insert);
    log(handle, "toc insert " + named(handle, table));
    if (!fails("loomdb_database_toc_insert", err)) real(handle, domain, table, dynamic, err);
}

WATCHED void loomdb_database_toc_delete(loom_handle* handle, u32 domain, loom_table* table, u32* err) {
    REAL(loomdb_database_toc_delete);
    log(handle, "toc delete " + named(handle, table));
    if (!fails("loomdb_database_toc_delete", err)) real(handle, domain, table, err);
}

WATCHED u64 loom_oid_mapping_create(loom_handle* handle, u32 domain, void* object, u32 kind, u32 dynamic, u64 ior,
                                    u32* err) {
    REAL(loom_oid_mapping_create);
    log(handle,
        "map " + named(handle, object) + " dynamic " + std::to_string(dynamic) + " ior " + std::to_string(ior));
    return fails("loom_oid_mapping_create", nullptr) ? 0 : real(handle, domain, object, kind, dynamic, ior, err);
}

WATCHED u32 loom_request_oid_mapping_destroy(loom_handle* handle, u32 domain, void* object, u32* err) {
    REAL(loom_request_oid_mapping_destroy);
    log(handle, "unmap " + named(handle, object));
    return fails("loom_request_oid_mapping_destroy", err) ? 0 : real(handle, domain, object, err);
}

WATCHED void loom_hd_mapping_destroy(loom_handle* handle, u32 domain, void* object, u32* err) {
    REAL(loom_hd_mapping_destroy);
    log(handle, "tracking map without " + named(handle, object));
    if (!fails("loom_hd_mapping_destroy", err)) real(handle, domain, object, err);
}

WATCHED void loomlib_record_dereference_loc(loom_handle* handle, u32 domain, loom_table_record* record, u32* err) {
    REAL(loomlib_record_dereference_loc);
    log(handle, "location of " + named(handle, record));
    if (!fails("loomlib_record_dereference_loc", err)) real(handle, domain, record, err);
}

WATCHED void loomgc_database_gc_list_remove(loom_handle* handle, u32 domain, loom_table* table, u32* err) {
    REAL(loomgc_database_gc_list_remove);
    log(handle, "gc list without " + named(handle, table));
    if (!fails("loomgc_database_gc_list_remove", err)) real(handle, domain, table, err);
}

WATCHED void loomgc_validate_table_delete(loom_handle* handle, loom_table* table) {
    log(handle, "validate " + named(handle, table));
}

WATCHED void loomdb_request_record_destroy(loom_handle* handle, u32 domain, loom_table_record* record, u32* err) {
    REAL(loomdb_request_record_destroy);
    log(handle, "request end of " + named(handle, record));
    if (!fails("loomdb_request_record_destroy", err)) real(handle, domain, record, err);
}

WATCHED void loomdb_enq_rec_move_write_cursor_internal(loom_handle* handle, u32 domain, loom_table* table,
                                                       loom_table_record* record, u32* err) {
    REAL(loomdb_enq_rec_move_write_cursor_internal);
    log(handle, "enqueue " + named(handle, record));
    real(handle, domain, table, record, err);
}

WATCHED void loomdb_update_tenant_counter(loom_handle* handle, u32 domain, loom_table* table, u32 up, u16 tenant,
                                          u8 src, u32* err) {
    REAL(loomdb_update_tenant_counter);
    log(handle,
        "tenant " + std::to_string(tenant) + (up != 0 ? " up" : " down") + " source " + std::to_string(src));
    real(handle, domain, table, up, tenant, src, err);
}

WATCHED void loomdb_record_containment(loom_handle* handle, u32 domain, u32 kind, const void* subject,
                                       const void* parent, u32 one) {
    REAL(loomdb_record_containment);
    log(handle, "kind " + std::to_string(kind));
    real(handle, domain, kind, subject, parent, one);
}

WATCHED u32 arbor_set_key(void* arena, const char* key, void* block) {
    REAL(arbor_set_key);
    if (test_handle* seen = test_handle::of_context(arena)) seen->log(std::string("key ") + key);
    return fails("arbor_set_key", nullptr) ? 0 : real(arena, key, block);
}

WATCHED loom_toc_root* loomdb_database_toc_open(loom_handle* handle, u32 domain, u32* err) {
    REAL(loomdb_database_toc_open);
    return fails("loomdb_database_toc_open", err) ? nullptr : real(handle, domain, err);
}

WATCHED loom_table* loomdb_database_toc_get_table_root(loom_handle* handle, u32 domain, const char* path,
                                                       u32 path_length, u64 id, const u8* luid, u32 luid_length,
                                                       u32 by_name, u32* err) {
    REAL(loomdb_database_toc_get_table_root);
    if (fails("loomdb_database_toc_get_table_root", err)) return nullptr;
    return real(handle, domain, path, path_length, id, luid, luid_length, by_name, err);
}

WATCHED u32 loomlib_db_is_shared(void) {
    REAL(loomlib_db_is_shared);
    return shared ? 1 : real();
}

WATCHED u32 loomlib_database_is_write_locked(loom_handle* handle) {
    REAL(loomlib_database_is_write_locked);
    return shared ? static_cast<u32>(*shared) : real(handle);
}
