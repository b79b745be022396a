// The fake bundle and the places of test files.
#include "tests/runtime/support.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace runtime_test {

namespace {
/// Names the outermost directory to processes that a test starts: one that is meant to die makes its own inside,
/// so that it leaves nothing behind.
constexpr char outermost[] = "LOOM_TEST_DIRECTORY";
} // namespace

scratch_directory::scratch_directory() {
    const char* holder = std::getenv(outermost);
    const auto parent = holder != nullptr ? std::filesystem::path(holder) : std::filesystem::temp_directory_path();
    std::string name = (parent / "loom-test-XXXXXX").string();
    if (!mkdtemp(name.data())) std::abort();
    path_ = name;
    is_outermost_ = holder == nullptr;
    if (is_outermost_) setenv(outermost, path_.c_str(), 1);
}
scratch_directory::~scratch_directory() {
    if (is_outermost_) unsetenv(outermost);
    std::filesystem::remove_all(path_);
}

handle_ptr open_private(std::uint32_t kind, std::uint32_t tracking) {
    loom_open_options options{};
    options.size = sizeof options;
    options.kind = kind;
    options.tracking = tracking;
    handle_ptr handle(loom_open(&options));
    EXPECT_TRUE(handle) << loom_error_text();
    return handle;
}

handle_ptr open_mapped(const std::string& path, std::uint32_t flags) {
    handle_ptr handle(loom_open_mapped(path.c_str(), flags));
    EXPECT_TRUE(handle) << loom_error_text();
    return handle;
}

std::string name_of(memory_kind kind) {
    switch (kind) {
    case memory_kind::private_memory: return "private_memory";
    case memory_kind::manifested_memory: return "manifested_memory";
    case memory_kind::shared_file: return "shared_file";
    default: return "exclusive_file";
    }
}

handle_ptr open_kind(memory_kind kind, const scratch_directory& directory) {
    switch (kind) {
    case memory_kind::private_memory: return open_private();
    case memory_kind::manifested_memory: return open_private(LOOM_DB_PRIVATE_MANIFESTED);
    case memory_kind::shared_file: return open_mapped(directory.file("shared.loom"));
    default: return open_mapped(directory.file("exclusive.loom"), LOOM_OPEN_CREATE | LOOM_OPEN_EXCLUSIVE);
    }
}

loom_arena_usage usage_of(loom_handle* handle) {
    loom_arena_usage usage{};
    loom_arena_usage_get(handle, &usage);
    return usage;
}

void expect_sound(loom_handle* handle) { EXPECT_EQ(loom_arena_verify(handle), 0u) << loom_error_text(); }

void in_write_section::SetUp() {
    load_fake_bundle();
    loom_write_begin(handle);
}
void in_write_section::TearDown() {
    EXPECT_EQ(loom_write_commit(handle), 0u);
    expect_sound(handle);
}

fake_type::fake_type(const char* name, const char* kind, std::int8_t variants, const char* module) {
    info.magic = LOOM_TYPE_INFO_MAGIC;
    for (std::size_t i = 0; i < 16; ++i)
        info.luid[i] =
            static_cast<std::uint8_t>(std::hash<std::string>{}(name + std::string(1, static_cast<char>(i))));
    for (std::size_t i = 0; i < 16; ++i)
        std::snprintf(info.luid_text + 2 * i, 3, "%02x", info.luid[i]);
    std::strncpy(info.name, name, sizeof info.name - 1);
    std::strncpy(info.module, module, sizeof info.module - 1);
    std::strncpy(info.kind, kind, sizeof info.kind - 1);
    info.runtime_slot = -1;
    info.variant_table = &table;
    table.n_variants = variants;
    table.entries = entries.data();
    for (std::uint32_t i = 0; i < entries.size(); ++i) {
        entries[i].variant = i;
        entries[i].used_length = 24 + 8 * i;
    }
}

void manifest_type(loom_handle* handle, std::uint32_t domain, const fake_type& type, std::uint32_t* err) {
    const loom_type_info& source = type.info;
    auto* info = static_cast<loom_type_info*>(handle->tinfo_lookup(handle->tinfo_ctx, domain, source.luid_text));
    const bool created = !info;
    if (created) {
        info = static_cast<loom_type_info*>(
            handle->shared_alloc(handle->shared_alloc_ctx, LOOM_DOMAIN_NONE, LOOM_MANIFESTED_TYPE_INFO_SIZE));
        if (!info) {
            *err = LOOM_ENOMEM;
            return;
        }
        std::memset(static_cast<void*>(info), 0, LOOM_MANIFESTED_TYPE_INFO_SIZE);
        *info = source;
        info->manifested_kind = handle->db_kind;
        handle->tinfo_insert(handle->tinfo_ctx, domain, info->luid_text, info);
    }
    loom_update_variant_info(handle, domain, info, &source, created);
}

