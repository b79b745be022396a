#include "schema/compiler/builtins.h"

#include <algorithm>
#include <array>

namespace trellis::schema {
namespace {

using enum builtin_family;

const std::array<builtin, 25>& stock() {
    static const std::array<builtin, 25> types = {{
        {"u_int8", "uint8_t", "u_int8", scalar, 1, 1},
        {"u_int16", "uint16_t", "u_int16", scalar, 2, 2},
        {"u_int32", "uint32_t", "u_int32", scalar, 4, 4},
        {"u_int64", "uint64_t", "u_int64", scalar, 8, 8},
        {"int8", "int8_t", "int8", scalar, 1, 1},
        {"int16", "int16_t", "int16", scalar, 2, 2},
        {"int32", "int32_t", "int32", scalar, 4, 4},
        {"int64", "int64_t", "int64", scalar, 8, 8},
        {"char", "char", "char_", scalar, 1, 1},
        {"double", "double", "double_", scalar, 8, 8},
        {"float", "float", "float_", scalar, 4, 4},
        {"loom_boolean", "loom_boolean", "loom_boolean", boolean, 4, 4},
        {"ipv4_addr", "struct ipv4_addr", "ipv4_addr", object_value, 4, 4},
        {"ipv6_addr", "struct ipv6_addr", "ipv6_addr", object_value, 16, 1},
        {"loom_mac_addr", "struct loom_mac_addr", "loom_mac_addr", object_value, 6, 1},
        {"ip_address", "struct ip_address", "ip_address", object_value, 48, 8},
        {"ip_prefix", "struct ip_prefix", "ip_prefix", object_value, 48, 8},
        {"calendar_time", "struct calendar_time", "calendar_time", object_value, 16, 8},
        {"timestamp", "struct timestamp", "timestamp", object_value, 8, 4},
        {"loom_vstring", "struct loom_vstring", "loom_vstring", object_value, 16, 8},
        {"nexa_bytestr", "struct nexa_bytestr", "nexa_bytestr", object_value, 16, 8},
        {"loom_phys_addr", "struct loom_phys_addr", "loom_phys_addr", opaque_value, 16, 8},
        {"loom_aes_vstring", "struct loom_aes_vstring", "loom_aes_vstring", opaque_value, 16, 8},
        {"loom_aes_password_vstring", "struct loom_aes_password_vstring", "loom_aes_password_vstring",
         opaque_value, 16, 8},
        {"loom_username_vstring", "struct loom_username_vstring", "loom_username_vstring", opaque_value, 16, 8},
    }};
    return types;
}

} // namespace

std::span<const builtin> builtins() { return stock(); }

const builtin* find_builtin(std::string_view name) {
    const auto found =
        std::find_if(stock().begin(), stock().end(), [&](const builtin& b) { return b.name == name; });
    return found == stock().end() ? nullptr : &*found;
}

} // namespace trellis::schema
