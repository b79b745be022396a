#include "tests/support/accessor_walk.h"

#include <cstring>
#include <stdexcept>

namespace trellis::testing {

namespace {

constexpr u32 domain = test_handle::domain;
constexpr u8 state_of_set = 2;
constexpr u32 enumeration_value_at = 12;

template <class Result = void, class... Argument>
Result run(const std::string& name, Argument... argument) {
    return reinterpret_cast<Result (*)(Argument...)>(find_function(name))(argument...);
}

/// Calls the body with a zero of the C type of a number.
template <class Body>
void with_number_of(const std::string& type, Body&& body) {
    if (type == "double") return body(double{});
    if (type == "float") return body(float{});
    if (type == "u_int8") return body(u8{});
    if (type == "u_int16") return body(u16{});
    if (type == "u_int64") return body(u64{});
    if (type == "int8" || type == "char") return body(i8{});
    if (type == "int16") return body(i16{});
    if (type == "int32") return body(i32{});
    if (type == "int64") return body(i64{});
    body(u32{});
}
bool is_number(const std::string& type) {
    return type.rfind("u_int", 0) == 0 || type.rfind("int", 0) == 0 || type == "char" || type == "double" ||
           type == "float" || type == "loom_boolean";
}

template <class T>
T read(const void* from) {
    T value;
    memcpy(&value, from, sizeof value);
    return value;
}

/// One attribute of the pattern and of the object.
class attribute_pass {
  public:
    attribute_pass(accessor_walk& in, const record_description& record, const attribute_description& attribute,
                   const void* pattern, void* object)
        : w(in), record_(record), a_(attribute), pattern_(pattern), object_(object),
          model_(in.schema, in.handle, domain), values_(model_.values_of(a_, record, pattern)),
          reachable_(loom_get_instance_variant(object, 1, 0) >= a_.since) {
        for (const char each : w.path)
            choice_ = (choice_ ^ static_cast<u8>(each)) * 0x100000001B3u;
    }

    void pass() {
        using enum attribute_shape;
        const bool is_record = w.schema.records.contains(a_.type);
        switch (a_.shape) {
        case plain: return pass_plain();
        case object: return is_record ? pass_nested() : pass_object();
        case fixed_array:
        case variable_array: return pass_array();
        case counted_string:
        case fixed_string: return pass_string();
        case oid: return pass_reference();
        case arm: return pass_arm();
        case list: return pass_list();
        case length: return; // with its array
        }
    }

  private:
    // ---- Calls

    template <class Result = void, class... Argument>
    Result call(const char* operation, Argument... argument) {
        error_ = 0;
        allocations_ = w.handle.allocations();
        return run<Result>(name(operation), w.handle.get(), domain, object_, argument..., &error_);
    }
    template <class... Argument>
    void call_chained(const char* operation, Argument... argument) {
        w.handle->last_error = 0;
        allocations_ = w.handle.allocations();
        error_ = run<u32>(name(operation), w.handle.get(), object_, argument...);
        w.handle->last_error = 0;
    }
    std::string name(const char* operation) const { return record_.name + "_" + a_.name + "_" + operation; }

    /// Behind every call. No getter takes memory, and no setter of what lies in place and owns none.
    void done(const char* operation, u32 expected) {
        const bool in_place = a_.shape == attribute_shape::plain || a_.shape == attribute_shape::fixed_string ||
                              (a_.shape == attribute_shape::fixed_array && is_number(a_.type));
        if ((in_place || strncmp(operation, "get", 3) == 0) && w.handle.allocations() != allocations_)
            w.fault(std::string(operation) + " takes memory");
        if (w.out_of_memory()) expected = LOOM_ENOMEM;
        if (error_ != expected)
            w.fault(std::string(operation) + " gives error " + std::to_string(error_) + " instead of " +
                    std::to_string(expected));
        w.handle.end_operation();
    }
    void done(const char* operation) { done(operation, reachable_ ? 0 : u32{LOOM_EIDRM}); }
    void expect(bool holds, const char* operation) {
        if (!holds) w.fault(std::string(operation) + " gives another value than was set");
    }
    u32 choose(u32 below) const {
        return static_cast<u32>(((choice_ ^ w.seed * 0x9E3779B97F4A7C15u) * 0xBF58476D1CE4E5B9u) >> 33) % below;
    }

