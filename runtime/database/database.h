// An open database: its memory, undo log and root, shared by all handles that this process has on it. Locks belong
// to handles (section_lock); the C operations on top stand in the files beside this one.
#pragma once

#include "runtime/database/arena.h"
#include "runtime/database/debug_arena.h"
#include "runtime/database/layout.h"
#include "runtime/database/undo_log.h"

#include <loom_runtime/runtime.h>

#include <atomic>
#include <memory>
#include <thread>

namespace loom {

/// The lock of one handle on a database file. The system's own locks of an open file description are used: they
/// exclude threads and processes alike and end with their owner.
class section_lock {
  public:
    section_lock() = default;
    section_lock(const section_lock&) = delete;
    section_lock& operator=(const section_lock&) = delete;
    ~section_lock();
    /// Opens the file behind `database_file` once more, for locking; 0 or an error number.
    u32 open(int database_file);
    /// Says that the file is in use, by this handle alone or by others too; false when that cannot be.
    bool declare_use(bool exclusive);
    bool take_write() { return take(F_WRITE); }
    bool take_read() { return take(F_READ); }
    void give_up();
    int descriptor() const { return file_; }

  private:
    enum mode { F_READ, F_WRITE };
    bool take(mode wanted);
    int file_ = -1;
};

class database : public backing {
  public:
    /// Null with a text on failure.
    static std::shared_ptr<database> make_private(u64 reserve, const std::string& name);
    static std::shared_ptr<database> open_file(const loom_open_options& options);
    ~database() override;

    bool extend(std::byte* base, u64 old_extent, u64 extent) override;

    /// The root, made if needed; null when there is no memory. Inside a section, or private.
    database_root* make_root();
    database_root* root() const { return static_cast<database_root*>(memory.header().database_root); }

    /// Whether a dead owner of the write lock has left something behind.
    bool needs_recovery() const { return log_ && !log_->empty(); }
    /// Puts it back, under the write lock; false with a text when that cannot be done.
    bool recover();

    void open_section();
    void commit_section();
    void abort_section();
    u32 sync();

    /// A named root was set: an abort of the open section takes it back.
    void root_was_set(const void* address);

    arena memory;
    bool mapped = false;
    bool exclusive = false;
    std::string path;
    std::unique_ptr<debug_arena> debug;
    u64 found_by_commits = 0; ///< unannounced stores that commits have reported
    int file() const { return file_; }
    /// Counts what makes addresses kept outside the database invalid.
    std::atomic<u64> rollbacks{0};
    /// The thread whose handle has the write lock, to tell a wait for oneself.
    std::atomic<std::thread::id> writer{};

  private:
    bool make_log();
    bool roll_back(u64 extent);

    std::unique_ptr<undo_log> log_;
    std::vector<const void*> roots_of_section_;
    u64 reserve_ = 0;
    int file_ = -1;
};

} // namespace loom
