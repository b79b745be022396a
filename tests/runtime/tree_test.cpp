// The AVL tree against std::set, its balance, and its notices.
#include "tests/runtime/support.h"

#include <set>

namespace {
using namespace runtime_test;

struct item {
    std::uint32_t key = 0;
    e_avl_node node{};
};
item* item_of(const e_avl_node* node) {
    return reinterpret_cast<item*>(reinterpret_cast<char*>(const_cast<e_avl_node*>(node)) - offsetof(item, node));
}
std::int32_t compare(const e_avl_node* a, const e_avl_node* b) {
    const std::uint32_t x = item_of(a)->key, y = item_of(b)->key;
    return x < y ? 0 : x == y ? 1 : 2;
}

/// Height of the subtree; checks links and balance on the way.
int height_of(const e_avl_node* node, const e_avl_node* parent) {
    if (!node) return 0;
    EXPECT_EQ(node->parent, parent);
    const int left = height_of(node->left, node), right = height_of(node->right, node);
    EXPECT_EQ(node->balance, right - left);
    EXPECT_LE(std::abs(right - left), 1);
    return 1 + std::max(left, right);
}

struct tree {
    e_avl_node* root = nullptr;
    std::uint32_t count = 0;
    void* arena = nullptr;
    bool insert(item& each) { return e_avl_insert(arena, 1, &root, &each.node, &count, compare); }
    bool remove(item& each) { return e_avl_delete(arena, 1, &root, &each.node, &count, compare); }
    item* search(std::uint32_t key) const {
        const item wanted{key, {}};
        e_avl_node* found = e_avl_search(root, &wanted.node, compare);
        return found ? item_of(found) : nullptr;
    }
};

TEST(tree, behaves_like_a_sorted_set_under_random_operations) {
    constexpr std::uint32_t keys = 600;
    random_source random(20240607);
    std::vector<item> items(keys);
    for (std::uint32_t key = 0; key < keys; ++key)
        items[key].key = key;
    tree tested;
    std::set<std::uint32_t> model;
    for (int round = 0; round < 60000; ++round) {
        const std::uint32_t key = random() % keys;
        // Phases of growth and of decline, so that the tree is emptied and filled again.
        const bool insert = random() % 100 < (round / 10000 % 2 ? 30u : 70u);
        const bool done = insert ? tested.insert(items[key]) : tested.remove(items[key]);
        ASSERT_EQ(done, insert ? model.insert(key).second : model.erase(key) == 1);
        ASSERT_EQ(tested.count, model.size());
        if (round % 500 == 0) height_of(tested.root, nullptr);

        const std::uint32_t probe = random() % (keys + 2);
        ASSERT_EQ(tested.search(probe) != nullptr, model.count(probe) == 1);
        const item outside{probe, {}};
        // Any node serves as a place, one that is not in the tree too.
        const item* from = probe < keys ? &items[probe] : &outside;
        e_avl_node* next = e_avl_get_next(tested.root, &from->node, compare);
        const auto above = model.upper_bound(probe);
        ASSERT_EQ(next ? item_of(next)->key : keys, above != model.end() ? *above : keys);
        e_avl_node* previous = e_avl_get_prev(tested.root, &from->node, compare);
        const auto below = model.lower_bound(probe);
        ASSERT_EQ(previous ? item_of(previous)->key : keys, below != model.begin() ? *std::prev(below) : keys);
    }
    std::vector<std::uint32_t> walked;
    e_avl_walk(
        tested.root,
        [](e_avl_node* node, void* context) {
            static_cast<std::vector<std::uint32_t>*>(context)->push_back(item_of(node)->key);
            return 0;
        },
        &walked);
    EXPECT_EQ(walked, std::vector<std::uint32_t>(model.begin(), model.end()));
    EXPECT_EQ(item_of(e_avl_get_first(tested.root))->key, *model.begin());
    EXPECT_EQ(item_of(e_avl_get_last(tested.root))->key, *model.rbegin());
}

TEST(tree, removes_only_the_very_node) {
    item first{5, {}}, equal{5, {}}, other{6, {}};
    tree tested;
    ASSERT_TRUE(tested.insert(first));
    EXPECT_FALSE(tested.insert(equal));
    EXPECT_FALSE(tested.remove(equal));
    EXPECT_FALSE(tested.remove(other));
    EXPECT_EQ(tested.search(5), &first);
    EXPECT_TRUE(tested.remove(first));
    EXPECT_EQ(tested.root, nullptr);
    EXPECT_TRUE(tested.insert(first));
}

TEST(tree, a_node_of_another_tree_is_placed_by_its_key) {
    std::vector<item> items(20);
    for (std::uint32_t i = 0; i < 20; ++i)
        items[i].key = i;
    tree even, odd;
    for (std::uint32_t i = 0; i < 20; ++i)
        (i % 2 ? odd : even).insert(items[i]);
    EXPECT_EQ(item_of(e_avl_get_next(odd.root, &items[4].node, compare))->key, 5u);
    EXPECT_EQ(item_of(e_avl_get_prev(odd.root, &items[4].node, compare))->key, 3u);
    EXPECT_FALSE(odd.remove(items[4]));
}

TEST(tree, a_walk_ends_when_the_visit_says_so_and_survives_removal) {
    std::vector<item> items(10);
    for (std::uint32_t i = 0; i < 10; ++i)
        items[i].key = i;
    tree tested;
    for (item& each : items)
        tested.insert(each);
    e_avl_walk(
        tested.root,
        [](e_avl_node* node, void* context) {
            auto& from = *static_cast<tree*>(context);
            if (item_of(node)->key == 6) return 1;
            from.remove(*item_of(node));
            return 0;
        },
        &tested);
    EXPECT_EQ(tested.count, 4u);
    EXPECT_EQ(item_of(e_avl_get_first(tested.root))->key, 6u);
    height_of(tested.root, nullptr);
}

/// Every store of the tree in arena memory must have been announced: the debug arena sees those that were not, and
/// an abort puts back those that were.
TEST(tree, announces_every_store) {
    handle_ptr handle = open_private();
    struct stored_tree {
        e_avl_node* root;
        std::uint32_t count;
    };
    auto* stored = static_cast<stored_tree*>(handle->alloc(handle->alloc_ctx, 1, sizeof(stored_tree)));
    *stored = {};
    std::vector<item*> items;
    for (std::uint32_t key = 0; key < 300; ++key) {
        items.push_back(new (handle->alloc(handle->alloc_ctx, 1, sizeof(item))) item{key, {}});
        if (key % 2)
            e_avl_insert(handle->alloc_ctx, 1, &stored->root, &items.back()->node, &stored->count, compare);
    }
    ASSERT_EQ(loom_debug_arena_start(handle, nullptr, nullptr), 0u);
    loom_debug_arena_check(handle);
    ASSERT_EQ(loom_write_begin(handle), 0u);
    random_source random(7);
    for (int round = 0; round < 3000; ++round) {
        item* each = items[random() % items.size()];
        if (random() % 2)
            e_avl_insert(handle->alloc_ctx, 1, &stored->root, &each->node, &stored->count, compare);
        else
            e_avl_delete(handle->alloc_ctx, 1, &stored->root, &each->node, &stored->count, compare);
        if (round % 100 != 0) continue;
        ASSERT_EQ(loom_debug_arena_check(handle), 0u);
    }
    ASSERT_EQ(loom_debug_arena_check(handle), 0u);
    ASSERT_EQ(loom_write_abort(handle), 0u);
    EXPECT_EQ(stored->count, 150u);
    height_of(stored->root, nullptr);
    for (const item* each : items)
        EXPECT_EQ(e_avl_search(stored->root, &each->node, compare) != nullptr, each->key % 2 == 1);
}
} // namespace
