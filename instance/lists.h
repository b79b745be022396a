// Lists: elements are objects of their own, linked through three links behind their header. Storing links is
// announced to the arena; a refusal ends the process. The end of a walk is the head's address, never null.
#pragma once

#include "instance/accessors.h"

#include <loom/database.h>

namespace trellis::accessor {

using says = diag::record_says;

template <class A>
using element_of = typename A::type::c_type;

/// The five statements of one linking operation.
template <says ArenaRefused, says Corrupted, says NotTracked, says ValueNotTracked>
struct link_statements {
    static constexpr says arena_refused = ArenaRefused;
    static constexpr says corrupted = Corrupted;
    static constexpr says not_tracked = NotTracked;
    static constexpr says value_not_tracked = ValueNotTracked;
};
using first_statements =
    link_statements<says::attribute_set_first_arena_refused, says::attribute_set_first_corrupted_handle,
                    says::attribute_set_first_not_tracked, says::attribute_set_first_value_not_tracked>;
using last_statements =
    link_statements<says::attribute_set_last_arena_refused, says::attribute_set_last_corrupted_handle,
                    says::attribute_set_last_not_tracked, says::attribute_set_last_value_not_tracked>;
using before_statements =
    link_statements<says::attribute_set_before_arena_refused, says::attribute_set_before_corrupted_handle,
                    says::attribute_set_before_not_tracked, says::attribute_set_before_value_not_tracked>;
using after_statements =
    link_statements<says::attribute_set_after_arena_refused, says::attribute_set_after_corrupted_handle,
                    says::attribute_set_after_not_tracked, says::attribute_set_after_value_not_tracked>;

/// Announces a range of links: to the arena, then to the shared-database layer, before the refusal is looked at.
template <class A, says Refused, u32 Copy>
inline void announce_link(const call& c, const void* address, size_t length, const void* owner) {
    if (c.handle->alloc_ctx == nullptr) return;
    const u32 granted = arbor_set_range(c.handle->alloc_ctx, address, length, c.domain);
    if (c.reports_to_shared_database()) loomdb_plat_set_dirty(c.handle, c.domain, owner);
    if (granted == 1) return;
    arbor_perror();
    die_of<A, Refused, Copy>();
}

template <class A, says Refused, u32 Copy>
inline void store_link(const call& c, void** link, void* value, const void* owner) {
    announce_link<A, Refused, Copy>(c, link, sizeof *link, owner);
    *link = value;
}

/// The cell that leads forward to the first element, or on from an element.
inline void** forward_cell(loom_list_head* head, void* at) {
    return at == head ? &head->first : &links_of(at)->next;
}
inline void** backward_cell(loom_list_head* head, void* at) {
    return at == head ? &head->last : &links_of(at)->previous;
}
/// The object that a neighbour's cell lies in: an element, or the holder of the head.
inline const void* object_at(const loom_list_head* head, const void* at, const void* holder) {
    return at == head ? holder : at;
}

/// A head that nothing has initialised is made to point at itself.
inline void settle_empty(const call& c, loom_list_head* head, const void* owner) {
    if (head->first != nullptr) return;
    c.announce(head, 16, owner);
    head->first = head->last = head;
}

/// Links `element` between two neighbours, each an element or the head. `head_side_is_previous` says which
/// neighbour's cell is the head's side, stored last.
template <class A, class Says>
inline void link_between(const call& c, holder_of<A>* holder, void* previous, void* next, void* element,
                         bool head_side_is_previous) {
    loom_list_head* head = list_of<A>(holder);
    loom_list_links* links = links_of(element);
    c.store<u32>(&head->count, head->count + 1, holder);
    store_link<A, Says::arena_refused, 0>(c, reinterpret_cast<void**>(&links->owner), head, element);
    store_link<A, Says::arena_refused, 1>(c, &links->next, next, element);
    store_link<A, Says::arena_refused, 2>(c, &links->previous, previous, element);
    void** forward = forward_cell(head, previous);
    void** backward = backward_cell(head, next);
    const void* before = object_at(head, previous, holder);
    const void* behind = object_at(head, next, holder);
    if (head_side_is_previous) {
        store_link<A, Says::arena_refused, 3>(c, backward, element, behind);
        store_link<A, Says::arena_refused, 4>(c, forward, element, before);
    } else {
        store_link<A, Says::arena_refused, 3>(c, forward, element, before);
        store_link<A, Says::arena_refused, 4>(c, backward, element, behind);
    }
}

/// Entry of a linking operation.
template <class A, class Says>
inline bool enter_link(const call& c, holder_of<A>* holder, const element_of<A>* element) {
    if (!enter_write<A>(c, holder)) return false;
    if (element == nullptr) {
        c.fail(LOOM_EINVAL);
        return false;
    }
    if (tracking_on<A, Says::corrupted>(c)) {
        if (!require_tracked<A, Says::not_tracked>(c, holder)) return false;
        if (!require_tracked<A, Says::value_not_tracked>(c, element)) return false;
    }
    settle_empty(c, list_of<A>(holder), holder);
    return true;
}

/// Behind the links: the list's state byte and the report.
template <class A>
inline void finish_link(const call& c, holder_of<A>* holder, const element_of<A>* element) {
    if (c.mode() == tracking_mode::on)
        store_flag(c, tracking_area<typename A::model>(c, holder) + A::at.track, state_set);
    c.report_containment(element, holder);
}

template <class A>
void set_first(loom_handle* handle, u32 domain, holder_of<A>* holder, element_of<A>* element, u32* err) {
    const call c{handle, domain, err};
    if (!enter_link<A, first_statements>(c, holder, element)) return;
    loom_list_head* head = list_of<A>(holder);
    link_between<A, first_statements>(c, holder, head, head->first, element, true);
    finish_link<A>(c, holder, element);
}

template <class A>
void set_last(loom_handle* handle, u32 domain, holder_of<A>* holder, element_of<A>* element, u32* err) {
    const call c{handle, domain, err};
    if (!enter_link<A, last_statements>(c, holder, element)) return;
    loom_list_head* head = list_of<A>(holder);
    link_between<A, last_statements>(c, holder, head->last, head, element, false);
    finish_link<A>(c, holder, element);
}

template <class A>
void set_before(loom_handle* handle, u32 domain, holder_of<A>* holder, element_of<A>* reference,
                element_of<A>* element, u32* err) {
    const call c{handle, domain, err};
    if (!enter_link<A, before_statements>(c, holder, element)) return;
    if (reference == nullptr) {
        c.fail(LOOM_EINVAL);
        return;
    }
    link_between<A, before_statements>(c, holder, links_of(reference)->previous, reference, element, true);
    finish_link<A>(c, holder, element);
}

template <class A>
void set_after(loom_handle* handle, u32 domain, holder_of<A>* holder, element_of<A>* reference,
               element_of<A>* element, u32* err) {
    const call c{handle, domain, err};
    if (!enter_link<A, after_statements>(c, holder, element)) return;
    if (reference == nullptr) {
        c.fail(LOOM_EINVAL);
        return;
    }
    link_between<A, after_statements>(c, holder, reference, links_of(reference)->next, element, false);
    finish_link<A>(c, holder, element);
}

/// Unlinks without ending the element, which keeps its own links and is the caller's from now on.
template <class A>
void remove(loom_handle* handle, u32 domain, holder_of<A>* holder, element_of<A>* element, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, holder)) return;
    if (element == nullptr) {
        c.fail(LOOM_EINVAL);
        return;
    }
    const bool tracked = tracking_on<A, says::attribute_remove_corrupted_handle>(c);
    if (tracked && !require_tracked<A, says::attribute_remove_not_tracked>(c, holder)) return;
    loom_list_head* head = list_of<A>(holder);
    loom_list_links* links = links_of(element);
    announce_link<A, says::attribute_remove_arena_refused, 0>(c, &links->next, 2 * sizeof(void*), element);
    // The mirror of linking: the head's own pointer first, the neighbour's link behind it.
    void** forward = forward_cell(head, links->previous);
    void** backward = backward_cell(head, links->next);
    const void* before = object_at(head, links->previous, holder);
    const void* behind = object_at(head, links->next, holder);
    if (links->next == head && links->previous != head) {
        store_link<A, says::attribute_remove_arena_refused, 1>(c, backward, links->previous, behind);
        store_link<A, says::attribute_remove_arena_refused, 2>(c, forward, links->next, before);
    } else {
        store_link<A, says::attribute_remove_arena_refused, 3>(c, forward, links->next, before);
        store_link<A, says::attribute_remove_arena_refused, 4>(c, backward, links->previous, behind);
    }
    c.store<u32>(&head->count, head->count - 1, holder);
    if (tracked) store_flag(c, tracking_area<typename A::model>(c, holder) + A::at.track, state_set);
    c.report_containment(element, holder);
}

