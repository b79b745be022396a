// Objects of a generated bundle, filled and read back through the exported accessors, for any record. What an
// attribute is comes from the generated models while this is compiled; the accessors are looked up by their
// exported names, so that the names are tested as well. The models of one record are instantiated once, in the
// unit that registers it; everything else works with record_driver.
#pragma once

#include "tests/support/test_handle.h"

#include "instance/attribute.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace trellis::testing {

/// The same numbers for the same seed, so that what was set can be told again when it is read back.
class number_source {
  public:
    explicit number_source(u64 seed) : state_(seed) {}
    u64 next() {
        u64 mixed = state_ += 0x9E3779B97F4A7C15u;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
        return mixed ^ (mixed >> 31);
    }
    u32 below(u32 limit) { return static_cast<u32>(next() % limit); }
    bool chance() { return below(2) != 0; }

  private:
    u64 state_;
};

/// Tables that references may lead to, two of each type and open until the handle ends, with the references that
/// the runtime counts for them; and a record of each table, to which no reference may lead.
class reference_tables {
  public:
    explicit reference_tables(test_handle& handle) : handle_(handle) {}
    /// The first (0) or second (1) table of that type.
    loom_table* of(const loom_type_info* type, u32 which) {
        return which == 0 ? opened(type).first : opened(type).second;
    }
    loom_table_record* record_of(const loom_type_info* type) { return opened(type).record; }
    u32 references_to(const loom_table* table) const;
    /// References to all of them.
    u32 references() const;
    /// Frees all tables that are left. Returns how many of them wait for references to go.
    u32 free_all();

  private:
    struct tables {
        loom_table* first;
        loom_table* second;
        loom_table_record* record;
    };
    const tables& opened(const loom_type_info* type);

    test_handle& handle_;
    std::map<const loom_type_info*, tables> open_;
};

/// One pass over an object: sets every attribute, or compares every attribute with what a setting pass with the
/// same seed has stored.
struct object_walk {
    test_handle& handle;
    bool setting;
    number_source numbers;
    std::vector<std::string>& faults;
    std::string path;                   // for the faults
    bool memory_may_end = false;        // an allocation fails on purpose; the walk ends there
    reference_tables* tables = nullptr; // what references lead to; without tables they stay empty
    bool through_wire = false; // the object was made of bytes: a reference that ends them has lost its mark
    bool refilled = false;     // arms and marks of an earlier fill may still be there
    bool stopped = false;

    object_walk(test_handle& on, bool sets, u64 seed, std::vector<std::string>& faults_found)
        : handle(on), setting(sets), numbers(seed), faults(faults_found) {}

    bool tracked() const { return handle->sttr_block != nullptr && handle->sttr_block->sttr_mode == LOOM_STTR_ON; }

    void fault(const std::string& what) { faults.push_back(path + ": " + what); }
    /// Behind every call: the error must be the expected one; the stores are judged.
    void done(u32 error, u32 expected, const char* operation) {
        if (out_of_memory()) expected = LOOM_ENOMEM;
        if (error != expected)
            fault(std::string(operation) + " gives error " + std::to_string(error) + " instead of " +
                  std::to_string(expected));
        handle.end_operation();
    }
    /// True from the failing allocation on.
    bool out_of_memory() {
        if (memory_may_end && handle.allocation_failed()) stopped = true;
        return stopped;
    }
    /// Behind every creation.
    bool got(const void* made) {
        if (made != nullptr) return true;
        if (!out_of_memory()) fault("a creation gives null");
        return false;
    }
    template <class T>
    void same(const T& got, const T& expected, const char* operation) {
        if (!(got == expected)) fault(std::string(operation) + " gives another value than was set");
    }
};

/// Operations that every type has, by their exported names.
struct type_operations {
    const char* name;
    i8 newest;
    loom_type_info* (*type_info)();
    void* (*create)(loom_handle*, u32);
    void (*destroy)(loom_handle*, u32, void*);
    u32 (*marshal)(loom_handle*, u32, void*, const void*, i32, u32*);
    u32 (*unmarshal)(loom_handle*, u32, const void*, void*, i32, u32, u32*);
    u32 (*len)(loom_handle*, u32, const void*);
    i32 (*compare)(const void*, const void*);
    u32 (*hash)(const void*, u32);
    void (*set)(loom_handle*, u32, void*, void*, u32*);

    type_operations(const char* type, i8 newest_variant, loom_type_info* (*info)());
};

