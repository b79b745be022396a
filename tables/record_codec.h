// The forms of a table record outside memory: binary with its 43-byte frame, text, and XML, and the forms of its
// key alone. What lies inside payload and key belongs to codec/.
//
//     | header 27 | luid 16 | payload | key object |
//
// The header is written last, with the whole length, over 27 zero bytes.
#pragma once

#include "messages/wire_frame.h"
#include "tables/table_model.h"

namespace trellis::table {

using wire::chain_length;
using wire::cursor;

// ---- Binary form of a record ---------------------------------------------------------------------------------

template <class T>
u32 table_record_len(loom_handle* handle, u32 domain, const record_of<T>* record) {
    u32 length = wire::message_frame_size + T::payload::len(handle, domain, payload_in<T>(record));
    if constexpr (has_key_object<T>) length += T::key::type::len(handle, domain, key_in<T>(record));
    return length;
}

template <class T>
u32 record_len_cr(loom_handle* handle, const record_of<T>* record) {
    return handle->last_error != 0 ? 0 : table_record_len<T>(handle, handle->cr_domain, record);
}

template <class T>
u32 table_record_marshal_internal(loom_handle* handle, u32 domain, void* buffer, const record_of<T>* record,
                                  i32 length, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<T, says::table_record_marshal_internal_error_pending>(error_text(*err));
        return 0;
    }
    c.clear_last_error();
    const loom_type_info* tinfo = T::type_info();
    if (loom_domain_lookup_table_ok(handle, &handle->domain_state, tinfo, err) == 0) {
        say<T, says::table_record_marshal_internal_unknown_to_peer>(static_cast<const char*>(T::name),
                                                                    static_cast<const char*>(tinfo->luid_text),
                                                                    static_cast<const char*>(handle->domain_text));
        c.fail_epoch(LOOM_EBADE);
        return 0;
    }
    cursor at(buffer, length);
    const bool framed = wire::write_frame(c, at, T::luid());
    const payload_of<T>* payload = payload_in<T>(record);
    if (payload == nullptr) {
        say<T, says::table_record_marshal_internal_payload_empty>();
        c.fail(LOOM_ENOENT);
        return at.position();
    }
    const void* payload_start = at.here();
    at.advance(T::payload::marshal(handle, domain, at.here(), payload, at.room(), err));
    if constexpr (has_key_object<T>) {
        if (key_in<T>(record) == nullptr) {
            say<T, says::table_record_marshal_internal_key_empty>();
            c.fail(LOOM_ENOENT);
            return at.position();
        }
        at.advance(T::key::type::marshal(handle, domain, at.here(), key_in<T>(record), at.room(), err));
    }
    if (!framed || c.pending()) return at.position();

    loom_message_header header = wire::empty_header();
    header.hdr_sttr = loomlib_type_header_get_state_tracking_flag(payload_start);
    header.hdr_word = handle->header_tag;
    header.hdr_length = at.position();
    _loom_message_header_marshal(handle, domain, buffer, &header, wire::header_size, err);
    return at.position();
}

template <class T>
u32 table_record_marshal(loom_handle* handle, u32 domain, void* buffer, const record_of<T>* record, i32 length,
                         u32* err) {
    return T::table_record_marshal_internal(handle, domain, buffer, record, length, err);
}

template <class T>
i32 record_marshal_cr(loom_handle* handle, const record_of<T>* record, void* buffer, i32 length) {
    const u32 written =
        T::table_record_marshal_internal(handle, handle->cr_domain, buffer, record, length, &handle->last_error);
    return chain_length(handle, written);
}

/// Reads one field of a record, made first unless the record exists.
template <class Facade, class Value>
inline void read_field(const call& c, const void* record, Value*& field, cursor& at, u32 existing, u32 missing) {
    if (existing == 0) {
        field = Facade::create_internal(c.handle, c.domain);
        report(c, subject::field, field, record);
    }
    if (field == nullptr) c.fail(missing);
    if (!c.pending())
        at.advance(Facade::unmarshal(c.handle, c.domain, at.here(), field, at.room(), existing, c.error));
}

