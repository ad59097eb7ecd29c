// The segments that two objects share.

#pragma once

#include "record/do_record.h"

#include <functional>
#include <optional>

namespace crrecord::tool {

enum class Fate { Shared, Moved, Added, Removed };

// A segment and its position in the object.
struct PlacedSegment {
    DOSegment segment;
    std::uint64_t position;
    std::uint32_t index;
};

// The segments of an open record with their positions. Memory: 8 bytes for each.
class PlacedSegments {
public:
    explicit PlacedSegments(DORecord const& record);

    std::uint32_t size() const { return segments_.size(); }
    std::uint64_t PositionOf(std::uint32_t i) const { return positions_[i]; }
    PlacedSegment operator[](std::uint32_t i) const { return {segments_[i], positions_[i], i}; }
    unsigned int FPType() const { return fptype_; }

private:
    DOSegmentRange segments_;
    unsigned int fptype_;
    std::vector<std::uint64_t> positions_;
};

// `a` is null for an added segment, `b` for a removed one.
using UseMatch = std::function<void(Fate, PlacedSegment const* a, PlacedSegment const* b)>;

// Calls use for every segment of two objects once. Segments are equal if their fingerprint type, fingerprint and size
// are equal. Equal segments at one position in both objects are shared. Of other equal segments, the first in A and the
// first in B are one moved segment, and so on; those left over are removed or added.
//
// Linear in the segments. Memory: 31 bytes for each segment of A, 9 for each of B.
void MatchSegments(PlacedSegments const& a, PlacedSegments const& b, UseMatch const& use);

// Segments that follow one another in both objects and have one fate: moved by the same number of bytes, or shared and
// relocated from one container to one other.
struct MatchRun {
    Fate fate{};
    std::uint64_t segments = 0;
    std::uint64_t bytes = 0;
    std::optional<PlacedSegment> a{}; // the first one; none for added segments
    std::optional<PlacedSegment> b{}; // none for removed ones

    // Returns: true for a segment that continues the run, which it then has.
    bool Extend(Fate with, PlacedSegment const* inA, PlacedSegment const* inB);
};

} // namespace crrecord::tool
