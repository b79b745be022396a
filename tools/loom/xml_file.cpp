#include "xml_file.h"

#include "failure.h"

#include <loom_runtime/xml.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <pugixml.hpp>
#include <span>
#include <sstream>

namespace tool {
namespace {

// References and line ends stay as written, and so does a value of nothing but blanks.
constexpr unsigned parse_raw = pugi::parse_cdata | pugi::parse_ws_pcdata_single;

std::string contents_of(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::file_status status = fs::status(path, ignored);
    if (fs::is_directory(status) || fs::is_character_file(status) || fs::is_block_file(status))
        throw failure(path + ": is no file of text", "name an XML file");
    std::ifstream file(path, std::ios::binary);
    if (!file) throw failure(path + ": cannot be read: " + std::strerror(errno), "name an XML file that is there");
    std::ostringstream contents;
    if (!(contents << file.rdbuf())) throw failure(path + ": is empty", "name an XML file with records");
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

/// What an element holds besides elements.
struct content {
    std::string text; // without the blanks around it
    bool has_text = false;
    bool has_elements = false;
    std::vector<std::string> attributes;
};
using contents_by_path = std::map<std::string, content>;

std::string trimmed(const std::string& text) {
    constexpr const char* blanks = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(blanks);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

content content_of(pugi::xml_node node) {
    content found;
    std::string text;
    for (const pugi::xml_node child : node.children()) {
        found.has_elements = found.has_elements || is_element(child);
        text += child.value();
    }
    found.has_text = !text.empty();
    found.text = trimmed(text);
    for (const pugi::xml_attribute attribute : node.attributes())
        found.attributes.emplace_back(attribute.name());
    return found;
}

void collect_contents(pugi::xml_node node, const std::string& prefix, contents_by_path& found) {
    std::map<std::string, unsigned> positions;
    for (pugi::xml_node child : node.children()) {
        if (!is_element(child)) continue;
        const unsigned position = ++positions[child.name()];
        std::string path = prefix + child.name();
        if (position > 1) path += "[" + std::to_string(position) + "]";
        found.emplace(path, content_of(child));
        collect_contents(child, path + "/", found);
    }
}

contents_by_path contents_of_element(const std::string& element) {
    pugi::xml_document document;
    contents_by_path found;
    collect_contents(parse(document, element), {}, found);
    return found;
}

std::optional<long long> whole_number(const std::string& text) {
    long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

/// The attributes that readers of values know, and those of an element that stands for a record.
constexpr std::string_view value_attributes[] = {"state", "encoding"};
constexpr std::string_view record_attributes[] = {"table", "id", "tenant", "src", "state"};

std::string unknown_attribute(const content& given, std::span<const std::string_view> known) {
    for (const std::string& name : given.attributes)
        if (std::ranges::find(known, name) == known.end()) return name;
    return {};
}

/// What `taken` has lost of `given`, both at `path`, or an empty text.
std::string loss_at(const std::string& path, const content& given, const content& taken) {
    if (!given.text.empty() && (given.has_elements || taken.has_elements || !taken.has_text))
        return "no place for the text '" + given.text.substr(0, 40) + "' in " + path;
    const auto wanted = whole_number(given.text), made = whole_number(taken.text);
    if (wanted && made && *wanted != *made)
        return "the number " + given.text + " of " + path + " becomes " + taken.text;
    const std::string unknown = unknown_attribute(given, value_attributes);
    return unknown.empty() ? "" : "no meaning for the attribute " + unknown + " of " + path;
}

/// The first reference that is neither of a character nor one of XML's own, or an empty text. The declarations of
/// a document are not read.
std::string unknown_reference(const std::string& text) {
    static constexpr std::string_view known[] = {"amp", "lt", "gt", "quot", "apos"};
    for (std::size_t at = 0; (at = text.find('&', at)) != std::string::npos; ++at) {
        const std::size_t end = text.find(';', at);
        const std::string name = text.substr(at + 1, end == std::string::npos ? 0 : end - at - 1);
        if (!name.starts_with('#') && std::ranges::find(known, name) == std::end(known))
            return text.substr(at, std::min<std::size_t>(end - at + 1, 20));
    }
    return {};
}

std::string unknown_reference(pugi::xml_node node) {
    if (node.type() == pugi::node_pcdata) return unknown_reference(std::string(node.value()));
    for (const pugi::xml_node child : node.children())
        if (std::string found = unknown_reference(child); !found.empty()) return found;
    return {};
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

/// A document may hold several elements, a file of records has one.
void refuse_second_root(const std::string& path, const std::string& text, const pugi::xml_document& document) {
    pugi::xml_node second = document.document_element().next_sibling();
    while (second && !is_element(second))
        second = second.next_sibling();
    if (!second) return;
    // The node's place is its name's, behind the bracket.
    const auto offset = static_cast<std::size_t>(std::max<std::ptrdiff_t>(second.offset_debug() - 1, 0));
    const std::string before = text.substr(0, offset);
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const std::size_t column = offset - (before.rfind('\n') + 1) + 1;
    throw failure(path + ":" + std::to_string(line) + ":" + std::to_string(column) +
                      ": A second element outside of any element",
                  "put all records into one root element");
}

} // namespace

std::vector<record_element> read_record_elements(const std::string& path) {
    const std::string text = contents_of(path);
    check_well_formed(path, text);
    pugi::xml_document document;
    if (const auto result = document.load_buffer(text.data(), text.size(), parse_raw); !result)
        throw failure(path + ": cannot be read as XML: " + result.description());
    refuse_second_root(path, text, document);

    std::vector<record_element> elements;
    std::size_t line = 1, seen = 0;
    for (pugi::xml_node node : document.document_element().children()) {
        const std::string stray = is_element(node) ? "" : trimmed(node.value());
        if (!is_element(node) && stray.empty()) continue;
        auto offset = static_cast<std::size_t>(std::max<std::ptrdiff_t>(node.offset_debug(), 0));
        if (!stray.empty()) offset = std::min(text.find(stray, offset), text.size());
        line +=
            static_cast<std::size_t>(std::count(text.data() + seen, text.data() + std::max(offset, seen), '\n'));
        seen = std::max(offset, seen);
        const std::string place = path + ":" + std::to_string(line) + ": ";
        if (!stray.empty())
            throw failure(place + "the text '" + stray.substr(0, 40) + "' stands beside the records",
                          "records are the elements directly inside the root element; put all else in comments");
        if (const std::string unknown = unknown_reference(node); !unknown.empty())
            throw failure(place + node.name() + ": " + unknown + " refers to nothing that XML knows",
                          "write the character itself, or & as &amp;");
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

std::vector<std::string> losses(const std::string& given, const std::string& taken) {
    const contents_by_path wanted = contents_of_element(given), present = contents_of_element(taken);
    std::vector<std::string> lost;
    pugi::xml_document document;
    const content record = content_of(parse(document, given));
    if (!record.text.empty())
        lost.push_back("no place for the text '" + record.text.substr(0, 40) + "' beside the elements");
    if (const std::string unknown = unknown_attribute(record, record_attributes); !unknown.empty())
        lost.push_back("no meaning for the attribute " + unknown);
    for (const auto& [path, content] : wanted) {
        const auto found = present.find(path);
        std::string loss =
            found == present.end() ? "no place for the element " + path : loss_at(path, content, found->second);
        if (!loss.empty()) lost.push_back(std::move(loss));
    }
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
