/* The runtime as a program sees it: handles on private and mapped databases, write and read sections, peers,
 * bundles, tenants, replication, garbage collection, message bundles and the recorder. Bundles never include this
 * header; they know <loom/...> alone. Tracing stands in trace.h, the checks of arena memory in arena.h.
 *
 * A database is memory: objects lie in it as bundles lay them out, and pointers between them are plain pointers. A
 * private database is memory of this process. A mapped database is a directory with an image that every process
 * maps at the address which the database itself records, so that pointers hold everywhere.
 *
 * Guarantees of a mapped database:
 *   - A write section commits whole or not at all, whatever dies and whenever. Behind the death of processes all
 *     commits are there: the next process that takes a lock puts back what a dead writer has left half done.
 * Behind a crash of the machine, that depends on the database's level (LOOM_DURABILITY_): every commit that has
 * returned; a whole prefix of the commits; or nothing, and the database is refused.
 *   - What is read from the disk carries checksums. Damage is told with file and place and never taken for data.
 *   - One writer or many readers at a time, across threads and processes. A dead owner's lock is released by the
 *     system.
 *   - Outside any section a handle may still make, change and end objects that nobody else can reach yet; each
 *     allocation is then a short section of its own.
 *   - Inside a read section new objects come from memory of this process. They may be used and ended like any
 *     other, also after the section, but must not be given to a table or to an object of the database.
 *
 * A handle is used by one thread at a time; threads that share a database open a handle each. A thread must not
 * ask for a section with one handle while it holds one with another handle on the same database.
 *
 * Functions return 0 or an error number (errno values) unless said otherwise; loom_error_text tells the failure in
 * words, with the cure where there is one. */
#ifndef LOOM_RUNTIME_RUNTIME_H
#define LOOM_RUNTIME_RUNTIME_H

#include <loom/database.h>
#include <loom/handle.h>
#include <loom/instance.h>
#include <loom/messages.h>
#include <loom/oid.h>
#include <loom/registry.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------- handles */

/** Kinds of databases; the numbers are those of loom_handle::db_kind. */
enum {
    LOOM_DB_PRIVATE = 0,           /**< memory of the process, type information as it lies in the bundles */
    LOOM_DB_MAPPED = 1,            /**< a directory, of one process or of many */
    LOOM_DB_PRIVATE_MANIFESTED = 2 /**< memory of the process, type information copied into the database */
};
/** Flags of loom_open for mapped databases. */
enum {
    LOOM_OPEN_CREATE = 1,    /**< make the database when there is none */
    LOOM_OPEN_EXCLUSIVE = 2, /**< no other handle may have it open: no locks are needed, it is not shared */
    /** A state of the database as of the opening, in memory of this process, built from what is committed: others
     * go on writing and are not followed. Nothing in the directory changes; it may lie on a medium that cannot be
     * written, and needs read rights only. Sections to read are allowed and cost nothing, sections to write fail
     * with 30. A volatile database must not be in use. */
    LOOM_OPEN_READ_ONLY = 4
};
/** What of a mapped database outlives the machine. The level stands in the database; who opens it may ask for more
 * for the commits of his process, never for less. */
enum {
    LOOM_DURABILITY_DEFAULT = 0,  /**< LOOM_DURABILITY_ORDERED, or what the database has */
    LOOM_DURABILITY_VOLATILE = 1, /**< nothing but a database that was closed in order: otherwise it is refused */
    LOOM_DURABILITY_ORDERED = 2,  /**< a whole prefix of the commits; about a second may be missing */
    LOOM_DURABILITY_DURABLE = 3   /**< every commit that has returned: it waits for the disk */
};
/** State tracking of a handle. */
enum {
    LOOM_TRACKING_NONE = 0, /**< no control block at all */
    LOOM_TRACKING_OFF = 1,
    LOOM_TRACKING_ON = 2
};

/** What loom_open is told. Zero-filled members mean the default; `size` must be sizeof(loom_open_options). */
typedef struct loom_open_options {
    uint32_t size;
    uint32_t kind;      /**< LOOM_DB_ */
    const char* path;   /**< directory of a mapped database */
    const char* name;   /**< name of a database that is made, at most 63 bytes; default: the directory's name */
    uint32_t flags;     /**< LOOM_OPEN_ */
    uint32_t tracking;  /**< LOOM_TRACKING_ */
    uint32_t cr_domain; /**< domain of the _cr forms; default 1 */
    uint32_t header_tag;
    uint32_t workspace_size; /**< scratch buffer of the handle in bytes; default 1 MiB */
    uint32_t durability; /**< LOOM_DURABILITY_ of a database that is made; of one that is there, at least that */
    uint64_t address;    /**< where a file that is made shall lie; default: chosen, recorded in the file */
    uint64_t reserve;    /**< most bytes the database can ever have; default 32 GiB, private 8 GiB */
    uint32_t
        mode; /**< access rights of the files of a database that is made, as of chmod; default: by the umask */
    uint32_t reserved;
    uint64_t journal_limit; /**< bytes from which on a journal file is followed by the other; default 64 MiB */
} loom_open_options;

