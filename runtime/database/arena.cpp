// The allocator inside an arena, its named roots, and where announcements go.
#include "runtime/database/arena.h"

#include "runtime/database/debug_arena.h"
#include "runtime/database/error_text.h"
#include "runtime/database/undo_log.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace loom {
namespace {
constexpr u64 head_size = block_head_size;
constexpr u64 smallest_growth = u64{256} << 10;
constexpr u64 largest_growth = u64{64} << 20;
constexpr std::size_t known_ranges = 4096;
constexpr std::size_t young_blocks = 16384;
constexpr u32 scanned_of_a_bin = 64;

u64 round_up(u64 value, u64 step) { return (value + step - 1) / step * step; }

/// The bin for free blocks of that size: one per 16 bytes up to 1 KiB, then four per power of two.
u32 bin_of(u64 size) {
    if (size < 1024) return static_cast<u32>(size / 16);
    const u32 power = static_cast<u32>(std::bit_width(size)) - 1;
    return 64 + (power - 10) * 4 + static_cast<u32>((size >> (power - 2)) & 3);
}

u64 head_of(const block* piece) { return raw_load(&piece->head); }
u64 size_in(u64 head) { return head & block_size_mask; }
u64 without_owner(u64 head) { return head & (block_size_mask | block_flags); }
block* next_of(const block* piece) { return raw_load(&piece->next); }
/// The size that a free block repeats at its end.
u64* footer_of(block* piece, u64 size) {
    return reinterpret_cast<u64*>(reinterpret_cast<std::byte*>(piece) + size - sizeof(u64));
}

u32 hash_of(const char* name, std::size_t length) {
    u32 hash = 2166136261u;
    for (std::size_t i = 0; i < length; ++i)
        hash = (hash ^ static_cast<u8>(name[i])) * 16777619u;
    return hash;
}
const char* name_of(const named_root* root) { return reinterpret_cast<const char*>(root + 1); }

std::size_t slot_of(u64 value, std::size_t slots) {
    return static_cast<std::size_t>((value * 0x9E3779B97F4A7C15u) >> 40) % slots;
}
} // namespace

u64 check_of(const arena_header& header) {
    const auto* bytes = reinterpret_cast<const u8*>(&header);
    u64 check = 14695981039346656037u;
    for (std::size_t i = 0; i < offsetof(arena_header, fixed_check); ++i)
        check = (check ^ bytes[i]) * 1099511628211u;
    return check;
}

void arena::format(arena_header& header, u64 base, u64 reserve, u64 extent, const u8 identity[16],
                   const std::string& name) {
    header = {};
    std::memcpy(header.magic, arena_magic, sizeof arena_magic);
    header.version = arena_version;
    header.header_size = sizeof(arena_header);
    header.base = base;
    header.reserve = reserve;
    std::memcpy(header.identity, identity, 16);
    name.copy(header.name, sizeof header.name - 1);
    header.fixed_check = check_of(header);
    header.extent = extent;
    header.top = first_block;
    header.top_previous_in_use = 1;
}

void arena::attach(std::byte* base, backing* room, bool private_memory) {
    base_ = base;
    room_ = room;
    private_memory_ = private_memory;
    reserve_ = header().reserve;
    if (private_memory_) poison(base_ + header().top, header().extent - header().top);
}

void arena::detach() {
    if (base_ && private_memory_) unpoison(base_, header().extent);
}

// ------------------------------------------------------------------------------------------------- announcements

bool arena::tell_listeners(const void* address, u64 size) {
    if (size == 0 || !contains(address)) return true;
    const u64 offset = offset_of(address);
    if (size > header().extent - std::min(offset, header().extent)) {
        fail(EINVAL, "arena: an announcement of %llu bytes at offset %llu runs past the end of the arena",
             static_cast<unsigned long long>(size), static_cast<unsigned long long>(offset));
        return false;
    }
    if (debug_) debug_->announced(offset, size);
    if (!log_ || offset >= section_top_) return true;
    known_range& known = known_[slot_of(offset, known_ranges)];
    if (known.section == section_ && known.offset == offset && known.size >= size) return true;
    if (!log_->keep(address, offset, size)) {
        fail(ENOSPC, "arena: the undo log has no room for %llu bytes more; make room on the disk",
             static_cast<unsigned long long>(size));
        return false;
    }
    known = {offset, static_cast<u32>(std::min<u64>(size, ~u32{0})), section_};
    return true;
}