/// A record.
struct record_driver : type_operations {
    using type_operations::type_operations;
    u32 base_size = 0;
    u32 tracking_size = 0; // of the newest layout
    void (*walk)(object_walk&, void*) = nullptr;
    void (*clone)(loom_handle*, u32, const void*, void**, void*, i32, u32*) = nullptr;
    /// Names of the record types in place, each with the variant that introduced it; arrays count each element.
    std::vector<std::pair<const char*, i8>> nested;
};

/// An enumeration or flag set.
struct compact_driver : type_operations {
    using type_operations::type_operations;
    bool is_flag_set = false;
    u32 size = 0;
    /// Members' user values with their variants, or bit numbers.
    std::vector<std::pair<i32, i8>> members;
};

/// All registered types, in the order of their registration; sorted by name.
const std::vector<record_driver>& all_records();
const std::vector<compact_driver>& all_compact_types();
const record_driver& record_named(std::string_view name);
const compact_driver& compact_named(std::string_view name);
struct registration {
    explicit registration(std::vector<record_driver> records);
    explicit registration(std::vector<compact_driver> types);
};

/// An exported function, or an error that names it.
void* exported_address(const std::string& name);
template <class Function>
Function* exported(const std::string& name) {
    return reinterpret_cast<Function*>(exported_address(name));
}

/// A value of an enumeration that may be set under the handle: a random one, first of `wanted` when not empty.
i32 enumeration_value(object_walk& walk, const char* enumeration, const std::vector<i32>& wanted);

// ---- Values ------------------------------------------------------------------------------------------------

/// A random value that is not the zero value. Pointers inside stay valid until the next value is made.
void make_value(number_source& numbers, ip_address& value);
void make_value(number_source& numbers, ip_prefix& value);
void make_value(number_source& numbers, ipv4_addr& value);
void make_value(number_source& numbers, ipv6_addr& value);
void make_value(number_source& numbers, loom_mac_addr& value);
void make_value(number_source& numbers, calendar_time& value);
void make_value(number_source& numbers, timestamp& value);
void make_value(number_source& numbers, loom_vstring& value);
void make_value(number_source& numbers, nexa_bytestr& value);
void make_value(number_source& numbers, loom_phys_addr& value);
void make_value(number_source& numbers, loom_aes_vstring& value);
void make_value(number_source& numbers, loom_aes_password_vstring& value);
void make_value(number_source& numbers, loom_username_vstring& value);
std::string make_text(number_source& numbers, u32 length);

template <class Type>
typename Type::c_type make_scalar(number_source& numbers) {
    using T = typename Type::c_type;
    if constexpr (Type::category == value_category::boolean)
        return 1;
    else if constexpr (std::is_same_v<T, char>)
        return static_cast<char>('a' + numbers.below(26));
    else if constexpr (std::is_floating_point_v<T>)
        return static_cast<T>(numbers.below(1000000) + 1) / 8;
    else {
        const T value = static_cast<T>(numbers.next());
        return value == 0 ? T{1} : value;
    }
}

template <class Type>
constexpr bool is_value_object =
    Type::category == value_category::object_value || Type::category == value_category::opaque_value;

/// A flag set with random bits set.
template <class Type>
typename Type::c_type* make_flags(object_walk& walk) {
    const compact_driver& driver = compact_named(Type::name);
    static auto* const set_value = exported<void(loom_handle*, u32, typename Type::c_type*, u32, u32, u32*)>(
        std::string(Type::name) + "_set_value");
    static auto* const is_valid = exported<u32(loom_handle*, u32)>(std::string(Type::name) + "_is_valid_cr");
    auto* flags = static_cast<typename Type::c_type*>(driver.create(walk.handle, test_handle::domain));
    if (!walk.got(flags)) return nullptr;
    u32 error = 0;
    for (const auto& [bit, since] : driver.members)
        if (walk.numbers.chance() && is_valid(walk.handle, static_cast<u32>(bit)))
            set_value(walk.handle, test_handle::domain, flags, static_cast<u32>(bit), 1, &error);
    if (error != 0) walk.fault("bits cannot be set");
    return flags;
}

// ---- Attributes --------------------------------------------------------------------------------------------

template <class A>
struct attribute_walker {
    using object = typename A::model::object;
    using type = typename A::type;
    using value = typename type::c_type;
    static constexpr u32 domain = test_handle::domain;

