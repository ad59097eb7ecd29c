// The counted properties of one segment, as partitions keep them in memory and in temporary files.

#pragma once

#include "analysis/hash_table.h"

#include <crrecord/fingerprint.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

namespace crrecord::tool {

// A segment is its container, fingerprint type and fingerprint. Each question counts segments in up to two sets: needed
// and stored, or needed now and needed afterwards. A segment has a size in each set that it is in.
struct TupleBase {
    enum Flags : std::uint8_t {
        kInFirst = 1,
        kInSecond = 2,
        kFirstDiffers = 4, // the first set has it with several sizes; the greatest counts
        kSecondDiffers = 8,
        kAllFlags = 15,
    };

    std::uint64_t dcid;
    unsigned char fingerprint[sizeof(crfp_digest_t)]; // zeros after a 16-byte one
    std::uint32_t firstSize;                          // 0 without kInFirst
    std::uint8_t fptype;
    std::uint8_t flags;
    std::uint16_t zero;
};
static_assert(sizeof(TupleBase) == 48);

// With the size in the second set, which many stores do not have.
struct SegmentTuple : TupleBase {
    std::uint64_t secondSize; // 0 without kInSecond

    // Returns: false for invalid bytes, which a file may contain.
    bool IsWellFormed() const noexcept {
        return fptype <= CR_FP_TYPE_LAST && (flags & (kInFirst | kInSecond)) != 0 && flags <= kAllFlags && zero == 0;
    }
};
static_assert(sizeof(SegmentTuple) == 56);

// Neighbours in memory. A second size is undefined without kInSecond.
struct TupleBlock {
    std::span<TupleBase const> tuples;
    std::uint64_t const* secondSizes;
};

// Copies a fingerprint of 16 or 32 bytes: sizes that are constants for the compiler.
inline void CopyFingerprint(unsigned char* to, unsigned char const* from, std::size_t size) noexcept {
    constexpr std::size_t kWidest = sizeof SegmentTuple::fingerprint;
    size == kWidest ? std::memcpy(to, from, kWidest) : std::memcpy(to, from, kWidest / 2);
}

// Replaces the fingerprint of a tuple by one of 16 or 32 bytes.
inline void StoreFingerprint(TupleBase& tuple, unsigned char const* from, std::size_t size) noexcept {
    if (size != sizeof tuple.fingerprint) {
        std::memset(tuple.fingerprint, 0, sizeof tuple.fingerprint);
    }
    CopyFingerprint(tuple.fingerprint, from, size);
}

inline bool IsSameSegment(TupleBase const& a, TupleBase const& b) noexcept {
    return a.dcid == b.dcid && a.fptype == b.fptype &&
           std::memcmp(a.fingerprint, b.fingerprint, sizeof a.fingerprint) == 0;
}

// Returns: a hash of the segment, which differs from run to run.
inline std::uint64_t HashOf(TupleBase const& tuple) {
    return HashOfSegment(tuple.fingerprint, sizeof tuple.fingerprint, tuple.dcid ^ std::uint64_t{tuple.fptype} << 62);
}

// Merges `more`, a tuple of the same segment, into `into`. The result does not depend on the order of calls.
inline void Merge(SegmentTuple& into, SegmentTuple const& more) noexcept {
    std::uint8_t const common = into.flags & more.flags;
    into.flags |= more.flags;
    if ((common & SegmentTuple::kInFirst) != 0 && into.firstSize != more.firstSize) {
        into.flags |= SegmentTuple::kFirstDiffers;
    }
    if ((common & SegmentTuple::kInSecond) != 0 && into.secondSize != more.secondSize) {
        into.flags |= SegmentTuple::kSecondDiffers;
    }
    into.firstSize = std::max(into.firstSize, more.firstSize);
    into.secondSize = std::max(into.secondSize, more.secondSize);
}

} // namespace crrecord::tool
