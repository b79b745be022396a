/* XML documents for the `_from_xml` operations: made here, read by path through <loom/text.h>.
 *
 * A document is read by one thread at a time, since looking elements up builds indexes inside it; different
 * documents are independent. Text is kept as UTF-8. Of a document type declaration nothing is used and no entity
 * beyond the five of XML is replaced. A file of several elements in a row (a recording) is a document as well: its
 * paths begin at any of them. Elements may be nested up to LOOM_XML_DEPTH_LIMIT deep. */
#ifndef LOOM_RUNTIME_XML_H
#define LOOM_RUNTIME_XML_H

#include <loom/text.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LOOM_XML_DEPTH_LIMIT 10000u

/** Why a text is no document. */
typedef struct loom_xml_error {
    uint32_t number;  /**< errno number: 22 for a text that is not well-formed, 12, or what the file system says */
    uint32_t line;    /**< from 1; 0 when the failure has no place in the text */
    uint32_t column;  /**< in bytes, from 1 */
    char reason[120]; /**< zero-terminated, for people */
} loom_xml_error;

/** Parses `length` bytes at `text`, which may go away afterwards. Returns the document, to be ended with
 *  loom_xml_free; or null, with the reason in `*error` (which may be null). */
loom_xml_document* loom_xml_parse(const void* text, size_t length, loom_xml_error* error);
/** The same for a file's contents. */
loom_xml_document* loom_xml_parse_file(const char* file_name, loom_xml_error* error);
/** Ends a document; null is allowed. */
void loom_xml_free(loom_xml_document* document);

/** Name of the first element, valid as long as the document. */
const char* loom_xml_root_name(const loom_xml_document* document);
/** Elements looked at by all look-ups so far: what reading the document by paths has cost. */
uint64_t loom_xml_visited(const loom_xml_document* document);

#ifdef __cplusplus
}
#endif
#endif
