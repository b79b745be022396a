#include "any_table.h"
#include "tests/support/forms.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <loom/loom.h>

#include <stdexcept>

namespace table_tests {

namespace {

/// A value of the type, in the order of the numbers.
std::string value_text(const std::string& type, unsigned number) {
    const std::string digit = std::to_string(number);
    if (type == "ipv4_addr") return "10.0.0." + digit;
    if (type == "ipv6_addr") return "2001:db8::" + digit;
    if (type == "loom_vstring") return "name " + digit;
    if (type == "loom_mac_addr") return "02:00:00:00:00:0" + digit;
    if (type == "ud_enum") return "<EN_VAL_" + digit + "/>";
    if (type == "colour") {
        static constexpr const char* members[] = {"COLOUR_GREEN", "COLOUR_RED", "COLOUR_BLUE"};
        return std::string("<") + members[number / 2] + "/>";
    }
    return digit;
}

std::string element(const std::string& name, const std::string& content) {
    return "<" + name + ">" + content + "</" + name + ">";
}

/// The attribute of a key record that tells the keys apart.
std::pair<std::string, std::string> telling_attribute(const std::string& record) {
    static const std::map<std::string, std::pair<std::string, std::string>> all = {
        {"comp_key", {"ip_key", "ipv4_addr"}},
        {"manual_rename_comp_key", {"s_key", "loom_vstring"}},
        {"comp_key_with_enum", {"mac_addr", "loom_mac_addr"}},
        {"comp_key_with_neg_enum", {"int32_attr", "int32"}},
        {"compound_key", {"manual_rename_enum_key", "ud_enum"}},
        {"trellis_stats_perf_key", {"slot", "u_int32"}},
        {"trl_radio_slot_key_t", {"radio_slot_id", "u_int8"}},
        {"string_key", {"s_key", "loom_vstring"}},
        {"pair_key", {"part", "u_int32"}},
        {"whole_row", {"minor", "u_int32"}},
    };
    return all.at(record);
}

} // namespace

std::string table_description::document(unsigned number) const {
    const std::string number_one = ordered ? element("reorder_seq_compact_no", "1") : std::string();
    if (!key.empty())
        return element(table, element(payload, number_one + element(key, value_text(key_type, number))));
    const auto [attribute, type] = telling_attribute(key_type);
    const std::string key_element = element(key_type, element(attribute, value_text(type, number)));
    if (!has_key_object()) return element(table, key_element);
    return element(table, element(payload, number_one) + key_element);
}

void* exported(const std::string& name) {
    void* found = dlsym(RTLD_DEFAULT, name.c_str());
    if (found == nullptr) throw std::runtime_error("no exported function " + name);
    return found;
}

any_table::any_table(test_handle& on, const table_description& is) : handle(on), is_(is) {}

loom_table* any_table::open(const char* name) {
    table = call<loom_table*>("table_open", handle.get(), test_handle::domain, name, 0u, &err);
    if (table != nullptr) handle.name(table, sizeof *table, "table");
    return table;
}

loom_table_record* any_table::from_xml(unsigned number) {
    const std::string text = is_.document(number);
    const trellis::testing::xml_text document(text);
    auto* record = call<loom_table_record*>("table_record_from_xml", handle.get(), test_handle::domain,
                                            static_cast<const loom_xml_document*>(document), &err,
                                            static_cast<char*>(nullptr), 0u);
    if (record == nullptr) throw std::runtime_error(text + " gives no record: error " + std::to_string(err));
    return record;
}

loom_table_record* any_table::make(unsigned number, u32 src) {
    loom_table_record* record = from_xml(number);
    record->src = static_cast<u8>(src);
    labels_[record] = std::to_string(number) + ":" + std::to_string(src);
    handle.name(record, sizeof *record, labels_[record]);
    records_.push_back(record);
    return record;
}

loom_table_record* any_table::insert(unsigned number, u32 src) {
    loom_table_record* record = make(number, src);
    call<void>("insert", handle.get(), test_handle::domain, table, record, &err);
    return record;
}

const void* any_table::key(unsigned number) {
    loom_table_record*& probe = probes_[number];
    if (probe == nullptr) probe = from_xml(number);
    const std::string holder = is_.key.empty() ? is_.key_type : is_.payload;
    void* object = function<void*(loom_handle*, u32, loom_table_record*)>(is_.table + "_" + holder + "_get_field")(
        handle.get(), test_handle::domain, probe);
    if (is_.key.empty()) return object;
    const std::string accessor = is_.payload + "_" + is_.key + "_get";
    char* cell =
        function<char*(loom_handle*, u32, void*, u32*)>(accessor)(handle.get(), test_handle::domain, object, &err);
    const bool enumeration = is_.key_type == "ud_enum" || is_.key_type == "colour";
    return enumeration ? cell + 12 : cell; // the value behind an enumeration's header
}

std::string any_table::label(const loom_table_record* record) const {
    if (record == nullptr) return "none";
    const auto found = labels_.find(record);
    return found == labels_.end() ? "unknown" : found->second;
}

std::string any_table::dump() {
    struct context {
        any_table* self;
        std::string text;
    } seen{this, {}};
    using visitor = i32(loom_table_record*, void*);
    visitor* const visit = [](loom_table_record* record, void* user) -> i32 {
        auto* all = static_cast<context*>(user);
        all->text += (all->text.empty() ? "" : " ") + all->self->label(record);
        return 0;
    };
    call<void>(".walk", table, visit, static_cast<void*>(&seen), &err);
    return seen.text;
}

std::string any_table::walk() {
    std::string text;
    auto* each = call<loom_table_record*>(".get_first", handle.get(), test_handle::domain, table, &err);
    for (; each != nullptr;
         each = call<loom_table_record*>(".get_next", handle.get(), test_handle::domain, table, each, &err))
        text += (text.empty() ? "" : " ") + label(each);
    return text;
}

std::string any_table::walk_back() {
    std::string text;
    auto* each = call<loom_table_record*>(".get_last", handle.get(), test_handle::domain, table, &err);
    for (; each != nullptr;
         each = call<loom_table_record*>(".get_prev", handle.get(), test_handle::domain, table, each, &err))
        text += (text.empty() ? "" : " ") + label(each);
    return text;
}

void any_table::clear() {
    for (auto& [number, probe] : probes_)
        records_.push_back(probe);
    probes_.clear();
    for (loom_table_record* each : records_)
        call<void>("destroy_record", handle.get(), test_handle::domain, each, &err);
    records_.clear();
}

} // namespace table_tests