    static std::string accessor(const char* operation) {
        return std::string(A::model::name) + "_" + A::name + "_" + operation;
    }
    template <class Function>
    static Function* find(const char* operation) {
        return exported<Function>(accessor(operation));
    }

    object_walk& w;
    object* const holder;
    const bool reachable;
    std::vector<std::pair<std::string, i32>>& chosen; // discriminators and their values
    const u32 expected = reachable ? 0u : u32{LOOM_EIDRM};
    u32 error = 0;

    u64 allocations = 0; // before the call

    /// In front of every call, as its argument.
    u32* err() {
        error = 0;
        allocations = w.handle.allocations();
        return &error;
    }
    /// Behind every call. No getter takes memory, and no setter of what lies in place and owns none.
    void done(const char* operation) {
        constexpr bool owns_none =
            is_plain<A> || (is_fixed_array<A> && is_array_of_values<A>) || is_fixed_string<A>;
        if ((owns_none || strncmp(operation, "get", 3) == 0) && w.handle.allocations() != allocations)
            w.fault(std::string(operation) + " takes memory");
        w.done(error, expected, operation);
    }

    void walk() {
        if constexpr (is_plain<A>)
            walk_plain();
        else if constexpr (is_nested_record<A>)
            walk_nested();
        else if constexpr (is_object<A>)
            walk_object();
        else if constexpr (is_fixed_array<A>)
            walk_fixed_array();
        else if constexpr (is_variable_array<A>)
            walk_variable_array();
        else if constexpr (is_counted_string<A> || is_fixed_string<A>)
            walk_string();
        else if constexpr (is_oid<A>)
            walk_oid();
        else if constexpr (is_arm<A>)
            walk_arm();
        else if constexpr (is_list<A>)
            walk_list();
    }

    // ---- One value in place

    /// The cases of the arms that the attribute selects.
    static std::vector<i32> cases() {
        std::vector<i32> all;
        for_each_attribute(typename A::model::attributes{}, [&]<class B>() {
            if constexpr (is_arm<B>)
                if constexpr (std::is_same_v<typename B::discriminator, A>) all.push_back(B::selected_by);
        });
        return all;
    }

    void walk_plain() {
        typename type::plain_type plain;
        if constexpr (is_any_enumeration(type::category)) {
            plain = enumeration_value(w, type::name, cases());
            chosen.emplace_back(A::name, plain);
        } else {
            plain = make_scalar<type>(w.numbers);
        }
        const bool by_value = w.numbers.chance() || type::category == value_category::shared_enumeration;
        static auto* const get = find<value*(loom_handle*, u32, object*, u32*)>("get");
        static auto* const get_value =
            find<typename type::plain_type(loom_handle*, u32, object*, u32*)>("get_value");
        static auto* const set = find<void(loom_handle*, u32, object*, const value*, u32*)>("set");
        static auto* const set_value =
            find<void(loom_handle*, u32, object*, typename type::plain_type, u32*)>("set_value");
        if (w.setting) {
            if (by_value) {
                set_value(w.handle, domain, holder, plain, err());
            } else if constexpr (type::category == value_category::enumeration) {
                value* source = type::create(w.handle, domain);
                if (!w.got(source)) return;
                type::set_value(w.handle, domain, source, plain, err());
                if (error == 0) set(w.handle, domain, holder, source, err());
                type::destroy(w.handle, domain, source);
            } else {
                const value source = [&] {
                    if constexpr (is_any_enumeration(type::category))
                        return value{};
                    else
                        return plain;
                }();
                set(w.handle, domain, holder, &source, err());
            }
            done(by_value ? "set_value" : "set");
            return;
        }
        const auto got = get_value(w.handle, domain, holder, err());
        done("get_value");
        const value* cell = get(w.handle, domain, holder, err());
        done("get");
        if (!reachable) {
            if (cell != nullptr) w.fault("get hands out an attribute that is out of reach");
            return;
        }
        w.same(got, plain, "get_value");
        if (cell == nullptr) w.fault("get gives null");
        check_state(state_of_set);
    }

    void walk_object() {
        static auto* const get = find<value*(loom_handle*, u32, object*, u32*)>("get");
        static auto* const set = find<void(loom_handle*, u32, object*, const value*, u32*)>("set");
        with_value([&](const value* source) {
            if (w.setting) {
                set(w.handle, domain, holder, source, err());
                done("set");
                return;
            }
            const value* cell = get(w.handle, domain, holder, err());
            done("get");
            if (!reachable) return;
            if (cell == nullptr || type::compare(cell, source) != 0)
                w.fault("get gives another value than was set");
            check_state(state_of_set);
        });
    }

