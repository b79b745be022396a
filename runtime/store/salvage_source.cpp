#include "runtime/store/salvage_source.h"

#include "runtime/database/arena.h"
#include "runtime/database/error_text.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace loom {
namespace {
constexpr char image_name[] = "image";
std::string told(u64 number) { return std::to_string(number); }
} // namespace

salvage_source::~salvage_source() {
    if (memory_) munmap(memory_, fixed_.room);
    if (lock_file_ >= 0) close(lock_file_);
}

/// A superblock that is damaged is made up from what else knows it, if `report` may be told so.
u32 salvage_source::open(const std::string& path, const fault_fn* report) {
    if (const int error = directory_.open(path))
        return fail(static_cast<u32>(error), "database %s: cannot be opened: %s", path.c_str(),
                    words_of(error).c_str());
    if (const u32 error = read_superblock(directory_, fixed_)) {
        if (!report) return error;
        (*report)(superblock_name, error_text());
        if (const u32 failed = guess_superblock()) return failed;
    }
    lock_file_ = openat(directory_.descriptor(), superblock_name, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    return lock();
}

u32 salvage_source::lock() const {
    if (lock_file_ < 0 || lock_byte_for_writing(lock_file_, lock_byte::use, false)) return 0;
    return fail(EBUSY, "database %s: is in use; close it everywhere first", directory_.path().c_str());
}

/// The first page of the base says the same of the database, and `checksums` who the journal must be of.
u32 salvage_source::guess_superblock() {
    disk_file base, sums;
    arena_header header{};
    base_record record{};
    constexpr u64 slots[] = {0, 4096};
    if (base.open(directory_, base_name, false) != 0 || base.read(0, &header, sizeof header) != 0 ||
        std::memcmp(header.magic, arena_magic, sizeof header.magic) != 0 || header.fixed_check != check_of(header))
        return fail(
            EIO,
            "database %s: neither its superblock nor the first page of its base can be read; restore it from a "
            "backup",
            directory_.path().c_str());
    fixed_ = make_superblock(header.base, header.reserve, durability::durable, 0600, header.name);
    std::memcpy(fixed_.identity, header.identity, sizeof fixed_.identity);
    if (sums.open(directory_, checksums_name, false) != 0) return 0;
    for (const u64 slot : slots)
        if (sums.read(slot, &record, sizeof record) == 0 && record.checksum == checksum_of_record(record) &&
            record.turn != 0)
            std::memcpy(fixed_.incarnation, record.incarnation, sizeof fixed_.incarnation);
    return 0;
}

u32 salvage_source::reserve_addresses() {
    void* memory = mmap(reinterpret_cast<void*>(fixed_.base), fixed_.room, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (memory == MAP_FAILED || reinterpret_cast<u64>(memory) != fixed_.base) {
        if (memory != MAP_FAILED) munmap(memory, fixed_.room);
        return fail(EADDRINUSE, "database %s: must lie at address %" PRIx64 ", but something else does",
                    directory_.path().c_str(), fixed_.base);
    }
    memory_ = static_cast<std::byte*>(memory);
    return 0;
}

u32 salvage_source::read_image(const std::string& path) {
    if (const u32 error = open(path, nullptr)) return error;
    if (const u32 error = reserve_addresses()) return error;
    disk_file image;
    int error = image.open(directory_, image_name, false);
    size_ = error ? 0 : std::min(image.size() / page_size * page_size, fixed_.room);
    if (!error) error = image.read(0, memory_, size_);
    if (!error) return 0;
    return fail(static_cast<u32>(error), "database %s: its image cannot be read: %s", path.c_str(),
                words_of(error).c_str());
}

u32 salvage_source::read_files(const std::string& path, const fault_fn& report) {
    if (const u32 error = open(path, &report)) return error;
    if (const u32 error = reserve_addresses()) return error;
    if (const u32 error = read_base(report)) return error;
    if (journal_.open(directory_, fixed_.incarnation, false) == 0)
        read_journal(report);
    else
        report("journal", error_text());
    for (const auto& [page, mended] : mended_) {
        if (std::ranges::find(mended, false) == mended.end()) continue;
        std::memset(memory_ + page * page_size, 0, page_size);
        lost_pages_.push_back(page);
        report(std::string(base_name) + ", page " + told(page),
               "does not fit its checksum, and the journal does not have all of it");
    }
    return 0;
}

u32 salvage_source::read_base(const fault_fn& report) {
    if (base_.open(directory_, fixed_.incarnation, false) != 0) {
        // Without checksums every page is taken as it is; records that make no sense will show.
        report(checksums_name, error_text() + "; pages are taken without a check");
        disk_file pages;
        if (const int error = pages.open(directory_, base_name, false))
            return fail(static_cast<u32>(error), "database %s: its base cannot be opened: %s",
                        directory_.path().c_str(), words_of(error).c_str());
        size_ = std::min(pages.size() / page_size * page_size, fixed_.room);
        if (const int error = pages.read(0, memory_, size_))
            return fail(static_cast<u32>(error), "database %s: its base cannot be read: %s",
                        directory_.path().c_str(), words_of(error).c_str());
        return 0;
    }
    base_number_ = base_.record().number;
    size_ = std::min(base_.record().pages * page_size, fixed_.room);
    base_.copy_readable(memory_, size_, [&](u64 page) { mended_[page].resize(page_size); });
    return 0;
}

void salvage_source::put_in(const value_part& value) {
    if (value.offset > fixed_.room || value.bytes.size() > fixed_.room - value.offset) return;
    std::memcpy(memory_ + value.offset, value.bytes.data(), value.bytes.size());
    size_ = std::max(size_, (value.offset + value.bytes.size() + page_size - 1) / page_size * page_size);
    const u64 end = value.offset + value.bytes.size();
    for (auto page = mended_.lower_bound(value.offset / page_size); page != mended_.end(); ++page) {
        const u64 first = page->first * page_size;
        if (first >= end) break;
        for (u64 at = std::max(value.offset, first); at < std::min(end, first + page_size); ++at)
            page->second[at - first] = true;
    }
}

/// Puts in what the file holds behind `place`, whose end it then is. False when something is missing there.
bool salvage_source::read_journal_file(u32 file, journal_place& place, const fault_fn& report) {
    for (journal_entry entry; journal_.read(place, entry); place = place_behind(entry, file)) {
        if (entry.header.number <= base_number_) continue;
        const u32 error = journal_.each_value(file, entry, [&](const value_part& value) -> u32 {
            put_in(value);
            return 0;
        });
        if (error) report(journal_names[file], "commit " + told(entry.header.number) + " cannot be read");
    }
    // Pages that an absorption was about to write, or had written, are good when they are what it promised.
    journal_entry promised;
    if (journal_.read_checksums(place, promised))
        for (const page_checksum& each : promised.page_checksums)
            if (each.page < size_ / page_size &&
                checksum_of(memory_ + each.page * page_size, page_size) == each.checksum)
                mended_.erase(each.page);
    return journal_.flushed_according_to(place) <= place.number && journal_.cut_bytes_behind(place) == 0;
}

/// Values may be put in again, so it does no harm to begin before the base.
void salvage_source::read_journal(const fault_fn& report) {
    journal_place starts[journal_files];
    for (u32 file = 0; file < journal_files; ++file)
        starts[file] = journal_.start_of(file);
    const u32 first = starts[1].offset != 0 && (starts[0].offset == 0 || starts[1].number < starts[0].number);
    u64 reached = base_number_;
    bool whole = true;
    for (const u32 file : {first, 1 - first}) {
        journal_place place = starts[file];
        if (place.offset == 0) continue; // not written yet, or its header is damaged
        if (place.number > reached) break;
        whole = read_journal_file(file, place, report);
        reached = std::max(reached, place.number);
    }
    const journal_place& last = starts[1 - first];
    if (whole && (last.offset == 0 || last.number <= reached)) return;
    report("journal", "commits from number " + told(reached + 1) + " on cannot be read");
}

} // namespace loom
