// The blocks in use of an arena, and which of them have been reached. Nothing is followed that was not looked at
// before: the memory may be damaged.
#pragma once

#include "runtime/database/arena.h"

#include <span>

namespace loom {

class block_map {
  public:
    explicit block_map(const arena& memory);
    /// Of an arena that is damaged, parts of which are not known: `lost_pages`, in order. Where blocks do not lead
    /// on from one to the next, the next place is looked for from which they do. Blocks that lie in a lost page,
    /// in part or as a whole, are left out.
    block_map(const arena& memory, std::span<const u64> lost_pages);

    /// Bytes that the block in use behind `payload` can hold; 0 when no block begins there.
    u64 size_at(const void* payload) const;
    /// Marks a block; false when it was marked before, or is none.
    bool reach(const void* payload);
    bool is_reached(const void* payload) const;
    /// The block in use around `address`; null when there is none.
    const void* block_around(const void* address) const;

    u64 blocks() const { return blocks_; }
    /// Visits the blocks that were not reached, by payload and size, in order.
    void each_lost(const std::function<void(void*, u64)>& visit) const;
    u64 offset_of(const void* address) const { return memory_.offset_of(address); }
    const arena& memory() const { return memory_; }

  private:
    class damaged_row;
    using bits = std::vector<u64>;
    /// The bit of an address that payloads may have; the number of all bits for any other.
    u64 bit_of(const void* payload) const;
    void make_bits();
    void add(u64 offset);
    static bool is_set(const bits& all, u64 bit) { return (all[bit / 64] >> bit % 64 & 1) != 0; }

    const arena& memory_;
    u64 bit_count_ = 0;
    bits begins_;
    bits reached_;
    u64 blocks_ = 0;
};

} // namespace loom
