// Texts with placeholders, from which the emitters put sources together. A placeholder is a dollar sign and a word
// ("$T"); where several fit, the longest is taken. What the texts say stands in the emitters.
#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace trellis::schema {

/// A placeholder and what it becomes: a text, a number in decimal, or `true` and `false`.
struct substitution {
    std::string_view placeholder;
    std::string text;

    substitution(std::string_view what, std::string becomes) : placeholder(what), text(std::move(becomes)) {}
    template <std::integral Number>
    substitution(std::string_view what, Number becomes) : placeholder(what) {
        if constexpr (std::is_same_v<Number, bool>)
            text = becomes ? "true" : "false";
        else
            text = std::to_string(becomes);
    }
};
using substitutions = std::vector<substitution>;

/// `text` with its placeholders replaced. `$H` (handle and domain) and `$e` (the error word) are known everywhere.
/// Throws std::logic_error for any other that `with` does not have.
std::string substitute(std::string_view text, const substitutions& with);

/// A source that grows piece by piece; all pieces know some placeholders.
class template_writer {
  public:
    explicit template_writer(substitutions known) : known_(std::move(known)) {}

    /// Appends a piece. Placeholders of `here` are known to it alone and come before those of the writer.
    template_writer& add(std::string_view piece, const substitutions& here = {});
    /// Appends a text as it stands, dollar signs included.
    template_writer& add_plain(std::string_view text);
    /// What was added.
    std::string take() { return std::move(text_); }

  private:
    substitutions known_;
    std::string text_;
};

} // namespace trellis::schema
