// The address types: kinds and exports. Only bytes that mean something travel, are compared and are hashed: octets
// beyond an address, zones of IPv4 and reserved members take no part.
//
// Memory may hold what is no address. Such values have a reading, the same in all operations, so that whatever is
// written can be read back: a family other than 4 and 6 is no address, a prefix length beyond the address is the
// whole address, a physical address has at most 15 octets. What comes in from a wire or a document must be right.
#include "frame/big_endian.h"
#include "runtime/values/exports.h"
#include "runtime/values/number_text.h"

#include <arpa/inet.h>

#include <algorithm>

namespace loom {
namespace {

constexpr u32 zone_width = 4;
constexpr u32 no_family = 0;

/// Octets of an address of the family.
constexpr u32 octets_of(u32 family) { return family == 4 ? 4 : family == 6 ? 16 : 0; }
/// The family as it counts.
constexpr u32 effective_family(u32 family) { return octets_of(family) ? family : no_family; }

size_t format_octets(char* text, size_t room, u32 family, const u8* octets) {
    return inet_ntop(family == 4 ? AF_INET : AF_INET6, octets, text, static_cast<socklen_t>(room))
               ? std::strlen(text)
               : 0;
}

/// Dotted quad (RFC 791) or the text of RFC 4291; 0 when it is neither, else the family.
u32 parse_octets(std::string_view text, u8* octets) {
    char terminated[INET6_ADDRSTRLEN];
    if (text.empty() || text.size() >= sizeof terminated) return no_family;
    std::memcpy(terminated, text.data(), text.size());
    terminated[text.size()] = '\0';
    if (text.find('\0') != std::string_view::npos) return no_family;
    if (inet_pton(AF_INET, terminated, octets) == 1) return 4;
    return inet_pton(AF_INET6, terminated, octets) == 1 ? 6 : no_family;
}

/// "aa:bb:cc" of any number of octets.
size_t format_colons(char* text, const u8* octets, u32 count) {
    constexpr char digits[] = "0123456789abcdef";
    size_t size = 0;
    for (u32 i = 0; i < count; ++i) {
        if (i) text[size++] = ':';
        text[size++] = digits[octets[i] >> 4];
        text[size++] = digits[octets[i] & 15];
    }
    return size;
}

/// Reads octets of two digits each with one `:` or `-` between them; at most `limit`. Their number, or -1.
i32 parse_colons(std::string_view text, u8* octets, u32 limit) {
    if (text.empty()) return 0;
    if (text.size() % 3 != 2 || text.size() / 3 + 1 > limit) return -1;
    const char separator = text.size() > 2 ? text[2] : ':';
    if (separator != ':' && separator != '-') return -1;
    i32 count = 0;
    for (size_t i = 0; i < text.size(); i += 3) {
        if (i && text[i - 1] != separator) return -1;
        if (!is_hexadecimal(text.substr(i, 2))) return -1;
        decode_hexadecimal(text.substr(i, 2), octets + count++);
    }
    return count;
}

/// IPv4: its four octets.
struct ipv4_kind {
    using type = ipv4_addr;
    static constexpr size_t text_limit = INET_ADDRSTRLEN;

    static u32 wire_size(const type&) { return sizeof(u32); }
    static void write(u8* out, const type& value) { std::memcpy(out, &value.address, sizeof(u32)); }
    static read_result read(const u8* in, u32 room, type& value) {
        if (room < sizeof(u32)) return {0, LOOM_EMSGSIZE};
        std::memcpy(&value.address, in, sizeof(u32));
        return {sizeof(u32), 0};
    }
    static size_t format(char* text, const type& value) {
        return format_octets(text, text_limit, 4, reinterpret_cast<const u8*>(&value.address));
    }
    static bool parse(std::string_view text, type& value) {
        u8 octets[16];
        if (parse_octets(text, octets) != 4) return false;
        std::memcpy(&value.address, octets, sizeof(u32));
        return true;
    }
    static i32 compare(const type& a, const type& b) {
        return sign(std::memcmp(&a.address, &b.address, sizeof(u32)));
    }
    static u32 hash(const type& value, u32 seed) { return SuperFastHash(&value.address, sizeof(u32), seed); }
};

/// What is nothing but octets: IPv6 and MAC addresses.
template <class T>
struct octets_kind {
    using type = T;

