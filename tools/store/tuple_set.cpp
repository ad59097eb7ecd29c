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

bool IsRemembered(std::uint64_t hash) {
    return hash % TupleSet::kRemembered == 0;
}

// An index that fits the first caches has more free slots, so that fewer tuples collide.
constexpr std::uint64_t SlotsFor(std::uint64_t tuples) {
    constexpr std::uint64_t kInCache = 16384;
    return std::max(tuples + tuples / 2 + 1, std::min(4 * tuples, kInCache));
}
static_assert(SlotsFor(TupleSet::kMostTuples) <= std::numeric_limits<std::uint32_t>::max());

} // namespace

TupleSet::Run TupleSet::RunOf(std::span<SegmentTuple const> tuples, std::span<TuplePlace> places) {
    Run run{tuples};
    for (std::uint32_t i = 0; i < tuples.size(); ++i) {
        std::uint64_t const hash = PlaceHashOf(tuples[i]);
        if (IsRemembered(hash)) {
            TuplePlace* const place = &places[StartOf(hash, places.size())];
            __builtin_prefetch(place);
            if (!run.place) {
                run.place = place;
                run.tag = static_cast<std::uint32_t>(hash);
                run.before = i;
            }
        }
    }
    return run;
}

void TupleSet::Find(Run& run) const {
    bool const isKnown = run.place->tag == run.tag && run.place->number - run.before < size_;
    run.next = isKnown ? run.place->number - run.before : size_;
    if (isKnown) {
        Prefetch(&At(run.next), 0, run.tuples.size() * sizeof(TupleBase));
    }
}

void TupleSet::Add(Run const& run) {
    if (run.place) {
        next_ = run.next;
    }
    for (auto tuples = run.tuples; !tuples.empty();) {
        tuples = tuples.subspan(MergeNext(tuples));
        if (!tuples.empty() && !FindPlace(tuples.front())) {
            auto const end = std::find_if(tuples.begin() + 1, tuples.end(),
                                          [](SegmentTuple const& tuple) { return IsRemembered(PlaceHashOf(tuple)); });
            auto const fresh = tuples.first(static_cast<std::size_t>(end - tuples.begin()));
            Append(fresh);
            next_ = size_;
            tuples = tuples.subspan(fresh.size());
        }
    }
}

std::size_t TupleSet::MergeNext(std::span<SegmentTuple const> tuples) {
    std::size_t merged = 0;
    while (merged < tuples.size() && next_ < size_) {
        TupleBase* const into = &At(next_);
        std::size_t const most = std::min<std::size_t>({tuples.size() - merged, size_ - next_, LeftInBlock(next_)});
        std::size_t same = 0;
        for (; same < most && IsSameSegment(into[same], tuples[merged + same]); ++same) {
            MergeInto(into[same], tuples[merged + same]);
        }
        next_ += static_cast<std::uint32_t>(same);
        merged += same;
        if (same < most) {
            break;
        }
    }
    return merged;
}

bool TupleSet::FindPlace(SegmentTuple const& tuple) {
    std::uint64_t const hash = PlaceHashOf(tuple);
    if (!IsRemembered(hash)) {
        return false;
    }
    auto const tag = static_cast<std::uint32_t>(hash);
    TuplePlace& place = places_[StartOf(hash, places_.size())];
    if (place.tag == tag && place.number < size_ && IsSameSegment(At(place.number), tuple)) {
        next_ = place.number;
        return true;
    }
    place = {tag, size_};
    return false;
}

void TupleSet::Append(std::span<SegmentTuple const> tuples) {
    while (!tuples.empty()) {
        if (LeftInBlock(size_) == pool_->TuplesInBlock()) {
            blocks_.push_back(pool_->Take());
        }
        TupleBase* to = &At(size_);
        auto const some = tuples.first(std::min<std::size_t>(tuples.size(), LeftInBlock(size_)));
        for (SegmentTuple const& tuple : some) {
            Store(*to++, tuple);
        }
        size_ += static_cast<std::uint32_t>(some.size());
        tuples = tuples.subspan(some.size());
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
