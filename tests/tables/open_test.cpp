// Opening tables by name and id, what is found again, ids that are skipped, and what stops an open.
#include "forms.h"

#include <cstring>

using namespace table_tests;

namespace {

class open_table : public forms_test {
  protected:
    open_table() : forms_test(shared_kind()) {}

    loom_table* by_name(const char* name, u32 open_type = 0) {
        return number_tbl_table_open(h(), d, name, open_type, &err);
    }
    loom_table* by_id(u64 id, u32 open_type = 0) {
        return number_tbl_table_open_by_id(h(), d, id, open_type, &err);
    }
    loom_table* automatic(u32 open_type = 0) { return number_tbl_table_open_auto_id(h(), d, open_type, &err); }
    loom_table_id_root* root() {
        const std::string key = std::string("__loom_TBI__") + table_number_tbl_luid_text;
        return static_cast<loom_table_id_root*>(arbor_get_key(h()->alloc_ctx, key.c_str()));
    }
    std::vector<loom_table*> listed() {
        std::vector<loom_table*> all;
        loom_each_table(
            h(),
            [](loom_table* table, void* context) -> u32 {
                static_cast<std::vector<loom_table*>*>(context)->push_back(table);
                return 0;
            },
            &all);
        return all;
    }
};

TEST_F(open_table, makes_a_table_once) {
    loom_table* made = by_name("numbers");
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(std::string(made->table_name), std::string("numbers/") + table_number_tbl_luid_text);
    EXPECT_EQ(made->open_mode, 0u);
    EXPECT_EQ(made->table_id, 0u);
    EXPECT_EQ(made->table_flags, 0u);
    EXPECT_EQ(made->record_count, 0u);
    EXPECT_EQ(made->header.loom_flags & ~OBJ_OID_MAPPED, 0);
    EXPECT_STREQ(made->header.loom_tinfo->name, "number_tbl");
    const std::vector<loom_table*> before = listed();
    EXPECT_EQ(by_name("numbers"), made);
    EXPECT_EQ(by_name("numbers", 1), made);
    EXPECT_EQ(listed(), before);
    EXPECT_EQ(err, 0u);
}

TEST_F(open_table, announces_every_link_of_the_table_list) {
    loom_table* first = by_name("first");
    name_fields(handle, first, "first");
    auto* list = loomlib_database_table_toc_get(h(), LOOM_DOMAIN_NONE, &err);
    handle.name(list, sizeof *list, "list");
    EXPECT_EQ(log_of([&] { by_name("second"); }), "alloc 360 = b1\n"
                                                  "range b1+264 8\n" /* db_word */
                                                  "range b1+248 8\n" /* toc_next */
                                                  "dirty b1\n"
                                                  "range b1+256 8\n" /* toc_prev */
                                                  "dirty b1\n"
                                                  "range first.toc_next 8\n"
                                                  "dirty list\n"
                                                  "range list+8 8\n"
                                                  "dirty list\n"
                                                  "map b1 dynamic 0 ior 0\n"
                                                  "toc insert b1\n"
                                                  "kind 1\n"
                                                  "contains b1 in 0\n"
                                                  "dirty b1\n");
    EXPECT_EQ(log_of([&] { by_name("second"); }), "kind 1\ncontains b1 in 0\n");
}

TEST_F(open_table, tells_names_and_paths_apart) {
    loom_table* named = by_name("place");
    loom_table* path = by_name("place/here");
    EXPECT_NE(named, path);
    EXPECT_STREQ(path->table_name, "place/here");
    EXPECT_EQ(by_name((std::string("place/") + table_number_tbl_luid_text).c_str()), named);
    loom_table* other_type = short_tbl_table_open(h(), d, "place", 0, &err);
    EXPECT_NE(other_type, named);
    EXPECT_NE(std::string(by_name(nullptr)->table_name).find("(null)/"), std::string::npos);
    EXPECT_EQ(err, 0u);
}

TEST_F(open_table, cuts_paths_and_refuses_long_names) {
    EXPECT_NE(by_name(std::string(174, 'n').c_str()), nullptr);
    EXPECT_EQ(by_name(std::string(175, 'n').c_str()), nullptr);
    EXPECT_EQ(err, 7u);
    EXPECT_EQ(h()->last_error, 7u);
    err = 0;
    loom_table* cut = by_name(("a/" + std::string(300, 'p')).c_str());
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(strlen(cut->table_name), 207u);
    EXPECT_EQ(by_name(("a/" + std::string(205, 'p')).c_str()), cut);
}

TEST_F(open_table, a_reader_makes_nothing) {
    EXPECT_EQ(by_name("numbers", 1), nullptr);
    EXPECT_EQ(err, 0u);
    by_name("others");
    EXPECT_EQ(by_name("numbers", 1), nullptr);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(log_of([&] { EXPECT_EQ(byte_tbl_table_open_by_id(h(), d, 1, 1, &err), nullptr); }),
              "says 3 reader cannot allocate table byte_tbl ID root\n");
    EXPECT_EQ(log_of([&] { EXPECT_EQ(byte_tbl_table_open_auto_id(h(), d, 1, &err), nullptr); }),
              "says 3 reader cannot allocate table byte_tbl ID root\n");
    EXPECT_EQ(err, 0u);
}

TEST_F(open_table, explicit_ids_push_the_next_one_up) {
    EXPECT_EQ(automatic()->table_id, 0u);
    EXPECT_EQ(root()->next_id, 1u);
    loom_table* fifty = by_id(50);
    EXPECT_EQ(fifty->table_id, 50u);
    EXPECT_EQ(fifty->open_mode, 1u);
    EXPECT_EQ(fifty->table_name[0], '\0');
    EXPECT_EQ(root()->next_id, 51u);
    loom_table* seven = by_id(7);
    EXPECT_EQ(root()->next_id, 52u);
    loom_table* next = automatic();
    EXPECT_EQ(next->table_id, 52u);
    EXPECT_EQ(next->open_mode, 2u);
    EXPECT_EQ(next->table_flags, LOOM_TABLE_DYNAMIC);
    EXPECT_EQ(root()->next_id, 53u);
    EXPECT_EQ(root()->open_tables, 4u);
    EXPECT_EQ(by_id(7), seven);
    EXPECT_EQ(root()->next_id, 53u);
    EXPECT_EQ(root()->open_tables, 4u);
    EXPECT_EQ(automatic(1), nullptr);
    number_tbl_table_free(h(), d, seven, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(root()->open_tables, 3u);
    EXPECT_EQ(root()->next_id, 53u);
    EXPECT_EQ(by_id(7, 1), nullptr);
}

TEST_F(open_table, ids_belong_to_the_arena_at_hand) {
    EXPECT_EQ(by_id(5)->table_id, 5u);
    test_handle other;
    u32 other_err = 0;
    EXPECT_EQ(number_tbl_table_open_auto_id(other, d, 0, &other_err)->table_id, 0u);
    EXPECT_EQ(automatic()->table_id, 6u);
}

TEST_F(open_table, the_other_entries_are_parameter_sets) {
    loom_table* named = nullptr;
    EXPECT_NE(log_of([&] {
                  named = number_tbl_table_open_by_ior_with_name(h(), d, "n", 77, 0, 1, &err);
              }).find("dynamic 1 ior 77\n"),
              std::string::npos);
    EXPECT_EQ(named->table_flags, LOOM_TABLE_DYNAMIC);
    EXPECT_EQ(by_name("n"), named);
    loom_table* numbered = number_tbl_table_open_by_ior_with_id(h(), d, 9, 78, 0, 0, &err);
    EXPECT_EQ(numbered->table_flags, 0u);
    EXPECT_EQ(by_id(9), numbered);
    EXPECT_EQ(number_tbl_table_open_cr(h(), 0, 0, "n", 0), named);
    EXPECT_EQ(number_tbl_table_open_cr(h(), 1, 1, nullptr, 9), numbered);
    loom_table* automatic_one = number_tbl_table_open_cr(h(), 0, 2, nullptr, 0);
    EXPECT_EQ(automatic_one->table_id, 10u);
    EXPECT_EQ(automatic_one->table_flags, LOOM_TABLE_DYNAMIC);
    u8 luid[16];
    number_tbl_get_luid(h(), d, named, luid, &err);
    EXPECT_EQ(memcmp(luid, table_number_tbl_luid, 16), 0);
    EXPECT_EQ(err, 0u);
}

TEST_F(open_table, a_pending_error_stops_every_entry) {
    by_name("numbers");
    err = 5;
    EXPECT_EQ(log_of([&] {
                  EXPECT_EQ(by_name("numbers"), nullptr);
                  EXPECT_EQ(by_id(1), nullptr);
                  EXPECT_EQ(automatic(), nullptr);
                  EXPECT_EQ(number_tbl_table_open_by_ior_with_name(h(), d, "n", 0, 0, 0, &err), nullptr);
                  EXPECT_EQ(number_tbl_table_open_by_ior_with_id(h(), d, 1, 0, 0, 0, &err), nullptr);
              }),
              "");
    EXPECT_EQ(err, 5u);
    h()->last_error = 6;
    EXPECT_EQ(number_tbl_table_open_cr(h(), 0, 0, "numbers", 0), nullptr);
    EXPECT_EQ(h()->last_error, 6u);
}

TEST_F(open_table, reports_what_the_database_layer_refuses) {
    by_name("first");
    {
        failing refused("arbor_set_key", 1);
        EXPECT_EQ(log_of([&] { EXPECT_EQ(short_tbl_table_open_by_id(h(), d, 1, 0, &err), nullptr); }),
                  std::string("alloc 32 = b1\nkey __loom_TBI__") + table_short_tbl_luid_text +
                      "\nsays 3 Setting tbi root for table short_tbl failed\nfree b1\n");
        EXPECT_EQ(err, 0u);
    }
    {
        failing refused("loomdb_database_toc_get_table_root", 5);
        EXPECT_EQ(log_of([&] { EXPECT_EQ(by_name("n"), nullptr); }),
                  "says 3 loom database toc find table number_tbl in error: Input/output error\n");
        EXPECT_EQ(err, 5u);
        err = 0;
        EXPECT_EQ(by_id(1), nullptr);
        err = 0;
    }
    {
        failing refused("loomdb_database_toc_open", 5);
        EXPECT_EQ(log_of([&] { EXPECT_EQ(by_name("n"), nullptr); }),
                  "says 3 Failed to open TOC for table number_tbl. Error Input/output error\n");
        err = 0;
    }
    {
        failing refused("loomdb_database_toc_insert", 5);
        const std::string log = log_of([&] { EXPECT_EQ(by_name("n"), nullptr); });
        EXPECT_NE(log.find("says 3 Failed to insert static table number_tbl into the TOC\n"), std::string::npos)
            << log;
        EXPECT_EQ(err, 5u);
    }
}

using open_table_dies = open_table;

TEST_F(open_table_dies, without_a_lock_a_mapping_or_a_toc) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    {
        shared_database readers(false);
        EXPECT_DEATH(by_name("numbers"), "Opening table number_tbl in create mode while not holding a write lock");
        EXPECT_EQ(by_name("numbers", 1), nullptr);
    }
    shared_database writer(true);
    EXPECT_NE(by_name("numbers"), nullptr);
    failing unmapped("loom_oid_mapping_create", 1);
    EXPECT_DEATH(by_name("others"), "Failed to create mapping for number_tbl table");
    failing no_contents("loomdb_database_toc_open", 0);
    EXPECT_DEATH(by_name("others"), "Failed to open toc root for table number_tbl, database");
}

// ------------------------------------------------------------------------------------------------------ no memory

struct way_to_open {
    const char* name;
    loom_table* (*open)(loom_handle* handle, u32* err);
};
constexpr way_to_open ways_to_open[] = {
    {"by_name", [](loom_handle* h, u32* err) { return number_tbl_table_open(h, 1, "scarce", 0, err); }},
    {"by_id", [](loom_handle* h, u32* err) { return number_tbl_table_open_by_id(h, 1, 7, 0, err); }},
    {"by_automatic_id", [](loom_handle* h, u32* err) { return number_tbl_table_open_auto_id(h, 1, 0, err); }}};

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
