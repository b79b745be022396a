// The exported names of a value type, one line per operation, as <loom/values.h> declares them: only a macro can
// make names. T is the name, C the C type, then comes the kind (in_place.h, counted.h).
#pragma once

#include "runtime/export.h"
#include "runtime/values/counted.h"
#include "runtime/values/in_place.h"

#include <loom/values.h>

namespace loom {
/// A text as a template argument.
template <size_t N>
struct literal {
    char text[N];
    consteval literal(const char (&characters)[N]) { std::copy_n(characters, N, text); }
};

/// A kind under the name that its texts show.
template <literal Name, class Kind>
struct named : Kind {
    static constexpr std::string_view name{Name.text};
};
} // namespace loom

// clang-format off
#define EXPORT_COMMON(T, C, ...)                                                                                  \
    LOOM_EXPORT uint32_t T##_len(loom_handle*, uint32_t, const C* value) { return __VA_ARGS__::len(value); }      \
    LOOM_EXPORT uint32_t T##_marshal(loom_handle* handle, uint32_t domain, void* buffer, const C* value,          \
                                     int32_t length, uint32_t* err) {                                             \
        return __VA_ARGS__::marshal({handle, domain, err}, buffer, value, length); }                              \
    LOOM_EXPORT uint32_t T##_unmarshal(loom_handle* handle, uint32_t domain, const void* buffer, C* value,        \
                                       int32_t length, uint32_t, uint32_t* err) {                                 \
        return __VA_ARGS__::unmarshal({handle, domain, err}, buffer, value, length); }                            \
    LOOM_EXPORT int32_t T##_print(loom_handle* handle, uint32_t domain, char* buffer, int32_t indent,             \
                                  const char* name, const C* value, int32_t length, uint32_t* err) {              \
        return __VA_ARGS__::print({handle, domain, err}, buffer, indent, name, value, length); }                  \
    LOOM_EXPORT uint32_t T##_to_xml(loom_handle* handle, uint32_t domain, const char* name, char* buffer,         \
                                    const C* value, int32_t length, uint8_t state, uint32_t* err) {               \
        return __VA_ARGS__::to_xml({handle, domain, err}, name, buffer, value, length, state); }                  \
    LOOM_EXPORT void T##_from_xml(loom_handle* handle, uint32_t domain, const char* path,                         \
                                  const loom_xml_document* document, C* value, uint32_t* err, char* message,      \
                                  uint32_t message_length) {                                                      \
        __VA_ARGS__::from_xml({handle, domain, err}, {path, document, message, message_length}, value); }         \
    LOOM_EXPORT uint32_t T##_hash(const C* value, uint32_t seed) { return __VA_ARGS__::hash(value, seed); }       \
    LOOM_EXPORT C* T##_get(loom_handle*, uint32_t, C* value, uint32_t*) { return value; }                         \
    LOOM_EXPORT void T##_set(loom_handle* handle, uint32_t domain, C* destination, const C* source,               \
                             uint32_t* err) {                                                                     \
        __VA_ARGS__::set({handle, domain, err}, destination, source); }                                           \
    LOOM_EXPORT C* T##_create(loom_handle* handle, uint32_t domain) { return create_value<C>(handle, domain); }   \
    LOOM_EXPORT void T##_destroy(loom_handle* handle, uint32_t domain, C* value) {                                \
        __VA_ARGS__::end(handle, domain, value, 1); }                                                             \
    LOOM_EXPORT void T##_destroy_internal(loom_handle* handle, uint32_t domain, C* value, uint32_t release) {     \
        __VA_ARGS__::end(handle, domain, value, release); }                                                       \
    LOOM_EXPORT uint32_t T##_sizeof(loom_handle*, uint32_t) { return sizeof(C); }

#define EXPORT_PLAIN(T, C, ...)                                                                                   \
    EXPORT_COMMON(T, C, __VA_ARGS__)                                                                              \
    LOOM_EXPORT C T##_get_value(loom_handle* handle, uint32_t domain, const C* value, uint32_t* err) {            \
        return __VA_ARGS__::get_value({handle, domain, err}, value); }                                            \
    LOOM_EXPORT void T##_set_value(loom_handle* handle, uint32_t domain, C* destination, C value,                 \
                                   uint32_t* err) {                                                               \
        __VA_ARGS__::set_value({handle, domain, err}, destination, value); }

#define EXPORT_ORDERED(T, ...)                                                                                    \
    LOOM_EXPORT int32_t T##_compare(const T* a, const T* b) { return __VA_ARGS__::compare(a, b); }

// A zero-filled value is ready for use and has no flags of its own: whether it is embedded is told to
// destroy_internal by its holder.
#define EXPORT_EMBEDDED(T)                                                                                        \
    LOOM_EXPORT uint32_t T##_initialize(loom_handle*, uint32_t, T*, const loom_type_info*, uint32_t, uint32_t,    \
                                        uint8_t, void*, uint32_t*) { return 0; }                                  \
    LOOM_EXPORT void T##_set_instance_embedded(loom_handle*, uint32_t, T*) {}

// No value holds references to objects or tracks the states of parts.
#define EXPORT_OBJECT(T, ...)                                                                                     \
    LOOM_EXPORT void T##_clone_internal(loom_handle* handle, uint32_t domain, const T* source, T** out,           \
                                        void* scratch, int32_t scratch_size, uint32_t* err) {                     \
        clone_value<__VA_ARGS__>({handle, domain, err}, source, out, scratch, scratch_size); }                    \
    LOOM_EXPORT uint32_t T##_get_oid_count(loom_handle*, uint32_t, const T*, uint32_t*) { return 0; }             \
    LOOM_EXPORT void T##_get_object_references(loom_handle*, uint32_t, const T*, void**, uint32_t, uint32_t*) {}  \
    LOOM_EXPORT void T##_post_copyout_cleanup(loom_handle* handle, uint32_t domain, T* destination,               \
                                              const T* source, uint32_t* err) {                                   \
        __VA_ARGS__::part_from_source({handle, domain, err}, destination, source); }                              \
    LOOM_EXPORT void T##_set_all_state_tracking_flag(loom_handle*, uint32_t, T*, uint8_t) {}
// clang-format on

#define EXPORT_OBJECT_FAMILY(T, ...)                                                                              \
    EXPORT_COMMON(T, T, __VA_ARGS__)                                                                              \
    EXPORT_ORDERED(T, __VA_ARGS__)                                                                                \
    EXPORT_EMBEDDED(T)                                                                                            \
    EXPORT_OBJECT(T, __VA_ARGS__)

/// All exports of a scalar, of the truth value, of an object value without and with outside storage.
#define EXPORT_SCALAR(T, C, ...) EXPORT_PLAIN(T, C, loom::in_place<loom::named<#T, __VA_ARGS__>>)
#define EXPORT_BOOLEAN(T, ...)                                                                                    \
    EXPORT_SCALAR(T, T, __VA_ARGS__)                                                                              \
    EXPORT_ORDERED(T, loom::in_place<loom::named<#T, __VA_ARGS__>>)                                               \
    EXPORT_EMBEDDED(T)
#define EXPORT_IN_PLACE(T, ...) EXPORT_OBJECT_FAMILY(T, loom::in_place<loom::named<#T, __VA_ARGS__>>)
#define EXPORT_COUNTED(T, ...) EXPORT_OBJECT_FAMILY(T, loom::counted<loom::named<#T, __VA_ARGS__>>)
