// The distinct segments of DO records, in memory.

#pragma once

#include "store/segment_tuple.h"

#include <crrecord/DORecordView.h>

#include <span>
#include <stdexcept>
#include <vector>

namespace crrecord::tool {

// The sums of one container.
struct ContainerSegments {
    std::uint64_t dcid;
    std::uint64_t segments = 0;
    std::uint64_t bytes = 0;
};

// Each segment once, with its greatest size. Sets of the same records are equal, whatever the order and the grouping of
// Add and Merge. Memory: 63 bytes for each segment.
//
// On failure: std::bad_alloc leaves a valid set with some of the segments that were to be added.
class SegmentSet {
public:
    // Adds the segments of a valid record. A record with a bloom filter has none.
    void Add(DORecordView const& record);
    void Merge(SegmentSet const& other);

    std::uint64_t size() const { return table_.size(); }
    std::uint64_t Conflicts() const { return conflicts_; } // segments that have several sizes
    // Returns: the sums of all containers, by container.
    std::vector<ContainerSegments> Containers() const;

    // Returns: `parts` sets, at least 1, with each segment in one of them. Its part depends on nothing but the segment
    // and `parts`, so parts of the same number may be merged, even those of different processes and machines. Crafted
    // fingerprints may make the parts unequal.
    std::vector<SegmentSet> Split(std::size_t parts) const;

    // The set as bytes, in the format of docs/python.md.
    std::size_t SerializedSize() const;
    void Serialize(std::span<unsigned char> to) const;
    // Throws: BadState for bytes that Serialize does not write.
    static SegmentSet Deserialize(std::span<unsigned char const> from);
    struct BadState : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

private:
    struct HashOfTuple {
        std::uint64_t operator()(SegmentTuple const& tuple) const { return HashOf(tuple); }
    };

    void AddAll(std::span<SegmentTuple const> tuples);
    template <class Use>
    void ForEach(Use use) const;

    HashTable<SegmentTuple, HashOfTuple> table_;
    std::uint64_t conflicts_ = 0;
};

} // namespace crrecord::tool
