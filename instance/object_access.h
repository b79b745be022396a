// Typed addresses inside an object, the place of its tracking area, and the two tests that nearly every
// operation makes: is the attribute within the instance's variant, and may its change be marked. No exported
// operation stands here.
#pragma once

#include "diag/trace.h"
#include "instance/attribute.h"
#include "instance/call.h"

#include <string.h>
#include <type_traits>

namespace trellis {

template <class T>
inline T* at_offset(void* base, u32 offset) {
    return reinterpret_cast<T*>(static_cast<unsigned char*>(base) + offset);
}
template <class T>
inline const T* at_offset(const void* base, u32 offset) {
    return reinterpret_cast<const T*>(static_cast<const unsigned char*>(base) + offset);
}

template <class Object>
inline loom_object* header_of(Object* object) {
    return reinterpret_cast<loom_object*>(object);
}
template <class Object>
inline const loom_object* header_of(const Object* object) {
    return reinterpret_cast<const loom_object*>(object);
}

template <class A>
using holder_of = typename A::model::object;
template <class A>
using value_of = typename A::type::c_type;

/// The attribute's value in place (for fixed arrays and fixed strings the first element); null for null.
template <class A>
inline value_of<A>* cell_of(holder_of<A>* object) {
    return object == nullptr ? nullptr : at_offset<value_of<A>>(object, A::at.offset);
}
template <class A>
inline const value_of<A>* cell_of(const holder_of<A>* object) {
    return object == nullptr ? nullptr : at_offset<value_of<A>>(object, A::at.offset);
}

/// Values of an in-place attribute: N for a fixed array, else one.
template <class A>
constexpr u32 values_in_place = [] {
    if constexpr (is_fixed_array<A>)
        return A::extent;
    else
        return 1u;
}();

/// The pointer of a variable array, counted string or arm.
template <class A>
inline value_of<A>*& pointer_of(holder_of<A>* object) {
    return *at_offset<value_of<A>*>(object, A::at.offset);
}
template <class A>
inline value_of<A>* pointer_of(const holder_of<A>* object) {
    return *at_offset<value_of<A>*>(object, A::at.offset);
}

/// The count of a variable array or counted string.
template <class A>
inline typename A::length::type::c_type& count_of(holder_of<A>* object) {
    return *at_offset<typename A::length::type::c_type>(object, A::length::at.offset);
}
template <class A>
inline u32 count_of(const holder_of<A>* object) {
    return static_cast<u32>(*at_offset<typename A::length::type::c_type>(object, A::length::at.offset));
}

/// The highest count that the array's length attribute can hold.
template <class A>
constexpr u32 largest_count = sizeof(typename A::length::type::c_type) >= 4
                                  ? 0xFFFFFFFFu
                                  : (1u << (8 * sizeof(typename A::length::type::c_type) % 32)) - 1;

template <class A>
inline loom_list_head* list_of(holder_of<A>* object) {
    return at_offset<loom_list_head>(object, A::at.offset);
}
template <class A>
inline const loom_list_head* list_of(const holder_of<A>* object) {
    return at_offset<loom_list_head>(object, A::at.offset);
}
inline loom_list_links* links_of(void* element) {
    return at_offset<loom_list_links>(element, LOOM_LIST_LINKS_OFFSET);
}
inline const loom_list_links* links_of(const void* element) {
    return at_offset<loom_list_links>(element, LOOM_LIST_LINKS_OFFSET);
}
/// A head that no initialize has seen is all zero and counts as empty.
inline void* first_of(const loom_list_head* head) { return head->first == head ? nullptr : head->first; }
inline void* next_of(const loom_list_head* head, const void* element) {
    void* next = links_of(element)->next;
    return next == head ? nullptr : next;
}

/// The oid value behind the target type word.
template <class A>
inline loom_oid* oid_of(holder_of<A>* object) {
    return at_offset<loom_oid>(object, A::at.offset + 8);
}
template <class A>
inline const loom_oid* oid_of(const holder_of<A>* object) {
    return at_offset<loom_oid>(object, A::at.offset + 8);
}
/// Whether there is an object behind an oid: object words below 256 stand for none.
inline bool refers(const loom_oid& oid) { return oid.object >= 256; }
template <class A>
inline loom_type_info*& target_word_of(holder_of<A>* object) {
    return *at_offset<loom_type_info*>(object, A::at.offset);
}

/// A variant clamped to the newest that this code knows; a negative one stays.
template <class Model>
constexpr i8 clamp_variant(i32 variant) {
    const i8 low = static_cast<i8>(variant);
    return low > Model::newest ? Model::newest : low;
}

/// What a peer speaks of this type, clamped.
template <class Model>
inline i8 peer_variant(const call& c, const loom_type_info* tinfo) {
    return clamp_variant<Model>(direct::domain_variant(c.handle, tinfo, c.error));
}

/// The static record's address, or the database's copy of it when objects live in a database.
template <class Bundle>
inline loom_type_info* resident_type_info(const call& c, const loom_type_info* tinfo) {
    if (c.handle->db_kind == 0) return const_cast<loom_type_info*>(tinfo);
    return loom_type_info_ptr_get(c.handle, c.domain, tinfo, Bundle::typeinfo_initialize);
}

/// Layout and tracking sizes belong to the code that laid the object out; an unknown layout counts as the newest.
template <class Model>
inline u32 layout_index(const typename Model::object* object) {
    const u32 layout = header_of(object)->loom_layout_variant;
    return layout > static_cast<u32>(Model::newest) ? static_cast<u32>(Model::newest) : layout;
}
template <class Model>
inline u32 layout_size_of(const typename Model::object* object) {
    if constexpr (Model::newest == 0)
        return Model::layout_sizes[0];
    else
        return Model::layout_sizes[layout_index<Model>(object)];
}
template <class Model>
inline u32 tracking_size_of(const typename Model::object* object) {
    if constexpr (Model::newest == 0)
        return Model::tracking_sizes[0];
    else
        return Model::tracking_sizes[layout_index<Model>(object)];
}
template <class Model>
constexpr u32 newest_tracking_size = Model::tracking_sizes[Model::newest];

inline bool is_tracked(const void* object) {
    return (static_cast<const loom_object*>(object)->loom_flags & OBJ_STATE_TRACKED) != 0;
}

/// False for an attribute of a variant that the code which laid the object out did not know: there is no memory
/// for it.
template <class A>
inline bool has_room_for(const holder_of<A>* object) {
    if constexpr (A::at.since == 0)
        return true;
    else
        return header_of(object)->loom_layout_variant >= A::at.since;
}

/// Distance from the object to its tracking area.
template <class Model>
inline u32 tracking_offset(const call& c, const typename Model::object* object) {
    if ((header_of(object)->loom_flags & OBJ_STTR_OFFSET) != 0)
        return loomlib_get_sttr_offset(c.handle, c.domain, object);
    return c.handle->sttr_block == nullptr ? Model::base_size : layout_size_of<Model>(object);
}
/// Offsets are modulo 2^32: an area may lie in front of the object.
template <class Model>
inline u8* tracking_area(const call& c, const typename Model::object* object) {
    const u32 offset = tracking_offset<Model>(c, object);
    return reinterpret_cast<u8*>(const_cast<typename Model::object*>(object)) + static_cast<i32>(offset);
}
/// The offset from an object to an area, as loomlib_update_sttr_offset takes it.
inline u32 offset_to(const void* object, const void* area) {
    return static_cast<u32>(static_cast<const u8*>(area) - static_cast<const u8*>(object));
}

/// Records that the object's tracking area lies at `area`. Without room for the record, error 12: the object must
/// then not be used, since its flags would be looked for inside its neighbour. A copy has the flag of the object
/// that it was made from; for copies the handle's slot tells.
template <class Object>
inline void point_at_area(const call& c, Object* object, const u8* area) {
    const u32 earlier = c.handle->last_error;
    loomlib_update_sttr_offset(c.handle, c.domain, object, offset_to(object, area));
    if ((header_of(object)->loom_flags & OBJ_STTR_OFFSET) == 0 || c.handle->last_error != earlier)
        c.fail(LOOM_ENOMEM);
}

/// Where a nested record's own area starts inside its holder's.
template <class A>
constexpr u32 nested_track = (A::at.track + A::type::tracking_alignment) & ~(A::type::tracking_alignment - 1);
/// Where the nested areas of a fixed array of records start, and their distance.
template <class A>
constexpr u32 element_track = (A::track_elements + A::extent + A::type::tracking_alignment - 1) &
                              ~(A::type::tracking_alignment - 1);

/// The pointer to a variable array's element flags, in the holder's tracking area.
template <class A>
inline u8*& element_flags_of(u8* area) {
    return *reinterpret_cast<u8**>(area + A::track_block);
}

/// The tracking area of element `index` in a block of `count` record elements.
template <class Type>
inline u8* element_area(void* block, u32 count, u32 index) {
    return static_cast<u8*>(block) + static_cast<size_t>(count) * Type::base_size +
           static_cast<size_t>(index) * Type::tracking_size;
}

/// Variant gate of an attribute: an attribute of a later variant than the instance's is out of reach.
template <class A>
inline bool reach(const call& c, const holder_of<A>* object) {
    const i8 variant = direct::instance_variant(object, 1, variant_indicator(A::type::category));
    if (variant >= A::at.since) return true;
    c.fail_epoch();
    return false;
}

/// Raises the instance to what may now be written; every writing operation begins with it.
template <class Model>
inline void adjust(const call& c, typename Model::object* object) {
    direct::adjust_variant(c.handle, c.domain, object, Model::newest, c.error);
}

/// Entry of a writing accessor.
template <class A>
inline bool enter_write(const call& c, holder_of<A>* object) {
    if (!c.enter()) return false;
    adjust<typename A::model>(c, object);
    return reach<A>(c, object);
}

template <class A, diag::record_says What, u32 Copy = 0, class... Argument>
inline void say_of(Argument... argument) {
    diag::say_of<A, trace_kind_of<A>(), What, Copy>(argument...);
}
template <class A, diag::record_says What, u32 Copy = 0>
[[noreturn]] inline void die_of() {
    say_of<A, What, Copy>();
    abort();
}

/// True while tracking is on; a corrupted handle ends the process.
template <class A, diag::record_says Corrupted, u32 Copy = 0>
inline bool tracking_on(const call& c) {
    const tracking_mode mode = c.mode();
    if (mode == tracking_mode::corrupted) die_of<A, Corrupted, Copy>();
    return mode == tracking_mode::on;
}

/// In tracking mode an object without tracking cannot be marked: error 22.
template <class A, diag::record_says NotTracked>
inline bool require_tracked(const call& c, const void* object) {
    if (is_tracked(object)) return true;
    c.fail(LOOM_EINVAL);
    say_of<A, NotTracked>();
    return false;
}

inline void store_flag(const call& c, u8* flag, u8 state) { c.store<u8>(flag, state, nullptr); }

/// The state that accessors write.
constexpr u8 state_set = 2;

/// Marks the attribute's own byte as changed, behind a store. False with error 22 on an object without tracking.
template <class A, diag::record_says Corrupted, diag::record_says NotTracked>
inline bool mark(const call& c, holder_of<A>* object, u8 state = state_set) {
    if (!tracking_on<A, Corrupted>(c)) return true;
    if (!require_tracked<A, NotTracked>(c, object)) return false;
    store_flag(c, tracking_area<typename A::model>(c, object) + A::at.track, state);
    return true;
}

/// Marks the whole-array byte and one element's byte.
template <class A>
inline void mark_element(const call& c, holder_of<A>* object, u32 index) {
    u8* area = tracking_area<typename A::model>(c, object);
    store_flag(c, area + A::at.track, state_set);
    if constexpr (is_fixed_array<A>) {
        store_flag(c, area + A::track_elements + index, state_set);
    } else {
        u8* flags = element_flags_of<A>(area);
        if (flags != nullptr) store_flag(c, flags + index, state_set);
    }
}

/// The static object that a chain of `_cr` calls gets when it cannot or must not allocate.
template <class Model>
struct sentinel_storage {
    alignas(8) static inline unsigned char bytes[Model::base_size];
};
template <class Model>
inline typename Model::object* sentinel() {
    return reinterpret_cast<typename Model::object*>(sentinel_storage<Model>::bytes);
}

/// The object, or the empty sentinel in its place for an attribute that the object has no room for. Arms stay with
/// the object's own discriminator; arm_of tests the room.
template <class A>
inline const holder_of<A>* object_or_empty(const holder_of<A>* object) {
    if constexpr (is_arm<A>)
        return object;
    else
        return has_room_for<A>(object) ? object : sentinel<typename A::model>();
}
template <class A>
inline const value_of<A>* arm_of(const holder_of<A>* object) {
    return has_room_for<A>(object) ? pointer_of<A>(object) : nullptr;
}

/// The statistics of an instance's variant: the variant clamped to the newest that the code knows, and to what
/// the table holds.
template <class Model>
inline u64* statistics_of(const loom_variant_table* table, i8 variant) {
    i32 index = clamp_variant<Model>(variant);
    if (index >= table->n_variants) index = table->n_variants - 1;
    if (index < 0) index = 0;
    return &table->entries[index].objects_created;
}

} // namespace trellis
