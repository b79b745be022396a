// The operations of tables. `$T` is the C name of the table's record, `$keyvalue` what a key pointer points at,
// `$keyobject` what pkey_create makes, `$keytype` the record with the key.
#include "schema/compiler/c_names.h"
#include "schema/compiler/operations.h"
#include "schema/compiler/table_keys.h"

namespace trellis::schema {
namespace {

constexpr operation of_table[] = {
    // Open
    {"table_open", "loom_table*", "$H, const char* name, uint32_t open_type, $e",
     "Opens the table under a name; a name with a slash is a full path. `open_type` 0 finds or creates, any other "
     "value only finds; null without an error when there is none. The table lives in the database until it is "
     "freed. In a shared database the caller holds the write lock to create."},
    {"table_open_by_id", "loom_table*", "$H, uint64_t id, uint32_t open_type, $e",
     "Opens the table under an id; see table_open."},
    {"table_open_auto_id", "loom_table*", "$H, uint32_t open_type, $e",
     "Creates a dynamic table under the next free id. It never finds an existing one."},
    {"table_open_by_ior_with_name", "loom_table*",
     "$H, const char* name, uint64_t ior, uint32_t open_type, uint32_t dynamic, $e",
     "As table_open; a table that is created gets the object reference `ior` (0: the runtime chooses)."},
    {"table_open_by_ior_with_id", "loom_table*",
     "$H, uint64_t id, uint64_t ior, uint32_t open_type, uint32_t dynamic, $e",
     "As table_open_by_id; a table that is created gets the object reference `ior` (0: the runtime chooses)."},
    {"table_open_cr", "loom_table*",
     "loom_handle* handle, uint32_t open_type, uint32_t mode, const char* name, uint64_t id",
     "Opens in a chain of calls: `mode` 0 by name, 1 by id, 2 under an automatic id."},
    {"table_open_internal", "loom_table*",
     "$H, const char* name, uint32_t open_type, uint64_t id, uint64_t ior, uint32_t dynamic, uint32_t mode, $e",
     "Worker of all ways to open."},
    {"get_luid", "void", "$H, const void* object, uint8_t* luid, $e",
     "Copies the 16 bytes of the object's luid to `luid`."},
    // Close and free
    {"table_close", "void", "$H, loom_table* table, $e",
     "Ends the use of a table, null included; opening takes no reference, so that nothing is released."},
    {"table_close_cr", "uint32_t", "loom_handle* handle, loom_table* table, uint32_t how",
     "In a chain of calls: `how` 1 frees the table, 2 requests its free, any other value does nothing. Returns "
     "the handle's last error."},
    {"table_free", "void", "$H, loom_table* table, $e",
     "Ends an empty table of a private database. 11: the table is still referenced; call again later."},
    {"request_table_free", "void", "$H, loom_table* table, $e",
     "Takes a table of a shared database out of its table of contents and ends it, now or by the garbage "
     "collector."},
    // Records
    {"create_record", "$T*", "$H, $e",
     "A new record of source 1 without payload and key, holding one reference. Clears `*err`. Without memory "
     "null, and 12 in `*err` unless an earlier number stands there."},
    {"create_record_w_src", "$T*", "$H, uint32_t src, $e",
     "As create_record, with a source from 0 to 255; 255 is a shadow record."},
    {"record_create_cr", "$T*", "loom_handle* handle, uint32_t with_fields",
     "A new record in a chain of calls, never null; non-zero `with_fields` also makes its payload and key."},
    {"create_record_internal", "$T*", "$H, uint32_t src, $e", "Worker of the functions that make a record."},
    {"record_add_ref", "uint32_t", "$H, $T* record, $e",
     "Takes a reference; returns the count before. Null record: 2."},
    {"destroy_record", "void", "$H, $T* record, $e",
     "Gives up one reference; the last one takes the record out of its table and ends it with payload and key."},
    {"record_destroy_cr", "void", "loom_handle* handle, $T* record", "The same in a chain of calls."},
    {"destroy_record_internal", "void", "$H, $T* record, $e", "Worker of the functions that give up a reference."},
    {"request_record_destroy", "void", "$H, loom_table* table, $T* record, $e",
     "Marks a record of a replicated table for destruction by the database. 22: the table is null or not "
     "replicated, or the record is null."},
    {"request_record_destroy_cr", "uint32_t", "loom_handle* handle, loom_table* table, $T* record",
     "The same in a chain of calls; returns the handle's last error."},
    {"pkey_create", "$keyobject*", "$H",
     "A new key object: the key, or an empty payload in which the caller sets the key. Null: no memory."},
    {"pkey_destroy", "void", "$H, $keyobject* key", "Ends a key object; null is allowed."},
    // Insert and delete
    {"insert", "void", "$H, loom_table* table, $T* record, $e",
     "Puts the record into the table, which takes no reference. 17: a record of equal tenant, key and source is "
     "there already, or the record is null, which is seen before `*err` and the table are looked at."},
    {"pkey_insert", "void", "$H, loom_table* table, $T* record, $e", "As insert, and marks the record."},
    {"insert_cr", "uint32_t", "loom_handle* handle, loom_table* table, $T* record, uint32_t pkey",
     "In a chain of calls; non-zero `pkey` is pkey_insert. Returns the handle's last error."},
    {"insert_internal", "void", "$H, loom_table* table, $T* record, uint32_t pkey, $e", "Worker of the inserts."},
    {"delete", "void", "$H, loom_table* table, $T* record, $e",
     "Takes the record out of the table; it lives on. 2: it is not there. 22: the table is replicated."},
    {"pkey_delete", "void", "$H, loom_table* table, $T* record, $e",
     "Marks the record, which stays in the table."},
    {"delete_cr", "uint32_t", "loom_handle* handle, loom_table* table, $T* record, uint32_t destroy",
     "In a chain of calls; non-zero `destroy` then gives up one reference. Returns the handle's last error."},
    {"delete_internal", "void", "$H, loom_table* table, $T* record, uint32_t pkey, $e", "Worker of the deletes."},
    // Count
    {"table_get_count", "uint32_t", "$H, loom_table* table",
     "Records of the current tenant; of all sources and tenants for the default tenant. A null table has 0."},
    {"table_get_count_cr", "uint32_t", "loom_handle* handle, loom_table* table", "The same in a chain of calls."},
    {"table_get_count_by_src", "uint32_t", "$H, loom_table* table, uint32_t src",
     "Records of one source under the current tenant. The default tenant counts shadow records (255) only. A null "
     "table has 0."},
    // Search and walk by key objects; in part the names under which a function record reaches the walks
    {"search", "$T*", "$H, loom_table* table, const $keyobject* key, uint32_t nearest, $e",
     "Search by a key object; non-zero `nearest` goes on to the next record of source 1."},
    {"search_w_src", "$T*", "$H, loom_table* table, const $keyobject* key, uint32_t nearest, uint32_t src, $e",
     "Search by a key object and source."},
    {"pkey_get_next", "$T*", "$H, loom_table* table, $T* record, $e", "The next record of source 1, or null.",
     "keyed_get_next"},
    {"pkey_get_prev", "$T*", "$H, loom_table* table, $T* record, $e", "The previous record of source 1, or null.",
     "keyed_get_prev"},
    {"pkey_get_next_by_src", "$T*", "$H, loom_table* table, $T* record, uint32_t src, $e",
     "The next record of exactly this source, or null.", "keyed_get_next_by_src"},
    {"pkey_get_first", "$T*", "$H, loom_table* table, $e", "The first record of source 1, or null.",
     "keyed_get_first"},
    {"pkey_get_last", "$T*", "$H, loom_table* table, $e", "The last record of source 1, or null.",
     "keyed_get_last"},
    {"pkey_get_first_by_src", "$T*", "$H, loom_table* table, uint32_t src, $e",
     "The first record of exactly this source, or null.", "keyed_get_first_by_src"},
    {"pkey_get_first_ignore_src", "$T*", "$H, loom_table* table, $e",
     "The first record whatever its source, or null.", "keyed_get_first_ignore_src"},
    {"get_next_by_key", "$T*", "$H, loom_table* table, const $keyobject* key, $e",
     "As the keyed form, by a key object."},
    {"get_prev_by_key", "$T*", "$H, loom_table* table, const $keyobject* key, $e",
     "As the keyed form, by a key object."},
    {"get_next_by_key_w_src", "$T*", "$H, loom_table* table, const $keyobject* key, uint32_t src, $e",
     "As the keyed form, by a key object."},
    {"pkey_get_sub_next", "$T*", "$H, loom_table* table, $T* record, $e",
     "The next record with the same key, or null.", "keyed_get_sub_next"},
    {"pkey_get_next_ignore_src", "$T*", "$H, loom_table* table, $T* record, $e",
     "The next record whatever its source, or null.", "keyed_get_next_ignore_src"},
    {"pkey_get_shadow", "$T*", "$H, loom_table* table, $T* record, $e",
     "The shadow record of the record's key, or null.", "keyed_get_shadow"},
    {"record_walk_cr", "void",
     "loom_handle* handle, loom_table* table, uint32_t key_index, $table_record_visitor callback, void* user",
     "Walk in a chain of calls; the one key has index 0."},
    // Ends, for the functions by key
    {"get_first_internal", "$T*",
     "$H, loom_table* table, uint32_t src, uint32_t match_src, uint32_t skip_pending, $e",
     "Worker of the functions that take the first record."},
    {"get_last_internal", "$T*",
     "$H, loom_table* table, uint32_t src, uint32_t match_src, uint32_t skip_pending, $e",
     "Worker of the functions that take the last record."},
    // Callbacks
    {"table_record_create_cb", "void", "$H, uint64_t a, uint64_t b, $e",
     "Hands a creation to the application's handler, if it defines one."},
    {"table_record_modify_cb", "void", "$H, uint64_t a, uint64_t b, $e",
     "Hands a change to the application's handler, if it defines one."},
    {"table_record_delete_cb", "void", "$H, uint64_t a, uint64_t b, $e",
     "Hands a deletion to the application's handler, if it defines one."},
    {"table_record_create_dm_cb", "void", "$H, uint64_t a, $e",
     "Hands a DM creation to its handler, else to the plain one."},
    {"table_record_delete_dm_cb", "void", "$H, uint64_t a, $e",
     "Hands a DM deletion to its handler, else to the plain one."},
    {"table_record_grouping_cb", "void", "$H, uint64_t a, $e, uint64_t b, uint64_t c, uint32_t d, uint64_t e",
     "Hands a grouping event to the application's handler, if it defines one."},
    {"table_record_free_cb", "void", "$H, uint64_t a, uint32_t d, $e, uint64_t b",
     "Hands a free event to the application's handler, if it defines one."},
    // Binary, text and XML form
    {"table_record_len", "uint32_t", "$H, const $T* record",
     "Bytes of the record's binary form: header 27, luid 16, payload, key."},
    {"record_len_cr", "uint32_t", "loom_handle* handle, const $T* record",
     "The same in a chain of calls; 0 with an error pending."},
    {"table_record_marshal", "uint32_t", "$H, void* buffer, const $T* record, int32_t length, $e",
     "Writes the binary form into `length` bytes; returns the bytes written. The buffer has one byte more than "
     "`length`, which may be stored to. 90: no room. 52: the peer does not know the table. 2: payload or key is "
     "missing."},
    {"record_marshal_cr", "int32_t", "loom_handle* handle, const $T* record, void* buffer, int32_t length",
     "The same in a chain of calls; -1 on an error."},
    {"table_record_marshal_internal", "uint32_t", "$H, void* buffer, const $T* record, int32_t length, $e",
     "Worker of both."},
    {"table_record_unmarshal", "uint32_t",
     "$H, $T** record, const void* buffer, int32_t length, uint32_t existing, $e",
     "Reads a binary form into a new record, or with non-zero `existing` into `*record`; returns the bytes read. "
     "After an error `*record` may hold a partly filled record, which the caller ends."},
    {"table_pkey_len", "uint32_t", "$H, const $T* record", "Bytes of the key's binary form."},
    {"table_pkey_marshal", "uint32_t", "$H, void* buffer, const $T* record, int32_t length, $e",
     "Writes the key's binary form, without a frame; returns the bytes written. 90: no room."},
    {"table_pkey_unmarshal", "uint32_t", "$H, $keyobject** key, const void* buffer, int32_t length, $e",
     "Reads a key's binary form into a new key object; returns the bytes read. 14: `key` is null."},
    {"pkey_print", "int32_t", "$H, loom_table* table, const $T* record, char* buffer, int32_t length, $e",
     "Prints the record's key; returns the characters written. 22: handle, table or record is null."},
    {"table_record_print", "int32_t", "$H, char* buffer, const $T* record, int32_t length, $e",
     "Prints the record; returns the characters written."},
    {"record_print_cr", "int32_t", "loom_handle* handle, const $T* record, char* buffer, int32_t length",
     "The same in a chain of calls; -1 on an error."},
    {"table_record_print_internal", "int32_t", "$H, char* buffer, const $T* record, int32_t length, $e",
     "Worker of both."},
    {"table_record_to_xml", "uint32_t", "$H, char* buffer, const $T* record, int32_t length, $e",
     "Writes the record as an XML element; returns the characters written."},
    {"record_toxml_cr", "int32_t", "loom_handle* handle, const $T* record, char* buffer, int32_t length",
     "The same in a chain of calls; -1 on an error."},
    {"table_record_from_xml", "$T*",
     "$H, const loom_xml_document* document, $e, char* message, uint32_t message_length",
     "A new record from the first payload and key elements of the document, or null. Missing elements leave "
     "defaults. An error that is pending in `*err` is cleared, as by create_record. A text that is no value "
     "writes its path into `message`, if there is one."},
};
constexpr operation of_key_path[] = {
    // Search
    {"search", "$T*", "$H, loom_table* table, const $keyvalue* key, $e",
     "The record with this key and source 1, or null without an error. Null table or key: 2."},
    {"search_w_src", "$T*", "$H, loom_table* table, const $keyvalue* key, uint32_t src, $e",
     "The record with this key and source; source 0 means 1."},
    {"search_nearest", "$T*", "$H, loom_table* table, const $keyvalue* key, $e",
     "The record with this key, else the next one of source 1."},
    {"search_not_pending_destroy", "$T*",
     "$H, loom_table* table, const $keyvalue* key, uint32_t src, uint32_t nearest, $e",
     "A search that passes over records that wait for their destruction."},
    {"search_internal", "$T*",
     "$H, loom_table* table, const $keyvalue* key, uint32_t nearest, uint32_t forward, uint32_t src, uint32_t "
     "walk_src, uint32_t skip_pending, uint32_t strict, $e",
     "Worker of the searches."},
    // Walk from a record
    {"get_next", "$T*", "$H, loom_table* table, $T* record, $e",
     "The next record of source 1 in key order, or null at the end of the tenant's records."},
    {"get_prev", "$T*", "$H, loom_table* table, $T* record, $e", "The previous record of source 1, or null."},
    {"get_next_by_src", "$T*", "$H, loom_table* table, $T* record, uint32_t src, $e",
     "The next record of exactly this source, or null."},
    {"get_next_not_pending_destroy", "$T*", "$H, loom_table* table, $T* record, uint32_t src, $e",
     "The next record of this source that does not wait for its destruction, or null."},
    {"get_prev_not_pending_destroy", "$T*", "$H, loom_table* table, $T* record, uint32_t src, $e",
     "The previous record of this source that does not wait for its destruction, or null."},
    {"get_next_internal", "$T*",
     "$H, loom_table* table, $T* from, uint32_t src, uint32_t match_src, uint32_t skip_pending, uint32_t "
     "same_key, $e",
     "Worker of the walks forward."},
    {"get_prev_internal", "$T*",
     "$H, loom_table* table, $T* from, uint32_t src, uint32_t match_src, uint32_t skip_pending, uint32_t "
     "same_key, $e",
     "Worker of the walks backward."},
    // The ends
    {"get_first", "$T*", "$H, loom_table* table, $e",
     "The first record of source 1 of the current tenant, or null."},
    {"get_last", "$T*", "$H, loom_table* table, $e",
     "The last record of source 1 of the current tenant, or null."},
    {"get_first_by_src", "$T*", "$H, loom_table* table, uint32_t src, $e",
     "The first record of exactly this source, or null."},
    {"get_first_ignore_src", "$T*", "$H, loom_table* table, $e",
     "The first record of the tenant whatever its source, or null."},
    {"get_first_not_pending_destroy", "$T*", "$H, loom_table* table, uint32_t src, $e",
     "The first record of this source that does not wait for its destruction; source 0 takes all but shadows."},
    {"get_last_not_pending_destroy", "$T*", "$H, loom_table* table, uint32_t src, $e",
     "The last record of exactly this source that does not wait for its destruction."},
    // Past a key
    {"get_next_by_key", "$T*", "$H, loom_table* table, const $keyvalue* key, $e",
     "The record of source 1 behind this key, or null."},
    {"get_prev_by_key", "$T*", "$H, loom_table* table, const $keyvalue* key, $e",
     "The record of source 1 before this key, or null."},
    {"get_next_by_key_w_src", "$T*", "$H, loom_table* table, const $keyvalue* key, uint32_t src, $e",
     "The record of this source behind this key, or null."},
    {"get_next_by_key_not_pending_destroy", "$T*",
     "$H, loom_table* table, const $keyvalue* key, uint32_t src, uint32_t walk_src, $e",
     "The record behind this key that does not wait for its destruction; the key is sought with `src`, the walk "
     "takes `walk_src`."},
    {"get_prev_by_key_not_pending_destroy", "$T*",
     "$H, loom_table* table, const $keyvalue* key, uint32_t src, uint32_t walk_src, $e",
     "The record before this key that does not wait for its destruction."},
    // Records of one key
    {"get_sub_next", "$T*", "$H, loom_table* table, $T* record, $e",
     "The next record with the same key, of the next higher source, or null."},
    {"get_next_ignore_src", "$T*", "$H, loom_table* table, $T* record, $e",
     "The next record of the tenant whatever its source, shadows included, or null."},
    {"get_shadow", "$T*", "$H, loom_table* table, $T* record, $e",
     "The shadow record (source 255) of the record's key, or null. A shadow is its own, and no record has none, "
     "whatever `*err` and the table are."},
    // The tree
    {"walk", "void", "loom_table* table, $table_record_visitor callback, void* user, $e",
     "Shows every record of all tenants to `callback`, until it returns non-zero. Errors stand in `*err` alone."},
    {"avl_internal_walk", "int32_t", "e_avl_node* node, void* context",
     "What walk gives to the tree; `context` is walk's own."},
    {"avl_compare", "int32_t", "const e_avl_node* a, const e_avl_node* b",
     "Orders two records by tenant, key and source: 0 before, 1 equal, 2 after. Null sorts first."},
    {"unordered_traversal", "void", "void", "Does nothing: tables are always walked in order."},
};
/// Joined to the path by one underscore, whatever the key.
constexpr operation of_joined_key_path[] = {
    {"search_cr", "$T*",
     "loom_handle* handle, loom_table* table, const $keyvalue* key, uint32_t src, uint32_t flags",
     "Search in a chain of calls; flags 1 nearest, 2 with records that wait for their destruction, 4 strict."},
    {"get_cr", "$T*",
     "loom_handle* handle, loom_table* table, uint32_t op, $T* record, uint32_t src, uint32_t flags",
     "Walks in a chain of calls: `op` 0 first, 1 last, 2 previous, 3 next; flags 1 any source, 2 with records "
     "that wait for their destruction."},
};
constexpr operation of_payload[] = {
    {"get_field", "struct $payload*", "$H, $T* record", "The record's payload, or null; the record keeps it."},
    {"get_field_detach", "struct $payload*", "$H, $T* record",
     "The record's payload, which now belongs to the caller."},
    {"set_field", "void", "$H, $T* record, struct $payload* value",
     "Gives the record a payload. An earlier one is overwritten and not ended: detach it first. Nested and "
     "embedded objects are refused; the number is stored in the handle."},
    {"free_and_set_field", "void", "$H, $T* record, struct $payload* value",
     "Ends the record's payload and gives it another; see set_field."},
};
constexpr operation of_key_object[] = {
    {"get_field", "struct $keytype*", "$H, $T* record", "The record's key, or null; the record keeps it."},
    {"get_field_detach", "struct $keytype*", "$H, $T* record",
     "The record's key, which now belongs to the caller. The record must not be in a table."},
    {"set_field", "void", "$H, $T* record, struct $keytype* value",
     "Gives the record a key. An earlier one is overwritten and not ended: detach it first."},
    {"free_and_set_field", "void", "$H, $T* record, struct $keytype* value",
     "Ends the record's key and gives it another."},
};
constexpr operation of_table_with_key_object[] = {
    {"table_record_to_xml_internal", "uint32_t", "$H, char* buffer, const $T* record, int32_t length, $e",
     "Worker of table_record_to_xml and record_toxml_cr."},
};
constexpr operation of_ordered_table[] = {
    {"seq_compact_batch_start", "void", "$H, loom_table* table, $e",
     "Suspends the renumbering of the sequence. 22: it is suspended already."},
    {"seq_compact_batch_end", "void", "$H, loom_table* table, $e",
     "Puts the sequence numbers right and goes back to renumbering. 22: it is not suspended."},
};

} // namespace

std::vector<operation_group> operations_of(const table& type) {
    const std::string prefix = type.name + "_";
    const std::string payload = name_of(type.payload);
    const std::string holder = name_of(key_holder(type));
    const substitutions with = {{"$T", "struct " + prefix + "table_record"},
                                {"$table", type.name},
                                {"$payload", payload},
                                {"$keytype", holder},
                                {"$keyvalue", key_value(type)},
                                {"$keyobject", "struct " + holder}};
    std::vector<operation_group> groups;
    const auto add = [&](const std::string& behind, std::span<const operation> table, const char* worker) {
        groups.push_back({"table", &type.where, "", behind, table, std::string("table::") + worker,
                          "tables::" + type.name, with});
    };
    add(prefix, of_table, "");
    add(prefix + key_path(type), of_key_path, "keyed_");
    add(prefix + joined_key_path(type), of_joined_key_path, "keyed_");
    if (type.payload != nullptr) add(prefix + payload + "_", of_payload, "payload_");
    if (type.key == key_kind::object) {
        if (type.key_record != nullptr) add(prefix + holder + "_", of_key_object, "key_");
        add(prefix, of_table_with_key_object, "");
    }
    if (type.ordered) add(prefix, of_ordered_table, "");
    return groups;
}

} // namespace trellis::schema
