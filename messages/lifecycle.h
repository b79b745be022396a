// Making and ending messages, and the accessors of the payload. A payload placed in a message is not marked
// embedded: it can be taken out again and used as before.
#pragma once

#include "messages/message_model.h"

namespace trellis::message {

// ---- Making --------------------------------------------------------------------------------------------------

/// Type, count, header and tracking mode of a zeroed message. False, and nothing is counted, when the database has
/// no room for the type's description.
template <class M, says Corrupted, says NoTable, says Beyond, says CorruptedHandle>
inline bool set_up(const call& c, object_of<M>* message) {
    message->loom_tinfo = c.handle->db_kind == 0 ? M::type_info()
                                                 : loom_type_info_ptr_get(c.handle, c.domain, M::type_info(),
                                                                          M::bundle::typeinfo_initialize);
    if (message->loom_tinfo == nullptr) return false;
    loom_variant_entry* statistics = statistics_of<M, Corrupted, NoTable, Beyond>(message->loom_tinfo);
    announce_and_count(c, message->loom_tinfo, &statistics->objects_created);
    message->msg_header.hdr_magic = LOOM_MESSAGE_HEADER_MAGIC;
    memset(message->msg_header.hdr_reserved, 0xFF, sizeof message->msg_header.hdr_reserved);
    const tracking_mode mode = c.mode();
    if (mode == tracking_mode::corrupted) die<M, CorruptedHandle>();
    if (mode != tracking_mode::on) return true;
    message->loom_flags = static_cast<u8>(message->loom_flags | OBJ_STATE_TRACKED);
    message->msg_header.hdr_sttr = 1;
    return true;
}

/// Zeroed memory of a message, or null.
template <class M>
inline object_of<M>* allocate_message(const call& c) {
    void* memory = c.allocate(sizeof(object_of<M>));
    if (memory != nullptr) memset(memory, 0, sizeof(object_of<M>));
    return static_cast<object_of<M>*>(memory);
}

template <class M>
object_of<M>* create_shallow(loom_handle* handle, u32 domain) {
    const call c{handle, domain, &handle->last_error};
    M::bundle::trace_init();
    object_of<M>* message = allocate_message<M>(c);
    if (message == nullptr) return nullptr;
    if (set_up<M, says::create_shallow_corrupted_tinfo, says::create_shallow_no_variant_table,
               says::create_shallow_variant_beyond_table, says::create_shallow_corrupted_handle>(c, message))
        return message;
    c.release(message);
    return nullptr;
}

/// What a chain of calls gets when it cannot or must not allocate; the slot keeps an earlier error.
template <class M>
inline object_of<M>* fall_back_to_sentinel(const call& c) {
    if (!c.pending()) loom_store_err(c.handle, LOOM_ENOMEM);
    return sentinel<M>();
}

/// Ends a message that cannot be set up. A chain of calls gets the sentinel, with the payload.
template <class M>
inline object_of<M>* give_up(const call& c, object_of<M>* message) {
    const bool chain = c.handle->cr_active != 0;
    if constexpr (has_payload<M>) {
        if (chain)
            payload_in<M>(sentinel<M>()) = payload_in<M>(message);
        else
            M::payload::destroy(c.handle, c.domain, payload_in<M>(message));
    }
    c.release(message);
    return chain ? fall_back_to_sentinel<M>(c) : nullptr;
}

/// Worker: a chain of calls gets the sentinel, with a payload of its own, when it cannot or must not allocate.
template <class M>
object_of<M>* create_internal(loom_handle* handle, u32 domain) {
    const call c{handle, domain, &handle->last_error};
    const bool chain = handle->cr_active != 0;
    object_of<M>* message = chain && c.pending() ? nullptr : allocate_message<M>(c);
    if (message == nullptr) {
        if (!chain) return nullptr;
        message = fall_back_to_sentinel<M>(c);
    }
    if constexpr (has_payload<M>) {
        payload_in<M>(message) = M::payload::create(handle, domain);
        if (payload_in<M>(message) == nullptr) {
            if (message != sentinel<M>()) c.release(message);
            return nullptr;
        }
    }
    if (message == sentinel<M>()) return message;
    if (set_up<M, says::create_internal_corrupted_tinfo, says::create_internal_no_variant_table,
               says::create_internal_variant_beyond_table, says::create_internal_corrupted_handle>(c, message))
        return message;
    return give_up<M>(c, message);
}

template <class M>
object_of<M>* create(loom_handle* handle, u32 domain) {
    M::bundle::trace_init();
    return create_internal<M>(handle, domain);
}

template <class M>
object_of<M>* create_cr(loom_handle* handle) {
    M::bundle::trace_init();
    handle->cr_active = 1;
    object_of<M>* message = create_internal<M>(handle, handle->cr_domain);
    handle->cr_active = 0;
    return message;
}

// ---- The end -------------------------------------------------------------------------------------------------

template <class M>
void destroy_internal(loom_handle* handle, u32 domain, object_of<M>* message) {
    if (message == nullptr || message == sentinel<M>()) return;
    const call c{handle, domain, &handle->last_error};
    if constexpr (has_payload<M>) {
        M::payload::destroy(handle, domain, payload_in<M>(message));
        payload_in<M>(message) = nullptr;
    }
    loom_variant_entry* statistics =
        statistics_of<M, says::destroy_internal_corrupted_tinfo, says::destroy_internal_no_variant_table,
                      says::destroy_internal_variant_beyond_table>(message->loom_tinfo);
    announce_and_count(c, message->loom_tinfo, &statistics->objects_destroyed);
    message->loom_tinfo = nullptr;
    c.release(message);
}

template <class M>
void destroy(loom_handle* handle, u32 domain, object_of<M>* message) {
    destroy_internal<M>(handle, domain, message);
}

template <class M>
void destroy_cr(loom_handle* handle, object_of<M>* message) {
    destroy_internal<M>(handle, handle->cr_domain, message);
}

template <class M>
void get_luid(loom_handle* handle, u32 domain, const void* object, u8* luid, u32* err) {
    loom_get_luid(handle, domain, object, luid, err);
}

// ---- Payload -------------------------------------------------------------------------------------------------

/// A null message or a pending error stops an accessor. The last error stays as it is.
template <class M, says Stopped>
inline bool may_access(const object_of<M>* message, const u32* err) {
    if (message != nullptr && *err == 0) return true;
    say<M, Stopped>(error_text(*err));
    return false;
}

template <class M>
payload_of<M>* payload_get(loom_handle*, u32, object_of<M>* message, u32* err) {
    return may_access<M, says::payload_get_error_pending>(message, err) ? payload_in<M>(message) : nullptr;
}

template <class M>
payload_of<M>* payload_get_detach(loom_handle*, u32, object_of<M>* message, u32* err) {
    if (!may_access<M, says::payload_get_detach_error_pending>(message, err)) return nullptr;
    payload_of<M>* value = payload_in<M>(message);
    payload_in<M>(message) = nullptr;
    return value;
}

template <class M>
void payload_set(loom_handle*, u32, object_of<M>* message, payload_of<M>* value, u32* err) {
    if (may_access<M, says::payload_set_error_pending>(message, err)) payload_in<M>(message) = value;
}

template <class M>
void payload_free_and_set(loom_handle* handle, u32 domain, object_of<M>* message, payload_of<M>* value, u32* err) {
    if (!may_access<M, says::payload_free_and_set_error_pending>(message, err)) return;
    M::payload::destroy(handle, domain, payload_in<M>(message));
    payload_in<M>(message) = value;
}

} // namespace trellis::message
