// The stored form of a trace record; buffers and files share it. loom_runtime/trace.h draws it.
#pragma once

#include "frame/basic_types.h"

#include <loom_runtime/trace.h>

#include <cstring>

namespace loom {
using namespace trellis;

enum entry_kind : u8 { entry_padding = 0, entry_record = 1, entry_module = 2 };

struct trace_entry {
    u16 size;
    u8 kind;
    u8 level;
    u16 module;
    u16 arguments;
    u32 index;
    u32 thread;
    u64 time;
    u8 unit[16];
};
static_assert(sizeof(trace_entry) == 40);

inline constexpr u16 null_text = 0xFFFF;
inline constexpr std::size_t largest_entry =
    (sizeof(trace_entry) + LOOM_TRACE_ARGUMENTS_MAX * (2 + LOOM_TRACE_TEXT_MAX) + 7) & ~std::size_t{7};

/// Reads the arguments behind `entry`; false when they run past its size. `module_name` is left to the caller.
bool decode_entry(const trace_entry& entry, const std::byte* arguments, loom_trace_record& record);

} // namespace loom
