// Texts as content of XML elements: what can stand there, escapes, hexadecimal.
#include "runtime/text/xml_content.h"

namespace loom {
namespace {

constexpr bool is_control(unsigned char c) { return c < 0x20 || c == 0x7f; }

/// Bytes of the UTF-8 sequence at the start of `text` if it is a character that XML can hold, else 0. Overlong
/// forms, surrogates and U+FFFE, U+FFFF are none.
size_t character_size(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<u32>(static_cast<unsigned char>(text[i])); };
    const u32 first = byte(0);
    if (first < 0x80) return first >= 0x20 || first == '\t' || first == '\n' || first == '\r' ? 1 : 0;
    const size_t size = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
    if (size == 0 || text.size() < size) return 0;
    u32 character = first & (0xffu >> (size + 1));
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
        character = character << 6 | (byte(i) & 0x3f);
    }
    constexpr u32 smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool allowed = character >= smallest[size] && character <= 0x10ffff &&
                         (character < 0xd800 || character > 0xdfff) && character != 0xfffe && character != 0xffff;
    return allowed ? size : 0;
}

constexpr int hexadecimal_value(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

void append_decimal(text_writer& out, u8 value) {
    if (value >= 100) out.append(static_cast<char>('0' + value / 100));
    if (value >= 10) out.append(static_cast<char>('0' + value / 10 % 10));
    out.append(static_cast<char>('0' + value % 10));
}
} // namespace

bool xml_can_hold(std::string_view text) {
    while (!text.empty()) {
        const size_t size = character_size(text);
        if (size == 0) return false;
        text.remove_prefix(size);
    }
    return true;
}

void append_open_tag(text_writer& out, std::string_view name, u8 state, bool hexadecimal) {
    out.append('<');
    out.append(name);
    if (state) {
        out.append(" state=\"");
        append_decimal(out, state);
        out.append('"');
    }
    if (hexadecimal) out.append(" encoding=\"hex\"");
    out.append('>');
}

void append_close_tag(text_writer& out, std::string_view name) {
    out.append("</");
    out.append(name);
    out.append('>');
}

void append_escaped(text_writer& out, std::string_view text) {
    size_t plain = 0;
    const auto replace = [&](size_t at, std::string_view reference) {
        out.append(text.substr(plain, at - plain));
        out.append(reference);
        plain = at + 1;
    };
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '&')
            replace(i, "&amp;");
        else if (c == '<')
            replace(i, "&lt;");
        else if (c == '>')
            replace(i, "&gt;");
        else if (is_control(static_cast<unsigned char>(c))) {
            replace(i, "&#");
            append_decimal(out, static_cast<u8>(c));
            out.append(';');
        }
    }
    out.append(text.substr(plain));
}

void append_text_element(text_writer& out, std::string_view name, std::string_view text, u8 state) {
    const bool hexadecimal = !xml_can_hold(text);
    append_open_tag(out, name, state, hexadecimal);
    if (hexadecimal)
        for (const char byte : text)
            out.append_hex(static_cast<u8>(byte));
    else
        append_escaped(out, text);
    append_close_tag(out, name);
}

void append_printable(text_writer& out, std::string_view text) {
    size_t plain = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (!is_control(c)) continue;
        out.append(text.substr(plain, i - plain));
        out.append("\\x");
        out.append_hex(c);
        plain = i + 1;
    }
    out.append(text.substr(plain));
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view white_space = " \t\n\r";
    const size_t first = text.find_first_not_of(white_space);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(white_space) - first + 1);
}

bool is_hexadecimal(std::string_view digits) {
    for (const char digit : digits)
        if (hexadecimal_value(digit) < 0) return false;
    return digits.size() % 2 == 0;
}

void decode_hexadecimal(std::string_view digits, void* bytes) {
    auto* out = static_cast<u8*>(bytes);
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        *out++ = static_cast<u8>(hexadecimal_value(digits[i]) << 4 | hexadecimal_value(digits[i + 1]));
}
} // namespace loom
