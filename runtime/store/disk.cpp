// Files and directories by system calls.
#include "runtime/store/disk.h"

#include "runtime/export.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace loom {
namespace {
loom_disk_fn observer = nullptr;
void* observer_context = nullptr;

int show(const loom_disk_operation& operation) { return observer ? observer(&operation, observer_context) : 0; }
int show(const std::string& directory, loom_disk_kind kind, const char* name, const char* new_name = "") {
    return show({kind, directory.c_str(), name, new_name, 0, 0, nullptr, 0});
}

/// Repeats a call that a signal interrupts; its errno value or 0.
template <class Call>
int carried_out(Call call) {
    for (;;) {
        if (call() >= 0) return 0;
        if (errno != EINTR) return errno;
    }
}
} // namespace

// ----------------------------------------------------------------------------------------------- directories

disk_directory::~disk_directory() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

int disk_directory::open(const std::string& path) {
    path_ = path;
    descriptor_ = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return descriptor_ >= 0 ? 0 : errno;
}

bool disk_directory::has(const char* name) const {
    return faccessat(descriptor_, name, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

int disk_directory::remove(const char* name) {
    if (const int refused = show(path_, LOOM_DISK_REMOVE, name)) return refused;
    return unlinkat(descriptor_, name, 0) == 0 ? 0 : errno;
}

int disk_directory::rename(const char* name, const char* new_name) {
    if (const int refused = show(path_, LOOM_DISK_RENAME, name, new_name)) return refused;
    return renameat(descriptor_, name, descriptor_, new_name) == 0 ? 0 : errno;
}

int disk_directory::flush() {
    if (const int refused = show(path_, LOOM_DISK_FLUSH_DIRECTORY, "")) return refused;
    return carried_out([&] { return fsync(descriptor_); });
}

u64 disk_directory::file_system() const {
    if (const int shown = show(path_, LOOM_DISK_FILE_SYSTEM, "")) return static_cast<u32>(shown);
    struct statfs system {};
    return fstatfs(descriptor_, &system) == 0 ? static_cast<u32>(system.f_type) : 0;
}

int disk_directory::flush_parent() {
    if (const int refused = show(path_, LOOM_DISK_FLUSH_DIRECTORY, "..")) return refused;
    const int parent = openat(descriptor_, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parent < 0) return errno;
    const int error = carried_out([&] { return fsync(parent); });
    ::close(parent);
    return error;
}

// ----------------------------------------------------------------------------------------------------- files

int disk_file::open(const disk_directory& directory, const char* name, bool writable) {
    directory_ = directory.path();
    name_ = name;
    descriptor_ = openat(directory.descriptor(), name, (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW);
    return descriptor_ >= 0 ? 0 : errno;
}

int disk_file::create(const disk_directory& directory, const char* name, mode_t mode) {
    directory_ = directory.path();
    name_ = name;
    if (const int refused = show(directory_, LOOM_DISK_CREATE, name)) return refused;
    descriptor_ = openat(directory.descriptor(), name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
    return descriptor_ >= 0 && fchmod(descriptor_, mode) == 0 ? 0 : errno;
}

void disk_file::close() {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
}

int disk_file::create_unnamed(const disk_directory& directory, mode_t mode) {
    directory_ = directory.path();
    name_.clear();
    if (const int refused = show(directory_, LOOM_DISK_CREATE, "")) return refused;
    descriptor_ = openat(directory.descriptor(), ".", O_RDWR | O_TMPFILE | O_CLOEXEC, mode);
    if (descriptor_ >= 0) return fchmod(descriptor_, mode) == 0 ? 0 : errno;
    // Systems without it take the flag for that of a directory.
    return errno == EISDIR || errno == ENOENT || errno == EINVAL ? EOPNOTSUPP : errno;
}

int disk_file::link(const disk_directory& directory, const char* name) {
    if (const int refused = show(directory_, LOOM_DISK_RENAME, "", name)) return refused;
    const std::string self = "/proc/self/fd/" + std::to_string(descriptor_);
    name_ = name;
    return linkat(AT_FDCWD, self.c_str(), directory.descriptor(), name, AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
}

int disk_file::observe(loom_disk_kind kind, u64 offset, u64 size, std::span<const iovec> pieces) const {
    if (!observer) return 0;
    return show({kind, directory_.c_str(), name_.c_str(), "", offset, size, pieces.data(),
                 static_cast<unsigned>(pieces.size())});
}

u64 disk_file::size() const {
    struct stat status {};
    return fstat(descriptor_, &status) == 0 ? static_cast<u64>(status.st_size) : 0;
}

int disk_file::read(u64 offset, void* bytes, u64 size) const {
    auto* to = static_cast<std::byte*>(bytes);
    while (size) {
        const ssize_t done = pread(descriptor_, to, size, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) return errno;
        if (done == 0) return ENODATA;
        to += done;
        offset += static_cast<u64>(done);
        size -= static_cast<u64>(done);
    }
    return 0;
}

int disk_file::write(u64 offset, const void* bytes, u64 size) {
    iovec piece{const_cast<void*>(bytes), size};
    return write(offset, std::span(&piece, 1));
}

int disk_file::write(u64 offset, std::span<iovec> pieces) {
    u64 size = 0;
    for (const iovec& piece : pieces)
        size += piece.iov_len;
    if (const int refused = observe(LOOM_DISK_WRITE, offset, size, pieces)) return refused;
    constexpr std::size_t most_pieces = 1024; // of one system call
    iovec* next = pieces.data();
    iovec* const end = next + pieces.size();
    while (next != end) {
        const auto count =
            static_cast<int>(std::min<std::size_t>(most_pieces, static_cast<std::size_t>(end - next)));
        const ssize_t result = pwritev(descriptor_, next, count, static_cast<off_t>(offset));
        if (result < 0 && errno == EINTR) continue;
        if (result < 0) return errno;
        auto done = static_cast<std::size_t>(result);
        offset += done;
        for (; next != end && done >= next->iov_len; ++next)
            done -= next->iov_len;
        if (next != end) {
            next->iov_base = static_cast<std::byte*>(next->iov_base) + done;
            next->iov_len -= done;
        }
    }
    return 0;
}

int disk_file::reserve(u64 size) {
    const u64 now = this->size();
    if (size <= now) return 0;
    if (const int refused = observe(LOOM_DISK_RESIZE, size, 0)) return refused;
    int error;
    do
        error = posix_fallocate(descriptor_, static_cast<off_t>(now), static_cast<off_t>(size - now));
    while (error == EINTR);
    return error;
}

int disk_file::flush() {
    if (const int refused = observe(LOOM_DISK_FLUSH, 0, 0)) return refused;
    return carried_out([&] { return fdatasync(descriptor_); });
}

} // namespace loom

LOOM_EXPORT void loom_disk_observe(loom_disk_fn observer, void* context) {
    loom::observer = observer;
    loom::observer_context = context;
}
