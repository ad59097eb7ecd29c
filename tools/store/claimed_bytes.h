// Sums of the sizes that records claim without having the bytes.

#pragma once

#include <cstdint>

namespace crrecord::tool {

// A few lists of bloom records or segment records can claim more bytes than 64 bits count. With this limit, sums of all
// sizes fit: those of entries have 32 bits.
constexpr std::uint64_t kMostClaimed = std::uint64_t{1} << 63;

// Returns: false if the sum would exceed the limit; the sum is unchanged.
inline bool AddClaimed(std::uint64_t& sum, std::uint64_t bytes) noexcept {
    if (bytes > kMostClaimed - sum) {
        return false;
    }
    sum += bytes;
    return true;
}

} // namespace crrecord::tool
