// Making databases of backups: the state of a commit is put together in a file without a name, from pages and
// entries that are all checked, and becomes the base of a new database.
#include "runtime/store/backup.h"

#include "runtime/database/error_text.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <memory>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace loom {
namespace {
/// A backup that is read.
class backup_reader {
  public:
    u32 open(const std::string& path);
    const backup_header& header() const { return header_; }
    const std::string& path() const { return path_; }
    const journal& entries() const { return entries_; }
    journal_place first_place() const {
        return {header_.first_number, header_.first, 0, 0, header_.entries_offset()};
    }
    u32 read_table(std::vector<page_entry>& table) const;
    u32 read(u64 offset, void* bytes, u64 size) const;
    u32 damaged(const char* what, u64 number) const {
        return fail(EIO, "backup %s: %s %" PRIu64 " is damaged; take another backup", path_.c_str(), what, number);
    }

  private:
    std::string path_;
    disk_directory directory_;
    disk_file file_;
    backup_header header_{};
    journal entries_;
};

u32 backup_reader::open(const std::string& path) {
    path_ = path;
    const std::size_t slash = path.find_last_of('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    int error = directory_.open(slash == std::string::npos ? "." : path.substr(0, slash + 1));
    if (!error) error = file_.open(directory_, name.c_str(), false);
    if (error)
        return fail(static_cast<u32>(error),
                    "backup %s: cannot be opened: %s; name a file that 'loom backup' has written", path.c_str(),
                    words_of(error).c_str());
    if (const u32 failed = read_backup_header(file_, path, header_)) return failed;
    error = entries_.open_single(directory_, name.c_str(), header_.source.incarnation);
    if (error)
        return fail(static_cast<u32>(error), "backup %s: cannot be opened: %s", path.c_str(),
                    words_of(error).c_str());
    return 0;
}

u32 backup_reader::read(u64 offset, void* bytes, u64 size) const {
    const int error = file_.read(offset, bytes, size);
    if (!error) return 0;
    return fail(static_cast<u32>(error),
                "backup %s: cannot be read at offset %" PRIu64 ": %s; take another backup", path_.c_str(), offset,
                words_of(error).c_str());
}

u32 backup_reader::read_table(std::vector<page_entry>& table) const {
    table.resize(header_.table_pages);
    if (table.empty()) return 0;
    if (const u32 error = read(header_.table_offset(), table.data(), table.size() * sizeof(page_entry)))
        return error;
    digest_stream stream;
    stream.add(table.data(), table.size() * sizeof(page_entry));
    const auto stored =
        std::count_if(table.begin(), table.end(), [&](const page_entry& entry) { return header_.stores(entry); });
    if (stream.result() == header_.table && static_cast<u64>(stored) == header_.stored_pages) return 0;
    return damaged("the page table behind offset", header_.table_offset());
}

/// The memory in which the state is put together: a file without a name beside the database, of which only the
/// pages that were written take room.
class assembled_state {
  public:
    assembled_state() = default;
    ~assembled_state() {
        if (bytes_) munmap(bytes_, room_);
    }
    assembled_state(const assembled_state&) = delete;
    assembled_state& operator=(const assembled_state&) = delete;

    u32 reserve(const disk_directory& directory, u64 room);
    u32 take(const backup_reader& from, u64 last_number);
    u64 number() const { return place_.number; }
    const digest& last() const { return place_.previous; }
    std::span<std::byte> bytes() const { return {bytes_, size_}; }

  private:
    u32 take_pages(const backup_reader& from);
    u32 take_entries(const backup_reader& from, u64 last_number);
    u32 apply(const backup_reader& from, const journal_entry& entry);
    u32 extend(u64 end);

    disk_file file_;
    std::string path_;
    std::byte* bytes_ = nullptr;
    u64 room_ = 0;
    u64 size_ = 0;
    journal_place place_;
};

u32 assembled_state::reserve(const disk_directory& directory, u64 room) {
    path_ = directory.path();
    room_ = room;
    int error = file_.create_unnamed(directory, 0600);
    if (error == EOPNOTSUPP) {
        constexpr char name[] = "image";
        error = file_.create(directory, name, 0600);
        unlinkat(directory.descriptor(), name, 0);
    }
    void* memory = MAP_FAILED;
    if (!error) {
        memory = mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, file_.descriptor(), 0);
        if (memory == MAP_FAILED) error = errno;
    }
    if (error)
        return fail(static_cast<u32>(error), "database %s: there are no %" PRIu64 " bytes to restore it in: %s",
                    path_.c_str(), room, words_of(error).c_str());
    bytes_ = static_cast<std::byte*>(memory);
    return 0;
}

u32 assembled_state::extend(u64 end) {
    const u64 size = (end + page_size - 1) / page_size * page_size;
    if (size <= size_) return 0;
    if (size > room_)
        return fail(EIO, "backup of database %s: stores outside of the database; take another backup",
                    path_.c_str());
    if (const int error = file_.reserve(size))
        return fail(static_cast<u32>(error),
                    "database %s: no room for %" PRIu64 " bytes: %s; make room on the disk", path_.c_str(), size,
                    words_of(error).c_str());
    size_ = size;
    return 0;
}

u32 assembled_state::take_pages(const backup_reader& from) {
    const backup_header& header = from.header();
    std::vector<page_entry> table;
    if (const u32 error = from.read_table(table)) return error;
    if (const u32 error = extend(table.size() * page_size)) return error;
    u64 offset = header.pages_offset();
    for (u64 page = 0; page < table.size(); ++page) {
        std::byte* const place = bytes_ + page * page_size;
        if (header.stores(table[page])) {
            if (const u32 error = from.read(offset, place, page_size)) return error;
            offset += page_size;
        }
        const bool never_written = table[page].checksum == 0 && table[page].number == 0;
        const bool fits = never_written ? std::all_of(place, place + page_size,
                                                      [](std::byte byte) { return byte == std::byte{0}; })
                                        : checksum_of(place, page_size) == table[page].checksum;
        if (!fits) return from.damaged("or goes with other backups than these: page", page);
    }
    place_.number = header.first_number;
    place_.previous = header.first;
    return 0;
}

u32 assembled_state::apply(const backup_reader& from, const journal_entry& entry) {
    for (const value_range& range : entry.ranges) {
        if (range.offset > room_ || range.length > room_ - range.offset)
            return from.damaged("commit", entry.header.number);
        if (const u32 error = extend(range.offset + range.length)) return error;
    }
    const u32 error = from.entries().each_value(0, entry, [&](const value_part& value) -> u32 {
        std::memcpy(bytes_ + value.offset, value.bytes.data(), value.bytes.size());
        return 0;
    });
    return error ? from.damaged("commit", entry.header.number) : 0;
}

/// Goes through all entries, so that damage is told also when not all of them are wanted.
u32 assembled_state::take_entries(const backup_reader& from, u64 last_number) {
    const backup_header& header = from.header();
    journal_place place = from.first_place();
    for (journal_entry entry; place.number < header.last_number;) {
        if (!from.entries().read(place, entry)) return from.damaged("commit", place.number + 1);
        place = place_behind(entry, 0);
        if (place.number > last_number) continue;
        if (const u32 error = apply(from, entry)) return error;
        place_ = place;
    }
    if (place.offset == header.file_size() && place.previous == header.last) return 0;
    return from.damaged("the end behind commit", place.number);
}

u32 assembled_state::take(const backup_reader& from, u64 last_number) {
    const backup_header& header = from.header();
    const bool follows = place_.number == header.first_number;
    const bool other_history = follows && !header.is_full() && !(place_.previous == header.first);
    if (other_history ||
        (!header.is_full() && !follows && (header.table_pages == 0 || place_.number < header.since)))
        return fail(EINVAL,
                    "backup %s: goes on from commit %" PRIu64
                    ", which those before it do not lead to; name the full backup and all since it, in order",
                    from.path().c_str(), std::min(header.since, header.first_number));
    if (header.is_full() || header.table_pages != 0)
        if (const u32 error = take_pages(from)) return error;
    return take_entries(from, last_number);
}

/// The directory of a database that is made; it goes unless that is finished. Whoever wants to make one of that
/// name waits.
class new_directory {
  public:
    ~new_directory() {
        if (!lock_ || finished_) return;
        remove_unfinished(directory_);
        if (made_) rmdir(directory_.path().c_str());
    }
    /// What a making that was cut off has left there goes.
    u32 make(const std::string& path) {
        made_ = mkdir(path.c_str(), 0700) == 0;
        int error = made_ || errno == EEXIST ? directory_.open(path) : errno;
        if (error == ENOTDIR) error = EEXIST;
        if (!error) lock_.emplace(directory_.descriptor());
        if (!error && (directory_.has(superblock_name) || !foreign_name_in(directory_).empty())) {
            error = EEXIST;
            lock_.reset();
        }
        if (!error) error = remove_unfinished(directory_);
        if (!error) return 0;
        return fail(static_cast<u32>(error),
                    "database %s: cannot be made: %s; name a place where nothing is, in a directory that you may "
                    "write to",
                    path.c_str(), words_of(error).c_str());
    }
    u32 fill(const superblock& made, const assembled_state& state);
    const disk_directory& get() const { return directory_; }

