// What all parts of the message family share: the payload, trace statements, statistics. No exported function
// stands here.
#pragma once

#include "diag/trace.h"
#include "frame/basic_types.h"
#include "instance/call.h"
#include "instance/value_types.h"

#include <loom/loom.h>

#include <string.h>
#include <type_traits>

namespace trellis::message {

template <class M>
constexpr bool has_payload = !std::is_void_v<typename M::payload>;

template <class M>
using object_of = typename M::object;
template <class M>
using payload_of = typename M::payload::c_type;

template <class M>
inline payload_of<M>*& payload_in(object_of<M>* message) {
    return message->*M::payload_field;
}
template <class M>
inline const payload_of<M>* payload_in(const object_of<M>* message) {
    return message->*M::payload_field;
}

/// The static object that a chain of calls gets when there is no memory.
template <class M>
struct sentinel_storage {
    static inline object_of<M> message;
};
template <class M>
inline object_of<M>* sentinel() {
    return &sentinel_storage<M>::message;
}

// ---- Trace ---------------------------------------------------------------------------------------------------

using says = diag::message_says;

/// A message has the statements of all messages, and with a payload those of its payload.
template <class M>
consteval bool has_statement(const diag::statement& statement) {
    return has_payload<M> || static_cast<diag::message_trait>(statement.kinds) == diag::message_trait::any;
}

template <class M, says What, u32 Copy = 0, class... Argument>
inline void say(Argument... argument) {
    constexpr u32 slot = diag::slot_among(diag::message_statements, What, Copy, has_statement<M>);
    diag::emit_indexed<M, diag::message_statements, What, M::trace_base + slot>(argument...);
}
/// A fatal statement: traced at level 0, then the process ends.
template <class M, says What, u32 Copy = 0>
[[noreturn]] inline void die() {
    say<M, What, Copy>();
    abort();
}

inline const char* error_text(u32 number) { return strerror(static_cast<int>(number)); }
/// Arrays of characters as arguments of a statement.
inline const char* text(const char* characters) { return characters; }

// ---- Statistics ----------------------------------------------------------------------------------------------

/// The statistics of the one variant of a message, its type information proved on the way.
template <class M, says Corrupted, says NoTable, says Beyond>
inline loom_variant_entry* statistics_of(const loom_type_info* tinfo) {
    if (tinfo == nullptr || tinfo->magic != LOOM_TYPE_INFO_MAGIC) die<M, Corrupted>();
    const loom_variant_table* variants = tinfo->variant_table;
    if (variants == nullptr) die<M, NoTable>();
    if (variants->n_variants < 0) say<M, Beyond>(0u, static_cast<u32>(variants->n_variants));
    return variants->entries;
}

/// Adds one: plainly on a manifested record, atomically on a static one, which threads share.
inline void announce_and_count(const call& c, const loom_type_info* tinfo, u64* counter) {
    c.handle->counter_hook(c.handle->alloc_ctx, counter, 1, c.domain);
    if (tinfo->manifested_kind != 0)
        ++*counter;
    else
        __atomic_fetch_add(counter, 1, __ATOMIC_RELAXED);
}

} // namespace trellis::message