    /// Calls the body with a random value object or flag set.
    template <class Body>
    void with_value(Body&& body) {
        if constexpr (type::category == value_category::flag_set) {
            value* source = make_flags<type>(w);
            if (source == nullptr) return;
            body(source);
            type::destroy(w.handle, domain, source);
        } else {
            value source{};
            make_value(w.numbers, source);
            body(&source);
        }
    }

    /// Half of all nested records are filled where they lie, the others are made outside and moved in.
    void walk_nested() {
        static auto* const get = find<value*(loom_handle*, u32, object*, u32*)>("get");
        static auto* const set = find<void(loom_handle*, u32, object*, value*, u32*)>("set");
        const record_driver& driver = record_named(type::name);
        const bool in_place = w.numbers.chance();
        if (!reachable) {
            get(w.handle, domain, holder, err());
            done("get");
            return;
        }
        if (w.setting && !in_place) {
            void* source = driver.create(w.handle, domain);
            if (!w.got(source)) return;
            driver.walk(w, source);
            if (!w.stopped) {
                set(w.handle, domain, holder, static_cast<value*>(source), err());
                done("set");
            }
            driver.destroy(w.handle, domain, source);
            return;
        }
        value* nested = get(w.handle, domain, holder, err());
        done("get");
        if (nested == nullptr) return w.fault("get gives null");
        driver.walk(w, nested);
        if (!w.setting) check_state(in_place ? 0 : state_of_set);
    }

    // ---- Arrays

    void walk_fixed_array() {
        if constexpr (is_array_of_values<A>) {
            const std::vector<value> values = make_values(A::extent);
            walk_values(values, w.numbers.below(3));
        } else {
            for (u32 i = 0; i < A::extent && !w.stopped; ++i)
                walk_element(i, false);
            check_whole();
        }
    }

    void walk_variable_array() {
        const u32 count = 1 + w.numbers.below(3);
        if (w.setting && reachable && element_hashes().size() > count) {
            static auto* const remove = find<void(loom_handle*, u32, object*)>("remove_elements");
            remove(w.handle, domain, holder);
            done("remove_elements");
        }
        if constexpr (is_array_of_values<A>) {
            const std::vector<value> values = make_values(count);
            walk_values(values, w.numbers.below(3));
        } else {
            for (u32 i = 0; i < count && !w.stopped; ++i)
                walk_element(i, w.numbers.chance());
            check_whole();
        }
        if (!w.setting && reachable) check_count(count);
    }

    static constexpr bool has_count = is_variable_array<A>;

    void check_count(u32 count) {
        if constexpr (has_count) {
            using length = typename A::length;
            static auto* const get_value =
                exported<typename length::type::c_type(loom_handle*, u32, object*, u32*)>(
                    std::string(A::model::name) + "_" + length::name + "_get_value");
            w.same(static_cast<u32>(get_value(w.handle, domain, holder, err())), count, "the length");
            done("length get_value");
            static auto* const get = find<value*(loom_handle*, u32, object*, u32, u32*)>("get");
            if (get(w.handle, domain, holder, count, err()) != nullptr)
                w.fault("get hands out an element beyond the end");
            w.done(error, LOOM_ENOENT, "get beyond the end");
        }
    }

    /// What a variable array holds.
    std::vector<u32> element_hashes() {
        std::vector<u32> hashes;
        if constexpr (has_count) {
            static auto* const get = find<value*(loom_handle*, u32, object*, u32, u32*)>("get");
            u32 beyond = 0;
            for (u32 i = 0; const value* element = get(w.handle, domain, holder, i, &beyond); ++i)
                hashes.push_back(type::hash(element, 0));
        }
        return hashes;
    }
    /// Calls a setter of a variable array. When it finds no memory, the array must be as it was, or longer by what
    /// was to be set, or empty if the whole was to be replaced.
    template <class Setter>
    void call_setter(bool replaces, Setter&& setter) {
        const std::vector<u32> before = w.memory_may_end ? element_hashes() : std::vector<u32>();
        setter();
        if (!has_count || !reachable || !w.out_of_memory()) return;
        std::vector<u32> after = element_hashes();
        if (replaces) {
            if (!after.empty()) w.fault("a block that finds no memory leaves elements behind");
        } else if (after.size() <= before.size()) {
            w.same(after, before, "a set that finds no memory: the array");
        } else if constexpr (!is_array_of_records<A>) { // records take copies of their strings along
            after.resize(before.size());
            w.same(after, before, "a growth that finds no memory: the first elements");
        }
    }

