// Opening databases and their sections: addresses, recovery, commits.
#include "runtime/database/database.h"

#include "runtime/database/error_text.h"
#include "runtime/database/pinned.h"
#include "runtime/database/revoked_roots.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
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
/// Set, it puts databases into the checking mode: each commit is compared with base and journal.
constexpr char checking_variable[] = "LOOM_CHECK_COMMITS";

// Addresses for files: rarely taken by anything else, and application memory for the sanitizers too.
constexpr u64 first_address = 0x7e9000000000;
constexpr u64 last_address = 0x7ef000000000;

/// The open databases of this process, so that each is mapped once.
std::mutex open_databases_mutex;
std::map<file_identity, std::weak_ptr<database>>& open_databases() {
    static auto* databases = new std::map<file_identity, std::weak_ptr<database>>;
    return *databases;
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

/// Where and how a new database is made; false, with a text, when there is no place for it.
bool plan_database(const std::string& path, const loom_open_options& options, store_plan& plan) {
    u8 random[16];
    fill_random(random);
    plan.room = rounded_reserve(options.reserve, default_file_reserve);
    plan.base = options.address ? options.address : choose_address(random, plan.room);
    plan.level = options.durability ? static_cast<durability>(options.durability) : durability::ordered;
    plan.mode = options.mode;
    plan.name = options.name ? options.name : name_from_path(path);
    if (plan.base && plan.base % 4096 == 0) return true;
    fail(EADDRNOTAVAIL,
         "database %s: there is no free address for %" PRIu64 " bytes; name an address, or reserve less",
         path.c_str(), plan.room);
    return false;
}

void fill_first_page(const superblock& made, std::span<std::byte> page) {
    arena::format(*reinterpret_cast<arena_header*>(page.data()), made.base, made.room, first_extent_of_a_file,
                  made.identity, made.name);
}

/// How long the file of an image must be.
u64 length_of(const std::byte* image) { return reinterpret_cast<const arena_header*>(image)->extent; }

/// Judges the header of an image; 0, or an error number with a text.
u32 check_header(const arena_header& header, const superblock& fixed, const std::string& path) {
    if (std::memcmp(header.magic, arena_magic, sizeof arena_magic) != 0 || header.version != arena_version ||
        header.header_size != sizeof(arena_header))
        return fail(
            EINVAL,
            "database %s: its image has another form than this runtime reads; use the runtime that wrote it "
            "to export its contents",
            path.c_str());
    const u64 root = reinterpret_cast<u64>(header.database_root);
    if (header.fixed_check != check_of(header) || header.base != fixed.base || header.reserve != fixed.room ||
        header.extent > header.reserve || header.top > header.extent ||
        (root && (root < header.base || root - header.base >= header.top)))
        return fail(EINVAL, "database %s: the header of its image is damaged; restore it from a backup",
                    path.c_str());
    return 0;
}
} // namespace

// ---------------------------------------------------------------------------------------------------- locks

section_lock::~section_lock() {
    if (file_ >= 0) close(file_);
}

u32 section_lock::open(int lock_file) {
    // Not by the path, which may lead to another file by now.
    file_ = ::open(("/proc/self/fd/" + std::to_string(lock_file)).c_str(), O_RDWR | O_CLOEXEC);
    return file_ >= 0 ? 0 : static_cast<u32>(errno);
}

/// Both kinds pass the gate first, so that readers that keep coming cannot shut a writer out.
bool section_lock::take(bool (*lock)(int, lock_byte, bool)) {
    if (!lock(file_, lock_byte::gate, true)) return false;
    const bool taken = lock(file_, lock_byte::section, true);
    const int error = errno;
    unlock_byte(file_, lock_byte::gate);
    errno = error;
    return taken;
}

// -------------------------------------------------------------------------------------------------- opening

