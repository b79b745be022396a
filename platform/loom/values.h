/* The built-in value types: their memory forms and the family of operations that each one offers under
 * `<value type>_<operation>`. The families are declared once, by the macros below; what an operation does is
 * said beside its declaration there. A value lies in its holder at the width and alignment given here.
 *
 * Rules of all operations: with `*err` non-zero on entry nothing happens and the result is 0; a failure stores
 * an errno number in `*err` and in the handle's error slot. Every store into a value is announced to the
 * handle's write hook, with the value as owner. None of them takes a lock.
 *
 * For who writes a runtime of their own: bundles move objects by block copies. Behind one, two values hold the
 * same storage, and `_set` from the source to the destination, with an error word of its own that is clear, must
 * part them whatever happens: the storage that both hold stays the source's, and the destination gets a copy or,
 * without memory, becomes the empty value. If it kept what it shares, two objects would give back one block. */
#ifndef LOOM_VALUES_H
#define LOOM_VALUES_H

#include <loom/handle.h>
#include <loom/text.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Truth value; any non-zero value counts as true in texts. */
typedef uint32_t loom_boolean;

/** IPv4 address, in network byte order (RFC 791). */
typedef struct ipv4_addr {
    uint32_t address;
} ipv4_addr;
/** IPv6 address (RFC 4291), no alignment demand. */
typedef struct ipv6_addr {
    uint8_t octets[16];
} ipv6_addr;
/** 48-bit MAC address (IEEE 802), no alignment demand. */
typedef struct loom_mac_addr {
    uint8_t octets[6];
} loom_mac_addr;
/** Address of either IP family; family 0 is no address, 4 and 6 the IP versions. IPv4 uses the first 4 octets. */
typedef struct ip_address {
    uint64_t reserved[2];
    uint32_t family;
    uint32_t zone;
    uint8_t octets[16];
    uint64_t reserved2;
} ip_address;
/** Address with a prefix length in bits. */
typedef struct ip_prefix {
    uint64_t reserved[2];
    uint32_t family;
    uint32_t length;
    uint8_t octets[16];
    uint64_t reserved2;
} ip_prefix;
/** A date and time: seconds since 1970-01-01T00:00:00Z, nanoseconds, offset from UTC in minutes. */
typedef struct calendar_time {
    int64_t seconds;
    uint32_t nanoseconds;
    int16_t utc_offset;
    uint16_t reserved;
} calendar_time;
/** A point in time, in milliseconds since 1970-01-01T00:00:00Z, as two 32-bit halves. */
typedef struct timestamp {
    uint32_t high;
    uint32_t low;
} timestamp;
/** Counted bytes outside the instance, in memory of the handle's allocator; null and 0 when empty. Text types
 *  keep a terminating zero behind `length` bytes. */
typedef struct loom_vstring {
    char* text;
    uint32_t length;
    uint32_t reserved;
} loom_vstring;
typedef struct nexa_bytestr {
    uint8_t* bytes;
    uint32_t length;
    uint32_t reserved;
} nexa_bytestr;
/** Physical address of up to 15 octets. */
typedef struct __attribute__((aligned(8))) loom_phys_addr {
    uint8_t length;
    uint8_t octets[7];
    uint8_t more_octets[8];
} loom_phys_addr;
/** Strings held under AES, and a user name: opaque texts, as loom_vstring. */
typedef struct loom_aes_vstring {
    char* text;
    uint32_t length;
    uint32_t reserved;
} loom_aes_vstring;
typedef struct loom_aes_password_vstring {
    char* text;
    uint32_t length;
    uint32_t reserved;
} loom_aes_password_vstring;
typedef struct loom_username_vstring {
    char* text;
    uint32_t length;
    uint32_t reserved;
} loom_username_vstring;

