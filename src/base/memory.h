// Buffers for records and outputs, from malloc. Release them with free().

#pragma once

#include <cstdint>

namespace crrecord {

// Large blocks are placed in large pages if the system allows: each page fault then maps 2 MiB.
// Returns: a block of `size` bytes, or null if out of memory. errno is as malloc or calloc left it.
void* Allocate(std::uint64_t size) noexcept;
void* AllocateZeroed(std::uint64_t size) noexcept;

} // namespace crrecord
