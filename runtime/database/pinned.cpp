// Collecting the pinned list of an image.
#include "runtime/database/pinned.h"

#include <cstddef>

namespace loom {
namespace {
/// Bundles raise these unannounced.
void add_counters(const arena& memory, const database_root& root, std::vector<value_range>& ranges) {
    root.types.each([&](const type_node& node) {
        const loom_variant_table* table = node.info->variant_table;
        if (!table || !memory.contains(table) || !memory.contains(table->entries)) return;
        for (i8 i = 0; i < table->n_variants; ++i)
            ranges.push_back({memory.offset_of(&table->entries[i].objects_created), 3 * sizeof(u64)});
    });
}
} // namespace

std::vector<value_range> pinned_ranges(const arena& memory, const database_root* root) {
    std::vector<value_range> ranges;
    memory.each_unkept_range([&](const value_range& range) { ranges.push_back(range); });
    if (root) add_counters(memory, *root, ranges);
    merge_ranges(ranges);
    return ranges;
}

} // namespace loom
