// A private database for tests of objects, with or without state tracking.
#pragma once

#include <loom_runtime/arena.h>
#include <loom_runtime/runtime.h>

#include <memory>
#include <stdexcept>

namespace trellis::testing {

/// A handle to a database of its own, closed at the end.
class database {
  public:
    explicit database(uint32_t tracking = LOOM_TRACKING_NONE, uint32_t kind = LOOM_DB_PRIVATE,
                      uint64_t reserve = 0) {
        loom_open_options options{};
        options.size = sizeof options;
        options.kind = kind;
        options.tracking = tracking;
        options.reserve = reserve;
        handle_.reset(loom_open(&options));
        if (handle_ == nullptr) throw std::runtime_error(loom_error_text());
    }
    loom_handle* handle() const { return handle_.get(); }
    operator loom_handle*() const { return handle_.get(); }
    uint64_t blocks() const {
        loom_arena_usage usage{};
        loom_arena_usage_get(handle_.get(), &usage);
        return usage.blocks;
    }

  private:
    struct closer {
        void operator()(loom_handle* handle) const { loom_close(handle); }
    };
    std::unique_ptr<loom_handle, closer> handle_;
};

} // namespace trellis::testing
