#include "schema/compiler/compare.h"

#include "schema/compiler/identity.h"

#include <algorithm>

namespace trellis::schema {
namespace {

std::string quoted(const std::string& name) { return "\"" + name + "\""; }

template <class T>
const T* named_in(const std::vector<std::unique_ptr<T>>& list, const std::string& name) {
    const auto found =
        std::find_if(list.begin(), list.end(), [&](const auto& item) { return item->name == name; });
    return found == list.end() ? nullptr : found->get();
}

std::string meaning(const attribute& a) {
    std::string text = written_type(a);
    if (a.shape == attribute_shape::arm) text += " in case " + a.case_name + " of " + a.discriminator;
    return text;
}
std::string meaning(const enumeration_member& m) { return std::to_string(m.value); }
std::string meaning(const flag_member&) { return "a bit"; }

std::string key_of(const table& t) {
    switch (t.key) {
    case key_kind::attribute: return t.key_attribute;
    case key_kind::whole_payload: return "itself";
    case key_kind::object: break;
    }
    return "record " + t.key_record->name;
}

class comparison {
  public:
    comparison(const bundle& before, const bundle& after) : before_(before), after_(after) {}

    std::vector<change> run() {
        if (before_.name != after_.name)
            breaks(after_.where, "the bundle was " + quoted(before_.name) + " and is " + quoted(after_.name),
                   "keep the name");
        each("record", before_.records, after_.records, [&](const record& a, const record& b) { compare(a, b); });
        each("enum", before_.enumerations, after_.enumerations, [&](const enumeration& a, const enumeration& b) {
            compare_parts("member", a, b, a.members, b.members);
            compare_places(a, b);
            if (a.shared != b.shared)
                breaks(b.where,
                       "the enum " + quoted(b.name) + (b.shared ? " is shared now" : " is shared no more"),
                       "keep it as it was: bundles that use it call its functions with other arguments");
        });
        each("flags", before_.flag_sets, after_.flag_sets,
             [&](const flag_set& a, const flag_set& b) { compare_parts("flag", a, b, a.bits, b.bits); });
        each("table", before_.tables, after_.tables, [&](const table& a, const table& b) { compare(a, b); });
        each("message", before_.messages, after_.messages, [&](const message& a, const message& b) {
            const std::string old = a.payload == nullptr ? "nothing" : a.payload->name;
            const std::string now = b.payload == nullptr ? "nothing" : b.payload->name;
            if (old != now)
                breaks(b.where, "the message " + quoted(b.name) + " carried " + old + " and carries " + now,
                       "add a message of another name");
        });
        for (const auto& from : after_.imports)
            compare_import(*from);
        return std::move(changes_);
    }

  private:
    void breaks(const location& where, std::string what, std::string cure) {
        changes_.push_back({where, true, std::move(what), std::move(cure)});
    }
    void fine(const location& where, std::string what) { changes_.push_back({where, false, std::move(what), ""}); }

    /// What is gone, what is new, and what both have.
    template <class T, class Compare>
    void each(const std::string& kind, const std::vector<std::unique_ptr<T>>& before,
              const std::vector<std::unique_ptr<T>>& after, Compare compare) {
        for (const auto& old : before)
            if (named_in(after, old->name) == nullptr)
                breaks(old->where, "the " + kind + " " + quoted(old->name) + " is gone",
                       "keep it as long as peers or databases know it");
        for (const auto& now : after) {
            const T* old = named_in(before, now->name);
            if (old == nullptr)
                fine(now->where, "the " + kind + " " + quoted(now->name) + " is new");
            else
                compare(*old, *now);
        }
    }

    /// The parts of old variants, one by one, then what later variants add.
    template <class T, class Part>
    void compare_parts(const std::string& kind, const T& before, const T& after, const std::vector<Part>& old,
                       const std::vector<Part>& now) {
        const std::string of = " of " + quoted(after.name);
        std::vector<const Part*> kept;
        for (const Part& p : now) {
            if (p.since > before.newest)
                fine(p.where,
                     "the " + kind + " " + quoted(p.name) + of + " is new in variant " + std::to_string(p.since));
            else
                kept.push_back(&p);
        }
        const auto holds = [](const auto& list, const std::string& name, auto name_of) {
            return std::any_of(list.begin(), list.end(), [&](const auto& p) { return name_of(p) == name; });
        };
        const auto name_of = [](const Part& p) { return p.name; };
        const auto name_of_kept = [](const Part* p) { return p->name; };
        std::vector<const Part*> old_in_both, now_in_both;
        for (const Part& p : old) {
            if (holds(kept, p.name, name_of_kept))
                old_in_both.push_back(&p);
            else if (holds(now, p.name, name_of))
                breaks(find(now, p.name).where,
                       "the " + kind + " " + quoted(p.name) + of + " moved from variant " +
                           std::to_string(p.since) + " to " + std::to_string(find(now, p.name).since),
                       "leave it in the variant that introduced it");
            else
                breaks(p.where, "the " + kind + " " + quoted(p.name) + of + " is gone",
                       "keep it: later ones would take its place");
        }
        for (const Part* p : kept) {
            if (holds(old, p->name, name_of))
                now_in_both.push_back(p);
            else
                breaks(p->where,
                       "the " + kind + " " + quoted(p->name) + of + " was added to variant " +
                           std::to_string(p->since) + ", which peers know without it",
                       "put it behind the others, below since " + std::to_string(before.newest + 1));
        }
        compare_pairs(kind, of, old_in_both, now_in_both);
    }
    template <class Part>
    static const Part& find(const std::vector<Part>& list, const std::string& name) {
        return *std::find_if(list.begin(), list.end(), [&](const Part& p) { return p.name == name; });
    }
    template <class Part>
    void compare_pairs(const std::string& kind, const std::string& of, const std::vector<const Part*>& old,
                       const std::vector<const Part*>& now) {
        for (const Part* p : now) {
            const Part& was =
                **std::find_if(old.begin(), old.end(), [&](const Part* o) { return o->name == p->name; });
            if (meaning(was) != meaning(*p))
                breaks(p->where,
                       "the " + kind + " " + quoted(p->name) + of + " was " + meaning(was) + " and is " +
                           meaning(*p),
                       "add another one in a later variant");
            if (was.since != p->since)
                breaks(p->where,
                       "the " + kind + " " + quoted(p->name) + of + " moved from variant " +
                           std::to_string(was.since) + " to " + std::to_string(p->since),
                       "leave it in the variant that introduced it");
        }
        for (std::size_t i = 0; i < now.size(); ++i)
            if (old[i]->name != now[i]->name)
                return breaks(now[i]->where,
                              "the " + kind + " " + quoted(now[i]->name) + of + " stands where " +
                                  quoted(old[i]->name) + " stood",
                              "keep the order");
    }

