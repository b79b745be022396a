// The arena operations that bundles import, and what loom_runtime/arena.h offers for looking at arenas. The arena
// argument is a handle's alloc_ctx.
#include "runtime/database/revoked_roots.h"
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"

#include <loom_runtime/arena.h>

#include <cstdio>
#include <utility>

namespace {
using namespace loom;
open_handle* of(void* arena) { return static_cast<open_handle*>(arena); }
} // namespace

LOOM_EXPORT void* arbor_get_key(void* arena, const char* key) {
    if (!arena || !key) return nullptr;
    const named_root* root = of(arena)->db->memory.find_root(key);
    if (!root) return nullptr;
    reinstate_root(root->block);
    return root->block;
}

LOOM_EXPORT uint32_t arbor_set_key(void* arena, const char* key, void* block) {
    if (!arena || !key) {
        fail(EINVAL, "arena: a root needs an arena and a name");
        return 0;
    }
    open_handle* handle = of(arena);
    const write_scope scope(*handle);
    if (scope.error()) return 0;
    if (!handle->db->memory.set_root(key, block)) {
        loom_store_err(&handle->view, ENOMEM);
        return 0;
    }
    handle->db->root_was_set(block);
    return 1;
}

LOOM_EXPORT uint32_t arbor_in_range(void* arena, const void* pointer) {
    if (!arena) return 0;
    const database& db = *of(arena)->db;
    return db.memory.contains(pointer) && db.memory.offset_of(pointer) < db.memory.header().top &&
           !is_revoked_root(pointer);
}

LOOM_EXPORT uint32_t arbor_set_range(void* arena, const void* address, size_t size, uint32_t) {
    return !arena || of(arena)->announce(address, size);
}

LOOM_EXPORT void arbor_perror(void) { std::fprintf(stderr, "%s\n", error_text().c_str()); }

LOOM_EXPORT void loom_arena_usage_get(loom_handle* handle, loom_arena_usage* usage) {
    const open_handle* own = opened(handle);
    const arena_header& header = own->db->memory.header();
    *usage = {header.taken_blocks - header.cached_blocks,
              header.taken_bytes - header.cached_bytes,
              header.extent,
              header.reserve,
              header.base,
              own->allocations};
}

LOOM_EXPORT uint32_t loom_arena_verify(loom_handle* handle) {
    const std::string fault = opened(handle)->db->memory.verify();
    return fault.empty() ? done() : fail(EINVAL, "%s", fault.c_str());
}

LOOM_EXPORT void loom_arena_fail_after(loom_handle* handle, uint64_t count) {
    opened(handle)->db->memory.fail_after(count);
}

LOOM_EXPORT void loom_arena_each_block(loom_handle* handle, loom_block_fn visit, void* context) {
    const database& db = *opened(handle)->db;
    db.memory.each_block([&](void* block, u64 size) {
        visit(block, size, db.debug ? db.debug->tag_of(db.memory.offset_of(block)) : 0, context);
    });
}

LOOM_EXPORT uint32_t loom_debug_arena_start(loom_handle* handle, loom_unannounced_fn report, void* context) {
    database& db = *opened(handle)->db;
    db.debug = debug_arena::start(db.memory, db.memory.header().reserve, report, context);
    db.memory.set_debug(db.debug.get());
    opened(handle)->choose_hooks();
    if (!db.debug) return ENOMEM;
    if (db.root())
        db.root()->types.each([&](const type_node& node) {
            const loom_variant_table* table = node.info->variant_table;
            for (i8 i = 0; table && i < table->n_variants; ++i)
                db.debug->exempt(db.memory.offset_of(&table->entries[i].objects_created), 3 * sizeof(u64), true);
        });
    return done();
}

LOOM_EXPORT uint64_t loom_debug_arena_check(loom_handle* handle) {
    open_handle* own = opened(handle);
    database& db = *own->db;
    if (!db.debug) return 0;
    const u64 by_commits = std::exchange(db.found_by_commits, 0);
    if (db.mapped && own->section != section_kind::write) return by_commits;
    return by_commits + db.debug->check();
}

LOOM_EXPORT void loom_debug_arena_exempt(loom_handle* handle, const void* address, size_t length,
                                         uint32_t exempt) {
    database& db = *opened(handle)->db;
    if (db.debug && db.memory.contains(address)) db.debug->exempt(db.memory.offset_of(address), length, exempt);
}

LOOM_EXPORT void loom_debug_arena_stop(loom_handle* handle) {
    database& db = *opened(handle)->db;
    db.memory.set_debug(nullptr);
    db.debug.reset();
    opened(handle)->choose_hooks();
}
