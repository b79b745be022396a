// The bytes of one run of a fuzzing program: a few that choose, the rest is what the product is given. Also the
// way to say that a run has found something.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace trellis::fuzz {

/// Ends the process with a text; libFuzzer keeps the input.
[[noreturn]] void found(const std::string& what);

/// Takes choices from the front; what is missing is 0.
class input {
  public:
    input(const uint8_t* bytes, size_t size) : rest_(bytes, size) {}

    uint8_t byte();
    /// Two bytes, most significant first.
    uint16_t word();
    /// At most `size` bytes from the front.
    std::span<const uint8_t> part(size_t size);
    std::span<const uint8_t> rest() const { return rest_; }

  private:
    std::span<const uint8_t> rest_;
};

/// A block of exactly these bytes and `spare` more, so that the address sanitizer guards its end.
class exact_copy {
  public:
    explicit exact_copy(std::span<const uint8_t> bytes, size_t spare = 0);
    uint8_t* data() const { return block_.get(); }
    int32_t size() const { return size_; }

  private:
    std::unique_ptr<uint8_t[]> block_;
    int32_t size_;
};

} // namespace trellis::fuzz
