// Arrays and character arrays: reading, writing, growing and emptying. A block is always exactly as long as the
// count says, which the walkers rely on. Lists stand in lists.h.
#pragma once

#include "instance/accessors.h"

namespace trellis {

/// Type of the value that an array's set takes: records are moved from, values are copied.
template <class A>
using source_of = std::conditional_t<is_array_of_records<A>, value_of<A>, const value_of<A>>;

// ---- Blocks of elements (also used by the binary reader) -----------------------------------------------------

/// Bytes of a block of `count` elements; record elements have their tracking areas behind all of them.
template <class Type>
inline size_t block_size(u64 count, bool tracked) {
    if constexpr (Type::category == value_category::record)
        return static_cast<size_t>(count) * (Type::base_size + (tracked ? Type::tracking_size : 0));
    else
        return static_cast<size_t>(count) * sizeof(typename Type::c_type);
}

/// Points element `index` of a tracked block at its tracking area.
template <class Type>
inline u8* place_element(const call& c, typename Type::c_type* block, u32 count, u32 index) {
    u8* area = element_area<Type>(block, count, index);
    point_at_area(c, block + index, area);
    return area;
}

/// Takes an element and the records in it out of the side table.
template <class Type>
inline void forget_places(const call& c, typename Type::c_type* element) {
    u32 unused = 0;
    loom_hd_mapping_destroy(c.handle, c.domain, element, &unused);
    Type::offset_remove(c.handle, c.domain, element, &unused);
}

/// Sets zeroed elements up in place, whatever error is pending, since they must be fit to be ended; they are new
/// memory, so nothing is announced. Returns how many elements of the block are set up: all but when memory ends.
template <class Type>
inline u32 initialize_elements(const call& c, typename Type::c_type* block, u32 first, u32 count, bool tracked) {
    const u32 earlier = *c.error;
    u32 ready = count;
    if constexpr (is_initialised(Type::category)) {
        u32 error = 0;
        for (u32 i = first; i < count && error == 0; ++i) {
            u8* area = nullptr;
            if constexpr (Type::category == value_category::record)
                if (tracked) area = place_element<Type>({c.handle, c.domain, &error}, block, count, i);
            initialize_inside<Type>({c.handle, c.domain, &error}, block + i, 0, 0, area);
            if (error == 0) continue;
            ready = i;
            if constexpr (Type::category == value_category::record)
                if (tracked) forget_places<Type>(c, block + i);
        }
        if (error != 0) c.fail(error);
    }
    // Initialising clears the handle's slot, which is the error word of a chain.
    if (earlier != 0) c.fail(earlier);
    return ready;
}

/// A zeroed block of flags for `count` elements; null with error 12 when there is no room.
inline u8* allocate_element_flags(const call& c, u32 count) {
    u8* made = static_cast<u8*>(c.allocate(count == 0 ? 1 : count));
    if (made == nullptr)
        c.fail(LOOM_ENOMEM);
    else
        memset(made, 0, count);
    return made;
}
/// Puts `made` in the place of the element flags; the first `kept` bytes move along.
template <class A>
inline void install_element_flags(const call& c, holder_of<A>* object, u8* made, u32 kept) {
    u8*& flags = element_flags_of<A>(tracking_area<typename A::model>(c, object));
    u8* old = flags;
    if (old != nullptr && kept != 0) memcpy(made, old, kept);
    c.store<u8*>(&flags, made, nullptr);
    if (old != nullptr) c.release(old);
}

/// Stores the block pointer and then the count.
template <class A>
inline void store_block(const call& c, holder_of<A>* object, value_of<A>* block, u32 count) {
    using count_type = typename A::length::type::c_type;
    c.store<value_of<A>*>(&pointer_of<A>(object), block, object);
    c.store<count_type>(&count_of<A>(object), static_cast<count_type>(count), object);
}

/// Gives an array whose elements are not set up yet, or have no end of their own, a zeroed block of flags that
/// keeps the first `kept` bytes of the old one. Without room for it, error 12 and an empty array: elements that
/// nobody has set up could not be ended.
template <class A>
inline bool replace_element_flags(const call& c, holder_of<A>* object, u32 count, u32 kept) {
    if (u8* made = allocate_element_flags(c, count)) {
        install_element_flags<A>(c, object, made, kept);
        return true;
    }
    value_of<A>* block = pointer_of<A>(object);
    store_block<A>(c, object, nullptr, 0);
    c.release(block);
    return false;
}

namespace accessor {

using says = diag::record_says;

// ---- Elements ----------------------------------------------------------------------------------------------

template <class A>
inline value_of<A>* elements_of(holder_of<A>* object) {
    if constexpr (is_fixed_array<A>)
        return cell_of<A>(object);
    else
        return pointer_of<A>(object);
}
template <class A>
inline u32 count_of_elements(const holder_of<A>* object) {
    if constexpr (is_fixed_array<A>)
        return A::extent;
    else
        return pointer_of<A>(object) == nullptr ? 0 : count_of<A>(object);
}

template <is_array A>
value_of<A>* get(loom_handle* handle, u32 domain, holder_of<A>* object, u32 index, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter() || !reach<A>(c, object)) return nullptr;
    if (index >= count_of_elements<A>(object)) {
        c.fail(LOOM_ENOENT);
        return nullptr;
    }
    return fetch_cell<A>(c, object, elements_of<A>(object) + index);
}

template <is_array_of_values A>
plain_of<A> get_value(loom_handle* handle, u32 domain, holder_of<A>* object, u32 index, u32* err) {
    value_of<A>* element = get<A>(handle, domain, object, index, err);
    return element == nullptr ? plain_of<A>{}
                              : direct::get_value<typename A::type>({handle, domain, err}, element);
}

template <is_array_of_values A>
void get_mem(loom_handle* handle, u32 domain, holder_of<A>* object, value_of<A>* destination, u32 length,
             u32* err) {
    const call c{handle, domain, err};
    if (!c.enter() || !reach<A>(c, object)) return;
    if (length > count_of_elements<A>(object)) {
        c.fail(LOOM_EINVAL);
        return;
    }
    if (length != 0) memcpy(destination, elements_of<A>(object), length * sizeof *destination);
}

// ---- Growth ------------------------------------------------------------------------------------------------

/// Traces the first growth of the field in this process.
template <class A>
inline void trace_reallocation() {
    static bool traced;
    if (__atomic_exchange_n(&traced, true, __ATOMIC_RELAXED)) return;
    say_of<A, says::attribute_set_worker_reallocating>();
}

/// Copies the tracking areas of the old elements and points the new ones at them. False with error 12 and nothing
/// left in the side table when that has no room. Where an old area lies is asked for: a block that once was to
/// hold more elements than could be set up has its areas further back.
template <class Type>
inline bool place_copies(const call& c, typename Type::c_type* to, u32 count, typename Type::c_type* from,
                         u32 old_count) {
    u32 error = 0;
    const call placing{c.handle, c.domain, &error};
    u32 placed = 0;
    for (; placed < old_count && error == 0; ++placed) {
        const u32 offset = loomlib_get_sttr_offset(c.handle, c.domain, from + placed);
        memcpy(element_area<Type>(to, count, placed),
               reinterpret_cast<u8*>(from + placed) + static_cast<i32>(offset), Type::tracking_size);
        u8* area = place_element<Type>(placing, to, count, placed);
        Type::offset_update(c.handle, c.domain, to + placed, area, &error);
    }
    if (error == 0) return true;
    for (u32 i = 0; i < placed; ++i)
        forget_places<Type>(c, to + i);
    c.fail(error);
    return false;
}

/// Moves the old elements into the larger block and repairs what a block copy breaks. False when nothing was
/// moved, for want of memory.
template <class A>
inline bool move_elements(const call& c, value_of<A>* to, u32 count, value_of<A>* from, u32 old_count,
                          bool tracked) {
    memcpy(static_cast<void*>(to), from, static_cast<size_t>(old_count) * sizeof *to);
    if constexpr (is_array_of_records<A>) {
        using type = typename A::type;
        if (tracked && !place_copies<type>(c, to, count, from, old_count)) return false;
        for (u32 i = 0; i < old_count; ++i) {
            type::post_copyout_cleanup(c.handle, c.domain, to + i, from + i, c.error);
            type::release_replaced(c.handle, c.domain, from + i, to + i);
            if (tracked) forget_places<type>(c, from + i);
        }
    }
    return true;
}

/// Makes the array `count` elements long, exactly. False with error 12 and nothing changed when there is no room;
/// false with that error also when the old elements could not take their strings along in copies of their own: the
/// array has grown then, and every element is fit for use.
template <class A>
inline bool grow(const call& c, holder_of<A>* object, u32 count, bool tracked) {
    value_of<A>* old = pointer_of<A>(object);
    const u32 old_count = old == nullptr ? 0 : static_cast<u32>(count_of<A>(object));
    const size_t size = block_size<typename A::type>(count, tracked);
    auto* block = static_cast<value_of<A>*>(c.allocate(size));
    if (block == nullptr) {
        c.fail(LOOM_ENOMEM);
        return false;
    }
    memset(static_cast<void*>(block), 0, size);
    // All memory is found before anything changes; the flags take their place last.
    u8* flags = nullptr;
    if (tracked && (flags = allocate_element_flags(c, count)) == nullptr) {
        c.release(block);
        return false;
    }
    if (old != nullptr) {
        if (!move_elements<A>(c, block, count, old, old_count, tracked)) {
            if (flags != nullptr) c.release(flags);
            c.release(block);
            return false;
        }
        if (c.reports_to_shared_database()) loomdb_plat_set_detach(c.handle, c.domain, old, 0);
        c.release(old);
    }
    store_block<A>(c, object, block, count);
    const u32 ready = initialize_elements<typename A::type>(c, block, old_count, count, tracked);
    if (ready != count) store_block<A>(c, object, block, ready);
    if (tracked) install_element_flags<A>(c, object, flags, old_count);
    return !c.pending();
}

/// A deep copy into a slot that exists: by way of the workspace.
template <class A>
inline void clone_into(const call& c, value_of<A>* slot, const value_of<A>* value) {
    // A value that was moved in has brought its own flags; a copy that fails must not end the slot.
    u8& flags = header_of(slot)->loom_flags;
    if ((flags & OBJ_NESTED) == 0) c.store<u8>(&flags, flags | OBJ_NESTED, slot);
    void* workspace = nullptr;
    u32 size = 0;
    loomlib_get_handle_ws(c.handle, &workspace, &size);
    A::type::clone_internal(c.handle, c.domain, value, &slot, workspace, static_cast<i32>(size), c.error);
}

/// Worker of the variable array's setters. A null value leaves the slot as growth made it.
template <class A>
void set_element(const call& c, holder_of<A>* object, u32 index, source_of<A>* value, bool by_move) {
    if (!enter_write<A>(c, object)) return;
    const bool tracked = tracking_on<A, says::attribute_set_worker_corrupted_handle, 0>(c);
    if (tracked) {
        if (!require_tracked<A, says::attribute_set_worker_not_tracked>(c, object)) return;
        if constexpr (is_array_of_records<A>)
            if (value != nullptr && !require_tracked<A, says::attribute_set_worker_value_not_tracked>(c, value))
                return;
    }
    if (index >= largest_count<A>) {
        c.fail(LOOM_EINVAL); // beyond what the count can say
        return;
    }
    const value_of<A>* block = pointer_of<A>(object);
    if (block == nullptr || index >= static_cast<u32>(count_of<A>(object))) {
        if (block != nullptr) trace_reallocation<A>();
        const u32 earlier = *c.error; // of the holder's variant: whether the array grows is another question
        *c.error = 0;
        if (!grow<A>(c, object, index + 1, tracked)) return;
        if (earlier != 0) c.fail(earlier);
    }
    if (value != nullptr) {
        value_of<A>* slot = pointer_of<A>(object) + index;
        if constexpr (is_array_of_records<A>) {
            if (by_move)
                A::type::set(c.handle, c.domain, slot, value, c.error);
            else
                clone_into<A>(c, slot, value);
        } else {
            direct::set<typename A::type>(c, slot, value);
        }
    }
    if (tracking_on<A, says::attribute_set_worker_corrupted_handle, 1>(c)) mark_element<A>(c, object, index);
    if (value != nullptr) c.report_containment(value, object);
}

template <is_variable_array A>
void set(loom_handle* handle, u32 domain, holder_of<A>* object, u32 index, source_of<A>* value, u32* err) {
    set_element<A>({handle, domain, err}, object, index, value, true);
}

template <is_variable_array A>
u32 set_cr(loom_handle* handle, holder_of<A>* object, u32 index, source_of<A>* value) {
    set_element<A>(chain_call(handle), object, index, value, true);
    return handle->last_error;
}
template <is_variable_array_of_records A>
u32 set_cr(loom_handle* handle, holder_of<A>* object, u32 index, source_of<A>* value, u32 by_move) {
    set_element<A>(chain_call(handle), object, index, value, by_move != 0);
    return handle->last_error;
}

template <is_variable_array_of_values A>
void set_value(loom_handle* handle, u32 domain, holder_of<A>* object, u32 index, plain_of<A> value, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    value_of<A>* slot = get<A>(handle, domain, object, index, err);
    if (*err == LOOM_ENOENT) {
        *err = 0;
        set_element<A>(c, object, index, nullptr, true);
        if (c.pending()) return;
        slot = pointer_of<A>(object) + index;
    }
    if (c.pending()) return;
    direct::set_value<typename A::type>(c, slot, value);
    if (!tracking_on<A, says::attribute_set_value_corrupted_handle>(c)) return;
    if (require_tracked<A, says::attribute_set_value_not_tracked>(c, object)) mark_element<A>(c, object, index);
}

/// Replaces the whole array by `length` elements; after a failed allocation the array is empty.
template <is_variable_array_of_values A>
void set_mem(loom_handle* handle, u32 domain, holder_of<A>* object, const value_of<A>* source, u32 length,
             u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    const bool tracked = tracking_on<A, says::attribute_set_mem_corrupted_handle>(c);
    if (tracked && !require_tracked<A, says::attribute_set_mem_not_tracked>(c, object)) return;
    if (length > largest_count<A>) {
        c.fail(LOOM_EINVAL);
        return;
    }
    if (value_of<A>* old = pointer_of<A>(object)) c.release(old);
    const size_t size = length * sizeof *source;
    auto* block = static_cast<value_of<A>*>(c.allocate(size == 0 ? 1 : size));
    if (block == nullptr) {
        store_block<A>(c, object, nullptr, 0);
        c.fail(LOOM_ENOMEM);
        return;
    }
    if (size != 0) memcpy(block, source, size);
    store_block<A>(c, object, block, length);
    if (!tracking_on<A, says::attribute_set_mem_corrupted_handle_variable_values>(c)) return;
    store_flag(c, tracking_area<typename A::model>(c, object) + A::at.track, state_set);
    replace_element_flags<A>(c, object, length, 0);
}

/// Ends all elements and the block. The element flags stay; the next growth replaces them.
template <is_variable_array A>
void remove_elements(loom_handle* handle, u32 domain, holder_of<A>* object) {
    if (object == nullptr || pointer_of<A>(object) == nullptr) return;
    u32 error = 0;
    const call c{handle, domain, &error};
    value_of<A>* elements = pointer_of<A>(object);
    record::tear_down_elements<A>(c, elements, static_cast<u32>(count_of<A>(object)));
    c.release(elements);
    store_block<A>(c, object, nullptr, 0);
}

// ---- Fixed arrays ------------------------------------------------------------------------------------------

/// The index is not tested; a null value changes and marks nothing.
template <is_fixed_array A>
void set(loom_handle* handle, u32 domain, holder_of<A>* object, u32 index, source_of<A>* value, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object) || value == nullptr) return;
    direct::set<typename A::type>(c, cell_of<A>(object) + index, value);
    if (tracking_on<A, says::attribute_set_corrupted_handle>(c)) {
        if (!require_tracked<A, says::attribute_set_not_tracked>(c, object)) return;
        mark_element<A>(c, object, index);
    }
    c.report_containment(value, object);
}

