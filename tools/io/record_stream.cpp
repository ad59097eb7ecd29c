#include "io/record_stream.h"

#include "io/failure.h"
#include "record/do_record.h"
#include "record/segment_record.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

namespace crrecord::tool {

namespace {

// Small enough to stay in a processor's cache while its records are worked on.
constexpr std::uint64_t kFirstBlock = 256UL * 1024;
// A record's size is a 32-bit field.
constexpr std::uint64_t kLargestSize = std::numeric_limits<std::uint32_t>::max();

// How records of a kind are known.
struct Framing {
    Kind kind;
    std::uint64_t headSize; // bytes from which the size can be told
    std::optional<Order> (*order)(std::span<unsigned char const>) noexcept;
    SizeClaims (*sizes)(unsigned char const*, Order) noexcept;
};
constexpr Framing kFramings[] = {
    {Kind::Segment, SegmentRecordHeadSize(), SegmentRecordOrder, SegmentRecordSizes},
    {Kind::DataObject, DORecordHeadSize(), DORecordOrder, DORecordSizes},
};
constexpr std::uint64_t kLargestHead = std::max(SegmentRecordHeadSize(), DORecordHeadSize());

// How a record that starts with these bytes is known; null where it is of no known kind or too short to tell.
Framing const* FramingOf(std::span<unsigned char const> bytes) noexcept {
    for (Framing const& framing : kFramings) {
        if (framing.order(bytes)) {
            return &framing;
        }
    }
    return nullptr;
}

} // namespace

char const* NameOf(Kind kind) noexcept {
    switch (kind) {
    case Kind::Segment: return "segment";
    case Kind::DataObject: return "do";
    case Kind::Form: return "serialized";
    default: return "unknown";
    }
}

char const* NameOf(Order order) noexcept {
    return order == Order::Host ? "host" : "network";
}

char const* NameOfFingerprint(unsigned int fptype) noexcept {
    static constexpr std::array<char const*, 4> kNames{"MD5", "SHA-1/128", "SHA-256/128", "SHA-256"};
    static_assert(kNames.size() == CR_FP_TYPE_SHA256 + 1);
    return kNames[fptype];
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

bool RecordStream::EndsHere() {
    bool const ends = Fill(record_.size + 1) == record_.size;
    record_.bytes = buffer_.get() + begin_;
    return ends;
}

void RecordStream::Frame() {
    if (form_) {
        FrameForm();
        return;
    }
    std::uint64_t const there = Fill(kLargestHead);
    std::span<unsigned char const> const bytes(buffer_.get() + begin_, there);
    Framing const* const framing = FramingOf(bytes);
    std::uint64_t const headSize = framing ? framing->headSize : SegmentRecordHeadSize();
    record_.kind = framing ? framing->kind : Kind::Unknown;
    record_.order = framing ? *framing->order(bytes) : Order::Host;
    if (there < headSize || !framing) {
        record_.size = std::min(there, headSize);
        record_.endsTooEarly = there < headSize;
        last_ = true;
        return;
    }
    std::uint64_t const size = ChooseSize(framing->sizes(bytes.data(), record_.order), headSize);
    record_.size = std::min(size, Fill(size));
    record_.endsTooEarly = record_.size < size;
    last_ = record_.endsTooEarly;
}

void RecordStream::FrameForm() {
    record_.kind = Kind::Form;
    record_.form = *form_;
    record_.size = Fill(std::numeric_limits<std::uint64_t>::max());
    record_.endsTooEarly = record_.size == 0;
    last_ = true;
}

std::uint64_t RecordStream::ChooseSize(SizeClaims claims, std::uint64_t least) {
    auto const [near, far] = std::minmax({claims.recorded, claims.counted});
    auto const possible = [least](std::uint64_t size) { return size >= least && size <= kLargestSize; };
    if (possible(near) && (near == far || !possible(far) || IsBorder(near))) {
        return near;
    }
    return possible(far) ? far : least;
}

// Whether another record begins `position` bytes behind the beginning of this one, or the input ends there.
bool RecordStream::IsBorder(std::uint64_t position) {
    std::uint64_t const there = Fill(position + kLargestHead);
    return there == position ||
           (there > position && FramingOf({buffer_.get() + begin_ + position, there - position}) != nullptr);
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
