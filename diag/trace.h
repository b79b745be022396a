// Emitting trace statements. A statement's index is a constant: the base of its type or attribute plus its slot
// among the statements of that family and kind, both computed while the caller is compiled. A statement that
// does not apply to the attribute's kind does not compile. Texts stand in statements.h and never reach loaded
// memory.
#pragma once

#include "diag/statements.h"

#include <loom/trace.h>

#include <cstdlib>
#include <string.h>

namespace trellis::diag {

// Never defined: calling them while a slot is computed stops the compiler, which then names them.
void the_statement_has_fewer_entries();
void the_statement_does_not_apply_here();

/// Slot of statement `wanted` among those of kind `of` (0: of the type itself), `copy` counting its entries.
template <std::size_t N>
consteval u32 slot_of(const statement (&statements)[N], std::size_t wanted, u32 copy, kind_set of) {
    if (copy >= statements[wanted].copies) the_statement_has_fewer_entries();
    const bool type_level = of == kinds::of_type;
    if (type_level != (statements[wanted].kinds == kinds::of_type) ||
        (!type_level && (statements[wanted].kinds & of) == 0))
        the_statement_does_not_apply_here();
    u32 slot = copy;
    for (std::size_t i = 0; i < wanted; ++i)
        if (type_level ? statements[i].kinds == kinds::of_type : (statements[i].kinds & of) != 0)
            slot += statements[i].copies;
    return slot;
}

/// Entries that a type (of 0) or an attribute of one kind takes.
template <std::size_t N>
constexpr u32 entries_of(const statement (&statements)[N], kind_set of) {
    u32 count = 0;
    for (const statement& s : statements)
        if (of == kinds::of_type ? s.kinds == kinds::of_type : (s.kinds & of) != 0) count += s.copies;
    return count;
}

/// The raw call, its emit function chosen by the argument kinds.
template <arguments Takes, class... Argument>
inline void emit(const u8* unit, u32 index, u16 module, u8 level, Argument... argument) {
    const u32 word = u32{level} << 24;
    using enum arguments;
    if constexpr (Takes == none)
        __SPf_0(unit, index, module, word);
    else if constexpr (Takes == text)
        __SPf_1(unit, index, module, word, argument...);
    else if constexpr (Takes == number)
        __SPf_4(unit, index, module, word, static_cast<u32>(argument)...);
    else if constexpr (Takes == text_text)
        __SPf_11(unit, index, module, word, argument...);
    else if constexpr (Takes == text_number)
        __SPf_14(unit, index, module, word, argument...);
    else if constexpr (Takes == number_number)
        __SPf_44(unit, index, module, word, static_cast<u32>(argument)...);
    else if constexpr (Takes == pointer_text)
        __SPf_51(unit, index, module, word, argument...);
    else if constexpr (Takes == text_text_text)
        __SPf_111(unit, index, module, word, argument...);
    else
        __SPf_444(unit, index, module, word, static_cast<u32>(argument)...);
}

template <class Owner, const auto& Statements, std::size_t Which, u32 Index, class... Argument>
inline void emit_indexed(Argument... argument) {
    emit<Statements[Which].takes>(Owner::bundle::template trace_unit<Owner::trace_unit>(), Index,
                                  Owner::bundle::trace_module(), Statements[Which].level, argument...);
}

/// A statement of a record type. Level 0 statements are followed by abort: use `die`.
template <class Model, record_says What, u32 Copy = 0, class... Argument>
inline void say(Argument... argument) {
    constexpr std::size_t which = static_cast<std::size_t>(What);
    emit_indexed<Model, record_statements, which,
                 Model::trace_base + slot_of(record_statements, which, Copy, kinds::of_type)>(argument...);
}

/// A statement of an attribute (see trace_kind_of in instance/attribute.h for Kind).
template <class Attribute, attribute_kind Kind, record_says What, u32 Copy = 0, class... Argument>
inline void say_of(Argument... argument) {
    constexpr std::size_t which = static_cast<std::size_t>(What);
    emit_indexed<typename Attribute::model, record_statements, which,
                 Attribute::at.trace + slot_of(record_statements, which, Copy, only(Kind))>(argument...);
}

template <class Model, enumeration_says What, u32 Copy = 0, class... Argument>
inline void say(Argument... argument) {
    constexpr std::size_t which = static_cast<std::size_t>(What);
    emit_indexed<Model, enumeration_statements, which,
                 Model::trace_base + slot_of(enumeration_statements, which, Copy, kinds::of_type)>(argument...);
}

template <class Model, flag_set_says What, u32 Copy = 0, class... Argument>
inline void say(Argument... argument) {
    constexpr std::size_t which = static_cast<std::size_t>(What);
    emit_indexed<Model, flag_set_statements, which,
                 Model::trace_base + slot_of(flag_set_statements, which, Copy, kinds::of_type)>(argument...);
}

/// The frame's and the registry's own statements stand first in their units.
template <class Frame, frame_says What, class... Argument>
inline void say(Argument... argument) {
    constexpr std::size_t which = static_cast<std::size_t>(What);
    emit_indexed<Frame, frame_statements, which,
                 Frame::trace_base + slot_of(frame_statements, which, 0, kinds::of_type)>(argument...);
}

template <class Registry, registry_says What, class... Argument>
inline void say(Argument... argument) {
    constexpr std::size_t which = static_cast<std::size_t>(What);
    emit_indexed<Registry, registry_statements, which,
                 Registry::trace_base + slot_of(registry_statements, which, 0, kinds::of_type)>(argument...);
}

/// Tables and messages take their statements trait by trait: first those of all, then those of key objects, then
/// those of ordered tables; of messages those with a payload last. Model is a table's or message's model, with
/// `has_key_object` and `ordered`, or `has_payload`.
template <class Model>
consteval u32 first_slot_of(table_trait trait) {
    if (trait == table_trait::any) return 0;
    const u32 any = entries_of(table_statements, kind_set(table_trait::any));
    if (trait == table_trait::key_object) {
        if (!Model::has_key_object) the_statement_does_not_apply_here();
        return any;
    }
    if (!Model::ordered) the_statement_does_not_apply_here();
    return any + (Model::has_key_object ? entries_of(table_statements, kind_set(table_trait::key_object)) : 0);
}
template <class Model>
consteval u32 first_slot_of(message_trait trait) {
    if (trait == message_trait::any) return 0;
    if (!Model::has_payload) the_statement_does_not_apply_here();
    return entries_of(message_statements, kind_set(message_trait::any));
}

template <class Model, table_says What, u32 Copy = 0, class... Argument>
inline void say(Argument... argument) {
    constexpr std::size_t which = static_cast<std::size_t>(What);
    constexpr kind_set trait = table_statements[which].kinds;
    emit_indexed<Model, table_statements, which,
                 Model::trace_base + first_slot_of<Model>(table_trait(trait)) +
                     slot_of(table_statements, which, Copy, trait)>(argument...);
}

template <class Model, message_says What, u32 Copy = 0, class... Argument>
inline void say(Argument... argument) {
    constexpr std::size_t which = static_cast<std::size_t>(What);
    constexpr kind_set trait = message_statements[which].kinds;
    emit_indexed<Model, message_statements, which,
                 Model::trace_base + first_slot_of<Model>(message_trait(trait)) +
                     slot_of(message_statements, which, Copy, trait)>(argument...);
}

/// A fatal statement of a type: traced at level 0, then the process ends.
template <class Model, auto What, u32 Copy = 0>
[[noreturn]] inline void die() {
    say<Model, What, Copy>();
    abort();
}

} // namespace trellis::diag
