#include "support/validate/segment_list_check.h"

#include "base/prefetch.h"

#include <bit>

namespace crrecord {

namespace {

// Iterates over the sizes and offsets of a list.
template <Order order>
class EntryCursor {
public:
    explicit EntryCursor(DOSegmentSource const& list) noexcept : bytes_(list.entries), layout_(list) {}

    void PrefetchAhead() const noexcept { Prefetch(bytes_ + at_, kAheadOfEntry, 1); }
    void Skip(std::uint64_t count) noexcept { at_ += count * layout_.stride; }
    std::uint32_t Size() const noexcept { return Load<std::uint32_t>(bytes_ + at_ + layout_.fingerprint, order); }
    std::uint64_t Offset() const noexcept { return Load<std::uint64_t>(bytes_ + at_ + layout_.offset, order); }

private:
    unsigned char const* bytes_;
    std::uint64_t at_ = 0; // of the current entry
    DOEntryLayout layout_;
};

// Runs a check that is compiled once for each order, so that no loop tests the order.
template <class Check>
auto WithEntries(DOSegmentSource const& list, Check check) noexcept {
    return list.order == Order::Host ? check(EntryCursor<Order::Host>(list)) : check(EntryCursor<Order::Network>(list));
}

} // namespace

SegmentFault CheckSegmentSizes(DOSegmentSource const& list, bool subDO) noexcept {
    for (std::uint32_t i = 0; i < list.count && !subDO; ++i) {
        std::uint32_t const size = list.Size(i);
        if (size >= CRR_IMPLAUSIBLE_SIZE) {
            return {crr_fault_of(CR_FINDING_SEGMENT_SIZE, 0, size, CRR_IMPLAUSIBLE_SIZE - 1), i};
        }
    }
    return {};
}

SegmentFault CheckSegmentOffsets(DOSegmentSource const& list) noexcept {
    for (std::uint32_t i = 0; i < list.count; ++i) {
        std::uint64_t const offset = list.offsetWidth == sizeof(std::uint64_t) ? list.Offset(i) : kNoOffset;
        if (offset >= CRR_IMPLAUSIBLE_OFFSET) {
            return {crr_fault_of(CR_FINDING_SEGMENT_OFFSET, 0, offset, CRR_IMPLAUSIBLE_OFFSET - 1), i};
        }
    }
    return {};
}

void SegmentListCheck::Accumulate(std::uint64_t from, std::uint64_t count) noexcept {
    switch (list_.check) {
    case ListCheck::Sum: WithEntries(list_, [&](auto entries) { AccumulateSizes(entries, from, count); }); break;
    case ListCheck::Offsets: WithEntries(list_, [&](auto entries) { AccumulateOffsets(entries, from, count); }); break;
    default: break;
    }
}

// Adds up the sizes and collects their bits in one pass without a branch.
template <class E>
void SegmentListCheck::AccumulateSizes(E entries, std::uint64_t from, std::uint64_t count) noexcept {
    std::uint64_t sum = sum_;
    std::uint32_t sizes = sizes_;
    for (entries.Skip(from); count != 0; --count, entries.Skip(1)) {
        entries.PrefetchAhead();
        std::uint32_t const size = entries.Size();
        sum += size;
        sizes |= size;
    }
    sum_ = sum;
    sizes_ = sizes;
}

template <class E>
void SegmentListCheck::AccumulateOffsets(E entries, std::uint64_t from, std::uint64_t count) noexcept {
    std::uint64_t end = end_;
    std::uint64_t offsets = offsets_;
    std::uint32_t sizes = sizes_;
    bool overlap = overlap_;
    for (entries.Skip(from); count != 0; --count, entries.Skip(1)) {
        entries.PrefetchAhead();
        std::uint64_t const offset = entries.Offset();
        std::uint32_t const size = entries.Size();
        overlap |= offset < end;
        offsets |= offset;
        sizes |= size;
        end = offset + size;
    }
    end_ = end;
    offsets_ = offsets;
    sizes_ = sizes;
    overlap_ = overlap;
}

// The rules of crr_segments_fault, from the sums and the collected bits. False: no rule is broken.
bool SegmentListCheck::MayBeFaulty() const noexcept {
    bool const size = sizes_ >= CRR_IMPLAUSIBLE_SIZE && !subDO_;
    switch (list_.check) {
    case ListCheck::Product: return list_.objectSize > list_.ssize * list_.count; // wraps
    case ListCheck::Sum: return size || sum_ != list_.objectSize;
    case ListCheck::Offsets: return size || offsets_ >= CRR_IMPLAUSIBLE_OFFSET || overlap_ || end_ > list_.objectSize;
    default: return false;
    }
}

SegmentFault SegmentListCheck::Fault(std::uint64_t entries, std::uint64_t objectSize) const noexcept {
    if (!MayBeFaulty()) {
        return {};
    }
    crr_entry const entry{list_.fingerprint, list_.offset,      list_.stride,
                          list_.sizeWidth,   list_.offsetWidth, static_cast<int>(list_.check)};
    crr_segments const segments{.bytes = list_.entries,
                                .from = 0,
                                .to = std::uint64_t{list_.stride} * list_.count,
                                .entry = entry,
                                .size = list_.objectSize,
                                .ssize = list_.ssize,
                                .count = list_.count,
                                .big = std::endian::native == std::endian::big || list_.order == Order::Network,
                                .sub_do = subDO_,
                                .at_size = objectSize};
    SegmentFault fault(crr_segments_fault(&segments), 0);
    if (fault.code == 0) { // the memory has changed: the values that were found broke a rule
        bool const isSum = list_.check == ListCheck::Sum;
        return {crr_fault_of(isSum ? CR_FINDING_SEGMENT_SUM : CR_FINDING_SEGMENT_END, objectSize, list_.objectSize,
                             isSum ? sum_ : end_),
                0};
    }
    bool const ofSegment = fault.code == CR_FINDING_SEGMENT_SIZE || fault.code == CR_FINDING_SEGMENT_OFFSET ||
                           fault.code == CR_FINDING_SEGMENT_OVERLAP;
    if (ofSegment) {
        fault.segment = static_cast<std::uint32_t>(fault.offset / list_.stride);
        fault.offset += entries;
    }
    return fault;
}

SegmentFault CheckSegments(DOSegmentSource const& list, bool subDO) noexcept {
    SegmentListCheck check(list, subDO);
    check.Accumulate(0, list.count);
    return check.Fault();
}

} // namespace crrecord
