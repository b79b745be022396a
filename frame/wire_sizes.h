// The sizes of the binary form's parts and where they stand: every number that writers, readers, the runtime and
// the tool share. docs/wire-format.md draws the form; what the parts mean stands in codec/binary_writer.h.
#pragma once

#include "frame/basic_types.h"

#include <loom/wire.h>

namespace trellis::wire {

constexpr u32 variant_size = sizeof(i8);
constexpr u32 flags_size = sizeof(u8);
constexpr u32 ra_data_size = sizeof(u64) + sizeof(u8); // address and kind
constexpr u32 jump_size = sizeof(loom_wire_jump);

/// In front of a record's fields, when there is no ra data.
constexpr u32 flags_place = variant_size;
constexpr u32 record_jump_place = flags_place + flags_size;
constexpr u32 record_frame_size = record_jump_place + jump_size;

/// In front of a flag set's bits.
constexpr u32 flag_set_jump_place = variant_size;
constexpr u32 flag_set_frame_size = flag_set_jump_place + jump_size;

/// Variant and internal value.
constexpr u32 enumeration_value_place = variant_size;
constexpr u32 enumeration_size = enumeration_value_place + sizeof(u32);

/// In front of a table record and of a message: header and luid.
constexpr u32 header_size = LOOM_MESSAGE_HEADER_WIRE_SIZE;
constexpr u32 message_frame_size = header_size + LOOM_LUID_SIZE;

} // namespace trellis::wire
