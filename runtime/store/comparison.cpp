// Putting base and journal together, and comparing.
#include "runtime/store/comparison.h"

#include "runtime/database/error_text.h"
#include "runtime/database/sanitizer.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <sys/mman.h>

namespace loom {

committed_image::~committed_image() {
    if (memory_) munmap(memory_, files_.fixed().room);
}

u32 committed_image::begin_anew() {
    const u64 room = files_.fixed().room;
    if (memory_) munmap(memory_, room);
    memory_ = nullptr;
    void* memory = mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        return fail(ENOMEM, "database %s: no %" PRIu64 " bytes of addresses to put base and journal together",
                    files_.directory().path().c_str(), room);
    memory_ = static_cast<std::byte*>(memory);
    absorbed_ = files_.absorbed();
    return files_.read_committed(memory_, size_, place_);
}

u32 committed_image::update() {
    const journal_place last = files_.place_of_last_commit();
    const auto is_there = [&] { return place_.number == last.number && place_.previous == last.previous; };
    if (memory_ && absorbed_ == files_.absorbed()) {
        if (const u32 error = files_.read_on(memory_, size_, place_)) return error;
        if (is_there()) return 0;
    }
    if (const u32 error = begin_anew()) return error;
    if (is_there()) return 0;
    return fail(EIO,
                "database %s: base and journal lead to commit %" PRIu64 ", but the last one was %" PRIu64
                "; close the database everywhere and open it again",
                files_.directory().path().c_str(), place_.number, last.number);
}

void committed_image::each_difference(const std::byte* image, u64 size, std::span<const value_range> pinned,
                                      const std::function<void(const value_range&)>& visit) const {
    const auto* present = reinterpret_cast<const u8*>(image);
    const auto* committed = reinterpret_cast<const u8*>(memory_);
    const auto compare = [&](u64 at, u64 end) {
        while (at < end) {
            at += raw_mismatch(present + at, committed + at, end - at);
            u64 stop = at;
            while (stop < end && raw_load(present + stop) != committed[stop])
                ++stop;
            if (stop > at) visit({at, stop - at});
            at = stop;
        }
    };
    u64 begin = 0;
    for (const value_range& each : pinned) {
        compare(begin, std::min(each.offset, size));
        begin = each.offset + each.length;
    }
    compare(begin, size);
}

} // namespace loom
