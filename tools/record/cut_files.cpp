#include "record/cut_files.h"

#include "io/failure.h"

#include <algorithm>
#include <utility>

#include <libdeflate.h>

namespace crrecord::tool {

namespace {

constexpr std::uint64_t kLargestSmallFile = 1024UL * 1024;
constexpr std::uint64_t kFullBatch = 1024UL * 1024; // another small file still fits
constexpr std::size_t kFullBatchSegments = 4096;
constexpr unsigned int kMostFileThreads = 8; // more than one reading thread can supply

} // namespace

FilesCutter::FilesCutter(CutOptions const& options, Holes holes, Use use)
    : options_(options), holes_(holes), use_(std::move(use)),
      pipeline_(
          std::clamp(std::thread::hardware_concurrency(), 1U, kMostFileThreads),
          [this](FileBatch& batch) { Digest(batch); }, [this](FileBatch& batch) { UseBatch(batch); }) {}

void FilesCutter::Add(Input& input) {
    if (IsSmall(input)) {
        AddSmall(input);
        return;
    }
    Finish(); // the files before it come first
    segments_.clear();
    CutTotals const totals =
        Cut(input, options_, holes_, [this](CutSegment const& segment) { segments_.push_back(segment); });
    use_(input.Name(), totals, segments_);
    if (segments_.size() > kFullBatchSegments) {
        segments_ = std::vector<CutSegment>();
    }
}

void FilesCutter::Finish() {
    Submit();
    pipeline_.Finish();
}

// The size of other files is unknown, and so is the position in standard input.
bool FilesCutter::IsSmall(Input const& input) const {
    std::uint64_t const size = input.ExpectedSize();
    std::uint64_t const least = options_.content ? options_.content->least : options_.segmentSize;
    return size != 0 && size <= kLargestSmallFile && size / least < kFullBatchSegments && input.Name() != "-" &&
           (holes_ == Holes::AreZeros || !input.HasHole());
}

void FilesCutter::AddSmall(Input& input) {
    if (!batch_) {
        batch_ = &pipeline_.Next();
        batch_->cut.number = batches_++;
        batch_->cut.size = 0;
        batch_->cut.bytes.resize(kFullBatch + kLargestSmallFile);
        batch_->cut.sizes.clear();
        batch_->files.clear();
    }
    CutBatch& cut = batch_->cut;
    auto const space = std::span(cut.bytes).subspan(cut.size, input.ExpectedSize());
    std::size_t size = 0;
    // At the end of the file Read checks for changes.
    while (std::size_t const count = input.Read(space.subspan(size))) {
        size += count;
    }
    File file{input.Name(), cut.sizes.size(), {}};
    for (std::uint64_t at = 0; at < size; at += cut.sizes.back()) {
        cut.sizes.push_back(static_cast<std::uint32_t>(FirstSegment(space.subspan(at, size - at), at, options_)));
    }
    file.totals.bytes = size;
    file.totals.segments = cut.sizes.size() - file.firstSegment;
    batch_->files.push_back(std::move(file));
    cut.size += size;
    bytes_ += size;
    if (cut.size >= kFullBatch || cut.sizes.size() >= kFullBatchSegments) {
        Submit();
    }
}

void FilesCutter::Submit() {
    if (!batch_) {
        return;
    }
    if (!atOnce_ && bytes_ >= kLeastParallelInput) {
        atOnce_ = CanDigestAtOnce(options_);
    }
    batch_->atOnce = atOnce_.value_or(false);
    batch_ = nullptr;
    pipeline_.Submit();
}

void FilesCutter::Digest(FileBatch& batch) const {
    std::span<unsigned char const> rest = batch.cut.bytes;
    for (File& file : batch.files) {
        file.totals.crc = libdeflate_crc32(0, rest.data(), file.totals.bytes);
        rest = rest.subspan(file.totals.bytes);
    }
    DigestWhole(batch.cut, options_, batch.atOnce);
}

void FilesCutter::UseBatch(FileBatch& batch) {
    std::uint64_t begin = 0;
    for (File const& file : batch.files) {
        auto const segments = std::span(batch.cut.segments).subspan(file.firstSegment, file.totals.segments);
        for (CutSegment& segment : segments) {
            segment.offset -= begin; // DigestWhole counts from the start of the batch
        }
        begin += file.totals.bytes;
        use_(file.name, file.totals, segments);
    }
}

} // namespace crrecord::tool
