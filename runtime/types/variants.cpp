// Raising stored instances to what their domain resolves, and counting objects per variant.
#include "runtime/export.h"

#include <loom/instance.h>

#include <algorithm>
#include <sys/single_threaded.h>

LOOM_EXPORT void loomlib_adjust_variant(loom_handle* handle, uint32_t domain, void* object,
                                        const loom_type_info* tinfo, int32_t newest, uint32_t* err) {
    if (!object || !tinfo || *err) return;
    auto* instance = static_cast<loom_object*>(object);
    const int32_t limit = std::min<int32_t>(newest, instance->loom_layout_variant);
    if (instance->loom_variant >= limit) return;
    const int32_t target = std::min(limit, loom_domain_lookup_variant(handle, &handle->domain_state, tinfo, err));
    if (instance->loom_variant >= target) return;
    handle->write_hook(handle, &instance->loom_variant, sizeof instance->loom_variant, domain, nullptr);
    instance->loom_variant = static_cast<int8_t>(target);
}

namespace {
/// A manifested record is protected by the database's write lock; a static one is shared by all threads, if there
/// is more than one.
void count_one(loom_handle* handle, uint32_t domain, const loom_type_info* tinfo, uint64_t* counter) {
    if (handle->counter_hook) handle->counter_hook(handle->alloc_ctx, counter, 1, domain);
    if (tinfo->manifested_kind || __libc_single_threaded)
        ++*counter;
    else
        __atomic_fetch_add(counter, 1, __ATOMIC_RELAXED);
}
} // namespace

LOOM_EXPORT void loomlib_type_stats_create_object(loom_handle* handle, uint32_t domain, loom_type_info* tinfo,
                                                  uint64_t* statistics, uint32_t*) {
    count_one(handle, domain, tinfo, statistics);
}

LOOM_EXPORT void loomlib_type_stats_destroy_object(loom_handle* handle, uint32_t domain, loom_type_info* tinfo,
                                                   uint64_t* statistics, uint32_t*) {
    count_one(handle, domain, tinfo, statistics + 1);
}
