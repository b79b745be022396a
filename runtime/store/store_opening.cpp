// Making a database's directory, entering it, and building its image from base and journal.
#include "runtime/database/error_text.h"
#include "runtime/store/store.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace loom {
namespace {
constexpr char image_name[] = "image";
constexpr char renewed_name[] = "renewed";
/// File systems whose shared mappings are not the same memory on all machines, by the number in `statfs`.
struct remote_file_system {
    u64 number;
    const char* name;
};
constexpr remote_file_system remote_file_systems[] = {
    {0x6969, "NFS"},      {0x517B, "SMB"},     {0xFF534D42, "CIFS"}, {0xFE534D42, "SMB2"}, {0x01021997, "9p"},
    {0x00c36400, "Ceph"}, {0x5346414F, "AFS"}, {0x65735546, "FUSE"}, {0x73757245, "Coda"}, {0x564c, "NCP"},
};
} // namespace

// --------------------------------------------------------------------------------------------------- finding

/// Something else lies at the path: a file, perhaps a database of the form that was one file.
u32 store::refuse_other_path(int error) const {
    const char* path = directory_.path().c_str();
    if (error == ENOENT)
        return fail(ENOENT, "database %s: there is no such directory; name another one, or ask for it to be made",
                    path);
    if (error != ENOTDIR)
        return fail(static_cast<u32>(error),
                    "database %s: cannot be opened: %s; name a directory that you may read and write", path,
                    words_of(error).c_str());
    char magic[8] = "";
    const int file = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (file >= 0 && read(file, magic, sizeof magic) != sizeof magic) magic[0] = 0;
    if (file >= 0) close(file);
    if (std::memcmp(magic, "LOOMARNA", sizeof magic) == 0)
        return fail(EINVAL,
                    "database %s: is of the former kind, which was one file; export its contents with the program "
                    "that wrote it and import them into a new database",
                    path);
    return fail(EINVAL, "database %s: is no database, which is a directory; name another one", path);
}

u32 store::refuse_file_system() const {
    const u64 found = directory_.file_system();
    for (const remote_file_system& each : remote_file_systems)
        if (found == each.number)
            return fail(ENOTSUP,
                        "database %s: lies on a file system of the kind %s, where processes do not share memory; "
                        "put it on a local one",
                        directory_.path().c_str(), each.name);
    return 0;
}

/// A directory without a superblock is no database, or none yet.
u32 store::refuse_unmade() const {
    const char* path = directory_.path().c_str();
    const std::string other = foreign_name_in(directory_);
    if (!other.empty())
        return fail(EINVAL, "database %s: is no database, but a directory with other files (%s); name another one",
                    path, other.c_str());
    if (directory_lock::is_taken(directory_.descriptor()))
        return fail(EBUSY, "database %s: is just being made by another process; try again when that is done",
                    path);
    if (!has_unfinished(directory_))
        return fail(EINVAL, "database %s: is an empty directory; make a database there, or name another one",
                    path);
    return fail(
        EINVAL,
        "database %s: has no superblock, so its making was cut off before anything was in it; make it again",
        path);
}

