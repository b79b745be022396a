// A handle for tests, on a real database of the runtime: it counts and fails allocations, keeps a log of what
// happened in order, and proves that every changed byte of object memory was announced just before. Objects are
// filled and read back by accessor_walk.h; nothing here knows a schema.
#pragma once

#include "frame/basic_types.h"

#include <loom_runtime/arena.h>
#include <loom_runtime/runtime.h>
#include <loom_runtime/trace.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace trellis::testing {

struct handle_options {
    u32 db_kind = LOOM_DB_PRIVATE; ///< LOOM_DB_MAPPED: an exclusive file that goes with the handle
    u32 tracking = LOOM_TRACKING_NONE;
    bool containment = false;
    bool check_stores = false; ///< the write-hook checker
    bool unfollowed = false;   ///< the write hook stays the runtime's own, so that bundles may take straight paths
    u32 workspace_size = 0;
};

/// One line of the log per event, in order:
///
///     hook rec+10 1 rec          write hook: address, length, owner (0: none)
///     range element+24 16        notice to the arena
///     alloc 40 = b1              a block, named here if nobody has named it; `none` when it was refused
///     free b1
///     made string_key 0          an object counted in its variant's statistics
///     ended string_key 0
///     contains b1 in rec         containment report: value, parent (0: none)
///     dirty rec, destroyed rec, detached b1 1
///     says 3 The object is not state tracked
///     error 22                   stored in the handle; `epoch error 43` for what is out of reach
class test_handle {
  public:
    static constexpr u32 domain = 1;

    explicit test_handle(const handle_options& options = {});
    ~test_handle();
    test_handle(const test_handle&) = delete;
    test_handle& operator=(const test_handle&) = delete;

    loom_handle* get() const { return handle_; }
    operator loom_handle*() const { return handle_; }
    loom_handle* operator->() const { return handle_; }

    // ---- Log
    /// Addresses in the range print as `name+offset` from now on.
    void name(const void* address, size_t length, std::string name);
    /// What an address prints as.
    std::string name_of(const void* address) const;
    /// Where a named range begins, and how long it is; null when nothing has the name.
    const void* address_of(const std::string& name, size_t* length) const;
    /// Runs the body and returns its events, one per line.
    std::string log_of(const std::function<void()>& body);
    bool logging() const { return logging_; }
    void log(std::string line);

    // ---- Allocation
    /// The nth allocation from now on fails, once; 0: none does. A new entry in the side table of objects whose
    /// tracking area lies elsewhere counts as an allocation.
    void fail_allocation(u64 nth) {
        failing_ = nth;
        failed_ = false;
    }
    /// Whether an allocation has failed since fail_allocation.
    bool allocation_failed() const { return failed_; }
    u64 live_blocks() const { return blocks_.size(); }
    u64 allocations() const { return allocations_; }
    /// Blocks in use are no longer counted: what stays with the database.
    void forget_blocks() { blocks_.clear(); }
    /// The names of the blocks in use, one per line.
    std::string describe_live_blocks() const;
    /// Names the block in use that begins there, if any does and has no name of its own.
    void name_block(const void* address, const std::string& name);

    /// From now on the log tells the numbers of statements in front of their texts: which of equal ones it was.
    void number_statements() { numbering_ = true; }
    /// From now on the arena refuses every notice.
    void refuse_ranges() { refusing_ = true; }

    // ---- Checker
    /// Ends an operation: stores since the last announcement are judged, fresh blocks count as old ones.
    void end_operation();
    /// Blocks in use from now on are not looked at: type information, of which there is much.
    void trust_blocks() {
        for (auto& [address, at] : blocks_)
            at.shadow.clear();
    }
    /// Violations since the last call, one per line; empty when every store was announced.
    std::string take_violations();

    /// Stores in this scope need no announcement. `reason` says why, for the reader.
    class unannounced {
      public:
        unannounced(test_handle& handle, std::string_view reason);
        ~unannounced();
        unannounced(const unannounced&) = delete;
        unannounced& operator=(const unannounced&) = delete;

      private:
        test_handle& handle_;
    };

    // ---- Called by the hooks
    void* on_alloc(void* (*real)(void*, u32, size_t), void* context, u32 domain, size_t size);
    /// False when the side table is to have no room for the object.
    bool on_placing(const void* object);
    void on_free(void* context, u32 domain, void* block);
    void on_write(const void* address, size_t length, u32 domain, const void* owner);
    /// False when the arena is to refuse.
    bool on_range(const void* address, size_t length);
    void on_report(const loom_report& report);
    void on_trace(const loom_trace_record& record);
    /// While type information is made, an announced store waits for it.
    void hold_announcements(bool hold) { held_ += hold ? 1 : -1; }

    /// The handle that a hook's first argument belongs to, or null.
    static test_handle* of_handle(const loom_handle* handle);
    static test_handle* of_context(const void* context);

  private:
    struct block {
        size_t size;
        std::vector<u8> shadow;
        bool fresh;
    };
    struct named_range {
        size_t length;
        std::string name;
    };
    struct announcement {
        const u8* address;
        size_t length;
    };

    bool fails_now();
    void announce(const void* address, size_t length);
    /// Judges all stores since the last look at memory and takes the present contents as known.
    void look();
    void look_at(const u8* address, block& at);
    bool is_in_fresh_block(const u8* address) const;
    bool is_announced(const u8* address) const;
    bool is_cleared_pointer_to_freed(const u8* address, const u8* block_start, const std::vector<u8>& old) const;

    loom_handle* handle_ = nullptr;
    handle_options options_;
    std::string path_;
    decltype(loom_handle::free) real_free_ = nullptr;
    decltype(loom_handle::write_hook) real_write_hook_ = nullptr;

    bool logging_ = false;
    std::string log_;
    std::map<const u8*, named_range> names_;
    u64 named_blocks_ = 0;

    bool refusing_ = false;
    bool numbering_ = false;
    u64 failing_ = 0;
    bool failed_ = false;
    u64 allocations_ = 0;
    std::map<const u8*, block> blocks_;

    std::vector<announcement> announced_;
    std::vector<const void*> freed_;
    int held_ = 0;
    int unannounced_ = 0;
    u64 event_ = 0;
    std::string last_event_;
    std::string violations_;
};

/// The decoder of the loaded bundles' trace texts; add each bundle's shared object once.
loom_trace_decoder* trace_decoder();
/// Adds the shared object that holds `symbol`.
void add_trace_texts_of(const void* symbol);

} // namespace trellis::testing
