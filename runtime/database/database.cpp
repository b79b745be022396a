// Opening databases and their sections: files, addresses, recovery.
#include "runtime/database/database.h"

#include "runtime/database/error_text.h"
#include "runtime/database/revoked_roots.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace loom {
namespace {
constexpr u64 default_file_reserve = u64{32} << 30;
constexpr u64 default_private_reserve = u64{8} << 30;
constexpr u64 largest_reserve = u64{1} << 40;
constexpr u64 first_extent_of_a_file = u64{1} << 20;
constexpr u64 first_extent_of_memory = u64{256} << 10;

// Addresses for files: rarely taken by anything else, and application memory for the sanitizers too.
constexpr u64 first_address = 0x7e9000000000;
constexpr u64 last_address = 0x7ef000000000;

// Bytes of the file that are locked; far behind all contents, so that the locks mean nothing to anybody else.
constexpr off_t use_byte = off_t{1} << 60;
constexpr off_t gate_byte = use_byte + 1;
constexpr off_t section_byte = use_byte + 2;

bool set_lock(int file, short type, off_t byte, bool wait) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    int result;
    do
        result = fcntl(file, wait ? F_OFD_SETLKW : F_OFD_SETLK, &lock);
    while (result < 0 && errno == EINTR);
    return result == 0;
}

/// The open files of this process, so that each is mapped once.
struct file_identity {
    dev_t device;
    ino_t number;
    auto operator<=>(const file_identity&) const = default;
};
std::mutex open_files_mutex;
std::map<file_identity, std::weak_ptr<database>>& open_files() {
    static auto* files = new std::map<file_identity, std::weak_ptr<database>>;
    return *files;
}

void fill_identity(u8 identity[16]) {
    do {
        if (getrandom(identity, 16, 0) != 16) fatal("no random numbers for a database's identity");
    } while (std::all_of(identity, identity + 8, [](u8 byte) { return byte == 0; }));
}

u64 rounded_reserve(u64 wanted, u64 otherwise) {
    const u64 reserve = wanted ? wanted : otherwise;
    return std::clamp((reserve + 4095) & ~u64{4095}, first_extent_of_a_file, largest_reserve);
}

/// Who has memory in the range, as /proc/self/maps names it.
std::string taken_by(u64 address, u64 size) {
    std::FILE* maps = std::fopen("/proc/self/maps", "re");
    if (!maps) return "other memory";
    char line[512];
    std::string owner = "other memory";
    while (std::fgets(line, sizeof line, maps)) {
        u64 first = 0, end = 0;
        char name[256] = "";
        if (std::sscanf(line, "%" SCNx64 "-%" SCNx64 " %*s %*s %*s %*s %255[^\n]", &first, &end, name) < 2)
            continue;
        if (first >= address + size || end <= address) continue;
        char range[64];
        std::snprintf(range, sizeof range, " at %" PRIx64 "-%" PRIx64, first, end);
        owner = (*name ? std::string(name) : std::string("memory without a name")) + range;
        break;
    }
    std::fclose(maps);
    return owner;
}

