#include "record/cut.h"

#include "io/failure.h"
#include "io/pipeline.h"
#include "io/progress.h"
#include "record/crc32.h"
#include "record/cut_batch.h"
#include "record/fingerprinter.h"

#include <algorithm>
#include <span>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <libdeflate.h>

namespace crrecord::tool {

namespace {

// Hashing a batch takes far longer than its transfer to a thread, and the batch stays in that processor's cache.
constexpr std::uint64_t kBatch = kReadBlock;
constexpr std::uint64_t kBatchSegments = 4096; // the result for a segment of one byte has dozens
constexpr unsigned int kMostThreads = 32;      // more than one reading thread can supply; each has two batches

// Segments of the default size for all lanes.
constexpr std::uint64_t kParallelBatch = ParallelSha256::kLanes * 128UL * 1024;
static_assert(kBatch <= ParallelSha256::kMostBytes);
constexpr std::uint64_t kMostMemory = 128UL * 1024 * 1024; // of all batches, two for each thread
constexpr unsigned int kMostParallelThreads = 8;           // each hashes several GB/s

// Computes fingerprints and checksums of segments whose bytes arrive in order.
class Digester {
public:
    explicit Digester(CutOptions const& options) : options_(options), fingerprinter_(options.fptype) {}

    void Append(CutBatch& batch) {
        std::span<unsigned char const> bytes = std::span(batch.bytes).first(batch.size);
        batch.crc = libdeflate_crc32(0, bytes.data(), bytes.size());
        for (std::uint64_t offset = batch.offset; !bytes.empty();) {
            std::uint64_t const left = options_.segmentSize - offset % options_.segmentSize;
            auto const piece = bytes.first(std::min(bytes.size(), left));
            AppendPiece(offset, piece);
            offset += piece.size();
            bytes = bytes.subspan(piece.size());
            if (piece.size() == left) {
                EndSegment(batch.segments);
            }
        }
        if (batch.endsSegment) {
            EndSegment(batch.segments);
        }
    }

private:
    void AppendPiece(std::uint64_t offset, std::span<unsigned char const> piece) {
        if (segment_.size == 0) {
            segment_.offset = offset;
            fingerprinter_.Start();
        }
        fingerprinter_.Append(piece);
        segment_.crc = options_.segmentCrcs ? libdeflate_crc32(segment_.crc, piece.data(), piece.size()) : 0;
        segment_.size += piece.size();
    }

    void EndSegment(std::vector<CutSegment>& segments) {
        if (segment_.size != 0) {
            segment_.fingerprint = fingerprinter_.Finish();
            segments.push_back(std::exchange(segment_, {}));
        }
    }

    CutOptions const& options_;
    Fingerprinter fingerprinter_;
    CutSegment segment_; // the open segment, if it has bytes
};

class SegmentCutter {
public:
    // `expected` is the size of the input, or 0 if it is unknown.
    SegmentCutter(CutOptions const& options, std::uint64_t expected, Progress& progress,
                  std::function<void(CutSegment&)> const& use)
        : options_(options), progress_(progress), use_(use), atOnce_(AtOnce(expected)), digester_(options),
          pipeline_(
              Threads(), [this](CutBatch& batch) { Digest(batch); }, [this](CutBatch& batch) { Account(batch); }) {}

    // Returns: the buffer for the next bytes of the input.
    std::span<unsigned char> Buffer() {
        CutBatch& batch = Open();
        return std::span(batch.bytes).subspan(batch.size);
    }

    // Adds bytes that were read into the buffer.
    void Append(std::uint64_t count) {
        batch_->size += count;
        position_ += count;
        progress_.At(position_); // a batch may take long to arrive through a pipe
        if (batch_->size == batch_->bytes.size()) {
            Submit();
        }
    }

    // Adds zeros that are in no segment.
    void Skip(std::uint64_t count) {
        if (count != 0) {
            EndSegment();
            position_ += count;
        }
    }

    CutTotals const& Finish() {
        EndSegment();
        pipeline_.Finish();
        return totals_;
    }

private:
    // Segments larger than a batch are hashed one after the other: memory for several of them would be unbounded.
    bool IsWhole() const { return options_.content || options_.segmentSize <= kBatch; }
    unsigned int Threads() const {
        unsigned int const most = atOnce_ ? kMostParallelThreads : kMostThreads;
        auto const fitting = static_cast<unsigned int>(kMostMemory / (2 * SizeOfBatch(0)));
        return IsWhole() ? std::clamp(std::thread::hardware_concurrency(), 1U, std::min(most, fitting)) : 1;
    }

    // Returns: true to hash segments at once.
    bool AtOnce(std::uint64_t expected) const {
        bool const isSmall = expected != 0 && expected < kLeastParallelInput;
        return IsWhole() && !isSmall && CanDigestAtOnce(options_);
    }

