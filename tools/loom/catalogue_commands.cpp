// Commands on libraries: bundles, types. And on the trace files that programs with them write: trace.
#include "commands.h"
#include "failure.h"
#include "manifest.h"
#include "trace_lines.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <map>

namespace tool {
namespace {

/// What people call the kinds of the manifest, in the order in which they are told.
struct kind_name {
    std::string_view word;
    std::string_view name;
    std::string_view plural;
};
constexpr kind_name kind_names[] = {{"type", "record", "records"},     {"enum", "enumeration", "enumerations"},
                                    {"flag", "flag set", "flag sets"}, {"tabl", "table", "tables"},
                                    {"trec", "table record", ""},      {"mess", "message", "messages"}};

std::string_view name_of_kind(const std::string& word) {
    const auto found = std::ranges::find(kind_names, word, &kind_name::word);
    return found == std::end(kind_names) ? std::string_view(word) : found->name;
}

std::string census(const manifest& listed) {
    std::string text;
    for (const kind_name& kind : kind_names) {
        const auto count = std::ranges::count(listed.lines, kind.word, &manifest_line::kind);
        if (count == 0 || kind.plural.empty()) continue;
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " " +
                std::string(count == 1 ? kind.name : kind.plural);
    }
    return text;
}

std::map<std::string, std::string> names_by_luid(const loom_module_node& module) {
    std::map<std::string, std::string> names;
    each_type(module, [&](const loom_type_info& info) { names[text_of(info.luid_text)] = text_of(info.name); });
    return names;
}

/// The kinds that `--kind` asks for; all when it is not given.
bool wanted_kind(const arguments& line, const manifest_line& listed) {
    const std::optional<std::string> kind = line.value("--kind");
    return !kind || *kind == listed.kind || *kind == name_of_kind(listed.kind);
}

void check_kind(const arguments& line) {
    const std::optional<std::string> kind = line.value("--kind");
    const auto matches = [&](const kind_name& each) { return each.word == *kind || each.name == *kind; };
    if (kind && std::ranges::none_of(kind_names, matches))
        throw usage_failure("there is no kind '" + *kind + "'",
                            "take record, enumeration, 'flag set', table, 'table record' or message");
}

void list_module(const loom_module_node& module, const arguments& line) {
    const std::string path = bundles::library_path(module.name);
    const manifest listed = read_manifest(path);
    const std::map<std::string, std::string> names = names_by_luid(module);
    std::cout << module.name << ": " << census(listed) << '\n';
    for (const manifest_line& each : listed.lines) {
        if (!wanted_kind(line, each)) continue;
        const auto name = names.find(each.luid_text);
        std::cout << "  " << each.luid_text << "  " << std::left << std::setw(12) << name_of_kind(each.kind)
                  << "  " << std::right << std::setw(5) << each.size << " bytes  variant " << each.highest_variant
                  << "  " << (name == names.end() ? "(not loaded)" : name->second) << '\n';
    }
}

} // namespace

int list_bundles(context& c) {
    c.loaded.load_all();
    each_module([](const loom_module_node& module) {
        const std::string path = bundles::library_path(module.name);
        std::cout << module.name << "\n  " << path << "\n  " << census(read_manifest(path)) << '\n';
    });
    return exit_good;
}

int list_types(context& c) {
    check_kind(c.line);
    c.loaded.load_all();
    const std::span<const std::string> wanted = c.line.from(0);
    unsigned listed = 0;
    each_module([&](const loom_module_node& module) {
        if (!wanted.empty() && std::ranges::find(wanted, module.name) == wanted.end()) return;
        list_module(module, c.line);
        ++listed;
    });
    if (listed < wanted.size())
        throw failure("not all of these bundles are loaded", "see them with 'loom bundles'");
    return exit_good;
}

int decode_trace(context& c) {
    c.loaded.load_all();
    print_trace_file(std::cout, c.line[0]);
    return exit_good;
}

} // namespace tool
