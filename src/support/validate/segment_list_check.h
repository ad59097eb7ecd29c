// The rules for a segment list, shared by the class and the validators.

#pragma once

#include "support/layout/segment_source.h"

namespace crrecord {

enum class SegmentRule {
    None,    // no rule is violated
    Product, // DO types 0 and 1: segment size times count, modulo 2^64, is less than the object's size
    Sum,     // DO types 2 and 5: the sizes do not add up to the object's size
    Size,    // a size of 2 GiB or more
    Offset,  // an offset of 8192 PiB or more
    Overlap, // DO type 3: a segment starts before the end of the previous one
    End,     // DO type 3: the last segment ends after the end of the object
};

// The first violation.
struct SegmentFault {
    SegmentRule rule = SegmentRule::None;
    std::uint32_t segment = 0; // the faulty one, for Size, Offset and Overlap
    std::uint64_t found = 0;
    std::uint64_t expected = 0; // the limit or the right value
};

// Checks segments while they are copied or converted, so that they are read from memory once.
class SegmentListCheck {
public:
    // If `subDO`, sizes may reach 4 GiB - 1.
    SegmentListCheck(DOSegmentSource const& list, bool subDO) noexcept : list_(list), subDO_(subDO) {}

    // Adds `count` segments, starting with segment `from`. All segments must be added once, in order.
    void Accumulate(std::uint64_t from, std::uint64_t count) noexcept;
    // Returns: the first fault, once all segments are added. If there is one, the list is read again to find it.
    SegmentFault Fault() const noexcept;

private:
    template <class E>
    void AccumulateSizes(E entries, std::uint64_t from, std::uint64_t count) noexcept;
    template <class E>
    void AccumulateOffsets(E entries, std::uint64_t from, std::uint64_t count) noexcept;
    SegmentFault ProductFault() const noexcept;
    SegmentFault SumFault() const noexcept;
    SegmentFault OffsetFault() const noexcept;

    DOSegmentSource list_;
    bool subDO_;
    std::uint64_t sum_ = 0;     // of the sizes
    std::uint64_t end_ = 0;     // of the last segment
    std::uint64_t offsets_ = 0; // all offsets, or-ed
    std::uint32_t sizes_ = 0;   // all sizes, or-ed
    bool overlap_ = false;
};

// All checks, or those of sizes or offsets only, over a whole list.
SegmentFault CheckSegments(DOSegmentSource const& list, bool subDO) noexcept;
SegmentFault CheckSegmentSizes(DOSegmentSource const& list, bool subDO) noexcept;
SegmentFault CheckSegmentOffsets(DOSegmentSource const& list) noexcept;

} // namespace crrecord
