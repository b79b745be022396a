// Every form of key: found, walked and compared alike. The texts of calls ask the rest of one form.
#include "any_table.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <set>

using namespace table_tests;

namespace {

class every_form_of_key : public ::testing::TestWithParam<table_description> {
  protected:
    every_form_of_key() : all(handle, GetParam()) {
        all.open();
        for (const auto& [number, src] : {std::pair{4u, 1u}, {2u, 1u}, {2u, 9u}, {0u, 1u}, {4u, 255u}})
            all.insert(number, src);
    }
    ~every_form_of_key() override { all.clear(); }

    using record = loom_table_record;
    std::string keyed(const char* operation, unsigned number) {
        return all.label(all.call<record*>(operation, handle.get(), d, all.table, all.key(number), &all.err));
    }
    std::string keyed_w_src(const char* operation, unsigned number, u32 src) {
        return all.label(all.call<record*>(operation, handle.get(), d, all.table, all.key(number), src, &all.err));
    }
    static constexpr u32 d = test_handle::domain;

    test_handle handle;
    any_table all;
};

TEST_P(every_form_of_key, is_ordered_and_found) {
    ASSERT_EQ(all.err, 0u);
    EXPECT_EQ(all.dump(), "0:1 2:1 2:9 4:1 4:255");
    EXPECT_EQ(all.walk(), "0:1 2:1 4:1");
    EXPECT_EQ(all.walk_back(), "4:1 2:1 0:1");
    EXPECT_EQ(keyed(".search", 0), "0:1");
    EXPECT_EQ(keyed(".search", 2), "2:1");
    EXPECT_EQ(keyed_w_src(".search_w_src", 2, 9), "2:9");
    EXPECT_EQ(keyed_w_src(".search_w_src", 2, 0), "2:1") << "a wanted 0 becomes 1";
    EXPECT_EQ(keyed_w_src(".search_w_src", 2, 7), "none");
    EXPECT_EQ(keyed(".search_nearest", 2), "2:1");
    EXPECT_EQ(keyed(".get_next_by_key", 2), "4:1");
    EXPECT_EQ(keyed(".get_next_by_key", 4), "none");
    EXPECT_EQ(keyed(".get_prev_by_key", 2), "0:1");
    EXPECT_EQ(keyed(".get_prev_by_key", 0), "none");
    EXPECT_EQ(keyed_w_src(".get_next_by_key_w_src", 0, 9), "2:9");
    EXPECT_EQ(keyed_w_src(".get_next_by_key_w_src", 2, 0), "2:9") << "from source 1 on, any source but shadows";
    EXPECT_EQ(all.err, 0u);
}

TEST_P(every_form_of_key, meets_null) {
    const void* key = nullptr;
    EXPECT_EQ(all.call<record*>(".search", handle.get(), d, all.table, key, &all.err), nullptr);
    EXPECT_EQ(all.err, 2u);
    EXPECT_EQ(handle->last_error, 2u);
    all.err = 0;
    EXPECT_EQ(all.call<record*>("search", handle.get(), d, all.table, key, 0u, &all.err), nullptr);
    EXPECT_EQ(all.err, 2u);
    const e_avl_node* node = &all.insert(3)->avl_node;
    const e_avl_node* none = nullptr;
    EXPECT_EQ(all.call<i32>(".avl_compare", none, node), 0);
    EXPECT_EQ(all.call<i32>(".avl_compare", node, none), 2);
    EXPECT_EQ(all.call<i32>(".avl_compare", none, none), 1);
    all.err = 0;
}

INSTANTIATE_TEST_SUITE_P(forms, every_form_of_key,
                         ::testing::Values(table_description{"number_tbl", "id", "u_int32", "number_row"},
                                           table_description{"short_tbl", "id", "u_int16", "short_row"},
                                           table_description{"byte_tbl", "id", "u_int8", "byte_row"},
                                           table_description{"signed_tbl", "id", "int64", "signed_row"},
                                           table_description{"named_tbl", "name", "loom_vstring", "named_row"},
                                           table_description{"colour_tbl", "shade", "colour", "coloured_row"},
                                           table_description{"v4_tbl", "address", "ipv4_addr", "v4_row"},
                                           table_description{"v6_tbl", "address", "ipv6_addr", "v6_row"},
                                           table_description{"pair_tbl", "", "pair_key", "value_row"},
                                           table_description{"whole_tbl", "", "whole_row", "whole_row"}),
                         [](const auto& each) { return each.param.table; });

/// The words of a file that match, those behind `place_tbl_` and `t_` without that.
std::set<std::string> words_in(const char* path, const char* pattern) {
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::regex wanted(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator each(text.begin(), text.end(), wanted), none; each != none; ++each)
        found.insert((*each)[1]);
    return found;
}

TEST(null_tables, are_given_to_every_operation_of_the_header) {
    const std::set<std::string> called = words_in(NULL_TABLE_TEXT, "\\b(?:t_)?(\\w+)");
    for (const std::string& each : words_in(PLACE_TBL_HEADER, "place_tbl_(\\w+)\\([^()]*loom_table\\* table[,)]"))
        EXPECT_TRUE(called.contains(each)) << each;
}

} // namespace
