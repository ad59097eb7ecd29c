#include "store/container_sums.h"

namespace crrecord::tool {

namespace {

void AddAtomically(std::uint64_t& sum, std::uint64_t more) {
    static_assert(std::atomic_ref<std::uint64_t>::required_alignment == alignof(std::uint64_t));
    if (more != 0 && std::atomic_ref(sum).fetch_add(more, std::memory_order_relaxed) + more < more) {
        throw TooManyBytes();
    }
}

void AddAtomically(SegmentSums& sums, SegmentSums const& more) {
    AddAtomically(sums.segments, more.segments);
    AddAtomically(sums.bytes, more.bytes);
}

void Count(SegmentSums& sums, std::uint64_t bytes) {
    ++sums.segments;
    AddBytes(sums.bytes, bytes);
}

// Returns: whether the sizes within a set differ, or those of the two sets.
bool IsConflict(TupleBase const& segment, std::uint64_t secondSize) {
    constexpr std::uint8_t kBoth = SegmentTuple::kInFirst | SegmentTuple::kInSecond;
    return (segment.flags & (SegmentTuple::kFirstDiffers | SegmentTuple::kSecondDiffers)) != 0 ||
           ((segment.flags & kBoth) == kBoth && segment.firstSize != secondSize);
}

} // namespace

void StoreContainers::ForgetRecords() {
    for (std::uint64_t i = 0; i < table_.size(); ++i) {
        table_[i].onlyFirst.segments = 0;
    }
}

void StoreContainers::AddSegments(TupleBlock const& segments) {
    ContainerSums sums; // of neighbours in one container
    std::uint64_t conflicts = 0;
    for (std::size_t i = 0; i < segments.tuples.size(); ++i) {
        TupleBase const& segment = segments.tuples[i];
        if (segment.dcid != sums.dcid) {
            AddSums(sums);
            sums = {};
            sums.dcid = segment.dcid;
        }
        bool const inFirst = (segment.flags & SegmentTuple::kInFirst) != 0;
        bool const inSecond = (segment.flags & SegmentTuple::kInSecond) != 0;
        if (inFirst) {
            Count(sums.first, segment.firstSize);
        }
        std::uint64_t const secondSize = inSecond ? segments.secondSizes[i] : 0;
        if (inSecond) {
            Count(sums.second, secondSize);
        }
        if (inFirst && !inSecond) {
            Count(sums.onlyFirst, segment.firstSize);
        }
        conflicts += IsConflict(segment, secondSize) ? 1 : 0;
    }
    AddSums(sums);
    conflicts_ += conflicts;
}

void StoreContainers::AddSums(ContainerSums const& sums) {
    if (sums.first.segments == 0 && sums.second.segments == 0) {
        return;
    }
    ContainerSums* const container = table_.Find(sums.dcid);
    if (!container) {
        throw Failure("a temporary file names a container that no record names");
    }
    AddAtomically(container->first, sums.first);
    AddAtomically(container->second, sums.second);
    AddAtomically(container->onlyFirst, sums.onlyFirst);
}

} // namespace crrecord::tool
