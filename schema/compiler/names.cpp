#include "schema/compiler/names.h"

#include <array>

namespace trellis::schema {
namespace {

using names = std::span<const std::string_view>;

constexpr std::array<std::string_view, 39> of_record = {"create",
                                                        "create_cr",
                                                        "create_internal",
                                                        "initialize",
                                                        "set_instance_embedded",
                                                        "get_oid_count",
                                                        "get_object_references",
                                                        "sizeof",
                                                        "sizeof_internal",
                                                        "destroy",
                                                        "destroy_cr",
                                                        "destroy_internal",
                                                        "adjust_variant",
                                                        "variant_data_index_cap",
                                                        "get_luid",
                                                        "offset_remove",
                                                        "offset_update",
                                                        "clone",
                                                        "clone_cr",
                                                        "clone_internal",
                                                        "marshal_for_clone",
                                                        "marshal",
                                                        "unmarshal",
                                                        "len",
                                                        "len_cr",
                                                        "compare",
                                                        "hash",
                                                        "is_valid_cr",
                                                        "get_all",
                                                        "get",
                                                        "set_all",
                                                        "set",
                                                        "set_all_state_tracking_flag",
                                                        "post_copyout_cleanup",
                                                        "print",
                                                        "print_cr",
                                                        "to_xml",
                                                        "toxml_cr",
                                                        "from_xml"};

constexpr std::array<std::string_view, 32> of_enumeration = {"variant_data_index_cap",
                                                             "initialize",
                                                             "set_instance_embedded",
                                                             "get_oid_count",
                                                             "get_object_references",
                                                             "get_luid",
                                                             "create_internal",
                                                             "create",
                                                             "create_cr",
                                                             "destroy",
                                                             "destroy_internal",
                                                             "destroy_cr",
                                                             "map_to_user_value",
                                                             "map_to_internal_value",
                                                             "adjust_variant",
                                                             "compare",
                                                             "hash",
                                                             "sizeof",
                                                             "len",
                                                             "len_cr",
                                                             "get",
                                                             "get_value",
                                                             "set",
                                                             "set_value",
                                                             "marshal",
                                                             "unmarshal",
                                                             "print",
                                                             "print_cr",
                                                             "to_xml",
                                                             "toxml_cr",
                                                             "from_xml",
                                                             "is_valid_cr"};

constexpr std::array<std::string_view, 33> of_flag_set = {"variant_data_index_cap",
                                                          "initialize",
                                                          "set_instance_embedded",
                                                          "get_oid_count",
                                                          "get_object_references",
                                                          "get_luid",
                                                          "create_internal",
                                                          "create",
                                                          "create_cr",
                                                          "destroy",
                                                          "destroy_internal",
                                                          "destroy_cr",
                                                          "adjust_variant",
                                                          "compare",
                                                          "hash",
                                                          "sizeof",
                                                          "len",
                                                          "len_cr",
                                                          "marshal",
                                                          "unmarshal",
                                                          "print",
                                                          "print_cr",
                                                          "to_xml",
                                                          "toxml_cr",
                                                          "from_xml",
                                                          "is_valid_cr",
                                                          "in_range",
                                                          "get",
                                                          "set",
                                                          "get_value",
                                                          "get_cr",
                                                          "set_value",
                                                          "set_cr"};

// Accessors by shape.
constexpr std::array<std::string_view, 6> of_plain = {"get",       "get_value",      "set",
                                                      "set_value", "state_flag_get", "state_flag_set"};
constexpr std::array<std::string_view, 4> of_object = {"get", "set", "state_flag_get", "state_flag_set"};
constexpr std::array<std::string_view, 13> of_fixed_values = {"get",
                                                              "get_value",
                                                              "get_mem",
                                                              "set",
                                                              "set_value",
                                                              "set_mem",
                                                              "set_mem_cr",
                                                              "state_flag_get",
                                                              "state_flag_set",
                                                              "state_flag_get_arr",
                                                              "state_flag_set_arr",
                                                              "state_flag_whole_get",
                                                              "state_flag_whole_set"};
constexpr std::array<std::string_view, 8> of_fixed_objects = {"get",
                                                              "set",
                                                              "state_flag_get",
                                                              "state_flag_set",
                                                              "state_flag_get_arr",
                                                              "state_flag_set_arr",
                                                              "state_flag_whole_get",
                                                              "state_flag_whole_set"};
constexpr std::array<std::string_view, 15> of_variable_values = {"get",
                                                                 "get_value",
                                                                 "get_mem",
                                                                 "set",
                                                                 "set_cr",
                                                                 "set_value",
                                                                 "set_mem",
                                                                 "set_mem_cr",
                                                                 "remove_elements",
                                                                 "state_flag_get",
                                                                 "state_flag_set",
                                                                 "state_flag_get_arr",
                                                                 "state_flag_set_arr",
                                                                 "state_flag_whole_get",
                                                                 "state_flag_whole_set"};
constexpr std::array<std::string_view, 10> of_variable_objects = {"get",
                                                                  "set",
                                                                  "set_cr",
                                                                  "remove_elements",
                                                                  "state_flag_get",
                                                                  "state_flag_set",
                                                                  "state_flag_get_arr",
                                                                  "state_flag_set_arr",
                                                                  "state_flag_whole_get",
                                                                  "state_flag_whole_set"};
constexpr std::array<std::string_view, 2> of_length = {"get", "get_value"};
constexpr std::array<std::string_view, 5> of_string = {"get", "set", "set_cr", "state_flag_get", "state_flag_set"};
constexpr std::array<std::string_view, 6> of_oid = {"get_by_ref",    "get_by_ref_cr",  "set_by_ref",
                                                    "set_by_ref_cr", "state_flag_get", "state_flag_set"};
constexpr std::array<std::string_view, 6> of_arm = {"get",    "get_detach",     "set",
                                                    "set_cr", "state_flag_get", "state_flag_set"};
constexpr std::array<std::string_view, 15> of_list = {
    "add_cr",    "get_count", "get_cr",     "get_first", "get_last", "get_next",       "get_prev",      "remove",
    "remove_cr", "set_after", "set_before", "set_first", "set_last", "state_flag_get", "state_flag_set"};

// A table's operations; those of its key path and of its fields stand apart.
constexpr std::array<std::string_view, 76> of_table = {
    // open, close, free
    "table_open", "table_open_by_id", "table_open_auto_id", "table_open_by_ior_with_name",
    "table_open_by_ior_with_id", "table_open_cr", "table_open_internal", "get_luid", "table_close",
    "table_close_cr", "table_free", "request_table_free",
    // records
    "create_record", "create_record_w_src", "record_create_cr", "create_record_internal", "record_add_ref",
    "destroy_record", "record_destroy_cr", "destroy_record_internal", "request_record_destroy",
    "request_record_destroy_cr", "pkey_create", "pkey_destroy",
    // insert and delete
    "insert", "pkey_insert", "insert_cr", "insert_internal", "delete", "pkey_delete", "delete_cr",
    "delete_internal", "table_get_count", "table_get_count_cr", "table_get_count_by_src",
    // search and iteration on key objects
    "search", "search_w_src", "pkey_get_next", "pkey_get_prev", "pkey_get_next_by_src", "pkey_get_first",
    "pkey_get_last", "pkey_get_first_by_src", "pkey_get_first_ignore_src", "get_next_by_key", "get_prev_by_key",
    "get_next_by_key_w_src", "pkey_get_sub_next", "pkey_get_next_ignore_src", "pkey_get_shadow", "record_walk_cr",
    "get_first_internal", "get_last_internal",
    // callbacks
    "table_record_create_cb", "table_record_modify_cb", "table_record_delete_cb", "table_record_create_dm_cb",
    "table_record_delete_dm_cb", "table_record_grouping_cb", "table_record_free_cb",
    // records and keys as bytes and text
    "table_record_len", "record_len_cr", "table_record_marshal", "record_marshal_cr",
    "table_record_marshal_internal", "table_record_unmarshal", "table_pkey_len", "table_pkey_marshal",
    "table_pkey_unmarshal", "pkey_print", "table_record_print", "record_print_cr", "table_record_print_internal",
    "table_record_to_xml", "record_toxml_cr", "table_record_from_xml"};
constexpr std::array<std::string_view, 30> of_key_path = {"search",
                                                          "search_w_src",
                                                          "search_nearest",
                                                          "search_not_pending_destroy",
                                                          "search_internal",
                                                          "get_next",
                                                          "get_prev",
                                                          "get_next_by_src",
                                                          "get_next_not_pending_destroy",
                                                          "get_prev_not_pending_destroy",
                                                          "get_next_internal",
                                                          "get_prev_internal",
                                                          "get_first",
                                                          "get_last",
                                                          "get_first_by_src",
                                                          "get_first_ignore_src",
                                                          "get_first_not_pending_destroy",
                                                          "get_last_not_pending_destroy",
                                                          "get_next_by_key",
                                                          "get_prev_by_key",
                                                          "get_next_by_key_w_src",
                                                          "get_next_by_key_not_pending_destroy",
                                                          "get_prev_by_key_not_pending_destroy",
                                                          "get_sub_next",
                                                          "get_next_ignore_src",
                                                          "get_shadow",
                                                          "walk",
                                                          "avl_internal_walk",
                                                          "avl_compare",
                                                          "unordered_traversal"};
/// Joined to the path by one underscore, whatever the key.
constexpr std::array<std::string_view, 2> of_joined_key_path = {"search_cr", "get_cr"};
constexpr std::array<std::string_view, 4> of_table_field = {"get_field", "get_field_detach", "set_field",
                                                            "free_and_set_field"};
constexpr std::array<std::string_view, 2> of_ordered_table = {"seq_compact_batch_start", "seq_compact_batch_end"};

constexpr std::array<std::string_view, 18> of_message = {
    "create_shallow", "create",      "create_cr", "destroy",    "destroy_cr", "get_luid",       "len",
    "len_cr",         "is_valid_cr", "marshal",   "marshal_cr", "unmarshal",  "unmarshal_only", "print",
    "print_cr",       "to_xml",      "toxml_cr",  "from_xml"};
constexpr std::array<std::string_view, 4> of_message_payload = {"get", "get_detach", "set", "free_and_set"};

bool is_plain_value(const type_ref& type) {
    return type.value != nullptr &&
           (type.value->family == builtin_family::scalar || type.value->family == builtin_family::boolean);
}
bool is_known(const type_ref& type) {
    return type.value != nullptr || type.of_record != nullptr || type.of_enumeration != nullptr ||
           type.of_flag_set != nullptr;
}

class list_maker {
  public:
    explicit list_maker(const bundle& b) : b_(b) {}

