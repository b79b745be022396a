// What the compiler tells about mistaken schemas: the place, what is wrong, what to do. Every row is one mistake,
// and exactly one diagnostic.
#include "schemas.h"

namespace trellis::schema::testing {
namespace {

struct mistake {
    const char* name;
    const char* text;
    int line, column;
    const char* wrong; // what the diagnostic begins with
};
void PrintTo(const mistake& m, std::ostream* out) { *out << m.name; }

class Mistake : public ::testing::TestWithParam<mistake> {};
TEST_P(Mistake, IsToldOnceWithItsPlaceAndCure) {
    const compiled result = compile(std::vector<source_text>{{"s.trellis", GetParam().text}});
    ASSERT_EQ(result.mistakes.size(), 1u) << told(result);
    const diagnostic& d = result.mistakes.front();
    EXPECT_EQ(d.where.line, GetParam().line) << text_of(d);
    EXPECT_EQ(d.where.column, GetParam().column) << text_of(d);
    EXPECT_TRUE(d.wrong.starts_with(GetParam().wrong)) << text_of(d);
    EXPECT_FALSE(d.cure.empty());
    EXPECT_TRUE(text_of(d).starts_with("s.trellis:" + std::to_string(d.where.line) + ":")) << text_of(d);
}

const mistake mistakes[] = {
    // names that mean nothing
    {"unknown_type", "bundle s\nrecord a {\n x: u_int33\n}\n", 3, 5, "there is no type \"u_int33\""},
    {"unknown_payload", "bundle s\nrecord a {\n x: u_int8\n}\ntable t of b keyed by x\n", 5, 12,
     "there is no record \"b\""},
    {"payload_is_no_record", "bundle s\nmessage m carries u_int8\n", 2, 19, "\"u_int8\" is no record"},
    {"unknown_key", "bundle s\nrecord a {\n x: u_int8\n}\ntable t of a keyed by y\n", 5, 23,
     "there is no attribute of a \"y\""},
    {"unknown_oid_target", "bundle s\nrecord a {\n x_oid: oid -> nowhere\n}\n", 3, 16,
     "there is no table \"nowhere\""},
    {"unknown_in_order", "bundle s\norder b\n", 2, 7, "order names \"b\""},
    {"unknown_in_registry", "bundle s\nregistry {\n t\n}\n", 3, 2, "there is no table \"t\""},
    {"unknown_group", "bundle s\ngroups g\n", 2, 8, "no file holds the group \"g\""},
    // names given twice, or claimed by others
    {"type_twice", "bundle s\nrecord a {\n x: u_int8\n}\nenum a {\n A\n}\n", 5, 6, "\"a\" is declared twice"},
    {"attribute_twice", "bundle s\nrecord a {\n x: u_int8\n x: u_int8\n}\n", 4, 2, "\"x\" is an attribute twice"},
    {"constant_twice", "bundle s\nenum a {\n A\n}\nenum b {\n A\n}\n", 6, 2, "\"A\" names a second constant"},
    {"builtin_name", "bundle s\nrecord timestamp {\n x: u_int8\n}\n", 2, 8, "\"timestamp\" is a built-in type"},
    {"generated_clash", "bundle s\nrecord a {\n b_c: u_int8\n}\nrecord a_b {\n c: u_int8\n}\n", 6, 2,
     "this gives the name \"a_b_c_get\""},
    {"accessor_meets_operation", "bundle s\nrecord a {\n b: u_int8\n}\nrecord a_b {\n x: u_int8\n}\n", 5, 8,
     "this gives the name \"a_b_get\""},
    {"header_of_the_bundle", "bundle s\nrecord s {\n x: u_int8\n}\n", 2, 8,
     "this gives the header \"s.h\", as does the bundle itself"},
    {"header_of_a_part_of_the_bundle", "bundle s\nenum revision {\n A\n}\n", 2, 6,
     "this gives the header \"revision.h\", as does the bundle itself"},
    {"header_of_a_message", "bundle s\nrecord m_action {\n x: u_int8\n}\nmessage m\n", 5, 9,
     "this gives the header \"m_action.h\", as does s.trellis:2:8"},
    {"member_meets_function", "bundle s\nenum a {\n a_create\n}\n", 3, 2,
     "\"a_create\" is also the name of a function"},
    {"struct_clash",
     "bundle s\nrecord t_record {\n x: u_int8\n}\nrecord a {\n x: u_int8\n}\ntable t of a keyed by x\n", 8, 7,
     "this gives the name \"t_record_create_cr\""},
    {"reserved_word", "bundle s\nrecord a {\n class: u_int8\n}\n", 3, 2, "\"class\" is a reserved word"},
    {"macro_of_compilers", "bundle s\nrecord a {\n linux: u_int8\n}\n", 3, 2, "\"linux\" is a reserved word"},
    {"header_member", "bundle s\nrecord a {\n loom_flags: u_int8\n}\n", 3, 2,
     "\"loom_flags\" is a member of every object"},
    {"runtime_prefix", "bundle s\nrecord loom_thing {\n x: u_int8\n}\n", 2, 8,
     "names that begin with loom are the runtime's"},
    {"name_too_long",
     "bundle s\nrecord a234567890123456789012345678901234567890123456789012345678901234 {\n x: u_int8\n}\n", 2, 8,
     "\"a234567890123456789012345678901234567890123456789012345678901234\" has 64 characters"},
    {"table_name_too_long",
     "bundle s\nrecord a {\n x: u_int8\n}\ntable t23456789012345678901234567890123456789012345678901234567 of a "
     "keyed by x\n",
     5, 7, "\"t23456789012345678901234567890123456789012345678901234567\" has 57 characters"},
    // variants
    {"since_falls", "bundle s\nrecord a {\n x: u_int8\nsince 1\n y: u_int8\nsince 0\n z: u_int8\n}\n", 6, 1,
     "since 0 stands behind since 1"},
    {"since_leaves_out", "bundle s\nrecord a {\n x: u_int8\nsince 2\n y: u_int8\n}\n", 4, 1,
     "since 2 leaves out variant 1"},
    {"since_too_many", "bundle s\nrecord a {\n x: u_int8\nsince 127\n}\n", 4, 7, "a variant 127 is out of range"},
    {"since_without_number", "bundle s\nrecord a {\n x: u_int8\nsince\n}\n", 4, 6, "a variant expected"},
    // arrays and strings
    {"missing_count", "bundle s\nrecord a {\n x: u_int8[x_len]\n}\n", 3, 12,
     "\"x\" counts its elements in \"x_len\", which is no attribute"},
    {"count_elsewhere", "bundle s\nrecord a {\n x_len: u_int8\n y: u_int8\n x: u_int8[x_len]\n}\n", 5, 12,
     "\"x\" counts its elements in \"x_len\", which does not stand directly before"},
    {"count_is_no_number", "bundle s\nrecord a {\n x_len: loom_vstring\n x: u_int8[x_len]\n}\n", 3, 2,
     "\"x\" counts its elements in \"x_len\", which is no unsigned integer"},
    {"count_of_earlier_variant", "bundle s\nrecord a {\n x_len: u_int8\nsince 1\n x: u_int8[x_len]\n}\n", 5, 2,
     "\"x\" counts its elements in \"x_len\" of an earlier variant"},
    {"empty_array", "bundle s\nrecord a {\n x: u_int8[0]\n}\n", 3, 12, "a number of elements 0 is out of range"},
    {"string_without_size", "bundle s\nrecord a {\n x: string\n}\n", 3, 11, "\"[\" expected"},
    {"bracket_not_closed", "bundle s\nrecord a {\n x: u_int8[3\n}\n", 3, 13, "\"]\" expected"},
    // lists, arms, nesting
    {"list_of_values", "bundle s\nrecord a {\n x: list of u_int8\n}\n", 3, 13,
     "a list of \"u_int8\", which is no record"},
    {"arm_of_unknown_case", "bundle s\nenum e {\n A\n}\nrecord a {\n d: e {\n case B\n x: u_int8\n }\n}\n", 7, 7,
     "there is no member of e \"B\""},
    {"arm_of_plain_value", "bundle s\nrecord a {\n d: u_int8 {\n case B\n x: u_int8\n }\n}\n", 3, 2,
     "\"d\" selects arms but is no enumeration"},
    {"arm_of_imported_enum", "bundle s\nimport t {\n enum e\n}\nrecord a {\n d: e {\n case B\n x: u_int8\n }\n}\n",
     6, 2, "\"d\" selects arms but is an enumeration of another bundle"},
    {"arm_before_case", "bundle s\nenum e {\n A\n}\nrecord a {\n d: e {\n x: u_int8\n }\n}\n", 7, 2,
     "the arm \"x\" stands before the first case"},
    {"arm_is_array", "bundle s\nenum e {\n A\n}\nrecord a {\n d: e {\n case A\n x: u_int8[3]\n }\n}\n", 8, 2,
     "the arm \"x\" is no single value"},
    {"arms_of_unknown",
     "bundle s\nenum e {\n A\n}\nrecord a {\n b: u_int8\n arms of d {\n case A\n x: u_int8\n }\n}\n", 7, 10,
     "the record \"a\" has no attribute \"d\""},
    {"holds_itself", "bundle s\nrecord a {\n x: b\n}\nrecord b {\n y: a[2]\n}\n", 6, 2,
     "a record would hold itself: a > b > a"},
    {"too_large", "bundle s\nrecord a {\n x: u_int64[65535]\n}\nrecord b {\n y: a[65535]\n}\n", 6, 2,
     "an instance of \"b\" is larger"},
    {"no_attribute", "bundle s\nrecord a {\n}\n", 2, 8, "\"a\" has no attribute"},
    // enumerations and flags
    {"value_twice", "bundle s\nenum a {\n A = 3\n B = 3\n}\n", 4, 2, "\"B\" has the value 3, as has \"A\""},
    {"value_too_large", "bundle s\nenum a {\n A = 2147483648\n}\n", 3, 6, "a value 2147483648 is out of range"},
    {"value_overflows", "bundle s\nenum a {\n A = 2147483647\n B\n}\n", 4, 2, "the value of B is out of range"},
    {"flag_with_value", "bundle s\nflags a {\n A = 1\n}\n", 3, 4, "a flag has no value"},
    {"no_run", "bundle s\nflags a {\n A9 .. A3\n}\n", 3, 5, "\"A9 .. A3\" is no run"},
    {"long_run", "bundle s\nflags a {\n A0 .. A5000\n}\n", 3, 5, "the run has more than"},
    // tables
    {"key_is_array", "bundle s\nrecord a {\n x: u_int8[3]\n}\ntable t of a keyed by x\n", 5, 23,
     "\"x\" cannot be a key: it is no single value"},
    {"key_is_double", "bundle s\nrecord a {\n x: double\n}\ntable t of a keyed by x\n", 5, 23,
     "\"x\" cannot be a key: double has values without an order"},
    {"key_is_flags", "bundle s\nflags f {\n F\n}\nrecord a {\n x: f\n}\ntable t of a keyed by x\n", 8, 23,
     "\"x\" cannot be a key: it is a set of flags"},
    {"key_is_record", "bundle s\nrecord k {\n x: u_int8\n}\nrecord a {\n x: k\n}\ntable t of a keyed by x\n", 8,
     23, "\"x\" cannot be a key: it is a record"},
    {"key_of_later_variant", "bundle s\nrecord a {\n y: u_int8\nsince 1\n x: u_int8\n}\ntable t of a keyed by x\n",
     7, 23, "\"x\" cannot be a key: instances of variant 0"},
    {"key_record_holds_list",
     "bundle s\nrecord e {\n x: u_int8\n}\nrecord k {\n l: list of e\n}\nrecord a {\n x: u_int8\n}\ntable t of a "
     "keyed by record k\n",
     11, 30, "\"l\" cannot be a key: it is no single value"},
    {"key_record_is_payload", "bundle s\nrecord a {\n x: u_int8\n}\ntable t of a keyed by record a\n", 5, 30,
     "the key record of \"t\" is its payload"},
    {"ordered_without_number", "bundle s\nrecord a {\n x: u_int8\n}\ntable t of a keyed by x ordered\n", 5, 7,
     "the table \"t\" is ordered but \"a\" has no sequence number"},
    {"ordered_by_wrong_type",
     "bundle s\nrecord a {\n reorder_seq_compact_no: u_int16\n}\ntable t of a keyed by reorder_seq_compact_no "
     "ordered\n",
     5, 7, "the table \"t\" is ordered but"},
    {"bad_luid", "bundle s\nrecord a {\n x: u_int8\n}\ntable t of a keyed by x luid 12AB\n", 5, 30,
     "\"12AB\" is no luid"},
    {"luid_twice",
     "bundle s\nimport b {\n table t luid 00000000000000000000000000000001\n table u luid "
     "00000000000000000000000000000001\n}\n",
     4, 8, "the luid 00000000000000000000000000000001 is told twice"},
    {"registry_leaves_out",
     "bundle s\nrecord a {\n x: u_int8\n}\ntable t of a keyed by x\ntable u of a keyed by x\nregistry {\n t\n}\n",
     6, 7, "the registry leaves out the table \"u\""},
    // files
    {"no_bundle", "record a {\n x: u_int8\n}\n", 1, 1, "no file says which bundle this is"},
    {"second_bundle", "bundle s\nbundle r\n", 2, 8, "a second bundle statement"},
    {"imports_itself", "bundle s\nimport s\n", 2, 8, "the bundle imports itself"},
    {"unit_without_records", "bundle s\nrecord a in unit 3 {\n x: u_int8\n}\n", 2, 18,
     "trace unit 3 holds no records"},
    // grammar
    {"no_statement", "bundle s\nrekord a {\n x: u_int8\n}\n", 2, 1, "a declaration expected, not \"rekord\""},
    {"two_on_a_line", "bundle s\nrecord a {\n x: u_int8 y: u_int8\n}\n", 3, 12, "unexpected \"y\""},
    {"no_colon", "bundle s\nrecord a {\n y: u_int8\n x u_int8\n}\n", 4, 4, "\":\" expected, not \"u_int8\""},
    {"block_not_closed", "bundle s\nrecord a {\n x: u_int8\n\nrecord b {\n x: u_int8\n}\n", 2, 10,
     "the block of record a is not closed"},
    {"end_inside_block", "bundle s\nrecord a {\n x: u_int8\n", 2, 10, "the block of record a is not closed"},
    {"strange_bytes", "bundle s\nrecord a {\n x: u_int8\n @@\n}\n", 4, 2, "an attribute expected, not \"@@\""},
    {"brace_too_many", "bundle s\n}\n", 2, 1, "a declaration expected, not \"}\""},
};
INSTANTIATE_TEST_SUITE_P(Schema, Mistake, ::testing::ValuesIn(mistakes),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Mistakes, OfAFileAreAllToldInOneRun) {
    const std::string text = "bundle s\n"
                             "record one {\n"
                             "  a: u_int9\n"         // 3 unknown type
                             "  b: u_int8[b_len]\n"  // 4 missing count
                             "  c: list of u_int8\n" // 5 list of values
                             "  int: u_int8\n"       // 6 reserved word
                             "  c: u_int8\n"         // 7 twice
                             "  d u_int8\n"          // 8 grammar
                             "}\n"
                             "enum kind {\n"
                             "  A = 1\n"
                             "  B = 1\n" // 12 same value
                             "}\n"
                             "record two {\n"
                             "  of: kind {\n"
                             "    case C\n" // 16 unknown case
                             "      x: u_int8\n"
                             "  }\n"
                             "}\n"
                             "table t of two keyed by y\n"                 // 20 no such key
                             "table u of two keyed by of ordered luid 5\n" // 21 bad luid
                             "message m carries three\n";                  // 22 unknown record
    const compiled result = compile(std::vector<source_text>{{"s.trellis", text}});
    std::vector<int> lines;
    for (const diagnostic& d : result.mistakes)
        lines.push_back(d.where.line);
    EXPECT_EQ(lines, (std::vector<int>{3, 4, 5, 6, 7, 8, 12, 16, 20, 21, 22})) << told(result);
}

TEST(Mistakes, StandInTheOrderOfTheFiles) {
    const compiled result =
        compile(std::vector<source_text>{{"z.trellis", "bundle s\nrecord a {\n x: nothing\n}\n"},
                                         {"a.trellis", "group g of s\nrecord b {\n x: none\n}\n"}});
    ASSERT_EQ(result.mistakes.size(), 2u) << told(result);
    EXPECT_EQ(result.mistakes[0].where.file, "z.trellis");
    EXPECT_EQ(result.mistakes[1].where.file, "a.trellis");
}

TEST(Mistakes, ProposeTheNearestName) {
    const compiled result =
        compile(std::vector<source_text>{{"s.trellis", "bundle s\nrecord a {\n x: loom_vstrng\n}\n"}});
    ASSERT_EQ(result.mistakes.size(), 1u);
    EXPECT_NE(result.mistakes[0].cure.find("loom_vstring"), std::string::npos) << told(result);
}

TEST(Mistakes, GroupsOfTwoFilesClash) {
    const compiled result = compile(std::vector<source_text>{{"s.trellis", "bundle s\n"},
                                                             {"a.trellis", "group g of s\n"},
                                                             {"b.trellis", "group g of s\n"},
                                                             {"c.trellis", "group h of t\n"}});
    ASSERT_EQ(result.mistakes.size(), 2u) << told(result);
    EXPECT_TRUE(result.mistakes[0].wrong.starts_with("a second group \"g\"")) << told(result);
    EXPECT_TRUE(result.mistakes[1].wrong.starts_with("a group of the bundle \"t\"")) << told(result);
}

} // namespace
} // namespace trellis::schema::testing
