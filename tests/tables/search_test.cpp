// Searching and walking: every form of key, sources, tenants, records that wait for their end, and what is handed
// to the replication cache.
#include "forms.h"

#include <memory>

using namespace table_tests;

namespace {

// ---- Every form of key -----------------------------------------------------------------------------------------

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

// ---- One table in all detail -----------------------------------------------------------------------------------

class search : public forms_test {
  protected:
    search() : search(trellis::testing::handle_options{}) {}
    explicit search(const trellis::testing::handle_options& options)
        : forms_test(options), table(open_numbers()) {}

    std::string name(const number_tbl_table_record* record) const {
        return record == nullptr ? "none" : handle.name_of(record);
    }
    std::string find(u32 id) { return name(number_tbl_number_row_id_search(h(), d, table, &id, &err)); }
    std::string nearest(u32 id) { return name(number_tbl_number_row_id_search_nearest(h(), d, table, &id, &err)); }
    std::string next(number_tbl_table_record* from) {
        return name(number_tbl_number_row_id_get_next(h(), d, table, from, &err));
    }
    void await_end(number_tbl_table_record* record) { record->loom_record.record_flags |= REC_PENDING_DESTROY; }
    std::string find_lasting(u32 id, u32 src, u32 near) {
        return name(number_tbl_number_row_id_search_not_pending_destroy(h(), d, table, &id, src, near, &err));
    }
    std::string chained(u32 id, u32 src, u32 flags) {
        return name(number_tbl_number_row_id_search_cr(h(), table, &id, src, flags));
    }

    loom_table* table;
};

TEST_F(search, an_empty_table_has_nothing) {
    u32 key = 1;
    EXPECT_EQ(find(1), "none");
    EXPECT_EQ(nearest(1), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_first(h(), d, table, &err)), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_last(h(), d, table, &err)), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_first_ignore_src(h(), d, table, &err)), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_next_by_key(h(), d, table, &key, &err)), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_cr(h(), table, 0, nullptr, 0, 0)), "none");
    number_tbl_number_row_id_unordered_traversal();
    EXPECT_EQ(err, 0u);
}

TEST_F(search, no_record_has_no_neighbour) {
    insert_number(table, 1);
    EXPECT_EQ(next(nullptr), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_prev(h(), d, table, nullptr, &err)), "none");
    EXPECT_EQ(name(number_tbl_pkey_get_sub_next(h(), d, table, nullptr, &err)), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_next_ignore_src(h(), d, table, nullptr, &err)), "none");
    for (const u32 op : {2u, 3u})
        EXPECT_EQ(name(number_tbl_number_row_id_get_cr(h(), table, op, nullptr, 0, 0)), "none");
    EXPECT_EQ(err, 0u);
}

TEST_F(search, nearest_steps_past_other_sources) {
    insert_number(table, 2, 7);
    insert_number(table, 4);
    EXPECT_EQ(nearest(1), "4:1");
    EXPECT_EQ(nearest(2), "4:1");
    EXPECT_EQ(nearest(5), "none");
    number_row* key = number_tbl_pkey_create(h(), d);
    number_row_id_set_value(h(), d, key, 1, &err);
    EXPECT_EQ(name(number_tbl_search(h(), d, table, key, 1, &err)), "4:1");
    EXPECT_EQ(name(number_tbl_search(h(), d, table, key, 0, &err)), "none");
    EXPECT_EQ(name(number_tbl_search_w_src(h(), d, table, key, 1, 7, &err)), "2:7");
    EXPECT_EQ(name(number_tbl_search_w_src(h(), d, table, key, 1, 0, &err)), "2:7") << "0 walks all but shadows";
    EXPECT_EQ(name(number_tbl_get_next_by_key(h(), d, table, key, &err)), "4:1");
    EXPECT_EQ(name(number_tbl_get_next_by_key_w_src(h(), d, table, key, 7, &err)), "2:7");
    EXPECT_EQ(name(number_tbl_get_prev_by_key(h(), d, table, key, &err)), "none");
    number_tbl_pkey_destroy(h(), d, key);
    EXPECT_EQ(err, 0u);
}

