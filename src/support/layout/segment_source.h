// The sources of the public ranges, for a header whose byte order is known.

#pragma once

#include <crrecord/segments.h>

#include "support/layout/record_layout.h"

namespace crrecord {

// What ranges over the record at `record` read. `fields` is its header in host order, `order` that of the record.
DOSegmentSource SegmentSourceOf(DORecordHeader const& fields, unsigned char const* record, Order order) noexcept;
DOUniqueDCIDSource UniqueSourceOf(DORecordHeader const& fields, unsigned char const* record) noexcept;

} // namespace crrecord
