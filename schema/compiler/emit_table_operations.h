// The functions of tables and messages: names, C types and docstrings, one entry per function, in function order.
// The emitters of both families write these out; what the functions do stands in tables/ and messages/.
#pragma once

#include "schema/compiler/model.h"

#include <span>

namespace trellis::schema {

/// Which tables have the operation.
enum class table_operation_for : std::uint8_t { all, key_object, ordered };
/// Which messages have it.
enum class message_operation_for : std::uint8_t { all, with_payload };

/// One operation. Placeholders of tables: `$table` the name, `$path` the keyed path (table, payload and attribute,
/// or table, key type and an empty attribute), `$crpath` the same without the empty attribute, `$payload` and
/// `$keytype` type names, `$keyvalue` the C type behind a key pointer, `$keyobject` what pkey_create makes. Of
/// messages: `$message`, `$payload`. Both: `$H` handle and domain, `$e` the error word.
template <class For>
struct family_operation {
    const char* name;
    const char* worker; // template in trellis::table or trellis::message
    const char* result;
    const char* parameters;
    const char* doc;
    For applies;
};
using table_operation = family_operation<table_operation_for>;
using message_operation = family_operation<message_operation_for>;

std::span<const table_operation> operations_of_tables();
std::span<const message_operation> operations_of_messages();

bool has_operation(const table& type, const table_operation& operation);
bool has_operation(const message& type, const message_operation& operation);

} // namespace trellis::schema
