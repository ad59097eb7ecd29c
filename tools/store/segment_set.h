// The distinct segments of DO records, in memory.

#pragma once

#include "store/container_sums.h"

#include <crrecord/DORecordView.h>

#include <span>

namespace crrecord::tool {

// Each segment once, with its greatest size. A set depends on the records only, not on the order and the grouping of
// Add and Merge. Memory: 67 to 78 bytes for each segment, and 4 MiB.
//
// Segments are added without an index, and indexed many at a time, so that cache misses overlap. Parts and deserialized
// sets, which are mostly merged into other sets, get no index before they need it: 56 bytes for each segment.
//
// Thread safety: none, also for functions that only return something.
// On failure: std::bad_alloc leaves a valid set, with some of the segments that were to be added.
class SegmentSet {
public:
    // Adds the segments of a valid record. One with a bloom filter has none.
    void Add(DORecordView const& record);
    void Merge(SegmentSet const& other);

    std::uint64_t Size();
    SegmentSums Sums();
    // Returns: the number of segments that records give several sizes.
    std::uint64_t Conflicts();
    // Returns: the segments and bytes of each container.
    Containers SumsByContainer();

    std::size_t MemoryBytes() const { return tuples_.MemoryBytes() + slots_.capacity() * sizeof slots_[0]; }

    // Returns: `parts` sets, at least 1, with each segment in one of them. Its part depends on the segment and `parts`
    // only, so that parts of several processes may be merged. Crafted fingerprints can make the parts unequal.
    std::vector<SegmentSet> Split(std::size_t parts);

    // The set as bytes: the number of segments with 16-byte fingerprints and of
    // those with 32-byte ones, as 8-byte integers; then these segments. Each has the container (8 bytes), the size (4),
    // the fingerprint type (1), 1 if it has several sizes or 0, and the fingerprint. Integers are big-endian.
    std::size_t SerializedSize();
    void Serialize(unsigned char* to);
    // Throws: BadSet for bytes that Serialize does not write, except that a repeated segment is merged. Another thread
    // may change the bytes meanwhile.
    static SegmentSet Deserialize(std::span<unsigned char const> bytes);
    struct BadSet : Failure {
        using Failure::Failure;
    };

private:
    void Append(SegmentTuple const& tuple);
    // Adds all tuples to the index, and merges those of the same segment.
    void Index();
    // Merges tuples of the same segment, if there may be any.
    void MakeDistinct();
    void GrowIndex();
    // Returns: the first slot from `slot` on that is free or has the tag of the hash.
    std::size_t Candidate(std::size_t slot, std::uint64_t hash) const;
    void IndexOne(SegmentTuple const& tuple, std::uint64_t hash, std::size_t candidate);
    template <class Use>
    void ForEach(Use use) const;

    GrowingArray<SegmentTuple> tuples_;
    std::size_t indexed_ = 0; // of the tuples, in the index
    bool isDistinct_ = true;  // no two tuples are of the same segment, or the bytes that they are from said so
    // Open addressing, a power of two. The high half of a slot is of the hash, the low half a tuple's number.
    std::vector<std::uint64_t> slots_;
};

} // namespace crrecord::tool
