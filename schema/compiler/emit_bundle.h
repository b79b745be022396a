// Entry of the emitters: a checked and laid out bundle becomes a tree of sources and headers. The families stand
// in emit_families.h.
#pragma once

#include "schema/compiler/model.h"

#include <filesystem>

namespace trellis::schema {

/// Source units of a bundle when the caller does not say how many.
constexpr unsigned default_units = 8;

/// Writes the bundle's sources below `out`: `include/<bundle>/`, `src/`. Types are spread over exactly `units`
/// files `src/unit_<NN>.cpp`, so that a build knows all names beforehand (see cmake/trellis_bundle.cmake). The
/// same bundle gives the same files; a file is written only when its content changes. Throws std::runtime_error
/// when a file cannot be written.
void emit_bundle(const bundle& source, const std::filesystem::path& out, unsigned units = default_units);

class output_tree;
/// The same without a directory: adds the sources to `tree`, which stands in emit_support.h.
void compose_bundle(const bundle& source, output_tree& tree, unsigned units = default_units);

} // namespace trellis::schema
