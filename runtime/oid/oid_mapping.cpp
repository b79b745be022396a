// The oid mapping: which object an oid stands for, how many references to it there are, and the objects whose end
// was put off because of references.
//
// A mapping's id is its reference, most significant byte first, followed by the first half of the database's
// identity; a reference is never 0, so neither is an id. The object word of an oid value is the object's address
// as the database that made it saw it; it is never followed, only the id is looked up. Its top bit says that the
// value holds a counted reference. The wire form does not carry that bit (oid_value.cpp), so copies made through
// it hold nothing and release nothing.
#include "runtime/oid/oid.h"

#include "runtime/database/gc.h"
#include "runtime/database/table_entries.h"
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"
#include "runtime/registry/bundle.h"

#include <cstring>
#include <map>
#include <mutex>
#include <utility>

namespace loom {
namespace {
database_root& root_of(loom_handle* handle) { return *opened(handle)->db->root(); }

void write_id(const database& db, u64 reference, u8* id) {
    for (int i = 0; i < 8; ++i)
        id[i] = static_cast<u8>(reference >> (56 - 8 * i));
    std::memcpy(id + 8, db.memory.header().identity, 8);
}

/// The mapping of an id of this database, or null.
loom_oid_mapping* find_by_oid(loom_handle* handle, const loom_oid& oid) {
    const database& db = *opened(handle)->db;
    const arena_header& header = db.memory.header();
    if (std::memcmp(oid.source, header.identity, 16) != 0 || std::memcmp(oid.id + 8, header.identity, 8) != 0)
        return nullptr;
    u64 reference = 0;
    for (int i = 0; i < 8; ++i)
        reference = reference << 8 | oid.id[i];
    return find_by_reference(*db.root(), reference);
}

u64 free_reference(arena& memory, database_root& root, u64 wanted) {
    if (wanted) return find_by_reference(root, wanted) ? 0 : wanted;
    u64 reference = root.next_reference;
    while (reference == 0 || find_by_reference(root, reference))
        ++reference;
    memory.assign(root.next_reference, reference + 1);
    return reference;
}

void mark_mapped(loom_handle* handle, u32 domain, void* object, u32 kind) {
    if (kind == mapped_table) return; // a table's flags byte stays zero
    auto* instance = static_cast<loom_object*>(object);
    handle->write_hook(handle, &instance->loom_flags, 1, domain, nullptr);
    instance->loom_flags |= OBJ_OID_MAPPED;
}

/// Room for a mapping of that kind, zero; null when there is no memory.
loom_oid_mapping* room_for_mapping(open_handle& handle, u32 kind) {
    if (kind == mapped_table) {
        table_entries* entries = take_table_entries(handle);
        return entries ? &entries->mapping : nullptr;
    }
    void* block = handle.db->memory.allocate(sizeof(loom_oid_mapping));
    return block ? static_cast<loom_oid_mapping*>(std::memset(block, 0, sizeof(loom_oid_mapping))) : nullptr;
}

void give_up_room(open_handle& handle, loom_oid_mapping* mapping) {
    if (mapping->kind != mapped_table) return handle.db->memory.release(mapping);
    handle.db->memory.assign(mapping->object, nullptr);
    leave_table_entries(handle, entries_around(mapping));
}

void remove(open_handle& handle, loom_oid_mapping* mapping) {
    arena& memory = handle.db->memory;
    if (mapping->kind == mapped_table) drop_table_storage(handle, static_cast<loom_table*>(mapping->object));
    database_root& root = *handle.db->root();
    if (mapping->destroy_pending)
        for (loom_oid_mapping** link = &root.pending_objects; *link; link = &(*link)->next_pending)
            if (*link == mapping) {
                memory.assign(*link, mapping->next_pending);
                break;
            }
    root.oids_by_reference.remove(memory, mapping);
    root.oids_by_object.remove(memory, mapping);
    give_up_room(handle, mapping);
}

/// The last reference has gone. Objects whose end was put off end now, and so do tables that wait for the
/// collector (while it runs, by itself); nobody may know how yet, and the collector then tries again. A table that
/// does not wait for it stays until its caller repeats the free.
void end_unreferenced(open_handle& handle, loom_oid_mapping* mapping) {
    if (mapping->kind != mapped_table) {
        if (mapping->destroy_pending) destroy_put_off(&handle.view, mapping);
        return;
    }
    auto* table = static_cast<loom_table*>(mapping->object);
    if ((table->table_flags & LOOM_TABLE_ON_GC_LIST) && !handle.view.gc_context) end_waiting_table(handle, table);
}

// ------------------------------------------------------------------------------------------ put-off objects

std::mutex destroyers_mutex;
std::map<std::string, loom_destroy_fn>& destroyers() {
    static auto* map = new std::map<std::string, loom_destroy_fn>;
    return *map;
}

loom_destroy_fn destroyer_of(const loom_type_info& info) {
    {
        const std::lock_guard guard(destroyers_mutex);
        const auto registered = destroyers().find(info.luid_text);
        if (registered != destroyers().end()) return registered->second;
    }
    const std::string name = std::string(info.name) + "_destroy";
    return reinterpret_cast<loom_destroy_fn>(find_symbol_of_module(info.module, name.c_str()));
}
} // namespace

bool destroy_put_off(loom_handle* handle, loom_oid_mapping* mapping) {
    void* object = mapping->object;
    const u32 domain = mapping->domain;
    const loom_type_info* info = static_cast<const loom_object*>(object)->loom_tinfo;
    if (!info || info->magic != LOOM_TYPE_INFO_MAGIC) return false;
    const loom_destroy_fn destroy = destroyer_of(*info);
    if (!destroy) return false;
    destroy(handle, domain, object);
    return find_by_object(root_of(handle), object) == nullptr;
}
} // namespace loom

