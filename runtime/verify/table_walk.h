// Checking one table: its tree, the order of its records, its ring, its counters.
#pragma once

#include "runtime/verify/object_walk.h"

namespace loom {

/// What tables, taken together, must agree with.
struct table_totals {
    u64 pending_destroy = 0;
    std::unordered_map<const void*, u64> location_uses;
};

class table_walk {
  public:
    table_walk(block_map& blocks, const known_types& types, object_walk& objects, findings& found,
               table_totals& totals)
        : blocks_(blocks), types_(types), objects_(objects), found_(found), totals_(totals) {}

    /// The table's block was reached already.
    void walk(const loom_table* table);
    /// "table bed_tbl", with the instance's name or id where it has one of its own.
    static std::string label_of(const loom_table* table);

  private:
    struct stored_record {
        const loom_table_record* record;
        bool good;
    };

    std::string place_of(const void* record) const;
    i32 walk_tree(const e_avl_node* node, const e_avl_node* parent, u32 depth);
    bool take_record(const e_avl_node* node);
    bool walk_record(const loom_table_record* record);
    void check_order();
    void check_counters() const;
    void check_tenants() const;
    void check_ring() const;
    bool is_in_tree(const loom_table_record* record) const;

    block_map& blocks_;
    const known_types& types_;
    object_walk& objects_;
    findings& found_;
    table_totals& totals_;
    const loom_table* table_ = nullptr;
    std::string label_;
    const known_type* type_ = nullptr;   ///< of the table
    const known_type* record_ = nullptr; ///< of its records; null when the table is not described
    std::vector<stored_record> records_; ///< in the order of the tree
    bool tree_is_whole_ = true;
};

} // namespace loom
