// Opening tables where memory ends, of the handle or inside of the runtime. Texts of calls hold the rest of
// opening.
#include "tests/support/test_handle.h"

#include <table_forms/table_forms.h>

#include <gtest/gtest.h>

#include <tuple>
#include <utility>

using trellis::u32;
using trellis::u64;
using trellis::testing::test_handle;

namespace {

struct way_to_open {
    const char* name;
    loom_table* (*open)(loom_handle* handle, u32* err);
};
constexpr way_to_open ways_to_open[] = {
    {"by_name", [](loom_handle* h, u32* err) { return number_tbl_table_open(h, 1, "scarce", 0, err); }},
    {"by_id", [](loom_handle* h, u32* err) { return number_tbl_table_open_by_id(h, 1, 7, 0, err); }},
    {"by_automatic_id", [](loom_handle* h, u32* err) { return number_tbl_table_open_auto_id(h, 1, 0, err); }}};

struct trace_texts {
    trace_texts() { trellis::testing::add_trace_texts_of(reinterpret_cast<const void*>(&number_tbl_insert)); }
} const trace_texts_added;

class without_memory : public testing::TestWithParam<std::tuple<u32, way_to_open>> {
  protected:
    loom_table* open(loom_handle* handle) { return std::get<1>(GetParam()).open(handle, &err); }
    /// What a database holds after a table was opened and freed in it.
    u64 blocks_after_a_life(loom_handle* handle) {
        loom_table* table = open(handle);
        EXPECT_NE(table, nullptr);
        EXPECT_EQ(err, 0u);
        EXPECT_EQ(loom_oid_mapping_count(handle), 1u);
        if (table) number_tbl_table_free(handle, 1, table, &err);
        EXPECT_EQ(err, 0u);
        loom_arena_usage usage{};
        loom_arena_usage_get(handle, &usage);
        EXPECT_EQ(loom_arena_verify(handle), 0u) << loom_error_text();
        return usage.blocks;
    }
    trellis::testing::handle_options options{std::get<0>(GetParam())};
    u32 err = 0;
};

/// Whichever allocation fails, of the handle or inside of the runtime: nothing is half made, and the same again is
/// as if nothing had been.
TEST_P(without_memory, a_table_is_opened_whole_or_not_at_all) {
    const u64 expected = blocks_after_a_life(test_handle(options));
    const std::string says = "says 3 Failed to insert";
    bool traced = false;
    // Directories take their time: behind the first each fifth.
    for (u64 n = 0;; n += n > 16 && options.db_kind == LOOM_DB_MAPPED ? 5 : 1) {
        SCOPED_TRACE(n);
        test_handle handle(options);
        loom_table* table = nullptr;
        loom_arena_fail_after(handle, n);
        const std::string log = handle.log_of([&] { table = open(handle); });
        traced |= log.find(says) != std::string::npos;
        loom_arena_fail_after(handle, UINT64_MAX);
        if (table != nullptr) break;
        // A root that the arena has no room for is told by the trace and the handle alone.
        ASSERT_EQ(std::exchange(err, 0u), log.find("Setting tbi root") == std::string::npos ? 12u : 0u);
        EXPECT_EQ(handle->last_error, 12u);
        EXPECT_NE(std::string(loom_error_text()), "");
        EXPECT_EQ(loom_oid_mapping_count(handle), 0u);
        loom_each_table(
            handle,
            [](loom_table*, void*) {
                ADD_FAILURE() << "a table is listed";
                return 1u;
            },
            nullptr);
        EXPECT_EQ(blocks_after_a_life(handle), expected);
    }
    EXPECT_EQ(traced, options.db_kind != LOOM_DB_PRIVATE); // of types that found no room
}
std::string name_of_case(const testing::TestParamInfo<std::tuple<u32, way_to_open>>& info) {
    static constexpr const char* kinds[] = {"private_", "mapped_", "manifested_"};
    return kinds[std::get<0>(info.param)] + std::string(std::get<1>(info.param).name);
}
INSTANTIATE_TEST_SUITE_P(kinds, without_memory,
                         testing::Combine(testing::Values(LOOM_DB_PRIVATE, LOOM_DB_PRIVATE_MANIFESTED,
                                                          LOOM_DB_MAPPED),
                                          testing::ValuesIn(ways_to_open)),
                         name_of_case);

} // namespace
