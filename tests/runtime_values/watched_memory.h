// A handle whose memory is watched: it counts and fails allocations, finds leaks, and notices every store into
// instance memory that the write hook was not told of in time.
#pragma once

#include <loom/handle.h>

#include <cstdint>
#include <map>
#include <vector>

class watched_memory {
  public:
    watched_memory();
    ~watched_memory();
    watched_memory(const watched_memory&) = delete;
    watched_memory& operator=(const watched_memory&) = delete;

    loom_handle* handle() { return &handle_; }
    uint32_t error = 0; ///< the caller's error word

    /// A zeroed place for one value in instance memory.
    template <class T>
    T* place() {
        return static_cast<T*>(allocate_zeroed(sizeof(T)));
    }
    void give_back(void* block) { release(block); }

    /// The n-th allocation from now fails, once; 0 for never.
    void fail_allocation(uint64_t n) { until_failure_ = n; }
    bool failure_pending() const { return until_failure_ != 0; }
    uint64_t allocations() const { return allocations_; }
    uint64_t allocated_bytes() const { return allocated_bytes_; }
    size_t live_blocks() const { return live_.size(); }

    /// From here on stores into the blocks that now live have to be announced.
    void watch();
    /// Calls of the hook since watch().
    uint64_t announcements() const { return announcements_; }
    /// True when nothing that was watched has changed.
    bool unchanged() const;
    /// True when every change was announced while the old bytes still stood there.
    bool all_announced() const;

    static constexpr uint32_t domain = 7;

  private:
    struct watched_block {
        std::vector<uint8_t> before;
        std::vector<bool> announced;
    };

    void* allocate(size_t size);
    void* allocate_zeroed(size_t size);
    void release(void* block);
    void announce(const void* address, size_t length);
    watched_block* watched_at(const void* address, size_t& offset);

    loom_handle handle_{};
    std::map<uint8_t*, size_t> live_;
    std::map<const uint8_t*, watched_block> watched_;
    uint64_t allocations_ = 0;
    uint64_t allocated_bytes_ = 0;
    uint64_t until_failure_ = 0;
    uint64_t announcements_ = 0;
    bool announced_late_ = false;
};
