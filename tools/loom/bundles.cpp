#include "bundles.h"

#include "elf_sections.h"
#include "failure.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace fs = std::filesystem;

namespace tool {
namespace {

std::string library_name(const std::string& module) { return "lib" + module + ".so"; }

/// Directories of bundles beside the program, as the build and an installation lay them out.
std::vector<fs::path> own_directories() {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    if (error) return {};
    std::vector<fs::path> directories;
    for (const char* relative : {"../lib", LOOM_LIBRARY_DIRECTORY}) {
        const fs::path directory = fs::weakly_canonical(program.parent_path() / relative, error);
        if (!error && std::ranges::find(directories, directory) == directories.end())
            directories.push_back(directory);
    }
    return directories;
}

std::string list_of(const std::vector<fs::path>& directories) {
    std::string text;
    for (const fs::path& directory : directories)
        text += (text.empty() ? "" : ", ") + directory.string();
    return text.empty() ? "no directory" : text;
}

} // namespace

bundles::bundles(const arguments& line) : named_(line.values("--bundle")) {
    for (const std::string& directory : line.values("--bundle-path")) {
        if (!fs::is_directory(directory))
            throw failure(directory + ": is no directory", "give --bundle-path a directory that holds bundles");
        search_path_.emplace_back(directory);
    }
    if (const char* variable = std::getenv("LOOM_BUNDLE_PATH")) {
        std::istringstream stream(variable);
        for (std::string directory; std::getline(stream, directory, ':');)
            if (!directory.empty()) search_path_.emplace_back(directory);
    }
    std::ranges::move(own_directories(), std::back_inserter(search_path_));
}

bundles::~bundles() {
    for (loom_bundle* bundle : loaded_)
        loom_bundle_unload(bundle);
}

void bundles::load_file(const std::string& path) {
    loom_bundle* bundle = loom_bundle_load(path.c_str());
    if (!bundle)
        throw runtime_failure("name a library that trellisc made; 'ldd " + path + "' tells what it misses");
    loaded_.push_back(bundle);
}

void bundles::load_named() {
    if (named_loaded_) return;
    named_loaded_ = true;
    for (const std::string& name : named_) {
        if (name.find('/') != std::string::npos || fs::is_regular_file(name)) {
            if (!fs::is_regular_file(name))
                throw failure(name + ": there is no such bundle", "give --bundle the path of a bundle's library");
            load_file(fs::absolute(name).string());
            continue;
        }
        const auto holds = [&](const fs::path& directory) {
            return fs::is_regular_file(directory / library_name(name));
        };
        const auto found = std::ranges::find_if(search_path_, holds);
        if (found == search_path_.end())
            throw failure("bundle " + name + " is not in " + list_of(search_path_),
                          "name its directory with --bundle-path or the library itself with --bundle");
        load_file((*found / library_name(name)).string());
    }
}

std::vector<fs::path> bundles::candidates() const {
    std::vector<fs::path> found;
    for (const fs::path& directory : search_path_) {
        std::error_code error;
        for (const fs::directory_entry& entry : fs::directory_iterator(directory, error))
            if (entry.path().filename().string().starts_with("lib") && entry.path().extension() == ".so" &&
                elf_sections::file_has_section(entry.path().string(), ".corvo"))
                found.push_back(entry.path());
    }
    std::ranges::sort(found);
    return found;
}

void bundles::load_all() {
    load_named();
    if (!named_.empty()) return;
    const std::vector<fs::path> found = candidates();
    if (found.empty())
        throw failure("there is no bundle in " + list_of(search_path_),
                      "name the library with --bundle, or its directory with --bundle-path");
    for (const fs::path& path : found)
        load_file(path.string());
}

void bundles::require(const std::string& module, const std::string& reason) {
    load_named();
    if (find_bundle(module)) return;
    for (const fs::path& directory : search_path_) {
        const fs::path path = directory / library_name(module);
        if (!fs::is_regular_file(path)) continue;
        load_file(path.string());
        if (find_bundle(module)) return;
        throw failure(path.string() + ": is not the bundle " + module);
    }
    throw failure(reason + " needs the bundle " + module + ", which is not in " + list_of(search_path_),
                  "name " + library_name(module) + " with --bundle, or its directory with --bundle-path");
}

bundle_handle find_bundle(const std::string& module) {
    return {loom_bundle_find(module.c_str()), &loom_bundle_unload};
}

std::string bundles::library_path(const std::string& module) {
    const bundle_handle bundle = find_bundle(module);
    const char* path = bundle ? loom_bundle_path(bundle.get()) : nullptr;
    return path ? path : "";
}

void each_module(const std::function<void(const loom_module_node&)>& visit) {
    for (const loom_module_node* node = loom_module_tot_root.first; node; node = node->next)
        visit(*node);
}

void each_type(const loom_module_node& module, const std::function<void(const loom_type_info&)>& visit) {
    for (loom_type_info* const* info = module.type_infos; *info; ++info)
        visit(**info);
}

} // namespace tool
