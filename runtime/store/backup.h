// Backups: one file with the state of a database as of some commit, or what has changed since one, and the commits
// behind it. Written beside running writers (backup.cpp), made into databases again by restore.cpp. The form of
// the file is told in docs/database.md.
//
//   | backup_header, 4,096 bytes | page table | pages | journal entries |
//
// Each byte is covered: the header by its checksum, the table by its digest, pages by the table, entries by the
// chain of their digests, whose first and last link stand in the header.
#pragma once

#include "runtime/store/store.h"

namespace loom {

inline constexpr u64 all_commits = ~u64{0};
inline constexpr u64 backup_header_room = 4096;

struct backup_header {
    char magic[8];
    u32 version;
    u32 record_size;
    superblock source; ///< of the database
    u64 since;         ///< only pages that changed behind this commit are there; all_commits: all of them
    u64 first_number;  ///< commit that table and pages are of
    digest first;      ///< of its entry
    u64 last_number;   ///< latest commit
    digest last;
    u64 table_pages; ///< entries of the table, one per page of the database; none when nothing but entries follows
    digest table;
    u64 stored_pages;
    u64 entry_bytes;
    u64 checksum;

    u64 table_offset() const { return backup_header_room; }
    u64 pages_offset() const {
        return table_offset() + (table_pages * sizeof(page_entry) + page_size - 1) / page_size * page_size;
    }
    u64 entries_offset() const { return pages_offset() + stored_pages * page_size; }
    u64 file_size() const { return entries_offset() + entry_bytes; }
    bool is_full() const { return since == all_commits; }
    /// Whether a page of which the table says so is among the pages.
    bool stores(const page_entry& entry) const {
        return (entry.checksum || entry.number) && (is_full() || entry.number > since);
    }
};
static_assert(sizeof(superblock) == 144 && offsetof(backup_header, checksum) == 256);

/// Prepares a header: names, versions and the database's superblock.
backup_header make_backup_header(const superblock& source, u64 since);
/// Reads a header; 0, or an error number with a text that names the file and the cure.
u32 read_backup_header(const disk_file& file, const std::string& path, backup_header& header);

/// What stands in a file, and what was written.
struct backup_report {
    u64 first_number = 0; ///< earliest commit that it can restore
    u64 last_number = 0;
    u64 stored_pages = 0;
    u64 size = 0;
};

/// Writes the flushed commits of a database to a new file of that path, all or those since a commit. Of a volatile
/// database, which has no journal, `image` holds a state as of `number`, which stays meanwhile. 0, or an error
/// number with a text: then there is no file.
struct image_copy {
    std::span<const std::byte> bytes;
    u64 number = 0;
    digest previous;
};
u32 write_backup(store& files, const std::string& path, u64 since, const image_copy& image, backup_report& report);

/// How a database is restored.
struct restore_plan {
    std::vector<std::string> backups; ///< a full one, then those since it, in order
    std::string path;
    u64 number = all_commits; ///< commit whose state it gets; the latest by default
    u32 mode = 0;             ///< access rights, as in store_plan
    bool keeps_identity = false;
};
/// Puts the identity of the new database into its first page.
using identify_fn = std::function<u32(const superblock&, std::span<std::byte>)>;
u32 restore_backup(const restore_plan& plan, const identify_fn& identify, backup_report& report);

} // namespace loom
