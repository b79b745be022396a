// Table records: making and ending them, their reference count, key objects, and the accessors of payload and key.
// A record is plain bookkeeping with pointers to its instances; putting it into a table stands in insert_delete.h.
#pragma once

#include "tables/table_model.h"

// <assert.h> does not declare it where assertions are off.
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned line,
                                           const char* function) noexcept;

namespace trellis::table {

// ---- Making --------------------------------------------------------------------------------------------------

/// Places that label an allocation for the memory tracer; the labels are told apart by the table's trace base.
enum class call_site : u32 { chain_payload, chain_key, key_object };
template <class T>
inline void tag_allocation(call_site place) {
    umber_set_callsite_tag(T::trace_base * 4 + static_cast<u32>(place));
}

template <class T>
inline u64* creations_of(const loom_type_info* tinfo) {
    return &statistics_of<T, says::create_record_internal_corrupted_tinfo,
                          says::create_record_internal_no_variant_table,
                          says::create_record_internal_variant_beyond_table>(tinfo)
                ->objects_created;
}

/// Zeroes a record and gives it its type. False when the database has no room for the type's description.
template <class T>
inline bool begin_record(const call& c, record_of<T>* record) {
    memset(record, 0, sizeof(record_of<T>));
    loom_type_info*& word = record->loom_record.loom_tinfo;
    c.announce(&word, sizeof word, nullptr);
    word = resident_type_info<typename T::bundle>(c, T::record_type_info());
    return word != nullptr;
}

/// What there is instead of a new record: in a chain of calls the sentinel, elsewhere null with error 12. An
/// earlier error stands, and the handle's slot is left to the chain.
template <class T>
inline record_of<T>* record_without_room(const call& c) {
    if (c.handle->cr_active == 0) {
        if (!c.pending()) *c.error = LOOM_ENOMEM;
        return nullptr;
    }
    if (c.handle->last_error == 0) loom_store_err(c.handle, LOOM_ENOMEM);
    if (!begin_record<T>(c, sentinel<T>())) sentinel<T>()->loom_record.loom_tinfo = T::record_type_info();
    return sentinel<T>();
}

template <class T>
inline record_of<T>* begun_record(const call& c) {
    auto* record = static_cast<record_of<T>*>(c.allocate(sizeof(record_of<T>)));
    if (record == nullptr) return record_without_room<T>(c);
    if (begin_record<T>(c, record)) return record;
    c.release(record);
    return record_without_room<T>(c);
}

/// A pending error is no obstacle here, and it is gone afterwards.
template <class T>
record_of<T>* create_record_internal(loom_handle* handle, u32 domain, u32 src, u32* err) {
    const call c{handle, domain, err};
    T::bundle::trace_init();
    record_of<T>* record = begun_record<T>(c);
    if (record == nullptr) {
        report(c, subject::record, record, nullptr);
        return nullptr;
    }
    loom_table_record& head = record->loom_record;
    announce_and_count(c, head.loom_tinfo, creations_of<T>(head.loom_tinfo));
    *err = 0;
    head.ref_count = 1;
    head.src = static_cast<u8>(src);
    mt_get_tenant_id(&head.tenant_id);
    report(c, subject::record, record, nullptr);
    mark_dirty(c, record);
    return record;
}

template <class T>
record_of<T>* create_record(loom_handle* handle, u32 domain, u32* err) {
    return T::create_record_internal(handle, domain, default_source, err);
}

template <class T>
record_of<T>* create_record_w_src(loom_handle* handle, u32 domain, u32 src, u32* err) {
    return T::create_record_internal(handle, domain, src, err);
}

template <class T>
record_of<T>* record_create_cr(loom_handle* handle, u32 with_fields) {
    const call c = chain_call(handle);
    handle->cr_active = 1;
    record_of<T>* record = T::create_record_internal(handle, c.domain, default_source, c.error);
    if (with_fields != 0) {
        tag_allocation<T>(call_site::chain_payload);
        payload_in<T>(record) = T::payload::create(handle, c.domain);
        report(c, subject::field, payload_in<T>(record), record);
        if constexpr (has_key_object<T>) {
            tag_allocation<T>(call_site::chain_key);
            record->*T::key_field = T::key::type::create(handle, c.domain);
            report(c, subject::field, record->*T::key_field, record);
        }
    }
    handle->cr_active = 0;
    return record;
}

template <class T>
key_object<T>* pkey_create(loom_handle* handle, u32 domain) {
    tag_allocation<T>(call_site::key_object);
    return key_object_facade<T>::create(handle, domain);
}

template <class T>
void pkey_destroy(loom_handle* handle, u32 domain, key_object<T>* key) {
    key_object_facade<T>::destroy(handle, domain, key);
}

// ---- References and the end ----------------------------------------------------------------------------------

/// The count shares its word with eight bits that every change clears.
constexpr u32 largest_reference_count = 0xFFFFFF;

/// Ends the process as a failed assertion does, in builds without assertions too.
[[noreturn]] inline void fail_reference_count() {
    __assert_fail("((1 << 24) - 1) != __ref_cnt", "tables/records.h", __LINE__, "record_add_ref");
}

template <class T>
u32 record_add_ref(loom_handle* handle, u32 domain, record_of<T>* record, u32* err) {
    const call c{handle, domain, err};
    if (record == nullptr) {
        c.fail(LOOM_ENOENT);
        return 0;
    }
    u32& word = record->loom_record.ref_count;
    const u32 before = word & largest_reference_count;
    if (before == largest_reference_count) fail_reference_count();
    c.store<u32>(&word, (before + 1) & largest_reference_count, nullptr);
    return before;
}

/// Step of the destroy: the record leaves its table, whatever the table says about it.
template <class T>
inline void leave_table(const call& c, record_of<T>* record) {
    loom_table_record& head = record->loom_record;
    if (head.table == nullptr || (head.record_flags & REC_NO_AUTO_DELETE) != 0) return;
    T::delete_internal(c.handle, c.domain, head.table, record, 0, c.error);
    if (!c.pending()) return;
    say<T, says::destroy_record_internal_delete_failed>(*c.error);
    *c.error = 0;
}

/// Removes what the runtime holds about the record. False with the error when that fails; the record then stays,
/// without references and fields.
template <class T>
inline bool release_bookkeeping(const call& c, record_of<T>* record) {
    loom_table_record& head = record->loom_record;
    if ((head.record_flags & REC_HD_MAPPED) != 0 && c.handle->hd_map != nullptr) {
        loom_hd_mapping_destroy(c.handle, c.domain, record, c.error);
        if (c.pending()) {
            say<T, says::destroy_record_internal_mapping_not_removed>(error_text(*c.error));
            loom_store_err(c.handle, *c.error);
            return false;
        }
    }
    if (head.location != 0) {
        loomlib_record_dereference_loc(c.handle, c.domain, &head, c.error);
        if (c.pending()) {
            say<T, says::destroy_record_internal_location_not_released>(error_text(*c.error));
            return false;
        }
    }
    return true;
}

template <class T>
void destroy_record_internal(loom_handle* handle, u32 domain, record_of<T>* record, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) return;
    if (record == nullptr) {
        c.fail(LOOM_ENOENT);
        return;
    }
    loom_table_record& head = record->loom_record;
    c.store<u32>(&head.ref_count, (head.ref_count - 1) & largest_reference_count, nullptr);
    if (head.ref_count != 0) return;

