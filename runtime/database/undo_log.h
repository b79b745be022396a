// The undo log of a write section: the old bytes of every announced range. It lies in memory that outlives the
// process when the database is a file, so that whoever takes the lock next can put the bytes back.
//
//   | undo_header | old bytes, padded to 8 | offset | length | old bytes | offset | length | ...   tail
//
// The tail moves only when an entry is complete, and the announced store comes after that. Entries are put back
// from the last to the first, so an address that was logged twice ends with its oldest bytes. An empty log means
// that the database is as the last commit left it.
#pragma once

#include "frame/basic_types.h"

#include <atomic>
#include <string>

namespace loom {
using namespace trellis;

struct undo_header {
    char magic[8];
    u32 version;
    u32 reserved;
    u8 identity[16]; ///< of the database that the log belongs to
    std::atomic<u64> tail;
};

class undo_log {
  public:
    undo_log() = default;
    undo_log(const undo_log&) = delete;
    undo_log& operator=(const undo_log&) = delete;
    ~undo_log();

    /// A log in memory of this process.
    bool open_private(u64 reserve);
    /// The log in the file at `path`, made if needed; 0 or an error number with a text.
    u32 open_file(const std::string& path, const u8 identity[16]);

    /// A section begins: another process may have changed the file's size meanwhile.
    void refresh();
    /// Keeps the bytes at `address`, which lie `offset` bytes behind the arena's start. False when there is no
    /// room.
    bool append(const void* address, u64 offset, u64 size);
    bool empty() const { return header_->tail.load(std::memory_order_acquire) == 0; }
    /// Puts all kept bytes back and empties the log. False, with nothing changed, when an entry reaches beyond
    /// `extent` bytes: the log is damaged.
    bool roll_back(std::byte* base, u64 extent);
    /// The section is committed: the kept bytes are not needed any more.
    void clear();
    u64 size() const { return header_->tail.load(std::memory_order_relaxed); }
    int descriptor() const { return file_; }

  private:
    bool reserve_room(u64 end);
    /// Maps the file anew, with addresses for `size` bytes and more; false when there are none.
    bool map_file(u64 size);
    /// Calls `visit` with offset, size and old bytes of each entry, latest first; false when the log is damaged.
    template <class Visit>
    bool each_entry(u64 extent, Visit visit) const;

    undo_header* header_ = nullptr;
    std::byte* entries_ = nullptr;
    u64 reserve_ = 0; ///< bytes of addresses that the log has
    u64 extent_ = 0;  ///< bytes of them that can be used
    int file_ = -1;
};

} // namespace loom
