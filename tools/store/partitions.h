// All segments of a store, each once, in a fixed amount of memory.

#pragma once

#include "store/spill_file.h"

#include <array>
#include <memory>
#include <mutex>

namespace crrecord::tool {

// Memory in blocks of equal size.
class BlockPool {
public:
    // Throws: std::bad_alloc.
    BlockPool(std::uint64_t blocks, std::uint32_t tuplesInBlock);
    ~BlockPool();
    BlockPool(BlockPool const&) = delete;
    BlockPool& operator=(BlockPool const&) = delete;

    std::uint64_t Blocks() const { return blocks_; }
    std::uint32_t TuplesInBlock() const { return tuplesInBlock_; }
    std::uint64_t Used();
    // Thread safety: any number of threads. Throws: std::bad_alloc if all blocks are used.
    SegmentTuple* Take();
    void Return(SegmentTuple* block);

private:
    std::uint64_t blocks_;
    std::uint32_t tuplesInBlock_;
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

// Collects tuples and merges those of the same segment. When the memory is full, tuples are merged; if that frees less
// than half of it, they go to a temporary file. At the end each partition is taken alone: one that is in the file gets
// the memory for itself and is partitioned again if it does not fit. The keyed hash of a segment determines its
// partition, so all tuples of a segment meet.
class Partitions {
public:
    static constexpr std::uint64_t kLeastMemory = 1024UL * 1024;
    // More threads would only wait for the reading thread.
    static constexpr unsigned int kMostThreads = 16;

    explicit Partitions(PartitionOptions const& options);
    ~Partitions();

    // One thread's part of the memory.
    class Writer;
    // Writers of different numbers may be used at the same time. There is one more than threads of a Pipeline.
    Writer& WriterOf(unsigned int number) { return *writers_[number]; }
    unsigned int Writers() const { return static_cast<unsigned int>(writers_.size()); }
    unsigned int Threads() const { return options_.threads; }

    // Returns: the largest number of tuples of one batch, so that enough batches fit for all threads.
    std::uint64_t BatchTuples() const;
    // Returns: whether `tuples` tuples fit. Threads may have added some of them already.
    bool HasRoom(std::uint64_t tuples);
    // Frees memory for at least one batch for each thread. No writer may be in use.
    // Throws: Failure if the temporary file cannot be created or written.
    void MakeRoom();

    // Calls use(tuples) for all segments, each once, from all threads. No function may be called afterwards.
    using Use = std::function<void(std::span<SegmentTuple const>)>;
    void Total(Use const& use);

private:
    static constexpr unsigned int kBits = 6;
    static constexpr unsigned int kPartitions = 1U << kBits;

    // Tuples in blocks, all full but the last.
    struct List {
        std::vector<SegmentTuple*> blocks;
        std::uint32_t inLast = 0;
    };
    struct Spilled {
        std::uint64_t last = SpillFile::kNone;
        bool Any() const { return last != SpillFile::kNone; }
    };

    PartitionOptions options_;
    unsigned int level_ = 0; // how often the tuples were partitioned before
    std::unique_ptr<BlockPool> pool_;
    std::vector<std::unique_ptr<Writer>> writers_;
    std::shared_ptr<SpillFile> file_;
    std::array<Spilled, kPartitions> spilled_;

    Partitions(PartitionOptions const& options, unsigned int level, std::shared_ptr<SpillFile> file);
    void Compact(unsigned int partition);
    void Spill();
    void TotalOf(unsigned int partition, Use const& use);
    template <class UseList>
    void ForEachBlock(List const& list, UseList use) const;
};

class Partitions::Writer {
public:
    void Add(SegmentTuple const& tuple) {
        List& list = lists_[HashOf(tuple) >> shift_ & (kPartitions - 1)];
        if (list.inLast == pool_.TuplesInBlock() || list.blocks.empty()) {
            list.blocks.push_back(pool_.Take());
            list.inLast = 0;
        }
        list.blocks.back()[list.inLast++] = tuple;
    }

    Writer(BlockPool& pool, unsigned int level) : pool_(pool), shift_(level * kBits) {}

private:
    friend class Partitions;

    BlockPool& pool_;
    unsigned int shift_;
    std::array<List, kPartitions> lists_;
};

} // namespace crrecord::tool
