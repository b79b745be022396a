#include "schema/compiler/reader.h"

#include "schema/compiler/lexer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <functional>
#include <limits>
#include <utility>

namespace trellis::schema {
namespace {

using syntax::word;

constexpr std::array<std::string_view, 12> statements = {"bundle", "group",    "groups", "order",
                                                         "import", "registry", "record", "enum",
                                                         "shared", "flags",    "table",  "message"};
constexpr int newest_possible_variant = 126;
constexpr std::uint32_t longest_run = 1024;
constexpr std::size_t most_parts = 4096; // of a record, enumeration or flag set

std::string spelled(const token& t) {
    switch (t.kind) {
    case token_kind::line_end: return "the end of the line";
    case token_kind::end: return "the end of the file";
    case token_kind::doc:
    case token_kind::trailing_doc: return "a doc comment";
    default: return "\"" + std::string(t.text.substr(0, 40)) + "\"";
    }
}

/// Two names that differ in one number, taken apart: q2_string, q30_string.
struct name_run {
    std::string before, behind;
    std::uint32_t first = 0, last = 0;
};
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool read_number(std::string_view digits, std::uint32_t& into) {
    if (digits.empty() || (digits[0] == '0' && digits.size() > 1)) return false; // 007 does not count on to 8
    const auto r = std::from_chars(digits.data(), digits.data() + digits.size(), into);
    return r.ec == std::errc() && r.ptr == digits.data() + digits.size();
}
std::optional<name_run> run_between(const std::string& first, const std::string& last) {
    std::size_t before = 0;
    while (before < first.size() && before < last.size() && first[before] == last[before])
        ++before;
    while (before > 0 && is_digit(first[before - 1]))
        --before;
    std::size_t behind = 0;
    const std::size_t most = std::min(first.size(), last.size()) - before;
    while (behind < most && first[first.size() - 1 - behind] == last[last.size() - 1 - behind])
        ++behind;
    while (behind > 0 && is_digit(first[first.size() - behind]))
        --behind;
    name_run run{first.substr(0, before), first.substr(first.size() - behind), 0, 0};
    const auto number = [&](const std::string& name, std::uint32_t& into) {
        return read_number(std::string_view(name).substr(before, name.size() - before - behind), into);
    };
    if (!number(first, run.first) || !number(last, run.last) || run.first >= run.last) return std::nullopt;
    return run;
}

class reader {
  public:
    reader(const std::string& name, std::string_view text, diagnostics& out)
        : name_(name), tokens_(tokens_of(text)), out_(out) {
        file_.name = name;
    }

    syntax::file read() {
        while (!at(token_kind::end)) {
            if (take_if(token_kind::line_end) || take_doc()) continue;
            if (!statement()) {
                skip_line();
                take_mark("}"); // of no block
            }
            pending_doc_.clear();
        }
        return std::move(file_);
    }

  private:
    // ---- Tokens --------------------------------------------------------------------------------------------

    const token& now() const { return tokens_[at_]; }
    const token& after() const { return tokens_[std::min(at_ + 1, tokens_.size() - 1)]; }
    const token& take() { return tokens_[at_ + 1 < tokens_.size() ? at_++ : at_]; }
    bool at(token_kind kind) const { return now().kind == kind; }
    bool at_mark(std::string_view mark) const { return at(token_kind::mark) && now().text == mark; }
    bool at_word(std::string_view text) const { return at(token_kind::name) && now().text == text; }
    bool take_if(token_kind kind) { return at(kind) && (take(), true); }
    bool take_mark(std::string_view mark) { return at_mark(mark) && (take(), true); }
    bool take_word(std::string_view text) { return at_word(text) && (take(), true); }
    location where(const token& t) const { return {name_, t.line, t.column}; }

    bool fail(const token& t, std::string wrong, std::string cure) {
        out_.add(where(t), std::move(wrong), std::move(cure));
        return false;
    }
    /// Says that `what` was expected instead of the token at hand.
    bool missing(const std::string& what, const std::string& cure) {
        return fail(now(), what + " expected, not " + spelled(now()), cure);
    }

