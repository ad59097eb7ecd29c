// All segments of a store, each once, in a fixed amount of memory.

#pragma once

#include "store/spill_file.h"
#include "store/tuple_sink.h"

#include <deque>
#include <memory>
#include <mutex>
#include <new>

namespace crrecord::tool {

// Pages of zeros, which are allocated when they are first used. Throws: std::bad_alloc.
void* MapPages(std::size_t size);
void UnmapPages(void* pages, std::size_t size);

// Memory in blocks of equal size, a power of two of tuples.
class BlockPool {
public:
    // Throws: std::bad_alloc.
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
    std::uint64_t blocks_;
    unsigned int tuplesBits_;
    SegmentTuple* memory_;
    std::mutex mutex_;
    std::uint64_t used_ = 0;
    std::uint64_t fresh_ = 0;          // blocks that were never taken are after these
    SegmentTuple* returned_ = nullptr; // the first of a list, whose links are in the blocks
};

struct PartitionOptions {
    std::uint64_t memory = 256UL * 1024 * 1024; // bytes, at least kLeastMemory
    unsigned int threads = 1;
    std::string temporaryFolder = "/tmp";
};

// Memory that starts at a cache line. Large blocks go back to the system when they are freed.
template <class T>
struct LineAllocator {
    static constexpr std::size_t kLine = 64;
    using value_type = T;

    T* allocate(std::size_t count) {
        std::size_t const size = count * sizeof(T);
        return static_cast<T*>(size < kLarge ? ::operator new (size, std::align_val_t{kLine}) : MapPages(size));
    }
    void deallocate(T* memory, std::size_t count) {
        std::size_t const size = count * sizeof(T);
        size < kLarge ? ::operator delete (memory, std::align_val_t{kLine}) : UnmapPages(memory, size);
    }
    bool operator==(LineAllocator const&) const { return true; }

private:
    static constexpr std::size_t kLarge = 64UL * 1024;
};

// The tuples of one partition, each segment once, in the order in which they were added.
class TupleSet {
public:
    explicit TupleSet(BlockPool& pool) : pool_(&pool) {}

    // Adds tuples with these hashes, or merges them with those of the same segments.
    // Throws: std::bad_alloc if the pool has no block left.
    void MergeAll(std::span<SegmentTuple const* const> tuples, std::span<std::uint64_t const> hashes);

    std::uint32_t size() const { return size_; }
    std::uint64_t Blocks() const { return blocks_.size(); }
    // Calls use(tuples) for all tuples.
    template <class Use>
    void ForEachBlock(Use use) const {
        for (std::size_t i = 0; i < blocks_.size(); ++i) {
            std::uint32_t const inBlock = pool_->TuplesInBlock();
            std::uint32_t const left = size_ - static_cast<std::uint32_t>(i) * inBlock;
            use(std::span<SegmentTuple const>(blocks_[i], std::min(inBlock, left)));
        }
    }
    // Removes all tuples and returns their blocks to the pool.
    void Clear();

    // Bytes of the index for each tuple, at most.
    static constexpr std::uint64_t kMostIndexBytes = 22;

private:
    static constexpr std::uint64_t kFree = std::numeric_limits<std::uint64_t>::max();
    static constexpr std::uint64_t kTagMask = ~std::uint64_t{0} << 32;
    static constexpr std::size_t kInLine = LineAllocator<std::uint64_t>::kLine / sizeof(std::uint64_t);

    SegmentTuple& At(std::uint64_t slot) const {
        auto const number = static_cast<std::uint32_t>(slot);
        return blocks_[number >> pool_->TuplesBits()][number & (pool_->TuplesInBlock() - 1)];
    }
    // The slots of a hash: all of one cache line, then those of the next ones. The first free one ends them.
    std::size_t Start(std::uint64_t hash) const;
    std::size_t After(std::size_t slot, std::uint64_t hash) const;
    // Returns: `slot` or the first one after it that is free or has a tuple of this tag.
    std::size_t Candidate(std::size_t slot, std::uint64_t hash) const;
    void MergeOne(SegmentTuple const& tuple, std::uint64_t hash, std::size_t candidate);
    void Append(SegmentTuple const& tuple);
    void Grow();

    BlockPool* pool_;
    std::vector<SegmentTuple*> blocks_; // all full but the last
    std::uint32_t size_ = 0;
    // The high half is of the hash, the low half a tuple's number.
    std::vector<std::uint64_t, LineAllocator<std::uint64_t>> slots_;
};

// Collects tuples and merges those of the same segment. When the memory is full, some partitions go to a temporary
// file. At the end each of these is taken alone: it gets the memory for itself and is partitioned again if it does not
// fit. The keyed hash of a container determines the partition, so that neighbours in a container remain neighbours. A
// partition that does not fit even then is partitioned by the keyed hashes of its segments.
class Partitions final : public TupleSink {
public:
    static constexpr std::uint64_t kLeastMemory = 1024UL * 1024;
    // More threads would only wait for the reading thread.
    static constexpr unsigned int kMostThreads = 16;

    explicit Partitions(PartitionOptions const& options);

    unsigned int Threads() const override { return options_.threads; }
    void Add(std::span<SegmentTuple const> tuples) override;
    std::uint64_t BatchTuples() const override;
    bool HasRoom(std::uint64_t tuples) override;
    // Frees a third of the memory: writes the tuples of some partitions to the temporary file. Add may not run.
    // Throws: Failure if the temporary file cannot be created or written.
    void MakeRoom() override;

    // Calls use(tuples) for all segments, each once, from all threads. No function may be called afterwards.
    using Use = std::function<void(std::span<SegmentTuple const>)>;
    void Total(Use const& use);

private:
    static constexpr unsigned int kBits = 6;
    static constexpr unsigned int kPartitions = 1U << kBits;

    struct Partition {
        explicit Partition(BlockPool& pool) : tuples(pool) {}
        bool IsSpilled() const { return spilled != SpillFile::kNone; }

        std::mutex mutex;
        TupleSet tuples;
        std::uint64_t spilled = SpillFile::kNone; // the last extent in the file
    };

    PartitionOptions options_;
    unsigned int level_ = 0; // how often the tuples were partitioned before
    std::unique_ptr<BlockPool> pool_;
    std::deque<Partition> partitions_;
    std::shared_ptr<SpillFile> file_;

    Partitions(PartitionOptions const& options, unsigned int level, std::shared_ptr<SpillFile> file);
    void AddSome(std::span<SegmentTuple const> tuples);
    unsigned int PartitionOf(std::uint64_t hash) const;
    void Spill(std::vector<Partition*> const& partitions);
    void TotalOf(std::uint64_t spilled, Use const& use);
};

} // namespace crrecord::tool
