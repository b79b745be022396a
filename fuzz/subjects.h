// The catalogue's types as fuzzing programs see them, and what is done to every object that a run has made,
// however it was made.
#pragma once

#include "fuzz/limited_database.h"
#include "tests/support/model_walker.h"

#include <string>
#include <vector>

namespace trellis::fuzz {

/// The bundle's description, read once.
const testing::schema_description& schema();
/// Records, enumerations and flag sets, in the order of their names within each.
const std::vector<std::string>& type_names();

/// Asks everything that only reads: binary form, text, XML, order, hash. None of it may fail but by an error
/// number.
void look_at(const std::string& type, limited_database& database, void* object);
/// Gives the object and its parts variants that let its end meet all they hold.
void restore_variants(const std::string& type, limited_database& database, void* object);

} // namespace trellis::fuzz
