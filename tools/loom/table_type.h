// A type of table, reached through its function record alone, and its records in all their forms. Names of
// functions outside the record (the field accessors, `_compare`) are made from names in the type information.
//
// All operations want a section of the database behind the handle. They throw failure for what goes wrong.
#pragma once

#include "bundles.h"
#include "database.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tool {

/// The tenant and source of a record, the parts of its place that no form of it carries.
struct record_place {
    std::uint16_t tenant = 0;
    std::uint8_t source = 1;
    bool operator==(const record_place&) const = default;
};

class table_type {
  public:
    /// The type of a stored table; loads its bundle when it is not loaded.
    static table_type of(const stored_table& stored, const database& db, bundles& loaded);
    /// The type by name in any loaded bundle, or none.
    static std::optional<table_type> named(const std::string& name, loom_handle* handle);
    /// The type by luid in any loaded bundle, or none.
    static std::optional<table_type> with_luid(const std::byte* luid, loom_handle* handle);

    const std::string& name() const { return name_; }
    const std::string& payload_type() const { return payload_type_; }
    /// The type of the separate key; empty when the key lies in the payload.
    const std::string& key_type() const { return key_type_; }
    const std::string& module() const { return module_; }

    // ---- tables
    loom_table* open(loom_handle* handle, const std::string& instance) const;
    loom_table* open_by_id(loom_handle* handle, std::uint64_t id) const;
    std::uint32_t count(loom_handle* handle, loom_table* table) const;

    // ---- walking
    /// The records of the handle's tenant in the order of key and source; of one source, or of all but none left
    /// out.
    std::vector<loom_table_record*> records(loom_handle* handle, loom_table* table,
                                            std::optional<std::uint8_t> source) const;
    /// All records of all tenants and sources, in the order of the tree.
    static std::vector<loom_table_record*> all_records(loom_table* table);
    /// The record with the key of `key_record`, or with `nearest` the first at or behind it, or null.
    loom_table_record* search(loom_handle* handle, loom_table* table, loom_table_record* key_record, bool nearest,
                              std::uint8_t source) const;

    // ---- records
    struct record_release {
        const table_type* type;
        loom_handle* handle;
        void operator()(loom_table_record* record) const;
    };
    using owned_record = std::unique_ptr<loom_table_record, record_release>;

    /// Reads an element as `to_xml` writes it. `place` names the element in failures.
    owned_record from_xml(loom_handle* handle, const std::string& element, const std::string& place) const;
    /// The same in memory of this process: for records that no database is to know of.
    owned_record draft_from_xml(const std::string& element, const std::string& place) const;
    owned_record from_bytes(loom_handle* handle, std::span<const std::byte> bytes) const;
    std::string to_xml(loom_handle* handle, loom_table_record* record) const;
    std::string to_text(loom_handle* handle, loom_table_record* record) const;
    std::vector<std::byte> to_bytes(loom_handle* handle, loom_table_record* record) const;

    /// 0, or the error number of the insert: 17 when the key is taken. On 0 the table has the record.
    std::uint32_t insert(loom_handle* handle, loom_table* table, owned_record& record) const;

    // ---- keys
    using attribute_values = std::vector<std::pair<std::string, std::string>>;
    /// The key as pairs of attribute and value, in the order of the key.
    attribute_values key_of(loom_handle* handle, loom_table* table, loom_table_record* record) const;
    /// The same as "attribute=value attribute=value".
    std::string key_text(loom_handle* handle, loom_table* table, loom_table_record* record) const;
    /// A draft with just the key: from "attribute=value" words, which must name each attribute of the key.
    owned_record key_record(loom_handle* handle, loom_table* table, std::span<const std::string> words) const;

    // ---- comparing
    /// Whether payload and key are equal by their own `_compare`.
    bool equal(const loom_table_record* a, const loom_table_record* b) const;

  private:
    table_type(const loom_type_info& info, const loom_table_vft& vft);
    void learn_fields();
    attribute_values printed_key(loom_handle* handle, loom_table* table, loom_table_record* record) const;

    template <class Function>
    Function* slot(int number) const {
        return reinterpret_cast<Function*>(const_cast<void*>(vft_->slots[number]));
    }
    std::string name_;
    std::string module_;
    std::string payload_type_;
    std::string key_type_;
    const loom_table_vft* vft_ = nullptr;
    std::shared_ptr<loom_bundle> bundle_;
    using compare_fn = std::int32_t(const void*, const void*);
    compare_fn* compare_payload_ = nullptr;
    compare_fn* compare_key_ = nullptr;
    using object_to_xml_fn = std::uint32_t(loom_handle*, std::uint32_t, const char*, char*, const void*,
                                           std::int32_t, std::uint8_t, std::uint32_t*);
    object_to_xml_fn* key_to_xml_ = nullptr;
};

/// The instance in the record's first field, and in its second: the key of tables with a separate key.
void* payload_of(const loom_table_record* record);
void* key_of(const loom_table_record* record);
record_place place_of(const loom_table_record* record);

/// The domain in which the tool works.
inline constexpr std::uint32_t tool_domain = 1;

} // namespace tool
