// Action messages: the C struct with its prototypes, the model, and one line per exported function. What the
// functions do stands in messages/.
#include "schema/compiler/emit_families.h"
#include "schema/compiler/emit_table_operations.h"

namespace trellis::schema {

namespace {

std::string handler_name(const emission& run, const message& type) {
    return run.source.name + "_" + type.name + "_action_message_handler";
}

/// What a handler and a callback get.
std::string handler_parameters(const message& type) {
    return "loom_handle* handle, uint32_t domain, void* context, struct " + type.name +
           "_action_message* message, uint32_t* err";
}

substitutions placeholders(const message& type) {
    return {{"$message", type.name}, {"$payload", type.payload == nullptr ? std::string() : type.payload->name}};
}

void emit_public_header(emission& run, const message& type, const type_text& text) {
    const std::string object = type.name + "_action_message";
    const std::string constants = "message_action_" + type.name;
    std::vector<std::string> includes;
    std::string body = doc_comment(type.doc);
    body += "struct " + object +
            " {\n    loom_type_info* loom_tinfo;\n    int8_t loom_variant;\n"
            "    uint8_t loom_layout_variant;\n    uint8_t loom_flags;\n    loom_message_header msg_header;\n";
    if (type.payload != nullptr) {
        body += "    struct " + type.payload->name + "* " + type.payload->name + ";\n";
        includes.push_back("<" + run.source.name + "/" + type.payload->name + ".h>");
    }
    body += "};\n\n/** Called with a received message, which then belongs to it. */\ntypedef void (*" + object +
            "_handler_fn)(" + handler_parameters(type) + ");\n\n";
    body += "extern const char " + constants + "_name[];\nextern const uint8_t " + constants +
            "_luid[16];\nextern const char " + constants + "_luid_text[33];\nextern loom_type_info _" + object +
            "_type_info_internal;\n\n";
    body += text.prototypes;
    body += "\n/** The handler that an application may define. */\nvoid " + handler_name(run, type) + "(" +
            handler_parameters(type) + ");\n";
    run.public_header(type.name + "_action", "Action message " + type.name + ".", includes, body);
}

void emit_model(emission& run, const message& type) {
    const std::string object = type.name + "_action_message";
    const std::string handler = handler_name(run, type);
    const std::string constant = "    static constexpr ";
    std::string text = generated_notice(run.source, "Payload and handler of the message " + type.name + ".");
    text += "#pragma once\n\n#include \"bundle.h\"\n#include \"messages/message.h\"\n";
    if (type.payload != nullptr) text += "#include \"types/" + type.payload->name + ".h\"\n";
    text += "\nextern \"C\" {\nstruct " + object + ";\nvoid " + handler + "(" + handler_parameters(type) +
            ") __attribute__((weak, visibility(\"default\")));\n}\n\n";
    text += "#include <" + run.source.name + "/" + type.name + "_action.h>\n\n";
    text += "namespace bundle_" + run.source.name + "::messages {\nstruct " + type.name + " {\n";
    text += "    using bundle = bundle_" + run.source.name + "::bundle;\n    using object = ::" + object + ";\n";
    if (type.payload == nullptr) {
        text += "    using payload = void;\n";
    } else {
        text += "    using payload = types::" + type.payload->name + ";\n" + constant +
                "auto payload_field = &object::" + type.payload->name + ";\n";
    }
    text += constant + "char display_name[] = \"" + type.name + "_action\";\n";
    text += constant + "int trace_unit = " + std::to_string(type.trace_unit) + ";\n";
    text += constant + "u32 trace_base = " + std::to_string(type.trace_base) + ";\n";
    text += "    static const char* name_text() { return ::message_action_" + type.name + "_name; }\n";
    text += "    static const u8* luid() { return ::message_action_" + type.name + "_luid; }\n";
    text += "    static loom_type_info* type_info() { return &::_" + object + "_type_info_internal; }\n";
    text += constant + "auto unmarshal_only = &::" + object + "_unmarshal_only;\n";
    text += constant + "auto handler = &::" + handler + ";\n};\n} // namespace bundle_" + run.source.name +
            "::messages\n";
    run.out.add("src/models/" + type.name + "_action.h", std::move(text));
}

/// The instance sizes that the type information tells.
std::string layout_asserts(const message& type) {
    const std::string name = "::" + type.name + "_action_message";
    return "static_assert(offsetof(" + name + ", msg_header) == 12);\nstatic_assert(sizeof(" + name +
           ") == " + (type.payload == nullptr ? "32" : "40") + ");\n";
}

} // namespace

type_text emit_message(emission& run, const message& type) {
    type_text text;
    text.name = type.name + "_action"; // a message may share its name with its payload
    text.includes = {"models/" + type.name + "_action.h"};
    text.exports = layout_asserts(type);
    const substitutions with = placeholders(type);
    for (const message_operation& each : operations_of_messages()) {
        if (!has_operation(type, each)) continue;
        run.add(text,
                {substitute(each.name, with), substitute(each.result, with), substitute(each.parameters, with),
                 std::string("message::") + each.worker + "<messages::" + type.name + ">",
                 substitute(each.doc, with)});
    }
    emit_public_header(run, type, text);
    emit_model(run, type);
    return text;
}

} // namespace trellis::schema
