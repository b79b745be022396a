// Documents for tests: parsed from a text, freed with their holder.
#pragma once

#include <loom_runtime/xml.h>

#include <memory>
#include <string>

using document_pointer = std::unique_ptr<loom_xml_document, void (*)(loom_xml_document*)>;

/// Null when the text is no document.
inline document_pointer parse(const std::string& text, loom_xml_error* error = nullptr) {
    return document_pointer(loom_xml_parse(text.data(), text.size(), error), loom_xml_free);
}