TEST_F(search, walks_by_source) {
    number_tbl_table_record* first = insert_number(table, 1, 0);
    insert_number(table, 1);
    insert_number(table, 1, 9);
    insert_number(table, 2, 9);
    insert_number(table, 2, 255);
    insert_number(table, 3);
    const auto by_src = [&](u32 src) {
        std::string text;
        auto* each = number_tbl_number_row_id_get_first_by_src(h(), d, table, src, &err);
        for (; each != nullptr; each = number_tbl_number_row_id_get_next_by_src(h(), d, table, each, src, &err))
            text += name(each) + " ";
        return text;
    };
    EXPECT_EQ(by_src(9), "1:9 2:9 ");
    EXPECT_EQ(by_src(255), "2:255 ");
    EXPECT_EQ(by_src(0), "1:0 ") << "0 must match here";
    EXPECT_EQ(next(first), "1:1");
    std::string ignoring;
    for (auto* each = number_tbl_pkey_get_first_ignore_src(h(), d, table, &err); each != nullptr;
         each = number_tbl_pkey_get_next_ignore_src(h(), d, table, each, &err))
        ignoring += name(each) + " ";
    EXPECT_EQ(ignoring, "1:0 1:1 1:9 2:9 2:255 3:1 ");
    const auto chain = [&](u32 op, number_tbl_table_record* from, u32 src, u32 flags) {
        return name(number_tbl_number_row_id_get_cr(h(), table, op, from, src, flags));
    };
    EXPECT_EQ(chain(0, nullptr, 0, 0), "1:1");
    EXPECT_EQ(chain(0, nullptr, 0, 1), "1:0") << "any source";
    EXPECT_EQ(chain(1, nullptr, 9, 0), "2:9");
    EXPECT_EQ(chain(3, first, 9, 0), "1:9");
    EXPECT_EQ(chain(2, number(3), 0, 0), "1:1");
    EXPECT_EQ(log_of([&] { EXPECT_EQ(chain(4, first, 0, 0), "none"); }),
              "says 3 invalid record get flag 4\nerror 22\n");
    EXPECT_EQ(h()->last_error, 22u);
}

TEST_F(search, finds_the_shadow_of_a_key) {
    number_tbl_table_record* live = insert_number(table, 1);
    insert_number(table, 1, 3);
    insert_number(table, 1, 9);
    number_tbl_table_record* shadow = insert_number(table, 1, 255);
    number_tbl_table_record* other = insert_number(table, 2);
    EXPECT_EQ(log_of([&] { EXPECT_EQ(number_tbl_number_row_id_get_shadow(h(), d, table, live, &err), shadow); }),
              "cache 1:3\ncache 1:9\n");
    EXPECT_EQ(number_tbl_pkey_get_shadow(h(), d, table, other, &err), nullptr);
    EXPECT_EQ(number_tbl_pkey_get_shadow(h(), d, table, nullptr, &err), nullptr);
    EXPECT_EQ(name(number_tbl_pkey_get_sub_next(h(), d, table, live, &err)), "1:3");
    EXPECT_EQ(number_tbl_pkey_get_sub_next(h(), d, table, shadow, &err), nullptr);
    err = 5;
    EXPECT_EQ(number_tbl_pkey_get_shadow(h(), d, table, shadow, &err), shadow) << "before any look at the error";
    EXPECT_EQ(number_tbl_pkey_get_shadow(h(), d, table, live, &err), nullptr);
}

TEST_F(search, passes_over_what_waits_for_its_end) {
    await_end(insert_number(table, 1));
    insert_number(table, 1, 9);
    insert_number(table, 1, 255);
    await_end(insert_number(table, 2));
    number_tbl_table_record* three = insert_number(table, 3);
    EXPECT_EQ(find(1), "1:1");
    EXPECT_EQ(find_lasting(1, 1, 0), "none");
    EXPECT_EQ(find_lasting(1, 0, 0), "1:9") << "strict: other sources of the same key, all but shadows";
    EXPECT_EQ(find_lasting(2, 0, 0), "none");
    EXPECT_EQ(find_lasting(1, 1, 1), "3:1");
    EXPECT_EQ(find_lasting(1, 9, 0), "1:9");
    EXPECT_EQ(name(number_tbl_number_row_id_get_first_not_pending_destroy(h(), d, table, 0, &err)), "1:9");
    EXPECT_EQ(name(number_tbl_number_row_id_get_first_not_pending_destroy(h(), d, table, 1, &err)), "3:1");
    EXPECT_EQ(name(number_tbl_number_row_id_get_last_not_pending_destroy(h(), d, table, 1, &err)), "3:1");
    EXPECT_EQ(name(number_tbl_number_row_id_get_last_not_pending_destroy(h(), d, table, 0, &err)), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_prev_not_pending_destroy(h(), d, table, three, 1, &err)), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_prev_not_pending_destroy(h(), d, table, three, 9, &err)), "1:9");
    EXPECT_EQ(name(number_tbl_number_row_id_get_next_not_pending_destroy(h(), d, table, number(1), 1, &err)),
              "3:1");
    u32 one = 1, three_key = 3;
    EXPECT_EQ(name(number_tbl_number_row_id_get_next_by_key_not_pending_destroy(h(), d, table, &one, 1, 1, &err)),
              "3:1");
    EXPECT_EQ(name(number_tbl_number_row_id_get_next_by_key_not_pending_destroy(h(), d, table, &one, 9, 0, &err)),
              "3:1");
    EXPECT_EQ(
        name(number_tbl_number_row_id_get_prev_by_key_not_pending_destroy(h(), d, table, &three_key, 1, 0, &err)),
        "1:9");
    EXPECT_EQ(err, 0u);
}

