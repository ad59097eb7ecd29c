#include "store/scan_batch.h"

#include "analysis/segment_runs.h"
#include "store/claimed_bytes.h"
#include "store/segment_shape.h"

#include <crrecord/status.h>

namespace crrecord::tool {

namespace {

std::uint64_t PayloadSize(DORecordView const& view) {
    return view.GetHeaderSize() - CR_DO_RECORD_SIZE;
}

// Returns: the bytes in the list of a bloom record, or more than kMostClaimed.
std::uint64_t ListedBytes(DORecordView const& view) {
    std::uint64_t sum = 0;
    for (DOUniqueDCID const& entry : view.UniqueDCIDs()) {
        if (!AddClaimed(sum, entry.bytes)) {
            return std::numeric_limits<std::uint64_t>::max();
        }
    }
    return sum;
}

bool IsLarge(StoredSegment const& segment) {
    return segment.size > std::numeric_limits<std::uint32_t>::max();
}

// Tuples on their way to a sink, which is faster with many of them.
class Tuples {
public:
    explicit Tuples(TupleSink& sink) : sink_(sink) {}

    // Returns: the place of a new tuple.
    SegmentTuple& New() {
        if (size_ == some_.size()) {
            Flush();
        }
        return some_[size_++];
    }
    void Flush() {
        sink_.Add({some_.data(), size_});
        size_ = 0;
    }

private:
    static constexpr std::size_t kMost = 512; // with fewer, less memory is prefetched in time

    TupleSink& sink_;
    std::array<SegmentTuple, kMost> some_;
    std::size_t size_ = 0;
};

class BatchReader {
public:
    BatchReader(ScanBatch& batch, Question const& question, TupleSink& sink)
        : batch_(batch), question_(question), tuples_(sink) {}

    void Read() {
        for (Scanned& scanned : batch_.records) {
            if (scanned.result != Result::Gap) {
                ReadRecord(scanned);
            }
        }
        tuples_.Flush();
    }

private:
    using Scanned = ScanBatch::Scanned;
    using Result = Scanned::Result;

    void ReadRecord(Scanned& scanned) {
        scanned.firstRun = batch_.runs.size();
        if (scanned.record.kind == Kind::Segment) {
            ReadSegment(scanned);
        } else if (scanned.record.kind == Kind::DataObject) {
            ReadObject(scanned);
        }
        scanned.endOfRuns = batch_.runs.size();
        if (scanned.result == Result::Bad && scanned.error.empty()) {
            scanned.error = FirstErrorOf(*scanned.file, scanned.record);
        }
    }

    void ReadObject(Scanned& scanned) {
        try {
            std::optional<DORecordView> own;
            DORecordView const& view =
                scanned.view ? *scanned.view : own.emplace(scanned.record.bytes, scanned.record.size);
            scanned.result = Result::Object;
            scanned.membership = MembershipOf(view, question_);
            scanned.dcid = view.GetDCID();
            scanned.ownBytes = PayloadSize(view);
            if (scanned.membership.inFirst && IsBloom(view.GetDOType())) {
                scanned.claimed = scanned.from == 0 ? ListedBytes(view) : 0;
                AddList(scanned, view);
            } else if (scanned.membership.inFirst) {
                AddEntries(scanned, view);
            }
        } catch (Cr_ErrnoException const&) {
            scanned.result = Result::Bad;
        }
    }

    void AddList(Scanned const& scanned, DORecordView const& view) {
        DOUniqueDCIDRange const list = view.UniqueDCIDs();
        for (unsigned int i = scanned.from; i < std::min(scanned.to, list.size()); ++i) {
            batch_.runs.push_back({list[i].dcid, 0, list[i].bytes});
        }
    }

    void AddEntries(Scanned const& scanned, DORecordView const& view) {
        // Not the range: nothing needs the offsets.
        DOSegmentSource const source = DOSegmentSource::Of(view.GetHeader());
        bool const inSecond = scanned.membership.inSecond;
        std::uint8_t const fptype = view.GetFPType();
        auto const flags = static_cast<std::uint8_t>(SegmentTuple::kInFirst | (inSecond ? SegmentTuple::kInSecond : 0));
        ScanBatch::Run run{};
        for (unsigned int i = scanned.from, end = std::min(scanned.to, source.count); i < end; ++i) {
            SegmentTuple& tuple = tuples_.New(); // each member, since a copy of a whole one is slower
            tuple.dcid = Load<std::uint64_t>(source.dcids + std::uint64_t{i} * sizeof tuple.dcid);
            StoreFingerprint(tuple, source.Entry(i), source.fingerprint);
            tuple.firstSize = source.Size(i);
            tuple.fptype = fptype;
            tuple.flags = flags;
            tuple.zero = 0;
            tuple.secondSize = inSecond ? tuple.firstSize : 0;
            if (run.uses == 0 || run.dcid != tuple.dcid) {
                AddRun(run);
                run = {tuple.dcid, 0, 0};
            }
            ++run.uses;
        }
        AddRun(run);
    }

    void AddRun(ScanBatch::Run const& run) {
        if (run.uses != 0) {
            batch_.runs.push_back(run);
        }
    }

    void ReadSegment(Scanned& scanned) {
        scanned.error = SegmentRecordError(*scanned.file, scanned.record);
        if (!scanned.error.empty()) {
            return;
        }
        StoredSegment const segment = SegmentOf(scanned.record);
        scanned.result = Result::Segment;
        scanned.dcid = segment.dcid;
        if (question_.stored && IsLarge(segment)) {
            scanned.claimed = segment.size; // the scan adds it, if it may
        } else if (question_.stored) {
            tuples_.New() = TupleOf(scanned.record);
        }
    }

    ScanBatch& batch_;
    Question const& question_;
    Tuples tuples_;
};

} // namespace

void ScanBatch::Read(Question const& question, TupleSink& sink) {
    BatchReader(*this, question, sink).Read();
}

void ScanBatch::Clear() {
    records.clear();
    runs.clear();
    bytes = 0;
    mostTuples = 0;
    if (buffer.capacity > kReadBlock) { // a large record has grown it
        buffer = {};
    }
}

SegmentTuple TupleOf(Record const& segmentRecord) {
    StoredSegment const segment = SegmentOf(segmentRecord);
    SegmentTuple tuple{};
    tuple.dcid = segment.dcid;
    CopyFingerprint(tuple.fingerprint, segment.fingerprint, CRFPDigestSize(segment.fptype));
    tuple.secondSize = segment.size;
    tuple.fptype = static_cast<std::uint8_t>(segment.fptype);
    tuple.flags = SegmentTuple::kInSecond;
    return tuple;
}

} // namespace crrecord::tool
