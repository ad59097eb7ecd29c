// What the tool knows of segment records.

#pragma once

#include "io/output.h"
#include "io/record_stream.h"

#include <crrecord/SOmarshall.h>

#include <optional>
#include <span>

#include <fmt/format.h>

namespace crrecord::tool {

// Brings the bytes of a valid record, which are still as they were found, into `order`.
void ConvertSegmentRecord(Record const& record, Order order) noexcept;

_SegmentDBRecord& AsSegmentRecord(Record const& record) noexcept;

// For valid records whose bytes were turned to host order: the rows of the table.
void PrintSegmentHeading(Output& out, bool showKey);
void AppendSegmentRow(fmt::memory_buffer& to, Record const& record, bool showKey);

} // namespace crrecord::tool
