// One call of a bundle's operation: what frame/call.h holds, with the variant gate's error, the entry of
// operations, and the reports to the shared-database layer.
#pragma once

#include "frame/call.h"
#include "instance/direct.h"

#include <loom/handle.h>
#include <loom/instance.h>

#include <cstdlib>

namespace trellis {

/// State-tracking mode of a handle. `absent`: the handle has no control block.
enum class tracking_mode : u8 { absent, off, on, corrupted };

inline tracking_mode tracking_mode_of(const loom_handle* handle) {
    if (handle->sttr_block == nullptr) return tracking_mode::absent;
    if (handle->sttr_block->sttr_mode == LOOM_STTR_ON) return tracking_mode::on;
    if (handle->sttr_block->sttr_mode == LOOM_STTR_OFF) return tracking_mode::off;
    return tracking_mode::corrupted;
}

struct direct_listeners {
    static bool has(const loom_handle* handle) { return !direct::is_unwatched(handle); }
};

/// One operation of a bundle.
struct call : basic_call<direct_listeners> {
    void clear_last_error() const { direct::clear_last_error(handle); }
    /// Attribute, value, table or message is out of reach for the variant or the peer.
    void fail_epoch(u32 number = LOOM_EIDRM) const { loom_store_epoch_err(handle, number, error); }

    /// Entry of most operations: false when an earlier error stops them.
    bool enter() const {
        if (pending()) return false;
        clear_last_error();
        return true;
    }

    bool contains() const { return handle->containment != 0; }
    /// The reports to the shared-database layer are made only here.
    bool reports_to_shared_database() const {
        return contains() && domain != LOOM_DOMAIN_NONE && handle->db_kind == 1;
    }
    void report_containment(const void* value, const void* parent) const {
        if (contains()) loomdb_record_containment2(handle, domain, value, parent, 1);
    }

    tracking_mode mode() const { return tracking_mode_of(handle); }
};

/// The `_cr` forms work on the handle's own domain and its sticky error slot.
inline call chain_call(loom_handle* handle) { return {{handle, handle->cr_domain, &handle->last_error}}; }

} // namespace trellis
