#include "support/validate/segment_list_check.h"

#include "base/prefetch.h"

namespace crrecord {

namespace {

// A value from here on is probably in the wrong byte order.
constexpr std::uint32_t kImplausibleSize = 0x80000000;
constexpr std::uint64_t kImplausibleOffset = 0x8000000000000000;

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

template <class E>
SegmentFault FindOverlap(DOSegmentSource const& list, E entries) noexcept {
    std::uint64_t end = 0;
    for (std::uint32_t i = 0; i < list.count; ++i, entries.Skip(1)) {
        std::uint64_t const offset = entries.Offset();
        if (offset < end) {
            return {SegmentRule::Overlap, i, offset, end};
        }
        end = offset + entries.Size();
    }
    return {};
}

} // namespace

SegmentFault CheckSegmentSizes(DOSegmentSource const& list, bool subDO) noexcept {
    for (std::uint32_t i = 0; i < list.count && !subDO; ++i) {
        std::uint32_t const size = list.Size(i);
        if (size >= kImplausibleSize) {
            return {SegmentRule::Size, i, size, kImplausibleSize - 1};
        }
    }
    return {};
}

SegmentFault CheckSegmentOffsets(DOSegmentSource const& list) noexcept {
    for (std::uint32_t i = 0; i < list.count; ++i) {
        std::uint64_t const offset = list.offsetWidth == sizeof(std::uint64_t) ? list.Offset(i) : kNoOffset;
        if (offset >= kImplausibleOffset) {
            return {SegmentRule::Offset, i, offset, kImplausibleOffset - 1};
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

SegmentFault SegmentListCheck::Fault() const noexcept {
    switch (list_.check) {
    case ListCheck::Product: return ProductFault();
    case ListCheck::Sum: return SumFault();
    case ListCheck::Offsets: return OffsetFault();
    default: return {};
    }
}

SegmentFault SegmentListCheck::ProductFault() const noexcept {
    std::uint64_t const product = list_.ssize * list_.count; // wraps
    return list_.objectSize > product ? SegmentFault{SegmentRule::Product, 0, product, list_.objectSize}
                                      : SegmentFault{};
}

SegmentFault SegmentListCheck::SumFault() const noexcept {
    if (sizes_ >= kImplausibleSize && !subDO_) {
        return CheckSegmentSizes(list_, subDO_);
    }
    return sum_ != list_.objectSize ? SegmentFault{SegmentRule::Sum, 0, sum_, list_.objectSize} : SegmentFault{};
}

// Tests the rules in the order in which they are reported.
SegmentFault SegmentListCheck::OffsetFault() const noexcept {
    if (sizes_ >= kImplausibleSize && !subDO_) {
        return CheckSegmentSizes(list_, subDO_);
    }
    if (offsets_ >= kImplausibleOffset) {
        return CheckSegmentOffsets(list_);
    }
    if (overlap_) {
        return WithEntries(list_, [&](auto entries) { return FindOverlap(list_, entries); });
    }
    return end_ > list_.objectSize ? SegmentFault{SegmentRule::End, 0, end_, list_.objectSize} : SegmentFault{};
}

SegmentFault CheckSegments(DOSegmentSource const& list, bool subDO) noexcept {
    SegmentListCheck check(list, subDO);
    check.Accumulate(0, list.count);
    return check.Fault();
}

} // namespace crrecord
