// How an operation reads one element of a document into a value: look-up, errors and the message that names the
// failing path, written once for all types.
#pragma once

#include "runtime/xml/document.h"

#include <cstdio>
#include <new>

namespace loom {

/// The element to read, and where the failing path may be told.
struct xml_source {
    const char* path;
    const loom_xml_document* document;
    char* message; ///< may be null
    u32 message_length;
};

/// Reports `number`; every error but an absent element is also told in words.
inline void fail_reading(const call& c, const xml_source& source, u32 number) {
    c.fail(number);
    if (number != LOOM_ENOENT && source.message && source.message_length)
        std::snprintf(source.message, source.message_length, "Failed xpath: %s", source.path ? source.path : "");
}

/// Finds the element and lets `use(const element_text&)` make something of it; that returns 0 or an error number.
template <class Use>
void read_element(const call& c, const xml_source& source, Use use) {
    if (c.pending()) return;
    u32 error = LOOM_EINVAL;
    try {
        pugi::xml_node element;
        if (source.document && source.path) error = source.document->find(source.path, element);
        if (error == 0) {
            const element_text text(element);
            error = text.error() ? text.error() : use(text);
        }
    } catch (const std::bad_alloc&) {
        error = LOOM_ENOMEM;
    }
    if (error) fail_reading(c, source, error);
}
} // namespace loom
