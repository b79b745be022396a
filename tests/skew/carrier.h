// What travels in a frame: rows of tables and messages, their functions found by the names that the schema gives.
#pragma once

#include "tests/support/model_walker.h"

#include <loom/loom.h>

#include <string>
#include <utility>
#include <vector>

namespace trellis::testing {

/// A table or a message.
struct carrier_type {
    std::string name;
    bool is_table = false;
    bool ordered = false;
    std::vector<std::string> parts; // records inside, in the order in which they travel

    static carrier_type of(const table_description& table);
    static carrier_type of_message(const std::string& name, const std::string& payload);
};

/// A row or a message, ended with its parts. Errors that are not asked for are thrown.
class carrier {
  public:
    /// A new one with empty parts.
    static carrier made(const carrier_type& type, loom_handle* handle, uint32_t domain);
    /// One that is still to be read.
    carrier(const carrier_type& type, loom_handle* handle, uint32_t domain)
        : type_(&type), handle_(handle), domain_(domain) {}
    carrier(carrier&& other) noexcept : carrier(other) { other.object_ = nullptr; }
    carrier& operator=(carrier&& other) noexcept {
        std::swap(object_, other.object_); // of the same type, in the same database
        return *this;
    }
    ~carrier();

    void* object() const { return object_; }
    const carrier_type& type() const { return *type_; }
    void* part(size_t number) const;

    const uint8_t* luid() const;
    uint32_t length() const;
    std::vector<uint8_t> marshal(uint32_t* error) const;
    uint32_t unmarshal(const std::vector<uint8_t>& bytes, bool existing, uint32_t* error);
    std::string to_xml() const;
    void from_xml(const loom_xml_document* document, uint32_t* error);

  private:
    carrier(const carrier&) = default;
    template <class Result, class... Argument>
    Result call(const std::string& operation, Argument... argument) const;
    std::string part_prefix(size_t number) const;

    const carrier_type* type_;
    loom_handle* handle_;
    uint32_t domain_;
    void* object_ = nullptr;
};

/// A table under its own name in a database, empty at first; its rows are ended before it.
class open_table {
  public:
    open_table(const carrier_type& type, loom_handle* handle, uint32_t domain);
    /// Error 17 when there is such a key.
    uint32_t insert(const carrier& row);
    void remove(const carrier& row);
    /// The binary form of the row's key, and the row that has such a key, or null.
    std::vector<uint8_t> key_of(const carrier& row) const;
    const void* find(const std::vector<uint8_t>& key) const;

    uint32_t count() const { return table_->record_count; }
    /// The place of a row of an ordered table.
    static constexpr const char* place_attribute = "reorder_seq_compact_no";
    uint32_t place(const carrier& row) const;
    void set_place(const carrier& row, uint32_t place) const;

  private:
    template <class Result, class... Argument>
    Result call(const std::string& operation, Argument... argument) const;
    std::string place_accessor(const char* operation) const;

    const carrier_type& type_;
    loom_handle* handle_;
    uint32_t domain_;
    loom_table* table_ = nullptr;
};

} // namespace trellis::testing
