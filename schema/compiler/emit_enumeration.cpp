// Enumerations: the C struct with its constants, the facade, the model, and one line per exported function. What
// the functions do stands in instance/enumeration.h and codec/.
#include "schema/compiler/emit_families.h"

namespace trellis::schema {

namespace {

void emit_public_header(emission& run, const enumeration& type, const type_text& text) {
    template_writer body({{"$type", type.name}});
    body.add_plain(doc_comment(type.doc));
    body.add(R"(struct $type {
    loom_type_info* loom_tinfo;
    int8_t loom_variant;
    uint8_t loom_layout_variant;
    uint8_t loom_flags;
    int32_t value;
};

/** User values of $type. */
enum {
)");
    for (const enumeration_member& each : type.members)
        body.add_plain(doc_comment(each.doc, "    "))
            .add("    $constant = $value,\n",
                 {{"$constant", run.constant_name(type.name + "_" + each.name)}, {"$value", each.value}});
    body.add(R"(};

extern loom_type_info _$type_type_info_internal;

)");
    body.add_plain(text.prototypes);
    run.public_header(type.name, "Enumeration " + type.name + ".", {}, body.take());
}

void emit_model(emission& run, const enumeration& type) {
    template_writer text = run.writer("Members of $type.", {{"$type", type.name},
                                                            {"$newest", type.newest},
                                                            {"$base_size", type.base_size},
                                                            {"$trace_unit", type.trace_unit},
                                                            {"$trace_base", type.trace_base}});
    text.add(R"(#pragma once

#include "instance/enumeration.h"
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
    static constexpr enumeration_member members[] = {
)");
    for (const enumeration_member& each : type.members)
        text.add("        {\"$member\", $value, $since},\n",
                 {{"$member", each.name}, {"$value", each.value}, {"$since", each.since}});
    text.add(R"(    };
};
} // namespace bundle_$bundle::models
)");
    run.out.add("src/models/" + type.name + ".h", text.take());
}

constexpr std::string_view own_facade = R"(#pragma once

#include "bundle.h"
#include "instance/value_types.h"
#include <$home/$type.h>

namespace bundle_$bundle::models {
struct $type;
}
namespace bundle_$bundle::types {
struct $type {
    using c_type = ::$type;
    using plain_type = i32;
    using model = models::$type;
    static constexpr char name[] = "$type";
    TRELLIS_ENUMERATION_FAMILY($type)
};
} // namespace bundle_$bundle::types
)";

/// Of an enumeration that other bundles call as well, with a value's nine arguments to initialize: holders know no
/// model of it.
constexpr std::string_view shared_facade = R"(#pragma once

#include "bundle.h"
#include "instance/value_types.h"
#include <$home/$type.h>

namespace bundle_$bundle::types {
struct $type {
    using c_type = ::$type;
    using plain_type = i32;
    static constexpr char name[] = "$type";
    TRELLIS_SHARED_ENUMERATION_FAMILY($type)
};
} // namespace bundle_$bundle::types
)";

/// The facade; `home` is the bundle whose public header declares the enumeration.
void emit_facade(emission& run, const std::string& home, const enumeration& type, std::string_view facade) {
    template_writer text = run.writer("What other types call on $type.", {{"$type", type.name}, {"$home", home}});
    run.out.add("src/types/" + type.name + ".h", text.add(facade).take());
}

} // namespace

type_text emit_enumeration(emission& run, const enumeration& type) {
    type_text text;
    text.name = type.name;
    text.includes = {"models/" + type.name + ".h"};
    text.exports = substitute("static_assert(sizeof(::$type) == 16 && offsetof(::$type, value) == 12);\n",
                              {{"$type", type.name}});
    for (const operation_group& each : operations_of(type))
        run.add(text, each);
    emit_public_header(run, type, text);
    emit_facade(run, run.source.name, type, type.shared ? shared_facade : own_facade);
    emit_model(run, type);
    return text;
}

void emit_imported_enumeration(emission& run, const import& from, const enumeration& type) {
    emit_facade(run, from.bundle_name, type, shared_facade);
}

} // namespace trellis::schema
