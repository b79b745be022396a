// Containment and shared-database reports: counted per handle, and shown to its observer.
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"

namespace {
using namespace loom;

void report(loom_handle* handle, const loom_report& what) {
    open_handle* own = opened(handle);
    if (!own) return;
    ++own->reports[what.kind];
    if (own->observer) own->observer(handle, &what, own->observer_context);
}
} // namespace

LOOM_EXPORT void loom_set_containment(loom_handle* handle, uint32_t on, loom_report_fn observer, void* context) {
    handle->containment = on;
    loom::opened(handle)->observer = observer;
    loom::opened(handle)->observer_context = context;
}
LOOM_EXPORT uint64_t loom_report_count(loom_handle* handle, enum loom_report_kind kind) {
    return kind <= LOOM_REPORT_DETACH ? loom::opened(handle)->reports[kind] : 0;
}

LOOM_EXPORT void loomdb_record_containment2(loom_handle* handle, uint32_t domain, const void* value,
                                            const void* parent, uint32_t) {
    report(handle, {LOOM_REPORT_CONTAINMENT, domain, 0, 0, value, parent});
}
LOOM_EXPORT void loomdb_record_containment(loom_handle* handle, uint32_t domain, uint32_t kind,
                                           const void* subject, const void* parent, uint32_t) {
    report(handle, {LOOM_REPORT_CONTAINMENT, domain, kind, 0, subject, parent});
}
LOOM_EXPORT void loomdb_plat_set_dirty(loom_handle* handle, uint32_t domain, const void* object) {
    report(handle, {LOOM_REPORT_DIRTY, domain, 0, 0, object, nullptr});
}
LOOM_EXPORT void loomdb_plat_set_destroy(loom_handle* handle, uint32_t domain, const void* object) {
    report(handle, {LOOM_REPORT_DESTROY, domain, 0, 0, object, nullptr});
}
LOOM_EXPORT void loomdb_plat_set_detach(loom_handle* handle, uint32_t domain, const void* object, uint32_t arm) {
    report(handle, {LOOM_REPORT_DETACH, domain, 0, arm, object, nullptr});
}
