// The bundle handler: an opaque pointer that the host registers, kept in an exported slot and passed on to the
// bundles from which types and tables are imported, always in the order of the schema's imports. What a handler
// is and who calls it is the host's business. No lock is taken.
#pragma once

namespace trellis::frame {

/// Stores `handler` and hands it on; returns the handler registered before. Results of siblings are ignored.
template <class... Sibling>
inline void* register_handler(void*& slot, void* handler, Sibling*... siblings) {
    void* const previous = slot;
    slot = handler;
    (static_cast<void>(siblings(handler)), ...);
    return previous;
}

/// Clears the slot, here and in the siblings; returns the handler that was registered.
template <class... Sibling>
inline void* unregister_handler(void*& slot, Sibling*... siblings) {
    void* const previous = slot;
    slot = nullptr;
    (static_cast<void>(siblings()), ...);
    return previous;
}

} // namespace trellis::frame