template <class A>
u32 remove_cr(loom_handle* handle, holder_of<A>* holder, element_of<A>* element) {
    remove<A>(handle, handle->cr_domain, holder, element, &handle->last_error);
    return handle->last_error;
}

// ---- Walking -----------------------------------------------------------------------------------------------

template <class A>
inline bool enter_walk(const call& c, holder_of<A>* holder) {
    return c.enter() && reach<A>(c, holder);
}
template <class A>
inline element_of<A>* hand_out(const call& c, holder_of<A>* holder, void* element) {
    if (element == list_of<A>(holder)) element = nullptr;
    c.report_containment(element, holder);
    return static_cast<element_of<A>*>(element);
}

template <class A>
element_of<A>* get_first(loom_handle* handle, u32 domain, holder_of<A>* holder, u32* err) {
    const call c{handle, domain, err};
    return enter_walk<A>(c, holder) ? hand_out<A>(c, holder, list_of<A>(holder)->first) : nullptr;
}
template <class A>
element_of<A>* get_last(loom_handle* handle, u32 domain, holder_of<A>* holder, u32* err) {
    const call c{handle, domain, err};
    return enter_walk<A>(c, holder) ? hand_out<A>(c, holder, list_of<A>(holder)->last) : nullptr;
}
template <class A>
element_of<A>* get_next(loom_handle* handle, u32 domain, holder_of<A>* holder, element_of<A>* element, u32* err) {
    const call c{handle, domain, err};
    if (!enter_walk<A>(c, holder)) return nullptr;
    return element == nullptr ? nullptr : hand_out<A>(c, holder, links_of(element)->next);
}
template <class A>
element_of<A>* get_prev(loom_handle* handle, u32 domain, holder_of<A>* holder, element_of<A>* element, u32* err) {
    const call c{handle, domain, err};
    if (!enter_walk<A>(c, holder)) return nullptr;
    return element == nullptr ? nullptr : hand_out<A>(c, holder, links_of(element)->previous);
}
template <class A>
u32 get_count(loom_handle* handle, u32 domain, holder_of<A>* holder, u32* err) {
    const call c{handle, domain, err};
    return enter_walk<A>(c, holder) ? list_of<A>(holder)->count : 0;
}

