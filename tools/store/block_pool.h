// Memory for tuples, in blocks of equal size.

#pragma once

#include "store/segment_tuple.h"

#include <mutex>

namespace crrecord::tool {

// The pages are allocated when they are first used. Blocks that were returned are taken before others.
class BlockPool {
public:
    // A block has 2^tuplesBits tuples. Throws: std::bad_alloc.
    BlockPool(std::uint64_t blocks, unsigned int tuplesBits);
    ~BlockPool();
    BlockPool(BlockPool const&) = delete;
    BlockPool& operator=(BlockPool const&) = delete;

    std::uint64_t Blocks() const { return blocks_; }
    std::uint32_t TuplesInBlock() const { return std::uint32_t{1} << tuplesBits_; }
    unsigned int TuplesBits() const { return tuplesBits_; }
    std::uint64_t Used();
    // Thread safety: any number of threads. Throws: std::bad_alloc if all blocks are used.
    SegmentTuple* Take();
    void Return(SegmentTuple* block);

private:
    std::size_t Size() const { return blocks_ * TuplesInBlock() * sizeof(SegmentTuple); }

    std::uint64_t blocks_;
    unsigned int tuplesBits_;
    SegmentTuple* memory_;
    std::mutex mutex_;
    std::uint64_t used_ = 0;
    std::uint64_t fresh_ = 0;          // blocks that were never taken are after these
    SegmentTuple* returned_ = nullptr; // the first of a list, whose links are in the blocks
};

} // namespace crrecord::tool
