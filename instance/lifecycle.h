// Making, setting up and ending records, and the questions about their size and variant. What a record's storage
// holds is torn down here; how it is filled stands in accessors.h, repeated.h and unions.h.
#pragma once

#include "instance/parts.h"

namespace trellis::record {

using says = diag::record_says;

// ---- Sizes -------------------------------------------------------------------------------------------------

/// The size of a new object: the area of tracking flags comes on top when tracking is on.
template <class M, says Corrupted, u32 Copy>
inline u32 size_under_mode(loom_handle* handle) {
    switch (tracking_mode_of(handle)) {
    case tracking_mode::corrupted: diag::die<M, Corrupted, Copy>();
    case tracking_mode::on: return M::base_size + newest_tracking_size<M>;
    default: return M::base_size;
    }
}

template <class M>
u32 sizeof_(loom_handle* handle) {
    return size_under_mode<M, says::sizeof_corrupted_handle, 0>(handle);
}

template <class M>
u32 sizeof_internal(loom_handle* handle, const typename M::object* object, u32 with_tracking, u32 tracking_only) {
    const tracking_mode mode = tracking_mode_of(handle);
    if (mode == tracking_mode::corrupted) diag::die<M, says::sizeof_internal_corrupted_handle>();
    if (mode == tracking_mode::absent) return tracking_only != 0 ? 0 : M::base_size;
    const u32 layout = object == nullptr ? M::base_size : layout_size_of<M>(object);
    const u32 tracking = mode == tracking_mode::off ? 0
                         : object == nullptr        ? newest_tracking_size<M>
                                                    : tracking_size_of<M>(object);
    if (tracking_only != 0) return tracking;
    return with_tracking != 0 ? layout + tracking : layout;
}

// ---- Variants ----------------------------------------------------------------------------------------------

template <class M>
u32 variant_data_index_cap(u32 variant) {
    return (variant & 0xFFFFFF00u) | static_cast<u8>(clamp_variant<M>(static_cast<i32>(variant)));
}

template <class M>
void adjust_variant(loom_handle* handle, u32 domain, typename M::object* object, u32* err) {
    adjust<M>({handle, domain, err}, object);
}

/// Attributes are numbered in order, with one number more at the start of each later variant.
template <class M>
struct attribute_numbers {
    static constexpr u32 total = M::attributes::size + static_cast<u32>(M::newest);
    static constexpr u32 first_of(i8 variant) {
        u32 before = 0;
        for_each_attribute(typename M::attributes{},
                           [&]<class A>() { before += A::at.since < variant ? 1u : 0u; });
        return before + static_cast<u32>(variant) - 1;
    }
};

template <class M>
u32 is_valid_cr(loom_handle* handle, const typename M::object* object, u32 index, u32 flags) {
    const call c = chain_call(handle);
    i8 variant = peer_variant<M>(c, M::type::type_info());
    if ((flags & 1) == 0) {
        const i8 own = direct::instance_variant(object, 1, 0);
        if (own < variant) variant = own;
    }
    for (i8 later = 1; later <= M::newest; ++later)
        if (index >= attribute_numbers<M>::first_of(later) && variant < later) return 0;
    return index < attribute_numbers<M>::total || variant > M::newest ? 1 : 0;
}

template <class M>
void get_luid(loom_handle* handle, u32 domain, const typename M::object* object, u8* luid, u32* err) {
    loom_get_luid(handle, domain, object, luid, err);
}

// ---- Tracking areas of nested records ----------------------------------------------------------------------

/// Calls body(attribute's nested record, place of its own area inside the object's) in attribute order.
template <class M, class Body>
inline void each_nested_area(typename M::object* object, Body&& body) {
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if constexpr (nests_records<A>) {
            if (!has_room_for<A>(object)) return;
            if constexpr (is_nested_record<A>) {
                body.template operator()<A>(cell_of<A>(object), nested_track<A>);
            } else {
                static_assert(is_fixed_array<A>);
                for (u32 i = 0; i < A::extent; ++i)
                    body.template operator()<A>(cell_of<A>(object) + i,
                                                element_track<A> + i * A::type::tracking_size);
            }
        }
    });
}

/// Points the nested records at their areas inside the area at `base`.
template <class M>
inline void repoint(const call& c, typename M::object* object, u8* base) {
    each_nested_area<M>(object, [&]<class A>(value_of<A>* nested, u32 place) {
        u8* area = base + place;
        point_at_area(c, nested, area);
        A::type::offset_update(c.handle, c.domain, nested, area, c.error);
    });
}