template <is_fixed_array_of_values A>
void set_value(loom_handle* handle, u32 domain, holder_of<A>* object, u32 index, plain_of<A> value, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    value_of<A>* slot = get<A>(handle, domain, object, index, err);
    if (slot == nullptr) return;
    direct::set_value<typename A::type>(c, slot, value);
    if (!tracking_on<A, says::attribute_set_value_corrupted_handle>(c)) return;
    if (require_tracked<A, says::attribute_set_value_not_tracked>(c, object)) mark_element<A>(c, object, index);
}

template <is_fixed_array_of_values A>
void set_mem(loom_handle* handle, u32 domain, holder_of<A>* object, const value_of<A>* source, u32 length,
             u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    if (length > A::extent) {
        c.fail(LOOM_EINVAL);
        return;
    }
    if (length != 0) {
        c.announce(cell_of<A>(object), length * sizeof *source, object);
        memcpy(cell_of<A>(object), source, length * sizeof *source);
    }
    mark<A, says::attribute_set_mem_corrupted_handle, says::attribute_set_mem_not_tracked>(c, object);
}

template <is_array_of_values A>
u32 set_mem_cr(loom_handle* handle, holder_of<A>* object, const value_of<A>* source, u32 length) {
    set_mem<A>(handle, handle->cr_domain, object, source, length, &handle->last_error);
    return handle->last_error;
}

