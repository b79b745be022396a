// The files of one open database, and what makes its commits last: directory, superblock, journal, base, control.
// What they hold, and the order of all steps, is told in docs/database.md. The memory that lies in the image, its
// undo log and its sections are the database's (runtime/database/), which tells the store what a section has
// changed.
#pragma once

#include "runtime/store/base.h"
#include "runtime/store/control.h"
#include "runtime/store/locks.h"
#include "runtime/store/lost_pages.h"
#include "runtime/store/superblock.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace loom {

/// What a new database is made from.
struct store_plan {
    u64 base = 0;
    u64 room = 0;
    durability level = durability::ordered;
    u32 mode = 0; ///< access rights of the files; 0 is what the process gives to new ones
    std::string name;
};

/// Who has a file open, so that a process maps each database once.
struct file_identity {
    u64 device = 0;
    u64 number = 0;
    auto operator<=>(const file_identity&) const = default;
};

/// What the opening had to do, for people.
struct recovery_report {
    bool rebuilt = false; ///< the image was made from base and journal
    u64 commits_replayed = 0;
    u64 cut_bytes = 0; ///< behind the last whole entry of the journal, of commits that were never promised
};

class store {
  public:
    /// Fills the first page of a new database.
    using first_page_fn = std::function<void(const superblock&, std::span<std::byte>)>;

    /// How long the file of an image must be, to hold what is stored in it next.
    using length_fn = u64 (*)(const std::byte* image);

    store() = default;
    store(const store&) = delete;
    store& operator=(const store&) = delete;
    ~store();

    /// Finds the directory, or makes it when `plan` is not null. 0, or an error number with a text.
    u32 find(const std::string& path, const store_plan* plan, const first_page_fn& first_page, bool read_only);
    const superblock& fixed() const { return superblock_; }
    file_identity identity() const;

    /// Becomes a user of the database: opens what belongs to it, and makes the image anew unless it can be
    /// trusted. Until `entered` others wait who want to become one. 0, or an error number with a text.
    u32 enter(bool exclusive, length_fn length_of);
    /// Opens what is needed to read the database, and changes nothing. There are no sections then.
    u32 enter_read_only();
    bool is_read_only() const { return control_.operator->() == nullptr; }
    /// Puts the latest state of a database that was entered so together in memory that is zero so far and as long
    /// as its room. 0, or an error number with a text.
    u32 read_snapshot(std::byte* memory);
    void entered();
    /// Between the two: the image is made anew, since it cannot be put in order. Refused while others use it.
    u32 rebuild();
    /// Who opens the database next, alone, makes the image anew.
    void distrust_image() { control_.distrust(); }
    int image() const { return image_; }
    /// Whether this opening has made the image.
    bool image_is_new() const { return image_is_new_; }
    /// The image is mapped there, its whole room: a page of it that is lost is told.
    void guard_image(const void* memory) {
        lost_pages_.protect(directory_.path(), memory, superblock_.room, control_);
    }
    const recovery_report& report() const { return report_; }
    /// Who makes blocks outside of sections.
    owner_table& owners() const { return control_->owners; }
    /// What the undo log of this image must carry.
    u64 making() const { return control_->making; }
    const disk_directory& directory() const { return directory_; }
    /// The file whose bytes are locked.
    int lock_file() const { return lock_file_; }

    durability level() const { return level_; }
    /// From here on commits of this process wait as that level has it, if it is the stronger one.
    void strengthen(durability wanted);
    void set_journal_limit(u64 bytes) { journal_limit_ = bytes; }

    // Under the write lock:

