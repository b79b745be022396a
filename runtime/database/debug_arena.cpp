// Comparing an arena with its shadow.
#include "runtime/database/debug_arena.h"

#include "runtime/database/arena.h"
#include "runtime/database/error_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <utility>

namespace loom {
namespace {
u8* reserved_bytes(u64 size) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<u8*>(memory);
}

void print_run(const loom_unannounced_store* store, void*) {
    std::fprintf(stderr, "loom debug arena: %llu bytes at %p (offset %llu) changed unannounced, in ",
                 static_cast<unsigned long long>(store->length), store->address,
                 static_cast<unsigned long long>(store->offset));
    if (store->block)
        std::fprintf(stderr, "the block of %llu bytes at %p (tag %u), %lld bytes from its start\n",
                     static_cast<unsigned long long>(store->block_size), store->block, store->block_tag,
                     static_cast<long long>(static_cast<const char*>(store->address) -
                                            static_cast<const char*>(store->block)));
    else
        std::fprintf(stderr, "free memory or the arena's own records\n");
}
} // namespace

std::unique_ptr<debug_arena> debug_arena::start(arena& watched, u64 reserve, loom_unannounced_fn report,
                                                void* context) {
    std::unique_ptr<debug_arena> made(new debug_arena);
    made->arena_ = &watched;
    made->reserve_ = reserve;
    made->report_ = report ? report : print_run;
    made->context_ = context;
    made->shadow_ = reserved_bytes(reserve);
    made->states_ = reserved_bytes(reserve);
    if (!made->shadow_ || !made->states_) {
        fail(ENOMEM, "debug arena: no addresses left for the shadow of %llu bytes",
             static_cast<unsigned long long>(reserve));
        return nullptr;
    }
    made->restart();
    return made;
}

debug_arena::~debug_arena() {
    if (shadow_) munmap(shadow_, reserve_);
    if (states_) munmap(states_, reserve_);
}

void debug_arena::copy(u64 offset, u64 size) { raw_copy(shadow_ + offset, arena_->base() + offset, size); }

void debug_arena::excuse(u64 offset, u64 size) {
    bool changed = false;
    for (u64 i = offset; i < offset + size; ++i) {
        if (states_[i] != watched) continue;
        states_[i] = excused;
        changed = true;
    }
    if (changed) excused_.push_back({offset, size});
}

void debug_arena::announced(u64 offset, u64 size) {
    compare(offset, size, true);
    excuse(offset, size);
}

void debug_arena::allocated(u64 offset, u64 size, u32 tag) {
    excuse(offset, size);
    if (tag) tags_[offset] = tag;
}

void debug_arena::released(u64 offset, u64 size) {
    copy(offset, size);
    for (u64 i = offset; i < offset + size; ++i)
        if (states_[i] == excused) states_[i] = watched;
    tags_.erase(offset);
}

void debug_arena::report_run(u64 offset, u64 size, bool at_announcement) {
    const auto [block, block_size] = arena_->block_around(offset);
    const u32 tag = block ? tag_of(arena_->offset_of(block)) : 0;
    const loom_unannounced_store store{arena_->base() + offset, offset, size, block, block_size, tag,
                                       at_announcement};
    ++found_;
    report_(&store, context_);
}

void debug_arena::compare(u64 offset, u64 size, bool at_announcement) {
    const u8* memory = reinterpret_cast<const u8*>(arena_->base());
    const u64 end = offset + size;
    const auto differs = [&](u64 i) { return states_[i] == watched && raw_load(memory + i) != shadow_[i]; };
    for (u64 at = offset; at < end;) {
        at += raw_mismatch(memory + at, shadow_ + at, end - at);
        while (at < end && !differs(at) && raw_load(memory + at) != shadow_[at])
            ++at;
        if (at >= end || !differs(at)) continue;
        u64 stop = at + 1;
        while (stop < end && differs(stop))
            ++stop;
        report_run(at, stop - at, at_announcement);
        copy(at, stop - at);
        at = stop;
    }
}

u64 debug_arena::check() {
    compare(0, arena_->header().top, false);
    for (const range& each : excused_) {
        copy(each.offset, each.size);
        for (u64 i = each.offset; i < each.offset + each.size; ++i)
            if (states_[i] == excused) states_[i] = watched;
    }
    excused_.clear();
    return std::exchange(found_, 0);
}

void debug_arena::restart() {
    copy(0, arena_->header().top);
    for (const range& each : excused_)
        for (u64 i = each.offset; i < each.offset + each.size; ++i)
            if (states_[i] == excused) states_[i] = watched;
    excused_.clear();
    found_ = 0;
}

void debug_arena::exempt(u64 offset, u64 size, bool on) {
    if (!on) copy(offset, size);
    std::memset(states_ + offset, on ? exempted : watched, size);
}

u32 debug_arena::tag_of(u64 offset) const {
    const auto found = tags_.find(offset);
    return found == tags_.end() ? 0 : found->second;
}

} // namespace loom
