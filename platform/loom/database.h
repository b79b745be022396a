/* The database layer as tables see it: table list, TOC, tree, replication, garbage collection, tenants, and
 * the arena that all of it lies in. Bundles call it by name; applications need it only to walk records and
 * tables by hand. Opening databases and their sections stand in <loom_runtime/runtime.h>.
 *
 * Guarantees
 *   - Every store of the runtime into a database is announced to its arena first. So what happens between
 *     begin and commit of a write section is there whole or not at all, whoever dies in between, and abort
 *     puts back each byte.
 *   - The structures hold addresses of the database alone, and each process has it at the same address: a
 *     table or record that was found may be kept for as long as it lives, and means the same to another
 *     process.
 *   - A search (e_avl_search, _get_, loomdb_..._get) stores nothing and allocates nothing, and a tree of n
 *     nodes is at most 1.44 log2(n) deep. Inserts and deletes of nodes allocate nothing either.
 *   - Functions that make something make all of it, or nothing and set an error.
 *
 * Caveats
 *   - Nothing proves a pointer. A record that was ended, a table that was freed, an object of an aborted
 *     section: their addresses mean something else by then.
 *   - A store that is not announced (arbor_set_range, or the handle's write hook) is not undone by an abort,
 *     is missing behind a crash of the machine, and is what the debug arena (<loom_runtime/arena.h>) finds.
 *   - A comparison function must be a total order over what does not change while the node is in the tree.
 *     Keys are changed outside of their table only.
 *   - A refused announcement in the middle of a change to a tree ends the process: the undo log alone can
 *     bring the tree back into order, and the next process that takes the lock does so.
 *
 * Lifetime and ownership. Tables and records live in the database until they are freed or destroyed, whoever
 * made them. Nodes belong to the records that they lie in: to unlink one frees nothing. Words called the
 * database layer's own are not touched by others. Texts and luids that are handed in are read during the call
 * alone.
 *
 * Threads and processes. A handle is used by one thread at a time; threads that share a database have a handle
 * each. In read sections any number of threads and processes search the same tables; changes want the write
 * lock, which loomlib_database_is_write_locked tells. Trees in other memory (alloc_ctx null) are the caller's
 * to guard.
 *
 * Fork. A child of fork has no handles: those of its parent share their locks with it, and are neither used
 * nor closed there; exec and _exit end them. It opens its own.
 *
 * Signals. No function may be called by a signal handler. One that ends the process does no harm, at any
 * instruction.
 *
 * Errors. `err` points at an error word that must be 0, or hold an earlier error, with which nothing is done
 * and null or 0 is returned. What goes wrong sets it to one of the numbers of handle.h (errno values) and
 * leaves its reason in words to loom_error_text. Functions without it cannot fail, but for those that say what
 * they return. */
#ifndef LOOM_DATABASE_H
#define LOOM_DATABASE_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The first fields of every table object, as far as the table layer touches them. The rest belongs to the
 *  database layer. */
typedef struct loom_table loom_table;
typedef struct loom_table_record loom_table_record;

/** Node of the intrusive tree, embedded in table records. */
typedef struct e_avl_node {
    struct e_avl_node* left;
    struct e_avl_node* right;
    struct e_avl_node* parent;
    int64_t balance;
} e_avl_node;
/** Orders two nodes: 0 when a sorts before b, 1 when equal, 2 when a sorts after b. */
typedef int32_t (*e_avl_compare_fn)(const e_avl_node* a, const e_avl_node* b);
/** Visits a node; the walk ends early at a non-zero result. */
typedef int32_t (*e_avl_walk_fn)(e_avl_node* node, void* context);

struct loom_table {
    loom_object header;
    char table_name[208];
    uint32_t record_count;
    uint32_t pending_destroy_count;
    uint64_t table_id;
    uint32_t open_mode; /**< 0 by name, 1 by id, 2 automatic id */
    loom_table* toc_next;
    loom_table** toc_prev; /**< the slot that points at this table */
    uint64_t db_word;
    uint8_t table_flags; /**< LOOM_TABLE_DYNAMIC, LOOM_TABLE_ON_GC_LIST */
    uint32_t shadow_count;
    e_avl_node* avl_root;
    uint32_t avl_aux;
    uint64_t database[6]; /**< the database layer's own: oid mapping, cursors, GC link */
    uint32_t seq_batch_mode;
    uint32_t seq_count;
    void* seq_head;
};
enum { LOOM_TABLE_DYNAMIC = 0x80, LOOM_TABLE_ON_GC_LIST = 0x40 };

/** The fixed part of every table record; payload, key and sequence links follow. */
struct loom_table_record {
    loom_type_info* loom_tinfo;
    uint64_t location;
    loom_table* table;
    uint64_t database[4]; /**< the database layer's own */
    uint32_t ref_count;   /**< low 24 bits */
    uint16_t tenant_id;
    uint32_t record_flags;
    uint8_t src;
    e_avl_node avl_node;
};
enum {
    REC_IN_TABLE = 0x01,
    REC_PENDING_DESTROY = 0x02,
    REC_PKEY_MARK = 0x10,
    REC_HD_MAPPED = 0x20,
    REC_NO_AUTO_DELETE = 0x100
};

/** The database's list of all tables; `last` is the cell that the next table goes into. */
typedef struct loom_table_list {
    loom_table* first;
    loom_table** last;
} loom_table_list;

/** A domain's table of contents. */
typedef struct loom_toc_root {
    uint8_t flags; /**< LOOM_TOC_SHARED */
} loom_toc_root;
enum { LOOM_TOC_SHARED = 0x01 };

/** A table type's block of ids, a named root of the arena. */
typedef struct loom_table_id_root {
    uint64_t reserved1;
    uint32_t open_tables;
    uint32_t reserved2;
    uint64_t next_id;
    uint64_t reserved3;
} loom_table_id_root;

