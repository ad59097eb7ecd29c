#include "cluster/piece.h"

namespace crrecord::tool {

PieceCounts::PieceCounts(StoreTotals const& totals) {
    counts_[kRecords] = totals.records;
    counts_[kHeld] = totals.held;
    counts_[kInFirst] = totals.inFirst;
    counts_[kInSecond] = totals.inSecond;
    counts_[kBad] = totals.bad;
    counts_[kRefused] = totals.refused;
    counts_[kSegmentRecords] = totals.segmentRecords;
    SetGaps(totals.gaps);
}

PieceCounts::PieceCounts(LostTotals const& totals) {
    counts_[kRecords] = totals.records;
    counts_[kSegments] = totals.segments;
    counts_[kBytes] = totals.bytes;
    counts_[kBloomBytes] = totals.bloomBytes;
    counts_[kBad] = totals.bad;
    counts_[kRefused] = totals.refused;
    SetGaps(totals.gaps);
}

PieceCounts::PieceCounts(ValidationTally const& tally) {
    counts_[kRecords] = tally.records;
    counts_[kBad] = tally.bad;
    counts_[kNotes] = tally.notes;
    counts_[kBytes] = tally.bytes;
    SetGaps(tally.gaps);
}

void PieceCounts::Add(PieceCounts const& more) {
    for (unsigned int i = 0; i < kCount; ++i) {
        AddBytes(counts_[i], more.counts_[i]);
    }
}

void PieceCounts::SetGaps(GapSums const& gaps) {
    counts_[kSkipped] = gaps.skipped;
    counts_[kUnread] = gaps.unread.value_or(0);
    counts_[kUnknownRests] = gaps.unread ? 0 : 1;
}

GapSums PieceCounts::Gaps() const {
    GapSums gaps;
    gaps.skipped = counts_[kSkipped];
    gaps.unread = counts_[kUnknownRests] == 0 ? std::optional(counts_[kUnread]) : std::nullopt;
    return gaps;
}

StoreTotals PieceCounts::ForStore() const {
    StoreTotals totals;
    totals.records = counts_[kRecords];
    totals.held = counts_[kHeld];
    totals.inFirst = counts_[kInFirst];
    totals.inSecond = counts_[kInSecond];
    totals.bad = counts_[kBad];
    totals.refused = counts_[kRefused];
    totals.segmentRecords = counts_[kSegmentRecords];
    totals.isComplete = counts_[kBad] == 0;
    totals.gaps = Gaps();
    return totals;
}

LostTotals PieceCounts::ForLost() const {
    LostTotals totals;
    totals.records = counts_[kRecords];
    totals.segments = counts_[kSegments];
    totals.bytes = counts_[kBytes];
    totals.bloomBytes = counts_[kBloomBytes];
    totals.bad = counts_[kBad];
    totals.refused = counts_[kRefused];
    totals.gaps = Gaps();
    return totals;
}

ValidationTally PieceCounts::ForValidation() const {
    ValidationTally tally;
    tally.records = counts_[kRecords];
    tally.bad = counts_[kBad];
    tally.notes = counts_[kNotes];
    tally.bytes = counts_[kBytes];
    tally.gaps = Gaps();
    return tally;
}

} // namespace crrecord::tool
