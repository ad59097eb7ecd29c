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

void SpillFile::Writer::Append(TupleBlock const& block) {
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
        size_ = std::max(size_, sizeof(Head));
        if (size_ + sizeof(RunHead) + layout.Size() > kMostBytes) {
            Finish();
            continue;
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

void SpillFile::Writer::Finish() {
    if (tuples_ == 0) {
        return;
    }
    Head const head{chain_.last, tuples_, static_cast<std::uint32_t>(size_ - sizeof(Head))};
    std::memcpy(bytes_.get(), &head, sizeof head);
    std::uint64_t const start = file_.end_.fetch_add(size_);
    file_.file_.Write({bytes_.get(), size_}, start);
    chain_ = {start, chain_.tuples + tuples_};
    size_ = 0;
    tuples_ = 0;
}

SpillFile::Head SpillFile::ReadHead(std::uint64_t extent) const {
    std::uint64_t const end = end_;
    Require(end >= sizeof(Head) && extent <= end - sizeof(Head));
    Head head{};
    file_.Read({reinterpret_cast<unsigned char*>(&head), sizeof head}, extent);
    Require(head.bytes <= std::min(kMostBytes, end - sizeof head - extent));
    // Extents are chained from the end to the start, so that the chain ends.
    Require(head.previous == kNone || head.previous < extent);
    return head;
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
    while (extent != kNone) {
        Head const head = ReadHead(extent);
        Require(head.tuples != 0 && head.tuples <= left);
        file_.Read({bytes.get(), head.bytes}, extent + sizeof head);
        Decode({bytes.get(), head.bytes}, head.tuples, some.get(), use);
        left -= head.tuples;
        extent = head.previous;
    }
    Require(left == 0);
}

} // namespace crrecord::tool
