// One call of an operation of the runtime's value, text and wire families. No operation lives here.
#pragma once

#include <loom/instance.h>

#include "frame/call.h"

#include <cstring>

namespace loom {
using namespace trellis;

/// The write hook of handles whose stores nobody follows.
extern const decltype(loom_handle::write_hook) unfollowed_write_hook;

/// A handle may have no hook at all here: the value families serve hosts that fill one in themselves.
struct hook_listeners {
    static bool has(const loom_handle* handle) {
        return handle->write_hook != nullptr && handle->write_hook != unfollowed_write_hook;
    }
};

/// What every operation of the value, text and wire families is called with.
struct call : basic_call<hook_listeners> {
    /// Reports a failure; the result is what the failing operation returns.
    u32 fail(u32 number) const {
        basic_call::fail(number);
        return 0;
    }
};

/// The bytes that a signed length of the interface stands for.
inline u32 room_of(i32 length) { return length > 0 ? static_cast<u32>(length) : 0; }
} // namespace loom
