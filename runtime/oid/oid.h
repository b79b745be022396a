// What the parts of the oid family share with each other and with the garbage collector.
#pragma once

#include "runtime/database/layout.h"

namespace loom {

/// The kind of mappings of tables.
inline constexpr u32 mapped_table = 2;

inline loom_oid_mapping* find_by_object(const database_root& root, const void* object) {
    return root.oids_by_object.find(hash_of_address(object),
                                    [&](const loom_oid_mapping& each) { return each.object == object; });
}

inline loom_oid_mapping* find_by_reference(const database_root& root, u64 reference) {
    return root.oids_by_reference.find(reference,
                                       [&](const loom_oid_mapping& each) { return each.reference == reference; });
}

/// Top bit of an oid's object word: the value holds a counted reference.
inline constexpr u64 oid_counted = u64{1} << 63;

/// Ends an object whose end was put off and that has no references left. False when nobody knows how, or when it
/// would not go.
bool destroy_put_off(loom_handle* handle, loom_oid_mapping* mapping);

} // namespace loom
