// A bundle's node on the runtime's list of loaded modules, linked when the library is loaded and unlinked when it
// is unloaded. The list is a tail queue whose entry lies inside the node. No lock is taken: the loader serialises
// constructors and destructors.
#pragma once

#include "frame/basic_types.h"

#include <loom/registry.h>

namespace trellis::frame {

/// The load-time constructor. `linked` is the node's guard: a node that was linked once is never linked again.
inline void link_module(loom_module_node& node, u8& linked) {
    if (linked != 0) return;
    loom_module_root& root = loom_module_tot_root;
    node.next = nullptr;
    node.previous = root.last;
    *root.last = &node;
    root.last = &node.next;
    ++root.count;
    linked = 1;
}

/// The unload-time destructor. A node that is not linked leaves the list alone; the guard stays as it is.
inline void unlink_module(loom_module_node& node) {
    if (node.next == nullptr && node.previous == nullptr) return;
    loom_module_root& root = loom_module_tot_root;
    if (node.next != nullptr)
        node.next->previous = node.previous;
    else
        root.last = node.previous;
    *node.previous = node.next;
    node.next = nullptr;
    node.previous = nullptr;
    --root.count;
}

} // namespace trellis::frame