/** Opens a database, or null with a text that names place and cure: no such directory, no database, damaged,
 * another format version, its address taken, in use, on a file system that other machines share. The handle is the
 * caller's until loom_close. */
loom_handle* loom_open(const loom_open_options* options);
/** The two short forms: a private database without tracking, and a mapped one with LOOM_OPEN_ flags. */
loom_handle* loom_open_private(void);
loom_handle* loom_open_mapped(const char* path, uint32_t flags);
/** Ends the handle. An open section is aborted. A private database goes with its handle. Null is allowed. */
void loom_close(loom_handle* handle);
/** The calling thread's latest failure in words; "" when there is none. Valid until the thread's next call.
 *
 *  Functions of <loom_runtime/...> that can fail, as their error number or a null result says, leave their reason
 *  here when they fail and "" when they succeed. Those that cannot fail (names, counts, settings, walks,
 * loom_close) leave the text alone.
 *
 *  Operations that bundles call (<loom/...>, the functions in a handle, the values) leave their reason here when
 *  they set an error word or the handle's error slot, or return an error number, or no memory. When they succeed
 *  they leave the text alone, so that accessors, compares and tree walks pay nothing. So do bundles: what they
 *  report by loom_store_err is told here, at least by the meaning of its number. Whoever asks for the text of such
 *  an operation looks at its error number first. */
const char* loom_error_text(void);

/** Identity of the database: 16 bytes, unique and never all zero; the source of its oids. */
void loom_database_identity(loom_handle* handle, uint8_t identity[16]);
/** Returns when all commits are on the disk, and absorbs what journal files are full. */
uint32_t loom_database_sync(loom_handle* handle);
/** Whether tables of this database are freed by way of the garbage collector (the mark of every TOC root). */
uint32_t loom_database_mark_shared(loom_handle* handle, uint32_t shared);

void loom_set_tracking(loom_handle* handle, uint32_t tracking);
void loom_set_cr_domain(loom_handle* handle, uint32_t domain);
void loom_set_header_tag(loom_handle* handle, uint32_t tag);
/** The scratch buffer of loomlib_get_handle_ws, in bytes; one more is there behind it, which marshal may store to.
 *  Ends the validity of the present one. */
void loom_set_workspace_size(loom_handle* handle, uint32_t size);
/** Marshal failures of this handle are expected and traced at level 7. */
void loom_set_suppress_messages(loom_handle* handle, uint32_t suppress);

/* --------------------------------------------------------------------------------------------- sections */

/** Opens a write section: takes the database's write lock, waiting for it. Sections do not nest. */
uint32_t loom_write_begin(loom_handle* handle);
/** Makes everything since loom_write_begin last and visible, and gives the lock up; in a durable database it
 * returns when the commit is on the disk. 28 or 122 without room for it, and another error number with a text when
 * the disk fails: the section has been aborted then, but for a flush that fails, behind which the commit is
 * visible and may be missing behind a crash of the machine. */
uint32_t loom_write_commit(loom_handle* handle);
/** Puts back every byte that was announced since loom_write_begin, and gives the lock up. Pointers to objects made
 *  in the section are dead. Statistics counters keep their values. */
uint32_t loom_write_abort(loom_handle* handle);
/** Opens and closes a read section. Nothing may be stored in the database between the two. */
uint32_t loom_read_begin(loom_handle* handle);
uint32_t loom_read_end(loom_handle* handle);

/* ------------------------------------------------------------------------------------------ containment */

enum loom_report_kind {
    LOOM_REPORT_CONTAINMENT, /**< loomdb_record_containment and loomdb_record_containment2 */
    LOOM_REPORT_DIRTY,
    LOOM_REPORT_DESTROY,
    LOOM_REPORT_DETACH
};
/** One report of containment or of the shared-database layer. Valid during the call. */
typedef struct loom_report {
    enum loom_report_kind kind;
    uint32_t domain;
    uint32_t subject_kind; /**< 1 table, 2 table record, 4 field of a record; 0 for objects and their values */
    uint32_t arm;          /**< of LOOM_REPORT_DETACH */
    const void* subject;
    const void* parent;
} loom_report;
typedef void (*loom_report_fn)(loom_handle* handle, const loom_report* report, void* context);
/** Turns containment reports on (`on` 1) or off; `observer` may be null. The counts go on without an observer. */
void loom_set_containment(loom_handle* handle, uint32_t on, loom_report_fn observer, void* context);
/** Reports of that kind since the handle was opened. */
uint64_t loom_report_count(loom_handle* handle, enum loom_report_kind kind);

