// The operations of action messages. `$T` is the message's C name.
#include "schema/compiler/operations.h"

namespace trellis::schema {
namespace {

constexpr operation of_message[] = {
    {"create_shallow", "$T*", "$H", "A new message without its payload, or null."},
    {"create", "$T*", "$H", "A new message with its payload, or null."},
    {"create_cr", "$T*", "loom_handle* handle", "The same in a chain of calls; never null."},
    {"destroy", "void", "$H, $T* message", "Ends the message and its payload; null is allowed."},
    {"destroy_cr", "void", "loom_handle* handle, $T* message", "The same in a chain of calls."},
    {"get_luid", "void", "$H, const void* object, uint8_t* luid, $e",
     "Copies the 16 bytes of the object's luid to `luid`."},
    {"len", "uint32_t", "$H, const $T* message", "Bytes of the binary form: header 27, luid 16, payload."},
    {"len_cr", "uint32_t", "loom_handle* handle, const $T* message",
     "The same in a chain of calls; 0 with an error pending."},
    {"is_valid_cr", "uint32_t", "loom_handle* handle", "Non-zero when the peer knows the message."},
    {"marshal", "uint32_t", "$H, void* buffer, $T* message, int32_t length, $e",
     "Writes the binary form into `length` bytes and the total into the message's header; returns the bytes "
     "written. 90: no room. 52: the peer does not know the message."},
    {"marshal_cr", "int32_t", "loom_handle* handle, $T* message, void* buffer, int32_t length",
     "The same in a chain of calls; -1 on an error."},
    {"unmarshal", "uint32_t",
     "$H, void* context, $T** message, const void* buffer, int32_t length, $message_action_message_handler_fn "
     "callback, $e",
     "Reads a message, records it while recording is on, and calls `callback`, else the application's handler "
     "with `context`. 38: there is neither. The message belongs to whoever receives it; it is also stored in "
     "`*message` unless that is null. Returns the bytes read."},
    {"unmarshal_only", "uint32_t", "$H, $T** message, const void* buffer, int32_t length, $e",
     "Reads a message into `*message`, also after a failure; returns the bytes read."},
    {"print", "int32_t", "$H, char* buffer, const $T* message, int32_t length, $e",
     "Prints the message; returns the characters written."},
    {"print_cr", "int32_t", "loom_handle* handle, const $T* message, char* buffer, int32_t length",
     "The same in a chain of calls; -1 on an error."},
    {"to_xml", "uint32_t", "$H, char* buffer, const $T* message, int32_t length, $e",
     "Writes the message as an XML element; returns the characters written."},
    {"toxml_cr", "int32_t", "loom_handle* handle, const $T* message, char* buffer, int32_t length",
     "The same in a chain of calls; -1 on an error."},
    {"from_xml", "$T*", "$H, const loom_xml_document* document, $e, char* message, uint32_t message_length",
     "A new message from the first payload element of the document, or null; a missing element leaves defaults."},
};
constexpr operation of_payload[] = {
    {"get", "struct $payload*", "$H, $T* message, $e", "The message's payload; the message keeps it."},
    {"get_detach", "struct $payload*", "$H, $T* message, $e",
     "The message's payload, which now belongs to the caller."},
    {"set", "void", "$H, $T* message, struct $payload* value, $e",
     "Gives the message a payload. An earlier one is overwritten and not ended: detach it first."},
    {"free_and_set", "void", "$H, $T* message, struct $payload* value, $e",
     "Ends the message's payload and gives it another."},
};

} // namespace

std::vector<operation_group> operations_of(const message& type) {
    const std::string prefix = type.name + "_action_message_";
    const std::string payload = type.payload == nullptr ? "" : type.payload->name;
    const substitutions with = {
        {"$T", "struct " + type.name + "_action_message"}, {"$message", type.name}, {"$payload", payload}};
    std::vector<operation_group> groups;
    const auto add = [&](const std::string& behind, std::span<const operation> table, const char* worker) {
        groups.push_back({"message", &type.where, "", behind, table, std::string("message::") + worker,
                          "messages::" + type.name, with});
    };
    add(prefix, of_message, "");
    if (type.payload != nullptr) add(prefix + payload + "_", of_payload, "payload_");
    return groups;
}

} // namespace trellis::schema