    /// Adds all functions and tells each type's first place to `starts(type, place)`.
    template <class Starts>
    std::vector<exported_function> make(Starts starts) {
        for (const auto& r : b_.records) {
            starts(*r, list_.size());
            add("record", r->name + "_", record_operations(), r->where);
            for (const attribute& a : r->attributes)
                add("accessor", r->name + "_" + a.name + "_", accessors_of(a), a.where);
            for (const auto& [holder, index] : r->held_by) {
                const attribute& a = holder->attributes[index];
                list_.push_back({r->name + "_" + a.name + "_get_parent", "accessor", &a.where});
            }
        }
        for (const auto& e : b_.enumerations) {
            starts(*e, list_.size());
            add("enumeration", e->name + "_", enumeration_operations(), e->where);
        }
        for (const auto& f : b_.flag_sets) {
            starts(*f, list_.size());
            add("flag", f->name + "_", flag_set_operations(), f->where);
        }
        for (const auto& t : b_.tables) {
            starts(*t, list_.size());
            table_functions(*t);
        }
        for (const auto& m : b_.messages) {
            starts(*m, list_.size());
            const std::string prefix = m->name + "_action_message_";
            add("message", prefix, of_message, m->where);
            if (m->payload != nullptr)
                add("message", prefix + m->payload->name + "_", of_message_payload, m->where);
        }
        for (const std::string& name : bundle_functions(b_))
            list_.push_back({name, "bundle", &b_.where});
        return std::move(list_);
    }

