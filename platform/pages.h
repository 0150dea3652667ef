// Pages of memory from the host, and the marks by which the address sanitizer knows them.
#ifndef KAL_PLATFORM_PAGES_H
#define KAL_PLATFORM_PAGES_H

#include <cstddef>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define KAL_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KAL_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef KAL_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

// The host's page size in bytes, 4096 at least.
uint32_t pageSize();

// Maps `bytes` of zero-filled memory, marked as unusable. Null when the host has none.
uint8_t* mapPages(size_t bytes);

// Gives pages back to the host; where it does not take the addresses, their memory alone.
void unmapPages(uint8_t* pages, size_t bytes);

// Asks the host for pages as large as it has them, which may make more memory resident than is touched.
void wantLargePages(uint8_t* pages, size_t bytes);

// Resizes a mapping, which may move with all it holds; bytes gained are 0. Null, and no change, on failure.
uint8_t* remapPages(uint8_t* pages, size_t oldBytes, size_t newBytes);

// Whether bytes may be touched, for the address sanitizer; nothing in other builds.
#ifdef KAL_ADDRESS_SANITIZER
inline void markUsable(uint8_t* bytes, size_t count) {
    __asan_unpoison_memory_region(bytes, count);
}
inline void markUnusable(uint8_t* bytes, size_t count) {
    __asan_poison_memory_region(bytes, count);
}
#else
inline void markUsable(uint8_t*, size_t) {}
inline void markUnusable(uint8_t*, size_t) {}
#endif

#endif
