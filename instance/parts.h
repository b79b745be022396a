// Parts of a holder: values inside an object or an array, as the holder sets them up and ends them. Where nobody
// follows stores and nothing is tracked, parts of the bundle whose models stand beside the holder's are set up and
// ended in place; every other value by its own operation. Objects on their own stand in lifecycle.h and
// enumeration.h.
#pragma once

#include "instance/direct_values.h"
#include "instance/enumeration.h"

namespace trellis {

/// True when a part made now would have the common header: type information in the bundle, no peer, stores that
/// are not announced, no tracking.
template <class Model>
inline bool has_common_header(const call& c, bool announced) {
    const loom_variant_table* table = Model::type::type_info()->variant_table;
    if (!direct::offered || (announced && !direct::is_unwatched(c.handle)) || c.handle->db_kind != 0 ||
        c.handle->domain_state.peer != nullptr || table == nullptr || table->n_variants < 1)
        return false;
    if constexpr (Model::type::category != value_category::record) return true;
    const tracking_mode mode = c.mode();
    return mode == tracking_mode::absent || mode == tracking_mode::off;
}

/// Sets a part up, in memory that the caller zeroed. False, and nothing is done, in any but the common case.
template <class Model>
inline bool set_up_part(const call& c, typename Model::object* part, bool announced, bool counted) {
    if (c.pending() || !has_common_header<Model>(c, announced)) return false;
    loom_type_info* tinfo = Model::type::type_info();
    const i8 variant = clamp_variant<Model>(tinfo->variant_table->n_variants - 1);
    if constexpr (Model::type::category == value_category::record)
        if (counted &&
            !direct::raise_counter(c.handle, tinfo, statistics_of<Model>(tinfo->variant_table, variant)))
            return false;
    loom_object* header = header_of(part);
    header->loom_layout_variant = static_cast<u8>(Model::newest);
    header->loom_variant = variant;
    header->loom_tinfo = tinfo;
    header->loom_flags |= OBJ_NESTED;
    return true;
}

/// Counts the end of a record that holds nothing but plain values. False, and nothing is done, when it has to do
/// with oids, tracking or another bundle's description of the type.
template <class Model>
inline bool end_part(const call& c, const typename Model::object* part) {
    constexpr u8 uncommon = OBJ_OID_MAPPED | OBJ_STATE_TRACKED | OBJ_STTR_OFFSET | OBJ_RA_DATA;
    const loom_object* header = header_of(part);
    loom_type_info* tinfo = Model::type::type_info();
    const loom_variant_table* table = tinfo->variant_table;
    if ((header->loom_flags & uncommon) != 0 || header->loom_tinfo != tinfo ||
        tinfo->magic != LOOM_TYPE_INFO_MAGIC || table == nullptr || table->n_variants < header->loom_variant)
        return false;
    return direct::raise_counter(c.handle, tinfo, statistics_of<Model>(table, header->loom_variant) + 1);
}

/// Initialises a value inside a holder.
template <class Type>
inline void initialize_inside(const call& c, typename Type::c_type* value, u32 write_through, u32 no_accounting,
                              void* base) {
    if constexpr (has_part_model<Type>)
        if (set_up_part<typename Type::model>(c, value, write_through != 0, no_accounting == 0)) return;
    Type::initialize(c.handle, c.domain, value, write_through, no_accounting, base, c.error);
}

/// Ends a value inside a holder; its memory stays the holder's.
template <class Type>
inline void end_inside(const call& c, typename Type::c_type* value) {
    if constexpr (has_part_model<Type> && Type::category == value_category::record)
        if (end_part<typename Type::model>(c, value)) return;
    Type::destroy_internal(c.handle, c.domain, value, 0);
}

} // namespace trellis
