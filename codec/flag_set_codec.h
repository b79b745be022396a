// Binary, text and XML forms of flag sets, with compare and hash. On the wire: variant (1 byte), jump (4 bytes)
// and the bit bytes of that variant as they lie in memory. Making flag sets and setting bits stands in
// instance/flag_set.h.
#pragma once

#include "codec/enumeration_codec.h"
#include "instance/flag_set.h"

namespace trellis::flag_set {

using codec::bit_bytes_of;
using codec::bit_bytes_on_wire;

/// Variant, jump and bits, of the newest variant.
template <class F>
constexpr u32 wire_size = codec::part_size<F>;

template <class F>
u32 len(loom_handle*, u32, const typename F::object*) {
    return wire_size<F>;
}
template <class F>
u32 len_cr(loom_handle* handle) {
    return handle->last_error != 0 ? 0 : wire_size<F>;
}

template <class F>
u32 marshal(loom_handle* handle, u32 domain, void* buffer, const typename F::object* object, i32 length,
            u32* err) {
    const call c{handle, domain, err};
    if (codec::is_plain_case<F>(c, object, length, wire_size<F>) &&
        codec::put_part<F>(static_cast<u8*>(buffer), object)) {
        c.clear_last_error();
        return wire_size<F>;
    }
    if (!codec::enter_with_room(c, object, length)) return 0;
    bool cut_down;
    const i8 variant = codec::variant_to_write<F>(c, direct::instance_variant(object, 0, 1), true, &cut_down);
    codec::writer w{c, static_cast<u8*>(buffer), 0, length, cut_down};
    codec::write_variant(w, variant);
    const codec::jump_writer jump(w);
    if (!c.pending()) {
        const u32 size = bit_bytes_on_wire<F>(variant);
        if (w.room() < static_cast<i32>(size)) {
            c.fail(LOOM_EMSGSIZE);
        } else {
            memcpy(w.at(), object->bits, size);
            w.position += size;
        }
    }
    jump.close(w);
    codec::bring_back_epoch_error(w);
    return w.position;
}

/// The bits are counted as read whatever remains: only the writer tests the room. Bits behind the buffer's end are
/// left as they are.
template <class F>
u32 unmarshal(loom_handle* handle, u32 domain, const void* buffer, typename F::object* object, i32 length,
              u32 existing, u32* err) {
    const call c{handle, domain, err};
    if (codec::is_plain_case(c, length, wire_size<F>) &&
        codec::take_part<F>(static_cast<const u8*>(buffer), object)) {
        c.clear_last_error();
        return wire_size<F>;
    }
    if (!codec::enter_with_room(c, length)) return 0;
    loom_object* header = header_of(object);
    codec::reader r = codec::compact_reader(c, buffer, length, existing);
    const i8 variant = codec::read_variant(r, header);
    const u32 base = r.position;
    loom_wire_jump jump = 0;
    r.frame_field(&jump, _loom_variant_jump_unmarshal);
    c.store<i8>(&header->loom_variant, variant, object);
    codec::store_type_info<F>(c, direct::type_info_word(object), object);

    const u32 size = bit_bytes_on_wire<F>(variant);
    c.announce(object->bits, size, object);
    memcpy(object->bits, r.at(), r.fitting(size));
    r.position += size;

    const u32 reached = r.position;
    if (codec::jump_ahead(&r.position, base, jump)) diag::say<F, says::unmarshal_jump_skips>(reached, base, jump);
    return r.position;
}

/// Calls body(index, name) for each bit that is to be shown; the name is null for a bit without one. A missing
/// instance shows "ERR" for every bit that its read refuses.
template <class F, class Body>
inline void each_shown_bit(const call& c, const typename F::object* object, Body&& body) {
    for (u32 bit = 0; bit < bit_count<F>; ++bit) {
        if (object == nullptr) {
            u32 refused = 0;
            loom_store_epoch_err(c.handle, LOOM_EIDRM, &refused);
            if (refused != 0) body("ERR", true);
        } else if (bit_of<F>(object, bit) != 0) {
            body(F::bits[bit].name, false);
        }
    }
}

template <class F>
i32 print(loom_handle* handle, u32 domain, char* buffer, i32 depth, const char* name,
          const typename F::object* object, i32 length, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return 0;
    i32 position = codec::print_label(c, buffer, depth, name, F::name, length);
    each_shown_bit<F>(c, object, [&](const char* bit, bool) {
        position += loom_snprintf(handle, domain, buffer + position, length - position, err, "%s ",
                                  bit == nullptr ? "UNKNOWN" : bit);
    });
    position += loom_snprintf(handle, domain, buffer + position, length - position, err, "\n");
    return position;
}

template <class F>
i32 print_cr(loom_handle* handle, const typename F::object* object, char* buffer, i32 length) {
    return codec::chain_result(
        handle, print<F>(handle, handle->cr_domain, buffer, 0, F::name, object, length, &handle->last_error));
}

/// The state of the field that holds the set is not shown.
template <class F>
u32 to_xml(loom_handle* handle, u32 domain, const char* name, char* buffer, const typename F::object* object,
           i32 length, u8, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return 0;
    u32 position = start_tag(handle, domain, buffer, name, length, 0, err);
    const auto append = [&](const char* text, u32 size) {
        position += xml_enum_print(handle, domain, buffer + position, text, length - static_cast<i32>(position),
                                   size, err);
    };
    each_shown_bit<F>(c, object, [&](const char* bit, bool refused) {
        static constexpr char failed[] = "<error>ERR</error>", unknown[] = "<error>UNKNOWN</error>";
        if (refused) {
            append(failed, sizeof failed - 1);
        } else if (bit == nullptr) {
            append(unknown, sizeof unknown - 1);
        } else {
            const codec::empty_element<codec::longest_name(F::bits)> element(bit);
            append(element.text, element.length);
        }
    });
    position += end_tag(handle, domain, buffer + position, name, length - static_cast<i32>(position), err);
    return position;
}

template <class F>
i32 toxml_cr(loom_handle* handle, const typename F::object* object, char* buffer, i32 length) {
    const u32 written =
        to_xml<F>(handle, handle->cr_domain, F::name, buffer, object, length, 0, &handle->last_error);
    return codec::chain_result(handle, static_cast<i32>(written));
}

/// Sets the bits that have an element; the others stay.
template <class F>
void from_xml(loom_handle* handle, u32 domain, const char* path, const loom_xml_document* document,
              typename F::object* object, u32* err, char* message, u32 message_length) {
    const call c{handle, domain, err};
    if (!c.enter()) return;
    const codec::xml_reader r{c, path, document, message, message_length};
    for (u32 bit = 0; bit < bit_count<F>; ++bit) {
        if (F::bits[bit].name == nullptr) continue;
        if (!codec::find_named_element(r, F::bits[bit].name)) {
            if (c.pending()) return;
            continue;
        }
        c.clear_last_error();
        adjust<F>(c, object);
        if (object != nullptr) store_bit<F>(c, object, bit, true);
        r.absence_forgiven();
    }
}

template <class F>
i32 compare(const typename F::object* a, const typename F::object* b) {
    if (a == nullptr || b == nullptr) return codec::order_of_null(a, b);
    return memcmp(a->bits, b->bits, bit_bytes_of<F>);
}

template <class F>
u32 hash(const typename F::object* object, u32 seed) {
    return object == nullptr ? seed : SuperFastHash(object->bits, bit_bytes_of<F>, seed);
}

} // namespace trellis::flag_set
