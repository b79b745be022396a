// What the schema language says: each construct and the model that it becomes.
#include "schemas.h"

namespace trellis::schema::testing {
namespace {

TEST(Language, Shapes) {
    const auto b = model_of(R"(bundle s
enum e {
    A
    B = 7
    C
}
flags f {
    F0 .. F9
}
record item {
    n: u_int8
}
record all {
    plain:     u_int32
    kind:      e
    truth:     loom_boolean
    bits:      f
    words:     loom_vstring
    nested:    item
    three:     double[3]
    some_len:  u_int16
    some:      item[some_len]
    text_len:  u_int8
    text:      string[text_len]
    brief:     u_int8
    label:     string[16]
    other_oid: oid -> t
    items:     list of item
}
table t of item keyed by n
)");
    const record& all = named_one(b->records, "all");
    using enum shape;
    const std::vector<std::pair<const char*, shape>> told = {
        {"plain", plain},         {"kind", plain},      {"truth", plain},         {"bits", object},
        {"words", object},        {"nested", object},   {"three", fixed_array},   {"some_len", length},
        {"some", variable_array}, {"text_len", length}, {"text", counted_string}, {"label", fixed_string},
        {"other_oid", oid},       {"items", list}};
    for (const auto& [name, form] : told)
        EXPECT_EQ(attribute_of(all, name).form, form) << name;
    EXPECT_EQ(attribute_of(all, "three").extent, 3u);
    EXPECT_EQ(attribute_of(all, "some").length_name, "some_len");
    EXPECT_EQ(attribute_of(all, "other_oid").target_table, "t");
    EXPECT_EQ(attribute_of(all, "brief").form, plain);
    EXPECT_EQ(named_one(b->records, "item").held_by.size(), 1u);
    const auto& members = named_one(b->enumerations, "e").members;
    EXPECT_EQ(members[0].value, 0);
    EXPECT_EQ(members[1].value, 7);
    EXPECT_EQ(members[2].value, 8);
    EXPECT_EQ(named_one(b->flag_sets, "f").bits.size(), 10u);
}

TEST(Language, NamesMayLookLikeKeywords) {
    const auto b =
        model_of("bundle s\nrecord record_of {\n record: u_int8\n since: u_int8\n list: u_int8\n table: u_int8\n"
                 " arms: u_int8\n oid: u_int8\n}\ntable t of record_of keyed by record\n");
    EXPECT_EQ(b->records[0]->attributes.size(), 6u);
    EXPECT_EQ(b->tables[0]->key, key_form::attribute);
}

TEST(Language, ArmsWithLaterVariantsAndFurtherDown) {
    const auto b = model_of(R"(bundle s
enum e {
    A
    B
  since 1
    C
}
record r {
    d: e {
        case A
            a1: u_int8
            a2: loom_vstring
      since 1
        case B
            b1: int32
    }
    after: u_int8
  since 2
    arms of d {
        case C
            c1: r2
    }
}
record r2 {
    x: u_int8
}
)");
    const record& r = named_one(b->records, "r");
    std::vector<std::string> order;
    for (const attribute& a : r.attributes)
        order.push_back(a.name + std::to_string(a.since) + a.case_name);
    EXPECT_EQ(order, (std::vector<std::string>{"d0", "a10A", "a20A", "b11B", "after1", "c12C"}));
    EXPECT_EQ(attribute_of(r, "c1").case_value, 2);
    EXPECT_EQ(attribute_of(r, "c1").discriminator, "d");
    EXPECT_EQ(r.newest, 2);
}

TEST(Language, Runs) {
    const auto b = model_of("bundle s\nrecord r {\n a1 .. a3: u_int8 /// of three\n q8_x .. q11_x: double\n}\n");
    std::vector<std::string> names;
    for (const attribute& a : b->records[0]->attributes)
        names.push_back(a.name);
    EXPECT_EQ(names, (std::vector<std::string>{"a1", "a2", "a3", "q8_x", "q9_x", "q10_x", "q11_x"}));
    EXPECT_EQ(b->records[0]->attributes[2].doc, "of three");
}

TEST(Language, DocCommentsTravel) {
    const auto b = model_of(R"(// no doc
/// The bundle.
bundle s

/// First line.
/// Second line.
record r { /// third
    /// Above.
    x: u_int8 // no doc
    y: u_int8 /// behind
    //// no doc either
    z: u_int8
}
/// An enumeration.
enum e {
    A /// a member
}
/// A table.
table t of r keyed by x /// with more
)");
    EXPECT_EQ(b->doc, "The bundle.");
    const record& r = *b->records[0];
    EXPECT_EQ(r.doc, "First line.\nSecond line.\nthird");
    EXPECT_EQ(r.attributes[0].doc, "Above.");
    EXPECT_EQ(r.attributes[1].doc, "behind");
    EXPECT_EQ(r.attributes[2].doc, "");
    EXPECT_EQ(b->enumerations[0]->members[0].doc, "a member");
    EXPECT_EQ(b->tables[0]->doc, "A table.\nwith more");
}

TEST(Language, FilesAndOrder) {
    const std::vector<source_text> texts = {
        {"a.trellis",
         "group second of s in unit 5\nrecord b1 {\n x: u_int8\n}\nrecord b2 in unit 0 {\n x: u_int8\n}\n"},
        {"b.trellis", "bundle s\ngroups first,\n second\norder b2\nrecord own {\n x: u_int8\n}\n"},
        {"c.trellis", "group unlisted of s\nrecord c1 {\n x: u_int8\n}\n"},
        {"d.trellis", "group first of s\nrecord a1 {\n x: u_int8\n}\n"}};
    const compiled result = compile(texts);
    ASSERT_TRUE(result.good()) << told(result);
    std::vector<std::string> order;
    for (const auto& r : result.model->records)
        order.push_back(r->name + std::to_string(r->trace_unit));
    EXPECT_EQ(order, (std::vector<std::string>{"b20", "own1", "a11", "b15", "c11"}));
}

TEST(Language, TablesAndRegistry) {
    const auto b = model_of(R"(bundle s
import other {
    table theirs luid 0123456789abcdef0123456789abcdef
    enum mode
}
import none
record k { /// key
    x: u_int8
}
record p {
    x: u_int8
    m: mode
    reorder_seq_compact_no: u_int32
}
table by_attribute of p keyed by x
table by_itself of k keyed by itself luid ffffffffffffffffffffffffffffffff
table by_record of p keyed by record k ordered
message empty
message full carries p
)");
    EXPECT_EQ(b->registry, (std::vector<std::string>{"by_attribute", "by_itself", "by_record", "theirs"}));
    EXPECT_EQ(b->tables[1]->key, key_form::whole_payload);
    EXPECT_EQ(b->tables[1]->key_record, b->tables[1]->payload);
    EXPECT_EQ(b->tables[1]->luid_text, "ffffffffffffffffffffffffffffffff");
    EXPECT_EQ(b->tables[1]->luid[0], 0xff);
    EXPECT_EQ(b->tables[2]->key_record->name, "k");
    EXPECT_TRUE(b->tables[2]->ordered);
    EXPECT_EQ(b->messages[0]->payload, nullptr);
    EXPECT_EQ(b->messages[1]->payload->name, "p");
    EXPECT_EQ(b->imports.size(), 2u);
    const enumeration* mode = attribute_of(*b->records[1], "m").type.of_enumeration;
    ASSERT_NE(mode, nullptr);
    EXPECT_EQ(mode->imported_from->name, "other");
    EXPECT_TRUE(mode->shared);
}

TEST(Language, CarriageReturnsAndMissingLastLineEnd) {
    const auto b = model_of("bundle s\r\nrecord r {\r\n\tx: u_int8 /// doc\r\n}");
    EXPECT_EQ(b->records[0]->attributes[0].doc, "doc");
}

TEST(Language, TheExampleOfTheManualCompiles) {
    const std::string manual = content_of(TRELLIS_MANUAL);
    const std::size_t start = manual.find("```\n") + 4;
    const auto b = model_of(manual.substr(start, manual.find("```", start) - start));
    EXPECT_EQ(b->name, "weather");
    EXPECT_EQ(b->tables.size(), 3u);
    EXPECT_EQ(named_one(b->records, "weather_event").list_element, true);
}

} // namespace
} // namespace trellis::schema::testing
