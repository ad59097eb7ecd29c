// Content-defined cutting: the content before a cut determines its position, so that an insertion changes only the
// segments around it.
//
// FastCDC with normalised cutting (level 2), two bytes a step: W. Xia et al., "The Design of Fast Content-Defined
// Chunking for Data Deduplication Based Storage Systems", IEEE Transactions on Parallel and Distributed Systems 31(9),
// 2020.

#pragma once

#include <cstdint>

namespace crrecord::tool {

// Bytes of a segment: the least (but for the last segment of an object), the usual, and the most.
// Invariant: 64 <= least <= average <= most.
struct ContentCut {
    std::uint32_t least = 16 * 1024;
    std::uint32_t average = 64 * 1024;
    std::uint32_t most = 256 * 1024;
};

// `size` is the rest of the object, or at least `cut.most`. Returns: the size of the first segment in bytes.
std::uint64_t FirstContentCut(unsigned char const* bytes, std::uint64_t size, ContentCut const& cut) noexcept;

} // namespace crrecord::tool
