// What never changes about a database, in the file `superblock` of its directory: who it is, where it must lie,
// how durable it is. The file is linked whole when everything else has been made: a directory without it is one
// whose making was cut off.
#pragma once

#include "runtime/store/disk.h"

#include <cstddef>

namespace loom {

enum class durability : u32 { volatile_ = 1, ordered = 2, durable = 3 };
const char* name_of(durability level);

inline constexpr char superblock_name[] = "superblock";
inline constexpr u32 store_version = 3;

struct superblock {
    char magic[8];
    u32 version;
    u32 record_size;
    u8 identity[16];
    u8 incarnation[16];
    u64 base;
    u64 room;
    durability level;
    u32 mode; ///< of the files of the directory
    char name[64];
    u64 checksum;
};
static_assert(offsetof(superblock, checksum) == 136);

/// Random bytes, not all of the first eight zero.
void fill_random(u8 (&bytes)[16]);

/// Who may read the files may search their directory.
constexpr mode_t mode_of_directory(u32 mode) { return mode | (mode & 0444) >> 2; }

superblock make_superblock(u64 base, u64 room, durability level, u32 mode, const std::string& name);
/// Writes, flushes and links it.
int write_superblock(const disk_directory& directory, const superblock& made);
/// 0, or an error number with a text that names the file and the cure.
u32 read_superblock(const disk_directory& directory, superblock& found);

// Of a directory without a superblock:

/// A name in it that no database has, or "".
std::string foreign_name_in(const disk_directory& directory);
/// Whether a making that was cut off has left files, and their removal.
bool has_unfinished(const disk_directory& directory);
int remove_unfinished(disk_directory& directory);

} // namespace loom
