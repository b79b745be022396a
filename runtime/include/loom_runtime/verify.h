/* Looking through a database for damage, and saving what can be read of a damaged one. Programs that only use
 * databases do not need this header. */
#ifndef LOOM_RUNTIME_VERIFY_H
#define LOOM_RUNTIME_VERIFY_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

enum loom_finding_kind {
    LOOM_FINDING_DAMAGE = 1,   /**< something contradicts itself: data are lost, or will be */
    LOOM_FINDING_LOST = 2,     /**< in order, but nobody can reach it any more: room is lost */
    LOOM_FINDING_UNCHECKED = 3 /**< could not be looked at; the meaning says what would be needed */
};
/** One finding. The texts are valid during the call. */
typedef struct loom_finding {
    uint32_t kind;       /**< enum loom_finding_kind */
    const char* place;   /**< "base, page 7", "table bed_tbl, record at offset 81920" */
    const char* meaning; /**< what is wrong there, and what depends on it */
} loom_finding;
/** Told each finding, in order, when everything was looked at and no lock is held any more. */
typedef void (*loom_finding_fn)(const loom_finding* finding, void* context);

/** Flags of loom_database_verify. */
enum {
    /** Compares the image with what base and journal hold together, byte by byte. What handles have made outside of
     * sections is left out until their next commit, as are the insides of free blocks and the counters of types. */
    LOOM_VERIFY_DEEP = 1,
    /** Gives back lost blocks, in one write section, when nothing is damaged and nothing was left unchecked. The
     * handle must have the database to itself (LOOM_OPEN_EXCLUSIVE, or a private database). */
    LOOM_VERIFY_RECLAIM = 2
};

/** What was looked at and found. */
typedef struct loom_verify_result {
    uint64_t damaged;   /**< findings of each kind; also those that were too many to be told */
    uint64_t lost;
    uint64_t unchecked;
    uint64_t pages;          /**< of the base */
    uint64_t entries;        /**< of the journal */
    uint64_t tables;
    uint64_t records;
    uint64_t blocks;         /**< in use */
    uint64_t lost_blocks;    /**< of them, reached from nowhere */
    uint64_t lost_bytes;
    uint64_t reclaimed_blocks;
} loom_verify_result;

/** Looks through the database behind the handle: checksums and order of its files; the arena's blocks and lists;
 * every structure and tree with order, balance and parents; rings; counts of tables, tenants and references; by the
 * types' descriptions all blocks that objects own. Other users may go on, but for the time in which memory is looked
 * at nobody writes: a read section is taken unless the handle has a section (for the time of reclaiming, a write
 * section). `report` and `result` may be null. Bundles of the tables should be loaded: trees are compared by their
 * functions.
 *
 * 0 when it could be done, whatever was found; otherwise an error number with a text: 16 for LOOM_VERIFY_RECLAIM
 * with others at work, 22 for it inside a section, and those of loom_read_begin. */
uint32_t loom_database_verify(loom_handle* handle, uint32_t flags, loom_finding_fn report, void* context,
                              loom_verify_result* result);

/** Looks through the files of a database that cannot be opened any more: superblock, base, journal. Nothing is
 * changed. `report` may be null; it is told the damages, whose number goes to `damaged` (which may be null). 0 when
 * it could be done; otherwise an error number with a text: 16 while it is in use, 5 when nothing of it can be read. */
uint32_t loom_database_verify_files(const char* path, loom_finding_fn report, void* context, uint64_t* damaged);

/** What a salvage has brought over, and what not. */
typedef struct loom_salvage_result {
    uint64_t tables;
    uint64_t records;
    uint64_t lost_records; /**< that were found, but are damaged; those of which nothing is left are not counted */
    uint64_t lost_pages;   /**< of the base */
    uint64_t findings;     /**< all that `report` was told */
} loom_salvage_result;

/** Makes a new database at `path` of all that can still be read of the one at `damaged`: its image, if it can still
 * be opened, otherwise its base and what follows in its journal. Nothing in the memory is trusted: records are looked
 * for in all blocks, so that broken trees and lists lose none, and are taken when every block they own is there. They
 * keep tenant, source, stored location, the order of ordered tables, and their references to tables, which are made
 * anew; states of attributes and replication cursors begin anew. The bundles of all tables must be loaded.
 *
 * What was lost is told to `report`, which may be null, as is `result`. `damaged` must not be in use, and is left as
 * it is but for what every opening does. 0 when it could be done, whatever was lost; otherwise an error number with a
 * text: 16 while it is in use, 17 when something lies at `path`, 5 when nothing of it can be read. */
uint32_t loom_database_salvage(const char* damaged, const char* path, loom_finding_fn report, void* context,
                               loom_salvage_result* result);

#ifdef __cplusplus
}
#endif
#endif
