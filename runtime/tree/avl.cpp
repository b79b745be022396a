// The intrusive AVL tree e_avl_*.
//
// Well-kept libraries offer intrusive AVL trees, but they keep a header node besides the root and store through
// static functions of the node type. Here the root is one pointer in the owner's memory, and each store must be
// announced to an arena that only the caller knows; so the tree is written out.
//
// `balance` is the height of the right subtree less that of the left one. The second cell counts the nodes. The
// links of a node that is in no tree are null, so that a node can tell by itself whether climbing from it leads to
// the root; nodes that lie outside the tree are placed by comparison.
#include "runtime/export.h"

#include "frame/basic_types.h"

#include <loom/database.h>

#include <cstdlib>
#include <type_traits>
#include <utility>

namespace {
using namespace trellis;

enum : i32 { before = 0, equal = 1 };

/// Announces and stores.
class writer {
  public:
    writer(void* arena, u32 domain) : arena_(arena), domain_(domain) {}
    template <class T>
    void store(T& place, std::type_identity_t<T> value) {
        if (arena_ && arbor_set_range(arena_, &place, sizeof place, domain_) != 1) end_process();
        place = value;
    }

  private:
    /// A refused announcement in the middle of a change: only the undo log can bring the tree back into order.
    [[noreturn]] static void end_process() {
        arbor_perror();
        std::abort();
    }

    void* arena_;
    u32 domain_;
};

e_avl_node* leftmost(e_avl_node* node) {
    while (node && node->left)
        node = node->left;
    return node;
}
e_avl_node* rightmost(e_avl_node* node) {
    while (node && node->right)
        node = node->right;
    return node;
}

using link = e_avl_node* e_avl_node::*;

/// The neighbour of a node in its tree: towards `forth`, whose opposite is `back`.
e_avl_node* neighbour(e_avl_node* node, link forth, link back) {
    if (e_avl_node* next = node->*forth) {
        while (next->*back)
            next = next->*back;
        return next;
    }
    e_avl_node* parent = node->parent;
    while (parent && parent->*forth == node)
        node = std::exchange(parent, parent->parent);
    return parent;
}

/// Whether the node is one of this very tree: its parent knows it, and the way up ends at the root.
bool is_linked(const e_avl_node* root, const e_avl_node* node) {
    if (!node) return false; // compares place it before all others
    const e_avl_node* parent = node->parent;
    if (!parent) return node == root;
    if (parent->left != node && parent->right != node) return false;
    while (parent->parent)
        parent = parent->parent;
    return parent == root;
}

/// The cell that points at `node`.
e_avl_node*& cell_of(e_avl_node*& root, const e_avl_node* node) {
    e_avl_node* parent = node->parent;
    return !parent ? root : parent->left == node ? parent->left : parent->right;
}

/// Turns `node` down and its child on the `heavy` side up; `light` is the other side.
e_avl_node* rotate(writer& w, e_avl_node*& root, e_avl_node* node, link heavy, link light) {
    e_avl_node* child = node->*heavy;
    e_avl_node* middle = child->*light;
    w.store(cell_of(root, node), child);
    w.store(child->parent, node->parent);
    w.store(node->*heavy, middle);
    if (middle) w.store(middle->parent, node);
    w.store(child->*light, node);
    w.store(node->parent, child);
    return child;
}

/// Repairs a node whose balance is 2 to the side `sign`. Returns the new top of the subtree.
e_avl_node* repair(writer& w, e_avl_node*& root, e_avl_node* node, i64 sign) {
    const link heavy = sign > 0 ? &e_avl_node::right : &e_avl_node::left;
    const link light = sign > 0 ? &e_avl_node::left : &e_avl_node::right;
    e_avl_node* child = node->*heavy;
    if (child->balance != -sign) {
        const i64 left_over = child->balance == 0 ? sign : 0;
        rotate(w, root, node, heavy, light);
        w.store(node->balance, left_over);
        w.store(child->balance, -left_over);
        return child;
    }
    e_avl_node* grandchild = child->*light;
    const i64 tilt = grandchild->balance;
    rotate(w, root, child, light, heavy);
    rotate(w, root, node, heavy, light);
    w.store(node->balance, tilt == sign ? -sign : 0);
    w.store(child->balance, tilt == -sign ? sign : 0);
    w.store(grandchild->balance, 0);
    return grandchild;
}

/// The subtree `node` has grown: passes the change up as far as it reaches.
void grown(writer& w, e_avl_node*& root, e_avl_node* node) {
    for (e_avl_node* parent = node->parent; parent; node = std::exchange(parent, parent->parent)) {
        const i64 balance = parent->balance + (parent->right == node ? 1 : -1);
        if (balance == 2 || balance == -2) {
            repair(w, root, parent, balance / 2);
            return;
        }
        w.store(parent->balance, balance);
        if (balance == 0) return;
    }
}

/// The subtree of `parent` on the side `sign` has become lower.
void shrunk(writer& w, e_avl_node*& root, e_avl_node* parent, i64 sign) {
    while (parent) {
        const i64 balance = parent->balance - sign;
        e_avl_node* top = parent;
        if (balance == 2 || balance == -2)
            top = repair(w, root, parent, balance / 2);
        else
            w.store(parent->balance, balance);
        if (top->balance != 0) return;
        parent = top->parent;
        if (parent) sign = parent->right == top ? 1 : -1;
    }
}

/// Takes out a node that has at most one child.
void splice(writer& w, e_avl_node*& root, e_avl_node* node) {
    e_avl_node* child = node->left ? node->left : node->right;
    e_avl_node* parent = node->parent;
    const i64 sign = parent && parent->right == node ? 1 : -1;
    w.store(cell_of(root, node), child);
    if (child) w.store(child->parent, parent);
    shrunk(w, root, parent, sign);
}

/// Puts `node` into the place of `old`, links and balance.
void replace(writer& w, e_avl_node*& root, e_avl_node* old, e_avl_node* node) {
    w.store(cell_of(root, old), node);
    w.store(node->parent, old->parent);
    w.store(node->left, old->left);
    w.store(node->right, old->right);
    w.store(node->balance, old->balance);
    if (node->left) w.store(node->left->parent, node);
    if (node->right) w.store(node->right->parent, node);
}

void clear_links(writer& w, e_avl_node* node) {
    w.store(node->left, nullptr);
    w.store(node->right, nullptr);
    w.store(node->parent, nullptr);
    w.store(node->balance, 0);
}

/// The first node behind, or the last one before, the place of a node that is not linked.
e_avl_node* nearest(e_avl_node* root, const e_avl_node* node, e_avl_compare_fn compare, bool behind) {
    e_avl_node* best = nullptr;
    while (root) {
        const i32 order = compare(node, root);
        const bool goes_left = behind ? order == before : order == before || order == equal;
        if (goes_left == behind) best = root;
        root = goes_left ? root->left : root->right;
    }
    return best;
}
} // namespace