    /// Goes behind the line's end; what the line opens is skipped up to its closing brace, a brace that closes
    /// an outer block is left.
    void skip_line() {
        int open = 0;
        while (!at(token_kind::end)) {
            if (at_mark("{")) ++open;
            if (at_mark("}") && --open < 0) return;
            if (at(token_kind::line_end) && (open == 0 || statement_starts(after_line_ends()))) return;
            take();
        }
    }
    std::size_t after_line_ends() const {
        std::size_t i = at_;
        while (tokens_[i].kind == token_kind::line_end || tokens_[i].kind == token_kind::doc)
            ++i;
        return i;
    }
    /// A statement of a file begins here: inside a block, its closing brace is missing.
    bool statement_starts(std::size_t i) const {
        const token& t = tokens_[i];
        if (t.kind != token_kind::name || i + 1 >= tokens_.size()) return false;
        if (std::find(statements.begin(), statements.end(), t.text) == statements.end()) return false;
        const token& next = tokens_[i + 1];
        return next.kind == token_kind::name || (next.kind == token_kind::mark && next.text == "{");
    }

    bool take_doc() {
        if (!at(token_kind::doc) && !at(token_kind::trailing_doc)) return false;
        append_doc(pending_doc_, take().text);
        return true;
    }
    static void append_doc(std::string& doc, std::string_view line) {
        if (!doc.empty()) doc += '\n';
        doc += line;
    }
    std::string taken_doc() { return std::exchange(pending_doc_, {}); }

    /// The end of a declaration: a doc comment behind it joins its doc.
    bool line_ends(std::string& doc) {
        if (at(token_kind::trailing_doc)) append_doc(doc, take().text);
        if (at(token_kind::line_end) || at(token_kind::end) || at_mark("}")) return true;
        return fail(now(), "unexpected " + spelled(now()),
                    "end the line before it; each declaration has its own line");
    }
    bool line_ends() {
        std::string ignored;
        return line_ends(ignored);
    }

    // ---- Words ---------------------------------------------------------------------------------------------

    bool name(word& into, const std::string& what, const std::string& cure) {
        if (!at(token_kind::name)) return missing(what, cure);
        const token& t = take();
        into = {std::string(t.text), where(t)};
        return true;
    }
    bool keyword(std::string_view text, const std::string& cure) {
        return take_word(text) || missing("\"" + std::string(text) + "\"", cure);
    }
    bool mark(std::string_view text, const std::string& cure) {
        return take_mark(text) || missing("\"" + std::string(text) + "\"", cure);
    }
    template <class Number>
    bool number(Number& into, Number least, Number most, const std::string& what) {
        const std::string range =
            "write a whole number from " + std::to_string(least) + " to " + std::to_string(most);
        if (!at(token_kind::number)) return missing(what, range);
        const token& t = take();
        std::int64_t value = 0;
        const bool fits = std::from_chars(t.text.data(), t.text.data() + t.text.size(), value).ec == std::errc() &&
                          value >= static_cast<std::int64_t>(least) && value <= static_cast<std::int64_t>(most);
        if (!fits) return fail(t, what + " " + std::string(t.text) + " is out of range", range);
        into = static_cast<Number>(value);
        return true;
    }
    /// `A, B, C`; a line may end behind a comma.
    bool names(std::vector<word>& into, const std::string& what) {
        do {
            while (take_if(token_kind::line_end) || take_if(token_kind::trailing_doc)) {
            }
            word w;
            if (!name(w, what, "list names with commas between them")) return false;
            into.push_back(std::move(w));
        } while (take_mark(","));
        return line_ends();
    }
    /// `A` or `A1 .. A9`, also `A1_b .. A9_b`: the names, in order.
    bool run_of_names(std::vector<word>& into, const std::string& what, const std::string& cure) {
        word first;
        if (!name(first, what, cure)) return false;
        const token& dots = now();
        if (!take_mark("..")) {
            into.push_back(std::move(first));
            return true;
        }
        word last;
        if (!name(last, "the last name of the run", "write it like the first: item_1 .. item_9")) return false;
        const auto run = run_between(first.text, last.text);
        if (!run)
            return fail(dots, "\"" + first.text + " .. " + last.text + "\" is no run",
                        "let both ends differ in one rising number, as in item_1 .. item_9");
        if (run->last - run->first >= longest_run)
            return fail(dots, "the run has more than " + std::to_string(longest_run) + " names", "split it up");
        for (std::uint32_t n = run->first; n <= run->last; ++n)
            into.push_back({run->before + std::to_string(n) + run->behind, first.where});
        return true;
    }

