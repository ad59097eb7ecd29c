#include "store/partitions.h"

#include "io/failure.h"
#include "store/parallel.h"

#include <sys/mman.h>

namespace crrecord::tool {

namespace {

// An index of tuples by segment. It stores the numbers of the tuples.
class TupleIndex {
public:
    // Returns: the number of the tuple of the same segment; kNone if there is none, and `number` is added.
    static constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

    template <class TupleAt>
    std::uint32_t FindOrAdd(SegmentTuple const& tuple, std::uint32_t number, TupleAt at) {
        if (2UL * number >= slots_.size()) {
            Grow(number, at);
        }
        std::uint64_t const hash = HashOf(tuple);
        std::uint64_t const tag = hash & kTagMask;
        std::size_t i = Start(hash);
        for (; slots_[i] != kFree; i = (i + 1) & (slots_.size() - 1)) {
            auto const other = static_cast<std::uint32_t>(slots_[i]);
            if ((slots_[i] & kTagMask) == tag && IsSameSegment(at(other), tuple)) {
                return other;
            }
        }
        slots_[i] = tag | number;
        return kNone;
    }

private:
    static constexpr std::uint64_t kFree = std::numeric_limits<std::uint64_t>::max();
    static constexpr std::uint64_t kTagMask = ~std::uint64_t{0} << 32;

    // Uses bits of the hash that select neither the partition nor the tag.
    std::size_t Start(std::uint64_t hash) const {
        constexpr std::uint64_t kOdd = 0x9e3779b97f4a7c15;
        return (hash * kOdd >> 20) & (slots_.size() - 1);
    }

    template <class TupleAt>
    void Grow(std::uint32_t number, TupleAt at) {
        std::size_t const size = std::max<std::size_t>(1024, 2 * slots_.size());
        slots_ = {}; // never both in memory
        slots_.resize(size, kFree);
        for (std::uint32_t n = 0; n < number; ++n) {
            std::uint64_t const hash = HashOf(at(n));
            std::size_t i = Start(hash);
            while (slots_[i] != kFree) {
                i = (i + 1) & (size - 1);
            }
            slots_[i] = (hash & kTagMask) | n;
        }
    }

