// The type-information records of the value types that have one. A luid is the MD5 of "type <name>: <definition>",
// the definition being the wire form; the text stands beside each record.
#include "runtime/export.h"

#include <loom/values.h>

#include <algorithm>
#include <string_view>

namespace {

constexpr uint8_t hexadecimal_value(char digit) {
    return static_cast<uint8_t>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

consteval loom_type_info type_info(std::string_view name, std::string_view luid_text,
                                   loom_variant_table* variants) {
    loom_type_info info{};
    info.magic = LOOM_TYPE_INFO_MAGIC;
    for (size_t i = 0; i < sizeof info.luid; ++i)
        info.luid[i] = static_cast<uint8_t>(hexadecimal_value(luid_text[2 * i]) << 4 |
                                            hexadecimal_value(luid_text[2 * i + 1]));
    std::copy_n(luid_text.begin(), 2 * sizeof info.luid, info.luid_text);
    std::copy(name.begin(), name.end(), info.name);
    std::copy_n("loom", 4, info.module);
    std::copy_n("type", 4, info.kind);
    info.runtime_slot = -1;
    info.variant_table = variants;
    return info;
}

/// The only variant of a value type; nothing counts values as objects.
template <class Tag, uint32_t Width>
constinit loom_variant_entry only_variant{.variant = 0,
                                          .used_length = Width,
                                          .alloc_slop = 0,
                                          .reserved = 0,
                                          .objects_created = 0,
                                          .objects_destroyed = 0,
                                          .reserved_counter = 0};
template <class Tag, uint32_t Width>
constinit loom_variant_table variants{1, &only_variant<Tag, Width>};
} // namespace

#define EXPORT_TYPE_INFO(T, LUID)                                                                                 \
    struct T##_tag;                                                                                               \
    LOOM_EXPORT_DATA constinit loom_type_info _##T##_type_info_internal =                                         \
        type_info(#T, LUID, &variants<T##_tag, sizeof(T)>);

// type loom_boolean: u32
EXPORT_TYPE_INFO(loom_boolean, "01b21e523aae1d273f9bd216abcb32eb")
// type ip_address: family u8, octets 0 4 16, zone u32 of 6
EXPORT_TYPE_INFO(ip_address, "90511edc252fb450b967c3c73620311b")
// type ip_prefix: family u8, octets 0 4 16, length u8 of 4 6
EXPORT_TYPE_INFO(ip_prefix, "62db8a814243e77f5607350ca6022981")
// type ipv4_addr: octets 4
EXPORT_TYPE_INFO(ipv4_addr, "63f91f0c2293a8881a0638793e6f1b93")
// type ipv6_addr: octets 16
EXPORT_TYPE_INFO(ipv6_addr, "9bfa0f149119ff975c93cdaccb3e0c02")
// type loom_mac_addr: octets 6
EXPORT_TYPE_INFO(loom_mac_addr, "710db40f1463e2633062bfeb9514b802")
// type calendar_time: seconds i64, nanoseconds u32, utc_offset i16
EXPORT_TYPE_INFO(calendar_time, "9f2e36ff942b099bfb8c4e05edd40b4d")
// type timestamp: milliseconds u64
EXPORT_TYPE_INFO(timestamp, "27bbb2d94ee57341c4d0779653b55b61")
// type loom_vstring: length u32, characters
EXPORT_TYPE_INFO(loom_vstring, "6b4c027d080680f6d4f49170d4e7ac4d")
// type nexa_bytestr: length u32, octets
EXPORT_TYPE_INFO(nexa_bytestr, "abd108cefc26818da6494c5d1f0b6291")
// type loom_phys_addr: length u8, octets 0-15
EXPORT_TYPE_INFO(loom_phys_addr, "479cabca80a734b413ccaaee9457c88c")
// type loom_aes_vstring: length u32, opaque characters
EXPORT_TYPE_INFO(loom_aes_vstring, "2cc5bddb7e8ad2c6b2d7cbb894627c78")
// type loom_aes_password_vstring: length u32, opaque password characters
EXPORT_TYPE_INFO(loom_aes_password_vstring, "63cc36e60d8a8f02be691897edc37555")
// type loom_username_vstring: length u32, user name characters
EXPORT_TYPE_INFO(loom_username_vstring, "c744b77455905a7f30d56033762d184b")