    leave_table<T>(c, record);
    T::payload::destroy(handle, domain, payload_in<T>(record));
    if constexpr (has_key_object<T>) T::key::type::destroy(handle, domain, record->*T::key_field);

    const loom_type_info* tinfo = head.loom_tinfo;
    loom_variant_entry* statistics = statistics_of<T, says::destroy_record_internal_corrupted_tinfo,
                                                   says::destroy_record_internal_no_variant_table,
                                                   says::destroy_record_internal_variant_beyond_table>(tinfo);
    announce_and_count(c, tinfo, &statistics->objects_destroyed);
    *err = 0;
    if (!release_bookkeeping<T>(c, record)) return;
    c.store<loom_type_info*>(&head.loom_tinfo, nullptr, nullptr);
    if (record != sentinel<T>()) c.release(record);
}

template <class T>
void destroy_record(loom_handle* handle, u32 domain, record_of<T>* record, u32* err) {
    T::destroy_record_internal(handle, domain, record, err);
}

template <class T>
void record_destroy_cr(loom_handle* handle, record_of<T>* record) {
    T::destroy_record_internal(handle, handle->cr_domain, record, &handle->last_error);
}

template <class T>
void request_record_destroy(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return;
    const u32 replicated = loomdb_table_are_cursors_enabled(handle, domain, table, err);
    if (record == nullptr || replicated == 0) {
        c.fail(LOOM_EINVAL);
        return;
    }
    loomdb_request_record_destroy(handle, domain, &record->loom_record, err);
    if (c.pending()) say<T, says::request_record_destroy_failed>();
}

