#include "store/scan.h"

#include "analysis/segment_runs.h"
#include "io/signals.h"
#include "store/claimed_bytes.h"
#include "store/segment_shape.h"

#include <crrecord/status.h>

#include <bit>

namespace crrecord::tool {

namespace {

// The smallest entry and its DCID: a record has at most one entry for each so many bytes.
constexpr std::uint64_t kLeastEntry = 16 + 8;
constexpr std::size_t kMostRecords = 1024; // of a batch
constexpr std::size_t kTuplesAtOnce = 128; // that stay in the first cache

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

SegmentTuple TupleOf(StoredSegment const& segment) {
    SegmentTuple tuple{};
    tuple.dcid = segment.dcid;
    CopyFingerprint(tuple.fingerprint, segment.fingerprint, CRFPDigestSize(segment.fptype));
    tuple.secondSize = segment.size;
    tuple.fptype = static_cast<std::uint8_t>(segment.fptype);
    tuple.flags = SegmentTuple::kInSecond;
    return tuple;
}

} // namespace

// Entries of a record that are in one container: neighbours, or one entry of a bloom record's list.
struct StoreScan::Run {
    std::uint64_t dcid;
    std::uint64_t uses;
    std::uint64_t bloomBytes;
};

struct StoreScan::Scanned {
    enum class Result { Bad, Segment, Object, Gap };

    std::shared_ptr<std::string const> file;
    Record record{};
    std::size_t begin = 0; // of its bytes in the batch
    // Entries from `from` to `to` of a valid record whose bytes are not in the batch, or all entries.
    DORecordView const* view = nullptr;
    unsigned int from = 0;
    unsigned int to = std::numeric_limits<unsigned int>::max();
    bool isLastPart = true;

