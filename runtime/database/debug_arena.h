// The debug arena: a shadow copy of an arena that tells which bytes changed unannounced. How it is used, and
// the rules of what may change, stand in loom_runtime/arena.h.
#pragma once

#include <loom_runtime/arena.h>

#include "frame/basic_types.h"

#include <memory>
#include <unordered_map>
#include <vector>

namespace loom {
using namespace trellis;

class arena;

class debug_arena {
  public:
    /// Null with a text when there is no memory for the shadow.
    static std::unique_ptr<debug_arena> start(arena& watched, u64 reserve, loom_unannounced_fn report,
                                              void* context);
    ~debug_arena();
    debug_arena(const debug_arena&) = delete;
    debug_arena& operator=(const debug_arena&) = delete;

    /// The range may change from now until the next check. What changed in it before is reported.
    void announced(u64 offset, u64 size);
    /// A block was handed out: its contents may change until the next check.
    void allocated(u64 offset, u64 size, u32 tag);
    /// A block came back: its contents must not change any more.
    void released(u64 offset, u64 size);
    /// Compares everything, reports, and starts over. Returns what was found since the last check.
    u64 check();
    /// Takes the present contents as they are, without a comparison.
    void restart();
    void exempt(u64 offset, u64 size, bool on);
    u32 tag_of(u64 offset) const;

  private:
    enum state : u8 { watched = 0, excused = 1, exempted = 2 };
    struct range {
        u64 offset;
        u64 size;
    };
    debug_arena() = default;
    void excuse(u64 offset, u64 size);
    void compare(u64 offset, u64 size, bool at_announcement);
    void report_run(u64 offset, u64 size, bool at_announcement);
    void copy(u64 offset, u64 size);

    arena* arena_ = nullptr;
    u64 reserve_ = 0;
    u8* shadow_ = nullptr;
    u8* states_ = nullptr;
    std::vector<range> excused_;
    std::unordered_map<u64, u32> tags_;
    u64 found_ = 0;
    loom_unannounced_fn report_ = nullptr;
    void* context_ = nullptr;
};

} // namespace loom
