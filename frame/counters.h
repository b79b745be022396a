// Call counters: every exported function adds one to its own before it looks at its arguments. They lie together
// in the section `.spoor_counters`, in function order; nothing in the library reads them.
#pragma once

#include "frame/basic_types.h"

namespace trellis::frame {

/// Calls of concurrent threads may get lost, torn values may not appear: no read-modify-write, which would cost
/// more than most accessors do.
inline void count_call(u64& counter) {
    __atomic_store_n(&counter, __atomic_load_n(&counter, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
}

} // namespace trellis::frame
