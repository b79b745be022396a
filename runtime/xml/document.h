// A parsed XML document whose elements are found by path. Reading every element of a document once by its absolute
// path takes time linear in the document:
//   - a step looks through the first few children; where they do not settle it, the parent gets an index of its
//     children by name, once;
//   - `//name` is answered from an index of all elements by name, built at the first such path;
//   - the element that the last path's steps but one led to is remembered, since the fields of a record are read
//     one after the other.
// What elements say is told by element_text; what values make of it, by runtime/values.
#pragma once

#include "runtime/text/xml_content.h"

#include <loom/text.h>

#include <pugixml.hpp>

#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace loom {

/// One step of a path: a name and the position among the elements of that name, from 1; 0 when none is given.
struct path_step {
    std::string_view name;
    u64 position = 0;
};

/// Elements by name: for each name those that carry it, in document order. Two blocks of memory, so that documents
/// may have many.
class name_index {
  public:
    explicit name_index(const std::vector<pugi::xml_node>& elements);
    std::span<const pugi::xml_node> named(std::string_view name) const;

  private:
    struct group {
        std::string_view name;
        u32 begin;
        u32 count;
    };
    std::vector<group> groups_;            // by name
    std::vector<pugi::xml_node> elements_; // group by group
};

/// The text of one element: its own characters without those of elements inside. Views of it live as long as it.
class element_text {
  public:
    /// May throw bad_alloc: a text in several pieces is joined.
    explicit element_text(pugi::xml_node element);
    element_text(const element_text&) = delete;
    element_text& operator=(const element_text&) = delete;

    /// 0, or 22 when the element says that its text is encoded and it is not.
    u32 error() const { return error_; }
    /// The characters as they stand, whatever the encoding.
    std::string_view raw() const { return raw_; }
    /// Bytes of the decoded text.
    size_t size() const { return hexadecimal_ ? raw_.size() / 2 : raw_.size(); }
    /// Writes size() bytes.
    void copy_to(void* bytes) const;

  private:
    std::string_view raw_;
    std::string joined_;
    bool hexadecimal_ = false;
    u32 error_ = 0;
};
} // namespace loom

/// The opaque document of the platform headers.
struct loom_xml_document {
    pugi::xml_document tree;

    /// The element at the path: 0, 2 when there is none, 22 when the path is none, 12 when an index has no memory.
    trellis::u32 find(std::string_view path, pugi::xml_node& found) const;
    /// How many elements the last step of the path stands for: 0 with the number, or 22 or 12 as above.
    trellis::u32 count(std::string_view path, trellis::u32& number) const;

    trellis::u64 visited() const { return visited_; }

  private:
    using elements = std::span<const pugi::xml_node>;
    struct node_hash {
        size_t operator()(pugi::xml_node node) const { return node.hash_value(); }
    };

    trellis::u32 find_prefix(std::string_view prefix, pugi::xml_node& found) const;
    pugi::xml_node step(pugi::xml_node parent, const loom::path_step& step) const;
    trellis::u32 count_children(pugi::xml_node parent, std::string_view name) const;
    elements children(pugi::xml_node parent, std::string_view name) const;
    elements anywhere(std::string_view name) const;

    // Filled by look-ups, which do not change what the document says.
    mutable std::unordered_map<pugi::xml_node, loom::name_index, node_hash> children_;
    mutable std::optional<loom::name_index> anywhere_;
    mutable std::string last_prefix_;
    mutable pugi::xml_node last_element_;
    mutable trellis::u64 visited_ = 0;
};
