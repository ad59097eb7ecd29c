// Blocks for records and outputs. They are released with free, whoever has them.

#pragma once

#include <cstdint>

namespace crrecord {

// `size` bytes, or null. A large block that is fresh from the system comes in large pages where the system has them:
// one page fault then stands for hundreds.
void* Allocate(std::uint64_t size) noexcept;
void* AllocateZeroed(std::uint64_t size) noexcept;

} // namespace crrecord
