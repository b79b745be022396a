// What texts of calls and tests say of the small bundle's tables: records made in one call, dumps of what a table
// holds, and runtime operations that fail on demand.
#pragma once

#include "tests/support/test_handle.h"

#include <table_forms/table_forms.h>

extern "C" {
/// Names the table's fields `label.field` in logs from now on, and the whole `label`.
void name_table(loom_handle* handle, uint32_t domain, loom_table* table, const char* label);
/// A record of number_tbl with payload, which is named "<id>:<source>", and one that is in the table.
number_tbl_table_record* make_number(loom_handle* handle, uint32_t domain, uint32_t id, uint32_t src);
number_tbl_table_record* insert_number(loom_handle* handle, uint32_t domain, loom_table* table, uint32_t id,
                                       uint32_t src, uint32_t* err);
/// A record of place_tbl with payload and key, which is named by its key.
place_tbl_table_record* make_place(loom_handle* handle, uint32_t domain, const char* name, uint32_t position,
                                   uint32_t src);
place_tbl_table_record* insert_place(loom_handle* handle, uint32_t domain, loom_table* table, const char* name,
                                     uint32_t position, uint32_t src, uint32_t* err);
/// "1:1 3:2": the records of a number_tbl in the order of the tree.
const char* records_of(loom_handle* handle, uint32_t domain, loom_table* numbers);
/// "a=1 b=2 | 2": the ring of a place_tbl in order with its numbers, and seq_count.
const char* ring_of(loom_handle* handle, uint32_t domain, const loom_table* places);
/// Where ids of number_tbl come from; null before the first.
loom_table_id_root* id_root(loom_handle* handle, uint32_t domain);
uint32_t count_tables(loom_handle* handle, uint32_t domain);
/// Opens a number_tbl with a name of that length, or a path of that length behind "a/".
loom_table* open_long(loom_handle* handle, uint32_t domain, uint32_t length, uint32_t is_path, uint32_t* err);
uint64_t id_in_another_arena(loom_handle* handle, uint32_t domain, uint32_t* err);
/// From now on the operation of that name fails with the number instead of doing its work. For
/// `loom_request_oid_mapping_destroy` the number 0 answers "not yet", for `arbor_set_key` and
/// `loom_oid_mapping_create` any number is a refusal.
void let_fail(loom_handle* handle, uint32_t domain, const char* operation, uint32_t number);
void let_work(loom_handle* handle, uint32_t domain, const char* operation);
/// From now on the process takes the database for a shared one whose write lock is held or not.
void count_as_shared(loom_handle* handle, uint32_t domain, uint32_t write_locked);
/// How many rooms are too small for a record, all of which must fail with 90 and keep what lies behind them,
/// without the header; and how many lengths of its bytes are too short.
uint32_t every_room(loom_handle* handle, uint32_t domain, const pair_tbl_table_record* record, uint32_t* err);
uint32_t every_cut(loom_handle* handle, uint32_t domain, const void* wire, uint32_t* err);
uint32_t every_message_room(loom_handle* handle, uint32_t domain, note_action_message* message, uint32_t* err);
uint32_t every_message_cut(loom_handle* handle, uint32_t domain, const void* wire, uint32_t* err);
/// Prints what a stream holds and returns how much that is.
uint64_t recorded(loom_handle* handle, uint32_t domain, void* stream);
/// Visitors of number_tbl that log whom they see; `user` is the handle. The second one ends behind record 2.
int32_t visit(number_tbl_table_record* record, void* handle);
int32_t visit_two(number_tbl_table_record* record, void* handle);
/// Puts in place a side table of objects, or takes it away again; one that is there stays.
void exchange_map(loom_handle* handle, uint32_t domain, void* map);
/// Switches of the handle.
void silence_duplicates(loom_handle* handle, uint32_t domain, uint32_t silent);
void tag_headers(loom_handle* handle, uint32_t domain, uint32_t tag);
void activate_bundle(loom_handle* handle, uint32_t domain, uint32_t active);
void collect_garbage(loom_handle* handle, uint32_t domain, uint32_t collecting);
void validate_garbage(loom_handle* handle, uint32_t domain, uint32_t validating);
}
