// Flag sets: the C struct with its bit indices, the facade, the model, and one line per exported function. What
// the functions do stands in instance/flag_set.h and codec/.
#include "schema/compiler/emit_families.h"

namespace trellis::schema {

namespace {

/// Header and bits; the rest of the base size is slop.
std::uint32_t slop_of(const flag_set& type) { return type.base_size - 11 - type.bit_bytes(); }

void emit_public_header(emission& run, const flag_set& type, const type_text& text) {
    template_writer body({{"$type", type.name}, {"$bytes", type.bit_bytes()}, {"$slop", slop_of(type)}});
    body.add_plain(doc_comment(type.doc));
    body.add(R"(struct $type {
    loom_type_info* loom_tinfo;
    int8_t loom_variant;
    uint8_t loom_layout_variant;
    uint8_t loom_flags;
    uint8_t bits[$bytes]; /**< bit i lies in byte i / 8 */
    uint8_t loom_slop[$slop];
};

/** Bits of $type. */
enum {
)");
    for (std::size_t i = 0; i < type.bits.size(); ++i)
        if (!type.bits[i].name.empty())
            body.add_plain(doc_comment(type.bits[i].doc, "    "))
                .add("    $constant = $bit,\n",
                     {{"$constant", run.constant_name(type.name + "_" + type.bits[i].name)}, {"$bit", i}});
    body.add(R"(    $type_bit_count = $count
};

extern loom_type_info _$type_type_info_internal;

)",
             {{"$count", type.bits.size()}});
    body.add_plain(text.prototypes);
    run.public_header(type.name, "Flag set " + type.name + ".", {}, body.take());
}

void emit_facade(emission& run, const flag_set& type) {
    template_writer text =
        run.writer("What other types call on $type.",
                   {{"$type", type.name}, {"$newest", type.newest}, {"$bytes", type.bit_bytes()}});
    text.add(R"(#pragma once

#include "bundle.h"
#include "instance/value_types.h"
#include <$bundle/$type.h>

namespace bundle_$bundle::models {
struct $type;
}
namespace bundle_$bundle::types {
struct $type {
    using c_type = ::$type;
    using bundle = bundle_$bundle::bundle;
    using model = models::$type;
    static constexpr char name[] = "$type";
    static constexpr i8 newest = $newest;
    static constexpr u32 bit_bytes = $bytes;
    TRELLIS_FLAG_SET_FAMILY($type)
};
} // namespace bundle_$bundle::types
)");
    run.out.add("src/types/" + type.name + ".h", text.take());
}

void emit_model(emission& run, const flag_set& type) {
    template_writer text = run.writer("Bits of $type.", {{"$type", type.name},
                                                         {"$newest", type.newest},
                                                         {"$base_size", type.base_size},
                                                         {"$trace_unit", type.trace_unit},
                                                         {"$trace_base", type.trace_base},
                                                         {"$bytes", type.bit_bytes()}});
    text.add(R"(#pragma once

#include "instance/flag_set.h"
#include "types/$type.h"

namespace bundle_$bundle::models {
struct $type {
    using type = types::$type;
    using object = ::$type;
    using bundle = bundle_$bundle::bundle;
    static constexpr char name[] = "$type";
    static constexpr i8 newest = $newest;
    static constexpr u32 base_size = $base_size;
    static constexpr int trace_unit = $trace_unit;
    static constexpr u32 trace_base = $trace_base;
    static constexpr u32 bit_bytes = $bytes;
    static constexpr flag_bit bits[] = {
)");
    for (const flag_member& each : type.bits)
        text.add("        {$bit, $since},\n",
                 {{"$bit", each.name.empty() ? "nullptr" : c_literal(each.name)}, {"$since", each.since}});
    text.add(R"(    };
};
} // namespace bundle_$bundle::models
)");
    run.out.add("src/models/" + type.name + ".h", text.take());
}

} // namespace

type_text emit_flag_set(emission& run, const flag_set& type) {
    type_text text;
    text.name = type.name;
    text.includes = {"models/" + type.name + ".h"};
    text.exports = substitute(
        "static_assert(sizeof(::$type) == $size && offsetof(::$type, bits) == LOOM_OBJECT_HEADER_SIZE);\n",
        {{"$type", type.name}, {"$size", type.base_size}});
    for (const operation_group& each : operations_of(type))
        run.add(text, each);
    emit_public_header(run, type, text);
    emit_facade(run, type);
    emit_model(run, type);
    return text;
}

} // namespace trellis::schema
