#include "store/spill_file.h"

#include "io/failure.h"

namespace crrecord::tool {

namespace {

// The parts of a tuple that are not in the head of its run.
struct TupleLayout {
    explicit TupleLayout(std::uint8_t fptype, std::uint8_t flags)
        : fingerprint(CRFPDigestSize(fptype)), first((flags & SegmentTuple::kInFirst) != 0 ? 4 : 0),
          second((flags & SegmentTuple::kInSecond) != 0 ? 8 : 0) {}
    std::size_t Size() const { return fingerprint + first + second; }

    std::size_t fingerprint;
    std::size_t first;
    std::size_t second;
};

void Encode(unsigned char* to, TupleBase const& tuple, std::uint64_t const& secondSize, TupleLayout const& layout) {
    CopyFingerprint(to, tuple.fingerprint, layout.fingerprint);
    to += layout.fingerprint;
    if (layout.first != 0) {
        std::memcpy(to, &tuple.firstSize, sizeof tuple.firstSize);
    }
    if (layout.second != 0) {
        std::memcpy(to + layout.first, &secondSize, sizeof secondSize);
    }
}

void Decode(SegmentTuple& tuple, unsigned char const* from, TupleLayout const& layout) {
    CopyFingerprint(tuple.fingerprint, from, layout.fingerprint);
    from += layout.fingerprint;
    tuple.firstSize = layout.first != 0 ? Load<std::uint32_t>(from) : 0;
    tuple.secondSize = layout.second != 0 ? Load<std::uint64_t>(from + layout.first) : 0;
}

bool IsSameRun(TupleBase const& a, TupleBase const& b) {
    return a.dcid == b.dcid && a.fptype == b.fptype && a.flags == b.flags;
}

void Require(bool holds) {
    if (!holds) {
        throw Failure("a temporary file has bytes that were not written to it");
    }
}

} // namespace

void SpillFile::Writer::Append(Chain& chain, TupleBlock const& block) {
    if (chain_ != &chain) {
        EndExtent();
        chain_ = &chain;
    }
    auto const tuples = block.tuples;
    for (std::size_t i = 0; i < tuples.size();) {
        auto const end = std::find_if(tuples.begin() + static_cast<std::ptrdiff_t>(i), tuples.end(),
                                      [&](TupleBase const& tuple) { return !IsSameRun(tuple, tuples[i]); });
        auto const count = static_cast<std::size_t>(end - tuples.begin()) - i;
        AppendRun({tuples.subspan(i, count), block.secondSizes + i});
        i += count;
    }
}

void SpillFile::Writer::AppendRun(TupleBlock const& run) {
    TupleBase const& first = run.tuples.front();
    TupleLayout const layout(first.fptype, first.flags);
    for (std::size_t i = 0; i < run.tuples.size();) {
        if (size_ + sizeof(Link) + sizeof(RunHead) + layout.Size() > kMostBytes) {
            Finish();
        }
        if (tuples_ == 0) {
            start_ = size_;
            size_ += sizeof(Link);
        }
        std::size_t const fit = (kMostBytes - size_ - sizeof(RunHead)) / layout.Size();
        std::size_t const end = std::min(i + fit, run.tuples.size());
        RunHead const head{first.dcid, static_cast<std::uint32_t>(end - i), first.fptype, first.flags, 0};
        std::memcpy(&bytes_[size_], &head, sizeof head);
        size_ += sizeof head;
        for (; i < end; ++i) {
            Encode(&bytes_[size_], run.tuples[i], run.secondSizes[i], layout);
            size_ += layout.Size();
        }
        tuples_ += head.tuples;
    }
}

void SpillFile::Writer::EndExtent() {
    if (tuples_ == 0) {
        return;
    }
    std::memcpy(&bytes_[start_], &chain_->last, sizeof chain_->last);
    chain_->last = {file_.end_ + start_, static_cast<std::uint32_t>(size_ - start_), tuples_};
    chain_->tuples += tuples_;
    tuples_ = 0;
}

void SpillFile::Writer::Finish() {
    EndExtent();
    file_.file_.Write({bytes_.get(), size_}, file_.end_);
    file_.end_ += size_;
    size_ = 0;
}

void SpillFile::Decode(std::span<unsigned char const> extent, std::uint64_t tuples, SegmentTuple* some,
                       Use const& use) {
    while (!extent.empty()) {
        RunHead run{};
        Require(extent.size() >= sizeof run);
        std::memcpy(&run, extent.data(), sizeof run);
        extent = extent.subspan(sizeof run);
        SegmentTuple const common{{run.dcid, {}, 0, run.fptype, run.flags, run.zero}, 0};
        Require(common.IsWellFormed());
        TupleLayout const layout(run.fptype, run.flags);
        Require(run.tuples != 0 && run.tuples <= tuples && run.tuples <= extent.size() / layout.Size());
        tuples -= run.tuples;
        std::fill_n(some, std::min<std::size_t>(run.tuples, kReadTuples), common);
        for (std::size_t left = run.tuples; left != 0;) {
            std::size_t const count = std::min(left, kReadTuples);
            for (std::size_t i = 0; i < count; ++i) {
                tool::Decode(some[i], extent.data() + i * layout.Size(), layout);
            }
            use({some, count});
            extent = extent.subspan(count * layout.Size());
            left -= count;
        }
    }
    Require(tuples == 0);
}

void SpillFile::Read(Chain const& chain, Use const& use) const {
    auto const bytes = std::make_unique_for_overwrite<unsigned char[]>(kMostBytes);
    auto const some = std::make_unique_for_overwrite<SegmentTuple[]>(kReadTuples);
    auto [extent, left] = chain;
    while (extent.position != kNone) {
        Require(sizeof(Link) <= extent.bytes && extent.bytes <= kMostBytes);
        std::uint64_t const end = end_;
        Require(extent.position <= end && extent.bytes <= end - extent.position);
        Require(extent.tuples != 0 && extent.tuples <= left);
        left -= extent.tuples;
        std::span<unsigned char> const read{bytes.get(), extent.bytes};
        file_.Read(read, extent.position);
        Decode(read.subspan(sizeof(Link)), extent.tuples, some.get(), use);
        Link previous;
        std::memcpy(&previous, read.data(), sizeof previous);
        // Extents are chained from the end to the start, so that the chain ends.
        Require(previous.position == kNone || previous.position < extent.position);
        extent = previous;
    }
    Require(left == 0);
}

} // namespace crrecord::tool
