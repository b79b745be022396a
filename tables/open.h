// Opening a table: find it by path or id, or create it and enter it in the table list and the table of contents.
// Freeing stands in free.h.
#pragma once

#include "tables/table_model.h"

#include <stdio.h>

namespace trellis::table {

/// How a table was opened; kept in the table object.
enum class open_mode : u32 { by_name = 0, by_id = 1, automatic_id = 2 };

/// Paths, and keys of the arena, terminator included.
constexpr size_t path_size = 208;
struct path_text {
    char text[path_size];
};

/// Formats into a path; false with error 7 when it does not fit.
template <class... Argument>
inline bool format_path(const call& c, path_text& path, const char* format, Argument... argument) {
    const int length = snprintf(path.text, path_size, format, argument...);
    if (length >= 0 && static_cast<size_t>(length) < path_size) return true;
    c.fail(LOOM_E2BIG);
    return false;
}

/// The process's shortcut to a table type's block of ids. A process can serve several arenas in turn, so that it
/// counts only while the pointer lies in the handle's arena. No lock guards it: each thread uses what it has
/// proved.
template <class T>
class id_root_cache {
  public:
    static loom_table_id_root* get() { return __atomic_load_n(&root_, __ATOMIC_RELAXED); }
    static void set(loom_table_id_root* root) { __atomic_store_n(&root_, root, __ATOMIC_RELAXED); }

