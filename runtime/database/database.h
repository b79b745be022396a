// An open database: its memory, undo log and root, shared by all handles that this process has on it. Locks belong
// to handles (section_lock); the C operations on top stand in the files beside this one.
#pragma once

#include "runtime/database/arena.h"
#include "runtime/database/debug_arena.h"
#include "runtime/database/layout.h"
#include "runtime/database/undo_log.h"
#include "runtime/store/comparison.h"
#include "runtime/store/store.h"

#include <loom_runtime/runtime.h>

#include <atomic>
#include <memory>
#include <thread>

namespace loom {

/// The lock of one handle on a mapped database. The system's own locks of an open file description are used: they
/// exclude threads and processes alike and end with their owner.
class section_lock {
  public:
    section_lock() = default;
    section_lock(const section_lock&) = delete;
    section_lock& operator=(const section_lock&) = delete;
    ~section_lock();
    /// Opens the file that the store locks once more; 0 or an error number.
    u32 open(int lock_file);
    bool take_write() { return take(lock_byte_for_writing); }
    bool take_read() { return take(lock_byte_for_reading); }
    void give_up() { unlock_byte(file_, lock_byte::section); }
    /// The open file description that the locks belong to.
    int file() const { return file_; }

  private:
    bool take(bool (*lock)(int, lock_byte, bool));
    int file_ = -1;
};

/// What a write section is for.
enum class section_purpose : u8 {
    changes,   ///< the application's: they return when they last as its level has it
    upkeep,    ///< the runtime's own, such as type information: they last with the next commit
    allocation ///< blocks taken or given back outside of a section, whose contents nobody has stored yet
};

class database : public backing {
  public:
    /// Null with a text on failure.
    static std::shared_ptr<database> make_private(u64 reserve, const std::string& name);
    static std::shared_ptr<database> open_mapped(const loom_open_options& options);
    /// Gives up a database; its last user in this process closes it in order.
    static void release(std::shared_ptr<database>& used);
    ~database() override;

    int extend(std::byte* base, u64 old_extent, u64 extent) override;

    /// The root, made if needed; null when there is no memory. Inside a section, or private.
    database_root* make_root();
    database_root* root() const { return static_cast<database_root*>(memory.header().database_root); }

    /// Whether a dead owner of the write lock has left something behind.
    bool needs_recovery() const { return log_ && !log_->empty(); }
    /// Puts it back, under the write lock; false with a text when that cannot be done.
    bool recover();

    void open_section();
    /// Makes what the section has changed last; `others` are ranges that changed outside of sections. 0 with the
    /// number of the commit, or an error number with a text: then the section has been aborted.
    u32 commit_section(section_purpose purpose, std::span<const value_range> others);
    /// Number of the commit that the latest section of this process has made.
    u64 last_commit() const { return last_commit_; }
    /// Waits until that is on the disk. 0, or an error number with a text.
    u32 flush(u64 commit) { return files ? files->flush(commit) : 0; }
    void abort_section();
    u32 sync();
    /// Compares the image with what base and journal hold; nobody may commit meanwhile. Calls `visit` with each
    /// run of bytes outside of the pinned list that differs. 0, or an error number with a text.
    u32 compare_with_disk(const std::function<void(const value_range&)>& visit);

    /// A named root was set: an abort of the open section takes it back.
    void root_was_set(const void* address);

    arena memory;
    bool mapped = false;
    bool exclusive = false;
    bool read_only = false; ///< memory of this process, with a state of the database
    std::string path;
    std::unique_ptr<debug_arena> debug;
    u64 found_by_commits = 0;     ///< unannounced stores that commits have reported
    std::unique_ptr<store> files; ///< of a mapped database
    /// Counts what makes addresses kept outside the database invalid.
    std::atomic<u64> rollbacks{0};
    /// The thread whose handle has the write lock, to tell a wait for oneself.
    std::atomic<std::thread::id> writer{};

  private:
    bool make_log();
    u32 open_log();
    bool map_image();
    u32 check_image(const void* place, bool& whole) const;
    bool map_snapshot();
    void* map_at_base(int flags, int file);
    bool may_share(const database& open_already) const;
    bool roll_back(u64 extent);
    void close_in_order();
    void check_commit();

    std::unique_ptr<undo_log> log_;
    std::vector<const void*> roots_of_section_;
    std::vector<value_range> changed_; ///< by the section that is committed; kept for its memory
    u64 last_commit_ = 0;
    std::unique_ptr<committed_image> committed_; ///< of the checking mode, and of those who have compared
    bool checks_commits_ = false;
    u64 reserve_ = 0;
};

} // namespace loom