template <class T>
u32 table_record_unmarshal(loom_handle* handle, u32 domain, record_of<T>** record, const void* buffer, i32 length,
                           u32 existing, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<T, says::table_record_unmarshal_error_pending>(static_cast<const char*>(T::name), error_text(*err));
        return 0;
    }
    c.clear_last_error();
    record_of<T>* target =
        existing != 0 ? *record : T::create_record_internal(handle, domain, default_source, err);
    const u32 missing = existing != 0 ? LOOM_ENOENT : LOOM_ENOMEM;
    if (target == nullptr) {
        c.fail(missing);
        return 0;
    }
    cursor at(const_cast<void*>(buffer), length);
    at.advance(u32{LOOM_LUID_SIZE}); // unread: the caller knows the table
    if (!c.pending()) {
        loom_message_header header{};
        at.advance(_loom_message_header_unmarshal(handle, domain, buffer, &header, length, err));
    }
    read_field<typename T::payload>(c, target, payload_in<T>(target), at, existing, missing);
    if constexpr (has_key_object<T>)
        read_field<typename T::key::type>(c, target, target->*T::key_field, at, existing, missing);
    *record = target;
    return at.position();
}

// ---- Forms of the key ----------------------------------------------------------------------------------------

template <class T>
u32 table_pkey_len(loom_handle* handle, u32 domain, const record_of<T>* record) {
    return T::key::type::len(handle, domain, key_in<T>(record));
}

template <class T>
u32 table_pkey_marshal(loom_handle* handle, u32 domain, void* buffer, const record_of<T>* record, i32 length,
                       u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<T, says::table_pkey_marshal_error_pending>(error_text(*err));
        return 0;
    }
    c.clear_last_error();
    const key_cell<T>* key = key_in<T>(record);
    if (static_cast<i32>(T::key::type::len(handle, domain, key)) > length) {
        c.fail(LOOM_EMSGSIZE);
        return 0;
    }
    return T::key::type::marshal(handle, domain, buffer, key, length, err);
}

/// The key inside a key object.
template <class T>
inline key_cell<T>* key_cell_in(key_object<T>* object) {
    if constexpr (has_key_attribute<T>)
        return &(object->*T::key::member);
    else
        return object;
}

template <class T>
u32 table_pkey_unmarshal(loom_handle* handle, u32 domain, key_object<T>** key, const void* buffer, i32 length,
                         u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<T, says::table_pkey_unmarshal_error_pending>(static_cast<const char*>(T::name), error_text(*err));
        return 0;
    }
    c.clear_last_error();
    if (key == nullptr) {
        c.fail(LOOM_EFAULT);
        return 0;
    }
    key_object<T>* object = T::pkey_create(handle, domain);
    if (object == nullptr) {
        c.fail(LOOM_ENOMEM);
        return 0;
    }
    const u32 read = T::key::type::unmarshal(handle, domain, buffer, key_cell_in<T>(object), length, 0, err);
    *key = object;
    return read;
}

template <class T>
i32 pkey_print(loom_handle* handle, u32 domain, loom_table* table, const record_of<T>* record, char* buffer,
               i32 length, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) return 0;
    if (handle == nullptr) { // there is no slot to store the number in
        *err = LOOM_EINVAL;
        return 0;
    }
    c.clear_last_error();
    if (table == nullptr || record == nullptr) {
        c.fail(LOOM_EINVAL);
        return 0;
    }
    const key_cell<T>* key = key_in<T>(record);
    if (static_cast<i32>(T::key::type::len(handle, domain, key)) > length) {
        c.fail(LOOM_EMSGSIZE);
        return 0;
    }
    return T::key::type::print(handle, domain, buffer, 0, T::key_label, key, length, err);
}

// ---- Text form -----------------------------------------------------------------------------------------------

/// Prints one field; its binary length is the yardstick of the room it needs.
template <class Facade, class Value>
inline void print_field(const call& c, cursor& at, const Value* value) {
    if (c.pending()) return;
    if (at.room() < static_cast<i32>(Facade::len(c.handle, c.domain, value)))
        c.fail(LOOM_EMSGSIZE);
    else
        at.advance(Facade::print(c.handle, c.domain, at.text(), 2, Facade::name, value, at.room(), c.error));
}

template <class T>
i32 table_record_print_internal(loom_handle* handle, u32 domain, char* buffer, const record_of<T>* record,
                                i32 length, u32* err) {
    const call c{handle, domain, err};
    cursor at(buffer, length);
    at.advance(loom_print_space(handle, domain, at.text(), 0, at.room(), err));
    at.advance(loom_snprintf(handle, domain, at.text(), at.room(), err, "record@%s: {\n", T::name));
    print_field<typename T::payload>(c, at, payload_in<T>(record));
    if constexpr (has_key_object<T>) print_field<typename T::key::type>(c, at, key_in<T>(record));
    at.advance(loom_print_space(handle, domain, at.text(), 0, at.room(), err));
    at.advance(loom_snprintf(handle, domain, at.text(), at.room(), err, "}\n"));
    return static_cast<i32>(at.position());
}

