// Sizes, offsets and tracking areas: the pinned layout of all types, and figures that no new pin may change.
#include "schemas.h"

#include "schema/compiler/layout.h"
#include "schema/compiler/report.h"

#include <map>

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

TEST(TrackingArea, PointerOfANestedRecordIsAligned) {
    const auto b = model_of("bundle s\nrecord inner {\n n: u_int8\n v: u_int8[n]\n}\n"
                            "record outer {\n a: u_int8\n i: inner\n z: u_int8\n}\n");
    const record& outer = named_one(b->records, "outer");
    EXPECT_EQ(named_one(b->records, "inner").variants[0].tracking_size, 16u);
    EXPECT_EQ(attribute_of(outer, "i").track, 1u);
    EXPECT_EQ(attribute_of(outer, "z").track, 24u);
    EXPECT_EQ(outer.variants[0].tracking_size, 32u);
}

TEST(Layout, OfAllTypesIsAsPinned) {
    // Pinned with: trellisc layout schema/*.trellis > tests/compiler/catalogue.layout
    EXPECT_EQ(layout_text(catalogue()), content_of(TRELLIS_TEST_DIR "/catalogue.layout"))
        << "databases and peers see this layout: a change here is a change of the format";
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
