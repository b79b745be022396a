// Message bundles of a handle, and the process-wide recorder of received messages.
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>

namespace loom {
namespace {
std::atomic<u32> recording{0};
std::atomic<std::FILE*> recorder_stream{nullptr};
std::mutex recorder_mutex;
bool recorder_owns_stream = false;

std::array<u8, 16> key_of(const u8* luid) {
    std::array<u8, 16> key;
    std::copy_n(luid, 16, key.begin());
    return key;
}

bundled_message* find_message(message_bundle& bundle, const u8* luid) {
    const auto found =
        std::find_if(bundle.messages.begin(), bundle.messages.end(),
                     [&](const bundled_message& each) { return std::memcmp(each.luid.data(), luid, 16) == 0; });
    return found == bundle.messages.end() ? nullptr : &*found;
}

bool is_allowed(const message_bundle& bundle, const u8* luid) {
    return bundle.allowed.empty() ||
           std::find(bundle.allowed.begin(), bundle.allowed.end(), key_of(luid)) != bundle.allowed.end();
}

/// Runs a step that needs memory of the process; 0, or 12 with a text.
template <class Step>
u32 with_memory(Step step) try {
    step();
    return 0;
} catch (const std::bad_alloc&) {
    return explain(ENOMEM, "the process has no memory for message bundles; close what is not needed");
}

u32 start_recording(std::FILE* stream, bool owned) {
    const std::lock_guard guard(recorder_mutex);
    if (recording) {
        if (owned) std::fclose(stream);
        return fail(EEXIST, "the recorder is on already");
    }
    recorder_owns_stream = owned;
    recorder_stream = stream;
    recording = 1;
    return done();
}
} // namespace
} // namespace loom

using namespace loom;

LOOM_EXPORT uint32_t loom_message_bundle_open(loom_handle* handle, const char* name) {
    open_handle* own = opened(handle);
    if (own->messages) return fail(EEXIST, "message bundle \"%s\" is open already", own->messages->name.c_str());
    const u32 error = with_memory([&] {
        auto made = std::make_unique<message_bundle>();
        made->name = name ? name : "";
        own->messages = std::move(made);
        handle->bundle_active = 1;
    });
    return done(error);
}

LOOM_EXPORT uint32_t loom_message_bundle_close(loom_handle* handle) {
    open_handle* own = opened(handle);
    if (!own->messages) return fail(ENOENT, "no message bundle is open");
    own->messages.reset();
    handle->bundle_active = 0;
    return done();
}

LOOM_EXPORT uint32_t loom_message_bundle_allow(loom_handle* handle, const uint8_t luid[16]) {
    message_bundle* bundle = opened(handle)->messages.get();
    if (!bundle) return fail(ENOENT, "no message bundle is open");
    return done(with_memory([&] { bundle->allowed.push_back(key_of(luid)); }));
}

LOOM_EXPORT uint32_t loom_message_bundle_limit(loom_handle* handle, uint64_t most) {
    message_bundle* bundle = opened(handle)->messages.get();
    if (!bundle) return fail(ENOENT, "no message bundle is open");
    bundle->most = most;
    return done();
}

LOOM_EXPORT uint64_t loom_message_bundle_count(loom_handle* handle, const uint8_t* luid) {
    message_bundle* bundle = opened(handle)->messages.get();
    if (!bundle) return 0;
    if (!luid) return bundle->total;
    const bundled_message* message = find_message(*bundle, luid);
    return message ? message->count : 0;
}

LOOM_EXPORT void loom_message_bundle_each(loom_handle* handle, loom_message_fn visit, void* context) {
    const message_bundle* bundle = opened(handle)->messages.get();
    if (!bundle) return;
    for (const bundled_message& each : bundle->messages)
        visit(each.luid.data(), each.name.c_str(), each.count, context);
}

LOOM_EXPORT void bundle_message_validate_add(loom_handle* handle, uint32_t, const uint8_t* luid, const char* name,
                                             uint32_t* err) {
    if (*err) return;
    message_bundle* bundle = opened(handle)->messages.get();
    if (!bundle) return fail(handle, err, LOOM_ENOENT, "no message bundle is open");
    if (!is_allowed(*bundle, luid))
        return fail(handle, err, LOOM_EPERM, "message bundle \"%s\" does not accept %s", bundle->name.c_str(),
                    name ? name : "this message");
    if (bundle->most && bundle->total >= bundle->most)
        return fail(handle, err, LOOM_ENOSPC, "message bundle \"%s\" is full: it takes %llu messages",
                    bundle->name.c_str(), static_cast<unsigned long long>(bundle->most));
    if (find_message(*bundle, luid)) return;
    if (const u32 error = with_memory([&] { bundle->messages.push_back({key_of(luid), name ? name : "", 0}); }))
        set_error(handle, err, error);
}

LOOM_EXPORT void bundle_message_increment_count(loom_handle* handle, const uint8_t* luid, uint32_t* err) {
    if (*err) return;
    message_bundle* bundle = opened(handle)->messages.get();
    bundled_message* message = bundle ? find_message(*bundle, luid) : nullptr;
    if (!message) return fail(handle, err, LOOM_ENOENT, "no message bundle that is open holds this message");
    ++message->count;
    ++bundle->total;
}

LOOM_EXPORT uint32_t loom_recorder_start(const char* path) {
    std::FILE* stream = std::fopen(path, "ae");
    if (!stream)
        return fail(static_cast<u32>(errno), "recorder file %s: cannot be opened: %s", path,
                    words_of(errno).c_str());
    return start_recording(stream, true);
}
LOOM_EXPORT uint32_t loom_recorder_start_stream(FILE* stream) { return start_recording(stream, false); }

LOOM_EXPORT void loom_recorder_stop(void) {
    const std::lock_guard guard(recorder_mutex);
    recording = 0;
    std::FILE* stream = recorder_stream.exchange(nullptr);
    if (!stream) return;
    if (recorder_owns_stream)
        std::fclose(stream);
    else
        std::fflush(stream);
}

LOOM_EXPORT uint32_t loomlib_msg_recorder_get_state(void) { return recording.load(std::memory_order_acquire); }
LOOM_EXPORT FILE* loomlib_msg_recorder_get_handle(void) { return recorder_stream.load(std::memory_order_acquire); }