bool address_is_free(u64 address, u64 size) {
    void* memory = mmap(reinterpret_cast<void*>(address), size, PROT_NONE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (memory == MAP_FAILED) return false;
    munmap(memory, size);
    return reinterpret_cast<u64>(memory) == address;
}

// Bundles keep addresses of named roots in process-wide variables and trust them while they lie in the arena at
// hand. So a new arena must not lie exactly where a closed one has been: it begins at a random page.
constexpr u64 random_span = u64{1} << 30;
u64 random_shift(u64 number) { return number % (random_span / 4096) * 4096; }

/// An address for a new file. The identity chooses where the search begins, so that two files rarely ask for the
/// same one.
u64 choose_address(const u8 identity[16], u64 reserve) {
    const u64 slot = reserve + random_span;
    if (slot > last_address - first_address) return 0;
    const u64 places = (last_address - first_address) / slot;
    const u64 start = hash_of_bytes(identity + 8) % places;
    for (u64 i = 0; i < places; ++i) {
        const u64 address = first_address + (start + i) % places * slot + random_shift(hash_of_bytes(identity));
        if (address_is_free(address, reserve)) return address;
    }
    return 0;
}

/// Addresses for private memory, of which none is usable yet; null when there are none left.
std::byte* reserve_addresses(u64 reserve, u64 random) {
    const u64 size = reserve + random_span;
    void* memory = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    auto* base = static_cast<std::byte*>(memory) + random_shift(random);
    if (base != memory) munmap(memory, random_shift(random));
    munmap(base + reserve, random_span - random_shift(random));
    return base;
}

std::string name_from_path(const std::string& path) {
    const std::string file = path.substr(path.find_last_of('/') + 1);
    return file.substr(0, file.find_last_of('.') == 0 ? std::string::npos : file.find_last_of('.'));
}

/// Makes the file of an empty database beside its final name and moves it there when it is whole. False when
/// another process was faster, which is no failure, or with a text.
u32 create_file(const std::string& path, const loom_open_options& options) {
    u8 identity[16];
    fill_identity(identity);
    const u64 reserve = rounded_reserve(options.reserve, default_file_reserve);
    const u64 address = options.address ? options.address : choose_address(identity, reserve);
    if (!address || address % 4096)
        return fail(EADDRNOTAVAIL,
                    "database %s: there is no free address for %" PRIu64
                    " bytes; name an address, or reserve less",
                    path.c_str(), reserve);
    const std::string fresh = path + ".new." + std::to_string(getpid());
    const int file = open(fresh.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (file < 0)
        return fail(static_cast<u32>(errno),
                    "database %s: cannot be made: %s; name a file in a directory that is there and that you may "
                    "write to",
                    path.c_str(), words_of(errno).c_str());
    arena_header header;
    arena::format(header, address, reserve, first_extent_of_a_file, identity,
                  options.name ? options.name : name_from_path(path));
    u32 result = 0;
    if (posix_fallocate(file, 0, first_extent_of_a_file) != 0 ||
        pwrite(file, &header, sizeof header, 0) != sizeof header)
        result = fail(ENOSPC, "database %s: no room on the disk", path.c_str());
    else if (unlink((path + ".undo").c_str()) != 0 && errno != ENOENT)
        result = fail(static_cast<u32>(errno), "database %s: a left-over undo log cannot be removed: %s",
                      path.c_str(), words_of(errno).c_str());
    else if (link(fresh.c_str(), path.c_str()) != 0 && errno != EEXIST)
        result = fail(static_cast<u32>(errno), "database %s: cannot be made: %s", path.c_str(),
                      words_of(errno).c_str());
    close(file);
    unlink(fresh.c_str());
    return result;
}

/// Reads and judges a file's header; 0, or an error number with a text that says what to do.
u32 read_header(int file, const std::string& path, arena_header& header) {
    struct stat status {};
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode))
        return fail(EINVAL, "database %s: is no regular file; name the file of a database", path.c_str());
    const ssize_t read = pread(file, &header, sizeof header, 0);
    if (read < static_cast<ssize_t>(sizeof header.magic) ||
        std::memcmp(header.magic, arena_magic, sizeof arena_magic) != 0)
        return fail(EINVAL, "database %s: is no database; remove the file, or name another one", path.c_str());
    const auto size = static_cast<u64>(status.st_size);
    if (read < static_cast<ssize_t>(offsetof(arena_header, base)))
        return fail(EINVAL, "database %s: is cut short: %" PRIu64 " bytes; restore it from a copy", path.c_str(),
                    size);
    if (header.version != arena_version)
        return fail(
            EINVAL,
            "database %s: has format version %u, this runtime reads version %u; use the runtime that wrote it "
            "to export its contents",
            path.c_str(), header.version, arena_version);
    if (header.header_size != sizeof(arena_header))
        return fail(EINVAL,
                    "database %s: its header has %u bytes, this runtime's has %zu: it comes from another kind of "
                    "machine; use the runtime that wrote it to export its contents",
                    path.c_str(), header.header_size, sizeof(arena_header));
    if (read < static_cast<ssize_t>(sizeof header) || size < header.extent)
        return fail(EINVAL,
                    "database %s: is cut short: it should have %" PRIu64 " bytes and has %" PRIu64
                    "; restore it from a copy",
                    path.c_str(), read < static_cast<ssize_t>(sizeof header) ? sizeof header : header.extent,
                    size);
    const u64 root = reinterpret_cast<u64>(header.database_root);
    if (header.fixed_check != check_of(header) || header.base % 4096 || header.reserve % 4096 ||
        header.reserve > largest_reserve || header.extent > header.reserve || header.top > header.extent ||
        (root && (root < header.base || root - header.base >= header.top)))
        return fail(EINVAL, "database %s: its header is damaged; restore it from a copy", path.c_str());
    return 0;
}
} // namespace

