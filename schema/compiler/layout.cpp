#include "schema/compiler/layout.h"

#include "schema/compiler/identity.h"
#include "schema/compiler/names.h"
#include "schema/compiler/trace_store.h"

#include <algorithm>
#include <set>

namespace trellis::schema {
namespace {

constexpr std::uint32_t enumeration_size = 16;
constexpr std::uint32_t pointer_size = 8;
constexpr std::uint32_t oid_size = 48; // type word and value
constexpr std::uint32_t list_head_size = 24;

std::uint64_t aligned(std::uint64_t at, std::uint64_t alignment) {
    return (at + alignment - 1) / alignment * alignment;
}

/// What an attribute takes in the instance.
struct room {
    std::uint64_t width;
    std::uint32_t alignment;
};
room room_of(const attribute& a) {
    switch (a.shape) {
    case attribute_shape::variable_array:
    case attribute_shape::counted_string:
    case attribute_shape::arm: return {pointer_size, 8};
    case attribute_shape::oid: return {oid_size, 8};
    case attribute_shape::list: return {list_head_size, 8};
    case attribute_shape::fixed_string: return {a.extent, 1};
    case attribute_shape::fixed_array: {
        const extent_of_value element = extent_of(a.type);
        return {std::uint64_t{element.width} * a.extent, element.alignment};
    }
    case attribute_shape::plain:
    case attribute_shape::object:
    case attribute_shape::length: {
        const extent_of_value value = extent_of(a.type);
        return {value.width, value.alignment};
    }
    }
    __builtin_unreachable();
}

std::uint32_t layout_size_of(std::uint32_t used_length) {
    const auto rounded = static_cast<std::uint32_t>(aligned(used_length, 8));
    return rounded <= 64 ? rounded + 8 : rounded + 16;
}

/// Sizes from the used lengths.
void settle_sizes(named& type) {
    for (variant_layout& v : type.variants)
        v.layout_size = layout_size_of(v.used_length);
    type.base_size = type.variants.back().layout_size;
    for (variant_layout& v : type.variants)
        v.alloc_slop = type.base_size - v.used_length;
}

/// Whether a value of the attribute's type, in place or in a fixed array, is a record with an area of its own.
const record* nested_in(const attribute& a) { return facts_of(a.shape).in_place ? a.type.of_record : nullptr; }

class layout {
  public:
    layout(bundle& b, diagnostics& out) : b_(b), out_(out) {}

    void run() {
        for (auto& r : b_.records)
            place(*r);
        for (auto& e : b_.enumerations)
            settle_enumeration(*e);
        for (auto& i : b_.imports)
            for (auto& e : i->enumerations)
                settle_enumeration(*e);
        for (auto& f : b_.flag_sets)
            settle_flag_set(*f);
    }

  private:
    /// Records in place first: their sizes are needed.
    void place(record& r) {
        if (!placed_.insert(&r).second) return;
        for (attribute& a : r.attributes)
            if (nested_in(a) != nullptr)
                place(*a.type.of_record);
            else if (a.type.of_flag_set != nullptr)
                settle_flag_set(*a.type.of_flag_set);
        place_in_instance(r);
        place_in_tracking_area(r);
        r.has_nested_records = std::any_of(r.attributes.begin(), r.attributes.end(),
                                           [](const attribute& a) { return nested_in(a) != nullptr; });
        r.oid_count = static_cast<std::uint32_t>(
            std::count_if(r.attributes.begin(), r.attributes.end(),
                          [](const attribute& a) { return facts_of(a.shape).reference; }));
    }

    void place_in_instance(record& r) {
        std::uint64_t at = r.list_element ? links_end : header_size;
        r.variants.assign(static_cast<std::size_t>(r.newest) + 1, {static_cast<std::uint32_t>(at), 0, 0, 0});
        for (attribute& a : r.attributes) {
            const room needed = room_of(a);
            at = aligned(at, needed.alignment);
            a.offset = static_cast<std::uint32_t>(at);
            at += needed.width;
            if (at > largest_instance) {
                out_.add(a.where,
                         "an instance of \"" + r.name + "\" is larger than " + std::to_string(largest_instance) +
                             " bytes",
                         "make the arrays in it shorter, or let them vary");
                at = header_size;
            }
            for (std::size_t v = static_cast<std::size_t>(a.since); v < r.variants.size(); ++v)
                r.variants[v].used_length = static_cast<std::uint32_t>(at);
        }
        settle_sizes(r);
    }

