// Prefetching for loops over long arrays. The processor's own prefetcher stops at the end of each page.

#pragma once

#include <cstdint>

namespace crrecord {

// A record with at least this many segments does not fit into the caches of a core.
inline constexpr std::uint64_t kBeyondCaches = 65536;
// Distance in bytes from the current entry to the prefetched one.
inline constexpr std::uint64_t kAheadOfEntry = 2048;

// Prefetches the cache lines of `bytes` bytes that start `ahead` bytes after `from`. The addresses may be outside of
// the buffer: a prefetch never faults.
[[gnu::always_inline]] inline void Prefetch(void const* from, std::uint64_t ahead, std::uint64_t bytes) noexcept {
    constexpr std::uint64_t kLine = 64;
    for (std::uint64_t i = 0; i < bytes; i += kLine) {
        __builtin_prefetch(reinterpret_cast<void const*>(reinterpret_cast<std::uintptr_t>(from) + ahead + i));
    }
}

} // namespace crrecord
