// Texts as the content of XML elements, and back. XML 1.0 can hold neither most control characters nor bytes that
// are no UTF-8, not even as references; an element with such a text carries its bytes as hexadecimal and says so:
//     <name>a &lt; b</name>        <name encoding="hex">6100ff</name>
// Elements are found by runtime/xml; here is only what stands between and in their tags.
#pragma once

#include "runtime/text/text_writer.h"

namespace loom {

/// True when XML 1.0 can hold every character of the text (its Char production, as UTF-8).
bool xml_can_hold(std::string_view text);

/// `<name>`, with `state="N"` when `state` is not 0 and `encoding="hex"` when asked for.
void append_open_tag(text_writer& out, std::string_view name, u8 state, bool hexadecimal = false);
void append_close_tag(text_writer& out, std::string_view name);
/// The text with `& < >` and control characters as references.
void append_escaped(text_writer& out, std::string_view text);
/// A whole element with any bytes as its content.
void append_text_element(text_writer& out, std::string_view name, std::string_view text, u8 state);

/// The text for a printed line: control characters as \xNN, so that one value stays one line.
void append_printable(text_writer& out, std::string_view text);

/// Without the white space of XML at both ends.
std::string_view trimmed(std::string_view text);
/// Hexadecimal digits in pairs, nothing else between them.
bool is_hexadecimal(std::string_view digits);
/// Writes `digits.size() / 2` bytes; the digits have passed is_hexadecimal.
void decode_hexadecimal(std::string_view digits, void* bytes);
} // namespace loom