    // ---- Blocks --------------------------------------------------------------------------------------------

    /// `{`, lines, `}`. `line` reads one line and gives false after a diagnostic; the rest of the line is then
    /// skipped. A doc comment behind the opening brace joins `doc`. In an `enclosed` block lines may begin like
    /// statements.
    bool block(const std::string& of, std::string& doc, bool enclosed, const std::function<bool()>& line) {
        bool whole = true;
        return block(of, doc, enclosed, whole, line);
    }
    bool block(const std::string& of, std::string& doc, bool enclosed, bool& whole,
               const std::function<bool()>& line) {
        const token& open = now();
        if (!mark("{", "open the block of " + of + " with { at the end of the line")) return false;
        if (at(token_kind::trailing_doc)) append_doc(doc, take().text);
        while (!take_mark("}")) {
            if (take_if(token_kind::line_end) || take_doc()) continue;
            if (at(token_kind::end) || (!enclosed && statement_starts(at_))) {
                pending_doc_.clear();
                whole = false;
                fail(open, "the block of " + of + " is not closed",
                     "write } on a line of its own behind its last line");
                return true;
            }
            if (!line()) {
                whole = false;
                skip_line();
            }
            pending_doc_.clear();
        }
        return line_ends(doc);
    }

    /// `since N`: false if the line is none.
    bool at_since() const {
        return at_word("since") && (after().kind == token_kind::number || after().kind == token_kind::line_end);
    }
    bool since(int& current) {
        const token& start = take();
        int next = 0;
        if (!number(next, 0, newest_possible_variant, "a variant")) return false;
        if (next < current)
            return fail(start, "since " + std::to_string(next) + " stands behind since " + std::to_string(current),
                        "put later variants behind earlier ones; what exists keeps its place");
        if (next > current + 1)
            return fail(start,
                        "since " + std::to_string(next) + " leaves out variant " + std::to_string(current + 1),
                        "number variants without gaps");
        current = next;
        return line_ends();
    }

    // ---- Statements ----------------------------------------------------------------------------------------

    bool statement() {
        if (at(token_kind::name)) {
            if (take_word("bundle")) return bundle();
            if (take_word("group")) return group();
            if (take_word("groups")) return names(file_.groups, "the name of a group");
            if (take_word("order")) return names(file_.order, "the name of a type");
            if (take_word("registry")) return registry();
            if (take_word("import")) return import();
            if (take_word("record")) return record();
            if (at_word("enum") || at_word("shared")) return enumeration();
            if (take_word("flags")) return flags();
            if (take_word("table")) return table();
            if (take_word("message")) return message();
        }
        return missing(
            "a declaration",
            "begin with bundle, group, groups, order, import, registry, record, enum, shared enum, flags, "
            "table or message");
    }

    bool bundle() {
        word w;
        const token& start = now();
        if (!name(w, "the name of the bundle", "write bundle NAME")) return false;
        if (file_.bundle) return fail(start, "a second bundle statement", "keep one of the two");
        file_.bundle = w;
        file_.doc = taken_doc();
        return line_ends(file_.doc);
    }

    bool group() {
        word w, of;
        const token& start = now();
        const std::string cure = "write group NAME of BUNDLE, with in unit N behind it or not";
        if (!name(w, "the name of the group", cure) || !keyword("of", cure) ||
            !name(of, "the bundle's name", cure))
            return false;
        if (file_.group) return fail(start, "a second group statement", "keep one of the two");
        file_.group = w;
        file_.group_of = of;
        taken_doc();
        std::optional<int> unit;
        if (!in_unit(unit)) return false;
        file_.unit = unit.value_or(file_.unit);
        return line_ends();
    }

