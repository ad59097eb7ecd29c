// The segments of a DO record: where their entries are, and how a size and an offset are read.

#pragma once

#include <crrecord/segments.h>

#include "support/layout/record_layout.h"

namespace crrecord {

// The entries in their buffer, and the object that they make up.
struct SegmentList {
    unsigned char const* entries;
    std::uint32_t count;
    unsigned int stride;
    unsigned int sizeAt; // positions in an entry
    unsigned int offsetAt;
    unsigned int dotype;
    Order order; // of sizes and offsets
    bool subDO;  // sizes may reach 4 GiB - 1
    std::uint64_t objectSize;
    std::uint64_t ssize;
};

SegmentList SegmentListOf(DORecordHeader const* header, RecordLayout const& layout, Order order, bool subDO) noexcept;

// Values of segment i as the accessors of a record return them: in host order, or kNoSize, kNoOffset or
// kNoObjectOffset if the DO type stores none.
std::uint32_t SegmentSizeOf(SegmentList const& list, std::uint32_t i) noexcept;
std::uint64_t SegmentOffsetOf(SegmentList const& list, std::uint32_t i) noexcept;
std::uint32_t SegmentObjectOffsetOf(SegmentList const& list, std::uint32_t i) noexcept;

// What ranges over the record at `record` read. `fields` is its header in host order, `order` that of the record.
DOSegmentSource SegmentSourceOf(DORecordHeader const& fields, unsigned char const* record, Order order) noexcept;
DOUniqueDCIDSource UniqueSourceOf(DORecordHeader const& fields, unsigned char const* record) noexcept;

} // namespace crrecord
