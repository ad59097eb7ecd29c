#include "base/memory.h"

#include <cerrno>
#include <cstdlib>

#include <sys/mman.h>

namespace crrecord {

namespace {

constexpr std::uintptr_t kLargePage = 2UL * 1024 * 1024;
constexpr std::uint64_t kLargeBlock = 2 * kLargePage;

// Requests large pages for the part of the block that can have them. The system may ignore this.
void* WithLargePages(void* block, std::uint64_t size) noexcept {
    if (block && size >= kLargeBlock) {
        int const error = errno;
        std::uintptr_t const skipped = (0 - reinterpret_cast<std::uintptr_t>(block)) & (kLargePage - 1);
        madvise(static_cast<char*>(block) + skipped, (size - skipped) & ~(kLargePage - 1), MADV_HUGEPAGE);
        errno = error;
    }
    return block;
}

} // namespace

void* Allocate(std::uint64_t size) noexcept {
    return WithLargePages(std::malloc(size), size);
}

void* AllocateZeroed(std::uint64_t size) noexcept {
    return WithLargePages(std::calloc(1, size), size);
}

} // namespace crrecord
