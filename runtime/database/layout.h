// What the runtime keeps inside a database besides the objects of bundles. All of it is reached from one block,
// the database root, and all of it is a storage format: a change needs a new arena_version.
#pragma once

#include "runtime/database/chain_table.h"

#include <loom/database.h>
#include <loom/oid.h>
#include <loom/type_description.h>

#include <cstring>

namespace loom {

inline u64 hash_of_bytes(const u8* bytes) {
    u64 value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}
inline u64 hash_of_address(const void* address) { return reinterpret_cast<std::uintptr_t>(address) >> 3; }

/// A manifested type-information record under its luid text, and what its objects look like.
struct type_node {
    type_node* next;
    loom_type_info* info;
    char luid_text[33];
    const loom_type_description* description; ///< null when the bundle has none

    static u64 hash(const type_node& node) { return hash_of_text(node.luid_text); }
    /// The text is the hexadecimal form of a digest: its first characters are as good as any hash.
    static u64 hash_of_text(const char* text) {
        return hash_of_bytes(reinterpret_cast<const u8*>(text)) * 31 +
               hash_of_bytes(reinterpret_cast<const u8*>(text) + 8);
    }
};
using type_table = chain_table<type_node, &type_node::next, &type_node::hash>;

/// Side data of an object: where its tracking area is.
struct tracking_node {
    tracking_node* next;
    const void* object;
    u32 offset;
    u32 reserved;

    static u64 hash(const tracking_node& node) { return hash_of_address(node.object); }
};
using tracking_table = chain_table<tracking_node, &tracking_node::next, &tracking_node::hash>;
} // namespace loom

/// An entry of the oid mapping. The id is the reference, most significant byte first, and the first half of the
/// database's identity.
struct loom_oid_mapping {
    loom_oid_mapping* next_by_reference;
    loom_oid_mapping* next_by_object;
    loom_oid_mapping* next_pending;
    void* object;
    loom::u64 reference;
    loom::u64 count;
    loom::u32 kind;
    loom::u32 domain;
    loom::u8 dynamic;
    loom::u8 destroy_pending;
    loom::u8 reserved[6];

    static loom::u64 hash_by_reference(const loom_oid_mapping& mapping) { return mapping.reference; }
    static loom::u64 hash_by_object(const loom_oid_mapping& mapping) {
        return loom::hash_of_address(mapping.object);
    }
};

namespace loom {
using reference_table =
    chain_table<loom_oid_mapping, &loom_oid_mapping::next_by_reference, &loom_oid_mapping::hash_by_reference>;
using object_table =
    chain_table<loom_oid_mapping, &loom_oid_mapping::next_by_object, &loom_oid_mapping::hash_by_object>;

/// One table in a TOC.
struct toc_entry {
    toc_entry* next;
    loom_table* table;
    u64 key_hash;
    u32 dynamic;
    u32 reserved;

    static u64 hash(const toc_entry& entry) { return entry.key_hash; }
};
using toc_table = chain_table<toc_entry, &toc_entry::next, &toc_entry::hash>;

/// Both entries of one table. One that is in use has an object, or a table.
struct table_entries {
    loom_oid_mapping mapping;
    toc_entry place;
};

/// The TOC of one domain.
struct toc {
    loom_toc_root root;
    u32 domain;
    toc* next;
    toc_table tables;
};

/// A stored location, shared by the records that have it.
struct location_node {
    location_node* next;
    u64 count;
    u64 text_hash;
    u32 length;
    u32 reserved; ///< the text follows, with a terminating zero

    static u64 hash(const location_node& node) { return node.text_hash; }
    const char* text() const { return reinterpret_cast<const char*>(this + 1); }
};
using location_table = chain_table<location_node, &location_node::next, &location_node::hash>;

/// Replication state of a table.
struct table_cursors {
    u64 write_place;
    u64 read_place;
    u32 enabled;
    u32 implicit_write;
};

/// Count of one tenant's records of one source in one table.
struct tenant_node {
    tenant_node* next;
    u16 tenant;
    u8 src;
    u8 reserved;
    u32 count;

    static u64 hash(const tenant_node& node) { return node.tenant; }
};
using tenant_table = chain_table<tenant_node, &tenant_node::next, &tenant_node::hash>;

/// What the database layer keeps in loom_table::database.
struct table_words {
    u64 marks; ///< table_out_of_toc and the others below
    table_cursors* cursors;
    tenant_table* tenants;
    loom_table* gc_next;
    u64 domain; ///< of the TOC that it was taken from
    u64 reserved;
};
static_assert(sizeof(table_words) == sizeof(loom_table::database));
inline constexpr u64 table_out_of_toc = 1;
inline constexpr u64 table_left_to_caller =
    2; ///< its free was put off since references remain; the caller repeats it
inline constexpr u64 table_not_all_counted = 4; ///< some of its tenants have no count for want of memory
inline table_words& words_of(loom_table* table) { return *reinterpret_cast<table_words*>(table->database); }

/// What it keeps in loom_table_record::database.
struct record_words {
    u64 enqueued; ///< place at which the write cursor took the record, 0: never
    u64 reserved[3];
};
static_assert(sizeof(record_words) == sizeof(loom_table_record::database));
inline record_words& words_of(loom_table_record* record) {
    return *reinterpret_cast<record_words*>(record->database);
}

/// Where everything else is found.
struct database_root {
    type_table types;
    tracking_table tracking;
    reference_table oids_by_reference;
    object_table oids_by_object;
    u64 next_reference;
    loom_oid_mapping* pending_objects;
    loom_pending_totals pending_totals;
    loom_table_list* tables;
    toc* tocs;
    loom_table* gc_first;
    location_table locations;
    u64 shared;
    table_entries* spare_entries; ///< room put by for the next table
};

} // namespace loom
