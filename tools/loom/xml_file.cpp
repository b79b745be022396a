#include "xml_file.h"

#include "failure.h"

#include <loom_runtime/xml.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <pugixml.hpp>
#include <set>
#include <sstream>

namespace tool {
namespace {

// References and line ends stay as written, and so does a value of nothing but blanks.
constexpr unsigned parse_raw = pugi::parse_cdata | pugi::parse_ws_pcdata_single;

std::string contents_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    if (!file || !(contents << file.rdbuf()))
        throw failure(path + ": cannot be read", "check that the file is there and not empty");
    return std::move(contents).str();
}

/// The runtime's own parser decides what is well-formed; it also tells line and column.
void check_well_formed(const std::string& path, const std::string& text) {
    loom_xml_error error{};
    loom_xml_document* document = loom_xml_parse(text.data(), text.size(), &error);
    if (!document)
        throw failure(path + ":" + std::to_string(error.line) + ":" + std::to_string(error.column) +
                          ": is not well-formed XML: " + error.reason,
                      "mend the file at this place; nothing was imported");
    loom_xml_free(document);
}

std::string text_of_node(pugi::xml_node node) {
    std::ostringstream text;
    node.print(text, "", pugi::format_raw | pugi::format_no_escapes);
    return std::move(text).str();
}

pugi::xml_node parse(pugi::xml_document& document, const std::string& element) {
    if (!document.load_buffer(element.data(), element.size(), parse_raw, pugi::encoding_utf8))
        throw failure("an element is not well-formed: " + element.substr(0, 80));
    return document.document_element();
}

bool is_element(pugi::xml_node node) { return node.type() == pugi::node_element; }

/// An enumeration's or flag set's element: nothing but empty elements inside, and at least one.
bool holds_members(pugi::xml_node node) {
    bool any = false;
    for (pugi::xml_node child : node.children()) {
        if (!is_element(child) || child.first_child() || child.first_attribute()) return false;
        any = true;
    }
    return any;
}

void write_tag(std::ostream& out, pugi::xml_node node, const char* end) {
    out << '<' << node.name();
    for (const pugi::xml_attribute attribute : node.attributes())
        out << ' ' << attribute.name() << "=\"" << attribute.value() << '"';
    out << end;
}

/// Values and members on the line of their tags, records one child per line.
void write_node(std::ostream& out, pugi::xml_node node, unsigned depth) {
    const std::string indent(2 * depth, ' ');
    out << indent;
    if (!node.first_child()) {
        write_tag(out, node, "/>\n");
        return;
    }
    write_tag(out, node, ">");
    if (holds_members(node)) {
        for (const pugi::xml_node member : node.children())
            write_tag(out, member, "/>");
    } else if (is_element(node.first_child())) {
        out << '\n';
        for (const pugi::xml_node child : node.children())
            write_node(out, child, depth + 1);
        out << indent;
    } else {
        out << node.child_value();
    }
    out << "</" << node.name() << ">\n";
}

bool could_be_member(const std::string& text) {
    const auto is_name_character = [](unsigned char c) { return std::isalnum(c) || c == '_'; };
    return !text.empty() && !std::isdigit(static_cast<unsigned char>(text.front())) &&
           std::ranges::all_of(text, is_name_character);
}

void collect_paths(pugi::xml_node node, const std::string& prefix, std::set<std::string>& paths) {
    std::map<std::string, unsigned> positions;
    for (pugi::xml_node child : node.children()) {
        if (!is_element(child)) continue;
        const unsigned position = ++positions[child.name()];
        std::string path = prefix + child.name();
        if (position > 1) path += "[" + std::to_string(position) + "]";
        paths.insert(path);
        collect_paths(child, path + "/", paths);
    }
}

std::set<std::string> paths_of(const std::string& element) {
    pugi::xml_document document;
    std::set<std::string> paths;
    collect_paths(parse(document, element), {}, paths);
    return paths;
}

void collect_leaves(pugi::xml_node node, const std::string& prefix,
                    std::vector<std::pair<std::string, std::string>>& found) {
    for (pugi::xml_node child : node.children()) {
        if (!is_element(child)) continue;
        const std::string path = prefix + child.name();
        if (holds_members(child)) {
            std::string members;
            for (pugi::xml_node member : child.children())
                members += (members.empty() ? "" : "|") + std::string(member.name());
            found.emplace_back(path, members);
        } else if (std::ranges::any_of(child.children(), is_element)) {
            collect_leaves(child, path + ".", found);
        } else {
            found.emplace_back(path, child.text().get());
        }
    }
}

} // namespace

std::vector<record_element> read_record_elements(const std::string& path) {
    const std::string text = contents_of(path);
    check_well_formed(path, text);
    pugi::xml_document document;
    if (const auto result = document.load_buffer(text.data(), text.size(), parse_raw); !result)
        throw failure(path + ": cannot be read as XML: " + result.description());

    std::vector<record_element> elements;
    std::size_t line = 1, seen = 0;
    for (pugi::xml_node node : document.document_element().children()) {
        if (!is_element(node)) continue;
        const auto offset = static_cast<std::size_t>(std::max<std::ptrdiff_t>(node.offset_debug(), 0));
        line +=
            static_cast<std::size_t>(std::count(text.data() + seen, text.data() + std::max(offset, seen), '\n'));
        seen = std::max(offset, seen);
        elements.push_back({node.name(), node.attribute("table").value(), node.attribute("id").value(),
                            node.attribute("tenant").value(), node.attribute("src").value(), text_of_node(node),
                            line});
    }
    return elements;
}

void write_indented(std::ostream& out, const std::string& element, unsigned depth) {
    pugi::xml_document document;
    write_node(out, parse(document, element), depth);
}

std::vector<std::string> elements_lost(const std::string& given, const std::string& taken) {
    const std::set<std::string> wanted = paths_of(given), present = paths_of(taken);
    std::vector<std::string> lost;
    std::ranges::set_difference(wanted, present, std::back_inserter(lost));
    return lost;
}

std::vector<std::pair<std::string, std::string>> leaves(const std::string& element) {
    pugi::xml_document document;
    if (!document.load_buffer(element.data(), element.size(), pugi::parse_default | pugi::parse_ws_pcdata_single))
        throw failure("an element is not well-formed: " + element.substr(0, 80));
    std::vector<std::pair<std::string, std::string>> found;
    collect_leaves(document.document_element(), {}, found);
    return found;
}

std::string element_of(const std::string& name, const std::vector<std::pair<std::string, std::string>>& leaves) {
    pugi::xml_document document;
    const pugi::xml_node root = document.append_child(name.c_str());
    for (const auto& [path, value] : leaves) {
        pugi::xml_node node = root;
        std::istringstream steps(path);
        for (std::string step; std::getline(steps, step, '.');) {
            const pugi::xml_node existing = node.child(step.c_str());
            node = existing ? existing : node.append_child(step.c_str());
        }
        node.append_child(pugi::node_pcdata).set_value(value.c_str());
        std::istringstream members(value);
        for (std::string member; std::getline(members, member, '|');)
            if (could_be_member(member)) node.append_child(member.c_str());
    }
    std::ostringstream text;
    document.print(text, "", pugi::format_raw | pugi::format_no_declaration);
    return std::move(text).str();
}

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
        case '&': result += "&amp;"; break;
        case '<': result += "&lt;"; break;
        case '>': result += "&gt;"; break;
        case '"': result += "&quot;"; break;
        default: result += c;
        }
    }
    return result;
}

} // namespace tool