/** Operations of every value type; T is the name, C the C type of one value. */
#define LOOM_VALUE_COMMON(T, C)                                                                                   \
    /** Bytes that marshal writes; a null value counts as the empty value and is not read. */                     \
    uint32_t T##_len(loom_handle* handle, uint32_t domain, const C* value);                                       \
    /** Writes the wire form into `length` bytes at `buffer`; returns the bytes written. No room: 90. */          \
    uint32_t T##_marshal(loom_handle* handle, uint32_t domain, void* buffer, const C* value, int32_t length,      \
                         uint32_t* err);                                                                          \
    /** Reads what marshal wrote; returns the bytes read. Too few bytes: 90; no memory: 12. */                    \
    uint32_t T##_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer, C* value, int32_t length,    \
                           uint32_t existing, uint32_t* err);                                                     \
    /** Appends `indent` blanks, "name@type:value" and a line feed; returns the characters written. */            \
    int32_t T##_print(loom_handle* handle, uint32_t domain, char* buffer, int32_t indent, const char* name,       \
                      const C* value, int32_t length, uint32_t* err);                                             \
    /** Appends one element named `name`; `state` is shown when it is not 0. */                                   \
    uint32_t T##_to_xml(loom_handle* handle, uint32_t domain, const char* name, char* buffer, const C* value,     \
                        int32_t length, uint8_t state, uint32_t* err);                                            \
    /** Reads the element at `path`; an absent one sets 2 and leaves the value. A text that is no value of the    \
     *  type sets 22 and writes "Failed xpath: <path>" into `message`, if there is one. */                        \
    void T##_from_xml(loom_handle* handle, uint32_t domain, const char* path, const loom_xml_document* document,  \
                      C* value, uint32_t* err, char* message, uint32_t message_length);                           \
    /** Mixes the value into `seed`; null gives the seed. */                                                      \
    uint32_t T##_hash(const C* value, uint32_t seed);                                                             \
    /** Returns `value`, null included. */                                                                        \
    C* T##_get(loom_handle* handle, uint32_t domain, C* value, uint32_t* err);                                    \
    /** Copies `source` into `destination`; outside storage is released and copied, so that both may be ended     \
     *  independently. Null source: 2. No memory: 12, and the destination is as it was, unless it holds the very  \
     *  storage of the source, behind a block copy: that is the source's, is never released here, and without     \
     *  memory for a copy the destination is left empty. */                                                       \
    void T##_set(loom_handle* handle, uint32_t domain, C* destination, const C* source, uint32_t* err);           \
    /** A new zeroed value, or null. */                                                                           \
    C* T##_create(loom_handle* handle, uint32_t domain);                                                          \
    /** Ends a value of create; null is allowed. */                                                               \
    void T##_destroy(loom_handle* handle, uint32_t domain, C* value);                                             \
    /** Releases what the value owns, and with `release` 1 its own block. */                                      \
    void T##_destroy_internal(loom_handle* handle, uint32_t domain, C* value, uint32_t release);                  \
    /** The width of one value. */                                                                                \
    uint32_t T##_sizeof(loom_handle* handle, uint32_t domain)

/** Plain values: what can be passed by value. P is the type it is passed as. */
#define LOOM_VALUE_PLAIN(T, C, P)                                                                                 \
    /** Reads the value behind what get returned. */                                                              \
    P T##_get_value(loom_handle* handle, uint32_t domain, const C* value, uint32_t* err);                         \
    /** Stores the plain value. */                                                                                \
    void T##_set_value(loom_handle* handle, uint32_t domain, C* destination, P value, uint32_t* err)

/** Total order: -1, 0 or 1. Null sorts before any value. */
#define LOOM_VALUE_ORDERED(T, C) int32_t T##_compare(const C* a, const C* b)

/** Values that are set up in place by their holder, and have type information. */
#define LOOM_VALUE_EMBEDDED(T, C)                                                                                 \
    extern loom_type_info _##T##_type_info_internal;                                                              \
    /** Prepares a zero-filled value inside an instance. */                                                       \
    uint32_t T##_initialize(loom_handle* handle, uint32_t domain, C* value, const loom_type_info* tinfo,          \
                            uint32_t write_through, uint32_t no_accounting, uint8_t obj_flags, void* sttr_base,   \
                            uint32_t* err);                                                                       \
    /** Marks the value embedded. */                                                                              \
    void T##_set_instance_embedded(loom_handle* handle, uint32_t domain, C* value)

