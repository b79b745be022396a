// Bounded text: appends to a caller's buffer, never beyond it, and knows whether something was left out. How a
// line or an element ends, and what a short buffer reports, is decided here for all printing operations.
#pragma once

#include "runtime/values/call.h"

#include <string_view>

namespace loom {

class text_writer {
  public:
    text_writer(char* buffer, i32 length) : buffer_(buffer), room_(room_of(length)) {}

    void append(std::string_view text) {
        if (text.size() > room_ - used_) {
            text = text.substr(0, room_ - used_);
            cut_ = true;
        }
        // An empty view may have no address.
        if (!text.empty()) std::memcpy(buffer_ + used_, text.data(), text.size());
        used_ += static_cast<u32>(text.size());
    }
    void append(char character) { append(std::string_view(&character, 1)); }
    void append_blanks(i32 count) {
        const u32 wanted = room_of(count);
        const u32 written = wanted <= room_ - used_ ? wanted : room_ - used_;
        if (written) std::memset(buffer_ + used_, ' ', written);
        used_ += written;
        cut_ |= written != wanted;
    }
    void append_hex(u8 byte) {
        constexpr char digits[] = "0123456789abcdef";
        append(digits[byte >> 4]);
        append(digits[byte & 15]);
    }

    /// Ends a printed line: the terminator has to fit as well. A line that was cut stays as far as it goes and
    /// reports 90. Returns the characters written, without the terminator.
    i32 finish_line(const call& c) {
        if (used_ < room_) {
            buffer_[used_] = '\0';
        } else {
            cut_ = true;
            if (room_) buffer_[--used_] = '\0';
        }
        if (cut_) c.fail(LOOM_EMSGSIZE);
        return static_cast<i32>(used_);
    }

    /// Ends a piece of XML: whole or not at all, so that a document breaks off between two pieces. The terminator
    /// is written only when there is room. Returns the bytes written.
    u32 finish_element(const call& c) {
        if (cut_) {
            if (room_) buffer_[0] = '\0';
            return c.fail(LOOM_EMSGSIZE);
        }
        if (used_ < room_) buffer_[used_] = '\0';
        return used_;
    }

  private:
    char* buffer_;
    u32 room_;
    u32 used_ = 0;
    bool cut_ = false;
};
} // namespace loom