template <class M>
void offset_update(loom_handle* handle, u32 domain, typename M::object* object, void* new_base, u32* err) {
    each_nested_area<M>(object, [&]<class A>(value_of<A>* nested, u32 place) {
        u8* area = static_cast<u8*>(new_base) + place;
        point_at_area(call{handle, domain, err}, nested, area);
        if constexpr (A::type::has_nested_records) A::type::offset_update(handle, domain, nested, area, err);
    });
}

template <class M>
void offset_remove(loom_handle* handle, u32 domain, typename M::object* object, u32* err) {
    each_nested_area<M>(object, [&]<class A>(value_of<A>* nested, u32) {
        loom_hd_mapping_destroy(handle, domain, nested, err);
        A::type::offset_remove(handle, domain, nested, err);
    });
}

// ---- Initialize --------------------------------------------------------------------------------------------

/// Counts the new object in its variant's statistics.
template <class M>
inline void count_created(const call& c, loom_type_info* tinfo, i8 variant) {
    loom_variant_table* table = tinfo->variant_table;
    if (table == nullptr) diag::die<M, says::initialize_no_variant_table>();
    if (table->n_variants < variant)
        diag::say<M, says::initialize_variant_beyond_table>(static_cast<u32>(variant),
                                                            static_cast<u32>(table->n_variants));
    u64* statistics = statistics_of<M>(table, variant);
    if (!direct::raise_counter(c.handle, tinfo, statistics))
        loomlib_type_stats_create_object(c.handle, c.domain, tinfo, statistics, c.error);
}

/// Settles where the object's tracking area lies and points nested records into it. Returns the base to hand to
/// the attributes; false in `*usable` when a nested object was given none.
template <class M>
inline u8* settle_tracking_base(const call& c, typename M::object* object, void* given, bool* usable) {
    const u8 flags = header_of(object)->loom_flags;
    const bool nested = (flags & OBJ_NESTED) != 0;
    const bool elsewhere = (flags & OBJ_STTR_OFFSET) != 0;
    u8* base = static_cast<u8*>(given);
    *usable = true;
    if (nested && base == nullptr) {
        c.fail(LOOM_EINVAL);
        diag::say<M, says::initialize_no_tracking_base>();
        *usable = false;
        return nullptr;
    }
    if (base == nullptr) base = reinterpret_cast<u8*>(object) + M::layout_sizes[M::newest];
    if (elsewhere) {
        const u32 offset = loomlib_get_sttr_offset(c.handle, c.domain, object);
        repoint<M>(c, object, reinterpret_cast<u8*>(object) + static_cast<i32>(offset));
    } else if (!nested) {
        repoint<M>(c, object, base);
    }
    return base;
}

template <class M>
u32 initialize(loom_handle* handle, u32 domain, typename M::object* object, const loom_type_info* tinfo,
               u32 write_through, u32 no_accounting, u8 obj_flags, void* sttr_base, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return 0;
    const auto announce = [&](const void* address, size_t length, const void* owner) {
        if (write_through != 0) c.announce(address, length, owner);
    };
    loom_object* header = header_of(object);
    const i8 variant = peer_variant<M>(c, tinfo);

    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if constexpr (is_reference<A>) {
            loom_type_info*& word = target_word_of<A>(object);
            announce(&word, sizeof word, nullptr);
            word = resident_type_info<typename M::bundle>(c, A::target());
        }
    });
    announce(&header->loom_layout_variant, 1, nullptr);
    header->loom_layout_variant = static_cast<u8>(M::newest);
    announce(&header->loom_variant, 1, nullptr);
    header->loom_variant = variant;
    loom_type_info** word = direct::type_info_word(object);
    announce(word, sizeof *word, nullptr);
    *word = resident_type_info<typename M::bundle>(c, tinfo);
    if (*word == nullptr) {
        // The database has no room for the type's description; the object must not be used.
        if (!c.pending()) c.fail(LOOM_ENOMEM);
        return 0;
    }
    // The caller's flags go in with the object as owner; the stores around them have none.
    announce(&header->loom_flags, 1, object);
    header->loom_flags |= obj_flags;
    const tracking_mode mode = c.mode();
    if (mode == tracking_mode::corrupted) diag::die<M, says::initialize_corrupted_handle, 0>();
    if (mode == tracking_mode::on) {
        announce(&header->loom_flags, 1, nullptr);
        header->loom_flags |= OBJ_STATE_TRACKED;
    }

    u8* base = static_cast<u8*>(sttr_base);
    if (no_accounting == 0) {
        count_created<M>(c, *word, variant);
        const tracking_mode again = c.mode();
        if (again == tracking_mode::corrupted) diag::die<M, says::initialize_corrupted_handle, 1>();
        if (again == tracking_mode::on) {
            bool usable;
            base = settle_tracking_base<M>(c, object, sttr_base, &usable);
            if (!usable) return 0;
        }
    }

    // Attributes of later variants are set up too, whatever the instance's variant is.
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if constexpr (is_plain<A> || is_object<A>) {
            if constexpr (is_initialised(A::type::category))
                if (!direct::is_ready_when_zero<typename A::type>())
                    initialize_inside<typename A::type>(c, cell_of<A>(object), write_through, no_accounting, base);
        } else if constexpr (is_fixed_array<A>) {
            if constexpr (has_header(A::type::category))
                for (u32 i = 0; i < A::extent; ++i)
                    initialize_inside<typename A::type>(c, cell_of<A>(object) + i, write_through, no_accounting,
                                                        base);
        } else if constexpr (is_list<A>) {
            loom_list_head* head = list_of<A>(object);
            announce(head, 16, nullptr);
            head->first = head->last = head;
        } else {
            // Ready when zero; an oid's type word stands already.
            using enum attribute_shape;
            needs_nothing<A, variable_array, length, counted_string, fixed_string, oid, arm>();
        }
    });
    return 0;
}

