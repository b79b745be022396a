// The seam between databases and the file system: every write, flush, change of size, link and removal of a file
// that must outlive the machine goes through here, so that a model of the disk can follow, refuse and replay them.
// Memory that processes map (image, undo log, control) is not the disk's: nothing in it is trusted behind a crash
// of the machine.
//
// Functions return 0 or an errno value. Nothing is tried again but what a signal has interrupted.
#pragma once

#include "frame/basic_types.h"

#include <span>
#include <string>
#include <sys/types.h>
#include <sys/uio.h>

extern "C" {
/// What is about to happen to a file of a directory.
enum loom_disk_kind {
    LOOM_DISK_CREATE, ///< a file under `name`, empty
    LOOM_DISK_WRITE,
    LOOM_DISK_RESIZE, ///< grows to `offset` bytes; new ones are zero
    LOOM_DISK_FLUSH,
    LOOM_DISK_REMOVE,
    LOOM_DISK_RENAME, ///< `name` becomes `new_name`, in place of a file of that name; "" is the file without name
    LOOM_DISK_FLUSH_DIRECTORY,
    LOOM_DISK_FILE_SYSTEM ///< its kind is asked for; a result other than 0 is taken for that
};
struct loom_disk_operation {
    enum loom_disk_kind kind;
    const char* directory; ///< as the database was named
    const char* name;      ///< of the file; "" for the directory, ".." for the one it lies in
    const char* new_name;
    unsigned long offset;
    unsigned long size;
    const struct iovec* pieces; ///< what LOOM_DISK_WRITE writes, `size` bytes in all
    unsigned piece_count;
};
/// Called before each operation; a result other than 0 is the operation's error, and it is not carried out.
typedef int (*loom_disk_fn)(const struct loom_disk_operation* operation, void* context);
/// Lets `observer` see the operations of this process; null ends that. For tests; no database may be open.
void loom_disk_observe(loom_disk_fn observer, void* context);
}

namespace loom {
using namespace trellis;

/// A directory that is open; its files are reached by its descriptor, whatever happens to its name.
class disk_directory {
  public:
    disk_directory() = default;
    disk_directory(const disk_directory&) = delete;
    disk_directory& operator=(const disk_directory&) = delete;
    ~disk_directory();

    int open(const std::string& path);
    int descriptor() const { return descriptor_; }
    const std::string& path() const { return path_; }
    std::string path_of(const std::string& name) const { return path_ + "/" + name; }
    bool has(const char* name) const;
    int remove(const char* name);
    int rename(const char* name, const char* new_name);
    int flush();
    /// The number by which statfs knows the kind of file system; 0 when it tells none.
    u64 file_system() const;
    /// Flushes the directory that this one lies in.
    int flush_parent();

  private:
    std::string path_;
    int descriptor_ = -1;
};

/// A file of a directory.
class disk_file {
  public:
    disk_file() = default;
    disk_file(const disk_file&) = delete;
    disk_file& operator=(const disk_file&) = delete;
    ~disk_file() { close(); }

    /// Opens a file that is there.
    int open(const disk_directory& directory, const char* name, bool writable = true);
    /// Makes an empty file; EEXIST when the name is taken.
    int create(const disk_directory& directory, const char* name, mode_t mode);
    /// Makes a file that has no name until `link`, and vanishes with its last descriptor; EOPNOTSUPP where there
    /// is no such thing.
    int create_unnamed(const disk_directory& directory, mode_t mode);
    /// Gives it its name; EEXIST when that is taken.
    int link(const disk_directory& directory, const char* name);
    void close();
    bool is_open() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }
    std::string path() const { return directory_ + "/" + name_; }

    u64 size() const;
    /// ENODATA when the file ends before.
    int read(u64 offset, void* bytes, u64 size) const;
    int write(u64 offset, const void* bytes, u64 size);
    /// Writes the pieces one behind the other; the list is used up.
    int write(u64 offset, std::span<iovec> pieces);
    /// Room for `size` bytes is there, so that writing up to there cannot fail for want of it; ENOSPC otherwise.
    int reserve(u64 size);
    /// Contents, and what is needed to find them, are on the disk.
    int flush();

  private:
    int observe(loom_disk_kind kind, u64 offset, u64 size, std::span<const iovec> pieces = {}) const;

    std::string directory_;
    std::string name_;
    int descriptor_ = -1;
};

} // namespace loom
