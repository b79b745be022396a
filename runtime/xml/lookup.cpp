// Elements of a document by path, as generated code asks for them.
#include "runtime/export.h"
#include "runtime/xml/document.h"

#include <new>

LOOM_EXPORT uint32_t xml_get_element_nodecount(const loom_xml_document* document, const char* path,
                                               uint32_t* count) {
    if (!document || !path || !count) return LOOM_EINVAL;
    return document->count(path, *count);
}

LOOM_EXPORT uint32_t xml_get_element_value(const loom_xml_document* document, const char* path, char* value,
                                           uint32_t size, uint32_t* needed) try {
    if (!document || !path) return LOOM_EINVAL;
    pugi::xml_node element;
    if (const uint32_t error = document->find(path, element)) return error;
    const loom::element_text text(element);
    if (text.error()) return text.error();
    if (needed) *needed = static_cast<uint32_t>(text.size());
    if (!value || text.size() >= size) return LOOM_ENOSPC;
    text.copy_to(value);
    value[text.size()] = '\0';
    return 0;
} catch (const std::bad_alloc&) {
    return LOOM_ENOMEM;
}
