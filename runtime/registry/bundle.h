// Bundles and their exported names, as other parts of the runtime look for them.
#pragma once

#include <string>

namespace loom {
/// The address of an exported name in the shared object (or program) that holds the module's node, or null.
void* find_symbol_of_module(const char* module, const char* symbol);
/// The file of that object; empty when no module of the name is loaded.
std::string path_of_module(const std::string& module);
} // namespace loom
