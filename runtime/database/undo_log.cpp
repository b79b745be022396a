// Keeping and putting back the old bytes of a section.
#include "runtime/database/undo_log.h"

#include "runtime/database/error_text.h"
#include "runtime/database/sanitizer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace loom {
namespace {
constexpr char undo_magic[8] = {'L', 'O', 'O', 'M', 'U', 'N', 'D', 'O'};
constexpr u32 undo_version = 1;
constexpr u64 entries_offset = 4096;
constexpr u64 growth_step = u64{1} << 20;
constexpr u64 kept_after_commit = u64{64} << 20;
// Addresses of a file's log at first. Few, so that logs leave the places free that databases must lie at.
constexpr u64 first_reserve = u64{32} << 20;

struct entry_end {
    u64 offset;
    u64 size;
};
u64 padded(u64 size) { return (size + 7) & ~u64{7}; }

/// Gives a new file its header. Of several processes that come at the same time one does it: a header that is
/// written once more would wipe out what is logged already.
bool write_header(int file, const u8 identity[16]) {
    flock(file, LOCK_EX);
    struct stat status {};
    bool done = fstat(file, &status) == 0 && static_cast<u64>(status.st_size) >= entries_offset;
    if (!done) {
        undo_header fresh{};
        std::memcpy(fresh.magic, undo_magic, sizeof undo_magic);
        fresh.version = undo_version;
        std::memcpy(fresh.identity, identity, 16);
        // The size comes last: a file of full size has a header.
        done = pwrite(file, &fresh, sizeof fresh, 0) == sizeof fresh && posix_fallocate(file, 0, growth_step) == 0;
    }
    flock(file, LOCK_UN);
    return done;
}
} // namespace

undo_log::~undo_log() {
    if (header_) munmap(header_, reserve_);
    if (file_ >= 0) close(file_);
}

bool undo_log::open_private(u64 reserve) {
    void* memory =
        mmap(nullptr, reserve, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return false;
    header_ = new (memory) undo_header{};
    entries_ = static_cast<std::byte*>(memory) + entries_offset;
    reserve_ = reserve;
    extent_ = reserve;
    return true;
}

bool undo_log::map_file(u64 size) {
    const u64 reserve = std::max(first_reserve, 2 * size);
    void* memory = mmap(nullptr, reserve, PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
    if (memory == MAP_FAILED) return false;
    if (header_) munmap(header_, reserve_);
    header_ = static_cast<undo_header*>(memory);
    entries_ = static_cast<std::byte*>(memory) + entries_offset;
    reserve_ = reserve;
    return true;
}

u32 undo_log::open_file(const std::string& path, const u8 identity[16]) {
    file_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file_ < 0)
        return fail(static_cast<u32>(errno),
                    "undo log %s: cannot be opened: %s; it lies beside the database, and who opens one needs to "
                    "write both",
                    path.c_str(), words_of(errno).c_str());
    if (!write_header(file_, identity)) return fail(ENOSPC, "undo log %s: no room on the disk", path.c_str());
    struct stat status {};
    fstat(file_, &status);
    extent_ = static_cast<u64>(status.st_size);
    if (!map_file(extent_))
        return fail(static_cast<u32>(errno), "undo log %s: cannot be mapped: %s", path.c_str(),
                    words_of(errno).c_str());
    if (std::memcmp(header_->magic, undo_magic, sizeof undo_magic) != 0 || header_->version != undo_version)
        return fail(
            EINVAL,
            "undo log %s: is no undo log of this version; move it away if the database was closed in order",
            path.c_str());
    if (std::memcmp(header_->identity, identity, 16) != 0)
        return fail(EINVAL,
                    "undo log %s: belongs to another database; put the database's own undo log in its place",
                    path.c_str());
    if (size() > extent_ - entries_offset)
        return fail(
            EINVAL,
            "undo log %s: is cut short: it should hold %llu bytes of entries; restore the database and its "
            "log from a copy",
            path.c_str(), static_cast<unsigned long long>(size()));
    return 0;
}

void undo_log::refresh() {
    struct stat status {};
    if (file_ < 0 || fstat(file_, &status) != 0) return;
    extent_ = static_cast<u64>(status.st_size);
    if (extent_ > reserve_ && !map_file(extent_)) extent_ = reserve_;
}

bool undo_log::reserve_room(u64 end) {
    const u64 wanted = entries_offset + end;
    if (wanted <= extent_) return true;
    if (file_ < 0) return false;
    const u64 extent = std::max(wanted + growth_step, extent_ + extent_ / 2);
    if (posix_fallocate(file_, 0, static_cast<off_t>(extent)) != 0) return false;
    if (extent > reserve_ && !map_file(extent)) return false;
    extent_ = extent;
    return true;
}

bool undo_log::append(const void* address, u64 offset, u64 size) {
    const u64 tail = header_->tail.load(std::memory_order_relaxed);
    const u64 end = tail + padded(size) + sizeof(entry_end);
    if (!reserve_room(end)) return false;
    raw_copy(entries_ + tail, address, size);
    const entry_end last{offset, size};
    std::memcpy(entries_ + tail + padded(size), &last, sizeof last);
    header_->tail.store(end, std::memory_order_release);
    // The announced store must not be moved before the entry.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return true;
}

template <class Visit>
bool undo_log::each_entry(u64 extent, Visit visit) const {
    u64 tail = header_->tail.load(std::memory_order_acquire);
    if (tail > extent_ - entries_offset) return false;
    while (tail) {
        entry_end last{};
        if (tail < sizeof last) return false;
        std::memcpy(&last, entries_ + tail - sizeof last, sizeof last);
        tail -= sizeof last;
        if (last.size > tail || padded(last.size) > tail || last.offset > extent ||
            last.size > extent - last.offset)
            return false;
        tail -= padded(last.size);
        visit(last.offset, last.size, entries_ + tail);
    }
    return true;
}

bool undo_log::roll_back(std::byte* base, u64 extent) {
    refresh();
    if (!each_entry(extent, [](u64, u64, const std::byte*) {})) {
        fail(EIO, "the undo log is damaged; restore the database from a copy");
        return false;
    }
    each_entry(extent, [&](u64 offset, u64 size, const std::byte* old) { raw_copy(base + offset, old, size); });
    // A rollback that is cut off before this is done again.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    clear();
    return true;
}

void undo_log::clear() {
    const u64 used = header_->tail.load(std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    header_->tail.store(0, std::memory_order_release);
    if (used <= kept_after_commit) return;
    if (file_ < 0) {
        madvise(entries_, used, MADV_DONTNEED);
    } else if (ftruncate(file_, static_cast<off_t>(growth_step)) == 0) {
        extent_ = growth_step;
    }
}

} // namespace loom