    bool in_unit(std::optional<int>& into) {
        if (!take_word("in")) return true;
        const std::string cure = "write in unit N, with N 0, 1 or 5";
        if (!keyword("unit", cure)) return false;
        const token& start = now();
        int unit = 0;
        if (!number(unit, 0, 5, "a trace unit")) return false;
        if (unit > 1 && unit < 5)
            return fail(start, "trace unit " + std::to_string(unit) + " holds no records", cure);
        into = unit;
        return true;
    }

    bool registry() {
        std::string ignored;
        return block("registry", ignored, true, [&] {
            word w;
            if (!name(w, "the name of a table", "list own and foreign tables, one a line")) return false;
            file_.registry.push_back(std::move(w));
            take_mark(",");
            return line_ends();
        });
    }

    bool import() {
        syntax::import result;
        if (!name(result.bundle, "the name of a bundle", "write import BUNDLE, with { } behind it or not"))
            return false;
        taken_doc();
        if (at_mark("{")) {
            std::string ignored;
            if (!block("import " + result.bundle.text, ignored, true, [&] { return imported(result); }))
                return false;
        } else if (!line_ends())
            return false;
        file_.imports.push_back(std::move(result));
        return true;
    }
    bool imported(syntax::import& into) {
        const std::string cure = "write enum NAME or table NAME luid DIGITS";
        if (take_word("enum")) {
            word w;
            if (!name(w, "the name of an enumeration", cure)) return false;
            into.enumerations.push_back(std::move(w));
        } else if (take_word("table")) {
            syntax::foreign_table t;
            if (!name(t.name, "the name of a table", cure) || !keyword("luid", cure) || !luid(t.luid))
                return false;
            into.tables.push_back(std::move(t));
        } else
            return missing("\"enum\" or \"table\"", cure);
        return line_ends();
    }
    bool luid(word& into) {
        const bool word_like = at(token_kind::name) || at(token_kind::number) || at(token_kind::digits);
        if (!word_like) return missing("a luid", "write its 32 hexadecimal digits in lower case");
        const token& t = take();
        const bool good =
            t.text.size() == 32 && t.text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
        if (!good)
            return fail(t, "\"" + std::string(t.text.substr(0, 40)) + "\" is no luid",
                        "write its 32 hexadecimal digits in lower case");
        into = {std::string(t.text), where(t)};
        return true;
    }

    // ---- Records -------------------------------------------------------------------------------------------

    bool record() {
        syntax::record result;
        result.doc = taken_doc();
        if (!name(result.name, "the name of the record", "write record NAME {") || !in_unit(result.unit))
            return false;
        int current = 0;
        const bool good = block("record " + result.name.text, result.doc, false, result.whole, [&] {
            if (at_since()) return since(current);
            if (at_word("arms") && after().kind == token_kind::name) return more_arms(result, current);
            return attribute(result, current);
        });
        if (good || !result.attributes.empty()) file_.records.push_back(std::move(result));
        return good;
    }

    bool attribute(syntax::record& into, int& current) {
        syntax::attribute model;
        std::vector<word> run;
        if (!attribute_line(into, model, run)) return false;
        model.since = current;
        if (at_mark("{")) {
            const word discriminator = run.front();
            if (run.size() > 1)
                return fail(now(), "arms behind a run of attributes", "give each discriminator a line of its own");
            const std::size_t place = into.attributes.size();
            add_run(into, model, run);
            std::string doc;
            const bool good = arms(into, discriminator, current, doc);
            append_trailing(into.attributes[place].doc, doc);
            return good;
        }
        if (!line_ends(model.doc)) return false;
        add_run(into, model, run);
        return true;
    }
    static void append_trailing(std::string& doc, const std::string& more) {
        if (!more.empty()) append_doc(doc, more);
    }
    bool attribute_line(const syntax::record& into, syntax::attribute& model, std::vector<word>& run) {
        model.doc = taken_doc();
        const std::string cure = "write NAME: TYPE";
        return room_for_more(into.attributes.size()) && run_of_names(run, "an attribute", cure) &&
               mark(":", cure) && type(model.type);
    }
    /// Refuses to go on filling a declaration that is too large anyway.
    bool room_for_more(std::size_t parts) {
        return parts < most_parts ||
               fail(now(), "a declaration with more than " + std::to_string(most_parts) + " parts", "split it up");
    }
    static void add_run(syntax::record& into, const syntax::attribute& model, const std::vector<word>& run) {
        for (const word& w : run) {
            into.attributes.push_back(model);
            into.attributes.back().name = w;
        }
    }

