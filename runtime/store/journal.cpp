// Writing and reading journal files.
#include "runtime/store/journal.h"

#include "runtime/database/error_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace loom {
namespace {
constexpr char header_magic[8] = {'L', 'O', 'O', 'M', 'J', 'R', 'N', 'L'};
constexpr char entry_magic[8] = {'L', 'O', 'O', 'M', 'E', 'N', 'T', 'R'};
/// Values up to this size are gathered; longer ones are written from where they lie.
constexpr u64 largest_gathered = u64{64} << 10;
constexpr u64 growth_step = u64{1} << 20;
constexpr std::byte padding[8]{};
/// Bytes of an entry that are read at once.
constexpr u64 window_size = u64{1} << 20;

u64 padded(u64 size) { return (size + 7) & ~u64{7}; }

journal_header make_header(const u8 (&incarnation)[16], u64 first_number, const digest& previous) {
    journal_header header{};
    std::memcpy(header.magic, header_magic, sizeof header_magic);
    header.version = journal_version;
    header.record_size = sizeof header;
    std::memcpy(header.incarnation, incarnation, sizeof incarnation);
    header.first_number = first_number;
    header.previous = previous;
    header.checksum = checksum_of_record(header);
    return header;
}

/// The digest of an entry: of all its bytes but the digest itself.
digest digest_of(const entry_header& header, std::span<const iovec> rest) {
    digest_stream stream;
    stream.add(&header, offsetof(entry_header, own));
    for (const iovec& piece : rest)
        stream.add(piece.iov_base, piece.iov_len);
    return stream.result();
}
} // namespace

int journal::create(const disk_directory& directory, mode_t mode, const u8 (&incarnation)[16], u64 number,
                    const digest& previous) {
    for (u32 i = 0; i < journal_files; ++i) {
        disk_file file;
        if (const int error = file.create(directory, journal_names[i], mode)) return error;
        std::byte block[journal_first_entry]{};
        // The second file begins when it is its turn.
        if (i == 0) {
            const journal_header header = make_header(incarnation, number + 1, previous);
            std::memcpy(block, &header, sizeof header);
        }
        if (const int error = file.write(0, block, sizeof block)) return error;
        if (const int error = file.flush()) return error;
    }
    return 0;
}

u32 journal::open(const disk_directory& directory, const u8 (&incarnation)[16], bool writable) {
    std::memcpy(incarnation_, incarnation, sizeof incarnation);
    for (u32 i = 0; i < journal_files; ++i)
        if (const int error = files_[i].open(directory, journal_names[i], writable))
            return fail(static_cast<u32>(error), "database %s: %s cannot be opened: %s", directory.path().c_str(),
                        journal_names[i], words_and_cure_of(error).c_str());
    return 0;
}

int journal::open_single(const disk_directory& directory, const char* name, const u8 (&incarnation)[16]) {
    std::memcpy(incarnation_, incarnation, sizeof incarnation);
    return files_[0].open(directory, name, false);
}

// --------------------------------------------------------------------------------------------------- writing

int journal::begin(journal_place& place) {
    journal_place other = place;
    other.file = (place.file + 1) % journal_files;
    other.offset = journal_first_entry;
    std::byte block[journal_first_entry]{};
    const journal_header header = make_header(incarnation_, place.number + 1, place.previous);
    std::memcpy(block, &header, sizeof header);
    if (const int error = files_[other.file].write(0, block, sizeof block)) return error;
    place = other;
    return 0;
}

int journal::make_room(u32 file, u64 end) {
    if (end <= sizes_[file]) return 0;
    sizes_[file] = files_[file].size();
    if (end <= sizes_[file]) return 0;
    if (const int error = files_[file].reserve(end + growth_step)) return error;
    sizes_[file] = end + growth_step;
    return 0;
}

