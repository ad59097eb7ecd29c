#include "store/scan.h"

#include "io/signals.h"
#include "store/claimed_bytes.h"
#include "store/segment_shape.h"

#include <crrecord/status.h>

#include <bit>

namespace crrecord::tool {

namespace {

constexpr std::size_t kMostRecords = 1024; // of a batch

} // namespace

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
    pipeline_ = std::make_unique<Pipeline<ScanBatch>>(
        partitions_.Threads(), [this](ScanBatch& batch) { batch.Read(question_, partitions_); },
        [this](ScanBatch& batch) { UseBatch(batch); });
}

StoreScan::~StoreScan() = default;

void StoreScan::Scan(RecordStream& stream) {
    file_ = std::make_shared<std::string const>(stream.Name());
    stream.ReportGapsTo([this, &stream](Gap const& gap) { AppendGap(stream, gap); });
    stream.ReleaseWith([this, &stream] { ReleaseBuffer(stream); });
    std::exception_ptr failure;
    try {
        try {
            ReadAll(stream);
        } catch (InputFailure const&) {
            failure = std::current_exception();
        }
        ReleaseBuffer(stream);
        if (failure) {
            pipeline_->Finish(); // its complaints precede the one of the caller
        }
    } catch (...) {
        pipeline_.reset(); // its threads read the stream's bytes
        throw;
    }
    stream.ReleaseWith(nullptr);
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void StoreScan::ReadAll(RecordStream& stream) {
    while (Record const* const record = stream.Next()) {
        if (record->size > partitions_.BatchTuples() * kLeastEntry) {
            ScanLarge(*record);
        } else {
            Append(*record);
        }
    }
    totals_.gaps.Add(stream);
}

void StoreScan::Total() {
    Submit();
    pipeline_->Finish();
    pipeline_.reset();
    containers_.ForgetRecords();
    if (owned_) {
        owned_->Total([this](TupleBlock const& segments) { containers_.AddSegments(segments); });
    }
}

ScanBatch& StoreScan::Current() {
    batch_ = batch_ ? batch_ : &pipeline_->Next();
    return *batch_;
}

void StoreScan::Append(Record const& record) {
    if (batch_ && (batch_->bytes + record.size > partitions_.BatchTuples() * kLeastEntry ||
                   batch_->records.size() == kMostRecords)) {
        Submit();
    }
    ScanBatch& batch = Current();
    ScanBatch::Scanned& scanned = batch.records.emplace_back();
    scanned.file = file_;
    scanned.record = record;
    batch.bytes += record.size;
    batch.mostTuples += record.size / kLeastEntry;
    bufferUsed_ = true;
}

// The message about a gap follows those about the records before it, which the threads may not have checked yet.
void StoreScan::AppendGap(RecordStream const& stream, Gap const& gap) {
    ScanBatch::Scanned& scanned = Current().records.emplace_back();
    scanned.result = ScanBatch::Scanned::Result::Gap;
    scanned.error = stream.Name() + ": " + Describe(gap);
}

// Batches are used in order, so the last one with records in the buffer keeps it long enough for all of them.
void StoreScan::ReleaseBuffer(RecordStream& stream) {
    if (!bufferUsed_) {
        return;
    }
    bool const exchanged = stream.ExchangeBuffer(Current().buffer);
    Submit();
    if (!exchanged) {
        pipeline_->Finish();
    }
    bufferUsed_ = false;
}

void StoreScan::Submit() {
    if (!batch_) {
        return;
    }
    if (!partitions_.HasSpace(reserved_ + batch_->mostTuples)) {
        pipeline_->Finish();
        if (!partitions_.HasSpace(batch_->mostTuples)) {
            partitions_.FreeMemory();
        }
    }
    reserved_ += batch_->mostTuples;
    batch_ = nullptr;
    pipeline_->Submit();
}

void StoreScan::ScanLarge(Record const& record) {
    Submit();
    ScanBatch::Scanned scanned;
    scanned.file = file_;
    scanned.record = record;
    try {
        if (record.kind == Kind::DataObject) {
            scanned.view = std::make_shared<DORecordView const>(record.bytes, record.size);
        }
    } catch (Cr_ErrnoException const&) {
        // The batch reports the same error.
    }
    ScanParts(std::move(scanned));
    pipeline_->Finish(); // the threads read the stream's bytes
    bufferUsed_ = false;
}

void StoreScan::ScanParts(ScanBatch::Scanned scanned) {
    DORecordView const* const view = scanned.view.get();
    bool const isBloom = view && IsBloom(view->GetDOType());
    unsigned int const entries = !view ? 0 : isBloom ? view->UniqueDCIDs().size() : view->Segments().size();
    auto const most = static_cast<unsigned int>(partitions_.BatchTuples());
    do {
        scanned.to = entries - scanned.from > most ? scanned.from + most : entries;
        scanned.isLastPart = scanned.to == entries;
        ScanBatch& batch = Current();
        batch.mostTuples = most;
        batch.records.push_back(scanned);
        Submit();
        scanned.from = scanned.to;
    } while (!scanned.isLastPart);
}

void StoreScan::UseBatch(ScanBatch& batch) {
    for (ScanBatch::Scanned const& scanned : batch.records) {
        if (scanned.result == ScanBatch::Scanned::Result::Gap) {
            complain_(scanned.error);
        } else if (scanned.result == ScanBatch::Scanned::Result::Bad) {
            ++totals_.bad;
            complain_(scanned.error);
        } else if (Claim(scanned)) {
            scanned.result == ScanBatch::Scanned::Result::Object ? UseObject(batch, scanned) : UseSegment(scanned);
        }
    }
    reserved_ -= batch.mostTuples;
    batch.Clear();
}

bool StoreScan::Claim(ScanBatch::Scanned const& scanned) {
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

void StoreScan::UseSegment(ScanBatch::Scanned const& scanned) {
    ++totals_.segmentRecords;
    if (question_.stored) {
        containers_.Of(scanned.dcid);
        if (scanned.claimed != 0) {
            SegmentTuple const tuple = TupleOf(scanned.record);
            partitions_.Add({&tuple, 1});
        }
    }
}

void StoreScan::UseObject(ScanBatch const& batch, ScanBatch::Scanned const& scanned) {
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

void StoreScan::UseRun(ScanBatch::Run const& run, Membership const& membership) {
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

void StoreScan::UseOwn(ScanBatch::Scanned const& scanned) {
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
