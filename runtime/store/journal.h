// The journal of a database: what its commits have stored, entry by entry, in two files that are written by turns.
// How the files are laid out is told in docs/database.md. Here lives the form, and its writing and reading; when
// an entry is written, flushed and no longer needed is the store's business.
//
// An entry fits only behind the one whose digest it carries. What an earlier use of a file left behind, or what
// lies behind a hole, is therefore never taken for a part of the journal.
#pragma once

#include "runtime/store/checksum.h"
#include "runtime/store/disk.h"

#include <array>
#include <functional>
#include <vector>

namespace loom {

inline constexpr u64 journal_first_entry = 4096;
inline constexpr u32 journal_version = 1;
inline constexpr u32 journal_files = 2;
inline constexpr const char* journal_names[journal_files] = {"journal.0", "journal.1"};

/// A place in the journal: right behind the entry of that number.
struct journal_place {
    u64 number = 0;
    digest previous;
    u32 file = 0;
    u32 reserved = 0;
    u64 offset = journal_first_entry;
};

enum class entry_kind : u32 { values = 1, page_checksums = 2, recovery = 3 };

struct journal_header {
    char magic[8];
    u32 version;
    u32 record_size;
    u8 incarnation[16];
    u64 first_number;
    digest previous;
    u64 checksum;
};
static_assert(offsetof(journal_header, checksum) == 56);

struct entry_header {
    char magic[8];
    u64 length;
    u64 number;
    u8 incarnation[16];
    u64 flushed;
    u32 range_count;
    entry_kind kind;
    u64 logical_length;
    digest previous;
    digest own;
};
static_assert(sizeof(entry_header) == 96);

/// Bytes of the image.
struct value_range {
    u64 offset;
    u64 length;
};
/// What an entry stores in the image from `offset` on; the bytes lie at `place` in the journal file.
struct value_part {
    u64 offset;
    u64 place;
    std::span<const std::byte> bytes;
};
/// A page of the base and the checksum that it is to have.
struct page_checksum {
    u64 page;
    u64 checksum;
};

/// An entry that fits: all of it was read and has its digest. The values stay in the file, however many they are.
struct journal_entry {
    entry_header header{};
    u64 offset = 0;                  ///< of the header in its file
    std::vector<value_range> ranges; ///< of entry_kind::values
    std::vector<page_checksum> page_checksums;

    u64 values_offset() const {
        return offset + sizeof header + header.range_count * sizeof(value_range) + header.logical_length;
    }
    u64 offset_behind() const { return offset + header.length; }
};

class journal {
  public:
    /// Makes both files, empty; the entry of `number` is the last one before them.
    static int create(const disk_directory& directory, mode_t mode, const u8 (&incarnation)[16], u64 number,
                      const digest& previous);
    u32 open(const disk_directory& directory, const u8 (&incarnation)[16], bool writable);
    /// Takes a file that holds entries, among other things, for the first of both; for reading. 0 or an error
    /// number.
    int open_single(const disk_directory& directory, const char* name, const u8 (&incarnation)[16]);

    /// Makes the other file the one that is written. What it holds is lost.
    int begin(journal_place& place);
    /// Writes an entry behind `place` and moves it. The values are read from `image`. `flushed` is what is known
    /// to be on the disk. The ranges are in order and do not touch.
    int append(journal_place& place, entry_kind kind, std::span<const value_range> ranges, const std::byte* image,
               u64 flushed);
    /// Writes the checksums that pages are to have behind `place`, which stays: they are not of the chain.
    int append_checksums(const journal_place& place, std::span<const page_checksum> pages, u64 flushed);

    /// Whether the file was begun for entries behind `number`, whose digest is `previous`.
    bool begins_behind(u32 file, u64 number, const digest& previous) const;
    /// Number of the first entry that the file was begun for; 0 when its header is no good.
    u64 first_number(u32 file) const;
    /// The place before that entry; its offset is 0 when the header is no good.
    journal_place start_of(u32 file) const;
    /// Finds the entry behind `place`. False when none fits there.
    bool read(const journal_place& place, journal_entry& entry) const;
    /// The place right behind the entry of that number and digest, in the file that began earlier. False when
    /// neither file leads there.
    bool find(u64 number, const digest& own, journal_place& place) const;
    /// Finds the entry behind `place`, which goes over to the other file where the first one ends.
    bool read_next(journal_place& place, journal_entry& entry) const;
    /// Calls `visit` with the bytes of each range of an entry, long ranges in several parts. 0 or an error number;
    /// one of `visit` ends the reading.
    using value_fn = std::function<u32(const value_part& part)>;
    u32 each_value(u32 file, const journal_entry& entry, const value_fn& visit) const;
    int read_bytes(u32 file, u64 offset, void* bytes, u64 size) const {
        return files_[file].read(offset, bytes, size);
    }
    /// Reads checksums of pages behind `place`; false when there are none.
    bool read_checksums(const journal_place& place, journal_entry& entry) const;
    /// The highest number that any entry behind `place` in its file knows to be flushed, whether it fits or not.
    u64 flushed_according_to(const journal_place& place) const;

    /// Length of an entry behind `place` that was begun, but does not fit; 0 when there is none.
    u64 cut_bytes_behind(const journal_place& place) const;

    int flush(u32 file) { return files_[file].flush(); }
    u64 size(u32 file) const { return files_[file].size(); }
    std::string path(u32 file) const { return files_[file].path(); }

  private:
    bool read_header(u32 file, journal_header& header) const;
    bool read_any(const journal_place& place, journal_entry& entry) const;
    static bool has_digest(const disk_file& file, const journal_entry& entry, const void* table, u64 parts);

    int make_room(u32 file, u64 end);

    std::array<disk_file, journal_files> files_;
    std::array<u64, journal_files> sizes_{}; ///< as last seen; files only grow
    u8 incarnation_[16]{};
    // Kept from entry to entry, so that writing one allocates nothing in the long run.
    std::vector<std::byte> small_;
    std::vector<iovec> pieces_;
};

/// The place behind an entry that was read.
inline journal_place place_behind(const journal_entry& entry, u32 file) {
    return {entry.header.number, entry.header.own, file, 0, entry.offset_behind()};
}

} // namespace loom
