/* Backups of mapped databases, made beside running writers, and databases made of them. A backup is one file; a
 * full one stands alone, one since a commit goes behind another backup. Each restores the state of any commit from
 * its first to its last. The form of the file is told in docs/database.md.
 *
 * Functions return 0 or an error number; loom_error_text tells the failure in words, with the cure. */
#ifndef LOOM_RUNTIME_BACKUP_H
#define LOOM_RUNTIME_BACKUP_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

/** All of the database, or every commit: for loom_backup and loom_restore_options. */
#define LOOM_BACKUP_ALL UINT64_MAX

/** What a backup holds, or what was restored. */
typedef struct loom_backup_report {
    uint64_t first_commit; /**< the earliest commit that can be restored */
    uint64_t last_commit;  /**< the latest; of a restored database, the one that it is of */
    uint64_t pages;        /**< pages of 4,096 bytes: stored in the backup; of a restored database, all */
    uint64_t size;         /**< bytes of the file; of a restored database, of all its pages */
} loom_backup_report;

/** Writes a backup of the handle's database to a new file, which gets the access rights of the database's files.
 *  Others read and write meanwhile: it holds what is committed when the call begins, which is flushed first; only
 *  the journal is not absorbed until the call ends. Of a volatile database, which has no journal, the memory is
 *  copied in a read section, and only in full.
 *
 *  With `since`, a commit that the reader of the backup has already, only what has changed behind it is written;
 *  LOOM_BACKUP_ALL is a full backup. The file appears under its name when all of it is on the disk; what fails, or
 *  is killed, leaves none behind where the file system knows files without names. `report` may be null.
 *
 *  17 when the file is there already; 22 for a private database, and for a `since` that lies ahead; 28 and 122
 *  without room; others as the disk has them. Any thread that the handle belongs to may call it. */
uint32_t loom_backup(loom_handle* handle, const char* path, uint64_t since, loom_backup_report* report);

/** What loom_restore is told. Zero-filled members mean the default; `size` must be
 *  sizeof(loom_restore_options). The texts are the caller's. */
typedef struct loom_restore_options {
    uint32_t size;
    uint32_t
        keep_identity; /**< 1: it takes the place of the lost one, whose oids it knows; 0: a database of its own */
    const char* path;  /**< directory to make; nothing may be there */
    const char* const* files; /**< a full backup, then those since it, in order */
    uint32_t file_count;
    uint32_t mode;   /**< access rights of the files, as of chmod; default: those of the original */
    uint64_t commit; /**< whose state it gets; LOOM_BACKUP_ALL: the latest */
} loom_restore_options;

/** Makes a database of backups. Every byte of them is checked; nothing is left behind when one does not fit. It
 * lies at the address of the original: one process cannot have both open, two processes can. No handle is opened.
 *  `report` may be null.
 *
 *  2 when the commit is not kept; 5 for a damaged backup; 17 when something lies at the path; 22 for files that
 * are no backups or do not go together; 28 and 122 without room. Needs no handle; any thread may call it. */
uint32_t loom_restore(const loom_restore_options* options, loom_backup_report* report);

#ifdef __cplusplus
}
#endif
#endif
