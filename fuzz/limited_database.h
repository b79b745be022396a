// A private database whose object memory comes from malloc, block by block, so that the address sanitizer guards
// each block's ends; it is limited, fails an allocation on demand, and knows what has not been given back.
#pragma once

#include <loom_runtime/runtime.h>

#include <cstdint>
#include <unordered_map>

namespace trellis::fuzz {

class limited_database {
  public:
    static constexpr uint32_t domain = 1;
    /// Bytes that the objects of one run may take together: enough for every seed, and little enough that a count
    /// of 4 billion elements and a block of 128 kB are told apart.
    static constexpr size_t limit = size_t{1} << 17;

    /// `tracking`: LOOM_TRACKING_. Throws std::runtime_error when no database can be made.
    explicit limited_database(uint32_t tracking);
    ~limited_database();
    limited_database(const limited_database&) = delete;
    limited_database& operator=(const limited_database&) = delete;

    loom_handle* handle() const { return handle_; }

    /// Starts a run; the `failing`th allocation from now on fails, none with 0.
    void begin(uint64_t failing);
    /// Allocations succeed again, within the limit.
    void stop_failing() { failing_ = 0; }
    /// An allocation has failed since `begin`.
    bool refused() const { return refused_; }
    /// Ends the run: tells the blocks that are left of it. Entries of the runtime's side table are not counted: an
    /// object that ends with a variant below those of its nested records leaves their places behind.
    void end();
    /// Ends the run where the product is told to leave what it made to nobody.
    void end_with_leftovers();

  private:
    static limited_database* of_context(const void* context);
    static void* allocate(void* context, uint32_t domain, size_t size);
    static void release(void* context, uint32_t domain, void* block);

    loom_handle* handle_ = nullptr;
    decltype(loom_handle::free) release_to_runtime_ = nullptr;
    std::unordered_map<void*, size_t> blocks_;
    size_t bytes_ = 0;
    uint64_t failing_ = 0;
    bool refused_ = false;
};

/// The database of the mode that two bits choose: without tracking, off, or (2 and 3) on. Made once.
limited_database& database_of_mode(unsigned bits);
/// One more without tracking, for what is read twice.
limited_database& plain_database();

} // namespace trellis::fuzz
