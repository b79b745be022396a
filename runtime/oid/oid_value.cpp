// The value operations of an oid. On the wire it takes 40 bytes: the object word, most significant byte first and
// without the mark of a counted reference, the id, the source.
#include "runtime/export.h"
#include "runtime/oid/oid.h"

#include <loom/instance.h>
#include <loom/text.h>

#include <algorithm>
#include <cstring>

namespace {
using namespace loom;
constexpr u32 wire_size = 40;

u32 too_short(loom_handle* handle, u32* err) {
    *err = LOOM_EMSGSIZE;
    loom_store_err(handle, LOOM_EMSGSIZE);
    return 0;
}

i32 print_hexadecimal(loom_handle* handle, const u8* bytes, char* buffer, u32 size, u32* err) {
    if (*err) return 0;
    if (!buffer || size < 33) return static_cast<i32>(too_short(handle, err));
    constexpr char digits[] = "0123456789abcdef";
    for (int i = 0; i < 16; ++i) {
        buffer[2 * i] = digits[bytes[i] >> 4];
        buffer[2 * i + 1] = digits[bytes[i] & 15];
    }
    buffer[32] = 0;
    return 32;
}
} // namespace

LOOM_EXPORT uint32_t loom_oid_id_is_zero(const uint8_t* id) {
    return std::all_of(id, id + 16, [](uint8_t byte) { return byte == 0; });
}

LOOM_EXPORT int32_t loomlib_oid_id_print(loom_handle* handle, uint32_t, const uint8_t* id, char* buffer,
                                         uint32_t size, uint32_t* err) {
    return print_hexadecimal(handle, id, buffer, size, err);
}
LOOM_EXPORT int32_t loomlib_oid_src_print(loom_handle* handle, uint32_t, const uint8_t* source, char* buffer,
                                          uint32_t size, uint32_t* err) {
    return print_hexadecimal(handle, source, buffer, size, err);
}

LOOM_EXPORT uint32_t loomlib_oid_len(loom_handle*, uint32_t, const loom_oid*) { return wire_size; }

LOOM_EXPORT uint32_t loomlib_oid_marshal(loom_handle* handle, uint32_t, void* buffer, const loom_oid* oid,
                                         int32_t length, uint32_t* err) {
    if (*err) return 0;
    if (length < static_cast<int32_t>(wire_size)) return too_short(handle, err);
    auto* bytes = static_cast<u8*>(buffer);
    const loom_oid empty{};
    const loom_oid& value = oid ? *oid : empty;
    const u64 object = value.object & ~oid_counted;
    for (int i = 0; i < 8; ++i)
        bytes[i] = static_cast<u8>(object >> (56 - 8 * i));
    std::memcpy(bytes + 8, value.id, 16);
    std::memcpy(bytes + 24, value.source, 16);
    return wire_size;
}

LOOM_EXPORT uint32_t loomlib_oid_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer, loom_oid* oid,
                                           int32_t length, uint32_t existing, uint32_t* err) {
    if (*err) return 0;
    if (length < static_cast<int32_t>(wire_size)) return too_short(handle, err);
    const auto* bytes = static_cast<const u8*>(buffer);
    loom_oid value{};
    for (int i = 0; i < 8; ++i)
        value.object = value.object << 8 | bytes[i];
    value.object &= ~oid_counted;
    std::memcpy(value.id, bytes + 8, 16);
    std::memcpy(value.source, bytes + 24, 16);
    if (existing) loomlib_oid_release_internal(handle, domain, oid, err);
    handle->write_hook(handle, oid, sizeof *oid, domain, oid);
    *oid = value;
    return wire_size;
}

LOOM_EXPORT int32_t loomlib_oid_compare(const loom_oid* a, const loom_oid* b) {
    if (!a || !b) return a == b ? 0 : a ? 1 : -1;
    const int id = std::memcmp(a->id, b->id, sizeof a->id);
    const int order = id ? id : std::memcmp(a->source, b->source, sizeof a->source);
    return order < 0 ? -1 : order > 0;
}

LOOM_EXPORT int32_t loom_oid_print(loom_handle* handle, uint32_t domain, char* buffer, int32_t depth,
                                   const char* name, const loom_oid* oid, int32_t length, uint32_t* err) {
    if (*err) return 0;
    const int32_t indent = loom_print_space(handle, domain, buffer, depth, length, err);
    if (*err) return 0;
    char id[33], source[33];
    const loom_oid empty{};
    loomlib_oid_id_print(handle, domain, (oid ? oid : &empty)->id, id, sizeof id, err);
    loomlib_oid_src_print(handle, domain, (oid ? oid : &empty)->source, source, sizeof source, err);
    const int32_t text =
        loom_snprintf(handle, domain, buffer + indent, length - indent, err, "%s@oid:%s/%s\n", name, id, source);
    return *err ? 0 : indent + text;
}
