// The text forms of character arrays: var_string has a counted length, null_string ends at a zero byte or at its
// size. Their content is escaped like that of any other text (xml_content.h).
#include "runtime/export.h"
#include "runtime/values/common.h"
#include "runtime/xml/read_element.h"

#include <loom/text.h>

namespace {
using namespace loom;

std::string_view counted_text(const char* characters, u32 length) {
    return characters ? std::string_view(characters, length) : std::string_view();
}

std::string_view terminated_text(const char* characters, u32 size) {
    return characters ? std::string_view(characters, strnlen(characters, size)) : std::string_view();
}

i32 print_text(const call& c, char* buffer, i32 depth, const char* name, std::string_view type_name,
               std::string_view text, i32 length) {
    return print_line(c, buffer, depth, name, type_name, length,
                      [&](text_writer& out) { append_printable(out, text); });
}

u32 text_to_xml(const call& c, const char* name, char* buffer, std::string_view text, i32 length, u8 state) {
    if (c.pending()) return 0;
    if (!name) return c.fail(LOOM_EINVAL);
    text_writer out(buffer, length);
    append_text_element(out, name, text, state);
    return out.finish_element(c);
}
} // namespace

LOOM_EXPORT int32_t var_string_print(loom_handle* handle, uint32_t domain, char* buffer, int32_t depth,
                                     const char* name, const char* string, int32_t length, uint32_t string_length,
                                     uint32_t* err) {
    return print_text({handle, domain, err}, buffer, depth, name, "var_string",
                      counted_text(string, string_length), length);
}

LOOM_EXPORT int32_t null_string_print(loom_handle* handle, uint32_t domain, char* buffer, int32_t depth,
                                      const char* name, const char* characters, int32_t length, uint32_t size,
                                      uint32_t* err) {
    return print_text({handle, domain, err}, buffer, depth, name, "null_string", terminated_text(characters, size),
                      length);
}

LOOM_EXPORT uint32_t var_string_to_xml(loom_handle* handle, uint32_t domain, const char* name, char* buffer,
                                       const char* string, int32_t length, uint32_t string_length, uint8_t state,
                                       uint32_t* err) {
    return text_to_xml({handle, domain, err}, name, buffer, counted_text(string, string_length), length, state);
}

LOOM_EXPORT uint32_t null_string_to_xml(loom_handle* handle, uint32_t domain, const char* name, char* buffer,
                                        const char* characters, int32_t length, uint32_t size, uint8_t state,
                                        uint32_t* err) {
    return text_to_xml({handle, domain, err}, name, buffer, terminated_text(characters, size), length, state);
}

// The block is the caller's own and not yet part of an instance: nothing is announced.
LOOM_EXPORT void var_string_from_xml(loom_handle* handle, uint32_t domain, const char* path,
                                     const loom_xml_document* document, char* destination, uint32_t size,
                                     uint32_t* err, char* message, uint32_t message_length) {
    const call c{handle, domain, err};
    read_element(c, {path, document, message, message_length}, [&](const element_text& text) -> u32 {
        if (!destination || text.size() > size) return destination ? LOOM_ENOSPC : LOOM_EINVAL;
        text.copy_to(destination);
        if (text.size() < size) destination[text.size()] = '\0';
        return 0;
    });
}

// The array lies in an instance. What the text leaves of it is cleared, since arrays are compared whole.
LOOM_EXPORT void null_string_from_xml(loom_handle* handle, uint32_t domain, const char* path,
                                      const loom_xml_document* document, char* characters, uint32_t size,
                                      uint32_t* err, char* message, uint32_t message_length) {
    const call c{handle, domain, err};
    read_element(c, {path, document, message, message_length}, [&](const element_text& text) -> u32 {
        if (!characters || text.size() > size) return characters ? LOOM_ENOSPC : LOOM_EINVAL;
        c.announce(characters, size, characters);
        text.copy_to(characters);
        std::memset(characters + text.size(), 0, size - text.size());
        return 0;
    });
}
