// XML files of table records: cut into the elements that become one record each, and written out again. The text
// of a value is never changed on the way: references stay as they are written.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace tool {

/// An element that stands for one table record.
struct record_element {
    std::string name;     // the table's type
    std::string instance; // attribute `table`: the table's own name, empty when it is the type's
    std::string id;       // attribute `id`: the table's id, empty when it has none
    std::string tenant;   // attributes `tenant` and `src`, empty when they are not given
    std::string source;
    std::string text;     // the whole element
    std::size_t line = 0; // where it begins, from 1
};

/// Reads a file: the record elements are the children of its root element. Throws failure with line and cure when
/// it cannot be read or is not well-formed.
std::vector<record_element> read_record_elements(const std::string& path);

/// The element, one child per line, indented by `depth` steps.
void write_indented(std::ostream& out, const std::string& element, unsigned depth);

/// What a reader of `given` has lost who made `taken` of it, in words with the path of each element and its
/// position, as in "no place for the element trl_radio_operation_config/chan_pwr[65]". Elements, texts,
/// attributes, and numbers that come out as others are compared; a value may be written in several ways.
std::vector<std::string> losses(const std::string& given, const std::string& taken);

/// The leaves inside the element as pairs of path and value, in order. An element that holds only empty elements
/// (an enumeration, a flag set) is a leaf with their names.
std::vector<std::pair<std::string, std::string>> leaves(const std::string& element);

/// An element with the leaves inside, the reverse of `leaves`. A value that could be the name of an enumeration's
/// member stands there in both ways, as text and as an empty element; a reader takes the one that it knows.
std::string element_of(const std::string& name, const std::vector<std::pair<std::string, std::string>>& leaves);

/// `&`, `<`, `>` and quotes as references.
std::string escaped(const std::string& text);

} // namespace tool
