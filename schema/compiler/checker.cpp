#include "schema/compiler/checker.h"

#include "schema/compiler/names.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <string_view>

namespace trellis::schema {
namespace {

/// Room for a name and its zero byte in a type-information record is 64 bytes.
constexpr std::size_t longest_name = 63;
constexpr std::size_t most_flags = 4096;
constexpr std::size_t most_attributes = 1024;
constexpr std::size_t deepest_nesting = 64;

// Words that a C or C++ compiler keeps for itself, or that the standard headers of either make macros of.
constexpr std::array<std::string_view, 120> reserved = {"alignas",
                                                        "alignof",
                                                        "and",
                                                        "and_eq",
                                                        "asm",
                                                        "assert",
                                                        "atomic_cancel",
                                                        "atomic_commit",
                                                        "atomic_noexcept",
                                                        "auto",
                                                        "bitand",
                                                        "bitor",
                                                        "bool",
                                                        "break",
                                                        "case",
                                                        "catch",
                                                        "char",
                                                        "char16_t",
                                                        "char32_t",
                                                        "char8_t",
                                                        "class",
                                                        "co_await",
                                                        "co_return",
                                                        "co_yield",
                                                        "compl",
                                                        "concept",
                                                        "const",
                                                        "const_cast",
                                                        "consteval",
                                                        "constexpr",
                                                        "constinit",
                                                        "continue",
                                                        "decltype",
                                                        "default",
                                                        "delete",
                                                        "do",
                                                        "double",
                                                        "dynamic_cast",
                                                        "else",
                                                        "enum",
                                                        "errno",
                                                        "explicit",
                                                        "export",
                                                        "extern",
                                                        "false",
                                                        "float",
                                                        "for",
                                                        "friend",
                                                        "goto",
                                                        "if",
                                                        "inline",
                                                        "int",
                                                        "linux",
                                                        "long",
                                                        "mutable",
                                                        "namespace",
                                                        "new",
                                                        "noexcept",
                                                        "not",
                                                        "not_eq",
                                                        "nullptr",
                                                        "operator",
                                                        "or",
                                                        "or_eq",
                                                        "private",
                                                        "protected",
                                                        "public",
                                                        "register",
                                                        "reinterpret_cast",
                                                        "requires",
                                                        "restrict",
                                                        "return",
                                                        "short",
                                                        "signed",
                                                        "sizeof",
                                                        "static",
                                                        "static_assert",
                                                        "static_cast",
                                                        "stderr",
                                                        "stdin",
                                                        "stdout",
                                                        "struct",
                                                        "switch",
                                                        "synchronized",
                                                        "template",
                                                        "this",
                                                        "thread_local",
                                                        "throw",
                                                        "true",
                                                        "try",
                                                        "typedef",
                                                        "typeid",
                                                        "typename",
                                                        "typeof",
                                                        "union",
                                                        "unix",
                                                        "unsigned",
                                                        "using",
                                                        "virtual",
                                                        "void",
                                                        "volatile",
                                                        "wchar_t",
                                                        "while",
                                                        "xor",
                                                        "xor_eq",
                                                        "EOF",
                                                        "NULL",
                                                        "EXIT_SUCCESS",
                                                        "EXIT_FAILURE",
                                                        "INT8_MAX",
                                                        "INT16_MAX",
                                                        "INT32_MAX",
                                                        "INT64_MAX",
                                                        "UINT8_MAX",
                                                        "UINT16_MAX",
                                                        "UINT32_MAX",
                                                        "UINT64_MAX",
                                                        "EINVAL",
                                                        "ENOMEM",
                                                        "ENOENT"};

/// Members that the C form of every record has.
constexpr std::array<std::string_view, 6> header_members = {"loom_tinfo", "loom_variant", "loom_layout_variant",
                                                            "loom_flags", "loom_slop",    "loom_links"};

std::string quoted(std::string_view name) { return "\"" + std::string(name) + "\""; }
std::string place(const location& l) {
    return l.file + ":" + std::to_string(l.line) + ":" + std::to_string(l.column);
}

class checker {
  public:
    checker(const bundle& b, diagnostics& out) : b_(b), out_(out) {}

