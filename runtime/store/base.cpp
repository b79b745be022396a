// Reading, checking and renewing the base.
#include "runtime/store/base.h"

#include "runtime/database/error_text.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

namespace loom {
namespace {
constexpr char record_magic[8] = {'L', 'O', 'O', 'M', 'S', 'U', 'M', 'S'};
constexpr u32 record_version = 1;
constexpr u64 record_room = 4096;
constexpr u64 first_page_entry = 2 * record_room;
/// Pages that are read at once.
constexpr u64 batch = 256;
/// Bytes of values that an absorption keeps in memory; it reads the others when it needs them.
constexpr u64 most_kept_bytes = u64{16} << 20;
constexpr u64 not_kept = ~u64{0};

bool is_zero(const std::byte (&page)[page_size]) {
    return std::all_of(page, page + page_size, [](std::byte byte) { return byte == std::byte{0}; });
}
u64 place_of_entry(u64 page) { return first_page_entry + page * sizeof(page_entry); }
} // namespace

/// Bytes that an entry of a journal stores in one page.
struct base_file::piece {
    u64 page;
    u32 offset;
    u32 length;
    u64 place; ///< in the journal file
    u64 kept;  ///< place among the bytes that are kept, or not_kept
};

/// What is needed to absorb a journal file.
struct base_file::absorption {
    absorption(const journal& from, u32 of_file) : entries(from), file(of_file) {}

    const journal& entries;
    u32 file;
    std::vector<piece> pieces;       ///< by page, then in the order of the entries
    std::vector<std::byte> kept;     ///< bytes of the first ones
    journal_place end;               ///< behind the last entry
    std::vector<page_checksum> sums; ///< that the pages will have, by page
    /// What an absorption that was cut off has promised: its pages may be half written, but not otherwise.
    journal_entry promised;
    bool repeated = false;