fake_object* new_object(loom_handle* handle, loom_type_info* info) {
    auto* object = static_cast<fake_object*>(handle->alloc(handle->alloc_ctx, 1, sizeof(fake_object)));
    if (!object) return nullptr;
    std::memset(static_cast<void*>(object), 0, sizeof *object);
    object->header.loom_tinfo = info;
    return object;
}

fake_type fake_table_type("fake_table", "table");

namespace {
std::int32_t compare_records(const e_avl_node* a, const e_avl_node* b) {
    const auto key = [](const e_avl_node* node) {
        return reinterpret_cast<const fake_record*>(reinterpret_cast<const char*>(node) -
                                                    offsetof(loom_table_record, avl_node))
            ->key;
    };
    return key(a) < key(b) ? 0 : key(a) == key(b) ? 1 : 2;
}

template <class T>
void hooked(loom_handle* handle, T& place, std::type_identity_t<T> value) {
    handle->write_hook(handle, &place, sizeof place, 1, nullptr);
    place = value;
}

/// Counts for the tenant at work, as a bundle may.
void count_for_tenant(loom_handle* handle, std::uint32_t domain, loom_table* table, std::uint32_t up,
                      std::uint32_t* err) {
    std::uint16_t tenant = 0;
    mt_get_tenant_id(&tenant);
    if (tenant != 0) loomdb_update_tenant_counter(handle, domain, table, up, tenant, 1, err);
}

void fake_delete(loom_handle* handle, std::uint32_t domain, loom_table* table, loom_table_record* record,
                 std::uint32_t* err) {
    if (!e_avl_delete(handle->alloc_ctx, domain, &table->avl_root, &record->avl_node, &table->avl_aux,
                      compare_records)) {
        *err = LOOM_ENOENT;
        return;
    }
    hooked(handle, record->table, nullptr);
    hooked(handle, table->record_count, table->record_count - 1);
    if (record->record_flags & REC_PENDING_DESTROY) {
        hooked(handle, table->pending_destroy_count, table->pending_destroy_count - 1);
        hooked(handle, handle->pending_totals->pending_destroy, handle->pending_totals->pending_destroy - 1);
    }
    count_for_tenant(handle, domain, table, 0, err);
}

void fake_destroy_record(loom_handle* handle, std::uint32_t domain, loom_table_record* record, std::uint32_t*) {
    handle->free(handle->alloc_ctx, domain, record);
}

void fake_table_free(loom_handle* handle, std::uint32_t domain, loom_table* table, std::uint32_t* err) {
    const loom_toc_root* root = loomdb_database_toc_open(handle, domain, err);
    const bool shared = root && (root->flags & LOOM_TOC_SHARED);
    if (!shared || !handle->gc_context) loomdb_database_toc_delete(handle, domain, table, err);
    if (*err || (shared && !handle->gc_context)) return;
    if (!loom_request_oid_mapping_destroy(handle, domain, table, err)) {
        *err = LOOM_EAGAIN;
        return;
    }
    loom_table_list* list = loomlib_database_table_toc_create(handle, LOOM_DOMAIN_NONE, err);
    arbor_set_range(handle->alloc_ctx, table->toc_prev, sizeof *table->toc_prev, domain);
    *table->toc_prev = table->toc_next;
    loom_table**& back = table->toc_next ? table->toc_next->toc_prev : list->last;
    arbor_set_range(handle->alloc_ctx, &back, sizeof back, domain);
    back = table->toc_prev;
    if (handle->gc_validation) loomgc_validate_table_delete(handle, table);
    handle->free(handle->alloc_ctx, domain, table);
}

loom_table_vft make_vft() {
    loom_table_vft vft{};
    vft.slots[LOOM_VFT_LUID] = fake_table_type.info.luid;
    vft.slots[LOOM_VFT_DELETE] = reinterpret_cast<const void*>(fake_delete);
    vft.slots[LOOM_VFT_DESTROY_RECORD] = reinterpret_cast<const void*>(fake_destroy_record);
    vft.slots[LOOM_VFT_TABLE_FREE] = reinterpret_cast<const void*>(fake_table_free);
    return vft;
}

void fake_table_get_vft(loom_handle*, std::uint32_t, const std::uint8_t* luid, const loom_table_vft** out,
                        std::uint32_t* err) {
    const bool known = std::memcmp(luid, fake_table_type.info.luid, 16) == 0;
    *out = known ? &fake_table_vft : nullptr;
    if (!known) *err = LOOM_ENOENT;
}
} // namespace

const loom_table_vft fake_table_vft = make_vft();

