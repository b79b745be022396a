// Flag sets as objects: making, ending, reading and setting bits. Bit i lies in byte i / 8 under the mask
// 1 << (i mod 8). Binary, text and XML forms stand in codec/.
#pragma once

#include "instance/enumeration.h"

namespace trellis {

/// A named bit; its index is its place in the list. A bit without a name has a null name.
struct flag_bit {
    const char* name;
    i8 since;
};

namespace flag_set {

using says = diag::flag_set_says;

template <class F>
constexpr u32 bit_count = sizeof(F::bits) / sizeof(F::bits[0]);

template <class F>
constexpr u32 bits_within(i8 variant) {
    u32 count = 0;
    for (const flag_bit& bit : F::bits)
        count += bit.since <= variant ? 1u : 0u;
    return count;
}

template <class F>
u32 in_range(u32 bit) {
    return bit < bit_count<F> ? 1 : 0;
}

template <class F>
u32 variant_data_index_cap(u32 variant) {
    return (variant & 0xFFFFFF00u) | static_cast<u8>(clamp_variant<F>(static_cast<i32>(variant)));
}
template <class F>
void get_luid(loom_handle* handle, u32 domain, const typename F::object* object, u8* luid, u32* err) {
    loom_get_luid(handle, domain, object, luid, err);
}
template <class F>
u32 sizeof_(loom_handle*) {
    return sizeof(typename F::object);
}
template <class F>
void adjust_variant(loom_handle* handle, u32 domain, typename F::object* object, u32* err) {
    adjust<F>({handle, domain, err}, object);
}

template <class F>
typename F::object* create_internal(loom_handle* handle, u32 domain) {
    return compact::create_internal<F, says::create_internal_no_variant_table,
                                    says::create_internal_variant_beyond_table>(handle, domain);
}
template <class F>
typename F::object* create(loom_handle* handle, u32 domain) {
    return compact::create<F>(handle, domain);
}
template <class F>
typename F::object* create_cr(loom_handle* handle) {
    return compact::create_cr<F>(handle);
}
template <class F>
u32 initialize(loom_handle* handle, u32 domain, typename F::object* object, const loom_type_info* tinfo,
               u32 write_through, u8 obj_flags) {
    return compact::initialize<F, says::initialize_no_variant_table, says::initialize_variant_beyond_table>(
        handle, domain, object, tinfo, write_through, obj_flags);
}
template <class F>
void destroy_internal(loom_handle* handle, u32 domain, typename F::object* object, u32 release) {
    compact::destroy_internal<F, says::destroy_internal_corrupted_tinfo, says::destroy_internal_no_variant_table,
                              says::destroy_internal_variant_beyond_table>(handle, domain, object, release);
}
template <class F>
void destroy(loom_handle* handle, u32 domain, typename F::object* object) {
    F::type::destroy_internal(handle, domain, object, 1);
}
template <class F>
void destroy_cr(loom_handle* handle, typename F::object* object) {
    F::type::destroy_internal(handle, handle->cr_domain, object, 1);
}
template <class F>
void set_instance_embedded(loom_handle* handle, u32 domain, typename F::object* object) {
    compact::set_instance_embedded<F, says::set_instance_embedded_null_object>(handle, domain, object);
}
template <class F>
u32 get_oid_count(loom_handle* handle, u32 domain, const typename F::object* object, u32* err) {
    return compact::get_oid_count<F, says::get_oid_count_error_pending, says::get_oid_count_null_object>(
        handle, domain, object, err);
}
template <class F>
void get_object_references(loom_handle* handle, u32 domain, const typename F::object* object, void** references,
                           u32 count, u32* err) {
    compact::get_object_references<F, says::get_object_references_error_pending,
                                   says::get_object_references_null_object>(handle, domain, object, references,
                                                                            count, err);
}
template <class F>
typename F::object* get(loom_handle* handle, u32 domain, typename F::object* object) {
    return compact::get<F>(handle, domain, object);
}

template <class F>
void set(loom_handle* handle, u32 domain, typename F::object* object, const typename F::object* source, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return;
    if (object == nullptr || source == nullptr) {
        c.fail(LOOM_EINVAL);
        return;
    }
    adjust<F>(c, object);
    c.announce(object, sizeof *object, object);
    *object = *source;
}

template <class F>
inline u32 bit_of(const typename F::object* object, u32 bit) {
    return (object->bits[bit / 8] >> (bit % 8)) & 1u;
}

template <class F>
u32 get_value(loom_handle* handle, u32 domain, const typename F::object* object, u32 bit, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return 0;
    if (object == nullptr || bit >= bit_count<F>) {
        c.fail_epoch();
        return 0;
    }
    return bit_of<F>(object, bit);
}
template <class F>
u32 get_cr(loom_handle* handle, const typename F::object* object, u32 bit) {
    return get_value<F>(handle, handle->cr_domain, object, bit, &handle->last_error);
}

/// Bits of a later variant, and bits out of range on an instance not above the newest variant, are refused.
template <class F>
inline bool may_set(i8 variant, u32 bit) {
    for (i8 later = 1; later <= F::newest; ++later)
        if (bit >= bits_within<F>(static_cast<i8>(later - 1)) && variant < later) return false;
    return bit < bit_count<F> || variant > F::newest;
}

/// Announces and changes one bit; the mask stays within its byte.
template <class F>
inline void store_bit(const call& c, typename F::object* object, u32 bit, bool on) {
    u8* byte = &object->bits[bit / 8];
    const u8 mask = static_cast<u8>(1u << (bit % 8));
    c.store<u8>(byte, static_cast<u8>(on ? *byte | mask : *byte & static_cast<u8>(~mask)), object);
}

template <class F>
void set_value(loom_handle* handle, u32 domain, typename F::object* object, u32 bit, u32 on, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return;
    adjust<F>(c, object);
    if (!may_set<F>(direct::instance_variant(object, 0, 1), bit)) {
        c.fail_epoch();
        return;
    }
    if (object == nullptr || bit >= bit_count<F>) return;
    store_bit<F>(c, object, bit, on != 0);
}
template <class F>
u32 set_cr(loom_handle* handle, typename F::object* object, u32 bit, u32 on) {
    set_value<F>(handle, handle->cr_domain, object, bit, on, &handle->last_error);
    return handle->last_error;
}

template <class F>
u32 is_valid_cr(loom_handle* handle, u32 bit) {
    const call c = chain_call(handle);
    const i8 variant = peer_variant<F>(c, F::type::type_info());
    for (i8 later = 1; later <= F::newest; ++later)
        if (bit >= bits_within<F>(static_cast<i8>(later - 1)) && variant < later) return 0;
    return bit < bit_count<F> ? 1 : 0;
}

} // namespace flag_set
} // namespace trellis
