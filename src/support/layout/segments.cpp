// What the ranges over a record's segments and unique DCIDs read.

#include <crrecord/segments.h>

#include "support/layout/segment_list.h"
#include "support/layout/unique_list.h"

namespace crrecord {

DOSegmentSource SegmentSourceOf(DORecordHeader const& fields, unsigned char const* record, Order order) noexcept {
    RecordLayout const layout(CountsOf(&fields, Order::Host));
    return {.entries = record + layout.entries,
            .dcids = record + layout.dcids,
            .objectSize = fields.size,
            .ssize = fields.ssize,
            .count = layout.segments,
            .stride = static_cast<unsigned char>(layout.stride),
            .fingerprint = static_cast<unsigned char>(layout.fingerprint),
            .dotype = fields.dotype,
            .networkOrder = order == Order::Network};
}

DOUniqueDCIDSource UniqueSourceOf(DORecordHeader const& fields, unsigned char const* record) noexcept {
    return {.list = record + RecordLayout(CountsOf(&fields, Order::Host)).udcids, .count = fields.nudcid};
}

} // namespace crrecord

using namespace crrecord;

DOSegmentSource DOSegmentSource::Of(DORecordHeader const* header) noexcept {
    DORecordHeader fields = ReadHeader(header);
    Order const order = HeaderToHost(fields);
    return SegmentSourceOf(fields, BytesOf(header), order);
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
    DORecordHeader fields = ReadHeader(header);
    HeaderToHost(fields);
    return UniqueSourceOf(fields, BytesOf(header));
}

DOUniqueDCID DOUniqueDCIDSource::Read(unsigned int i) const noexcept {
    UniqueEntry const entry = LoadUniqueEntry(list, i, Order::Host);
    return {entry.dcid, entry.bytes};
}