  private:
    void table_functions(const table& t) {
        const std::string prefix = t.name + "_";
        const std::string path = prefix + key_path(t);
        const bool double_underscore = t.key != key_form::attribute;
        add("table", prefix, of_table, t.where);
        add("table", path, of_key_path, t.where);
        add("table", double_underscore ? path.substr(0, path.size() - 1) : path, of_joined_key_path, t.where);
        if (t.payload != nullptr) add("table", prefix + t.payload->name + "_", of_table_field, t.where);
        if (t.key == key_form::object) {
            if (t.key_record != nullptr) add("table", prefix + t.key_record->name + "_", of_table_field, t.where);
            list_.push_back({prefix + "table_record_to_xml_internal", "table", &t.where});
        }
        if (t.ordered) add("table", prefix, of_ordered_table, t.where);
    }
    void add(const char* family, const std::string& prefix, names operations, const location& where) {
        for (const std::string_view o : operations)
            list_.push_back({prefix + std::string(o), family, &where});
    }

    const bundle& b_;
    std::vector<exported_function> list_;
};

} // namespace

names record_operations() { return of_record; }
names enumeration_operations() { return of_enumeration; }
names flag_set_operations() { return of_flag_set; }

names accessors_of(const attribute& a) {
    switch (a.form) {
    case shape::oid: return of_oid;
    case shape::counted_string:
    case shape::fixed_string: return of_string;
    default: break;
    }
    if (!is_known(a.type)) return {};
    switch (a.form) {
    case shape::plain: return of_plain;
    case shape::object: return of_object;
    case shape::fixed_array: return is_plain_value(a.type) ? names(of_fixed_values) : names(of_fixed_objects);
    case shape::variable_array:
        return is_plain_value(a.type) ? names(of_variable_values) : names(of_variable_objects);
    case shape::length: return of_length;
    case shape::arm: return of_arm;
    case shape::list: return of_list;
    default: return {};
    }
}

std::string key_path(const table& t) {
    if (t.key == key_form::attribute)
        return (t.payload == nullptr ? "" : t.payload->name) + "_" + t.key_attribute + "_";
    return (t.key_record == nullptr ? "" : t.key_record->name) + "__";
}

std::vector<std::string> bundle_functions(const bundle& b) {
    return {b.name + "_bundle_handler_register", b.name + "_bundle_handler_unregister",
            b.name + "_typeinfo_initialize",     b.name + "_type_variant_dump",
            b.name + "_fetch_table_get_vft",     b.name + "_table_get_vft",
            b.name + "_table_mrst_lookup",       b.name + "_table_vft_init",
            "loom_" + b.name + "_trace_init"};
}

std::vector<exported_function> exported_functions(const bundle& b) {
    return list_maker(b).make([](const named&, std::size_t) {});
}

void number_functions(bundle& b) {
    list_maker(b).make([](named& type, std::size_t first) { type.call_base = static_cast<std::uint32_t>(first); });
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
