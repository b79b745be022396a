// Every trace statement of a bundle: family, level, arguments, text and the kinds of attributes it stands for.
// This is the single source: the families of operations take the index of a statement from it while they are
// compiled, and the schema compiler writes the trace store's entries and texts from it. How an index becomes a
// call stands in diag/trace.h.
//
// An enumerator stands twice, in its enumeration and in front of its statement, and a list whose rows stand in
// another order does not compile.
//
// A type's statements take consecutive indexes in its unit: first those without kinds, in the order below, each
// as often as `copies` says; then, attribute by attribute, those whose kinds include the attribute's.
#pragma once

#include "diag/message_statements.h"
#include "diag/record_statements.h"
#include "diag/table_statements.h"

namespace trellis::diag {

/// Statements of the enumeration family.
enum class enumeration_says : u16 {
    create_internal_no_variant_table,
    create_internal_variant_beyond_table,
    initialize_no_variant_table,
    initialize_variant_beyond_table,
    set_instance_embedded_null_object,
    get_oid_count_error_pending,
    get_oid_count_null_object,
    get_object_references_error_pending,
    get_object_references_null_object,
    destroy_internal_corrupted_tinfo,
    destroy_internal_no_variant_table,
    destroy_internal_variant_beyond_table,
    count,
};
inline constexpr auto enumeration_statements = [] {
    using enum enumeration_says;
    using enum arguments;
    using namespace kinds;
    return in_order<enumeration_says>({
        {create_internal_no_variant_table, {"_create_internal", fatal, none, 1, of_type, "varinfo is NULL"}},
        {create_internal_variant_beyond_table,
         {"_create_internal", information, number_number, 1, of_type,
          "variant %u requested only %u variants present"}},
        {initialize_no_variant_table, {"_initialize", fatal, none, 1, of_type, "varinfo is NULL"}},
        {initialize_variant_beyond_table,
         {"_initialize", information, number_number, 1, of_type, "variant %u requested only %u variants present"}},
        {set_instance_embedded_null_object,
         {"_set_instance_embedded", error, none, 1, of_type, "Invalid object handle passed to set embedded flag"}},
        {get_oid_count_error_pending,
         {"_get_oid_count", error, none, 1, of_type, "Error already present in call to get object oid count"}},
        {get_oid_count_null_object,
         {"_get_oid_count", error, none, 1, of_type, "Invalid object passed in to get object oid count"}},
        {get_object_references_error_pending,
         {"_get_object_references", error, none, 1, of_type,
          "Error present in call to get table references from object"}},
        {get_object_references_null_object,
         {"_get_object_references", error, none, 1, of_type,
          "Cannot get table references. Invalid object passed on"}},
        {destroy_internal_corrupted_tinfo,
         {"_destroy_internal", fatal, none, 1, of_type, "tinfo is null or corrupted"}},
        {destroy_internal_no_variant_table, {"_destroy_internal", fatal, none, 1, of_type, "varinfo is NULL"}},
        {destroy_internal_variant_beyond_table,
         {"_destroy_internal", information, number_number, 1, of_type,
          "variant %u requested only %u variants present"}},
    });
}();

/// Statements of the flag set family.
enum class flag_set_says : u16 {
    create_internal_no_variant_table,
    create_internal_variant_beyond_table,
    initialize_no_variant_table,
    initialize_variant_beyond_table,
    set_instance_embedded_null_object,
    get_oid_count_error_pending,
    get_oid_count_null_object,
    get_object_references_error_pending,
    get_object_references_null_object,
    destroy_internal_corrupted_tinfo,
    destroy_internal_no_variant_table,
    destroy_internal_variant_beyond_table,
    unmarshal_jump_skips,
    count,
};
inline constexpr auto flag_set_statements = [] {
    using enum flag_set_says;
    using enum arguments;
    using namespace kinds;
    return in_order<flag_set_says>({
        {create_internal_no_variant_table, {"_create_internal", fatal, none, 1, of_type, "varinfo is NULL"}},
        {create_internal_variant_beyond_table,
         {"_create_internal", information, number_number, 1, of_type,
          "variant %u requested only %u variants present"}},
        {initialize_no_variant_table, {"_initialize", fatal, none, 1, of_type, "varinfo is NULL"}},
        {initialize_variant_beyond_table,
         {"_initialize", information, number_number, 1, of_type, "variant %u requested only %u variants present"}},
        {set_instance_embedded_null_object,
         {"_set_instance_embedded", error, none, 1, of_type, "Invalid object handle passed to set embedded flag"}},
        {get_oid_count_error_pending,
         {"_get_oid_count", error, none, 1, of_type, "Error already present in call to get object oid count"}},
        {get_oid_count_null_object,
         {"_get_oid_count", error, none, 1, of_type, "Invalid object passed in to get object oid count"}},
        {get_object_references_error_pending,
         {"_get_object_references", error, none, 1, of_type,
          "Error present in call to get table references from object"}},
        {get_object_references_null_object,
         {"_get_object_references", error, none, 1, of_type,
          "Cannot get table references. Invalid object passed on"}},
        {destroy_internal_corrupted_tinfo,
         {"_destroy_internal", fatal, none, 1, of_type, "tinfo is null or corrupted"}},
        {destroy_internal_no_variant_table, {"_destroy_internal", fatal, none, 1, of_type, "varinfo is NULL"}},
        {destroy_internal_variant_beyond_table,
         {"_destroy_internal", information, number_number, 1, of_type,
          "variant %u requested only %u variants present"}},
        {unmarshal_jump_skips,
         {"_unmarshal", diagnostic, number_number_number, 1, of_type,
          "offset_jump read_len %d offset_jump_base %d _loom_variant_jump %d"}},
    });
}();

/// Statements of the frame family.
enum class frame_says : u16 {
    type_variant_dump_no_variant_table,
    count,
};
inline constexpr auto frame_statements = [] {
    using enum frame_says;
    using enum arguments;
    using namespace kinds;
    return in_order<frame_says>({
        {type_variant_dump_no_variant_table,
         {"<bundle>_type_variant_dump", error, none, 1, of_type,
          "type variant cached info is NULL during usage dump"}},
    });
}();

/// Statements of the registry family.
enum class registry_says : u16 {
    init_initializing,
    get_vft_error_pending,
    count,
};
inline constexpr auto registry_statements = [] {
    using enum registry_says;
    using enum arguments;
    using namespace kinds;
    return in_order<registry_says>({
        {init_initializing,
         {"<bundle>_table_vft_init (worker shared with _get_vft)", diagnostic, text, 1, of_type,
          "Initializing table vft for %s"}},
        {get_vft_error_pending,
         {"<bundle>_table_get_vft", diagnostic, none, 1, of_type,
          "Error already set when requesting <bundle> table vft"}},
    });
}();

/// The list of a family whose types all have the same statements of their own.
constexpr const auto& list_of(record_says) { return record_statements; }
constexpr const auto& list_of(enumeration_says) { return enumeration_statements; }
constexpr const auto& list_of(flag_set_says) { return flag_set_statements; }
constexpr const auto& list_of(frame_says) { return frame_statements; }
constexpr const auto& list_of(registry_says) { return registry_statements; }

} // namespace trellis::diag
