// Clone: a deep copy by way of the binary form. The workspace must hold the whole marshalled source.
#pragma once

#include "instance/lifecycle.h"

namespace trellis::record {

/// Unmarshals over the instance in `*out`, or over a new one.
template <class M>
void clone_internal(loom_handle* handle, u32 domain, const typename M::object* source, typename M::object** out,
                    void* workspace, i32 workspace_size, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter()) return;
    if (out == nullptr || workspace == nullptr) {
        c.fail(LOOM_ENOENT);
        return;
    }
    // The source's own variant stands: the bytes never leave the process.
    const u32 length = M::type::marshal_for_clone(handle, domain, workspace, source, workspace_size, err);
    if (c.pending()) return;
    if (*out == nullptr) {
        M::bundle::trace_init();
        *out = M::type::create_internal(handle, domain);
        if (*out == nullptr) {
            c.fail(LOOM_ENOMEM);
            return;
        }
    }
    M::type::unmarshal(handle, domain, workspace, *out, static_cast<i32>(length), 0, err);
    if (!c.pending()) return;
    // A slot of an array belongs to its holder, who ends it; everything else ends here.
    const bool in_a_holder = (header_of(*out)->loom_flags & OBJ_NESTED) != 0;
    if (*out != sentinel<M>() && !in_a_holder) M::type::destroy_internal(handle, domain, *out, 1);
    *out = nullptr;
}

template <class M>
void clone(loom_handle* handle, u32 domain, const typename M::object* source, typename M::object** out,
           void* workspace, i32 workspace_size, u32* err) {
    if (out != nullptr) *out = nullptr;
    M::type::clone_internal(handle, domain, source, out, workspace, workspace_size, err);
}

template <class M>
typename M::object* clone_cr(loom_handle* handle, const typename M::object* source) {
    if (handle->last_error != 0) return nullptr;
    void* workspace = nullptr;
    u32 size = 0;
    loomlib_get_handle_ws(handle, &workspace, &size);
    typename M::object* made = nullptr;
    M::type::clone_internal(handle, handle->cr_domain, source, &made, workspace, static_cast<i32>(size),
                            &handle->last_error);
    return made;
}

} // namespace trellis::record
