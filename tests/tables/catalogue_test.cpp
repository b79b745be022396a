// The same questions put to all tables of the catalogue: what they are called, how they order, find and count, how
// their keys travel, and what they say of duplicates.
#include "any_table.h"

#include <loom/loom.h>

#include <gtest/gtest.h>

#include <set>

using namespace table_tests;

namespace {

const std::vector<table_description>& catalogue() {
    static const std::vector<table_description> all = {
        {"tbl_leaf_list_test_fixed", "singleton_id", "u_int32", "leaf_list_test_fixed"},
        {"tbl_leaf_list_test_variable", "singleton_id", "u_int32", "leaf_list_test_variable"},
        {"tbl_trellis_flat", "singleton_id", "u_int32", "trellis_flat"},
        {"tbl_complex_defaults", "int_key", "u_int8", "complex_defaults"},
        {"tbl_top_level_test_auto_rename_key", "uint32_key", "u_int32", "ud_test_type"},
        {"tbl_top_level_test_no_auto_rename_key", "NOAUTORENAMEuint32key", "u_int32", "ud_test_type"},
        {"tbl_top_level_test_manual_rename_key", "manual_rename_uint32_key", "u_int32", "ud_test_type"},
        {"tbl_top_level_test_comp_key", "", "comp_key", "ud_test_type"},
        {"tbl_top_level_comp_key", "", "comp_key", "rec_type"},
        {"tbl_top_level_comp_key_with_enum", "", "comp_key_with_enum", "rec_type"},
        {"tbl_top_level_comp_key_with_neg_enum", "", "comp_key_with_neg_enum", "rec_type"},
        {"tbl_top_level_manual_rename_comp_key", "", "manual_rename_comp_key", "ud_test_type"},
        {"tbl_top_level_sing", "singleton_id", "u_int32", "rec_sing_type"},
        {"tbl_NOAUTORENAMEtopLevelSing", "singleton_id", "u_int32", "rec_sing_type"},
        {"tbl_top_level_singleton_manual_rename", "singleton_id", "u_int32", "rec_sing_type"},
        {"tbl_top_level_test_singleton", "singleton_id", "u_int32", "ud_test_type"},
        {"tbl_top_level_sing_new", "singleton_id", "u_int32", "rec_sing_type_new"},
        {"tbl_NOAUTORENAMEtopLevelSingNew", "singleton_id", "u_int32", "rec_sing_type_new"},
        {"tbl_top_level_singleton_manual_rename_new", "singleton_id", "u_int32", "rec_sing_type_new"},
        {"tbl_constraint_test", "name", "loom_vstring", "constraint_test_type"},
        {"tbl_top_level_enum_key", "enum_key", "ud_enum", "enum_keys"},
        {"tbl_top_level_no_auto_rename_enum_key", "NOAUTORENAMEenumkey", "ud_enum", "enum_keys"},
        {"tbl_top_level_manual_rename_enum_key", "manual_rename_this_enum_key", "ud_enum", "enum_keys"},
        {"tbl_top_level_compound_key", "", "compound_key", "compound_key"},
        {"tbl_top_level_comp_key_with_comp_key_child", "", "comp_key", "rec_parent_with_comp_key_child"},
        {"tbl_top_level_comp_key_with_sing_child", "", "comp_key", "rec_parent_with_sing_child"},
        {"tbl_top_level_sing_with_sing_child", "singleton_id", "u_int32", "rec_sing_parent_with_sing_child"},
        {"tbl_top_level_sing_with_comp_key_child", "singleton_id", "u_int32",
         "rec_sing_parent_with_comp_key_child"},
        {"tbl_child_comp_key_parent_comp_key", "", "comp_key", "rec_child_comp_key_parent_comp_key"},
        {"tbl_child_comp_key_parent_sing", "", "comp_key", "rec_child_comp_key_parent_sing"},
        {"tbl_child_sing_parent_comp_key", "singleton_id", "u_int32", "rec_child_sing_parent_comp_key"},
        {"tbl_child_sing_parent_sing", "singleton_id", "u_int32", "rec_child_sing_parent_sing"},
        {"tbl_top_level_union", "", "comp_key", "rec_with_union"},
        {"tbl_top_level_rec_with_keyless_list", "uint32_key", "u_int32", "ud_type_keyless_list"},
        {"tbl_child_ordered_parent_ordered", "", "comp_key", "rec_child_ordered_parent_ordered", true},
        {"tbl_top_level_ordered_with_ordered_child", "", "comp_key", "rec_parent_with_ordered_child", true},
        {"tbl_top_level_ipv4_addr_key", "ipv4_addr_key", "ipv4_addr", "ipv4_addr_keys"},
        {"tbl_top_level_no_auto_rename_ipv4_addr_key", "NOAUTORENAMEipv4addrkey", "ipv4_addr", "ipv4_addr_keys"},
        {"tbl_top_level_manual_rename_ipv4_addr_key", "manual_rename_this_ipv4_addr_key", "ipv4_addr",
         "ipv4_addr_keys"},
        {"tbl_top_level_ipv6_addr_key", "ipv6_addr_key", "ipv6_addr", "ipv6_addr_keys"},
        {"tbl_top_level_no_auto_rename_ipv6_addr_key", "NOAUTORENAMEipv6addrkey", "ipv6_addr", "ipv6_addr_keys"},
        {"tbl_top_level_manual_rename_ipv6_addr_key", "manual_rename_this_ipv6_addr_key", "ipv6_addr",
         "ipv6_addr_keys"},
        {"tbl_trellis_stats_perf", "", "trellis_stats_perf_key", "trellis_stats_perf"},
        {"radio_operation_tbl", "", "trl_radio_slot_key_t", "trl_radio_operation_config"},
        {"radio_band_tbl", "band_id", "u_int8", "trl_radio_band_info"},
        {"vap_operational_config_tbl", "ap_vap_id", "u_int16", "trl_vap_operational_config"},
        {"tbl_top_trellis_doubles", "", "string_key", "double_testing"},
    };
    return all;
}

class every_table : public ::testing::TestWithParam<table_description> {
  protected:
    every_table() : handle(options()), all(handle, GetParam()) {
        trellis::testing::add_trace_texts_of(exported(GetParam().table + "_insert"));
    }

