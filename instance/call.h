// The three things that nearly every operation gets: handle, domain and error word, with the error discipline
// of the whole library written once. What a call works on stands elsewhere.
#pragma once

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

/// Handle, domain and error word of one operation.
struct call {
    loom_handle* handle;
    u32 domain;
    u32* error;

    /// An error of an earlier operation stops this one before it does anything.
    bool pending() const { return *error != 0; }
    void clear_last_error() const { direct::clear_last_error(handle); }
    void fail(u32 number) const {
        *error = number;
        loom_store_err(handle, number);
    }
    /// Attribute, value, table or message is out of reach for the variant or the peer.
    void fail_epoch(u32 number = LOOM_EIDRM) const { loom_store_epoch_err(handle, number, error); }

    /// Entry of most operations: false when an earlier error stops them.
    bool enter() const {
        if (pending()) return false;
        clear_last_error();
        return true;
    }

    void* allocate(size_t size) const { return handle->alloc(handle->alloc_ctx, domain, size); }
    void release(void* block) const { handle->free(handle->alloc_ctx, domain, block); }

    /// Announces that `length` bytes at `address` are about to change.
    [[gnu::always_inline]] void announce(const void* address, size_t length, const void* owner) const {
        if (!direct::is_unwatched(handle)) handle->write_hook(handle, address, length, domain, owner);
    }
    /// Announces and stores one value.
    template <class T>
    void store(T* address, T value, const void* owner) const {
        announce(address, sizeof(T), owner);
        *address = value;
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
inline call chain_call(loom_handle* handle) { return {handle, handle->cr_domain, &handle->last_error}; }

} // namespace trellis
