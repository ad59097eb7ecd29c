// The segments of records as rows of CSV.

#pragma once

#include "io/output.h"
#include "record/do_record.h"

namespace crrecord::tool {

inline constexpr char kSegmentCsvHead[] = "record,segment,fingerprint,size,offset,dcid\n";

// Prints a row for each segment of the range. The offset is the stored one, or the position for DO types without
// offsets. A bloom record has no segments.
void PrintObjectCsv(Output& out, Record const& record, DORecordView const& view, Range segments);

// Prints the row of a segment record, as it was read, with its first fingerprint, without index and offset. Without a
// fingerprint, or outside containers, that column is empty.
void PrintSegmentCsv(Output& out, Record const& record);

} // namespace crrecord::tool
