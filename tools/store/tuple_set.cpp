#include "store/tuple_set.h"

#include "base/prefetch.h"

#include <array>
#include <bit>

namespace crrecord::tool {

namespace {

// Uses bits of the hash that are not in the tag.
std::size_t StartOf(std::uint64_t hash, std::size_t slots) {
    return (hash >> 32) * slots >> 32;
}

} // namespace

void TupleSet::Append(std::span<SegmentTuple const> tuples) {
    while (!tuples.empty()) {
        std::uint32_t const inLast = size_ & (pool_->TuplesInBlock() - 1);
        if (inLast == 0) {
            blocks_.push_back(pool_->Take());
        }
        auto const count =
            static_cast<std::uint32_t>(std::min<std::size_t>(tuples.size(), pool_->TuplesInBlock() - inLast));
        std::memcpy(&blocks_.back()[inLast], tuples.data(), count * sizeof(SegmentTuple));
        size_ += count;
        tuples = tuples.subspan(count);
    }
}

void TupleSet::Merge(Index& index) {
    if (size_ == 0) {
        return;
    }
    std::size_t const slots = size_ + size_ / 2 + 1;
    if (index.capacity() < slots) {
        index = {}; // never both in memory
    }
    index.assign(slots, kFree);
    auto const tagMask = static_cast<std::uint32_t>(~std::uint64_t{0} << std::bit_width(size_));
    std::uint32_t kept = 0;
    std::uint32_t next = 0; // after the tuple that was found or kept last: segments repeat in runs
    std::array<std::uint64_t, kAtOnce> hashes;
    for (std::uint32_t from = 0; from < size_; from += kAtOnce) {
        std::uint32_t const count = std::min(kAtOnce, size_ - from);
        SegmentTuple const* const tuples = &At(from);
        if (std::uint32_t const ahead = from + 2 * kAtOnce; ahead < size_) {
            Prefetch(&At(ahead), 0, kAtOnce * sizeof(SegmentTuple));
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            hashes[i] = HashOf(tuples[i]);
            __builtin_prefetch(&index[StartOf(hashes[i], slots)]);
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            if (next >= kept || !IsSameSegment(At(next), tuples[i])) {
                next = FindOrKeep(tuples[i], hashes[i], tagMask, index, kept);
            }
            if (next != kept) {
                tool::Merge(At(next), tuples[i]);
            } else if (kept++ != from + i) {
                At(next) = tuples[i];
            }
            ++next;
        }
    }
    Truncate(kept);
}

std::uint32_t TupleSet::FindOrKeep(SegmentTuple const& tuple, std::uint64_t hash, std::uint32_t tagMask, Index& index,
                                   std::uint32_t kept) const {
    std::uint32_t const tag = static_cast<std::uint32_t>(hash) & tagMask;
    std::size_t slot = StartOf(hash, index.size());
    while (index[slot] != kFree) {
        std::uint32_t const number = index[slot] & ~tagMask;
        if ((index[slot] & tagMask) == tag && IsSameSegment(At(number), tuple)) {
            return number;
        }
        slot = slot + 1 == index.size() ? 0 : slot + 1;
    }
    index[slot] = tag | kept;
    return kept;
}

void TupleSet::Truncate(std::uint32_t size) {
    size_ = size;
    std::uint64_t const blocks = (std::uint64_t{size} + pool_->TuplesInBlock() - 1) >> pool_->TuplesBits();
    while (blocks_.size() > blocks) {
        pool_->Return(blocks_.back());
        blocks_.pop_back();
    }
}

} // namespace crrecord::tool
