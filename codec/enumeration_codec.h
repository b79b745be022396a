// Binary, text and XML forms of enumerations, with compare and hash. On the wire: variant (1 byte) and internal
// value (4 bytes). Everywhere else the user value and the member's name stand. Making and setting enumerations
// stands in instance/enumeration.h.
#pragma once

#include "codec/binary_length.h"
#include "codec/binary_reader.h"
#include "codec/compare.h"
#include "codec/text_writer.h"
#include "codec/xml_reader.h"
#include "instance/enumeration.h"

namespace trellis::codec {

/// Composes "<name/>", a member's element, where it is needed.
template <u32 Longest>
struct empty_element {
    char text[Longest + 4];
    u32 length = 0;
    explicit empty_element(const char* name) {
        text[length++] = '<';
        while (*name != 0)
            text[length++] = *name++;
        text[length++] = '/';
        text[length++] = '>';
        text[length] = 0;
    }
};

/// Length of the longest name of members or bits.
template <class Named, std::size_t N>
consteval u32 longest_name(const Named (&all)[N]) {
    u32 longest = 0;
    for (const Named& one : all) {
        u32 length = 0;
        if (one.name != nullptr)
            while (one.name[length] != 0)
                ++length;
        if (length > longest) longest = length;
    }
    return longest;
}

/// Asks for the element of a name below `path` and stores the result as the error. True when it is there, or when
/// the runtime clears the error that it is told of; absence is cleared, another error is named in the message and
/// stays.
inline bool find_named_element(const xml_reader& r, const char* name) {
    const call& c = r.c;
    xml_path path;
    path.below(r.parent, name);
    char value[128];
    u32 needed = 0;
    *c.error =
        path.cut ? u32{LOOM_ENOENT} : xml_get_element_value(r.document, path.text, value, sizeof value, &needed);
    if (*c.error == 0) return true;
    loom_store_err(c.handle, *c.error);
    if (*c.error == 0) return true;
    if (*c.error == LOOM_ENOENT)
        *c.error = 0;
    else if (r.message != nullptr)
        snprintf(r.message, r.message_length, "Failed xpath: %s", r.parent);
    return false;
}

/// Opens the element or line of a compact value: "name@type:" behind the indentation.
inline i32 print_label(const call& c, char* buffer, i32 depth, const char* name, const char* type, i32 length) {
    const i32 blanks = loom_print_space(c.handle, c.domain, buffer, depth, length, c.error);
    return blanks +
           loom_snprintf(c.handle, c.domain, buffer + blanks, length - blanks, c.error, "%s@%s:", name, type);
}

namespace text {
inline constexpr char out_of_range[] = " value out of range";
}

} // namespace trellis::codec

