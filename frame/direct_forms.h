// Whether this bundle may do the runtime's simplest operations by itself: decided once, while the library is
// loaded. What the operations do in their common case is told in <loom/direct.h>; the code that does it stands
// beside its callers, in instance/direct.h and instance/direct_values.h and codec/fixed_form.h.
#pragma once

#include "frame/value_list.h"

#include <loom/direct.h>
#include <loom/instance.h>
#include <loom/trace.h>
#include <loom/values.h>
#include <loom/wire.h>

extern "C" const loom_direct_forms* loom_get_direct_forms(void) __attribute__((weak));

namespace trellis::direct {

using write_hook = decltype(loom_direct_forms::unfollowed_write_hook);
using counter_hook = decltype(loom_direct_forms::unfollowed_counter_hook);

/// False until the library's constructors have run, and then with any runtime that does not offer the forms: every
/// operation is called. One for each bundle. A bundle that is fused with our runtime need not ask.
#ifdef TRELLIS_FUSED
inline constexpr bool offered = true;
#else
inline bool offered = false;
#endif
inline write_hook unfollowed_write_hook = nullptr;
inline counter_hook unfollowed_counter_hook = nullptr;

/// Whether the names are those of all values that are so.
template <u32 N>
consteval bool name_all(const char* const (&names)[N], bool (built_in_value::*are_so)() const) {
    u32 count = 0;
    for (const built_in_value& each : value_list::rows)
        count += (each.*are_so)() ? 1u : 0u;
    for (const char* const name : names)
        if (!(built_in(name).*are_so)()) return false;
    return count == N;
}
#define TRELLIS_NAME(T) #T,
inline constexpr const char* scalars[] = {LOOM_DIRECT_SCALARS(TRELLIS_NAME)};
inline constexpr const char* values[] = {LOOM_DIRECT_VALUES(TRELLIS_NAME)};
inline constexpr const char* octets[] = {LOOM_DIRECT_OCTETS(TRELLIS_NAME)};
inline constexpr const char* texts[] = {LOOM_DIRECT_TEXTS(TRELLIS_NAME)};
#undef TRELLIS_NAME
static_assert(name_all(scalars, &built_in_value::is_number) && name_all(values, &built_in_value::is_no_number) &&
                  name_all(octets, &built_in_value::is_octets) && name_all(texts, &built_in_value::owns_block),
              "<loom/direct.h> and frame/value_list.h differ");

/// True when every operation of the list, as this bundle would call it, is the runtime's own.
inline bool operations_lie_in(const loom_direct_forms& forms) {
    using operation = void (*)();
#define TRELLIS_ADDRESS(NAME) reinterpret_cast<operation>(&::NAME),
#define TRELLIS_SCALAR_ADDRESSES(T) LOOM_DIRECT_SCALAR_OPERATIONS(TRELLIS_ADDRESS, T)
#define TRELLIS_VALUE_ADDRESSES(T) LOOM_DIRECT_VALUE_OPERATIONS(TRELLIS_ADDRESS, T)
#define TRELLIS_OCTETS_ADDRESSES(T) LOOM_DIRECT_OCTETS_OPERATIONS(TRELLIS_ADDRESS, T)
#define TRELLIS_TEXT_ADDRESSES(T) LOOM_DIRECT_TEXT_OPERATIONS(TRELLIS_ADDRESS, T)
    const operation called[] = {
        LOOM_DIRECT_FRAME_OPERATIONS(TRELLIS_ADDRESS) LOOM_DIRECT_SCALARS(TRELLIS_SCALAR_ADDRESSES)
            LOOM_DIRECT_VALUES(TRELLIS_VALUE_ADDRESSES) LOOM_DIRECT_OCTETS(TRELLIS_OCTETS_ADDRESSES)
                LOOM_DIRECT_TEXTS(TRELLIS_TEXT_ADDRESSES)};
#undef TRELLIS_TEXT_ADDRESSES
#undef TRELLIS_OCTETS_ADDRESSES
#undef TRELLIS_VALUE_ADDRESSES
#undef TRELLIS_SCALAR_ADDRESSES
#undef TRELLIS_ADDRESS
    for (const operation each : called) {
        const void* address = reinterpret_cast<const void*>(each);
        if (address < forms.image_begin || address >= forms.image_end) return false;
    }
    return true;
}

/// The load-time constructor's part.
inline void settle() {
    if (loom_get_direct_forms == nullptr) return;
    const loom_direct_forms* forms = loom_get_direct_forms();
    if (forms->revision != LOOM_DIRECT_FORMS_REVISION || !operations_lie_in(*forms)) return;
    unfollowed_write_hook = forms->unfollowed_write_hook;
    unfollowed_counter_hook = forms->unfollowed_counter_hook;
#ifndef TRELLIS_FUSED
    offered = true;
#endif
}

/// Registers the bundle with the trace, which every create asks for: nothing is left to do the second time.
inline u32 init_trace_module(const char* name, u16* module_id, u32* state) {
    if (offered && __atomic_load_n(module_id, __ATOMIC_ACQUIRE) != 0) return 0;
    return spoor_module_init_fn(name, module_id, state);
}

} // namespace trellis::direct