  private:
    static inline loom_table_id_root* root_ = nullptr;
};

/// Finds the block of ids: null when the arena has none, or with an error when its key is too long.
template <class T>
inline loom_table_id_root* find_id_root(const call& c, path_text& key) {
    loom_table_id_root* root = id_root_cache<T>::get();
    void* arena = c.handle->alloc_ctx;
    if (root != nullptr && arbor_in_range(arena, root) != 0) return root;
    if (!format_path(c, key, "__loom_TBI__%s", T::luid_text())) return nullptr;
    root = static_cast<loom_table_id_root*>(arbor_get_key(arena, key.text));
    id_root_cache<T>::set(root);
    return root;
}

/// Makes the block of ids. It outlives every domain.
template <class T>
inline loom_table_id_root* make_id_root(const call& c, const path_text& key) {
    loom_handle* handle = c.handle;
    void* block = handle->alloc(handle->alloc_ctx, LOOM_DOMAIN_NONE, sizeof(loom_table_id_root));
    if (block == nullptr) {
        c.fail(LOOM_ENOMEM);
        return nullptr;
    }
    memset(block, 0, sizeof(loom_table_id_root));
    auto* root = static_cast<loom_table_id_root*>(block);
    id_root_cache<T>::set(root);
    if (arbor_set_key(handle->alloc_ctx, key.text, block) != 0) return root;
    say<T, says::table_open_internal_id_root_key_refused>();
    handle->free(handle->alloc_ctx, LOOM_DOMAIN_NONE, block);
    id_root_cache<T>::set(nullptr);
    return nullptr;
}

/// A name with a slash is a path, cut where it is too long; any other name gets the luid behind it, so that one
/// short name means another path in each table type.
template <class T>
inline bool path_of_name(const call& c, path_text& path, const char* name) {
    if (name == nullptr || strchr(name, '/') == nullptr)
        return format_path(c, path, "%s/%s", name == nullptr ? "(null)" : name, T::luid_text());
    strncpy(path.text, name, path_size - 1);
    path.text[path_size - 1] = '\0';
    return true;
}

/// Gives a new table its id and moves the next id past it; ids may be skipped.
inline void take_id(const call& c, loom_table* table, loom_table_id_root* root, u64 id) {
    if (id > root->next_id) c.store<u64>(&root->next_id, id, nullptr);
    table->table_id = id;
    c.store<u32>(&root->open_tables, root->open_tables + 1, nullptr);
    c.store<u64>(&root->next_id, root->next_id + 1, nullptr);
}

/// Appends a new table to the database's list of all tables.
template <class T>
inline void append_to_list(const call& c, loom_table_list* list, loom_table* table) {
    constexpr says refused = says::table_open_internal_arena_refused;
    store_link<T, refused, 1, loom_table*>(c, &table->toc_next, nullptr, table);
    store_link<T, refused, 2, loom_table**>(c, &table->toc_prev, list->last, table);
    store_link<T, refused, 3, loom_table*>(c, list->last, table, list);
    store_link<T, refused, 4, loom_table**>(c, &list->last, &table->toc_next, list);
}

/// The domain's table of contents, or null with what there is to say about it.
template <class T>
inline loom_toc_root* contents_to_open(const call& c, u32 open_type, bool may_write) {
    const bool create = open_type == 0;
    loom_handle* handle = c.handle;
    loom_toc_root* contents = create ? loomdb_database_toc_open(handle, c.domain, c.error)
                                     : loomdb_database_toc_get(handle, c.domain, c.error);
    if (c.pending()) {
        say<T, says::table_open_internal_toc_failed>(error_text(*c.error));
        return nullptr;
    }
    if (contents != nullptr) return contents;
    if (create && may_write) die<T, says::table_open_internal_no_toc_root_to_write>(handle->db_name);
    say<T, says::table_open_internal_no_toc_root>(handle->db_name, open_type);
    return nullptr;
}

/// The table under a path or, with a null path, under an id. Copy tells the two places in the trace apart.
template <class T, u32 Copy>
inline loom_table* look_up(const call& c, const char* path, u64 id) {
    const bool by_name = path != nullptr;
    const u32 length = by_name ? static_cast<u32>(strlen(path)) : 0;
    loom_table* table = loomdb_database_toc_get_table_root(c.handle, c.domain, path, length, id, T::luid(),
                                                           LOOM_LUID_SIZE, by_name ? 1 : 0, c.error);
    if (!c.pending()) return table;
    say<T, says::table_open_internal_lookup_failed, Copy>(error_text(*c.error));
    return nullptr;
}

/// The trace of a table that comes into no table of contents.
template <class T>
inline void say_not_inserted(u32 dynamic) {
    say<T, says::table_open_internal_toc_insert_failed>(dynamic != 0 ? "dynamic" : "static");
}

/// A new table object in the caller's domain, zero but for its type and mode.
template <class T>
inline loom_table* make_table(const call& c, open_mode mode, u32 dynamic) {
    auto* table = static_cast<loom_table*>(c.allocate(sizeof(loom_table)));
    if (table == nullptr) {
        c.fail(LOOM_ENOMEM);
        return nullptr;
    }
    memset(table, 0, sizeof(loom_table));
    announce_to_arena<T, says::table_open_internal_arena_refused, 0>(c, LOOM_DOMAIN_NONE, &table->db_word,
                                                                     sizeof table->db_word, nullptr);
    table->db_word = 0;
    table->header.loom_tinfo = resident_type_info<typename T::bundle>(c, T::type_info());
    if (table->header.loom_tinfo == nullptr) {
        // The database has no room for the type's description. Nobody knows of the table yet.
        say_not_inserted<T>(dynamic);
        c.release(table);
        c.fail(LOOM_ENOMEM);
        return nullptr;
    }
    table->open_mode = static_cast<u32>(mode);
    if (dynamic != 0) table->table_flags = static_cast<u8>(table->table_flags | LOOM_TABLE_DYNAMIC);
    return table;
}

/// Makes a new table known: its object reference, its place in the table of contents, its count.
template <class T>
inline loom_table* register_table(const call& c, loom_table* table, u64 ior, u32 dynamic) {
    if (loom_oid_mapping_create(c.handle, c.domain, table, 2, dynamic, ior, c.error) == 0 || c.pending())
        die<T, says::table_open_internal_no_mapping>();
    loomdb_database_toc_insert(c.handle, c.domain, table, dynamic, c.error);
    if (c.pending()) {
        say_not_inserted<T>(dynamic);
        return nullptr;
    }
    const loom_type_info* tinfo = table->header.loom_tinfo;
    loom_variant_entry* statistics =
        statistics_of<T, says::table_open_internal_corrupted_tinfo, says::table_open_internal_no_variant_table,
                      says::table_open_internal_variant_beyond_table>(tinfo);
    count_one(tinfo, &statistics->objects_created);
    *c.error = 0;
    report(c, subject::table, table, nullptr);
    mark_dirty(c, table);
    return table;
}

template <class T>
loom_table* table_open_internal(loom_handle* handle, u32 domain, const char* name, u32 open_type, u64 id, u64 ior,
                                u32 dynamic, u32 mode_word, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return nullptr;
    const bool create = open_type == 0;
    const bool may_write = loomlib_db_is_shared() == 0 || loomlib_database_is_write_locked(handle) != 0;
    if (!may_write && create) die<T, says::table_open_internal_create_without_lock>();
    T::bundle::trace_init();
    trans_avl_trace_init();
    trans_gbt_trace_init();

    loom_table_list* list = create ? loomlib_database_table_toc_create(handle, LOOM_DOMAIN_NONE, err)
                                   : loomlib_database_table_toc_get(handle, LOOM_DOMAIN_NONE, err);
    if (c.pending()) return nullptr;
    if (list == nullptr) {
        say<T, says::table_open_internal_no_table_list>(handle->db_name);
        return nullptr;
    }
    if (contents_to_open<T>(c, open_type, may_write) == nullptr) return nullptr;

    const open_mode mode{mode_word};
    path_text path{};
    loom_table_id_root* root = nullptr;
    loom_table* found = nullptr;
    if (mode == open_mode::by_name) {
        if (!path_of_name<T>(c, path, name)) return nullptr;
        found = look_up<T, 1>(c, path.text, 0);
        if (c.pending()) return nullptr;
    } else {
        root = find_id_root<T>(c, path);
        if (c.pending()) return nullptr;
        if (root == nullptr && !create) {
            say<T, says::table_open_internal_reader_without_id_root>();
            return nullptr;
        }
        if (root == nullptr) root = make_id_root<T>(c, path);
        if (root == nullptr) return nullptr;
        if (mode == open_mode::automatic_id) {
            id = root->next_id;
        } else {
            found = look_up<T, 0>(c, nullptr, id);
            if (c.pending()) return nullptr;
        }
    }
    if (found != nullptr) {
        report(c, subject::table, found, nullptr);
        return found;
    }
    if (!create) return nullptr;

    loom_table* table = make_table<T>(c, mode, dynamic);
    if (table == nullptr) return nullptr;
    if (mode == open_mode::by_name)
        memcpy(table->table_name, path.text, path_size);
    else
        take_id(c, table, root, id);
    append_to_list<T>(c, list, table);
    return register_table<T>(c, table, ior, dynamic);
}

template <class T>
loom_table* table_open(loom_handle* handle, u32 domain, const char* name, u32 open_type, u32* err) {
    return T::table_open_internal(handle, domain, name, open_type, 0, 0, 0, static_cast<u32>(open_mode::by_name),
                                  err);
}

template <class T>
loom_table* table_open_by_id(loom_handle* handle, u32 domain, u64 id, u32 open_type, u32* err) {
    return T::table_open_internal(handle, domain, nullptr, open_type, id, 0, 0, static_cast<u32>(open_mode::by_id),
                                  err);
}

template <class T>
loom_table* table_open_auto_id(loom_handle* handle, u32 domain, u32 open_type, u32* err) {
    return T::table_open_internal(handle, domain, nullptr, open_type, 0, 0, 1,
                                  static_cast<u32>(open_mode::automatic_id), err);
}

template <class T>
loom_table* table_open_by_ior_with_name(loom_handle* handle, u32 domain, const char* name, u64 ior, u32 open_type,
                                        u32 dynamic, u32* err) {
    return T::table_open_internal(handle, domain, name, open_type, 0, ior, dynamic,
                                  static_cast<u32>(open_mode::by_name), err);
}

template <class T>
loom_table* table_open_by_ior_with_id(loom_handle* handle, u32 domain, u64 id, u64 ior, u32 open_type, u32 dynamic,
                                      u32* err) {
    return T::table_open_internal(handle, domain, nullptr, open_type, id, ior, dynamic,
                                  static_cast<u32>(open_mode::by_id), err);
}

template <class T>
loom_table* table_open_cr(loom_handle* handle, u32 open_type, u32 mode, const char* name, u64 id) {
    const u32 dynamic = mode == static_cast<u32>(open_mode::automatic_id) ? 1 : 0;
    return T::table_open_internal(handle, handle->cr_domain, name, open_type, id, 0, dynamic, mode,
                                  &handle->last_error);
}

template <class T>
void get_luid(loom_handle* handle, u32 domain, const void* object, u8* luid, u32* err) {
    loom_get_luid(handle, domain, object, luid, err);
}

} // namespace trellis::table
