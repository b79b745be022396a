// The frame of a bundle: `struct bundle`, module node, handler chain, trace module, entry points of the type
// information, and the block of call counters. What they do stands in frame/.
#include "schema/compiler/emit_families.h"

namespace trellis::schema {

namespace {

constexpr int trace_units = 6;

std::string bundle_header(const bundle& source, unsigned functions) {
    const std::string& name = source.name;
    std::string text = generated_notice(source, "The bundle " + name + " to its own sources.");
    text += "#pragma once\n\n#include \"frame/basic_types.h\"\n#include \"frame/counters.h\"\n\n"
            "#include <loom/instance.h>\n#include <loom/registry.h>\n\n";
    text += "extern \"C\" {\n";
    text += "extern uint16_t g_loom_" + name + "_trace_module_id;\n";
    text += "uint32_t loom_" + name + "_trace_init(void);\n";
    text += "void " + name + "_typeinfo_initialize(loom_handle* handle, uint32_t domain, uint32_t* err);\n";
    text += "#pragma GCC visibility push(hidden)\n";
    text += "extern loom_type_info* const " + name + "_type_infos[]; // closed by a null pointer\n";
    text += "extern trellis::u64 " + name + "_call_counters[" + std::to_string(functions) + "];\n";
    for (int unit = 0; unit < trace_units; ++unit)
        text += "extern const trellis::u8 " + name + "_trace_unit_" + std::to_string(unit) + "[16];\n";
    text += "#pragma GCC visibility pop\n}\n\n";
    text += "namespace bundle_" + name + " {\nusing namespace trellis;\n\nstruct bundle {\n";
    text += "    static constexpr char name[] = \"" + name + "\";\n";
    text += "    static u16 trace_module() { return ::g_loom_" + name + "_trace_module_id; }\n";
    text += "    static void trace_init() { ::loom_" + name + "_trace_init(); }\n";
    text += "    static constexpr loom_typeinfo_initialize_fn typeinfo_initialize = &::" + name +
            "_typeinfo_initialize;\n";
    text += "    static void count(u32 function) { trellis::frame::count_call(::" + name +
            "_call_counters[function]); }\n";
    text += "    template <int Unit>\n    static const u8* trace_unit() {\n";
    for (int unit = 0; unit < trace_units; ++unit)
        text += "        if constexpr (Unit == " + std::to_string(unit) + ") return ::" + name + "_trace_unit_" +
                std::to_string(unit) + ";\n";
    text += "    }\n};\n\n} // namespace bundle_" + name + "\n";
    return text;
}

/// ", skyband_bundle_handler_register, ..." in the order of the imports.
std::string siblings(const bundle& source, const char* operation) {
    std::string text;
    for (const auto& each : source.imports)
        text += ", " + each->bundle_name + "_bundle_handler_" + operation;
    return text;
}

constexpr operation frame_operations[] = {
    {"bundle_handler_register", "void*", "void* handler",
     "Registers the host's bundle handler, here and in the bundles imported from; returns the one before."},
    {"bundle_handler_unregister", "void*", "void",
     "Takes the handler away, here and in the bundles imported from; returns it."},
    {"typeinfo_initialize", "void", "loom_handle* handle, uint32_t domain, uint32_t* err",
     "Brings all type information into the database behind the handle; 12 without memory."},
    {"type_variant_dump", "void*", "loom_print_fn print", "Prints the variant sizes of all types; returns null."},
};

/// The exported function `op` with a body of its own.
std::string frame_function(emission& run, const std::string& name, const std::string& result,
                           const std::string& parameters, const std::string& body) {
    return "TRELLIS_EXPORT " + result + " " + name + "(" + parameters + ") { bundle::count(" +
           std::to_string(run.counter(name)) + "); return " + body + "; }\n";
}

std::string frame_source(emission& run) {
    const bundle& source = run.source;
    const std::string& name = source.name;
    std::string text = generated_notice(source, "Module node, handler chain and trace module.");
    text += "#include \"bundle.h\"\n\n#include \"frame/bundle.h\"\n\n#include <" + name + "/bundle_frame.h>\n\n";
    text += "extern \"C\" {\n";
    for (const auto& each : source.imports) {
        text += "void* " + each->bundle_name + "_bundle_handler_register(void* handler);\n";
        text += "void* " + each->bundle_name + "_bundle_handler_unregister(void);\n";
    }
    text += "\n";
    text += "TRELLIS_EXPORT_DATA void* " + name + "_bundle_registered_handler = nullptr;\n";
    text += "TRELLIS_EXPORT_DATA uint16_t g_loom_" + name + "_trace_module_id = 0;\n";
    text += "TRELLIS_EXPORT_DATA uint16_t g_loom_" + name + "_stub_trace_module_id = 0;\n}\n\n";
    text += "namespace bundle_" + name + " {\n\nnamespace {\n\n";
    text += "/// Owner of the frame's trace statements.\nstruct frame_statements {\n"
            "    using bundle = bundle_" +
            name +
            "::bundle;\n"
            "    static constexpr int trace_unit = 2;\n    static constexpr u32 trace_base = 0;\n};\n\n";
    text += "loom_module_node node = {bundle::name, ::" + name + "_type_infos, nullptr, nullptr};\n";
    text += "u8 node_linked = 0;\nu32 trace_state = 0;\n\n";
    text += "__attribute__((constructor)) void load() {\n    direct::settle();\n"
            "    frame::link_module(node, node_linked);\n}\n";
    text += "__attribute__((destructor)) void unload() { frame::unlink_module(node); }\n\n} // namespace\n\n";
    const std::string handler = "::" + name + "_bundle_registered_handler";
    const auto add = [&](const operation& op, const std::string& body) {
        text += frame_function(run, name + "_" + op.suffix, op.result, op.parameters, body);
    };
    add(frame_operations[0],
        "frame::register_handler(" + handler + ", handler" + siblings(source, "register") + ")");
    add(frame_operations[1], "frame::unregister_handler(" + handler + siblings(source, "unregister") + ")");
    add(frame_operations[2], "frame::typeinfo_initialize(::" + name + "_type_infos, handle, domain, err)");
    add(frame_operations[3], "frame::type_variant_dump<frame_statements>(::" + name + "_type_infos, print)");
    text += frame_function(run, "loom_" + name + "_trace_init", "uint32_t", "void",
                           "direct::init_trace_module(\"loom_" + name + "\", &::g_loom_" + name +
                               "_trace_module_id, &trace_state)");
    return text + "\n} // namespace bundle_" + name + "\n";
}

/// The entry points a host calls; the umbrella header includes it.
void emit_frame_header(emission& run) {
    const std::string& name = run.source.name;
    std::string body;
    for (const operation& each : frame_operations)
        body +=
            doc_comment(each.doc) + each.result + " " + name + "_" + each.suffix + "(" + each.parameters + ");\n";
    body += doc_comment("Registers the trace module, once; returns what the trace facility returns.");
    body += "uint32_t loom_" + name + "_trace_init(void);\n\n";
    body +=
        "/** The handler that is registered, or null. */\nextern void* " + name + "_bundle_registered_handler;\n";
    body += "/** Number of the trace module; 0 until it is registered. */\nextern uint16_t g_loom_" + name +
            "_trace_module_id;\nextern uint16_t g_loom_" + name + "_stub_trace_module_id;\n";
    run.public_header("bundle_frame", "Entry points of the bundle " + name + ".", {}, body);
}

std::string counters_source(const bundle& source, unsigned functions) {
    const std::string symbol = source.name + "_call_counters";
    return generated_notice(source, "One call counter per exported function.") +
           "    .section .spoor_counters, \"aw\", @nobits\n    .balign 8\n    .globl " + symbol +
           "\n    .hidden " + symbol + "\n    .type " + symbol + ", @object\n    .size " + symbol + ", " +
           std::to_string(8 * functions) + "\n" + symbol + ":\n    .skip " + std::to_string(8 * functions) +
           "\n    .section .note.GNU-stack, \"\", @progbits\n";
}

} // namespace

void emit_frame(emission& run) {
    run.out.add("src/bundle.h", bundle_header(run.source, run.counters()));
    run.out.add("src/frame.cpp", frame_source(run));
    run.out.add("src/counters.S", counters_source(run.source, run.counters()));
    emit_frame_header(run);
}

} // namespace trellis::schema