    std::vector<value> make_values(u32 count) {
        std::vector<value> values(count);
        for (value& each : values)
            each = make_scalar<type>(w.numbers);
        return values;
    }

    enum way { by_value, by_pointer, as_block };

    void walk_values(const std::vector<value>& values, u32 way) {
        static auto* const get = find<value*(loom_handle*, u32, object*, u32, u32*)>("get");
        static auto* const get_value = find<value(loom_handle*, u32, object*, u32, u32*)>("get_value");
        static auto* const get_mem = find<void(loom_handle*, u32, object*, value*, u32, u32*)>("get_mem");
        static auto* const set = find<void(loom_handle*, u32, object*, u32, const value*, u32*)>("set");
        static auto* const set_value = find<void(loom_handle*, u32, object*, u32, value, u32*)>("set_value");
        static auto* const set_mem = find<void(loom_handle*, u32, object*, const value*, u32, u32*)>("set_mem");
        const u32 count = static_cast<u32>(values.size());
        if (w.setting) {
            if (way == as_block) {
                call_setter(true, [&] { set_mem(w.handle, domain, holder, values.data(), count, err()); });
                done("set_mem");
                return;
            }
            for (u32 i = 0; i < count && !w.stopped; ++i) {
                call_setter(false, [&] {
                    if (way == by_value)
                        set_value(w.handle, domain, holder, i, values[i], err());
                    else
                        set(w.handle, domain, holder, i, &values[i], err());
                });
                done(way == by_value ? "set_value" : "set");
            }
            return;
        }
        std::vector<value> block(count);
        get_mem(w.handle, domain, holder, block.data(), count, err());
        done("get_mem");
        if (!reachable) return;
        w.same(block, values, "get_mem");
        for (u32 i = 0; i < count; ++i) {
            w.same(get_value(w.handle, domain, holder, i, err()), values[i], "get_value");
            done("get_value");
            const value* element = get(w.handle, domain, holder, i, err());
            done("get");
            if (element == nullptr || !(*element == values[i])) w.fault("get gives another element than was set");
            check_element_state(i, way == as_block ? 0 : state_of_set);
        }
        check_whole();
    }

    /// One element that is an object: a value object, a flag set or a record.
    void walk_element(u32 index, bool by_copy) {
        static auto* const get = find<value*(loom_handle*, u32, object*, u32, u32*)>("get");
        if constexpr (is_array_of_records<A>) {
            static auto* const set = find<void(loom_handle*, u32, object*, u32, value*, u32*)>("set");
            const record_driver& driver = record_named(type::name);
            if (!reachable) {
                if (get(w.handle, domain, holder, index, err()) != nullptr) w.fault("get reaches too far");
                done("get");
                return;
            }
            if (w.setting) {
                void* source = driver.create(w.handle, domain);
                if (!w.got(source)) return;
                driver.walk(w, source);
                if (w.stopped) {
                    driver.destroy(w.handle, domain, source);
                    return;
                }
                call_setter(false, [&] {
                    if constexpr (has_count) {
                        static auto* const set_cr = find<u32(loom_handle*, object*, u32, value*, u32)>("set_cr");
                        if (by_copy) {
                            w.handle->last_error = 0;
                            error = set_cr(w.handle, holder, index, static_cast<value*>(source), 0);
                            w.handle->last_error = 0;
                            return;
                        }
                    }
                    set(w.handle, domain, holder, index, static_cast<value*>(source), err());
                });
                done(by_copy ? "set_cr by copy" : "set");
                driver.destroy(w.handle, domain, source);
                return;
            }
            value* element = get(w.handle, domain, holder, index, err());
            done("get");
            if (element == nullptr) return w.fault("get gives null");
            w.path += "[" + std::to_string(index) + "]";
            driver.walk(w, element);
            check_element_state(index, state_of_set);
        } else {
            static auto* const set = find<void(loom_handle*, u32, object*, u32, const value*, u32*)>("set");
            with_value([&](const value* source) {
                if (w.setting) {
                    call_setter(false, [&] {
                        if constexpr (has_count) {
                            static auto* const set_cr =
                                find<u32(loom_handle*, object*, u32, const value*)>("set_cr");
                            if (by_copy) {
                                w.handle->last_error = 0;
                                error = set_cr(w.handle, holder, index, source);
                                w.handle->last_error = 0;
                                return;
                            }
                        }
                        set(w.handle, domain, holder, index, source, err());
                    });
                    done(by_copy ? "set_cr" : "set");
                    return;
                }
                const value* element = get(w.handle, domain, holder, index, err());
                done("get");
                if (!reachable) return;
                if (element == nullptr || type::compare(element, source) != 0)
                    w.fault("get gives another element than was set");
                check_element_state(index, state_of_set);
            });
        }
    }