    static trellis::testing::handle_options options() {
        trellis::testing::handle_options chosen;
        chosen.db_kind = LOOM_DB_MAPPED;
        return chosen;
    }
    loom_handle* h() { return handle.get(); }
    static constexpr u32 d = test_handle::domain;
    std::string search(const char* operation, unsigned number) {
        return all.label(all.call<loom_table_record*>(operation, h(), d, all.table, all.key(number), &all.err));
    }

    test_handle handle;
    any_table all;
};

const loom_table_vft& function_record(const std::string& table) {
    return *static_cast<const loom_table_vft*>(exported(table + "_table_vft"));
}

TEST_P(every_table, function_record_names_the_exports) {
    const loom_table_vft& record = function_record(GetParam().table);
    EXPECT_EQ(record.slots[LOOM_VFT_LUID], exported("table_" + GetParam().table + "_luid"));
    EXPECT_STREQ(static_cast<const char*>(record.slots[LOOM_VFT_NAME]), ("table " + GetParam().table).c_str());
    EXPECT_EQ(record.slots[LOOM_VFT_RESERVED], nullptr);
    std::set<const void*> distinct(std::begin(record.slots), std::end(record.slots));
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(LOOM_VFT_SLOTS));
    EXPECT_EQ(record.slots[LOOM_VFT_PKEY_PRINT], exported(GetParam().table + "_pkey_print"));
    EXPECT_EQ(record.slots[LOOM_VFT_GET_PREV_BY_KEY], exported(GetParam().table + "_get_prev_by_key"));
}

TEST_P(every_table, orders_by_key_and_source) {
    ASSERT_NE(all.open(), nullptr);
    for (const auto& [number, src] : {std::pair{3u, 1u}, {5u, 1u}, {1u, 1u}, {3u, 255u}, {3u, 2u}, {1u, 0u}})
        all.insert(number, src);
    EXPECT_EQ(all.err, 0u);
    EXPECT_EQ(all.dump(), "1:0 1:1 3:1 3:2 3:255 5:1");
    EXPECT_EQ(all.walk(), "1:1 3:1 5:1");
    EXPECT_EQ(all.walk_back(), "5:1 3:1 1:1");
    EXPECT_EQ(all.table->record_count, 6u);
    EXPECT_EQ(all.table->shadow_count, 1u);
    all.clear();
    EXPECT_EQ(all.table->record_count, 0u);
    EXPECT_EQ(all.table->shadow_count, 0u);
    EXPECT_EQ(all.dump(), "");
}