void arena::tell_listeners_or_end(const void* address, u64 size) {
    if (!tell_listeners(address, size)) fatal("%s", error_text().c_str());
}

void arena::set_debug(debug_arena* debug) {
    debug_ = debug;
    listened_ = debug_ || log_;
}

void arena::open_section(undo_log& log) {
    known_.resize(known_ranges);
    young_.resize(young_blocks);
    if (++section_ == 0) {
        // After 2^32 sections the marks of the first ones would be believed again.
        std::fill(known_.begin(), known_.end(), known_range{});
        std::fill(young_.begin(), young_.end(), young_block{});
        section_ = 1;
    }
    section_top_ = header().top;
    reused_.clear();
    log_ = &log;
    listened_ = true;
}

void arena::finish_section() {
    for (block* piece : deferred_) {
        const u64 head = head_of(piece) & ~block_deferred;
        announce_or_end(piece, sizeof piece->head);
        raw_store(&piece->head, head);
        if (size_in(head) <= largest_cached_block)
            push_cached(piece, size_in(head));
        else
            merge(piece, size_in(head));
    }
    deferred_.clear();
}

void merge_ranges(std::vector<value_range>& ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const value_range& a, const value_range& b) { return a.offset < b.offset; });
    std::size_t last = 0;
    for (const value_range& range : ranges) {
        value_range& before = ranges[last];
        if (range.offset <= before.offset + before.length)
            before.length = std::max(before.length, range.offset + range.length - before.offset);
        else
            ranges[++last] = range;
    }
    if (!ranges.empty()) ranges.resize(last + 1);
}

bool arena::changed_ranges(bool allocation, std::span<const value_range> others,
                           std::vector<value_range>& ranges) {
    const arena_header& h = header();
    ranges.assign(others.begin(), others.end());
    if (!log_->each_range(reserve_, [&](const value_range& range) { ranges.push_back(range); })) return false;
    // Blocks may have been given back and merged since: what lies there now is as good.
    for (const value_range& taken : reused_)
        ranges.push_back({taken.offset, allocation ? head_size : taken.length});
    if (h.top > section_top_) ranges.push_back({section_top_, allocation ? head_size : h.top - section_top_});
    merge_ranges(ranges);
    return true;
}

void arena::close_section() {
    deferred_.clear();
    log_ = nullptr;
    listened_ = debug_ != nullptr;
}

void arena::refresh_poison() {
    if (!private_memory_) return;
    poison(base_ + first_block, header().extent - first_block);
    each_block([](void* payload, u64 size) { unpoison(payload, size); });
}

bool arena::made_in_section(const block* piece) const {
    if (offset_of(piece) >= section_top_) return true;
    const young_block& young = young_[slot_of(offset_of(piece), young_blocks)];
    return young.section == section_ && young.piece == piece;
}

// ----------------------------------------------------------------------------------------------- allocating

void arena::count_taken(i64 blocks, i64 bytes) {
    arena_header& h = header();
    assign(h.taken_blocks, h.taken_blocks + static_cast<u64>(blocks));
    assign(h.taken_bytes, h.taken_bytes + static_cast<u64>(bytes));
}
void arena::count_cached(i64 blocks, i64 bytes) {
    arena_header& h = header();
    assign(h.cached_blocks, h.cached_blocks + static_cast<u64>(blocks));
    assign(h.cached_bytes, h.cached_bytes + static_cast<u64>(bytes));
}

void arena::push_cached(block* piece, u64 total) {
    arena_header& h = header();
    block*& list = h.cached[total / 16];
    if (debug_) debug_->released(offset_of(piece) + head_size, total - head_size);
    announce_or_end(piece, 2 * sizeof(u64));
    raw_store(&piece->head, without_owner(head_of(piece)) | block_cached);
    raw_store(&piece->next, list);
    assign(list, piece);
    count_cached(1, static_cast<i64>(total));
}