    void place_in_tracking_area(record& r) {
        std::uint64_t at = 0;
        std::uint32_t alignment = 1;
        for (attribute& a : r.attributes) {
            if (facts_of(a.shape).tracked) {
                a.track = static_cast<std::uint32_t>(at++);
                if (a.shape == attribute_shape::fixed_array) at += a.extent;
                if (facts_of(a.shape).flag_block) {
                    alignment = 8;
                    at = aligned(at, 8) + pointer_size;
                }
                if (const record* nested = nested_in(a)) {
                    alignment = std::max(alignment, nested->tracking_alignment);
                    const std::uint32_t areas = a.shape == attribute_shape::fixed_array ? a.extent : 1;
                    at = aligned(at, nested->tracking_alignment) +
                         std::uint64_t{nested->variants.back().tracking_size} * areas;
                }
            }
            for (std::size_t v = static_cast<std::size_t>(a.since); v < r.variants.size(); ++v)
                r.variants[v].tracking_size = static_cast<std::uint32_t>(aligned(at, alignment));
        }
        r.tracking_alignment = alignment;
    }

    static void settle_enumeration(enumeration& e) {
        e.base_size = enumeration_size;
        e.variants.assign(static_cast<std::size_t>(e.newest) + 1, {enumeration_size, enumeration_size, 0, 0});
    }
    static void settle_flag_set(flag_set& f) {
        const auto used = static_cast<std::uint32_t>(aligned(header_size + f.bit_bytes(), 8));
        f.variants.assign(static_cast<std::size_t>(f.newest) + 1, {used, 0, 0, 0});
        settle_sizes(f);
    }

    bundle& b_;
    diagnostics& out_;
    std::set<const record*> placed_;
};

void settle_messages_and_tables(bundle& b) {
    constexpr std::uint32_t shallow_message = 32; // header and message header
    for (auto& m : b.messages) {
        m->base_size = shallow_message + (m->payload == nullptr ? 0 : pointer_size);
        m->variants = {{m->base_size, m->base_size, 0, 0}};
    }
    for (auto& t : b.tables)
        t->variants = {{8, 8, 0, 0}};
}

} // namespace

extent_of_value extent_of(const type_ref& type) {
    if (type.value != nullptr) return {type.value->width, type.value->alignment};
    if (type.of_enumeration != nullptr) return {enumeration_size, 8};
    if (type.of_flag_set != nullptr) return {type.of_flag_set->base_size, 8};
    return {type.of_record->base_size, 8};
}

diag::trace_kind trace_kind_of(const record& holder, const attribute& a) {
    using enum diag::trace_kind;
    const bool plain_value = is_plain_value(a.type);
    switch (a.shape) {
    case attribute_shape::plain: return plain;
    case attribute_shape::fixed_array: return plain_value ? fixed_values : fixed_objects;
    case attribute_shape::variable_array:
        if (plain_value) return variable_values;
        return a.type.of_record != nullptr ? variable_records : variable_objects;
    case attribute_shape::length: return length;
    case attribute_shape::counted_string: return counted_string;
    case attribute_shape::fixed_string: return fixed_string;
    case attribute_shape::oid: return oid;
    case attribute_shape::arm: return arm;
    case attribute_shape::list: return list;
    case attribute_shape::object: break;
    }
    if (a.type.of_flag_set != nullptr) return flag_set;
    if (a.type.of_record == nullptr) return value_object;
    // Whoever holds references is taken apart as a record of another unit is, with more to say.
    const record& inner = *a.type.of_record;
    return inner.trace_unit == holder.trace_unit && inner.oid_count == 0 ? near_record : far_record;
}

void lay_out(bundle& b, diagnostics& out) {
    layout(b, out).run();
    settle_messages_and_tables(b);
    identify_types(b);
    number_trace_statements(b);
    number_functions(b);
}

} // namespace trellis::schema
