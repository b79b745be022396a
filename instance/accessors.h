// Reading and writing attributes, and the operations on whole records that move or copy values: get, get_all,
// set_all, set and the repair after a block copy. Arrays, lists and arms have their own headers.
#pragma once

#include "instance/lifecycle.h"

#include <loom/database.h>

namespace trellis {

/// What get_value and set_value pass.
template <class A>
using plain_of = typename A::type::plain_type;

/// Step shared by the value getters: the value's cell through its type's own `get`, reported as handed out.
template <class A>
inline value_of<A>* fetch_cell(const call& c, holder_of<A>* object, value_of<A>* address) {
    value_of<A>* cell = direct::get<typename A::type>(c, address);
    c.report_containment(cell, object);
    return cell;
}

namespace accessor {

using says = diag::record_says;

// ---- One value in place ------------------------------------------------------------------------------------

template <is_one_value A>
value_of<A>* get(loom_handle* handle, u32 domain, holder_of<A>* object, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter() || !reach<A>(c, object)) return nullptr;
    return fetch_cell<A>(c, object, cell_of<A>(object));
}

template <is_read_by_value A>
plain_of<A> get_value(loom_handle* handle, u32 domain, holder_of<A>* object, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter() || !reach<A>(c, object)) return plain_of<A>{};
    value_of<A>* cell = direct::get<typename A::type>(c, cell_of<A>(object));
    if (cell == nullptr) return plain_of<A>{};
    c.report_containment(cell, object);
    return direct::get_value<typename A::type>(c, cell);
}

/// The store comes first, the tracking check behind it: a set on an object that should be tracked and is not has
/// changed the value when it fails.
template <is_set_as_a_whole A>
void set(loom_handle* handle, u32 domain, holder_of<A>* object,
         std::conditional_t<is_nested_record<A>, value_of<A>, const value_of<A>>* value, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    direct::set<typename A::type>(c, cell_of<A>(object), value);
    if (!mark<A, says::attribute_set_corrupted_handle, says::attribute_set_not_tracked>(c, object)) return;
    c.report_containment(value, object);
}

template <is_plain A>
void set_value(loom_handle* handle, u32 domain, holder_of<A>* object, plain_of<A> value, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    value_of<A>* cell = nullptr;
    if (c.enter() && reach<A>(c, object)) cell = fetch_cell<A>(c, object, cell_of<A>(object));
    c.report_containment(cell, object); // a second time: both reports stand
    if (c.pending()) return;
    if (cell == nullptr) {
        c.fail(LOOM_ENOENT);
        return;
    }
    direct::set_value<typename A::type>(c, cell, value);
    mark<A, says::attribute_set_value_corrupted_handle, says::attribute_set_value_not_tracked>(c, object);
}

} // namespace accessor

namespace record {

// ---- All values at once ------------------------------------------------------------------------------------

/// Calls the body for the attributes of each variant that the instance has reached; the variant is read afresh
/// for each later one.
template <class M, class Body>
inline void each_reached_attribute(const typename M::object* object, Body&& body) {
    for (i8 variant = 0; variant <= M::newest; ++variant) {
        if (direct::instance_variant(object, 1, 0) >= variant) body(variant);
    }
}

template <class A>
inline void fetch_into(const call& c, holder_of<A>* object, plain_of<A>* out) {
    value_of<A>* cell = direct::get<typename A::type>(c, cell_of<A>(object));
    if (cell == nullptr) {
        *out = plain_of<A>{};
        return;
    }
    c.report_containment(cell, object);
    if constexpr (is_any_enumeration(A::type::category)) {
        // Read straight from the storage, behind a test of its own.
        *out = c.pending() ? plain_of<A>{} : cell->value;
    } else {
        *out = direct::get_value<typename A::type>(c, cell);
    }
}

/// `outs_and_error`: one out pointer per value attribute, in attribute order, then err.
template <class M, class... Argument>
void get_all(loom_handle* handle, u32 domain, typename M::object* object, Argument... outs_and_error) {
    void* const arguments[] = {static_cast<void*>(outs_and_error)...};
    const call c{handle, domain, static_cast<u32*>(arguments[sizeof...(Argument) - 1])};
    if (!c.enter()) return;
    each_reached_attribute<M>(object, [&](i8 variant) {
        u32 position = 0;
        for_each_attribute(typename M::attributes{}, [&]<class A>() {
            if constexpr (is_read_by_value<A>) {
                if (A::at.since == variant)
                    fetch_into<A>(c, object, static_cast<plain_of<A>*>(arguments[position]));
                ++position;
            }
        });
    });
}

/// A value in transit through set_all's argument list.
struct value_slot {
    u64 bits;
    template <class T>
    static value_slot of(T value) {
        value_slot slot{0};
        memcpy(&slot.bits, &value, sizeof value);
        return slot;
    }
    template <class T>
    T as() const {
        T value;
        memcpy(&value, &bits, sizeof value);
        return value;
    }
};

/// A bulk set is no change in the sense of tracking: it marks nothing and reports nothing.
template <class M, class... Argument>
void set_all(loom_handle* handle, u32 domain, typename M::object* object, Argument... values_and_error) {
    const value_slot slots[] = {value_slot::of(values_and_error)...};
    const call c{handle, domain, slots[sizeof...(Argument) - 1].template as<u32*>()};
    if (!c.enter()) return;
    adjust<M>(c, object);
    each_reached_attribute<M>(object, [&](i8 variant) {
        u32 position = 0;
        for_each_attribute(typename M::attributes{}, [&]<class A>() {
            if constexpr (A::facts.settable) {
                if (A::at.since == variant)
                    direct::set_value<typename A::type>(c, cell_of<A>(object),
                                                        slots[position].template as<plain_of<A>>());
                ++position;
            }
        });
    });
}

// ---- Whole objects -----------------------------------------------------------------------------------------

template <class M>
typename M::object* get(loom_handle* handle, u32 domain, typename M::object* object) {
    u32 unused = 0;
    call{handle, domain, &unused}.report_containment(object, nullptr);
    return object;
}

/// Element flag blocks of `to` that `from` does not share.
template <class M>
inline void release_replaced_flags(const call& c, typename M::object* to, const typename M::object* from) {
    if (c.mode() != tracking_mode::on || !is_tracked(to) || !is_tracked(from)) return;
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if constexpr (has_flag_block<A>) {
            if (!has_room_for<A>(to) || !has_room_for<A>(from)) return;
            u8*& flags = element_flags_of<A>(tracking_area<M>(c, to));
            if (flags == nullptr || flags == element_flags_of<A>(tracking_area<M>(c, from))) return;
            c.release(flags);
            c.store<u8*>(&flags, nullptr, nullptr);
        }
    });
}

