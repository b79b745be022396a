#include "schema/compiler/template_text.h"

#include <span>
#include <stdexcept>

namespace trellis::schema {
namespace {

/// The substitution with the longest placeholder that `text` begins with; of equal ones the first. Null: none.
const substitution* matching(std::string_view text, std::span<const substitution> among,
                             const substitution* best = nullptr) {
    for (const substitution& each : among)
        if (text.starts_with(each.placeholder) &&
            (best == nullptr || each.placeholder.size() > best->placeholder.size()))
            best = &each;
    return best;
}

void append(std::string& result, std::string_view text, std::span<const substitution> first,
            std::span<const substitution> then) {
    static const substitution everywhere[] = {{"$H", "loom_handle* handle, uint32_t domain"},
                                              {"$e", "uint32_t* err"}};
    for (std::size_t dollar; (dollar = text.find('$')) != std::string_view::npos;) {
        result += text.substr(0, dollar);
        text.remove_prefix(dollar);
        const substitution* found = matching(text, everywhere, matching(text, then, matching(text, first)));
        if (found == nullptr) throw std::logic_error("unknown placeholder in " + std::string(text));
        result += found->text;
        text.remove_prefix(found->placeholder.size());
    }
    result += text;
}

} // namespace

std::string substitute(std::string_view text, const substitutions& with) {
    std::string result;
    append(result, text, with, {});
    return result;
}

template_writer& template_writer::add(std::string_view piece, const substitutions& here) {
    append(text_, piece, here, known_);
    return *this;
}

template_writer& template_writer::add_plain(std::string_view text) {
    text_ += text;
    return *this;
}

} // namespace trellis::schema
