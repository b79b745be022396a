// What the runtime tells the sanitizers: memory that it manages itself, and locks that they cannot see. In plain
// builds all of this is nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) && !defined(__SANITIZE_ADDRESS__)
#define __SANITIZE_ADDRESS__ 1
#endif
#if __has_feature(thread_sanitizer) && !defined(__SANITIZE_THREAD__)
#define __SANITIZE_THREAD__ 1
#endif
#endif

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#define LOOM_RAW_ACCESS __attribute__((noinline, no_sanitize("address"))) inline
#else
#define LOOM_RAW_ACCESS inline
#endif

#ifdef __SANITIZE_THREAD__
extern "C" void __tsan_acquire(void*);
extern "C" void __tsan_release(void*);
#endif

namespace loom {

/// Poisoned memory must not be touched by instrumented code.
inline void poison([[maybe_unused]] const void* address, [[maybe_unused]] std::size_t size) {
#ifdef __SANITIZE_ADDRESS__
    __asan_poison_memory_region(address, size);
#endif
}
inline void unpoison([[maybe_unused]] const void* address, [[maybe_unused]] std::size_t size) {
#ifdef __SANITIZE_ADDRESS__
    __asan_unpoison_memory_region(address, size);
#endif
}

/// A lock of the operating system orders the threads of this process; the thread sanitizer does not see it.
inline void lock_taken([[maybe_unused]] void* what) {
#ifdef __SANITIZE_THREAD__
    __tsan_acquire(what);
#endif
}
inline void lock_given_up([[maybe_unused]] void* what) {
#ifdef __SANITIZE_THREAD__
    __tsan_release(what);
#endif
}

/// Reads, writes and copies of the allocator itself, which may go to poisoned memory.
template <class T>
LOOM_RAW_ACCESS T raw_load(const T* place) {
    return *place;
}
template <class T>
LOOM_RAW_ACCESS void raw_store(T* place, T value) {
    *place = value;
}
LOOM_RAW_ACCESS void raw_copy(void* destination, const void* source, std::size_t size) {
#ifdef __SANITIZE_ADDRESS__
    // A library call would be checked; the volatile keeps the compiler from making one.
    auto* to = static_cast<volatile unsigned char*>(destination);
    auto* from = static_cast<const volatile unsigned char*>(source);
    for (std::size_t i = 0; i < size; ++i)
        to[i] = from[i];
#else
    std::memcpy(destination, source, size);
#endif
}
/// Position of the first byte in [0, size) at which the two differ, or `size`.
LOOM_RAW_ACCESS std::size_t raw_mismatch(const std::uint8_t* a, const std::uint8_t* b, std::size_t size) {
    std::size_t at = 0;
    while (at + 8 <= size && reinterpret_cast<std::uintptr_t>(a + at) % 8 != 0 && a[at] == b[at])
        ++at;
    if (reinterpret_cast<std::uintptr_t>(a + at) % 8 == 0 && reinterpret_cast<std::uintptr_t>(b + at) % 8 == 0)
        while (at + 8 <= size &&
               *reinterpret_cast<const std::uint64_t*>(a + at) == *reinterpret_cast<const std::uint64_t*>(b + at))
            at += 8;
    while (at < size && a[at] == b[at])
        ++at;
    return at;
}

} // namespace loom