block* arena::pop_cached(u64 total) {
    arena_header& h = header();
    block* piece = h.cached[total / 16];
    if (!piece) return nullptr;
    if (size_in(head_of(piece)) != total || !(head_of(piece) & block_cached))
        fatal("arena: the block at %p was changed after it was freed", static_cast<void*>(payload_of(piece)));
    // The link is given to the caller as fresh memory, which is not announced: its old value is kept here.
    announce_or_end(piece, 2 * sizeof(u64));
    assign(h.cached[total / 16], next_of(piece));
    count_cached(-1, -static_cast<i64>(total));
    raw_store(&piece->head, head_of(piece) & ~block_cached);
    return piece;
}

/// A block from the bins or the top, with room made for it.
block* arena::take(u64 total) {
    block* piece = take_free(total);
    if (!piece) piece = take_top(total);
    if (!piece && header().cached_bytes > header().extent / 8) {
        flush_cached();
        piece = take_free(total);
    }
    if (!piece && grow(total)) piece = take_top(total);
    if (!piece) {
        flush_cached();
        piece = take_free(total);
    }
    if (piece) count_taken(1, static_cast<i64>(size_in(head_of(piece))));
    return piece;
}

bool arena::fails_now() {
    if (!fails_some_day()) return false;
    if (failing_after_ != 0) {
        --failing_after_;
        return false;
    }
    explain(ENOMEM, "database %s: allocations fail on demand", header().name);
    return true;
}

/// What is missing, and what helps against it.
void arena::tell_shortage(u64 size) const {
    const arena_header& h = header();
    const char* reason = "its room, chosen when it was made, is used up; move its records to one with more";
    if (private_memory_)
        reason = shortage_ ? "the process has no more memory; raise its limit (ulimit -v)"
                           : "its room is used up; open it with a larger reserve";
    else if (shortage_ == EFBIG)
        reason = "the process may not make larger files; raise its limit (ulimit -f)";
    else if (shortage_)
        reason = "the disk is full; make room on it";
    explain(ENOMEM, "database %s: no room for %llu bytes, with %llu of at most %llu: %s", h.name,
            static_cast<unsigned long long>(size), static_cast<unsigned long long>(h.extent),
            static_cast<unsigned long long>(h.reserve), reason);
}

void* arena::allocate(u64 size) {
    if (fails_now()) return nullptr;
    const u64 total = size > reserve_ ? 0 : block_total(size);
    block* piece = total && total <= largest_cached_block ? pop_cached(total) : nullptr;
    if (!piece && total) piece = take(total);
    if (!piece) {
        tell_shortage(size);
        return nullptr;
    }
    if (log_) {
        young_[slot_of(offset_of(piece), young_blocks)] = {piece, section_};
        if (offset_of(piece) < section_top_) reused_.push_back({offset_of(piece), size_in(head_of(piece))});
    }
    std::byte* payload = payload_of(piece);
    if (debug_) debug_->allocated(offset_of(payload), size_in(head_of(piece)) - head_size, next_tag_);
    next_tag_ = 0;
    if (private_memory_) unpoison(payload, size);
    return payload;
}

void arena::release(void* payload) {
    block* piece = block_of(payload);
    const u64 offset = contains(payload) ? offset_of(piece) : 0;
    const u64 head =
        offset >= first_block && offset < header().top && (offset + head_size) % 16 == 0 ? head_of(piece) : 0;
    const u64 size = size_in(head);
    if (!(head & block_in_use) || (head & (block_cached | block_deferred)) || size > header().top - offset)
        fatal("arena: %p is freed, but it is no block in use (freed twice?)", payload);
    if (private_memory_) poison(payload, size - head_size);
    if (log_ && !made_in_section(piece)) {
        announce_or_end(piece, sizeof piece->head);
        raw_store(&piece->head, head | block_deferred);
        deferred_.push_back(piece);
        return;
    }
    if (size <= largest_cached_block)
        push_cached(piece, size);
    else
        merge(piece, size);
}