// ---- Create ------------------------------------------------------------------------------------------------

/// What a chain gets instead of a new object; the slot keeps an earlier error.
template <class M>
inline typename M::object* fall_back_to_sentinel(loom_handle* handle, u32 error = LOOM_ENOMEM) {
    if (handle->last_error == 0) loom_store_err(handle, error);
    return sentinel<M>();
}

template <class M>
inline typename M::object* report_created(const call& c, typename M::object* made) {
    c.report_containment(made, nullptr);
    if (c.reports_to_shared_database()) loomdb_plat_set_dirty(c.handle, c.domain, made);
    return made;
}

template <class M>
typename M::object* create_internal(loom_handle* handle, u32 domain) {
    u32 error = 0;
    const call c{handle, domain, &error};
    if (handle->cr_active != 0 && handle->last_error != 0)
        return report_created<M>(c, fall_back_to_sentinel<M>(handle));
    const u32 size = size_under_mode<M, says::create_internal_corrupted_handle, 0>(handle);
    auto* object = static_cast<typename M::object*>(c.allocate(size));
    if (object == nullptr)
        return report_created<M>(c, handle->cr_active != 0 ? fall_back_to_sentinel<M>(handle) : nullptr);
    // In two steps, since the first is a few stores when its size is known.
    const u32 cleared = size_under_mode<M, says::create_internal_corrupted_handle, 1>(handle);
    memset(static_cast<void*>(object), 0, M::base_size);
    if (cleared != M::base_size) memset(reinterpret_cast<u8*>(object) + M::base_size, 0, cleared - M::base_size);
    M::type::initialize_alone(handle, domain, object, &error);
    if (error != 0) {
        diag::say<M, says::create_internal_failed>(static_cast<const char*>(strerror(static_cast<int>(error))));
        if constexpr (M::type::has_nested_records) { // their places in the side table go with them
            u32 unused = 0;
            if (c.mode() == tracking_mode::on && handle->hd_map != nullptr)
                M::type::offset_remove(handle, domain, object, &unused);
        }
        c.release(object);
        return handle->cr_active != 0 ? fall_back_to_sentinel<M>(handle, error) : nullptr;
    }
    return report_created<M>(c, object);
}

template <class M>
typename M::object* create(loom_handle* handle, u32 domain) {
    M::bundle::trace_init();
    return M::type::create_internal(handle, domain);
}

template <class M>
typename M::object* create_cr(loom_handle* handle) {
    M::bundle::trace_init();
    handle->cr_active = 1;
    typename M::object* made = M::type::create_internal(handle, handle->cr_domain);
    handle->cr_active = 0;
    return made;
}

// ---- Destroy -----------------------------------------------------------------------------------------------

/// Drops the references that an attribute's value holds. Kept out of line so that the room for them goes back
/// before the next attribute. False when they cannot be read.
template <class A>
[[gnu::noinline]] bool drop_references(const call& c, value_of<A>* value, u32 count) {
    void** references = static_cast<void**>(__builtin_alloca(count * sizeof(void*)));
    A::type::get_object_references(c.handle, c.domain, value, references, count, c.error);
    constexpr bool is_value = trace_kind_of<A>() == diag::trace_kind::value_object;
    if (c.pending()) {
        const char* text = strerror(static_cast<int>(*c.error));
        if constexpr (is_value)
            say_of<A, says::destroy_internal_references_unreadable>(text);
        else
            say_of<A, says::destroy_internal_references_unreadable_far_record>(text);
        return false;
    }
    for (u32 i = 0; i < count; ++i) {
        loomlib_lookup_and_update_oid_ref_count(c.handle, c.domain, references[i], 0, c.error);
        if (!c.pending()) continue;
        const char* text = strerror(static_cast<int>(*c.error));
        const void* reference = references[i];
        if constexpr (is_value)
            say_of<A, says::destroy_internal_reference_not_dropped>(reference, text);
        else
            say_of<A, says::destroy_internal_reference_not_dropped_far_record>(reference, text);
        *c.error = 0;
    }
    return true;
}