    void run() {
        check_name(b_.name, b_.where, longest_name);
        for (const auto& r : b_.records)
            check(*r);
        for (const auto& e : b_.enumerations)
            check(*e);
        for (const auto& f : b_.flag_sets)
            check(*f);
        for (const auto& t : b_.tables)
            check(*t);
        for (const auto& m : b_.messages)
            check_name(m->name, m->where, longest_name);
        for (const auto& i : b_.imports) {
            check_name(i->bundle_name, i->where, longest_name);
            for (const auto& e : i->enumerations)
                check_name(e->name, e->where, longest_name);
            for (const foreign_table& t : i->tables)
                check_name(t.name, t.where, longest_name);
        }
        check_nesting();
        check_luids();
        check_constants();
        check_generated_names();
        check_header_names();
    }

  private:
    // ---- Names ---------------------------------------------------------------------------------------------

    void check_name(const std::string& name, const location& where, std::size_t longest) {
        if (name.size() > longest)
            out_.add(where, quoted(name) + " has " + std::to_string(name.size()) + " characters",
                     "use at most " + std::to_string(longest));
        if (std::find(reserved.begin(), reserved.end(), name) != reserved.end())
            out_.add(where, quoted(name) + " is a reserved word of C or C++", "choose another name");
        const bool claimed =
            name.starts_with("__") || (name.size() > 1 && name[0] == '_' && name[1] >= 'A' && name[1] <= 'Z');
        if (claimed) out_.add(where, quoted(name) + " belongs to the C compiler", "begin the name with a letter");
    }
    /// Types stand beside the runtime's own functions.
    void check_type_name(const std::string& name, const location& where) {
        check_name(name, where, longest_name);
        for (const std::string_view taken :
             {"loom", "loomlib", "loomdb", "loomgc", "loomrepl", "arbor", "spoor", "e_avl"})
            if (name == taken || name.starts_with(std::string(taken) + "_"))
                out_.add(where, "names that begin with " + std::string(taken) + " are the runtime's",
                         "choose another beginning");
    }

    void check_constants() {
        std::map<std::string_view, const location*> seen;
        const auto enter = [&](const std::string& name, const location& where) {
            check_name(name, where, longest_name);
            const auto [known, fresh] = seen.emplace(name, &where);
            if (!fresh)
                out_.add(where,
                         quoted(name) + " names a second constant; the first is at " + place(*known->second),
                         "members and flags share one space in C: give each a name of its own");
        };
        for (const auto& e : b_.enumerations)
            for (const enumeration_member& m : e->members)
                enter(m.name, m.where);
        for (const auto& f : b_.flag_sets)
            for (const flag_member& m : f->bits)
                enter(m.name, m.where);
    }

    /// No two declarations may give the same exported name: type a_b with attribute c, type a with attribute b_c.
    void check_generated_names() {
        std::map<std::string_view, const location*> seen;
        const std::vector<exported_function> functions = exported_functions(b_);
        const std::vector<exported_function> data = exported_data(b_);
        std::set<std::pair<const location*, const location*>> told;
        const auto enter = [&](const exported_function& f) {
            const auto [known, fresh] = seen.emplace(f.name, f.where);
            if (fresh || known->second == f.where || out_.told_at(*f.where)) return;
            if (!told.emplace(known->second, f.where).second) return;
            out_.add(*f.where, "this gives the name " + quoted(f.name) + ", as does " + place(*known->second),
                     "rename one of the two declarations");
        };
        for (const exported_function& f : functions)
            enter(f);
        for (const exported_function& d : data)
            enter(d);
        // Members and flags are constants beside the functions.
        const auto constant = [&](const std::string& name, const location& where) {
            if (const auto known = seen.find(name); known != seen.end())
                out_.add(where,
                         quoted(name) + " is also the name of a function that " + place(*known->second) + " gives",
                         "rename the member");
        };
        for (const auto& e : b_.enumerations)
            for (const enumeration_member& m : e->members)
                constant(m.name, m.where);
        for (const auto& f : b_.flag_sets)
            for (const flag_member& m : f->bits)
                constant(m.name, m.where);
    }

    /// Each type has a public header of its own, beside those of the bundle as a whole.
    void check_header_names() {
        std::map<std::string, const location*> seen = {
            {b_.name, nullptr}, {"revision", nullptr}, {"bundle_frame", nullptr}, {"table_registry", nullptr}};
        const auto enter = [&](const std::string& header, const location& where) {
            const auto [known, fresh] = seen.emplace(header, &where);
            if (fresh || out_.told_at(where)) return;
            out_.add(where,
                     "this gives the header " + quoted(header + ".h") + ", as does " +
                         (known->second == nullptr ? "the bundle itself" : place(*known->second)),
                     "choose another name");
        };
        for (const auto& r : b_.records)
            enter(r->name, r->where);
        for (const auto& e : b_.enumerations)
            enter(e->name, e->where);
        for (const auto& f : b_.flag_sets)
            enter(f->name, f->where);
        for (const auto& t : b_.tables)
            enter(t->name, t->where);
        for (const auto& m : b_.messages)
            enter(m->name + "_action", m->where);
    }

