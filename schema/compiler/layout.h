// Places everything: attributes in instances and tracking areas, sizes per variant, trace statements in their
// units, functions in the function order. Runs on a model without mistakes.
#pragma once

#include "schema/compiler/diagnostics.h"
#include "schema/compiler/model.h"

namespace trellis::schema {

/// Bytes of the object header: the type word, two variant bytes and the flags.
constexpr std::uint32_t header_size = 11;
/// Where a list element's three links stand, and where they end.
constexpr std::uint32_t links_offset = 16;
constexpr std::uint32_t links_end = 40;
/// The largest instance that a schema may describe.
constexpr std::uint64_t largest_instance = 1u << 24;

/// Completes offsets, sizes, tracking areas, trace places, identities and call places. A record that outgrows
/// `largest_instance` is told in `out`.
void lay_out(bundle& b, diagnostics& out);

/// Width and alignment of a value in place.
struct extent_of_value {
    std::uint32_t width;
    std::uint32_t alignment;
};
/// Of one value or array element of this type; the layout of a record must be known.
extent_of_value extent_of(const type_ref& type);

/// What an attribute is to its trace statements.
diag::trace_kind trace_kind_of(const record& holder, const attribute& a);

} // namespace trellis::schema