template <class T>
i32 table_record_print(loom_handle* handle, u32 domain, char* buffer, const record_of<T>* record, i32 length,
                       u32* err) {
    return T::table_record_print_internal(handle, domain, buffer, record, length, err);
}

template <class T>
i32 record_print_cr(loom_handle* handle, const record_of<T>* record, char* buffer, i32 length) {
    if (handle->last_error != 0) return -1;
    const i32 written =
        T::table_record_print_internal(handle, handle->cr_domain, buffer, record, length, &handle->last_error);
    return handle->last_error != 0 ? -1 : written;
}

// ---- XML form ------------------------------------------------------------------------------------------------

template <class T>
u32 table_record_to_xml_internal(loom_handle* handle, u32 domain, char* buffer, const record_of<T>* record,
                                 i32 length, u32* err) {
    const call c{handle, domain, err};
    cursor at(buffer, length);
    at.advance(start_tag(handle, domain, at.text(), T::name, at.room(), 0, err));
    if (!c.pending())
        at.advance(T::payload::to_xml(handle, domain, T::payload::name, at.text(), payload_in<T>(record),
                                      at.room(), 0, err));
    if constexpr (has_key_object<T>) {
        using key = typename T::key::type;
        if (!c.pending())
            at.advance(key::to_xml(handle, domain, key::name, at.text(), key_in<T>(record), at.room(), 0, err));
    }
    at.advance(end_tag(handle, domain, at.text(), T::name, at.room(), err));
    return at.position();
}

template <class T>
u32 table_record_to_xml(loom_handle* handle, u32 domain, char* buffer, const record_of<T>* record, i32 length,
                        u32* err) {
    if constexpr (has_key_object<T>)
        return T::table_record_to_xml_internal(handle, domain, buffer, record, length, err);
    else
        return table_record_to_xml_internal<T>(handle, domain, buffer, record, length, err);
}

template <class T>
i32 record_toxml_cr(loom_handle* handle, const record_of<T>* record, char* buffer, i32 length) {
    if (handle->last_error != 0) return -1;
    return chain_length(
        handle, table_record_to_xml<T>(handle, handle->cr_domain, buffer, record, length, &handle->last_error));
}

/// Makes one field. Without memory the record ends, as nobody will ever hold it: false with error 12.
template <class T, class Facade, class Value>
inline bool make_field(const call& c, record_of<T>* record, Value*& field) {
    field = Facade::create_internal(c.handle, c.domain);
    if (field != nullptr) return true;
    *c.error = 0; // a missing payload may be pending, and a destroy does nothing then
    T::destroy_record_internal(c.handle, c.domain, record, c.error);
    c.fail(LOOM_ENOMEM);
    return false;
}
/// Reads a field from the first element of its type's name.
template <class Facade, class Value>
inline void read_element(const call& c, Value* field, const loom_xml_document* document, char* message,
                         u32 message_length) {
    Facade::from_xml(c.handle, c.domain, wire::element_path<Facade>.text, document, field, c.error, message,
                     message_length);
}

template <class T>
record_of<T>* table_record_from_xml(loom_handle* handle, u32 domain, const loom_xml_document* document, u32* err,
                                    char* message, u32 message_length) {
    const call c{handle, domain, err};
    record_of<T>* record = T::create_record_internal(handle, domain, default_source, err);
    if (record == nullptr) {
        c.fail(LOOM_ENOMEM);
        return nullptr;
    }
    using payload = typename T::payload;
    if (!make_field<T, payload>(c, record, payload_in<T>(record))) return nullptr;
    read_element<payload>(c, payload_in<T>(record), document, message, message_length);
    if constexpr (has_key_object<T>) {
        using key = typename T::key::type;
        if (*err != 0 && *err != LOOM_ENOENT) return nullptr;
        if (!make_field<T, key>(c, record, record->*T::key_field)) return nullptr;
        // A missing payload leaves its error pending, and with it the key as it is.
        read_element<key>(c, record->*T::key_field, document, message, message_length);
    }
    if (*err == LOOM_ENOENT) *err = 0;
    return *err == 0 ? record : nullptr;
}

} // namespace trellis::table
