// Bundles and their exported names, as other parts of the runtime look for them.
#pragma once

namespace loom {
/// The address of an exported name in the shared object (or program) that holds the module's node, or null.
void* find_symbol_of_module(const char* module, const char* symbol);
} // namespace loom