std::shared_ptr<database> database::make_private(u64 wanted, const std::string& name) {
    auto made = std::make_shared<database>();
    const u64 reserve = rounded_reserve(wanted, default_private_reserve);
    u8 identity[16];
    fill_random(identity);
    std::byte* base = reserve_addresses(reserve, hash_of_bytes(identity));
    if (!base) {
        fail(ENOMEM,
             "private database: the process has no %" PRIu64
             " bytes of addresses left; raise its limit (ulimit -v), or ask for a smaller reserve",
             reserve);
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
        fail(ENOMEM, "private database: the process has no memory; raise its limit (ulimit -v)");
        return nullptr;
    }
    return made;
}

std::shared_ptr<database> database::open_mapped(const loom_open_options& options) {
    const std::lock_guard guard(open_databases_mutex);
    const std::string path = options.path ? options.path : "";
    const bool exclusive = options.flags & LOOM_OPEN_EXCLUSIVE;
    store_plan plan;
    const bool may_make = options.flags & LOOM_OPEN_CREATE;
    if (may_make && !plan_database(path, options, plan)) return nullptr;
    auto files = std::make_unique<store>();
    const bool read_only = options.flags & LOOM_OPEN_READ_ONLY;
    if (read_only && (may_make || exclusive)) {
        fail(EINVAL,
             "database %s: what is opened for reading only is not made and not used exclusively; choose one",
             path.c_str());
        return nullptr;
    }
    if (files->find(path, may_make ? &plan : nullptr, fill_first_page, read_only) != 0) return nullptr;
    if (options.durability) files->strengthen(static_cast<durability>(options.durability));
    if (options.journal_limit) files->set_journal_limit(options.journal_limit);
    auto made = std::make_shared<database>();
    made->path = path;
    made->mapped = true;
    made->exclusive = exclusive;
    made->read_only = read_only;
    std::weak_ptr<database>& known = open_databases()[files->identity()];
    if (auto open_already = known.lock()) {
        if (!made->may_share(*open_already)) return nullptr;
        open_already->files->strengthen(files->level());
        return open_already;
    }
    made->files = std::move(files);
    if (read_only) {
        if (made->files->enter_read_only() != 0 || !made->map_snapshot()) return nullptr;
    } else {
        // Without its addresses nothing is begun.
        void* const addresses = made->map_at_base(MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1);
        if (!addresses) return nullptr;
        munmap(addresses, made->files->fixed().room);
        if (made->files->enter(exclusive, length_of) != 0 || made->open_log() != 0 || !made->map_image())
            return nullptr;
        made->files->entered();
        made->checks_commits_ = std::getenv(checking_variable) != nullptr;
    }
    known = made;
    return made;
}

/// Whether this process may have a database open once more, in the way that was asked for.
bool database::may_share(const database& open_already) const {
    const char* reason = nullptr;
    if (exclusive)
        reason = "is in use; close the other handles on it to use it exclusively";
    else if (open_already.exclusive)
        reason = "is in use exclusively; close the other handle on it";
    else if (read_only && !open_already.read_only)
        reason = "is open for writing in this process; use that handle, or close it";
    else if (!read_only && open_already.read_only)
        reason = "is open for reading only in this process; close the other handle on it to open it for writing";
    if (reason) fail(EBUSY, "database %s: %s", path.c_str(), reason);
    return !reason;
}

void database::release(std::shared_ptr<database>& used) {
    // Who opens the database next, in this process, finds it open or closed whole.
    const std::lock_guard guard(open_databases_mutex);
    used.reset();
}

/// The undo log of the image; made when there is none, which it may be when no section was open.
u32 database::open_log() {
    log_ = std::make_unique<undo_log>();
    if (log_->open_file(*files)) return 0;
    // Without its log a section that was open cannot be put back: the image is made from what was committed. While
    // others use it, their log is lost or taken away.
    if (files->has_open_section() || !files->is_only_user())
        if (const u32 error = files->rebuild()) return error;
    return log_->make_file(*files);
}