namespace trellis::enumeration {

template <class E>
u32 len(loom_handle*, u32, const typename E::object*) {
    return wire::enumeration_size;
}
template <class E>
u32 len_cr(loom_handle* handle) {
    return handle->last_error != 0 ? 0 : wire::enumeration_size;
}

template <class E>
u32 marshal(loom_handle* handle, u32 domain, void* buffer, const typename E::object* object, i32 length,
            u32* err) {
    const call c{handle, domain, err};
    if (codec::is_plain_case<E>(c, object, length, wire::enumeration_size) &&
        codec::put_part<E>(static_cast<u8*>(buffer), object)) {
        c.clear_last_error();
        return wire::enumeration_size;
    }
    if (!codec::enter_with_room(c, object, length)) return 0;
    bool cut_down;
    const i8 variant = codec::variant_to_write<E>(c, direct::instance_variant(object, 0, 1), true, &cut_down);
    codec::writer w{c, static_cast<u8*>(buffer), 0, length, cut_down};
    codec::write_variant(w, variant);
    const u32 internal = static_cast<u32>(map_to_internal_value<E>(object->value));
    w.template scalars<types::u_int32>(&internal, 1);
    codec::bring_back_epoch_error(w);
    return w.position;
}

template <class E>
u32 unmarshal(loom_handle* handle, u32 domain, const void* buffer, typename E::object* object, i32 length,
              u32 existing, u32* err) {
    const call c{handle, domain, err};
    if (codec::is_plain_case(c, length, wire::enumeration_size) &&
        codec::take_part<E>(static_cast<const u8*>(buffer), object)) {
        c.clear_last_error();
        return wire::enumeration_size;
    }
    if (!codec::enter_with_room(c, length)) return 0;
    loom_object* header = header_of(object);
    codec::reader r = codec::compact_reader(c, buffer, length, existing);
    const i8 variant = codec::read_variant(r, header);
    c.store<i8>(&header->loom_variant, variant, object);
    codec::store_type_info<E>(c, &header->loom_tinfo, object);
    u32 internal = 0;
    r.template scalars<types::u_int32>(&internal, 1);
    if (!c.pending()) c.store<i32>(&object->value, user_value_of_internal<E>(internal), object);
    return r.position;
}

/// The member's name; null for a value that is no member.
template <class E>
inline const char* name_of_value(i32 user_value) {
    for (const enumeration_member& member : E::members)
        if (member.value == user_value) return member.name;
    return nullptr;
}

template <class E>
i32 print(loom_handle* handle, u32 domain, char* buffer, i32 depth, const char* name,
          const typename E::object* object, i32 length, u32* err) {
    const call c{handle, domain, err};
    if (!codec::enter_with_object(c, object)) return 0;
    i32 position = codec::print_label(c, buffer, depth, name, E::name, length);
    const char* member = name_of_value<E>(object->value);
    position +=
        loom_snprintf(handle, domain, buffer + position, length - position, err, "%s%s",
                      member == nullptr ? "Enum value out of range" : member, member == nullptr ? "" : "\n");
    return position;
}

template <class E>
i32 print_cr(loom_handle* handle, const typename E::object* object, char* buffer, i32 length) {
    return codec::chain_result(
        handle, print<E>(handle, handle->cr_domain, buffer, 0, E::name, object, length, &handle->last_error));
}

/// The state of the field that holds the value is not shown.
template <class E>
u32 to_xml(loom_handle* handle, u32 domain, const char* name, char* buffer, const typename E::object* object,
           i32 length, u8, u32* err) {
    const call c{handle, domain, err};
    if (!codec::enter_with_object(c, object)) return 0;
    u32 position = start_tag(handle, domain, buffer, name, length, 0, err);
    constexpr u32 longest = codec::longest_name(E::members);
    constexpr u32 unknown = codec::joined<E::name, codec::text::out_of_range>::length;
    const char* member = name_of_value<E>(object->value);
    const codec::empty_element<(longest > unknown ? longest : unknown)> element(
        member != nullptr ? member : codec::joined_text<E::name, codec::text::out_of_range>);
    position += xml_enum_print(handle, domain, buffer + position, element.text,
                               length - static_cast<i32>(position), element.length, err);
    position += end_tag(handle, domain, buffer + position, name, length - static_cast<i32>(position), err);
    return position;
}

template <class E>
i32 toxml_cr(loom_handle* handle, const typename E::object* object, char* buffer, i32 length) {
    const u32 written =
        to_xml<E>(handle, handle->cr_domain, E::name, buffer, object, length, 0, &handle->last_error);
    return codec::chain_result(handle, static_cast<i32>(written));
}

/// Members are tried in the order of their declaration; when none has an element the value stays.
template <class E>
void from_xml(loom_handle* handle, u32 domain, const char* path, const loom_xml_document* document,
              typename E::object* object, u32* err, char* message, u32 message_length) {
    const call c{handle, domain, err};
    if (!c.enter()) return;
    const codec::xml_reader r{c, path, document, message, message_length};
    for (const enumeration_member& member : E::members) {
        if (codec::find_named_element(r, member.name)) {
            c.store<i32>(&object->value, member.value, object);
            return;
        }
        if (c.pending()) return;
    }
}

/// The difference of the user values, wrapping.
template <class E>
i32 compare(const typename E::object* a, const typename E::object* b) {
    if (a == nullptr || b == nullptr) return codec::order_of_null(a, b);
    return static_cast<i32>(static_cast<u32>(a->value) - static_cast<u32>(b->value));
}

template <class E>
u32 hash(const typename E::object* object, u32 seed) {
    return object == nullptr ? seed : SuperFastHash(&object->value, sizeof object->value, seed);
}

} // namespace trellis::enumeration
