// Writing backups. A read lock keeps the base as it is; the journals are only appended to meanwhile, but for the
// one that is absorbed already, which a commit may begin anew once.
#include "runtime/store/backup.h"

#include "runtime/database/error_text.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace loom {
namespace {
constexpr char backup_magic[8] = {'L', 'O', 'O', 'M', 'B', 'K', 'U', 'P'};
constexpr u32 backup_version = 1;
constexpr u64 buffer_size = u64{1} << 20;
constexpr u64 pages_at_once = 256;

/// Keeps the base of a database from being renewed. It has a lock of its own, so that it excludes the threads of
/// this process too.
class base_hold {
  public:
    base_hold() = default;
    ~base_hold() {
        if (file_ >= 0) close(file_);
    }
    base_hold(const base_hold&) = delete;
    base_hold& operator=(const base_hold&) = delete;
    bool take(int lock_file) {
        file_ = open(("/proc/self/fd/" + std::to_string(lock_file)).c_str(), O_RDONLY | O_CLOEXEC);
        return file_ >= 0 && lock_byte_for_reading(file_, lock_byte::truncating, true);
    }

  private:
    int file_ = -1;
};

/// A file that gets its name when all of it is written, and leaves nothing otherwise.
class output_file {
  public:
    output_file() = default;
    ~output_file() {
        if (temporary_) directory_.remove(temporary_name().c_str());
    }
    output_file(const output_file&) = delete;
    output_file& operator=(const output_file&) = delete;

    u32 create(const std::string& path, mode_t mode) {
        path_ = path;
        const std::size_t slash = path.find_last_of('/');
        name_ = slash == std::string::npos ? path : path.substr(slash + 1);
        if (const int error = directory_.open(slash == std::string::npos ? "." : path.substr(0, slash + 1)))
            return failed(error);
        if (name_.empty() || directory_.has(name_.c_str())) return failed(name_.empty() ? EISDIR : EEXIST);
        if (directory_.has(superblock_name))
            return fail(EINVAL, "backup %s: lies in a database; name a file elsewhere", path.c_str());
        int error = file_.create_unnamed(directory_, mode);
        if (error == EOPNOTSUPP) {
            error = file_.create(directory_, temporary_name().c_str(), mode);
            temporary_ = error == 0;
        }
        return error ? failed(error) : 0;
    }

    u32 add(const void* bytes, u64 size) {
        for (const auto* next = static_cast<const std::byte*>(bytes); size;) {
            const u64 part = std::min(size, buffer_size - used_);
            std::memcpy(buffer_.data() + used_, next, part);
            used_ += part, next += part, size -= part;
            if (used_ == buffer_size)
                if (const u32 error = write_buffer()) return error;
        }
        return 0;
    }
    u32 pad(u64 to) {
        constexpr std::byte zero[512]{};
        while (place_ + used_ < to)
            if (const u32 error = add(zero, std::min<u64>(sizeof zero, to - place_ - used_))) return error;
        return 0;
    }
    /// Writes the header, and names the file.
    u32 finish(const backup_header& header) {
        if (const u32 error = write_buffer()) return error;
        std::byte block[backup_header_room]{};
        std::memcpy(block, &header, sizeof header);
        int error = file_.write(0, block, sizeof block);
        if (!error) error = file_.flush();
        if (!error && temporary_) {
            error = directory_.has(name_.c_str()) ? EEXIST
                                                  : directory_.rename(temporary_name().c_str(), name_.c_str());
            temporary_ = error != 0;
        } else if (!error) {
            error = file_.link(directory_, name_.c_str());
        }
        if (!error) error = directory_.flush();
        return error ? failed(error) : 0;
    }

  private:
    u32 write_buffer() {
        const int error = used_ ? file_.write(place_, buffer_.data(), used_) : 0;
        place_ += used_;
        used_ = 0;
        return error ? failed(error) : 0;
    }
    u32 failed(int error) const {
        const char* cure = "name a file in a directory that is there and that you may write to";
        if (error == EEXIST) cure = "remove it, or take another name";
        if (error == ENOSPC || error == EDQUOT) cure = "make room on the disk";
        return fail(static_cast<u32>(error), "backup %s: cannot be written: %s; %s", path_.c_str(),
                    words_of(error).c_str(), cure);
    }
    std::string temporary_name() const { return name_ + ".unfinished." + std::to_string(getpid()); }

    std::string path_, name_;
    disk_directory directory_;
    disk_file file_;
    bool temporary_ = false;
    u64 place_ = backup_header_room;
    u64 used_ = 0;
    std::vector<std::byte> buffer_ = std::vector<std::byte>(buffer_size);
};

/// One attempt to write a backup.
class backup_writer {
  public:
    backup_writer(store& files, u64 since) : files_(files), header_(make_backup_header(files.fixed(), since)) {}