    template <class... Index>
    void check_state(u8 state, const char* operation, Index... index) {
        if (w.setting || !reachable_ || !w.tracked() || (w.refilled && state == 0)) return;
        expect(call<u8>(operation, index...) == state, operation);
        done(operation);
    }

    // ---- One value in place

    bool is_shared_enumeration() const {
        return a_.shape == attribute_shape::plain && !is_number(a_.type) &&
               !w.schema.enumerations.contains(a_.type);
    }
    /// Of an enumeration of another bundle the walker knows no members: any that is one will do.
    i32 enumeration_value() const {
        if (!is_shared_enumeration()) return read<i32>(static_cast<const u8*>(values_[0]) + enumeration_value_at);
        const i32 wanted = 1 + static_cast<i32>(choose(3));
        return run<u32>(a_.type + "_is_valid_cr", w.handle.get(), wanted) != 0 ? wanted : 0;
    }

    void pass_plain() {
        if (!is_number(a_.type)) return pass_value(enumeration_value(), is_shared_enumeration());
        with_number_of(a_.type, [&](auto zero) { pass_value(read<decltype(zero)>(values_[0]), false); });
    }
    template <class Number>
    void pass_value(Number value, bool by_value) {
        if (w.setting) {
            if (!by_value && choose(2) == 0)
                return with_local(values_[0], [&](const void* source) {
                    call("set", source);
                    done("set");
                });
            call("set_value", value);
            return done("set_value");
        }
        const auto got = call<Number>("get_value");
        done("get_value");
        const void* cell = call<const void*>("get");
        done("get");
        if ((cell != nullptr) != reachable_) w.fault("get hands out what is out of reach, or nothing");
        if (!reachable_) return;
        expect(memcmp(&got, &value, sizeof value) == 0, "get_value");
        check_state(state_of_set, "state_flag_get");
    }

    void pass_object() {
        if (w.setting)
            return with_local(values_[0], [&](const void* source) {
                call("set", source);
                done("set");
            });
        const void* cell = call<const void*>("get");
        done("get");
        if (reachable_) expect(cell != nullptr && named_type(a_.type).compare(cell, values_[0]) == 0, "get");
        check_state(state_of_set, "state_flag_get");
    }

    /// Hands the body an object of the handle's own database with the value, where values have a header.
    template <class Body>
    void with_local(const void* value, Body&& body) {
        if (!has_header()) return body(value);
        void* made = w.made(a_.type);
        if (made == nullptr) return;
        give_value(value, made);
        body(made);
        named_type(a_.type).destroy(w.handle, domain, made);
    }
    bool has_header() const {
        return w.schema.enumerations.contains(a_.type) || w.schema.flag_sets.contains(a_.type);
    }
    /// The value of an enumeration or flag set without its header.
    void give_value(const void* value, void* made) const {
        const u32 header =
            w.schema.enumerations.contains(a_.type) ? enumeration_value_at : LOOM_OBJECT_HEADER_SIZE;
        memcpy(static_cast<u8*>(made) + header, static_cast<const u8*>(value) + header,
               model_.width_of(a_.type) - header);
    }

    /// Half of all nested records are filled where they lie, the others are made outside and moved in.
    void pass_nested() {
        const bool in_place = choose(2) == 0;
        if (w.setting && !in_place && reachable_)
            return move_in(values_[0], [&](void* source) {
                call("set", source);
                done("set");
            });
        void* nested = call<void*>("get");
        done("get");
        if (!reachable_) return;
        if (nested == nullptr) return w.fault("get gives null");
        w.walk(a_.type, values_[0], nested);
        check_state(in_place ? 0 : state_of_set, "state_flag_get");
    }
    /// Makes a record as the pattern's and hands it to the setter, which takes its contents.
    template <class Setter>
    void move_in(const void* value, Setter&& set) {
        void* source = w.made(a_.type);
        if (source == nullptr) return;
        w.walk(a_.type, value, source);
        if (!w.stopped) set(source);
        named_type(a_.type).destroy(w.handle, domain, source);
    }

    // ---- Arrays

    bool is_variable() const { return a_.shape == attribute_shape::variable_array; }
    u32 size() const { return static_cast<u32>(values_.size()); }

