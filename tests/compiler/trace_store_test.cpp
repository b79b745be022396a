// Trace statements: how many each unit has, that their texts come to the told size, and that the places noted in
// the model are where the texts stand.
#include "schemas.h"

#include "schema/compiler/trace_store.h"

#include <numeric>

namespace trellis::schema::testing {
namespace {

TEST(TraceStore, CountsPerUnit) {
    const auto entries = trace_entries(catalogue());
    const std::vector<std::size_t> told = {4503, 3996, 1, 252, 3300, 4102};
    for (std::size_t unit = 0; unit < told.size(); ++unit)
        EXPECT_EQ(entries[unit].size(), told[unit]) << unit;
}

TEST(TraceStore, SizeOfAllTexts) {
    std::size_t size = 0;
    for (const auto& unit : trace_entries(catalogue()))
        for (const trace_entry& e : unit)
            size += 1 + e.text.size(); // a blank before each
    EXPECT_EQ(size, 654521u);
}

TEST(TraceStore, PlacesOfTypesAndAttributes) {
    const auto entries = trace_entries(catalogue());
    const auto text_at = [&](int unit, std::uint32_t place) {
        return entries[static_cast<std::size_t>(unit)][place].text;
    };
    for (const auto& r : catalogue().records) {
        EXPECT_EQ(text_at(r->trace_unit, r->trace_base + 2), "error in " + r->name + " create: %s");
        for (const attribute& a : r->attributes) {
            if (a.form != shape::oid) continue;
            // Of the oid's fourteen statements, the reference's release stands behind the four of its state flags
            // and the one of its references.
            EXPECT_EQ(text_at(r->trace_unit, a.trace + 5),
                      r->name + " destroy: Failed to release oid reference for " + a.name + " oid. Error %s");
        }
    }
    for (const auto& t : catalogue().tables)
        EXPECT_EQ(text_at(4, t->trace_base),
                  "Opening table " + t->name + " in create mode while not holding a write lock");
}

TEST(TraceStore, NamesTheKey) {
    const auto entries = trace_entries(catalogue());
    std::vector<std::string> texts;
    for (const trace_entry& e : entries[4])
        texts.push_back(e.text);
    for (const char* text : {"tbl_top_level_sing insert record exists for rec_sing_type singleton_id",
                             "tbl_top_level_comp_key insert record exists for comp_key ",
                             "tbl_top_level_compound_key insert record exists for compound_key ",
                             "tbl_top_level_test_no_auto_rename_key delete, record not found for ud_test_type "
                             "NOAUTORENAMEuint32key"})
        EXPECT_EQ(std::count(texts.begin(), texts.end(), text), 1) << text;
}

TEST(TraceStore, HoldsNoPlaceholder) {
    for (const auto& unit : trace_entries(catalogue()))
        for (const trace_entry& e : unit)
            EXPECT_EQ(e.text.find('<'), std::string::npos) << e.text;
}

} // namespace
} // namespace trellis::schema::testing
