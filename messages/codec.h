// The forms of a message outside memory: binary in the frame of wire_frame.h, text, and XML. An open message
// bundle is asked before anything is written, and counts what was. Receiving stands in dispatch.h.
#pragma once

#include "messages/lifecycle.h"
#include "messages/wire_frame.h"

namespace trellis::message {

using wire::chain_length;
using wire::cursor;

// ---- Length and validity -------------------------------------------------------------------------------------

template <class M>
u32 len(loom_handle* handle, u32 domain, const object_of<M>* message) {
    if constexpr (has_payload<M>)
        return wire::message_frame_size + M::payload::len(handle, domain, payload_in<M>(message));
    else
        return static_cast<void>(handle), static_cast<void>(domain), static_cast<void>(message),
               wire::message_frame_size;
}

template <class M>
u32 len_cr(loom_handle* handle, const object_of<M>* message) {
    return handle->last_error != 0 ? 0 : len<M>(handle, handle->cr_domain, message);
}

template <class M>
u32 is_valid_cr(loom_handle* handle) {
    return loom_domain_lookup_message_ok(handle, &handle->domain_state, M::type_info(), &handle->last_error);
}

// ---- Binary form ---------------------------------------------------------------------------------------------

/// May the message be sent: does the peer know it, and does an open bundle take it?
template <class M>
inline bool may_send(const call& c, const object_of<M>* message) {
    loom_handle* handle = c.handle;
    if (loom_domain_lookup_message_ok(handle, &handle->domain_state, message->loom_tinfo, c.error) == 0) {
        say<M, says::marshal_internal_unknown_to_peer>(text(M::display_name), text(M::type_info()->luid_text),
                                                       text(handle->domain_text));
        c.fail_epoch(LOOM_EBADE);
        return false;
    }
    if (handle->bundle_active == 0) return !c.pending();
    bundle_message_validate_add(handle, c.domain, M::luid(), M::name_text(), c.error);
    if (c.pending())
        say<M, says::marshal_internal_not_valid_for_bundle>(text(M::display_name), error_text(*c.error));
    return !c.pending();
}

/// The failure of a marshal; a host that expects failures gets it as a debug note.
template <class M>
inline void say_failed(const call& c) {
    if (loomlib_suppress_messages_enabled(c.handle) != 0)
        say<M, says::marshal_internal_failed_suppressed>(text(M::display_name), error_text(*c.error));
    else
        say<M, says::marshal_internal_failed>(text(M::display_name), error_text(*c.error));
}

/// Counts the message in an open bundle. False when the bundle does not hold it.
template <class M>
inline bool counted_in_bundle(const call& c) {
    if (c.handle->bundle_active == 0) return true;
    bundle_message_increment_count(c.handle, M::luid(), c.error);
    if (!c.pending()) return true;
    say<M, says::marshal_internal_not_in_bundle>(text(M::display_name), error_text(*c.error));
    return false;
}

/// Worker of both ways to marshal.
template <class M>
u32 marshal_internal(loom_handle* handle, u32 domain, void* buffer, object_of<M>* message, i32 length, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<M, says::marshal_internal_error_pending>(error_text(*err));
        return 0;
    }
    c.clear_last_error();
    if (!may_send<M>(c, message)) return 0;
    cursor at(buffer, length);
    const bool framed = wire::write_frame(c, at, M::luid());
    if constexpr (has_payload<M>) {
        if (payload_in<M>(message) == nullptr && !c.pending()) c.fail(LOOM_ENOENT);
        at.advance(M::payload::marshal(handle, domain, at.here(), payload_in<M>(message), at.room(), err));
    }
    if (c.pending()) {
        say_failed<M>(c);
        return at.position();
    }
    if (!counted_in_bundle<M>(c) || !framed) return at.position();
    loom_message_header& header = message->msg_header;
    header.hdr_length = at.position();
    header.hdr_word = handle->header_tag;
    _loom_message_header_marshal(handle, domain, buffer, &header, wire::header_size, err);
    return at.position();
}

template <class M>
u32 marshal(loom_handle* handle, u32 domain, void* buffer, object_of<M>* message, i32 length, u32* err) {
    return marshal_internal<M>(handle, domain, buffer, message, length, err);
}

template <class M>
i32 marshal_cr(loom_handle* handle, object_of<M>* message, void* buffer, i32 length) {
    return chain_length(
        handle, marshal_internal<M>(handle, handle->cr_domain, buffer, message, length, &handle->last_error));
}

