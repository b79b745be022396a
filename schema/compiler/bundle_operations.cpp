// The operations of a bundle as a whole. `$siblings_register` and `$siblings_unregister` are the functions of the
// bundles imported from, each behind a comma.
#include "schema/compiler/operations.h"

namespace trellis::schema {
namespace {

constexpr operation of_frame[] = {
    {.suffix = "bundle_handler_register",
     .result = "void*",
     .parameters = "void* handler",
     .doc = "Registers the host's bundle handler, here and in the bundles imported from; returns the one before.",
     .body = "frame::register_handler(::$bundle_bundle_registered_handler, handler$siblings_register)"},
    {.suffix = "bundle_handler_unregister",
     .result = "void*",
     .parameters = "void",
     .doc = "Takes the handler away, here and in the bundles imported from; returns it.",
     .body = "frame::unregister_handler(::$bundle_bundle_registered_handler$siblings_unregister)"},
    {.suffix = "typeinfo_initialize",
     .result = "void",
     .parameters = "loom_handle* handle, uint32_t domain, uint32_t* err",
     .doc = "Brings all type information into the database behind the handle; 12 without memory.",
     .body = "frame::typeinfo_initialize(::$bundle_type_infos, handle, domain, err)"},
    {.suffix = "type_variant_dump",
     .result = "void*",
     .parameters = "loom_print_fn print",
     .doc = "Prints the variant sizes of all types; returns null.",
     .body = "frame::type_variant_dump<frame_statements>(::$bundle_type_infos, print)"},
};

constexpr operation of_registry[] = {
    {.suffix = "fetch_table_get_vft",
     .result = "loom_table_get_vft_fn",
     .parameters = "void",
     .doc = "The address of the lookup by luid.",
     .body = "::$bundle_table_get_vft"},
    {.suffix = "table_get_vft",
     .result = "void",
     .parameters =
         "loom_handle* handle, uint32_t domain, const uint8_t* luid, const loom_table_vft** out, uint32_t* err",
     .doc = "Stores the address of the table's function record; for an unknown luid null, and 2 in `*err`.",
     .body = "static_cast<void>(domain), frame::find_record<registry>(handle, luid, out, err)"},
    {.suffix = "table_mrst_lookup",
     .result = "int32_t",
     .parameters = "const uint8_t* luid",
     .doc = "The registry index of a table's 16-byte luid, or -1.",
     .body = "frame::lookup<registry>(luid)"},
    {.suffix = "table_vft_init",
     .result = "uint32_t",
     .parameters = "void",
     .doc = "Fills the array of function records, once; 0 or an error number.",
     .body = "frame::initialize_records<registry>()"},
};

constexpr operation of_trace[] = {
    {.suffix = "trace_init",
     .result = "uint32_t",
     .parameters = "void",
     .doc = "Registers the trace module, once; returns what the trace facility returns.",
     .body = "direct::init_trace_module(\"loom_$bundle\", &::g_loom_$bundle_trace_module_id, &trace_state)"},
};

/// ", skyband_bundle_handler_register, ..." in the order of the imports.
std::string siblings(const bundle& of, const char* operation) {
    std::string text;
    for (const auto& each : of.imports)
        text += ", " + each->bundle_name + "_bundle_handler_" + operation;
    return text;
}

operation_group group_of(const bundle& of, const std::string& prefix, std::span<const operation> table) {
    return {"bundle",
            &of.where,
            "",
            prefix,
            table,
            "",
            "",
            {{"$bundle", of.name},
             {"$siblings_register", siblings(of, "register")},
             {"$siblings_unregister", siblings(of, "unregister")}}};
}

} // namespace

operation_group frame_operations(const bundle& of) { return group_of(of, of.name + "_", of_frame); }
operation_group registry_operations(const bundle& of) { return group_of(of, of.name + "_", of_registry); }
operation_group trace_operations(const bundle& of) { return group_of(of, "loom_" + of.name + "_", of_trace); }

} // namespace trellis::schema