    void pass_array() {
        if (w.setting && reachable_ && is_variable() && element_hashes().size() > size()) {
            call("remove_elements");
            done("remove_elements");
        }
        if (is_number(a_.type))
            with_number_of(a_.type, [&](auto zero) { pass_numbers<decltype(zero)>(); });
        else
            for (u32 i = 0; i < size() && !w.stopped; ++i)
                pass_element(i);
        if (size() != 0) check_state(state_of_set, "state_flag_whole_get");
        if (w.setting || !reachable_ || !is_variable()) return;
        expect(model_.count_of(a_, record_, object_) == size(), "the length");
        if (call<void*>("get", size()) != nullptr) w.fault("get hands out an element beyond the end");
        done("get", LOOM_ENOENT);
    }

    enum way { by_value, by_pointer, as_block };

    template <class Number>
    void pass_numbers() {
        const auto ways = static_cast<way>(choose(3));
        std::vector<Number> wanted;
        for (const void* each : values_)
            wanted.push_back(read<Number>(each));
        if (w.setting && ways == as_block) {
            call_setter(true, [&] { call("set_mem", wanted.data(), size()); });
            return done("set_mem");
        }
        for (u32 i = 0; w.setting && i < size() && !w.stopped; ++i) {
            call_setter(false, [&] {
                if (ways == by_value)
                    call("set_value", i, wanted[i]);
                else
                    call("set", i, &wanted[i]);
            });
            done("set");
        }
        if (w.setting || size() == 0) return;
        std::vector<Number> block(size());
        call("get_mem", block.data(), size());
        done("get_mem");
        if (!reachable_) return;
        expect(memcmp(block.data(), wanted.data(), size() * sizeof(Number)) == 0, "get_mem");
        for (u32 i = 0; i < size(); ++i) {
            const auto got = call<Number>("get_value", i);
            done("get_value");
            const void* cell = call<const void*>("get", i);
            done("get");
            expect(cell != nullptr && memcmp(&got, cell, sizeof got) == 0 &&
                       memcmp(&got, &wanted[i], sizeof got) == 0,
                   "get of an element");
            check_state(ways == as_block ? 0 : state_of_set, "state_flag_get", i);
        }
    }

    /// One element that is an object: a value object or a record, which is moved in or copied.
    void pass_element(u32 index) {
        const bool is_record = w.schema.records.contains(a_.type);
        const bool chained = is_variable() && (choose(2) + index) % 2 == 0;
        const auto set = [&](auto* source) {
            call_setter(false, [&] {
                if (!chained)
                    call("set", index, source);
                else if (is_record)
                    call_chained("set_cr", index, source, 0u);
                else
                    call_chained("set_cr", index, source);
            });
            done(chained ? "set_cr" : "set");
        };
        if (w.setting) return is_record && reachable_ ? move_in(values_[index], set) : set(values_[index]);
        void* cell = call<void*>("get", index);
        done("get");
        if ((cell != nullptr) != reachable_) w.fault("get hands out what is out of reach, or nothing");
        if (cell == nullptr) return;
        if (is_record)
            w.walk(a_.type, values_[index], cell);
        else
            expect(named_type(a_.type).compare(cell, values_[index]) == 0, "get of an element");
        check_state(state_of_set, "state_flag_get", index);
    }

    /// What a variable array holds.
    std::vector<u32> element_hashes() {
        std::vector<u32> hashes;
        for (const void* each : model_.values_of(a_, record_, object_))
            hashes.push_back(named_type(a_.type).hash(each, 0));
        return hashes;
    }
    /// Calls a setter of an array. When it finds no memory, a variable array must be as it was, or longer by what
    /// was to be set, or empty if the whole was to be replaced.
    template <class Setter>
    void call_setter(bool replaces, Setter&& setter) {
        const bool watched = w.memory_may_end && is_variable();
        const std::vector<u32> before = watched ? element_hashes() : std::vector<u32>();
        setter();
        if (!watched || !reachable_ || !w.out_of_memory()) return;
        std::vector<u32> after = element_hashes();
        const bool grown = after.size() > before.size();
        after.resize(before.size());
        const bool takes_texts_along = grown && w.schema.records.contains(a_.type);
        if (replaces ? !element_hashes().empty() : !takes_texts_along && after != before)
            w.fault("a setter that finds no memory leaves another array behind");
    }

    // ---- Character arrays, references, arms, lists

