// Memory asked for ahead of its use, where the processor does not look ahead by itself: it stops at each page's end.

#pragma once

#include <cstdint>

namespace crrecord {

// So many segments are beyond a core's own caches.
inline constexpr std::uint64_t kBeyondCaches = 65536;
// How far ahead of an entry, in bytes, another is asked for.
inline constexpr std::uint64_t kAheadOfEntry = 2048;

// Asks for the cache lines of `bytes` bytes, `ahead` bytes behind `from`. They may lie behind the end of what is there:
// asking never fails.
[[gnu::always_inline]] inline void Prefetch(void const* from, std::uint64_t ahead, std::uint64_t bytes) noexcept {
    constexpr std::uint64_t kLine = 64;
    for (std::uint64_t i = 0; i < bytes; i += kLine) {
        __builtin_prefetch(reinterpret_cast<void const*>(reinterpret_cast<std::uintptr_t>(from) + ahead + i));
    }
}

} // namespace crrecord
