// Bounded printing and the tags of XML elements.
#include "runtime/export.h"
#include "runtime/text/xml_content.h"
#include "runtime/values/iso_time.h"

#include <loom/text.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>

namespace {
using namespace loom;

/// One piece of XML that `write` appends.
template <class Write>
u32 xml_piece(const call& c, char* buffer, const char* name, i32 length, Write write) {
    if (c.pending()) return 0;
    if (!name) return c.fail(LOOM_EINVAL);
    text_writer out(buffer, length);
    write(out);
    return out.finish_element(c);
}

iso_time now() {
    using namespace std::chrono;
    const auto since = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    const auto whole = floor<seconds>(since);
    return {whole.count(), static_cast<u32>((since - whole).count() * 1'000'000), 0};
}
} // namespace

LOOM_EXPORT int32_t loom_snprintf(loom_handle* handle, uint32_t domain, char* buffer, int32_t length,
                                  uint32_t* err, const char* format, ...) {
    const call c{handle, domain, err};
    if (c.pending()) return 0;
    const u32 room = room_of(length);
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(room ? buffer : nullptr, room, format, arguments);
    va_end(arguments);
    if (wanted < 0) return static_cast<i32>(c.fail(LOOM_EINVAL));
    if (static_cast<u32>(wanted) < room) return wanted;
    c.fail(LOOM_EMSGSIZE);
    return room ? static_cast<i32>(room - 1) : 0;
}

LOOM_EXPORT int32_t loom_print_space(loom_handle* handle, uint32_t domain, char* buffer, int32_t count,
                                     int32_t length, uint32_t* err) {
    const call c{handle, domain, err};
    if (c.pending()) return 0;
    const u32 wanted = room_of(count);
    const u32 written = std::min(wanted, room_of(length));
    if (written) std::memset(buffer, ' ', written);
    if (written != wanted) c.fail(LOOM_EMSGSIZE);
    return static_cast<i32>(written);
}

LOOM_EXPORT uint32_t start_tag(loom_handle* handle, uint32_t domain, char* buffer, const char* name,
                               int32_t length, uint8_t state, uint32_t* err) {
    return xml_piece({handle, domain, err}, buffer, name, length,
                     [&](text_writer& out) { append_open_tag(out, name, state); });
}

LOOM_EXPORT uint32_t end_tag(loom_handle* handle, uint32_t domain, char* buffer, const char* name, int32_t length,
                             uint32_t* err) {
    return xml_piece({handle, domain, err}, buffer, name, length,
                     [&](text_writer& out) { append_close_tag(out, name); });
}

LOOM_EXPORT uint32_t start_tag_timestamp(loom_handle* handle, uint32_t domain, char* buffer, const char* name,
                                         int32_t length, uint32_t* err) {
    return xml_piece({handle, domain, err}, buffer, name, length, [&](text_writer& out) {
        char text[iso_text_limit];
        out.append('<');
        out.append(name);
        out.append(" timestamp=\"");
        out.append(std::string_view(text, format_iso(text, now(), fraction::milliseconds)));
        out.append("\">");
    });
}

LOOM_EXPORT uint32_t xml_enum_print(loom_handle* handle, uint32_t domain, char* buffer, const char* text,
                                    int32_t length, uint32_t text_length, uint32_t* err) {
    return xml_piece({handle, domain, err}, buffer, text, length,
                     [&](text_writer& out) { out.append(std::string_view(text, text_length)); });
}
