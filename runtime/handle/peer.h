// What a peer speaks: the highest variant of each type, by luid, and limits by name. Filled by the functions of
// loom_runtime/runtime.h; looked up by loom_domain_lookup_variant and its like.
#pragma once

#include "frame/basic_types.h"

#include <loom/handle.h>

#include <array>
#include <atomic>
#include <string>
#include <unordered_map>

namespace loom {
using namespace trellis;

struct luid_key {
    std::array<u8, 16> bytes;
    bool operator==(const luid_key&) const = default;
};
struct luid_hash {
    std::size_t operator()(const luid_key& key) const;
};
/// The luid that a text of 32 hexadecimal characters spells; false when it is none.
bool read_luid(const char* text, std::size_t length, luid_key& luid);

/// Never clamped: -1 is unknown.
inline constexpr i8 unknown_variant = -1;

} // namespace loom

struct loom_peer {
    std::string name;
    bool same_build = false;
    std::unordered_map<loom::luid_key, loom::i8, loom::luid_hash> variants;
    std::unordered_map<std::string, loom::i8> limits;
    std::atomic<loom::u32> users{1};

    /// Highest variant of the type here.
    loom::i8 variant_of(const loom_type_info& info) const;
};
