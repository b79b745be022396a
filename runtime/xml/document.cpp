// Paths through a parsed document: steps, the indexes that keep them cheap, and the text of elements.
#include "runtime/xml/document.h"

#include <algorithm>
#include <new>
#include <utility>

namespace loom {
namespace {

/// So many children are looked at one by one before a parent gets an index.
constexpr u32 children_without_index = 16;

bool is_element(pugi::xml_node node) { return node.type() == pugi::node_element; }

bool is_named(pugi::xml_node node, std::string_view name) {
    return is_element(node) && std::strncmp(node.name(), name.data(), name.size()) == 0 &&
           node.name()[name.size()] == '\0';
}

/// Reads "name" or "name[n]"; false when it is neither.
bool parse_step(std::string_view text, path_step& step) {
    const size_t bracket = text.find('[');
    step.name = text.substr(0, bracket);
    step.position = 0;
    if (step.name.empty()) return false;
    if (bracket == std::string_view::npos) return true;
    std::string_view digits = text.substr(bracket + 1);
    if (digits.size() < 2 || digits.size() > 19 || digits.back() != ']') return false;
    digits.remove_suffix(1);
    for (const char digit : digits) {
        if (digit < '0' || digit > '9') return false;
        step.position = step.position * 10 + static_cast<u64>(digit - '0');
    }
    return step.position != 0;
}

/// A path taken apart: what stands before its last step, and that step.
struct split_path {
    std::string_view prefix; // "" and "/" stand for the document, "//" for any place in it
    std::string_view last;
};

split_path split(std::string_view path) {
    if (path.starts_with("///")) return {};
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return {{}, path};
    const bool leading = slash == 0 || (slash == 1 && path[0] == '/');
    return {path.substr(0, leading ? slash + 1 : slash), path.substr(slash + 1)};
}

pugi::xml_node pick(std::span<const pugi::xml_node> elements, u64 position) {
    const u64 index = position ? position - 1 : 0;
    return index < elements.size() ? elements[index] : pugi::xml_node();
}

bool is_text(pugi::xml_node node) { return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata; }
} // namespace

name_index::name_index(const std::vector<pugi::xml_node>& elements) : elements_(elements.size()) {
    // Elements of one name often follow each other: only a new name is looked up.
    std::unordered_map<std::string_view, u32> numbers;
    std::vector<u32> number_of(elements.size());
    for (size_t i = 0; i < elements.size(); ++i) {
        const std::string_view name = elements[i].name();
        if (i && groups_[number_of[i - 1]].name == name) {
            number_of[i] = number_of[i - 1];
        } else {
            number_of[i] = numbers.try_emplace(name, static_cast<u32>(groups_.size())).first->second;
            if (number_of[i] == groups_.size()) groups_.push_back({name, 0, 0});
        }
        ++groups_[number_of[i]].count;
    }
    u32 begin = 0;
    for (group& each : groups_)
        each.begin = std::exchange(begin, begin + each.count) + each.count;
    for (size_t i = elements.size(); i-- > 0;)
        elements_[--groups_[number_of[i]].begin] = elements[i];
    std::sort(groups_.begin(), groups_.end(), [](const group& a, const group& b) { return a.name < b.name; });
}

std::span<const pugi::xml_node> name_index::named(std::string_view name) const {
    const auto found =
        std::lower_bound(groups_.begin(), groups_.end(), name,
                         [](const group& each, std::string_view wanted) { return each.name < wanted; });
    if (found == groups_.end() || found->name != name) return {};
    return std::span(elements_).subspan(found->begin, found->count);
}

element_text::element_text(pugi::xml_node element) {
    u32 pieces = 0;
    for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
        if (!is_text(child)) continue;
        if (++pieces == 2) joined_ = raw_;
        if (pieces == 1)
            raw_ = child.value();
        else
            raw_ = joined_ += child.value();
    }
    const pugi::xml_attribute encoding = element.attribute("encoding");
    if (!encoding) return;
    hexadecimal_ = std::strcmp(encoding.value(), "hex") == 0;
    if (!hexadecimal_ || !is_hexadecimal(raw_)) error_ = LOOM_EINVAL;
}

void element_text::copy_to(void* bytes) const {
    if (hexadecimal_)
        decode_hexadecimal(raw_, bytes);
    else if (!raw_.empty())
        std::memcpy(bytes, raw_.data(), raw_.size());
}
} // namespace loom

using namespace loom;

