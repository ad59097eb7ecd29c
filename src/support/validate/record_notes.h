// The notes on a DO record without errors: what this library would have written in another way.

#pragma once

#include "support/layout/record_layout.h"
#include "support/validate/finding_reporter.h"

namespace crrecord {

struct CheckedRecord {
    unsigned char const* bytes;
    DORecordHeader const& header; // in host order
    Order order;                  // of the bytes
    RecordLayout const& layout;   // ends with the bytes
};

// Reports the notes in the order of their codes.
void NoteOddities(CheckedRecord const& record, FindingReporter& reporter) noexcept;

// The checksum of a unique list, made while its count was in `countOrder`. That is host order, unless the list was
// appended to a record in network order.
std::uint32_t ListChecksum(unsigned char const* list, std::uint32_t count, Order countOrder) noexcept;

} // namespace crrecord
