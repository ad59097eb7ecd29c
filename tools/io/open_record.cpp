// Records whose end is in doubt: how RecordStream finds the next record after them.

#include "io/failure.h"
#include "io/record_heads.h"
#include "io/record_stream.h"

#include "support/exchange/exchange_form.h"
#include "support/layout/unique_list.h"

#include <limits>

#include <fmt/format.h>

namespace crrecord::tool {

namespace {

constexpr std::uint64_t kNoEnd = std::numeric_limits<std::uint64_t>::max();
// A record's size is a 32-bit field.
constexpr std::uint64_t kLargestSize = std::numeric_limits<std::uint32_t>::max();
// A fingerprint as text with its NUL is at most 1 byte longer than twice the fingerprint, and all else is the same.
constexpr std::uint64_t kLargestForm = 2 * kLargestSize;

} // namespace

std::string Describe(Gap const& gap) {
    if (gap.isRest) {
        return fmt::format("{}from byte {} to the end not read", gap.size ? Counted(*gap.size, "byte") + " " : "",
                           gap.offset);
    }
    return fmt::format("skipped bytes {} to {} ({})", gap.offset, gap.offset + *gap.size - 1, *gap.size);
}

void GapSums::Add(RecordStream const& stream) {
    std::optional<std::uint64_t> const more = stream.UnreadBytes();
    skipped += stream.SkippedBytes();
    unread = unread && more ? std::optional(*unread + *more) : std::nullopt;
}

void RecordStream::FrameUnknown(std::uint64_t there, std::uint64_t headSize) {
    record_.size = std::min(there, headSize);
    record_.endsTooEarly = there < headSize;
    if (isValid_ && there != 0) {
        OpenToNextRecord(record_.size);
        return;
    }
    last_ = true;
    if (!record_.endsTooEarly) {
        Open(record_.size, kNoEnd, kNoEnd);
    }
}

void RecordStream::FrameDoubtful(std::uint64_t recorded, std::uint64_t counted, std::uint64_t headSize) {
    auto const possible = [headSize](std::uint64_t size) { return size >= headSize && size <= kLargestSize; };
    auto [near, far] = std::minmax({recorded, counted});
    near = possible(near) ? near : possible(far) ? far : headSize;
    far = possible(far) ? far : near;
    record_.endsTooEarly = false;
    if (isValid_ && start_ == foundAt_ && start_ != 0) {
        FrameWhole(recorded);
    } else if (isValid_) {
        bool const mayBeSeen = recorded == counted ? Reach(0, near) : near <= kReadBlock;
        if (mayBeSeen && (IsBoundary(near) || IsValidAt(0))) {
            FrameWhole(near);
        } else {
            OpenToNextRecord(near <= kReadBlock && Fill(near) >= near ? near : headSize);
        }
    } else if (near <= kReadBlock && IsBoundary(near)) {
        FrameWhole(near);
    } else if (far <= kReadBlock || Fill(kReadBlock) < kReadBlock) {
        FrameWhole(far);
    } else {
        Open(near <= kReadBlock ? near : headSize, start_ + near, start_ + far);
    }
}

void RecordStream::FrameForm() {
    using namespace exchange;
    record_.kind = Kind::Form;
    record_.form = *form_;
    std::uint64_t size = 0;
    if (Fill(kBitmapOffset) >= kBitmapOffset) {
        std::uint64_t const bsize = Form(bytes_ + begin_, kBitmapOffset, 0, 0).Word(kHeadSize);
        std::uint32_t const count = Form(bytes_ + begin_, kBitmapOffset, 0, 0).Word(kCountOffset);
        size = FormSize(count, form_->dotype, form_->fptype);
        if (IsBloom(form_->dotype)) {
            std::uint64_t const list = kBitmapOffset + bsize;
            bool const hasList = Fill(list + kUniqueHeadSize) >= list + kUniqueHeadSize;
            size = BloomFormSize(static_cast<std::uint32_t>(bsize),
                                 hasList ? UniqueCount(bytes_ + begin_ + list, Order::Network) : 0);
        }
    }
    std::uint64_t const most = (size <= kLargestForm ? size : 0) + kReadBlock;
    record_.size = Fill(most + 1);
    record_.endsTooEarly = record_.size == 0;
    last_ = true;
    if (record_.size > most) {
        Open(most, kNoEnd, kNoEnd);
    }
}

// The current record has no certain end. Only its first `size` bytes are in the buffer for sure.
void RecordStream::Open(std::uint64_t size, std::uint64_t nearEnd, std::uint64_t farEnd) {
    record_.size = size;
    record_.open = true;
    unfinished_ = true;
    scanning_ = false;
    nearEnd_ = nearEnd;
    farEnd_ = farEnd;
}

void RecordStream::OpenToNextRecord(std::uint64_t size) {
    Open(size, kNoEnd, kNoEnd);
    scanning_ = true;
    record_.size = Scan(1, size);
    record_.endsTooEarly = record_.endsTooEarly && record_.open;
}

bool RecordStream::NextBlock() {
    if (!record_.open) {
        return false;
    }
    Advance();
    record_.kind = Kind::Unknown;
    std::uint64_t const there = std::min(Fill(kReadBlock), kReadBlock);
    record_.size = scanning_ ? Scan(0, there) : std::min(there, RestOfOpen());
    record_.open = record_.open && record_.size != 0;
    record_.bytes = bytes_ + begin_;
    return record_.size != 0;
}

// Passes the rest of the record, or reports it if it is not read.
void RecordStream::FinishOpen() {
    unfinished_ = false;
    if (last_) {
        if (Fill(kReadBlock) != 0) {
            std::optional<std::uint64_t> const left = inputEnded_ ? 0 : input_.BytesLeft();
            unread_ = left ? std::optional(*left + (end_ - begin_)) : std::nullopt;
            ReportGap({record_.offset, unread_, true});
        }
        return;
    }
    while (NextBlock()) {}
    Advance();
    skipped_ += record_.offset - start_;
    ReportGap({start_, record_.offset - start_, false});
}

void RecordStream::ReportGap(Gap const& gap) {
    if (reportGap_) {
        reportGap_(gap);
    } else {
        Complain(Name() + ": " + Describe(gap));
    }
}

// Returns: true if a record starts, or the input ends, `position` bytes after the start of the current record.
bool RecordStream::IsBoundary(std::uint64_t position) {
    std::uint64_t const there = Fill(position + kLargestHead);
    return there == position ||
           (there > position && CRRecordProbe(bytes_ + begin_ + position, there - position).kind != CR_RECORD_UNKNOWN);
}

// Returns: the bytes from here to the end of the open record.
std::uint64_t RecordStream::RestOfOpen() {
    if (record_.offset == nearEnd_ && !IsBoundary(0)) {
        nearEnd_ = farEnd_;
    }
    return nearEnd_ - record_.offset;
}

// Closes the current record if a valid one starts `from` to `to` bytes after its start.
// Returns: the position of that record, otherwise `to`.
std::uint64_t RecordStream::Scan(std::uint64_t from, std::uint64_t to) {
    std::uint64_t const there = Fill(to + 1);
    for (std::uint64_t position = from; position < to && position + 1 < there; ++position) {
        unsigned char const* const at = bytes_ + begin_ + position;
        if (MayStartRecord(at[0], at[1]) && IsValidAt(position)) {
            record_.open = false;
            foundAt_ = record_.offset + position;
            return position;
        }
    }
    return to;
}

// Returns: true if a valid record starts at this position of the current one.
bool RecordStream::IsValidAt(std::uint64_t position) {
    std::uint64_t const there = Fill(position + kLargestHead) - position;
    cr_record_probe_t const probe = CRRecordProbe(bytes_ + begin_ + position, there);
    if (probe.kind == CR_RECORD_UNKNOWN || there < probe.head_size || probe.recorded_size != probe.counted_size ||
        probe.recorded_size < probe.head_size || !Reach(position, probe.recorded_size)) {
        return false;
    }
    Record candidate{};
    candidate.kind = KindOf(probe.kind);
    candidate.order = probe.network_order != 0 ? Order::Network : Order::Host;
    candidate.size = probe.recorded_size;
    candidate.bytes = bytes_ + begin_ + position;
    return isValid_(candidate);
}

// Returns: true if so many bytes are in the buffer. They are not read if they would exceed the input or the work of a
// scan.
bool RecordStream::Reach(std::uint64_t position, std::uint64_t size) {
    std::optional<std::uint64_t> const left = input_.BytesLeft();
    if ((left && position + size > *left + (end_ - begin_)) ||
        scanWork_ + size > kScanWork * (record_.offset + position + size) || Fill(position + size) < position + size) {
        return false;
    }
    scanWork_ += size;
    return true;
}

} // namespace crrecord::tool
