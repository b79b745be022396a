// Making and judging superblocks.
#include "runtime/store/superblock.h"

#include "runtime/database/error_text.h"
#include "runtime/store/checksum.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <sys/random.h>

namespace loom {
namespace {
constexpr char magic[8] = {'L', 'O', 'O', 'M', 'B', 'A', 'S', 'E'};
constexpr u64 file_size = 4096;
constexpr char name_while_made[] = "superblock.unfinished";

/// What a making that was cut off may have left in its directory.
constexpr const char* made_names[] = {"base",  "checksums", "journal.0", "journal.1",
                                      "image", "undo",      "control",   name_while_made};

bool is_one_of_made_names(const char* name) {
    return std::any_of(std::begin(made_names), std::end(made_names),
                       [&](const char* each) { return std::strcmp(name, each) == 0; });
}

int write_whole(disk_file& file, const superblock& made) {
    std::byte block[file_size]{};
    std::memcpy(block, &made, sizeof made);
    if (const int error = file.write(0, block, sizeof block)) return error;
    return file.flush();
}
} // namespace

const char* name_of(durability level) {
    switch (level) {
    case durability::volatile_: return "volatile";
    case durability::ordered: return "ordered";
    case durability::durable: return "durable";
    }
    return "unknown";
}

void fill_random(u8 (&bytes)[16]) {
    do {
        if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
            fatal("no random numbers for a database's identity");
    } while (std::all_of(bytes, bytes + 8, [](u8 byte) { return byte == 0; }));
}

superblock make_superblock(u64 base, u64 room, durability level, u32 mode, const std::string& name) {
    superblock made{};
    std::memcpy(made.magic, magic, sizeof magic);
    made.version = store_version;
    made.record_size = sizeof made;
    fill_random(made.identity);
    fill_random(made.incarnation);
    made.base = base;
    made.room = room;
    made.level = level;
    made.mode = mode;
    name.copy(made.name, sizeof made.name - 1);
    made.checksum = checksum_of_record(made);
    return made;
}

int write_superblock(const disk_directory& directory, const superblock& made) {
    disk_file file;
    int error = file.create_unnamed(directory, made.mode);
    if (error == EOPNOTSUPP) {
        // A name that a making which was cut off has left behind is taken over.
        disk_directory& own = const_cast<disk_directory&>(directory);
        if (directory.has(name_while_made)) own.remove(name_while_made);
        if ((error = file.create(directory, name_while_made, made.mode)) != 0) return error;
        if ((error = write_whole(file, made)) != 0) return error;
        return own.rename(name_while_made, superblock_name);
    }
    if (error) return error;
    if ((error = write_whole(file, made)) != 0) return error;
    return file.link(directory, superblock_name);
}

u32 read_superblock(const disk_directory& directory, superblock& found) {
    disk_file file;
    if (const int error = file.open(directory, superblock_name, false))
        return fail(static_cast<u32>(error), "database %s: %s cannot be read: %s", directory.path().c_str(),
                    superblock_name, words_and_cure_of(error).c_str());
    const std::string path = file.path();
    const int error = file.read(0, &found, sizeof found);
    if (error && error != ENODATA)
        return fail(static_cast<u32>(error), "database %s: cannot be read: %s", path.c_str(),
                    words_and_cure_of(error).c_str());
    if (error || std::memcmp(found.magic, magic, sizeof magic) != 0)
        return fail(EINVAL, "%s is no superblock of a database; restore the database from a backup", path.c_str());
    if (found.version != store_version || found.record_size != sizeof found)
        return fail(
            EINVAL,
            "database %s: has format version %u, this runtime reads version %u; use the runtime that wrote "
            "it to export its contents",
            directory.path().c_str(), found.version, store_version);
    if (found.checksum != checksum_of_record(found))
        return fail(EINVAL, "%s is damaged; restore the database from a backup", path.c_str());
    return 0;
}

std::string foreign_name_in(const disk_directory& directory) {
    const int again = openat(directory.descriptor(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* entries = again >= 0 ? fdopendir(again) : nullptr;
    if (!entries) return "";
    std::string found;
    while (const dirent* entry = readdir(entries)) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0 && !is_one_of_made_names(name))
            found = name;
    }
    closedir(entries);
    return found;
}

bool has_unfinished(const disk_directory& directory) {
    return std::any_of(std::begin(made_names), std::end(made_names),
                       [&](const char* each) { return directory.has(each); });
}

int remove_unfinished(disk_directory& directory) {
    for (const char* name : made_names)
        if (directory.has(name))
            if (const int error = directory.remove(name)) return error;
    return 0;
}

} // namespace loom