void arena::set_owner(void* payload, u32 owner) {
    block* piece = block_of(payload);
    announce_or_end(piece, sizeof piece->head);
    raw_store(&piece->head, without_owner(head_of(piece)) | u64{owner} << block_owner_shift);
}

u32 arena::owner_of(const void* payload) {
    return static_cast<u32>(head_of(block_of(payload)) >> block_owner_shift);
}

u64 arena::size_of(const void* payload) { return size_in(head_of(block_of(payload))) - head_size; }

void arena::flush_cached() {
    arena_header& h = header();
    for (block*& list : h.cached) {
        while (block* piece = list) {
            const u64 total = size_in(head_of(piece));
            announce_or_end(piece, 2 * sizeof(u64));
            assign(list, next_of(piece));
            count_cached(-1, -static_cast<i64>(total));
            raw_store(&piece->head, head_of(piece) & ~block_cached);
            merge(piece, total);
        }
    }
}

void arena::set_previous_in_use(block* piece, bool in_use) {
    arena_header& h = header();
    if (offset_of(piece) == h.top) {
        assign(h.top_previous_in_use, in_use);
        return;
    }
    const u64 head = head_of(piece);
    announce_or_end(piece, sizeof piece->head);
    raw_store(&piece->head, in_use ? head | block_previous_in_use : head & ~block_previous_in_use);
}

void arena::link(block* piece, u64 size) {
    arena_header& h = header();
    const u32 bin = bin_of(size);
    block* first = h.bins[bin];
    announce_or_end(piece, sizeof *piece);
    raw_store(&piece->head, size | block_previous_in_use);
    raw_store(&piece->next, first);
    raw_store(&piece->previous, static_cast<block*>(nullptr));
    announce_or_end(footer_of(piece, size), sizeof(u64));
    raw_store(footer_of(piece, size), size);
    if (first) {
        announce_or_end(&first->previous, sizeof first->previous);
        raw_store(&first->previous, piece);
    }
    assign(h.bins[bin], piece);
    assign(h.bin_map[bin / 64], h.bin_map[bin / 64] | u64{1} << bin % 64);
}

/// Takes a free block out of its bin. All that makes it a free block is announced, since the memory may soon be
/// handed out as fresh.
void arena::unlink(block* piece, u64 size) {
    arena_header& h = header();
    const u32 bin = bin_of(size);
    announce_or_end(piece, sizeof *piece);
    announce_or_end(footer_of(piece, size), sizeof(u64));
    block* next = next_of(piece);
    block* previous = raw_load(&piece->previous);
    if (next) {
        announce_or_end(&next->previous, sizeof next->previous);
        raw_store(&next->previous, previous);
    }
    if (previous) {
        announce_or_end(&previous->next, sizeof previous->next);
        raw_store(&previous->next, next);
        return;
    }
    assign(h.bins[bin], next);
    if (!next) assign(h.bin_map[bin / 64], h.bin_map[bin / 64] & ~(u64{1} << bin % 64));
}

/// Makes a block in use a free one in a bin, together with the free blocks beside it.
void arena::merge(block* piece, u64 size) {
    arena_header& h = header();
    count_taken(-1, -static_cast<i64>(size));
    if (debug_) debug_->released(offset_of(piece) + head_size, size - head_size);
    if (!(head_of(piece) & block_previous_in_use)) {
        const u64 size_before = raw_load(reinterpret_cast<u64*>(piece) - 1);
        block* before = at(offset_of(piece) - size_before);
        unlink(before, size_before);
        piece = before;
        size += size_before;
    }
    block* behind = piece_behind(piece, size);
    if (offset_of(behind) != h.top && !(head_of(behind) & block_in_use)) {
        const u64 size_behind = size_in(head_of(behind));
        unlink(behind, size_behind);
        size += size_behind;
        behind = piece_behind(piece, size);
    }
    link(piece, size);
    set_previous_in_use(behind, false);
}

