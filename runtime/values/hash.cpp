// SuperFastHash, the hash function that Paul Hsieh published in 2004 ("Hash functions", azillionmonkeys.com), with
// the caller's seed as start value.
//
// The block is taken in words of four bytes, each as two 16-bit halves, low byte first:
//   hash += low; hash = hash << 16 ^ high << 11 ^ hash; hash += hash >> 11
// One to three bytes behind the last word have steps of their own, a single byte being taken as signed; six shifts
// at the end let the last bits reach all others. An empty block gives the seed, so that it does not wipe out a
// chain.
#include "frame/basic_types.h"
#include "runtime/export.h"

#include <loom/instance.h>

namespace {
using namespace trellis;

u32 half_word(const u8* bytes) { return static_cast<u32>(bytes[0]) | static_cast<u32>(bytes[1]) << 8; }

u32 signed_byte(u8 byte) { return static_cast<u32>(static_cast<i8>(byte)); }
} // namespace

LOOM_EXPORT uint32_t SuperFastHash(const void* block, uint32_t length, uint32_t seed) {
    if (!block || length == 0) return seed;
    const u8* bytes = static_cast<const u8*>(block);
    u32 hash = seed;
    for (u32 words = length >> 2; words; --words, bytes += 4) {
        hash += half_word(bytes);
        hash = (hash << 16) ^ ((half_word(bytes + 2) << 11) ^ hash);
        hash += hash >> 11;
    }
    switch (length & 3) {
    case 3:
        hash += half_word(bytes);
        hash ^= hash << 16;
        hash ^= signed_byte(bytes[2]) << 18;
        hash += hash >> 11;
        break;
    case 2:
        hash += half_word(bytes);
        hash ^= hash << 11;
        hash += hash >> 17;
        break;
    case 1:
        hash += signed_byte(bytes[0]);
        hash ^= hash << 10;
        hash += hash >> 1;
        break;
    default: break;
    }
    hash ^= hash << 3;
    hash += hash >> 5;
    hash ^= hash << 4;
    hash += hash >> 17;
    hash ^= hash << 25;
    hash += hash >> 6;
    return hash;
}
