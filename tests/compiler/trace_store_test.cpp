// Trace statements: the places noted in the model are where the texts stand. What texts there are, and how many,
// is tested where they come out: in the file of the catalogue's library.
#include "schemas.h"

#include "schema/compiler/trace_store.h"

namespace trellis::schema::testing {
namespace {

TEST(trace_store, places_of_types_and_attributes) {
    const auto entries = trace_entries(catalogue());
    const auto text_at = [&](int unit, std::uint32_t place) {
        return entries[static_cast<std::size_t>(unit)][place].text;
    };
    for (const auto& r : catalogue().records) {
        EXPECT_EQ(text_at(r->trace_unit, r->trace_base + 2), "error in " + r->name + " create: %s");
        for (const attribute& a : r->attributes) {
            if (a.shape != attribute_shape::oid) continue;
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

} // namespace
} // namespace trellis::schema::testing
