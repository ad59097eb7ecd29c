// The rules for a segment list, shared by the class and the validators.

#pragma once

#include "support/layout/segment_source.h"

namespace crrecord {

// The first error of a list: a code from CR_FINDING_SEGMENT_PRODUCT to CR_FINDING_SEGMENT_END, or 0 for none.
struct SegmentFault : crr_fault {
    constexpr SegmentFault() noexcept : crr_fault{}, segment(0) {}
    constexpr SegmentFault(crr_fault const& fault, std::uint32_t i) noexcept : crr_fault(fault), segment(i) {}

    std::uint32_t segment; // the faulty one, if the error is in one segment
};

// Checks segments while they are copied or converted, so that they are read from memory once.
class SegmentListCheck {
public:
    // If `subDO`, sizes may reach 4 GiB - 1.
    SegmentListCheck(DOSegmentSource const& list, bool subDO) noexcept : list_(list), subDO_(subDO) {}

    // Adds `count` segments, starting with segment `from`. All segments must be added once, in order.
    void Accumulate(std::uint64_t from, std::uint64_t count) noexcept;
    // Returns: the first fault, once all segments are added, by crr_segments_fault. If there may be one, the list is
    // read again to find it. Its offset is from the start of a buffer whose entries start at `entries`, and whose
    // object size is at `objectSize`.
    SegmentFault Fault(std::uint64_t entries = 0, std::uint64_t objectSize = 0) const noexcept;

private:
    template <class E>
    void AccumulateSizes(E entries, std::uint64_t from, std::uint64_t count) noexcept;
    template <class E>
    void AccumulateOffsets(E entries, std::uint64_t from, std::uint64_t count) noexcept;
    bool MayBeFaulty() const noexcept;

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
