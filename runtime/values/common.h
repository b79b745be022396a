// What all families of values share: memory of values on their own, copies through the wire form, printed lines.
// The families themselves: in_place.h (values that are their own bytes) and counted.h (bytes kept outside).
#pragma once

#include "runtime/text/xml_content.h"

#include <type_traits>

namespace loom {

/// Bytes read from a wire form, or why there were none.
struct read_result {
    u32 size;
    u32 error;
};

/// Three-way order of plain numbers: -1, 0 or 1.
template <class T>
constexpr i32 order(const T& a, const T& b) {
    return a < b ? -1 : b < a ? 1 : 0;
}

constexpr i32 sign(int result) { return order(result, 0); }

/// The part of an order that null pointers settle: null sorts before any value. `true` when it is settled.
constexpr bool null_settles(const void* a, const void* b, i32& result) {
    result = order(a != nullptr, b != nullptr);
    return !a || !b;
}

template <class T>
T* create_value(loom_handle* handle, u32 domain) {
    static_assert(std::is_trivially_copyable_v<T>);
    void* block = handle->alloc(handle->alloc_ctx, domain, sizeof(T));
    if (!block) {
        loom_store_err(handle, LOOM_ENOMEM);
        return nullptr;
    }
    return static_cast<T*>(std::memset(block, 0, sizeof(T)));
}

/// "name@type:", indented, then what `write_text` appends, and the line's end.
template <class Write>
i32 print_line(const call& c, char* buffer, i32 indent, const char* name, std::string_view type_name, i32 length,
               Write write_text) {
    if (c.pending()) return 0;
    if (!name) return static_cast<i32>(c.fail(LOOM_EINVAL));
    text_writer out(buffer, length);
    out.append_blanks(indent);
    out.append(name);
    out.append('@');
    out.append(type_name);
    out.append(':');
    write_text(out);
    out.append('\n');
    return out.finish_line(c);
}

/// Copies `source` through its wire form; `*out` null makes a new value.
template <class Operations>
void clone_value(const call& c, const typename Operations::type* source, typename Operations::type** out,
                 void* scratch, i32 scratch_size) {
    if (c.pending()) return;
    loom_clear_last_error(c.handle);
    if (!out || !scratch) {
        c.fail(LOOM_ENOENT);
        return;
    }
    const u32 written = Operations::marshal(c, scratch, source, scratch_size);
    if (c.pending()) return;
    if (!*out) *out = create_value<typename Operations::type>(c.handle, c.domain);
    if (!*out) {
        c.fail(LOOM_ENOMEM);
        return;
    }
    Operations::unmarshal(c, scratch, *out, static_cast<i32>(written));
    if (c.pending()) {
        Operations::end(c.handle, c.domain, *out, 1);
        *out = nullptr;
    }
}
} // namespace loom
