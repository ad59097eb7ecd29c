#include "store/segment_set.h"

#include "base/prefetch.h"

#include <bit>

namespace crrecord::tool {

namespace {

// Tuples that are indexed at a time.
constexpr std::size_t kAtOnce = 64;
constexpr std::uint64_t kFree = std::numeric_limits<std::uint64_t>::max(); // a slot without a tuple
constexpr std::uint64_t kMostTuples = std::numeric_limits<std::uint32_t>::max();

// Of the serialized form.
constexpr std::size_t kHeadSize = 2 * sizeof(std::uint64_t);
constexpr std::size_t kSizeAt = 8, kTypeAt = 12, kConflictAt = 13, kFingerprintAt = 14; // of a segment
constexpr std::size_t kNarrow = 16, kWide = sizeof SegmentTuple::fingerprint;

bool HasConflict(SegmentTuple const& tuple) {
    return (tuple.flags & SegmentTuple::kFirstDiffers) != 0;
}

bool IsWide(SegmentTuple const& tuple) {
    return tuple.fptype == CR_FP_TYPE_SHA256;
}

// A hash that is the same in all processes and on all machines, unlike HashOf.
std::uint64_t SplitHashOf(SegmentTuple const& tuple) {
    constexpr std::uint64_t kFirst = 0x9e3779b97f4a7c15, kSecond = 0xc2b2ae3d27d4eb4f;
    std::uint64_t hash = MixOf(tuple.dcid ^ kFirst, kSecond - tuple.fptype);
    for (std::size_t at = 0; at < sizeof tuple.fingerprint; at += 16) {
        hash = MixOf(Load<std::uint64_t>(tuple.fingerprint + at, Order::Network) ^ hash,
                     Load<std::uint64_t>(tuple.fingerprint + at + 8, Order::Network) ^ kSecond);
    }
    return MixOf(hash ^ kFirst, kSecond);
}

// Returns: `parts` * hash / 2^64.
std::size_t PartOf(std::uint64_t hash, std::size_t parts) {
    __extension__ using Product = unsigned __int128;
    return static_cast<std::size_t>(Product{hash} * parts >> 64);
}

void Require(bool isGood, char const* reason) {
    if (!isGood) {
        throw SegmentSet::BadSet(std::string("not a serialized set of segments: ") + reason);
    }
}

// Returns: the end.
unsigned char* Write(SegmentTuple const& tuple, unsigned char* to) {
    Store(to, tuple.dcid, Order::Network);
    Store(to + kSizeAt, tuple.firstSize, Order::Network);
    to[kTypeAt] = tuple.fptype;
    to[kConflictAt] = HasConflict(tuple) ? 1 : 0;
    std::size_t const width = IsWide(tuple) ? kWide : kNarrow;
    std::memcpy(to + kFingerprintAt, tuple.fingerprint, width);
    return to + kFingerprintAt + width;
}

SegmentTuple Read(unsigned char const* from, std::size_t width) {
    SegmentTuple tuple{};
    tuple.dcid = Load<std::uint64_t>(from, Order::Network);
    tuple.firstSize = Load<std::uint32_t>(from + kSizeAt, Order::Network);
    tuple.fptype = from[kTypeAt];
    std::uint8_t const conflict = from[kConflictAt];
    Require(tuple.fptype <= CR_FP_TYPE_LAST && IsWide(tuple) == (width == kWide), "bad fingerprint type");
    Require(conflict <= 1, "bad flag");
    tuple.flags = SegmentTuple::kInFirst | (conflict != 0 ? SegmentTuple::kFirstDiffers : 0);
    std::memcpy(tuple.fingerprint, from + kFingerprintAt, width);
    return tuple;
}

} // namespace

void SegmentSet::Add(DORecordView const& record) {
    SegmentTuple tuple{}; // zeros remain after a 16-byte fingerprint
    tuple.fptype = record.GetFPType();
    tuple.flags = SegmentTuple::kInFirst;
    for (DOSegment const& segment : record.Segments()) {
        tuple.dcid = segment.dcid;
        tuple.firstSize = segment.size;
        std::memcpy(tuple.fingerprint, segment.fingerprint.data, segment.fingerprint.size);
        Append(tuple);
    }
}

void SegmentSet::Merge(SegmentSet const& other) {
    other.ForEach([this](SegmentTuple const& tuple) { Append(tuple); });
}

void SegmentSet::Append(SegmentTuple const& tuple) {
    constexpr std::size_t kMostLoose = 1UL << 16;
    if (tuples_.size() - indexed_ >= kMostLoose) {
        Index();
    }
    tuples_.push_back(tuple);
    isDistinct_ = false;
}

void SegmentSet::Index() {
    std::size_t const end = tuples_.size();
    if (end > kMostTuples) {
        throw std::bad_alloc(); // a slot numbers tuples with 32 bits
    }
    GrowIndex();
    std::uint64_t hashes[kAtOnce];
    std::size_t candidates[kAtOnce];
    for (std::size_t first = indexed_; first < end; first += kAtOnce) {
        std::size_t const count = std::min(kAtOnce, end - first);
        for (std::size_t i = 0; i < count; ++i) {
            hashes[i] = HashOf(tuples_[first + i]);
            Prefetch(&slots_[hashes[i] & (slots_.size() - 1)], 0, 1);
        }
        for (std::size_t i = 0; i < count; ++i) {
            candidates[i] = Candidate(hashes[i], hashes[i]);
            if (slots_[candidates[i]] != kFree) {
                Prefetch(&tuples_[static_cast<std::uint32_t>(slots_[candidates[i]])], 0, sizeof(SegmentTuple));
            }
        }
        for (std::size_t i = 0; i < count; ++i) {
            IndexOne(tuples_[first + i], hashes[i], candidates[i]);
        }
    }
    tuples_.Truncate(indexed_);
    isDistinct_ = true;
}

void SegmentSet::MakeDistinct() {
    if (!isDistinct_) {
        Index();
    }
}

std::size_t SegmentSet::Candidate(std::size_t slot, std::uint64_t hash) const {
    std::size_t const mask = slots_.size() - 1;
    for (slot &= mask; slots_[slot] != kFree && slots_[slot] >> 32 != hash >> 32;) {
        slot = (slot + 1) & mask;
    }
    return slot;
}

// Moves a tuple to the end of the indexed ones, which is not after its place, or merges it.
void SegmentSet::IndexOne(SegmentTuple const& tuple, std::uint64_t hash, std::size_t candidate) {
    std::size_t slot = Candidate(candidate, hash);
    for (; slots_[slot] != kFree; slot = Candidate(slot + 1, hash)) {
        SegmentTuple& known = tuples_[static_cast<std::uint32_t>(slots_[slot])];
        if (IsSameSegment(known, tuple)) {
            tool::Merge(known, tuple);
            return;
        }
    }
    slots_[slot] = hash >> 32 << 32 | indexed_;
    SegmentTuple& to = tuples_[indexed_++];
    if (&to != &tuple) {
        to = tuple;
    }
}

// Makes slots for all tuples: a quarter of them remains free.
void SegmentSet::GrowIndex() {
    std::size_t const least = tuples_.size() + tuples_.size() / 3 + 1;
    if (slots_.size() >= least) {
        return;
    }
    slots_ = {}; // never both in memory
    std::size_t const known = std::exchange(indexed_, 0);
    slots_.resize(std::bit_ceil(least), kFree);
    for (; indexed_ < known; ++indexed_) {
        std::uint64_t const hash = HashOf(tuples_[indexed_]);
        std::size_t slot = hash & (slots_.size() - 1);
        while (slots_[slot] != kFree) {
            slot = (slot + 1) & (slots_.size() - 1);
        }
        slots_[slot] = hash >> 32 << 32 | indexed_;
    }
}

template <class Use>
void SegmentSet::ForEach(Use use) const {
    for (std::size_t i = 0; i < tuples_.size(); ++i) {
        use(tuples_[i]);
    }
}

std::uint64_t SegmentSet::Size() {
    Index();
    return tuples_.size();
}

SegmentSums SegmentSet::Sums() {
    SegmentSums sums;
    Index();
    ForEach([&](SegmentTuple const& tuple) { tool::Add(sums, {1, tuple.firstSize}); });
    return sums;
}

std::uint64_t SegmentSet::Conflicts() {
    std::uint64_t conflicts = 0;
    Index();
    ForEach([&](SegmentTuple const& tuple) { conflicts += HasConflict(tuple) ? 1 : 0; });
    return conflicts;
}

Containers SegmentSet::SumsByContainer() {
    Containers sums;
    Index();
    ForEach([&](SegmentTuple const& tuple) { sums.Add({tuple.dcid, 1, tuple.firstSize}); });
    return sums;
}

std::vector<SegmentSet> SegmentSet::Split(std::size_t parts) {
    MakeDistinct();
    std::vector<SegmentSet> split(parts);
    ForEach([&](SegmentTuple const& tuple) { split[PartOf(SplitHashOf(tuple), parts)].tuples_.push_back(tuple); });
    return split;
}

std::size_t SegmentSet::SerializedSize() {
    MakeDistinct();
    std::size_t size = kHeadSize;
    ForEach([&](SegmentTuple const& tuple) { size += kFingerprintAt + (IsWide(tuple) ? kWide : kNarrow); });
    return size;
}

void SegmentSet::Serialize(unsigned char* to) {
    MakeDistinct();
    std::uint64_t wide = 0;
    ForEach([&](SegmentTuple const& tuple) { wide += IsWide(tuple) ? 1 : 0; });
    std::uint64_t const narrow = tuples_.size() - wide;
    Store(to, narrow, Order::Network);
    Store(to + sizeof narrow, wide, Order::Network);
    unsigned char* nextNarrow = to + kHeadSize;
    unsigned char* nextWide = nextNarrow + narrow * (kFingerprintAt + kNarrow);
    ForEach([&](SegmentTuple const& tuple) {
        unsigned char*& next = IsWide(tuple) ? nextWide : nextNarrow;
        next = Write(tuple, next);
    });
}

SegmentSet SegmentSet::Deserialize(std::span<unsigned char const> bytes) {
    Require(bytes.size() >= kHeadSize, "too short");
    auto const narrow = Load<std::uint64_t>(bytes.data(), Order::Network);
    auto const wide = Load<std::uint64_t>(bytes.data() + sizeof narrow, Order::Network);
    Require(narrow <= kMostTuples && wide <= kMostTuples &&
                bytes.size() - kHeadSize == narrow * (kFingerprintAt + kNarrow) + wide * (kFingerprintAt + kWide),
            "its size is not that of its segments");
    SegmentSet set;
    unsigned char const* next = bytes.data() + kHeadSize;
    for (std::uint64_t i = 0; i < narrow + wide; ++i) {
        std::size_t const width = i < narrow ? kNarrow : kWide;
        set.tuples_.push_back(Read(next, width));
        next += kFingerprintAt + width;
    }
    return set;
}

} // namespace crrecord::tool
