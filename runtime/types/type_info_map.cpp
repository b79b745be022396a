// Manifested type information: the map from luid texts to records in the database, and the variant data behind the
// records.
//
// A handle that may not change the database at the moment (inside a read section) keeps what it manifests in
// memory of its process, where the objects that it makes then lie as well.
#include "runtime/types/type_info_map.h"

#include "runtime/export.h"
#include "runtime/handle/open_handle.h"
#include "runtime/types/type_description.h"

#include <cstring>
#include <optional>

namespace loom {
namespace {
open_handle& of(void* context) { return *static_cast<open_handle*>(context); }

type_node* find_node(const database& space, const char* luid_text) {
    const database_root* root = space.root();
    if (!root) return nullptr;
    return root->types.find(type_node::hash_of_text(luid_text), [&](const type_node& each) {
        return std::memcmp(each.luid_text, luid_text, 32) == 0;
    });
}

loom_type_info* find_in(const database& space, const char* luid_text) {
    const type_node* node = find_node(space, luid_text);
    return node ? node->info : nullptr;
}

/// A lookup from the static record to the manifested one that touches no chain in the usual case.
loom_type_info* cached(open_handle& handle, const loom_type_info& info, manifest_cache_entry*& entry) {
    if (handle.manifests_rollbacks != handle.db->rollbacks) {
        handle.manifests = {};
        handle.manifests_rollbacks = handle.db->rollbacks;
    }
    entry = &handle.manifests[(reinterpret_cast<std::uintptr_t>(&info) >> 4) % handle.manifests.size()];
    return entry->info == &info && entry->luid_half == hash_of_bytes(info.luid) ? entry->manifested : nullptr;
}

/// Records that the map had no room for. The initialiser that made them goes on with them for a step.
void release_unentered(open_handle& handle) {
    for (loom_type_info* info : handle.unentered_types)
        handle.space_of(info).memory.release(info);
    handle.unentered_types.clear();
}

/// Whether the database has of the type what a bundle may use: its record alone, without the variants, is what a
/// lack of memory has left, and the initialiser completes it.
bool is_whole(const loom_type_info* found, const loom_type_info& source) {
    return found && (found->variant_table || !source.variant_table);
}

/// Runs a bundle's initialiser. Two processes may find a record missing at the same time: whoever comes second
/// looks once more under the write lock.
template <class Lookup>
loom_type_info* manifest(loom_handle* handle, u32 domain, open_handle* own, loom_typeinfo_initialize_fn initialize,
                         Lookup lookup) {
    std::optional<write_scope> scope;
    if (own) {
        scope.emplace(*own);
        if (loom_type_info* found = lookup()) return found;
    }
    u32 err = 0;
    initialize(handle, domain, &err);
    if (own) release_unentered(*own);
    return lookup();
}

/// Storage for `count` entries in the space that holds the record.
loom_variant_entry* new_entries(database& space, i8 count) {
    return static_cast<loom_variant_entry*>(
        space.memory.allocate(static_cast<u64>(count) * sizeof(loom_variant_entry)));
}

/// Bundles raise some of these counters unannounced.
void leave_counters_out(database& space, const loom_variant_entry* entries, i8 count) {
    if (!space.debug) return;
    for (i8 i = 0; i < count; ++i)
        space.debug->exempt(space.memory.offset_of(&entries[i].objects_created), 3 * sizeof(u64), true);
}

void copy_entry(loom_variant_entry& to, const loom_variant_entry& from) {
    to = from;
    to.objects_created = to.objects_destroyed = to.reserved_counter = 0;
}

/// The database's own copy of what the bundle says about the type; null when it says nothing, or without memory.
const loom_type_description* copy_description(database& space, const loom_type_info& info) {
    const loom_type_description* found = find_description(info);
    void* copy = found ? space.memory.allocate(found->size) : nullptr;
    return copy ? static_cast<const loom_type_description*>(std::memcpy(copy, found, found->size)) : nullptr;
}

/// A node without name, with the description of the type if there is one; null without memory.
type_node* new_node(database& space, loom_type_info& info) {
    void* block = space.memory.allocate(sizeof(type_node));
    if (!block) return nullptr;
    auto* node = static_cast<type_node*>(std::memset(block, 0, sizeof(type_node)));
    node->info = &info;
    node->description = copy_description(space, info);
    if (node->description || !find_description(info)) return node;
    space.memory.release(node);
    return nullptr;
}

/// What is known of a type's newer variants takes the place of what was known before.
void renew_description(database& space, const loom_type_info& info) {
    type_node* node = find_node(space, info.luid_text);
    const loom_type_description* made = node ? copy_description(space, info) : nullptr;
    if (!made) return;
    const loom_type_description* old = node->description;
    space.memory.assign(node->description, made);
    if (old) space.memory.release(const_cast<loom_type_description*>(old));
}

/// Gives a record that was copied from the static one variant data of its own.
bool make_variant_data(database& space, loom_type_info& manifested, const loom_variant_table& source) {
    auto* table = static_cast<loom_variant_table*>(space.memory.allocate(sizeof(loom_variant_table)));
    loom_variant_entry* entries = table ? new_entries(space, source.n_variants) : nullptr;
    if (entries) {
        std::memset(static_cast<void*>(table), 0, sizeof *table);
        for (i8 i = 0; i < source.n_variants; ++i)
            copy_entry(entries[i], source.entries[i]);
        table->n_variants = source.n_variants;
        table->entries = entries;
        leave_counters_out(space, entries, source.n_variants);
    } else if (table) {
        space.memory.release(table);
        table = nullptr;
    }
    // Without memory the pointer must go all the same: it leads into this process.
    space.memory.assign(manifested.variant_table, table);
    return table != nullptr;
}

/// A newer bundle knows more variants than the one that manifested the record.
bool add_variants(database& space, loom_variant_table& table, const loom_variant_table& source) {
    loom_variant_entry* entries = new_entries(space, source.n_variants);
    if (!entries) return false;
    for (i8 i = 0; i < source.n_variants; ++i) {
        copy_entry(entries[i], source.entries[i]);
        if (i >= table.n_variants) continue;
        entries[i].objects_created = table.entries[i].objects_created;
        entries[i].objects_destroyed = table.entries[i].objects_destroyed;
        entries[i].reserved_counter = table.entries[i].reserved_counter;
    }
    loom_variant_entry* old = table.entries;
    if (space.debug)
        space.debug->exempt(space.memory.offset_of(old), static_cast<u64>(table.n_variants) * sizeof *old, false);
    leave_counters_out(space, entries, source.n_variants);
    space.memory.assign(table.entries, entries);
    space.memory.assign(table.n_variants, source.n_variants);
    space.memory.release(old);
    return true;
}
} // namespace

void insert_type_info(void* context, u32, const char* luid_text, void* info) {
    open_handle& handle = of(context);
    auto* of_type = static_cast<loom_type_info*>(info);
    database& space = handle.space_of(info);
    const write_scope scope(handle);
    if (&space == handle.db.get() && !scope) return;
    database_root* root = space.make_root();
    type_node* node = root && root->types.reserve(space.memory) ? new_node(space, *of_type) : nullptr;
    if (!node) {
        handle.unentered_types.push_back(of_type);
        loom_store_err(&handle.view, LOOM_ENOMEM);
        return;
    }
    std::memcpy(node->luid_text, luid_text, 32);
    root->types.insert(space.memory, node);
}

void* lookup_type_info(void* context, u32, const char* luid_text) {
    open_handle& handle = of(context);
    if (loom_type_info* found = find_in(*handle.db, luid_text)) return found;
    return handle.scratch && handle.section == section_kind::read ? find_in(*handle.scratch, luid_text) : nullptr;
}
} // namespace loom

