// The tool on the large catalogue: every type of table, every form of key, and the example campus.
#include "program.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace tool_test {
namespace {

class catalogue : public tool_fixture {
  protected:
    /// Names of the tables that the catalogue itself holds.
    std::vector<std::string> table_names() const {
        std::vector<std::string> names;
        for (const std::string& line : lines_of(loom_good({"types", "trellis_test_types", "--kind", "table"}).out))
            if (line.starts_with("  ")) names.push_back(line.substr(line.rfind(' ') + 1));
        return names;
    }

    /// A database made from the export holds the same, and says so. A union whose selected arm was never made gets
    /// one from its element, so it is the export of that database which must come back whole.
    void expect_to_come_back(const std::string& db, const std::string& verdict) {
        const std::string first = imported("first.db", written("first.xml", loom_good({"export", db}).out));
        EXPECT_EQ(loom_good({"compare", first, copy_through_xml(first, "second.db")}).out, verdict);
    }
};

TEST_F(catalogue, every_table_takes_a_record_and_gives_it_back) {
    const std::vector<std::string> names = table_names();
    ASSERT_EQ(names.size(), 47u);
    // Ordered tables want a place in the order.
    const std::map<std::string, std::string> ordered = {
        {"tbl_child_ordered_parent_ordered", "rec_child_ordered_parent_ordered"},
        {"tbl_top_level_ordered_with_ordered_child", "rec_parent_with_ordered_child"}};
    std::string xml;
    for (const std::string& name : names) {
        const auto payload = ordered.find(name);
        xml += "<" + name + ">";
        if (payload != ordered.end())
            xml += "<" + payload->second + "><reorder_seq_compact_no>1</reorder_seq_compact_no></" +
                   payload->second + ">";
        xml += "</" + name + ">";
    }
    const std::string db = database_of("a.db", xml);
    expect_to_come_back(db, "equal: 47 records of 47 tables\n");
    for (const std::string& name : names) {
        EXPECT_EQ(lines_of(loom_good({"walk", db, name}).out).size(), 1u) << name;
        EXPECT_TRUE(contains(loom_good({"walk", db, name, "--text"}).out, "record@" + name + ": {\n"));
    }
}

struct key_case {
    const char* table;
    const char* records;           // in another order than that of the keys
    std::vector<const char*> walk; // the keys in order
};

std::ostream& operator<<(std::ostream& out, const key_case& each) { return out << each.table; }

class keys : public catalogue, public testing::WithParamInterface<key_case> {};

TEST_P(keys, are_walked_in_order_and_found) {
    const std::string db = database_of("a.db", GetParam().records), table = GetParam().table;
    std::string expected;
    for (const char* key : GetParam().walk)
        expected += std::string(key) + "\n";
    EXPECT_EQ(loom_good({"walk", db, table}).out, expected);
    for (const char* key : GetParam().walk) {
        std::vector<std::string> words = {"find", db, table};
        std::istringstream stream(key);
        for (std::string word; stream >> word;)
            words.push_back(word);
        EXPECT_EQ(loom_good(words).out, std::string(key) + "\n");
    }
}

#define IN(table, inside) "<" table ">" inside "</" table ">"

INSTANTIATE_TEST_SUITE_P(
    catalogue, keys,
    testing::Values(
        key_case{"radio_band_tbl",
                 IN("radio_band_tbl", "<trl_radio_band_info><band_id>200</band_id></trl_radio_band_info>")
                     IN("radio_band_tbl", "<trl_radio_band_info><band_id>9</band_id></trl_radio_band_info>"),
                 {"band_id=9", "band_id=200"}},
        key_case{"tbl_constraint_test",
                 IN("tbl_constraint_test", "<constraint_test_type><name>beta</name></constraint_test_type>")
                     IN("tbl_constraint_test", "<constraint_test_type><name>alpha</name></constraint_test_type>"),
                 {"name=alpha", "name=beta"}},
        key_case{"tbl_top_level_enum_key",
                 IN("tbl_top_level_enum_key", "<enum_keys><enum_key><EN_VAL_3/></enum_key></enum_keys>")
                     IN("tbl_top_level_enum_key", "<enum_keys><enum_key><EN_VAL_1/></enum_key></enum_keys>"),
                 {"enum_key=EN_VAL_1", "enum_key=EN_VAL_3"}},
        key_case{"tbl_top_level_ipv4_addr_key",
                 IN("tbl_top_level_ipv4_addr_key",
                    "<ipv4_addr_keys><ipv4_addr_key>192.0.2.9</ipv4_addr_key></ipv4_addr_keys>")
                     IN("tbl_top_level_ipv4_addr_key",
                        "<ipv4_addr_keys><ipv4_addr_key>10.0.0.1</ipv4_addr_key></ipv4_addr_keys>"),
                 {"ipv4_addr_key=10.0.0.1", "ipv4_addr_key=192.0.2.9"}},
        key_case{
            "tbl_top_level_compound_key",
            IN("tbl_top_level_compound_key",
               "<compound_key><uint32_simple_key>2</uint32_simple_key></compound_key>")
                IN("tbl_top_level_compound_key", "<compound_key><uint32_simple_key>1</uint32_simple_key>"
                                                 "<enum_simple_key><EN_VAL_2/></enum_simple_key></compound_key>"),
            {"uint32_simple_key=1 NOAUTORENAMEuint32key=0 manual_rename_uint32_key=0 enum_simple_key=EN_VAL_2 "
             "NOAUTORENAMEenumkey=EN_VAL_0 manual_rename_enum_key=EN_VAL_0",
             "uint32_simple_key=2 NOAUTORENAMEuint32key=0 manual_rename_uint32_key=0 enum_simple_key=EN_VAL_0 "
             "NOAUTORENAMEenumkey=EN_VAL_0 manual_rename_enum_key=EN_VAL_0"}},
        key_case{"tbl_top_level_comp_key_with_neg_enum",
                 IN("tbl_top_level_comp_key_with_neg_enum",
                    "<rec_type/><comp_key_with_neg_enum><bytstr>0a0b</bytstr><en_neg_key><EN_VAL_77/></en_neg_key>"
                    "</comp_key_with_neg_enum>")
                     IN("tbl_top_level_comp_key_with_neg_enum", "<rec_type/><comp_key_with_neg_enum><bytstr>0a0b</"
                                                                "bytstr><en_neg_key><EN_VAL_NEG_33/></en_neg_key>"
                                                                "</comp_key_with_neg_enum>"),
                 {"bytstr=0a0b int8_attr=0 uint8_attr=0 int16_attr=0 uint16_attr=0 int32_attr=0 uint32_attr=0 "
                  "int64_attr=0 uint64_attr=0 en_neg_key=EN_VAL_NEG_33",
                  "bytstr=0a0b int8_attr=0 uint8_attr=0 int16_attr=0 uint16_attr=0 int32_attr=0 uint32_attr=0 "
                  "int64_attr=0 uint64_attr=0 en_neg_key=EN_VAL_77"}}),
    [](const auto& info) { return info.param.table; });

TEST_F(catalogue, a_misspelt_member_is_no_key) {
    const std::string db = database_of("a.db", "<tbl_top_level_enum_key/>");
    expect_refused({"find", db, "tbl_top_level_enum_key", "enum_key=EN_VAL_33"},
                   {"'EN_VAL_33' is no value of enum_key"});
}

TEST_F(catalogue, unions_arrays_lists_and_flags_come_back) {
    const std::string records =
        "<tbl_top_level_rec_with_keyless_list><ud_type_keyless_list><uint32_key>4</uint32_key>"
        "<list_attr/><list_attr/></ud_type_keyless_list></tbl_top_level_rec_with_keyless_list>"
        "<tbl_top_level_comp_key><rec_type><flg_attr><UD_FLG1/><UD_FLG8/></flg_attr>"
        "<b_arr_attr>1</b_arr_attr><b_arr_attr>2</b_arr_attr><ud_arr_attr/><ud_arr_attr/>"
        "<fixed_len_char_arr_attr>sixteen or less</fixed_len_char_arr_attr></rec_type>"
        "<comp_key><s_key>k</s_key><ip_key>2001:db8::5</ip_key></comp_key></tbl_top_level_comp_key>";
    const std::string db = database_of("a.db", records);
    const std::string out = loom_good({"export", db}).out;
    EXPECT_TRUE(contains(out, "<UD_FLG8/>"));
    EXPECT_TRUE(contains(out, "<ip_key>2001:db8::5</ip_key>"));
    expect_to_come_back(db, "equal: 2 records of 2 tables\n");
}

TEST_F(catalogue, too_many_elements_for_an_array_are_told) {
    std::string xml = "<all><tbl_top_level_comp_key><rec_type>";
    for (int i = 0; i < 4; ++i)
        xml += "<b_fixed_arr_attr>1</b_fixed_arr_attr>"; // has room for three
    const std::string db = file("a.db");
    loom_good({"create", db});
    expect_refused({"import", db, written("r.xml", xml + "</rec_type></tbl_top_level_comp_key></all>")},
                   {"no place for the element rec_type/b_fixed_arr_attr[4]"});
}

TEST_F(catalogue, the_campus_comes_back_whole) {
    const std::string db = file("a.db");
    loom_good({"create", db});
    EXPECT_TRUE(contains(loom_good({"import", db, CAMPUS_FILE}).out, "radio_operation_tbl: "));
    EXPECT_TRUE(contains(loom_good({"compare", db, copy_through_xml(db, "b.db")}).out, "records of 3 tables"));

    const std::vector<std::string> keys = lines_of(loom_good({"walk", db, "radio_operation_tbl"}).out);
    EXPECT_GE(keys.size(), 100u);
    EXPECT_TRUE(std::ranges::is_sorted(keys)); // addresses and slots have a fixed width
    const std::vector<std::string> key = {"wtp_mac=00:00:5e:00:53:0c", "radio_slot_id=1"};
    const std::string shown = loom_good({"show", db, "radio_operation_tbl", key[0], key[1]}).out;
    EXPECT_EQ(
        loom_good({"send", db, "radio_operation_tbl", key[0], key[1], "--exec", LOOM_PROGRAM, "receive"}).out,
        shown);
}

TEST_F(catalogue, the_bytes_of_a_radio_are_explained_to_the_last) {
    std::vector<std::string> words = {TRELLISC_PROGRAM, "json"};
    for (const auto& entry : std::filesystem::directory_iterator(SCHEMA_DIRECTORY))
        if (entry.path().extension() == ".trellis") words.push_back(entry.path().string());
    const std::string model = written("model.json", running_program(directory(), words).wait().out);
    const std::string db = imported("a.db", CAMPUS_FILE);
    const std::string bytes = loom_good({"show", db, "radio_operation_tbl", "wtp_mac=00:00:5e:00:53:0c",
                                         "radio_slot_id=1", "--bytes", "--schema", model})
                                  .out;
    EXPECT_FALSE(contains(bytes, "not explained"));
    EXPECT_FALSE(contains(bytes, "does not know"));
    for (const char* part : {"admin_state: RADIO_ADMINSTATE_ENABLED", "band_tbl_oid: no reference", "chan_pwr[63]",
                             "radio_slot_id: 1  (u_int8)"})
        EXPECT_TRUE(contains(bytes, part));
}

} // namespace
} // namespace tool_test
