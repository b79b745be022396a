// The way from schema texts to a model that the emitters can write out: read, build, check, lay out. Programs need
// this header, model.h, names.h and the emitters' entry, no other stage.
#pragma once

#include "schema/compiler/diagnostics.h"
#include "schema/compiler/model.h"
#include "schema/compiler/syntax.h"

#include <memory>
#include <string>
#include <vector>

namespace trellis::schema {

/// A schema text and the name that stands for it in diagnostics.
struct source_text {
    std::string name;
    std::string text;
};

struct compiled {
    std::unique_ptr<bundle> model;    // never null; laid out if there are no mistakes
    std::vector<diagnostic> mistakes; // in the order of the texts

    bool good() const { return mistakes.empty(); }
};

/// Takes any bytes and never fails but by telling mistakes.
compiled compile(const std::vector<source_text>& texts);
/// The same for what was read elsewhere, as from JSON (see json.h).
compiled compile(const std::vector<syntax::file>& files, diagnostics mistakes = {});

} // namespace trellis::schema
