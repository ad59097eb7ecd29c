#include "support/segment_rules.h"

#include <cassert>

namespace crrecord {

namespace {

// From here on a value is taken for one in the wrong byte order.
constexpr std::uint32_t kImplausibleSize = 0x80000000;
constexpr std::uint64_t kImplausibleOffset = 0x8000000000000000;

template <Order order>
struct Entries {
    explicit Entries(SegmentList const& list) noexcept : list_(list) {}

    std::uint32_t Size(std::uint64_t i) const noexcept {
        return Load<std::uint32_t>(list_.entries + i * list_.stride + list_.sizeAt, order);
    }
    std::uint64_t Offset(std::uint64_t i) const noexcept {
        return Load<std::uint64_t>(list_.entries + i * list_.stride + list_.offsetAt, order);
    }

    SegmentList const& list_;
};

// Runs a check that is compiled once for each order, so that no loop asks for the order again.
template <class Check>
auto WithEntries(SegmentList const& list, Check check) noexcept {
    return list.order == Order::Host ? check(Entries<Order::Host>(list)) : check(Entries<Order::Network>(list));
}

// Sizes are summed up, and their implausible bits collected, in one pass without a branch.
template <class E>
SegmentFault CheckSum(SegmentList const& list, E entries) noexcept {
    std::uint64_t sum = 0;
    std::uint32_t bits = 0;
    for (std::uint64_t i = 0; i < list.count; ++i) {
        std::uint32_t const size = entries.Size(i);
        sum += size;
        bits |= size;
    }
    if (bits >= kImplausibleSize && !list.subDO) {
        return CheckSegmentSizes(list);
    }
    if (sum != list.objectSize) {
        return {SegmentRule::Sum, 0, sum, list.objectSize};
    }
    return {};
}

template <class E>
SegmentFault FindOverlap(SegmentList const& list, E entries) noexcept {
    std::uint64_t end = 0;
    for (std::uint32_t i = 0; i < list.count; ++i) {
        std::uint64_t const offset = entries.Offset(i);
        if (offset < end) {
            return {SegmentRule::Overlap, i, offset, end};
        }
        end = offset + entries.Size(i);
    }
    return {};
}

// All rules of type 3 in one pass; where something is amiss, the rules one by one, in their order, say what.
template <class E>
SegmentFault CheckOffsetList(SegmentList const& list, E entries) noexcept {
    std::uint64_t end = 0;
    std::uint64_t offsets = 0;
    std::uint32_t sizes = 0;
    bool overlap = false;
    for (std::uint64_t i = 0; i < list.count; ++i) {
        std::uint64_t const offset = entries.Offset(i);
        std::uint32_t const size = entries.Size(i);
        overlap |= offset < end;
        offsets |= offset;
        sizes |= size;
        end = offset + size;
    }
    if (sizes >= kImplausibleSize && !list.subDO) {
        return CheckSegmentSizes(list);
    }
    if (offsets >= kImplausibleOffset) {
        return CheckSegmentOffsets(list);
    }
    if (overlap) {
        return FindOverlap(list, entries);
    }
    if (end > list.objectSize) {
        return {SegmentRule::End, 0, end, list.objectSize};
    }
    return {};
}

} // namespace

SegmentList SegmentListOf(DORecordHeader const* header, RecordLayout const& layout, Order order, bool subDO) noexcept {
    return {.entries = BytesOf(header) + layout.entries,
            .count = layout.segments,
            .stride = layout.stride,
            .sizeAt = layout.fingerprint,
            .offsetAt = layout.offset,
            .dotype = header->dotype,
            .order = order,
            .subDO = subDO,
            .objectSize = order == Order::Host ? header->size : Turned(header->size),
            .ssize = order == Order::Host ? header->ssize : Turned(header->ssize)};
}

std::uint32_t SegmentSizeOf(SegmentList const& list, std::uint32_t i) noexcept {
    if (HasSegmentSize(list.dotype)) {
        assert(i < list.count);
        return Load<std::uint32_t>(list.entries + std::uint64_t{i} * list.stride + list.sizeAt, list.order);
    }
    if (list.dotype > CR_DO_TYPE_NO_SIZE) {
        return kNoSize;
    }
    // Cut to 32 bits, as a segment's size is. Without segments the last index is 2^32 - 1.
    std::uint64_t const size = i == list.count - 1 ? list.objectSize - i * list.ssize : list.ssize;
    return static_cast<std::uint32_t>(size);
}

std::uint64_t SegmentOffsetOf(SegmentList const& list, std::uint32_t i) noexcept {
    if (list.dotype != CR_DO_TYPE_8_BYTE_OFFSET) {
        return kNoOffset;
    }
    assert(i < list.count);
    return Load<std::uint64_t>(list.entries + std::uint64_t{i} * list.stride + list.offsetAt, list.order);
}

std::uint32_t SegmentObjectOffsetOf(SegmentList const& list, std::uint32_t i) noexcept {
    if (list.dotype != CR_DO_TYPE_4_BYTE_OFFSET) {
        return kNoObjectOffset;
    }
    assert(i < list.count);
    return Load<std::uint32_t>(list.entries + std::uint64_t{i} * list.stride + list.offsetAt, list.order);
}

SegmentFault CheckSegmentSizes(SegmentList const& list) noexcept {
    for (std::uint32_t i = 0; i < list.count && !list.subDO; ++i) {
        std::uint32_t const size = SegmentSizeOf(list, i);
        if (size >= kImplausibleSize) {
            return {SegmentRule::Size, i, size, kImplausibleSize - 1};
        }
    }
    return {};
}

SegmentFault CheckSegmentOffsets(SegmentList const& list) noexcept {
    for (std::uint32_t i = 0; i < list.count; ++i) {
        std::uint64_t const offset = SegmentOffsetOf(list, i);
        if (offset >= kImplausibleOffset) {
            return {SegmentRule::Offset, i, offset, kImplausibleOffset - 1};
        }
    }
    return {};
}

SegmentFault CheckSegments(SegmentList const& list) noexcept {
    switch (list.dotype) {
    case CR_DO_TYPE_ORIGINAL:
    case CR_DO_TYPE_NO_SIZE: {
        std::uint64_t product = 0;
        // One beyond 64 bits is beyond the size of every object.
        bool const fits = !__builtin_mul_overflow(list.ssize, list.count, &product);
        return fits && list.objectSize > product ? SegmentFault{SegmentRule::Product, 0, product, list.objectSize}
                                                 : SegmentFault{};
    }
    case CR_DO_TYPE_NO_OFFSET:
    case CR_DO_TYPE_4_BYTE_OFFSET: return WithEntries(list, [&](auto entries) { return CheckSum(list, entries); });
    case CR_DO_TYPE_8_BYTE_OFFSET:
        return WithEntries(list, [&](auto entries) { return CheckOffsetList(list, entries); });
    default: return {};
    }
}

} // namespace crrecord
