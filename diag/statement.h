// What a trace statement is: its function, level, arguments, text and the kinds of attributes it stands for, and
// how a family lists its statements. The lists stand in diag/statements.h and the headers that it includes.
#pragma once

#include "frame/basic_types.h"

#include <cstddef>

namespace trellis::diag {

/// What an attribute is, as far as its trace statements go. Lengths have none.
enum class trace_kind : u8 {
    plain,        // scalar, boolean, enumeration
    value_object, // string, address, time, byte string, opaque value
    near_record,  // record, union or choice whose statements stand in the same unit
    far_record,   // one whose statements stand in another unit
    flag_set,
    counted_string,
    fixed_string,
    oid,
    arm,
    fixed_values, // fixed array of scalars or booleans
    fixed_objects,
    variable_values,
    variable_objects, // variable array of values with storage of their own, or enumerations
    variable_records,
    list,
    length,
};

using kind_set = u32;
constexpr kind_set only(trace_kind kind) { return kind_set{1} << static_cast<unsigned>(kind); }
constexpr kind_set operator|(trace_kind a, trace_kind b) { return only(a) | only(b); }
constexpr kind_set operator|(kind_set a, trace_kind b) { return a | only(b); }

namespace kinds {
using enum trace_kind;
constexpr kind_set of_type = 0; // a statement of the type itself
constexpr kind_set arrays = fixed_values | fixed_objects | variable_values | variable_objects | variable_records;
constexpr kind_set variable = variable_values | variable_objects | variable_records;
constexpr kind_set arrays_of_values = fixed_values | variable_values;
/// Attributes whose `_set` is no array worker.
constexpr kind_set settable = plain | value_object | near_record | far_record | flag_set | counted_string |
                              fixed_string | arm | fixed_values | fixed_objects;
constexpr kind_set valued = plain | fixed_values | variable_values;
/// Attributes with `_state_flag_get` and `_state_flag_set`.
constexpr kind_set flagged = arrays | plain | value_object | near_record | far_record | flag_set | counted_string |
                             fixed_string | oid | arm | list;
} // namespace kinds

/// What a table's or message's statement depends on.
enum class table_trait : u8 { any, key_object, ordered };
enum class message_trait : u8 { any, with_payload };

namespace kinds {
constexpr kind_set all_tables = kind_set(table_trait::any);
constexpr kind_set tables_with_key_objects = kind_set(table_trait::key_object);
constexpr kind_set ordered_tables = kind_set(table_trait::ordered);
constexpr kind_set all_messages = kind_set(message_trait::any);
constexpr kind_set messages_with_payload = kind_set(message_trait::with_payload);
} // namespace kinds

/// The arguments of a statement, one member per emit function.
enum class arguments : u8 {
    none,
    text,
    number,
    text_text,
    text_number,
    number_number,
    pointer_text,
    text_text_text,
    number_number_number,
};

/// Levels in the order of the level word's top byte; 0 goes on to abort.
constexpr u8 fatal = 0, error = 3, information = 6, diagnostic = 7, frequent = 8;

/// One statement. `text` may hold <bundle>, <type>, <attribute>, <table>, <keytext>, <payload>, <key>,
/// <message>, <name> and <p>, which the schema compiler replaces.
struct statement {
    const char* function;
    u8 level;
    arguments takes;
    u8 copies;
    kind_set kinds; // or the table_trait or message_trait
    const char* text;
};

/// A family's enumerator and the statement that it means.
template <class Says>
struct row {
    Says what;
    statement is;
};

/// The statements of a family; a statement stands at its enumerator's place.
template <class Says, std::size_t N>
struct statement_list {
    statement all[N];

    constexpr const statement& operator[](std::size_t place) const { return all[place]; }
    constexpr const statement& operator[](Says what) const { return all[static_cast<std::size_t>(what)]; }
    constexpr const statement* begin() const { return all; }
    constexpr const statement* end() const { return all + N; }
};

// Never defined: calling it while a list is made stops the compiler, which then names it.
void the_rows_are_not_those_of_the_enumeration_in_its_order();

/// `Says` ends with `count`.
template <class Says, std::size_t N>
consteval statement_list<Says, N> in_order(const row<Says> (&rows)[N]) {
    statement_list<Says, N> list{};
    if (N != static_cast<std::size_t>(Says::count)) the_rows_are_not_those_of_the_enumeration_in_its_order();
    for (std::size_t i = 0; i < N; ++i) {
        if (rows[i].what != static_cast<Says>(i)) the_rows_are_not_those_of_the_enumeration_in_its_order();
        list.all[i] = rows[i].is;
    }
    return list;
}

} // namespace trellis::diag
