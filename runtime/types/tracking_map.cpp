// The side table of objects whose tracking area is not at its default place.
//
// Objects of the database have their entries there. Objects elsewhere (in a caller's memory, or made inside a read
// section) have them in memory of the process; a private database holds both.
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"

namespace {
using namespace loom;

tracking_node* find(const tracking_table& table, const void* object) {
    return table.find(hash_of_address(object), [&](const tracking_node& node) { return node.object == object; });
}
} // namespace

LOOM_EXPORT uint32_t loomlib_get_sttr_offset(loom_handle* handle, uint32_t, const void* object) {
    const database& space = opened(handle)->space_of(object);
    const tracking_node* node = find(space.root()->tracking, object);
    return node ? node->offset : 0;
}

LOOM_EXPORT void loomlib_update_sttr_offset(loom_handle* handle, uint32_t domain, void* object, uint32_t offset) {
    open_handle* own = opened(handle);
    database& space = own->space_of(object);
    const write_scope scope(*own);
    if (&space == own->db.get() && !scope) {
        loom_store_err(handle, scope.error());
        return;
    }
    tracking_table& table = space.root()->tracking;
    if (tracking_node* node = find(table, object)) {
        if (node->offset != offset) space.memory.assign(node->offset, offset);
    } else {
        node = static_cast<tracking_node*>(space.memory.allocate(sizeof(tracking_node)));
        if (node) *node = {nullptr, object, offset, 0};
        if (!node || !table.insert(space.memory, node)) {
            if (node) space.memory.release(node);
            loom_store_err(handle, LOOM_ENOMEM);
            return;
        }
    }
    auto* instance = static_cast<loom_object*>(object);
    handle->write_hook(handle, &instance->loom_flags, sizeof instance->loom_flags, domain, nullptr);
    instance->loom_flags |= OBJ_STTR_OFFSET;
}

LOOM_EXPORT void loom_hd_mapping_destroy(loom_handle* handle, uint32_t, void* object, uint32_t* err) {
    open_handle* own = opened(handle);
    database& space = own->space_of(object);
    tracking_table& table = space.root()->tracking;
    tracking_node* node = find(table, object);
    if (!node) return;
    const write_scope scope(*own);
    if (&space == own->db.get() && !scope) {
        if (!*err) set_error(handle, err, scope.error());
        return;
    }
    table.remove(space.memory, node);
    space.memory.release(node);
}

LOOM_EXPORT uint64_t loom_tracking_map_count(loom_handle* handle) {
    return opened(handle)->db->root()->tracking.size;
}