using namespace loom;

LOOM_EXPORT uint32_t loom_register_destroyer(const char* luid_text, loom_destroy_fn destroy) {
    if (!luid_text || std::strlen(luid_text) != 32)
        return fail(EINVAL, "a destroyer needs a luid text of 32 characters");
    const std::lock_guard guard(destroyers_mutex);
    if (destroy)
        destroyers()[luid_text] = destroy;
    else
        destroyers().erase(luid_text);
    return done();
}

LOOM_EXPORT uint64_t loom_oid_mapping_create(loom_handle* handle, uint32_t domain, void* object, uint32_t kind,
                                             uint32_t dynamic, uint64_t ior, uint32_t* err) {
    if (*err) return 0;
    if (!object) return fail(handle, err, LOOM_EINVAL, "there is no object to map"), 0;
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return set_error(handle, err, scope.error()), 0;
    arena& memory = own->db->memory;
    database_root& root = *own->db->root();
    if (find_by_object(root, object))
        return fail(handle, err, LOOM_EEXIST, "the object at %p has an oid already", object), 0;
    if (!root.oids_by_reference.reserve(memory) || !root.oids_by_object.reserve(memory))
        return set_error(handle, err, LOOM_ENOMEM), 0;
    const u64 reference = free_reference(memory, root, ior);
    if (!reference)
        return fail(handle, err, LOOM_EEXIST, "reference %llu is taken; ask for another, or for 0",
                    static_cast<unsigned long long>(ior)),
               0;
    loom_oid_mapping* mapping = room_for_mapping(*own, kind);
    if (!mapping) return set_error(handle, err, LOOM_ENOMEM), 0;
    mapping->object = object;
    mapping->reference = reference;
    mapping->kind = kind;
    mapping->domain = domain;
    mapping->dynamic = dynamic != 0;
    root.oids_by_reference.insert(memory, mapping);
    root.oids_by_object.insert(memory, mapping);
    mark_mapped(handle, domain, object, kind);
    return reference;
}

LOOM_EXPORT void loom_handle_to_oid(loom_oid* out, loom_handle* handle, uint32_t domain, void* target,
                                    uint32_t kind, uint32_t counted, uint32_t* err) {
    *out = {};
    if (*err) return;
    const database& db = *opened(handle)->db;
    if (target == LOOM_OID_RAW_TARGET) {
        // No object and no mapping: only the database that it was made in is told.
        std::memcpy(out->source, db.memory.header().identity, 16);
        return;
    }
    if (!target) return fail(handle, err, LOOM_EINVAL, "there is no object to refer to");
    loom_oid_mapping* mapping = find_by_object(*db.root(), target);
    if (!mapping && loom_oid_mapping_create(handle, domain, target, kind, 0, 0, err))
        mapping = find_by_object(*db.root(), target);
    if (!mapping) return;
    out->object = reinterpret_cast<u64>(target);
    write_id(db, mapping->reference, out->id);
    std::memcpy(out->source, db.memory.header().identity, 16);
    if (!counted) return;
    out->object |= oid_counted;
    loomlib_update_oid_ref_count(handle, domain, mapping, 1, err);
}

