#include "store/spill_file.h"

#include "io/failure.h"

namespace crrecord::tool {

namespace {

constexpr std::size_t kFull = 64UL * 1024;

std::span<unsigned char const> BytesOf(auto const& object, std::size_t size) {
    return {reinterpret_cast<unsigned char const*>(&object), size};
}

[[noreturn]] void ThrowDamaged() {
    throw Failure("a temporary file has bytes that were not written to it");
}

} // namespace

SpillFile::Extent::Extent(SpillFile& file, std::uint64_t tuples, std::uint64_t previous)
    : file_(file), start_(file.end_.fetch_add(sizeof(Head) + tuples * sizeof(SegmentTuple))), at_(start_) {
    Head const head{previous, tuples};
    auto const bytes = BytesOf(head, sizeof head);
    buffer_.reserve(kFull);
    buffer_.assign(bytes.begin(), bytes.end());
}

void SpillFile::Extent::Append(std::span<SegmentTuple const> tuples) {
    for (SegmentTuple const& tuple : tuples) {
        auto const bytes = BytesOf(tuple, sizeof tuple);
        buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
        if (buffer_.size() + sizeof tuple > kFull) {
            Flush();
        }
    }
}

std::uint64_t SpillFile::Extent::Finish() {
    Flush();
    return start_;
}

void SpillFile::Extent::Flush() {
    file_.file_.Write(buffer_, at_);
    at_ += buffer_.size();
    buffer_.clear();
}

SpillFile::Head SpillFile::ReadHead(std::uint64_t extent) const {
    std::uint64_t const end = end_;
    Head head{};
    if (end < sizeof head || extent > end - sizeof head) {
        ThrowDamaged();
    }
    file_.Read({reinterpret_cast<unsigned char*>(&head), sizeof head}, extent);
    std::uint64_t const most = (end - sizeof head - extent) / sizeof(SegmentTuple);
    // Extents are chained from the end to the start, so that the chain ends.
    if (head.tuples > most || (head.previous != kNone && head.previous >= extent)) {
        ThrowDamaged();
    }
    return head;
}

void SpillFile::Read(std::uint64_t last, std::function<void(std::span<SegmentTuple const>)> const& use) const {
    std::vector<SegmentTuple> buffer(kReadTuples);
    while (last != kNone) {
        Head const head = ReadHead(last);
        std::uint64_t at = last + sizeof head;
        for (std::uint64_t left = head.tuples; left != 0;) {
            std::span<SegmentTuple> const tuples(buffer.data(), std::min(left, kReadTuples));
            file_.Read({reinterpret_cast<unsigned char*>(tuples.data()), tuples.size_bytes()}, at);
            if (!std::all_of(tuples.begin(), tuples.end(), [](auto const& tuple) { return tuple.IsWellFormed(); })) {
                ThrowDamaged();
            }
            use(tuples);
            at += tuples.size_bytes();
            left -= tuples.size();
        }
        last = head.previous;
    }
}

} // namespace crrecord::tool
