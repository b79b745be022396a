// What all themes of the tables share: the kinds of keys, the parts of a record, trace statements, reports and
// statistics. No exported function stands here.
#pragma once

#include "diag/trace.h"
#include "frame/basic_types.h"
#include "instance/call.h"
#include "instance/value_types.h"

#include <loom/loom.h>

#include <string.h>

namespace trellis::table {

// ---- Keys ----------------------------------------------------------------------------------------------------

enum class key_kind : u8 {
    attribute,     // an attribute of the payload
    whole_payload, // the payload itself
    object,        // a second instance beside the payload
};

/// The key is one attribute of the payload; Type is the attribute's facade.
template <class Type, auto Member>
struct attribute_key {
    static constexpr key_kind kind = key_kind::attribute;
    using type = Type;
    static constexpr auto member = Member;
};
template <class Type>
struct payload_key {
    static constexpr key_kind kind = key_kind::whole_payload;
    using type = Type;
};
template <class Type>
struct object_key {
    static constexpr key_kind kind = key_kind::object;
    using type = Type;
};

template <class T>
concept has_key_object = T::key::kind == key_kind::object;
template <class T>
concept has_key_attribute = T::key::kind == key_kind::attribute;

template <class T>
using record_of = typename T::record;
template <class T>
using payload_of = typename T::payload::c_type;
/// The key where it lives: attribute, payload or key instance.
template <class T>
using key_cell = typename T::key::type::c_type;

/// What `<table>_pkey_create` makes: the key, or a payload in which only the key counts.
template <class T, bool = has_key_attribute<T>>
struct key_object_type {
    using type = typename T::payload;
};
template <class T>
struct key_object_type<T, false> {
    using type = typename T::key::type;
};
template <class T>
using key_object_facade = typename key_object_type<T>::type;
template <class T>
using key_object = typename key_object_facade<T>::c_type;

/// What a key pointer points at. Enumerations are sought by their 32-bit value.
template <class Type, bool = is_any_enumeration(Type::category)>
struct key_value_type {
    using type = typename Type::c_type;
};
template <class Type>
struct key_value_type<Type, true> {
    using type = i32;
};
template <class T>
using key_value = typename key_value_type<typename T::key::type>::type;

// ---- Parts of a record ---------------------------------------------------------------------------------------

template <class T>
inline payload_of<T>*& payload_in(record_of<T>* record) {
    return record->*T::payload_field;
}
template <class T>
inline const payload_of<T>* payload_in(const record_of<T>* record) {
    return record->*T::payload_field;
}

/// The key in the record, null when the record lacks the instance that holds it.
template <class T>
inline const key_cell<T>* key_in(const record_of<T>* record) {
    if constexpr (has_key_object<T>) {
        return record->*T::key_field;
    } else if constexpr (has_key_attribute<T>) {
        const payload_of<T>* payload = payload_in<T>(record);
        return payload == nullptr ? nullptr : &(payload->*T::key::member);
    } else {
        return payload_in<T>(record);
    }
}

/// The key as searches take it, in a key object.
template <class T>
inline const key_value<T>* key_in_object(const key_object<T>* object) {
    if constexpr (!has_key_attribute<T>) {
        return object;
    } else {
        if (object == nullptr) return nullptr;
        if constexpr (is_any_enumeration(T::key::type::category))
            return &(object->*T::key::member).value;
        else
            return &(object->*T::key::member);
    }
}

template <class Record>
inline e_avl_node* node_of(Record* record) {
    return record == nullptr ? nullptr : &record->loom_record.avl_node;
}
template <class T>
inline record_of<T>* record_of_node(e_avl_node* node) {
    if (node == nullptr) return nullptr;
    return reinterpret_cast<record_of<T>*>(reinterpret_cast<unsigned char*>(node) -
                                           offsetof(loom_table_record, avl_node));
}
template <class T>
inline const record_of<T>* record_of_node(const e_avl_node* node) {
    return record_of_node<T>(const_cast<e_avl_node*>(node));
}

/// The static record that a chain of calls gets when there is no memory.
template <class T>
struct sentinel_storage {
    static inline record_of<T> record;
};
template <class T>
inline record_of<T>* sentinel() {
    return &sentinel_storage<T>::record;
}

/// Entry of what works on a table: false when an earlier error stops it, or with error 2 when there is no table.
inline bool enter_table(const call& c, const loom_table* table) {
    if (!c.enter()) return false;
    if (table != nullptr) return true;
    c.fail(LOOM_ENOENT);
    return false;
}

inline u16 current_tenant() {
    u16 tenant = 0;
    mt_get_tenant_id(&tenant);
    return tenant;
}

constexpr u8 shadow_source = 255;
constexpr u8 default_source = 1;

// ---- Trace ---------------------------------------------------------------------------------------------------

using says = diag::table_says;

/// A table has the statements of all tables and those of its traits, in the order of the list.
template <class T>
consteval bool has_statement(const diag::statement& statement) {
    switch (static_cast<diag::table_trait>(statement.kinds)) {
    case diag::table_trait::any: return true;
    case diag::table_trait::key_object: return has_key_object<T>;
    default: return T::ordered;
    }
}
template <class T, says What, u32 Copy = 0, class... Argument>
inline void say(Argument... argument) {
    constexpr u32 slot = diag::slot_among(diag::table_statements, What, Copy, has_statement<T>);
    diag::emit_indexed<T, diag::table_statements, What, T::trace_base + slot>(argument...);
}
/// A fatal statement: traced at level 0, then the process ends.
template <class T, says What, u32 Copy = 0, class... Argument>
[[noreturn]] inline void die(Argument... argument) {
    say<T, What, Copy>(argument...);
    abort();
}

inline const char* error_text(u32 number) { return strerror(static_cast<int>(number)); }

// ---- Reports to the database layer ---------------------------------------------------------------------------

/// What a containment report is about.
enum class subject : u32 { table = 1, record = 2, field = 4 };

inline void report(const call& c, subject kind, const void* what, const void* parent) {
    if (c.contains()) loomdb_record_containment(c.handle, c.domain, static_cast<u32>(kind), what, parent, 1);
}
inline void mark_dirty(const call& c, const void* object) {
    if (c.reports_to_shared_database()) loomdb_plat_set_dirty(c.handle, c.domain, object);
}
inline void report_end(const call& c, const void* object) {
    if (c.reports_to_shared_database()) loomdb_plat_set_destroy(c.handle, c.domain, object);
}

/// Announces to the arena that `size` bytes at `address` are about to change, and marks `object` dirty
/// (null: not marked). A refusal ends the process.
template <class T, says Refused, u32 Copy>
inline void announce_to_arena(const call& c, u32 domain, const void* address, size_t size, const void* object) {
    const u32 accepted = arbor_set_range(c.handle->alloc_ctx, address, size, domain);
    if (object != nullptr) mark_dirty(c, object);
    if (accepted == 1) return;
    arbor_perror();
    die<T, Refused, Copy>();
}

/// Stores a link of the table list. Without an arena nothing is announced.
template <class T, says Refused, u32 Copy, class Value>
inline void store_link(const call& c, Value* cell, Value value, const void* object) {
    if (c.handle->alloc_ctx != nullptr)
        announce_to_arena<T, Refused, Copy>(c, c.domain, cell, sizeof(Value), object);
    *cell = value;
}

// ---- Type information and statistics -------------------------------------------------------------------------

/// The static record's address, or the database's copy of it.
template <class Bundle>
inline loom_type_info* resident_type_info(const call& c, loom_type_info* tinfo) {
    if (c.handle->db_kind == 0) return tinfo;
    return loom_type_info_ptr_get(c.handle, c.domain, tinfo, Bundle::typeinfo_initialize);
}

/// The one statistics block of a table or table record, its type information proved on the way.
template <class T, says Corrupted, says NoTable, says Beyond>
inline loom_variant_entry* statistics_of(const loom_type_info* tinfo) {
    if (tinfo == nullptr || tinfo->magic != LOOM_TYPE_INFO_MAGIC) die<T, Corrupted>();
    const loom_variant_table* variants = tinfo->variant_table;
    if (variants == nullptr) die<T, NoTable>();
    if (variants->n_variants < 0) say<T, Beyond>(0u, static_cast<u32>(variants->n_variants));
    return variants->entries;
}

/// Adds one: plainly on a manifested record, atomically on a static one, which threads share.
inline void count_one(const loom_type_info* tinfo, u64* counter) {
    if (tinfo->manifested_kind != 0)
        ++*counter;
    else
        __atomic_fetch_add(counter, 1, __ATOMIC_RELAXED);
}
inline void announce_and_count(const call& c, const loom_type_info* tinfo, u64* counter) {
    c.handle->counter_hook(c.handle->alloc_ctx, counter, 1, c.domain);
    count_one(tinfo, counter);
}

} // namespace trellis::table
