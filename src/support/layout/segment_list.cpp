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

} // namespace crrecord
