// Sizes, offsets and tracking areas: the figures that peers and databases rely on, the pinned layout of all types,
// and the rules that hold of every layout.
#include "schemas.h"

#include "schema/compiler/layout.h"
#include "schema/compiler/report.h"

#include <map>
#include <tuple>

namespace trellis::schema::testing {
namespace {

const record& type(const std::string& name) { return named_one(catalogue().records, name); }

std::vector<std::uint32_t> of_variants(const named& t, std::uint32_t variant_layout::*figure) {
    std::vector<std::uint32_t> list;
    for (const variant_layout& v : t.variants)
        list.push_back(v.*figure);
    return list;
}

using figures = std::vector<std::uint32_t>;
struct told_sizes {
    const char* type;
    figures used, sizes, slops, tracking;
};

class Sizes : public ::testing::TestWithParam<told_sizes> {};
TEST_P(Sizes, AreThoseThatPeersKnow) {
    const told_sizes& told = GetParam();
    const record& r = type(told.type);
    const auto expect = [&](std::uint32_t variant_layout::*figure, const figures& wanted) {
        if (!wanted.empty()) {
            EXPECT_EQ(of_variants(r, figure), wanted);
        }
    };
    expect(&variant_layout::used_length, told.used);
    expect(&variant_layout::layout_size, told.sizes);
    expect(&variant_layout::alloc_slop, told.slops);
    expect(&variant_layout::tracking_size, told.tracking);
    EXPECT_EQ(r.base_size, r.variants.back().layout_size);
}
INSTANTIATE_TEST_SUITE_P(
    Catalogue, Sizes,
    ::testing::Values(
        told_sizes{"rec_parent_with_sing_child", {928, 931, 952}, {944, 952, 968}, {40, 37, 16}, {104, 104, 104}},
        told_sizes{"ud_type", {}, {232, 352, 360, 512, 616}, {}, {10, 23, 24, 32, 41}},
        told_sizes{"ud_type_with_arr", {}, {264}, {}, {40}}, told_sizes{"string_key", {32}, {40}, {8}, {1}},
        told_sizes{"const_default_type", {}, {152}, {}, {7}}, told_sizes{"ipv6_addr_keys", {59}, {72}, {13}, {3}},
        told_sizes{"trellis_stats_perf", {412}, {432}, {20}, {100}}, told_sizes{"simple_choice", {}, {}, {}, {4}},
        told_sizes{"simple_union", {}, {}, {}, {4}}, told_sizes{"rec_with_union", {}, {}, {}, {5}},
        told_sizes{"complex_defaults_nested_union", {}, {}, {}, {3}}),
    [](const auto& info) { return std::string(info.param.type); });

TEST(Sizes, EndOfDataAsTheManifestTellsIt) {
    EXPECT_EQ((type("trellis_q1_data").variants.back().used_length + 7) / 8 * 8, 104u);
    EXPECT_EQ((type("trellis_stats_perf").variants.back().used_length + 7) / 8 * 8, 416u);
}

TEST(Sizes, OfEnumerationsAndFlagSets) {
    for (const auto& e : catalogue().enumerations) {
        EXPECT_EQ(e->base_size, 16u) << e->name;
        for (const variant_layout& v : e->variants)
            EXPECT_EQ(v.alloc_slop, 0u) << e->name;
    }
    const flag_set& small = named_one(catalogue().flag_sets, "ud_flag");
    EXPECT_EQ(of_variants(small, &variant_layout::used_length), (figures{16, 16}));
    EXPECT_EQ(of_variants(small, &variant_layout::alloc_slop), (figures{8, 8}));
    EXPECT_EQ(small.base_size, 24u);
    for (const char* name : {"ud_flag_64", "ud_flag_big"}) {
        const flag_set& f = named_one(catalogue().flag_sets, name);
        EXPECT_EQ(of_variants(f, &variant_layout::used_length), figures{24}) << name;
        EXPECT_EQ(f.base_size, 32u) << name;
    }
}

TEST(TrackingArea, OfARecordWithArrays) {
    const record& r = type("rec_parent_with_sing_child");
    const std::vector<std::pair<const char*, std::uint32_t>> told = {
        {"st_attr", 0},      {"ipa_attr", 1},          {"bool_attr", 2},       {"mac_attr", 3},
        {"ipp_attr", 4},     {"en_attr", 5},           {"int_attr", 6},        {"d_attr", 7},
        {"cal_attr", 8},     {"flg_attr", 9},          {"comp_attr", 10},      {"b_arr_attr", 52},
        {"ud_arr_attr", 64}, {"ud_nest_arr_attr", 80}, {"child_sing_oid", 96}, {"b_fixed_arr_attr", 97},
        {"binary_data", 101}};
    for (const auto& [name, byte] : told)
        EXPECT_EQ(attribute_of(r, name).track, byte) << name;
    EXPECT_EQ(r.tracking_alignment, 8u);
    EXPECT_EQ(attribute_of(type("ud_type"), "default_attr").track, 24u);
    EXPECT_EQ(attribute_of(type("ud_type"), "union_attr").track, 32u);
}

TEST(TrackingArea, OfARecordInAFixedArray) {
    // The whole byte, 64 element bytes, 64 areas.
    const record& r = type("trl_chan_pwr_info_data");
    const attribute& rows = attribute_of(r, "chan_pwr");
    const std::uint32_t row = type("trl_chan_pwr_map").variants.back().tracking_size;
    EXPECT_EQ(row, 11u);
    EXPECT_EQ(r.variants.back().tracking_size, rows.track + 1 + 64 + 64 * row);
}

TEST(TrackingArea, PointerOfANestedRecordIsAligned) {
    const auto b = model_of("bundle s\nrecord inner {\n n: u_int8\n v: u_int8[n]\n}\n"
                            "record outer {\n a: u_int8\n i: inner\n z: u_int8\n}\n");
    const record& outer = named_one(b->records, "outer");
    EXPECT_EQ(named_one(b->records, "inner").variants[0].tracking_size, 16u);
    EXPECT_EQ(attribute_of(outer, "i").track, 1u);
    EXPECT_EQ(attribute_of(outer, "z").track, 24u);
    EXPECT_EQ(outer.variants[0].tracking_size, 32u);
}

/// A value's room in an instance, told apart from the code under test.
std::pair<std::uint32_t, std::uint32_t> width_and_alignment(const attribute& a) {
    switch (a.form) {
    case shape::variable_array:
    case shape::counted_string:
    case shape::arm: return {8, 8};
    case shape::oid: return {48, 8};
    case shape::list: return {24, 8};
    case shape::fixed_string: return {a.extent, 1};
    default: break;
    }
    std::uint32_t width = 16, alignment = 8;
    if (a.type.value != nullptr)
        std::tie(width, alignment) = std::pair(a.type.value->width, a.type.value->alignment);
    if (a.type.of_record != nullptr) width = a.type.of_record->base_size;
    if (a.type.of_flag_set != nullptr) width = a.type.of_flag_set->base_size;
    return {a.form == shape::fixed_array ? width * a.extent : width, alignment};
}

TEST(Layout, EveryAttributeFollowsTheOneBeforeAtItsAlignment) {
    for (const auto& r : catalogue().records) {
        std::uint32_t at = r->list_element ? 40 : 11;
        for (const attribute& a : r->attributes) {
            const auto [width, alignment] = width_and_alignment(a);
            at = (at + alignment - 1) / alignment * alignment;
            EXPECT_EQ(a.offset, at) << r->name << "." << a.name;
            at += width;
            const bool last_of_variant = &a == &r->attributes.back() || (&a)[1].since != a.since;
            if (last_of_variant) {
                EXPECT_EQ(r->variants[static_cast<std::size_t>(a.since)].used_length, at) << r->name;
            }
        }
    }
}

TEST(Layout, UsedLengthAndSlopMakeTheBaseSize) {
    for (const auto& r : catalogue().records)
        for (const variant_layout& v : r->variants) {
            EXPECT_EQ(v.used_length + v.alloc_slop, r->base_size) << r->name;
            const std::uint32_t rounded = (v.used_length + 7) / 8 * 8;
            EXPECT_EQ(v.layout_size, rounded + (rounded <= 64 ? 8 : 16)) << r->name;
        }
}

TEST(Layout, ListElementsKeepRoomForTheirLinks) {
    EXPECT_TRUE(type("type_with_list").list_element);
    EXPECT_EQ(type("type_with_list").attributes.front().offset, 40u);
    EXPECT_FALSE(type("rec_with_list").list_element);
    EXPECT_EQ(attribute_of(type("ud_type_keyless_list"), "uint32_key").offset, 40u);
}

TEST(Layout, OfAllTypesIsAsPinned) {
    // Pinned with: trellisc layout schema/*.trellis > tests/compiler/catalogue.layout
    EXPECT_EQ(layout_text(catalogue()), content_of(TRELLIS_TEST_DIR "/catalogue.layout"))
        << "databases and peers see this layout: a change here is a change of the format";
}

TEST(Catalogue, HoldsWhatItHolds) {
    const bundle& b = catalogue();
    EXPECT_EQ(b.name, "trellis_test_types");
    EXPECT_EQ(b.records.size(), 103u);
    EXPECT_EQ(b.enumerations.size(), 15u);
    EXPECT_EQ(b.flag_sets.size(), 3u);
    EXPECT_EQ(b.tables.size(), 47u);
    EXPECT_EQ(b.messages.size(), 8u);
    EXPECT_EQ(b.registry.size(), 70u);
    EXPECT_EQ(b.registry[1], "tbl_bgp_state");
    EXPECT_EQ(b.registry[69], "tbl_NOAUTORENAMEtopLevelSing");
    std::size_t foreign = 0;
    std::vector<std::string> imports;
    for (const auto& i : b.imports) {
        imports.push_back(i->bundle_name);
        foreign += i->tables.size();
    }
    EXPECT_EQ(foreign, 23u);
    EXPECT_EQ(imports, (std::vector<std::string>{"skyband_enum_types", "nexa_comm", "peering_comm",
                                                 "peering_route_oper", "peering_emul_oper"}));
    const std::vector<std::string> first = {"const_default_type", "complex_comp_key", "enum_keys",
                                            "ipv4_addr_keys"};
    for (std::size_t i = 0; i < first.size(); ++i)
        EXPECT_EQ(b.records[i]->name, first[i]);
}

TEST(Catalogue, CountsOfVariants) {
    // Of all records of type information: a table and its table record have one variant each.
    std::map<std::size_t, std::vector<std::string>> by_count;
    std::size_t single = catalogue().tables.size() * 2 + catalogue().messages.size();
    const auto add = [&](const named& t) {
        if (t.variants.size() == 1)
            ++single;
        else
            by_count[t.variants.size()].push_back(t.name);
    };
    for (const auto& r : catalogue().records)
        add(*r);
    for (const auto& e : catalogue().enumerations)
        add(*e);
    for (const auto& f : catalogue().flag_sets)
        add(*f);
    EXPECT_EQ(single, 207u);
    EXPECT_EQ(by_count[2].size(), 6u);
    EXPECT_EQ(by_count[3].size(), 3u + 1u);
    EXPECT_EQ(by_count[4].size(), 5u);
    EXPECT_EQ(by_count[5], std::vector<std::string>{"ud_type"});
}

TEST(Catalogue, SiblingsHoldTheTablesThatItImports) {
    std::map<std::string, std::string> luids; // of tables, and "enum" for shared enumerations
    for (const source_text& text : texts_of(TRELLIS_SIBLINGS_DIR)) {
        const compiled sibling = compile({text});
        ASSERT_TRUE(sibling.good()) << told(sibling);
        for (const auto& t : sibling.model->tables)
            luids[sibling.model->name + "." + t->name] = t->luid_text;
        for (const auto& e : sibling.model->enumerations)
            if (e->shared) luids[sibling.model->name + "." + e->name] = "enum";
    }
    for (const auto& i : catalogue().imports) {
        for (const foreign_table& t : i->tables)
            EXPECT_EQ(luids[i->bundle_name + "." + t.name], t.luid_text) << t.name;
        for (const auto& e : i->enumerations)
            EXPECT_EQ(luids[i->bundle_name + "." + e->name], "enum") << e->name;
    }
}

} // namespace
} // namespace trellis::schema::testing
