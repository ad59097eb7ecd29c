#include "record_stream.h"

#include "failure.h"
#include "segment_record.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace crrecord::tool {

namespace {

// Small enough to stay in a processor's cache while its records are worked on.
constexpr std::uint64_t kFirstBlock = 256UL * 1024;
// A record's size is a 32-bit field.
constexpr std::uint64_t kLargestRecord = std::numeric_limits<std::uint32_t>::max();

} // namespace

char const* NameOf(Kind kind) noexcept {
    return kind == Kind::Segment ? "segment" : "unknown";
}

char const* NameOf(Order order) noexcept {
    return order == Order::Host ? "host" : "network";
}

Record* RecordStream::Next() {
    begin_ += record_.size;
    record_.offset += record_.size;
    record_.size = 0;
    if (last_ || (Fill(1) == 0 && record_.number != 0)) {
        return nullptr;
    }
    ++record_.number;
    Frame();
    record_.bytes = buffer_.get() + begin_;
    return &record_;
}

void RecordStream::Frame() {
    std::uint64_t const there = Fill(SegmentRecordHeadSize());
    std::optional<Order> const order = SegmentRecordOrder({buffer_.get() + begin_, there});
    record_.kind = order ? Kind::Segment : Kind::Unknown;
    record_.order = order.value_or(Order::Host);
    if (there < SegmentRecordHeadSize() || !order) {
        record_.size = std::min(there, SegmentRecordHeadSize());
        record_.endsTooEarly = there < SegmentRecordHeadSize();
        last_ = true;
        return;
    }
    std::uint64_t const size = ChooseSize(SegmentRecordSizes(buffer_.get() + begin_, record_.order));
    record_.size = std::min(size, Fill(size));
    record_.endsTooEarly = record_.size < size;
    last_ = record_.endsTooEarly;
}

std::uint64_t RecordStream::ChooseSize(SizeClaims claims) {
    auto const [near, far] = std::minmax({claims.recorded, claims.counted});
    auto const possible = [](std::uint64_t size) { return size >= SegmentRecordHeadSize() && size <= kLargestRecord; };
    if (possible(near) && (near == far || !possible(far) || IsBorder(near))) {
        return near;
    }
    return possible(far) ? far : SegmentRecordHeadSize();
}

// Whether another record begins `position` bytes behind the beginning of this one, or the input ends there.
bool RecordStream::IsBorder(std::uint64_t position) {
    std::uint64_t const there = Fill(position + SegmentRecordHeadSize());
    return there == position ||
           (there > position && SegmentRecordOrder({buffer_.get() + begin_ + position, there - position}));
}

std::uint64_t RecordStream::Fill(std::uint64_t need) {
    while (end_ - begin_ < need && !inputEnded_) {
        MakeRoom(need);
        std::size_t const count = input_.Read({buffer_.get() + end_, capacity_ - end_});
        end_ += count;
        inputEnded_ = count == 0;
    }
    return end_ - begin_;
}

void RecordStream::MakeRoom(std::uint64_t need) {
    if (end_ < capacity_) {
        return;
    }
    if (begin_ != 0) {
        std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        return;
    }
    // The claim bounds the growth from above only; what was read bounds it too.
    std::uint64_t const wanted = std::max(kFirstBlock, std::min(need, 2 * capacity_));
    void* const grown = std::realloc(buffer_.get(), wanted);
    if (!grown) {
        throw InputFailure(Name() + ": record " + std::to_string(record_.number) + " at byte " +
                           std::to_string(record_.offset) + ": not enough memory for " + std::to_string(wanted) +
                           " bytes");
    }
    // realloc has taken the former block over.
    [[maybe_unused]] unsigned char* const former = buffer_.release();
    buffer_.reset(static_cast<unsigned char*>(grown));
    capacity_ = wanted;
}

} // namespace crrecord::tool
