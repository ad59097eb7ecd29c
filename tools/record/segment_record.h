// The table of segment records.

#pragma once

#include "io/output.h"
#include "io/record_stream.h"

#include <crrecord/SOmarshall.h>

#include <optional>
#include <span>

#include <fmt/format.h>

namespace crrecord::tool {

_SegmentDBRecord& AsSegmentRecord(Record const& record) noexcept;

// The table's rows, for valid records in host order.
void PrintSegmentHeading(Output& out, bool showKey);
void AppendSegmentRow(fmt::memory_buffer& to, Record const& record, bool showKey);

} // namespace crrecord::tool
