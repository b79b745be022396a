#include "schema/compiler/assembler.h"

#include "schema/compiler/emit_support.h"

#include <algorithm>

namespace trellis::schema {

std::string section(std::string_view name, std::string_view flags, std::string_view type) {
    return substitute(
        "    .section $name, \"$flags\", @$type\n",
        {{"$name", std::string(name)}, {"$flags", std::string(flags)}, {"$type", std::string(type)}});
}

std::string object_label(std::string_view symbol, std::size_t size, bool hidden) {
    const substitutions with = {{"$symbol", std::string(symbol)}, {"$size", size}};
    return substitute("    .globl $symbol\n", with) + (hidden ? substitute("    .hidden $symbol\n", with) : "") +
           substitute("    .type $symbol, @object\n    .size $symbol, $size\n$symbol:\n", with);
}

std::string byte_lines(std::span<const std::uint8_t> bytes) {
    constexpr std::size_t per_line = 32;
    std::string text;
    for (; !bytes.empty(); bytes = bytes.subspan(std::min(per_line, bytes.size()))) {
        const auto line = bytes.first(std::min(per_line, bytes.size()));
        text += "    .byte " + byte_list(line.data(), line.size()) + "\n";
    }
    return text;
}

std::string character_lines(std::string_view text) {
    constexpr std::size_t per_line = 80;
    std::string lines;
    for (; !text.empty(); text.remove_prefix(std::min(per_line, text.size()))) {
        lines += "    .ascii \"";
        for (const char character : text.substr(0, per_line)) {
            if (character == '\n')
                lines += "\\n";
            else if (character == '\0')
                lines += "\\000";
            else if (character == '"' || character == '\\')
                lines += std::string("\\") + character;
            else
                lines += character;
        }
        lines += "\"\n";
    }
    return lines;
}

} // namespace trellis::schema