block* arena::take_free(u64 total) {
    arena_header& h = header();
    u32 bin = bin_of(total);
    block* piece = h.bins[bin];
    // Blocks of one bin differ in size from 1 KiB on, so that the first ones may be too small.
    for (u32 scanned = 0; piece && size_in(head_of(piece)) < total; ++scanned)
        piece = scanned < scanned_of_a_bin ? next_of(piece) : nullptr;
    if (!piece) {
        for (++bin; bin < std::size(h.bins); bin = (bin / 64 + 1) * 64) {
            const u64 filled = h.bin_map[bin / 64] >> bin % 64;
            if (!filled) continue;
            piece = h.bins[bin + static_cast<u32>(std::countr_zero(filled))];
            break;
        }
    }
    if (!piece) return nullptr;
    const u64 size = size_in(head_of(piece));
    unlink(piece, size);
    const u64 rest = size - total;
    if (rest >= smallest_block) {
        raw_store(&piece->head, total | block_in_use | block_previous_in_use);
        link(piece_behind(piece, total), rest);
    } else {
        raw_store(&piece->head, size | block_in_use | block_previous_in_use);
        set_previous_in_use(piece_behind(piece, size), true);
    }
    return piece;
}

block* arena::take_top(u64 total) {
    arena_header& h = header();
    if (h.top + total + head_size > h.extent) return nullptr;
    block* piece = at(h.top);
    const u64 head = total | block_in_use | (h.top_previous_in_use ? block_previous_in_use : 0);
    announce_or_end(piece, sizeof piece->head);
    raw_store(&piece->head, head);
    assign(h.top, h.top + total);
    assign(h.top_previous_in_use, u64{1});
    return piece;
}

bool arena::grow(u64 total) {
    arena_header& h = header();
    const u64 needed = h.top + total + head_size;
    shortage_ = 0;
    if (needed > h.reserve) return false;
    const u64 step = std::clamp(h.extent / 2, smallest_growth, largest_growth);
    u64 extent = std::min(h.reserve, round_up(std::max(needed, h.extent + step), 4096));
    shortage_ = room_->extend(base_, h.extent, extent);
    // The last room of a disk is worth having.
    if (shortage_ && extent > round_up(needed, 4096))
        shortage_ = room_->extend(base_, h.extent, extent = round_up(needed, 4096));
    if (shortage_) return false;
    if (private_memory_) poison(base_ + h.extent, extent - h.extent);
    assign(h.extent, extent);
    return true;
}

// -------------------------------------------------------------------------------------------- named roots

named_root* arena::find_root(const char* name) const {
    const std::size_t length = std::strlen(name);
    const u32 hash = hash_of(name, length);
    named_root* root = header().roots[hash % std::size(header().roots)];
    while (root &&
           !(root->hash == hash && root->length == length && std::memcmp(name_of(root), name, length) == 0))
        root = root->next;
    return root;
}

bool arena::set_root(const char* name, void* block) {
    if (named_root* root = find_root(name)) {
        assign(root->block, block);
        return true;
    }
    const std::size_t length = std::strlen(name);
    auto* root = static_cast<named_root*>(allocate(sizeof(named_root) + length + 1));
    if (!root) return false;
    const u32 hash = hash_of(name, length);
    named_root*& list = header().roots[hash % std::size(header().roots)];
    *root = {list, block, hash, static_cast<u32>(length)};
    std::memcpy(root + 1, name, length + 1);
    assign(list, root);
    return true;
}

// ------------------------------------------------------------------------------------------------ looking

void arena::each_block(const std::function<void(void*, u64)>& visit) const {
    for (u64 offset = first_block; offset < header().top;) {
        const u64 head = head_of(at(offset));
        if (size_in(head) < smallest_block || size_in(head) > header().top - offset) return;
        if ((head & block_in_use) && !(head & (block_cached | block_deferred)))
            visit(payload_of(at(offset)), size_in(head) - head_size);
        offset += size_in(head);
    }
}

