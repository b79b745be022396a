/* The LOOM handle, the object header and the type-information record: the memory forms that a runtime and
 * every bundle share. No operations live here; they stand one family per header beside this one. All headers
 * of this folder are C11 and complete: a runtime can be written against them alone. */
#ifndef LOOM_HANDLE_H
#define LOOM_HANDLE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Error numbers are the system's errno values (POSIX.1), held in 32 bits. 0 is no error. */
enum {
    LOOM_EPERM = 1,
    LOOM_ENOENT = 2,
    LOOM_E2BIG = 7,
    LOOM_EAGAIN = 11,
    LOOM_ENOMEM = 12,
    LOOM_EFAULT = 14,
    LOOM_EEXIST = 17,
    LOOM_EINVAL = 22,
    LOOM_ENOSPC = 28,
    LOOM_ENOSYS = 38,
    LOOM_EIDRM = 43,
    LOOM_EBADE = 52,
    LOOM_EMSGSIZE = 90
};

/** The domain of objects that belong to no memory domain. */
#define LOOM_DOMAIN_NONE 0xFFFFFFFFu

/** The two valid values of loom_sttr_block::sttr_mode. */
#define LOOM_STTR_OFF 0xDDDDu
#define LOOM_STTR_ON 0xEEEEu

/** Target of a set-by-ref that makes a raw oid without taking a reference. */
#define LOOM_OID_RAW_TARGET ((void*)0x7FFFFFFF)

/** Object flags, in the third byte behind the tinfo word. 16 is not used. */
enum {
    OBJ_OID_MAPPED = 1,
    OBJ_EMBEDDED = 2,
    OBJ_NESTED = 4,
    OBJ_STATE_TRACKED = 8,
    OBJ_RA_DATA = 32,
    OBJ_STTR_OFFSET = 64,
    OBJ_OWNS_FIRST_WORD = 128
};
/** The object flags that travel on the wire: OBJ_STATE_TRACKED and OBJ_RA_DATA. */
#define LOOM_WIRE_FLAGS 0x28

/** First word of every type-information record. */
#define LOOM_TYPE_INFO_MAGIC 0xbeeff00du

/** What a peer speaks: the variant of each type, the tables and messages it knows. Filled by the runtime;
 *  a bundle only passes its address on. */
typedef struct loom_domain_state {
    void* peer; /**< runtime's own description of the peer, null: the peer is of this very build */
    uint64_t reserved[3];
} loom_domain_state;

/** State-tracking control block of a handle. */
typedef struct loom_sttr_block {
    uint32_t sttr_mode; /**< LOOM_STTR_ON or LOOM_STTR_OFF; anything else is a corrupted handle */
    uint32_t reserved;
} loom_sttr_block;

/** Database-wide totals of records that wait for their destruction. */
typedef struct loom_pending_totals {
    uint64_t pending_destroy;
} loom_pending_totals;

typedef struct loom_handle loom_handle;

/** The runtime's context, first argument of nearly every operation. Made and owned by the runtime; bundles
 *  read the fields and call the functions. One thread at a time works with a handle. */
struct loom_handle {
    /** Allocates a database-wide block; called only with LOOM_DOMAIN_NONE. Null when there is no room. */
    void* (*shared_alloc)(void* shared_alloc_ctx, uint32_t domain, size_t size);
    /** Allocates object memory of `size` bytes, 8-byte aligned, contents undefined. Null when there is no room. */
    void* (*alloc)(void* alloc_ctx, uint32_t domain, size_t size);
    /** Gives a block of `alloc` back. */
    void (*free)(void* alloc_ctx, uint32_t domain, void* block);
    /** Told immediately before `length` bytes at `address` change; the old contents still stand there. */
    void (*write_hook)(loom_handle* handle, const void* address, size_t length, uint32_t domain,
                       const void* owner);
    /** Told immediately before a statistics counter is raised by one. */
    void (*counter_hook)(void* alloc_ctx, const void* address, uint32_t one, uint32_t domain);
    /** Enters a manifested type-information record under its 32-character luid text. */
    void (*tinfo_insert)(void* tinfo_ctx, uint32_t domain, const char* luid_text, void* tinfo);
    /** Finds a manifested type-information record, or null. */
    void* (*tinfo_lookup)(void* tinfo_ctx, uint32_t domain, const char* luid_text);
    uint32_t db_kind; /**< 0 private, non-zero: type information is manifested, 1: shared database */
    void* alloc_ctx;  /**< first argument of alloc, free and counter_hook; for tables also the arena */
    void* tinfo_ctx;
    void* shared_alloc_ctx;
    uint32_t bundle_active;            /**< non-zero while a message bundle is open */
    uint32_t gc_context;               /**< non-zero while the garbage collector or another privileged path runs */
    char domain_text[64];              /**< name of the current peer domain, zero-terminated */
    uint32_t header_tag;               /**< goes into the header of every marshalled table record and message */
    loom_domain_state domain_state;    /**< the peer domain */
    uint32_t last_error;               /**< 0 or the error number of the latest operation; sticky in _cr chains */
    const char* db_name;               /**< the database's name, prefix of table paths */
    uint32_t suppress_duplicate_trace; /**< non-zero silences the duplicate-key trace of insert */
    uint32_t cr_domain;                /**< the domain of all _cr forms */
    uint32_t cr_active;                /**< 1 only while a _create_cr runs */
    loom_sttr_block* sttr_block;       /**< null: no state tracking */
    void* hd_map; /**< the runtime's side table for objects with a tracking offset or ra data */
    loom_pending_totals* pending_totals;
    uint32_t gc_validation; /**< non-zero turns on loomgc_validate_table_delete */
    uint32_t containment;   /**< non-zero: containment reports are made */
    void* runtime;          /**< the runtime's own; bundles never touch it */
};

