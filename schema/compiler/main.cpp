// trellisc: the schema compiler as a program. Reads files, runs the stages of schema.h, prints or writes what was
// asked for. Exit status: 0 done, 1 mistakes in a schema (or, for compare, changes that break peers), 2 wrong use
// or a file that cannot be read or written.
#include "schema/compiler/compare.h"
#include "schema/compiler/emit_bundle.h"
#include "schema/compiler/json.h"
#include "schema/compiler/names.h"
#include "schema/compiler/reader.h"
#include "schema/compiler/report.h"
#include "schema/compiler/schema.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace {

using namespace trellis::schema;

constexpr int done = 0, mistaken = 1, misused = 2;

constexpr std::string_view usage = R"(trellisc - compiles trellis schemas

  trellisc check FILE...                       tells all mistakes of a schema
  trellisc layout FILE...                      prints sizes, offsets and tracking areas of all types
  trellisc json FILE...                        prints the model as JSON
  trellisc names FILE...                       prints the exported functions, one a line, in function order
  trellisc generate --out DIR [--units N] [--bundle NAME] FILE...
                                               writes the sources of the bundle, which must have the name if it is given
  trellisc compare OLD NEW                     tells what changed, and what of it breaks peers of the old schema
  trellisc help                                prints this
  trellisc --version                           prints the version

All files of a bundle are given together, in any order; files of JSON (*.json) as printed by `trellisc json` do as
well. OLD and NEW are a file or a directory of *.trellis files each.
Exit status: 0 done, 1 mistakes in a schema or changes that break peers, 2 wrong use or unreadable files.
)";

struct wrong_use : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string reason() { return std::generic_category().message(errno); }

int tell(const std::vector<diagnostic>& mistakes) {
    for (const diagnostic& d : mistakes)
        std::cerr << text_of(d) << '\n';
    if (mistakes.empty()) return done;
    std::cerr << mistakes.size() << (mistakes.size() == 1 ? " mistake\n" : " mistakes\n");
    return mistaken;
}

std::string content_of(const std::filesystem::path& path) {
    if (std::filesystem::is_directory(path))
        throw std::runtime_error("cannot read " + path.string() +
                                 ": it is a directory; name the files of the schema");
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path.string() + ": " + reason() +
                                 "; name the files of the schema");
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

compiled compile_files(const std::vector<std::string>& names) {
    if (names.empty()) throw wrong_use("no schema file given");
    for (const std::string& name : names)
        if (name.starts_with("--")) throw wrong_use("there is no option " + name + " here");
    diagnostics mistakes;
    std::vector<syntax::file> files;
    for (const std::string& name : names) {
        const auto read = std::filesystem::path(name).extension() == ".json" ? read_json : read_schema;
        files.push_back(read(name, content_of(name), mistakes));
    }
    return compile(files, std::move(mistakes));
}

/// A file, or the *.trellis files of a directory in the order of their names.
std::vector<std::string> schema_files(const std::string& name) {
    if (!std::filesystem::is_directory(name)) return {name};
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(name))
        if (entry.path().extension() == ".trellis") found.push_back(entry.path().string());
    if (found.empty()) throw std::runtime_error("cannot compare " + name + ": it holds no file *.trellis");
    std::sort(found.begin(), found.end());
    return found;
}

int check(const std::vector<std::string>& files) {
    const compiled result = compile_files(files);
    if (!result.good()) return tell(result.mistakes);
    std::cout << summary(*result.model);
    return done;
}

template <class Print>
int print(const std::vector<std::string>& files, Print what) {
    const compiled result = compile_files(files);
    if (!result.good()) return tell(result.mistakes);
    std::cout << what(*result.model);
    return done;
}

std::string names_text(const bundle& b) {
    std::string text;
    for (const exported_function& f : exported_functions(b))
        text += f.name + "\n";
    return text;
}

int generate(const std::vector<std::string>& arguments) {
    std::vector<std::string> files;
    std::string out, name;
    unsigned units = default_units;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& a = arguments[i];
        if (a != "--out" && a != "--units" && a != "--bundle") {
            files.push_back(a);
            continue;
        }
        if (++i == arguments.size()) throw wrong_use(a + " needs a value");
        const std::string& value = arguments[i];
        if (a == "--out")
            out = value;
        else if (a == "--bundle")
            name = value;
        else if (const auto r = std::from_chars(value.data(), value.data() + value.size(), units);
                 r.ec != std::errc() || r.ptr != value.data() + value.size() || units == 0 || units > 1000)
            throw wrong_use("--units takes a number from 1 to 1000");
    }
    if (out.empty()) throw wrong_use("generate needs --out DIR");
    const compiled result = compile_files(files);
    if (!result.good()) return tell(result.mistakes);
    if (!name.empty() && name != result.model->name)
        return tell(
            {{result.model->where, "the bundle is called \"" + result.model->name + "\" and not \"" + name + "\"",
              "change one of both; trellis_add_bundle takes the schema's name behind NAME"}});
    emit_bundle(*result.model, out, units);
    return done;
}

int compare(const std::vector<std::string>& arguments) {
    if (arguments.size() != 2) throw wrong_use("compare needs OLD and NEW");
    const compiled before = compile_files(schema_files(arguments[0]));
    const compiled after = compile_files(schema_files(arguments[1]));
    const int status = tell(before.mistakes) | tell(after.mistakes);
    if (status != done) return status;
    bool breaks = false;
    for (const change& c : changes_between(*before.model, *after.model)) {
        std::cout << text_of(c) << '\n';
        breaks = breaks || c.breaks;
    }
    return breaks ? mistaken : done;
}

int run(const std::vector<std::string>& words) {
    if (words.empty()) throw wrong_use("no command given");
    const std::string& command = words.front();
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    if (command == "help" || command == "--help" || command == "-h") {
        std::cout << usage;
        return done;
    }
    if (command == "--version") {
        std::cout << "trellisc " TRELLIS_VERSION "\n";
        return done;
    }
    if (command == "check") return check(rest);
    if (command == "layout") return print(rest, layout_text);
    if (command == "json") return print(rest, json_text);
    if (command == "names") return print(rest, names_text);
    if (command == "generate") return generate(rest);
    if (command == "compare") return compare(rest);
    throw wrong_use("unknown command " + command);
}

} // namespace

int main(int count, char** arguments) {
    try {
        const int status = run({arguments + 1, arguments + count});
        std::cout.flush();
        if (!std::cout) throw std::runtime_error("cannot write the output");
        return status;
    } catch (const wrong_use& e) {
        std::cerr << "trellisc: " << e.what() << "\nTry trellisc help.\n";
    } catch (const std::exception& e) {
        std::cerr << "trellisc: " << e.what() << '\n';
    }
    return misused;
}