    Result result = Result::Bad;
    std::string error;
    Membership membership;
    std::uint64_t dcid = 0; // the record's own container, or that of a segment record
    std::uint64_t ownBytes = 0;
    std::uint64_t claimed = 0; // bytes in the list of a bloom record, or of a large segment
    std::size_t firstRun = 0;
    std::size_t endOfRuns = 0;
};

struct StoreScan::Batch {
    std::vector<unsigned char> bytes;
    std::vector<Scanned> records;
    std::vector<Run> runs;
    std::array<SegmentTuple, kTuplesAtOnce> tuples; // that are not in the partitions yet
    std::size_t newTuples = 0;
    std::uint64_t mostTuples = 0; // of its records
};

StoreScan::StoreScan(Question question, PartitionOptions const& options,
                     std::function<void(std::string const&)> complain)
    : StoreScan(std::move(question), std::make_unique<Partitions>(options), nullptr, std::move(complain)) {}

StoreScan::StoreScan(Question question, TupleSink& sink, std::function<void(std::string const&)> complain)
    : StoreScan(std::move(question), nullptr, &sink, std::move(complain)) {}

StoreScan::StoreScan(Question question, std::unique_ptr<Partitions> owned, TupleSink* sink,
                     std::function<void(std::string const&)> complain)
    : question_(std::move(question)), complain_(std::move(complain)), owned_(std::move(owned)),
      partitions_(sink ? *sink : *owned_) {
    // Its threads get no signals: a signal must not end the process while this thread has blocked them.
    EndersBlocked const blocked;
    pipeline_ = std::make_unique<Pipeline<Batch>>(
        partitions_.Threads(), [this](Batch& batch) { Work(batch); }, [this](Batch& batch) { UseBatch(batch); });
}

StoreScan::~StoreScan() = default;

void StoreScan::Scan(RecordStream& stream) {
    file_ = std::make_shared<std::string const>(stream.Name());
    stream.ReportGapsTo([this, &stream](Gap const& gap) { AppendGap(stream, gap); });
    try {
        while (Record const* const record = stream.Next()) {
            if (record->size > partitions_.BatchTuples() * kLeastEntry) {
                ScanLarge(*record);
            } else {
                Append(*record);
            }
        }
        totals_.gaps.Add(stream);
    } catch (InputFailure const&) {
        Submit();
        pipeline_->Finish(); // its complaints precede the one of the caller
        throw;
    }
}

void StoreScan::Total() {
    Submit();
    pipeline_->Finish();
    pipeline_.reset();
    containers_.ForgetRecords();
    if (owned_) {
        owned_->Total([this](std::span<SegmentTuple const> segments) { containers_.AddSegments(segments); });
    }
}

void StoreScan::Append(Record const& record) {
    if (batch_ && (batch_->bytes.size() + record.size > partitions_.BatchTuples() * kLeastEntry ||
                   batch_->records.size() == kMostRecords)) {
        Submit();
    }
    batch_ = batch_ ? batch_ : &pipeline_->Next();
    Scanned scanned;
    scanned.file = file_;
    scanned.record = record;
    scanned.begin = batch_->bytes.size();
    batch_->bytes.insert(batch_->bytes.end(), record.bytes, record.bytes + record.size);
    batch_->mostTuples += record.size / kLeastEntry;
    batch_->records.push_back(std::move(scanned));
}

// The message about a gap follows those about the records before it, which the threads may not have checked yet.
void StoreScan::AppendGap(RecordStream const& stream, Gap const& gap) {
    batch_ = batch_ ? batch_ : &pipeline_->Next();
    Scanned scanned;
    scanned.result = Scanned::Result::Gap;
    scanned.error = stream.Name() + ": " + Describe(gap);
    batch_->records.push_back(std::move(scanned));
}

void StoreScan::Submit() {
    if (!batch_) {
        return;
    }
    if (!partitions_.HasRoom(reserved_ + batch_->mostTuples)) {
        pipeline_->Finish();
        if (!partitions_.HasRoom(batch_->mostTuples)) {
            partitions_.MakeRoom();
        }
    }
    reserved_ += batch_->mostTuples;
    batch_ = nullptr;
    pipeline_->Submit();
}

void StoreScan::ScanLarge(Record const& record) {
    Submit();
    Scanned scanned;
    scanned.file = file_;
    scanned.record = record;
    std::optional<DORecordView> view;
    try {
        if (record.kind == Kind::DataObject) {
            view.emplace(record.bytes, record.size);
        }
    } catch (Cr_ErrnoException const&) {
        // The code below reports the same error.
    }
    try {
        ScanParts(view ? &*view : nullptr, std::move(scanned));
        pipeline_->Finish(); // the threads read the stream's bytes
    } catch (...) {
        pipeline_.reset();
        throw;
    }
}

void StoreScan::ScanParts(DORecordView const* view, Scanned scanned) {
    bool const isBloom = view && IsBloom(view->GetDOType());
    unsigned int const entries = !view ? 0 : isBloom ? view->UniqueDCIDs().size() : view->Segments().size();
    auto const most = static_cast<unsigned int>(partitions_.BatchTuples());
    scanned.view = view;
    do {
        scanned.to = entries - scanned.from > most ? scanned.from + most : entries;
        scanned.isLastPart = scanned.to == entries;
        batch_ = &pipeline_->Next();
        batch_->mostTuples = most;
        batch_->records.push_back(scanned);
        Submit();
        scanned.from = scanned.to;
    } while (!scanned.isLastPart);
}

void StoreScan::Work(Batch& batch) {
    for (Scanned& scanned : batch.records) {
        if (scanned.result == Scanned::Result::Gap) {
            continue;
        }
        if (!batch.bytes.empty()) {
            scanned.record.bytes = batch.bytes.data() + scanned.begin;
        }
        scanned.firstRun = batch.runs.size();
        if (scanned.record.kind == Kind::Segment) {
            WorkOnSegment(batch, scanned);
        } else {
            WorkOnObject(batch, scanned);
        }
        scanned.endOfRuns = batch.runs.size();
        if (scanned.result == Scanned::Result::Bad && scanned.error.empty()) {
            scanned.error = FirstErrorOf(*scanned.file, scanned.record);
        }
    }
    AddTuples(batch);
}

SegmentTuple& StoreScan::NewTuple(Batch& batch) {
    if (batch.tuples.size() == batch.newTuples) {
        AddTuples(batch);
    }
    return batch.tuples[batch.newTuples++];
}

void StoreScan::AddTuples(Batch& batch) {
    partitions_.Add({batch.tuples.data(), batch.newTuples});
    batch.newTuples = 0;
}

void StoreScan::WorkOnObject(Batch& batch, Scanned& scanned) {
    if (scanned.record.kind != Kind::DataObject) {
        return;
    }
    try {
        std::optional<DORecordView> own;
        DORecordView const& view =
            scanned.view ? *scanned.view : own.emplace(scanned.record.bytes, scanned.record.size);
        scanned.result = Scanned::Result::Object;
        scanned.membership = MembershipOf(view, question_);
        scanned.dcid = view.GetDCID();
        scanned.ownBytes = PayloadSize(view);
        if (scanned.membership.inFirst) {
            if (IsBloom(view.GetDOType()) && scanned.from == 0) {
                scanned.claimed = ListedBytes(view);
            }
            AddEntries(batch, scanned, view);
        }
    } catch (Cr_ErrnoException const&) {
        scanned.result = Scanned::Result::Bad;
    }
}

void StoreScan::AddEntries(Batch& batch, Scanned const& scanned, DORecordView const& view) {
    if (IsBloom(view.GetDOType())) {
        DOUniqueDCIDRange const list = view.UniqueDCIDs();
        for (unsigned int i = scanned.from; i < std::min(scanned.to, list.size()); ++i) {
            batch.runs.push_back({list[i].dcid, 0, list[i].bytes});
        }
        return;
    }
    bool const inSecond = scanned.membership.inSecond;
    auto const fptype = static_cast<std::uint8_t>(view.GetFPType());
    auto const flags = static_cast<std::uint8_t>(SegmentTuple::kInFirst | (inSecond ? SegmentTuple::kInSecond : 0));
    Run run{};
    DOSegmentRange const segments = view.Segments();
    for (unsigned int i = scanned.from; i < std::min(scanned.to, segments.size()); ++i) {
        DOSegment const segment = segments[i];
        SegmentTuple& tuple = NewTuple(batch);
        tuple = {segment.dcid, {}, inSecond ? segment.size : 0UL, segment.size, fptype, flags, 0};
        CopyFingerprint(tuple.fingerprint, segment.fingerprint.data, segment.fingerprint.size);
        if (run.dcid != segment.dcid && run.uses != 0) {
            batch.runs.push_back(run);
            run.uses = 0;
        }
        run = {segment.dcid, run.uses + 1, 0};
    }
    if (run.uses != 0) {
        batch.runs.push_back(run);
    }
}

void StoreScan::WorkOnSegment(Batch& batch, Scanned& scanned) {
    scanned.error = SegmentRecordError(*scanned.file, scanned.record);
    if (!scanned.error.empty()) {
        return;
    }
    StoredSegment const segment = SegmentOf(scanned.record);
    scanned.result = Scanned::Result::Segment;
    scanned.dcid = segment.dcid;
    if (question_.stored && IsLarge(segment)) {
        scanned.claimed = segment.size; // UseSegment adds it, if it may
    } else if (question_.stored) {
        NewTuple(batch) = TupleOf(segment);
    }
}

void StoreScan::UseBatch(Batch& batch) {
    for (Scanned const& scanned : batch.records) {
        if (scanned.result == Scanned::Result::Gap) {
            complain_(scanned.error);
        } else if (scanned.result == Scanned::Result::Bad) {
            ++totals_.bad;
            complain_(scanned.error);
        } else if (Claim(scanned)) {
            scanned.result == Scanned::Result::Object ? UseObject(batch, scanned) : UseSegment(scanned);
        }
    }
    reserved_ -= batch.mostTuples;
    batch.bytes.clear();
    batch.records.clear();
    batch.runs.clear();
    batch.mostTuples = 0;
}

bool StoreScan::Claim(Scanned const& scanned) {
    if (scanned.from == 0) { // not a later part of a record
        isRefused_ = !AddClaimed(claimed, scanned.claimed);
        if (isRefused_) {
            ++totals_.bad;
            ++totals_.refused;
            complain_(ClaimError(*scanned.file, scanned.record));
        }
    }
    return !isRefused_;
}

void StoreScan::UseSegment(Scanned const& scanned) {
    ++totals_.segmentRecords;
    if (question_.stored) {
        containers_.Of(scanned.dcid);
        if (scanned.claimed != 0) {
            SegmentTuple const tuple = TupleOf(SegmentOf(scanned.record));
            partitions_.Add({&tuple, 1});
        }
    }
}

void StoreScan::UseObject(Batch const& batch, Scanned const& scanned) {
    Membership const& membership = scanned.membership;
    if (scanned.from == 0) {
        ++totals_.records;
        totals_.held += membership.held ? 1 : 0;
        totals_.inFirst += membership.inFirst ? 1 : 0;
        totals_.inSecond += membership.inSecond ? 1 : 0;
        objectContainers_ = 0;
    }
    if (!membership.inFirst) {
        return;
    }
    for (std::size_t i = scanned.firstRun; i < scanned.endOfRuns; ++i) {
        UseRun(batch.runs[i], membership);
    }
    if (!scanned.isLastPart) {
        return;
    }
    if (objectContainers_ != 0) {
        ++totals_.objectsByContainers[static_cast<unsigned int>(std::bit_width(objectContainers_) - 1)];
    }
    if (question_.ownContainers) {
        UseOwn(scanned);
    }
}

void StoreScan::UseRun(Run const& run, Membership const& membership) {
    ContainerSums& container = containers_.Of(run.dcid);
    container.uses += run.uses;
    if (IsCounted(membership)) {
        AddBytes(container.bloomBytes, run.bloomBytes);
        if (run.uses == 0) { // an entry of a bloom record's list
            container.isInBloom = 1;
        }
    }
    if (StoreContainers::IsNewFor(container, totals_.inFirst)) {
        ++objectContainers_;
        if (NeedsAfterwards(membership)) {
            ++container.records;
        }
    }
    if (useFragment) {
        useFragment(run.dcid);
    }
}

void StoreScan::UseOwn(Scanned const& scanned) {
    ContainerSums& container = containers_.Of(scanned.dcid);
    if (IsCounted(scanned.membership)) {
        AddBytes(container.ownBytes, scanned.ownBytes);
    }
    if (StoreContainers::IsNewFor(container, totals_.inFirst)) {
        if (NeedsAfterwards(scanned.membership)) {
            ++container.records;
        }
    }
}

bool StoreScan::IsCounted(Membership const& membership) const {
    return !question_.IsDrop() || !membership.inSecond;
}

bool StoreScan::NeedsAfterwards(Membership const& membership) const {
    return !question_.IsDrop() || membership.inSecond;
}

} // namespace crrecord::tool