u32 store::find(const std::string& path, const store_plan* plan, const first_page_fn& first_page, bool read_only) {
    int error = directory_.open(path);
    if (error == ENOENT && plan) {
        const bool made = mkdir(path.c_str(), mode_of_directory(plan->mode ? plan->mode : 0666)) == 0;
        if (made && plan->mode) chmod(path.c_str(), mode_of_directory(plan->mode));
        if (!made && errno != EEXIST)
            return fail(
                static_cast<u32>(errno),
                "database %s: cannot be made: %s; name a place in a directory that is there and that you may "
                "write to",
                path.c_str(), words_of(errno).c_str());
        error = directory_.open(path);
    }
    if (error) return refuse_other_path(error);
    if (const u32 refused = refuse_file_system()) return refused;
    if (!directory_.has(superblock_name)) {
        if (!plan) return refuse_unmade();
        if (const u32 failed = make(*plan, first_page)) return failed;
    }
    if (const u32 failed = read_superblock(directory_, superblock_)) return failed;
    level_ = superblock_.level;
    lock_file_ =
        openat(directory_.descriptor(), superblock_name, (read_only ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_NOFOLLOW);
    if (lock_file_ >= 0) return 0;
    return fail(
        static_cast<u32>(errno),
        "database %s: cannot be opened for writing: %s; readers write too, into its undo log when they follow "
        "a writer that died: get the right to write its files, or open it for reading only",
        path.c_str(), words_of(errno).c_str());
}

file_identity store::identity() const {
    struct stat status {};
    fstat(lock_file_, &status);
    return {status.st_dev, status.st_ino};
}

// ---------------------------------------------------------------------------------------------------- making

/// Whoever has the lock of the directory makes the database; who comes later finds it made.
u32 store::make(const store_plan& plan, const first_page_fn& first_page) {
    const directory_lock lock(directory_.descriptor());
    if (directory_.has(superblock_name)) return 0;
    const std::string other = foreign_name_in(directory_);
    if (!other.empty())
        return fail(
            EEXIST,
            "database %s: cannot be made in a directory that holds something else (%s); name a place where "
            "nothing is",
            directory_.path().c_str(), other.c_str());
    return make_files(plan, first_page);
}

u32 store::make_files(const store_plan& plan, const first_page_fn& first_page) {
    // Without a wish for them the access rights are those that the directory got.
    struct stat status {};
    u32 mode = plan.mode;
    if (!mode) mode = fstat(directory_.descriptor(), &status) == 0 ? status.st_mode & 0666 : 0600;
    const superblock made = make_superblock(plan.base, plan.room, plan.level, mode, plan.name);
    std::vector<std::byte> page(page_size);
    first_page(made, page);
    int error = remove_unfinished(directory_);
    if (!error) error = base_file::create(directory_, made.mode, made.incarnation, page, 0, {});
    if (!error) error = journal::create(directory_, made.mode, made.incarnation, 0, {});
    if (!error) error = directory_.flush();
    // Last: from here on it is a database.
    if (!error) error = write_superblock(directory_, made);
    if (!error) error = directory_.flush();
    if (!error) error = directory_.flush_parent();
    if (!error) return 0;
    return fail(static_cast<u32>(error), "database %s: cannot be made: %s%s", directory_.path().c_str(),
                words_of(error).c_str(), error == ENOSPC || error == EDQUOT ? "; make room on the disk" : "");
}

// -------------------------------------------------------------------------------------------------- entering

u32 store::open_image(bool afresh) {
    if (image_ >= 0) close(image_);
    image_ = -1;
    if (afresh && directory_.has(image_name) && unlinkat(directory_.descriptor(), image_name, 0) != 0)
        return errno;
    const int making = afresh ? O_CREAT | O_EXCL : 0;
    image_ =
        openat(directory_.descriptor(), image_name, O_RDWR | O_CLOEXEC | O_NOFOLLOW | making, superblock_.mode);
    if (image_ < 0) return static_cast<u32>(errno);
    if (afresh) fchmod(image_, superblock_.mode);
    return 0;
}

image_identity store::identify_image() const {
    image_identity found{};
    struct stat status {};
    if (image_ < 0 || fstat(image_, &status) != 0) return found;
    name_boot(found.boot);
    found.device = status.st_dev;
    found.number = status.st_ino;
    return found;
}

u32 store::open_control() {
    const int error = control_.open(directory_, superblock_.mode);
    if (!error) return 0;
    return fail(static_cast<u32>(error), "database %s: its control page cannot be opened: %s",
                directory_.path().c_str(), words_and_cure_of(error).c_str());
}

u32 store::open_files() {
    if (const u32 error = journal_.open(directory_, superblock_.incarnation, true)) return error;
    return base_.open(directory_, superblock_.incarnation, true);
}

/// After a write or a flush that failed nobody knows what the disk holds of these files. What can be read of them
/// is written to new files, which take their places one by one: each is what it was, so the order does not matter.
u32 store::renew_files() {
    for (const char* name : {journal_names[0], journal_names[1], base_name, checksums_name}) {
        disk_file old, renewed;
        if (directory_.has(renewed_name)) directory_.remove(renewed_name);
        int error = old.open(directory_, name, false);
        if (!error) error = renewed.create(directory_, renewed_name, superblock_.mode);
        std::vector<std::byte> bytes(u64{1} << 20);
        const u64 size = error ? 0 : old.size();
        for (u64 offset = 0; !error && offset < size; offset += bytes.size()) {
            const u64 part = std::min<u64>(bytes.size(), size - offset);
            error = old.read(offset, bytes.data(), part);
            if (!error) error = renewed.write(offset, bytes.data(), part);
        }
        if (!error) error = renewed.flush();
        if (!error) error = directory_.rename(renewed_name, name);
        if (error)
            return fail(static_cast<u32>(error),
                        "database %s: %s cannot be renewed after a failure of the disk: %s",
                        directory_.path().c_str(), name, words_and_cure_of(error).c_str());
    }
    if (const int error = directory_.flush())
        return fail(static_cast<u32>(error), "database %s: its directory cannot be flushed: %s",
                    directory_.path().c_str(), words_and_cure_of(error).c_str());
    return 0;
}

/// Who made the database may have died, or failed, before its names were on the disk.
u32 store::flush_names() {
    int error = directory_.flush();
    if (!error) error = directory_.flush_parent();
    if (!error) return 0;
    return fail(static_cast<u32>(error), "database %s: its directory cannot be flushed: %s",
                directory_.path().c_str(), words_and_cure_of(error).c_str());
}

u32 store::enter(bool exclusive, length_fn length_of) {
    length_of_ = length_of;
    if (!lock_byte_for_writing(lock_file_, lock_byte::opening, true))
        return fail(static_cast<u32>(errno), "database %s: cannot be locked: %s", directory_.path().c_str(),
                    words_and_cure_of(errno).c_str());
    alone_ = is_only_user();
    const bool entered = exclusive ? lock_byte_for_writing(lock_file_, lock_byte::use, false)
                                   : lock_byte_for_reading(lock_file_, lock_byte::use, false);
    if (!entered)
        return fail(EBUSY,
                    exclusive ? "database %s: is in use; close the other handles on it to use it exclusively"
                              : "database %s: is in use exclusively; close the other handle on it",
                    directory_.path().c_str());
    if (const u32 error = open_control()) return error;
    if (alone_)
        if (const u32 error = flush_names()) return error;
    if (alone_ && control_.belongs_to(superblock_.incarnation) && control_->failed != 0) {
        if (const u32 error = renew_files()) return error;
        // The image is all that holds the latest state of a volatile database, and has not suffered.
        if (superblock_.level == durability::volatile_) control_->failed = 0;
    }
    if (const u32 error = open_files()) return error;
    open_image(false);
    const image_identity image = identify_image();
    if (control_.trusts(superblock_.incarnation, image) && !(alone_ && control_->failed != 0))
        return alone_ ? settle_trusted() : 0;
    return rebuild();
}

u32 store::rebuild() {
    if (alone_) return make_image();
    return fail(EBUSY,
                "database %s: other processes use it by files that do not lie here any more, or that are damaged; "
                "close it everywhere, then open it again",
                directory_.path().c_str());
}

void store::entered() {
    unlock_byte(lock_file_, lock_byte::opening);
    if (superblock_.level != durability::volatile_) start_keeper();
}

/// Of a volatile database, before anything is stored. A mark that fails may be on the disk or not.
u32 store::mark_in_use() {
    const u32 error = base_.set_state(base_state::in_use);
    return error ? fail_for_good(error) : 0;
}

/// What this run of the machine has not lost, but of which the memory of its former users is gone.
u32 store::settle_trusted() {
    control_->absorbed = base_.record().number;
    if (superblock_.level == durability::volatile_) return mark_in_use();
    control_->flushed = 0;
    return flush(committed());
}

// ---------------------------------------------------------------------------------------- building the image

u32 store::make_image() {
    const u64 flushed_before =
        control_.belongs_to(superblock_.incarnation) ? control_->flushed.load(std::memory_order_acquire) : 0;
    control_.distrust();
    if (superblock_.level == durability::volatile_ && base_.record().state == base_state::in_use)
        return fail(
            EIO,
            "database %s: is volatile, and the machine went down while it was in use: what it held is lost; "
            "restore it from a backup",
            directory_.path().c_str());
    if (const u32 error = open_image(true))
        return fail(error, "database %s: its image cannot be made: %s", directory_.path().c_str(),
                    words_and_cure_of(static_cast<int>(error)).c_str());
    void* memory = mmap(nullptr, superblock_.room, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, image_, 0);
    if (memory == MAP_FAILED)
        return fail(static_cast<u32>(errno), "database %s: no %" PRIu64 " bytes of addresses for its image: %s",
                    directory_.path().c_str(), superblock_.room, words_and_cure_of(errno).c_str());
    journal_place place;
    auto* const image = static_cast<std::byte*>(memory);
    u32 error = replay(image, place);
    // What is stored next may lie behind the last page that a commit has stored to. A header that says something
    // impossible is told by who looks at it next.
    if (!error && length_of_(image) <= superblock_.room) error = extend_image(length_of_(image));
    munmap(memory, superblock_.room);
    if (!error) error = check_end(place, flushed_before);
    if (error) return error;
    report_.rebuilt = place.number != 0;
    // Nothing that was cut off may ever fit again, not even behind a first commit, which is often made the same
    // way.
    const bool may_have_more = place.number != 0 || journal_.size(place.file) > journal_first_entry;
    if (superblock_.level != durability::volatile_ && may_have_more) {
        int failure = journal_.append(place, entry_kind::recovery, {}, nullptr, place.number);
        if (!failure) failure = journal_.flush(place.file);
        if (failure)
            return fail(static_cast<u32>(failure), "database %s: its recovery cannot be written to %s: %s",
                        directory_.path().c_str(), journal_.path(place.file).c_str(),
                        words_and_cure_of(failure).c_str());
    }
    u8 making[16];
    fill_random(making);
    u64 number = 0;
    std::memcpy(&number, making, sizeof number);
    control_->absorbed = base_.record().number;
    control_->flushed = place.number;
    control_.trust(superblock_.incarnation, identify_image(), number, {place, journal_.first_number(place.file)});
    image_is_new_ = true;
    return superblock_.level == durability::volatile_ ? mark_in_use() : 0;
}

/// The place in the journal at which the base is.
u32 store::find_start(journal_place& place) const {
    const base_record& record = base_.record();
    if (superblock_.level == durability::volatile_) {
        // Its commits are in no journal.
        place = {record.number, record.previous};
        return 0;
    }
    if (journal_.find(record.number, record.previous, place)) return 0;
    return fail(
        EIO,
        "database %s: the base is of commit %" PRIu64
        ", and neither journal leads on from there: one of them is damaged; restore the database from a backup",
        directory_.path().c_str(), record.number);
}

u32 store::apply(const journal_entry& entry, u32 file, const room_fn& make_room, std::byte* memory,
                 u64& size) const {
    u64 end = size;
    for (const value_range& range : entry.ranges)
        if (range.length > superblock_.room || range.offset > superblock_.room - range.length)
            return fail(EIO,
                        "database %s: commit %" PRIu64 " stores outside of the database; its journal is damaged",
                        directory_.path().c_str(), entry.header.number);
        else
            end = std::max(end, range.offset + range.length);
    end = (end + page_size - 1) / page_size * page_size;
    if (end > size) {
        if (const u32 error = make_room(end)) return error;
        size = end;
    }
    const u32 error = journal_.each_value(file, entry, [&](const value_part& value) -> u32 {
        std::memcpy(memory + value.offset, value.bytes.data(), value.bytes.size());
        return 0;
    });
    if (!error) return 0;
    return fail(error, "database %s: %s cannot be read: %s", directory_.path().c_str(),
                journal_.path(file).c_str(), words_and_cure_of(static_cast<int>(error)).c_str());
}

/// Puts the values of the entries behind `place` in, up to where none fits or `last` is reached.
u32 store::apply_behind(journal_place& place, u64 last, const room_fn& make_room, std::byte* memory,
                        u64& size) const {
    for (journal_entry entry; place.number < last && journal_.read(place, entry);) {
        if (const u32 error = apply(entry, place.file, make_room, memory, size)) return error;
        place = place_behind(entry, place.file);
    }
    return 0;
}

/// What base and journal hold, put together in memory.
struct store::putting_together {
    u64 size = 0;
    journal_place place; ///< where the journal ends
    /// Where the file that is absorbed ends, there may stand what an absorption that was cut off has promised.
    journal_place end_of_first_file;
    journal_entry promised;
    bool has_promise = false;
};

u32 store::put_together(std::byte* memory, const room_fn& make_room, putting_together& done) {
    journal_place& place = done.place;
    if (const u32 error = find_start(place)) return error;
    // A file that the base has wholly leads on to the other, which may be the one that is absorbed.
    journal_entry next;
    const u32 behind = (place.file + 1) % journal_files;
    if (!journal_.read(place, next) && journal_.begins_behind(behind, place.number, place.previous))
        place = journal_.start_of(behind);
    journal_place& end = done.end_of_first_file;
    end = place;
    for (journal_entry entry; journal_.read(end, entry);)
        end = place_behind(entry, end.file);
    done.has_promise = end.number > base_.record().number && journal_.read_checksums(end, done.promised);

    done.size = base_.record().pages * page_size;
    if (const u32 error = make_room(done.size)) return error;
    const auto excused = done.has_promise ? done.promised.page_checksums : std::vector<page_checksum>{};
    if (const u32 error = base_.copy_to(memory, done.size, excused)) return error;
    if (const u32 error = apply_behind(place, end.number, make_room, memory, done.size)) return error;
    for (const page_checksum& each : excused)
        if (each.page >= done.size / page_size ||
            checksum_of(memory + each.page * page_size, page_size) != each.checksum)
            return fail(EIO, "database %s: page %" PRIu64 " of %s is damaged; restore the database from a backup",
                        directory_.path().c_str(), each.page, base_.path().c_str());
    const u32 other = (end.file + 1) % journal_files;
    if (!journal_.begins_behind(other, place.number, place.previous)) return 0;
    place = journal_.start_of(other);
    return apply_behind(place, ~u64{0}, make_room, memory, done.size);
}

u32 store::extend_image(u64 end) {
    const int error = posix_fallocate(image_, 0, static_cast<off_t>(end));
    if (!error) return 0;
    return fail(static_cast<u32>(error), "database %s: no room for its image of %" PRIu64 " bytes: %s",
                directory_.path().c_str(), end, words_and_cure_of(error).c_str());
}

u32 store::replay(std::byte* image, journal_place& place) {
    putting_together done;
    if (const u32 error = put_together(
            image, [this](u64 end) { return extend_image(end); }, done))
        return error;
    place = done.place;
    report_.commits_replayed = place.number - base_.record().number;
    const journal_place& end = done.end_of_first_file;
    return done.has_promise ? base_.absorb(journal_, end.file, end.number, end.number) : 0;
}

u32 store::read_committed(std::byte* memory, u64& size, journal_place& place) {
    const std::lock_guard guard(truncation_mutex_);
    if (!lock_byte_for_reading(lock_file_, lock_byte::truncating, true))
        return fail(static_cast<u32>(errno), "database %s: its base cannot be locked: %s",
                    directory_.path().c_str(), words_and_cure_of(errno).c_str());
    putting_together done;
    u32 error = base_.refresh();
    if (!error)
        error = put_together(
            memory, [](u64) { return u32{0}; }, done);
    unlock_byte(lock_file_, lock_byte::truncating);
    size = done.size;
    place = done.place;
    return error;
}

u32 store::read_on(std::byte* memory, u64& size, journal_place& place) const {
    const auto has_room = [](u64) { return u32{0}; };
    for (;;) {
        if (const u32 error = apply_behind(place, ~u64{0}, has_room, memory, size)) return error;
        const u32 other = (place.file + 1) % journal_files;
        if (!journal_.begins_behind(other, place.number, place.previous)) return 0;
        place = journal_.start_of(other);
    }
}

/// Where the journal ends, nothing may follow that was promised to last.
u32 store::check_end(const journal_place& place, u64 flushed_before) {
    if (superblock_.level == durability::volatile_) return 0;
    u64 flushed = std::max(flushed_before, journal_.flushed_according_to(place));
    journal_place other = journal_.start_of((place.file + 1) % journal_files);
    if (other.offset != 0) flushed = std::max(flushed, journal_.flushed_according_to(other));
    if (flushed > place.number)
        return fail(EIO,
                    "database %s: %s: the entry of commit %" PRIu64 " at offset %" PRIu64
                    " is damaged, although it was on the disk; restore the database from a backup",
                    directory_.path().c_str(), journal_.path(place.file).c_str(), place.number + 1, place.offset);
    report_.cut_bytes = journal_.cut_bytes_behind(place);
    return 0;
}

} // namespace loom
