// From a table's luid to its function record: own tables and those of sibling bundles that the schema names. The
// records, their order and the lookup's constants are generated; the lookup allocates nothing, takes no lock and
// touches no string.
//
// A generated registry reads:
//
//     struct registry {
//         using bundle = bundle_<bundle>::bundle;
//         static constexpr int trace_unit = 4;
//         static constexpr u32 trace_base = 0;
//         static constexpr u32 count = 70;
//         static constexpr u64 multiplier = 0x...;         // places every luid in a slot of its own
//         static constexpr u32 shift = 56;
//         static constexpr u8 slots[] = {...};             // slot -> place in keys, `count` for an empty slot
//         static constexpr frame::luid_words keys[] = {...}; // in registry order
//         static const loom_table_vft* records();          // in registry order
//         static loom_table_vft* filled();                 // the exported array that lookups hand out
//         static u32& state();                             // 0 until the array is filled
//     };
#pragma once

#include "diag/trace.h"
#include "frame/basic_types.h"

#include <loom/instance.h>
#include <loom/registry.h>

#include <string.h>

namespace trellis::frame {

/// A luid as two words, in the byte order of memory.
struct luid_words {
    u64 low;  // bytes 0 to 7
    u64 high; // bytes 8 to 15
};
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the generated words are little-endian");

/// The registry index of the 16 bytes at `luid`, at any alignment, or -1. The slot is a multiplicative hash that
/// has no collisions among the registry's own luids, so that one comparison decides.
template <class Registry>
inline i32 lookup(const void* luid) {
    if constexpr (Registry::count == 0) return -1;
    luid_words words;
    memcpy(&words, luid, sizeof words);
    const u32 place = Registry::slots[((words.low ^ words.high) * Registry::multiplier) >> Registry::shift];
    if (place == Registry::count) return -1;
    const luid_words& key = Registry::keys[place];
    return key.low == words.low && key.high == words.high ? static_cast<i32>(place) : -1;
}

/// Fills the array of records that lookups hand out, once per load; a failed copy is tried again by the next
/// call. Returns 0 or the copy's error number.
template <class Registry>
inline u32 initialize_records() {
    // Read outside the lock on purpose; the state is raised inside it, behind the copy.
    if (__atomic_load_n(&Registry::state(), __ATOMIC_ACQUIRE) != 0) return 0;
    loomlib_vft_init_lock();
    u32 failure = 0;
    if (Registry::state() == 0) {
        diag::say<Registry, diag::registry_says::init_initializing>(
            static_cast<const char*>(Registry::bundle::name));
        failure = table_vft_cpy(Registry::filled(), Registry::records(), Registry::count);
        if (failure == 0) __atomic_store_n(&Registry::state(), Registry::state() + 1, __ATOMIC_RELEASE);
    }
    loomlib_vft_init_unlock();
    return failure;
}

/// Stores the address of the table's record in `*out`, or null with error 2. After a failed copy its error
/// stands, and the lookup runs all the same.
template <class Registry>
inline void find_record(loom_handle* handle, const u8* luid, const loom_table_vft** out, u32* err) {
    if (*err != 0) {
        diag::say<Registry, diag::registry_says::get_vft_error_pending>();
        return;
    }
    loom_clear_last_error(handle);
    *err = initialize_records<Registry>();
    if (*err != 0) loom_store_err(handle, *err);
    *out = nullptr;
    const i32 place = lookup<Registry>(luid);
    if (place < 0) {
        *err = LOOM_ENOENT;
        loom_store_err(handle, LOOM_ENOENT);
        return;
    }
    *out = Registry::filled() + place;
}

} // namespace trellis::frame
