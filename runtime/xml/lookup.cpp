// Elements of a document by path, as generated code asks for them.
#include "runtime/database/error_text.h"
#include "runtime/export.h"
#include "runtime/xml/document.h"

#include <new>

namespace {
/// Most of these numbers mean that an element is absent: words are made only for those who ask.
uint32_t told(uint32_t error) {
    if (error) loom::remember_reported_error(error, false);
    return error;
}
} // namespace

LOOM_EXPORT uint32_t xml_get_element_nodecount(const loom_xml_document* document, const char* path,
                                               uint32_t* count) {
    if (!document || !path || !count) return told(LOOM_EINVAL);
    return told(document->count(path, *count));
}

LOOM_EXPORT uint32_t xml_get_element_value(const loom_xml_document* document, const char* path, char* value,
                                           uint32_t size, uint32_t* needed) try {
    if (!document || !path) return told(LOOM_EINVAL);
    pugi::xml_node element;
    if (const uint32_t error = document->find(path, element)) return told(error);
    const loom::element_text text(element);
    if (text.error()) return told(text.error());
    if (needed) *needed = static_cast<uint32_t>(text.size());
    if (!value || text.size() >= size) return told(LOOM_ENOSPC);
    text.copy_to(value);
    value[text.size()] = '\0';
    return 0;
} catch (const std::bad_alloc&) {
    return told(LOOM_ENOMEM);
}
