// The tuples of one partition.

#pragma once

#include "store/block_pool.h"

#include <limits>
#include <span>
#include <vector>

namespace crrecord::tool {

// Tuples in blocks of a pool, in the order in which they were added. Several may be of one segment until Merge.
class TupleSet {
public:
    // A hash table over tuples. The low bits of a slot are a tuple's number, the others, the tag, are from its hash.
    // One can be used for many sets, one after the other.
    using Index = std::vector<std::uint32_t>;
    // Bytes of the index that Merge needs for each tuple.
    static constexpr std::uint64_t kIndexBytes = 6;
    // Blocks have a multiple of so many tuples.
    static constexpr std::uint32_t kAtOnce = 16;

    explicit TupleSet(BlockPool& pool) : pool_(&pool) {}

    // Throws: std::bad_alloc if the pool has no block left; some of the tuples are added.
    void Append(std::span<SegmentTuple const> tuples);
    // Merges the tuples of each segment, and returns unused blocks to the pool.
    void Merge(Index& index);

    std::uint32_t size() const { return size_; }
    std::uint64_t Blocks() const { return blocks_.size(); }
    // Calls use(tuples) for all tuples.
    template <class Use>
    void ForEachBlock(Use use) const {
        for (std::uint32_t from = 0; from < size_; from += pool_->TuplesInBlock()) {
            use(std::span<SegmentTuple const>(&At(from), std::min(pool_->TuplesInBlock(), size_ - from)));
        }
    }
    // Removes all tuples and returns their blocks to the pool.
    void Clear() { Truncate(0); }

private:
    static constexpr std::uint32_t kFree = std::numeric_limits<std::uint32_t>::max();

    SegmentTuple& At(std::uint32_t number) const {
        return blocks_[number >> pool_->TuplesBits()][number & (pool_->TuplesInBlock() - 1)];
    }
    // Returns: the number of the tuple of this segment, or `kept`, which is then its number in the index.
    std::uint32_t FindOrKeep(SegmentTuple const& tuple, std::uint64_t hash, std::uint32_t tagMask, Index& index,
                             std::uint32_t kept) const;
    void Truncate(std::uint32_t size);

    BlockPool* pool_;
    std::vector<SegmentTuple*> blocks_; // all full but the last
    std::uint32_t size_ = 0;
};

} // namespace crrecord::tool
