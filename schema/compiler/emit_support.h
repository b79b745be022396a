// What all emitters share: the output tree, exported functions as prototypes and one-line definitions, the call
// counters, and small helpers for text. What is emitted stands in one emit_*.cpp per family, mostly as templates
// (template_text.h).
#pragma once

#include "schema/compiler/operations.h"

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

    /// Adds prototypes and definitions of all functions of a group, a line each. Throws std::logic_error when one
    /// is not in the bundle's list of functions, or was added before.
    void add(type_text& to, const operation_group& group);
    unsigned counters() const { return static_cast<unsigned>(functions_.size()); }
    /// `name` for a constant, with an underscore behind it when a function is called like that.
    std::string constant_name(const std::string& name) const;
    /// Throws std::logic_error naming the first function of the list that nobody has emitted.
    void require_all_emitted() const;

    /// A source that begins with the notice of its origin and knows the placeholder `$bundle` beside those of
    /// `known`, which `summary` may use.
    template_writer writer(const std::string& summary, substitutions known = {}) const;
    /// `include/<bundle>/<name>.h`: guard, includes, `extern "C"`; `includes` are complete ("<loom/loom.h>").
    void public_header(const std::string& name, const std::string& summary,
                       const std::vector<std::string>& includes, const std::string& body);

  private:
    /// Place of a function's call counter.
    unsigned counter(const std::string& name);

    std::unordered_map<std::string, unsigned> functions_;
    std::set<std::string> emitted_;
};

/// The doc comment of a schema element as a C comment, or nothing.
std::string doc_comment(const std::string& text, std::string_view indent = "");
/// "1, 2, 3"
std::string joined(const std::vector<std::string>& parts, std::string_view between = ", ");
/// A C string literal with quotes.
std::string c_literal(std::string_view text);
/// 16 bytes as "0x01, 0x02, ...".
std::string byte_list(const std::uint8_t* bytes, std::size_t count);

} // namespace trellis::schema
