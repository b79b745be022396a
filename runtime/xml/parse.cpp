// Making and ending documents, and what is wrong with a text that is none.
#include "runtime/database/error_text.h"
#include "runtime/export.h"
#include "runtime/xml/document.h"

#include <loom_runtime/xml.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

namespace {
using namespace loom;

constexpr unsigned parse_options = pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol |
                                   pugi::parse_wconv_attribute |
                                   pugi::parse_ws_pcdata_single | // a value may be nothing but blanks
                                   pugi::parse_fragment; // text beside the elements is seen, and refused below

loom_xml_document* refuse(loom_xml_error* error, const loom_xml_error& why) {
    if (why.line)
        fail(why.number, "line %u, column %u: %s", why.line, why.column, why.reason);
    else
        fail(why.number, "%s", why.reason);
    if (error) *error = why;
    return nullptr;
}

loom_xml_document* refuse(loom_xml_error* error, u32 number, const char* reason) {
    loom_xml_error why{number, 0, 0, {}};
    std::snprintf(why.reason, sizeof why.reason, "%s", reason);
    return refuse(error, why);
}

/// Refuses a text for what stands `offset` bytes behind its start.
loom_xml_document* refuse_at(loom_xml_error* error, std::string_view text, ptrdiff_t offset, const char* reason) {
    if (offset < 0) return refuse(error, LOOM_EINVAL, reason);
    std::string_view before = text.substr(0, std::min(static_cast<size_t>(offset), text.size()));
    if (before.starts_with("\xef\xbb\xbf")) before.remove_prefix(3); // a byte order mark is not seen
    loom_xml_error why{LOOM_EINVAL, 0, 0, {}};
    why.line = static_cast<u32>(1 + std::count(before.begin(), before.end(), '\n'));
    why.column = static_cast<u32>(before.size() - (before.rfind('\n') + 1) + 1);
    std::snprintf(why.reason, sizeof why.reason, "%s", reason);
    return refuse(error, why);
}

/// Where a node begins in the text: an element at its name's bracket, a text at its first visible character.
ptrdiff_t place_of(pugi::xml_node node, std::string_view text) {
    const ptrdiff_t offset = node.offset_debug();
    if (offset < 0 || node.type() == pugi::node_element) return offset - 1;
    return static_cast<ptrdiff_t>(text.find_first_not_of(" \t\n\r", static_cast<size_t>(offset)));
}

/// The first thing beside the elements that no document may have there, or nothing.
pugi::xml_node stray_text(const pugi::xml_document& tree) {
    for (pugi::xml_node node = tree.first_child(); node; node = node.next_sibling())
        if (node.type() == pugi::node_cdata ||
            (node.type() == pugi::node_pcdata && !trimmed(node.value()).empty()))
            return node;
    return {};
}

/// The first element that is nested too deep, or nothing.
pugi::xml_node too_deep(const pugi::xml_document& tree) {
    u32 depth = 1;
    pugi::xml_node node = tree.first_child();
    while (node) {
        if (depth > LOOM_XML_DEPTH_LIMIT && node.type() == pugi::node_element) return node;
        if (const pugi::xml_node child = node.first_child()) {
            node = child;
            ++depth;
            continue;
        }
        while (node && !node.next_sibling()) {
            node = node.parent();
            --depth;
        }
        if (node) node = node.next_sibling();
    }
    return {};
}

struct close_file {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
} // namespace

LOOM_EXPORT loom_xml_document* loom_xml_parse(const void* text, size_t length, loom_xml_error* error) {
    if (!text || length == 0) return refuse(error, LOOM_EINVAL, "The document is empty");
    std::unique_ptr<loom_xml_document> document(new (std::nothrow) loom_xml_document);
    if (!document) return refuse(error, LOOM_ENOMEM, "Out of memory");

    const std::string_view source(static_cast<const char*>(text), length);
    const pugi::xml_parse_result result = document->tree.load_buffer(text, length, parse_options);
    if (result.status == pugi::status_out_of_memory) return refuse(error, LOOM_ENOMEM, "Out of memory");
    if (!result) return refuse_at(error, source, result.offset, result.description());
    if (const pugi::xml_node stray = stray_text(document->tree))
        return refuse_at(error, source, place_of(stray, source), "Text outside of any element");
    if (!document->tree.document_element())
        return refuse_at(error, source, static_cast<ptrdiff_t>(source.size()), "The document has no element");
    if (const pugi::xml_node deep = too_deep(document->tree))
        return refuse_at(error, source, place_of(deep, source), "Elements are nested too deep");
    return done(document.release());
}

LOOM_EXPORT loom_xml_document* loom_xml_parse_file(const char* file_name, loom_xml_error* error) {
    const auto refuse_file = [&] {
        const int number = errno;
        return refuse(error, static_cast<u32>(number), std::strerror(number));
    };
    const std::unique_ptr<std::FILE, close_file> file(std::fopen(file_name, "rb"));
    if (!file) return refuse_file();
    std::string text;
    char block[1 << 16];
    while (const size_t count = std::fread(block, 1, sizeof block, file.get()))
        text.append(block, count);
    if (std::ferror(file.get())) return refuse_file();
    return loom_xml_parse(text.data(), text.size(), error);
}

LOOM_EXPORT void loom_xml_free(loom_xml_document* document) { delete document; }

LOOM_EXPORT const char* loom_xml_root_name(const loom_xml_document* document) {
    return document->tree.document_element().name();
}

LOOM_EXPORT uint64_t loom_xml_visited(const loom_xml_document* document) { return document->visited(); }
