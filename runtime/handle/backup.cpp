// Backups as programs ask for them: the store does the work, here is what needs a handle or the image.
#include "runtime/store/backup.h"

#include "runtime/export.h"
#include "runtime/handle/open_handle.h"

#include <loom_runtime/backup.h>

#include <cerrno>
#include <cstring>
#include <sys/mman.h>

namespace loom {
namespace {
/// Memory of this process for a copy of an image.
class image_memory {
  public:
    image_memory() = default;
    ~image_memory() {
        if (bytes_ != MAP_FAILED) munmap(bytes_, size_);
    }
    image_memory(const image_memory&) = delete;
    image_memory& operator=(const image_memory&) = delete;
    bool take(const std::byte* image, u64 size) {
        size_ = (size + page_size - 1) / page_size * page_size;
        bytes_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (bytes_ == MAP_FAILED) return false;
        std::memcpy(bytes_, image, size);
        return true;
    }
    std::span<const std::byte> bytes() const { return {static_cast<const std::byte*>(bytes_), size_}; }

  private:
    void* bytes_ = MAP_FAILED;
    u64 size_ = 0;
};

u32 back_up_volatile(open_handle& handle, const char* path, u64 since, backup_report& written) {
    database& db = *handle.db;
    if (since != LOOM_BACKUP_ALL)
        return fail(EINVAL, "database %s: is volatile and keeps no record of changes; make a full backup",
                    db.path.c_str());
    if (const u32 error = handle.begin_read()) return error;
    image_memory copy;
    const bool taken = copy.take(db.memory.base(), db.memory.header().top);
    const journal_place place = db.files->place_of_last_commit();
    handle.end_read();
    if (!taken)
        return fail(ENOMEM,
                    "database %s: the process has no memory for a copy of it; back it up from a process "
                    "with more",
                    db.path.c_str());
    return write_backup(*db.files, path, since, {copy.bytes(), place.number, place.previous}, written);
}

/// The first page of a restored database names its identity.
u32 identify(const superblock& made, std::span<std::byte> bytes) {
    if (bytes.size() < page_size)
        return fail(EIO, "the backup of database %s has no first page; take another backup", made.name);
    auto& header = *reinterpret_cast<arena_header*>(bytes.data());
    if (std::memcmp(header.magic, arena_magic, sizeof arena_magic) != 0 ||
        header.fixed_check != check_of(header) || header.base != made.base || header.reserve != made.room ||
        header.extent > made.room)
        return fail(EIO, "the backup of database %s holds no database; take another backup", made.name);
    std::memcpy(header.identity, made.identity, sizeof header.identity);
    header.fixed_check = check_of(header);
    return 0;
}

u32 done_with(u32 error, const backup_report& made, loom_backup_report* report) {
    if (!error && report) *report = {made.first_number, made.last_number, made.stored_pages, made.size};
    return done(error);
}
} // namespace
} // namespace loom

using namespace loom;

LOOM_EXPORT uint32_t loom_backup(loom_handle* handle, const char* path, uint64_t since,
                                 loom_backup_report* report) {
    open_handle& own = *opened(handle);
    backup_report made;
    if (!own.db->mapped)
        return fail(EINVAL, "a private database has no commits to back up; put its records into a mapped one");
    if (own.db->files->level() == durability::volatile_)
        return done_with(back_up_volatile(own, path, since, made), made, report);
    return done_with(write_backup(*own.db->files, path, since, {}, made), made, report);
}

LOOM_EXPORT uint32_t loom_restore(const loom_restore_options* options, loom_backup_report* report) {
    if (!options || options->size != sizeof *options || !options->path || !options->files)
        return fail(EINVAL, "loom_restore: the options are not filled in (size, path, files)");
    restore_plan plan;
    for (u32 i = 0; i < options->file_count; ++i)
        plan.backups.emplace_back(options->files[i]);
    plan.path = options->path;
    plan.number = options->commit;
    plan.mode = options->mode;
    plan.keeps_identity = options->keep_identity;
    backup_report made;
    return done_with(restore_backup(plan, identify, made), made, report);
}
