// The scan of a whole store: records to segments in partitions and sums per container.

#pragma once

#include "io/pipeline.h"
#include "store/container_sums.h"
#include "store/scan_batch.h"

#include <functional>
#include <memory>

namespace crrecord::tool {

struct StoreTotals {
    std::uint64_t records = 0; // valid DO records
    std::uint64_t held = 0;
    std::uint64_t inFirst = 0;
    std::uint64_t inSecond = 0;
    std::uint64_t bad = 0;     // records of both kinds
    std::uint64_t refused = 0; // of these, those whose claimed sizes would make their sum too large
    GapSums gaps;
    std::uint64_t segmentRecords = 0; // good ones
    bool isComplete = true;           // every input was read, and no record is bad
    // Objects of the first set with 1 container, 2 to 3, 4 to 7 and so on.
    std::array<std::uint64_t, 33> objectsByContainers{};
};

// Scan reads inputs and Total counts: then Containers has the sums. They do not depend on the memory or the number of
// threads, and only the containers' numbers depend on the order of the records.
//
// Memory: that of the partitions, at most 32 MiB for batches, 95 bytes for each container, and the largest record.
class StoreScan {
public:
    // Calls complain(line) for each bad record and each gap, in their order.
    StoreScan(Question question, PartitionOptions const& options, std::function<void(std::string const&)> complain);
    // The same with tuples that go to `sink`, so that Total adds no sums of segments. Lifetime: `sink` must outlive it.
    StoreScan(Question question, TupleSink& sink, std::function<void(std::string const&)> complain);
    ~StoreScan();

    // Called for each run of adjacent entries in one container, in order. May be empty.
    std::function<void(std::uint64_t dcid)> useFragment;

    // The sum of the sizes that records claim. A scan that continues others starts with theirs.
    std::uint64_t claimed = 0;

    // Reads all records of an input. Throws: InputFailure, and the records read so far are counted; Failure.
    void Scan(RecordStream& stream);
    // Call it after the last Scan.
    void Total();

    StoreTotals const& Totals() const { return totals_; }
    // An input could not be read: records in it are not counted.
    void MarkIncomplete() { totals_.isComplete = false; }
    StoreContainers& Containers() { return containers_; }

private:
    Question question_;
    std::function<void(std::string const&)> complain_;
    std::unique_ptr<Partitions> owned_; // null with a sink of the caller
    TupleSink& partitions_;
    StoreContainers containers_;
    StoreTotals totals_;
    bool bufferUsed_ = false;                       // batches have records in the stream's buffer
    bool isRefused_ = false;                        // the present record would make it too large
    std::uint64_t reserved_ = 0;                    // tuples of the batches that are not used yet
    std::uint64_t objectContainers_ = 0;            // of the present object
    std::shared_ptr<std::string const> file_;       // of the input
    ScanBatch* batch_ = nullptr;                    // the one that is being filled
    std::unique_ptr<Pipeline<ScanBatch>> pipeline_; // the last member: its threads use the others

    StoreScan(Question question, std::unique_ptr<Partitions> owned, TupleSink* sink,
              std::function<void(std::string const&)> complain);

    void ReadAll(RecordStream& stream);
    ScanBatch& Current();
    // Passes the batch to the threads, if it has records.
    void Submit();
    // After this the stream may overwrite its buffer.
    void ReleaseBuffer(RecordStream& stream);
    void Append(Record const& record);
    void AppendGap(RecordStream const& stream, Gap const& gap);
    // Passes a record that is too large for a batch in parts to the threads, which read the stream's bytes.
    void ScanLarge(Record const& record);
    void ScanParts(ScanBatch::Scanned scanned);
    void UseBatch(ScanBatch& batch);
    // Adds the sizes that the record claims. Returns: false if it is bad because their sum would be too large.
    bool Claim(ScanBatch::Scanned const& scanned);
    void UseObject(ScanBatch const& batch, ScanBatch::Scanned const& scanned);
    void UseSegment(ScanBatch::Scanned const& scanned);
    void UseRun(ScanBatch::Run const& run, Membership const& membership);
    void UseOwn(ScanBatch::Scanned const& scanned);
    // Whether a container's own and bloom bytes count the record, and whether its number of records does.
    bool IsCounted(Membership const& membership) const;
    bool NeedsAfterwards(Membership const& membership) const;
};

} // namespace crrecord::tool
