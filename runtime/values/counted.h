// Operations of values that keep counted bytes outside themselves, in memory of the handle's allocator: strings,
// byte strings, opaque texts. Here is who owns which block when, what is announced, and what happens without
// memory.
#pragma once

#include "frame/big_endian.h"
#include "runtime/values/common.h"
#include "runtime/xml/read_element.h"

#include <algorithm>
#include <limits>

namespace loom {

/// What the bytes of a counted value are, for people and for XML.
enum class content {
    text,   ///< characters
    secret, ///< characters that no log may show
    octets, ///< bytes, shown as hexadecimal
};

/// A counted kind: its C type with one pointer member, its name, what its bytes are.
template <class T, auto Bytes, content Content>
struct counted_kind {
    using type = T;
    static constexpr content holds = Content;
    /// Texts keep a zero behind their last character.
    static constexpr u32 terminator = Content == content::octets ? 0 : 1;

    static auto& bytes(T& value) { return value.*Bytes; }
    static const char* bytes(const T& value) { return reinterpret_cast<const char*>(value.*Bytes); }
};

template <class K>
struct counted {
    using type = typename K::type;
    static constexpr u32 length_width = 4;

    /// The value's bytes; a null value and a null block are empty.
    static std::string_view view(const type* value) {
        return value && K::bytes(*value) ? std::string_view(K::bytes(*value), value->length) : std::string_view();
    }

    /// A value too long for any wire form has the greatest length there is.
    static u32 len(const type* value) {
        const size_t size = length_width + view(value).size();
        return static_cast<u32>(std::min<size_t>(size, std::numeric_limits<u32>::max()));
    }

    static u32 marshal(const call& c, void* buffer, const type* value, i32 length) {
        if (c.pending()) return 0;
        if (!value) return c.fail(LOOM_ENOENT);
        const std::string_view bytes = view(value);
        if (length_width + bytes.size() > room_of(length)) return c.fail(LOOM_EMSGSIZE);
        auto* out = static_cast<u8*>(buffer);
        store_big_endian(out, static_cast<u32>(bytes.size()));
        if (!bytes.empty()) std::memcpy(out + length_width, bytes.data(), bytes.size());
        return length_width + static_cast<u32>(bytes.size());
    }

    static u32 unmarshal(const call& c, const void* buffer, type* value, i32 length) {
        if (c.pending()) return 0;
        const u32 room = room_of(length);
        if (room < length_width) return c.fail(LOOM_EMSGSIZE);
        const auto* in = static_cast<const u8*>(buffer);
        const u32 size = load_big_endian<u32>(in);
        // Before anything is allocated: no input makes more memory than it has bytes.
        if (size > room - length_width) return c.fail(LOOM_EMSGSIZE);
        if (const u32 error = assign(c, value, size, in + length_width)) return c.fail(error);
        return length_width + size;
    }

    static i32 print(const call& c, char* buffer, i32 indent, const char* name, const type* value, i32 length) {
        if (!c.pending() && !value) return static_cast<i32>(c.fail(LOOM_ENOENT));
        return print_line(c, buffer, indent, name, K::name, length, [&](text_writer& out) {
            const std::string_view bytes = view(value);
            if constexpr (K::holds == content::octets)
                append_octets(out, bytes);
            else if constexpr (K::holds == content::secret)
                append_size(out, bytes.size());
            else
                append_printable(out, bytes);
        });
    }

    static u32 to_xml(const call& c, const char* name, char* buffer, const type* value, i32 length, u8 state) {
        if (c.pending()) return 0;
        if (!value || !name) return c.fail(value ? LOOM_EINVAL : LOOM_ENOENT);
        text_writer out(buffer, length);
        if constexpr (K::holds == content::octets) {
            append_open_tag(out, name, state);
            append_octets(out, view(value));
            append_close_tag(out, name);
        } else {
            append_text_element(out, name, view(value), state);
        }
        return out.finish_element(c);
    }