    // Bytes of a batch that starts at `offset`. CutBatches of whole segments of one size end at a multiple of it.
    std::uint64_t SizeOfBatch(std::uint64_t offset) const {
        if (options_.content) {
            return std::max<std::uint64_t>(atOnce_ ? kParallelBatch : kBatch, 2UL * options_.content->most);
        }
        return IsWhole() ? SegmentsInBatch() * options_.segmentSize - offset % options_.segmentSize : kBatch;
    }

    // The most segments in a batch; a multiple of the lanes, if they are hashed at once and enough fit.
    std::uint64_t SegmentsInBatch() const {
        std::uint64_t const most =
            atOnce_ ? std::max(kParallelBatch, ParallelSha256::kLanes * options_.segmentSize) : kBatch;
        std::uint64_t const fitting = std::min(most / options_.segmentSize, kBatchSegments);
        return fitting < ParallelSha256::kLanes ? fitting : fitting - fitting % ParallelSha256::kLanes;
    }

    CutBatch& Open() {
        if (!batch_) {
            batch_ = &pipeline_.Next();
            batch_->number = batches_++;
            batch_->offset = position_ - rest_.size();
            batch_->size = rest_.size();
            batch_->endsSegment = false;
            batch_->sizes.clear();
            batch_->segments.clear();
            batch_->bytes.resize(SizeOfBatch(batch_->offset));
            std::copy(rest_.begin(), rest_.end(), batch_->bytes.begin());
            rest_.clear();
        }
        return *batch_;
    }

    void EndSegment() {
        Open().endsSegment = true;
        Submit();
    }

    void Submit() {
        if (IsWhole()) {
            Divide();
        }
        pipeline_.Submit();
        batch_ = nullptr;
    }

    // Divides the batch into whole segments. Bytes whose segment may continue become the start of the next batch.
    void Divide() {
        CutBatch& batch = *batch_;
        std::uint64_t const end = batch.size;
        std::uint64_t at = 0;
        while (at < end && (batch.endsSegment || !options_.content || end - at >= options_.content->most)) {
            std::uint64_t const size =
                FirstSegment(std::span(batch.bytes).subspan(at, end - at), batch.offset + at, options_);
            batch.sizes.push_back(static_cast<std::uint32_t>(size));
            at += size;
        }
        rest_.assign(batch.bytes.data() + at, batch.bytes.data() + end);
        batch.size = at;
    }

    void Digest(CutBatch& batch) {
        if (IsWhole()) {
            batch.crc = libdeflate_crc32(0, batch.bytes.data(), batch.size);
            DigestWhole(batch, options_, atOnce_);
        } else {
            digester_.Append(batch);
        }
    }

    // In the order of the input.
    void Account(CutBatch& batch) {
        std::uint64_t const gap = batch.offset - totals_.bytes;
        totals_.crc = CombinedCrc(CrcAfterZeros(totals_.crc, gap), batch.crc, batch.size);
        totals_.gaps += gap;
        totals_.bytes += gap + batch.size;
        for (CutSegment& segment : batch.segments) {
            use_(segment);
        }
        totals_.segments += batch.segments.size();
    }

    CutOptions const& options_;
    Progress& progress_;
    std::function<void(CutSegment&)> const& use_;
    std::uint64_t position_ = 0; // in the input
    CutTotals totals_;
    bool atOnce_;
    Digester digester_;
    CutBatch* batch_ = nullptr; // the one being filled
    std::uint64_t batches_ = 0;
    std::vector<unsigned char> rest_; // bytes for the next one
    Pipeline<CutBatch> pipeline_;
};

} // namespace

void ThrowIfEmpty(std::string const& name, CutTotals const& totals) {
    if (totals.segments == 0) {
        throw InputFailure(name + (totals.bytes == 0 ? ": is empty" : ": is one hole") + ", so it has no segments");
    }
}

CutTotals Cut(Input& input, CutOptions const& options, Holes holes, std::function<void(CutSegment&)> const& use) {
    Progress progress(input.Name(), input.ExpectedSize());
    SegmentCutter cutter(options, input.ExpectedSize(), progress, use);
    Extent extent = holes == Holes::AreGaps ? input.NextExtent() : Extent{};
    for (;;) {
        cutter.Skip(std::exchange(extent.hole, 0));
        std::span<unsigned char> const buffer = cutter.Buffer();
        std::size_t const count = input.Read(buffer.first(std::min(buffer.size(), extent.data)));
        if (count == 0) {
            break;
        }
        cutter.Append(count);
        extent.data -= count;
        if (extent.data == 0) {
            extent = input.NextExtent();
        }
    }
    return cutter.Finish();
}

} // namespace crrecord::tool
