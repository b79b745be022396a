// A damaged database as far as its files can still be read, put together in memory of this process at the address
// where its pointers lead. Nothing of the files is changed. What the memory holds, and whether it makes sense, is
// for others to find out (runtime/verify/salvage.cpp).
#pragma once

#include "runtime/store/store.h"

#include <map>

namespace loom {

class salvage_source {
  public:
    using fault_fn = store::fault_fn;

    salvage_source() = default;
    salvage_source(const salvage_source&) = delete;
    salvage_source& operator=(const salvage_source&) = delete;
    ~salvage_source();

    /// Takes the image of a database that was just closed in order. 0, or an error number with a text.
    u32 read_image(const std::string& path);
    /// Puts base and journal together, and tells `report` what of them cannot be read. 0, or an error number with
    /// a text when nothing can be.
    u32 read_files(const std::string& path, const fault_fn& report);

    const superblock& fixed() const { return fixed_; }
    std::byte* memory() const { return memory_; }
    u64 size() const { return size_; }
    /// Pages whose contents are not known, in order. They are zero.
    const std::vector<u64>& lost_pages() const { return lost_pages_; }

  private:
    u32 open(const std::string& path, const fault_fn* report);
    u32 guess_superblock();
    u32 lock() const;
    u32 reserve_addresses();
    u32 read_base(const fault_fn& report);
    void read_journal(const fault_fn& report);
    bool read_journal_file(u32 file, journal_place& place, const fault_fn& report);
    void put_in(const value_part& value);

    disk_directory directory_;
    superblock fixed_{};
    int lock_file_ = -1;
    base_file base_;
    journal journal_;
    u64 base_number_ = 0;
    std::byte* memory_ = nullptr;
    u64 size_ = 0;
    /// Of each page of the base that is damaged: which of its bytes the journal has brought back.
    std::map<u64, std::vector<bool>> mended_;
    std::vector<u64> lost_pages_;
};

} // namespace loom
