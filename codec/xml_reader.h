// Records from a parsed XML document, which is asked for one element at a time by its path. Fields without an
// element keep what the instance holds; unknown elements are never asked for. Arrays are filled from index 0 and
// lists are appended to, so this is meant for new instances. Nothing is undone when an element cannot be read.
#pragma once

#include "codec/walk.h"
#include "instance/lists.h"
#include "instance/repeated.h"

#include <loom/text.h>

#include <stdio.h>

namespace trellis::codec {

/// The path of an element below another; a longer path is cut, and its element counts as absent.
struct xml_path {
    char text[256];
    bool cut = false; // names nothing, or something else
    void below(const char* parent, const char* name) {
        keep_whether_cut(snprintf(text, sizeof text, "%s/%s", parent, name));
    }
    /// Positions count from 1.
    void below(const char* parent, const char* name, u32 position) {
        keep_whether_cut(snprintf(text, sizeof text, "%s/%s[%u]", parent, name, position));
    }
    void keep_whether_cut(int length) { cut = length >= static_cast<int>(sizeof text); }
};

/// What all reading steps of one record share.
struct xml_reader {
    call c;
    const char* parent; // path of the record's element
    const loom_xml_document* document;
    char* message;
    u32 message_length;

    template <class Type>
    void value(const xml_path& path, typename Type::c_type* v) const {
        if (path.cut)
            c.fail(LOOM_ENOENT);
        else
            Type::from_xml(c.handle, c.domain, path.text, document, v, c.error, message, message_length);
    }
    /// 0 when the element is there, 2 when it is absent, or the error of the search.
    u32 search(const char* path) const {
        u32 count = 0;
        const u32 error = xml_get_element_nodecount(document, path, &count);
        return error == 0 && count == 0 ? u32{LOOM_ENOENT} : error;
    }
    /// An absent element is no error: cleared. False when another error is pending.
    bool absence_forgiven() const {
        if (*c.error == LOOM_ENOENT) *c.error = 0;
        return !c.pending();
    }
};

/// Reads the element at `path`; enumerations and flag sets, which take an absent element for no error, are asked
/// about it first. Absence is error 2.
template <class A>
inline void read_repeated(const xml_reader& r, const xml_path& path, value_of<A>* value) {
    constexpr value_category category = A::type::category;
    if (r.c.pending()) return;
    if constexpr (is_any_enumeration(category) || category == value_category::flag_set)
        if (const u32 error = path.cut ? 0 : r.search(path.text); error != 0) return r.c.fail(error);
    r.template value<typename A::type>(path, value);
}

/// Each element is read into a temporary and moved into the array, which grows by it.
template <class A>
inline void parse_variable_array(const xml_reader& r, holder_of<A>* object) {
    using type = typename A::type;
    const call& c = r.c;
    xml_path path;
    for (u32 i = 0;; ++i) {
        value_of<A>* element = type::create(c.handle, c.domain);
        if (element == nullptr) {
            c.fail(LOOM_ENOMEM);
            return;
        }
        path.below(r.parent, A::name, i + 1);
        read_repeated<A>(r, path, element);
        const bool found = !c.pending();
        if (found) accessor::set<A>(c.handle, c.domain, object, i, element, c.error);
        type::destroy(c.handle, c.domain, element);
        if (!found) return;
    }
}

template <class A>
inline void parse_fixed_array(const xml_reader& r, holder_of<A>* object) {
    xml_path path;
    for (u32 i = 0; i < A::extent && !r.c.pending(); ++i) {
        path.below(r.parent, A::name, i + 1);
        read_repeated<A>(r, path, field_of<A>(object) + i);
    }
}

/// The text goes through a block of its own and the attribute's setter, which cuts the length to its width.
template <class A>
inline void parse_counted_string(const xml_reader& r, holder_of<A>* object) {
    const call& c = r.c;
    xml_path path;
    path.below(r.parent, A::name);
    u32 needed = 0;
    *c.error = path.cut ? u32{LOOM_ENOENT} : xml_get_element_value(r.document, path.text, nullptr, 0, &needed);
    if (c.pending()) loom_store_err(c.handle, *c.error);
    if (*c.error != LOOM_ENOSPC) return;
    *c.error = 0;
    char* text = static_cast<char*>(c.allocate(size_t{needed} + 1));
    if (text == nullptr) {
        c.fail(LOOM_ENOMEM);
        return;
    }
    var_string_from_xml(c.handle, c.domain, path.text, r.document, text, needed + 1, c.error, r.message,
                        r.message_length);
    if (!c.pending()) {
        const auto length = static_cast<typename A::length::type::c_type>(needed);
        accessor::set<A>(c.handle, c.domain, object, text, static_cast<u32>(length), c.error);
    }
    c.release(text);
}

template <class A>
inline void parse_list(const xml_reader& r, holder_of<A>* object) {
    const call& c = r.c;
    // A list looks for its holder's element by itself.
    if (r.search(r.parent) != 0) return c.fail(LOOM_ENOENT);
    A::model::bundle::trace_init();
    xml_path path;
    for (u32 i = 1;; ++i) {
        value_of<A>* element = A::type::create_internal(c.handle, c.domain);
        if (element == nullptr) {
            c.fail(LOOM_ENOMEM);
            return;
        }
        path.below(r.parent, A::name, i);
        read_repeated<A>(r, path, element);
        const bool found = !c.pending();
        if (found) accessor::set_last<A>(c.handle, c.domain, object, element, c.error);
        // Linking can report an error and link all the same: the element's owner tells whose it is.
        if (links_of(element)->owner == nullptr) A::type::destroy(c.handle, c.domain, element);
        if (!found) return;
    }
}

/// A selected arm gets a new value; an old one is overwritten and not ended.
template <class A>
inline void parse_arm(const xml_reader& r, holder_of<A>* object) {
    const call& c = r.c;
    if (!is_selected<A>(object)) return;
    value_of<A>*& arm = pointer_of<A>(object);
    if constexpr (A::type::category != value_category::record) umber_set_callsite_tag(A::at.trace);
    c.announce(&arm, sizeof arm, object);
    arm = A::type::create(c.handle, c.domain);
    if (arm == nullptr) {
        c.fail(LOOM_ENOMEM);
        return;
    }
    xml_path path;
    path.below(r.parent, joined_text<A::discriminator::name, text::hyphen, A::name>);
    r.template value<typename A::type>(path, arm);
}

/// Reads one attribute. False when the record's reading ends.
template <class A>
inline bool parse_attribute(const xml_reader& r, holder_of<A>* object) {
    if constexpr (is_length<A> || is_oid<A>) {
        return true; // a count follows from the elements; a reference means nothing here
    } else if constexpr (is_plain<A> || is_object<A>) {
        xml_path path;
        path.below(r.parent, A::name);
        r.template value<typename A::type>(path, field_of<A>(object));
    } else if constexpr (is_fixed_string<A>) {
        xml_path path;
        path.below(r.parent, A::name);
        if (path.cut) return true;
        null_string_from_xml(r.c.handle, r.c.domain, path.text, r.document, field_of<A>(object), A::extent,
                             r.c.error, r.message, r.message_length);
    } else if constexpr (is_fixed_array<A>) {
        parse_fixed_array<A>(r, object);
    } else if constexpr (is_variable_array<A>) {
        parse_variable_array<A>(r, object);
    } else if constexpr (is_counted_string<A>) {
        parse_counted_string<A>(r, object);
    } else if constexpr (is_arm<A>) {
        parse_arm<A>(r, object);
    } else {
        static_assert(is_list<A>);
        parse_list<A>(r, object);
    }
    return r.absence_forgiven();
}

} // namespace trellis::codec

namespace trellis::record {

template <class M>
void from_xml(loom_handle* handle, u32 domain, const char* path, const loom_xml_document* document,
              typename M::object* object, u32* err, char* message, u32 message_length) {
    const call c{handle, domain, err};
    if (!c.enter()) return;
    const codec::xml_reader r{c, path, document, message, message_length};
    // Whatever keeps the record's own element from being found, it counts as absent.
    if (r.search(path) != 0) return c.fail(LOOM_ENOENT);
    all_attributes(typename M::attributes{},
                   [&]<class A>() { return has_room_for<A>(object) && codec::parse_attribute<A>(r, object); });
}

} // namespace trellis::record
