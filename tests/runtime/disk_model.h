// A model of the disk below the files of one database: it follows what happens at the seam to the file system, and
// tells what a machine that goes down at any moment may leave.
#pragma once

#include "tests/runtime/support.h"

#include "runtime/store/disk.h"

#include <functional>
#include <map>
#include <mutex>

namespace runtime_test {

class disk_model {
  public:
    /// Follows the files of a directory, whose present contents are on the disk. One model lives at a time.
    explicit disk_model(const std::string& directory);
    ~disk_model();
    disk_model(const disk_model&) = delete;
    disk_model& operator=(const disk_model&) = delete;

    /// Called before every operation: here the machine may go down. An error number other than 0 is what the
    /// operation ends with: then it is not carried out, or only in part.
    std::function<int(disk_model&, const loom_disk_operation&)> before_each;

    /// Makes the directory `target` with what a machine that goes down now leaves. Of what was not flushed
    /// anything may be there: all of it, nothing, some of the operations, or some of the sectors. False when not
    /// even the directory is there.
    bool crash_into(const std::string& target, random_source& random) const;

  private:
    using bytes = std::vector<char>;
    enum class fate { pending, lost_or_not, flushed };
    struct change {
        std::uint64_t offset;
        bytes contents; ///< empty: the file grows to `offset`
        fate is;
    };
    struct file {
        bytes contents; ///< on the disk
        std::vector<change> changes;
    };
    using file_ptr = std::shared_ptr<file>;
    struct entry_change {
        std::string name;
        file_ptr is; ///< null: the name is gone
    };
    enum class manner { all_lost, all_kept, operations, sectors };

    static int see(const loom_disk_operation* operation, void* context);
    void follow(const loom_disk_operation& operation, int error);
    void write(file& to, const loom_disk_operation& operation, int error);
    static void flush(file& to, int error);
    void enter(std::vector<entry_change> changes);
    static void put(bytes& contents, const change& each, manner how, random_source& random);
    static bytes contents_after(const file& each, manner how, random_source& random);
    void leave_memory_files(const std::string& target, random_source& random) const;

    std::string directory_;
    bool is_on_disk_; ///< the directory itself
    std::map<std::string, file_ptr> files_;
    std::map<std::string, file_ptr> files_on_disk_;
    std::vector<std::vector<entry_change>> entry_changes_; ///< since the directory was flushed
    std::mutex mutex_;
};

} // namespace runtime_test
