#include "schema/compiler/lexer.h"

#include <algorithm>

namespace trellis::schema {
namespace {

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_word(char c) { return is_letter(c) || is_digit(c); }
bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
bool is_mark(char c) { return std::string_view("{}[]:,=").find(c) != std::string_view::npos; }

class scanner {
  public:
    explicit scanner(std::string_view text) : text_(text) {}

    std::vector<token> all() {
        while (at_ < text_.size())
            next();
        add(token_kind::line_end, at_, 0);
        add(token_kind::end, at_, 0);
        return std::move(tokens_);
    }

  private:
    void next() {
        const char c = text_[at_];
        if (c == '\n') {
            add(token_kind::line_end, at_, 1);
            ++line_;
            line_start_ = at_;
        } else if (is_blank(c))
            ++at_;
        else if (starts("//"))
            comment();
        else if (is_letter(c))
            add(token_kind::name, at_, word_length(at_));
        else if (is_digit(c) || (c == '-' && is_digit(peek(1))))
            number();
        else if (starts("->") || starts(".."))
            add(token_kind::mark, at_, 2);
        else if (is_mark(c))
            add(token_kind::mark, at_, 1);
        else
            unknown();
    }

    char peek(std::size_t ahead) const { return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\n'; }
    bool starts(std::string_view what) const { return text_.substr(at_).starts_with(what); }

    std::size_t word_length(std::size_t from) const {
        const auto* begin = text_.begin() + static_cast<std::ptrdiff_t>(from);
        return static_cast<std::size_t>(std::find_if_not(begin, text_.end(), is_word) - begin);
    }

    void number() {
        const std::size_t sign = text_[at_] == '-' ? 1 : 0;
        const std::size_t length = word_length(at_ + sign);
        const std::string_view body = text_.substr(at_ + sign, length);
        const bool plain = std::all_of(body.begin(), body.end(), is_digit);
        add(plain ? token_kind::number : token_kind::digits, at_, sign + length);
    }

    void comment() {
        const std::size_t end = std::min(text_.find('\n', at_), text_.size());
        const bool doc = starts("///") && !starts("////");
        if (doc) {
            const bool alone =
                tokens_.empty() || tokens_.back().line != line_ || tokens_.back().kind == token_kind::line_end;
            std::size_t from = at_ + 3;
            std::size_t to = end;
            if (from < to && text_[from] == ' ') ++from;
            while (to > from && is_blank(text_[to - 1]))
                --to;
            const int column = static_cast<int>(at_ - line_start_) + 1;
            tokens_.push_back({alone ? token_kind::doc : token_kind::trailing_doc, text_.substr(from, to - from),
                               line_, column});
        }
        at_ = end;
    }

    void unknown() {
        std::size_t length = 1;
        auto goes_on = [&](char c) {
            return !is_word(c) && !is_blank(c) && !is_mark(c) && c != '\n' && c != '/' && c != '-' && c != '.';
        };
        while (at_ + length < text_.size() && goes_on(text_[at_ + length]))
            ++length;
        add(token_kind::unknown, at_, length);
    }

    void add(token_kind kind, std::size_t from, std::size_t length) {
        tokens_.push_back({kind, text_.substr(from, length), line_, static_cast<int>(from - line_start_) + 1});
        at_ = from + length;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    std::size_t line_start_ = 0;
    int line_ = 1;
    std::vector<token> tokens_;
};

} // namespace

std::vector<token> tokens_of(std::string_view text) { return scanner(text).all(); }

} // namespace trellis::schema