/// Flags: 0 first, 1 last, 2 previous, 3 next.
template <class A>
element_of<A>* get_cr(loom_handle* handle, holder_of<A>* holder, u32 flag, element_of<A>* element) {
    const u32 domain = handle->cr_domain;
    u32* err = &handle->last_error;
    switch (flag) {
    case 0: return get_first<A>(handle, domain, holder, err);
    case 1: return get_last<A>(handle, domain, holder, err);
    case 2: return get_prev<A>(handle, domain, holder, element, err);
    case 3: return get_next<A>(handle, domain, holder, element, err);
    default:
        say_of<A, says::attribute_get_cr_invalid_flag>(flag);
        loom_store_err(handle, LOOM_EINVAL);
        return nullptr;
    }
}

/// Flags: 0 first, 1 last, 2 before, 3 after the reference.
template <class A>
u32 add_cr(loom_handle* handle, holder_of<A>* holder, element_of<A>* element, u32 flag, element_of<A>* reference) {
    const u32 domain = handle->cr_domain;
    u32* err = &handle->last_error;
    switch (flag) {
    case 0: set_first<A>(handle, domain, holder, element, err); break;
    case 1: set_last<A>(handle, domain, holder, element, err); break;
    case 2: set_before<A>(handle, domain, holder, reference, element, err); break;
    case 3: set_after<A>(handle, domain, holder, reference, element, err); break;
    default: say_of<A, says::attribute_add_cr_invalid_flag>(flag); loom_store_err(handle, LOOM_EINVAL);
    }
    return handle->last_error;
}

/// The record that holds the element's list, null for an element in no list.
template <class A>
holder_of<A>* get_parent(loom_handle* handle, u32 domain, element_of<A>* element, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter() || element == nullptr) return nullptr;
    loom_list_head* head = links_of(element)->owner;
    if (head == nullptr) return nullptr;
    auto* holder = at_offset<holder_of<A>>(reinterpret_cast<unsigned char*>(head) - A::at.offset, 0);
    c.report_containment(holder, nullptr);
    return holder;
}

} // namespace trellis::accessor