    void pass_string() {
        const bool counted = a_.shape == attribute_shape::counted_string;
        const auto* text = static_cast<const char*>(
            counted ? read<const void*>(static_cast<const u8*>(pattern_) + a_.offset) : values_[0]);
        const u32 length = counted ? model_.count_of(a_, record_, pattern_) : a_.extent;
        if (w.setting) {
            const bool chained = choose(2) == 0;
            if (chained)
                call_chained("set_cr", text, length);
            else
                call("set", text, length);
            return done(chained ? "set_cr" : "set");
        }
        char got[300] = {};
        call("get", got, static_cast<u32>(sizeof got));
        done("get");
        if (!reachable_) return;
        expect(strncmp(got, text == nullptr ? "" : text, length) == 0 && (!counted || strlen(got) == length),
               "get");
        if (!w.through_wire || length != 0) check_state(state_of_set, "state_flag_get");
    }

    /// A reference is set, replaced, set again, cleared and set; each step must count.
    void pass_reference() {
        loom_table* const target = w.tables != nullptr ? w.tables->of(a_.target, choose(2)) : nullptr;
        if (w.setting) {
            if (target != nullptr) set_references(target);
            return;
        }
        const void* const expected = reachable_ ? target : nullptr;
        if (call<void*>("get_by_ref") != expected) w.fault("get_by_ref leads elsewhere");
        done("get_by_ref");
        w.handle->last_error = 0;
        if (run<void*>(name("get_by_ref_cr"), w.handle.get(), object_) != expected)
            w.fault("get_by_ref_cr leads elsewhere");
        error_ = w.handle->last_error;
        w.handle->last_error = 0;
        done("get_by_ref_cr");
        if (!(w.through_wire && ends_the_bytes()))
            check_state(target != nullptr ? state_of_set : 0, "state_flag_get");
    }
    /// Whether no attribute follows in what the object's variant reaches.
    bool ends_the_bytes() const {
        const attribute_description* last = nullptr;
        for (const attribute_description& each : record_.attributes)
            if (each.since <= loom_get_instance_variant(object_, 1, 0)) last = &each;
        return last == &a_;
    }
    void set_references(loom_table* target) {
        loom_table* const first = w.tables->of(a_.target, 0);
        loom_table* const other = target == first ? w.tables->of(a_.target, 1) : first;
        const u32 of_target = w.tables->references_to(target), of_other = w.tables->references_to(other);
        bool chained = false;
        const auto step = [&](loom_table* to, u32 more_to_target, u32 more_to_other) {
            if (chained)
                call_chained("set_by_ref_cr", to);
            else
                call("set_by_ref", to);
            done("set_by_ref");
            chained = !chained;
            const u32 counts = reachable_ ? 1 : 0;
            expect(w.tables->references_to(target) == of_target + counts * more_to_target, "the target's count");
            expect(w.tables->references_to(other) == of_other + counts * more_to_other, "the other's count");
        };
        step(other, 0, 1);
        step(target, 1, 0);
        step(target, 1, 0);
        step(nullptr, 0, 0);
        step(target, 1, 0);
        call("set_by_ref", w.tables->record_of(a_.target));
        done("set_by_ref", reachable_ ? u32{LOOM_EINVAL} : u32{LOOM_EIDRM});
    }

    void pass_arm() {
        if (!model_.is_selected(a_, record_, pattern_) || values_.empty() || !reachable_) {
            if (w.setting || (w.refilled && reachable_)) return;
            if (call<void*>("get") != nullptr) w.fault("an arm that nobody has set is there");
            done("get");
            return check_state(0, "state_flag_get");
        }
        if (w.setting) {
            void* made = w.made(a_.type);
            if (made == nullptr) return;
            set_alone(made);
            if (w.stopped) return named_type(a_.type).destroy(w.handle, domain, made);
            void* const earlier = call<void*>("get");
            call("set", made);
            done("set");
            if (earlier != nullptr) named_type(a_.type).destroy(w.handle, domain, earlier);
            return w.handle.end_operation();
        }
        void* cell = call<void*>("get");
        done("get");
        if (cell == nullptr) return w.fault("get gives null");
        if (w.schema.records.contains(a_.type))
            w.walk(a_.type, values_[0], cell);
        else
            expect(model_.compare(a_.type, cell, values_[0]) == 0, "get");
        check_state(state_of_set, "state_flag_get");
    }
    /// Fills a value that stands on its own: what an arm points at.
    void set_alone(void* made) {
        if (w.schema.records.contains(a_.type)) return w.walk(a_.type, values_[0], made);
        if (has_header()) return give_value(values_[0], made);
        u32 ignored = 0;
        run(a_.type + "_set", w.handle.get(), domain, made, values_[0], &ignored);
        if (!w.out_of_memory() && ignored != 0) w.fault("set of an arm's own value fails");
        w.handle.end_operation();
    }

