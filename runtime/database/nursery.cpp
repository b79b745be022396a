// Numbers of owners, and what becomes of the blocks of the dead.
#include "runtime/database/nursery.h"

#include <algorithm>
#include <utility>

namespace loom {
namespace {
lock_byte byte_of(u32 number) { return static_cast<lock_byte>(static_cast<u64>(lock_byte::owners) + number); }

/// The blocks of dead owners, in order, and which of them others lead to.
class orphans {
  public:
    void add(void* payload, u64 size) { all_.push_back({static_cast<std::byte*>(payload), size, false}); }
    bool empty() const { return all_.empty(); }
    bool has(const void* payload) const { return std::binary_search(all_.begin(), all_.end(), payload, before{}); }

    /// Every word may be a pointer: what looks like one leads to a block.
    void follow(const void* begin, u64 size) {
        const auto* words = static_cast<const u64*>(begin);
        for (u64 i = 0; i < size / sizeof(u64); ++i)
            reach(raw_load(words + i));
        while (!reached_.empty()) {
            const orphan* next = std::exchange(reached_.back(), nullptr);
            reached_.pop_back();
            for (u64 i = 0; i < next->size / sizeof(u64); ++i)
                reach(raw_load(reinterpret_cast<const u64*>(next->payload) + i));
        }
    }
    template <class Visit>
    void each(Visit visit) const {
        for (const orphan& each : all_)
            visit(each.payload, each.size, each.is_reached);
    }

  private:
    struct orphan {
        std::byte* payload;
        u64 size;
        bool is_reached;
    };
    struct before {
        bool operator()(const orphan& a, const void* b) const { return a.payload < b; }
        bool operator()(const void* a, const orphan& b) const { return a < b.payload; }
    };

    void reach(u64 word) {
        const auto* address = reinterpret_cast<const std::byte*>(word);
        if (address < all_.front().payload || address >= all_.back().payload + all_.back().size) return;
        const auto behind =
            std::upper_bound(all_.begin(), all_.end(), static_cast<const void*>(address), before{});
        orphan& found = *std::prev(behind);
        if (found.is_reached || address >= found.payload + found.size) return;
        found.is_reached = true;
        reached_.push_back(&found);
    }

    std::vector<orphan> all_;
    std::vector<const orphan*> reached_; ///< and not followed yet
};
} // namespace

u32 block_owner::take(const store& files, int file) {
    owner_table& owners = files.owners();
    // Blocks of the dead have numbers that only a sweep makes free.
    if (number_ || owners.unswept) return number_;
    for (u32 number = 1; number < owner_table::most; ++number) {
        if (owners.has(number) || !lock_byte_for_writing(file, byte_of(number), false)) continue;
        owners.set(number);
        number_ = number;
        file_ = file;
        break;
    }
    return number_;
}

void block_owner::give_up(const store& files) {
    if (!number_) return;
    files.owners().clear(number_);
    unlock_byte(file_, byte_of(number_));
    number_ = 0;
}

dead_owners::dead_owners(const store& files, int file)
    : owners_(files.owners()), file_(file), unswept_(owners_.unswept != 0) {
    for (u32 word = 0; word < owners_.taken.size(); ++word) {
        if (owners_.taken[word] == 0) continue;
        for (u32 number = word * 64; number < (word + 1) * 64; ++number)
            if (owners_.has(number) && lock_byte_for_writing(file, byte_of(number), false))
                numbers_.push_back(number);
    }
}

dead_owners::~dead_owners() {
    for (const u32 number : numbers_)
        unlock_byte(file_, byte_of(number));
}

bool dead_owners::has(u32 number) const {
    return !owners_.has(number) || std::binary_search(numbers_.begin(), numbers_.end(), number);
}

void dead_owners::forget() const {
    for (const u32 number : numbers_)
        owners_.clear(number);
    if (unswept_) owners_.unswept = 0;
}

void sweep(arena& memory, const dead_owners& dead) {
    orphans left;
    memory.each_block([&](void* payload, u64 size) {
        const u32 owner = arena::owner_of(payload);
        if (owner && dead.has(owner)) left.add(payload, size);
    });
    if (left.empty()) return;
    left.follow(&memory.header(), sizeof(arena_header));
    memory.each_block([&](void* payload, u64 size) {
        if (!left.has(payload)) left.follow(payload, size);
    });
    left.each([&](std::byte* payload, u64 size, bool is_reached) {
        if (!is_reached) return memory.release(payload);
        // Nobody has told the journal what it holds.
        memory.announce_or_end(payload, size);
        memory.set_owner(payload, 0);
    });
}

} // namespace loom
