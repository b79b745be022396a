// What all emitters share: the output tree, exported functions as prototypes and one-line definitions, the call
// counters, and small helpers for text. What is emitted stands in one emit_*.cpp per family.
#pragma once

#include "schema/compiler/model.h"

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace trellis::schema {

/// Files below one directory. A file whose content is already right is left alone, so that nothing that depends
/// on it is built again.
class output_tree {
  public:
    explicit output_tree(std::filesystem::path root) : root_(std::move(root)) {}

    /// Takes `content` for the file at `path`, relative to the root; paths with `include/` or `src/`.
    void add(const std::string& path, std::string content);
    /// Hexadecimal digest over all paths and contents added so far.
    std::string digest() const;
    /// Writes what has changed. Headers of earlier runs that are no longer part of the tree are removed.
    /// Throws std::runtime_error with the path when a file cannot be written.
    void write() const;

  private:
    std::filesystem::path root_;
    std::map<std::string, std::string> files_;
};

/// One exported function. Parameters are written as C; their last words are the argument names.
struct function {
    std::string name;       // "ud_type_marshal"
    std::string result;     // "uint32_t"
    std::string parameters; // "loom_handle* handle, uint32_t domain"
    std::string worker;     // "record::marshal<models::ud_type>"; called with the same arguments
    std::string doc;        // one or more sentences, no comment marks
};

/// What a type adds to the library: prototypes of its public header and the part of a source unit with its
/// exports. Units hold several types.
struct type_text {
    std::string name;
    std::vector<std::string> includes; // of the unit: "models/ud_type.h", "trellis_test_types/ud_type.h"
    std::string prototypes;
    std::string exports;
    unsigned weight = 0; // functions; units are balanced by it
};

/// One run of the emitters over a bundle.
class emission {
  public:
    emission(const bundle& source, const std::vector<exported_function>& functions, output_tree& out);

    const bundle& source;
    output_tree& out;

    /// Adds prototype and definition. Throws std::logic_error when the function is not in the bundle's list of
    /// functions, or was added before.
    void add(type_text& to, const function& what);
    /// The definition alone, for functions that no public header of a type declares.
    std::string definition(const function& what);
    /// Place of a function's call counter.
    unsigned counter(const std::string& name);
    unsigned counters() const { return static_cast<unsigned>(functions_.size()); }
    /// `name` for a constant, with an underscore behind it when a function is called like that.
    std::string constant_name(const std::string& name) const;
    /// Throws std::logic_error naming the first function of the list that nobody has emitted.
    void require_all_emitted() const;

    /// `include/<bundle>/<name>.h`: guard, includes, `extern "C"`; `includes` are complete ("<loom/loom.h>").
    void public_header(const std::string& name, const std::string& summary,
                       const std::vector<std::string>& includes, const std::string& body);

  private:
    std::unordered_map<std::string, unsigned> functions_;
    std::set<std::string> emitted_;
};

/// One operation of a family, in the notation of the emitters' tables: `$T` is the type's C name, `$H` stands for
/// handle and domain, `$e` for the error word; further placeholders are the caller's.
struct operation {
    const char* suffix; // "marshal"; behind the type's name and an underscore
    const char* result;
    const char* parameters;
    const char* doc;
};

/// Placeholder and what it becomes.
using substitutions = std::vector<std::pair<std::string_view, std::string>>;

/// Replaces every placeholder of `with`, then `$H` and `$e`.
std::string substitute(std::string_view text, const substitutions& with);
/// The function `<prefix>_<suffix>`, calling `<family>::<worker><<model>>`; a suffix that is a C++ keyword gets
/// a trailing underscore as worker.
function make_function(const operation& op, const std::string& prefix, std::string_view family,
                       const std::string& model, const substitutions& with);
/// A suffix as the name of a worker.
std::string worker_name(std::string_view suffix);

/// Names in the public headers: "struct ud_type", "uint32_t".
std::string c_type(const type_ref& type);
/// The facade as a model names it: "types::ud_type", "trellis::types::u_int32".
std::string facade(const type_ref& type);
/// What get_value and set_value pass: "int32_t" for enumerations.
std::string plain_c_type(const type_ref& type);
bool is_plain_value(const type_ref& type); // scalars and booleans
bool is_any_enumeration(const type_ref& type);

/// For a facade whose holders use the model: the model's name in front of the facade, and inside it.
std::string model_declaration(const std::string& bundle, const std::string& type);
std::string model_alias(const std::string& type);

/// The doc comment of a schema element as a C comment, or nothing.
std::string doc_comment(const std::string& text, std::string_view indent = "");
/// "1, 2, 3"
std::string joined(const std::vector<std::string>& parts, std::string_view between = ", ");
/// A C string literal with quotes.
std::string c_literal(std::string_view text);
/// 16 bytes as "0x01, 0x02, ...".
std::string byte_list(const std::uint8_t* bytes, std::size_t count);
/// The file's first line: what wrote it and from what.
std::string generated_notice(const bundle& source, const std::string& what);

} // namespace trellis::schema
