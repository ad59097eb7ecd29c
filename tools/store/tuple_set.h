// The tuples of one partition.

#pragma once

#include "store/block_pool.h"

#include <limits>
#include <vector>

namespace crrecord::tool {

// Tuples in blocks of a pool, in the order in which they were added. Several may be of one segment until Merge.
//
// Segments are repeated in runs. Add remembers the places of some tuples. If such a segment is added again, Add
// compares its run with the tuples at that place, and merges what is equal: most repeated segments need no memory of
// their own.
class TupleSet {
public:
    // A hash table over tuples. The low bits of a slot are a tuple's number, the others, the tag, are from its hash.
    // One can be used for many sets, one after the other.
    using Index = std::vector<std::uint32_t>;
    // Bytes of the index that Merge needs for each tuple; a small set needs more, up to 64 KiB in all.
    static constexpr std::uint64_t kIndexBytes = 6;
    // More tuples need more slots than 32 bits number.
    static constexpr std::uint64_t kMostTuples = std::uint64_t{1} << 31;
    // Blocks have a multiple of so many tuples.
    static constexpr std::uint32_t kAtOnce = 16;
    // One of so many segments is remembered.
    static constexpr std::uint64_t kRemembered = 16;

    // `places` is memory for remembered places, zeros at first. Lifetime: it must outlive the set.
    TupleSet(BlockPool& pool, std::span<TuplePlace> places) : pool_(&pool), places_(places) {}

    // Some tuples, and the place of the first of them that is remembered.
    struct Run {
        std::span<SegmentTuple const> tuples;
        TuplePlace* place = nullptr; // null if there is none
        std::uint32_t tag = 0;
        std::uint32_t before = 0; // tuples of the run before it
        std::uint32_t next = 0;   // the number of the tuple that the first one is compared with
    };
    // A run is added in three steps: RunOf, Find and Add. Each of the first two prefetches what the next one reads, so
    // other work between them hides the time that memory takes.
    // Returns: the run to add to the set with these places, which are not read.
    static Run RunOf(std::span<SegmentTuple const> tuples, std::span<TuplePlace> places);
    // Reads the run's place, which is not null, and prefetches the tuples that Add compares with the run's. If others
    // are added before Add, it may miss that tuples are equal, and leaves them to Merge.
    void Find(Run& run) const;
    // Merges the tuples with others or appends them. Throws, here and below: std::bad_alloc if the pool has no block
    // left; some of the tuples are added.
    void Add(Run const& run);
    void Append(std::span<SegmentTuple const> tuples);
    // Merges the tuples of each segment, and returns unused blocks to the pool.
    void Merge(Index& index);

    std::uint32_t size() const { return size_; }
    std::uint64_t Blocks() const { return blocks_.size(); }
    // Calls use(TupleBlock) for all tuples.
    template <class Use>
    void ForEachBlock(Use const& use) const {
        for (std::uint32_t from = 0; from < size_; from += pool_->TuplesInBlock()) {
            TupleBase const& first = At(from);
            use(TupleBlock{{&first, std::min(pool_->TuplesInBlock(), size_ - from)}, &pool_->SecondSizeOf(first)});
        }
    }
    // Removes all tuples and returns their blocks to the pool.
    void Clear() { Truncate(0); }

private:
    static constexpr std::uint32_t kFree = std::numeric_limits<std::uint32_t>::max();

    TupleBase& At(std::uint32_t number) const {
        return blocks_[number >> pool_->TuplesBits()][number & (pool_->TuplesInBlock() - 1)];
    }
    SegmentTuple Load(TupleBase const& tuple) const {
        return {tuple, (tuple.flags & SegmentTuple::kInSecond) != 0 ? pool_->SecondSizeOf(tuple) : 0};
    }
    void Store(TupleBase& to, SegmentTuple const& tuple) const {
        to = tuple;
        if ((tuple.flags & SegmentTuple::kInSecond) != 0) {
            pool_->SecondSizeOf(to) = tuple.secondSize;
        }
    }
    // Returns: the number of tuples from this one on that its block has, or would have.
    std::uint32_t LeftInBlock(std::uint32_t number) const {
        return pool_->TuplesInBlock() - (number & (pool_->TuplesInBlock() - 1));
    }
    // Merges the first tuples that equal the next ones of the set. Returns: their number.
    std::size_t MergeNext(std::span<SegmentTuple const> tuples);
    // Returns: whether the segment's tuple is at its remembered place, which is then the next one. Otherwise the place
    // is the end, if the segment is one of those that are remembered.
    bool FindPlace(SegmentTuple const& tuple);
    // Merges a tuple of the same segment.
    void MergeInto(TupleBase& into, SegmentTuple const& more) const;
    // Returns: the number of the tuple of this segment, or `kept`, which is then its number in the index.
    std::uint32_t FindOrKeep(TupleBase const& tuple, std::uint64_t hash, std::uint32_t tagMask, Index& index,
                             std::uint32_t kept) const;
    void Truncate(std::uint32_t size);

    BlockPool* pool_;
    std::span<TuplePlace> places_;
    std::vector<TupleBase*> blocks_; // all full but the last
    std::uint32_t size_ = 0;
    std::uint32_t next_ = 0; // after the tuple that Add appended or merged last
};

} // namespace crrecord::tool
