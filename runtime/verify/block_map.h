// The blocks in use of an arena, and which of them have been reached. Nothing is followed that was not looked at
// before: the memory may be damaged.
#pragma once

#include "runtime/database/arena.h"

namespace loom {

class block_map {
  public:
    explicit block_map(const arena& memory);

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
    using bits = std::vector<u64>;
    /// The bit of an address that payloads may have; the number of all bits for any other.
    u64 bit_of(const void* payload) const;
    static bool is_set(const bits& all, u64 bit) { return (all[bit / 64] >> bit % 64 & 1) != 0; }

    const arena& memory_;
    u64 bit_count_ = 0;
    bits begins_;
    bits reached_;
    u64 blocks_ = 0;
};

} // namespace loom