    /// `arms of D {`: arms that stand further down than their discriminator.
    bool more_arms(syntax::record& into, int& current) {
        take();
        word discriminator;
        const std::string cure = "write arms of DISCRIMINATOR {";
        taken_doc();
        if (!keyword("of", cure) || !name(discriminator, "the name of a discriminator", cure)) return false;
        std::string ignored;
        return arms(into, discriminator, current, ignored);
    }
    bool arms(syntax::record& into, const word& discriminator, int& current, std::string& doc) {
        std::optional<word> selected_by;
        return block("the arms of " + discriminator.text, doc, false, [&] {
            if (at_since()) return since(current);
            if (at_word("case") && after().kind == token_kind::name) {
                take();
                word member;
                name(member, "a member", "");
                selected_by = member;
                taken_doc();
                return line_ends();
            }
            return arm(into, discriminator, selected_by, current);
        });
    }
    bool arm(syntax::record& into, const word& discriminator, const std::optional<word>& selected_by,
             int current) {
        syntax::attribute model;
        std::vector<word> run;
        const token& start = now();
        if (!attribute_line(into, model, run) || !line_ends(model.doc)) return false;
        if (!selected_by)
            return fail(start, "the arm \"" + run.front().text + "\" stands before the first case",
                        "write case MEMBER above it");
        model.since = current;
        model.discriminator = discriminator;
        model.selected_by = selected_by;
        add_run(into, model, run);
        return true;
    }

    bool type(syntax::type& into) {
        if (take_word("oid")) {
            into.is = syntax::type_kind::oid;
            return mark("->", "write oid -> TABLE") &&
                   name(into.name, "the name of a table", "write oid -> TABLE");
        }
        if (at_word("list") && after().kind == token_kind::name) {
            take();
            into.is = syntax::type_kind::list;
            return keyword("of", "write list of RECORD") && name(into.name, "a record", "write list of RECORD");
        }
        if (!name(into.name, "a type",
                  "write a value type, record, enum or flags, NAME[..], oid -> TABLE or list of RECORD"))
            return false;
        const bool text = into.name.text == "string";
        if (!at_mark("[")) {
            if (!text) return true;
            return missing("\"[\"",
                           "give a string its size, string[16], or its length attribute, string[name_len]; "
                           "strings of any length are of type loom_vstring");
        }
        take();
        into.is = text ? syntax::type_kind::text : syntax::type_kind::array;
        if (at(token_kind::name)) {
            into.length.emplace();
            name(*into.length, "a length", "");
        } else {
            into.extent = 0;
            if (!number(*into.extent, std::uint32_t{1}, std::uint32_t{65535}, "a number of elements"))
                return false;
        }
        return mark("]", "close the brackets behind the number or the length attribute");
    }

    // ---- Enumerations and flag sets ------------------------------------------------------------------------

    bool enumeration() {
        syntax::enumeration result;
        result.doc = taken_doc();
        result.shared = take_word("shared");
        if (!keyword("enum", "write shared enum NAME {")) return false;
        if (!name(result.name, "the name of the enumeration", "write enum NAME {")) return false;
        int current = 0;
        std::int64_t next = 0;
        const bool good = block("enum " + result.name.text, result.doc, false, result.whole, [&] {
            return at_since() ? since(current) : enumeration_member(result, current, next);
        });
        if (good || !result.members.empty()) file_.enumerations.push_back(std::move(result));
        return good;
    }
    bool enumeration_member(syntax::enumeration& into, int current, std::int64_t& next) {
        syntax::member model;
        model.doc = taken_doc();
        model.since = current;
        std::vector<word> run;
        const token& start = now();
        if (!room_for_more(into.members.size()) || !run_of_names(run, "a member", "write NAME or NAME = VALUE"))
            return false;
        constexpr auto least = std::numeric_limits<std::int32_t>::min();
        constexpr auto most = std::numeric_limits<std::int32_t>::max();
        if (take_mark("=")) {
            std::int32_t value = 0;
            if (!number(value, least, most, "a value")) return false;
            next = value;
        }
        if (!line_ends(model.doc)) return false;
        for (const word& w : run) {
            if (next > most)
                return fail(start, "the value of " + w.text + " is out of range", "give it a value of 32 bits");
            into.members.push_back(model);
            into.members.back().name = w;
            into.members.back().value = static_cast<std::int32_t>(next++);
        }
        return true;
    }