/* ------------------------------------------------------------------------------------------------ peers */

/** What another party speaks. Made by the caller, given to any number of handles, released when all are done with
 *  it. A peer that is in use by a handle must not be changed at the same time. */
typedef struct loom_peer loom_peer;
/** A peer that knows nothing yet: every type is unknown to it. `name` becomes the handle's domain_text. */
loom_peer* loom_peer_create(const char* name);
/** A peer of this very build, to be limited with the calls below. */
loom_peer* loom_peer_create_same_build(const char* name);
void loom_peer_release(loom_peer* peer);
/** Adds all lines of a type-hash manifest: types with their highest variants, tables and messages. 22 with a text
 *  that names the line when one is malformed; nothing is added then. */
uint32_t loom_peer_add_manifest(loom_peer* peer, const char* text, size_t length);
/** One type, table or message under its 32-character luid text; -1 makes it unknown. */
uint32_t loom_peer_set_variant(loom_peer* peer, const char* luid_text, int32_t variant);
/** A limit by name, over everything else: the type is known up to `variant`, -1 makes it unknown. */
uint32_t loom_peer_limit(loom_peer* peer, const char* type_name, int32_t variant);
/** Makes `peer` the peer domain of the handle; null is a peer of this very build. */
void loom_set_peer(loom_handle* handle, loom_peer* peer);

/* ---------------------------------------------------------------------------------------------- bundles */

/** A loaded bundle. */
typedef struct loom_bundle loom_bundle;
/** Loads a bundle's shared object, or finds it when it is loaded already; null with a text on failure. */
loom_bundle* loom_bundle_load(const char* path);
/** A bundle that is linked into the program or loaded otherwise, by its module name. */
loom_bundle* loom_bundle_find(const char* name);
/** Undoes one loom_bundle_load or _find. With the last one the bundle's code goes, and with it the type
 * information that objects of private databases point at: end those objects first. */
void loom_bundle_unload(loom_bundle* bundle);
const char* loom_bundle_name(const loom_bundle* bundle);
const char* loom_bundle_path(const loom_bundle* bundle);
const loom_module_node* loom_bundle_module(const loom_bundle* bundle);
loom_table_get_vft_fn loom_bundle_table_get_vft(const loom_bundle* bundle);
/** The address of an exported name of the bundle, or null. */
void* loom_bundle_symbol(const loom_bundle* bundle, const char* name);
/** `<bundle>_bundle_handler_register` and `_unregister`; the result is the previous handler. */
void* loom_bundle_register_handler(loom_bundle* bundle, void* handler);
void* loom_bundle_unregister_handler(loom_bundle* bundle);
/** Copies all type information of the bundle into the handle's database; done at once it needs not be done by the
 *  first objects. */
uint32_t loom_bundle_manifest(loom_bundle* bundle, loom_handle* handle);
/** The function record of a table, from any loaded bundle; null if none knows it. */
const loom_table_vft* loom_find_table_vft(loom_handle* handle, const uint8_t luid[16]);
/** A type by its name in any loaded module, or null. */
const loom_type_info* loom_find_type(const char* name);
/** How the runtime ends an object whose destruction had been put off, for types of that luid text. Without one it
 *  looks for `<type>_destroy` in the type's bundle. Null takes the registration back. */
typedef void (*loom_destroy_fn)(loom_handle* handle, uint32_t domain, void* object);
uint32_t loom_register_destroyer(const char* luid_text, loom_destroy_fn destroy);

/* ---------------------------------------------------------------------- tenants, replication, collection */

/** The tenant under which the calling thread works; 0 is the default tenant. */
void loom_set_tenant(uint16_t tenant);

/** Marks for replication: whether the table's cursors are on, and whether inserts move the write cursor. */
uint32_t loom_table_set_replication(loom_handle* handle, uint32_t domain, loom_table* table, uint32_t cursors,
                                    uint32_t implicit_write_cursor);