    // ---- Character arrays, references, arms, lists

    void walk_string() {
        constexpr u32 most = [] {
            if constexpr (is_fixed_string<A>)
                return A::extent;
            else
                return 40u;
        }();
        const std::string text = make_text(w.numbers, 1 + w.numbers.below(most));
        static auto* const get = find<void(loom_handle*, u32, object*, char*, u32, u32*)>("get");
        static auto* const set = find<void(loom_handle*, u32, object*, const char*, u32, u32*)>("set");
        static auto* const set_cr = find<u32(loom_handle*, object*, const char*, u32)>("set_cr");
        const bool chained = w.numbers.chance();
        if (w.setting) {
            if (chained) {
                err();
                w.handle->last_error = 0;
                error = set_cr(w.handle, holder, text.data(), static_cast<u32>(text.size()));
                w.handle->last_error = 0;
            } else {
                set(w.handle, domain, holder, text.data(), static_cast<u32>(text.size()), err());
            }
            done(chained ? "set_cr" : "set");
            return;
        }
        char got[64] = {};
        get(w.handle, domain, holder, got, sizeof got, err());
        done("get");
        if (!reachable) return;
        // A shorter text leaves the end of a longer one in a fixed string.
        if (is_fixed_string<A> && w.refilled) got[text.size()] = 0;
        w.same(std::string(got), text, "get");
        check_state(state_of_set);
    }

    /// A reference is set, replaced, set again, cleared and set; each step must count.
    void walk_oid() {
        static auto* const get = find<void*(loom_handle*, u32, object*, u32*)>("get_by_ref");
        static auto* const get_cr = find<void*(loom_handle*, object*)>("get_by_ref_cr");
        loom_table* const target = w.tables != nullptr ? w.tables->of(A::target(), w.numbers.below(2)) : nullptr;
        if (w.setting) {
            if (target != nullptr) set_references(target);
            return;
        }
        const void* const expected_target = reachable ? target : nullptr;
        if (get(w.handle, domain, holder, err()) != expected_target) w.fault("get_by_ref leads elsewhere");
        done("get_by_ref");
        w.handle->last_error = 0;
        if (get_cr(w.handle, holder) != expected_target) w.fault("get_by_ref_cr leads elsewhere");
        error = w.handle->last_error;
        w.handle->last_error = 0;
        done("get_by_ref_cr");
        if (reachable && !(w.through_wire && ends_the_bytes())) check_state(target != nullptr ? state_of_set : 0);
    }

    /// Whether no attribute follows in what the object's variant reaches.
    bool ends_the_bytes() const {
        const i8 variant = loom_get_instance_variant(holder, 1, 0);
        bool last = false;
        for_each_attribute(typename A::model::attributes{}, [&]<class B>() {
            if (B::at.since <= variant) last = std::is_same_v<A, B>;
        });
        return last;
    }

    void set_references(loom_table* target) {
        loom_table* const first = w.tables->of(A::target(), 0);
        loom_table* const other = target == first ? w.tables->of(A::target(), 1) : first;
        const u32 of_target = w.tables->references_to(target);
        const u32 of_other = w.tables->references_to(other);
        bool chained = false;
        const auto step = [&](loom_table* to, u32 more_to_target, u32 more_to_other, const char* what) {
            set_reference(to, chained);
            chained = !chained;
            if (!reachable) more_to_target = more_to_other = 0;
            w.same(w.tables->references_to(target), of_target + more_to_target, what);
            w.same(w.tables->references_to(other), of_other + more_to_other, what);
        };
        step(other, 0, 1, "set_by_ref: the count");
        step(target, 1, 0, "set_by_ref over another reference: the count");
        step(target, 1, 0, "set_by_ref of the same table again: the count");
        step(nullptr, 0, 0, "set_by_ref of nothing: the count");
        step(target, 1, 0, "set_by_ref of an empty reference: the count");
        static auto* const set = find<void(loom_handle*, u32, object*, void*, u32*)>("set_by_ref");
        set(w.handle, domain, holder, w.tables->record_of(A::target()), err());
        w.done(error, reachable ? u32{LOOM_EINVAL} : expected, "set_by_ref of a table's record");
    }