int journal::append(journal_place& place, entry_kind kind, std::span<const value_range> ranges,
                    const std::byte* image, u64 flushed) {
    u64 length = sizeof(entry_header) + ranges.size_bytes(), gathered = length;
    for (const value_range& range : ranges) {
        length += padded(range.length);
        if (range.length <= largest_gathered) gathered += padded(range.length);
    }
    disk_file& file = files_[place.file];
    const u64 end = place.offset + length;
    if (const int error = make_room(place.file, end)) return error;

    small_.resize(gathered);
    pieces_.clear();
    std::byte* next = small_.data() + sizeof(entry_header);
    std::byte* begun = next;
    const auto end_piece = [&] {
        if (next != begun) pieces_.push_back({begun, static_cast<std::size_t>(next - begun)});
        begun = next;
    };
    if (!ranges.empty()) std::memcpy(next, ranges.data(), ranges.size_bytes());
    next += ranges.size_bytes();
    for (const value_range& range : ranges) {
        const u64 rest = padded(range.length) - range.length;
        if (range.length <= largest_gathered) {
            std::memcpy(next, image + range.offset, range.length);
            std::memset(next + range.length, 0, rest);
            next += padded(range.length);
            continue;
        }
        end_piece();
        pieces_.push_back({const_cast<std::byte*>(image + range.offset), range.length});
        if (rest) pieces_.push_back({const_cast<std::byte*>(padding), rest});
    }
    end_piece();

    entry_header header{};
    std::memcpy(header.magic, entry_magic, sizeof entry_magic);
    header.length = length;
    header.number = place.number + 1;
    std::memcpy(header.incarnation, incarnation_, sizeof incarnation_);
    header.flushed = flushed;
    header.range_count = static_cast<u32>(ranges.size());
    header.kind = kind;
    header.previous = place.previous;
    header.own = digest_of(header, pieces_);
    std::memcpy(small_.data(), &header, sizeof header);
    // The header lies right before what was gathered first.
    if (!pieces_.empty() && pieces_.front().iov_base == small_.data() + sizeof header)
        pieces_.front() = {small_.data(), pieces_.front().iov_len + sizeof header};
    else
        pieces_.insert(pieces_.begin(), {small_.data(), sizeof header});
    if (const int error = file.write(place.offset, pieces_)) return error;
    place = {header.number, header.own, place.file, 0, end};
    return 0;
}

int journal::append_checksums(const journal_place& place, std::span<const page_checksum> pages, u64 flushed) {
    entry_header header{};
    std::memcpy(header.magic, entry_magic, sizeof entry_magic);
    header.length = sizeof header + pages.size_bytes();
    header.number = place.number;
    std::memcpy(header.incarnation, incarnation_, sizeof incarnation_);
    header.flushed = flushed;
    header.range_count = static_cast<u32>(pages.size());
    header.kind = entry_kind::page_checksums;
    header.previous = place.previous;
    std::array<iovec, 2> pieces{iovec{&header, sizeof header},
                                iovec{const_cast<page_checksum*>(pages.data()), pages.size_bytes()}};
    header.own = digest_of(header, std::span(pieces).subspan(1));
    return files_[place.file].write(place.offset, pieces);
}

// --------------------------------------------------------------------------------------------------- reading

bool journal::read_header(u32 file, journal_header& header) const {
    return files_[file].read(0, &header, sizeof header) == 0 &&
           std::memcmp(header.magic, header_magic, sizeof header_magic) == 0 &&
           header.version == journal_version && header.record_size == sizeof header &&
           header.checksum == checksum_of_record(header) &&
           std::memcmp(header.incarnation, incarnation_, sizeof incarnation_) == 0;
}

bool journal::begins_behind(u32 file, u64 number, const digest& previous) const {
    journal_header header;
    return read_header(file, header) && header.first_number == number + 1 && header.previous == previous;
}

u64 journal::first_number(u32 file) const {
    journal_header header;
    return read_header(file, header) ? header.first_number : 0;
}

journal_place journal::start_of(u32 file) const {
    journal_header header;
    if (!read_header(file, header)) return {0, {}, file, 0, 0};
    return {header.first_number - 1, header.previous, file, 0, journal_first_entry};
}

bool journal::read_any(const journal_place& place, journal_entry& entry) const {
    const disk_file& file = files_[place.file];
    entry.ranges.clear();
    entry.page_checksums.clear();
    entry.offset = place.offset;
    entry_header& header = entry.header;
    if (file.read(place.offset, &header, sizeof header) != 0) return false;
    if (std::memcmp(header.magic, entry_magic, sizeof entry_magic) != 0 || header.length < sizeof header ||
        header.length > file.size() - place.offset || header.length % 8 != 0 ||
        std::memcmp(header.incarnation, incarnation_, sizeof incarnation_) != 0)
        return false;
    // Written by another build of ours, or by somebody who knows how to make a digest: the parts must add up.
    const u64 size = header.length - sizeof header, parts = u64{header.range_count} * sizeof(value_range);
    if (header.logical_length > size || parts > size - header.logical_length) return false;
    const bool is_of_pages = header.kind == entry_kind::page_checksums;
    void* table = nullptr;
    if (is_of_pages)
        entry.page_checksums.resize(header.range_count), table = entry.page_checksums.data();
    else
        entry.ranges.resize(header.range_count), table = entry.ranges.data();
    if (parts && file.read(place.offset + sizeof header, table, parts) != 0) return false;
    u64 room = size - parts - header.logical_length;
    for (const value_range& range : entry.ranges) {
        if (range.length > room || padded(range.length) > room) return false;
        room -= padded(range.length);
    }
    return room == 0 && has_digest(file, entry, table, parts);
}