// ---------------------------------------------------------------------------------------------------- locks

section_lock::~section_lock() {
    if (file_ >= 0) close(file_);
}

u32 section_lock::open(int database_file) {
    // Not by the path, which may lead to another file by now.
    file_ = ::open(("/proc/self/fd/" + std::to_string(database_file)).c_str(), O_RDWR | O_CLOEXEC);
    return file_ >= 0 ? 0 : static_cast<u32>(errno);
}

bool section_lock::declare_use(bool exclusive) {
    return set_lock(file_, exclusive ? F_WRLCK : F_RDLCK, use_byte, false);
}

/// Both kinds pass the gate first, so that readers that keep coming cannot shut a writer out.
bool section_lock::take(mode wanted) {
    const short type = wanted == F_WRITE ? F_WRLCK : F_RDLCK;
    if (!set_lock(file_, type, gate_byte, true)) return false;
    const bool taken = set_lock(file_, type, section_byte, true);
    const int error = errno;
    set_lock(file_, F_UNLCK, gate_byte, false);
    errno = error;
    return taken;
}

void section_lock::give_up() { set_lock(file_, F_UNLCK, section_byte, false); }

// -------------------------------------------------------------------------------------------------- opening

std::shared_ptr<database> database::make_private(u64 wanted, const std::string& name) {
    auto made = std::make_shared<database>();
    const u64 reserve = rounded_reserve(wanted, default_private_reserve);
    u8 identity[16];
    fill_identity(identity);
    std::byte* base = reserve_addresses(reserve, hash_of_bytes(identity));
    if (!base) {
        fail(ENOMEM, "private database: no %" PRIu64 " bytes of addresses left", reserve);
        return nullptr;
    }
    made->reserve_ = reserve;
    const bool usable = mprotect(base, first_extent_of_memory, PROT_READ | PROT_WRITE) == 0;
    if (!usable) {
        munmap(base, reserve);
    } else {
        arena::format(*reinterpret_cast<arena_header*>(base), reinterpret_cast<u64>(base), reserve,
                      first_extent_of_memory, identity, name);
        made->memory.attach(base, made.get(), true);
    }
    if (!usable || !made->make_root()) {
        fail(ENOMEM, "private database: no memory");
        return nullptr;
    }
    return made;
}

std::shared_ptr<database> database::open_file(const loom_open_options& options) {
    const std::string path = options.path ? options.path : "";
    int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (file < 0 && errno == ENOENT && (options.flags & LOOM_OPEN_CREATE)) {
        if (create_file(path, options) != 0) return nullptr;
        file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    }
    if (file < 0) {
        if (errno == ENOENT)
            fail(ENOENT, "database %s: there is no such file; name another one, or ask for it to be made",
                 path.c_str());
        else
            fail(static_cast<u32>(errno),
                 "database %s: cannot be opened: %s; name a file that you may read and write: readers write too, "
                 "into its undo log when they follow a writer that died",
                 path.c_str(), words_of(errno).c_str());
        return nullptr;
    }
    struct stat status {};
    fstat(file, &status);
    const std::lock_guard guard(open_files_mutex);
    std::weak_ptr<database>& known = open_files()[{status.st_dev, status.st_ino}];
    if (auto open_already = known.lock()) {
        close(file);
        return open_already;
    }
    arena_header header;
    if (read_header(file, path, header) != 0) {
        close(file);
        return nullptr;
    }
    auto made = std::make_shared<database>();
    made->file_ = file;
    made->path = path;
    made->mapped = true;
    made->exclusive = options.flags & LOOM_OPEN_EXCLUSIVE;
    // The whole reservation is mapped at once: pages behind the file's end become usable as the file grows, in
    // every process that has it mapped.
    void* memory = mmap(reinterpret_cast<void*>(header.base), header.reserve, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_FIXED_NOREPLACE, file, 0);
    const int error = errno;
    if (memory != MAP_FAILED && reinterpret_cast<u64>(memory) != header.base) {
        munmap(memory, header.reserve);
        memory = MAP_FAILED;
    }
    if (memory == MAP_FAILED) {
        if (error == EEXIST)
            fail(EADDRINUSE,
                 "database %s: must lie at address %" PRIx64
                 ", but that is taken by %s; close what lies there, or open "
                 "the database in a process of its own",
                 path.c_str(), header.base, taken_by(header.base, header.reserve).c_str());
        else
            fail(static_cast<u32>(error), "database %s: cannot be mapped at address %" PRIx64 ": %s", path.c_str(),
                 header.base, words_of(error).c_str());
        return nullptr;
    }
    made->reserve_ = header.reserve;
    made->memory.attach(static_cast<std::byte*>(memory), made.get(), false);
    if (!made->make_log()) return nullptr;
    known = made;
    return made;
}

