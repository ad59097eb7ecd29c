// What the ranges over a record's segments and unique DCIDs read.

#include <crrecord/segments.h>

#include "support/layout/segment_list.h"
#include "support/layout/unique_list.h"

namespace crrecord {

DOSegmentSource SegmentSourceOf(DORecordHeader const& fields, unsigned char const* record, Order order) noexcept {
    RecordLayout const layout(CountsOf(&fields, Order::Host));
    DOType const type = DOTypeOf(fields.dotype);
    return {.entries = record + layout.entries,
            .dcids = record + layout.dcids,
            .objectSize = fields.size,
            .ssize = fields.ssize,
            .count = layout.segments,
            .stride = static_cast<unsigned char>(layout.stride),
            .fingerprint = static_cast<unsigned char>(layout.fingerprint),
            .offsetPosition = static_cast<unsigned char>(layout.offset),
            .sizeWidth = type.sizeWidth,
            .offsetWidth = type.offsetWidth,
            .derivesSizes = type.check == ListCheck::Product,
            .order = order};
}

DOUniqueDCIDSource UniqueSourceOf(DORecordHeader const& fields, unsigned char const* record) noexcept {
    RecordLayout const layout(CountsOf(&fields, Order::Host));
    return {.entries = record + layout.UniqueEntry(0), .count = fields.nudcid};
}

} // namespace crrecord

using namespace crrecord;

DOSegmentSource DOSegmentSource::Of(DORecordHeader const* header) noexcept {
    DORecordHeader fields = ReadHeader(header);
    Order const order = HeaderToHost(fields);
    return SegmentSourceOf(fields, BytesOf(header), order);
}

DOUniqueDCIDSource DOUniqueDCIDSource::Of(DORecordHeader const* header) noexcept {
    DORecordHeader fields = ReadHeader(header);
    HeaderToHost(fields);
    return UniqueSourceOf(fields, BytesOf(header));
}
