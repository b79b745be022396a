// Descriptions of types (<loom/type_description.h>): finding them in the files of libraries, and looking at them.
// How objects are walked by them stands in runtime/verify/.
#pragma once

#include "frame/basic_types.h"

#include <loom/type_description.h>

#include <span>

namespace loom {
using namespace trellis;

/// The description of the type in the library of its module; null when that has none, or one of other variants.
/// It stays as long as the process.
const loom_type_description* find_description(const loom_type_info& info);

/// Whether the description fits into `room` bytes, all of its places lie in it, and its attributes lie in its
/// objects: what the functions below, and walks over objects, rely on.
bool is_sound(const loom_type_description& description, u64 room);

inline std::span<const loom_variant_description> variants_of(const loom_type_description& description) {
    const auto* bytes = reinterpret_cast<const u8*>(&description);
    return {reinterpret_cast<const loom_variant_description*>(bytes + description.variants),
            description.variant_count};
}
inline std::span<const loom_attribute_description> attributes_of(const loom_type_description& description) {
    const auto* bytes = reinterpret_cast<const u8*>(&description);
    return {reinterpret_cast<const loom_attribute_description*>(bytes + description.attributes),
            description.attribute_count};
}
inline const char* text_in(const loom_type_description& description, u32 place) {
    return reinterpret_cast<const char*>(&description) + place;
}
/// The luid that an index leads to; null for LOOM_TYPE_NONE.
inline const u8* luid_in(const loom_type_description& description, u32 reference) {
    if (reference == LOOM_TYPE_NONE) return nullptr;
    return reinterpret_cast<const u8*>(&description) + description.references + u64{reference} * 16;
}

} // namespace loom