    static void from_xml(const call& c, const xml_source& source, type* value) {
        read_element(c, source, [&](const element_text& text) -> u32 {
            if (!value) return LOOM_EINVAL;
            if constexpr (K::holds == content::octets) {
                const std::string_view digits = trimmed(text.raw());
                if (!is_hexadecimal(digits) || digits.size() / 2 > std::numeric_limits<u32>::max())
                    return LOOM_EINVAL;
                return fill(c, value, static_cast<u32>(digits.size() / 2), nullptr,
                            [&](void* block) { decode_hexadecimal(digits, block); });
            } else {
                if (text.size() > std::numeric_limits<u32>::max()) return LOOM_EINVAL;
                return fill(c, value, static_cast<u32>(text.size()), nullptr,
                            [&](void* block) { text.copy_to(block); });
            }
        });
    }

    static i32 compare(const type* a, const type* b) {
        i32 result;
        return null_settles(a, b, result) ? result : sign(view(a).compare(view(b)));
    }

    static u32 hash(const type* value, u32 seed) {
        const std::string_view bytes = view(value);
        return SuperFastHash(bytes.data(), static_cast<u32>(bytes.size()), seed);
    }

    static void set(const call& c, type* destination, const type* source) {
        if (c.pending()) return;
        if (!source || !destination) {
            c.fail(source ? LOOM_EINVAL : LOOM_ENOENT);
            return;
        }
        if (destination == source) return;
        if (const u32 error = assign(c, destination, source->length, K::bytes(*source), K::bytes(*source)))
            c.fail(error);
    }

    static void assign_value(const call& c, type* value, const void* bytes, u32 length) {
        if (c.pending()) return;
        if ((!bytes && length) || !value) {
            c.fail(value ? LOOM_ENOENT : LOOM_EINVAL);
            return;
        }
        if (const u32 error = assign(c, value, length, bytes)) c.fail(error);
    }

    /// After a block copy both values hold one block; the destination gets a block of its own.
    static void part_from_source(const call& c, type* destination, const type* source) {
        set(c, destination, source);
    }

    static void end(loom_handle* handle, u32 domain, type* value, u32 release) {
        if (!value) return;
        if (void* block = K::bytes(*value)) {
            handle->free(handle->alloc_ctx, domain, block);
            if (!release) {
                u32 unused = 0;
                call{handle, domain, &unused}.store(value, type{});
            }
        }
        if (release) handle->free(handle->alloc_ctx, domain, value);
    }

  private:
    static void append_octets(text_writer& out, std::string_view bytes) {
        for (const char byte : bytes)
            out.append_hex(static_cast<u8>(byte));
    }

    static void append_size(text_writer& out, size_t size) {
        out.append('<');
        out.append(std::to_string(size));
        out.append(" bytes>");
    }

    static u32 assign(const call& c, type* value, u32 length, const void* bytes, const void* others = nullptr) {
        return fill(c, value, bytes ? length : 0, others,
                    [&](void* block) { std::memmove(block, bytes, length); });
    }

    /// Gives `value` the `length` bytes that `write` puts into a block. `others` is the block of another value,
    /// which stays alive if `value` holds it as well. Returns 0 or 12; without memory the value stays as it was,
    /// but a shared block is left to its other holder.
    template <class Write>
    static u32 fill(const call& c, type* value, u32 length, const void* others, Write write) {
        auto*& held = K::bytes(*value);
        const bool shared = held && held == others;
        if (held && length && length == value->length && !shared) {
            c.announce(held, length, value);
            write(held);
            return 0;
        }
        type filled{};
        if (length) {
            auto* block =
                static_cast<std::remove_reference_t<decltype(held)>>(c.allocate(size_t{length} + K::terminator));
            if (!block) {
                if (shared) c.store(value, type{});
                return LOOM_ENOMEM;
            }
            write(block);
            if constexpr (K::terminator != 0) block[length] = 0;
            K::bytes(filled) = block;
            filled.length = length;
        }
        if (held && !shared) c.release(held);
        c.store(value, filled);
        return 0;
    }
};
} // namespace loom
