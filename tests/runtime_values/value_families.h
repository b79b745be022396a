// All value types for parameterised tests: their operations under one name each, and random values of them.
#pragma once

#include "watched_memory.h"

#include <loom/instance.h>
#include <loom/values.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>

using random_bits = std::mt19937_64;

/// The seed of a run: LOOM_TEST_SEED repeats one.
inline uint64_t test_seed() {
    static const uint64_t seed = [] {
        const char* given = std::getenv("LOOM_TEST_SEED");
        const uint64_t value = given ? std::strtoull(given, nullptr, 10) : std::random_device{}();
        std::printf("LOOM_TEST_SEED=%llu\n", static_cast<unsigned long long>(value));
        return value;
    }();
    return seed;
}

inline uint64_t below(random_bits& random, uint64_t limit) { return random() % limit; }

inline void fill_bytes(random_bits& random, void* bytes, size_t size) {
    for (size_t i = 0; i < size; ++i)
        static_cast<uint8_t*>(bytes)[i] = static_cast<uint8_t>(random());
}

/// Plain texts, texts full of XML's own characters, UTF-8, and any bytes.
inline std::string random_text(random_bits& random) {
    const size_t size = below(random, 4) == 0 ? below(random, 300) : below(random, 12);
    std::string text;
    const uint64_t style = below(random, 5);
    while (text.size() < size) {
        switch (style) {
        case 0: text += static_cast<char>(' ' + below(random, 95)); break;
        case 1: text += "<>&\"' ]\t\n\r;#x"[below(random, 14)]; break;
        case 2: text += below(random, 2) ? "\xc3\xa9" : "\xf0\x9f\x8c\xb3"; break;
        case 3: text += ' '; break;
        default: text += static_cast<char>(random()); break;
        }
    }
    return text;
}

template <class T>
requires std::is_arithmetic_v<T>
void randomise(watched_memory&, random_bits& random, T* value) {
    using limits = std::numeric_limits<T>;
    switch (below(random, 9)) {
    case 0: *value = 0; break;
    case 1: *value = limits::max(); break;
    case 2: *value = limits::lowest(); break;
    case 3: *value = 1; break;
    case 4:
        if constexpr (std::is_floating_point_v<T>) *value = std::copysign(T{0}, T{-1});
        break;
    case 5:
        if constexpr (std::is_floating_point_v<T>)
            *value = random() & 1 ? limits::infinity() : limits::quiet_NaN();
        break;
    case 6:
        // Infinity with some of its lower bits set: a NaN that carries something.
        if constexpr (std::is_floating_point_v<T>) {
            *value = limits::infinity();
            fill_bytes(random, value, 2);
        }
        break;
    default: fill_bytes(random, value, sizeof *value); break;
    }
}

