#include "table_type.h"

#include "failure.h"
#include "xml_file.h"

#include <cerrno>
#include <loom/wire.h>
#include <loom_runtime/xml.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <sstream>

namespace tool {
namespace {

// The functions of a function record, by their arguments.
using open_fn = loom_table*(loom_handle*, std::uint32_t, const char*, std::uint32_t, std::uint32_t*);
using open_by_id_fn = loom_table*(loom_handle*, std::uint32_t, std::uint64_t, std::uint32_t, std::uint32_t*);
using count_fn = std::uint32_t(loom_handle*, std::uint32_t, loom_table*);
using search_fn = loom_table_record*(loom_handle*, std::uint32_t, loom_table*, const void*, std::uint32_t,
                                     std::uint32_t, std::uint32_t*);
using first_fn = loom_table_record*(loom_handle*, std::uint32_t, loom_table*, std::uint32_t*);
using next_fn = loom_table_record*(loom_handle*, std::uint32_t, loom_table*, loom_table_record*, std::uint32_t*);
using first_by_source_fn = loom_table_record*(loom_handle*, std::uint32_t, loom_table*, std::uint32_t,
                                              std::uint32_t*);
using next_by_source_fn = loom_table_record*(loom_handle*, std::uint32_t, loom_table*, loom_table_record*,
                                             std::uint32_t, std::uint32_t*);
using insert_fn = void(loom_handle*, std::uint32_t, loom_table*, loom_table_record*, std::uint32_t*);
using destroy_fn = void(loom_handle*, std::uint32_t, loom_table_record*, std::uint32_t*);
using render_fn = std::int32_t(loom_handle*, std::uint32_t, char*, loom_table_record*, std::int32_t,
                               std::uint32_t*);
using key_print_fn = std::int32_t(loom_handle*, std::uint32_t, loom_table*, loom_table_record*, char*,
                                  std::int32_t, std::uint32_t*);
using from_xml_fn = loom_table_record*(loom_handle*, std::uint32_t, const loom_xml_document*, std::uint32_t*,
                                       char*, std::uint32_t);
using length_fn = std::uint32_t(loom_handle*, std::uint32_t, loom_table_record*);
using marshal_fn = std::uint32_t(loom_handle*, std::uint32_t, void*, loom_table_record*, std::int32_t,
                                 std::uint32_t*);
using unmarshal_fn = std::uint32_t(loom_handle*, std::uint32_t, loom_table_record**, const void*, std::int32_t,
                                   std::uint32_t, std::uint32_t*);
// Functions beside the record.
using create_key_fn = void*(loom_handle*, std::uint32_t);
using destroy_key_fn = void(loom_handle*, std::uint32_t, void*);

void check(std::uint32_t error, const std::string& what) {
    if (error == 0) return;
    // What is short is known below the bundle.
    if (error == LOOM_ENOMEM || error == ENOSPC || error == EDQUOT) {
        const failure told = runtime_failure();
        throw failure(what + ": " + told.what(), told.cure());
    }
    throw failure(what + ": error " + error_number_text(error));
}

/// What a text form writes, in a buffer that grows until it has room.
constexpr std::size_t record_size = 256 * 1024, key_size = 4 * 1024; // what most of them stay below
template <class Render>
std::string rendered(const std::string& what, std::size_t first_size, Render render) {
    constexpr std::size_t largest_size = std::size_t{1} << 30;
    for (std::size_t size = first_size;; size *= 4) {
        std::string buffer(size, ' ');
        std::uint32_t error = 0;
        const auto written = render(buffer.data(), static_cast<std::int32_t>(size), &error);
        if (error == LOOM_EMSGSIZE && size < largest_size) continue;
        check(error, what);
        buffer.resize(static_cast<std::size_t>(written));
        return buffer;
    }
}

/// An enumeration whose value is no member is rendered as a tag that is not well-formed. Without it the element is
/// empty, which a reader takes for "not given".
std::string without_values_out_of_range(std::string xml) {
    constexpr std::string_view mark = " value out of range/>";
    for (std::size_t found = 0; (found = xml.find(mark, found)) != std::string::npos;) {
        const std::size_t begin = xml.rfind('<', found);
        xml.erase(begin, found + mark.size() - begin);
        found = begin;
    }
    return xml;
}

void* field_of(const loom_table_record* record, int index) {
    void* field;
    std::memcpy(&field,
                reinterpret_cast<const std::byte*>(record) + sizeof *record +
                    sizeof(void*) * static_cast<unsigned>(index),
                sizeof field);
    return field;
}

std::string type_name_of(const void* object) { return text_of(loom_get_manifested_type_info(object)->name); }

const loom_type_info* find_table_info(const std::function<bool(const loom_type_info&)>& wanted) {
    const loom_type_info* found = nullptr;
    each_module([&](const loom_module_node& module) {
        each_type(module, [&](const loom_type_info& info) {
            if (!found && text_of(info.kind) == "table" && wanted(info)) found = &info;
        });
    });
    return found;
}

/// Memory for objects that no database is to know of: who only reads leaves a database as it is, to the byte.
loom_handle* draft_memory() {
    static const database memory = database::in_memory();
    return memory.handle();
}

std::string joined(const table_type::attribute_values& values) {
    std::string text;
    for (const auto& [attribute, value] : values)
        text += (text.empty() ? "" : " ") + attribute + "=" + value;
    return text;
}

/// What a reader says that was given a word which is no value of an attribute: it leaves the attribute as it was.
bool was_ignored(const std::string& given, const std::string& now, const std::string& before) {
    return now == before && now != given && std::isalpha(static_cast<unsigned char>(given.front()));
}

} // namespace

void* payload_of(const loom_table_record* record) { return field_of(record, 0); }
void* key_of(const loom_table_record* record) { return field_of(record, 1); }
record_place place_of(const loom_table_record* record) { return {record->tenant_id, record->src}; }

// ------------------------------------------------------------------------------------------------------ finding

table_type::table_type(const loom_type_info& info, const loom_table_vft& vft)
    : name_(text_of(info.name)), module_(text_of(info.module)), vft_(&vft),
      bundle_(loom_bundle_find(text_of(info.module).c_str()), &loom_bundle_unload) {
    if (!bundle_) throw failure("the bundle " + module_ + " of table " + name_ + " is not loaded");
    learn_fields();
}

/// The types of payload and key, from an empty record and an empty key.
void table_type::learn_fields() {
    const owned_record empty = draft_from_xml("<" + name_ + "/>", name_);
    payload_type_ = type_name_of(payload_of(empty.get()));
    auto* create_key = symbol<create_key_fn>(bundle_.get(), name_ + "_pkey_create");
    if (!create_key) throw failure("the bundle " + module_ + " has no " + name_ + "_pkey_create");
    void* key = create_key(draft_memory(), tool_domain);
    if (!key) throw failure("there is no memory for a key of " + name_);
    const std::string key_type = type_name_of(key);
    slot<destroy_key_fn>(LOOM_VFT_PKEY_DESTROY)(draft_memory(), tool_domain, key);
    if (key_type != payload_type_) key_type_ = key_type;

    compare_payload_ = symbol<compare_fn>(bundle_.get(), payload_type_ + "_compare");
    if (!key_type_.empty()) compare_key_ = symbol<compare_fn>(bundle_.get(), key_type_ + "_compare");
    key_to_xml_ =
        symbol<object_to_xml_fn>(bundle_.get(), (key_type_.empty() ? payload_type_ : key_type_) + "_to_xml");
    if (!compare_payload_ || (!key_type_.empty() && !compare_key_) || !key_to_xml_)
        throw failure("the bundle " + module_ + " lacks operations for records of " + name_);
}

table_type table_type::of(const stored_table& stored, const database& db, bundles& loaded) {
    loaded.require(stored.module, db.path() + ": table " + stored.label());
    const loom_table_vft* vft = loom_find_table_vft(db.handle(), stored.table->header.loom_tinfo->luid);
    if (!vft)
        throw failure(db.path() + ": the bundle " + stored.module + " does not know this " + stored.type_name,
                      "the table was made by a build with another definition; load that build with --bundle");
    return {*stored.table->header.loom_tinfo, *vft};
}

std::optional<table_type> table_type::named(const std::string& name, loom_handle* handle) {
    const loom_type_info* info =
        find_table_info([&](const loom_type_info& each) { return text_of(each.name) == name; });
    const loom_table_vft* vft = info ? loom_find_table_vft(handle, info->luid) : nullptr;
    if (!vft) return std::nullopt;
    return table_type(*info, *vft);
}

std::optional<table_type> table_type::with_luid(const std::byte* luid, loom_handle* handle) {
    const loom_type_info* info = find_table_info(
        [&](const loom_type_info& each) { return std::memcmp(each.luid, luid, sizeof each.luid) == 0; });
    const loom_table_vft* vft = info ? loom_find_table_vft(handle, info->luid) : nullptr;
    if (!vft) return std::nullopt;
    return table_type(*info, *vft);
}

// ------------------------------------------------------------------------------------------------------- tables

loom_table* table_type::open(loom_handle* handle, const std::string& instance) const {
    std::uint32_t error = 0;
    constexpr std::uint32_t find_or_create = 0;
    loom_table* table =
        slot<open_fn>(LOOM_VFT_TABLE_OPEN)(handle, tool_domain, instance.c_str(), find_or_create, &error);
    check(error, "table " + name_ + " cannot be opened under the name " + instance);
    if (!table) throw failure("table " + name_ + " cannot be opened under the name " + instance);
    return table;
}

loom_table* table_type::open_by_id(loom_handle* handle, std::uint64_t id) const {
    std::uint32_t error = 0;
    constexpr std::uint32_t find_or_create = 0;
    loom_table* table =
        slot<open_by_id_fn>(LOOM_VFT_TABLE_OPEN_BY_ID)(handle, tool_domain, id, find_or_create, &error);
    check(error, "table " + name_ + " cannot be opened under the id " + std::to_string(id));
    if (!table) throw failure("table " + name_ + " cannot be opened under the id " + std::to_string(id));
    return table;
}

std::uint32_t table_type::count(loom_handle* handle, loom_table* table) const {
    return slot<count_fn>(LOOM_VFT_TABLE_GET_COUNT)(handle, tool_domain, table);
}

// ------------------------------------------------------------------------------------------------------ walking

std::vector<loom_table_record*> table_type::records(loom_handle* handle, loom_table* table,
                                                    std::optional<std::uint8_t> source) const {
    std::vector<loom_table_record*> found;
    std::uint32_t error = 0;
    const auto first = [&] {
        return source ? slot<first_by_source_fn>(LOOM_VFT_PKEY_GET_FIRST_BY_SRC)(handle, tool_domain, table,
                                                                                 *source, &error)
                      : slot<first_fn>(LOOM_VFT_PKEY_GET_FIRST_IGNORE_SRC)(handle, tool_domain, table, &error);
    };
    const auto next = [&](loom_table_record* from) {
        return source ? slot<next_by_source_fn>(LOOM_VFT_PKEY_GET_NEXT_BY_SRC)(handle, tool_domain, table, from,
                                                                               *source, &error)
                      : slot<next_fn>(LOOM_VFT_PKEY_GET_NEXT_IGNORE_SRC)(handle, tool_domain, table, from, &error);
    };
    for (loom_table_record* record = first(); record; record = next(record))
        found.push_back(record);
    check(error, "the walk through " + name_ + " failed");
    return found;
}

std::vector<loom_table_record*> table_type::all_records(loom_table* table) {
    std::vector<loom_table_record*> found;
    const auto visit = [](e_avl_node* node, void* context) -> std::int32_t {
        auto* record = reinterpret_cast<std::byte*>(node) - offsetof(loom_table_record, avl_node);
        static_cast<std::vector<loom_table_record*>*>(context)->push_back(
            reinterpret_cast<loom_table_record*>(record));
        return 0;
    };
    e_avl_walk(table->avl_root, visit, &found);
    return found;
}

loom_table_record* table_type::search(loom_handle* handle, loom_table* table, loom_table_record* key_record,
                                      bool nearest, std::uint8_t source) const {
    const void* key = key_type_.empty() ? payload_of(key_record) : tool::key_of(key_record);
    std::uint32_t error = 0;
    loom_table_record* found =
        slot<search_fn>(LOOM_VFT_SEARCH_W_SRC)(handle, tool_domain, table, key, nearest, source, &error);
    check(error, "the search in " + name_ + " failed");
    return found;
}

// ------------------------------------------------------------------------------------------------------ records

void table_type::record_release::operator()(loom_table_record* record) const {
    std::uint32_t error = 0;
    type->slot<destroy_fn>(LOOM_VFT_DESTROY_RECORD)(handle, tool_domain, record, &error);
}

table_type::owned_record table_type::from_xml(loom_handle* handle, const std::string& element,
                                              const std::string& place) const {
    loom_xml_error fault{};
    const std::unique_ptr<loom_xml_document, decltype(&loom_xml_free)> document(
        loom_xml_parse(element.data(), element.size(), &fault), &loom_xml_free);
    if (!document) throw failure(place + ": is not well-formed XML: " + fault.reason);
    std::array<char, 512> message{};
    std::uint32_t error = 0;
    owned_record record(slot<from_xml_fn>(LOOM_VFT_RECORD_FROM_XML)(handle, tool_domain, document.get(), &error,
                                                                    message.data(), message.size()),
                        record_release{this, handle});
    if (error == LOOM_EINVAL && message[0]) {
        const std::string path = message.data();
        const std::size_t begin = path.find("//");
        const std::string wrong = begin == std::string::npos ? path : path.substr(begin + 2);
        throw failure(place + ": the value of " + wrong + " is none that it can have", "mend that value");
    }
    check(error, place + ": cannot be read as a record of " + name_);
    if (!record) throw failure(place + ": cannot be read as a record of " + name_);
    return record;
}

table_type::owned_record table_type::draft_from_xml(const std::string& element, const std::string& place) const {
    return from_xml(draft_memory(), element, place);
}

table_type::owned_record table_type::from_bytes(loom_handle* handle, std::span<const std::byte> bytes) const {
    loom_table_record* made = nullptr;
    std::uint32_t error = 0;
    slot<unmarshal_fn>(LOOM_VFT_RECORD_UNMARSHAL)(handle, tool_domain, &made, bytes.data(),
                                                  static_cast<std::int32_t>(bytes.size()), 0, &error);
    owned_record record(made, record_release{this, handle});
    check(error, "these bytes are no record of " + name_);
    if (!record) throw failure("these bytes are no record of " + name_);
    return record;
}

std::string table_type::to_xml(loom_handle* handle, loom_table_record* record) const {
    return without_values_out_of_range(rendered("a record of " + name_ + " cannot be rendered as XML", record_size,
                                                [&](char* buffer, std::int32_t size, std::uint32_t* error) {
                                                    return slot<render_fn>(LOOM_VFT_RECORD_TO_XML)(
                                                        handle, tool_domain, buffer, record, size, error);
                                                }));
}

std::string table_type::to_text(loom_handle* handle, loom_table_record* record) const {
    std::string text = rendered("a record of " + name_ + " cannot be printed", record_size,
                                [&](char* buffer, std::int32_t size, std::uint32_t* error) {
                                    return slot<render_fn>(LOOM_VFT_RECORD_PRINT)(handle, tool_domain, buffer,
                                                                                  record, size, error);
                                });
    // The indentation of closing braces is left to the buffer, but for a terminator where the text stood until
    // then.
    std::ranges::replace(text, '\0', ' ');
    return text;
}

std::vector<std::byte> table_type::to_bytes(loom_handle* handle, loom_table_record* record) const {
    // One byte more than the length: a state byte may be stored there.
    const std::uint32_t length = slot<length_fn>(LOOM_VFT_RECORD_LEN)(handle, tool_domain, record);
    std::vector<std::byte> bytes(length + 1);
    std::uint32_t error = 0;
    const std::uint32_t written = slot<marshal_fn>(LOOM_VFT_RECORD_MARSHAL)(
        handle, tool_domain, bytes.data(), record, static_cast<std::int32_t>(bytes.size()), &error);
    // 43: the peer knows older variants only; it is sent the older form, which is whole.
    if (error != LOOM_EIDRM) check(error, "a record of " + name_ + " cannot be marshalled");
    bytes.resize(written);
    return bytes;
}

std::uint32_t table_type::insert(loom_handle* handle, loom_table* table, owned_record& record) const {
    std::uint32_t error = 0;
    slot<insert_fn>(LOOM_VFT_INSERT)(handle, tool_domain, table, record.get(), &error);
    if (error == 0) static_cast<void>(record.release());
    return error;
}

// --------------------------------------------------------------------------------------------------------- keys

/// The key as the table's own print gives it: lines of "name@type:value".
table_type::attribute_values table_type::printed_key(loom_handle* handle, loom_table* table,
                                                     loom_table_record* record) const {
    const std::string text = rendered("a key of " + name_ + " cannot be printed", key_size,
                                      [&](char* buffer, std::int32_t size, std::uint32_t* error) {
                                          return slot<key_print_fn>(LOOM_VFT_PKEY_PRINT)(
                                              handle, tool_domain, table, record, buffer, size, error);
                                      });
    const std::size_t name_end = text.find('@'), value_begin = text.find(':');
    if (name_end == std::string::npos || value_begin == std::string::npos) return {};
    std::string value = text.substr(value_begin + 1);
    while (!value.empty() && (value.back() == '\n' || value.back() == '\0'))
        value.pop_back();
    return {{text.substr(0, name_end), value}};
}

table_type::attribute_values table_type::key_of(loom_handle* handle, loom_table* table,
                                                loom_table_record* record) const {
    if (key_type_.empty()) {
        attribute_values printed = printed_key(handle, table, record);
        if (!printed.empty() && !printed.front().first.empty()) return printed;
    }
    // A key object, or the whole payload as the key: the leaves of its element.
    const void* key = key_type_.empty() ? payload_of(record) : tool::key_of(record);
    const std::string& type = key_type_.empty() ? payload_type_ : key_type_;
    return leaves(without_values_out_of_range(
        rendered("a key of " + name_ + " cannot be rendered as XML", key_size,
                 [&](char* buffer, std::int32_t size, std::uint32_t* error) {
                     return key_to_xml_(handle, tool_domain, type.c_str(), buffer, key, size, 0, error);
                 })));
}

std::string table_type::key_text(loom_handle* handle, loom_table* table, loom_table_record* record) const {
    return joined(key_of(handle, table, record));
}

table_type::owned_record table_type::key_record(loom_handle* handle, loom_table* table,
                                                std::span<const std::string> words) const {
    const owned_record empty = draft_from_xml("<" + name_ + "/>", name_);
    const attribute_values wanted = key_of(handle, table, empty.get());
    std::string wanted_names;
    for (const auto& [attribute, value] : wanted)
        wanted_names += (wanted_names.empty() ? "" : " ") + attribute + "=...";
    const std::string cure = "the key of " + name_ + " is: " + wanted_names;

    const std::string& type = key_type_.empty() ? payload_type_ : key_type_;
    attribute_values given, elements;
    for (const std::string& word : words) {
        const std::size_t equals = word.find('=');
        if (equals == std::string::npos || equals == 0)
            throw usage_failure("'" + word + "' is no attribute=value", cure);
        const std::string attribute = word.substr(0, equals);
        if (std::ranges::find(wanted, attribute, &attribute_values::value_type::first) == wanted.end())
            throw usage_failure("the key of " + name_ + " has no attribute " + attribute, cure);
        if (std::ranges::find(given, attribute, &attribute_values::value_type::first) != given.end())
            throw usage_failure("attribute " + attribute + " is given twice", cure);
        given.emplace_back(attribute, word.substr(equals + 1));
        elements.emplace_back(type + "." + attribute, word.substr(equals + 1));
    }
    for (const auto& [attribute, value] : wanted)
        if (std::ranges::find(given, attribute, &attribute_values::value_type::first) == given.end())
            throw usage_failure("the key of " + name_ + " wants " + attribute, cure);

    // The payload's element stands there even when it is empty: a key alone is no record.
    if (!key_type_.empty()) elements.insert(elements.begin(), {payload_type_, ""});
    owned_record record = draft_from_xml(element_of(name_, elements), "key " + joined(given));
    const attribute_values taken = key_of(handle, table, record.get());
    for (const auto& [attribute, value] : given) {
        const auto now = std::ranges::find(taken, attribute, &attribute_values::value_type::first);
        const auto before = std::ranges::find(wanted, attribute, &attribute_values::value_type::first);
        if (now == taken.end() || (!value.empty() && was_ignored(value, now->second, before->second)))
            throw failure("'" + value + "' is no value of " + attribute, cure);
    }
    return record;
}

// ---------------------------------------------------------------------------------------------------- comparing

bool table_type::equal(const loom_table_record* a, const loom_table_record* b) const {
    return compare_payload_(payload_of(a), payload_of(b)) == 0 &&
           (!compare_key_ || compare_key_(tool::key_of(a), tool::key_of(b)) == 0);
}

} // namespace tool
