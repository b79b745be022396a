#include "schema/compiler/names.h"

#include "schema/compiler/operations.h"

namespace trellis::schema {
namespace {

/// Lists the functions of all types in function order and tells each type's first place to `starts(type, place)`.
template <class Starts>
std::vector<exported_function> list_functions(const bundle& b, Starts starts) {
    std::vector<exported_function> list;
    const auto add = [&](const operation_group& group) {
        for (const operation& each : group.operations)
            list.push_back({group.prefix + each.suffix, group.family, group.where});
    };
    const auto add_types = [&](const auto& types) {
        for (const auto& type : types) {
            starts(*type, list.size());
            for (const operation_group& group : operations_of(*type))
                add(group);
        }
    };
    add_types(b.records);
    add_types(b.enumerations);
    add_types(b.flag_sets);
    add_types(b.tables);
    add_types(b.messages);
    add(frame_operations(b));
    add(registry_operations(b));
    add(trace_operations(b));
    return list;
}

} // namespace

std::vector<exported_function> exported_functions(const bundle& b) {
    return list_functions(b, [](const named&, std::size_t) {});
}

void number_functions(bundle& b) {
    list_functions(b, [](named& type, std::size_t first) { type.call_base = static_cast<std::uint32_t>(first); });
}

std::vector<exported_function> exported_data(const bundle& b) {
    std::vector<exported_function> result;
    const auto type_info = [&](const std::string& name, const location& where) {
        result.push_back({"_" + name + "_type_info_internal", "type information", &where});
    };
    const auto constants = [&](const std::string& stem, const location& where) {
        for (const char* what : {"_name", "_luid", "_luid_text"})
            result.push_back({stem + what, "identity", &where});
    };
    for (const auto& r : b.records)
        type_info(r->name, r->where);
    for (const auto& e : b.enumerations)
        type_info(e->name, e->where);
    for (const auto& f : b.flag_sets)
        type_info(f->name, f->where);
    for (const auto& t : b.tables) {
        type_info(t->name + "_table", t->where);
        type_info(t->name + "_table_record", t->where);
        constants("table_" + t->name, t->where);
        result.push_back({t->name + "_table_vft", "function record", &t->where});
    }
    for (const auto& m : b.messages) {
        type_info(m->name + "_action_message", m->where);
        constants("message_action_" + m->name, m->where);
    }
    for (const auto& i : b.imports)
        for (const foreign_table& t : i->tables)
            result.push_back({t.name + "_table_vft", "function record", &t.where});
    result.push_back({b.name + "_bundle_registered_handler", "frame", &b.where});
    result.push_back({b.name + "_table_lut", "frame", &b.where});
    result.push_back({"g_loom_" + b.name + "_trace_module_id", "frame", &b.where});
    result.push_back({"g_loom_" + b.name + "_stub_trace_module_id", "frame", &b.where});
    return result;
}

} // namespace trellis::schema
