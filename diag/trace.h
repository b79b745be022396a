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

/// Slot of statement `wanted` among those for which `applies` holds, `copy` counting its entries.
template <class Says, std::size_t N, class Applies>
consteval u32 slot_among(const statement_list<Says, N>& list, Says wanted, u32 copy, Applies applies) {
    if (copy >= list[wanted].copies) the_statement_has_fewer_entries();
    if (!applies(list[wanted])) the_statement_does_not_apply_here();
    u32 slot = copy;
    for (std::size_t i = 0; i < static_cast<std::size_t>(wanted); ++i)
        if (applies(list[i])) slot += list[i].copies;
    return slot;
}

/// Slot of a statement of the type itself.
template <class Says, std::size_t N>
consteval u32 slot_of(const statement_list<Says, N>& list, Says wanted, u32 copy) {
    return slot_among(list, wanted, copy, [](const statement& each) { return each.kinds == kinds::of_type; });
}
/// Slot of a statement of attributes of one kind.
template <class Says, std::size_t N>
consteval u32 slot_of(const statement_list<Says, N>& list, Says wanted, u32 copy, trace_kind of) {
    return slot_among(list, wanted, copy, [of](const statement& each) { return (each.kinds & only(of)) != 0; });
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

template <class Owner, const auto& Statements, auto What, u32 Index, class... Argument>
inline void emit_indexed(Argument... argument) {
    emit<Statements[What].takes>(Owner::bundle::template trace_unit<Owner::trace_unit>(), Index,
                                 Owner::bundle::trace_module(), Statements[What].level, argument...);
}

/// A statement of a type, or of the frame or the registry, which stand first in their units. Level 0 statements
/// are followed by abort: use `die`. Tables and messages, whose statements depend on their traits, have their own.
template <class Owner, auto What, u32 Copy = 0, class... Argument>
inline void say(Argument... argument) {
    constexpr const auto& list = list_of(What);
    emit_indexed<Owner, list, What, Owner::trace_base + slot_of(list, What, Copy)>(argument...);
}

/// A statement of an attribute (see trace_kind_of in instance/attribute.h for Kind).
template <class Attribute, trace_kind Kind, record_says What, u32 Copy = 0, class... Argument>
inline void say_of(Argument... argument) {
    emit_indexed<typename Attribute::model, record_statements, What,
                 Attribute::at.trace + slot_of(record_statements, What, Copy, Kind)>(argument...);
}

/// A fatal statement of a type: traced at level 0, then the process ends.
template <class Model, auto What, u32 Copy = 0>
[[noreturn]] inline void die() {
    say<Model, What, Copy>();
    abort();
}

} // namespace trellis::diag
