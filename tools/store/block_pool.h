// Memory for tuples, in blocks of equal size.

#pragma once

#include "store/segment_tuple.h"

#include <mutex>

namespace crrecord::tool {

// The place of a tuple in its partition. The tuple may have moved, or may not exist any more.
struct TuplePlace {
    std::uint32_t tag; // of the hash
    std::uint32_t number;
};

// The pages are allocated when they are first used: those of second sizes only if there are any. Blocks that were
// returned are taken before others.
class BlockPool {
public:
    // Bytes of a tuple with its second size.
    static constexpr std::uint64_t kTupleBytes = sizeof(TupleBase) + sizeof SegmentTuple::secondSize;

    // A block has 2^tuplesBits tuples. Each partition has memory for `places` places. Throws: std::bad_alloc.
    BlockPool(std::uint64_t blocks, unsigned int tuplesBits, std::uint64_t partitions, std::uint64_t places);
    ~BlockPool();
    BlockPool(BlockPool const&) = delete;
    BlockPool& operator=(BlockPool const&) = delete;

    std::uint64_t Blocks() const { return blocks_; }
    std::uint32_t TuplesInBlock() const { return std::uint32_t{1} << tuplesBits_; }
    unsigned int TuplesBits() const { return tuplesBits_; }
    std::uint64_t Used();
    // Returns: a block. Thread safety: any number of threads. Throws: std::bad_alloc if all blocks are used.
    TupleBase* Take();
    void Return(TupleBase* block);

    // Returns: the memory of a partition, which is zeros at first.
    std::span<TuplePlace> Places(std::uint64_t partition) const {
        return {placeMemory_ + partition * places_, places_};
    }
    // Returns: the memory for the second size of a tuple.
    std::uint64_t& SecondSizeOf(TupleBase const& tuple) const { return secondSizes_[&tuple - tuples_]; }

private:
    std::uint64_t blocks_;
    unsigned int tuplesBits_;
    std::uint64_t places_; // of a partition
    std::size_t size_;     // of the memory, which has tuples, second sizes and places
    TupleBase* tuples_;
    std::uint64_t* secondSizes_;
    TuplePlace* placeMemory_;
    std::mutex mutex_;
    std::uint64_t used_ = 0;
    std::uint64_t fresh_ = 0;       // blocks that were never taken are after these
    TupleBase* returned_ = nullptr; // the first of a list, whose links are in the blocks
};

} // namespace crrecord::tool
