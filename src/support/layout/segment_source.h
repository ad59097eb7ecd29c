// Sources of the public ranges, from a header of known byte order.

#pragma once

#include <crrecord/segments.h>

#include "support/layout/record_layout.h"

namespace crrecord {

// Returns: the source of a range over the record at `record`. `fields` is its header in host order, `order` the order
// of the record.
DOSegmentSource SegmentSourceOf(DORecordHeader const& fields, unsigned char const* record, Order order) noexcept;
DOUniqueDCIDSource UniqueSourceOf(DORecordHeader const& fields, unsigned char const* record) noexcept;

} // namespace crrecord
