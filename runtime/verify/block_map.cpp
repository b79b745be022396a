// Marking blocks: a bit for each 16 bytes of the arena.
#include "runtime/verify/block_map.h"

#include "runtime/store/base.h"

#include <algorithm>
#include <bit>

namespace loom {
namespace {
constexpr u64 step = 16; // payloads lie at multiples of it
}

void block_map::make_bits() {
    bit_count_ = memory_.header().top / step + 1;
    begins_.resize(bit_count_ / 64 + 1);
    reached_.resize(begins_.size());
}

void block_map::add(u64 offset) {
    const u64 bit = offset / step;
    if (bit >= bit_count_) return;
    begins_[bit / 64] |= u64{1} << bit % 64;
    ++blocks_;
}

block_map::block_map(const arena& memory) : memory_(memory) {
    make_bits();
    memory.each_block([&](void* payload, u64) { add(memory.offset_of(payload)); });
}

/// How blocks lie in memory that is damaged.
class block_map::damaged_row {
  public:
    damaged_row(const arena& memory, std::span<const u64> lost_pages)
        : base_(memory.base()), top_(memory.header().top), lost_(lost_pages) {}

    u64 size_at(u64 offset) const { return head_at(offset) & block_size_mask; }
    bool is_in_use(u64 offset) const {
        const u64 head = head_at(offset);
        return (head & block_in_use) && !(head & (block_cached | block_deferred));
    }
    bool is_lost(u64 offset, u64 size) const {
        const auto page = std::lower_bound(lost_.begin(), lost_.end(), offset / page_size);
        return page != lost_.end() && *page * page_size < offset + size;
    }
    /// Whether a block may begin there, and as many behind it, each knowing of the one before.
    bool leads_on(u64 offset, u32 further) const {
        if (offset + block_head_size > top_ || is_lost(offset, block_head_size)) return false;
        const u64 size = size_at(offset);
        if (size < smallest_block || size % step != 0 || size > top_ - offset) return false;
        const u64 next = offset + size;
        if (further == 0 || next + block_head_size > top_ || is_lost(next, block_head_size)) return true;
        if (head_at(next) == 0) return true; // behind the last block nothing was ever stored
        const bool knows =
            ((head_at(next) & block_previous_in_use) != 0) == ((head_at(offset) & block_in_use) != 0);
        return knows && leads_on(next, further - 1);
    }

  private:
    u64 head_at(u64 offset) const { return raw_load(reinterpret_cast<const u64*>(base_ + offset)); }

    const std::byte* base_;
    u64 top_;
    std::span<const u64> lost_;
};

block_map::block_map(const arena& memory, std::span<const u64> lost_pages) : memory_(memory) {
    make_bits();
    const damaged_row row(memory, lost_pages);
    constexpr u32 proof = 4; // blocks behind one that is found anew
    bool on_track = true;
    for (u64 offset = first_block; offset + block_head_size <= memory.header().top;) {
        on_track = row.leads_on(offset, on_track ? 1 : proof);
        if (!on_track) {
            offset += step;
            continue;
        }
        const u64 size = row.size_at(offset);
        if (row.is_in_use(offset) && !row.is_lost(offset, size)) add(offset + block_head_size);
        offset += size;
    }
}

u64 block_map::bit_of(const void* payload) const {
    if (!memory_.contains(payload)) return bit_count_;
    const u64 offset = memory_.offset_of(payload);
    return offset % step == 0 && offset / step < bit_count_ ? offset / step : bit_count_;
}

u64 block_map::size_at(const void* payload) const {
    const u64 bit = bit_of(payload);
    return bit < bit_count_ && is_set(begins_, bit) ? arena::size_of(payload) : 0;
}

bool block_map::reach(const void* payload) {
    const u64 bit = bit_of(payload);
    if (bit == bit_count_ || !is_set(begins_, bit) || is_set(reached_, bit)) return false;
    reached_[bit / 64] |= u64{1} << bit % 64;
    return true;
}

bool block_map::is_reached(const void* payload) const {
    const u64 bit = bit_of(payload);
    return bit < bit_count_ && is_set(reached_, bit);
}

const void* block_map::block_around(const void* address) const {
    if (!memory_.contains(address)) return nullptr;
    const u64 offset = memory_.offset_of(address);
    const u64 bit = offset / step;
    if (bit >= bit_count_) return nullptr;
    u64 word = bit / 64;
    u64 before = begins_[word] & (~u64{0} >> (63 - bit % 64));
    while (before == 0 && word > 0)
        before = begins_[--word];
    if (before == 0) return nullptr;
    const u64 begin = (word * 64 + 63 - static_cast<u64>(std::countl_zero(before))) * step;
    const std::byte* payload = memory_.base() + begin;
    return offset - begin < arena::size_of(payload) ? payload : nullptr;
}

void block_map::each_lost(const std::function<void(void*, u64)>& visit) const {
    for (u64 word = 0; word < begins_.size(); ++word)
        for (u64 left = begins_[word] & ~reached_[word]; left != 0; left &= left - 1) {
            std::byte* payload = memory_.base() + (word * 64 + static_cast<u64>(std::countr_zero(left))) * step;
            visit(payload, arena::size_of(payload));
        }
}

} // namespace loom
