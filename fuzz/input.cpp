#include "fuzz/input.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace trellis::fuzz {

void found(const std::string& what) {
    std::fprintf(stderr, "found: %s\n", what.c_str());
    std::abort();
}

std::span<const uint8_t> input::part(size_t size) {
    const auto taken = rest_.first(std::min(size, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
}

uint8_t input::byte() {
    const auto taken = part(1);
    return taken.empty() ? uint8_t{0} : taken[0];
}

uint16_t input::word() {
    const unsigned high = byte();
    return static_cast<uint16_t>(high << 8 | byte());
}

exact_copy::exact_copy(std::span<const uint8_t> bytes, size_t spare)
    : block_(new uint8_t[bytes.size() + spare]), size_(static_cast<int32_t>(bytes.size())) {
    std::copy(bytes.begin(), bytes.end(), block_.get());
    std::fill_n(block_.get() + bytes.size(), spare, uint8_t{0xAA});
}

} // namespace trellis::fuzz