/** Place of the table's write cursor: the number of the record enqueued last, from 1; 0 when there is none. */
uint64_t loom_table_write_cursor(loom_handle* handle, loom_table* table);
/** Place up to which the readers of the table have come, and its change. Records behind it are not collected. */
uint64_t loom_table_read_cursor(loom_handle* handle, loom_table* table);
uint32_t loom_table_advance_read_cursor(loom_handle* handle, loom_table* table, uint64_t place);
typedef void (*loom_record_fn)(loom_table* table, loom_table_record* record, uint64_t place, void* context);
/** Calls `visit` with every record of the table that was enqueued behind `place`, in order of enqueuing. */
uint32_t loom_table_each_enqueued(loom_handle* handle, loom_table* table, uint64_t place, loom_record_fn visit,
                                  void* context);
/** Number of records that this handle's readers were handed, and the latest of them (at most 256), oldest first.
 *  The pointers are for comparison; the records may be gone. */
uint64_t loom_replication_cache_count(loom_handle* handle);
void loom_replication_cache_each(loom_handle* handle, loom_record_fn visit, void* context);

/** Gives the record a stored location, or takes it back with null. Equal texts share storage. */
uint32_t loom_record_set_location(loom_handle* handle, uint32_t domain, loom_table_record* record,
                                  const char* location);
/** The record's stored location, or null. */
const char* loom_record_location(const loom_table_record* record);

/** Result of a collection. */
typedef struct loom_gc_result {
    uint64_t records_destroyed;
    uint64_t records_waiting; /**< cursors have not passed them yet */
    uint64_t tables_freed;
    uint64_t tables_waiting; /**< references, records or an unknown bundle hold them */
    uint64_t objects_destroyed;
    uint64_t objects_waiting; /**< put off, but nobody knows how to end them */
} loom_gc_result;
/** Ends what waits for its end: records pending destruction, tables left to it (out of a shared TOC, or replicated
 * and requested), put-off objects. Works under the tenant of each record that it ends. Needs the write lock; takes
 * it for the time of the call when the handle has no section. `result` may be null. */
uint32_t loom_gc_run(loom_handle* handle, loom_gc_result* result);
/** Whether loomgc_validate_table_delete is asked for, and how often it found a table that must not go. */
void loom_set_gc_validation(loom_handle* handle, uint32_t on);
uint64_t loom_gc_validation_failures(loom_handle* handle);
/** Calls `visit` with each table of the database's table list, in order; a result of non-zero ends the walk. */
typedef uint32_t (*loom_table_fn)(loom_table* table, void* context);
void loom_each_table(loom_handle* handle, loom_table_fn visit, void* context);

/** What the oid mapping holds for an object: references, and whether its end was put off until they go (tables,
 * which wait for their caller or for the collector, do not count as such). 2 when it has none. */
typedef struct loom_oid_state {
    uint64_t reference;
    uint64_t count;
    uint32_t kind;
    uint32_t dynamic;
    uint32_t destroy_pending;
    uint32_t reserved;
} loom_oid_state;
uint32_t loom_oid_mapping_state(loom_handle* handle, const void* object, loom_oid_state* state);
/** Number of mappings in the database. */
uint64_t loom_oid_mapping_count(loom_handle* handle);
/** Number of entries in the side table of objects with tracking offsets. */
uint64_t loom_tracking_map_count(loom_handle* handle);
/** Number of manifested type-information records. */
uint64_t loom_type_info_map_count(loom_handle* handle);

/* --------------------------------------------------------------------------------------------- messages */

/** Opens a message bundle on the handle: messages that are marshalled are checked and counted. 17 when one is
 * open. The bundle accepts every message until loom_message_bundle_allow names the first one. */
uint32_t loom_message_bundle_open(loom_handle* handle, const char* name);
uint32_t loom_message_bundle_allow(loom_handle* handle, const uint8_t luid[16]);
/** Most instances of all messages together; 0 is no limit. */
uint32_t loom_message_bundle_limit(loom_handle* handle, uint64_t most);
/** Instances of one message in the open bundle; null counts all. */
uint64_t loom_message_bundle_count(loom_handle* handle, const uint8_t* luid);
typedef void (*loom_message_fn)(const uint8_t luid[16], const char* name, uint64_t count, void* context);
void loom_message_bundle_each(loom_handle* handle, loom_message_fn visit, void* context);
/** Closes the bundle; its counts are gone. 2 when none is open. */
uint32_t loom_message_bundle_close(loom_handle* handle);

/** Starts recording received messages into a file, appending; process-wide. 17 when recording is on. */
uint32_t loom_recorder_start(const char* path);
/** The same into a stream that stays the caller's; null records to nowhere. */
uint32_t loom_recorder_start_stream(FILE* stream);
/** Stops recording and closes the file of loom_recorder_start. No message may be decoded at the same time. */
void loom_recorder_stop(void);

#ifdef __cplusplus
}
#endif
#endif
