/* What generated object code asks of the runtime: errors, variants, type information, tracking offsets,
 * statistics, scratch memory, and the reports of containment. Object references stand in oid.h. Bundles call
 * it by name; applications have no need of it, runtimes implement it.
 *
 * Guarantees
 *   - Type information that is handed out stays where it is: a manifested record as long as its database
 *     (unless the section that made it is aborted), a static one as long as its bundle is loaded.
 *   - Adjusting an object's variant never lowers it, and never raises it beyond what its layout has room for,
 *     what the code at hand knows, or what the peer speaks.
 *   - Statistics of static records are exact with any number of threads.
 *
 * Caveats
 *   - Objects are not proved beyond their first word. What is no object, or was ended, is undefined where the
 *     function does not say 22.
 *   - A record of type information that was just made holds a pointer of this process until
 *     loom_update_variant_info has been called; nobody else may see it before.
 *   - Statistics of manifested records are plain increments: they are exact as far as writers follow one
 *     another, and an abort leaves them as they are.
 *   - The workspace is one per handle. Its bytes are gone with the next call that takes it, of clones for
 *     instance.
 *
 * Lifetime and ownership. Nothing here takes an object over, and nothing hands one over. Explanations are
 * copied. Blocks of loomlib_malloc belong to the caller and lie outside of any database.
 *
 * Threads and processes. A handle is used by one thread at a time. Functions without a handle (variants,
 * flags, type information of an object, luids, hashes) only read their arguments and may be called from any
 * thread. What stores into a database wants the section that the store would want.
 *
 * Fork. As for handles: a child opens its own. Functions without a handle go on working there.
 *
 * Signals. None of these may be called by a signal handler, but for SuperFastHash and the readers of an
 * object's header.
 *
 * Errors. `err` points at an error word; with an error in it functions do nothing. What fails sets it and,
 * where told, the handle's slot (loom_handle::last_error): 12 no memory, 22 no object, 43 out of reach for the
 * variant, 52 unknown to the peer. Reasons in words are at loom_error_text. */
#ifndef LOOM_INSTANCE_H
#define LOOM_INSTANCE_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A bundle's initialiser of manifested type information (`<bundle>_typeinfo_initialize`). */
typedef void (*loom_typeinfo_initialize_fn)(loom_handle* handle, uint32_t domain, uint32_t* err);

/** Writes `number` to the handle's error slot. */
void loom_store_err(loom_handle* handle, uint32_t number);
/** Keeps words, for people, about the failure `number` that the caller has just stored and traces nothing of; the
 * text is copied. A runtime need not have this function: bundles look for it and do without. */
void loom_explain_err(loom_handle* handle, uint32_t number, const char* text);
/** Clears the handle's error slot. */
void loom_clear_last_error(loom_handle* handle);
/** Reports what is out of reach for the instance's variant (43) or the peer (52): stores `number` in `*err` and
 *  in the error slot. */
void loom_store_epoch_err(loom_handle* handle, uint32_t number, uint32_t* err);

/** The variant of `tinfo`'s type in the peer domain, as a signed 8-bit value in the low byte; negative when the
 *  type is unknown there. Callers clamp it to the newest variant they know. */
int32_t loom_domain_lookup_variant(loom_handle* handle, loom_domain_state* state, const loom_type_info* tinfo,
                                   uint32_t* err);
/** Non-zero when the table exists in the peer domain. */
uint32_t loom_domain_lookup_table_ok(loom_handle* handle, loom_domain_state* state, const loom_type_info* tinfo,
                                     uint32_t* err);
/** Non-zero when the message exists in the peer domain. */
uint32_t loom_domain_lookup_message_ok(loom_handle* handle, loom_domain_state* state, const loom_type_info* tinfo,
                                       uint32_t* err);

/** The instance's variant as a signed 8-bit value; 0 for null. `is_record` and `is_enumeration` tell what the
 *  caller works on: 1,0 a record; 1,1 a record for a boolean, enumeration or flag attribute; 0,1 an enumeration.
 */
int8_t loom_get_instance_variant(const void* object, uint32_t is_record, uint32_t is_enumeration);
/** The instance's flags byte. */
uint8_t loom_get_instance_obj_flag(const void* object, uint32_t is_record, uint32_t is_enumeration);
/** The object's type information. The object must not be null. */
loom_type_info* loom_get_manifested_type_info(const void* object);
/** Address of the word that holds it. */
loom_type_info** loom_get_manifested_type_info_ptr_mem(void* object);
/** The manifested record of a static one, found by luid text in the database behind the handle; runs
 *  `initialize` when the database has none yet. */