    bool flags() {
        syntax::flag_set result;
        result.doc = taken_doc();
        if (!name(result.name, "the name of the flag set", "write flags NAME {")) return false;
        int current = 0;
        const bool good = block("flags " + result.name.text, result.doc, false, result.whole,
                                [&] { return at_since() ? since(current) : flag(result, current); });
        if (good || !result.bits.empty()) file_.flag_sets.push_back(std::move(result));
        return good;
    }
    bool flag(syntax::flag_set& into, int current) {
        syntax::member model;
        model.doc = taken_doc();
        model.since = current;
        std::vector<word> run;
        if (!room_for_more(into.bits.size()) || !run_of_names(run, "a flag", "write NAME or NAME0 .. NAME9"))
            return false;
        if (at_mark("="))
            return fail(now(), "a flag has no value", "list flags in the order of their bits, from bit 0");
        if (!line_ends(model.doc)) return false;
        for (const word& w : run) {
            into.bits.push_back(model);
            into.bits.back().name = w;
        }
        return true;
    }

    // ---- Tables and messages -------------------------------------------------------------------------------

    bool table() {
        syntax::table result;
        result.doc = taken_doc();
        const std::string cure =
            "write table NAME of RECORD keyed by ATTRIBUTE, keyed by record KEY or keyed by itself";
        if (!name(result.name, "the name of the table", cure) || !keyword("of", cure) ||
            !name(result.payload, "the payload record", cure) || !keyword("keyed", cure) || !keyword("by", cure))
            return false;
        if (at_word("record") && after().kind == token_kind::name && after().text != "ordered" &&
            after().text != "luid") {
            take();
            result.key = key_kind::object;
            if (!name(result.key_name, "the key record", cure)) return false;
        } else {
            result.key = at_word("itself") ? key_kind::whole_payload : key_kind::attribute;
            if (!name(result.key_name, "the key", cure)) return false;
        }
        result.ordered = take_word("ordered");
        if (take_word("luid")) {
            result.luid.emplace();
            if (!luid(*result.luid)) return false;
        }
        if (!line_ends(result.doc)) return false;
        file_.tables.push_back(std::move(result));
        return true;
    }

    bool message() {
        syntax::message result;
        result.doc = taken_doc();
        const std::string cure = "write message NAME or message NAME carries RECORD";
        if (!name(result.name, "the name of the message", cure)) return false;
        if (take_word("carries")) {
            result.payload.emplace();
            if (!name(*result.payload, "the payload record", cure)) return false;
        }
        if (!line_ends(result.doc)) return false;
        file_.messages.push_back(std::move(result));
        return true;
    }

    std::string name_;
    std::vector<token> tokens_;
    diagnostics& out_;
    std::size_t at_ = 0;
    std::string pending_doc_;
    syntax::file file_;
};

} // namespace

syntax::file read_schema(const std::string& name, std::string_view text, diagnostics& out) {
    constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";
    if (text.starts_with(byte_order_mark)) text.remove_prefix(byte_order_mark.size());
    if (const std::size_t zero = text.find('\0'); zero != std::string_view::npos) {
        const std::string_view before = text.substr(0, zero);
        const auto line = std::count(before.begin(), before.end(), '\n') + 1;
        const std::size_t column = zero - (before.rfind('\n') + 1) + 1;
        out.add({name, static_cast<int>(line), static_cast<int>(column)}, "a byte 0 stands here: this is no text",
                "name a file of schema text");
        syntax::file unread;
        unread.name = name;
        unread.is_text = false;
        return unread;
    }
    return reader(name, text, out).read();
}

} // namespace trellis::schema