/// Ends an in-place attribute that may own storage or references. False stops the destroy. References of a record
/// are dropped here, so that its own end must find none.
template <class A>
inline bool tear_down_object(const call& c, value_of<A>* value) {
    using enum diag::trace_kind;
    if constexpr (trace_kind_of<A>() == near_record) {
        // The type is known to hold no references; only the test of the error word remains.
        if (c.pending()) diag::say<typename A::model, says::get_oid_count_error_pending>();
    } else {
        if (direct::ends_without_trace<typename A::type>(value)) return true;
        const u32 count = direct::get_oid_count<typename A::type>(c, value);
        if (count != 0 && !drop_references<A>(c, value, count)) return false;
        if constexpr (trace_kind_of<A>() == far_record)
            if (count != 0) A::type::forget_references(c.handle, c.domain, value, false);
    }
    end_inside<typename A::type>(c, value);
    return true;
}

/// Gives the block behind a pointer back, then clears the pointer.
template <class T>
inline void release_block(const call& c, T*& pointer) {
    if (pointer == nullptr) return;
    c.release(pointer);
    c.store<T*>(&pointer, nullptr, nullptr);
}

/// Ends every element of a block, in order.
template <class A>
inline void tear_down_elements(const call& c, value_of<A>* elements, u32 count) {
    if constexpr (owns_storage(A::type::category))
        for (u32 i = 0; i < count; ++i)
            end_inside<typename A::type>(c, elements + i);
}

/// Destroys what is linked and leaves an empty head.
template <class A>
inline void tear_down_list(const call& c, loom_list_head* head) {
    for (void* element = first_of(head); element != nullptr;) {
        void* next = next_of(head, element);
        A::type::destroy_internal(c.handle, c.domain, static_cast<value_of<A>*>(element), 1);
        element = next;
    }
    c.announce(head, sizeof *head, nullptr);
    head->first = head->last = head;
    head->count = 0;
}

/// Ends one attribute by its shape. False stops the destroy of the object.
template <class A>
inline bool tear_down(const call& c, holder_of<A>* object) {
    if constexpr (is_object<A>) {
        if constexpr (owns_storage(A::type::category)) return tear_down_object<A>(c, cell_of<A>(object));
    } else if constexpr (is_fixed_array<A>) {
        tear_down_elements<A>(c, cell_of<A>(object), A::extent);
    } else if constexpr (is_variable_array<A>) {
        value_of<A>*& block = pointer_of<A>(object);
        if (block != nullptr) tear_down_elements<A>(c, block, static_cast<u32>(count_of<A>(object)));
        release_block(c, block);
    } else if constexpr (is_counted_string<A>) {
        release_block(c, pointer_of<A>(object));
    } else if constexpr (is_oid<A>) {
        loomlib_oid_release_internal(c.handle, c.domain, oid_of<A>(object), c.error);
        if (c.pending()) {
            say_of<A, says::destroy_internal_oid_not_released>(
                static_cast<const char*>(strerror(static_cast<int>(*c.error))));
            return false;
        }
    } else if constexpr (is_arm<A>) {
        value_of<A>*& arm = pointer_of<A>(object);
        if (arm != nullptr) {
            A::type::destroy_internal(c.handle, c.domain, arm, 1);
            c.store<value_of<A>*>(&arm, nullptr, nullptr);
        }
    } else if constexpr (is_list<A>) {
        tear_down_list<A>(c, list_of<A>(object));
    } else {
        using enum attribute_shape;
        needs_nothing<A, plain, length, fixed_string>();
    }
    return true;
}

/// Gives the element flag blocks of a tracked object back.
template <class M>
inline void release_element_flags(const call& c, typename M::object* object) {
    u8* area = nullptr;
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if constexpr (has_flag_block<A>) {
            if (!has_room_for<A>(object)) return;
            if (area == nullptr) area = tracking_area<M>(c, object);
            u8*& flags = element_flags_of<A>(area);
            if (flags == nullptr) return;
            c.release(flags);
            flags = nullptr;
        }
    });
}

