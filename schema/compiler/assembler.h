// Pieces of assembler sources: sections that compilers cannot be told to make. What they hold stands in the
// emitters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace trellis::schema {

/// Begins the section `name`. Flags are the assembler's: "" is not loaded, "a" loaded, "aw" writable.
std::string section(std::string_view name, std::string_view flags, std::string_view type = "progbits");
/// The label of a global object of `size` bytes; a hidden one is known in its library only.
std::string object_label(std::string_view symbol, std::size_t size, bool hidden = false);
/// Bytes, some per line.
std::string byte_lines(std::span<const std::uint8_t> bytes);
/// Characters as strings, some per line; line feeds, zeros, quotes and backslashes are escaped.
std::string character_lines(std::string_view text);
/// Ends every source: nothing in it needs an executable stack.
inline constexpr std::string_view end_of_assembler = "    .section .note.GNU-stack, \"\", @progbits\n";

} // namespace trellis::schema
