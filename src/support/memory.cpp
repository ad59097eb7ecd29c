#include "support/memory.h"

#include <cerrno>
#include <cstdlib>

#include <sys/mman.h>

namespace crrecord {

namespace {

constexpr std::uintptr_t kLargePage = 2UL * 1024 * 1024;
constexpr std::uint64_t kLargeBlock = 2 * kLargePage;

// Advice on the whole large pages inside the block. It may be refused: then the pages are as small as ever.
void* Advised(void* block, std::uint64_t size) noexcept {
    if (block && size >= kLargeBlock) {
        int const error = errno;
        auto const start = reinterpret_cast<std::uintptr_t>(block);
        std::uintptr_t const from = (start + kLargePage - 1) & ~(kLargePage - 1);
        std::uintptr_t const to = (start + size) & ~(kLargePage - 1);
        madvise(reinterpret_cast<void*>(from), to - from, MADV_HUGEPAGE);
        errno = error;
    }
    return block;
}

} // namespace

void* Allocate(std::uint64_t size) noexcept {
    return Advised(std::malloc(size), size);
}

void* AllocateZeroed(std::uint64_t size) noexcept {
    return Advised(std::calloc(1, size), size);
}

} // namespace crrecord
