// Arena memory: one range of addresses with an allocator of its own inside. The same code serves private memory
// and images of databases; what differs is the backing that gives it room. Sections, files and locks are not known
// here, only the undo log and the debug arena that listen to announcements.
//
//   base                                                                     top          extent        reserve
//   | arena_header | block | block | ...                                      |  untouched  |  not there yet |
//
//   block: | head: size and flags | payload ...         |    in use
//          | head | next | previous | ...  | size again |    free, in a bin, merged with its neighbours
//          | head | next | ...                          |    cached: free, small, not merged
//
// A block starts 8 bytes before a multiple of 16, so payloads are 16-byte aligned. Freeing a small block puts it
// on a list of blocks of exactly its size; those lists are merged into the bins only before the arena would grow.
//
// Every store of the allocator is announced. Blocks that are freed while a section is open keep their contents
// until it commits, unless they were made in the same section: only so can an abort bring them back.
#pragma once

#include "runtime/database/sanitizer.h"

#include "runtime/store/journal.h"

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace loom {
using namespace trellis;

class debug_arena;
class undo_log;

/// Gives an arena its room.
class backing {
  public:
    virtual ~backing() = default;
    /// Makes the bytes up to `extent` usable; 0 or the error number of what has no room.
    virtual int extend(std::byte* base, u64 old_extent, u64 extent) = 0;
};

/// A free or used piece of the arena.
struct block {
    u64 head;
    block* next;
    block* previous;
};
inline constexpr u64 block_in_use = 1;
inline constexpr u64 block_previous_in_use = 2;
inline constexpr u64 block_cached = 4;
inline constexpr u64 block_deferred = 8;
inline constexpr u64 block_flags = 15;
/// The upper 16 bits of a head: to whom the block belongs that was made outside of sections (nursery.h); 0: to
/// all.
inline constexpr u32 block_owner_shift = 48;
inline constexpr u64 block_size_mask = (u64{1} << block_owner_shift) - 1 - block_flags;

inline constexpr u64 block_head_size = 8;
inline constexpr u64 smallest_block = 32;
inline constexpr u64 largest_cached_block = 512;
/// Where the arena's first block begins.
inline constexpr u64 first_block = 4096 - block_head_size;

/// Size of the block for a payload.
inline u64 block_total(u64 payload) {
    const u64 total = (payload + block_head_size + 15) / 16 * 16;
    return total < smallest_block ? smallest_block : total;
}
inline block* block_of(const void* payload) {
    return reinterpret_cast<block*>(const_cast<std::byte*>(static_cast<const std::byte*>(payload)) -
                                    block_head_size);
}
inline std::byte* payload_of(const block* piece) {
    return reinterpret_cast<std::byte*>(const_cast<block*>(piece)) + block_head_size;
}

/// A block under a name.
struct named_root {
    named_root* next;
    void* block;
    u32 hash;
    u32 length;
};

inline constexpr char arena_magic[8] = {'L', 'O', 'O', 'M', 'A', 'R', 'N', 'A'};
inline constexpr u32 arena_version = 5;

/// The first bytes of every arena, and of every database file.
struct arena_header {
    char magic[8];
    u32 version;
    u32 header_size;
    u64 base;
    u64 reserve;
    u8 identity[16];
    char name[64];
    u64 fixed_check; ///< over everything before, which never changes
    u64 extent;
    u64 top;
    u64 top_previous_in_use;
    // Those in use are the taken ones but for the cached. The two counts that nearly every allocation changes lie
    // apart: written one by one and read together, they would hold up the processor.
    u64 cached_blocks;
    u64 taken_blocks;
    u64 taken_bytes;
    u64 cached_bytes;
    void* database_root; ///< what the layers above keep; null until they have made it
    u64 bin_map[3];
    block* cached[33];
    block* bins[192];
    named_root* roots[64];
};
static_assert(sizeof(arena_header) <= 4096 - 8 && std::is_trivially_copyable_v<arena_header>);

/// What fixed_check should be.
u64 check_of(const arena_header& header);

/// Puts ranges in order and joins those that touch.
void merge_ranges(std::vector<value_range>& ranges);

class arena {
  public:
    /// Takes over memory at `base` whose header is filled in already.
    void attach(std::byte* base, backing* room, bool private_memory);
    /// Writes a header for an arena without blocks.
    static void format(arena_header& header, u64 base, u64 reserve, u64 extent, const u8 identity[16],
                       const std::string& name);

    arena_header& header() const { return *reinterpret_cast<arena_header*>(base_); }
    std::byte* base() const { return base_; }
    bool contains(const void* address) const {
        return static_cast<u64>(static_cast<const std::byte*>(address) - base_) < reserve_;
    }
    u64 offset_of(const void* address) const {
        return static_cast<u64>(static_cast<const std::byte*>(address) - base_);
    }

    /// `size` bytes, 16-byte aligned, contents undefined; null when there is no room.
    void* allocate(u64 size);
    /// Gives a block back. Ends the process when it is none.
    void release(void* payload);
    /// The common case of both, without a call: a small block that lies on its list or goes there, while nobody
    /// listens. Null or false, and nothing done, in every other case.
    void* allocate_cached(u64 size);
    bool release_cached(void* payload);
    /// Lets the allocation after `count` further ones fail, and all after it; never with the largest number.
    void fail_after(u64 count) { failing_after_ = count; }
    /// Whether allocations are counted until one fails.
    bool fails_some_day() const { return failing_after_ != ~u64{0}; }
    /// Counts one allocation; true, with a text, when it is to fail.
    bool fails_now();
    /// Bytes that the block behind `payload` can hold.
    static u64 size_of(const void* payload);

    /// The bytes are about to change. False when the undo log has no room.
    bool announce(const void* address, u64 size) { return !listened_ || tell_listeners(address, size); }
    /// Whether anybody listens to announcements at all.
    bool listened() const { return listened_; }
    /// Announces and stores.
    template <class T>
    void assign(T& place, std::type_identity_t<T> value) {
        announce_or_end(&place, sizeof place);
        place = value;
    }
    /// For stores that cannot be refused: an announcement without room in the log ends the process, so that what
    /// the section has done so far can still be undone.
    void announce_or_end(const void* address, u64 size) {
        if (listened_) tell_listeners_or_end(address, size);
    }

    /// From here on announcements go to `log`, and freed blocks keep their contents.
    void open_section(undo_log& log);
    /// Carries out the deferred frees; they are still part of the section.
    void finish_section();
    /// Announcements go nowhere again.
    void close_section();
    /// The ranges that the open section has changed, in order and without overlap: what was announced, the blocks
    /// that it took from free lists, and everything above the former top. Of an `allocation`, a section that only
    /// takes or gives back blocks, the contents of blocks are left out: nobody has stored them yet. `others` are
    /// ranges that changed outside of sections. False when the log is damaged.
    bool changed_ranges(bool allocation, std::span<const value_range> others, std::vector<value_range>& ranges);
    /// After a rollback: tells the sanitizer anew which memory is in use.
    void refresh_poison();
    bool in_section() const { return log_ != nullptr; }

    /// Says in its head to whom a block belongs.
    void set_owner(void* payload, u32 owner);
    static u32 owner_of(const void* payload);

    void set_debug(debug_arena* debug);
    void set_next_tag(u32 tag) { next_tag_ = tag; }

    named_root* find_root(const char* name) const;
    /// Enters or replaces a root; false when there is no memory for it.
    bool set_root(const char* name, void* block);

    /// Visits all blocks in use by payload and size, in order.
    void each_block(const std::function<void(void*, u64)>& visit) const;
    /// Visits, in order, the bytes that no commit keeps: the insides of free blocks, and of those with an owner.
    void each_unkept_range(const std::function<void(const value_range&)>& visit) const;
    /// The block in use around `offset`, if any: payload and size.
    std::pair<const void*, u64> block_around(u64 offset) const;
    /// Empty when the arena's records agree with each other; otherwise the first fault.
    std::string verify() const;
    /// Lets the sanitizer forget what it was told, before the memory goes.
    void detach();

  private:
    bool tell_listeners(const void* address, u64 size);
    void tell_listeners_or_end(const void* address, u64 size);
    block* pop_cached(u64 total);
    block* take(u64 total);
    block* take_free(u64 total);
    block* take_top(u64 total);
    void unlink(block* piece, u64 size);
    void link(block* piece, u64 size);
    void push_cached(block* piece, u64 total);
    void merge(block* piece, u64 size);
    void flush_cached();
    bool grow(u64 total);
    void tell_shortage(u64 size) const;
    void set_previous_in_use(block* piece, bool in_use);
    void count_taken(i64 blocks, i64 bytes);
    void count_cached(i64 blocks, i64 bytes);
    block* at(u64 offset) const { return reinterpret_cast<block*>(base_ + offset); }
    block* piece_behind(block* piece, u64 size) const {
        return reinterpret_cast<block*>(reinterpret_cast<std::byte*>(piece) + size);
    }
    bool made_in_section(const block* piece) const;
    bool may_be_block(const block* piece) const;

    struct known_range {
        u64 offset = 0;
        u32 size = 0;
        u32 section = 0;
    };
    struct young_block {
        const block* piece = nullptr;
        u32 section = 0;
    };

    std::byte* base_ = nullptr;
    u64 reserve_ = 0;
    int shortage_ = 0; ///< why it could not grow; 0: it has all that it can ever have
    backing* room_ = nullptr;
    bool private_memory_ = false;
    bool listened_ = false;
    debug_arena* debug_ = nullptr;
    undo_log* log_ = nullptr;
    u32 section_ = 0;
    u32 next_tag_ = 0;
    u64 failing_after_ = ~u64{0};
    u64 section_top_ = 0;
    std::vector<block*> deferred_;
    std::vector<value_range> reused_; ///< blocks below section_top_ that the open section has taken, all of them
    std::vector<known_range> known_;  ///< ranges that the open section has logged; may forget
    std::vector<young_block> young_;  ///< blocks that the open section has made; may forget
};

inline void* arena::allocate_cached(u64 size) {
    if (listened_ || size > largest_cached_block - block_head_size) return nullptr;
    const u64 total = block_total(size);
    arena_header& h = header();
    block* piece = h.cached[total / 16];
    if (piece == nullptr) return nullptr;
    const u64 head = raw_load(&piece->head);
    if ((head & (~block_flags | block_cached)) != (total | block_cached)) return nullptr;
    h.cached[total / 16] = raw_load(&piece->next);
    h.cached_blocks -= 1;
    h.cached_bytes -= total;
    raw_store(&piece->head, head & ~block_cached);
    std::byte* payload = payload_of(piece);
    if (private_memory_) unpoison(payload, size);
    return payload;
}

inline bool arena::release_cached(void* payload) {
    block* piece = block_of(payload);
    const u64 offset = offset_of(piece);
    arena_header& h = header();
    // One test for what lies in front of the first block, or behind the last.
    if (listened_ || offset - first_block >= h.top - first_block || offset % 16 != 8) return false;
    const u64 head = raw_load(&piece->head);
    const u64 size = head & ~block_flags;
    constexpr u64 states = block_in_use | block_cached | block_deferred;
    if ((head & states) != block_in_use || size > largest_cached_block || size > h.top - offset) return false;
    if (private_memory_) poison(payload, size - block_head_size);
    raw_store(&piece->head, head | block_cached);
    raw_store(&piece->next, h.cached[size / 16]);
    h.cached[size / 16] = piece;
    h.cached_blocks += 1;
    h.cached_bytes += size;
    return true;
}

} // namespace loom