    u32 write(const std::string& path, u64 last_number);
    u32 write(const std::string& path, const image_copy& image);
    const backup_header& header() const { return header_; }
    /// The failure may come from a change beside it: another attempt is worth while.
    bool was_disturbed() const { return disturbed_; }

  private:
    u32 open_source();
    u32 find_entries();
    u32 write_table(std::span<const page_entry> table);
    u32 write_pages(std::span<const page_entry> table);
    u32 write_entries();
    u32 finish();
    u32 disturbed(const char* what);

    store& files_;
    backup_header header_;
    base_file base_;
    journal journal_;
    journal_place start_;
    output_file out_;
    bool disturbed_ = false;
};

u32 backup_writer::disturbed(const char* what) {
    disturbed_ = true;
    return fail(EIO, "database %s: %s; check the database with 'loom verify'", files_.directory().path().c_str(),
                what);
}

u32 backup_writer::open_source() {
    const superblock& fixed = files_.fixed();
    if (const u32 error = journal_.open(files_.directory(), fixed.incarnation, false)) return error;
    if (const u32 error = base_.open(files_.directory(), fixed.incarnation, false)) return error;
    header_.first_number = base_.record().number;
    header_.first = base_.record().previous;
    // It may have gone on since that number was asked for.
    header_.last_number = std::max(header_.last_number, header_.first_number);
    if (!journal_.find(header_.first_number, header_.first, start_))
        return disturbed("no journal leads on from its base");
    return 0;
}

/// Where the entries begin, and what they end with. Who has everything up to `since` needs no pages when the base
/// is not younger than that.
u32 backup_writer::find_entries() {
    journal_place place = start_;
    journal_entry entry;
    const bool begins_later = !header_.is_full() && header_.first_number <= header_.since;
    const auto begin_here = [&] {
        start_ = place;
        header_.first_number = place.number;
        header_.first = place.previous;
        header_.entry_bytes = 0;
    };
    if (begins_later && place.number == header_.since) begin_here();
    while (place.number < header_.last_number) {
        if (!journal_.read_next(place, entry)) return disturbed("an entry of its journal cannot be read");
        header_.entry_bytes += entry.header.length;
        place = place_behind(entry, place.file);
        if (begins_later && place.number == header_.since) begin_here();
    }
    header_.last = place.previous;
    header_.table_pages = begins_later ? 0 : base_.record().pages;
    return 0;
}

u32 backup_writer::write_table(std::span<const page_entry> table) {
    for (const page_entry& entry : table)
        header_.stored_pages += header_.stores(entry);
    digest_stream stream;
    stream.add(table.data(), table.size_bytes());
    header_.table = stream.result();
    if (const u32 error = out_.add(table.data(), table.size_bytes())) return error;
    return out_.pad(header_.pages_offset());
}

u32 backup_writer::write_pages(std::span<const page_entry> table) {
    std::vector<std::byte> pages(pages_at_once * page_size);
    for (u64 first = 0; first < table.size(); first += pages_at_once) {
        const u64 count = std::min<u64>(pages_at_once, table.size() - first);
        bool wanted = false;
        for (u64 i = 0; i < count; ++i)
            wanted = wanted || header_.stores(table[first + i]);
        if (!wanted) continue;
        if (const u32 error = base_.read_pages(first, std::span(pages).first(count * page_size))) return error;
        for (u64 i = 0; i < count; ++i) {
            const std::byte* const page = pages.data() + i * page_size;
            if (!header_.stores(table[first + i])) continue;
            if (checksum_of(page, page_size) != table[first + i].checksum)
                return disturbed("a page of its base does not fit its checksum");
            if (const u32 error = out_.add(page, page_size)) return error;
        }
    }
    return 0;
}

u32 backup_writer::write_entries() {
    journal_place place = start_;
    journal_entry entry;
    std::vector<std::byte> window(buffer_size);
    while (place.number < header_.last_number) {
        if (!journal_.read_next(place, entry)) return disturbed("an entry of its journal cannot be read");
        for (u64 offset = entry.offset; offset < entry.offset_behind();) {
            const u64 part = std::min<u64>(window.size(), entry.offset_behind() - offset);
            if (journal_.read_bytes(place.file, offset, window.data(), part) != 0)
                return disturbed("an entry of its journal cannot be read");
            if (const u32 error = out_.add(window.data(), part)) return error;
            offset += part;
        }
        place = place_behind(entry, place.file);
    }
    return 0;
}

u32 backup_writer::finish() {
    header_.checksum = checksum_of_record(header_);
    return out_.finish(header_);
}

u32 backup_writer::write(const std::string& path, u64 last_number) {
    header_.last_number = last_number;
    if (const u32 error = out_.create(path, header_.source.mode)) return error;
    base_hold hold;
    if (!hold.take(files_.lock_file()))
        return fail(static_cast<u32>(errno), "database %s: cannot be locked for a backup: %s",
                    files_.directory().path().c_str(), words_of(errno).c_str());
    if (const u32 error = open_source()) return error;
    if (const u32 error = find_entries()) return error;
    std::vector<page_entry> table(header_.table_pages);
    if (const u32 error = base_.read_entries(0, table)) return error;
    if (const u32 error = write_table(table)) return error;
    if (const u32 error = write_pages(table)) return error;
    if (const u32 error = write_entries()) return error;
    return finish();
}

u32 backup_writer::write(const std::string& path, const image_copy& image) {
    header_.first_number = header_.last_number = image.number;
    header_.first = header_.last = image.previous;
    if (const u32 error = out_.create(path, header_.source.mode)) return error;
    constexpr std::byte zero[page_size]{};
    std::vector<page_entry> table;
    for (u64 offset = 0; offset < image.bytes.size(); offset += page_size) {
        const std::byte* const page = image.bytes.data() + offset;
        const bool is_zero = std::memcmp(page, zero, page_size) == 0;
        table.push_back(is_zero ? page_entry{} : page_entry{checksum_of(page, page_size), image.number});
    }
    header_.table_pages = table.size();
    if (const u32 error = write_table(table)) return error;
    for (u64 i = 0; i < table.size(); ++i)
        if (header_.stores(table[i]))
            if (const u32 error = out_.add(image.bytes.data() + i * page_size, page_size)) return error;
    return finish();
}

u32 fill_report(const backup_header& header, backup_report& report) {
    report = {header.first_number, header.last_number, header.stored_pages, header.file_size()};
    return 0;
}
} // namespace

