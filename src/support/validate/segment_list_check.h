// The rules of a record's segment list, shared by the class and the validators.

#pragma once

#include "support/layout/segment_list.h"

namespace crrecord {

enum class SegmentRule {
    None,    // every rule is kept
    Product, // types 0 and 1: segment size times count, which wraps at 64 bits, is less than the object
    Sum,     // types 2 and 5: the sizes do not add up to the object
    Size,    // a size from 2 GiB on
    Offset,  // an offset from 8192 PiB on
    Overlap, // type 3: a segment starts before the one in front of it ends
    End,     // type 3: the last segment ends behind the object
};

// The first rule that is broken.
struct SegmentFault {
    SegmentRule rule = SegmentRule::None;
    std::uint32_t segment = 0; // the one at fault, for the rules that look at one
    std::uint64_t found = 0;
    std::uint64_t expected = 0; // a limit, or the value that would have been right
};

// Checks segments while they are read or copied, so that memory is read once.
class SegmentListCheck {
public:
    explicit SegmentListCheck(SegmentList const& list) noexcept : list_(list) {}

    // Takes in the next `count` segments; `from` is the first one not taken in yet.
    void Accumulate(std::uint64_t from, std::uint64_t count) noexcept;
    // After all of them: the first fault. Reads the list again if there is one.
    SegmentFault Fault() const noexcept;

private:
    template <class E>
    void AccumulateSizes(E entries, std::uint64_t from, std::uint64_t count) noexcept;
    template <class E>
    void AccumulateOffsets(E entries, std::uint64_t from, std::uint64_t count) noexcept;
    SegmentFault ProductFault() const noexcept;
    SegmentFault SumFault() const noexcept;
    SegmentFault OffsetFault() const noexcept;

    SegmentList list_;
    std::uint64_t sum_ = 0;     // of the sizes
    std::uint64_t end_ = 0;     // of the last segment
    std::uint64_t offsets_ = 0; // every bit of theirs
    std::uint32_t sizes_ = 0;   // every bit of theirs
    bool overlap_ = false;
};

// All of that at once.
SegmentFault CheckSegments(SegmentList const& list) noexcept;
SegmentFault CheckSegmentSizes(SegmentList const& list) noexcept;
SegmentFault CheckSegmentOffsets(SegmentList const& list) noexcept;

} // namespace crrecord
