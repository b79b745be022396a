// What the living users of a database tell each other, in the mapped file `control`: whether the image may be
// trusted, how far the journal goes, what of it is flushed. Nothing here is needed behind a crash of the machine,
// where it only says what was known to be flushed.
#pragma once

#include "runtime/store/journal.h"

#include <atomic>

namespace loom {

/// The journal's end as its last commit left it.
struct journal_end {
    journal_place place;
    u64 first_of_file = 0; ///< number of the first entry of the file that is written
};

/// The same in shared memory. Written by who has the write lock, read by everybody: there are
/// two, used by turns, so that a writer that dies in the middle leaves the other one.
struct published_place {
    std::array<std::atomic<u64>, 6> words;
    std::atomic<u64> check;
};

/// Who makes blocks outside of sections has a number, as long as it lives; see runtime/database/nursery.h.
struct owner_table {
    static constexpr u32 most = 4096;
    std::array<std::atomic<u64>, most / 64> taken; ///< a bit per number; changed under the write lock
    std::atomic<u32> unswept;                      ///< the image was built anew: all owners from before are dead

    bool has(u32 number) const { return taken[number / 64].load() >> number % 64 & 1; }
    void set(u32 number) { taken[number / 64] |= u64{1} << number % 64; }
    void clear(u32 number) { taken[number / 64] &= ~(u64{1} << number % 64); }
};

struct control_page {
    // Why the image may be trusted; `checksum` is zero while it may not.
    char magic[8];
    u32 version;
    u32 record_size;
    u8 incarnation[16];
    char boot[40]; ///< name of the machine's run, as the kernel has it
    u64 image_device;
    u64 image_number;
    u64 making; ///< random: the undo log of this image has the same
    std::atomic<u64> checksum;

    std::atomic<u64> turn; ///< of the place that holds
    std::array<published_place, 2> places;
    std::atomic<u64> open_section; ///< number of the commit to be of an open write section, or 0
    std::atomic<u64> flushed;      ///< up to which commit all entries are on the disk
    std::atomic<u64> absorbed;     ///< up to which commit the base has them
    std::atomic<u32> failed;       ///< error number of a write or flush that failed: no more commits
    std::atomic<u32> wake;         ///< changes when there is something to flush
    owner_table owners;
};
static_assert(sizeof(control_page) <= 4096 && std::atomic<u64>::is_always_lock_free);

/// What makes an image the one that is trusted.
struct image_identity {
    char boot[40];
    u64 device;
    u64 number;
};
/// The machine's present run; empty where the kernel does not name it.
void name_boot(char (&boot)[40]);

class control {
  public:
    control() = default;
    control(const control&) = delete;
    control& operator=(const control&) = delete;
    ~control();

    /// Maps the file of that name, made if needed; 0 or an error number.
    int open(const disk_directory& directory, mode_t mode);
    control_page* operator->() const { return page_; }

    /// Whether the page is of this database, whatever boot it is of.
    bool belongs_to(const u8 (&incarnation)[16]) const;
    /// Whether the image is the one that the page was made for, in this run of the machine.
    bool trusts(const u8 (&incarnation)[16], const image_identity& image) const;
    void distrust();
    /// From here on the image is trusted.
    void trust(const u8 (&incarnation)[16], const image_identity& image, u64 making, const journal_end& end);

    /// The journal's end; false when neither place is whole.
    bool read_end(journal_end& end) const;
    void publish(const journal_end& end);

  private:
    control_page* page_ = nullptr;
};

} // namespace loom