    static u32 wire_size(const type&) { return sizeof(T); }
    static void write(u8* out, const type& value) { std::memcpy(out, value.octets, sizeof(T)); }
    static read_result read(const u8* in, u32 room, type& value) {
        if (room < sizeof(T)) return {0, LOOM_EMSGSIZE};
        std::memcpy(value.octets, in, sizeof(T));
        return {sizeof(T), 0};
    }
    static i32 compare(const type& a, const type& b) { return sign(std::memcmp(a.octets, b.octets, sizeof(T))); }
    static u32 hash(const type& value, u32 seed) { return SuperFastHash(value.octets, sizeof(T), seed); }
};

/// Text: RFC 5952.
struct ipv6_kind : octets_kind<ipv6_addr> {
    static constexpr size_t text_limit = INET6_ADDRSTRLEN;
    static size_t format(char* text, const type& value) {
        return format_octets(text, text_limit, 6, value.octets);
    }
    static bool parse(std::string_view text, type& value) { return parse_octets(text, value.octets) == 6; }
};

struct mac_kind : octets_kind<loom_mac_addr> {
    static constexpr size_t text_limit = 3 * sizeof(type);
    static size_t format(char* text, const type& value) { return format_colons(text, value.octets, sizeof(type)); }
    static bool parse(std::string_view text, type& value) {
        return parse_colons(text, value.octets, sizeof(type)) == sizeof(type);
    }
};

/// Wire: the family, its octets, for IPv6 the zone. Text: the address, "%zone" behind it when there is one;
/// no address is an empty text.
struct address_kind {
    using type = ip_address;
    static constexpr u32 wire_limit = 1 + 16 + zone_width;
    static constexpr size_t text_limit = INET6_ADDRSTRLEN + 12;

    static u32 wire_size(u32 family) { return 1 + octets_of(family) + (family == 6 ? zone_width : 0); }
    static u32 wire_size(const type& value) { return wire_size(value.family); }
    static void write(u8* out, const type& value) {
        *out++ = static_cast<u8>(effective_family(value.family));
        const u32 octets = octets_of(value.family);
        std::memcpy(out, value.octets, octets);
        if (value.family == 6) store_big_endian(out + octets, value.zone);
    }
    static read_result read(const u8* in, u32 room, type& value) {
        if (room < 1) return {0, LOOM_EMSGSIZE};
        const u32 family = *in++;
        if (family != effective_family(family)) return {0, LOOM_EINVAL};
        if (room < wire_size(family)) return {0, LOOM_EMSGSIZE};
        value.family = family;
        std::memcpy(value.octets, in, octets_of(family));
        if (family == 6) value.zone = load_big_endian<u32>(in + octets_of(family));
        return {wire_size(family), 0};
    }
    static size_t format(char* text, const type& value) {
        if (!octets_of(value.family)) return 0;
        size_t size = format_octets(text, text_limit, value.family, value.octets);
        if (value.family == 6 && value.zone) {
            text[size++] = '%';
            size += format_integer(text + size, text_limit - size, value.zone);
        }
        return size;
    }
    static bool parse(std::string_view text, type& value) {
        if (text.empty()) return true;
        const size_t percent = text.find('%');
        value.family = parse_octets(text.substr(0, percent), value.octets);
        if (percent == std::string_view::npos) return value.family != no_family;
        return value.family == 6 && parse_integer(text.substr(percent + 1), value.zone);
    }
    static i32 compare(const type& a, const type& b) {
        const u32 family = effective_family(a.family);
        if (const i32 result = order(family, effective_family(b.family))) return result;
        if (const int result = std::memcmp(a.octets, b.octets, octets_of(family))) return sign(result);
        return family == 6 ? order(a.zone, b.zone) : 0;
    }
    static u32 hash(const type& value, u32 seed) { return hash_of_wire_form<address_kind>(value, seed); }
};

/// Wire: the family, its octets, the length; no address is the family alone. Text: "address/length", or empty.
struct prefix_kind {
    using type = ip_prefix;
    static constexpr u32 wire_limit = 1 + 16 + 1;
    static constexpr size_t text_limit = INET6_ADDRSTRLEN + 4;

    static u32 length_of(const type& value) { return std::min(value.length, 8 * octets_of(value.family)); }

