// A hash table that lies in an arena: intrusive nodes in chains, found by a hash that the node can tell. All
// stores are announced to the arena; nodes are made and ended by the caller.
#pragma once

#include "runtime/database/arena.h"

namespace loom {

/// `Next` is the node's link; a node that is in several tables has one for each. `Hash` tells the hash of a node.
template <class Node, Node* Node::*Next, auto Hash>
struct chain_table {
    Node** slots;
    u64 slot_count;
    u64 size;

    template <class Matches>
    Node* find(u64 hash, Matches matches) const {
        if (!slot_count) return nullptr;
        Node* node = slots[place(hash)];
        while (node && !matches(*node))
            node = node->*Next;
        return node;
    }

    /// Makes sure that nodes can be entered from now on; false when there is no memory.
    bool reserve(arena& memory) { return slot_count || grow(memory); }

    /// Enters a node; false when there is no memory, never once a place was reserved. The node may be fresh.
    bool insert(arena& memory, Node* node) {
        if (size >= slot_count && !grow(memory)) return false;
        Node*& slot = slots[place(Hash(*node))];
        memory.assign(node->*Next, slot);
        memory.assign(slot, node);
        memory.assign(size, size + 1);
        return true;
    }

    /// Takes the node out; false when it is not there.
    bool remove(arena& memory, Node* node) {
        if (!slot_count) return false;
        Node** link = &slots[place(Hash(*node))];
        while (*link && *link != node)
            link = &((*link)->*Next);
        if (!*link) return false;
        memory.assign(*link, node->*Next);
        memory.assign(size, size - 1);
        return true;
    }

    /// Visits every node; a node may be removed by its visit.
    template <class Visit>
    void each(Visit visit) const {
        for (u64 i = 0; i < slot_count; ++i)
            for (Node* node = slots[i]; node;) {
                Node* next = node->*Next;
                visit(*node);
                node = next;
            }
    }

    /// Where the node must be.
    u64 slot_of(const Node& node) const { return place(Hash(node)); }
    static Node* next_of(const Node& node) { return node.*Next; }

  private:
    u64 place(u64 hash) const { return (hash * 0x9E3779B97F4A7C15u >> 20) & (slot_count - 1); }

    bool grow(arena& memory) {
        const u64 wider = slot_count ? slot_count * 2 : 16;
        auto** fresh = static_cast<Node**>(memory.allocate(wider * sizeof(Node*)));
        if (!fresh) return slot_count != 0;
        for (u64 i = 0; i < wider; ++i)
            fresh[i] = nullptr;
        Node** old = slots;
        const u64 old_count = slot_count;
        memory.assign(slot_count, wider);
        for (u64 i = 0; i < old_count; ++i)
            for (Node* node = old[i]; node;) {
                Node* next = node->*Next;
                Node*& slot = fresh[place(Hash(*node))];
                memory.assign(node->*Next, slot);
                slot = node;
                node = next;
            }
        memory.assign(slots, fresh);
        if (old) memory.release(old);
        return true;
    }
};

} // namespace loom