using namespace loom;

LOOM_EXPORT loom_type_info* loom_type_info_ptr_get(loom_handle* handle, uint32_t domain,
                                                   const loom_type_info* static_tinfo,
                                                   loom_typeinfo_initialize_fn initialize) {
    if (handle->db_kind == LOOM_DB_PRIVATE) return const_cast<loom_type_info*>(static_tinfo);
    open_handle* own = opened(handle);
    manifest_cache_entry* entry = nullptr;
    if (own)
        if (loom_type_info* known = cached(*own, *static_tinfo, entry)) return known;
    const auto lookup = [&] {
        auto* found =
            static_cast<loom_type_info*>(handle->tinfo_lookup(handle->tinfo_ctx, domain, static_tinfo->luid_text));
        return is_whole(found, *static_tinfo) ? found : nullptr;
    };
    loom_type_info* found = lookup();
    if (!found && initialize) found = manifest(handle, domain, own, initialize, lookup);
    if (found && entry && own->db->memory.contains(found))
        *entry = {static_tinfo, hash_of_bytes(static_tinfo->luid), found};
    return found;
}

LOOM_EXPORT void loom_update_variant_info(loom_handle* handle, uint32_t, loom_type_info* manifested,
                                          const loom_type_info* static_tinfo, uint32_t created) {
    const loom_variant_table* source = static_tinfo->variant_table;
    if (!source || !manifested) return;
    open_handle* own = opened(handle);
    if (std::erase(own->unentered_types, manifested)) return own->space_of(manifested).memory.release(manifested);
    const bool has_data = !created && manifested->variant_table;
    const bool older = has_data && manifested->variant_table->n_variants < source->n_variants;
    database& space = own->space_of(manifested);
    const type_node* node = created ? nullptr : find_node(space, static_tinfo->luid_text);
    const bool undescribed = node && !node->description && find_description(*static_tinfo);
    if (has_data && !older && !undescribed) return;
    const write_scope scope(*own);
    if (&space == own->db.get() && !scope) return;
    if (older || undescribed) renew_description(space, *static_tinfo);
    if (has_data && !older) return;
    const bool made = older ? add_variants(space, *manifested->variant_table, *source)
                            : make_variant_data(space, *manifested, *source);
    if (!made) loom_store_err(handle, LOOM_ENOMEM);
}

LOOM_EXPORT uint64_t loom_type_info_map_count(loom_handle* handle) {
    return opened(handle)->db->root()->types.size;
}
