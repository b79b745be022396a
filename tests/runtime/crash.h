// Databases on a disk that forgets, tears and refuses: a workload runs over the model of the disk, which is cut
// off at every call; what is left is opened in another process and must be what a commit has made.
#pragma once

#include "tests/runtime/support.h"

#include <map>

namespace runtime_test {

struct crash_plan {
    std::uint32_t level = LOOM_DURABILITY_ORDERED;
    unsigned cuts = 0;     ///< samples of machines that go down
    unsigned failures = 0; ///< runs in which one call fails
    std::uint32_t seed = 1;
};

struct crash_counts {
    std::uint64_t calls = 0;    ///< of the seam
    std::uint64_t cuts = 0;     ///< machines that went down
    std::uint64_t refused = 0;  ///< what they left was no database any more, and said so
    std::uint64_t repeated = 0; ///< recoveries that were cut off and done again
    std::uint64_t failed = 0;   ///< calls that failed
    std::uint64_t backups = 0;  ///< made beside the commits, and restored
    std::vector<std::string> wrong;
};

crash_counts run_crashes(const crash_plan& plan);

/// The workload of these tests. A commit's number stands in its first cell, and all of the database depends on it.
inline constexpr std::size_t cells = 100;
handle_ptr open_for_work(const std::string& path, std::uint32_t level, std::uint32_t flags = LOOM_OPEN_CREATE);
void make_cells(loom_handle* handle);
/// Makes the commit of that number; `digest` gets that of the state behind it, before it is made. 0 or an error.
std::uint32_t work(loom_handle* handle, std::uint64_t number, std::uint64_t* digest = nullptr);
std::uint64_t number_of(loom_handle* handle);
/// A digest of all blocks in use.
std::uint64_t digest_of(loom_handle* handle);

/// A child process: reads the names of directories, opens what lies there, and answers a line for each.
int check_wrecks();
/// Runs a plan and prints its counts; 0 when nothing was wrong.
int crash_main(const std::vector<std::string>& arguments);

/// Flips bits of all files of a database, and cuts them: what is opened then is right, or refused with a text.
int flips_main(const std::vector<std::string>& arguments);

} // namespace runtime_test
