// Action messages: the C struct with its prototypes, the model, and one line per exported function. What the
// functions do stands in messages/.
#include "schema/compiler/emit_families.h"

namespace trellis::schema {

namespace {

substitutions placeholders(const emission& run, const message& type) {
    return {{"$message", type.name},
            {"$object", type.name + "_action_message"},
            {"$constants", "message_action_" + type.name},
            {"$payload", type.payload == nullptr ? "" : type.payload->name},
            {"$handler", run.source.name + "_" + type.name + "_action_message_handler"},
            {"$handed", "loom_handle* handle, uint32_t domain, void* context, struct " + type.name +
                            "_action_message* message, uint32_t* err"},
            {"$trace_unit", type.trace_unit},
            {"$trace_base", type.trace_base}};
}

void emit_public_header(emission& run, const message& type, const type_text& text) {
    std::vector<std::string> includes;
    template_writer body(placeholders(run, type));
    body.add_plain(doc_comment(type.doc));
    body.add(R"(struct $object {
    loom_type_info* loom_tinfo;
    int8_t loom_variant;
    uint8_t loom_layout_variant;
    uint8_t loom_flags;
    loom_message_header msg_header;
)");
    if (type.payload != nullptr) {
        body.add("    struct $payload* $payload;\n");
        includes.push_back("<" + run.source.name + "/" + type.payload->name + ".h>");
    }
    body.add(R"(};

/** Called with a received message, which then belongs to it. */
typedef void (*$object_handler_fn)($handed);

extern const char $constants_name[];
extern const uint8_t $constants_luid[16];
extern const char $constants_luid_text[33];
extern loom_type_info _$object_type_info_internal;

)");
    body.add_plain(text.prototypes);
    body.add(R"(
/** The handler that an application may define. */
void $handler($handed);
)");
    run.public_header(type.name + "_action", "Action message " + type.name + ".", includes, body.take());
}

void emit_model(emission& run, const message& type) {
    template_writer text = run.writer("Payload and handler of the message $message.", placeholders(run, type));
    text.add("#pragma once\n\n#include \"bundle.h\"\n#include \"messages/message.h\"\n");
    if (type.payload != nullptr) text.add("#include \"types/$payload.h\"\n");
    text.add(R"(
extern "C" {
struct $object;
void $handler($handed) __attribute__((weak, visibility("default")));
}

#include <$bundle/$message_action.h>

namespace bundle_$bundle::messages {
struct $message {
    using bundle = bundle_$bundle::bundle;
    using object = ::$object;
)");
    if (type.payload == nullptr)
        text.add("    using payload = void;\n");
    else
        text.add(R"(    using payload = types::$payload;
    static constexpr auto payload_field = &object::$payload;
)");
    text.add(R"(    static constexpr char display_name[] = "$message_action";
    static constexpr int trace_unit = $trace_unit;
    static constexpr u32 trace_base = $trace_base;
    static const char* name_text() { return ::$constants_name; }
    static const u8* luid() { return ::$constants_luid; }
    static loom_type_info* type_info() { return &::_$object_type_info_internal; }
    static constexpr auto unmarshal_only = &::$object_unmarshal_only;
    static constexpr auto handler = &::$handler;
};
} // namespace bundle_$bundle::messages
)");
    run.out.add("src/models/" + type.name + "_action.h", text.take());
}

/// The instance sizes that the type information tells.
std::string layout_asserts(const message& type) {
    return substitute(R"(static_assert(offsetof(::$object, msg_header) == 12);
static_assert(sizeof(::$object) == $size);
)",
                      {{"$object", type.name + "_action_message"}, {"$size", type.base_size}});
}

} // namespace

type_text emit_message(emission& run, const message& type) {
    type_text text;
    text.name = type.name + "_action"; // a message may share its name with its payload
    text.includes = {"models/" + type.name + "_action.h"};
    text.exports = layout_asserts(type);
    for (const operation_group& each : operations_of(type))
        run.add(text, each);
    emit_public_header(run, type, text);
    emit_model(run, type);
    return text;
}

} // namespace trellis::schema
