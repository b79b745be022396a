/* The frame fields of the binary form. Each operation takes (handle, domain, buffer, value, remaining length,
 * err) and returns the bytes it wrote or read. Frame fields are written even with an error pending, as far as
 * there is room; without room they set 90. Multi-byte integers travel most significant byte first.
 *
 * Buffers around them, as bundles use them: a writer (`<type>_marshal` and whatever contains one) is given
 * `length` and a buffer of `length` + 1 bytes, since the last state byte of a tracked record may be stored at
 * `length` itself, where it does not count. A reader (`_unmarshal`) is given a buffer of `length` bytes and needs
 * none to spare. What it returns may be more than `length`, up to 2147483647: a flag set counts its bits and every
 * jump its distance whether they are there or not. Whoever reads on behind an item compares first. */
#ifndef LOOM_WIRE_H
#define LOOM_WIRE_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

uint32_t _loom_instance_variant_marshal(loom_handle* handle, uint32_t domain, void* buffer, const int8_t* variant,
                                        int32_t length, uint32_t* err);
uint32_t _loom_instance_variant_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                          int8_t* variant, int32_t length, uint32_t* err);
uint32_t _loom_instance_obj_flag_marshal(loom_handle* handle, uint32_t domain, void* buffer, const uint8_t* flags,
                                         int32_t length, uint32_t* err);
uint32_t _loom_instance_obj_flag_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                           uint8_t* flags, int32_t length, uint32_t* err);
/** ra data: 9 bytes, a 64-bit value and a byte. */
uint32_t _loom_instance_ra_data_marshal(loom_handle* handle, uint32_t domain, void* buffer,
                                        const uint64_t* address, const uint8_t* kind, int32_t length,
                                        uint32_t* err);
uint32_t _loom_instance_ra_data_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                          uint64_t* address, uint8_t* kind, int32_t length, uint32_t* err);
/** The distance of a variant jump, from its own first byte to the end of the item. What it takes in memory it
 * takes on the wire: 4 bytes. */
typedef uint32_t loom_wire_jump;
uint32_t _loom_variant_jump_marshal(loom_handle* handle, uint32_t domain, void* buffer, const loom_wire_jump* jump,
                                    int32_t length, uint32_t* err);
uint32_t _loom_variant_jump_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                      loom_wire_jump* jump, int32_t length, uint32_t* err);
/** The element count of a list: 4 bytes. */
uint32_t _loom_list_len_marshal(loom_handle* handle, uint32_t domain, void* buffer, const uint32_t* count,
                                int32_t length, uint32_t* err);
uint32_t _loom_list_len_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer, uint32_t* count,
                                  int32_t length, uint32_t* err);
/** The message header: 27 bytes, the 16 in-memory bytes in order (integers most significant byte first), then 11
 *  zero bytes. */
uint32_t _loom_message_header_marshal(loom_handle* handle, uint32_t domain, void* buffer,
                                      const loom_message_header* header, int32_t length, uint32_t* err);
uint32_t _loom_message_header_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                        loom_message_header* header, int32_t length, uint32_t* err);
/** Non-zero when the marshalled instance at `instance_bytes` carries state bytes. */
uint8_t loomlib_type_header_get_state_tracking_flag(const void* instance_bytes);

#ifdef __cplusplus
}
#endif
#endif