/// The addresses of the database, all that there will ever be; null with a text.
void* database::map_at_base(int flags, int file) {
    const superblock& fixed = files->fixed();
    void* place = mmap(reinterpret_cast<void*>(fixed.base), fixed.room, PROT_READ | PROT_WRITE,
                       flags | MAP_FIXED_NOREPLACE, file, 0);
    const int error = errno;
    if (place != MAP_FAILED && reinterpret_cast<u64>(place) == fixed.base) return place;
    if (place != MAP_FAILED) munmap(place, fixed.room);
    if (place != MAP_FAILED || error == EEXIST)
        fail(EADDRINUSE,
             "database %s: must lie at address %" PRIx64
             ", but that is taken by %s; close what lies there, or open the database in a process of its own",
             path.c_str(), fixed.base, taken_by(fixed.base, fixed.room).c_str());
    else if (error == ENOMEM)
        fail(ENOMEM,
             "database %s: the process has no %" PRIu64
             " bytes of addresses left for it; raise its limit (ulimit -v), or close other databases",
             path.c_str(), fixed.room);
    else
        fail(static_cast<u32>(error), "database %s: cannot be mapped at address %" PRIx64 ": %s", path.c_str(),
             fixed.base, words_and_cure_of(error).c_str());
    return nullptr;
}

/// A state of the database, in memory of this process.
bool database::map_snapshot() {
    void* place = map_at_base(MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1);
    if (!place) return false;
    reserve_ = files->fixed().room;
    if (files->read_snapshot(static_cast<std::byte*>(place)) != 0 ||
        check_header(*static_cast<const arena_header*>(place), files->fixed(), path) != 0) {
        munmap(place, reserve_);
        return false;
    }
    memory.attach(static_cast<std::byte*>(place), this, false);
    return true;
}

/// Judges an image. While others use it they see to its length, and may just be changing it.
u32 database::check_image(const void* place, bool& whole) const {
    const arena_header& header = *static_cast<const arena_header*>(place);
    struct stat status {};
    const auto size = [&] { return fstat(files->image(), &status) == 0 ? static_cast<u64>(status.st_size) : 0; };
    whole = size() >= page_size;
    if (!whole) return 0;
    if (const u32 error = check_header(header, files->fixed(), path)) return error;
    whole = !files->is_only_user() || size() >= header.extent;
    return 0;
}

bool database::map_image() {
    reserve_ = files->fixed().room;
    for (;;) {
        // Pages behind the file's end become usable as the file grows, in every process that has it mapped.
        void* place = map_at_base(MAP_SHARED, files->image());
        if (!place) return false;
        bool whole = false;
        const u32 failed = check_image(place, whole);
        if (whole && !failed) {
            memory.attach(static_cast<std::byte*>(place), this, false);
            files->guard_image(place);
            return true;
        }
        munmap(place, reserve_);
        // Base and journal know better than an image that somebody has cut or overwritten.
        if (files->image_is_new()) {
            if (!failed)
                fail(EIO, "database %s: its image was cut short while it was made; open it again", path.c_str());
            return false;
        }
        if (files->rebuild() != 0) return false;
        log_ = std::make_unique<undo_log>();
        if (log_->make_file(*files) != 0) return false;
    }
}

bool database::make_log() {
    auto log = std::make_unique<undo_log>();
    if (!log->open_private(reserve_)) {
        fail(ENOMEM, "private database: no addresses for an undo log");
        return false;
    }
    log_ = std::move(log);
    return true;
}

database::~database() {
    if (memory.base()) {
        if (files) close_in_order();
        memory.detach();
        munmap(memory.base(), reserve_);
    }
}

void database::close_in_order() {
    if (read_only) return;
    // What fails here was told to those who wanted it on the disk, or will be found by the next opener.
    if (files->level() == durability::volatile_) {
        files->leave_volatile(memory.base(), memory.header().top);
    } else {
        files->flush(files->committed());
        files->truncate();
    }
}

int database::extend(std::byte* base, u64 old_extent, u64 extent) {
    if (read_only) return EROFS;
    if (mapped)
        return posix_fallocate(files->image(), static_cast<off_t>(old_extent),
                               static_cast<off_t>(extent - old_extent));
    return mprotect(base, extent, PROT_READ | PROT_WRITE) == 0 ? 0 : errno;
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
    if (mapped) fstat(files->image(), &status);
    // Whose entry is in the journal has committed, and only did not come to empty the log.
    if (mapped && log_->number() != 0 && files->was_committed(log_->number())) {
        log_->clear();
        files->end_section();
        return true;
    }
    if (!roll_back(mapped ? static_cast<u64>(status.st_size) : reserve_)) return false;
    if (mapped) files->end_section();
    return true;
}