    bool is_promised(u64 page, u64 checksum) const {
        if (!repeated) return false;
        const auto& all = promised.page_checksums;
        const auto found =
            std::lower_bound(all.begin(), all.end(), page,
                             [](const page_checksum& each, u64 wanted) { return each.page < wanted; });
        return found != all.end() && found->page == page && found->checksum == checksum;
    }
};

u32 base_file::failed(const disk_file& file, const char* what, int error) const {
    return fail(static_cast<u32>(error), "database %s: %s cannot be %s: %s", directory_.c_str(),
                file.path().c_str(), what, words_and_cure_of(error).c_str());
}

u32 base_file::damaged(u64 page) const {
    return fail(EIO,
                "database %s: page %" PRIu64 " of %s, at offset %" PRIu64
                ", does not fit its checksum: the disk has damaged it; restore the database from a backup",
                directory_.c_str(), page, pages_.path().c_str(), page * page_size);
}

int base_file::create(const disk_directory& directory, mode_t mode, const u8 (&incarnation)[16],
                      std::span<const std::byte> first, u64 number, const digest& previous) {
    disk_file pages, checksums;
    if (const int error = pages.create(directory, base_name, mode)) return error;
    if (const int error = checksums.create(directory, checksums_name, mode)) return error;
    std::byte page[page_size]{};
    std::memcpy(page, first.data(), first.size());
    base_record record{};
    std::memcpy(record.magic, record_magic, sizeof record_magic);
    record.version = record_version;
    record.record_size = sizeof record;
    std::memcpy(record.incarnation, incarnation, sizeof incarnation);
    record.turn = 1;
    record.number = number;
    record.previous = previous;
    record.pages = 1;
    record.state = base_state::closed;
    record.checksum = checksum_of_record(record);
    std::vector<std::byte> sums(first_page_entry + sizeof(page_entry));
    std::memcpy(sums.data() + record_room, &record, sizeof record);
    const page_entry entry{checksum_of(page, sizeof page), number};
    std::memcpy(sums.data() + first_page_entry, &entry, sizeof entry);
    if (const int error = pages.write(0, page, sizeof page)) return error;
    if (const int error = pages.flush()) return error;
    if (const int error = checksums.write(0, sums.data(), sums.size())) return error;
    return checksums.flush();
}

u32 base_file::open(const disk_directory& directory, const u8 (&incarnation)[16], bool writable) {
    directory_ = directory.path();
    std::memcpy(incarnation_, incarnation, sizeof incarnation);
    if (const int error = pages_.open(directory, base_name, writable)) return failed(pages_, "opened", error);
    if (const int error = checksums_.open(directory, checksums_name, writable))
        return failed(checksums_, "opened", error);
    return read_record();
}

u32 base_file::refresh() { return read_record(); }

u32 base_file::read_record() {
    base_record best{};
    for (u64 slot = 0; slot < 2; ++slot) {
        base_record record;
        if (const int error = checksums_.read(slot * record_room, &record, sizeof record)) {
            if (error == ENODATA) continue;
            return failed(checksums_, "read", error);
        }
        if (std::memcmp(record.magic, record_magic, sizeof record_magic) == 0 &&
            record.version == record_version && record.record_size == sizeof record &&
            record.checksum == checksum_of_record(record) &&
            std::memcmp(record.incarnation, incarnation_, sizeof incarnation_) == 0 && record.turn > best.turn)
            best = record;
    }
    if (best.turn == 0)
        return fail(
            EIO,
            "database %s: %s does not say which commit the base is of: it is damaged, or belongs to another "
            "database; restore the database from a backup",
            directory_.c_str(), checksums_.path().c_str());
    record_ = best;
    return 0;
}

u32 base_file::write_record(base_record next) {
    next.turn = record_.turn + 1;
    next.checksum = checksum_of_record(next);
    if (const int error = checksums_.write(next.turn % 2 * record_room, &next, sizeof next))
        return failed(checksums_, "written", error);
    if (const int error = checksums_.flush()) return failed(checksums_, "flushed", error);
    record_ = next;
    return 0;
}

u32 base_file::set_state(base_state state) {
    if (record_.state == state) return 0;
    base_record next = record_;
    next.state = state;
    return write_record(next);
}

// --------------------------------------------------------------------------------------------------- reading

u32 base_file::read_entries(u64 first, std::span<page_entry> entries) const {
    std::memset(entries.data(), 0, entries.size_bytes());
    const u64 known = record_.pages > first ? std::min<u64>(record_.pages - first, entries.size()) : 0;
    if (!known) return 0;
    if (const int error = checksums_.read(place_of_entry(first), entries.data(), known * sizeof(page_entry)))
        return failed(checksums_, "read", error == ENODATA ? EIO : error);
    return 0;
}

/// A page that lies behind the end of the file is zero.
u32 base_file::read_page(u64 page, std::byte* bytes) const {
    const int error = pages_.read(page * page_size, bytes, page_size);
    if (error == ENODATA)
        std::memset(bytes, 0, page_size);
    else if (error)
        return failed(pages_, "read", error);
    return 0;
}

u32 base_file::read_pages(u64 first, std::span<std::byte> pages) const {
    // All at once, where the file is long enough for that.
    const int error = pages_.read(first * page_size, pages.data(), pages.size());
    if (error && error != ENODATA) return failed(pages_, "read", error);
    if (!error) return 0;
    for (u64 i = 0; i < pages.size() / page_size; ++i)
        if (const u32 failure = read_page(first + i, pages.data() + i * page_size)) return failure;
    return 0;
}

u32 base_file::copy_to(std::byte* image, u64 size, std::span<const page_checksum> excused) {
    std::vector<page_entry> entries(batch);
    const u64 pages = std::min(record_.pages, size / page_size);
    for (u64 first = 0; first < pages; first += batch) {
        const u64 count = std::min(batch, pages - first);
        if (const u32 error = read_entries(first, std::span(entries).first(count))) return error;
        std::byte* const place = image + first * page_size;
        if (const u32 error = read_pages(first, {place, count * page_size})) return error;
        for (u64 i = 0; i < count; ++i) {
            std::byte* const page = place + i * page_size;
            if (entries[i].checksum == 0 && entries[i].number == 0) {
                std::memset(page, 0, page_size);
                continue;
            }
            if (checksum_of(page, page_size) == entries[i].checksum) continue;
            const bool is_excused =
                std::binary_search(excused.begin(), excused.end(), page_checksum{first + i, 0},
                                   [](const page_checksum& a, const page_checksum& b) { return a.page < b.page; });
            if (!is_excused) return damaged(first + i);
        }
    }
    return 0;
}

void base_file::copy_readable(std::byte* image, u64 size, const std::function<void(u64 page)>& lost) {
    std::vector<page_entry> entries(batch);
    const u64 pages = std::min(record_.pages, size / page_size);
    for (u64 first = 0; first < pages; first += batch) {
        const u64 count = std::min(batch, pages - first);
        const bool known = read_entries(first, std::span(entries).first(count)) == 0;
        for (u64 i = 0; i < count; ++i) {
            std::byte* const page = image + (first + i) * page_size;
            if (known && entries[i].checksum == 0 && entries[i].number == 0) continue;
            if (known && read_page(first + i, page) == 0 && checksum_of(page, page_size) == entries[i].checksum)
                continue;
            lost(first + i);
        }
    }
}

u32 base_file::verify(void (*report)(u64 page, void* context), void* context) {
    std::vector<page_entry> entries(batch);
    std::byte page[page_size];
    for (u64 first = 0; first < record_.pages; first += batch) {
        const u64 count = std::min(batch, record_.pages - first);
        if (const u32 error = read_entries(first, std::span(entries).first(count))) return error;
        for (u64 i = 0; i < count; ++i) {
            if (entries[i].checksum == 0 && entries[i].number == 0) continue;
            if (read_page(first + i, page) != 0 || checksum_of(page, page_size) != entries[i].checksum)
                report(first + i, context);
        }
    }
    return 0;
}

// ------------------------------------------------------------------------------------------------- absorbing

u32 base_file::read_pieces(u64 last_number, absorption& work) const {
    journal_place place = work.entries.start_of(work.file);
    while (place.number < last_number) {
        journal_entry entry;
        if (place.offset == 0 || !work.entries.read(place, entry))
            return fail(EIO,
                        "database %s: %s: the entry of commit %" PRIu64 " at offset %" PRIu64
                        " is damaged; restore the database from a backup",
                        directory_.c_str(), work.entries.path(work.file).c_str(), place.number + 1, place.offset);
        place = place_behind(entry, work.file);
        if (entry.header.number <= record_.number) continue;
        if (const u32 error = add_pieces(entry, work))
            return fail(error, "database %s: %s cannot be read: %s", directory_.c_str(),
                        work.entries.path(work.file).c_str(), words_of(static_cast<int>(error)).c_str());
    }
    work.end = place;
    work.repeated = work.entries.read_checksums(place, work.promised);
    std::stable_sort(work.pieces.begin(), work.pieces.end(),
                     [](const piece& a, const piece& b) { return a.page < b.page; });
    return 0;
}

/// The values of an entry, cut at the ends of pages. Short ones are kept as long as there is room for them, since
/// there may be very many.
u32 base_file::add_pieces(const journal_entry& entry, absorption& work) {
    return work.entries.each_value(work.file, entry, [&](const value_part& value) -> u32 {
        for (u64 done = 0; done < value.bytes.size();) {
            const u64 offset = value.offset + done, within = offset % page_size;
            const u64 part = std::min(value.bytes.size() - done, page_size - within);
            piece next{offset / page_size, static_cast<u32>(within), static_cast<u32>(part), value.place + done,
                       not_kept};
            if (part < page_size && work.kept.size() + part <= most_kept_bytes) {
                next.kept = work.kept.size();
                const std::byte* const bytes = value.bytes.data() + done;
                work.kept.insert(work.kept.end(), bytes, bytes + part);
            }
            work.pieces.push_back(next);
            done += part;
        }
        return 0;
    });
}

u32 base_file::put_in(const absorption& work, const piece& value, std::byte* page) const {
    std::byte* const place = page + value.offset;
    if (value.kept != not_kept) {
        std::memcpy(place, work.kept.data() + value.kept, value.length);
        return 0;
    }
    const int error = work.entries.read_bytes(work.file, value.place, place, value.length);
    if (!error) return 0;
    return fail(static_cast<u32>(error), "database %s: %s cannot be read: %s", directory_.c_str(),
                work.entries.path(work.file).c_str(), words_and_cure_of(error).c_str());
}

/// Calls `visit` with the number of each page that changes, its new bytes, and whether the present ones fit their
/// checksum.
template <class Visit>
u32 base_file::each_page(const absorption& work, Visit visit) const {
    std::byte page[page_size];
    for (std::size_t i = 0; i < work.pieces.size();) {
        const u64 number = work.pieces[i].page;
        page_entry entry{};
        if (const u32 error = read_entries(number, std::span(&entry, 1))) return error;
        if (const u32 error = read_page(number, page)) return error;
        const bool never_written = entry.checksum == 0 && entry.number == 0;
        if (never_written && !work.repeated) std::memset(page, 0, page_size);
        const bool fits = never_written || checksum_of(page, page_size) == entry.checksum;
        for (; i < work.pieces.size() && work.pieces[i].page == number; ++i)
            if (const u32 error = put_in(work, work.pieces[i], page)) return error;
        if (const u32 error = visit(number, page, fits)) return error;
    }
    return 0;
}

u32 base_file::compute_checksums(absorption& work) const {
    return each_page(work, [&](u64 number, const std::byte* page, bool fits) -> u32 {
        const u64 sum = checksum_of(page, page_size);
        if (!fits && !work.is_promised(number, sum)) return damaged(number);
        work.sums.push_back({number, sum});
        return 0;
    });
}

/// Pages that lie side by side are written together.
u32 base_file::write_pages(const absorption& work) {
    std::vector<std::byte> run;
    run.reserve(batch * page_size);
    u64 first = 0;
    std::size_t next = 0;
    const auto write_run = [&]() -> u32 {
        if (run.empty()) return 0;
        if (const int error = pages_.write(first * page_size, run.data(), run.size()))
            return failed(pages_, "written", error);
        run.clear();
        return 0;
    };
    const u32 error = each_page(work, [&](u64 number, const std::byte* page, bool) -> u32 {
        // What is written must be what was promised: the page was read once more.
        if (checksum_of(page, page_size) != work.sums[next++].checksum) return damaged(number);
        if (run.size() == batch * page_size || number != first + run.size() / page_size)
            if (const u32 failure = write_run()) return failure;
        if (run.empty()) first = number;
        run.insert(run.end(), page, page + page_size);
        return 0;
    });
    if (error) return error;
    if (const u32 failure = write_run()) return failure;
    if (const int failure = pages_.flush()) return failed(pages_, "flushed", failure);
    return 0;
}

u32 base_file::write_entries(const absorption& work) {
    std::vector<page_entry> run;
    for (std::size_t i = 0; i < work.sums.size(); ++i) {
        run.push_back({work.sums[i].checksum, work.end.number});
        if (i + 1 < work.sums.size() && work.sums[i + 1].page == work.sums[i].page + 1) continue;
        const u64 first = work.sums[i].page + 1 - run.size();
        if (const int error = checksums_.write(place_of_entry(first), run.data(), run.size() * sizeof(page_entry)))
            return failed(checksums_, "written", error);
        run.clear();
    }
    if (const int error = checksums_.flush()) return failed(checksums_, "flushed", error);
    return 0;
}

u32 base_file::absorb(journal& entries, u32 file, u64 last_number, u64 flushed) {
    absorption work(entries, file);
    if (const u32 error = read_pieces(last_number, work)) return error;
    if (const u32 error = compute_checksums(work)) return error;
    if (const int error = entries.append_checksums(work.end, work.sums, flushed))
        return fail(static_cast<u32>(error), "database %s: %s cannot be written: %s", directory_.c_str(),
                    entries.path(file).c_str(), words_and_cure_of(error).c_str());
    if (const int error = entries.flush(file))
        return fail(static_cast<u32>(error), "database %s: %s cannot be flushed: %s", directory_.c_str(),
                    entries.path(file).c_str(), words_and_cure_of(error).c_str());
    if (const u32 error = write_pages(work)) return error;
    if (const u32 error = write_entries(work)) return error;
    base_record next = record_;
    next.number = work.end.number;
    next.previous = work.end.previous;
    if (!work.sums.empty()) next.pages = std::max(next.pages, work.sums.back().page + 1);
    return write_record(next);
}

u32 base_file::copy_from(const std::byte* image, u64 size, u64 number, const digest& previous) {
    std::vector<page_entry> entries(batch);
    const u64 pages = (size + page_size - 1) / page_size;
    std::byte page[page_size];
    for (u64 first = 0; first < pages; first += batch) {
        const u64 count = std::min(batch, pages - first);
        if (const u32 error = read_entries(first, std::span(entries).first(count))) return error;
        for (u64 i = 0; i < count; ++i) {
            const u64 offset = (first + i) * page_size;
            std::memset(page, 0, sizeof page);
            std::memcpy(page, image + offset, std::min(page_size, size - offset));
            const u64 sum = checksum_of(page, page_size);
            const bool was_written = entries[i].checksum || entries[i].number;
            if (sum == entries[i].checksum || (!was_written && is_zero(page))) continue;
            entries[i] = {sum, number};
            if (const int error = pages_.write(offset, page, page_size)) return failed(pages_, "written", error);
            if (const int error = checksums_.write(place_of_entry(first + i), &entries[i], sizeof entries[i]))
                return failed(checksums_, "written", error);
        }
    }
    if (const int error = pages_.flush()) return failed(pages_, "flushed", error);
    if (const int error = checksums_.flush()) return failed(checksums_, "flushed", error);
    base_record next = record_;
    next.number = number;
    next.previous = previous;
    next.pages = std::max(next.pages, pages);
    next.state = base_state::closed;
    return write_record(next);
}

} // namespace loom
