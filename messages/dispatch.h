// Receiving a message: decode it, record it while the runtime's recorder is on, and hand it to a callback or to
// the application's handler. A failed recording never stops the dispatch; a missing handler is an error.
#pragma once

#include "messages/codec.h"

#include <stdio.h>

namespace trellis::message {

/// One recorded message, tags included, must fit into a block of this size.
constexpr u32 recording_size = 0x10000;

/// The recorded form: the message's XML inside a stamped element named after the bundle. Returns its length.
template <class M>
inline u32 render_recording(const call& c, char* buffer, const object_of<M>* message) {
    cursor at(buffer, static_cast<i32>(recording_size));
    at.advance(start_tag_timestamp(c.handle, c.domain, buffer, M::bundle::name, at.room(), c.error));
    if (!c.pending()) at.advance(to_xml<M>(c.handle, c.domain, at.text(), message, at.room(), c.error));
    if (!c.pending()) at.advance(end_tag(c.handle, c.domain, at.text(), M::bundle::name, at.room(), c.error));
    return at.position();
}

template <class M>
inline void record(loom_handle* handle, u32 domain, const object_of<M>* message) {
    auto* buffer = static_cast<char*>(loomlib_malloc(0, domain, recording_size));
    if (buffer == nullptr) die<M, says::unmarshal_recorder_no_memory>();
    u32 error = 0;
    const call c{handle, domain, &error};
    const u32 length = render_recording<M>(c, buffer, message);
    if (error != 0) {
        say<M, says::unmarshal_not_recorded>(error, length);
    } else if (FILE* stream = loomlib_msg_recorder_get_handle(); stream != nullptr) {
        fwrite(buffer, length, 1, stream);
    } else {
        say<M, says::unmarshal_recorder_no_stream>();
    }
    loomlib_free(0, domain, buffer);
    if (error != 0) say<M, says::unmarshal_recording_failed>(error);
}

template <class M>
using handler_function = void (*)(loom_handle* handle, u32 domain, void* context, object_of<M>* message, u32* err);

template <class M>
u32 unmarshal(loom_handle* handle, u32 domain, void* context, object_of<M>** message, const void* buffer,
              i32 length, handler_function<M> callback, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        say<M, says::unmarshal_error_pending>(text(M::display_name), error_text(*err));
        return 0;
    }
    c.clear_last_error();
    if (message != nullptr) *message = nullptr;
    object_of<M>* received = nullptr;
    const u32 read = M::unmarshal_only(handle, domain, &received, buffer, length, err);
    if (c.pending()) {
        destroy_internal<M>(handle, domain, received); // nobody else would ever see what was read so far
        return read;
    }
    if (message != nullptr) *message = received;
    if (loomlib_msg_recorder_get_state() != 0) record<M>(handle, domain, received);
    if (callback != nullptr) {
        callback(handle, domain, context, received, err);
    } else if (M::handler != nullptr) {
        M::handler(handle, domain, context, received, err);
    } else {
        c.fail(LOOM_ENOSYS);
        say<M, says::unmarshal_no_handler>();
    }
    return read;
}

} // namespace trellis::message
