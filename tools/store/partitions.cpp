#include "store/partitions.h"

#include "io/failure.h"
#include "store/parallel.h"

#include <array>
#include <bit>
#include <numeric>

#include <sys/mman.h>

namespace crrecord::tool {

namespace {

// Returns: the number of tuples that fit together with their index.
constexpr std::uint64_t TuplesIn(std::uint64_t memory) {
    // A partition numbers its tuples with 32 bits.
    constexpr std::uint64_t kMost = std::numeric_limits<std::uint32_t>::max();
    return std::min(memory / (sizeof(SegmentTuple) + TupleSet::kMostIndexBytes), kMost);
}

} // namespace

BlockPool::BlockPool(std::uint64_t blocks, unsigned int tuplesBits) : blocks_(blocks), tuplesBits_(tuplesBits) {
    std::size_t const size = blocks * TuplesInBlock() * sizeof(SegmentTuple);
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
    ::munmap(memory_, blocks_ * TuplesInBlock() * sizeof(SegmentTuple));
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
        return memory_ + fresh_++ * TuplesInBlock();
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

// Uses bits of the hash that select neither the partition nor the tag.
std::size_t TupleSet::Start(std::uint64_t hash) const {
    constexpr std::uint64_t kOdd = 0x9e3779b97f4a7c15;
    return (hash * kOdd >> 20) & (slots_.size() - 1);
}

void TupleSet::MergeAll(std::span<SegmentTuple const* const> tuples, std::span<std::uint64_t const> hashes) {
    constexpr std::size_t kAtOnce = 64;
    while (!tuples.empty()) {
        std::size_t const count = std::min(tuples.size(), kAtOnce);
        while (4 * (std::uint64_t{size_} + count) > 3 * slots_.size()) {
            Grow();
        }
        // The slots and the tuples are mostly not in the caches: all are loaded at the same time.
        for (std::size_t i = 0; i < count; ++i) {
            __builtin_prefetch(&slots_[Start(hashes[i])]);
        }
        for (std::size_t i = 0; i < count; ++i) {
            std::uint64_t const slot = slots_[Start(hashes[i])];
            if (slot != kFree) {
                auto const* const bytes = reinterpret_cast<unsigned char const*>(&At(slot));
                __builtin_prefetch(bytes);
                __builtin_prefetch(bytes + sizeof(SegmentTuple) - 1);
            }
        }
        for (std::size_t i = 0; i < count; ++i) {
            MergeOne(*tuples[i], hashes[i]);
        }
        tuples = tuples.subspan(count);
        hashes = hashes.subspan(count);
    }
}

void TupleSet::MergeOne(SegmentTuple const& tuple, std::uint64_t hash) {
    std::uint64_t const tag = hash & kTagMask;
    std::size_t i = Start(hash);
    for (; slots_[i] != kFree; i = (i + 1) & (slots_.size() - 1)) {
        if ((slots_[i] & kTagMask) == tag && IsSameSegment(At(slots_[i]), tuple)) {
            Merge(At(slots_[i]), tuple);
            return;
        }
    }
    slots_[i] = tag | size_;
    Append(tuple);
}

void TupleSet::Append(SegmentTuple const& tuple) {
    if ((size_ & (pool_->TuplesInBlock() - 1)) == 0) {
        blocks_.push_back(pool_->Take());
    }
    At(size_) = tuple;
    ++size_;
}

void TupleSet::Grow() {
    std::size_t const size = std::max<std::size_t>(64, 2 * slots_.size());
    slots_ = {}; // never both in memory
    slots_.resize(size, kFree);
    std::uint32_t number = 0;
    ForEachBlock([&](std::span<SegmentTuple const> tuples) {
        for (SegmentTuple const& tuple : tuples) {
            std::uint64_t const hash = HashOf(tuple);
            std::size_t i = Start(hash);
            while (slots_[i] != kFree) {
                i = (i + 1) & (size - 1);
            }
            slots_[i] = (hash & kTagMask) | number++;
        }
    });
}

void TupleSet::Clear() {
    for (SegmentTuple* const block : blocks_) {
        pool_->Return(block);
    }
    blocks_.clear();
    size_ = 0;
    std::fill(slots_.begin(), slots_.end(), kFree);
}

Partitions::Partitions(PartitionOptions const& options) : Partitions(options, 0, nullptr) {}

Partitions::Partitions(PartitionOptions const& options, unsigned int level, std::shared_ptr<SpillFile> file)
    : options_(options), level_(level), file_(std::move(file)) {
    constexpr std::uint64_t kLeastBlock = 16;
    constexpr std::uint64_t kLargestBlock = 1024;
    // At the end each thread has a partition, and at least this memory for it.
    constexpr std::uint64_t kLeastForThread = kLeastMemory / 2;
    options_.threads = static_cast<unsigned int>(std::clamp<std::uint64_t>(
        options_.threads, 1, std::clamp<std::uint64_t>(options_.memory / kLeastForThread, 1, kMostThreads)));
    std::uint64_t const tuples = TuplesIn(options_.memory);
    // Each partition has a block that is not full: an eighth of the memory at most.
    std::uint64_t const inBlock = std::bit_floor(std::clamp(tuples / (8 * kPartitions), kLeastBlock, kLargestBlock));
    pool_ = std::make_unique<BlockPool>(tuples / inBlock, static_cast<unsigned int>(std::countr_zero(inBlock)));
    for (unsigned int i = 0; i < kPartitions; ++i) {
        partitions_.emplace_back(*pool_);
    }
}

std::uint64_t Partitions::BatchTuples() const {
    constexpr std::uint64_t kMost = 1UL << 15;
    constexpr std::uint64_t kMostOfAll = 1UL << 18; // for the memory of the batches
    std::uint64_t const batches = 2UL * options_.threads + 1;
    return std::min({kMost, kMostOfAll / batches, pool_->Blocks() * pool_->TuplesInBlock() / (4 * batches)});
}

bool Partitions::HasRoom(std::uint64_t tuples) {
    std::uint64_t const needed = tuples / pool_->TuplesInBlock() + 1 + kPartitions;
    return pool_->Blocks() - pool_->Used() >= needed;
}

unsigned int Partitions::PartitionOf(std::uint64_t hash) const {
    unsigned int const level = level_ < kContainerLevels ? level_ : level_ - kContainerLevels;
    return hash >> (level * kBits) & (kPartitions - 1);
}

void Partitions::Add(std::span<SegmentTuple const> tuples) {
    while (!tuples.empty()) {
        std::size_t const count = std::min(tuples.size(), kMostAtOnce);
        AddSome(tuples.first(count));
        tuples = tuples.subspan(count);
    }
}

void Partitions::AddSome(std::span<SegmentTuple const> tuples) {
    std::array<std::uint64_t, kMostAtOnce> hashes;
    std::array<unsigned char, kMostAtOnce> numbers; // of partitions
    std::array<std::size_t, kPartitions + 1> ends{};
    std::uint64_t dcid = tuples.front().dcid;
    unsigned int ofContainer = PartitionOf(HashOfNumber(dcid));
    for (std::size_t i = 0; i < tuples.size(); ++i) {
        if (tuples[i].dcid != dcid) {
            dcid = tuples[i].dcid;
            ofContainer = PartitionOf(HashOfNumber(dcid));
        }
        hashes[i] = HashOf(tuples[i]);
        unsigned int const number = level_ < kContainerLevels ? ofContainer : PartitionOf(hashes[i]);
        numbers[i] = static_cast<unsigned char>(number);
        ++ends[number + 1];
    }
    std::partial_sum(ends.begin(), ends.end(), ends.begin());
    std::array<SegmentTuple const*, kMostAtOnce> sorted;
    std::array<std::uint64_t, kMostAtOnce> sortedHashes;
    std::array<std::size_t, kPartitions + 1> next = ends;
    for (std::size_t i = 0; i < tuples.size(); ++i) {
        std::size_t const to = next[numbers[i]]++;
        sorted[to] = &tuples[i];
        sortedHashes[to] = hashes[i];
    }
    // Threads start with different partitions, so that they seldom wait for each other.
    unsigned int const first = numbers[0];
    for (unsigned int i = 0; i < kPartitions; ++i) {
        unsigned int const number = (first + i) % kPartitions;
        std::size_t const begin = ends[number];
        std::size_t const count = ends[number + 1] - begin;
        if (count != 0) {
            std::lock_guard const lock(partitions_[number].mutex);
            partitions_[number].tuples.MergeAll({&sorted[begin], count}, {&sortedHashes[begin], count});
        }
    }
}

void Partitions::MakeRoom() {
    if (!file_) {
        file_ = std::make_shared<SpillFile>(options_.temporaryFolder);
    }
    ForEachInParallel(options_.threads, kPartitions, [this](unsigned int number) {
        auto& [mutex, tuples, spilled] = partitions_[number];
        if (tuples.size() != 0) {
            SpillFile::Extent extent(*file_, tuples.size(), spilled);
            tuples.ForEachBlock([&](std::span<SegmentTuple const> some) { extent.Append(some); });
            spilled = extent.Finish();
            tuples.Clear();
        }
    });
}

void Partitions::Total(Use const& use) {
    bool const isSpilled = std::any_of(partitions_.begin(), partitions_.end(),
                                       [](Partition const& part) { return part.spilled != SpillFile::kNone; });
    if (!isSpilled) {
        ForEachInParallel(options_.threads, kPartitions,
                          [&](unsigned int number) { partitions_[number].tuples.ForEachBlock(use); });
        return;
    }
    MakeRoom();
    std::vector<std::uint64_t> spilled;
    for (Partition const& partition : partitions_) {
        spilled.push_back(partition.spilled);
    }
    partitions_.clear();
    pool_.reset(); // its memory is used to partition the spilled partitions
    ForEachInParallel(options_.threads, kPartitions, [&](unsigned int number) { TotalOf(spilled[number], use); });
}

void Partitions::TotalOf(std::uint64_t spilled, Use const& use) {
    // The parts of each level of segments are 64 times smaller, so valid files do not reach this with any allowed
    // memory.
    if (level_ > kContainerLevels && kBits * (level_ + 2 - kContainerLevels) > std::numeric_limits<std::uint64_t>::digits) {
        throw Failure("the temporary files do not get smaller");
    }
    PartitionOptions const options{options_.memory / options_.threads, 1, options_.temporaryFolder};
    Partitions parts(options, level_ + 1, file_);
    file_->Read(spilled, [&](std::span<SegmentTuple const> tuples) {
        while (!tuples.empty()) {
            auto const batch = tuples.first(std::min<std::size_t>(tuples.size(), parts.BatchTuples()));
            if (!parts.HasRoom(batch.size())) {
                parts.MakeRoom();
            }
            parts.Add(batch);
            tuples = tuples.subspan(batch.size());
        }
    });
    parts.Total(use);
}

} // namespace crrecord::tool
