// Marking blocks: a bit for each 16 bytes of the arena.
#include "runtime/verify/block_map.h"

#include <bit>

namespace loom {
namespace {
constexpr u64 step = 16; // payloads lie at multiples of it
}

block_map::block_map(const arena& memory) : memory_(memory) {
    const arena_header& h = memory.header();
    bit_count_ = h.top / step + 1;
    begins_.resize(bit_count_ / 64 + 1);
    reached_.resize(begins_.size());
    memory.each_block([&](void* payload, u64) {
        const u64 bit = memory.offset_of(payload) / step;
        if (bit >= bit_count_) return;
        begins_[bit / 64] |= u64{1} << bit % 64;
        ++blocks_;
    });
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