/// Whether the entry, of which header and table were read, is the one that its digest was made of.
bool journal::has_digest(const disk_file& file, const journal_entry& entry, const void* table, u64 parts) {
    digest_stream stream;
    stream.add(&entry.header, offsetof(entry_header, own));
    stream.add(table, parts);
    std::vector<std::byte> window(std::min(window_size, entry.header.length));
    for (u64 offset = entry.offset + sizeof entry.header + parts; offset < entry.offset_behind();) {
        const u64 part = std::min<u64>(window.size(), entry.offset_behind() - offset);
        if (file.read(offset, window.data(), part) != 0) return false;
        stream.add(window.data(), part);
        offset += part;
    }
    return stream.result() == entry.header.own;
}

u32 journal::each_value(u32 file, const journal_entry& entry, const value_fn& visit) const {
    std::vector<std::byte> window(std::min(window_size, entry.header.length));
    u64 offset = entry.values_offset(), window_begin = offset, window_end = offset;
    for (const value_range& range : entry.ranges) {
        for (u64 done = 0; done < range.length;) {
            if (offset + done >= window_end) {
                window_begin = offset + done;
                window_end = std::min(window_begin + window.size(), entry.offset_behind());
                if (const int error = files_[file].read(window_begin, window.data(), window_end - window_begin))
                    return static_cast<u32>(error == ENODATA ? EIO : error);
            }
            const u64 part = std::min(range.length - done, window_end - offset - done);
            const std::byte* const bytes = window.data() + (offset + done - window_begin);
            if (const u32 error = visit({range.offset + done, offset + done, {bytes, part}})) return error;
            done += part;
        }
        offset += padded(range.length);
    }
    return 0;
}

bool journal::read(const journal_place& place, journal_entry& entry) const {
    return read_any(place, entry) && entry.header.kind != entry_kind::page_checksums &&
           entry.header.number == place.number + 1 && entry.header.previous == place.previous;
}

bool journal::find(u64 number, const digest& own, journal_place& place) const {
    bool found = false;
    journal_entry entry;
    for (u32 file = 0; file < journal_files; ++file) {
        const journal_place start = start_of(file);
        // The one that begins earlier leads to the other.
        if (start.offset == 0 || (found && start.number > place.number)) continue;
        journal_place end = start;
        while (end.number < number && read(end, entry))
            end = place_behind(entry, file);
        if (end.number != number || !(end.previous == own)) continue;
        place = end;
        found = true;
    }
    return found;
}

bool journal::read_next(journal_place& place, journal_entry& entry) const {
    if (read(place, entry)) return true;
    const u32 other = (place.file + 1) % journal_files;
    if (!begins_behind(other, place.number, place.previous)) return false;
    place = start_of(other);
    return read(place, entry);
}

bool journal::read_checksums(const journal_place& place, journal_entry& entry) const {
    return read_any(place, entry) && entry.header.kind == entry_kind::page_checksums &&
           entry.header.number == place.number && entry.header.previous == place.previous;
}

u64 journal::flushed_according_to(const journal_place& place) const {
    const disk_file& file = files_[place.file];
    constexpr u64 window = u64{1} << 20;
    std::vector<std::byte> bytes(window);
    u64 flushed = 0;
    journal_entry entry;
    const u64 size = file.size();
    for (u64 offset = place.offset; offset + sizeof(entry_header) <= size; offset += window) {
        const u64 part = std::min(window, size - offset);
        if (file.read(offset, bytes.data(), part) != 0) continue;
        for (u64 i = 0; i + sizeof entry_magic <= part; i += 8) {
            if (std::memcmp(bytes.data() + i, entry_magic, sizeof entry_magic) != 0) continue;
            journal_place here = place;
            here.offset = offset + i;
            if (read_any(here, entry)) flushed = std::max(flushed, entry.header.flushed);
        }
    }
    return flushed;
}

u64 journal::cut_bytes_behind(const journal_place& place) const {
    entry_header header;
    if (files_[place.file].read(place.offset, &header, sizeof header) != 0) return 0;
    const bool is_next = std::memcmp(header.magic, entry_magic, sizeof entry_magic) == 0 &&
                         std::memcmp(header.incarnation, incarnation_, sizeof incarnation_) == 0 &&
                         header.number == place.number + 1 && header.previous == place.previous;
    return is_next ? header.length : 0;
}

} // namespace loom
