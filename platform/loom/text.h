/* Text and XML helpers of the runtime: bounded printing, tags, and elements of a parsed document by path. */
#ifndef LOOM_TEXT_H
#define LOOM_TEXT_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A parsed XML 1.0 document; opaque. Paths use `/` between levels and `[n]` positions from 1; `//name` searches
 *  from the root, at any depth. */
typedef struct loom_xml_document loom_xml_document;

/** printf into at most `length` bytes, terminator included. Returns the characters written; a buffer that is too
 *  short sets 90. Does nothing and returns 0 with an error pending. */
int32_t loom_snprintf(loom_handle* handle, uint32_t domain, char* buffer, int32_t length, uint32_t* err,
                      const char* format, ...) __attribute__((format(printf, 6, 7)));
/** Writes `count` blanks (and no terminator); returns their number. A buffer that is too short sets 90. */
int32_t loom_print_space(loom_handle* handle, uint32_t domain, char* buffer, int32_t count, int32_t length,
                         uint32_t* err);

/** `<name>`, or `<name state="N">` when `state` is not 0. Returns the bytes written. */
uint32_t start_tag(loom_handle* handle, uint32_t domain, char* buffer, const char* name, int32_t length,
                   uint8_t state, uint32_t* err);
/** `</name>` */
uint32_t end_tag(loom_handle* handle, uint32_t domain, char* buffer, const char* name, int32_t length,
                 uint32_t* err);
/** The opening tag of a recorded message with the current time as attribute (ISO 8601, UTC). */
uint32_t start_tag_timestamp(loom_handle* handle, uint32_t domain, char* buffer, const char* name, int32_t length,
                             uint32_t* err);
/** Copies a ready-made element text. */
uint32_t xml_enum_print(loom_handle* handle, uint32_t domain, char* buffer, const char* text, int32_t length,
                        uint32_t text_length, uint32_t* err);

/** Text forms of character arrays: `var_string` has a counted length, `null_string` ends at a zero byte or at
 *  its size. */
int32_t var_string_print(loom_handle* handle, uint32_t domain, char* buffer, int32_t depth, const char* name,
                         const char* string, int32_t length, uint32_t string_length, uint32_t* err);
int32_t null_string_print(loom_handle* handle, uint32_t domain, char* buffer, int32_t depth, const char* name,
                          const char* characters, int32_t length, uint32_t size, uint32_t* err);
uint32_t var_string_to_xml(loom_handle* handle, uint32_t domain, const char* name, char* buffer,
                           const char* string, int32_t length, uint32_t string_length, uint8_t state,
                           uint32_t* err);
uint32_t null_string_to_xml(loom_handle* handle, uint32_t domain, const char* name, char* buffer,
                            const char* characters, int32_t length, uint32_t size, uint8_t state, uint32_t* err);
/** Copies the element's value into a block of `size` bytes, terminated when there is room; 2 when it is absent. */
void var_string_from_xml(loom_handle* handle, uint32_t domain, const char* path, const loom_xml_document* document,
                         char* destination, uint32_t size, uint32_t* err, char* message, uint32_t message_length);
void null_string_from_xml(loom_handle* handle, uint32_t domain, const char* path,
                          const loom_xml_document* document, char* characters, uint32_t size, uint32_t* err,
                          char* message, uint32_t message_length);

/** 0 and the number of nodes at the path, or an error number. */
uint32_t xml_get_element_nodecount(const loom_xml_document* document, const char* path, uint32_t* count);
/** 0 with the value in the buffer, terminated, when the element is found; 2 when it is absent; 28 and the needed
 *  length (without terminator) when the buffer does not hold it, as with a null buffer and size 0. */
uint32_t xml_get_element_value(const loom_xml_document* document, const char* path, char* value, uint32_t size,
                               uint32_t* needed);

#ifdef __cplusplus
}
#endif
#endif
