#include "schema/compiler/builder.h"

#include <algorithm>
#include <map>
#include <numeric>

namespace trellis::schema {
namespace {

using syntax::word;

std::string quoted(const std::string& name) { return "\"" + name + "\""; }
std::string place(const location& l) {
    return l.file + ":" + std::to_string(l.line) + ":" + std::to_string(l.column);
}

/// Edits that turn one word into the other.
std::size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t kept = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({kept, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// Names of one kind and what they stand for. The model's vectors own the things.
template <class T>
class directory {
  public:
    T* find(const std::string& name) const {
        const auto found = things_.find(name);
        return found == things_.end() ? nullptr : found->second;
    }
    void enter(const std::string& name, T* thing) { things_.emplace(name, thing); }
    const std::map<std::string, T*>& all() const { return things_; }

  private:
    std::map<std::string, T*> things_;
};

class builder {
  public:
    builder(const std::vector<syntax::file>& files, diagnostics& out) : files_(files), out_(out) {}

    std::unique_ptr<bundle> build() {
        identify();
        for (const syntax::file* file : in_group_order())
            collect(*file);
        order_types();
        for (auto& [from, to] : record_sources_)
            resolve(*from, *to);
        for (auto& [from, to] : table_sources_)
            resolve(*from, *to);
        for (auto& [from, to] : message_sources_)
            resolve(*from, *to);
        resolve_registry();
        return std::move(model_);
    }

  private:
    // ---- Files ---------------------------------------------------------------------------------------------

    void identify() {
        const word* named = nullptr;
        for (const syntax::file& file : files_) {
            if (!file.bundle) continue;
            if (named == nullptr) {
                named = &*file.bundle;
                model_->name = named->text;
                model_->doc = file.doc;
                model_->where = named->where;
            } else
                out_.add(file.bundle->where, "a second bundle statement; the first is at " + place(named->where),
                         "compile one bundle at a time, and begin its other files with group NAME of BUNDLE");
        }
        const bool all_read = std::ranges::all_of(files_, &syntax::file::is_text);
        if (named == nullptr && all_read)
            out_.add({files_.empty() ? "schema" : files_.front().name, 1, 1}, "no file says which bundle this is",
                     "begin one of them with bundle NAME");
        for (const syntax::file& file : files_)
            if (named != nullptr && file.group_of && file.group_of->text != named->text)
                out_.add(file.group_of->where,
                         "a group of the bundle " + quoted(file.group_of->text) + " among files of " +
                             quoted(named->text),
                         "leave the file out, or name the bundle it belongs to");
    }

    /// Files without a group, then the groups that the schema lists, then the others.
    std::vector<const syntax::file*> in_group_order() {
        std::vector<const syntax::file*> result, others;
        std::map<std::string, const syntax::file*> groups;
        for (const syntax::file& file : files_) {
            if (!file.group)
                result.push_back(&file);
            else if (const auto [known, fresh] = groups.emplace(file.group->text, &file); fresh)
                others.push_back(&file);
            else {
                out_.add(file.group->where,
                         "a second group " + quoted(file.group->text) + "; the first is at " +
                             place(known->second->group->where),
                         "give each file's group a name of its own");
                others.push_back(&file);
            }
        }
        for (const syntax::file& file : files_)
            for (const word& listed : file.groups) {
                const auto known = groups.find(listed.text);
                if (known == groups.end()) {
                    out_.add(listed.where, "no file holds the group " + quoted(listed.text),
                             "compile it together with its file, or take it off the list");
                    continue;
                }
                const auto found = std::find(others.begin(), others.end(), known->second);
                if (found == others.end()) {
                    out_.add(listed.where, "the group " + quoted(listed.text) + " is listed twice",
                             "list it once");
                    continue;
                }
                result.push_back(*found);
                others.erase(found);
            }
        result.insert(result.end(), others.begin(), others.end());
        return result;
    }

    // ---- Declarations --------------------------------------------------------------------------------------

    /// Notes a name of one of the three spaces (types, tables, messages); false if it is taken.
    bool declare(std::map<std::string, location>& space, const word& name) {
        const auto [known, fresh] = space.emplace(name.text, name.where);
        if (!fresh)
            out_.add(name.where, quoted(name.text) + " is declared twice; the first is at " + place(known->second),
                     "rename one of them or take one out");
        return fresh;
    }
    bool declare_type(const word& name) {
        if (find_built_in(name.text.c_str()) != nullptr || name.text == "string" || name.text == "oid" ||
            name.text == "list") {
            out_.add(name.where, quoted(name.text) + " is a built-in type", "choose another name");
            return false;
        }
        return declare(types_, name);
    }
    template <class T>
    T& start(std::vector<std::unique_ptr<T>>& list, const word& name, const std::string& doc) {
        T& made = *list.emplace_back(std::make_unique<T>());
        made.name = name.text;
        made.doc = doc;
        made.where = name.where;
        return made;
    }

    void collect(const syntax::file& file) {
        for (const syntax::import& from : file.imports)
            collect(from);
        for (const syntax::record& from : file.records) {
            if (!declare_type(from.name)) continue;
            if (from.attributes.empty() && from.whole)
                out_.add(from.name.where, quoted(from.name.text) + " has no attribute", "give it one");
            record& made = start(model_->records, from.name, from.doc);
            made.trace_unit = from.unit.value_or(file.unit);
            records_.enter(made.name, &made);
            record_sources_.emplace_back(&from, &made);
        }
        for (const syntax::enumeration& from : file.enumerations) {
            if (!declare_type(from.name)) continue;
            if (from.members.empty() && from.whole)
                out_.add(from.name.where, quoted(from.name.text) + " has no member", "give it one");
            enumeration& made = start(model_->enumerations, from.name, from.doc);
            made.shared = from.shared;
            made.trace_unit = 1;
            for (const syntax::member& m : from.members) {
                made.members.push_back({m.name.text, m.doc, m.name.where, m.value, m.since});
                made.newest = std::max(made.newest, m.since);
            }
            enumerations_.enter(made.name, &made);
        }
        for (const syntax::flag_set& from : file.flag_sets) {
            if (!declare_type(from.name)) continue;
            if (from.bits.empty() && from.whole)
                out_.add(from.name.where, quoted(from.name.text) + " names no bit", "give it one");
            flag_set& made = start(model_->flag_sets, from.name, from.doc);
            made.trace_unit = 1;
            for (const syntax::member& m : from.bits) {
                made.bits.push_back({m.name.text, m.doc, m.name.where, m.since});
                made.newest = std::max(made.newest, m.since);
            }
            flag_sets_.enter(made.name, &made);
        }
        for (const syntax::table& from : file.tables) {
            if (!declare(tables_, from.name)) continue;
            table& made = start(model_->tables, from.name, from.doc);
            made.trace_unit = 4;
            table_sources_.emplace_back(&from, &made);
        }
        for (const syntax::message& from : file.messages) {
            if (!declare(messages_, from.name)) continue;
            message& made = start(model_->messages, from.name, from.doc);
            made.trace_unit = 3;
            message_sources_.emplace_back(&from, &made);
        }
        for (const word& w : file.order)
            order_.push_back(w);
        for (const word& w : file.registry)
            registry_.push_back(w);
    }

    void collect(const syntax::import& from) {
        const auto known = std::find_if(model_->imports.begin(), model_->imports.end(),
                                        [&](const auto& i) { return i->bundle_name == from.bundle.text; });
        import* into = known == model_->imports.end() ? nullptr : known->get();
        if (into == nullptr) {
            into = model_->imports.emplace_back(std::make_unique<import>()).get();
            into->bundle_name = from.bundle.text;
            into->where = from.bundle.where;
            into->home = std::make_unique<bundle>();
            into->home->name = from.bundle.text;
        }
        if (from.bundle.text == model_->name)
            out_.add(from.bundle.where, "the bundle imports itself", "import from other bundles only");
        for (const word& name : from.enumerations) {
            if (!declare_type(name)) continue;
            enumeration& made = start(into->enumerations, name, "");
            made.shared = true;
            made.imported_from = into->home.get();
            enumerations_.enter(made.name, &made);
        }
        for (const syntax::foreign_table& t : from.tables)
            if (declare(tables_, t.name)) into->tables.push_back({t.name.text, t.luid.text, t.name.where});
    }

    /// Brings the types that `order` names to the front of their kinds' lists.
    void order_types() {
        std::map<std::string, std::size_t> rank;
        for (const word& w : order_) {
            const bool own =
                records_.find(w.text) != nullptr || flag_sets_.find(w.text) != nullptr ||
                (enumerations_.find(w.text) != nullptr && enumerations_.find(w.text)->imported_from == nullptr);
            if (!own)
                out_.add(w.where,
                         "order names " + quoted(w.text) + ", which is no record, enum or flags of this bundle",
                         "correct the name or take it off the list");
            if (!rank.emplace(w.text, rank.size()).second)
                out_.add(w.where, "order names " + quoted(w.text) + " twice", "name it once");
        }
        auto sort = [&](auto& list) {
            std::stable_sort(list.begin(), list.end(), [&](const auto& a, const auto& b) {
                const auto x = rank.find(a->name);
                const auto y = rank.find(b->name);
                const auto last = rank.size();
                return (x == rank.end() ? last : x->second) < (y == rank.end() ? last : y->second);
            });
        };
        sort(model_->records);
        sort(model_->enumerations);
        sort(model_->flag_sets);
    }

    // ---- Attributes ----------------------------------------------------------------------------------------

    void resolve(const syntax::record& from, record& into) {
        for (const syntax::attribute& a : from.attributes) {
            attribute made;
            made.name = a.name.text;
            made.doc = a.doc;
            made.where = a.name.where;
            made.since = a.since;
            into.newest = std::max(into.newest, a.since);
            const auto twin = std::find_if(into.attributes.begin(), into.attributes.end(),
                                           [&](const attribute& other) { return other.name == made.name; });
            if (twin != into.attributes.end())
                out_.add(made.where,
                         quoted(made.name) + " is an attribute twice; the first is at " + place(twin->where),
                         "rename one of them or take one out");
            resolve_type(a, into, made);
            if (a.discriminator) resolve_arm(a, into, made);
            into.attributes.push_back(std::move(made));
        }
    }

    void resolve_type(const syntax::attribute& from, record& holder, attribute& into) {
        const syntax::type& type = from.type;
        into.type.name = type.name.text;
        into.extent = type.extent.value_or(0);
        switch (type.is) {
        case syntax::type_kind::oid:
            into.shape = attribute_shape::oid;
            into.type.name = "oid";
            into.target_table = type.name.text;
            if (!tables_.contains(type.name.text))
                unknown(type.name, "table", names_of(tables_), "declare it, or import it from its bundle");
            return;
        case syntax::type_kind::text:
            into.shape = type.extent ? attribute_shape::fixed_string : attribute_shape::counted_string;
            into.type.name = "char";
            into.type.value = find_built_in("char");
            break;
        case syntax::type_kind::list:
            into.shape = attribute_shape::list;
            resolve_name(type.name, into.type);
            if (into.type.of_record != nullptr) {
                into.type.of_record->list_element = true;
                into.type.of_record->held_by.emplace_back(&holder, holder.attributes.size());
            } else if (is_known(into.type))
                out_.add(type.name.where, "a list of " + quoted(type.name.text) + ", which is no record",
                         "lists chain records; use an array, " + type.name.text +
                             "[count], or wrap the value in a record");
            return;
        case syntax::type_kind::array:
            into.shape = type.extent ? attribute_shape::fixed_array : attribute_shape::variable_array;
            resolve_name(type.name, into.type);
            break;
        case syntax::type_kind::named:
            resolve_name(type.name, into.type);
            into.shape = is_plain(into.type) ? attribute_shape::plain : attribute_shape::object;
            return;
        }
        if (type.length) resolve_length(*type.length, holder, into);
    }

    static bool is_plain(const type_ref& t) { return is_plain_value(t) || t.of_enumeration != nullptr; }

    void resolve_name(const word& name, type_ref& into) {
        into.value = find_built_in(name.text.c_str());
        into.of_record = records_.find(name.text);
        into.of_enumeration = enumerations_.find(name.text);
        into.of_flag_set = flag_sets_.find(name.text);
        if (is_known(into)) return;
        std::vector<std::string> known = names_of(types_);
        for (const built_in_value& b : value_list::rows)
            known.push_back(b.name);
        unknown(name, "type", known, "declare it, or import it from its bundle");
    }

    void resolve_length(const word& name, record& holder, attribute& array) {
        array.length_name = name.text;
        attribute* before = holder.attributes.empty() ? nullptr : &holder.attributes.back();
        const std::string subject = quoted(array.name) + " counts its elements in " + quoted(name.text);
        const std::string cure = "write " + name.text + ": u_int16 on the line above";
        if (before == nullptr || before->name != name.text) {
            const bool elsewhere = std::any_of(holder.attributes.begin(), holder.attributes.end(),
                                               [&](const attribute& a) { return a.name == name.text; });
            out_.add(name.where,
                     subject +
                         (elsewhere ? ", which does not stand directly before it" : ", which is no attribute"),
                     elsewhere ? "move the count to the line above the array" : cure);
            return;
        }
        const bool counts =
            before->shape == attribute_shape::plain && before->type.value != nullptr &&
            (before->type.name == "u_int8" || before->type.name == "u_int16" || before->type.name == "u_int32");
        if (!counts) {
            if (is_known(before->type) || before->shape == attribute_shape::oid)
                out_.add(before->where, subject + ", which is no unsigned integer",
                         "make it a u_int8, u_int16 or u_int32");
            return;
        }
        if (before->since != array.since)
            out_.add(array.where, subject + " of an earlier variant",
                     "introduce the array and its count in the same variant");
        before->shape = attribute_shape::length;
    }

    void resolve_arm(const syntax::attribute& from, record& holder, attribute& into) {
        into.discriminator = from.discriminator->text;
        into.case_name = from.selected_by->text;
        if (!facts_of(into.shape).whole) {
            out_.add(into.where, "the arm " + quoted(into.name) + " is no single value",
                     "wrap arrays, strings, lists and oids in a record of their own");
            return;
        }
        if (is_known(into.type)) into.shape = attribute_shape::arm;
        const auto found = std::find_if(holder.attributes.begin(), holder.attributes.end(),
                                        [&](const attribute& a) { return a.name == from.discriminator->text; });
        if (found == holder.attributes.end()) {
            out_.add(from.discriminator->where,
                     "the record " + quoted(holder.name) + " has no attribute " +
                         quoted(from.discriminator->text) + " above this line",
                     "name an enumeration attribute that stands above");
            return;
        }
        const enumeration* selector =
            found->shape == attribute_shape::plain ? found->type.of_enumeration : nullptr;
        if (selector == nullptr || selector->imported_from != nullptr) {
            if (is_known(found->type))
                out_.add(from.discriminator->where,
                         quoted(found->name) + " selects arms but is " +
                             (selector == nullptr
                                  ? "no enumeration"
                                  : "an enumeration of another bundle, whose members are not known here"),
                         "let an enumeration of this bundle select");
            return;
        }
        const auto member = std::find_if(selector->members.begin(), selector->members.end(),
                                         [&](const enumeration_member& m) { return m.name == into.case_name; });
        if (member == selector->members.end()) {
            std::vector<std::string> known;
            for (const enumeration_member& m : selector->members)
                known.push_back(m.name);
            unknown(*from.selected_by, "member of " + selector->name, known, "name a member of " + selector->name);
            return;
        }
        into.case_value = member->value;
    }

    // ---- Tables, messages, registry ------------------------------------------------------------------------

    void resolve(const syntax::table& from, table& into) {
        into.key = from.key;
        into.key_where = from.key_name.where;
        into.ordered = from.ordered;
        if (from.luid) into.told_luid = from.luid->text;
        into.payload = record_named(from.payload);
        if (from.key == key_kind::object) into.key_record = record_named(from.key_name);
        if (from.key == key_kind::whole_payload) into.key_record = into.payload;
        if (from.key != key_kind::attribute) return;
        into.key_attribute = from.key_name.text;
        if (into.payload == nullptr) return;
        std::vector<std::string> known;
        for (const attribute& a : into.payload->attributes)
            known.push_back(a.name);
        if (std::find(known.begin(), known.end(), into.key_attribute) == known.end())
            unknown(from.key_name, "attribute of " + into.payload->name, known,
                    "name an attribute of the payload, or write keyed by record KEY");
    }

    void resolve(const syntax::message& from, message& into) {
        if (from.payload) into.payload = record_named(*from.payload);
    }

    record* record_named(const word& name) {
        record* found = records_.find(name.text);
        if (found != nullptr) return found;
        if (types_.contains(name.text) || find_built_in(name.text.c_str()) != nullptr)
            out_.add(name.where, quoted(name.text) + " is no record", "name a record of this bundle");
        else {
            std::vector<std::string> known;
            for (const auto& [text, record] : records_.all())
                known.push_back(text);
            unknown(name, "record", known, "declare it");
        }
        return nullptr;
    }

    void resolve_registry() {
        std::map<std::string, location> listed;
        for (const word& w : registry_) {
            if (!tables_.contains(w.text))
                unknown(w, "table", names_of(tables_), "declare it, import it or take it off the list");
            else if (!listed.emplace(w.text, w.where).second)
                out_.add(w.where, "the registry lists " + quoted(w.text) + " twice", "list it once");
            else
                model_->registry.push_back(w.text);
        }
        if (registry_.empty()) {
            for (const auto& t : model_->tables)
                model_->registry.push_back(t->name);
            for (const auto& i : model_->imports)
                for (const foreign_table& t : i->tables)
                    model_->registry.push_back(t.name);
            return;
        }
        for (const auto& [name, where] : tables_)
            if (!listed.contains(name))
                out_.add(where, "the registry leaves out the table " + quoted(name), "add it to the registry");
    }

    // ---- Diagnostics ---------------------------------------------------------------------------------------

    static std::vector<std::string> names_of(const std::map<std::string, location>& space) {
        std::vector<std::string> names;
        for (const auto& [name, where] : space)
            names.push_back(name);
        return names;
    }
    /// Proposes the nearest known name when one is near.
    void unknown(const word& name, const std::string& kind, const std::vector<std::string>& known,
                 const std::string& cure) {
        const std::string* nearest = nullptr;
        std::size_t least = std::min<std::size_t>(3, name.text.size() / 2 + 1);
        if (name.text.size() <= 64)
            for (const std::string& k : known)
                if (k.size() <= 64 && distance(name.text, k) < least) {
                    least = distance(name.text, k);
                    nearest = &k;
                }
        out_.add(name.where, "there is no " + kind + " " + quoted(name.text),
                 nearest == nullptr ? cure : "write " + *nearest + ", or " + cure);
    }

    const std::vector<syntax::file>& files_;
    diagnostics& out_;
    std::unique_ptr<bundle> model_ = std::make_unique<bundle>();
    std::map<std::string, location> types_, tables_, messages_;
    directory<record> records_;
    directory<enumeration> enumerations_;
    directory<flag_set> flag_sets_;
    std::vector<std::pair<const syntax::record*, record*>> record_sources_;
    std::vector<std::pair<const syntax::table*, table*>> table_sources_;
    std::vector<std::pair<const syntax::message*, message*>> message_sources_;
    std::vector<word> order_;
    std::vector<word> registry_;
};

} // namespace

std::unique_ptr<bundle> build_model(const std::vector<syntax::file>& files, diagnostics& out) {
    return builder(files, out).build();
}

} // namespace trellis::schema
