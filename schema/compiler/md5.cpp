#include "schema/compiler/md5.h"

#include <bit>
#include <cmath>
#include <vector>

namespace trellis::schema {
namespace {

using word = std::uint32_t;

/// The constants of the 64 steps: the fraction of |sin(step)|, in 32 bits.
const std::array<word, 64>& sines() {
    static const std::array<word, 64> table = [] {
        std::array<word, 64> t{};
        for (std::size_t i = 0; i < t.size(); ++i)
            t[i] = static_cast<word>(std::floor(std::abs(std::sin(static_cast<double>(i + 1))) * 4294967296.0));
        return t;
    }();
    return table;
}

void add_block(std::array<word, 4>& state, const std::uint8_t* block) {
    static constexpr int turns[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
    std::array<word, 16> in{};
    for (std::size_t i = 0; i < 64; ++i)
        in[i / 4] |= word{block[i]} << (8 * (i % 4));
    auto [a, b, c, d] = state;
    for (std::size_t step = 0; step < 64; ++step) {
        const std::size_t round = step / 16;
        word mixed = 0;
        std::size_t from = 0;
        switch (round) {
        case 0:
            mixed = (b & c) | (~b & d);
            from = step;
            break;
        case 1:
            mixed = (d & b) | (~d & c);
            from = 5 * step + 1;
            break;
        case 2:
            mixed = b ^ c ^ d;
            from = 3 * step + 5;
            break;
        default:
            mixed = c ^ (b | ~d);
            from = 7 * step;
            break;
        }
        const word sum = a + mixed + sines()[step] + in[from % 16];
        a = d;
        d = c;
        c = b;
        b += std::rotl(sum, turns[round][step % 4]);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

} // namespace

md5_digest md5(std::string_view text) {
    std::vector<std::uint8_t> padded(text.begin(), text.end());
    padded.push_back(0x80);
    while (padded.size() % 64 != 56)
        padded.push_back(0);
    const std::uint64_t bits = std::uint64_t{text.size()} * 8;
    for (unsigned i = 0; i < 8; ++i)
        padded.push_back(static_cast<std::uint8_t>(bits >> (8 * i)));

    std::array<word, 4> state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    for (std::size_t at = 0; at < padded.size(); at += 64)
        add_block(state, padded.data() + at);
    md5_digest digest{};
    for (std::size_t i = 0; i < digest.size(); ++i)
        digest[i] = static_cast<std::uint8_t>(state[i / 4] >> (8 * (i % 4)));
    return digest;
}

std::string hex(const md5_digest& digest) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : digest) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

} // namespace trellis::schema
