// Checking the files of an open database, beside its users: superblock, base, journal, and what control says of
// them. The memory in the image is looked through elsewhere (runtime/verify/).
#include "runtime/database/error_text.h"
#include "runtime/store/store.h"

#include <cerrno>
#include <cstring>

namespace loom {
namespace {
std::string numbered(const char* what, u64 number) { return what + std::to_string(number); }
} // namespace

void store::verify_superblock(const fault_fn& report) const {
    superblock found{};
    if (read_superblock(directory_, found) != 0)
        report(superblock_name, error_text());
    else if (std::memcmp(&found, &superblock_, sizeof found) != 0)
        report(superblock_name, "is of another database than the one that is open: it was replaced");
}

void store::verify_base(const fault_fn& report, u64& pages) {
    struct collector {
        const fault_fn& report;
        std::string directory;
    } context{report, directory_.path()};
    const auto page_fault = [](u64 page, void* to) {
        const auto& own = *static_cast<collector*>(to);
        own.report(std::string(base_name) + ", page " + std::to_string(page),
                   "does not fit its checksum: the disk has damaged it, or the checksum; what lies at offsets " +
                       std::to_string(page * page_size) + " to " + std::to_string((page + 1) * page_size - 1) +
                       " is lost unless the journal has it");
    };
    pages = base_.record().pages;
    if (base_.verify(page_fault, &context) != 0) report(base_name, error_text());
}

/// Follows the entries from the base to the latest commit.
void store::verify_journal(const fault_fn& report, const journal_place& last, u64& entries) const {
    const base_record& record = base_.record();
    if (last.number < record.number)
        return report("control", numbered("tells of commit ", last.number) +
                                     " as the latest, the base is of commit " + std::to_string(record.number));
    journal_place place;
    if (find_start(place) != 0) return report(journal_names[last.file], error_text());
    journal_entry entry;
    while (place.number < last.number) {
        if (journal_.read(place, entry)) {
            place = place_behind(entry, place.file);
            ++entries;
            continue;
        }
        const u32 other = (place.file + 1) % journal_files;
        if (!journal_.begins_behind(other, place.number, place.previous))
            return report(
                std::string(journal_names[place.file]) + ", offset " + std::to_string(place.offset),
                numbered("the entry of commit ", place.number + 1) +
                    " is damaged; behind a crash of the machine the commits from there on would be lost");
        place = journal_.start_of(other);
    }
    if (!(place.previous == last.previous))
        report("control", numbered("tells another commit ", last.number) + " than the journal");
}

void store::verify_control(const fault_fn& report, const journal_place& last) const {
    const u32 failed = control_->failed.load(std::memory_order_acquire);
    if (failed != 0)
        report("control", "a write or a flush has failed (" + words_of(static_cast<int>(failed)) +
                              "), so no more is committed; close the database everywhere and open it again");
    const u64 flushed = control_->flushed.load(std::memory_order_acquire);
    if (flushed > last.number)
        report("control", numbered("tells of commit ", flushed) + " as flushed, the latest is " +
                              std::to_string(last.number));
}

u32 store::verify_files(const fault_fn& report, u64& pages, u64& entries) {
    pages = entries = 0;
    verify_superblock(report);
    if (superblock_.level == durability::volatile_) return 0; // the files are written by who closes it last
    if (is_read_only()) {
        // The opening has checked all that the state is made of; what comes later is not looked at.
        pages = base_.record().pages;
        return 0;
    }
    // What an absorption that was cut off has left half done is done first.
    if (truncate() != 0) report(base_name, error_text());
    const std::lock_guard guard(truncation_mutex_);
    if (!lock_byte_for_reading(lock_file_, lock_byte::truncating, true))
        return fail(static_cast<u32>(errno), "database %s: cannot be locked: %s", directory_.path().c_str(),
                    words_of(errno).c_str());
    if (base_.refresh() != 0) {
        report(checksums_name, error_text());
    } else {
        verify_base(report, pages);
        journal_end end;
        if (!control_.read_end(end)) {
            report("control", "does not say where the journal ends");
        } else {
            verify_control(report, end.place);
            verify_journal(report, end.place, entries);
        }
    }
    unlock_byte(lock_file_, lock_byte::truncating);
    return 0;
}

} // namespace loom