    static u32 wire_size(u32 family) { return octets_of(family) ? 1 + octets_of(family) + 1 : 1; }
    static u32 wire_size(const type& value) { return wire_size(value.family); }
    static void write(u8* out, const type& value) {
        *out++ = static_cast<u8>(effective_family(value.family));
        const u32 octets = octets_of(value.family);
        if (!octets) return;
        std::memcpy(out, value.octets, octets);
        out[octets] = static_cast<u8>(length_of(value));
    }
    static read_result read(const u8* in, u32 room, type& value) {
        if (room < 1) return {0, LOOM_EMSGSIZE};
        const u32 family = *in++;
        if (family != effective_family(family)) return {0, LOOM_EINVAL};
        if (room < wire_size(family)) return {0, LOOM_EMSGSIZE};
        const u32 octets = octets_of(family);
        if (octets && in[octets] > 8 * octets) return {0, LOOM_EINVAL};
        value.family = family;
        std::memcpy(value.octets, in, octets);
        if (octets) value.length = in[octets];
        return {wire_size(family), 0};
    }
    static size_t format(char* text, const type& value) {
        if (!octets_of(value.family)) return 0;
        size_t size = format_octets(text, text_limit, value.family, value.octets);
        text[size++] = '/';
        return size + format_integer(text + size, text_limit - size, length_of(value));
    }
    static bool parse(std::string_view text, type& value) {
        if (text.empty()) return true;
        const size_t slash = text.find('/');
        if (slash == std::string_view::npos) return false;
        value.family = parse_octets(text.substr(0, slash), value.octets);
        return parse_integer(text.substr(slash + 1), value.length) && octets_of(value.family) &&
               value.length <= 8 * octets_of(value.family);
    }
    static i32 compare(const type& a, const type& b) {
        const u32 family = effective_family(a.family);
        if (const i32 result = order(family, effective_family(b.family))) return result;
        if (const int result = std::memcmp(a.octets, b.octets, octets_of(family))) return sign(result);
        return order(length_of(a), length_of(b));
    }
    static u32 hash(const type& value, u32 seed) { return hash_of_wire_form<prefix_kind>(value, seed); }
};

/// Wire: the number of octets, then those. Text: as of a MAC address.
struct physical_kind {
    using type = loom_phys_addr;
    static constexpr u32 most_octets = sizeof(type) - 1;
    static constexpr size_t text_limit = 3 * most_octets;
    static_assert(offsetof(type, octets) == 1 && offsetof(type, more_octets) == 8, "the octets are one row");

    static u8 count_of(const type& value) { return std::min<u8>(value.length, most_octets); }
    static const u8* octets_in(const type& value) { return reinterpret_cast<const u8*>(&value) + 1; }
    static u8* octets_in(type& value) { return reinterpret_cast<u8*>(&value) + 1; }

    static u32 wire_size(const type& value) { return 1u + count_of(value); }
    static void write(u8* out, const type& value) {
        *out = count_of(value);
        std::memcpy(out + 1, octets_in(value), count_of(value));
    }
    static read_result read(const u8* in, u32 room, type& value) {
        if (room < 1) return {0, LOOM_EMSGSIZE};
        const u8 count = *in;
        if (count > most_octets) return {0, LOOM_EINVAL};
        if (room < 1u + count) return {0, LOOM_EMSGSIZE};
        value.length = count;
        std::memcpy(octets_in(value), in + 1, count);
        return {1u + count, 0};
    }
    static size_t format(char* text, const type& value) {
        return format_colons(text, octets_in(value), count_of(value));
    }
    static bool parse(std::string_view text, type& value) {
        const i32 count = parse_colons(text, octets_in(value), most_octets);
        value.length = static_cast<u8>(count);
        return count >= 0;
    }
    static i32 compare(const type& a, const type& b) {
        const size_t shared = std::min(count_of(a), count_of(b));
        if (const int result = std::memcmp(octets_in(a), octets_in(b), shared)) return sign(result);
        return order(count_of(a), count_of(b));
    }
    static u32 hash(const type& value, u32 seed) { return SuperFastHash(octets_in(value), count_of(value), seed); }
};
} // namespace
} // namespace loom

using namespace loom;

EXPORT_IN_PLACE(ipv4_addr, ipv4_kind)
EXPORT_IN_PLACE(ipv6_addr, ipv6_kind)
EXPORT_IN_PLACE(loom_mac_addr, mac_kind)
EXPORT_IN_PLACE(ip_address, address_kind)
EXPORT_IN_PLACE(ip_prefix, prefix_kind)
EXPORT_IN_PLACE(loom_phys_addr, physical_kind)