void arena::each_unkept_range(const std::function<void(const value_range&)>& visit) const {
    for (u64 offset = first_block; offset < header().top;) {
        const u64 head = head_of(at(offset)), size = size_in(head);
        if (size < smallest_block || size > header().top - offset) return;
        if (head & block_cached)
            visit({offset + offsetof(block, previous), size - offsetof(block, previous)});
        else if (!(head & block_in_use) && size > sizeof(block) + sizeof(u64))
            visit({offset + sizeof(block), size - sizeof(block) - sizeof(u64)});
        else if (head >> block_owner_shift)
            visit({offset + head_size, size - head_size});
        offset += size;
    }
}

std::pair<const void*, u64> arena::block_around(u64 wanted) const {
    std::pair<const void*, u64> found{nullptr, 0};
    each_block([&](void* payload, u64 size) {
        if (wanted >= offset_of(payload) && wanted < offset_of(payload) + size) found = {payload, size};
    });
    return found;
}

bool arena::may_be_block(const block* piece) const {
    const u64 offset = offset_of(piece);
    return contains(piece) && offset >= first_block && offset < header().top && (offset + head_size) % 16 == 0;
}

/// Follows nothing that was not looked at before: the memory may be a damaged file.
std::string arena::verify() const {
    const arena_header& h = header();
    const auto fault = [](const char* what, u64 offset) {
        return "arena: " + std::string(what) + " at offset " + std::to_string(offset);
    };
    if (h.top > h.extent || h.extent > h.reserve || h.top < first_block)
        return fault("the limits do not agree", 0);
    u64 blocks = 0, bytes = 0, cached = 0, free_blocks = 0;
    bool previous_in_use = true;
    for (u64 offset = first_block; offset < h.top;) {
        const u64 head = head_of(at(offset)), size = size_in(head);
        if (size < smallest_block || size > h.top - offset) return fault("a block has an impossible size", offset);
        if (((head & block_previous_in_use) != 0) != previous_in_use)
            return fault("a block mistakes its neighbour", offset);
        previous_in_use = head & block_in_use;
        if (size % 16) return fault("a block has an impossible size", offset);
        if (head & block_cached)
            cached += size;
        else if (previous_in_use)
            ++blocks, bytes += size;
        else if (++free_blocks; raw_load(footer_of(at(offset), size)) != size)
            return fault("a free block has two sizes", offset);
        offset += size;
    }
    if (previous_in_use != (h.top_previous_in_use != 0)) return fault("the last block is mistaken", h.top);
    if (blocks != h.taken_blocks - h.cached_blocks || bytes != h.taken_bytes - h.cached_bytes)
        return fault("the blocks in use do not match their count", 0);
    for (const block* list : h.cached)
        for (const block* piece = list; piece; piece = next_of(piece)) {
            if (!may_be_block(piece) || !(head_of(piece) & block_cached) || size_in(head_of(piece)) == 0 ||
                size_in(head_of(piece)) > cached)
                return fault("a list of cached blocks leads astray", contains(piece) ? offset_of(piece) : 0);
            cached -= size_in(head_of(piece));
        }
    if (cached) return fault("cached blocks are on no list", 0);
    for (u32 bin = 0; bin < std::size(h.bins); ++bin) {
        if ((h.bins[bin] != nullptr) != ((h.bin_map[bin / 64] >> bin % 64 & 1) != 0))
            return fault("the map of bins is wrong", bin);
        for (const block* piece = h.bins[bin]; piece; piece = next_of(piece), --free_blocks)
            if (!may_be_block(piece) || free_blocks == 0 || (head_of(piece) & block_in_use) ||
                bin_of(size_in(head_of(piece))) != bin)
                return fault("a bin leads astray", contains(piece) ? offset_of(piece) : 0);
    }
    if (free_blocks) return fault("free blocks are in no bin", 0);
    for (const named_root* list : h.roots)
        for (const named_root* root = list; root; root = root->next) {
            const bool known = may_be_block(block_of(root)) && blocks-- != 0;
            if (!known || root->length + sizeof *root >= size_of(root) || (root->block && !contains(root->block)))
                return fault("a named root leads astray", known ? offset_of(root) : 0);
        }
    return {};
}

} // namespace loom
