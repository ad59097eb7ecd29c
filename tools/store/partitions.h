// All segments of a store, each once, in a fixed amount of memory.

#pragma once

#include "store/spill_file.h"
#include "store/tuple_set.h"
#include "store/tuple_sink.h"

#include <deque>
#include <memory>
#include <mutex>

namespace crrecord::tool {

struct PartitionOptions {
    std::uint64_t memory = 256UL * 1024 * 1024; // bytes, at least kLeastMemory
    unsigned int threads = 1;
    std::string temporaryFolder = "/tmp";
};

// Collects tuples in partitions, each so small that it is fast to merge its tuples of the same segment: this is done at
// the end, and meanwhile when much memory is used and merging frees a third of it. If it would free less, more memory
// is used. If there is no more, some partitions go to temporary files. At the end each of these is read and merged
// alone.
//
// The keyed hash of a container determines the partition, so that neighbours in a container remain neighbours. A
// partition that does not fit when it is read is partitioned by the keyed hashes of its segments.
class Partitions final : public TupleSink {
public:
    static constexpr std::uint64_t kLeastMemory = 1024UL * 1024;
    // More threads would only wait for the reading thread.
    static constexpr unsigned int kMostThreads = 16;

    explicit Partitions(PartitionOptions const& options);

    unsigned int Threads() const override { return options_.threads; }
    // It is fastest if neighbours are in one container.
    void Add(std::span<SegmentTuple const> tuples) override;
    std::uint64_t BatchTuples() const override;
    bool HasSpace(std::uint64_t tuples) override;
    // Throws: Failure if a temporary file cannot be created or written.
    void FreeMemory() override;
    // Adds any number of tuples, and frees memory for them. Thread safety: none. Throws: as FreeMemory.
    void AddAll(std::span<SegmentTuple const> tuples);

    // Calls use(segments) for all segments, each once, from all threads. No function may be called afterwards.
    using Use = std::function<void(TupleBlock const&)>;
    void Total(Use const& use);

private:
    struct alignas(64) Partition {
        Partition(BlockPool& pool, std::span<TuplePlace> places, unsigned int inFile)
            : tuples(pool, places), file(inFile) {}
        bool IsSpilled() const { return spilled.tuples != 0; }

        std::mutex mutex;
        TupleSet tuples;
        unsigned int const file; // the index in files_ of its file
        SpillFile::Chain spilled;
    };

    PartitionOptions options_;
    unsigned int level_ = 0; // how often the tuples were partitioned before
    std::unique_ptr<BlockPool> pool_;
    std::deque<Partition> partitions_;              // a power of two
    std::uint64_t limit_ = 0;                       // blocks that may be used now
    std::size_t next_ = 0;                          // the partition that is merged next to learn how much merging frees
    std::vector<std::shared_ptr<SpillFile>> files_; // one for each thread, if any is needed

    Partitions(PartitionOptions const& options, unsigned int level, std::vector<std::shared_ptr<SpillFile>> files);
    // Returns: the number of the tuple's partition.
    std::size_t NumberOf(SegmentTuple const& tuple) const;
    // Returns: the first tuples, which are in one partition.
    std::span<SegmentTuple const> FirstRun(std::span<SegmentTuple const> tuples) const;
    bool IsThirdFree() { return 3 * (limit_ - pool_->Used()) >= limit_; }
    bool MergingFreesThird();
    void SpillSome();
    void Spill(std::vector<Partition*> const& partitions);
    // What does not fit is written to `file`, which no other thread writes to meanwhile.
    void Repartition(Partition const& partition, std::shared_ptr<SpillFile> const& file, Use const& use);
};

} // namespace crrecord::tool
