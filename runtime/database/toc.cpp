// The list of all tables, and the tables of contents: one per domain, from paths and ids to tables.
//
// A TOC remembers the tables that it let go (table_out_of_toc): a second delete of such a table is forgiven, so
// that a free that was refused halfway can be repeated. In a TOC marked shared, a table that is taken out by
// anybody but the garbage collector waits for the collector, which finds requested ones of other TOCs by their
// marks.
#include "runtime/database/gc.h"
#include "runtime/database/table_entries.h"
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"
#include "runtime/oid/oid.h"

#include <cstring>

namespace loom {
namespace {
constexpr std::size_t longest_path = 207;

u64 hash_of_path(const char* path, std::size_t length) {
    u64 hash = 14695981039346656037u;
    for (std::size_t i = 0; i < length; ++i)
        hash = (hash ^ static_cast<u8>(path[i])) * 1099511628211u;
    return hash;
}
u64 hash_of_id(u64 id, const u8* luid) { return (id + 1) * 0x9E3779B97F4A7C15u ^ hash_of_bytes(luid); }

u64 hash_of_table(const loom_table& table) {
    return table.open_mode == 0 ? hash_of_path(table.table_name, strnlen(table.table_name, longest_path))
                                : hash_of_id(table.table_id, table.header.loom_tinfo->luid);
}

toc* find_toc(const database_root& root, u32 domain) {
    toc* each = root.tocs;
    while (each && each->domain != domain)
        each = each->next;
    return each;
}

/// Found or made; null with an error.
toc* open_toc(open_handle& handle, u32 domain, u32* err) {
    database_root& root = *handle.db->root();
    if (toc* found = find_toc(root, domain)) return found;
    const write_scope scope(handle);
    auto* made = scope ? static_cast<toc*>(handle.db->memory.allocate(sizeof(toc))) : nullptr;
    if (!made) {
        set_error(&handle.view, err, scope ? u32{LOOM_ENOMEM} : scope.error());
        return nullptr;
    }
    std::memset(static_cast<void*>(made), 0, sizeof *made);
    if (!made->tables.reserve(handle.db->memory)) {
        handle.db->memory.release(made);
        set_error(&handle.view, err, LOOM_ENOMEM);
        return nullptr;
    }
    made->root.flags = root.shared ? LOOM_TOC_SHARED : 0;
    made->domain = domain;
    made->next = root.tocs;
    handle.db->memory.assign(root.tocs, made);
    return made;
}

toc_entry* find_entry(const toc& contents, const loom_table* table) {
    return contents.tables.find(hash_of_table(*table), [&](const toc_entry& each) { return each.table == table; });
}

/// Where the TOC keeps what it knows of the table: beside the table's mapping.
table_entries* room_for_place(open_handle& handle, loom_table* table) {
    loom_oid_mapping* mapping = find_by_object(*handle.db->root(), table);
    table_entries* entries = mapping && mapping->kind == mapped_table ? entries_around(mapping) : nullptr;
    return entries && !entries->place.table ? entries : take_table_entries(handle);
}

toc_entry* find_path(const toc& contents, const char* path, u32 length) {
    return contents.tables.find(hash_of_path(path, length), [&](const toc_entry& each) {
        return each.table->open_mode == 0 && strnlen(each.table->table_name, longest_path) == length &&
               std::memcmp(each.table->table_name, path, length) == 0;
    });
}

toc_entry* find_id(const toc& contents, u64 id, const u8* luid) {
    return contents.tables.find(hash_of_id(id, luid), [&](const toc_entry& each) {
        return each.table->open_mode != 0 && each.table->table_id == id &&
               std::memcmp(each.table->header.loom_tinfo->luid, luid, 16) == 0;
    });
}
} // namespace
} // namespace loom

using namespace loom;

LOOM_EXPORT loom_table_list* loomlib_database_table_toc_get(loom_handle* handle, uint32_t, uint32_t* err) {
    return *err ? nullptr : opened(handle)->db->root()->tables;
}

LOOM_EXPORT loom_table_list* loomlib_database_table_toc_create(loom_handle* handle, uint32_t domain,
                                                               uint32_t* err) {
    open_handle* own = opened(handle);
    loom_table_list* list = loomlib_database_table_toc_get(handle, domain, err);
    if (*err || (list && own->db->root()->spare_entries)) return list;
    const write_scope scope(*own);
    if (list && !scope) return list; // who reads makes no table
    if (!scope || !reserve_table_entries(*own)) {
        set_error(handle, err, scope ? u32{LOOM_ENOMEM} : scope.error());
        return nullptr;
    }
    if (list) return list;
    list = static_cast<loom_table_list*>(own->db->memory.allocate(sizeof(loom_table_list)));
    if (!list) {
        set_error(handle, err, LOOM_ENOMEM);
        return nullptr;
    }
    *list = {nullptr, &list->first};
    own->db->memory.assign(own->db->root()->tables, list);
    return list;
}

