// The frame fields of the binary form: variant, object flags, ra data, variant jump, list length, message header.
// Writers work even with an error pending, so that a form that was begun keeps its shape; an error that stands is
// never replaced. Readers do nothing then, and what they cannot read is zero.
#include "frame/big_endian.h"
#include "frame/wire_sizes.h"
#include "runtime/export.h"
#include "runtime/values/call.h"

#include <loom/wire.h>

#include <type_traits>

namespace {
using namespace loom;

/// Without room the first error of the run stays; the field takes no bytes.
u32 no_room(const call& c) {
    if (!c.pending()) c.fail(LOOM_EMSGSIZE);
    return 0;
}

template <class T>
u32 write_field(const call& c, void* buffer, const T* value, i32 length) {
    if (room_of(length) < sizeof(T)) return no_room(c);
    store_big_endian(buffer, static_cast<std::make_unsigned_t<T>>(*value));
    return sizeof(T);
}

template <class T>
u32 read_field(const call& c, const void* buffer, T* value, i32 length) {
    *value = 0;
    if (c.pending()) return 0;
    if (room_of(length) < sizeof(T)) return no_room(c);
    *value = static_cast<T>(load_big_endian<std::make_unsigned_t<T>>(buffer));
    return sizeof(T);
}

// Places of the header's members on the wire: those in memory, then zero bytes.
constexpr size_t padding = 11;
constexpr size_t magic_at = offsetof(loom_message_header, hdr_magic);
constexpr size_t reserved_at = offsetof(loom_message_header, hdr_reserved);
constexpr size_t sttr_at = offsetof(loom_message_header, hdr_sttr);
constexpr size_t word_at = offsetof(loom_message_header, hdr_word);
constexpr size_t length_at = offsetof(loom_message_header, hdr_length);
static_assert(length_at + sizeof(u32) == sizeof(loom_message_header) &&
              sizeof(loom_message_header) + padding == wire::header_size);
} // namespace

LOOM_EXPORT uint32_t _loom_instance_variant_marshal(loom_handle* handle, uint32_t domain, void* buffer,
                                                    const int8_t* variant, int32_t length, uint32_t* err) {
    return write_field({handle, domain, err}, buffer, variant, length);
}
LOOM_EXPORT uint32_t _loom_instance_variant_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                                      int8_t* variant, int32_t length, uint32_t* err) {
    return read_field({handle, domain, err}, buffer, variant, length);
}

LOOM_EXPORT uint32_t _loom_instance_obj_flag_marshal(loom_handle* handle, uint32_t domain, void* buffer,
                                                     const uint8_t* flags, int32_t length, uint32_t* err) {
    return write_field({handle, domain, err}, buffer, flags, length);
}
LOOM_EXPORT uint32_t _loom_instance_obj_flag_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                                       uint8_t* flags, int32_t length, uint32_t* err) {
    return read_field({handle, domain, err}, buffer, flags, length);
}

LOOM_EXPORT uint32_t _loom_instance_ra_data_marshal(loom_handle* handle, uint32_t domain, void* buffer,
                                                    const uint64_t* address, const uint8_t* kind, int32_t length,
                                                    uint32_t* err) {
    const call c{handle, domain, err};
    if (room_of(length) < wire::ra_data_size) return no_room(c);
    auto* out = static_cast<u8*>(buffer);
    store_big_endian(out, *address);
    out[sizeof *address] = *kind;
    return wire::ra_data_size;
}
LOOM_EXPORT uint32_t _loom_instance_ra_data_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                                      uint64_t* address, uint8_t* kind, int32_t length,
                                                      uint32_t* err) {
    const call c{handle, domain, err};
    *address = 0;
    *kind = 0;
    if (c.pending()) return 0;
    if (room_of(length) < wire::ra_data_size) return no_room(c);
    const auto* in = static_cast<const u8*>(buffer);
    *address = load_big_endian<u64>(in);
    *kind = in[sizeof *address];
    return wire::ra_data_size;
}

LOOM_EXPORT uint32_t _loom_variant_jump_marshal(loom_handle* handle, uint32_t domain, void* buffer,
                                                const loom_wire_jump* jump, int32_t length, uint32_t* err) {
    return write_field({handle, domain, err}, buffer, jump, length);
}
LOOM_EXPORT uint32_t _loom_variant_jump_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                                  loom_wire_jump* jump, int32_t length, uint32_t* err) {
    return read_field({handle, domain, err}, buffer, jump, length);
}

LOOM_EXPORT uint32_t _loom_list_len_marshal(loom_handle* handle, uint32_t domain, void* buffer,
                                            const uint32_t* count, int32_t length, uint32_t* err) {
    return write_field({handle, domain, err}, buffer, count, length);
}
LOOM_EXPORT uint32_t _loom_list_len_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                              uint32_t* count, int32_t length, uint32_t* err) {
    return read_field({handle, domain, err}, buffer, count, length);
}

LOOM_EXPORT uint32_t _loom_message_header_marshal(loom_handle* handle, uint32_t domain, void* buffer,
                                                  const loom_message_header* header, int32_t length,
                                                  uint32_t* err) {
    const call c{handle, domain, err};
    if (room_of(length) < wire::header_size) return no_room(c);
    auto* out = static_cast<u8*>(buffer);
    out[magic_at] = header->hdr_magic;
    std::memcpy(out + reserved_at, header->hdr_reserved, sizeof header->hdr_reserved);
    out[sttr_at] = header->hdr_sttr;
    store_big_endian(out + word_at, header->hdr_word);
    store_big_endian(out + length_at, header->hdr_length);
    std::memset(out + sizeof *header, 0, padding);
    return wire::header_size;
}

// The header is taken as it comes: whoever reads a message has chosen it by its luid and looks at what it needs.
LOOM_EXPORT uint32_t _loom_message_header_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer,
                                                    loom_message_header* header, int32_t length, uint32_t* err) {
    const call c{handle, domain, err};
    *header = {};
    if (c.pending()) return 0;
    if (room_of(length) < wire::header_size) return no_room(c);
    const auto* in = static_cast<const u8*>(buffer);
    header->hdr_magic = in[magic_at];
    std::memcpy(header->hdr_reserved, in + reserved_at, sizeof header->hdr_reserved);
    header->hdr_sttr = in[sttr_at];
    header->hdr_word = load_big_endian<u32>(in + word_at);
    header->hdr_length = load_big_endian<u32>(in + length_at);
    return wire::header_size;
}

LOOM_EXPORT uint8_t loomlib_type_header_get_state_tracking_flag(const void* instance_bytes) {
    constexpr size_t flags_at = 1; // behind the variant
    return (static_cast<const u8*>(instance_bytes)[flags_at] & OBJ_STATE_TRACKED) != 0;
}
