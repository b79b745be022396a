/* Object references: the oid mapping with its reference counts, and the value operations of an oid. */
#ifndef LOOM_OID_H
#define LOOM_OID_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

/** An entry of the oid mapping; its form is the runtime's own. */
typedef struct loom_oid_mapping loom_oid_mapping;

/** Builds the oid value of `target`; `kind` 2 says that it is a table. `counted` 1 takes a reference on the
 *  target's mapping. LOOM_OID_RAW_TARGET gives an oid of no object. */
void loom_handle_to_oid(loom_oid* out, loom_handle* handle, uint32_t domain, void* target, uint32_t kind,
                        uint32_t counted, uint32_t* err);
/** The object behind an oid value, or null. */
void* loom_oid_to_handle(loom_handle* handle, uint32_t domain, const loom_oid* oid, uint32_t* err);
/** Non-zero if the 16-byte id is all zero. */
uint32_t loom_oid_id_is_zero(const uint8_t* id);
/** Gives an object (kind 2: a table) an oid; `ior` is the reference wanted, 0 lets the runtime choose. Sets
 *  OBJ_OID_MAPPED on objects with flags. 0 on failure. */
uint64_t loom_oid_mapping_create(loom_handle* handle, uint32_t domain, void* object, uint32_t kind,
                                 uint32_t dynamic, uint64_t ior, uint32_t* err);
/** Asks to remove an object's mapping: non-zero when the mapping is gone, 0 when references remain. With the last
 * one the runtime then destroys the object by itself; of tables it ends only those that wait for the garbage
 * collector, and whoever frees any other asks again later. */
uint32_t loom_request_oid_mapping_destroy(loom_handle* handle, uint32_t domain, void* object, uint32_t* err);
/** Finds the mapping of an oid value, null if there is none. */
loom_oid_mapping* loomlib_oid_id_mapping_get(loom_handle* handle, uint32_t domain, const loom_oid* oid,
                                             uint32_t* err);
/** Drops (`up` 0) or takes (`up` 1) one reference of a mapping. */
void loomlib_update_oid_ref_count(loom_handle* handle, uint32_t domain, loom_oid_mapping* mapping, uint32_t up,
                                  uint32_t* err);
/** The same for a reference given as an object. */
void loomlib_lookup_and_update_oid_ref_count(loom_handle* handle, uint32_t domain, void* reference, uint32_t up,
                                             uint32_t* err);
/** Lets go of what an oid attribute holds; an empty one is no error. The 40 bytes are left as they are. */
void loomlib_oid_release_internal(loom_handle* handle, uint32_t domain, loom_oid* oid, uint32_t* err);
/** Print id and source as text into a buffer of `size` bytes (33 suffices). Return the characters written. */
int32_t loomlib_oid_id_print(loom_handle* handle, uint32_t domain, const uint8_t* id, char* buffer, uint32_t size,
                             uint32_t* err);
int32_t loomlib_oid_src_print(loom_handle* handle, uint32_t domain, const uint8_t* source, char* buffer,
                              uint32_t size, uint32_t* err);

/** Value operations of an oid, with the arguments and results of any built-in value (values.h). 40 wire bytes. */
uint32_t loomlib_oid_len(loom_handle* handle, uint32_t domain, const loom_oid* oid);
uint32_t loomlib_oid_marshal(loom_handle* handle, uint32_t domain, void* buffer, const loom_oid* oid,
                             int32_t length, uint32_t* err);
uint32_t loomlib_oid_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer, loom_oid* oid,
                               int32_t length, uint32_t existing, uint32_t* err);
int32_t loomlib_oid_compare(const loom_oid* a, const loom_oid* b);
int32_t loom_oid_print(loom_handle* handle, uint32_t domain, char* buffer, int32_t depth, const char* name,
                       const loom_oid* oid, int32_t length, uint32_t* err);

#ifdef __cplusplus
}
#endif
#endif