template <class A>
inline void release_replaced_values(const call& c, holder_of<A>* to, const holder_of<A>* from) {
    value_of<A>* values = cell_of<A>(to);
    const value_of<A>* kept = cell_of<A>(from);
    for (u32 i = 0; i < values_in_place<A>; ++i) {
        if constexpr (A::type::category == value_category::record)
            A::type::release_replaced(c.handle, c.domain, values + i, kept + i);
        else if (memcmp(values + i, kept + i, sizeof *values) != 0)
            A::type::destroy_internal(c.handle, c.domain, values + i, 0);
    }
}

/// What `to` holds outside and does not share with `from` goes back: before a block copy overwrites `to`, and for
/// elements that a block copy has moved away. Values go by their own operations, without statistics; elements,
/// arms and list elements are objects and count as ended. References are let go of; equal oids are two references.
template <class M>
void release_replaced(loom_handle* handle, u32 domain, typename M::object* to, const typename M::object* from) {
    u32 error = 0;
    const call c{handle, domain, &error};
    release_replaced_flags<M>(c, to, from);
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if (!has_room_for<A>(to) || !has_room_for<A>(from)) return;
        if constexpr (is_object<A> || is_fixed_array<A>) {
            if constexpr (owns_storage(A::type::category)) release_replaced_values<A>(c, to, from);
        } else if constexpr (is_variable_array<A> || is_counted_string<A> || is_arm<A>) {
            if (pointer_of<A>(from) != pointer_of<A>(to)) tear_down<A>(c, to);
        } else if constexpr (is_list<A>) {
            // The copy of an empty head points at the head that it was copied of, which is no element.
            const loom_list_head* head = list_of<A>(to);
            if (first_of(head) != nullptr && head->first != list_of<A>(from)->first) tear_down<A>(c, to);
        } else if constexpr (is_oid<A>) {
            if (refers(*oid_of<A>(to))) tear_down<A>(c, to);
        } else {
            using enum attribute_shape;
            needs_nothing<A, plain, length, fixed_string>();
        }
    });
}

/// Tells the arena what is about to change in a list's links; a refusal ends the process.
template <class A, says What, u32 Copy>
inline void announce_links(const call& c, const void* address, size_t length) {
    if (c.handle->alloc_ctx == nullptr) return;
    const u32 granted = arbor_set_range(c.handle->alloc_ctx, address, length, c.domain);
    if (granted == 1) return;
    arbor_perror();
    die_of<A, What, Copy>();
}

/// Moves a list to the destination's head: the ends are redirected, then every element's owner.
template <class A>
inline void move_list(const call& c, holder_of<A>* destination, holder_of<A>* source) {
    loom_list_head* to = list_of<A>(destination);
    loom_list_head* from = list_of<A>(source);
    void* first = first_of(from);
    void* last = from->last;
    c.announce(to, 16, destination);
    to->first = to->last = to;
    if (first != nullptr) {
        announce_links<A, says::post_copyout_cleanup_arena_refused, 0>(c, &links_of(first)->previous,
                                                                       sizeof(void*));
        links_of(first)->previous = to;
        announce_links<A, says::post_copyout_cleanup_arena_refused, 1>(c, &links_of(last)->next, sizeof(void*));
        links_of(last)->next = to;
        c.announce(to, 16, destination);
        to->first = first;
        to->last = last;
        c.announce(from, 16, source);
        from->first = from->last = from;
        for (void* element = first; element != nullptr; element = next_of(to, element))
            c.store<loom_list_head*>(&links_of(element)->owner, to, element);
    }
    c.store<u32>(&from->count, 0, source);
}

