// What every operation of a table says of a null table. All those of one table that has all of them are called by
// name, each with arguments by their types; the generated header tells whether one is missing here.
#include "forms.h"

#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <set>

using namespace table_tests;

namespace {

using record = place_tbl_table_record;

/// An argument of any type: no table, a record that is in none, and one number for all.
struct argument {
    test_handle& handle;
    record* row;
    pair_key* key;
    u32* err;
    u32 number;

    operator loom_handle*() const { return handle.get(); }
    operator loom_table*() const { return nullptr; }
    operator record*() const { return row; }
    operator const record*() const { return row; }
    operator const pair_key*() const { return key; }
    operator u32() const { return number; }
    operator i32() const { return 1; }
    operator u32*() const { return err; }
    operator char*() const { return nullptr; }
    operator void*() const { return nullptr; }
    operator place_tbl_record_visitor() const { return nullptr; }
};

struct operation {
    std::string name; // behind "place_tbl_"
    std::function<bool(const argument&)> gives_nothing;
};
void PrintTo(const operation& each, std::ostream* out) { *out << each.name; }

template <class Result, class... Argument>
bool gives_nothing(Result (*called)(Argument...), const argument& any) {
    if constexpr (std::is_void_v<Result>) {
        called(static_cast<Argument>(any)...);
        return true;
    } else {
        return called(static_cast<Argument>(any)...) == Result{};
    }
}

using operations = std::vector<operation>;

/// Adds the operations that have the C type of `example`.
template <class Function>
void add(operations& all, Function*, std::initializer_list<const char*> names) {
    for (const char* name : names)
        all.push_back({name, [name](const argument& any) {
                           return gives_nothing(function<Function>(std::string("place_tbl_") + name), any);
                       }});
}

const operations& all_operations() {
    static const operations made = [] {
        operations all;
        add(all, &place_tbl_insert, {"insert", "pkey_insert", "delete", "pkey_delete", "request_record_destroy"});
        add(all, &place_tbl_insert_internal, {"insert_internal", "delete_internal"});
        add(all, &place_tbl_insert_cr, {"insert_cr", "delete_cr"});
        add(all, &place_tbl_request_record_destroy_cr, {"request_record_destroy_cr"});
        add(all, &place_tbl_table_close,
            {"table_close", "table_free", "request_table_free", "seq_compact_batch_start",
             "seq_compact_batch_end"});
        add(all, &place_tbl_table_close_cr, {"table_close_cr"});
        add(all, &place_tbl_table_get_count, {"table_get_count"});
        add(all, &place_tbl_table_get_count_cr, {"table_get_count_cr"});
        add(all, &place_tbl_table_get_count_by_src, {"table_get_count_by_src"});
        add(all, &place_tbl_pair_key__search,
            {"pair_key__search", "pair_key__search_nearest", "pair_key__get_next_by_key",
             "pair_key__get_prev_by_key", "get_next_by_key", "get_prev_by_key"});
        add(all, &place_tbl_search,
            {"search", "pair_key__search_w_src", "pair_key__get_next_by_key_w_src", "get_next_by_key_w_src"});
        add(all, &place_tbl_search_w_src,
            {"search_w_src", "pair_key__search_not_pending_destroy",
             "pair_key__get_next_by_key_not_pending_destroy", "pair_key__get_prev_by_key_not_pending_destroy"});
        add(all, &place_tbl_pair_key_search_cr, {"pair_key_search_cr"});
        add(all, &place_tbl_pair_key__search_internal, {"pair_key__search_internal"});
        add(all, &place_tbl_pair_key__get_next,
            {"pair_key__get_next", "pair_key__get_prev", "pair_key__get_next_ignore_src", "pair_key__get_sub_next",
             "pair_key__get_shadow", "pkey_get_next", "pkey_get_prev", "pkey_get_next_ignore_src",
             "pkey_get_sub_next", "pkey_get_shadow"});
        add(all, &place_tbl_pair_key__get_next_by_src,
            {"pair_key__get_next_by_src", "pair_key__get_next_not_pending_destroy",
             "pair_key__get_prev_not_pending_destroy", "pkey_get_next_by_src"});
        add(all, &place_tbl_pair_key__get_next_internal,
            {"pair_key__get_next_internal", "pair_key__get_prev_internal"});
        add(all, &place_tbl_pair_key__get_first,
            {"pair_key__get_first", "pair_key__get_last", "pair_key__get_first_ignore_src", "pkey_get_first",
             "pkey_get_last", "pkey_get_first_ignore_src"});
        add(all, &place_tbl_pair_key__get_first_by_src,
            {"pair_key__get_first_by_src", "pair_key__get_first_not_pending_destroy",
             "pair_key__get_last_not_pending_destroy", "pkey_get_first_by_src"});
        add(all, &place_tbl_get_first_internal, {"get_first_internal", "get_last_internal"});
        add(all, &place_tbl_pair_key_get_cr, {"pair_key_get_cr"});
        add(all, &place_tbl_pair_key__walk, {"pair_key__walk"});
        add(all, &place_tbl_record_walk_cr, {"record_walk_cr"});
        add(all, &place_tbl_pkey_print, {"pkey_print"});
        return all;
    }();
    return made;
}

class null_table : public forms_test, public ::testing::WithParamInterface<operation> {};

/// 2 and not a word, but for what needs no table or has a refusal of its own.
u32 error_of(const std::string& name) {
    if (name == "table_close" || name.rfind("table_get_count", 0) == 0) return 0;
    return name == "pkey_print" || name.rfind("request_record_destroy", 0) == 0 ? 22 : 2;
}

TEST_P(null_table, is_an_error_and_no_end_of_the_process) {
    const std::string& name = GetParam().name;
    const u32 expected = error_of(name);
    const u32 number = name == "record_walk_cr" ? 0 : 1; // a table has no key 1
    record* row = place("row", 1);
    bool nothing = false;
    h()->last_error = 0;
    const std::string log = log_of([&] {
        nothing = GetParam().gives_nothing({handle, row, row->pair_key, &err, number});
    });
    EXPECT_EQ(name.find("_cr") == std::string::npos ? err : h()->last_error, expected);
    EXPECT_EQ(log, expected == 0 || name == "pair_key__walk" ? "" : "error " + std::to_string(expected) + "\n");
    EXPECT_TRUE(nothing || name.find("_cr") != std::string::npos) << "a chain's result is its error";
    EXPECT_EQ(row->loom_record.record_flags, 0u);
    EXPECT_EQ(row->loom_record.table, nullptr);
}

INSTANTIATE_TEST_SUITE_P(operations, null_table, ::testing::ValuesIn(all_operations()),
                         [](const auto& each) { return each.param.name; });

TEST(null_tables, are_given_to_every_operation_of_the_header) {
    std::ifstream file(PLACE_TBL_HEADER);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::regex prototype("place_tbl_(\\w+)\\([^()]*loom_table\\* table[,)]");
    std::set<std::string> declared, called;
    for (std::sregex_iterator each(text.begin(), text.end(), prototype), none; each != none; ++each)
        declared.insert((*each)[1]);
    for (const operation& each : all_operations())
        called.insert(each.name);
    EXPECT_EQ(declared, called);
}

} // namespace