    void set_reference(loom_table* to, bool chained) {
        static auto* const set = find<void(loom_handle*, u32, object*, void*, u32*)>("set_by_ref");
        static auto* const set_cr = find<u32(loom_handle*, object*, void*)>("set_by_ref_cr");
        if (chained) {
            w.handle->last_error = 0;
            error = set_cr(w.handle, holder, to);
            w.handle->last_error = 0;
        } else {
            set(w.handle, domain, holder, to, err());
        }
        done("set_by_ref");
    }

    bool is_chosen() const {
        for (const auto& [name, value] : chosen)
            if (name == A::discriminator::name) return value == A::selected_by;
        return false;
    }

    void walk_arm() {
        static auto* const get = find<value*(loom_handle*, u32, object*, u32*)>("get");
        static auto* const set = find<void(loom_handle*, u32, object*, value*, u32*)>("set");
        if (!is_chosen() || !reachable) {
            if (w.setting || (w.refilled && reachable)) return;
            const value* cell = get(w.handle, domain, holder, err());
            done("get");
            if (cell != nullptr) w.fault("an arm that nobody has set is there");
            if (reachable) check_state(0);
            return;
        }
        if (w.setting) {
            value* made = type::create(w.handle, domain);
            if (!w.got(made)) return;
            fill_alone(made);
            if (w.stopped) {
                type::destroy(w.handle, domain, made);
                return;
            }
            value* const earlier = get(w.handle, domain, holder, err());
            set(w.handle, domain, holder, made, err());
            done("set");
            if (earlier != nullptr) type::destroy(w.handle, domain, earlier);
            w.handle.end_operation();
            return;
        }
        value* cell = get(w.handle, domain, holder, err());
        done("get");
        if (cell == nullptr) return w.fault("get gives null");
        compare_alone(cell);
        check_state(state_of_set);
    }

    /// Fills a value that stands on its own: what an arm points at.
    void fill_alone(value* made) {
        u32 ignored = 0;
        if constexpr (type::category == value_category::record) {
            record_named(type::name).walk(w, made);
        } else if constexpr (is_any_enumeration(type::category)) {
            type::set_value(w.handle, domain, made, enumeration_value(w, type::name, {}), &ignored);
        } else if constexpr (is_plain_value(type::category)) {
            const value plain = make_scalar<type>(w.numbers);
            type::set(w.handle, domain, made, &plain, &ignored);
        } else {
            with_value([&](const value* source) { type::set(w.handle, domain, made, source, &ignored); });
        }
        if (!w.stopped) w.done(ignored, 0, "set of an arm's own value");
    }
    void compare_alone(value* cell) {
        if constexpr (type::category == value_category::record) {
            record_named(type::name).walk(w, cell);
        } else if constexpr (is_any_enumeration(type::category)) {
            w.same(cell->value, enumeration_value(w, type::name, {}), "the arm");
        } else if constexpr (is_plain_value(type::category)) {
            w.same(*cell, make_scalar<type>(w.numbers), "the arm");
        } else {
            with_value([&](const value* source) {
                if (type::compare(cell, source) != 0) w.fault("the arm has another value than was set");
            });
        }
    }

    void walk_list() {
        static auto* const get_first = find<value*(loom_handle*, u32, object*, u32*)>("get_first");
        static auto* const get_next = find<value*(loom_handle*, u32, object*, value*, u32*)>("get_next");
        static auto* const get_count = find<u32(loom_handle*, u32, object*, u32*)>("get_count");
        static auto* const set_last = find<void(loom_handle*, u32, object*, value*, u32*)>("set_last");
        const record_driver& driver = record_named(type::name);
        if (!reachable) {
            if (get_first(w.handle, domain, holder, err()) != nullptr)
                w.fault("a list that is out of reach has elements");
            done("get_first");
            return;
        }
        const u32 count = 1 + w.numbers.below(3);
        if (w.setting) empty_list(driver);
        value* element = nullptr;
        for (u32 i = 0; i < count; ++i) {
            if (w.setting) {
                element = static_cast<value*>(driver.create(w.handle, domain));
                if (!w.got(element)) return;
                driver.walk(w, element);
                if (w.stopped) {
                    driver.destroy(w.handle, domain, element);
                    return;
                }
                set_last(w.handle, domain, holder, element, err());
                done("set_last");
                continue;
            }
            element = element == nullptr ? get_first(w.handle, domain, holder, err())
                                         : get_next(w.handle, domain, holder, element, err());
            done("get_next");
            if (element == nullptr) return w.fault("the list is shorter than it was made");
            driver.walk(w, element);
        }
        if (w.setting) return;
        if (get_next(w.handle, domain, holder, element, err()) != nullptr)
            w.fault("the list is longer than it was made");
        done("get_next");
        w.same(get_count(w.handle, domain, holder, err()), count, "get_count");
        done("get_count");
        check_state(state_of_set);
    }

