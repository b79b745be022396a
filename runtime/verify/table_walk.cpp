#include "runtime/verify/table_walk.h"

#include "runtime/registry/bundle.h"

#include <algorithm>

namespace loom {
namespace {
constexpr u8 shadow_source = 255;
/// Deeper than any tree in balance can be.
constexpr u32 deepest = 96;

const loom_table_record* record_of(const e_avl_node* node) {
    return reinterpret_cast<const loom_table_record*>(reinterpret_cast<const std::byte*>(node) -
                                                      offsetof(loom_table_record, avl_node));
}
std::string told(u64 number) { return std::to_string(number); }
} // namespace

std::string table_walk::label_of(const loom_table* table) {
    const loom_type_info* info = table->header.loom_tinfo;
    const std::string type(info->name, strnlen(info->name, sizeof info->name));
    if (table->open_mode != 0) return "table " + type + "#" + told(table->table_id);
    std::string name(table->table_name, strnlen(table->table_name, sizeof table->table_name));
    const std::string ending = "/" + std::string(info->luid_text, 32);
    if (name.ends_with(ending)) name.resize(name.size() - ending.size());
    return name == type ? "table " + type : "table " + type + ":" + name;
}

std::string table_walk::place_of(const void* record) const {
    return label_ + ", record at offset " + told(blocks_.offset_of(record));
}

void table_walk::walk(const loom_table* table) {
    table_ = table;
    label_ = label_of(table);
    type_ = types_.of(table->header.loom_tinfo);
    record_ = type_ && type_->description ? known_types::referred(*type_, type_->description->record) : nullptr;
    records_.clear();
    tree_is_whole_ = true;
    objects_.set_holder(label_);
    if (!record_ || !record_->description)
        found_.unchecked(label_, "its bundle describes no types: what its records own is not known");
    walk_tree(table->avl_root, nullptr, 0);
    ++found_.result.tables;
    found_.result.records += records_.size();
    for (stored_record& each : records_)
        each.good = walk_record(each.record);
    check_order();
    // What hangs on a branch that is damaged cannot be counted.
    if (!tree_is_whole_) return;
    check_counters();
    check_tenants();
    check_ring();
}

// ---------------------------------------------------------------------------------------------------- the tree

/// Looks through the subtree in the order of its nodes; its height.
i32 table_walk::walk_tree(const e_avl_node* node, const e_avl_node* parent, u32 depth) {
    if (!node) return 0;
    if (depth > deepest) {
        found_.damage(label_, "its tree is deeper than " + told(deepest) + " records: records are missing");
        tree_is_whole_ = false;
        return 0;
    }
    if (!take_record(node)) {
        tree_is_whole_ = false;
        return 0;
    }
    const loom_table_record* record = record_of(node);
    if (node->parent != parent)
        found_.damage(place_of(record), "its parent in the tree is another one than leads to it: walks go astray");
    const i32 left = walk_tree(node->left, node, depth + 1);
    records_.push_back({record, false});
    const i32 right = walk_tree(node->right, node, depth + 1);
    if (tree_is_whole_ && (node->balance != right - left || node->balance < -1 || node->balance > 1))
        found_.damage(place_of(record), "its balance in the tree is " + std::to_string(node->balance) +
                                            ", the branches differ by " + std::to_string(right - left));
    return 1 + std::max(left, right);
}

bool table_walk::take_record(const e_avl_node* node) {
    const loom_table_record* record = record_of(node);
    const u64 size = blocks_.size_at(record);
    const u64 needed = record_ && record_->description ? record_->description->base_size : sizeof *record;
    if (size < needed) {
        found_.damage(label_, "a link of its tree leads to no record: the records behind it cannot be reached");
        return false;
    }
    if (!blocks_.reach(record)) {
        found_.damage(place_of(record), "is in the tree twice, or belongs to something else");
        return false;
    }
    return true;
}

bool table_walk::walk_record(const loom_table_record* record) {
    if (record->table != table_) {
        found_.damage(place_of(record), "names another table as its own");
        return false;
    }
    if (!(record->record_flags & REC_IN_TABLE))
        found_.damage(place_of(record), "is in the tree, but not marked as such");
    if (record->location) ++totals_.location_uses[reinterpret_cast<const void*>(record->location)];
    return record_ && objects_.walk_reached(record, *record_);
}

/// Neighbours are compared by the bundle's own function, which follows their pointers: only sound ones are.
void table_walk::check_order() {
    if (!record_ || records_.size() < 2) return;
    const loom_type_description& description = *type_->description;
    const auto compare = reinterpret_cast<e_avl_compare_fn>(
        find_symbol_of_module(type_->info->module, text_in(description, description.order)));
    if (!compare)
        return found_.unchecked(label_, "the order of its records: bundle " + std::string(type_->info->module) +
                                            " is not loaded");
    constexpr i32 sorts_before = 0;
    for (std::size_t i = 1; i < records_.size(); ++i) {
        const stored_record &one = records_[i - 1], &next = records_[i];
        if (one.good && next.good && compare(&one.record->avl_node, &next.record->avl_node) != sorts_before)
            found_.damage(place_of(next.record), "does not sort behind the record before it, at offset " +
                                                     told(blocks_.offset_of(one.record)) +
                                                     ": searches may miss it");
    }
}

// -------------------------------------------------------------------------------------------------- the counters

void table_walk::check_counters() const {
    u64 shadows = 0, pending = 0;
    for (const stored_record& each : records_) {
        shadows += each.record->src == shadow_source;
        pending += (each.record->record_flags & REC_PENDING_DESTROY) != 0;
    }
    totals_.pending_destroy += pending;
    const auto compare = [&](const char* what, u64 counted, u64 found) {
        if (counted != found)
            found_.damage(label_, "counts " + told(counted) + " " + what + ", but has " + told(found));
    };
    compare("records", table_->record_count, records_.size());
    compare("nodes of its tree", table_->avl_aux, records_.size());
    compare("shadows", table_->shadow_count, shadows);
    compare("records pending destruction", table_->pending_destroy_count, pending);
}

/// The counters' own blocks were proved by the walk over the structures.
void table_walk::check_tenants() const {
    const table_words& words = words_of(const_cast<loom_table*>(table_));
    std::map<std::pair<u16, u8>, i64> differences;
    for (const stored_record& each : records_)
        if (each.record->tenant_id != 0) ++differences[{each.record->tenant_id, each.record->src}];
    std::set<std::pair<u16, u8>> counted;
    if (words.tenants)
        words.tenants->each([&](const tenant_node& node) {
            counted.insert({node.tenant, node.src});
            differences[{node.tenant, node.src}] -= node.count;
        });
    // Where memory has run out for a count, records are counted by a walk.
    if (words.marks & table_not_all_counted)
        std::erase_if(differences, [&](const auto& each) { return counted.count(each.first) == 0; });
    for (const auto& [of, difference] : differences)
        if (difference != 0)
            found_.damage(label_, "has " + told(static_cast<u64>(std::abs(difference))) +
                                      (difference > 0 ? " more" : " fewer") + " records of tenant " +
                                      told(of.first) + " and source " + told(of.second) + " than it counts");
}

bool table_walk::is_in_tree(const loom_table_record* record) const {
    return blocks_.size_at(record) >= record_->description->base_size && record->table == table_ &&
           record->loom_tinfo == record_->info && (record->record_flags & REC_IN_TABLE);
}

/// The ring of an ordered table goes through the two cells at the end of its records.
void table_walk::check_ring() const {
    if (!record_ || !record_->description || !(record_->description->flags & LOOM_TYPE_ORDERED)) return;
    struct cells {
        void* next;
        void* previous;
    };
    const u64 offset = record_->description->base_size - sizeof(cells);
    const u64 wanted = static_cast<u64>(
        std::ranges::count_if(records_, [](const auto& each) { return each.record->src != shadow_source; }));
    u64 count = 0;
    const void* previous = nullptr;
    for (const void* cell = table_->seq_head; cell; ++count) {
        const auto* record =
            reinterpret_cast<const loom_table_record*>(static_cast<const std::byte*>(cell) - offset);
        if (!is_in_tree(record) || count > wanted)
            return found_.damage(label_, "its ring leads to something that is no record of it, behind " +
                                             told(count) + " of them");
        const auto& links = *static_cast<const cells*>(cell);
        if (previous && links.previous != previous)
            return found_.damage(place_of(record), "its ring leads back to another record than it comes from");
        previous = cell;
        cell = links.next == table_->seq_head ? nullptr : links.next;
    }
    if (count != wanted)
        found_.damage(label_,
                      "has " + told(count) + " records on its ring, but " + told(wanted) + " in its order");
    if (table_->seq_batch_mode == 0 && table_->seq_count < count)
        found_.damage(label_, "counts " + told(table_->seq_count) + " places on its ring, but has " + told(count));
}

} // namespace loom
