// The findings for a faulty segment list, shared by the validators of records and of exchange forms.

#pragma once

#include "support/validate/finding_reporter.h"
#include "support/validate/segment_list_check.h"

namespace crrecord {

// Reports the fault, if there is one. `record` names the kind of buffer in the message; `entry` is the offset of the
// faulty segment, `objectSize` that of the object's size, in bytes from the start of the buffer.
void ReportSegmentFault(SegmentFault const& fault, char const* record, std::uint64_t entry, DOSegmentSource const& list,
                        std::uint64_t objectSize, FindingReporter& reporter) noexcept;

} // namespace crrecord
