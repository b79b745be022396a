// The frame of a bundle: `struct bundle`, module node, handler chain, trace module, entry points of the type
// information, and the block of call counters. What they do stands in frame/.
#include "schema/compiler/assembler.h"
#include "schema/compiler/emit_families.h"
#include "schema/compiler/trace_store.h"

namespace trellis::schema {

namespace {

void emit_bundle_header(emission& run) {
    template_writer text = run.writer("The bundle $bundle to its own sources.", {{"$functions", run.counters()}});
    text.add(R"(#pragma once

#include "frame/basic_types.h"
#include "frame/counters.h"

#include <loom/instance.h>
#include <loom/registry.h>

extern "C" {
extern uint16_t g_loom_$bundle_trace_module_id;
uint32_t loom_$bundle_trace_init(void);
void $bundle_typeinfo_initialize(loom_handle* handle, uint32_t domain, uint32_t* err);
#pragma GCC visibility push(hidden)
extern loom_type_info* const $bundle_type_infos[]; // closed by a null pointer
extern trellis::u64 $bundle_call_counters[$functions];
)");
    for (int unit = 0; unit < trace_units; ++unit)
        text.add("extern const trellis::u8 $bundle_trace_unit_$unit[16];\n", {{"$unit", unit}});
    text.add(R"(#pragma GCC visibility pop
}

namespace bundle_$bundle {
using namespace trellis;

struct bundle {
    static constexpr char name[] = "$bundle";
    static u16 trace_module() { return ::g_loom_$bundle_trace_module_id; }
    static void trace_init() { ::loom_$bundle_trace_init(); }
    static constexpr loom_typeinfo_initialize_fn typeinfo_initialize = &::$bundle_typeinfo_initialize;
    static void count(u32 function) { trellis::frame::count_call(::$bundle_call_counters[function]); }
    template <int Unit>
    static const u8* trace_unit() {
)");
    for (int unit = 0; unit < trace_units; ++unit)
        text.add("        if constexpr (Unit == $unit) return ::$bundle_trace_unit_$unit;\n", {{"$unit", unit}});
    text.add(R"(    }
};

} // namespace bundle_$bundle
)");
    run.out.add("src/bundle.h", text.take());
}

void emit_frame_source(emission& run, const type_text& functions) {
    template_writer text = run.writer("Module node, handler chain and trace module.");
    text.add(R"(#include "bundle.h"

#include "frame/bundle.h"

#include <$bundle/bundle_frame.h>

extern "C" {
)");
    for (const auto& each : run.source.imports)
        text.add(R"(void* $sibling_bundle_handler_register(void* handler);
void* $sibling_bundle_handler_unregister(void);
)",
                 {{"$sibling", each->bundle_name}});
    text.add(R"(
TRELLIS_EXPORT_DATA void* $bundle_bundle_registered_handler = nullptr;
TRELLIS_EXPORT_DATA uint16_t g_loom_$bundle_trace_module_id = 0;
TRELLIS_EXPORT_DATA uint16_t g_loom_$bundle_stub_trace_module_id = 0;
}

namespace bundle_$bundle {

namespace {

/// Owner of the frame's trace statements.
struct frame_statements {
    using bundle = bundle_$bundle::bundle;
    static constexpr int trace_unit = 2;
    static constexpr u32 trace_base = 0;
};

loom_module_node node = {bundle::name, ::$bundle_type_infos, nullptr, nullptr};
u8 node_linked = 0;
u32 trace_state = 0;

__attribute__((constructor)) void load() {
    direct::settle();
    frame::link_module(node, node_linked);
}
__attribute__((destructor)) void unload() { frame::unlink_module(node); }

} // namespace

)");
    text.add_plain(functions.exports);
    text.add("\n} // namespace bundle_$bundle\n");
    run.out.add("src/frame.cpp", text.take());
}

/// The entry points a host calls; the umbrella header includes it.
void emit_frame_header(emission& run, const type_text& functions) {
    template_writer body({{"$bundle", run.source.name}});
    body.add_plain(functions.prototypes);
    body.add(R"(
/** The handler that is registered, or null. */
extern void* $bundle_bundle_registered_handler;
/** Number of the trace module; 0 until it is registered. */
extern uint16_t g_loom_$bundle_trace_module_id;
extern uint16_t g_loom_$bundle_stub_trace_module_id;
)");
    run.public_header("bundle_frame", "Entry points of the bundle " + run.source.name + ".", {}, body.take());
}

void emit_counters(emission& run) {
    const unsigned size = 8 * run.counters();
    template_writer text = run.writer("One call counter per exported function.", {{"$size", size}});
    text.add_plain(section(".spoor_counters", "aw", "nobits"));
    text.add("    .balign 8\n").add_plain(object_label(run.source.name + "_call_counters", size, true));
    text.add("    .skip $size\n").add_plain(end_of_assembler);
    run.out.add("src/counters.S", text.take());
}

} // namespace

void emit_frame(emission& run) {
    type_text functions;
    run.add(functions, frame_operations(run.source));
    run.add(functions, trace_operations(run.source));
    emit_bundle_header(run);
    emit_frame_source(run, functions);
    emit_counters(run);
    emit_frame_header(run, functions);
}

} // namespace trellis::schema