    std::vector<std::uint64_t> slots_; // the high half is of the hash, the low half a tuple's number
};

// Returns: the bytes for blocks. An eighth of the memory is for indexes.
constexpr std::uint64_t ForBlocks(std::uint64_t memory) {
    return memory - memory / 8;
}

} // namespace

BlockPool::BlockPool(std::uint64_t blocks, std::uint32_t tuplesInBlock)
    : blocks_(blocks), tuplesInBlock_(tuplesInBlock) {
    std::size_t const size = blocks * tuplesInBlock * sizeof(SegmentTuple);
    // Pages are allocated when they are first used.
    void* const memory =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    [[maybe_unused]] int const advised = ::madvise(memory, size, MADV_HUGEPAGE); // for speed only
    memory_ = static_cast<SegmentTuple*>(memory);
}

BlockPool::~BlockPool() {
    ::munmap(memory_, blocks_ * tuplesInBlock_ * sizeof(SegmentTuple));
}

std::uint64_t BlockPool::Used() {
    std::lock_guard const lock(mutex_);
    return used_;
}

SegmentTuple* BlockPool::Take() {
    std::lock_guard const lock(mutex_);
    if (used_ == blocks_) {
        throw std::bad_alloc();
    }
    ++used_;
    if (!returned_) {
        return memory_ + fresh_++ * tuplesInBlock_;
    }
    SegmentTuple* const block = returned_;
    std::memcpy(&returned_, block, sizeof returned_);
    return block;
}

void BlockPool::Return(SegmentTuple* block) {
    std::lock_guard const lock(mutex_);
    std::memcpy(static_cast<void*>(block), &returned_, sizeof returned_);
    returned_ = block;
    --used_;
}

Partitions::Partitions(PartitionOptions const& options) : Partitions(options, 0, nullptr) {}

Partitions::Partitions(PartitionOptions const& options, unsigned int level, std::shared_ptr<SpillFile> file)
    : options_(options), level_(level), file_(std::move(file)) {
    constexpr std::uint64_t kLeastBlock = 16;
    constexpr std::uint64_t kLargestBlock = 1024;
    std::uint64_t const tuples = ForBlocks(options_.memory) / sizeof(SegmentTuple);
    // Each writer has a block that is not full for each partition: an eighth of the memory at most, or a quarter if the
    // memory is small. A pipeline of several threads may work on one batch more than it has threads.
    std::uint64_t const mostWriters = tuples / (4 * kPartitions * kLeastBlock);
    options_.threads = static_cast<unsigned int>(std::clamp<std::uint64_t>(
        options_.threads, 1, std::clamp<std::uint64_t>(mostWriters, 2, kMostThreads + 1) - 1));
    std::uint64_t const writers = options_.threads == 1 ? 1 : options_.threads + 1;
    auto const inBlock =
        static_cast<std::uint32_t>(std::clamp(tuples / (8 * kPartitions * writers), kLeastBlock, kLargestBlock));
    pool_ = std::make_unique<BlockPool>(tuples / inBlock, inBlock);
    for (unsigned int i = 0; i < writers; ++i) {
        writers_.push_back(std::make_unique<Writer>(*pool_, level));
    }
}

Partitions::~Partitions() = default;

std::uint64_t Partitions::BatchTuples() const {
    constexpr std::uint64_t kMost = 1UL << 15;
    std::uint64_t const batches = 2UL * options_.threads + 1;
    return std::min(kMost, pool_->Blocks() * pool_->TuplesInBlock() / (4 * batches));
}

bool Partitions::HasRoom(std::uint64_t tuples) {
    std::uint64_t const open = std::uint64_t{kPartitions} * writers_.size();
    std::uint64_t const needed = tuples / pool_->TuplesInBlock() + 1 + open;
    return pool_->Blocks() - pool_->Used() >= needed;
}

void Partitions::MakeRoom() {
    ForEachInParallel(options_.threads, kPartitions, [this](unsigned int partition) { Compact(partition); });
    if (pool_->Used() > pool_->Blocks() / 2) {
        Spill();
    }
}

template <class UseBlock>
void Partitions::ForEachBlock(List const& list, UseBlock use) const {
    for (SegmentTuple* const block : list.blocks) {
        use(std::span(block, block == list.blocks.back() ? list.inLast : pool_->TuplesInBlock()));
    }
}

// Merges the tuples of all writers in place, into the list of the first writer.
void Partitions::Compact(unsigned int partition) {
    std::uint32_t const inBlock = pool_->TuplesInBlock();
    std::vector<SegmentTuple*> blocks;
    TupleIndex index;
    std::uint32_t count = 0;
    auto const at = [&](std::uint32_t number) -> SegmentTuple& { return blocks[number / inBlock][number % inBlock]; };
    for (auto const& writer : writers_) {
        blocks.insert(blocks.end(), writer->lists_[partition].blocks.begin(), writer->lists_[partition].blocks.end());
    }
    // Writing never overtakes reading, because a block has at most `inBlock` tuples.
    for (auto const& writer : writers_) {
        ForEachBlock(writer->lists_[partition], [&](std::span<SegmentTuple> tuples) {
            for (SegmentTuple const& tuple : tuples) {
                std::uint32_t const found = index.FindOrAdd(tuple, count, at);
                if (found != TupleIndex::kNone) {
                    Merge(at(found), tuple);
                } else {
                    std::memmove(&at(count++), &tuple, sizeof tuple);
                }
            }
        });
    }
    std::size_t const kept = (count + inBlock - 1) / inBlock;
    std::for_each(blocks.begin() + static_cast<std::ptrdiff_t>(kept), blocks.end(),
                  [this](SegmentTuple* block) { pool_->Return(block); });
    blocks.resize(kept);
    for (auto const& writer : writers_) {
        writer->lists_[partition] = {};
    }
    writers_.front()->lists_[partition] = {std::move(blocks), count == 0 ? 0 : (count - 1) % inBlock + 1};
}

// Call it after Compact of all partitions.
void Partitions::Spill() {
    if (!file_) {
        file_ = std::make_shared<SpillFile>(options_.temporaryFolder);
    }
    ForEachInParallel(options_.threads, kPartitions, [this](unsigned int partition) {
        List& list = writers_.front()->lists_[partition];
        if (list.blocks.empty()) {
            return;
        }
        std::uint64_t const count = (list.blocks.size() - 1) * pool_->TuplesInBlock() + list.inLast;
        SpillFile::Extent extent(*file_, count, spilled_[partition].last);
        ForEachBlock(list, [&](std::span<SegmentTuple const> tuples) { extent.Append(tuples); });
        spilled_[partition].last = extent.Finish();
        for (SegmentTuple* const block : list.blocks) {
            pool_->Return(block);
        }
        list = {};
    });
}

void Partitions::Total(Use const& use) {
    bool const spilled = std::any_of(spilled_.begin(), spilled_.end(), [](Spilled const& part) { return part.Any(); });
    if (spilled) {
        ForEachInParallel(options_.threads, kPartitions, [this](unsigned int partition) { Compact(partition); });
        Spill();
        writers_.clear();
        pool_.reset(); // its memory is used to partition the spilled partitions
        ForEachInParallel(options_.threads, kPartitions, [&](unsigned int partition) { TotalOf(partition, use); });
        return;
    }
    ForEachInParallel(options_.threads, kPartitions, [&](unsigned int partition) {
        Compact(partition);
        ForEachBlock(writers_.front()->lists_[partition], use);
    });
}

void Partitions::TotalOf(unsigned int partition, Use const& use) {
    // Each level makes the parts 64 times smaller, so valid files do not reach this with any allowed memory.
    if (kBits * (level_ + 2) > std::numeric_limits<std::uint64_t>::digits) {
        throw Failure("the temporary files do not get smaller");
    }
    PartitionOptions const options{options_.memory / options_.threads, 1, options_.temporaryFolder};
    Partitions parts(options, level_ + 1, file_);
    file_->Read(spilled_[partition].last, [&](std::span<SegmentTuple const> tuples) {
        while (!tuples.empty()) {
            auto const batch = tuples.first(std::min<std::size_t>(tuples.size(), parts.BatchTuples()));
            if (!parts.HasRoom(batch.size())) {
                parts.MakeRoom();
            }
            for (SegmentTuple const& tuple : batch) {
                parts.WriterOf(0).Add(tuple);
            }
            tuples = tuples.subspan(batch.size());
        }
    });
    parts.Total(use);
}

} // namespace crrecord::tool