loom_type_info* loom_type_info_ptr_get(loom_handle* handle, uint32_t domain, const loom_type_info* static_tinfo,
                                       loom_typeinfo_initialize_fn initialize);
/** Brings a manifested record's variant data in line with the static record's variant table. `created` is 1 for
 *  a record just made, which until then holds a pointer valid in this process only. */
void loom_update_variant_info(loom_handle* handle, uint32_t domain, loom_type_info* manifested,
                              const loom_type_info* static_tinfo, uint32_t created);
/** Copies the 16 bytes of the object's luid to `luid`; 22 in `*err` for null or an object without valid type
 *  information. */
void loom_get_luid(loom_handle* handle, uint32_t domain, const void* object, uint8_t* luid, uint32_t* err);
/** Brings a stored instance up to what the domain now resolves, within `newest` and the object's layout
 *  variant; never lowers it. `tinfo` is null for a null object. */
void loomlib_adjust_variant(loom_handle* handle, uint32_t domain, void* object, const loom_type_info* tinfo,
                            int32_t newest, uint32_t* err);

/** Offset of the tracking area of an object with OBJ_STTR_OFFSET, in bytes from its start (modulo 2^32). */
uint32_t loomlib_get_sttr_offset(loom_handle* handle, uint32_t domain, const void* object);
/** Records that offset and sets OBJ_STTR_OFFSET on the object. */
void loomlib_update_sttr_offset(loom_handle* handle, uint32_t domain, void* object, uint32_t offset);
/** Removes the object's entry of the side table; a missing one is no error. */
void loom_hd_mapping_destroy(loom_handle* handle, uint32_t domain, void* object, uint32_t* err);

/** Count one object made or ended: `statistics` is the address of the objects-created field of the instance's
 *  variant entry. Plain increments on a manifested record, atomic ones on a static record. */
void loomlib_type_stats_create_object(loom_handle* handle, uint32_t domain, loom_type_info* tinfo,
                                      uint64_t* statistics, uint32_t* err);
void loomlib_type_stats_destroy_object(loom_handle* handle, uint32_t domain, loom_type_info* tinfo,
                                       uint64_t* statistics, uint32_t* err);

/** Hands out the handle's scratch buffer; it is valid until the next call with this handle. */
void loomlib_get_handle_ws(loom_handle* handle, void** workspace, uint32_t* size);
/** 0 when the object may be referenced (`for_record` 0) or placed in a table record (`for_record` 1); otherwise
 *  an error number. Nested and embedded objects are refused. */
uint32_t loomlib_validate_object_flags(const void* object, uint32_t for_record, uint32_t strict);
/** Plain block allocation outside the database; `context` is 0. */
void* loomlib_malloc(uint32_t context, uint32_t domain, size_t size);
void loomlib_free(uint32_t context, uint32_t domain, void* block);

/** Labels the next allocation for a memory tracer; no other effect. */
void umber_set_callsite_tag(uint32_t tag);

/** SuperFastHash (Paul Hsieh's published function) of `length` bytes with the caller's seed as start value;
 *  a length of 0 gives the seed. */
uint32_t SuperFastHash(const void* block, uint32_t length, uint32_t seed);

/** Containment report: `value` was created or handed out under `parent` (or null). Made only while the handle's
 *  containment is non-zero. */
void loomdb_record_containment2(loom_handle* handle, uint32_t domain, const void* value, const void* parent,
                                uint32_t one);
/** The form of the table layer; kind 1 a table, 2 a table record, 4 a field of a table record. */
void loomdb_record_containment(loom_handle* handle, uint32_t domain, uint32_t kind, const void* subject,
                               const void* parent, uint32_t one);
/** Reports to the shared-database layer; made only with containment on, a real domain and db_kind 1. `arm` is 1
 *  for union arms and 0 for fields of table records. */
void loomdb_plat_set_dirty(loom_handle* handle, uint32_t domain, const void* object);
void loomdb_plat_set_destroy(loom_handle* handle, uint32_t domain, const void* object);
void loomdb_plat_set_detach(loom_handle* handle, uint32_t domain, const void* object, uint32_t arm);

#ifdef __cplusplus
}
#endif
#endif
