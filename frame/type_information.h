// Bringing a bundle's type information into a database, and the dump of variant sizes. The records themselves are
// generated. How the runtime finds a manifested record stands in <loom/instance.h>.
#pragma once

#include "diag/trace.h"
#include "frame/basic_types.h"

#include <loom/instance.h>
#include <loom/registry.h>

#include <string.h>

namespace trellis::frame {

/// The database's copy of a static record, made and entered under its luid text; null without memory. The block
/// belongs to no domain, the entry to the caller's.
inline loom_type_info* manifest_type_info(loom_handle* handle, u32 domain, const loom_type_info* from) {
    auto* made = static_cast<loom_type_info*>(
        handle->shared_alloc(handle->shared_alloc_ctx, LOOM_DOMAIN_NONE, LOOM_MANIFESTED_TYPE_INFO_SIZE));
    if (made == nullptr) return nullptr;
    memcpy(made, from, sizeof *made);
    memset(made + 1, 0, LOOM_MANIFESTED_TYPE_INFO_SIZE - sizeof *made);
    made->manifested_kind = handle->db_kind;
    made->runtime_slot = -1;
    handle->tinfo_insert(handle->tinfo_ctx, domain, made->luid_text, made);
    return made;
}

/// Brings all records of `list`, which a null pointer closes, into the database behind the handle. Without memory
/// error 12, and what was made so far stays.
inline void typeinfo_initialize(loom_type_info* const* list, loom_handle* handle, u32 domain, u32* err) {
    for (; *list != nullptr; ++list) {
        const loom_type_info* const from = *list;
        auto* manifested =
            static_cast<loom_type_info*>(handle->tinfo_lookup(handle->tinfo_ctx, domain, from->luid_text));
        const bool created = manifested == nullptr;
        if (created) manifested = manifest_type_info(handle, domain, from);
        if (manifested == nullptr) {
            *err = LOOM_ENOMEM;
            loom_store_err(handle, LOOM_ENOMEM);
            return;
        }
        if (from->variant_table != nullptr)
            loom_update_variant_info(handle, domain, manifested, from, created ? 1 : 0);
    }
}

/// Prints the variant sizes of all records of `list`. Frame is the owner of the frame's trace statements. Returns
/// null.
template <class Frame>
inline void* type_variant_dump(loom_type_info* const* list, loom_print_fn print) {
    for (; *list != nullptr; ++list) {
        const loom_variant_table* const table = (*list)->variant_table;
        if (table == nullptr) {
            diag::say<Frame, diag::frame_says::type_variant_dump_no_variant_table>();
            continue;
        }
        print("n_variants %d\n", table->n_variants);
        for (int variant = 0; variant < table->n_variants; ++variant)
            print("variant %d used length %d alloc slop %d\n", variant,
                  static_cast<int>(table->entries[variant].used_length),
                  static_cast<int>(table->entries[variant].alloc_slop));
    }
    return nullptr;
}

} // namespace trellis::frame
