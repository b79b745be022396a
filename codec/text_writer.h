// Records as indented text for logs: "name@type: {", one line per field two blanks further in, "}". Nothing reads
// this form back. An instance below its type's newest variant ends without the closing brace, by which a reader of
// logs knows an older record. The closing blanks go to the start of the record's text, where the opening ones
// already stand, and the position moves past as many bytes that nothing wrote: callers clear their buffers.
#pragma once

#include "codec/walk.h"

#include <loom/text.h>

namespace trellis::codec {

/// Cursor in the text.
struct text_writer {
    call c;
    char* buffer;
    i32 position;
    i32 length;
    i32 depth; // of the fields

    char* at() const { return buffer + position; }
    i32 room() const { return length - position; }

    template <class Type>
    void value(const char* name, const typename Type::c_type* v) {
        position += Type::print(c.handle, c.domain, at(), depth, name, v, room(), c.error);
    }
};

/// "name[index]", one index after the other.
template <class A>
class element_name {
  public:
    element_name() { memcpy(text_, A::name, prefix); }
    const char* with_index(u32 index) {
        char reversed[most_behind_name] = {']'};
        u32 size = 1;
        do
            reversed[size++] = static_cast<char>('0' + index % 10);
        while ((index /= 10) != 0);
        reversed[size++] = '[';
        char* end = text_ + prefix;
        while (size != 0)
            *end++ = reversed[--size];
        *end = 0;
        return text_;
    }

  private:
    static constexpr u32 prefix = sizeof A::name - 1;
    static constexpr u32 most_behind_name = 12; // brackets and ten digits
    char text_[prefix + most_behind_name + 1];
};

template <class A>
inline void print_elements(text_writer& w, const value_of<A>* elements, u32 count) {
    element_name<A> name;
    for (u32 i = 0; i < count; ++i)
        w.template value<typename A::type>(name.with_index(i), elements + i);
}

template <class A>
inline void print_attribute(text_writer& w, const holder_of<A>* object) {
    using type = typename A::type;
    if constexpr (is_plain<A> || is_object<A> || is_length<A>) {
        w.template value<type>(A::name, field_of<A>(object));
    } else if constexpr (is_fixed_array<A>) {
        print_elements<A>(w, field_of<A>(object), A::extent);
    } else if constexpr (is_variable_array<A>) {
        print_elements<A>(w, pointer_of<A>(object), count_of<A>(object));
    } else if constexpr (is_counted_string<A>) {
        w.position += var_string_print(w.c.handle, w.c.domain, w.at(), w.depth, A::name, pointer_of<A>(object),
                                       w.room(), count_of<A>(object), w.c.error);
    } else if constexpr (is_fixed_string<A>) {
        w.position += null_string_print(w.c.handle, w.c.domain, w.at(), w.depth, A::name, field_of<A>(object),
                                        w.room(), A::extent, w.c.error);
    } else if constexpr (is_oid<A>) {
        w.position += loom_oid_print(w.c.handle, w.c.domain, w.at(), w.depth, A::name, oid_of<A>(object), w.room(),
                                     w.c.error);
    } else if constexpr (is_arm<A>) {
        const value_of<A>* arm = pointer_of<A>(object);
        if (is_selected<A>(object) && arm != nullptr)
            w.template value<type>(joined_text<A::discriminator::name, text::dot, A::name>, arm);
    } else {
        static_assert(is_list<A>);
        w.template value<types::u_int32>(joined_text<text::list_prefix, A::name, text::count_suffix>,
                                         &list_of<A>(object)->count);
        each_element<A>(object, [&](const value_of<A>* element) {
            w.template value<type>(joined_text<text::list_prefix, A::name>, element);
            return true;
        });
    }
}

/// The characters written, or -1 when the chain's error slot is set.
inline i32 chain_result(const loom_handle* handle, i32 written) { return handle->last_error != 0 ? -1 : written; }

} // namespace trellis::codec

namespace trellis::record {

template <class M>
i32 print(loom_handle* handle, u32 domain, char* buffer, i32 depth, const char* name,
          const typename M::object* object, i32 length, u32* err) {
    const call c{handle, domain, err};
    if (!codec::enter_with_object(c, object)) return 0;
    const i8 variant = direct::instance_variant(object, 1, 0);
    codec::text_writer w{c, buffer, 0, length, depth + 2};
    w.position += loom_print_space(handle, domain, buffer, depth, length, err);
    w.position += loom_snprintf(handle, domain, w.at(), w.room(), err, "%s@%s: {\n", name, M::name);
    if (variant >= 0)
        codec::each_reached<M>(variant, [&]<class A>() {
            codec::print_attribute<A>(w, object);
            return true;
        });
    if (variant < M::newest) return w.position;
    w.position += loom_print_space(handle, domain, buffer, depth, w.room(), err);
    w.position += loom_snprintf(handle, domain, w.at(), w.room(), err, "}\n");
    return w.position;
}

template <class M>
i32 print_cr(loom_handle* handle, const typename M::object* object, char* buffer, i32 length) {
    return codec::chain_result(
        handle, print<M>(handle, handle->cr_domain, buffer, 0, M::name, object, length, &handle->last_error));
}

} // namespace trellis::record
