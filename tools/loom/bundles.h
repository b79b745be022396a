// Finding and loading bundles: the shared libraries whose tables and types the tool works on. It knows none of
// them by name; what they hold is read from the module list, their type information and their function records.
#pragma once

#include "arguments.h"

#include <loom_runtime/runtime.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tool {

class bundles {
  public:
    /// Takes `--bundle` and `--bundle-path` from the command line; loads nothing yet.
    explicit bundles(const arguments& line);
    ~bundles();
    bundles(const bundles&) = delete;
    bundles& operator=(const bundles&) = delete;

    /// Loads what `--bundle` names or, without it, every bundle in the search path.
    void load_all();
    /// Makes sure that the bundle with that module name is loaded, for `reason`; throws failure with the cure.
    void require(const std::string& module, const std::string& reason);

    /// The bundle's library; the module must be loaded. Empty when it is part of the program.
    static std::string library_path(const std::string& module);

  private:
    void load_file(const std::string& path);
    void load_named();
    std::vector<std::filesystem::path> candidates() const;

    std::vector<std::string> named_;
    std::vector<std::filesystem::path> search_path_;
    std::vector<loom_bundle*> loaded_;
    bool named_loaded_ = false;
};

/// Calls `visit` with each loaded module, in the order of loading.
void each_module(const std::function<void(const loom_module_node&)>& visit);
/// Calls `visit` with each type of the module, in the order of its type list.
void each_type(const loom_module_node& module, const std::function<void(const loom_type_info&)>& visit);

/// A NUL-padded text field of a type-information record.
template <std::size_t size>
std::string text_of(const char (&field)[size]) {
    std::size_t length = 0;
    while (length < size && field[length])
        ++length;
    return {field, length};
}

/// A function of a bundle by its exported name; null when there is none.
template <class Function>
Function* symbol(const loom_bundle* bundle, const std::string& name) {
    return reinterpret_cast<Function*>(loom_bundle_symbol(bundle, name.c_str()));
}

/// A handle on a loaded bundle by its module name.
using bundle_handle = std::unique_ptr<loom_bundle, decltype(&loom_bundle_unload)>;
bundle_handle find_bundle(const std::string& module);

} // namespace tool