    void pass_list() {
        if (!reachable_) {
            if (call<void*>("get_first") != nullptr) w.fault("a list that is out of reach has elements");
            return done("get_first");
        }
        return w.setting ? set_list() : check_list();
    }
    /// Earlier elements are taken out and ended, so that an object can be filled again.
    void set_list() {
        while (void* element = call<void*>("get_first")) {
            call("remove", element);
            done("remove");
            named_type(a_.type).destroy(w.handle, domain, element);
            w.handle.end_operation();
        }
        for (const void* each : values_) {
            void* element = w.made(a_.type);
            if (element == nullptr) return;
            w.walk(a_.type, each, element);
            if (w.stopped) return named_type(a_.type).destroy(w.handle, domain, element);
            call("set_last", element);
            done("set_last");
        }
    }
    void check_list() {
        void* element = call<void*>("get_first");
        for (const void* each : values_) {
            done("get_next");
            if (element == nullptr) return w.fault("the list is shorter than it was made");
            w.walk(a_.type, each, element);
            element = call<void*>("get_next", element);
        }
        if (element != nullptr) w.fault("the list is longer than it was made");
        expect(call<u32>("get_count") == size(), "get_count");
        done("get_count");
        if (size() != 0) check_state(state_of_set, "state_flag_get");
    }

    accessor_walk& w;
    const record_description& record_;
    const attribute_description& a_;
    const void* pattern_;
    void* object_;
    model_walker model_;
    std::vector<const void*> values_; // of the pattern
    bool reachable_;
    u64 choice_ = 0xCBF29CE484222325u;
    u32 error_ = 0;
    u64 allocations_ = 0; // before the call
};

} // namespace

void* accessor_walk::made(const std::string& type) {
    void* object = named_type(type).create(handle, domain);
    if (object == nullptr && !out_of_memory()) fault("a creation gives null");
    return object;
}

void accessor_walk::walk(const std::string& type, const void* pattern, void* object) {
    const record_description& record = schema.records.at(type);
    const std::string outer = path;
    for (const attribute_description& each : record.attributes) {
        if (stopped) break;
        path = outer + "/" + type + "." + each.name;
        attribute_pass(*this, record, each, pattern, object).pass();
    }
    path = outer;
}

// ---- Tables
// ------------------------------------------------------------------------------------------------------

const reference_tables::tables& reference_tables::opened(const std::string& type) {
    const auto known = open_.find(type);
    if (known != open_.end()) return known->second;
    u32 error = 0;
    const auto open = [&](const char* name) {
        return run<loom_table*>(type + "_table_open", handle_.get(), domain, name, 0u, &error);
    };
    const tables made{open("first"), open("second"),
                      run<loom_table_record*>(type + "_create_record", handle_.get(), domain, &error)};
    if (error != 0) throw std::runtime_error("no table " + type);
    handle_.end_operation();
    return open_.emplace(type, made).first->second;
}

u32 reference_tables::references_to(const loom_table* table) const {
    loom_oid_state state{};
    return loom_oid_mapping_state(handle_, table, &state) == 0 ? static_cast<u32>(state.count) : 0;
}

u32 reference_tables::references() const {
    u32 sum = 0;
    for (const auto& [type, made] : open_)
        sum += references_to(made.first) + references_to(made.second);
    return sum;
}

u32 reference_tables::free_all() {
    u32 waiting = 0;
    for (auto& [type, made] : open_)
        for (loom_table** each : {&made.first, &made.second}) {
            if (*each == nullptr) continue;
            u32 error = 0;
            run(type + "_table_free", handle_.get(), domain, *each, &error);
            if (error != 0 && error != LOOM_EAGAIN) throw std::runtime_error("a table is not freed");
            if (error == 0)
                *each = nullptr;
            else
                ++waiting;
        }
    handle_.end_operation();
    return waiting;
}

} // namespace trellis::testing