// ---- Character arrays --------------------------------------------------------------------------------------

/// Copies at most `size` - 1 characters and always terminates; a cut copy gives error 28.
inline void copy_out(const call& c, char* destination, u32 size, const char* text, u32 length) {
    if (size == 0) {
        c.fail(LOOM_EINVAL);
        return;
    }
    if (length >= size) {
        length = size - 1;
        c.fail(LOOM_ENOSPC);
    }
    if (length != 0) memcpy(destination, text, length);
    destination[length] = 0;
}

template <is_counted_string A>
void get(loom_handle* handle, u32 domain, holder_of<A>* object, char* destination, u32 size, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter() || !reach<A>(c, object)) return;
    const char* text = pointer_of<A>(object);
    copy_out(c, destination, size, text, text == nullptr ? 0 : static_cast<u32>(count_of<A>(object)));
}

template <is_fixed_string A>
void get(loom_handle* handle, u32 domain, holder_of<A>* object, char* destination, u32 size, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter() || !reach<A>(c, object)) return;
    copy_out(c, destination, size, cell_of<A>(object), A::extent);
}

/// The length counts modulo the width of the length attribute; an empty string has no block.
template <is_counted_string A>
void set(loom_handle* handle, u32 domain, holder_of<A>* object, const char* source, u32 length, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    const u32 kept = static_cast<u32>(static_cast<typename A::length::type::c_type>(length));
    if (char* old = pointer_of<A>(object)) c.release(old);
    char* text = nullptr;
    if (kept != 0) {
        text = static_cast<char*>(c.allocate(size_t{kept} + 1));
        if (text == nullptr) {
            store_block<A>(c, object, nullptr, 0);
            c.fail(LOOM_ENOMEM);
            return;
        }
        strncpy(text, source, kept);
        text[kept] = 0;
    }
    store_block<A>(c, object, text, kept);
    mark<A, says::attribute_set_corrupted_handle, says::attribute_set_not_tracked>(c, object);
}

/// Fills the rest behind a shorter text as strncpy does, within `length`; no terminator is promised.
template <is_fixed_string A>
void set(loom_handle* handle, u32 domain, holder_of<A>* object, const char* source, u32 length, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    if (length > A::extent) {
        c.fail(LOOM_EINVAL);
        return;
    }
    c.announce(cell_of<A>(object), length, object);
    strncpy(cell_of<A>(object), source, length);
    mark<A, says::attribute_set_corrupted_handle, says::attribute_set_not_tracked>(c, object);
}

template <is_string A>
u32 set_cr(loom_handle* handle, holder_of<A>* object, const char* source, u32 length) {
    set<A>(handle, handle->cr_domain, object, source, length, &handle->last_error);
    return handle->last_error;
}

} // namespace accessor
} // namespace trellis
