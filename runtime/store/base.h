// The base of a database: its pages as of some commit, in the file `base`, and in the file `checksums` what each
// page must look like. Journals are absorbed here, and the image is built from here. The forms are told in
// docs/database.md.
#pragma once

#include "runtime/store/journal.h"

namespace loom {

inline constexpr u64 page_size = 4096;
inline constexpr char base_name[] = "base";
inline constexpr char checksums_name[] = "checksums";

enum class base_state : u32 { closed = 1, in_use = 2 };

/// Which commit the base is of.
struct base_record {
    char magic[8];
    u32 version;
    u32 record_size;
    u8 incarnation[16];
    u64 turn;
    u64 number;
    digest previous; ///< of that commit's entry
    u64 pages;       ///< none at or behind this one was ever written
    base_state state;
    u32 reserved;
    u64 checksum;
};
static_assert(offsetof(base_record, checksum) == 80);

/// What is known of a page. All zero: it was never written and is zero.
struct page_entry {
    u64 checksum;
    u64 number; ///< of the commit up to which it was last changed
};

class base_file {
  public:
    /// Makes both files for a database whose first bytes are `first`, at most a page, as of `number`.
    static int create(const disk_directory& directory, mode_t mode, const u8 (&incarnation)[16],
                      std::span<const std::byte> first, u64 number, const digest& previous);
    /// 0, or an error number with a text.
    u32 open(const disk_directory& directory, const u8 (&incarnation)[16], bool writable);
    const base_record& record() const { return record_; }
    /// Reads the record anew: another process may have absorbed a journal.
    u32 refresh();

    /// Takes the entries of one journal file in, up to that of `last_number`, of which the base is then. They must
    /// be flushed. Done in part, it may be done again. 0, or an error number with a text.
    u32 absorb(journal& entries, u32 file, u64 last_number, u64 flushed);
    /// Makes the base what the image is, at `number`. Not safe against a crash of the machine: the record says
    /// "in use" meanwhile.
    u32 copy_from(const std::byte* image, u64 size, u64 number, const digest& previous);
    u32 set_state(base_state state);
    /// Copies all pages to `image`, each checked. Pages of which `excused` says so need not fit.
    u32 copy_to(std::byte* image, u64 size, std::span<const page_checksum> excused);
    /// Pages as they are, not checked; those behind the end of the file are zero.
    u32 read_pages(u64 first, std::span<std::byte> pages) const;
    /// What is known of pages from `first` on.
    u32 read_entries(u64 first, std::span<page_entry> entries) const;
    /// Copies what can be read to `image`, zero so far, and calls `lost` with each page that does not fit.
    void copy_readable(std::byte* image, u64 size, const std::function<void(u64 page)>& lost);
    /// Whether each page fits its entry. Calls `report` with the number of each page that does not.
    u32 verify(void (*report)(u64 page, void* context), void* context);

    std::string path() const { return pages_.path(); }

  private:
    struct piece;
    struct absorption;
    u32 read_record();
    u32 write_record(base_record next);
    u32 read_page(u64 page, std::byte* bytes) const;
    u32 failed(const disk_file& file, const char* what, int error) const;
    u32 damaged(u64 page) const;
    u32 read_pieces(u64 last_number, absorption& work) const;
    static u32 add_pieces(const journal_entry& entry, absorption& work);
    u32 put_in(const absorption& work, const piece& value, std::byte* page) const;
    template <class Visit>
    u32 each_page(const absorption& work, Visit visit) const;
    u32 compute_checksums(absorption& work) const;
    u32 write_pages(const absorption& work);
    u32 write_entries(const absorption& work);

    disk_file pages_;
    disk_file checksums_;
    base_record record_{};
    u8 incarnation_[16]{};
    std::string directory_;
};

} // namespace loom