TEST_P(every_table, finds_by_key) {
    ASSERT_NE(all.open(), nullptr);
    all.insert(1);
    all.insert(3);
    all.insert(5, 2);
    EXPECT_EQ(search(".search", 3), "3:1");
    EXPECT_EQ(search(".search", 5), "none");
    EXPECT_EQ(search(".search_nearest", 1), "1:1");
    EXPECT_EQ(search(".get_next_by_key", 1), "3:1");
    EXPECT_EQ(search(".get_next_by_key", 3), "none");
    EXPECT_EQ(search(".get_prev_by_key", 5), "3:1");
    EXPECT_EQ(all.err, 0u);
    all.clear();
}

TEST_P(every_table, a_key_travels_and_is_found_through_the_function_record) {
    ASSERT_NE(all.open(), nullptr);
    const loom_table_vft& record = function_record(GetParam().table);
    const auto slot = [&record]<class Function>(Function*, int place) {
        return reinterpret_cast<Function*>(const_cast<void*>(record.slots[place]));
    };
    using marshal = u32(loom_handle*, u32, void*, const loom_table_record*, i32, u32*);
    using unmarshal = u32(loom_handle*, u32, void**, const void*, i32, u32*);
    using length = u32(loom_handle*, u32, const loom_table_record*);
    using find = loom_table_record*(loom_handle*, u32, loom_table*, const void*, u32, u32*);
    using destroy = void(loom_handle*, u32, void*);
    using print = i32(loom_handle*, u32, loom_table*, const loom_table_record*, char*, i32, u32*);
    loom_table_record* three = all.insert(3);
    all.insert(1);
    std::vector<u8> wire(4096);
    const u32 written = slot(static_cast<marshal*>(nullptr), LOOM_VFT_PKEY_MARSHAL)(
        h(), d, wire.data(), three, static_cast<i32>(wire.size()), &all.err);
    EXPECT_GT(written, 0u);
    EXPECT_LE(written, slot(static_cast<length*>(nullptr), LOOM_VFT_PKEY_LEN)(h(), d, three));
    void* key = nullptr;
    const u32 read = slot(static_cast<unmarshal*>(nullptr),
                          LOOM_VFT_PKEY_UNMARSHAL)(h(), d, &key, wire.data(), static_cast<i32>(written), &all.err);
    EXPECT_EQ(read, written);
    ASSERT_NE(key, nullptr);
    // An enumeration without a member of value 0 that is unset comes back from the wire as its first member, so
    // that the key is another one.
    const bool is_another = GetParam().key_type.rfind("comp_key_with_", 0) == 0;
    EXPECT_EQ(all.label(slot(static_cast<find*>(nullptr), LOOM_VFT_SEARCH)(h(), d, all.table, key, 0, &all.err)),
              is_another ? "none" : "3:1");
    char text[4096] = {};
    EXPECT_GT(slot(static_cast<print*>(nullptr), LOOM_VFT_PKEY_PRINT)(h(), d, all.table, three, text, sizeof text,
                                                                      &all.err),
              0);
    slot(static_cast<destroy*>(nullptr), LOOM_VFT_PKEY_DESTROY)(h(), d, key);
    EXPECT_EQ(all.err, 0u);
    all.clear();
}

TEST_P(every_table, names_its_key_in_the_trace_of_a_duplicate) {
    ASSERT_NE(all.open(), nullptr);
    all.insert(3);
    loom_table_record* second = all.make(3);
    const std::string log = handle.log_of([&] { all.call<void>("insert", h(), d, all.table, second, &all.err); });
    const table_description& is = GetParam();
    const std::string key_text = is.key.empty() ? is.key_type + " " : is.payload + " " + is.key;
    EXPECT_EQ(log, "says 3 " + is.table + " insert record exists for " + key_text + "\nerror 17\n");
    EXPECT_EQ(all.err, 17u);
    all.err = 0;
    const std::string deleted =
        handle.log_of([&] { all.call<void>("delete", h(), d, all.table, all.make(5), &all.err); });
    EXPECT_NE(deleted.find("says 3 " + is.table + " delete, record not found for " + key_text + "\nerror 2\n"),
              std::string::npos)
        << deleted;
    all.err = 0;
    all.clear();
}

INSTANTIATE_TEST_SUITE_P(catalogue, every_table, ::testing::ValuesIn(catalogue()),
                         [](const auto& each) { return each.param.table; });

TEST(catalogue, is_whole) {
    EXPECT_EQ(catalogue().size(), 47u);
    std::size_t key_objects = 0;
    for (const table_description& each : catalogue())
        key_objects += each.has_key_object() ? 1 : 0;
    EXPECT_EQ(key_objects, 15u);
}

} // namespace
