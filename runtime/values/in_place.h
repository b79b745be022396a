// Operations of values that are nothing but their own bytes: scalars, addresses, times. A kind says what its wire
// form and its text are; everything else is the same for all of them and stands here.
#pragma once

#include "runtime/values/common.h"
#include "runtime/xml/read_element.h"

#include <concepts>

namespace loom {

/// What a kind of in-place values says of itself. The wire form is canonical: values that compare equal have the
/// same bytes.
template <class K>
concept in_place_kind = requires(const typename K::type& value, typename K::type& target, u8* bytes, char* text) {
    { K::name } -> std::convertible_to<std::string_view>;
    { K::wire_size(value) } -> std::same_as<u32>;
    {K::write(bytes, value)};
    { K::read(static_cast<const u8*>(bytes), u32{}, target) } -> std::same_as<read_result>;
    { K::hash(value, u32{}) } -> std::same_as<u32>;
    { K::text_limit } -> std::convertible_to<size_t>;
    { K::format(text, value) } -> std::same_as<size_t>;
    { K::parse(std::string_view(), target) } -> std::same_as<bool>;
};

/// Kinds whose text may hold any byte, so that XML needs care.
template <class K>
constexpr bool is_any_text = requires {
    requires K::any_text;
};

/// Hash over the canonical wire form, for kinds with bytes in memory that do not count.
template <class K>
u32 hash_of_wire_form(const typename K::type& value, u32 seed) {
    u8 bytes[K::wire_limit];
    K::write(bytes, value);
    return SuperFastHash(bytes, K::wire_size(value), seed);
}

template <in_place_kind K>
struct in_place {
    using type = typename K::type;
    static constexpr type empty{};

    static u32 len(const type* value) { return K::wire_size(value ? *value : empty); }

    static u32 marshal(const call& c, void* buffer, const type* value, i32 length) {
        if (c.pending()) return 0;
        if (!value) return c.fail(LOOM_ENOENT);
        const u32 size = K::wire_size(*value);
        if (size > room_of(length)) return c.fail(LOOM_EMSGSIZE);
        K::write(static_cast<u8*>(buffer), *value);
        return size;
    }

    static u32 unmarshal(const call& c, const void* buffer, type* value, i32 length) {
        if (c.pending()) return 0;
        type read{};
        const read_result result = K::read(static_cast<const u8*>(buffer), room_of(length), read);
        if (result.error) return c.fail(result.error);
        c.store(value, read);
        return result.size;
    }

    static i32 print(const call& c, char* buffer, i32 indent, const char* name, const type* value, i32 length) {
        if (!c.pending() && !value) return static_cast<i32>(c.fail(LOOM_ENOENT));
        return print_line(c, buffer, indent, name, K::name, length, [&](text_writer& out) {
            char text[K::text_limit];
            const std::string_view view(text, K::format(text, *value));
            if constexpr (is_any_text<K>)
                append_printable(out, view);
            else
                out.append(view);
        });
    }

    static u32 to_xml(const call& c, const char* name, char* buffer, const type* value, i32 length, u8 state) {
        if (c.pending()) return 0;
        if (!value || !name) return c.fail(value ? LOOM_EINVAL : LOOM_ENOENT);
        char text[K::text_limit];
        const std::string_view view(text, K::format(text, *value));
        text_writer out(buffer, length);
        if constexpr (is_any_text<K>) {
            append_text_element(out, name, view, state);
        } else {
            append_open_tag(out, name, state);
            out.append(view);
            append_close_tag(out, name);
        }
        return out.finish_element(c);
    }

    static void from_xml(const call& c, const xml_source& source, type* value) {
        read_element(c, source, [&](const element_text& text) -> u32 {
            if (!value) return LOOM_EINVAL;
            type read{};
            if constexpr (is_any_text<K>) {
                char bytes[K::text_limit];
                if (text.size() > sizeof bytes) return LOOM_EINVAL;
                text.copy_to(bytes);
                if (!K::parse(std::string_view(bytes, text.size()), read)) return LOOM_EINVAL;
            } else {
                if (!K::parse(trimmed(text.raw()), read)) return LOOM_EINVAL;
            }
            c.store(value, read);
            return 0;
        });
    }

    static i32 compare(const type* a, const type* b) {
        i32 result;
        return null_settles(a, b, result) ? result : K::compare(*a, *b);
    }

    static u32 hash(const type* value, u32 seed) { return value ? K::hash(*value, seed) : seed; }

    static type get_value(const call& c, const type* value) {
        if (c.pending()) return empty;
        if (value) return *value;
        c.fail(LOOM_ENOENT);
        return empty;
    }

    static void set(const call& c, type* destination, const type* source) {
        if (c.pending()) return;
        if (source && destination)
            c.store(destination, *source);
        else
            c.fail(source ? LOOM_EINVAL : LOOM_ENOENT);
    }

    static void set_value(const call& c, type* destination, type value) {
        if (c.pending()) return;
        if (destination)
            c.store(destination, value);
        else
            c.fail(LOOM_EINVAL);
    }

    /// A block copy of such a value is a whole copy already.
    static void part_from_source(const call&, type*, const type*) {}

    /// Ends a value; `release` 1 gives its own block back.
    static void end(loom_handle* handle, u32 domain, type* value, u32 release) {
        if (value && release) handle->free(handle->alloc_ctx, domain, value);
    }
};
} // namespace loom
