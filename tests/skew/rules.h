// What two versions of a schema owe each other, told on views of objects (model_walker.h): what of an object goes
// out, what a reader makes of it, and what both versions see in it. Pure functions; no bundle is needed.
#pragma once

#include "tests/support/model_walker.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <string>

namespace trellis::testing {

/// The newest variant of a type, -1 without it.
int newest_variant(const schema_description& schema, const std::string& type);

/// The view of an object cut down to what a writer of `schema` puts out for a peer of `peer`, null for one that it
/// knows nothing about: written variants, and the attributes, arms and bits within them. `*cut_down` becomes true
/// when the object or a part of it that goes out is newer than the peer.
nlohmann::json written_form(const schema_description& schema, const std::string& type, const nlohmann::json& view,
                            const schema_description* peer, bool* cut_down);

/// How a reader takes a written form.
struct reading {
    const schema_description& schema;                             // the reader's
    bool keeps_states;                                            // the reader is tracked
    bool states_arrive;                                           // the writer was tracked
    bool existing;                                                // the object is in use
    std::function<nlohmann::json(const std::string& type)> blank; // the view of a new object
};

/// The view of an object after reading: `before` with what `written` says.
nlohmann::json received_form(const reading& how, const std::string& type, const nlohmann::json& before,
                             const nlohmann::json& written);

/// What both versions know by name of an object with all its variants, as XML carries it. Null stands for a member
/// that the other does not know.
nlohmann::json shared_form(const schema_description& schema, const schema_description& other,
                           const std::string& type, const nlohmann::json& view);
/// Whether a reader's shared form holds all that the writer's does.
bool holds_shared(const nlohmann::json& writers, const nlohmann::json& readers);

} // namespace trellis::testing
