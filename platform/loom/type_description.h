/* What a bundle's types look like in memory, as data: which blocks an object owns, where its attributes lie and what
 * they are called. The schema compiler writes it into a section of the library that no loader maps; runtimes read it
 * from the library's file and keep it in databases, so that these can be looked through without the bundle. No code
 * of a bundle uses it.
 *
 * The section is a row of parts, one per bundle that was linked into the file, each at a multiple of 8: a
 * loom_types_header and its descriptions, one right behind the other. All numbers are little-endian; places count in
 * bytes from the start of a description. A description is the same in memory, in the file and in databases. */
#ifndef LOOM_TYPE_DESCRIPTION_H
#define LOOM_TYPE_DESCRIPTION_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LOOM_TYPES_SECTION ".loom_types"
#define LOOM_TYPES_MAGIC "LOOMTYPE"
#define LOOM_TYPE_DESCRIPTION_VERSION 1u
/** An index that leads nowhere. */
#define LOOM_TYPE_NONE 0xFFFFFFFFu

typedef struct loom_types_header {
    char magic[8];
    uint32_t version;
    uint32_t count; /**< descriptions */
    uint64_t size;  /**< of the whole part, this header included */
    char module[64];
} loom_types_header;

enum loom_type_kind {
    LOOM_TYPE_RECORD = 1,
    LOOM_TYPE_ENUMERATION = 2,
    LOOM_TYPE_FLAG_SET = 3,
    LOOM_TYPE_TABLE = 4,
    LOOM_TYPE_TABLE_RECORD = 5,
    LOOM_TYPE_MESSAGE = 6
};
/** Flags of a description. */
enum {
    LOOM_TYPE_LIST_ELEMENT = 1, /**< has the three links at LOOM_LIST_LINKS_OFFSET */
    LOOM_TYPE_ORDERED = 2       /**< table and table record: on a ring, by two cells at the end of the record */
};

typedef struct loom_type_description {
    uint32_t version; /**< LOOM_TYPE_DESCRIPTION_VERSION */
    uint32_t size;    /**< of all of it, a multiple of 8 */
    uint8_t luid[16];
    uint8_t definition[16]; /**< hash of the definition */
    uint32_t kind;          /**< enum loom_type_kind */
    uint32_t flags;
    uint32_t name; /**< place of a text with a zero behind it, as all texts */
    uint32_t base_size;
    uint32_t variant_count;
    uint32_t variants; /**< place of as many loom_variant_description */
    uint32_t attribute_count;
    uint32_t attributes; /**< place of as many loom_attribute_description, in the order of the schema */
    uint32_t member_count;
    uint32_t members; /**< place of as many loom_member_description: of enumerations, and bits of flag sets */
    uint32_t reference_count;
    uint32_t references; /**< place of as many luids of 16 bytes: of types that others here speak of */
    uint32_t order;      /**< table: text, exported name of the function that orders its tree; otherwise 0 */
    uint32_t record;     /**< table: reference of its table record; otherwise LOOM_TYPE_NONE */
} loom_type_description;

/** Sizes of one variant. */
typedef struct loom_variant_description {
    uint32_t used_length;
    uint32_t layout_size;
    uint32_t tracking_size;
    uint32_t alloc_slop;
} loom_variant_description;

/** How an attribute lies in its record. */
enum loom_attribute_shape {
    LOOM_SHAPE_PLAIN,          /**< a number, truth value or enumeration in place */
    LOOM_SHAPE_OBJECT,         /**< any other value in place */
    LOOM_SHAPE_FIXED_ARRAY,    /**< `extent` values in place */
    LOOM_SHAPE_VARIABLE_ARRAY, /**< pointer to a block of values; `other` is the attribute with their count */
    LOOM_SHAPE_LENGTH,         /**< such a count */
    LOOM_SHAPE_COUNTED_STRING, /**< pointer to a block of characters; `other` is the attribute with their count */
    LOOM_SHAPE_FIXED_STRING,   /**< `extent` characters in place */
    LOOM_SHAPE_OID,            /**< type word, and a loom_oid behind it; `reference` is the table's luid, if known */
    LOOM_SHAPE_ARM,            /**< pointer to an object of its own, owned whatever the discriminator `other` says */
    LOOM_SHAPE_LIST            /**< loom_list_head of objects of their own */
};
/** What one value of an attribute is. */
enum loom_value_form {
    LOOM_FORM_BYTES,       /**< nothing but its bytes */
    LOOM_FORM_BLOCK,       /**< pointer to a block, null or owned, and a count of bytes behind it */
    LOOM_FORM_ENUMERATION, /**< an object with a 32-bit value at its offset 12 */
    LOOM_FORM_FLAG_SET,    /**< an object with its bits behind the header */
    LOOM_FORM_RECORD,      /**< an object of the type `reference` */
    LOOM_FORM_OID
};

typedef struct loom_attribute_description {
    uint32_t name;      /**< text */
    uint32_t type_name; /**< text: as the schema says it */
    uint8_t shape;      /**< enum loom_attribute_shape */
    uint8_t form;       /**< enum loom_value_form */
    int8_t since;       /**< first variant that has it */
    uint8_t reserved;
    uint32_t offset; /**< from the start of the object */
    uint32_t width;  /**< bytes of one value; of an oid, type word included */
    uint32_t extent; /**< values in place; 1 unless the shape says otherwise */
    uint32_t track;  /**< its first byte in the tracking area; LOOM_TYPE_NONE for counts */
    uint32_t other;  /**< index of another attribute of the type, or LOOM_TYPE_NONE */
    int32_t case_value; /**< arm: value of the discriminator that selects it */
    uint32_t reference; /**< index of the luid of its type, or LOOM_TYPE_NONE */
} loom_attribute_description;

typedef struct loom_member_description {
    uint32_t name; /**< text */
    int32_t value; /**< of an enumeration's member; of a flag the number of its bit */
    int32_t since;
} loom_member_description;

#ifdef __cplusplus
}
static_assert(sizeof(loom_types_header) == 88 && sizeof(loom_type_description) == 96, "storage format");
static_assert(sizeof(loom_attribute_description) == 40 && sizeof(loom_member_description) == 12, "storage format");
#endif
#endif
