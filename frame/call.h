// One call of an operation: handle, domain and error word in one place, so that the error discipline and the
// announcement of stores are written once, for bundles and for the runtime. What a call works on stands elsewhere.
#pragma once

#include "frame/basic_types.h"

#include <loom/handle.h>
#include <loom/instance.h>

namespace trellis {

/// What nearly every operation is called with. `Listeners` tells of a handle whether anybody follows its stores.
template <class Listeners>
struct basic_call {
    loom_handle* handle;
    u32 domain;
    u32* error;

    /// An error of an earlier operation stops this one before it does anything.
    bool pending() const { return *error != 0; }

    void fail(u32 number) const {
        *error = number;
        loom_store_err(handle, number);
    }

    void* allocate(size_t size) const { return handle->alloc(handle->alloc_ctx, domain, size); }
    void release(void* block) const { handle->free(handle->alloc_ctx, domain, block); }

    /// Announces that `length` bytes at `address` are about to change.
    [[gnu::always_inline]] void announce(const void* address, size_t length, const void* owner) const {
        if (Listeners::has(handle)) handle->write_hook(handle, address, length, domain, owner);
    }
    /// Announces and stores one value.
    template <class T>
    void store(T* address, T value, const void* owner) const {
        announce(address, sizeof(T), owner);
        *address = value;
    }
    /// The same for a value that nobody owns.
    template <class T>
    void store(T* address, T value) const {
        store<T>(address, value, address);
    }
};

} // namespace trellis