/** Values that can hold object references or outside storage. */
#define LOOM_VALUE_OBJECT(T, C)                                                                                   \
    /** Deep copy through the wire form; `*out` null makes a new value. Null `out` or `scratch`: 2. */            \
    void T##_clone_internal(loom_handle* handle, uint32_t domain, const C* source, C** out, void* scratch,        \
                            int32_t scratch_size, uint32_t* err);                                                 \
    /** Object references inside the value, and those references. */                                              \
    uint32_t T##_get_oid_count(loom_handle* handle, uint32_t domain, const C* value, uint32_t* err);              \
    void T##_get_object_references(loom_handle* handle, uint32_t domain, const C* value, void** references,       \
                                   uint32_t count, uint32_t* err);                                                \
    /** After a block copy: the destination takes a private copy of what it shares with the source, or is left    \
     *  empty with error 12, as by set. */                                                                        \
    void T##_post_copyout_cleanup(loom_handle* handle, uint32_t domain, C* destination, const C* source,          \
                                  uint32_t* err);                                                                 \
    void T##_set_all_state_tracking_flag(loom_handle* handle, uint32_t domain, C* value, uint8_t state)

#define LOOM_SCALAR_FAMILY(T, C)                                                                                  \
    LOOM_VALUE_COMMON(T, C);                                                                                      \
    LOOM_VALUE_PLAIN(T, C, C)
#define LOOM_OBJECT_VALUE_FAMILY(T)                                                                               \
    LOOM_VALUE_COMMON(T, T);                                                                                      \
    LOOM_VALUE_ORDERED(T, T);                                                                                     \
    LOOM_VALUE_EMBEDDED(T, T);                                                                                    \
    LOOM_VALUE_OBJECT(T, T)

/** Scalars: numeric order, no type information. */
LOOM_SCALAR_FAMILY(u_int8, uint8_t);
LOOM_SCALAR_FAMILY(u_int16, uint16_t);
LOOM_SCALAR_FAMILY(u_int32, uint32_t);
LOOM_SCALAR_FAMILY(u_int64, uint64_t);
LOOM_SCALAR_FAMILY(int8, int8_t);
LOOM_SCALAR_FAMILY(int16, int16_t);
LOOM_SCALAR_FAMILY(int32, int32_t);
LOOM_SCALAR_FAMILY(int64, int64_t);
LOOM_SCALAR_FAMILY(char, char);
LOOM_SCALAR_FAMILY(double, double);
LOOM_SCALAR_FAMILY(float, float);

/** Truth value. */
LOOM_SCALAR_FAMILY(loom_boolean, loom_boolean);
LOOM_VALUE_ORDERED(loom_boolean, loom_boolean);
LOOM_VALUE_EMBEDDED(loom_boolean, loom_boolean);

/** Object values. */
LOOM_OBJECT_VALUE_FAMILY(ip_address);
LOOM_OBJECT_VALUE_FAMILY(ip_prefix);
LOOM_OBJECT_VALUE_FAMILY(ipv4_addr);
LOOM_OBJECT_VALUE_FAMILY(ipv6_addr);
LOOM_OBJECT_VALUE_FAMILY(loom_mac_addr);
LOOM_OBJECT_VALUE_FAMILY(calendar_time);
LOOM_OBJECT_VALUE_FAMILY(timestamp);
LOOM_OBJECT_VALUE_FAMILY(loom_vstring);
LOOM_OBJECT_VALUE_FAMILY(nexa_bytestr);

/** Opaque values: copied and compared without looking inside. */
LOOM_OBJECT_VALUE_FAMILY(loom_phys_addr);
LOOM_OBJECT_VALUE_FAMILY(loom_aes_vstring);
LOOM_OBJECT_VALUE_FAMILY(loom_aes_password_vstring);
LOOM_OBJECT_VALUE_FAMILY(loom_username_vstring);

/** Makes a value's text from outside data: copies `length` characters (a zero behind them is added) or bytes.
 *  The way for programs to fill strings without touching their inside. */
void loom_vstring_assign(loom_handle* handle, uint32_t domain, loom_vstring* value, const char* text,
                         uint32_t length, uint32_t* err);
void nexa_bytestr_assign(loom_handle* handle, uint32_t domain, nexa_bytestr* value, const void* bytes,
                         uint32_t length, uint32_t* err);

#ifdef __cplusplus
}
static_assert(sizeof(ip_address) == 48 && sizeof(ip_prefix) == 48 && sizeof(calendar_time) == 16, "told widths");
static_assert(sizeof(ipv6_addr) == 16 && alignof(ipv6_addr) == 1 && sizeof(loom_mac_addr) == 6, "told widths");
static_assert(sizeof(timestamp) == 8 && alignof(timestamp) == 4 && sizeof(loom_vstring) == 16, "told widths");
static_assert(sizeof(loom_phys_addr) == 16 && alignof(loom_phys_addr) == 8, "told widths");
#endif
#endif
