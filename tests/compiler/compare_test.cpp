// Two versions of a schema: what peers and databases of the old one survive.
#include "schemas.h"

#include "schema/compiler/compare.h"

namespace trellis::schema::testing {
namespace {

const std::string base = R"(bundle s
import lender {
    enum lent
    table lent_table luid 00112233445566778899aabbccddeeff
}
enum e {
    A
    B
}
flags f {
    F0
    F1
}
record k {
    x: u_int8
    y: u_int16
}
enum from_one {
    ONE = 1
    TWO
}
enum chosen_from_one {
    FIRST = 1
    SECOND
}
record chooser {
    choice: chosen_from_one {
        case SECOND
            arm: u_int8
    }
}
record r {
    a: u_int32
    b: loom_vstring
  since 1
    c: u_int8[3]
    reorder_seq_compact_no: u_int32
}
record holder {
    nested: r
}
table t of k keyed by x
message m carries r
)";

std::string replaced(const std::string& what, const std::string& with) {
    std::string text = base;
    const std::size_t at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what;
    return text.replace(at, what.size(), with);
}

std::vector<std::string> changes(const std::string& after) {
    std::vector<std::string> list;
    for (const change& c : changes_between(*model_of(base), *model_of(after)))
        list.push_back((c.breaks ? "breaks: " : "fine: ") + c.what);
    return list;
}

TEST(Compare, TheSameSchemaHasNoChanges) {
    EXPECT_EQ(changes(base), std::vector<std::string>{});
    EXPECT_TRUE(changes_between(catalogue(), catalogue()).empty());
}

struct edit {
    const char* name;
    const char* what;
    const char* with;
    const char* first; // what the first change begins with
};
void PrintTo(const edit& e, std::ostream* out) { *out << e.name; }
class Edit : public ::testing::TestWithParam<edit> {};
TEST_P(Edit, IsJudged) {
    const std::vector<std::string> list = changes(replaced(GetParam().what, GetParam().with));
    ASSERT_FALSE(list.empty());
    EXPECT_TRUE(list.front().starts_with(GetParam().first)) << list.front();
}
INSTANTIATE_TEST_SUITE_P(
    Compare, Edit,
    ::testing::Values(
        edit{"attribute_in_new_variant", "  since 1\n    c: u_int8[3]\n    reorder_seq_compact_no: u_int32\n",
             "  since 1\n    c: u_int8[3]\n    reorder_seq_compact_no: u_int32\n  since 2\n    d: u_int8\n",
             "fine: the attribute \"d\" of \"r\" is new in variant 2"},
        edit{"attribute_in_old_variant", "    b: loom_vstring\n", "    b: loom_vstring\n    d: u_int8\n",
             "breaks: the attribute \"d\" of \"r\" was added to variant 0"},
        edit{"attribute_gone", "    b: loom_vstring\n", "", "breaks: the attribute \"b\" of \"r\" is gone"},
        edit{"attribute_retyped", "a: u_int32", "a: int32",
             "breaks: the attribute \"a\" of \"r\" was u_int32 and is int32"},
        edit{"array_grown", "u_int8[3]", "u_int8[4]",
             "breaks: the attribute \"c\" of \"r\" was u_int8[3] and is u_int8[4]"},
        edit{"attributes_swapped", "    a: u_int32\n    b: loom_vstring\n",
             "    b: loom_vstring\n    a: u_int32\n",
             "breaks: the attribute \"b\" of \"r\" stands where \"a\" stood"},
        edit{"variant_earlier", "  since 1\n    c", "    c",
             "breaks: the attribute \"c\" of \"r\" moved from variant 1 to 0"},
        edit{"member_appended", "    B\n", "    B\n  since 1\n    C\n",
             "fine: the member \"C\" of \"e\" is new in variant 1"},
        edit{"member_inserted", "    A\n    B\n", "    A\n    C\n    B\n",
             "breaks: the member \"C\" of \"e\" was added to variant 0"},
        edit{"member_value", "    B\n", "    B = 5\n", "breaks: the member \"B\" of \"e\" was 1 and is 5"},
        edit{"enum_shared", "enum e", "shared enum e", "breaks: the enum \"e\" is shared now"},
        edit{"flags_swapped", "    F0\n    F1\n", "    F1\n    F0\n",
             "breaks: the flag \"F1\" of \"f\" stands where \"F0\" stood"},
        edit{"key_changed", "keyed by x", "keyed by y", "breaks: the table \"t\" was keyed by x and is by y"},
        edit{"payload_changed", "table t of k keyed by x", "table t of r keyed by a",
             "breaks: the table \"t\" held k and holds r"},
        edit{"luid_told", "keyed by x", "keyed by x luid 0123456789abcdef0123456789abcdef",
             "breaks: the table \"t\" had the luid"},
        edit{"message_changed", "carries r", "carries k", "breaks: the message \"m\" carried r and carries k"},
        edit{"type_added", "table t", "record q {\n x: u_int8\n}\ntable t", "fine: the record \"q\" is new"},
        edit{"became_list_element", "table t", "record q {\n x: list of k\n}\ntable t",
             "breaks: the record \"k\" became the element of a list"},
        edit{"import_from_elsewhere", "import lender", "import other",
             "breaks: the enum \"lent\" came from \"lender\" and comes from \"other\""},
        edit{"imported_luid", "00112233", "99112233",
             "breaks: the imported table \"lent_table\" had the luid 00112233445566778899aabbccddeeff and has 99"},
        edit{"bundle_renamed", "bundle s", "bundle z", "breaks: the bundle was \"s\""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Compare, TypesThatAreGone) {
    EXPECT_EQ(changes(replaced("message m carries r\n", "")),
              std::vector<std::string>{"breaks: the message \"m\" is gone"});
    EXPECT_EQ(changes(replaced("table t of k keyed by x\n", "")),
              std::vector<std::string>{"breaks: the table \"t\" is gone"});
}

TEST(Compare, TellsWhenInstancesThatHoldAGrownRecordGrow) {
    const auto list = changes(replaced("reorder_seq_compact_no: u_int32\n",
                                       "reorder_seq_compact_no: u_int32\n  since 2\n    d: ip_address\n"));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_TRUE(list[1].starts_with("fine: instances of variant 0 of \"holder\" took ")) << list[1];
}

TEST(Compare, TellsWhenAMemberIsTakenForAnother) {
    const auto plain = changes(replaced("    TWO\n", "    TWO\n  since 1\n    THREE\n"));
    ASSERT_EQ(plain.size(), 2u);
    EXPECT_EQ(plain[1],
              "fine: older peers take the member \"THREE\" of \"from_one\" for \"TWO\", whose value is its "
              "place, 2");
    const auto with_arms = changes(replaced("    SECOND\n}", "    SECOND\n  since 1\n    THIRD\n}"));
    ASSERT_EQ(with_arms.size(), 2u);
    EXPECT_TRUE(with_arms[1].starts_with("breaks: older peers take the member \"THIRD\" of \"chosen_from_one\""))
        << with_arms[1];
}

TEST(Compare, MovingAnAttributeToALaterVariantBreaks) {
    const auto list = changes(replaced("    b: loom_vstring\n  since 1\n", "  since 1\n    b: loom_vstring\n"));
    ASSERT_FALSE(list.empty());
    EXPECT_EQ(list.front(), "breaks: the attribute \"b\" of \"r\" moved from variant 0 to 1");
}

} // namespace
} // namespace trellis::schema::testing
