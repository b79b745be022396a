// Records as XML: an element around one element per field, array elements as siblings of one name behind the
// element of their count. References are left out, since they mean nothing outside their database. Every step is
// made only while no error is pending; the closing tag always follows. xml_reader.h reads the form back.
#pragma once

#include "codec/text_writer.h"
#include "instance/tracking.h"

namespace trellis::codec {

/// Cursor in the XML text.
struct xml_writer {
    call c;
    char* buffer;
    u32 position;
    i32 length;
    bool tracked; // elements carry their state

    char* at() const { return buffer + position; }
    i32 room() const { return length - static_cast<i32>(position); }

    template <class Type>
    void value(const char* element, const typename Type::c_type* v, u8 state) {
        position += Type::to_xml(c.handle, c.domain, element, at(), v, room(), state, c.error);
    }
};

/// The state that an element carries, through the attribute's own accessor.
template <class A, class... Index>
inline u8 state_of(const xml_writer& w, const holder_of<A>* object, Index... index) {
    return w.tracked ? accessor::state_flag_get<A>(w.c.handle, w.c.domain, object, index..., w.c.error) : u8{0};
}

template <class A>
inline void render_elements(xml_writer& w, const holder_of<A>* object, const value_of<A>* elements, u32 count) {
    for (u32 i = 0; i < count && !w.c.pending(); ++i)
        w.template value<typename A::type>(A::name, elements + i, state_of<A>(w, object, i));
}

template <class A>
inline void render_attribute(xml_writer& w, const holder_of<A>* object) {
    using type = typename A::type;
    if constexpr (is_plain<A> || is_object<A>) {
        w.template value<type>(A::name, field_of<A>(object), state_of<A>(w, object));
    } else if constexpr (is_length<A>) {
        w.template value<type>(A::name, field_of<A>(object), 0);
    } else if constexpr (is_fixed_array<A>) {
        render_elements<A>(w, object, field_of<A>(object), A::extent);
    } else if constexpr (is_variable_array<A>) {
        render_elements<A>(w, object, pointer_of<A>(object), count_of<A>(object));
    } else if constexpr (is_counted_string<A>) {
        const u8 state = state_of<A>(w, object);
        w.position += var_string_to_xml(w.c.handle, w.c.domain, A::name, w.at(), pointer_of<A>(object), w.room(),
                                        count_of<A>(object), state, w.c.error);
    } else if constexpr (is_fixed_string<A>) {
        const u8 state = state_of<A>(w, object);
        w.position += null_string_to_xml(w.c.handle, w.c.domain, A::name, w.at(), field_of<A>(object), w.room(),
                                         A::extent, state, w.c.error);
    } else if constexpr (is_arm<A>) {
        const value_of<A>* arm = pointer_of<A>(object);
        if (is_selected<A>(object) && arm != nullptr)
            w.template value<type>(joined_text<A::discriminator::name, text::hyphen, A::name>, arm,
                                   state_of<A>(w, object));
    } else if constexpr (is_list<A>) {
        const u8 state = state_of<A>(w, object);
        each_element<A>(object, [&](const value_of<A>* element) {
            w.template value<type>(A::name, element, state);
            return !w.c.pending();
        });
    } else {
        needs_nothing<A, attribute_shape::oid>(); // identities mean nothing outside their database
    }
}

} // namespace trellis::codec

namespace trellis::record {

template <class M>
u32 to_xml(loom_handle* handle, u32 domain, const char* name, char* buffer, const typename M::object* object,
           i32 length, u8 state, u32* err) {
    const call c{handle, domain, err};
    if (!codec::enter_with_object(c, object)) return 0;
    const i8 variant = direct::instance_variant(object, 1, 0);
    const tracking_mode mode = c.mode();
    if (mode == tracking_mode::corrupted) diag::die<M, diag::record_says::to_xml_corrupted_handle>();
    codec::xml_writer w{c, buffer, 0, length, mode == tracking_mode::on};
    w.position += start_tag(handle, domain, buffer, name, length, state, err);
    if (variant >= 0)
        codec::each_reached<M>(variant, [&]<class A>() {
            if (!c.pending()) codec::render_attribute<A>(w, object);
            return true;
        });
    w.position += end_tag(handle, domain, w.at(), name, w.room(), err);
    return w.position;
}

template <class M>
i32 toxml_cr(loom_handle* handle, const typename M::object* object, char* buffer, i32 length) {
    const u32 written =
        to_xml<M>(handle, handle->cr_domain, M::name, buffer, object, length, 0, &handle->last_error);
    return codec::chain_result(handle, static_cast<i32>(written));
}

} // namespace trellis::record