template <class T>
requires std::is_same_v<T, ipv4_addr> || std::is_same_v<T, loom_mac_addr>
void randomise(watched_memory&, random_bits& random, T* value) { fill_bytes(random, value, sizeof *value); }
inline void randomise(watched_memory&, random_bits& random, ipv6_addr* value) {
    fill_bytes(random, value, sizeof *value);
    if (below(random, 2)) std::memset(value->octets + below(random, 8), 0, below(random, 9));
}
template <class T>
requires std::is_same_v<T, ip_address> || std::is_same_v<T, ip_prefix>
void randomise(watched_memory&, random_bits& random, T* value) {
    // Every byte may be anything; mostly the family is one.
    fill_bytes(random, value, sizeof *value);
    if (below(random, 8)) value->family = static_cast<uint32_t>(2 * below(random, 4));
    if constexpr (std::is_same_v<T, ip_address>) {
        if (below(random, 2)) value->zone = 0;
    } else if (below(random, 8)) {
        value->length = static_cast<uint32_t>(below(random, 130));
    }
}
inline void randomise(watched_memory&, random_bits& random, calendar_time* value) {
    fill_bytes(random, value, sizeof *value);
    if (below(random, 4) == 0) return;
    value->seconds = static_cast<int64_t>(below(random, 400'000'000'000)) - 80'000'000'000;
    value->nanoseconds = static_cast<uint32_t>(below(random, 2) ? below(random, 1'000'000'000) : 0);
    value->utc_offset = static_cast<int16_t>(static_cast<int64_t>(below(random, 3000)) - 1500);
}
inline void randomise(watched_memory&, random_bits& random, timestamp* value) {
    value->high = static_cast<uint32_t>(below(random, 3) ? below(random, 1000) : random());
    value->low = static_cast<uint32_t>(random());
}
inline void randomise(watched_memory&, random_bits& random, loom_phys_addr* value) {
    fill_bytes(random, value, sizeof *value);
    if (below(random, 8)) value->length = static_cast<uint8_t>(below(random, 16));
}
/// Counted values get their block straight from the handle, as a program's own memory would look.
template <class T>
requires requires(T value) {
    value.length;
    value.reserved;
} &&(sizeof(T) == 16) void randomise(watched_memory& memory, random_bits& random, T* value) {
    const std::string text = random_text(random);
    if (text.empty()) return;
    loom_handle* handle = memory.handle();
    auto* block = static_cast<char*>(handle->alloc(handle->alloc_ctx, watched_memory::domain, text.size() + 1));
    std::memcpy(block, text.c_str(), text.size() + 1);
    if constexpr (std::is_same_v<T, nexa_bytestr>)
        value->bytes = reinterpret_cast<uint8_t*>(block);
    else
        value->text = block;
    value->length = static_cast<uint32_t>(text.size());
}

#define VALUE_MEMBERS(T, C)                                                                                       \
    using type = C;                                                                                               \
    static constexpr const char* name = #T;                                                                       \
    static constexpr auto len = &T##_len;                                                                         \
    static constexpr auto marshal = &T##_marshal;                                                                 \
    static constexpr auto unmarshal = &T##_unmarshal;                                                             \
    static constexpr auto print = &T##_print;                                                                     \
    static constexpr auto to_xml = &T##_to_xml;                                                                   \
    static constexpr auto from_xml = &T##_from_xml;                                                               \
    static constexpr auto hash = &T##_hash;                                                                       \
    static constexpr auto get = &T##_get;                                                                         \
    static constexpr auto set = &T##_set;                                                                         \
    static constexpr auto create = &T##_create;                                                                   \
    static constexpr auto destroy = &T##_destroy;                                                                 \
    static constexpr auto destroy_internal = &T##_destroy_internal;                                               \
    static constexpr auto width = &T##_sizeof;

#define PLAIN_MEMBERS(T, C)                                                                                       \
    VALUE_MEMBERS(T, C)                                                                                           \
    static constexpr auto get_value = &T##_get_value;                                                             \
    static constexpr auto set_value = &T##_set_value;

#define EMBEDDED_MEMBERS(T)                                                                                       \
    static constexpr auto compare = &T##_compare;                                                                 \
    static constexpr auto initialize = &T##_initialize;                                                           \
    static constexpr auto set_instance_embedded = &T##_set_instance_embedded;                                     \
    static constexpr loom_type_info* type_info = &_##T##_type_info_internal;

#define PLAIN_FAMILY(NAME, T, C)                                                                                  \
    struct NAME {                                                                                                 \
        PLAIN_MEMBERS(T, C)                                                                                       \
    };

#define OBJECT_FAMILY(NAME, T)                                                                                    \
    struct NAME {                                                                                                 \
        VALUE_MEMBERS(T, T)                                                                                       \
        EMBEDDED_MEMBERS(T)                                                                                       \
        static constexpr auto clone_internal = &T##_clone_internal;                                               \
        static constexpr auto get_oid_count = &T##_get_oid_count;                                                 \
        static constexpr auto get_object_references = &T##_get_object_references;                                 \
        static constexpr auto post_copyout_cleanup = &T##_post_copyout_cleanup;                                   \
        static constexpr auto set_all_state_tracking_flag = &T##_set_all_state_tracking_flag;                     \
    };

namespace family {
PLAIN_FAMILY(u_int8, u_int8, uint8_t)
PLAIN_FAMILY(u_int16, u_int16, uint16_t)
PLAIN_FAMILY(u_int32, u_int32, uint32_t)
PLAIN_FAMILY(u_int64, u_int64, uint64_t)
PLAIN_FAMILY(int8, int8, int8_t)
PLAIN_FAMILY(int16, int16, int16_t)
PLAIN_FAMILY(int32, int32, int32_t)
PLAIN_FAMILY(int64, int64, int64_t)
PLAIN_FAMILY(character, char, char)
PLAIN_FAMILY(double_precision, double, double)
PLAIN_FAMILY(single_precision, float, float)
struct boolean {
    PLAIN_MEMBERS(loom_boolean, loom_boolean)
    EMBEDDED_MEMBERS(loom_boolean)
};
OBJECT_FAMILY(address, ip_address)
OBJECT_FAMILY(prefix, ip_prefix)
OBJECT_FAMILY(ipv4, ipv4_addr)
OBJECT_FAMILY(ipv6, ipv6_addr)
OBJECT_FAMILY(mac, loom_mac_addr)
OBJECT_FAMILY(calendar, calendar_time)
OBJECT_FAMILY(stamp, timestamp)
OBJECT_FAMILY(vstring, loom_vstring)
OBJECT_FAMILY(bytestr, nexa_bytestr)
OBJECT_FAMILY(physical, loom_phys_addr)
OBJECT_FAMILY(aes, loom_aes_vstring)
OBJECT_FAMILY(password, loom_aes_password_vstring)
OBJECT_FAMILY(username, loom_username_vstring)
} // namespace family

using all_families =
    testing::Types<family::u_int8, family::u_int16, family::u_int32, family::u_int64, family::int8, family::int16,
                   family::int32, family::int64, family::character, family::double_precision,
                   family::single_precision, family::boolean, family::address, family::prefix, family::ipv4,
                   family::ipv6, family::mac, family::calendar, family::stamp, family::vstring, family::bytestr,
                   family::physical, family::aes, family::password, family::username>;

template <class F>
constexpr bool has_order = requires {
    F::compare;
};
template <class F>
constexpr bool is_plain = requires {
    F::set_value;
};
template <class F>
constexpr bool is_object = requires {
    F::clone_internal;
};
template <class F>
constexpr bool is_counted = requires(typename F::type value) {
    value.length;
    value.reserved;
}
&&sizeof(typename F::type) == 16;

struct family_names {
    template <class F>
    static std::string GetName(int) {
        return F::name;
    }
};