/// The destination's value takes a private copy. Every value does, also behind one that found no memory: two
/// objects must never be left with one block. The first error counts. References were counted once, for the
/// source, and move.
template <class A>
inline void take_private_copy(const call& c, value_of<A>* to, value_of<A>* from) {
    u32 error = 0;
    if constexpr (A::type::category == value_category::record) {
        constexpr bool may_refer = A::type::oid_count != 0 || A::type::has_nested_records;
        if constexpr (may_refer) A::type::forget_references(c.handle, c.domain, to, true);
    }
    A::type::set(c.handle, c.domain, to, from, &error);
    if (error != 0 && !c.pending()) *c.error = error;
}

/// After a block copy both objects point at the same outside storage: values take private copies; what is owned
/// by pointer, and the one reference that was counted, move to the destination.
template <class M>
void post_copyout_cleanup(loom_handle* handle, u32 domain, typename M::object* destination,
                          typename M::object* source, u32* err) {
    const call c{handle, domain, err};
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if (!has_room_for<A>(destination) || !has_room_for<A>(source)) return;
        if constexpr (is_object<A> || is_fixed_array<A>) {
            if constexpr (owns_storage(A::type::category))
                for (u32 i = 0; i < values_in_place<A>; ++i)
                    take_private_copy<A>(c, cell_of<A>(destination) + i, cell_of<A>(source) + i);
        } else if constexpr (is_variable_array<A> || is_counted_string<A>) {
            c.store<value_of<A>*>(&pointer_of<A>(source), nullptr, source);
            using count = typename A::length::type::c_type;
            c.store<count>(&count_of<A>(source), count{0}, source);
        } else if constexpr (is_arm<A>) {
            c.store<value_of<A>*>(&pointer_of<A>(source), nullptr, source);
        } else if constexpr (is_list<A>) {
            move_list<A>(c, destination, source);
        } else if constexpr (is_oid<A>) {
            if (refers(*oid_of<A>(source))) c.store<loom_oid>(oid_of<A>(source), loom_oid{}, source);
        } else {
            using enum attribute_shape;
            needs_nothing<A, plain, length, fixed_string>(); // whole in the block that was copied
        }
    });
}

/// Moves the tracking flags behind a block copy; element flag blocks now belong to the destination.
template <class M>
inline void move_tracking_area(const call& c, typename M::object* destination, typename M::object* source) {
    u8* to = tracking_area<M>(c, destination);
    u8* from = tracking_area<M>(c, source);
    const u32 size = tracking_size_of<M>(destination);
    repoint<M>(c, destination, to);
    c.announce(to, size, to);
    memcpy(to, from, size);
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if constexpr (has_flag_block<A>)
            if (has_room_for<A>(source)) c.store<u8*>(&element_flags_of<A>(from), nullptr, nullptr);
    });
}

/// A move of a whole object. Unlike all others it does not look at *err on entry.
template <class M>
void set(loom_handle* handle, u32 domain, typename M::object* destination, typename M::object* source, u32* err) {
    const call c{handle, domain, err};
    adjust<M>(c, destination);
    if (destination == source) return;
    loom_object* to = header_of(destination);
    const loom_object* from = header_of(source);
    if (to->loom_variant < from->loom_variant || to->loom_layout_variant != from->loom_layout_variant) {
        c.fail_epoch();
        return;
    }
    const tracking_mode mode = c.mode();
    if (mode == tracking_mode::corrupted) diag::die<M, says::set_corrupted_handle>();
    const u32 size = mode == tracking_mode::absent ? M::base_size : layout_size_of<M>(destination);
    release_replaced<M>(handle, domain, destination, source);

    const u8 kept_flags = to->loom_flags;
    c.announce(destination, size, destination);
    memcpy(static_cast<void*>(destination), source, size);
    if (mode != tracking_mode::absent) {
        to->loom_flags = static_cast<u8>((to->loom_flags & ~OBJ_STTR_OFFSET) | (kept_flags & OBJ_STTR_OFFSET));
        if (mode == tracking_mode::on) {
            if (!is_tracked(destination)) {
                c.fail(LOOM_EINVAL);
                diag::say<M, says::set_not_tracked>();
                return;
            }
            move_tracking_area<M>(c, destination, source);
        }
    }
    M::type::post_copyout_cleanup(handle, domain, destination, source, err);
}

} // namespace record
} // namespace trellis