backup_header make_backup_header(const superblock& source, u64 since) {
    backup_header header{};
    std::memcpy(header.magic, backup_magic, sizeof backup_magic);
    header.version = backup_version;
    header.record_size = sizeof header;
    header.source = source;
    header.since = since;
    return header;
}

u32 read_backup_header(const disk_file& file, const std::string& path, backup_header& header) {
    const int error = file.read(0, &header, sizeof header);
    if (error && error != ENODATA)
        return fail(static_cast<u32>(error), "backup %s: cannot be read: %s", path.c_str(),
                    words_of(error).c_str());
    if (error || std::memcmp(header.magic, backup_magic, sizeof backup_magic) != 0)
        return fail(EINVAL, "%s is no backup of a database; name a file that 'loom backup' has written",
                    path.c_str());
    if (header.version != backup_version || header.record_size != sizeof header)
        return fail(EINVAL,
                    "backup %s: has format version %u, this runtime reads version %u; restore it with the runtime "
                    "that wrote it",
                    path.c_str(), header.version, backup_version);
    constexpr u64 most = u64{1} << 50; // beyond every disk, and sums stay far from the end of numbers
    if (header.checksum != checksum_of_record(header) || header.table_pages > header.source.room / page_size ||
        header.stored_pages > header.table_pages || header.entry_bytes > most || header.source.room > most ||
        header.last_number < header.first_number)
        return fail(EIO, "backup %s: its header is damaged; take another backup", path.c_str());
    if (file.size() != header.file_size())
        return fail(EIO, "backup %s: has %" PRIu64 " bytes instead of %" PRIu64 "; take another backup",
                    path.c_str(), file.size(), header.file_size());
    return 0;
}

u32 write_backup(store& files, const std::string& path, u64 since, const image_copy& image,
                 backup_report& report) {
    if (!image.bytes.empty()) {
        backup_writer writer(files, all_commits);
        const u32 error = writer.write(path, image);
        return error ? error : fill_report(writer.header(), report);
    }
    const u64 last_number = files.committed();
    if (since != all_commits && since > last_number)
        return fail(EINVAL, "database %s: has come to commit %" PRIu64 " only; name that, or an earlier one",
                    files.directory().path().c_str(), last_number);
    // What the backup holds must not be lost behind a crash, and others made instead of it.
    if (const u32 error = files.flush(last_number)) return error;
    for (int attempts = 3;; --attempts) {
        // An absorption that was cut off leaves pages that do not fit; without room to finish it they are told.
        files.truncate();
        backup_writer writer(files, since);
        const u32 error = writer.write(path, last_number);
        if (!error) return fill_report(writer.header(), report);
        if (!writer.was_disturbed() || attempts == 1) return error;
    }
}

} // namespace loom
