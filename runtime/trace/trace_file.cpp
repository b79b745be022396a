// Writing and reading trace files.
//
// The file's head says up to where it is whole. Who was killed while it appended leaves bytes behind that place:
// the next writer keeps them if they are a whole block, and otherwise cuts them off and counts that.
#include "runtime/trace/trace_file.h"

#include "runtime/database/error_text.h"
#include "runtime/export.h"
#include "runtime/store/checksum.h"
#include "runtime/trace/clock.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace loom {
namespace {
constexpr u32 file_version = 2;
constexpr char file_magic[8] = {'L', 'O', 'O', 'M', 'T', 'R', 'C', 'E'};
constexpr u32 block_magic = 0x4B4C4254; // "TBLK"
constexpr u32 last_block = 1;           ///< flag: its writer has closed the file
constexpr u32 largest_trace_block = u32{4} << 20;
constexpr std::size_t usual_block_room = std::size_t{160} << 10;
constexpr std::size_t most_modules = 1024;

struct file_head {
    char magic[8];
    u32 version;
    u32 cut_off;
    u64 start;
    u64 end;
};
static_assert(sizeof(file_head) == 32);

struct block_head {
    u32 magic;
    u32 size;
    u32 process;
    u32 flags;
    u64 start;
    u64 number;
    u64 lost;
    u64 checksum; ///< of the head before it and of the entries
};
static_assert(sizeof(block_head) == 48);

u64 checksum_of_block(const block_head& head, const std::byte* entries) {
    const u64 parts[2] = {checksum_of_record(head), checksum_of(entries, head.size - sizeof head)};
    return checksum_of(parts, sizeof parts);
}

bool write_whole(int file, const void* bytes, std::size_t size, u64 at) {
    const auto* next = static_cast<const std::byte*>(bytes);
    while (size) {
        const ssize_t written = pwrite(file, next, size, static_cast<off_t>(at));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        next += written;
        at += static_cast<u64>(written);
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

/// False when the file ends before.
bool read_whole(int file, void* bytes, std::size_t size, u64 at) {
    auto* next = static_cast<std::byte*>(bytes);
    while (size) {
        const ssize_t count = pread(file, next, size, static_cast<off_t>(at));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        next += count;
        at += static_cast<u64>(count);
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

u64 size_of(int file) {
    struct stat status {};
    return fstat(file, &status) == 0 ? static_cast<u64>(status.st_size) : 0;
}

constexpr int usual_patience = 5000; // milliseconds

/// A lock on the whole file. A stopped process that has it does not stop the others: they give up.
class file_lock {
  public:
    file_lock(int file, short type, int patience = usual_patience) : file_(file) {
        for (int waited = 0; !(held_ = set(type)) && waited < patience; ++waited)
            usleep(1000);
    }
    ~file_lock() {
        if (held_) set(F_UNLCK);
    }
    file_lock(const file_lock&) = delete;
    file_lock& operator=(const file_lock&) = delete;
    explicit operator bool() const { return held_; }

  private:
    bool set(short type) const {
        struct flock lock {};
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        return fcntl(file_, F_OFD_SETLK, &lock) == 0;
    }

    int file_;
    bool held_ = false;
};

/// Reads the block that begins at `at` and ends before `end`; false when there is no whole one.
bool read_block(int file, u64 at, u64 end, std::vector<std::byte>& bytes, block_head& head) {
    if (end - at < sizeof head || !read_whole(file, &head, sizeof head, at)) return false;
    if (head.magic != block_magic || head.size < sizeof head || head.size > largest_trace_block ||
        head.size > end - at)
        return false;
    bytes.resize(head.size);
    return read_whole(file, bytes.data(), head.size, at) &&
           checksum_of_block(head, bytes.data() + sizeof head) == head.checksum;
}

/// Judges a file's head; 0, or an error number with a text that names the cure.
u32 check_head(const file_head& head, const char* path) {
    if (std::memcmp(head.magic, file_magic, sizeof file_magic) != 0)
        return fail(EINVAL, "trace file %s: is no trace file", path);
    if (head.version != file_version)
        return fail(EINVAL,
                    "trace file %s: has version %u, this runtime knows version %u: read it with the runtime that "
                    "wrote it, or name another file",
                    path, head.version, file_version);
    return 0;
}

/// Under the lock: the head of the file, a new one if it is empty, and nothing behind what is whole.
bool settle(int file, file_head& head) {
    const u64 size = size_of(file);
    if (size == 0) {
        head = {{}, file_version, 0, time_now(), sizeof head};
        std::memcpy(head.magic, file_magic, sizeof file_magic);
        return write_whole(file, &head, sizeof head, 0);
    }
    if (!read_whole(file, &head, sizeof head, 0) || head.end < sizeof head) return false;
    std::vector<std::byte> bytes;
    block_head block{};
    while (head.end < size && read_block(file, head.end, size, bytes, block))
        head.end += block.size;
    if (head.end == size) return true;
    ++head.cut_off;
    head.end = std::min(head.end, size);
    return ftruncate(file, static_cast<off_t>(head.end)) == 0 && write_whole(file, &head, sizeof head, 0);
}

/// What is known of one writer while a file is read.
struct seen_writer {
    std::vector<std::string> modules = std::vector<std::string>(most_modules);
    u64 next_block = 0;
    u64 lost = 0;
    bool closed = false;
};

/// Goes over the blocks of a file.
class trace_reader {
  public:
    trace_reader(int file, const char* path, loom_trace_fn visit, void* context)
        : file_(file), path_(path), visit_(visit), context_(context) {}

    u32 read() {
        file_head head{};
        u64 size = 0;
        {
            const file_lock lock(file_, F_RDLCK);
            size = size_of(file_);
            if (!read_whole(file_, &head, sizeof head, 0)) head = {};
        }
        if (const u32 error = check_head(head, path_)) return error;
        losses_.blocks = head.cut_off;
        block_head block{};
        for (u64 at = sizeof head, number = 1; at < std::max(size, head.end); at += block.size, ++number) {
            if (!read_block(file_, at, size, bytes_, block)) {
                if (at < head.end)
                    return fail(EINVAL, "trace file %s: block %llu is %s", path_,
                                static_cast<unsigned long long>(number),
                                size < head.end ? "cut short" : "damaged");
                ++losses_.blocks; // its writer was killed, and nobody has appended since
                break;
            }
            if (!visit_entries(block))
                return fail(EINVAL, "trace file %s: block %llu holds what is no entry", path_,
                            static_cast<unsigned long long>(number));
        }
        return 0;
    }

    loom_trace_losses losses() const {
        loom_trace_losses all = losses_;
        for (const auto& [key, writer] : writers_) {
            all.records += writer.lost;
            all.open_writers += !writer.closed;
        }
        return all;
    }

  private:
    bool visit_entries(const block_head& block) {
        seen_writer& writer = writers_[{block.process, block.start}];
        losses_.blocks += block.number > writer.next_block ? block.number - writer.next_block : 0;
        writer.next_block = block.number + 1;
        writer.lost = block.lost;
        writer.closed = block.flags & last_block;
        for (std::size_t at = sizeof block; at < bytes_.size();) {
            trace_entry entry{};
            if (bytes_.size() - at < sizeof entry) return false;
            std::memcpy(&entry, bytes_.data() + at, sizeof entry);
            if (entry.size < sizeof entry || entry.size > bytes_.size() - at) return false;
            if (!visit_entry(writer, entry, bytes_.data() + at + sizeof entry)) return false;
            at += entry.size;
        }
        return true;
    }

    bool visit_entry(seen_writer& writer, const trace_entry& entry, const std::byte* arguments) {
        loom_trace_record record;
        if (!decode_entry(entry, arguments, record)) return false;
        if (entry.kind == entry_module && entry.module < most_modules && record.arguments[0].text)
            writer.modules[entry.module].assign(record.arguments[0].text, record.arguments[0].text_length);
        if (entry.kind != entry_record || !visit_) return true;
        record.module_name = entry.module < most_modules ? writer.modules[entry.module].c_str() : "";
        visit_(&record, context_);
        return true;
    }

    int file_;
    const char* path_;
    loom_trace_fn visit_;
    void* context_;
    loom_trace_losses losses_{};
    std::map<std::pair<u32, u64>, seen_writer> writers_; ///< by process and start
    std::vector<std::byte> bytes_;
};
} // namespace

// ------------------------------------------------------------------------------------------------------ writing

namespace {
void append_entry(std::vector<std::byte>& to, const trace_entry& entry, const std::byte* arguments) {
    const auto* head = reinterpret_cast<const std::byte*>(&entry);
    to.insert(to.end(), head, head + sizeof entry);
    to.insert(to.end(), arguments, arguments + (entry.size - sizeof entry));
}
} // namespace

void trace_writer::begin() {
    start_ = time_now();
    next_block_ = records_ = 0;
    modules_are_told_ = false;
    block_.reserve(usual_block_room);
    block_.assign(sizeof(block_head), std::byte{});
}

u32 trace_writer::open(const char* path) {
    file_ = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file_ < 0)
        return fail(static_cast<u32>(errno), "trace file %s: cannot be made: %s", path, words_of(errno).c_str());
    u32 error = 0;
    {
        const file_lock lock(file_, F_WRLCK);
        file_head head{};
        struct stat status {};
        if (fstat(file_, &status) != 0 || !S_ISREG(status.st_mode))
            error = fail(EINVAL, "trace file %s: is no file; name one", path);
        else if (!lock)
            error = fail(EBUSY, "trace file %s: somebody keeps it locked; name another", path);
        else if (status.st_size != 0)
            error = read_whole(file_, &head, sizeof head, 0) ? check_head(head, path) : check_head({}, path);
        if (!error && !settle(file_, head))
            error = fail(EIO, "trace file %s: cannot be written: %s", path, words_of(errno).c_str());
    }
    begin();
    if (error) ::close(std::exchange(file_, -1));
    return error;
}

void trace_writer::begin_as_child() {
    if (file_ < 0) return;
    // A lock belongs to the open file, which parent and child would share.
    const int own = ::open(("/proc/self/fd/" + std::to_string(file_)).c_str(), O_RDWR | O_CLOEXEC);
    ::close(std::exchange(file_, own));
    begin();
}

void trace_writer::add(const trace_entry& entry, const std::byte* arguments) {
    append_entry(block_, entry, arguments);
    ++records_;
}

void trace_writer::add_module(u16 number, const std::string& name) {
    const u16 length = static_cast<u16>(std::min<std::size_t>(name.size(), LOOM_TRACE_TEXT_MAX));
    std::array<std::byte, largest_entry> arguments{};
    std::memcpy(arguments.data(), &length, sizeof length);
    std::memcpy(arguments.data() + sizeof length, name.data(), length);
    trace_entry entry{};
    entry.size = static_cast<u16>((sizeof entry + sizeof length + length + 7) & ~std::size_t{7});
    entry.kind = entry_module;
    entry.module = number;
    entry.arguments = 1;
    entry.time = time_now();
    append_entry(modules_, entry, arguments.data());
    modules_are_told_ = false;
}

u64 trace_writer::finish_block(u64 lost) {
    if (file_ < 0 || (records_ == 0 && modules_are_told_)) return 0;
    if (append(lost, 0)) return 0;
    return std::exchange(records_, 0);
}

void trace_writer::close(u64 lost) {
    if (file_ < 0) return;
    append(lost, last_block);
    ::close(std::exchange(file_, -1));
}

/// The file's end is where it was when a block cannot be written.
bool trace_writer::append(u64 lost, u32 flags) {
    if (!modules_are_told_) block_.insert(block_.begin() + sizeof(block_head), modules_.begin(), modules_.end());
    block_head head{block_magic,
                    static_cast<u32>(block_.size()),
                    static_cast<u32>(getpid()),
                    flags,
                    start_,
                    next_block_,
                    lost,
                    0};
    head.checksum = checksum_of_block(head, block_.data() + sizeof head);
    std::memcpy(block_.data(), &head, sizeof head);
    bool written = false;
    const file_lock lock(file_, F_WRLCK, is_patient_ ? usual_patience : 1);
    is_patient_ = bool{lock};
    if (lock) {
        file_head whole{};
        written = settle(file_, whole) && write_whole(file_, block_.data(), block_.size(), whole.end);
        if (written) {
            whole.end += block_.size();
            write_whole(file_, &whole, sizeof whole, 0);
        } else if (whole.end) {
            // No room on the disk; without this the next writer would take the rest for that of a dead one.
            [[maybe_unused]] const int cut = ftruncate(file_, static_cast<off_t>(whole.end));
        }
    }
    if (written) {
        ++next_block_;
        records_ = 0;
        modules_are_told_ = true;
    }
    block_.resize(sizeof head);
    return written;
}

} // namespace loom

using namespace loom;

LOOM_EXPORT uint32_t loom_trace_read_file(const char* path, loom_trace_fn visit, void* context,
                                          loom_trace_losses* losses) {
    if (losses) *losses = {};
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return fail(static_cast<u32>(errno), "trace file %s: cannot be opened: %s", path, words_of(errno).c_str());
    trace_reader reader(file, path, visit, context);
    const u32 error = reader.read();
    ::close(file);
    if (losses) *losses = reader.losses();
    return done(error);
}
