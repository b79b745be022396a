// A database file as commands see it: opening with clear failures, sections that end whatever happens, its tables.
#pragma once

#include "interruption.h"

#include <loom_runtime/runtime.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tool {

/// A table of a database, found in its table list.
struct stored_table {
    loom_table* table = nullptr;
    std::string type_name;           // "radio_operation_tbl"
    std::string module;              // the bundle that knows the type
    std::string instance;            // the name it was opened by; empty when it was opened by id
    std::optional<std::uint64_t> id; // the id it was opened by

    /// What the user calls it: the type's name alone where that is also the instance's name, else "type:instance"
    /// or "type#id".
    std::string label() const;
};

class database {
  public:
    /// Opens the file; throws failure when there is no such database.
    /// `flags` are LOOM_OPEN_ ones.
    static database open(const std::string& path, std::uint32_t flags = 0);
    /// The same for who only reads: as it is now, without changing a thing, when `snapshot` is set or when the
    /// files may not be written.
    static database open_for_reading(const std::string& path, bool snapshot);
    /// Makes the file; throws failure when there is one.
    static database create(const std::string& path, std::uint64_t reserve = 0, std::uint32_t durability = 0,
                           std::uint32_t mode = 0);
    /// A database in the memory of this process.
    static database in_memory();

    loom_handle* handle() const { return handle_.get(); }
    const std::string& path() const { return path_; }
    /// In the order in which the tables were made. Wants a section.
    std::vector<stored_table> tables() const;
    /// The table that the user means by a label, a type's or an instance's name; throws failure, listing what
    /// there is.
    stored_table table(const std::string& wanted) const;

  private:
    database(loom_handle* handle, std::string path) : handle_(handle, &loom_close), path_(std::move(path)) {}
    static database checked(loom_handle* handle, const std::string& path);

    std::unique_ptr<loom_handle, decltype(&loom_close)> handle_;
    std::string path_;
};

/// A read section for as long as the object lives.
class read_section {
  public:
    explicit read_section(const database& db);
    ~read_section();
    read_section(const read_section&) = delete;
    read_section& operator=(const read_section&) = delete;

  private:
    orderly_end guard_;
    loom_handle* handle_;
};

/// A write section that is undone unless it was committed.
class write_section {
  public:
    explicit write_section(const database& db);
    ~write_section();
    write_section(const write_section&) = delete;
    write_section& operator=(const write_section&) = delete;
    void commit();

  private:
    orderly_end guard_;
    const database& database_;
    bool open_ = true;
};

} // namespace tool
