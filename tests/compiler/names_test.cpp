// Exported names: how many of each family, the pinned list, the places of types in it, and the names of data.
#include "schemas.h"

#include "schema/compiler/names.h"

#include <map>
#include <set>

namespace trellis::schema::testing {
namespace {

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

TEST(Names, AreAsPinned) {
    // Pinned with: trellisc names schema/*.trellis > schema/trellis_test_types.names
    std::string list;
    for (const exported_function& f : exported_functions(catalogue()))
        list += f.name + "\n";
    EXPECT_EQ(list, content_of(TRELLIS_SCHEMA_DIR "/trellis_test_types.names"))
        << "programs are linked against these names, and call counters stand in their order";
}

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