    // ---- Types ---------------------------------------------------------------------------------------------

    template <class Parts>
    void check_variants(const Parts& parts) {
        int current = 0;
        for (const auto& part : parts) {
            if (part.since < current || part.since > current + 1 || part.since > 126)
                out_.add(part.where,
                         quoted(part.name) + " is of variant " + std::to_string(part.since) + " behind variant " +
                             std::to_string(current),
                         "append later variants behind earlier ones, without gaps, up to 126");
            current = std::max(current, part.since);
        }
    }

    void check(const record& r) {
        check_type_name(r.name, r.where);
        check_variants(r.attributes);
        if (r.attributes.size() > most_attributes)
            out_.add(r.where,
                     "the record " + quoted(r.name) + " has more than " + std::to_string(most_attributes) +
                         " attributes",
                     "split it up");
        for (const attribute& a : r.attributes) {
            check_name(a.name, a.where, longest_name);
            if (std::find(header_members.begin(), header_members.end(), a.name) != header_members.end())
                out_.add(a.where, quoted(a.name) + " is a member of every object's header", "choose another name");
            check_arm_variant(r, a);
            for (const attribute& other : r.attributes)
                if (other.shape == attribute_shape::oid && a.name == "loom_" + other.name + "_type")
                    out_.add(a.where, quoted(a.name) + " is the type word of the oid " + quoted(other.name),
                             "choose another name");
        }
    }
    void check_arm_variant(const record& r, const attribute& a) {
        if (a.shape != attribute_shape::arm) return;
        for (const attribute& d : r.attributes)
            if (d.name == a.discriminator && d.since > a.since)
                out_.add(a.where, "the arm " + quoted(a.name) + " is older than its discriminator",
                         "introduce it with the discriminator or later");
    }

    void check(const enumeration& e) {
        check_type_name(e.name, e.where);
        check_variants(e.members);
        std::map<std::int32_t, const enumeration_member*> values;
        for (const enumeration_member& m : e.members) {
            const auto [known, fresh] = values.emplace(m.value, &m);
            if (!fresh)
                out_.add(m.where,
                         quoted(m.name) + " has the value " + std::to_string(m.value) + ", as has " +
                             quoted(known->second->name),
                         "give each member a value of its own");
        }
    }

    void check(const flag_set& f) {
        check_type_name(f.name, f.where);
        check_variants(f.bits);
        if (f.bits.size() > most_flags)
            out_.add(f.where,
                     "the flags " + quoted(f.name) + " have more than " + std::to_string(most_flags) + " bits",
                     "split them up");
    }

    /// A record may not hold itself in place, nor nest without end.
    void check_nesting() {
        std::map<const record*, int> depths;
        std::vector<const record*> path;
        for (const auto& r : b_.records)
            nesting_of(*r, path, depths);
    }
    int nesting_of(const record& r, std::vector<const record*>& path, std::map<const record*, int>& depths) {
        if (const auto known = depths.find(&r); known != depths.end()) return known->second;
        path.push_back(&r);
        int deepest = 0;
        for (const attribute& a : r.attributes) {
            const record* nested = facts_of(a.shape).in_place ? a.type.of_record : nullptr;
            if (nested == nullptr) continue;
            const auto start = std::find(path.begin(), path.end(), nested);
            if (start == path.end()) {
                const bool too_deep = path.size() >= deepest_nesting;
                const int below = too_deep ? static_cast<int>(deepest_nesting) : nesting_of(*nested, path, depths);
                deepest = std::max(deepest, below);
                if (below == static_cast<int>(deepest_nesting))
                    out_.add(a.where,
                             "records are nested more than " + std::to_string(deepest_nesting) + " deep here",
                             "hold the record in a list or as an arm");
                continue;
            }
            std::string loop;
            for (auto at = start; at != path.end(); ++at)
                loop += (*at)->name + " > ";
            out_.add(a.where, "a record would hold itself: " + loop + nested->name,
                     "hold it in an array with a count, in a list or as an arm");
        }
        path.pop_back();
        return depths[&r] = deepest + 1;
    }

