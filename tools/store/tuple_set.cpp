#include "store/tuple_set.h"

#include "base/prefetch.h"

#include <bit>

namespace crrecord::tool {

namespace {

// Uses bits of the hash that are not in the tag.
std::size_t StartOf(std::uint64_t hash, std::size_t slots) {
    return (hash >> 32) * slots >> 32;
}

std::uint64_t PlaceHashOf(SegmentTuple const& tuple) {
    return MixOf(Load<std::uint64_t>(tuple.fingerprint) ^ kHashSeeds.first,
                 Load<std::uint64_t>(tuple.fingerprint + 8) ^ kHashSeeds.second);
}

constexpr std::uint64_t SlotsFor(std::uint64_t tuples) {
    return tuples + tuples / 2 + 1;
}
static_assert(SlotsFor(TupleSet::kMostTuples) <= std::numeric_limits<std::uint32_t>::max());

} // namespace

TupleSet::Run TupleSet::RunOf(std::span<SegmentTuple const> tuples, std::span<TuplePlace> places) {
    Run run{tuples};
    for (; run.first < tuples.size(); ++run.first) {
        std::uint64_t const hash = PlaceHashOf(tuples[run.first]);
        if (hash % kRemembered == 0) {
            run.tag = static_cast<std::uint32_t>(hash);
            run.place = &places[StartOf(hash, places.size())];
            __builtin_prefetch(run.place);
            break;
        }
    }
    return run;
}

void TupleSet::Add(Run const& run) {
    if (run.place) {
        bool const isKnown = run.place->tag == run.tag && run.place->number - run.first < size_;
        next_ = isKnown ? run.place->number - run.first : size_;
        if (isKnown) {
            Prefetch(&At(next_), 0, run.tuples.size() * sizeof(TupleBase));
        }
    }
    for (SegmentTuple const& tuple : run.tuples) {
        if (IsAt(next_, tuple) || FindPlace(tuple)) {
            MergeInto(At(next_++), tuple);
        } else {
            Append({&tuple, 1});
            next_ = size_;
        }
    }
}

bool TupleSet::FindPlace(SegmentTuple const& tuple) {
    std::uint64_t const hash = PlaceHashOf(tuple);
    if (hash % kRemembered != 0) {
        return false;
    }
    auto const tag = static_cast<std::uint32_t>(hash);
    TuplePlace& place = places_[StartOf(hash, places_.size())];
    if (place.tag == tag && IsAt(place.number, tuple)) {
        next_ = place.number;
        return true;
    }
    place = {tag, size_};
    return false;
}

void TupleSet::Append(std::span<SegmentTuple const> tuples) {
    std::uint32_t const last = pool_->TuplesInBlock() - 1;
    for (SegmentTuple const& tuple : tuples) {
        if ((size_ & last) == 0) {
            blocks_.push_back(pool_->Take());
        }
        Store(blocks_.back()[size_ & last], tuple);
        ++size_;
    }
}

void TupleSet::MergeInto(TupleBase& into, SegmentTuple const& more) const {
    if (more.flags == SegmentTuple::kInFirst && (into.flags & SegmentTuple::kInFirst) != 0 &&
        into.firstSize == more.firstSize) {
        return; // the most frequent case
    }
    SegmentTuple whole = Load(into);
    tool::Merge(whole, more);
    Store(into, whole);
}

void TupleSet::Merge(Index& index) {
    if (size_ == 0) {
        return;
    }
    std::size_t const slots = SlotsFor(size_);
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
        TupleBase const* const tuples = &At(from);
        if (std::uint32_t const ahead = from + 2 * kAtOnce; ahead < size_) {
            Prefetch(&At(ahead), 0, kAtOnce * sizeof(TupleBase));
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
                MergeInto(At(next), Load(tuples[i]));
            } else if (kept++ != from + i) {
                Store(At(next), Load(tuples[i]));
            }
            ++next;
        }
    }
    Truncate(kept);
}

std::uint32_t TupleSet::FindOrKeep(TupleBase const& tuple, std::uint64_t hash, std::uint32_t tagMask, Index& index,
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
