// Objects of any record, set and read back through the exported accessors, which are found by their names. What
// they are to hold stands in another object of the record, the pattern: the model walker fills it and reads it as
// raw memory.
#pragma once

#include "tests/support/model_walker.h"
#include "tests/support/test_handle.h"

namespace trellis::testing {

/// Tables that references may lead to, two of each type and open until the handle ends, with the references that
/// the runtime counts for them; and a record of each table, to which no reference may lead.
class reference_tables {
  public:
    explicit reference_tables(test_handle& handle) : handle_(handle) {}
    /// The first (0) or second (1) table of that type.
    loom_table* of(const std::string& type, u32 which) {
        return which == 0 ? opened(type).first : opened(type).second;
    }
    loom_table_record* record_of(const std::string& type) { return opened(type).record; }
    u32 references_to(const loom_table* table) const;
    /// References to all of them.
    u32 references() const;
    /// Frees all tables that are left. Returns how many of them wait for references to go.
    u32 free_all();

  private:
    struct tables {
        loom_table* first;
        loom_table* second;
        loom_table_record* record;
    };
    const tables& opened(const std::string& type);

    test_handle& handle_;
    std::map<std::string, tables> open_;
};

/// One pass over an object: sets every attribute as the pattern has it, or compares every attribute with it. The
/// seed chooses among the ways to set: by value or by pointer, in place or moved in, one by one or as a block.
struct accessor_walk {
    const schema_description& schema;
    test_handle& handle;
    bool setting;
    u64 seed;
    reference_tables* tables = nullptr; ///< what references lead to; without tables they stay empty
    bool memory_may_end = false;        ///< an allocation fails on purpose; the walk ends there
    bool through_wire = false; ///< the object was made of bytes: a reference that ends them has lost its mark
    bool refilled = false;     ///< arms and marks of an earlier fill may still be there

    void walk(const std::string& type, const void* pattern, void* object);

    std::string faults = {}; ///< what was wrong, one per line
    std::string path = {};   ///< for the faults
    bool stopped = false;

    bool tracked() const { return handle->sttr_block != nullptr && handle->sttr_block->sttr_mode == LOOM_STTR_ON; }
    void fault(const std::string& what) { faults += path + ": " + what + "\n"; }
    /// True from the failing allocation on.
    bool out_of_memory() {
        if (memory_may_end && handle.allocation_failed()) stopped = true;
        return stopped;
    }
    /// A new object, or null with a fault unless memory has ended.
    void* made(const std::string& type);
};

} // namespace trellis::testing