  private:
    disk_directory directory_;
    std::optional<directory_lock> lock_;
    bool made_ = false;
    bool finished_ = false;
};

u32 new_directory::fill(const superblock& made, const assembled_state& state) {
    int error = base_file::create(directory_, made.mode, made.incarnation, {}, state.number(), state.last());
    if (!error) error = journal::create(directory_, made.mode, made.incarnation, state.number(), state.last());
    base_file base;
    if (!error) {
        if (const u32 failed = base.open(directory_, made.incarnation, true)) return failed;
        if (const u32 failed =
                base.copy_from(state.bytes().data(), state.bytes().size(), state.number(), state.last()))
            return failed;
        error = fchmod(directory_.descriptor(), mode_of_directory(made.mode)) == 0 ? 0 : errno;
    }
    if (!error) error = directory_.flush();
    // Last: from here on it is a database.
    if (!error) error = write_superblock(directory_, made);
    finished_ = error == 0;
    if (!error) error = directory_.flush();
    if (!error) error = directory_.flush_parent();
    if (!error) return 0;
    return fail(static_cast<u32>(error), "database %s: cannot be made: %s%s", directory_.path().c_str(),
                words_of(error).c_str(), error == ENOSPC || error == EDQUOT ? "; make room on the disk" : "");
}

/// Opens the backups of one database, and leaves out those that begin behind the wanted commit.
u32 open_backups(const restore_plan& plan, std::vector<std::unique_ptr<backup_reader>>& readers) {
    for (const std::string& path : plan.backups) {
        auto reader = std::make_unique<backup_reader>();
        if (const u32 error = reader->open(path)) return error;
        if (readers.empty() != reader->header().is_full())
            return fail(EINVAL,
                        readers.empty() ? "backup %s: holds changes since commit %" PRIu64
                                          " only; name the full backup before it"
                                        : "backup %s: is a full one; name one full backup, then those since it",
                        path.c_str(), reader->header().since);
        if (!readers.empty() &&
            std::memcmp(readers[0]->header().source.incarnation, reader->header().source.incarnation, 16) != 0)
            return fail(EINVAL, "backup %s: is of another database than %s; name backups of one database",
                        path.c_str(), readers[0]->path().c_str());
        readers.push_back(std::move(reader));
    }
    if (readers.empty()) return fail(EINVAL, "there is no backup to restore from; name one");
    while (readers.size() > 1 && readers.back()->header().first_number > plan.number)
        readers.pop_back();
    const backup_header& last = readers.back()->header();
    if (plan.number == all_commits || (plan.number >= last.first_number && plan.number <= last.last_number))
        return 0;
    return fail(ENOENT, "backup %s: commit %" PRIu64 " is not kept; name one from %" PRIu64 " to %" PRIu64,
                readers.back()->path().c_str(), plan.number, last.first_number, last.last_number);
}
} // namespace

u32 restore_backup(const restore_plan& plan, const identify_fn& identify, backup_report& report) {
    std::vector<std::unique_ptr<backup_reader>> readers;
    if (const u32 error = open_backups(plan, readers)) return error;
    const superblock& source = readers[0]->header().source;
    superblock made =
        make_superblock(source.base, source.room, source.level, plan.mode ? plan.mode : source.mode, source.name);
    if (plan.keeps_identity) std::memcpy(made.identity, source.identity, sizeof made.identity);
    made.checksum = checksum_of_record(made);

    new_directory directory;
    if (const u32 error = directory.make(plan.path)) return error;
    assembled_state state;
    if (const u32 error = state.reserve(directory.get(), source.room)) return error;
    for (std::size_t i = 0; i < readers.size(); ++i) {
        const u64 next = i + 1 < readers.size() ? readers[i + 1]->header().first_number : all_commits;
        if (const u32 error = state.take(*readers[i], std::min(plan.number, next))) return error;
    }
    if (const u32 error = identify(made, state.bytes())) return error;
    if (const u32 error = directory.fill(made, state)) return error;
    report = {readers[0]->header().first_number, state.number(), state.bytes().size() / page_size,
              state.bytes().size()};
    return 0;
}

} // namespace loom