/** One variant of a type: sizes and object counters. 40 bytes. */
typedef struct loom_variant_entry {
    uint32_t variant;
    uint32_t used_length;
    uint32_t alloc_slop;
    uint32_t reserved;
    uint64_t objects_created;
    uint64_t objects_destroyed;
    uint64_t reserved_counter;
} loom_variant_entry;

/** The variant table of a type. 16 bytes, writable, since its entries count objects. */
typedef struct loom_variant_table {
    int8_t n_variants;
    loom_variant_entry* entries;
} loom_variant_table;

/** The type-information record: 272 bytes, also a storage format inside databases. */
typedef struct loom_type_info {
    uint32_t magic;     /**< LOOM_TYPE_INFO_MAGIC */
    uint8_t luid[16];   /**< the type's identity */
    char luid_text[33]; /**< the luid as lower-case hexadecimal */
    char name[64];
    char module[64];
    char kind[64]; /**< "type", "enum", "flag", "table", "table_record" or "message" */
    uint8_t padding[3];
    int32_t runtime_slot; /**< -1 */
    uint32_t reserved1;
    loom_variant_table* variant_table;
    uint32_t manifested_kind; /**< 0 in the static record, else the db_kind of the handle that manifested it */
    uint32_t reserved2;
} loom_type_info;

/** What a handle's database holds of a type: the static record's copy and 16 zero bytes. */
#define LOOM_MANIFESTED_TYPE_INFO_SIZE 288u

/** The 11 bytes that every instance begins with; the first attribute follows at its natural alignment. */
typedef struct loom_object {
    loom_type_info* loom_tinfo;
    int8_t loom_variant;
    uint8_t loom_layout_variant;
    uint8_t loom_flags;
} loom_object;
#define LOOM_OBJECT_HEADER_SIZE 11u

/** Reference to a table or record, as loom_handle_to_oid makes it. An object word below 256 has no object
 *  behind it; all zero is empty. */
typedef struct loom_oid {
    uint64_t object;
    uint8_t id[16];
    uint8_t source[16];
} loom_oid;

/** Head of a list attribute; `first` and `last` point at the head itself while the list is empty. */
typedef struct loom_list_head {
    void* first;
    void* last;
    uint32_t count;
} loom_list_head;

/** The links of a list element, at offset 16 of the element. */
typedef struct loom_list_links {
    loom_list_head* owner;
    void* next;
    void* previous;
} loom_list_links;
#define LOOM_LIST_LINKS_OFFSET 16u

/** Header of a marshalled table record or message in memory. 27 bytes on the wire. */
typedef struct loom_message_header {
    uint8_t hdr_magic;       /**< 188 */
    uint8_t hdr_reserved[6]; /**< 0xFF each */
    uint8_t hdr_sttr;
    uint32_t hdr_word;
    uint32_t hdr_length;
} loom_message_header;
#define LOOM_MESSAGE_HEADER_MAGIC 188
#define LOOM_MESSAGE_HEADER_WIRE_SIZE 27
#define LOOM_LUID_SIZE 16

/** Prints like printf; the result is not looked at. */
typedef int (*loom_print_fn)(const char* format, ...);

#ifdef __cplusplus
}
static_assert(sizeof(loom_type_info) == 272 && offsetof(loom_type_info, variant_table) == 256, "storage format");
static_assert(sizeof(loom_variant_entry) == 40 && sizeof(loom_variant_table) == 16, "storage format");
static_assert(sizeof(loom_oid) == 40 && sizeof(loom_message_header) == 16, "storage format");
static_assert(offsetof(loom_object, loom_flags) == 10, "storage format");
#endif

#endif
