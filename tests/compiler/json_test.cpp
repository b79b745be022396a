// JSON: the way there and back, and what the reader tells of JSON that is no schema.
#include "schemas.h"

#include "schema/compiler/json.h"
#include "schema/compiler/names.h"

#include <nlohmann/json.hpp>

namespace trellis::schema::testing {
namespace {

compiled from_json(const std::string& text) {
    diagnostics mistakes;
    const std::vector<syntax::file> files = {read_json("s.json", text, mistakes)};
    return compile(files, std::move(mistakes));
}

TEST(Json, OfTheCatalogueGivesTheSameModelAgain) {
    const std::string text = json_text(catalogue());
    const compiled again = from_json(text);
    ASSERT_TRUE(again.good()) << told(again);
    EXPECT_EQ(json_text(*again.model), text);
    std::vector<std::string> before, after;
    for (const exported_function& f : exported_functions(catalogue()))
        before.push_back(f.name);
    for (const exported_function& f : exported_functions(*again.model))
        after.push_back(f.name);
    EXPECT_EQ(after, before);
}

TEST(Json, OfTheSiblingsGivesTheSameModelAgain) {
    for (const source_text& text : texts_of(TRELLIS_SIBLINGS_DIR)) {
        const compiled sibling = compile({text});
        const compiled again = from_json(json_text(*sibling.model));
        ASSERT_TRUE(again.good()) << told(again);
        EXPECT_EQ(json_text(*again.model), json_text(*sibling.model)) << text.name;
    }
}

TEST(Json, HoldsWhatToolsAskFor) {
    const auto root = nlohmann::json::parse(json_text(catalogue()));
    const auto& records = root["records"];
    const auto found =
        std::find_if(records.begin(), records.end(), [](const auto& r) { return r["name"] == "ud_type"; });
    ASSERT_NE(found, records.end());
    EXPECT_EQ((*found)["base_size"], 616);
    EXPECT_EQ((*found)["variants"].size(), 5u);
    EXPECT_EQ((*found)["luid"].get<std::string>().size(), 32u);
}

class NoSchema : public ::testing::TestWithParam<const char*> {};
TEST_P(NoSchema, IsToldAndNotTaken) { EXPECT_FALSE(from_json(GetParam()).good()); }
INSTANTIATE_TEST_SUITE_P(
    Json, NoSchema,
    ::testing::Values(
        "", "[]", "{", "null", "{}", R"({"bundle": 3})", R"({"bundle": "s", "records": {}})",
        R"({"bundle": "s", "records": [1]})", R"({"bundle": "s", "records": [{"name": "a"}]})",
        R"({"bundle": "s", "records": [{"name": "a", "attributes": [{"name": "x"}]}]})",
        R"({"bundle": "s", "records": [{"name": "a", "attributes": [{"name": "x", "type": "u_int8", "since": -1}]}]})",
        R"({"bundle": "s", "records": [{"name": "a", "trace_unit": 3, "attributes": [{"name": "x", "type": "u_int8"}]}]})",
        R"({"bundle": "s", "records": [{"name": "a", "attributes": [{"name": "x", "type": "u_int8", "since": 2}]}]})",
        R"({"bundle": "s", "enumerations": [{"name": "e", "members": [{"name": "A", "value": 18446744073709551615}]}]})",
        R"({"bundle": "s", "tables": [{"name": "t", "payload": "p", "key": []}]})",
        R"({"bundle": "s", "imports": [{"bundle": "o", "tables": [{"name": "t", "luid": "x"}]}]})"));

} // namespace
} // namespace trellis::schema::testing
