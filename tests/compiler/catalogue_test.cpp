// What of the model only its users see, asked of the catalogue: call counters, and what its siblings lend it.
#include "schemas.h"

#include "schema/compiler/md5.h"
#include "schema/compiler/names.h"

#include <map>

namespace trellis::schema::testing {
namespace {

TEST(md5, is_that_of_known_texts) {
    EXPECT_EQ(hex(md5("")), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(hex(md5("message digest")), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(hex(md5("12345678901234567890123456789012345678901234567890123456789012345678901234567890")),
              "57edf4a22be3c955ac49da2e2107b67a");
    EXPECT_EQ(hex(md5(std::string(55, 'a'))), "ef1772b6dff9a122358552954ad0df65"); // the padding's edges
    EXPECT_EQ(hex(md5(std::string(56, 'a'))), "3b0c8ac703f828b04c6c197006d17218");
}

TEST(catalogue, types_know_their_first_function) {
    const auto functions = exported_functions(catalogue());
    const auto expect_first = [&](const auto& types, const char* operation) {
        for (const auto& each : types)
            EXPECT_EQ(functions[each->call_base].name, each->name + operation);
    };
    expect_first(catalogue().records, "_create");
    expect_first(catalogue().enumerations, "_variant_data_index_cap");
    expect_first(catalogue().flag_sets, "_variant_data_index_cap");
    expect_first(catalogue().tables, "_table_open");
    expect_first(catalogue().messages, "_action_message_create_shallow");
}

TEST(catalogue, siblings_hold_what_it_imports) {
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
