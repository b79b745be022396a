// The state-flag operations: reading and writing the tracking bytes of attributes and of array elements. The
// marks that accessors leave are made in object_access.h.
#pragma once

#include "instance/object_access.h"

namespace trellis {

namespace accessor {

using says = diag::record_says;

/// Mode test of the state-flag operations. Without a control block they proceed and look at the object's flag;
/// with tracking off they fail without a message.
template <class A, says Corrupted>
inline bool tracking_may_be_read(const call& c) {
    switch (c.mode()) {
    case tracking_mode::corrupted: die_of<A, Corrupted>();
    case tracking_mode::off: c.fail(LOOM_EINVAL); return false;
    default: return true;
    }
}

/// Entry of the get family: says "non state tracked", behind the error.
template <class A, says Corrupted, says NotTracked>
inline bool enter_flag_get(const call& c, const holder_of<A>* object) {
    if (c.pending() || !tracking_may_be_read<A, Corrupted>(c)) return false;
    if (is_tracked(object)) return true;
    c.fail(LOOM_EINVAL);
    say_of<A, NotTracked>();
    return false;
}

/// Entry of the set family: says "not state tracked", before the error.
template <class A, says Corrupted, says NotTracked>
inline bool enter_flag_set(const call& c, const holder_of<A>* object) {
    if (c.pending() || !tracking_may_be_read<A, Corrupted>(c)) return false;
    if (is_tracked(object)) return true;
    say_of<A, NotTracked>();
    c.fail(LOOM_EINVAL);
    return false;
}

/// Behind the entry of the set family: the instance is raised, then the variant gate.
template <class A>
inline bool may_write_flags(const call& c, holder_of<A>* object) {
    adjust<typename A::model>(c, object);
    if (direct::instance_variant(object, 1, 0) >= A::at.since) return true;
    c.fail_epoch();
    return false;
}

template <class A>
inline u8* own_flag(const call& c, const holder_of<A>* object) {
    return tracking_area<typename A::model>(c, object) + A::at.track;
}

/// The bytes of an array's elements: in the area for fixed arrays, in a block of their own for variable ones.
template <class A>
inline u8* element_flags(const call& c, const holder_of<A>* object) {
    u8* area = tracking_area<typename A::model>(c, object);
    if constexpr (is_fixed_array<A>)
        return area + A::track_elements;
    else
        return element_flags_of<A>(area);
}

template <class A>
inline u32 element_count(const holder_of<A>* object) {
    if constexpr (is_fixed_array<A>)
        return A::extent;
    else
        return count_of<A>(object);
}

// ---- One value ---------------------------------------------------------------------------------------------

template <is_single A>
u8 state_flag_get(loom_handle* handle, u32 domain, const holder_of<A>* object, u32* err) {
    const call c{handle, domain, err};
    if (!enter_flag_get<A, says::attribute_state_flag_get_corrupted_handle,
                        says::attribute_state_flag_get_not_tracked>(c, object))
        return 0;
    return *own_flag<A>(c, object);
}

template <is_single A>
void state_flag_set(loom_handle* handle, u32 domain, holder_of<A>* object, u8 state, u32* err) {
    const call c{handle, domain, err};
    if (!enter_flag_set<A, says::attribute_state_flag_set_corrupted_handle,
                        says::attribute_state_flag_set_not_tracked>(c, object) ||
        !may_write_flags<A>(c, object))
        return;
    store_flag(c, own_flag<A>(c, object), state);
}

// ---- Array elements ----------------------------------------------------------------------------------------

template <is_array A>
u8 state_flag_get(loom_handle* handle, u32 domain, const holder_of<A>* object, u32 index, u32* err) {
    const call c{handle, domain, err};
    if (!enter_flag_get<A, says::attribute_state_flag_get_corrupted_handle,
                        says::attribute_state_flag_get_not_tracked>(c, object))
        return 0;
    if (index >= element_count<A>(object)) {
        c.fail(LOOM_ENOENT);
        return 0;
    }
    const u8* flags = element_flags<A>(c, object);
    return flags == nullptr ? u8{0} : flags[index];
}

template <is_array A>
void state_flag_set(loom_handle* handle, u32 domain, holder_of<A>* object, u32 index, u8 state, u32* err) {
    const call c{handle, domain, err};
    if (!enter_flag_set<A, says::attribute_state_flag_set_corrupted_handle,
                        says::attribute_state_flag_set_not_tracked>(c, object))
        return;
    if (index >= element_count<A>(object)) {
        c.fail(LOOM_ENOENT);
        return;
    }
    if (!may_write_flags<A>(c, object)) return;
    u8* flags = element_flags<A>(c, object);
    if (flags != nullptr) store_flag(c, flags + index, state);
}

template <class A>
u8 state_flag_whole_get(loom_handle* handle, u32 domain, const holder_of<A>* object, u32* err) {
    const call c{handle, domain, err};
    if (!enter_flag_get<A, says::attribute_state_flag_whole_get_corrupted_handle,
                        says::attribute_state_flag_whole_get_not_tracked>(c, object))
        return 0;
    return *own_flag<A>(c, object);
}

template <class A>
void state_flag_whole_set(loom_handle* handle, u32 domain, holder_of<A>* object, u8 state, u32* err) {
    const call c{handle, domain, err};
    if (!enter_flag_set<A, says::attribute_state_flag_whole_set_corrupted_handle,
                        says::attribute_state_flag_whole_set_not_tracked>(c, object) ||
        !may_write_flags<A>(c, object))
        return;
    store_flag(c, own_flag<A>(c, object), state);
}

template <class A>
void state_flag_get_arr(loom_handle* handle, u32 domain, const holder_of<A>* object, u8** out, u32* err) {
    const call c{handle, domain, err};
    if (!enter_flag_get<A, says::attribute_state_flag_get_arr_corrupted_handle,
                        says::attribute_state_flag_get_arr_not_tracked>(c, object))
        return;
    *out = element_flags<A>(c, object);
}

/// The bytes go to the start of the tracking area, not to the element bytes, and unannounced: a fixed
/// property of this operation that callers rely on.
template <class A>
void state_flag_set_arr(loom_handle* handle, u32 domain, holder_of<A>* object, const u8* source, u32 length,
                        u32* err) {
    const call c{handle, domain, err};
    if (!enter_flag_set<A, says::attribute_state_flag_set_arr_corrupted_handle,
                        says::attribute_state_flag_set_arr_not_tracked>(c, object))
        return;
    if (length != element_count<A>(object)) {
        c.fail(LOOM_ENOENT);
        return;
    }
    if (!may_write_flags<A>(c, object)) return;
    memcpy(tracking_area<typename A::model>(c, object), source, length);
}

} // namespace accessor

namespace record {

/// Fills the whole area, pointer members included, and then the element blocks through the pointers as they then
/// stand: no caller may use it on a record with elements. Nothing is announced.
template <class M>
void set_all_state_tracking_flag(loom_handle* handle, u32 domain, typename M::object* object, u8 state) {
    u32 unused = 0;
    const call c{handle, domain, &unused};
    if (c.mode() != tracking_mode::on || object == nullptr || !is_tracked(object)) return;
    u8* area = tracking_area<M>(c, object);
    memset(area, state, tracking_size_of<M>(object));
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if constexpr (has_flag_block<A>) {
            if (!has_room_for<A>(object)) return;
            const u32 count = static_cast<u32>(count_of<A>(object));
            if (count == 0) return;
            memset(element_flags_of<A>(area), state, count);
            if constexpr (is_array_of_records<A>)
                for (u32 i = 0; i < count; ++i)
                    A::type::set_all_state_tracking_flag(handle, domain, pointer_of<A>(object) + i, state);
        }
    });
}

} // namespace record
} // namespace trellis