u32 loom_xml_document::find(std::string_view path, pugi::xml_node& found) const try {
    found = {};
    if (path.empty()) return LOOM_ENOENT;
    const split_path parts = split(path);
    path_step last;
    if (!parse_step(parts.last, last)) return LOOM_EINVAL;
    if (parts.prefix == "//") {
        found = pick(anywhere(last.name), last.position);
        return found ? 0 : LOOM_ENOENT;
    }
    pugi::xml_node parent;
    if (const u32 error = find_prefix(parts.prefix, parent)) return error;
    found = step(parent, last);
    return found ? 0 : LOOM_ENOENT;
} catch (const std::bad_alloc&) {
    return LOOM_ENOMEM;
}

u32 loom_xml_document::count(std::string_view path, u32& number) const try {
    number = 0;
    if (path.empty()) return 0;
    const split_path parts = split(path);
    path_step last;
    if (!parse_step(parts.last, last)) return LOOM_EINVAL;
    u32 error = 0;
    pugi::xml_node found;
    if (last.position) {
        error = find(path, found);
        number = error == 0;
    } else if (parts.prefix == "//") {
        number = static_cast<u32>(anywhere(last.name).size());
    } else {
        error = find_prefix(parts.prefix, found);
        if (error == 0) number = count_children(found, last.name);
    }
    return error == LOOM_ENOENT ? 0 : error;
} catch (const std::bad_alloc&) {
    return LOOM_ENOMEM;
}

u32 loom_xml_document::find_prefix(std::string_view prefix, pugi::xml_node& found) const {
    if (prefix.empty() || prefix == "/") {
        found = tree;
        return 0;
    }
    if (last_element_ && prefix == last_prefix_) {
        found = last_element_;
        return 0;
    }
    // Steps are taken one by one: a path may be as deep as the document.
    const bool any_place = prefix.starts_with("//");
    std::string_view rest = prefix.substr(any_place ? 2 : prefix[0] == '/' ? 1 : 0);
    pugi::xml_node element = tree;
    bool first = true;
    while (true) {
        const size_t slash = rest.find('/');
        path_step next;
        if (!parse_step(rest.substr(0, slash), next)) return LOOM_EINVAL;
        // The steps that follow a missing element are still looked at, so that a path that is none says so.
        if (element) element = first && any_place ? pick(anywhere(next.name), next.position) : step(element, next);
        first = false;
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    if (!element) return LOOM_ENOENT;
    last_prefix_ = prefix;
    last_element_ = found = element;
    return 0;
}

pugi::xml_node loom_xml_document::step(pugi::xml_node parent, const path_step& step) const {
    if (!children_.contains(parent)) {
        u32 looked_at = 0;
        u64 left = step.position ? step.position : 1;
        pugi::xml_node child = parent.first_child();
        for (; child && looked_at < children_without_index; child = child.next_sibling(), ++looked_at)
            if (is_named(child, step.name) && --left == 0) break;
        visited_ += looked_at;
        if (!child || looked_at < children_without_index) return child;
    }
    return pick(children(parent, step.name), step.position);
}

u32 loom_xml_document::count_children(pugi::xml_node parent, std::string_view name) const {
    if (!children_.contains(parent)) {
        u32 looked_at = 0;
        u32 number = 0;
        pugi::xml_node child = parent.first_child();
        for (; child && looked_at < children_without_index; child = child.next_sibling(), ++looked_at)
            if (is_named(child, name)) ++number;
        visited_ += looked_at;
        if (!child) return number;
    }
    return static_cast<u32>(children(parent, name).size());
}

loom_xml_document::elements loom_xml_document::children(pugi::xml_node parent, std::string_view name) const {
    auto index = children_.find(parent);
    if (index == children_.end()) {
        std::vector<pugi::xml_node> all;
        for (pugi::xml_node child = parent.first_child(); child; child = child.next_sibling()) {
            ++visited_;
            if (is_element(child)) all.push_back(child);
        }
        index = children_.try_emplace(parent, all).first;
    }
    ++visited_;
    return index->second.named(name);
}

loom_xml_document::elements loom_xml_document::anywhere(std::string_view name) const {
    if (!anywhere_) {
        // In document order and without recursion, since documents may be deep.
        std::vector<pugi::xml_node> all;
        pugi::xml_node node = tree.first_child();
        while (node) {
            ++visited_;
            if (is_element(node)) all.push_back(node);
            pugi::xml_node next = node.first_child();
            for (; !next && node; node = node.parent())
                next = node.next_sibling();
            node = next;
        }
        anywhere_.emplace(all);
    }
    ++visited_;
    return anywhere_->named(name);
}
