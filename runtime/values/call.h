// One call of a runtime operation: handle, domain and error word in one place, so that the error discipline and
// the announcement of stores are written once. No operation lives here.
#pragma once

#include <loom/instance.h>

#include "frame/basic_types.h"

#include <cstring>

namespace loom {
using namespace trellis;

/// The write hook of handles whose stores nobody follows.
extern const decltype(loom_handle::write_hook) unfollowed_write_hook;

/// What every operation of the value, text and wire families is called with.
struct call {
    loom_handle* handle;
    u32 domain;
    u32* err;

    /// An earlier operation of the run has failed: nothing may happen now.
    bool pending() const { return *err != 0; }

    /// Reports a failure; the result is what the failing operation returns.
    u32 fail(u32 number) const {
        *err = number;
        loom_store_err(handle, number);
        return 0;
    }

    /// Tells the write hook that `length` bytes of instance memory are about to change.
    [[gnu::always_inline]] void announce(const void* address, size_t length, const void* owner) const {
        const auto hook = handle->write_hook;
        if (hook && hook != unfollowed_write_hook) hook(handle, address, length, domain, owner);
    }

    /// Announces and stores one value in instance memory.
    template <class T>
    void store(T* destination, const T& value) const {
        announce(destination, sizeof(T), destination);
        *destination = value;
    }

    void* allocate(size_t size) const { return handle->alloc(handle->alloc_ctx, domain, size); }
    void release(void* block) const { handle->free(handle->alloc_ctx, domain, block); }
};

/// The bytes that a signed length of the interface stands for.
inline u32 room_of(i32 length) { return length > 0 ? static_cast<u32>(length) : 0; }
} // namespace loom
