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

void* MapPages(std::size_t size) {
    void* const pages =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return pages;
}

void UnmapPages(void* pages, std::size_t size) {
    ::munmap(pages, size);
}

BlockPool::BlockPool(std::uint64_t blocks, unsigned int tuplesBits) : blocks_(blocks), tuplesBits_(tuplesBits) {
    std::size_t const size = blocks * TuplesInBlock() * sizeof(SegmentTuple);
    memory_ = static_cast<SegmentTuple*>(MapPages(size));
    [[maybe_unused]] int const advised = ::madvise(memory_, size, MADV_HUGEPAGE); // for speed only
}

BlockPool::~BlockPool() {
    UnmapPages(memory_, blocks_ * TuplesInBlock() * sizeof(SegmentTuple));
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

std::size_t TupleSet::After(std::size_t slot, std::uint64_t hash) const {
    std::size_t const inLine = (slot + 1) % kInLine;
    std::size_t const line = slot - slot % kInLine;
    return inLine != Start(hash) % kInLine ? line + inLine : ((line + kInLine) & (slots_.size() - 1)) + inLine;
}

std::size_t TupleSet::Candidate(std::size_t slot, std::uint64_t hash) const {
    while (slots_[slot] != kFree && (slots_[slot] & kTagMask) != (hash & kTagMask)) {
        slot = After(slot, hash);
    }
    return slot;
}

void TupleSet::MergeAll(std::span<SegmentTuple const* const> tuples, std::span<std::uint64_t const> hashes) {
    constexpr std::size_t kAtOnce = 64;
    std::array<std::size_t, kAtOnce> candidates;
    while (!tuples.empty()) {
        std::size_t const count = std::min(tuples.size(), kAtOnce);
        while (4 * (std::uint64_t{size_} + count) > 3 * slots_.size()) {
            Grow();
        }
        // The slots and the tuples are mostly not in the caches: many are loaded at the same time.
        for (std::size_t i = 0; i < count; ++i) {
            __builtin_prefetch(&slots_[Start(hashes[i])]);
        }
        for (std::size_t i = 0; i < count; ++i) {
            candidates[i] = Candidate(Start(hashes[i]), hashes[i]);
            if (slots_[candidates[i]] != kFree) {
                auto const* const bytes = reinterpret_cast<unsigned char const*>(&At(slots_[candidates[i]]));
                __builtin_prefetch(bytes);
                __builtin_prefetch(bytes + sizeof(SegmentTuple) - 1);
            }
        }
        for (std::size_t i = 0; i < count; ++i) {
            MergeOne(*tuples[i], hashes[i], candidates[i]);
        }
        tuples = tuples.subspan(count);
        hashes = hashes.subspan(count);
    }
}

void TupleSet::MergeOne(SegmentTuple const& tuple, std::uint64_t hash, std::size_t candidate) {
    std::size_t slot = Candidate(candidate, hash);
    while (slots_[slot] != kFree) {
        if (IsSameSegment(At(slots_[slot]), tuple)) {
            Merge(At(slots_[slot]), tuple);
            return;
        }
        slot = Candidate(After(slot, hash), hash);
    }
    slots_[slot] = (hash & kTagMask) | size_;
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
            std::size_t slot = Start(hash);
            while (slots_[slot] != kFree) {
                slot = After(slot, hash);
            }
            slots_[slot] = (hash & kTagMask) | number++;
        }
    });
}

void TupleSet::Clear() {
    for (SegmentTuple* const block : blocks_) {
        pool_->Return(block);
    }
    blocks_ = {};
    slots_ = {};
    size_ = 0;
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
    unsigned int const shift = level_ == 0 ? 0 : (level_ - 1) * kBits;
    return hash >> shift & (kPartitions - 1);
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
        unsigned int const number = level_ == 0 ? ofContainer : PartitionOf(hashes[i]);
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
    // Partitions that have tuples in the file must be read from there anyway, and large ones make long extents.
    std::vector<Partition*> order;
    for (Partition& partition : partitions_) {
        order.push_back(&partition);
    }
    std::sort(order.begin(), order.end(), [](Partition const* a, Partition const* b) {
        return std::pair(a->IsSpilled(), a->tuples.size()) > std::pair(b->IsSpilled(), b->tuples.size());
    });
    std::uint64_t const wanted = pool_->Blocks() / 3;
    std::uint64_t free = pool_->Blocks() - pool_->Used();
    auto const end = std::find_if(order.begin(), order.end(), [&](Partition const* partition) {
        bool const isEnough = free >= wanted;
        free += partition->tuples.Blocks();
        return isEnough;
    });
    Spill({order.begin(), end});
}

void Partitions::Spill(std::vector<Partition*> const& partitions) {
    if (!file_) {
        file_ = std::make_shared<SpillFile>(options_.temporaryFolder);
    }
    ForEachInParallel(options_.threads, static_cast<unsigned int>(partitions.size()), [&](unsigned int i) {
        auto& [mutex, tuples, spilled] = *partitions[i];
        if (tuples.size() != 0) {
            SpillFile::Extent extent(*file_, tuples.size(), spilled);
            tuples.ForEachBlock([&](std::span<SegmentTuple const> some) { extent.Append(some); });
            spilled = extent.Finish();
            tuples.Clear();
        }
    });
}

void Partitions::Total(Use const& use) {
    std::vector<Partition*> isSpilled;
    for (Partition& partition : partitions_) {
        if (partition.IsSpilled()) {
            isSpilled.push_back(&partition);
        }
    }
    if (!isSpilled.empty()) {
        Spill(isSpilled);
    }
    ForEachInParallel(options_.threads, kPartitions, [&](unsigned int i) {
        partitions_[i].tuples.ForEachBlock(use);
        partitions_[i].tuples.Clear();
    });
    pool_.reset(); // its memory is used to partition the spilled partitions
    ForEachInParallel(options_.threads, static_cast<unsigned int>(isSpilled.size()),
                      [&](unsigned int i) { TotalOf(isSpilled[i]->spilled, use); });
}

void Partitions::TotalOf(std::uint64_t spilled, Use const& use) {
    // Each level of segments makes the parts 64 times smaller, so valid files do not reach this with any allowed
    // memory.
    if (kBits * (level_ + 1) > std::numeric_limits<std::uint64_t>::digits) {
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
