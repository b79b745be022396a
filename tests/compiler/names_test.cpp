// Exported names: how many of each family, the pinned list, and the spellings that are easily got wrong.
#include "schemas.h"

#include "schema/compiler/names.h"

#include <map>
#include <set>
#include <sstream>

namespace trellis::schema::testing {
namespace {

std::set<std::string> names() {
    std::set<std::string> set;
    for (const exported_function& f : exported_functions(catalogue()))
        set.insert(f.name);
    return set;
}

TEST(Names, CountsPerFamily) {
    std::map<std::string, int> counts;
    for (const exported_function& f : exported_functions(catalogue()))
        ++counts[f.family];
    EXPECT_EQ(counts["record"], 103 * 39);
    EXPECT_EQ(counts["accessor"], 6306);
    EXPECT_EQ(counts["enumeration"], 15 * 32);
    EXPECT_EQ(counts["flag"], 3 * 33);
    EXPECT_EQ(counts["table"], 32 * 112 + 13 * 117 + 2 * 119);
    EXPECT_EQ(counts["message"], 8 * 18 + 5 * 4);
    EXPECT_EQ(counts["bundle"], 9);
}

TEST(Names, AreUnique) { EXPECT_EQ(names().size(), exported_functions(catalogue()).size()); }

TEST(Names, AreAsPinned) {
    // Pinned with: trellisc names schema/*.trellis > schema/trellis_test_types.names
    std::string list;
    for (const exported_function& f : exported_functions(catalogue()))
        list += f.name + "\n";
    EXPECT_EQ(list, content_of(TRELLIS_SCHEMA_DIR "/trellis_test_types.names"))
        << "programs are linked against these names, and call counters stand in their order";
}

class Spelling : public ::testing::TestWithParam<const char*> {};
TEST_P(Spelling, IsExported) { EXPECT_TRUE(names().contains(GetParam())); }
INSTANTIATE_TEST_SUITE_P(
    Names, Spelling,
    ::testing::Values(
        // a key attribute keeps its capitals, a key record gets two underscores, except in two names
        "tbl_top_level_test_no_auto_rename_key_ud_test_type_NOAUTORENAMEuint32key_search",
        "tbl_constraint_test_constraint_test_type_name_search", "tbl_top_level_union_comp_key__get_next",
        "tbl_top_level_comp_key_comp_key_search_cr", "tbl_top_level_comp_key_comp_key_get_cr",
        "tbl_top_level_compound_key_compound_key_search_cr", "tbl_top_level_compound_key_compound_key__search",
        "tbl_top_level_sing_rec_sing_type_singleton_id_search_cr",
        // attributes whose names contain each other
        "rec_type_int_attr_range_get", "rec_type_int_attr_get",
        // one of each shape
        "rec_parent_with_sing_child_b_arr_len_get_value", "rec_parent_with_sing_child_ud_arr_attr_remove_elements",
        "rec_parent_with_sing_child_child_sing_oid_set_by_ref_cr", "simple_union_int_attr_get_detach",
        "rec_with_list_list_attr_add_cr", "type_with_list_list_attr_get_parent",
        "trellis_telemetry_list_simple_list_get_parent", "rec_type_fixed_len_char_arr_attr_set_cr",
        "trellis_stats_perf_stat_86_state_flag_set", "leaf_list_test_fixed_leaf_list_boolean_fixed_set_mem",
        "ud_type_test_type_aes_pw1_type_get_value",
        // tables and messages
        "tbl_top_level_comp_key_comp_key_free_and_set_field", "tbl_top_level_comp_key_rec_type_get_field_detach",
        "tbl_child_ordered_parent_ordered_seq_compact_batch_end",
        "tbl_top_level_comp_key_table_record_to_xml_internal",
        "custom_rpc_input_test_action_message_custom_rpc_input_test_free_and_set",
        // the bundle's own
        "trellis_test_types_fetch_table_get_vft", "loom_trellis_test_types_trace_init"));

class NotExported : public ::testing::TestWithParam<const char*> {};
TEST_P(NotExported, IsNot) { EXPECT_FALSE(names().contains(GetParam())); }
INSTANTIATE_TEST_SUITE_P(Names, NotExported,
                         ::testing::Values("tbl_top_level_comp_key_comp_key__search_cr", // one underscore only
                                           "rec_parent_with_sing_child_b_arr_len_set",   // a length is read-only
                                           "rec_parent_with_sing_child_b_fixed_arr_attr_remove_elements",
                                           "rec_parent_with_sing_child_ud_arr_attr_get_value",
                                           "rec_type_st_attr_get_value",
                                           "custom_rpc_action_empty_action_message_custom_rpc_type_simple_get",
                                           "tbl_top_level_sing_seq_compact_batch_start",
                                           "enm_CryptType_create", // another bundle's
                                           "tbl_bgp_state_table_open"));

TEST(Names, TypesKnowTheirFirstFunction) {
    const auto functions = exported_functions(catalogue());
    for (const auto& r : catalogue().records)
        EXPECT_EQ(functions[r->call_base].name, r->name + "_create");
    for (const auto& e : catalogue().enumerations)
        EXPECT_EQ(functions[e->call_base].name, e->name + "_variant_data_index_cap");
    for (const auto& t : catalogue().tables)
        EXPECT_EQ(functions[t->call_base].name, t->name + "_table_open");
    for (const auto& m : catalogue().messages)
        EXPECT_EQ(functions[m->call_base].name, m->name + "_action_message_create_shallow");
}

TEST(Names, OfExportedData) {
    std::set<std::string> data;
    for (const exported_function& f : exported_data(catalogue()))
        EXPECT_TRUE(data.insert(f.name).second) << f.name;
    for (const char* name :
         {"_ud_enum_type_info_internal", "_tbl_constraint_test_table_type_info_internal",
          "_tbl_constraint_test_table_record_type_info_internal",
          "_custom_rpc_action_simple_action_message_type_info_internal", "table_tbl_constraint_test_luid_text",
          "message_action_custom_rpc_action_simple_name", "tbl_bgp_state_table_vft",
          "trellis_test_types_table_lut", "trellis_test_types_bundle_registered_handler"})
        EXPECT_TRUE(data.contains(name)) << name;
}

} // namespace
} // namespace trellis::schema::testing