LOOM_EXPORT void* loom_oid_to_handle(loom_handle* handle, uint32_t, const loom_oid* oid, uint32_t* err) {
    if (*err) return nullptr;
    const loom_oid_mapping* mapping = find_by_oid(handle, *oid);
    return mapping ? mapping->object : nullptr;
}

LOOM_EXPORT loom_oid_mapping* loomlib_oid_id_mapping_get(loom_handle* handle, uint32_t, const loom_oid* oid,
                                                         uint32_t* err) {
    if (*err || !(oid->object & oid_counted)) return nullptr;
    return find_by_oid(handle, *oid);
}

LOOM_EXPORT uint32_t loom_request_oid_mapping_destroy(loom_handle* handle, uint32_t domain, void* object,
                                                      uint32_t* err) {
    if (*err) return 0;
    open_handle* own = opened(handle);
    database_root& root = *own->db->root();
    loom_oid_mapping* mapping = find_by_object(root, object);
    if (!mapping) return 1;
    const write_scope scope(*own);
    if (!scope) return set_error(handle, err, scope.error()), 0;
    if (mapping->count == 0) {
        remove(*own, mapping);
        return 1;
    }
    if (mapping->kind == mapped_table) {
        if (!handle->gc_context) leave_to_caller(*own, static_cast<loom_table*>(object));
    } else if (!mapping->destroy_pending) {
        arena& memory = own->db->memory;
        memory.assign(mapping->destroy_pending, u8{1});
        memory.assign(mapping->domain, domain);
        memory.assign(mapping->next_pending, root.pending_objects);
        memory.assign(root.pending_objects, mapping);
    }
    return 0;
}

LOOM_EXPORT void loomlib_update_oid_ref_count(loom_handle* handle, uint32_t, loom_oid_mapping* mapping,
                                              uint32_t up, uint32_t* err) {
    if (*err) return;
    if (!mapping || (!up && mapping->count == 0))
        return fail(handle, err, LOOM_EINVAL, "there is no mapping, or no reference on it to drop");
    open_handle* own = opened(handle);
    const write_scope scope(*own);
    if (!scope) return set_error(handle, err, scope.error());
    own->db->memory.assign(mapping->count, up ? mapping->count + 1 : mapping->count - 1);
    if (mapping->count == 0) end_unreferenced(*own, mapping);
}

LOOM_EXPORT void loomlib_lookup_and_update_oid_ref_count(loom_handle* handle, uint32_t domain, void* reference,
                                                         uint32_t up, uint32_t* err) {
    if (*err || !reference) return;
    loom_oid_mapping* mapping = find_by_object(root_of(handle), reference);
    if (mapping)
        loomlib_update_oid_ref_count(handle, domain, mapping, up, err);
    else
        fail(handle, err, LOOM_ENOENT, "the object at %p has no oid", reference);
}

LOOM_EXPORT void loomlib_oid_release_internal(loom_handle* handle, uint32_t domain, loom_oid* oid, uint32_t* err) {
    if (*err || !oid) return;
    loom_oid_mapping* mapping = loomlib_oid_id_mapping_get(handle, domain, oid, err);
    if (mapping && mapping->count) loomlib_update_oid_ref_count(handle, domain, mapping, 0, err);
}

LOOM_EXPORT uint32_t loom_oid_mapping_state(loom_handle* handle, const void* object, loom_oid_state* state) {
    const loom_oid_mapping* mapping = find_by_object(root_of(handle), object);
    if (!mapping) return fail(LOOM_ENOENT, "the object has no oid mapping");
    *state = {mapping->reference, mapping->count, mapping->kind, mapping->dynamic, mapping->destroy_pending, 0};
    return done();
}
LOOM_EXPORT uint64_t loom_oid_mapping_count(loom_handle* handle) { return root_of(handle).oids_by_reference.size; }
