/* Direct forms: what a bundle may do by itself instead of calling the runtime. A call for every field and every
 * frame byte costs more than the field, so a runtime whose operations listed here do no more than this header
 * tells may say so, by exporting loom_get_direct_forms. A bundle then does their common case in place and calls
 * them in every other case, so that errors are made and stored in one place.
 *
 * The common case, and what is done in it:
 *
 *   loom_clear_last_error              last_error of the handle becomes 0
 *   loom_get_instance_variant          of an object that is there: its variant byte
 *   loom_get_instance_obj_flag         of an object that is there: its flags byte
 *   loom_get_manifested_type_info      the object's type-information word
 *   loom_get_manifested_type_info_ptr_mem   its address
 *   loom_domain_lookup_variant         without a peer (domain_state.peer null): the newest variant of the record's
 *                                      table, 0 without one
 *   loomlib_adjust_variant             variant not below the newest of the caller's and not below the object's
 *                                      layout: nothing
 *   loomlib_type_stats_create_object,
 *   loomlib_type_stats_destroy_object  the counter goes up by one: plainly on a manifested record or in a process
 *                                      with one thread, atomically otherwise
 *   spoor_module_init_fn               of a module that has its number: nothing, result 0
 *   _loom_instance_variant_marshal, _loom_instance_obj_flag_marshal, _loom_variant_jump_marshal,
 *   _loom_list_len_marshal             with room: the bytes, most significant first, whatever the error word says
 *   their _unmarshal forms             error word clear and enough bytes: the value, most significant byte first
 *
 *   <scalar>_len                       the size of the C type
 *   <scalar>_marshal                   error word clear, room, value there: its bytes, most significant first
 *   <scalar>_unmarshal                 error word clear, enough bytes: the value is stored
 *   <octets>_len, _marshal, _unmarshal the same for addresses that are their octets: their bytes as in memory
 *   <text>_len, <text>_marshal         error word clear, room, value there: its length in four bytes, most
 *                                      significant first, and its bytes
 *   <text>_unmarshal                   error word clear, enough bytes and more than none: a block of the length is
 *                                      filled, a value without a block gets one from the handle's allocator, in
 *                                      texts with a zero behind the last character; error 12 when there is none
 *
 *   <scalar>_get, <value>_get          the value's address
 *   <scalar>_get_value                 error word clear, value there: the value
 *   <scalar>_set, <scalar>_set_value   error word clear, values there: the value is stored, as its own owner
 *   <value>_initialize, <value>_set_instance_embedded   nothing; initialize returns 0
 *   <value>_get_oid_count              0
 *   <value>_destroy_internal           release 0, of a text without a block or of an address or time that lies
 *                                      whole in its place: nothing
 *
 * Stores are announced to the write hook unless it is the one below, counters to the counter hook likewise.
 *
 * Without that function a bundle calls every operation; so it does when a name of the list resolves, in its
 * process, to something outside the runtime's image, as a library that traces calls would arrange it. */
#ifndef LOOM_DIRECT_H
#define LOOM_DIRECT_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The list above, as it stands in this header. */
#define LOOM_DIRECT_FORMS_REVISION 2u

/** What a runtime says of its direct forms. */
typedef struct loom_direct_forms {
    uint32_t revision;       /**< LOOM_DIRECT_FORMS_REVISION; a bundle takes no other */
    uint32_t reserved;       /**< 0 */
    const void* image_begin; /**< the runtime's image in memory: its operations lie at or behind this address */
    const void* image_end;   /**< and in front of this one */
    /** The write hook that a handle has as long as nobody follows its stores: they need not be announced then. A
     *  handle's hook may change with every operation of the runtime. Null: there is none. */
    void (*unfollowed_write_hook)(loom_handle* handle, const void* address, size_t length, uint32_t domain,
                                  const void* owner);
    /** The same for counters of objects. */
    void (*unfollowed_counter_hook)(void* context, const void* address, uint32_t count, uint32_t domain);
} loom_direct_forms;

/** The runtime's offer, valid as long as the runtime is loaded; any thread may ask. A runtime need not have this
 *  function. */
const loom_direct_forms* loom_get_direct_forms(void);

/* clang-format off */
/** The scalars of the list: each has the operations of LOOM_DIRECT_SCALAR_OPERATIONS. */
#define LOOM_DIRECT_SCALARS(X)                                                                                    \
    X(u_int8) X(u_int16) X(u_int32) X(u_int64) X(int8) X(int16) X(int32) X(int64)                                 \
    X(char) X(double) X(float) X(loom_boolean)
/** The object and opaque values: each has the operations of LOOM_DIRECT_VALUE_OPERATIONS. */
#define LOOM_DIRECT_VALUES(X)                                                                                     \
    X(ip_address) X(ip_prefix) X(ipv4_addr) X(ipv6_addr) X(loom_mac_addr)                                         \
    X(calendar_time) X(timestamp) X(loom_vstring) X(nexa_bytestr) X(loom_phys_addr)                               \
    X(loom_aes_vstring) X(loom_aes_password_vstring) X(loom_username_vstring)
/** Those of them that are nothing but their octets, and those that are a counted text. */
#define LOOM_DIRECT_OCTETS(X) X(ipv4_addr) X(ipv6_addr) X(loom_mac_addr)
#define LOOM_DIRECT_TEXTS(X)                                                                                      \
    X(loom_vstring) X(nexa_bytestr) X(loom_aes_vstring) X(loom_aes_password_vstring) X(loom_username_vstring)
#define LOOM_DIRECT_SCALAR_OPERATIONS(X, T)                                                                       \
    X(T##_len) X(T##_marshal) X(T##_unmarshal) X(T##_get) X(T##_get_value) X(T##_set) X(T##_set_value)
#define LOOM_DIRECT_VALUE_OPERATIONS(X, T)                                                                        \
    X(T##_get) X(T##_initialize) X(T##_set_instance_embedded) X(T##_get_oid_count) X(T##_destroy_internal)
#define LOOM_DIRECT_OCTETS_OPERATIONS(X, T) X(T##_len) X(T##_marshal) X(T##_unmarshal)
#define LOOM_DIRECT_TEXT_OPERATIONS(X, T) X(T##_len) X(T##_marshal) X(T##_unmarshal)
/** The other operations of the list. */
#define LOOM_DIRECT_FRAME_OPERATIONS(X)                                                                           \
    X(loom_clear_last_error) X(loom_get_instance_variant) X(loom_get_instance_obj_flag)                           \
    X(loom_get_manifested_type_info) X(loom_get_manifested_type_info_ptr_mem)                                     \
    X(loom_domain_lookup_variant) X(loomlib_adjust_variant)                                                       \
    X(loomlib_type_stats_create_object) X(loomlib_type_stats_destroy_object)                                      \
    X(_loom_instance_variant_marshal) X(_loom_instance_variant_unmarshal)                                         \
    X(_loom_instance_obj_flag_marshal) X(_loom_instance_obj_flag_unmarshal)                                       \
    X(_loom_variant_jump_marshal) X(_loom_variant_jump_unmarshal)                                                 \
    X(_loom_list_len_marshal) X(_loom_list_len_unmarshal)                                                         \
    X(loom_boolean_initialize) X(loom_boolean_set_instance_embedded) X(spoor_module_init_fn)
/* clang-format on */

#ifdef __cplusplus
}
#endif
#endif