    /// A peer that does not know a member takes its place for its value, which may be that of a member that it
    /// knows.
    void compare_places(const enumeration& before, const enumeration& after) {
        for (std::size_t place = before.members.size(); place < after.members.size(); ++place) {
            const enumeration_member& added = after.members[place];
            for (const enumeration_member& known : before.members) {
                if (known.value != static_cast<std::int64_t>(place) || added.since <= before.newest) continue;
                const std::string what = "older peers take the member " + quoted(added.name) + " of " +
                                         quoted(after.name) + " for " + quoted(known.name) +
                                         ", whose value is its place, " + std::to_string(place);
                if (has_arms(known.name))
                    breaks(added.where, what + ", and look for the arms of that",
                           "add an enum of another name, with values that are no places to come");
                else
                    fine(added.where, what);
            }
        }
    }
    /// Names of members are unique in a bundle.
    bool has_arms(const std::string& member) const {
        return std::any_of(before_.records.begin(), before_.records.end(), [&](const auto& r) {
            return std::any_of(r->attributes.begin(), r->attributes.end(), [&](const attribute& a) {
                return a.shape == attribute_shape::arm && a.case_name == member;
            });
        });
    }

    void compare(const record& before, const record& after) {
        const std::size_t told = changes_.size();
        compare_parts("attribute", before, after, before.attributes, after.attributes);
        if (before.list_element != after.list_element)
            breaks(after.where,
                   "the record " + quoted(after.name) + (after.list_element ? " became" : " is no more") +
                       " the element of a list, which moves its attributes",
                   "list a record of another name");
        const bool told_a_break = std::any_of(changes_.begin() + static_cast<std::ptrdiff_t>(told), changes_.end(),
                                              [](const change& c) { return c.breaks; });
        if (told_a_break) return;
        for (std::size_t v = 0; v < before.variants.size(); ++v)
            if (before.variants[v].layout_size != after.variants[v].layout_size)
                return fine(after.where,
                            "instances of variant " + std::to_string(v) + " of " + quoted(after.name) + " took " +
                                std::to_string(before.variants[v].layout_size) + " bytes and take " +
                                std::to_string(after.variants[v].layout_size) +
                                ", since a record in them grew: peers agree, but a database is to be filled anew");
    }

    void compare(const table& before, const table& after) {
        const std::string cure = "add a table of another name";
        const std::string subject = "the table " + quoted(after.name);
        if (before.payload->name != after.payload->name)
            breaks(after.where, subject + " held " + before.payload->name + " and holds " + after.payload->name,
                   cure);
        if (key_of(before) != key_of(after))
            breaks(after.where, subject + " was keyed by " + key_of(before) + " and is by " + key_of(after), cure);
        if (before.ordered != after.ordered)
            breaks(after.where, subject + (after.ordered ? " is ordered now" : " is ordered no more"), cure);
        const bool same_definition = before.payload->name == after.payload->name &&
                                     key_of(before) == key_of(after) && before.ordered == after.ordered;
        if (same_definition && before.luid_text != after.luid_text && before_.name == after_.name)
            breaks(after.where, subject + " had the luid " + before.luid_text + " and has " + after.luid_text,
                   "tell the luid that peers know: luid " + before.luid_text);
    }

    /// Peers know an enumeration by its bundle and a table by its luid, whoever imports them.
    void compare_import(const import& after) {
        const std::string now = quoted(after.bundle_name);
        for (const auto& before : before_.imports) {
            const std::string was = quoted(before->bundle_name);
            for (const auto& e : after.enumerations)
                if (was != now && named_in(before->enumerations, e->name) != nullptr)
                    breaks(e->where,
                           "the enum " + quoted(e->name) + " came from " + was + " and comes from " + now,
                           "take one of another name from there");
            for (const foreign_table& t : after.tables)
                for (const foreign_table& old : before->tables)
                    if (t.name == old.name && t.luid_text != old.luid_text)
                        breaks(t.where,
                               "the imported table " + quoted(t.name) + " had the luid " + old.luid_text +
                                   " and has " + t.luid_text,
                               "tell the luid that peers know");
        }
    }

    const bundle& before_;
    const bundle& after_;
    std::vector<change> changes_;
};

} // namespace

std::string text_of(const change& c) {
    return c.where.file + ":" + std::to_string(c.where.line) + ":" + std::to_string(c.where.column) +
           (c.breaks ? ": breaks: " + c.what + "; " + c.cure : ": fine: " + c.what);
}

std::vector<change> changes_between(const bundle& before, const bundle& after) {
    return comparison(before, after).run();
}

} // namespace trellis::schema