LOOM_EXPORT void loom_each_table(loom_handle* handle, loom_table_fn visit, void* context) {
    const loom_table_list* list = opened(handle)->db->root()->tables;
    for (loom_table* table = list ? list->first : nullptr; table;) {
        loom_table* next = table->toc_next;
        if (visit(table, context)) return;
        table = next;
    }
}

LOOM_EXPORT loom_toc_root* loomdb_database_toc_get(loom_handle* handle, uint32_t domain, uint32_t* err) {
    toc* found = *err ? nullptr : find_toc(*opened(handle)->db->root(), domain);
    return found ? &found->root : nullptr;
}

LOOM_EXPORT loom_toc_root* loomdb_database_toc_open(loom_handle* handle, uint32_t domain, uint32_t* err) {
    if (*err) return nullptr;
    toc* contents = open_toc(*opened(handle), domain, err);
    return contents ? &contents->root : nullptr;
}

LOOM_EXPORT uint32_t loom_database_mark_shared(loom_handle* handle, uint32_t shared) {
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return scope.error();
    arena& memory = own->db->memory;
    database_root& root = *own->db->root();
    memory.assign(root.shared, shared != 0);
    for (toc* each = root.tocs; each; each = each->next)
        memory.assign(each->root.flags, static_cast<u8>(shared ? LOOM_TOC_SHARED : 0));
    return done();
}

LOOM_EXPORT loom_table* loomdb_database_toc_get_table_root(loom_handle* handle, uint32_t domain, const char* path,
                                                           uint32_t path_length, uint64_t id, const uint8_t* luid,
                                                           uint32_t luid_length, uint32_t by_name, uint32_t* err) {
    if (*err) return nullptr;
    if (luid_length != 16 || !luid || (by_name && (!path || path_length > longest_path))) {
        fail(handle, err, LOOM_EINVAL, "a table is looked for by a luid of 16 bytes and a path of at most %zu",
             longest_path);
        return nullptr;
    }
    const toc* contents = find_toc(*opened(handle)->db->root(), domain);
    if (!contents) return nullptr;
    const toc_entry* entry = by_name ? find_path(*contents, path, path_length) : find_id(*contents, id, luid);
    if (!entry) return nullptr;
    if (std::memcmp(entry->table->header.loom_tinfo->luid, luid, 16) != 0) {
        // A full path can name a table of another type. Its records are not what the caller takes them for.
        fail(handle, err, LOOM_EINVAL, "the table \"%.*s\" is of type %s, not of the type that is asked for",
             static_cast<int>(path_length), path, entry->table->header.loom_tinfo->name);
        return nullptr;
    }
    return entry->table;
}

LOOM_EXPORT void loomdb_database_toc_insert(loom_handle* handle, uint32_t domain, loom_table* table,
                                            uint32_t dynamic, uint32_t* err) {
    if (*err) return;
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return set_error(handle, err, scope.error());
    toc* contents = open_toc(*own, domain, err);
    if (!contents) return;
    const toc_entry* same =
        table->open_mode == 0
            ? find_path(*contents, table->table_name, static_cast<u32>(strnlen(table->table_name, longest_path)))
            : find_id(*contents, table->table_id, table->header.loom_tinfo->luid);
    if (same)
        return fail(handle, err, LOOM_EEXIST,
                    "a table \"%s\" of id %llu is there already; find it, or name another", table->table_name,
                    static_cast<unsigned long long>(table->table_id));
    arena& memory = own->db->memory;
    table_entries* entries = room_for_place(*own, table);
    if (!entries) return set_error(handle, err, LOOM_ENOMEM);
    memory.announce_or_end(&entries->place, sizeof entries->place);
    entries->place = {nullptr, table, hash_of_table(*table), dynamic != 0, 0};
    contents->tables.insert(memory, &entries->place);
    memory.assign(words_of(table).domain, domain);
    memory.assign(words_of(table).marks, words_of(table).marks & ~(table_out_of_toc | table_left_to_caller));
}

LOOM_EXPORT void loomdb_database_toc_delete(loom_handle* handle, uint32_t domain, loom_table* table,
                                            uint32_t* err) {
    if (*err) return;
    open_handle* own = opened(handle);
    toc* contents = find_toc(*own->db->root(), domain);
    toc_entry* entry = contents ? find_entry(*contents, table) : nullptr;
    table_words& words = words_of(table);
    if (!entry && !(words.marks & table_out_of_toc))
        return fail(handle, err, LOOM_ENOENT, "the table \"%s\" of id %llu is not in the list of domain %u",
                    table->table_name, static_cast<unsigned long long>(table->table_id), domain);
    const write_scope scope(*own);
    if (!scope) return set_error(handle, err, scope.error());
    arena& memory = own->db->memory;
    if (entry) {
        contents->tables.remove(memory, entry);
        memory.assign(entry->table, nullptr);
        leave_table_entries(*own, entries_around(entry));
    }
    memory.assign(words.marks, (words.marks | table_out_of_toc) & ~table_left_to_caller);
    if (contents && (contents->root.flags & LOOM_TOC_SHARED) && !handle->gc_context) put_on_gc_list(*own, table);
}