/** Non-zero when the process works on a shared database. */
uint32_t loomlib_db_is_shared(void);
/** Non-zero when this handle holds the database's write lock. */
uint32_t loomlib_database_is_write_locked(loom_handle* handle);
/** The table list, made if needed, or found (null if none). */
loom_table_list* loomlib_database_table_toc_create(loom_handle* handle, uint32_t domain, uint32_t* err);
loom_table_list* loomlib_database_table_toc_get(loom_handle* handle, uint32_t domain, uint32_t* err);
/** The domain's TOC root, made if needed, or found (null if none). */
loom_toc_root* loomdb_database_toc_open(loom_handle* handle, uint32_t domain, uint32_t* err);
loom_toc_root* loomdb_database_toc_get(loom_handle* handle, uint32_t domain, uint32_t* err);
/** The table under `path` (`by_name` 1) or under `id` with that luid (`by_name` 0), or null. */
loom_table* loomdb_database_toc_get_table_root(loom_handle* handle, uint32_t domain, const char* path,
                                               uint32_t path_length, uint64_t id, const uint8_t* luid,
                                               uint32_t luid_length, uint32_t by_name, uint32_t* err);
void loomdb_database_toc_insert(loom_handle* handle, uint32_t domain, loom_table* table, uint32_t dynamic,
                                uint32_t* err);
/** Takes the table out of the domain's TOC; 2 when it is not there. */
void loomdb_database_toc_delete(loom_handle* handle, uint32_t domain, loom_table* table, uint32_t* err);

/** Non-zero when the table is marked for replication; 0 for null. */
uint32_t loomdb_table_are_cursors_enabled(loom_handle* handle, uint32_t domain, loom_table* table, uint32_t* err);
/** Non-zero when inserts move the table's write cursor by themselves. */
uint32_t loomdb_table_implicit_write_cursor_enabled(loom_handle* handle, uint32_t domain, loom_table* table,
                                                    uint32_t* err);
void loomdb_enq_rec_move_write_cursor_internal(loom_handle* handle, uint32_t domain, loom_table* table,
                                               loom_table_record* record, uint32_t* err);
/** Marks the record REC_PENDING_DESTROY, raises both pending counts, and enters it for destruction. */
void loomdb_request_record_destroy(loom_handle* handle, uint32_t domain, loom_table_record* record, uint32_t* err);
/** The replication layer sees a record that a reader is handed. */
void loomrepl_add_to_cache(loom_handle* handle, uint32_t domain, loom_table* table, loom_table_record* record,
                           uint32_t* err);
/** Releases the record's stored location. */
void loomlib_record_dereference_loc(loom_handle* handle, uint32_t domain, loom_table_record* record,
                                    uint32_t* err);

void loomgc_database_gc_list_remove(loom_handle* handle, uint32_t domain, loom_table* table, uint32_t* err);
/** The garbage collector's check that the table may go. */
void loomgc_validate_table_delete(loom_handle* handle, loom_table* table);

/** Stores the current tenant's id at `id`; 0 is the default tenant. */
void mt_get_tenant_id(uint16_t* id);
/** `up` 1 adds one to the tenant's counters for that source, 0 takes one. */
void loomdb_update_tenant_counter(loom_handle* handle, uint32_t domain, loom_table* table, uint32_t up,
                                  uint16_t tenant, uint8_t src, uint32_t* err);
/** Reads a tenant's count, of one source or (`src` null) of all. */
void loomdb_get_tenant_counter(loom_handle* handle, uint32_t domain, loom_table* table, uint32_t* count,
                               uint16_t tenant, const uint8_t* src);

/** The arena behind a handle's alloc_ctx: named roots, and announcements of what is about to change. */
void* arbor_get_key(void* arena, const char* key);
/** 0 on failure. */
uint32_t arbor_set_key(void* arena, const char* key, void* block);
uint32_t arbor_in_range(void* arena, const void* pointer);
/** `size` bytes at `address` are about to change; any result but 1 is a refusal. */
uint32_t arbor_set_range(void* arena, const void* address, size_t size, uint32_t domain);
/** Prints the arena's last error to the standard error stream. */
void arbor_perror(void);

/** Links the node; 0 when an equal node exists. Stores into nodes, `*root` and `*aux` are announced to the
 *  arena `alloc_ctx` (null: none) under `domain`. */
uint32_t e_avl_insert(void* alloc_ctx, uint32_t domain, e_avl_node** root, e_avl_node* node, uint32_t* aux,
                      e_avl_compare_fn compare);
/** Unlinks this very node; 0 when it is not in the tree. */
uint32_t e_avl_delete(void* alloc_ctx, uint32_t domain, e_avl_node** root, e_avl_node* node, uint32_t* aux,
                      e_avl_compare_fn compare);
/** The node in the tree that is equal to `node`, or null. */
e_avl_node* e_avl_search(e_avl_node* root, const e_avl_node* node, e_avl_compare_fn compare);
/** The tree's node just after or before `node`'s place in the order; `node` need not be in the tree. */
e_avl_node* e_avl_get_next(e_avl_node* root, const e_avl_node* node, e_avl_compare_fn compare);
e_avl_node* e_avl_get_prev(e_avl_node* root, const e_avl_node* node, e_avl_compare_fn compare);
e_avl_node* e_avl_get_first(e_avl_node* root);
e_avl_node* e_avl_get_last(e_avl_node* root);
/** Calls `visit` with each node, in order. */
void e_avl_walk(e_avl_node* root, e_avl_walk_fn visit, void* context);

#ifdef __cplusplus
}
static_assert(sizeof(loom_table_id_root) == 32, "storage format");
#endif
#endif
