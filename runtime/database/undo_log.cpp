// Keeping and putting back the old bytes of a section.
#include "runtime/database/undo_log.h"

#include "runtime/database/error_text.h"
#include "runtime/database/sanitizer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace loom {
namespace {
constexpr char undo_name[] = "undo";
constexpr char undo_magic[8] = {'L', 'O', 'O', 'M', 'U', 'N', 'D', 'O'};
constexpr u32 undo_version = 2;
constexpr u64 entries_offset = 4096;
constexpr u64 growth_step = u64{1} << 20;
constexpr u64 kept_after_commit = u64{64} << 20;
// Addresses of a file's log at first. Few, so that logs leave the places free that databases must lie at.
constexpr u64 first_reserve = u64{32} << 20;

u64 padded(u64 size) { return (size + 7) & ~u64{7}; }

/// A check of a tail; that of an empty log is zero.
u64 check_of_tail(u64 words) { return words ? words * 0x9E3779B97F4A7C15u >> 48 : 0; }
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
    extent_ = reserve - entries_offset;
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

bool undo_log::open_file(const store& files) {
    file_ = openat(files.directory().descriptor(), undo_name, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    struct stat status {};
    const bool usable = file_ >= 0 && fstat(file_, &status) == 0 &&
                        static_cast<u64>(status.st_size) > entries_offset &&
                        map_file(static_cast<u64>(status.st_size));
    if (usable) {
        extent_ = static_cast<u64>(status.st_size) - entries_offset;
        if (std::memcmp(header_->magic, undo_magic, sizeof undo_magic) == 0 && header_->version == undo_version &&
            header_->checksum == checksum_of_record(*header_) && header_->making == files.making() &&
            header_->file_number == status.st_ino)
            return true;
    }
    if (header_) munmap(header_, reserve_);
    header_ = nullptr;
    if (file_ >= 0) close(file_);
    file_ = -1;
    return false;
}

u32 undo_log::make_file(const store& files) {
    const int directory = files.directory().descriptor();
    unlinkat(directory, undo_name, 0);
    file_ = openat(directory, undo_name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, files.fixed().mode);
    struct stat status {};
    int error = file_ < 0 || fchmod(file_, files.fixed().mode) != 0 || fstat(file_, &status) != 0 ? errno : 0;
    if (!error) error = posix_fallocate(file_, 0, growth_step);
    if (!error && !map_file(growth_step)) error = errno;
    if (error)
        return fail(static_cast<u32>(error), "database %s: its undo log cannot be made: %s",
                    files.directory().path().c_str(), words_and_cure_of(error).c_str());
    extent_ = growth_step - entries_offset;
    undo_header fresh{};
    std::memcpy(fresh.magic, undo_magic, sizeof undo_magic);
    fresh.version = undo_version;
    fresh.record_size = sizeof fresh;
    fresh.making = files.making();
    fresh.file_number = status.st_ino;
    fresh.checksum = checksum_of_record(fresh);
    std::memcpy(static_cast<void*>(header_), &fresh, offsetof(undo_header, number));
    return 0;
}

void undo_log::refresh() {
    struct stat status {};
    if (file_ < 0 || fstat(file_, &status) != 0) return;
    const auto size = static_cast<u64>(status.st_size);
    if (size > reserve_ && !map_file(size)) return;
    extent_ = size - entries_offset;
}

u64 undo_log::tail() const {
    const u64 word = header_->tail.load(std::memory_order_acquire);
    return (word & 0xFFFF) == check_of_tail(word >> 16) ? (word >> 16) * 8 : ~u64{0};
}

void undo_log::set_tail(u64 bytes) {
    header_->tail.store(bytes / 8 << 16 | check_of_tail(bytes / 8), std::memory_order_release);
}

u64 undo_log::number() const {
    const u64 number = header_->number.load(std::memory_order_acquire);
    return number == ~header_->number_complement.load(std::memory_order_acquire) ? number : 0;
}

void undo_log::begin(u64 number) {
    refresh();
    tail_ = 0;
    header_->number.store(number, std::memory_order_release);
    header_->number_complement.store(~number, std::memory_order_release);
}

bool undo_log::reserve_room(u64 end) {
    if (end <= extent_) return true;
    if (file_ < 0) return false;
    const u64 size = std::max(end + growth_step, extent_ + extent_ / 2) + entries_offset;
    if (posix_fallocate(file_, 0, static_cast<off_t>(size)) != 0) return false;
    if (size > reserve_ && !map_file(size)) return false;
    extent_ = size - entries_offset;
    return true;
}

u64 undo_log::checksum_of_entry(const entry_end& end, u64 place, const void* bytes) {
    const u64 words[] = {end.offset, end.size, place, end.size ? checksum_of(bytes, end.size) : 0};
    return checksum_of(words, sizeof words);
}

bool undo_log::keep(const void* address, u64 offset, u64 size) {
    const u64 place = tail_;
    const u64 end = place + padded(size) + sizeof(entry_end);
    if (!reserve_room(end)) return false;
    raw_copy(entries_ + place, address, size);
    entry_end last{offset, size, 0};
    // Nobody but this process reads the log of private memory.
    if (file_ >= 0) last.checksum = checksum_of_entry(last, place, entries_ + place);
    std::memcpy(entries_ + place + padded(size), &last, sizeof last);
    tail_ = end;
    set_tail(end);
    // The announced store must not be moved before the entry.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return true;
}

bool undo_log::roll_back(std::byte* base, u64 extent) {
    refresh();
    const bool checked = file_ >= 0;
    if (!each_entry(extent, checked, [](u64, u64, const std::byte*) {})) return false;
    each_entry(extent, false,
               [&](u64 offset, u64 size, const std::byte* old) { raw_copy(base + offset, old, size); });
    // A rollback that is cut off before this is done again.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    clear();
    return true;
}

void undo_log::clear() {
    const u64 used = tail();
    std::atomic_signal_fence(std::memory_order_seq_cst);
    header_->tail.store(empty_tail, std::memory_order_release);
    tail_ = 0;
    if (used <= kept_after_commit) return;
    if (file_ < 0) {
        madvise(entries_, used, MADV_DONTNEED);
    } else if (ftruncate(file_, static_cast<off_t>(growth_step)) == 0) {
        extent_ = growth_step - entries_offset;
    }
}

} // namespace loom
