// Trace files, which many processes write at once: blocks of entries, appended whole under a lock of the file.
// What a file holds is drawn in loom_runtime/trace.h; where entries come from stands in spoor.cpp.
#pragma once

#include "runtime/trace/record.h"

#include <string>
#include <vector>

namespace loom {

/// One process's way into a trace file. Its owner sees to it that one thread at a time calls it.
class trace_writer {
  public:
    bool is_open() const { return file_ >= 0; }
    /// Makes the file, or goes on with one that is there; 0, or an error number with a text.
    u32 open(const char* path);
    /// Adds an entry to the next block.
    void add(const trace_entry& entry, const std::byte* arguments);
    /// Tells the name of a module with the next block.
    void add_module(u16 number, const std::string& name);
    /// Appends what was added. `lost` is the number of records that the process has lost since the file was
    /// opened. Returns how many records more are lost since the block could not be written.
    u64 finish_block(u64 lost);
    /// Tells by a last block that this writer has lost nothing else.
    void close(u64 lost);
    /// In the child of a fork, which is a writer of its own.
    void begin_as_child();

  private:
    bool append(u64 lost, u32 flags);
    void begin();

    int file_ = -1;
    u64 start_ = 0;
    u64 next_block_ = 0;
    u64 records_ = 0;                ///< in block_
    std::vector<std::byte> block_;   ///< the block's head, which is filled in at last, and its entries
    std::vector<std::byte> modules_; ///< the entries of all modules
    bool modules_are_told_ = false;
    bool is_patient_ = true; ///< nobody has kept the file locked for long
};

} // namespace loom
