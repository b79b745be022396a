// The undo log of a write section: the before-images, that is the old bytes of every announced range. It lies in
// memory that outlives the process when the database is mapped, so that whoever takes the lock next can put the
// bytes back.
//
//   | undo_header | old bytes, padded to 8 | entry_end | old bytes | entry_end | ...   tail
//
// The tail moves only when an entry is complete, and the announced store comes after that. Entries are put back
// from the last to the first, so an address that was kept twice ends with its oldest bytes. An empty log means
// that the image is as the last commit left it.
//
// The log belongs to one image, whose number it carries, and to the file that it was made as. A log that is
// missing, short, of another image or damaged is never taken for an empty one.
#pragma once

#include "runtime/store/store.h"

#include <atomic>
#include <cstring>

namespace loom {

struct undo_header {
    char magic[8];
    u32 version;
    u32 record_size;
    u64 making;      ///< of the image
    u64 file_number; ///< of the log's own file
    u64 checksum;    ///< of everything before
    /// Number of the commit that the open section will make, and its complement. Set while the log is empty.
    std::atomic<u64> number;
    std::atomic<u64> number_complement;
    /// Bytes of entries, in units of 8 and shifted by 16; the lower 16 bits are a check of the upper ones.
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
    /// The log of the store's image; false when it is not that, and must be made.
    bool open_file(const store& files);
    /// Makes it, empty; 0 or an error number with a text.
    u32 make_file(const store& files);

    /// A section begins, for the commit of that number: another process may have changed the file's size
    /// meanwhile.
    void begin(u64 number);
    /// Keeps the bytes at `address`, which lie `offset` bytes behind the arena's start. False when there is no
    /// room.
    bool keep(const void* address, u64 offset, u64 size);
    bool empty() const { return header_->tail.load(std::memory_order_acquire) == empty_tail; }
    /// Number of the commit that the section was to make; 0 when it cannot be told.
    u64 number() const;
    /// Puts all kept bytes back and empties the log. False, with nothing changed, when the log is damaged: an
    /// entry does not fit its checksum, or reaches beyond `extent` bytes.
    bool roll_back(std::byte* base, u64 extent);
    /// Calls `visit` with the range of each entry. False when the log is damaged.
    template <class Visit>
    bool each_range(u64 extent, Visit visit) {
        return each_entry(extent, false, [&](u64 offset, u64 size, const std::byte*) {
            visit(value_range{offset, size});
        });
    }
    /// The section is committed: the kept bytes are not needed any more.
    void clear();

  private:
    static constexpr u64 empty_tail = 0;
    bool map_file(u64 size);
    bool reserve_room(u64 end);
    void refresh();
    u64 tail() const;
    void set_tail(u64 bytes);
    template <class Visit>
    bool each_entry(u64 extent, bool checked, Visit visit) const;

    undo_header* header_ = nullptr;
    std::byte* entries_ = nullptr;
    u64 tail_ = 0;    ///< of this process's section
    u64 reserve_ = 0; ///< bytes of addresses that the log has
    u64 extent_ = 0;  ///< bytes of them that can be used
    int file_ = -1;

    struct entry_end {
        u64 offset;
        u64 size;
        u64 checksum; ///< of the old bytes, of the two fields above, and of the place in the log
    };
    static u64 checksum_of_entry(const entry_end& end, u64 place, const void* bytes);
};

template <class Visit>
bool undo_log::each_entry(u64 extent, bool checked, Visit visit) const {
    u64 rest = tail();
    if (rest == ~u64{0} || rest > extent_) return false;
    while (rest) {
        entry_end end{};
        if (rest < sizeof end) return false;
        std::memcpy(&end, entries_ + rest - sizeof end, sizeof end);
        rest -= sizeof end;
        const u64 padded = (end.size + 7) & ~u64{7};
        if (end.size > rest || padded > rest || end.offset > extent || end.size > extent - end.offset)
            return false;
        rest -= padded;
        if (checked && end.checksum != checksum_of_entry(end, rest, entries_ + rest)) return false;
        visit(end.offset, end.size, entries_ + rest);
    }
    return true;
}

} // namespace loom
