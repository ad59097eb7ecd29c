#include "support/layout/segment_source.h"

namespace crrecord {

DOSegmentSource SegmentSourceOf(DORecordHeader const& fields, unsigned char const* record, Order order) noexcept {
    RecordLayout const layout(CountsOf(&fields, Order::Host));
    return {layout, record + layout.entries, record + layout.dcids, fields.size, fields.ssize, layout.segments, order};
}

DOUniqueDCIDSource UniqueSourceOf(DORecordHeader const& fields, unsigned char const* record) noexcept {
    RecordLayout const layout(CountsOf(&fields, Order::Host));
    // If there is no list, the address of its first entry may be outside of the buffer.
    return {.entries = record + (fields.nudcid != 0 ? layout.UniqueEntry(0) : layout.udcids), .count = fields.nudcid};
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
