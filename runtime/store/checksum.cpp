// XXH3 by the library's header, compiled into this unit.
#include "runtime/store/checksum.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <new>

namespace loom {
static_assert(sizeof(XXH3_state_t) <= 576 && alignof(XXH3_state_t) <= 64);

u64 checksum_of(const void* bytes, std::size_t size) { return XXH3_64bits(bytes, size); }

digest_stream::digest_stream() { XXH3_128bits_reset(new (state_) XXH3_state_t); }

void digest_stream::add(const void* bytes, std::size_t size) {
    XXH3_128bits_update(reinterpret_cast<XXH3_state_t*>(state_), bytes, size);
}

digest digest_stream::result() const {
    const XXH128_hash_t hash = XXH3_128bits_digest(reinterpret_cast<const XXH3_state_t*>(state_));
    return {hash.low64, hash.high64};
}

} // namespace loom
