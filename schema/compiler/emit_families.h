// The emitters of the families. Each one adds its files to the emission's tree and returns what goes into the
// source units; which units there are is decided in emit_bundle.cpp.
#pragma once

#include "schema/compiler/emit_support.h"

namespace trellis::schema {

/// Public header, facade and model of a type, and its exports.
type_text emit_record(emission& run, const record& type);
type_text emit_enumeration(emission& run, const enumeration& type);
type_text emit_flag_set(emission& run, const flag_set& type);
/// Facade of an enumeration that another bundle owns; no exports.
void emit_imported_enumeration(emission& run, const import& from, const enumeration& type);

/// Public header (tables: struct of the table record's accessors, prototypes), model in
/// `src/models/<name>.h` and exports. Luid, luid text, name and type information are emitted by
/// emit_type_information, function records by emit_registry.
type_text emit_table(emission& run, const table& type);
type_text emit_message(emission& run, const message& type);

/// `src/type_information.cpp`: type-information records, variant tables, the list of all records, and the
/// exported names and luids of tables and messages.
void emit_type_information(emission& run);
/// `src/bundle.h`, `src/frame.cpp`, `src/counters.S`: module node, handler chain, trace module, call counters.
void emit_frame(emission& run);
/// `src/registry.cpp`, `src/function_records.S`: function records in registry order, lookup by luid.
void emit_registry(emission& run);
/// `src/trace_store.S`: the sections of the trace units, the compressed texts, the decoder's bytes.
void emit_trace_store(emission& run);
/// `src/manifest.S`: the list of all types with their hashes.
void emit_manifest(emission& run);
/// `src/type_description.S`: what objects of all types look like.
void emit_type_description(emission& run);

} // namespace trellis::schema
