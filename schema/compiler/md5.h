// MD5 (RFC 1321), for identities and hashes of definitions, where nothing needs to resist an attack.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace trellis::schema {

using md5_digest = std::array<std::uint8_t, 16>;

md5_digest md5(std::string_view text);
/// 32 lower-case hexadecimal digits.
std::string hex(const md5_digest& digest);

} // namespace trellis::schema