template <class M>
u32 unmarshal_only(loom_handle* handle, u32 domain, object_of<M>** message, const void* buffer, i32 length,
                   u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<M, says::unmarshal_only_error_pending>(text(M::display_name), error_text(*err));
        return 0;
    }
    c.clear_last_error();
    object_of<M>* created = create_shallow<M>(handle, domain);
    if (created == nullptr) {
        c.fail(LOOM_ENOMEM);
        return 0;
    }
    cursor at(const_cast<void*>(buffer), length);
    at.advance(u32{LOOM_LUID_SIZE}); // unread: the caller chose the message by it
    if (!c.pending())
        at.advance(_loom_message_header_unmarshal(handle, domain, buffer, &created->msg_header, length, err));
    if constexpr (has_payload<M>) {
        payload_in<M>(created) = M::payload::create_internal(handle, domain);
        if (payload_in<M>(created) == nullptr) c.fail(LOOM_ENOMEM);
        if (!c.pending())
            at.advance(
                M::payload::unmarshal(handle, domain, at.here(), payload_in<M>(created), at.room(), 0, err));
    }
    *message = created;
    return at.position();
}

// ---- Text form -----------------------------------------------------------------------------------------------

template <class M>
i32 print(loom_handle* handle, u32 domain, char* buffer, const object_of<M>* message, i32 length, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<M, says::print_error_pending>(error_text(*err));
        return 0;
    }
    c.clear_last_error();
    cursor at(buffer, length);
    at.advance(loom_print_space(handle, domain, at.text(), 0, at.room(), err));
    at.advance(loom_snprintf(handle, domain, at.text(), at.room(), err, "message@%s: {\n", M::display_name));
    if (c.pending())
        c.fail(LOOM_EMSGSIZE);
    else if constexpr (has_payload<M>)
        at.advance(M::payload::print(handle, domain, at.text(), 2, M::payload::name, payload_in<M>(message),
                                     at.room(), err));
    at.advance(loom_print_space(handle, domain, at.text(), 0, at.room(), err));
    at.advance(loom_snprintf(handle, domain, at.text(), at.room(), err, "}\n"));
    static_cast<void>(message);
    return static_cast<i32>(at.position());
}

template <class M>
i32 print_cr(loom_handle* handle, const object_of<M>* message, char* buffer, i32 length) {
    const i32 written = print<M>(handle, handle->cr_domain, buffer, message, length, &handle->last_error);
    return handle->last_error != 0 ? -1 : written;
}

// ---- XML form ------------------------------------------------------------------------------------------------

template <class M>
u32 to_xml(loom_handle* handle, u32 domain, char* buffer, const object_of<M>* message, i32 length, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<M, says::to_xml_error_pending>(error_text(*err));
        return 0;
    }
    c.clear_last_error();
    cursor at(buffer, length);
    at.advance(start_tag(handle, domain, at.text(), M::display_name, at.room(), 0, err));
    if constexpr (has_payload<M>) {
        if (!c.pending())
            at.advance(M::payload::to_xml(handle, domain, M::payload::name, at.text(), payload_in<M>(message),
                                          at.room(), 0, err));
    }
    at.advance(end_tag(handle, domain, at.text(), M::display_name, at.room(), err));
    static_cast<void>(message);
    return at.position();
}

template <class M>
i32 toxml_cr(loom_handle* handle, const object_of<M>* message, char* buffer, i32 length) {
    return chain_length(handle,
                        to_xml<M>(handle, handle->cr_domain, buffer, message, length, &handle->last_error));
}

template <class M>
object_of<M>* from_xml(loom_handle* handle, u32 domain, const loom_xml_document* document, u32* err,
                       char* complaint, u32 complaint_length) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<M, says::from_xml_error_pending>(error_text(*err));
        return nullptr;
    }
    c.clear_last_error();
    object_of<M>* message = create<M>(handle, domain);
    if (message == nullptr) {
        c.fail(LOOM_ENOMEM);
        return nullptr;
    }
    if constexpr (has_payload<M>) {
        M::payload::from_xml(handle, domain, wire::element_path<typename M::payload>.text, document,
                             payload_in<M>(message), err, complaint, complaint_length);
        if (*err == LOOM_ENOENT) *err = 0;
        if (c.pending()) return nullptr;
    } else {
        static_cast<void>(document);
        static_cast<void>(complaint);
        static_cast<void>(complaint_length);
    }
    return message;
}

} // namespace trellis::message
