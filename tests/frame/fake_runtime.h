// Operations of the runtime and of sibling bundles that this program defines itself: the loader gives them to the
// loaded library in place of the real ones, and they write down how they are called.
#pragma once

#include <loom/loom.h>

#include <map>
#include <string>
#include <vector>

namespace trellis::test {

/// What the library has asked for since the last `reset`.
struct journal {
    std::vector<std::string> handler_calls; // "register skyband_enum_types 0x10"
    struct trace {
        std::string unit; // the 16 hash bytes
        std::uint32_t index;
        std::uint32_t level;
        std::string argument;
    };
    std::vector<trace> traces;
    std::vector<std::uint32_t> variant_updates; // `created` of each
    unsigned copies_to_refuse = 0;              // calls of table_vft_cpy that fail with 12
    unsigned copies = 0;
    int lock_depth = 0;
    unsigned locks = 0;
    void reset() { *this = {}; }
};
journal& the_journal();

/// The names on the module list behind the first `skip` of them; its links and its count have to agree.
std::vector<std::string> listed_modules(std::size_t skip = 0);

/// A handle over a map of manifested type information; blocks are kept until it ends.
class database {
  public:
    database();
    ~database();
    database(const database&) = delete;
    database& operator=(const database&) = delete;

    loom_handle handle{};
    std::map<std::string, void*> entries;
    std::vector<std::string> order;     // luid texts as they were entered
    std::vector<std::uint32_t> domains; // of lookups and inserts
    std::vector<std::uint32_t> alloc_domains;
    std::size_t blocks_left = 1'000'000; // then memory is out

  private:
    std::vector<void*> blocks_;
};

} // namespace trellis::test