    /// Earlier elements are taken out and ended, so that an object can be filled again.
    void empty_list(const record_driver& driver) {
        static auto* const get_first = find<value*(loom_handle*, u32, object*, u32*)>("get_first");
        static auto* const remove = find<void(loom_handle*, u32, object*, value*, u32*)>("remove");
        while (value* element = get_first(w.handle, domain, holder, err())) {
            remove(w.handle, domain, holder, element, err());
            done("remove");
            driver.destroy(w.handle, domain, element);
            w.handle.end_operation();
        }
    }

    // ---- State flags

    static constexpr u8 state_of_set = 2;

    void check_state(u8 state) {
        if (!w.tracked() || (w.refilled && state == 0)) return;
        static auto* const get = find<u8(loom_handle*, u32, const object*, u32*)>("state_flag_get");
        w.same(get(w.handle, domain, holder, err()), state, "state_flag_get");
        done("state_flag_get");
    }
    void check_element_state(u32 index, u8 state) {
        if (!w.tracked() || (w.refilled && state == 0)) return;
        static auto* const get = find<u8(loom_handle*, u32, const object*, u32, u32*)>("state_flag_get");
        w.same(get(w.handle, domain, holder, index, err()), state, "state_flag_get of an element");
        done("state_flag_get");
    }
    void check_whole() {
        if (!w.tracked() || w.setting || !reachable) return;
        static auto* const get = find<u8(loom_handle*, u32, const object*, u32*)>("state_flag_whole_get");
        w.same(get(w.handle, domain, holder, err()), state_of_set, "state_flag_whole_get");
        done("state_flag_whole_get");
    }
};

template <class M>
void walk_record(object_walk& w, void* at) {
    auto* object = static_cast<typename M::object*>(at);
    const i8 variant = loom_get_instance_variant(object, 1, 0);
    std::vector<std::pair<std::string, i32>> chosen;
    const std::string outer = w.path;
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if (w.stopped) return;
        w.path = outer + "/" + M::name + "." + A::name;
        if constexpr (!is_length<A>)
            attribute_walker<A>{.w = w, .holder = object, .reachable = variant >= A::at.since, .chosen = chosen}
                .walk();
    });
    w.path = outer;
}

// ---- Registration ------------------------------------------------------------------------------------------

template <class M>
record_driver driver_of() {
    record_driver made(M::name, M::newest, M::type::type_info);
    made.base_size = M::base_size;
    made.tracking_size = M::type::tracking_size;
    made.walk = walk_record<M>;
    made.clone =
        exported<void(loom_handle*, u32, const void*, void**, void*, i32, u32*)>(std::string(M::name) + "_clone");
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if constexpr (is_nested_record<A>) made.nested.emplace_back(A::type::name, A::at.since);
        if constexpr (is_fixed_array<A>)
            if constexpr (is_array_of_records<A>)
                for (u32 i = 0; i < A::extent; ++i)
                    made.nested.emplace_back(A::type::name, A::at.since);
    });
    return made;
}

template <class M>
compact_driver compact_driver_of() {
    compact_driver made(M::name, M::newest, M::type::type_info);
    made.is_flag_set = M::type::category == value_category::flag_set;
    made.size = sizeof(typename M::object);
    if constexpr (M::type::category == value_category::flag_set) {
        i32 bit = 0;
        for (const auto& each : M::bits)
            made.members.emplace_back(bit++, each.since);
    } else {
        for (const auto& each : M::members)
            made.members.emplace_back(each.value, each.since);
    }
    return made;
}

} // namespace trellis::testing