/// Counts the ended object in its variant's statistics; a corrupt type word ends the process.
template <class M>
inline void count_destroyed(const call& c, const typename M::object* object) {
    loom_type_info* tinfo = direct::type_info(object);
    if (tinfo == nullptr || tinfo->magic != LOOM_TYPE_INFO_MAGIC)
        diag::die<M, says::destroy_internal_corrupted_tinfo>();
    loom_variant_table* table = tinfo->variant_table;
    if (table == nullptr) diag::die<M, says::destroy_internal_no_variant_table>();
    const i8 variant = header_of(object)->loom_variant;
    if (table->n_variants < variant)
        diag::say<M, says::destroy_internal_variant_beyond_table>(static_cast<u32>(variant),
                                                                  static_cast<u32>(table->n_variants));
    u64* statistics = statistics_of<M>(table, variant);
    if (!direct::raise_counter(c.handle, tinfo, statistics + 1))
        loomlib_type_stats_destroy_object(c.handle, c.domain, tinfo, statistics, c.error);
}

/// First step of destroy: the object's own mapping goes. False when the object stays.
template <class M>
inline bool remove_own_mapping(const call& c, typename M::object* object) {
    const u32 gone = loom_request_oid_mapping_destroy(c.handle, c.domain, object, c.error);
    if (c.pending()) {
        diag::say<M, says::destroy_internal_mapping_not_removed, 0>(
            static_cast<const char*>(strerror(static_cast<int>(*c.error))));
        loom_store_err(c.handle, *c.error);
        return false;
    }
    if (gone == 0) {
        diag::say<M, says::destroy_internal_still_referenced>();
        return false;
    }
    diag::say<M, says::destroy_internal_mapping_removed>();
    return true;
}

template <class M>
void destroy_internal(loom_handle* handle, u32 domain, typename M::object* object, u32 release) {
    if (object == nullptr || object == sentinel<M>()) return;
    u32 error = 0;
    const call c{handle, domain, &error};
    loom_object* header = header_of(object);
    if ((header->loom_flags & OBJ_OID_MAPPED) != 0 && !remove_own_mapping<M>(c, object)) return;

    const i8 variant = direct::instance_variant(object, 1, 0);
    if (variant >= 0) {
        const bool done = all_attributes(
            typename M::attributes{}, [&]<class A>() { return variant < A::at.since || tear_down<A>(c, object); });
        if (!done) return;
        if ((header->loom_flags & OBJ_STATE_TRACKED) != 0) release_element_flags<M>(c, object);
    }
    count_destroyed<M>(c, object);
    if ((header->loom_flags & (OBJ_STTR_OFFSET | OBJ_RA_DATA)) != 0 && handle->hd_map != nullptr) {
        loom_hd_mapping_destroy(handle, domain, object, &error);
        if (error != 0) {
            diag::say<M, says::destroy_internal_mapping_not_removed, 1>(
                static_cast<const char*>(strerror(static_cast<int>(error))));
            loom_store_err(handle, error);
            return;
        }
    }
    if (release == 0) return;

    if (c.reports_to_shared_database()) loomdb_plat_set_destroy(handle, domain, object);
    if ((header->loom_flags & OBJ_OWNS_FIRST_WORD) != 0 && header->loom_tinfo != nullptr)
        c.release(header->loom_tinfo);
    // A stale pointer to the object now fails the magic test.
    c.store<loom_type_info*>(&header->loom_tinfo, nullptr, nullptr);
    c.release(object);
}

template <class M>
void destroy(loom_handle* handle, u32 domain, typename M::object* object) {
    if (object == sentinel<M>()) return;
    M::type::destroy_internal(handle, domain, object, 1);
}

template <class M>
void destroy_cr(loom_handle* handle, typename M::object* object) {
    M::type::destroy_internal(handle, handle->cr_domain, object, 1);
}

// ---- Embedded ----------------------------------------------------------------------------------------------

template <class M>
void set_instance_embedded(loom_handle* handle, u32 domain, typename M::object* object) {
    if (object == nullptr) {
        diag::say<M, says::set_instance_embedded_null_object>();
        return;
    }
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if constexpr (is_set_as_a_whole<A> && is_initialised(A::type::category))
            if (!direct::is_ready_when_zero<typename A::type>())
                A::type::set_instance_embedded(handle, domain, cell_of<A>(object));
    });
    u32 unused = 0;
    u8* flags = &header_of(object)->loom_flags;
    call{handle, domain, &unused}.store<u8>(flags, static_cast<u8>(*flags | OBJ_EMBEDDED), nullptr);
}

} // namespace trellis::record
