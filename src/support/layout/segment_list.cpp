#include "support/layout/segment_list.h"

#include <cassert>

namespace crrecord {

SegmentList SegmentListOf(DORecordHeader const* header, RecordLayout const& layout, Order order, bool subDO) noexcept {
    return {.entries = BytesOf(header) + layout.entries,
            .count = layout.segments,
            .stride = layout.stride,
            .sizeAt = layout.fingerprint,
            .offsetAt = layout.offset,
            .dotype = header->dotype,
            .order = order,
            .subDO = subDO,
            .objectSize = order == Order::Host ? header->size : ByteSwapped(header->size),
            .ssize = order == Order::Host ? header->ssize : ByteSwapped(header->ssize)};
}

std::uint32_t SegmentSizeOf(SegmentList const& list, std::uint32_t i) noexcept {
    DOType const type = DOTypeOf(list.dotype);
    if (type.sizeWidth != 0) {
        assert(i < list.count);
        return Load<std::uint32_t>(list.entries + std::uint64_t{i} * list.stride + list.sizeAt, list.order);
    }
    return DOEntryLayout(list.dotype, 0).DerivedSize(i, list.count, list.objectSize, list.ssize);
}

std::uint64_t SegmentOffsetOf(SegmentList const& list, std::uint32_t i) noexcept {
    if (DOTypeOf(list.dotype).offsetWidth != sizeof(std::uint64_t)) {
        return kNoOffset;
    }
    assert(i < list.count);
    return Load<std::uint64_t>(list.entries + std::uint64_t{i} * list.stride + list.offsetAt, list.order);
}

std::uint32_t SegmentObjectOffsetOf(SegmentList const& list, std::uint32_t i) noexcept {
    if (DOTypeOf(list.dotype).offsetWidth != sizeof(std::uint32_t)) {
        return kNoObjectOffset;
    }
    assert(i < list.count);
    return Load<std::uint32_t>(list.entries + std::uint64_t{i} * list.stride + list.offsetAt, list.order);
}

} // namespace crrecord
