// Enumerations as objects: making, ending, reading and setting them, and the mapping between the two value
// spaces. The user value is what the schema declares and memory holds; the internal value is the member's place
// in the declaration, used on the wire and in all range checks. Binary, text and XML forms stand in codec/.
#pragma once

#include "instance/object_access.h"

namespace trellis {

/// A member as the schema declares it.
struct enumeration_member {
    const char* name;
    i32 value; // user value; the internal value is the place in the list
    i8 since;
};

namespace enumeration {

using says = diag::enumeration_says;

template <class E>
constexpr u32 member_count = sizeof(E::members) / sizeof(E::members[0]);

/// Members that exist in variant `variant`; later members stand behind earlier ones.
template <class E>
constexpr u32 members_within(i8 variant) {
    u32 count = 0;
    for (const enumeration_member& member : E::members)
        count += member.since <= variant ? 1u : 0u;
    return count;
}

/// Where the schema gives no values of its own the two spaces coincide.
template <class E>
constexpr bool values_are_dense = [] {
    for (u32 i = 0; i < member_count<E>; ++i)
        if (E::members[i].value != static_cast<i32>(i)) return false;
    return true;
}();

/// The value spaces differ only inside unmarshal; this direction is the identity.
template <class E>
i32 map_to_user_value(i32 value) {
    return value;
}

/// A value that is no member passes unchanged.
template <class E>
i32 map_to_internal_value(i32 user_value) {
    if constexpr (!values_are_dense<E>)
        for (u32 i = 0; i < member_count<E>; ++i)
            if (E::members[i].value == user_value) return static_cast<i32>(i);
    return user_value;
}

/// What unmarshal stores for an internal value from the wire; one beyond the members stays as read.
template <class E>
inline i32 user_value_of_internal(u32 internal) {
    if constexpr (!values_are_dense<E>)
        if (internal < member_count<E>) return E::members[internal].value;
    return static_cast<i32>(internal);
}

template <class E>
u32 variant_data_index_cap(u32 variant) {
    return (variant & 0xFFFFFF00u) | static_cast<u8>(clamp_variant<E>(static_cast<i32>(variant)));
}

template <class E>
void get_luid(loom_handle* handle, u32 domain, const typename E::object* object, u8* luid, u32* err) {
    loom_get_luid(handle, domain, object, luid, err);
}

template <class E>
u32 sizeof_(loom_handle*) {
    return sizeof(typename E::object);
}

template <class E>
void adjust_variant(loom_handle* handle, u32 domain, typename E::object* object, u32* err) {
    adjust<E>({handle, domain, err}, object);
}

} // namespace enumeration

/// What enumerations and flag sets share: small objects without attributes. `Says` is the family's statements.
namespace compact {

/// Counts one object made or ended, inline: the hook first, then a plain increment on a manifested record and
/// an atomic one on a static record.
inline void raise_counter(const call& c, const loom_type_info* tinfo, u64* counter) {
    if (direct::raise_counter(c.handle, tinfo, counter)) return;
    c.handle->counter_hook(c.handle->alloc_ctx, counter, 1, c.domain);
    if (tinfo->manifested_kind != 0)
        ++*counter;
    else
        __atomic_fetch_add(counter, 1, __ATOMIC_RELAXED);
}

/// The variant entry of an instance; a missing table ends the process.
template <class M, auto NoTable, auto Beyond>
inline loom_variant_entry* entry_of(const loom_type_info* tinfo, i8 variant) {
    loom_variant_table* table = tinfo->variant_table;
    if (table == nullptr) diag::die<M, NoTable>();
    if (table->n_variants < variant)
        diag::say<M, Beyond>(static_cast<u32>(variant), static_cast<u32>(table->n_variants));
    return reinterpret_cast<loom_variant_entry*>(
        reinterpret_cast<unsigned char*>(statistics_of<M>(table, variant)) -
        offsetof(loom_variant_entry, objects_created));
}

/// Fills the header of memory that the caller zeroed. All stores have the object as owner. False when the database
/// has no room for the type's description.
template <class M>
inline bool fill_header(const call& c, typename M::object* object, const loom_type_info* tinfo, u8 flags,
                        bool announced) {
    loom_object* header = header_of(object);
    const auto announce = [&](const void* address, size_t length) {
        if (announced) c.announce(address, length, object);
    };
    const i8 variant = peer_variant<M>(c, tinfo);
    announce(&header->loom_layout_variant, 1);
    header->loom_layout_variant = static_cast<u8>(M::newest);
    announce(&header->loom_variant, 1);
    header->loom_variant = variant;
    announce(&header->loom_tinfo, sizeof header->loom_tinfo);
    header->loom_tinfo = resident_type_info<typename M::bundle>(c, tinfo);
    if (flags != 0) {
        announce(&header->loom_flags, 1);
        header->loom_flags |= flags;
    }
    return header->loom_tinfo != nullptr;
}

template <class M, auto NoTable, auto Beyond>
typename M::object* create_internal(loom_handle* handle, u32 domain) {
    u32 error = 0;
    const call c{handle, domain, &error};
    typename M::object* made = nullptr;
    const bool stopped = handle->cr_active != 0 && handle->last_error != 0;
    if (!stopped) made = static_cast<typename M::object*>(c.allocate(sizeof(typename M::object)));
    if (made != nullptr) {
        memset(static_cast<void*>(made), 0, sizeof(typename M::object));
        if (!fill_header<M>(c, made, M::type::type_info(), 0, true)) {
            c.release(made);
            made = nullptr;
        }
    }
    if (made != nullptr) {
        const loom_object* header = header_of(made);
        loom_variant_entry* entry = entry_of<M, NoTable, Beyond>(header->loom_tinfo, header->loom_variant);
        raise_counter(c, header->loom_tinfo, &entry->objects_created);
    } else if (handle->cr_active != 0) {
        if (handle->last_error == 0) loom_store_err(handle, LOOM_ENOMEM);
        made = sentinel<M>();
    }
    c.report_containment(made, nullptr);
    if (c.reports_to_shared_database()) loomdb_plat_set_dirty(handle, domain, made);
    return made;
}

/// In-place set-up: the variant table is checked, nothing is counted, since nothing counts the end of it.
template <class M, auto NoTable, auto Beyond>
u32 initialize(loom_handle* handle, u32 domain, typename M::object* object, const loom_type_info* tinfo,
               u32 write_through, u8 obj_flags) {
    u32 error = 0;
    const call c{handle, domain, &error};
    if (fill_header<M>(c, object, tinfo, obj_flags, write_through != 0))
        entry_of<M, NoTable, Beyond>(header_of(object)->loom_tinfo, header_of(object)->loom_variant);
    return 0;
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

template <class M, auto CorruptedTinfo, auto NoTable, auto Beyond>
void destroy_internal(loom_handle* handle, u32 domain, typename M::object* object, u32 release) {
    if (object == nullptr || object == sentinel<M>()) return;
    u32 error = 0;
    const call c{handle, domain, &error};
    loom_object* header = header_of(object);
    loom_type_info* tinfo = header->loom_tinfo;
    if (tinfo == nullptr || tinfo->magic != LOOM_TYPE_INFO_MAGIC) diag::die<M, CorruptedTinfo>();
    loom_variant_entry* entry = entry_of<M, NoTable, Beyond>(tinfo, header->loom_variant);
    raise_counter(c, tinfo, &entry->objects_destroyed);
    if (release == 0) return;
    if (c.reports_to_shared_database()) loomdb_plat_set_destroy(handle, domain, object);
    c.store<loom_type_info*>(&header->loom_tinfo, nullptr, object);
    c.release(object);
}

template <class M, auto NullObject>
void set_instance_embedded(loom_handle* handle, u32 domain, typename M::object* object) {
    if (object == nullptr) {
        diag::say<M, NullObject>();
        return;
    }
    u32 unused = 0;
    u8* flags = &header_of(object)->loom_flags;
    call{handle, domain, &unused}.store<u8>(flags, static_cast<u8>(*flags | OBJ_EMBEDDED), object);
}

template <class M, auto Pending, auto NullObject>
u32 get_oid_count(loom_handle* handle, u32 domain, const typename M::object* object, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        diag::say<M, Pending>();
    } else if (object == nullptr) {
        diag::say<M, NullObject>();
        c.fail(LOOM_EINVAL);
    }
    return 0;
}

template <class M, auto Pending, auto NullObject>
void get_object_references(loom_handle* handle, u32 domain, const typename M::object* object, void**, u32,
                           u32* err) {
    get_oid_count<M, Pending, NullObject>(handle, domain, object, err);
}

/// The object itself, reported as handed out.
template <class M>
typename M::object* get(loom_handle* handle, u32 domain, typename M::object* object) {
    u32 unused = 0;
    call{handle, domain, &unused}.report_containment(object, nullptr);
    return object;
}

} // namespace compact

namespace enumeration {

template <class E>
typename E::object* create_internal(loom_handle* handle, u32 domain) {
    return compact::create_internal<E, says::create_internal_no_variant_table,
                                    says::create_internal_variant_beyond_table>(handle, domain);
}
template <class E>
typename E::object* create(loom_handle* handle, u32 domain) {
    return compact::create<E>(handle, domain);
}
template <class E>
typename E::object* create_cr(loom_handle* handle) {
    return compact::create_cr<E>(handle);
}
template <class E>
u32 initialize(loom_handle* handle, u32 domain, typename E::object* object, const loom_type_info* tinfo,
               u32 write_through, u8 obj_flags) {
    return compact::initialize<E, says::initialize_no_variant_table, says::initialize_variant_beyond_table>(
        handle, domain, object, tinfo, write_through, obj_flags);
}
/// An enumeration that other bundles share takes the argument list of a value.
template <class E>
u32 initialize(loom_handle* handle, u32 domain, typename E::object* object, const loom_type_info* tinfo,
               u32 write_through, u32, u8 obj_flags, void*, u32* err) {
    if (*err != 0) return 0;
    return initialize<E>(handle, domain, object, tinfo, write_through, obj_flags);
}
template <class E>
void destroy_internal(loom_handle* handle, u32 domain, typename E::object* object, u32 release) {
    compact::destroy_internal<E, says::destroy_internal_corrupted_tinfo, says::destroy_internal_no_variant_table,
                              says::destroy_internal_variant_beyond_table>(handle, domain, object, release);
}
template <class E>
void destroy(loom_handle* handle, u32 domain, typename E::object* object) {
    E::type::destroy_internal(handle, domain, object, 1);
}
template <class E>
void destroy_cr(loom_handle* handle, typename E::object* object) {
    E::type::destroy_internal(handle, handle->cr_domain, object, 1);
}
template <class E>
void set_instance_embedded(loom_handle* handle, u32 domain, typename E::object* object) {
    compact::set_instance_embedded<E, says::set_instance_embedded_null_object>(handle, domain, object);
}
template <class E>
u32 get_oid_count(loom_handle* handle, u32 domain, const typename E::object* object, u32* err) {
    return compact::get_oid_count<E, says::get_oid_count_error_pending, says::get_oid_count_null_object>(
        handle, domain, object, err);
}
template <class E>
void get_object_references(loom_handle* handle, u32 domain, const typename E::object* object, void** references,
                           u32 count, u32* err) {
    compact::get_object_references<E, says::get_object_references_error_pending,
                                   says::get_object_references_null_object>(handle, domain, object, references,
                                                                            count, err);
}
template <class E>
typename E::object* get(loom_handle* handle, u32 domain, typename E::object* object) {
    return compact::get<E>(handle, domain, object);
}

template <class E>
i32 get_value(loom_handle* handle, u32 domain, const typename E::object* object, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return 0;
    if (object == nullptr) {
        c.fail(LOOM_EINVAL);
        return 0;
    }
    return object->value;
}

/// The comparison is unsigned: a negative value that is no member is out of range here, unlike in is_valid_cr.
template <class E>
inline bool may_hold(i8 variant, i32 user_value) {
    const u32 internal = static_cast<u32>(map_to_internal_value<E>(user_value));
    for (i8 later = 1; later <= E::newest; ++later)
        if (internal >= members_within<E>(static_cast<i8>(later - 1)) && variant < later) return false;
    return internal < member_count<E> || variant > E::newest;
}

template <class E>
void set(loom_handle* handle, u32 domain, typename E::object* object, const typename E::object* source, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return;
    if (object == nullptr || source == nullptr) {
        c.fail(LOOM_EINVAL);
        return;
    }
    adjust<E>(c, object);
    if (!may_hold<E>(direct::instance_variant(object, 0, 1), source->value)) {
        c.fail_epoch();
        return;
    }
    c.announce(object, sizeof *object, object);
    *object = *source;
}

template <class E>
void set_value(loom_handle* handle, u32 domain, typename E::object* object, i32 user_value, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return;
    if (object == nullptr) {
        c.fail(LOOM_EINVAL);
        return;
    }
    adjust<E>(c, object);
    if (!may_hold<E>(direct::instance_variant(object, 0, 1), user_value)) {
        c.fail_epoch();
        return;
    }
    c.store<i32>(&object->value, user_value, object);
}

/// The comparison is signed: a negative internal value passes.
template <class E>
u32 is_valid_cr(loom_handle* handle, i32 user_value) {
    const call c = chain_call(handle);
    const i32 internal = map_to_internal_value<E>(user_value);
    const i8 variant = peer_variant<E>(c, E::type::type_info());
    for (i8 later = 1; later <= E::newest; ++later)
        if (internal >= static_cast<i32>(members_within<E>(static_cast<i8>(later - 1))) && variant < later)
            return 0;
    return internal < static_cast<i32>(member_count<E>) ? 1 : 0;
}

} // namespace enumeration
} // namespace trellis