    /// The number of the commit that a section will make.
    u64 begin_section();
    void end_section() { control_->open_section.store(0, std::memory_order_release); }
    /// Whether a section was left open by somebody who died.
    bool has_open_section() const { return control_->open_section.load(std::memory_order_acquire) != 0; }
    /// Makes what the section has stored last, as far as processes are concerned. 0, or an error number with a
    /// text. Who `waits_for_flush` calls `flush` next; otherwise the keepers see to it.
    u32 commit(std::span<const value_range> ranges, const std::byte* image, bool waits_for_flush);
    /// Whether the section of that number got as far as its journal entry; its place is published then.
    bool was_committed(u64 number);
    /// Puts what base and journal hold together in `memory`, zero so far and as long as the database's room:
    /// `size` bytes, as of `place`. 0, or an error number with a text.
    u32 read_committed(std::byte* memory, u64& size, journal_place& place);
    /// Adds the entries behind `place`, as far as the journal files still lead on from there.
    u32 read_on(std::byte* memory, u64& size, journal_place& place) const;
    /// Up to which commit the base has the journal's entries.
    u64 absorbed() const { return is_read_only() ? base_.record().number : control_->absorbed.load(); }
    journal_place place_of_last_commit() const { return end_of_journal().place; }

    // Under no lock:

    /// Number of the latest commit.
    u64 committed() const;
    /// Returns when the commit is on the disk. 0, or an error number with a text.
    u32 flush(u64 number);
    /// 0 while commits are possible; otherwise the error number, with a text.
    u32 check_failure() const;
    /// Absorbs the journal file that is not written, if there is something to absorb.
    u32 truncate();
    /// Of a volatile database: its last user makes the base what the image is.
    u32 leave_volatile(const std::byte* image, u64 size);
    /// Whether there is no other user of the database.
    bool is_only_user() const;
    /// Told each fault of a file: its place and what it means.
    using fault_fn = std::function<void(const std::string& place, const std::string& meaning)>;
    /// Checks all files, and counts the pages of the base and the entries of the journal. Others go on, but for
    /// truncations, which wait. 0, or an error number with a text when it cannot be done.
    u32 verify_files(const fault_fn& report, u64& pages, u64& entries);

  private:
    u32 make(const store_plan& plan, const first_page_fn& first_page);
    u32 make_files(const store_plan& plan, const first_page_fn& first_page);
    u32 refuse_file_system() const;
    u32 refuse_other_path(int error) const;
    u32 refuse_unmade() const;
    u32 open_control();
    u32 flush_names();
    u32 mark_in_use();
    u32 renew_files();
    u32 open_files();
    u32 open_image(bool afresh);
    image_identity identify_image() const;
    u32 make_image();
    /// Makes the bytes up to there usable; 0, or an error number with a text.
    using room_fn = std::function<u32(u64 end)>;
    struct putting_together;
    u32 replay(std::byte* image, journal_place& place);
    u32 extend_image(u64 end);
    u32 put_together(std::byte* memory, const room_fn& make_room, putting_together& done);
    u32 apply(const journal_entry& entry, u32 file, const room_fn& make_room, std::byte* memory, u64& size) const;
    u32 apply_behind(journal_place& place, u64 last, const room_fn& make_room, std::byte* memory, u64& size) const;
    u32 find_start(journal_place& place) const;
    void verify_superblock(const fault_fn& report) const;
    void verify_base(const fault_fn& report, u64& pages);
    void verify_journal(const fault_fn& report, const journal_place& last, u64& entries) const;
    void verify_control(const fault_fn& report, const journal_place& last) const;
    u32 check_end(const journal_place& place, u64 flushed_before);
    journal_end end_of_journal() const;
    int change_file(journal_end& end);
    u32 refuse_commit(int error);
    u32 fail_for_good(u32 error);
    u32 settle_trusted();
    void start_keeper();
    void stop_keeper();
    void keep();
    bool wants_truncation() const;
    void wake_keepers();

    disk_directory directory_;
    superblock superblock_{};
    int lock_file_ = -1;
    int image_ = -1;
    bool alone_ = false;
    bool image_is_new_ = false;
    length_fn length_of_ = nullptr;
    journal journal_;
    base_file base_;
    control control_;
    lost_page_guard lost_pages_;
    durability level_ = durability::ordered;
    u64 journal_limit_ = u64{64} << 20;
    recovery_report report_;
    journal_place snapshot_place_; ///< of a database that is read only

    std::mutex flush_mutex_;
    std::mutex truncation_mutex_;
    std::thread keeper_;
    std::mutex keeper_mutex_;
    std::condition_variable keeper_stops_;
    bool stopping_ = false;
    pid_t process_ = 0; ///< that the keeper belongs to
};

} // namespace loom
