// Tables: keyed stores of records in database memory. Chief header of the folder; one header per theme stands
// beside it. What a record's payload and key are stands in instance/, how they travel in codec/; the tree, the
// table of contents and the replication cursors belong to the runtime. Called by the generated exports, one
// template per function.
//
// A generated model reads:
//
//     struct tbl_top_level_sing {                              // in namespace bundle_<bundle>::tables
//         using bundle = bundle_<bundle>::bundle;
//         using record = ::tbl_top_level_sing_table_record;    // C struct: loom_record, payload, key, sequence
//         using payload = types::rec_sing_type;                // facade of the payload
//         static constexpr auto payload_field = &record::rec_sing_type;
//         using key = trellis::table::attribute_key<trellis::types::u_int32, &::rec_sing_type::singleton_id>;
//         static constexpr char key_label[] = "singleton_id";  // name in print; empty for whole keys
//         static constexpr bool ordered = false;
//         static constexpr char name[] = "tbl_top_level_sing";
//         static constexpr int trace_unit = 4;
//         static constexpr u32 trace_base = 77;
//         static const u8* luid();                             // table_<table>_luid, 16 bytes
//         static const char* luid_text();
//         static loom_type_info* type_info();                  // of the table
//         static loom_type_info* record_type_info();
//
//         // The functions that others of the table call, by their exported names so that each call is counted.
//         static constexpr auto insert_internal = &::tbl_top_level_sing_insert_internal;
//         ...                                                  // see `workers` in schema/compiler/emit_table.cpp
//
//         // Weak: null while no loaded object defines it. Tested at each call.
//         static constexpr auto create_handler = &::<bundle>_tbl_top_level_sing_table_record_create_handler;
//         ...                                                  // modify, delete, create_dm, delete_dm, grouping,
//         free
//     };
//
// A table with a key object has `key = object_key<types::comp_key>` and `key_field = &record::comp_key`; a table
// whose payload is the key has `key = payload_key<types::compound_key>`; an ordered table adds
// `sequence = &::<payload>::reorder_seq_compact_no`, and its record the links `seq_next` and `seq_prev`.
//
// Threads: no function here takes a lock. The caller holds the database's write lock around everything that
// changes a table or record, and a read or write lock around reads.
#pragma once

#include "tables/callbacks.h"
#include "tables/free.h"
#include "tables/insert_delete.h"
#include "tables/open.h"
#include "tables/ordered.h"
#include "tables/record_codec.h"
#include "tables/records.h"
#include "tables/search.h"
#include "tables/sources.h"
#include "tables/walk.h"