template <class T>
u32 request_record_destroy_cr(loom_handle* handle, loom_table* table, record_of<T>* record) {
    request_record_destroy<T>(handle, handle->cr_domain, table, record, &handle->last_error);
    return handle->last_error;
}

// ---- Accessors of the fields ---------------------------------------------------------------------------------

template <class T, class Value>
inline Value* get_field(const call& c, record_of<T>* record, Value* record_of<T>::*field) {
    report(c, subject::field, record->*field, record);
    return record->*field;
}

template <class T, class Value>
inline Value* get_field_detach(const call& c, record_of<T>* record, Value* record_of<T>::*field) {
    Value* value = record->*field;
    report(c, subject::field, value, nullptr);
    if (c.reports_to_shared_database()) loomdb_plat_set_detach(c.handle, c.domain, value, 0);
    c.store<Value*>(&(record->*field), nullptr, record);
    return value;
}

/// Objects that have a holder already are refused; the number goes to the handle alone.
template <class T, says Refused, class Value>
inline bool may_be_field(const call& c, const Value* value) {
    const u32 refusal = loomlib_validate_object_flags(value, 1, 1);
    if (refusal == 0) return true;
    say<T, Refused>();
    loom_store_err(c.handle, refusal);
    return false;
}

/// The report comes before the store here and behind it in free_and_set_field.
template <class T, class Facade, says Refused, class Value>
inline void set_field(const call& c, record_of<T>* record, Value* record_of<T>::*field, Value* value) {
    if (!may_be_field<T, Refused>(c, value)) return;
    report(c, subject::field, value, record);
    c.store<Value*>(&(record->*field), value, record);
    Facade::set_instance_embedded(c.handle, c.domain, value);
}

template <class T, class Facade, says Refused, class Value>
inline void free_and_set_field(const call& c, record_of<T>* record, Value* record_of<T>::*field, Value* value) {
    if (!may_be_field<T, Refused>(c, value)) return;
    if (record->*field != nullptr) Facade::destroy(c.handle, c.domain, record->*field);
    c.store<Value*>(&(record->*field), value, record);
    report(c, subject::field, value, record);
    Facade::set_instance_embedded(c.handle, c.domain, value);
}

/// The accessors have no error word: what they refuse stands in the handle.
inline call unchecked_call(loom_handle* handle, u32 domain) { return {handle, domain, &handle->last_error}; }

template <class T>
payload_of<T>* payload_get_field(loom_handle* handle, u32 domain, record_of<T>* record) {
    return get_field<T>(unchecked_call(handle, domain), record, T::payload_field);
}
template <class T>
payload_of<T>* payload_get_field_detach(loom_handle* handle, u32 domain, record_of<T>* record) {
    return get_field_detach<T>(unchecked_call(handle, domain), record, T::payload_field);
}
template <class T>
void payload_set_field(loom_handle* handle, u32 domain, record_of<T>* record, payload_of<T>* value) {
    set_field<T, typename T::payload, says::payload_set_field_value_refused>(unchecked_call(handle, domain),
                                                                             record, T::payload_field, value);
}
template <class T>
void payload_free_and_set_field(loom_handle* handle, u32 domain, record_of<T>* record, payload_of<T>* value) {
    free_and_set_field<T, typename T::payload, says::payload_free_and_set_field_value_refused>(
        unchecked_call(handle, domain), record, T::payload_field, value);
}

template <class T>
key_cell<T>* key_get_field(loom_handle* handle, u32 domain, record_of<T>* record) {
    return get_field<T>(unchecked_call(handle, domain), record, T::key_field);
}
template <class T>
key_cell<T>* key_get_field_detach(loom_handle* handle, u32 domain, record_of<T>* record) {
    return get_field_detach<T>(unchecked_call(handle, domain), record, T::key_field);
}
template <class T>
void key_set_field(loom_handle* handle, u32 domain, record_of<T>* record, key_cell<T>* value) {
    set_field<T, typename T::key::type, says::key_set_field_value_refused>(unchecked_call(handle, domain), record,
                                                                           T::key_field, value);
}
template <class T>
void key_free_and_set_field(loom_handle* handle, u32 domain, record_of<T>* record, key_cell<T>* value) {
    free_and_set_field<T, typename T::key::type, says::key_free_and_set_field_value_refused>(
        unchecked_call(handle, domain), record, T::key_field, value);
}

} // namespace trellis::table