TEST_F(search, a_chain_searches_by_flags) {
    await_end(insert_number(table, 1));
    insert_number(table, 1, 9);
    insert_number(table, 2);
    EXPECT_EQ(chained(1, 0, 2), "1:1");
    EXPECT_EQ(chained(1, 0, 0), "none");
    EXPECT_EQ(chained(1, 0, 1), "2:1");
    EXPECT_EQ(chained(1, 0, 4), "1:9") << "strict keeps source 0";
    EXPECT_EQ(chained(1, 9, 0), "1:9");
    h()->last_error = 6;
    EXPECT_EQ(chained(2, 1, 0), "none");
    EXPECT_EQ(h()->last_error, 6u);
}

TEST_F(search, tenants_see_their_own_records) {
    {
        as_tenant three(3);
        insert_number(table, 1);
        insert_number(table, 9);
    }
    number_tbl_table_record* last_of_seven = nullptr;
    {
        as_tenant seven(7);
        insert_number(table, 2);
        last_of_seven = insert_number(table, 5);
    }
    const auto first = [&] { return name(number_tbl_number_row_id_get_first(h(), d, table, &err)); };
    const auto last = [&] { return name(number_tbl_number_row_id_get_last(h(), d, table, &err)); };
    EXPECT_EQ(first(), "none");
    EXPECT_EQ(find(1), "none");
    {
        as_tenant five(5);
        EXPECT_EQ(first(), "none");
        EXPECT_EQ(last(), "none");
    }
    as_tenant three(3);
    EXPECT_EQ(first(), "1:1");
    EXPECT_EQ(last(), "9:1");
    EXPECT_EQ(nearest(2), "9:1");
    EXPECT_EQ(next(number(9)), "none") << "the walk ends with the tenant";
    EXPECT_EQ(name(number_tbl_number_row_id_get_next_ignore_src(h(), d, table, number(9), &err)), "none");
    EXPECT_EQ(name(number_tbl_number_row_id_get_prev(h(), d, table, last_of_seven, &err)), "none");
}

TEST_F(search, visits_every_record) {
    for (u32 id : {3u, 1u, 2u})
        insert_number(table, id);
    struct seen {
        int left;
        int visited;
    } some{2, 0};
    const auto visit = [](number_tbl_table_record*, void* user) -> i32 {
        auto* all = static_cast<seen*>(user);
        ++all->visited;
        return --all->left == 0 ? 1 : 0;
    };
    number_tbl_number_row_id_walk(table, visit, &some, &err);
    EXPECT_EQ(some.visited, 2) << "what the callback returns goes back to the tree";
    some = {9, 0};
    number_tbl_record_walk_cr(h(), table, 0, visit, &some);
    EXPECT_EQ(some.visited, 3);
    some = {9, 0};
    EXPECT_EQ(log_of([&] { number_tbl_record_walk_cr(h(), table, 1, visit, &some); }), "says 3 unknow key:1\n");
    EXPECT_EQ(h()->last_error, 0u);
    err = 1;
    number_tbl_number_row_id_walk(table, visit, &some, &err);
    h()->last_error = 1;
    number_tbl_record_walk_cr(h(), table, 0, visit, &some);
    EXPECT_EQ(some.visited, 0);
}

TEST_F(search, a_pending_error_stops_every_entry) {
    number_tbl_table_record* one = insert_number(table, 1);
    err = 5;
    EXPECT_EQ(log_of([&] {
                  EXPECT_EQ(find(1), "none");
                  EXPECT_EQ(next(one), "none");
                  EXPECT_EQ(name(number_tbl_number_row_id_get_first(h(), d, table, &err)), "none");
                  EXPECT_EQ(name(number_tbl_pkey_get_next_ignore_src(h(), d, table, one, &err)), "none");
                  EXPECT_EQ(name(number_tbl_pkey_get_sub_next(h(), d, table, one, &err)), "none");
              }),
              "");
    EXPECT_EQ(err, 5u);
}

TEST_F(search, allocates_nothing) {
    insert_number(table, 1);
    const u64 before = handle.allocations();
    for (u32 id = 0; id < 3; ++id)
        nearest(id);
    EXPECT_EQ(handle.allocations(), before);
}

class reported_search : public search {
  protected:
    reported_search() : search(shared_kind()) {}
};

TEST_F(reported_search, hands_a_walked_record_out_twice) {
    insert_number(table, 2);
    insert_number(table, 3, 255);
    EXPECT_EQ(log_of([&] { find(2); }), "cache 2:1\nkind 2\ncontains 2:1 in table\n");
    EXPECT_EQ(log_of([&] { find(1); }), "kind 2\ncontains 0 in table\n");
    EXPECT_EQ(log_of([&] { nearest(1); }), "cache 2:1\nkind 2\ncontains 2:1 in table\n"
                                           "cache 2:1\nkind 2\ncontains 2:1 in table\n");
    u32 three = 3;
    EXPECT_EQ(log_of([&] { number_tbl_number_row_id_search_w_src(h(), d, table, &three, 255, &err); }),
              "kind 2\ncontains 3:255 in table\n")
        << "shadows never reach the cache";
    failing refused("loomrepl_add_to_cache", 5);
    EXPECT_EQ(find(2), "2:1") << "the record is still returned";
    EXPECT_EQ(err, 5u);
}

} // namespace
