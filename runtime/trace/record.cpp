// From the stored form of a record to what callbacks get.
#include "runtime/trace/record.h"

namespace loom {
bool decode_entry(const trace_entry& entry, const std::byte* arguments, loom_trace_record& record) {
    record = {};
    std::memcpy(record.unit, entry.unit, sizeof record.unit);
    record.index = entry.index;
    record.level = entry.level;
    record.thread = entry.thread;
    record.module_id = entry.module;
    record.time = entry.time;
    record.module_name = "";
    const std::byte* end = arguments + (entry.size - sizeof entry);
    for (u16 kinds = entry.arguments; kinds; kinds = static_cast<u16>(kinds >> 4)) {
        if (record.argument_count == LOOM_TRACE_ARGUMENTS_MAX) return false;
        loom_trace_argument& argument = record.arguments[record.argument_count++];
        argument.kind = kinds & 15;
        const std::size_t width = argument.kind == 1 ? 2 : argument.kind == 4 ? 4 : argument.kind == 5 ? 8 : 0;
        if (!width || static_cast<std::size_t>(end - arguments) < width) return false;
        std::memcpy(&argument.number, arguments, width);
        arguments += width;
        if (argument.kind != 1 || argument.number == null_text) {
            if (argument.kind == 1) argument.number = 0;
            continue;
        }
        argument.text_length = static_cast<u32>(argument.number);
        argument.number = 0;
        argument.text = reinterpret_cast<const char*>(arguments);
        if (static_cast<std::size_t>(end - arguments) < argument.text_length) return false;
        arguments += argument.text_length;
    }
    return true;
}
} // namespace loom
