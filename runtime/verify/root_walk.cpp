// The order of the steps matters: each structure is proved before a later step follows its pointers.
#include "runtime/verify/root_walk.h"

#include <loom/registry.h>

#include <algorithm>

namespace loom {
namespace {
constexpr u32 kind_table = 2;
std::string told(u64 number) { return std::to_string(number); }
constexpr auto nothing_more = [](const auto&) { return true; };
} // namespace

bool root_walk::take(const void* block, u64 needed, const char* what) {
    const u64 size = blocks_.size_at(block);
    if (size < needed) {
        found_.damage(what, size == 0 ? "a link leads to no block that is in use"
                                      : "a link leads to a block that is too small");
        return false;
    }
    if (blocks_.reach(block)) return true;
    found_.damage(what,
                  "the block at offset " + told(blocks_.offset_of(block)) + " belongs to something else too");
    return false;
}

/// Proves a hash table, whose nodes `take` proves, and calls `visit` with each node; false when it is damaged or
/// one of them says so.
template <class Table, class Take, class Visit>
bool root_walk::walk_chains(const Table& table, const char* what, Take take_node, Visit visit) {
    if (table.slot_count == 0 && table.size == 0) return true;
    const u64 reserve = blocks_.memory().header().reserve;
    if (table.slot_count == 0 || (table.slot_count & (table.slot_count - 1)) != 0 ||
        table.slot_count > reserve / sizeof(void*)) {
        found_.damage(what, "has an impossible number of slots, " + told(table.slot_count));
        return false;
    }
    if (!take(table.slots, table.slot_count * sizeof(void*), what)) return false;
    u64 count = 0;
    for (u64 slot = 0; slot < table.slot_count; ++slot)
        for (auto* node = table.slots[slot]; node; node = table.next_of(*node)) {
            if (!take_node(*node)) return false;
            if (++count > table.size || table.slot_of(*node) != slot) {
                found_.damage(what, "the entry at offset " + told(blocks_.offset_of(node)) +
                                        " is in a place where nobody looks for it");
                return false;
            }
            if (!visit(*node)) return false;
        }
    if (count == table.size) return true;
    found_.damage(what, "counts " + told(table.size) + " entries, but has " + told(count));
    return false;
}

/// Proves a chain of blocks.
template <auto Next, class Node>
bool root_walk::walk_list(const Node* first, const char* what, bool owns_nodes) {
    u64 count = 0;
    for (const Node* node = first; node; node = node->*Next) {
        if (owns_nodes ? !take(node, sizeof *node, what) : blocks_.size_at(node) < sizeof *node) return false;
        if (++count <= blocks_.blocks()) continue;
        found_.damage(what, "its chain leads in a circle");
        return false;
    }
    return true;
}

bool root_walk::walk(const database_root* root) {
    root_ = root;
    found_.result.blocks = blocks_.blocks();
    walk_named_roots();
    if (!root) return true;
    if (!take(root, sizeof *root, "the root of the database")) return false;
    const bool good = walk_types() && walk_references() && walk_contents() && walk_locations() && walk_tables() &&
                      check_contents();
    if (!good) return false;
    table_totals totals;
    table_walk walk(blocks_, types_, objects_, found_, totals);
    for (const loom_table* table : tables_)
        walk.walk(table);
    objects_.set_holder("objects with references of their own");
    walk_mapped_objects();
    reach_nursery();
    for (const std::string& each : objects_.undescribed())
        found_.unchecked("type " + each, "is not described: what its objects own is not known");
    check_references();
    check_totals(totals);
    return true;
}

/// The arena's own check has proved the list of roots; what applications keep under them is theirs to know.
void root_walk::walk_named_roots() {
    for (const named_root* list : blocks_.memory().header().roots)
        for (const named_root* each = list; each; each = each->next) {
            blocks_.reach(each);
            const void* block = each->block ? blocks_.block_around(each->block) : nullptr;
            if (block) blocks_.reach(block);
        }
}

// ------------------------------------------------------------------------------------------- types and tracking

bool root_walk::walk_type(const type_node& node) {
    constexpr char what[] = "type information";
    if (!take(node.info, LOOM_MANIFESTED_TYPE_INFO_SIZE, what)) return false;
    if (node.info->magic != LOOM_TYPE_INFO_MAGIC || std::memcmp(node.info->luid_text, node.luid_text, 32) != 0) {
        found_.damage(what, "the record at offset " + told(blocks_.offset_of(node.info)) + " is none");
        return false;
    }
    if (const loom_variant_table* table = node.info->variant_table) {
        if (!take(table, sizeof *table, what)) return false;
        const auto count = static_cast<u64>(std::max<i8>(table->n_variants, 0));
        if (!take(table->entries, count * sizeof(loom_variant_entry), what)) return false;
    }
    const loom_type_description* description = node.description;
    if (description) {
        if (!take(description, sizeof *description, what)) return false;
        if (!is_sound(*description, arena::size_of(description))) {
            found_.damage(what, "the description of " + std::string(node.info->name) + " contradicts itself");
            description = nullptr;
        }
    }
    types_.add(*node.info, description);
    return true;
}

void root_walk::take_types_of_bundles() {
    for (const loom_module_node* node = loom_module_tot_root.first; node; node = node->next)
        for (loom_type_info* const* info = node->type_infos; info && *info; ++info)
            types_.add(**info, find_description(**info));
}

bool root_walk::walk_types() {
    if (!walk_chains(root_->types, "type information", owned("type information"),
                     [&](const type_node& node) { return walk_type(node); }))
        return false;
    types_.connect();
    constexpr char what[] = "the side table of tracking areas";
    return walk_chains(root_->tracking, what, owned(what), [&](const tracking_node& node) {
        objects_.add_tracking_offset(node.object, node.offset);
        return true;
    });
}

// --------------------------------------------------------------------------------------- references and contents

bool root_walk::walk_references() {
    constexpr char what[] = "the references by number", by_object[] = "the references by object";
    const auto is_known = [&](const loom_oid_mapping& mapping) {
        if (blocks_.is_reached(&mapping)) return true;
        found_.damage(by_object, "an entry leads to something that cannot be found by its number");
        return false;
    };
    if (!walk_chains(root_->oids_by_reference, what, owned(what), nothing_more) ||
        !walk_chains(root_->oids_by_object, by_object, is_known, nothing_more))
        return false;
    if (root_->oids_by_reference.size != root_->oids_by_object.size) {
        found_.damage(what, "there are " + told(root_->oids_by_reference.size) + ", by object " +
                                told(root_->oids_by_object.size));
        return false;
    }
    return walk_list<&loom_oid_mapping::next_pending>(root_->pending_objects, "the objects whose end was put off",
                                                      false);
}

bool root_walk::walk_contents() {
    constexpr char what[] = "a table of contents";
    if (!walk_list<&toc::next>(root_->tocs, what, true)) return false;
    // An entry shares its block with the table's mapping, as a rule.
    const auto take_entry = [&](const toc_entry& entry) {
        const auto* entries = reinterpret_cast<const std::byte*>(&entry) - offsetof(table_entries, place);
        return (blocks_.is_reached(entries) && arena::size_of(entries) >= sizeof(table_entries)) ||
               take(entries, sizeof(table_entries), what);
    };
    for (const toc* each = root_->tocs; each; each = each->next)
        if (!walk_chains(each->tables, what, take_entry, nothing_more)) return false;
    const table_entries* spare = root_->spare_entries;
    return !spare || take(spare, sizeof *spare, what);
}

bool root_walk::walk_locations() {
    constexpr char what[] = "the stored locations";
    return walk_chains(root_->locations, what, owned(what), [&](const location_node& node) {
        if (arena::size_of(&node) > sizeof node + node.length) return true;
        found_.damage(what, "the one at offset " + told(blocks_.offset_of(&node)) + " is longer than its block");
        return false;
    });
}

// ------------------------------------------------------------------------------------------------------- tables

bool root_walk::take_table(const loom_table* table) {
    if (!take(table, sizeof *table, "the list of tables")) return false;
    if (types_.of(table->header.loom_tinfo)) return walk_tenants(table);
    found_.damage("the list of tables", "the table at offset " + told(blocks_.offset_of(table)) + " has no type");
    return false;
}

bool root_walk::walk_tenants(const loom_table* table) {
    const std::string label = table_walk::label_of(table);
    const table_words& words = words_of(const_cast<loom_table*>(table));
    if (words.cursors && !take(words.cursors, sizeof *words.cursors, label.c_str())) return false;
    if (words.cursors && words.cursors->read_place > words.cursors->write_place)
        found_.damage(label, "its read cursor is ahead of its write cursor");
    if (!words.tenants) return true;
    const std::string counts = label + ", its counts by tenant";
    return take(words.tenants, sizeof *words.tenants, counts.c_str()) &&
           walk_chains(*words.tenants, counts.c_str(), owned(counts.c_str()), nothing_more);
}

bool root_walk::walk_tables() {
    if (!root_->tables) return true;
    constexpr char what[] = "the list of tables";
    if (!take(root_->tables, sizeof *root_->tables, what)) return false;
    loom_table* const* link = &root_->tables->first;
    while (const loom_table* table = *link) {
        if (!take_table(table)) return false;
        if (table->toc_prev != link) {
            found_.damage(table_walk::label_of(table), "its link back in the list of tables leads elsewhere");
            return false;
        }
        tables_.push_back(table);
        link = &table->toc_next;
    }
    if (root_->tables->last == link) return true;
    found_.damage(what, "it ends in another table than told: new ones would be lost");
    return false;
}

/// Every table is in the table of contents, or waits for its end; nothing else is.
bool root_walk::check_contents() {
    std::set<const loom_table*> listed(tables_.begin(), tables_.end()), entered;
    for (const toc* each = root_->tocs; each; each = each->next)
        each->tables.each([&](const toc_entry& entry) {
            if (listed.count(entry.table) == 0)
                found_.damage("a table of contents", "an entry leads to something that is no table");
            entered.insert(entry.table);
        });
    for (const loom_table* table : tables_)
        if (entered.count(table) == 0 && !(words_of(const_cast<loom_table*>(table)).marks & table_out_of_toc))
            found_.damage(table_walk::label_of(table), "is in no table of contents: nobody can open it");
    std::size_t waiting = 0;
    for (const loom_table* table = root_->gc_first; table;
         table = words_of(const_cast<loom_table*>(table)).gc_next) {
        if (listed.count(table) != 0 && ++waiting <= listed.size()) continue;
        found_.damage("the tables that wait for the collector", "their chain leads astray");
        return false;
    }
    return true;
}

/// Objects that can be found by an oid are reached, whoever holds them.
void root_walk::walk_mapped_objects() {
    root_->oids_by_reference.each([&](const loom_oid_mapping& mapping) {
        const std::string place = "reference " + told(mapping.reference);
        if (mapping.kind == kind_table) {
            if (std::ranges::find(tables_, mapping.object) == tables_.end())
                found_.damage(place, "leads to something that is no table");
            return;
        }
        const void* block = blocks_.block_around(mapping.object);
        if (!block) return found_.damage(place, "leads to no block that is in use");
        if (blocks_.is_reached(block)) return;
        const known_type* type = types_.of(static_cast<const loom_object*>(block)->loom_tinfo);
        if (block == mapping.object && type && arena::size_of(block) >= sizeof(loom_object)) {
            objects_.walk(block, *type);
            return;
        }
        blocks_.reach(block);
        knows_all_ = false;
        found_.unchecked(place, "leads to an object of an unknown type");
    });
}

/// Blocks with an owner are of objects that are being made: nobody else can know what they will hold, so every
/// word in them may be a pointer.
void root_walk::reach_nursery() {
    std::vector<const void*> waiting;
    blocks_.each_lost([&](void* payload, u64) {
        if (arena::owner_of(payload) == 0) return;
        blocks_.reach(payload);
        waiting.push_back(payload);
    });
    has_nursery_ = !waiting.empty();
    while (!waiting.empty()) {
        const auto* words = static_cast<const u64*>(waiting.back());
        waiting.pop_back();
        for (u64 i = 0; i < arena::size_of(words) / sizeof(u64); ++i)
            if (const void* block = blocks_.block_around(reinterpret_cast<const void*>(words[i])))
                if (blocks_.reach(block)) waiting.push_back(block);
    }
}

// ------------------------------------------------------------------------------------------------------- counts

void root_walk::check_references() {
    const auto& held = objects_.references();
    u64 known = 0;
    root_->oids_by_reference.each([&](loom_oid_mapping& mapping) {
        const auto found = held.find(mapping.reference);
        const u64 holders = found == held.end() ? 0 : found->second;
        known += found != held.end();
        if (mapping.count == holders) return;
        const std::string place = "reference " + told(mapping.reference);
        const std::string meaning =
            "is counted " + told(mapping.count) + " times, but held " + told(holders) + " times: ";
        if (mapping.count < holders)
            return found_.damage(place, meaning + "its object may end while it is needed");
        if (has_nursery_) return; // its objects may hold some
        unheld_.emplace_back(&mapping, holders);
        found_.lost(place, meaning + "its object cannot end");
    });
    if (known != held.size())
        found_.damage("the references by number",
                      told(held.size() - known) + " that objects hold are not there: they lead nowhere");
}

void root_walk::check_totals(const table_totals& totals) {
    if (root_->pending_totals.pending_destroy != totals.pending_destroy)
        found_.damage("the root of the database", "counts " + told(root_->pending_totals.pending_destroy) +
                                                      " records pending destruction, but tables have " +
                                                      told(totals.pending_destroy));
    u64 known = 0;
    root_->locations.each([&](const location_node& node) {
        const auto found = totals.location_uses.find(&node);
        const u64 uses = found == totals.location_uses.end() ? 0 : found->second;
        known += uses != 0;
        const std::string place = "the stored location at offset " + told(blocks_.offset_of(&node));
        const std::string meaning =
            "is counted " + told(node.count) + " times, but used by " + told(uses) + " records";
        if (node.count < uses) found_.damage(place, meaning);
        if (node.count > uses) found_.lost(place, meaning);
    });
    if (known != totals.location_uses.size())
        found_.damage("the stored locations", "records have locations that are not among them");
}

} // namespace loom