    // ---- Tables --------------------------------------------------------------------------------------------

    void check(const table& t) {
        check_type_name(t.name, t.where);
        const std::size_t longest_table = longest_name - std::string_view("_record").size();
        if (t.name.size() > longest_table && t.name.size() <= longest_name)
            out_.add(t.where, quoted(t.name) + " has " + std::to_string(t.name.size()) + " characters",
                     "use at most " + std::to_string(longest_table) + " for a table, since its rows add _record");
        check_key(t);
        if (t.ordered && t.payload != nullptr) check_sequence(t);
    }

    void check_sequence(const table& t) {
        for (const attribute& a : t.payload->attributes)
            if (a.name == "reorder_seq_compact_no" && a.shape == attribute_shape::plain &&
                a.type.name == "u_int32" && a.since == 0)
                return;
        out_.add(t.where,
                 "the table " + quoted(t.name) + " is ordered but " + quoted(t.payload->name) +
                     " has no sequence number",
                 "add reorder_seq_compact_no: u_int32 to variant 0 of the record, or take ordered away");
    }

    void check_key(const table& t) {
        if (t.key == key_kind::attribute) {
            if (t.payload == nullptr) return;
            for (const attribute& a : t.payload->attributes)
                if (a.name == t.key_attribute) check_key_attribute(a, t.key_where, a.type.of_record != nullptr);
            return;
        }
        if (t.key_record == nullptr) return;
        if (t.key == key_kind::object && t.key_record == t.payload)
            out_.add(t.key_where, "the key record of " + quoted(t.name) + " is its payload",
                     "write keyed by itself");
        std::set<const record*> seen;
        check_key_record(*t.key_record, t.key_where, seen, 1);
    }
    void check_key_record(const record& r, const location& where, std::set<const record*>& seen,
                          std::size_t depth) {
        if (depth > deepest_nesting || !seen.insert(&r).second) return;
        for (const attribute& a : r.attributes) {
            if (a.shape == attribute_shape::object && a.type.of_record != nullptr)
                check_key_record(*a.type.of_record, where, seen, depth + 1);
            else
                check_key_attribute(a, where, false);
        }
    }
    /// Keys are compared value by value and need a total order.
    void check_key_attribute(const attribute& a, const location& where, bool record_as_attribute) {
        const bool single = facts_of(a.shape).whole;
        const bool unordered = a.type.name == "double" || a.type.name == "float";
        const std::string subject = quoted(a.name) + " cannot be a key";
        if (record_as_attribute)
            out_.add(where, subject + ": it is a record",
                     "key the table by a record beside the payload: keyed by record KEY");
        else if (!single && (is_known(a.type) || a.shape == attribute_shape::oid))
            out_.add(where, subject + ": it is no single value",
                     "take an integer, enumeration, string, address or time");
        else if (single && unordered)
            out_.add(where, subject + ": " + a.type.name + " has values without an order",
                     "take an integer or a string");
        else if (single && a.type.of_flag_set != nullptr)
            out_.add(where, subject + ": it is a set of flags",
                     "take an integer, enumeration, string, address or time");
        else if (a.since > 0)
            out_.add(where, subject + ": instances of variant 0 have no " + quoted(a.name),
                     "take an attribute of variant 0");
    }

    void check_luids() {
        std::map<std::string, const location*> told;
        const auto enter = [&](const std::string& luid, const location& where) {
            const bool good = luid.size() == 32 && luid.find_first_not_of("0123456789abcdef") == std::string::npos;
            if (!good) {
                out_.add(where, quoted(luid.substr(0, 40)) + " is no luid",
                         "write its 32 hexadecimal digits in lower case");
                return;
            }
            const auto [known, fresh] = told.emplace(luid, &where);
            if (!fresh)
                out_.add(where, "the luid " + luid + " is told twice; the first is at " + place(*known->second),
                         "give each table a luid of its own");
        };
        for (const auto& t : b_.tables)
            if (t->told_luid) enter(*t->told_luid, t->where);
        for (const auto& i : b_.imports)
            for (const foreign_table& t : i->tables)
                enter(t.luid_text, t.where);
    }

    const bundle& b_;
    diagnostics& out_;
};

} // namespace

void check_model(const bundle& b, diagnostics& out) { checker(b, out).run(); }

} // namespace trellis::schema
