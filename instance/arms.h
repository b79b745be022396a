// Arms of unions and choices. An arm is a pointer to an object of its own; setting it selects its case, and
// nothing else ever touches the arms of other cases: they stay until they are detached or their holder ends.
#pragma once

#include "instance/accessors.h"

namespace trellis::accessor {

using says = diag::record_says;

template <class A>
inline i32& discriminator_value(holder_of<A>* object) {
    return cell_of<typename A::discriminator>(object)->value;
}
template <class A>
inline i32 discriminator_value(const holder_of<A>* object) {
    return cell_of<typename A::discriminator>(object)->value;
}
/// True when the discriminator selects the arm.
template <class A>
inline bool is_selected(const holder_of<A>* object) {
    return discriminator_value<A>(object) == A::selected_by;
}

/// The arm's value whatever the discriminator says; a null arm is the value type's to decide.
template <is_arm A>
value_of<A>* get(loom_handle* handle, u32 domain, holder_of<A>* object, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter() || !reach<A>(c, object)) return nullptr;
    return fetch_cell<A>(c, object, object == nullptr ? nullptr : pointer_of<A>(object));
}

template <class A>
inline void report_detached(const call& c, const value_of<A>* arm, const void* holder) {
    c.report_containment(arm, holder);
    if (c.reports_to_shared_database()) loomdb_plat_set_detach(c.handle, c.domain, arm, 1);
}

/// Takes ownership of the value and selects the arm's case. An old value is overwritten, not ended: whoever kept
/// a pointer to it owns it.
template <is_arm A>
void set(loom_handle* handle, u32 domain, holder_of<A>* object, value_of<A>* value, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    value_of<A>*& arm = pointer_of<A>(object);
    if (arm != nullptr) report_detached<A>(c, arm, object);
    c.store<value_of<A>*>(&arm, value, object);
    c.store<i32>(&discriminator_value<A>(object), A::selected_by, object);
    if (!mark<A, says::attribute_set_corrupted_handle, says::attribute_set_not_tracked>(c, object)) return;
    c.report_containment(value, object);
}

template <is_arm A>
u32 set_cr(loom_handle* handle, holder_of<A>* object, value_of<A>* value) {
    set<A>(handle, handle->cr_domain, object, value, &handle->last_error);
    return handle->last_error;
}

/// Hands a selected arm to the caller. The discriminator becomes 0, whatever that means for its type.
template <class A>
value_of<A>* get_detach(loom_handle* handle, u32 domain, holder_of<A>* object, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return nullptr;
    if (object == nullptr || !is_selected<A>(object)) return nullptr;
    value_of<A>*& arm = pointer_of<A>(object);
    value_of<A>* detached = arm;
    c.store<value_of<A>*>(&arm, nullptr, object);
    c.store<i32>(&discriminator_value<A>(object), 0, object);
    if (!mark<A, says::attribute_get_detach_corrupted_handle, says::attribute_get_detach_not_tracked>(c, object,
                                                                                                      0))
        return detached;
    report_detached<A>(c, detached, object);
    return detached;
}

} // namespace trellis::accessor
