// A range of records or segments, as an option gives it.

#pragma once

#include <cstdint>
#include <limits>

namespace crrecord::tool {

// Both ends are included.
struct Range {
    std::uint64_t first = 0;
    std::uint64_t last = std::numeric_limits<std::uint64_t>::max();

    // One past the last of `count` elements that the range has.
    constexpr std::uint64_t EndOf(std::uint64_t count) const noexcept { return last < count ? last + 1 : count; }
};

} // namespace crrecord::tool
