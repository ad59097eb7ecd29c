#include "io/record_stream.h"

#include "io/failure.h"
#include "io/record_heads.h"
#include "io/record_names.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/SOmarshall.h>
#include <crrecord/fingerprint.h>
#include <crrecord/probe.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include <fmt/format.h>

namespace crrecord::tool {

namespace {

constexpr std::uint64_t kProgressStep = 4UL * 1024 * 1024;
// The parser rejects longer lines.
constexpr std::uint64_t kLargestLine = std::numeric_limits<std::uint32_t>::max();

// JSON has no NUL, so a line ends after one: a hole of a sparse file must not fill the memory. Sets `size` to the end.
// Returns: true if there is one.
bool EndAtNul(unsigned char const* text, std::uint64_t& size) {
    auto const* const nul = static_cast<unsigned char const*>(std::memchr(text, '\0', size));
    size = nul ? static_cast<std::uint64_t>(nul - text) + 1 : size;
    return nul != nullptr;
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
    static_assert(kNames.size() == CR_FP_TYPE_LAST + 1);
    return kNames[fptype];
}

std::string PlaceOf(std::string_view file, Record const& record) {
    return fmt::format("{}: {} at byte {}", file, LabelOf(record.number, record.offset), record.offset);
}

void ConvertRecord(Record const& record, Order order) noexcept {
    if (record.order == order) {
        return;
    }
    if (record.kind == Kind::Segment) {
        auto* const stored = reinterpret_cast<_SegmentDBRecord*>(record.bytes);
        (order == Order::Network ? SegmentRecordHton : SegmentRecordNtoh)(stored, stored, 0);
    } else {
        auto* const header = reinterpret_cast<DORecordHeader*>(record.bytes);
        (order == Order::Network ? DORecordHeaderHton : DORecordHeaderNtoh)(header);
    }
}

RecordStream::RecordStream(std::string name, std::optional<FormFacts> form)
    : input_(std::move(name)), progress_(input_.Name(), input_.ExpectedSize()), form_(form) {}

RecordStream::RecordStream(FilePart const& part)
    : input_(part.name, part.path, part.offset), first_(part.offset), stop_(part.end),
      progress_(input_.Name(), input_.ExpectedSize()) {
    constexpr std::int64_t kNanoseconds = 1'000'000'000;
    struct stat const& facts = input_.Facts();
    if (static_cast<std::uint64_t>(facts.st_size) != part.size ||
        facts.st_mtim.tv_sec * kNanoseconds + facts.st_mtim.tv_nsec != part.modified) {
        throw InputFailure(Name() + ": file changed while it was read");
    }
    record_.offset = part.offset;
    record_.number = part.number - 1;
}

bool RecordStream::IsJson() {
    std::uint64_t position = 0;
    while (Fill(position + 1) > position && position < kReadBlock) {
        char const character = static_cast<char>(bytes_[begin_ + position++]);
        if (std::string_view(" \t\r\n").find(character) == std::string_view::npos) {
            return character == '{';
        }
    }
    return false;
}

Line const* RecordStream::NextLine() {
    Advance();
    std::uint64_t size = 0;
    void const* end = nullptr;
    for (std::uint64_t there = Fill(1); !end && size < there; there = Fill(size + 1)) {
        unsigned char const* const text = bytes_ + begin_;
        end = std::memchr(text + size, '\n', there - size);
        size = end ? static_cast<std::uint64_t>(static_cast<unsigned char const*>(end) - text) : there;
        if (!end && !inputEnded_ && (size > kLargestLine || EndAtNul(text, size))) {
            break;
        }
        if (!end && !inputEnded_) {
            Reserve(2 * size);
        }
    }
    if (!end && size == 0) {
        return nullptr;
    }
    record_.size = size + (end ? 1 : 0);
    line_ = {.number = line_.number + 1,
             .offset = record_.offset,
             .text = {reinterpret_cast<char const*>(bytes_ + begin_), size},
             .readable = end_ - begin_};
    return &line_;
}

void RecordStream::Frame() {
    start_ = record_.offset;
    record_.open = false;
    if (form_) {
        FrameForm();
        return;
    }
    std::uint64_t const there = Fill(kLargestHead);
    cr_record_probe_t const probe = CRRecordProbe(bytes_ + begin_, there);
    record_.kind = KindOf(probe.kind);
    record_.order = probe.network_order != 0 ? Order::Network : Order::Host;
    if (record_.kind == Kind::Unknown || there < probe.head_size) {
        FrameUnknown(there, record_.kind == Kind::Unknown ? kUnknownHead : probe.head_size);
    } else if (probe.recorded_size != probe.counted_size || probe.recorded_size < probe.head_size || isValid_) {
        FrameDoubtful(probe.recorded_size, probe.counted_size, probe.head_size);
    } else {
        FrameWhole(probe.recorded_size);
    }
}

void RecordStream::FrameWhole(std::uint64_t size) {
    record_.size = std::min(size, Fill(size));
    record_.endsTooEarly = record_.size < size;
    last_ = record_.endsTooEarly;
}

void RecordStream::Advance() {
    begin_ += record_.size;
    record_.offset += record_.size;
    record_.size = 0;
    if (record_.offset >= nextMark_) {
        nextMark_ = record_.offset + kProgressStep;
        progress_.At(record_.offset);
    }
}

Record* RecordStream::Next() {
    Advance();
    if (unfinished_) {
        FinishOpen();
    }
    if (last_ || record_.offset >= stop_ || (Fill(1) == 0 && record_.number != 0)) {
        return nullptr;
    }
    ++record_.number;
    Frame();
    record_.bytes = bytes_ + begin_;
    return &record_;
}

bool RecordStream::EndsHere() {
    bool const ends = Fill(record_.size + 1) == record_.size;
    record_.bytes = bytes_ + begin_;
    return ends;
}

void RecordStream::ReadOn(std::uint64_t need) {
    while (end_ - begin_ < need && !inputEnded_) {
        if (release_ && begin_ != 0 && (begin_ >= Block() / 2 || end_ == buffer_.capacity)) {
            release_();
        }
        Reserve(need);
        // No more than needed: after one large record, reads for small ones would otherwise fill its large buffer.
        std::uint64_t const most = std::max(Block(), need - (end_ - begin_));
        std::size_t const count = input_.Read({bytes_ + end_, std::min(buffer_.capacity - end_, most)});
        end_ += count;
        inputEnded_ = count == 0;
    }
}

void RecordStream::Reserve(std::uint64_t need) {
    // To the buffer's start, which is in the cache. No more bytes are moved than were used before.
    std::uint64_t const present = end_ - begin_;
    bool const mayMove = present <= begin_ && (!release_ || begin_ >= Block() / 2);
    if (begin_ != 0 && (mayMove || end_ == buffer_.capacity)) {
        std::memmove(bytes_, bytes_ + begin_, present);
        begin_ = 0;
        end_ = present;
    }
    if (end_ < buffer_.capacity) {
        return;
    }
    // The buffer grows to what the record claims, but at most to twice the bytes read if the input may have fewer.
    bool const isThere = need - present <= input_.BytesLeft().value_or(0);
    std::uint64_t const wanted = std::max(Block(), isThere ? need : std::min(need, 2 * buffer_.capacity));
    void* const grown = std::realloc(buffer_.bytes.get(), wanted);
    if (!grown) {
        throw InputFailure(fmt::format("{}: not enough memory for {} bytes", PlaceOf(Name(), record_), wanted));
    }
    // realloc has freed the former block.
    [[maybe_unused]] unsigned char* const former = buffer_.bytes.release();
    buffer_.bytes.reset(static_cast<unsigned char*>(grown));
    buffer_.capacity = wanted;
    bytes_ = buffer_.bytes.get();
}

bool RecordStream::ExchangeBuffer(Buffer& buffer) {
    std::uint64_t const present = end_ - begin_;
    std::uint64_t const least = std::max(Block(), present);
    if (buffer.capacity < least) {
        buffer = {};
        buffer.bytes.reset(static_cast<unsigned char*>(std::malloc(least)));
        buffer.capacity = buffer.bytes ? least : 0;
    }
    if (!buffer.bytes) {
        return false;
    }
    std::copy_n(bytes_ + begin_, present, buffer.bytes.get());
    std::swap(buffer_, buffer);
    bytes_ = buffer_.bytes.get();
    begin_ = 0;
    end_ = present;
    return true;
}

} // namespace crrecord::tool
