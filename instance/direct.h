// The header, the variant and the handle's error slot without a call, where the runtime offers it
// (frame/direct_forms.h); otherwise, and in every case but the common one, the runtime's own operation is called.
#pragma once

#include "frame/direct_forms.h"

#include <sys/single_threaded.h>

namespace trellis::direct {

inline void clear_last_error(loom_handle* handle) {
    if (offered && handle != nullptr)
        handle->last_error = 0;
    else
        loom_clear_last_error(handle);
}

inline i8 instance_variant(const void* object, u32 is_record, u32 is_enumeration) {
    if (offered && object != nullptr) return static_cast<const loom_object*>(object)->loom_variant;
    return loom_get_instance_variant(object, is_record, is_enumeration);
}

inline u8 instance_flags(const void* object, u32 is_record, u32 is_enumeration) {
    if (offered && object != nullptr) return static_cast<const loom_object*>(object)->loom_flags;
    return loom_get_instance_obj_flag(object, is_record, is_enumeration);
}

/// What the peer domain speaks of a type.
inline i32 domain_variant(loom_handle* handle, const loom_type_info* tinfo, u32* err) {
    if (offered && handle->domain_state.peer == nullptr && tinfo != nullptr) {
        const loom_variant_table* table = tinfo->variant_table;
        return table != nullptr && table->n_variants > 0 ? table->n_variants - 1 : 0;
    }
    return loom_domain_lookup_variant(handle, &handle->domain_state, tinfo, err);
}

inline loom_type_info* type_info(const void* object) {
    if (offered && object != nullptr) return static_cast<const loom_object*>(object)->loom_tinfo;
    return loom_get_manifested_type_info(object);
}
/// Address of the word that holds it.
inline loom_type_info** type_info_word(void* object) {
    if (offered && object != nullptr) return &static_cast<loom_object*>(object)->loom_tinfo;
    return loom_get_manifested_type_info_ptr_mem(object);
}

/// Raises an instance to what may now be written.
inline void adjust_variant(loom_handle* handle, u32 domain, void* object, i8 newest, u32* err) {
    if (offered && object != nullptr) {
        const auto* header = static_cast<const loom_object*>(object);
        if (header->loom_variant >= newest || header->loom_variant >= header->loom_layout_variant) return;
    }
    const loom_type_info* tinfo = object == nullptr ? nullptr : type_info(object);
    loomlib_adjust_variant(handle, domain, object, tinfo, newest, err);
}

/// Raises a counter of objects where it need not be announced; false, and nothing is done, elsewhere. Records of a
/// database are protected by its write lock, static ones are shared by the threads of the process.
inline bool raise_counter(const loom_handle* handle, const loom_type_info* tinfo, u64* counter) {
    if (!offered || handle->counter_hook != unfollowed_counter_hook) return false;
    if (tinfo->manifested_kind != 0 || __libc_single_threaded)
        ++*counter;
    else
        __atomic_fetch_add(counter, 1, __ATOMIC_RELAXED);
    return true;
}

/// Stores under this handle need no announcement.
inline bool is_unwatched(const loom_handle* handle) {
    return offered && handle->write_hook == unfollowed_write_hook;
}

} // namespace trellis::direct
