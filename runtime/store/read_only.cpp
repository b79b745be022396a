// Opening for reading only: a state of the database is put together in memory of the process, from base and
// journals that are read and locked, never written. Nothing in the directory changes, so it may lie on a medium
// that cannot be written.
#include "runtime/store/store.h"

#include "runtime/database/error_text.h"

#include <cerrno>
#include <sys/mman.h>

namespace loom {

u32 store::enter_read_only() {
    if (const u32 error = journal_.open(directory_, superblock_.incarnation, false)) return error;
    if (const u32 error = base_.open(directory_, superblock_.incarnation, false)) return error;
    if (superblock_.level == durability::volatile_ && base_.record().state == base_state::in_use)
        return fail(EBUSY,
                    "database %s: is volatile, and in use or was so when the machine went down: its files do not "
                    "hold it; open it for writing, or make a backup and restore that",
                    directory_.path().c_str());
    return 0;
}

u32 store::read_snapshot(std::byte* memory) {
    // Who writes meanwhile lets the journal grow under our eyes: an entry that was not whole yet may be followed
    // by others when we look for such.
    for (int attempts = 5;; --attempts) {
        u64 size = 0;
        u32 error = read_committed(memory, size, snapshot_place_);
        if (!error) error = check_end(snapshot_place_, 0);
        if (!error || attempts == 1) return error;
        madvise(memory, superblock_.room, MADV_DONTNEED);
    }
}

} // namespace loom
