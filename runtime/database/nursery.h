// Blocks that were made outside of sections belong to the handle that made them until its next commit, which tells
// the journal what they hold. Their heads carry the owner's number. When an owner dies before that, its blocks are
// given back by who opens the database next: nothing can lead to them, but for what other handles of the dead
// process may have linked, which stays.
//
// A number is held by a lock, which ends with its owner, and noted in the control page, so that the dead are found
// without a look at any block.
#pragma once

#include "runtime/database/arena.h"
#include "runtime/store/store.h"

namespace loom {

/// The number of one handle.
class block_owner {
  public:
    /// 0 while it has none.
    u32 number() const { return number_; }
    /// Gets one, under the write lock, unless it has one; 0 when all are taken. `file` is the handle's own.
    u32 take(const store& files, int file);
    /// No block has it any more.
    void give_up(const store& files);

  private:
    u32 number_ = 0;
    int file_ = -1;
};

/// The numbers of those who died. While this lives nobody gets one of them.
class dead_owners {
  public:
    dead_owners(const store& files, int file);
    dead_owners(const dead_owners&) = delete;
    dead_owners& operator=(const dead_owners&) = delete;
    ~dead_owners();
    bool any() const { return unswept_ || !numbers_.empty(); }
    /// Whether that one lives no more, under the write lock.
    bool has(u32 number) const;
    /// Their blocks are gone, and that is committed.
    void forget() const;

  private:
    owner_table& owners_;
    int file_;
    bool unswept_;
    std::vector<u32> numbers_;
};

/// Gives back the blocks of the dead to which no other block leads. Inside a write section.
void sweep(arena& memory, const dead_owners& dead);

} // namespace loom