LOOM_EXPORT uint32_t e_avl_insert(void* alloc_ctx, uint32_t domain, e_avl_node** root, e_avl_node* node,
                                  uint32_t* aux, e_avl_compare_fn compare) {
    e_avl_node* parent = nullptr;
    e_avl_node** cell = root;
    while (*cell) {
        const i32 order = compare(node, *cell);
        if (order == equal) return 0;
        parent = *cell;
        cell = order == before ? &parent->left : &parent->right;
    }
    writer w(alloc_ctx, domain);
    w.store(node->left, nullptr);
    w.store(node->right, nullptr);
    w.store(node->parent, parent);
    w.store(node->balance, 0);
    w.store(*cell, node);
    grown(w, *root, node);
    if (aux) w.store(*aux, *aux + 1);
    return 1;
}

LOOM_EXPORT uint32_t e_avl_delete(void* alloc_ctx, uint32_t domain, e_avl_node** root, e_avl_node* node,
                                  uint32_t* aux, e_avl_compare_fn) {
    if (!is_linked(*root, node)) return 0;
    writer w(alloc_ctx, domain);
    if (node->left && node->right) {
        e_avl_node* successor = leftmost(node->right);
        splice(w, *root, successor);
        replace(w, *root, node, successor);
    } else {
        splice(w, *root, node);
    }
    clear_links(w, node);
    if (aux) w.store(*aux, *aux - 1);
    return 1;
}

LOOM_EXPORT e_avl_node* e_avl_search(e_avl_node* root, const e_avl_node* node, e_avl_compare_fn compare) {
    while (root) {
        const i32 order = compare(node, root);
        if (order == equal) return root;
        root = order == before ? root->left : root->right;
    }
    return nullptr;
}

LOOM_EXPORT e_avl_node* e_avl_get_next(e_avl_node* root, const e_avl_node* node, e_avl_compare_fn compare) {
    if (is_linked(root, node))
        return neighbour(const_cast<e_avl_node*>(node), &e_avl_node::right, &e_avl_node::left);
    return nearest(root, node, compare, true);
}
LOOM_EXPORT e_avl_node* e_avl_get_prev(e_avl_node* root, const e_avl_node* node, e_avl_compare_fn compare) {
    if (is_linked(root, node))
        return neighbour(const_cast<e_avl_node*>(node), &e_avl_node::left, &e_avl_node::right);
    return nearest(root, node, compare, false);
}

LOOM_EXPORT e_avl_node* e_avl_get_first(e_avl_node* root) { return leftmost(root); }
LOOM_EXPORT e_avl_node* e_avl_get_last(e_avl_node* root) { return rightmost(root); }

LOOM_EXPORT void e_avl_walk(e_avl_node* root, e_avl_walk_fn visit, void* context) {
    for (e_avl_node* node = leftmost(root); node;) {
        e_avl_node* next = neighbour(node, &e_avl_node::right, &e_avl_node::left);
        if (visit(node, context)) return;
        node = next;
    }
}
