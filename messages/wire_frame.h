// The frame that table records and action messages travel in, the cursor that writes it, and the path of an
// element. The header's own bytes belong to the runtime.
//
//     | header 27 | luid 16 | content |
//
// The header is written last, with the whole length, over 27 zero bytes.
#pragma once

#include "frame/wire_sizes.h"
#include "instance/call.h"

#include <loom/loom.h>

#include <string.h>

namespace trellis::wire {

/// A position in a buffer of limited room.
class cursor {
  public:
    cursor(void* buffer, i32 length) : start_(static_cast<unsigned char*>(buffer)), length_(length) {}

    void* here() const { return start_ + position_; }
    char* text() const { return reinterpret_cast<char*>(here()); }
    i32 room() const { return length_ - static_cast<i32>(position_); }
    u32 position() const { return position_; }
    /// What is read may jump far behind the end; the position stops at the largest that its signed form can tell.
    void advance(u32 bytes) {
        const u32 moved = position_ + bytes;
        position_ = static_cast<i32>(moved) >= 0 ? moved : u32{INT32_MAX};
    }
    void advance(i32 characters) { position_ += static_cast<u32>(characters); }

  private:
    unsigned char* start_;
    i32 length_;
    u32 position_ = 0;
};

/// Takes `size` bytes of the frame; false with error 90 when there is no room or an error is pending.
inline bool take_room(const call& c, const cursor& at, u32 size) {
    if (c.pending()) return false;
    if (at.room() >= static_cast<i32>(size)) return true;
    c.fail(LOOM_EMSGSIZE);
    return false;
}

/// Writes the frame's zeroed header place and the luid. True when there is a header to fill in at the end.
inline bool write_frame(const call& c, cursor& at, const u8* luid) {
    if (!take_room(c, at, header_size)) return false;
    memset(at.here(), 0, header_size);
    at.advance(header_size);
    if (take_room(c, at, LOOM_LUID_SIZE)) {
        memcpy(at.here(), luid, LOOM_LUID_SIZE);
        at.advance(u32{LOOM_LUID_SIZE});
    }
    return true;
}

inline loom_message_header empty_header() {
    loom_message_header header{};
    header.hdr_magic = LOOM_MESSAGE_HEADER_MAGIC;
    memset(header.hdr_reserved, 0xFF, sizeof header.hdr_reserved);
    return header;
}

/// Result of a chain's call that yields a length.
inline i32 chain_length(const loom_handle* handle, u32 length) {
    return handle->last_error != 0 ? -1 : static_cast<i32>(length);
}

/// "//<type>": the type's first element in a document, at any depth.
template <class Facade>
struct element_path_text {
    char text[sizeof Facade::name + 2]{};
    constexpr element_path_text() {
        text[0] = text[1] = '/';
        for (std::size_t i = 0; i < sizeof Facade::name; ++i)
            text[i + 2] = Facade::name[i];
    }
};
template <class Facade>
inline constexpr element_path_text<Facade> element_path;

} // namespace trellis::wire