loom_table* fake_table_find(loom_handle* handle, std::uint32_t domain, const std::string& name,
                            std::uint32_t* err) {
    return loomdb_database_toc_get_table_root(handle, domain, name.c_str(),
                                              static_cast<std::uint32_t>(name.size()), 0,
                                              fake_table_type.info.luid, 16, 1, err);
}

loom_table* fake_table_open(loom_handle* handle, std::uint32_t domain, const char* name, std::uint32_t* err) {
    loom_table_list* list = loomlib_database_table_toc_create(handle, LOOM_DOMAIN_NONE, err);
    loomdb_database_toc_open(handle, domain, err);
    if (loom_table* found = fake_table_find(handle, domain, name, err)) return found;
    auto* table = static_cast<loom_table*>(handle->alloc(handle->alloc_ctx, domain, sizeof(loom_table)));
    if (!table || *err) return nullptr;
    std::memset(static_cast<void*>(table), 0, sizeof *table);
    table->header.loom_tinfo = loom_type_info_ptr_get(
        handle, domain, &fake_table_type.info,
        [](loom_handle* h, std::uint32_t d, std::uint32_t* e) { manifest_type(h, d, fake_table_type, e); });
    std::strncpy(table->table_name, name, sizeof table->table_name - 1);
    table->toc_prev = list->last;
    arbor_set_range(handle->alloc_ctx, list->last, sizeof *list->last, domain);
    *list->last = table;
    arbor_set_range(handle->alloc_ctx, &list->last, sizeof list->last, domain);
    list->last = &table->toc_next;
    loom_oid_mapping_create(handle, domain, table, 2, 0, 0, err);
    loomdb_database_toc_insert(handle, domain, table, 0, err);
    return *err ? nullptr : table;
}

fake_record* fake_table_add(loom_handle* handle, std::uint32_t domain, loom_table* table, std::uint32_t key,
                            std::uint32_t* err) {
    auto* made = static_cast<fake_record*>(handle->alloc(handle->alloc_ctx, domain, sizeof(fake_record)));
    if (!made) return nullptr;
    std::memset(static_cast<void*>(made), 0, sizeof *made);
    made->key = key;
    made->record.ref_count = 1;
    made->record.src = 1;
    mt_get_tenant_id(&made->record.tenant_id);
    if (!e_avl_insert(handle->alloc_ctx, domain, &table->avl_root, &made->record.avl_node, &table->avl_aux,
                      compare_records)) {
        handle->free(handle->alloc_ctx, domain, made);
        *err = LOOM_EEXIST;
        return nullptr;
    }
    hooked(handle, made->record.table, table);
    hooked(handle, table->record_count, table->record_count + 1);
    count_for_tenant(handle, domain, table, 1, err);
    if (loomdb_table_implicit_write_cursor_enabled(handle, domain, table, err))
        loomdb_enq_rec_move_write_cursor_internal(handle, domain, table, &made->record, err);
    return made;
}

std::uint64_t* cells_of(loom_handle* handle) {
    return static_cast<std::uint64_t*>(arbor_get_key(handle->alloc_ctx, "cells"));
}

void set_cell(loom_handle* handle, std::size_t cell, std::uint64_t value) {
    hooked(handle, cells_of(handle)[cell], value);
}

void overwrite_large(loom_handle* handle, std::size_t times) {
    auto* block = static_cast<char*>(arbor_get_key(handle->alloc_ctx, "large"));
    for (std::size_t i = 0; i < times; ++i) {
        // From another place each time: a range that is known already is not logged again.
        handle->write_hook(handle, block + i, large_size - i, 1, nullptr);
        std::memset(block + i, static_cast<int>(i), large_size - i);
    }
}

void load_fake_bundle() {
    static loom_type_info* const types[] = {&fake_table_type.info, nullptr};
    static loom_module_node node = {"fake_bundle", types, nullptr, nullptr};
    static std::once_flag once;
    std::call_once(once, [] {
        node.previous = loom_module_tot_root.last;
        *loom_module_tot_root.last = &node;
        loom_module_tot_root.last = &node.next;
        ++loom_module_tot_root.count;
    });
}

} // namespace runtime_test

extern "C" {
__attribute__((visibility("default"))) loom_table_get_vft_fn fake_bundle_fetch_table_get_vft(void) {
    return runtime_test::fake_table_get_vft;
}
/// Found by the runtime by its name when an object of the type was put off.
unsigned put_off_objects_destroyed = 0;
__attribute__((visibility("default"))) void put_off_type_destroy(loom_handle* handle, std::uint32_t domain,
                                                                 void* object) {
    std::uint32_t err = 0;
    if (!loom_request_oid_mapping_destroy(handle, domain, object, &err)) return;
    ++put_off_objects_destroyed;
    handle->free(handle->alloc_ctx, domain, object);
}
}
