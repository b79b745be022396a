// An open store: commits, flushes, truncation and the keeper. How directories are made and entered stands in
// store_opening.cpp.
#include "runtime/store/store.h"

#include "runtime/database/error_text.h"

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace loom {
namespace {
/// How long a commit of an ordered database may wait for its flush.
constexpr auto flush_delay = std::chrono::milliseconds(500);

long futex(std::atomic<u32>& word, int operation, u32 value) {
    return syscall(SYS_futex, reinterpret_cast<u32*>(&word), operation, value, nullptr, nullptr, 0);
}
} // namespace

store::~store() {
    stop_keeper();
    if (image_ >= 0) close(image_);
    if (lock_file_ >= 0) close(lock_file_);
}

void store::strengthen(durability wanted) {
    if (wanted > level_ && superblock_.level != durability::volatile_) level_ = wanted;
}

// --------------------------------------------------------------------------------------------------- commits

journal_end store::end_of_journal() const {
    if (is_read_only()) return {snapshot_place_, 0};
    journal_end end;
    if (!control_.read_end(end)) fatal("database %s: its control page is damaged", directory_.path().c_str());
    return end;
}

u64 store::committed() const { return end_of_journal().place.number; }

/// Begins the other file when the present one has grown over its limit, unless the other is still needed: by the
/// base, or by a machine that goes down before the present one's first entry is on the disk.
int store::change_file(journal_end& end) {
    const u64 flushed = control_->flushed.load(std::memory_order_acquire);
    if (end.place.offset <= journal_limit_ || end.first_of_file - 1 > control_->absorbed ||
        flushed < end.first_of_file)
        return 0;
    if (const int error = journal_.begin(end.place)) return error;
    end.first_of_file = end.place.number + 1;
    control_.publish(end);
    return 0;
}

/// The journal has not got an entry.
u32 store::refuse_commit(int error) {
    if (error != ENOSPC && error != EDQUOT && error != EFBIG) return fail_for_good(static_cast<u32>(error));
    return fail(static_cast<u32>(error),
                "database %s: the journal has no room for the commit: %s; it was taken back: make room on the "
                "disk and try again",
                directory_.path().c_str(), words_of(error).c_str());
}

u64 store::begin_section() {
    const u64 number = committed() + 1;
    control_->open_section.store(number, std::memory_order_release);
    return number;
}

u32 store::commit(std::span<const value_range> ranges, const std::byte* image, bool waits_for_flush) {
    if (const u32 error = check_failure()) return error;
    journal_end end = end_of_journal();
    if (superblock_.level == durability::volatile_) {
        ++end.place.number;
        control_.publish(end);
        return 0;
    }
    int error = change_file(end);
    if (!error)
        error = journal_.append(end.place, entry_kind::values, ranges, image,
                                control_->flushed.load(std::memory_order_acquire));
    if (error) return refuse_commit(error);
    control_.publish(end);
    // The keeper looks at what is committed behind a store to `flushed`, we the other way round: one of us sees
    // it.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (!waits_for_flush && control_->flushed.load(std::memory_order_acquire) + 1 == end.place.number)
        wake_keepers();
    return 0;
}

bool store::was_committed(u64 number) {
    journal_end end;
    if (!control_.read_end(end)) return false;
    journal_place& place = end.place;
    if (place.number >= number) return true;
    journal_entry entry;
    if (superblock_.level == durability::volatile_ || place.number + 1 != number || !journal_.read(place, entry))
        return false;
    place = place_behind(entry, place.file);
    control_.publish(end);
    return true;
}

u32 store::fail_for_good(u32 error) {
    u32 none = 0;
    control_->failed.compare_exchange_strong(none, error);
    return check_failure();
}

u32 store::check_failure() const {
    if (is_read_only()) return 0;
    const u32 error = control_->failed.load(std::memory_order_acquire);
    if (!error) return 0;
    return fail(
        error,
        "database %s: the disk has failed a write or a flush (%s), so what was committed last may not be on "
        "it; nothing more is committed until all users have closed the database and it is opened again",
        directory_.path().c_str(), words_of(static_cast<int>(error)).c_str());
}

// --------------------------------------------------------------------------------------------------- flushes

u32 store::flush(u64 number) {
    if (superblock_.level == durability::volatile_ || is_read_only()) return 0;
    while (control_->flushed.load(std::memory_order_acquire) < number) {
        if (const u32 error = check_failure()) return error;
        const std::lock_guard guard(flush_mutex_);
        if (!lock_byte_for_writing(lock_file_, lock_byte::flushing, true))
            return fail(static_cast<u32>(errno), "database %s: cannot be locked for a flush: %s",
                        directory_.path().c_str(), words_and_cure_of(errno).c_str());
        int error = 0;
        const u64 flushed = control_->flushed.load(std::memory_order_acquire);
        if (flushed < number) {
            const journal_end end = end_of_journal();
            const journal_place& place = end.place;
            // The file that was written before may hold entries that were not flushed yet.
            if (end.first_of_file > flushed + 1) error = journal_.flush((place.file + 1) % journal_files);
            if (!error) error = journal_.flush(place.file);
            if (!error) control_->flushed.store(place.number, std::memory_order_release);
        }
        unlock_byte(lock_file_, lock_byte::flushing);
        if (error) return fail_for_good(static_cast<u32>(error));
    }
    return 0;
}

// ------------------------------------------------------------------------------------------------ truncation

bool store::wants_truncation() const {
    return superblock_.level != durability::volatile_ && !is_read_only() && control_->failed == 0 &&
           end_of_journal().first_of_file - 1 > control_->absorbed;
}

u32 store::truncate() {
    const std::lock_guard guard(truncation_mutex_);
    if (!wants_truncation() || !lock_byte_for_writing(lock_file_, lock_byte::truncating, false)) return 0;
    u32 error = 0;
    // Looked at again: another process may just have done it.
    if (wants_truncation()) {
        // The file before the present one; the next change of files waits for its absorption.
        const journal_end end = end_of_journal();
        const u64 last = end.first_of_file - 1;
        error = flush(last);
        if (!error) error = base_.refresh();
        if (!error)
            error = base_.absorb(journal_, (end.place.file + 1) % journal_files, last,
                                 control_->flushed.load(std::memory_order_acquire));
        if (!error) control_->absorbed.store(last, std::memory_order_release);
        // Without room it is tried again later; anything else must be looked at by somebody.
        if (error) fail_for_good(error);
    }
    unlock_byte(lock_file_, lock_byte::truncating);
    return error;
}

u32 store::leave_volatile(const std::byte* image, u64 size) {
    // Who opens it meanwhile waits, and finds the base closed or still in use.
    if (!lock_byte_for_writing(lock_file_, lock_byte::opening, true)) return static_cast<u32>(errno);
    u32 error = 0;
    if (is_only_user() && !has_open_section()) {
        const journal_place place = end_of_journal().place;
        error = base_.refresh();
        if (!error) error = base_.copy_from(image, size, place.number, place.previous);
        // Pages that were not flushed would count as written the next time.
        if (error && error != ENOSPC && error != EDQUOT) fail_for_good(error);
    }
    unlock_byte(lock_file_, lock_byte::opening);
    return error;
}

bool store::is_only_user() const { return !is_locked_by_another(lock_file_, lock_byte::use); }

// ------------------------------------------------------------------------------------------------ the keeper

void store::wake_keepers() {
    control_->wake.fetch_add(1, std::memory_order_release);
    futex(control_->wake, FUTEX_WAKE, INT_MAX);
}

void store::start_keeper() {
    process_ = getpid();
    // Signals are for the program's own threads.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    keeper_ = std::thread([this] { keep(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void store::stop_keeper() {
    if (!keeper_.joinable()) return;
    if (process_ != getpid()) {
        // A child of fork has no keeper, only the memory of one.
        keeper_.detach();
        return;
    }
    {
        const std::lock_guard guard(keeper_mutex_);
        stopping_ = true;
    }
    keeper_stops_.notify_all();
    wake_keepers();
    keeper_.join();
}

void store::keep() {
    std::unique_lock guard(keeper_mutex_);
    while (!stopping_) {
        const u32 seen = control_->wake.load(std::memory_order_acquire);
        guard.unlock();
        std::atomic_thread_fence(std::memory_order_seq_cst);
        const bool idle = control_->failed != 0 || (committed() <= control_->flushed && !wants_truncation());
        if (idle) futex(control_->wake, FUTEX_WAIT, seen);
        guard.lock();
        if (keeper_stops_.wait_for(guard, flush_delay, [this] { return stopping_; })) break;
        guard.unlock();
        if (control_->failed == 0 && flush(committed()) == 0) truncate();
        guard.lock();
    }
}

} // namespace loom
