// What the ranges over a record's segments and unique DCIDs read.

#include <crrecord/segments.h>

#include "support/layout/segment_list.h"
#include "support/layout/unique_list.h"

using namespace crrecord;

DOSegmentSource DOSegmentSource::Of(DORecordHeader const* header) noexcept {
    Order const order = OrderOf(header);
    RecordLayout const layout = LayoutOf(header);
    SegmentList const list = SegmentListOf(header, layout, order, false);
    return {.entries = list.entries,
            .dcids = BytesOf(header) + layout.dcids,
            .objectSize = list.objectSize,
            .ssize = list.ssize,
            .count = list.count,
            .stride = static_cast<unsigned char>(list.stride),
            .fingerprint = static_cast<unsigned char>(layout.fingerprint),
            .dotype = static_cast<unsigned char>(list.dotype),
            .networkOrder = order == Order::Network};
}

DOSegment DOSegmentSource::Read(unsigned int i) const noexcept {
    SegmentList const list{.entries = entries,
                           .count = count,
                           .stride = stride,
                           .sizeAt = fingerprint,
                           .offsetAt = OffsetPosition(fingerprint),
                           .dotype = dotype,
                           .order = networkOrder ? Order::Network : Order::Host,
                           .subDO = false,
                           .objectSize = objectSize,
                           .ssize = ssize};
    DOSegment segment{};
    std::memcpy(segment.fingerprint.bytes, entries + std::uint64_t{i} * stride, fingerprint);
    segment.size = SegmentSizeOf(list, i);
    segment.offset = DOTypeOf(dotype).offsetWidth == sizeof(std::uint32_t) ? SegmentObjectOffsetOf(list, i)
                                                                           : SegmentOffsetOf(list, i);
    segment.dcid = Load<std::uint64_t>(dcids + std::uint64_t{i} * kDcidSize);
    return segment;
}

DOUniqueDCIDSource DOUniqueDCIDSource::Of(DORecordHeader const* header) noexcept {
    return {.list = BytesOf(header) + LayoutOf(header).udcids, .count = CountsOf(header, OrderOf(header)).nudcid};
}

DOUniqueDCID DOUniqueDCIDSource::Read(unsigned int i) const noexcept {
    UniqueEntry const entry = LoadUniqueEntry(list, i, Order::Host);
    return {entry.dcid, entry.bytes};
}
