// Locks on bytes of the superblock's file, far behind its contents. They belong to an open file description,
// exclude threads and processes alike, and end with their owner.
#pragma once

#include "frame/basic_types.h"

#include <sys/types.h>

namespace loom {
using namespace trellis;

/// What is locked, and by whom.
enum class lock_byte : u64 {
    use,           ///< read: by everybody with the database open; write: by its only user
    gate,          ///< passed by all who want a section
    section,       ///< read: a read section, write: a write section
    opening,       ///< write: who judges whether the image may be trusted
    flushing,      ///< write: who flushes the journal
    truncating,    ///< write: who absorbs a journal into the base; read: who wants the base to stay
    owners = 1024, ///< and those behind it, one per number of an owner; write: who has that number
};

bool lock_byte_for_reading(int file, lock_byte byte, bool wait);
bool lock_byte_for_writing(int file, lock_byte byte, bool wait);
void unlock_byte(int file, lock_byte byte);
/// Whether another open file description has a lock there.
bool is_locked_by_another(int file, lock_byte byte);

/// A lock on a directory, given up with its scope: who has it makes the database there.
class directory_lock {
  public:
    explicit directory_lock(int directory);
    ~directory_lock();
    /// Whether somebody has the lock.
    static bool is_taken(int directory);
    directory_lock(const directory_lock&) = delete;
    directory_lock& operator=(const directory_lock&) = delete;

  private:
    int descriptor_;
};

} // namespace loom
