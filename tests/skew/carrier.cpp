#include "tests/skew/carrier.h"

#include <stdexcept>

namespace trellis::testing {

namespace {

template <class Result, class... Argument>
Result call_named(const std::string& name, Argument... argument) {
    return reinterpret_cast<Result (*)(Argument...)>(find_function(name))(argument...);
}

void expect_none(const std::string& who, uint32_t error) {
    if (error != 0) throw std::runtime_error(who + " set error " + std::to_string(error));
}

} // namespace

carrier_type carrier_type::of(const table_description& table) {
    carrier_type type{table.name, true, table.ordered, {table.payload}};
    if (!table.key.empty()) type.parts.push_back(table.key);
    return type;
}
carrier_type carrier_type::of_message(const std::string& name, const std::string& payload) {
    carrier_type type{name, false, false, {}};
    if (!payload.empty()) type.parts.push_back(payload);
    return type;
}

// ---- Rows and messages -----------------------------------------------------------------------------------------

/// Calls "<table>_<operation>" or "<message>_action_message_<operation>".
template <class Result, class... Argument>
Result carrier::call(const std::string& operation, Argument... argument) const {
    return call_named<Result>(type_->name + (type_->is_table ? "_" : "_action_message_") + operation, handle_,
                              domain_, argument...);
}

carrier carrier::made(const carrier_type& type, loom_handle* handle, uint32_t domain) {
    carrier it(type, handle, domain);
    uint32_t error = 0;
    if (!type.is_table) {
        it.object_ = it.call<void*>("create");
        return it;
    }
    it.object_ = it.call<void*>("create_record", &error);
    expect_none(type.name, error);
    for (size_t i = 0; i < type.parts.size(); ++i)
        it.call<void>(type.parts[i] + "_set_field", it.object_, named_type(type.parts[i]).create(handle, domain));
    return it;
}

carrier::~carrier() {
    uint32_t error = 0;
    if (object_ == nullptr) return;
    if (type_->is_table)
        call<void>("destroy_record", object_, &error);
    else
        call<void>("destroy", object_);
}

void* carrier::part(size_t number) const {
    uint32_t error = 0;
    return type_->is_table ? call<void*>(type_->parts.at(number) + "_get_field", object_)
                           : call<void*>(type_->parts.at(number) + "_get", object_, &error);
}

const uint8_t* carrier::luid() const {
    return static_cast<const uint8_t*>(
        find_function((type_->is_table ? "table_" : "message_action_") + type_->name + "_luid"));
}
uint32_t carrier::length() const {
    return call<uint32_t>(type_->is_table ? "table_record_len" : "len", static_cast<const void*>(object_));
}

std::vector<uint8_t> carrier::marshal(uint32_t* error) const {
    std::vector<uint8_t> bytes(length() + 2);
    bytes.resize(call<uint32_t>(type_->is_table ? "table_record_marshal" : "marshal",
                                static_cast<void*>(bytes.data()), object_, static_cast<int32_t>(bytes.size()) - 1,
                                error));
    return bytes;
}
uint32_t carrier::unmarshal(const std::vector<uint8_t>& bytes, bool existing, uint32_t* error) {
    const void* from = bytes.data();
    const auto size = static_cast<int32_t>(bytes.size());
    if (type_->is_table)
        return call<uint32_t>("table_record_unmarshal", &object_, from, size, uint32_t{existing}, error);
    return call<uint32_t>("unmarshal_only", &object_, from, size, error);
}

std::string carrier::to_xml() const {
    std::string text(1u << 20, '\0');
    uint32_t error = 0;
    text.resize(call<uint32_t>(type_->is_table ? "table_record_to_xml" : "to_xml", text.data(),
                               static_cast<const void*>(object_), static_cast<int32_t>(text.size()), &error));
    expect_none(type_->name, error);
    return text;
}
void carrier::from_xml(const loom_xml_document* document, uint32_t* error) {
    object_ = call<void*>(type_->is_table ? "table_record_from_xml" : "from_xml", document, error,
                          static_cast<char*>(nullptr), 0u);
}

// ---- Tables ----------------------------------------------------------------------------------------------------

template <class Result, class... Argument>
Result open_table::call(const std::string& operation, Argument... argument) const {
    return call_named<Result>(type_.name + "_" + operation, handle_, domain_, argument...);
}

open_table::open_table(const carrier_type& type, loom_handle* handle, uint32_t domain)
    : type_(type), handle_(handle), domain_(domain) {
    uint32_t error = 0;
    table_ = call<loom_table*>("table_open", static_cast<const char*>("rows"), 0u, &error);
    expect_none(type.name, error);
}

uint32_t open_table::insert(const carrier& row) {
    uint32_t error = 0;
    call<void>("insert", table_, row.object(), &error);
    return error;
}
void open_table::remove(const carrier& row) {
    uint32_t error = 0;
    call<void>("delete", table_, row.object(), &error);
    expect_none(type_.name, error);
}

std::vector<uint8_t> open_table::key_of(const carrier& row) const {
    const void* object = row.object();
    std::vector<uint8_t> bytes(call<uint32_t>("table_pkey_len", object) + 1);
    uint32_t error = 0;
    bytes.resize(call<uint32_t>("table_pkey_marshal", static_cast<void*>(bytes.data()), object,
                                static_cast<int32_t>(bytes.size()) - 1, &error));
    expect_none(type_.name, error);
    return bytes;
}
const void* open_table::find(const std::vector<uint8_t>& bytes) const {
    uint32_t error = 0;
    void* key = nullptr;
    call<uint32_t>("table_pkey_unmarshal", &key, static_cast<const void*>(bytes.data()),
                   static_cast<int32_t>(bytes.size()), &error);
    const void* row = call<void*>("search", table_, static_cast<const void*>(key), 0u, &error);
    call<void>("pkey_destroy", key);
    expect_none(type_.name, error);
    return row;
}

std::string open_table::place_accessor(const char* operation) const {
    return type_.parts[0] + "_" + place_attribute + "_" + operation;
}
uint32_t open_table::place(const carrier& row) const {
    uint32_t error = 0;
    return call_named<uint32_t>(place_accessor("get_value"), handle_, domain_, row.part(0), &error);
}
void open_table::set_place(const carrier& row, uint32_t place) const {
    uint32_t error = 0;
    call_named<void>(place_accessor("set_value"), handle_, domain_, row.part(0), place, &error);
    expect_none(type_.name, error);
}

} // namespace trellis::testing
