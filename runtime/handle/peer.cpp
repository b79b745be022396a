// Peers: filling them, and looking types up in them.
#include "runtime/handle/peer.h"

#include "runtime/export.h"
#include "runtime/handle/open_handle.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace loom {
namespace {
/// A manifest line: luid, colon, definition hash, kind word of 4, variant of 3, colon, size of 5, flag letter.
constexpr std::size_t manifest_line = 79;
constexpr std::size_t variant_place = 69;

int digit_of(char character) {
    if (character >= '0' && character <= '9') return character - '0';
    if (character >= 'a' && character <= 'f') return character - 'a' + 10;
    if (character >= 'A' && character <= 'F') return character - 'A' + 10;
    return -1;
}

bool read_line(const char* line, std::size_t length, luid_key& luid, i8& variant) {
    if (length != manifest_line || line[32] != ':' || line[72] != ':' || !read_luid(line, 32, luid)) return false;
    int value = 0;
    for (std::size_t i = variant_place; i < variant_place + 3; ++i) {
        if (line[i] < '0' || line[i] > '9') return false;
        value = value * 10 + line[i] - '0';
    }
    if (value > std::numeric_limits<i8>::max()) return false;
    variant = static_cast<i8>(value);
    return true;
}

i8 newest_of(const loom_type_info& info) {
    const loom_variant_table* table = info.variant_table;
    return table && table->n_variants > 0 ? static_cast<i8>(table->n_variants - 1) : i8{0};
}

u64 half_of(const loom_type_info& info) { return hash_of_bytes(info.luid); }

i8 cached_variant(open_handle& handle, const loom_peer& peer, const loom_type_info& info) {
    variant_cache_entry& entry =
        handle.variants[(reinterpret_cast<std::uintptr_t>(&info) >> 4) % handle.variants.size()];
    if (entry.info != &info || entry.peer != &peer || entry.luid_half != half_of(info))
        entry = {&peer, &info, half_of(info), peer.variant_of(info)};
    return entry.variant;
}

i8 lookup(loom_handle* handle, const loom_domain_state* state, const loom_type_info* info) {
    if (!info) return unknown_variant;
    const auto* peer = state ? static_cast<const loom_peer*>(state->peer) : nullptr;
    if (!peer) return newest_of(*info);
    return handle && handle->runtime ? cached_variant(*opened(handle), *peer, *info) : peer->variant_of(*info);
}
} // namespace

std::size_t luid_hash::operator()(const luid_key& key) const { return hash_of_bytes(key.bytes.data()); }

bool read_luid(const char* text, std::size_t length, luid_key& luid) {
    if (length != 32) return false;
    for (std::size_t i = 0; i < 16; ++i) {
        const int high = digit_of(text[2 * i]), low = digit_of(text[2 * i + 1]);
        if (high < 0 || low < 0) return false;
        luid.bytes[i] = static_cast<u8>(high << 4 | low);
    }
    return true;
}
} // namespace loom

using namespace loom;

i8 loom_peer::variant_of(const loom_type_info& info) const {
    luid_key luid;
    std::memcpy(luid.bytes.data(), info.luid, 16);
    const auto named = variants.find(luid);
    i8 variant = named != variants.end() ? named->second : same_build ? newest_of(info) : unknown_variant;
    if (!limits.empty())
        if (const auto limit = limits.find(info.name); limit != limits.end())
            variant = std::min(variant, limit->second);
    return variant;
}

LOOM_EXPORT loom_peer* loom_peer_create(const char* name) {
    auto* peer = new loom_peer;
    peer->name = name ? name : "";
    return peer;
}
LOOM_EXPORT loom_peer* loom_peer_create_same_build(const char* name) {
    loom_peer* peer = loom_peer_create(name);
    peer->same_build = true;
    return peer;
}
LOOM_EXPORT void loom_peer_release(loom_peer* peer) {
    if (peer && --peer->users == 0) delete peer;
}

LOOM_EXPORT uint32_t loom_peer_add_manifest(loom_peer* peer, const char* text, size_t length) {
    std::unordered_map<luid_key, i8, luid_hash> read;
    u32 number = 0;
    const char* end = text + length;
    for (const char* line = text; line < end && *line;) {
        const char* stop = std::find(line, end, '\n');
        ++number;
        luid_key luid;
        i8 variant = 0;
        if (*line != '#' && stop != line) {
            if (!read_line(line, static_cast<std::size_t>(stop - line), luid, variant))
                return fail(
                    EINVAL,
                    "manifest of peer %s: line %u is not of the form luid:hash kind variant:size: \"%.*s\"",
                    peer->name.c_str(), number, static_cast<int>(std::min<std::ptrdiff_t>(stop - line, 100)),
                    line);
            read[luid] = variant;
        }
        line = stop == end ? end : stop + 1;
    }
    for (const auto& [luid, variant] : read)
        peer->variants[luid] = variant;
    return done();
}

LOOM_EXPORT uint32_t loom_peer_set_variant(loom_peer* peer, const char* luid_text, int32_t variant) {
    luid_key luid;
    if (!luid_text || !read_luid(luid_text, std::strlen(luid_text), luid) || variant < -1 || variant > 127)
        return fail(EINVAL, "peer %s: \"%s\" is no luid text, or %d is no variant", peer->name.c_str(),
                    luid_text ? luid_text : "", variant);
    peer->variants[luid] = static_cast<i8>(variant);
    return done();
}

LOOM_EXPORT uint32_t loom_peer_limit(loom_peer* peer, const char* type_name, int32_t variant) {
    if (!type_name || variant < -1 || variant > 127)
        return fail(EINVAL, "peer %s: there is no name, or %d is no variant", peer->name.c_str(), variant);
    peer->limits[type_name] = static_cast<i8>(variant);
    return done();
}

LOOM_EXPORT void loom_set_peer(loom_handle* handle, loom_peer* peer) {
    open_handle* own = opened(handle);
    if (peer) ++peer->users;
    loom_peer_release(own->peer);
    own->peer = peer;
    own->variants = {};
    handle->domain_state.peer = peer;
    const std::string name = peer ? peer->name : "local";
    std::memset(handle->domain_text, 0, sizeof handle->domain_text);
    name.copy(handle->domain_text, sizeof handle->domain_text - 1);
}

LOOM_EXPORT int32_t loom_domain_lookup_variant(loom_handle* handle, loom_domain_state* state,
                                               const loom_type_info* tinfo, uint32_t*) {
    return lookup(handle, state, tinfo);
}
LOOM_EXPORT uint32_t loom_domain_lookup_table_ok(loom_handle* handle, loom_domain_state* state,
                                                 const loom_type_info* tinfo, uint32_t*) {
    return lookup(handle, state, tinfo) >= 0;
}
LOOM_EXPORT uint32_t loom_domain_lookup_message_ok(loom_handle* handle, loom_domain_state* state,
                                                   const loom_type_info* tinfo, uint32_t*) {
    return lookup(handle, state, tinfo) >= 0;
}
