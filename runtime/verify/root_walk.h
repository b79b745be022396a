// Walking over everything that a database keeps, from its roots: named roots, types, tables of contents,
// references, locations, tables. What is left over behind it is reached from nowhere.
#pragma once

#include "runtime/verify/table_walk.h"

namespace loom {

class root_walk {
  public:
    root_walk(const arena& memory, findings& found)
        : blocks_(memory), found_(found), objects_(blocks_, types_, found_) {}

    /// Objects have the type words of the bundles: those of a private database.
    void take_types_of_bundles();

    /// Looks at everything. False when the structures are damaged, so that nobody should follow them.
    bool walk(const database_root* root);
    const block_map& blocks() const { return blocks_; }
    const known_types& types() const { return types_; }
    /// Whether every object that was met is described, so that what was not reached is lost.
    bool knows_all() const { return objects_.undescribed().empty() && knows_all_; }
    /// References that are counted without being held, with how many are.
    const std::vector<std::pair<loom_oid_mapping*, u64>>& unheld() const { return unheld_; }

  private:
    bool take(const void* block, u64 needed, const char* what);
    /// Proves nodes that lie in blocks of their own.
    auto owned(const char* what) {
        return [this, what](const auto& node) { return take(&node, sizeof node, what); };
    }
    template <class Table, class Take, class Visit>
    bool walk_chains(const Table& table, const char* what, Take take_node, Visit visit);
    template <auto Next, class Node>
    bool walk_list(const Node* first, const char* what, bool owns_nodes);
    void walk_named_roots();
    bool walk_types();
    bool walk_type(const type_node& node);
    bool walk_references();
    bool walk_contents();
    bool walk_locations();
    bool walk_tables();
    bool take_table(const loom_table* table);
    bool walk_tenants(const loom_table* table);
    bool check_contents();
    void walk_mapped_objects();
    void reach_nursery();
    void check_references();
    void check_totals(const table_totals& totals);

    block_map blocks_;
    known_types types_;
    findings& found_;
    object_walk objects_;
    const database_root* root_ = nullptr;
    std::vector<const loom_table*> tables_;
    std::vector<std::pair<loom_oid_mapping*, u64>> unheld_;
    bool knows_all_ = true;
    bool has_nursery_ = false;
};

} // namespace loom
