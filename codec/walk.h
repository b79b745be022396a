// What all codecs share: the walk over a record's attributes as far as an instance's variant reaches, the choice
// of a union's arms, the elements of a list, and names put together while the library is compiled. The forms
// themselves stand in the headers beside this one.
#pragma once

#include "instance/object_access.h"

#include <utility>

namespace trellis::codec {

template <class Body, class... A, std::size_t... I>
[[gnu::always_inline]] inline bool walk_reached(type_list<A...>, std::index_sequence<I...>, i32 variant,
                                                Body&& body) {
    // Attributes stand in the order of their variants: one test where a variant begins is enough.
    constexpr i8 before[] = {0, A::at.since...};
    return (((before[I] == A::at.since || variant >= A::at.since) && body.template operator()<A>()) && ...);
}

/// Entry of an operation that shows or writes an instance: false when an earlier error stops it, or, with error 2,
/// when there is none.
inline bool enter_with_object(const call& c, const void* object) {
    if (!c.enter()) return false;
    if (object != nullptr) return true;
    c.fail(LOOM_ENOENT);
    return false;
}

/// The attribute's value in place, in an object that is known to be there.
template <class A>
inline value_of<A>* field_of(holder_of<A>* object) {
    return at_offset<value_of<A>>(object, A::at.offset);
}
template <class A>
inline const value_of<A>* field_of(const holder_of<A>* object) {
    return at_offset<value_of<A>>(object, A::at.offset);
}

/// Calls `body.template operator()<A>()` for the attributes up to `variant` (not negative), in order, as long as
/// it returns true.
template <class Model, class Body>
[[gnu::always_inline]] inline void each_reached(i32 variant, Body&& body) {
    using attributes = typename Model::attributes;
    walk_reached(attributes{}, std::make_index_sequence<attributes::size>{}, variant, body);
}

/// The enumeration attribute that chooses among arms.
template <class A, class... Other>
constexpr bool selects_any(type_list<Other...>) {
    return ([] {
        if constexpr (is_arm<Other>)
            return std::is_same_v<typename Other::discriminator, A>;
        else
            return false;
    }() || ...);
}
template <class A>
concept is_discriminator = is_plain<A> && selects_any<A>(typename A::model::attributes{});

/// True when the instance's discriminator stands on the arm's case.
template <class A>
inline bool is_selected(const holder_of<A>* object) {
    return field_of<typename A::discriminator>(object)->value == A::selected_by;
}

/// Elements of one byte travel, compare and hash as one block.
template <class A>
concept is_byte_array = is_array<A> && std::is_same_v<typename A::type, types::u_int8>;
/// Integers compare and hash as one block: memory form and value agree. They do not in floating point.
template <class A>
concept is_integer_array =
    is_array<A> && A::type::category == value_category::scalar&& std::is_integral_v<value_of<A>>;

/// Calls `body(element)` for the elements of a list in order, as long as it returns true.
template <class A, class Body>
inline bool each_element(const holder_of<A>* object, Body&& body) {
    const loom_list_head* head = list_of<A>(object);
    for (void* element = first_of(head); element != nullptr; element = next_of(head, element))
        if (!body(static_cast<value_of<A>*>(element))) return false;
    return true;
}

/// Several names as one text, made by the compiler.
template <const auto&... Part>
struct joined {
    static constexpr u32 length = (0 + ... + static_cast<u32>(sizeof(Part) - 1));
    struct storage {
        char text[length + 1];
    };
    static constexpr storage join() {
        storage all{};
        u32 at = 0;
        const auto append = [&](const char* part, u32 size) {
            for (u32 i = 0; i < size; ++i)
                all.text[at++] = part[i];
        };
        (append(Part, static_cast<u32>(sizeof(Part) - 1)), ...);
        return all;
    }
    static constexpr storage value = join();
};
template <const auto&... Part>
inline constexpr const char* joined_text = joined<Part...>::value.text;

namespace text {
inline constexpr char dot[] = ".";
inline constexpr char hyphen[] = "-";
inline constexpr char list_prefix[] = "list ";
inline constexpr char count_suffix[] = " count";
} // namespace text

} // namespace trellis::codec