/// Blocks behind the end of the arena are not kept. In a file they are wiped, so that it is what it was before
/// the section, to the byte; other processes do not look there.
bool database::roll_back(u64 extent) {
    const u64 used = std::min(memory.header().top, extent);
    if (!log_->roll_back(memory.base(), extent)) {
        fail(EIO,
             "database %s: its undo log is damaged, so a write section that was cut off cannot be taken back; "
             "close "
             "the database everywhere: who opens it next gets it as the last commit left it",
             path.c_str());
        if (files) files->distrust_image();
        return false;
    }
    ++rollbacks;
    const arena_header& header = memory.header();
    if (!mapped) return true;
    if (used > header.top) std::memset(memory.base() + header.top, 0, used - header.top);
    if (extent > header.extent && ftruncate(files->image(), static_cast<off_t>(header.extent)) != 0) {
        // A file that stays longer than it needs to be does no harm: the header alone says what is in use.
    }
    return true;
}

void database::open_section() {
    if (!log_ && !make_log()) fatal("%s", error_text().c_str());
    log_->begin(files ? files->begin_section() : 0);
    if (debug && mapped) debug->restart();
    memory.open_section(*log_);
}

u32 database::commit_section(section_purpose purpose, std::span<const value_range> others) {
    memory.finish_section();
    if (debug && mapped) found_by_commits += debug->check();
    if (files) {
        if (!memory.changed_ranges(purpose == section_purpose::allocation, others, changed_))
            fatal("database %s: its undo log is damaged", path.c_str());
        if (!changed_.empty()) {
            const bool waits = purpose == section_purpose::changes && files->level() == durability::durable;
            if (const u32 error = files->commit(changed_, memory.base(), waits)) {
                const std::string reason = error_text();
                abort_section();
                return fail(error, "%s", reason.c_str());
            }
        }
        last_commit_ = files->committed();
        if (checks_commits_) check_commit();
    }
    log_->clear();
    if (files) files->end_section();
    memory.close_section();
    roots_of_section_.clear();
    return 0;
}

void database::abort_section() {
    if (!roll_back(memory.header().extent)) fatal("%s", error_text().c_str());
    if (files) files->end_section();
    memory.close_section();
    memory.refresh_poison();
    for (const void* root : roots_of_section_)
        revoke_root(root);
    roots_of_section_.clear();
    if (debug) debug->restart();
}

u32 database::compare_with_disk(const std::function<void(const value_range&)>& visit) {
    if (files->fixed().level == durability::volatile_) return 0;
    if (!committed_) committed_ = std::make_unique<committed_image>(*files);
    if (const u32 error = committed_->update()) return error;
    committed_->each_difference(memory.base(), memory.header().top, pinned_ranges(memory, root()), visit);
    return 0;
}

/// Of the checking mode: what differs would be lost in a crash of the machine, so the process ends here.
void database::check_commit() {
    const u32 error = compare_with_disk([&](const value_range& range) {
        const auto [block, size] = memory.block_around(range.offset);
        fatal("database %s: commit %" PRIu64 " has not told the journal of %" PRIu64 " bytes at offset %" PRIu64
              ", %" PRIu64 " bytes from the start of a block of %" PRIu64,
              path.c_str(), last_commit_, range.length, range.offset,
              range.offset - (block ? memory.offset_of(block) : 0), size);
    });
    if (error) fatal("%s", error_text().c_str());
}

void database::root_was_set(const void* address) {
    reinstate_root(address);
    if (memory.in_section()) roots_of_section_.push_back(address);
}

u32 database::sync() {
    if (!files) return 0;
    if (const u32 error = files->flush(files->committed())) return error;
    return files->truncate();
}

} // namespace loom
