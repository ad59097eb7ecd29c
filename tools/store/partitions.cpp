#include "store/partitions.h"

#include "io/failure.h"
#include "store/parallel.h"

#include <atomic>
#include <bit>

namespace crrecord::tool {

namespace {

constexpr unsigned int kBits = 6; // of a segment's hash for each level
constexpr std::uint64_t kFewestPartitions = 1U << kBits;

// Returns: the number of tuples that fit together with their index.
constexpr std::uint64_t TuplesIn(std::uint64_t memory) {
    constexpr std::uint64_t kPlaceBytes = 1; // at most
    static_assert(sizeof(TuplePlace) <= TupleSet::kRemembered * kPlaceBytes);
    return std::min(memory / (BlockPool::kTupleBytes + TupleSet::kIndexBytes + kPlaceBytes),
                    TupleSet::kMostTuples); // they may be in one partition
}

} // namespace

Partitions::Partitions(PartitionOptions const& options) : Partitions(options, 0, {}) {}

Partitions::Partitions(PartitionOptions const& options, unsigned int level,
                       std::vector<std::shared_ptr<SpillFile>> files)
    : options_(options), level_(level), files_(std::move(files)) {
    constexpr std::uint64_t kLeastBlock = TupleSet::kAtOnce;
    constexpr std::uint64_t kLargestBlock = 256;
    // At the end each thread has a partition, and at least this memory for it.
    constexpr std::uint64_t kLeastForThread = kLeastMemory / 2;
    options_.threads = static_cast<unsigned int>(std::clamp<std::uint64_t>(
        options_.threads, 1, std::clamp<std::uint64_t>(options_.memory / kLeastForThread, 1, kMostThreads)));
    std::uint64_t const tuples = TuplesIn(options_.memory);
    // A partition with its index fits a processor's cache while it is merged, if the memory is full.
    // Spilled ones become larger, as the file does.
    constexpr std::uint64_t kInPartition = 1024;
    constexpr std::uint64_t kMostPartitions = 2048;
    std::uint64_t const partitions =
        level_ != 0 ? kFewestPartitions
                    : std::bit_floor(std::clamp(tuples / kInPartition, kFewestPartitions, kMostPartitions));
    // Each partition has a block that is not full: an eighth of the memory at most.
    std::uint64_t const inBlock = std::bit_floor(std::clamp(tuples / (8 * partitions), kLeastBlock, kLargestBlock));
    pool_ = std::make_unique<BlockPool>(tuples / inBlock, static_cast<unsigned int>(std::countr_zero(inBlock)),
                                        partitions, tuples / partitions / TupleSet::kRemembered + 1);
    for (std::uint64_t i = 0; i < partitions; ++i) {
        partitions_.emplace_back(*pool_, pool_->Places(i), static_cast<unsigned int>(i % options_.threads));
    }
    // Half of it for the batches of all threads, and a block for each partition.
    std::uint64_t const least = BatchTuples() * (4 * options_.threads + 2) / inBlock + 4 * partitions;
    limit_ = std::min(std::max(pool_->Blocks() / 16, least), pool_->Blocks());
}

std::uint64_t Partitions::BatchTuples() const {
    constexpr std::uint64_t kMost = 1UL << 13;
    std::uint64_t const batches = 2UL * options_.threads + 1;
    return std::min(kMost, pool_->Blocks() * pool_->TuplesInBlock() / (4 * batches));
}

bool Partitions::HasSpace(std::uint64_t tuples) {
    std::uint64_t const needed = tuples / pool_->TuplesInBlock() + 1 + partitions_.size();
    return limit_ - pool_->Used() >= needed;
}

std::size_t Partitions::NumberOf(SegmentTuple const& tuple) const {
    std::uint64_t const hash = level_ == 0 ? HashOfNumber(tuple.dcid) : HashOf(tuple) >> ((level_ - 1) * kBits);
    return hash & (partitions_.size() - 1);
}

std::span<SegmentTuple const> Partitions::FirstRun(std::span<SegmentTuple const> tuples) const {
    auto const end = std::find_if(tuples.begin(), tuples.end(), [&](SegmentTuple const& tuple) {
        return level_ == 0 ? tuple.dcid != tuples.front().dcid : NumberOf(tuple) != NumberOf(tuples.front());
    });
    return tuples.first(static_cast<std::size_t>(end - tuples.begin()));
}

void Partitions::Add(std::span<SegmentTuple const> tuples) {
    struct Step {
        Partition* partition = nullptr;
        TupleSet::Run run;
    };
    // Of three runs at a time, one is added, and for the others memory is prefetched.
    Step begun;
    Step found;
    while (!tuples.empty() || begun.partition || found.partition) {
        Step const next = found;
        found = begun;
        begun = {};
        if (!tuples.empty()) {
            std::size_t const number = NumberOf(tuples.front());
            begun.partition = &partitions_[number];
            Prefetch(begun.partition, 0, sizeof *begun.partition);
            auto const first = FirstRun(tuples);
            // Few tuples of a spilled partition are in memory, so others are rarely of the same segments.
            begun.run =
                begun.partition->IsSpilled() ? TupleSet::Run{first} : TupleSet::RunOf(first, pool_->Places(number));
            tuples = tuples.subspan(first.size());
        }
        if (found.run.place) {
            std::lock_guard const lock(found.partition->mutex);
            found.partition->tuples.Find(found.run);
        }
        if (next.partition) {
            std::lock_guard const lock(next.partition->mutex);
            next.partition->IsSpilled() ? next.partition->tuples.Append(next.run.tuples)
                                        : next.partition->tuples.Add(next.run);
        }
    }
}

void Partitions::AddAll(std::span<SegmentTuple const> tuples) {
    while (!tuples.empty()) {
        auto const batch = tuples.first(std::min<std::size_t>(tuples.size(), BatchTuples()));
        if (!HasSpace(batch.size())) {
            FreeMemory();
        }
        Add(batch);
        tuples = tuples.subspan(batch.size());
    }
}

bool Partitions::MergingFreesThird() {
    TupleSet::Index index;
    std::uint64_t before = 0;
    std::uint64_t after = 0;
    for (std::size_t i = 0; i < partitions_.size() && 16 * before < limit_ << pool_->TuplesBits(); ++i) {
        TupleSet& tuples = partitions_[next_++ % partitions_.size()].tuples;
        before += tuples.size();
        tuples.Merge(index);
        after += tuples.size();
    }
    return 3 * (before - after) >= before;
}

void Partitions::FreeMemory() {
    if (MergingFreesThird()) {
        ForEachInParallel(
            options_.threads, static_cast<unsigned int>(partitions_.size()),
            [this, index = TupleSet::Index()](unsigned int i) mutable { partitions_[i].tuples.Merge(index); });
    }
    if (!IsThirdFree()) {
        limit_ = std::min(limit_ + limit_ / 2, pool_->Blocks());
    }
    if (!IsThirdFree()) {
        SpillSome();
    }
}

void Partitions::SpillSome() {
    // Partitions that have tuples in the file must be read from there anyway, and large ones make long extents.
    std::vector<Partition*> order;
    for (Partition& partition : partitions_) {
        order.push_back(&partition);
    }
    std::sort(order.begin(), order.end(), [](Partition const* a, Partition const* b) {
        return std::pair(a->IsSpilled(), a->tuples.size()) > std::pair(b->IsSpilled(), b->tuples.size());
    });
    std::uint64_t const wanted = limit_ / 3;
    std::uint64_t free = limit_ - pool_->Used();
    auto const end = std::find_if(order.begin(), order.end(), [&](Partition const* partition) {
        bool const isEnough = free >= wanted;
        free += partition->tuples.Blocks();
        return isEnough;
    });
    Spill({order.begin(), end});
}

void Partitions::Spill(std::vector<Partition*> const& partitions) {
    // Not in other threads: only the main one can delay a signal while a file has a name.
    while (!partitions.empty() && files_.size() < options_.threads) {
        files_.push_back(std::make_shared<SpillFile>(options_.temporaryFolder));
    }
    ForEachInParallel(options_.threads, static_cast<unsigned int>(files_.size()), [&](unsigned int file) {
        SpillFile::Writer writer(*files_[file]);
        for (Partition* const partition : partitions) {
            if (partition->file == file) {
                partition->tuples.ForEachBlock(
                    [&](TupleBlock const& block) { writer.Append(partition->spilled, block); });
                partition->tuples.Clear();
            }
        }
        writer.Finish();
    });
}

void Partitions::Total(Use const& use) {
    std::vector<Partition*> spilled;
    for (Partition& partition : partitions_) {
        if (partition.IsSpilled()) {
            spilled.push_back(&partition);
        }
    }
    Spill(spilled);
    auto total = [&use, index = TupleSet::Index()](TupleSet& tuples) mutable {
        tuples.Merge(index);
        tuples.ForEachBlock(use);
        tuples.Clear();
    };
    ForEachInParallel(options_.threads, static_cast<unsigned int>(partitions_.size()),
                      [this, total](unsigned int i) mutable { total(partitions_[i].tuples); });
    auto const end = std::partition(spilled.begin(), spilled.end(), [this](Partition const* partition) {
        return partition->spilled.tuples / pool_->TuplesInBlock() < pool_->Blocks() / options_.threads;
    });
    auto const fit = static_cast<unsigned int>(end - spilled.begin());
    ForEachInParallel(options_.threads, fit, [&, total](unsigned int i) mutable {
        TupleSet& tuples = spilled[i]->tuples;
        files_[spilled[i]->file]->Read(spilled[i]->spilled,
                                       [&tuples](std::span<SegmentTuple const> some) { tuples.Append(some); });
        total(tuples);
    });
    pool_.reset(); // its memory is used to partition the others
    std::atomic<std::size_t> next{fit};
    // Each thread writes to a different file.
    ForEachInParallel(options_.threads, static_cast<unsigned int>(files_.size()), [&](unsigned int file) {
        try {
            for (std::size_t i = next++; i < spilled.size(); i = next++) {
                Repartition(*spilled[i], files_[file], use);
            }
        } catch (...) {
            next = spilled.size(); // the other threads end
            throw;
        }
    });
}

void Partitions::Repartition(Partition const& partition, std::shared_ptr<SpillFile> const& file, Use const& use) {
    // Each level of segments makes the parts 64 times smaller, so valid files do not reach this with any allowed
    // memory.
    if (kBits * (level_ + 1) > std::numeric_limits<std::uint64_t>::digits) {
        throw Failure("the temporary files do not get smaller");
    }
    PartitionOptions const options{options_.memory / options_.threads, 1, options_.temporaryFolder};
    Partitions parts(options, level_ + 1, {file});
    files_[partition.file]->Read(partition.spilled,
                                 [&parts](std::span<SegmentTuple const> tuples) { parts.AddAll(tuples); });
    parts.Total(use);
}

} // namespace crrecord::tool
