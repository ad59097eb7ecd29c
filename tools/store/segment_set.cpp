#include "store/segment_set.h"

#include "analysis/container_totals.h"

namespace crrecord::tool {

namespace {

// Tuples that are added at a time, so that their cache misses overlap.
constexpr std::size_t kAtOnce = 64;

} // namespace

void SegmentSet::AddAll(std::span<SegmentTuple const> tuples) {
    std::uint64_t hashes[kAtOnce];
    std::transform(tuples.begin(), tuples.end(), hashes, HashOf);
    table_.Prefetch({hashes, tuples.size()});
    for (std::size_t i = 0; i < tuples.size(); ++i) {
        SegmentTuple const& tuple = tuples[i];
        if (SegmentTuple* const known =
                table_.Find(hashes[i], [&](SegmentTuple const& other) { return IsSameSegment(other, tuple); })) {
            bool const differed = (known->flags & SegmentTuple::kFirstDiffers) != 0;
            tool::Merge(*known, tuple);
            conflicts_ += !differed && (known->flags & SegmentTuple::kFirstDiffers) != 0 ? 1 : 0;
        } else {
            conflicts_ += (tuple.flags & SegmentTuple::kFirstDiffers) != 0 ? 1 : 0;
            table_.Add(hashes[i], tuple);
        }
    }
}

void SegmentSet::Add(DORecordView const& record) {
    DOSegmentRange const segments = record.Segments();
    SegmentTuple tuples[kAtOnce]{}; // the ends of short fingerprints remain zero
    for (unsigned int i = 0; i < segments.size();) {
        auto const count = static_cast<unsigned int>(std::min<std::size_t>(kAtOnce, segments.size() - i));
        for (unsigned int j = 0; j < count; ++j) {
            DOSegment const segment = segments[i + j];
            SegmentTuple& tuple = tuples[j];
            tuple.dcid = segment.dcid;
            std::memcpy(tuple.fingerprint, segment.fingerprint.data, segment.fingerprint.size);
            tuple.firstSize = segment.size;
            tuple.fptype = record.GetFPType();
            tuple.flags = SegmentTuple::kInFirst;
        }
        AddAll({tuples, count});
        i += count;
    }
}

} // namespace crrecord::tool
