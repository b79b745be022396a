// The exported functions of a bundle as tables: one row per operation with its C types and its docstring, in
// function order. The list of names (names.h) and the emitters take what they need from here; what the functions
// do stands in the families. The tables stand in *_operations.cpp.
#pragma once

#include "schema/compiler/model.h"
#include "schema/compiler/template_text.h"

#include <span>
#include <string>
#include <vector>

namespace trellis::schema {

/// One operation: a row of a table. All texts but the suffix may hold placeholders.
struct operation {
    const char* suffix; // "marshal"; behind the prefix of the group
    const char* result;
    const char* parameters; // as C; their last words are the names of the arguments
    const char* doc;        // one or more sentences, no comment marks
    /// The template that is called with the same arguments, if its name is not the suffix.
    const char* worker = nullptr;
    /// What is returned instead of such a call.
    const char* body = nullptr;
};

/// Operations of one subject: a type, an attribute, a key. Models with mistakes have groups as well.
struct operation_group {
    const char* family;    // as trellisc tells it: "record", "accessor", ...
    const location* where; // the declaration that brings the functions
    std::string heading;   // over their prototypes; empty: none
    std::string prefix;    // of their names: "ud_type_"
    std::span<const operation> operations;
    std::string worker; // in front of the worker's name: "record::"
    std::string model;  // what the worker is instantiated for: "models::ud_type"
    substitutions with;
};

std::vector<operation_group> operations_of(const record& type);
std::vector<operation_group> operations_of(const enumeration& type);
std::vector<operation_group> operations_of(const flag_set& type);
std::vector<operation_group> operations_of(const table& type);
std::vector<operation_group> operations_of(const message& type);

/// The bundle's own functions: those of its frame, of its table registry, and the one that announces it to the
/// trace.
operation_group frame_operations(const bundle& of);
operation_group registry_operations(const bundle& of);
operation_group trace_operations(const bundle& of);

/// One function of a group, all placeholders replaced.
struct function {
    std::string name;       // "ud_type_marshal"
    std::string result;     // "uint32_t"
    std::string parameters; // "loom_handle* handle, uint32_t domain"
    std::string returns;    // "trellis::record::marshal<models::ud_type>(handle, domain)"
    std::string doc;
};
function function_of(const operation_group& group, const operation& which);

} // namespace trellis::schema