bool database::make_log() {
    auto log = std::make_unique<undo_log>();
    if (mapped) {
        if (log->open_file(path + ".undo", memory.header().identity) != 0) return false;
    } else if (!log->open_private(reserve_)) {
        fail(ENOMEM, "private database: no addresses for an undo log");
        return false;
    }
    log_ = std::move(log);
    return true;
}

database::~database() {
    if (memory.base()) {
        memory.detach();
        munmap(memory.base(), reserve_);
    }
    if (file_ >= 0) close(file_);
}

bool database::extend(std::byte* base, u64 old_extent, u64 extent) {
    if (mapped)
        return posix_fallocate(file_, static_cast<off_t>(old_extent), static_cast<off_t>(extent - old_extent)) ==
               0;
    return mprotect(base, extent, PROT_READ | PROT_WRITE) == 0;
}

database_root* database::make_root() {
    if (root()) return root();
    auto* made = static_cast<database_root*>(memory.allocate(sizeof(database_root)));
    if (!made) return nullptr;
    std::memset(static_cast<void*>(made), 0, sizeof *made);
    made->next_reference = 1;
    made->shared = mapped && !exclusive;
    memory.assign(memory.header().database_root, made);
    return made;
}

// ------------------------------------------------------------------------------------------------- sections

bool database::recover() {
    // The extent of the arena as the file has it: what the header says may be part of what is to be put back.
    struct stat status {};
    if (mapped) fstat(file_, &status);
    return roll_back(mapped ? static_cast<u64>(status.st_size) : reserve_);
}

/// Blocks behind the end of the arena are not logged. In a file they are wiped, so that it is what it was before
/// the section, to the byte; other processes do not look there.
bool database::roll_back(u64 extent) {
    const u64 used = std::min(memory.header().top, extent);
    if (!log_->roll_back(memory.base(), extent)) return false;
    ++rollbacks;
    const arena_header& header = memory.header();
    if (!mapped) return true;
    if (used > header.top) std::memset(memory.base() + header.top, 0, used - header.top);
    if (extent > header.extent && ftruncate(file_, static_cast<off_t>(header.extent)) != 0) {
        // A file that stays longer than it needs to be does no harm: the header alone says what is in use.
    }
    return true;
}

void database::open_section() {
    if (!log_ && !make_log()) fatal("%s", error_text().c_str());
    log_->refresh();
    if (debug && mapped) debug->restart();
    memory.open_section(*log_);
}

void database::commit_section() {
    memory.finish_section();
    if (debug && mapped) found_by_commits += debug->check();
    log_->clear();
    memory.close_section();
    roots_of_section_.clear();
}

void database::abort_section() {
    if (!roll_back(memory.header().extent)) fatal("%s", error_text().c_str());
    memory.close_section();
    memory.refresh_poison();
    for (const void* root : roots_of_section_)
        revoke_root(root);
    roots_of_section_.clear();
    if (debug) debug->restart();
}

void database::root_was_set(const void* address) {
    reinstate_root(address);
    if (memory.in_section()) roots_of_section_.push_back(address);
}

u32 database::sync() {
    if (!mapped) return 0;
    if (msync(memory.base(), memory.header().extent, MS_SYNC) == 0 && fsync(file_) == 0) return 0;
    return fail(static_cast<u32>(errno), "database %s: cannot be written to the disk: %s", path.c_str(),
                words_of(errno).c_str());
}

} // namespace loom
